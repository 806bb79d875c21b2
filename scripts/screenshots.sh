#!/usr/bin/env bash
# Renders the main window in each function and every dialog to PNG files in
# build/screenshots/ (offscreen), for review.
set -euo pipefail
ROOT="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
BUILD="${TARNWICK_BUILD_DIR:-$ROOT/build}"
if [[ ! -f "$BUILD/build.ninja" && ! -f "$BUILD/Makefile" ]]; then
  cmake -S "$ROOT" -B "$BUILD" -G Ninja -DCMAKE_BUILD_TYPE="${TARNWICK_BUILD_TYPE:-RelWithDebInfo}"
fi
cmake --build "$BUILD" --target test_ui tarnwick-cli Tarnwick_Pro_Encoder -j"$(nproc)"
OUT="$BUILD/screenshots"
mkdir -p "$OUT"
TARNWICK_SCREENSHOT_DIR="$OUT" QT_QPA_PLATFORM=offscreen \
  "$BUILD/bin/test_ui" --gtest_filter='Screenshots.*' --gtest_brief=1
# The preferences, devices and genres panels.
TARNWICK_SCREENSHOT_DIR="$OUT" QT_QPA_PLATFORM=offscreen \
  "$BUILD/bin/test_ui" --gtest_filter='PanelScreenshots.*' --gtest_brief=1
# The search results panel, an editor with a real record, the movie's panels.
TARNWICK_SCREENSHOT_DIR="$OUT" QT_QPA_PLATFORM=offscreen \
  "$BUILD/bin/test_ui" --gtest_filter='EditorScreenshots.*' --gtest_brief=1
ls "$OUT"/*.png
