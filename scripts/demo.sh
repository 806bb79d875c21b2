#!/usr/bin/env bash
# The main job on a fresh machine: install, build, and run tarnwick-cli.
set -euo pipefail
ROOT="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
BUILD="${TARNWICK_BUILD_DIR:-$ROOT/build}"
"$ROOT/scripts/setup.sh"
CLI="$BUILD/bin/tarnwick-cli"
"$CLI" --version
"$CLI" name "The.Matrix.1999.1080p.mkv" "Ocean's 11.avi" "The_Lord_of_the_Rings_II" 2>/dev/null || true
