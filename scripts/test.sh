#!/usr/bin/env bash
# Installs what is missing, builds everything and runs the whole test suite.
set -euo pipefail
ROOT="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
BUILD="${TARNWICK_BUILD_DIR:-$ROOT/build}"
"$ROOT/scripts/setup.sh"
cd "$BUILD"
ctest --output-on-failure -j"$(nproc)" "$@"
