#!/usr/bin/env bash
# Installs every Debian package Tarnwick needs, then configures and builds.
# Safe to run again: packages already present are left alone.
set -euo pipefail

PACKAGES=(
  build-essential cmake ninja-build pkg-config git clang-format ccache
  qt6-base-dev qt6-httpserver-dev qt6-websockets-dev libqt6opengl6-dev
  libplist-dev libplist++-dev
  nlohmann-json3-dev zlib1g-dev
  libavformat-dev libavcodec-dev libavutil-dev
  libgtest-dev libgmock-dev googletest libbenchmark-dev
  iso-codes
  handbrake-cli ffmpeg dvdauthor atomicparsley mediainfo
  xz-utils
  xvfb xdotool x11-apps librsvg2-bin
)

missing=()
for p in "${PACKAGES[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done

if ((${#missing[@]})); then
  SUDO=""
  [[ $(id -u) -ne 0 ]] && SUDO="sudo"
  echo "setup: installing ${missing[*]}"
  $SUDO env DEBIAN_FRONTEND=noninteractive apt-get update -q
  $SUDO env DEBIAN_FRONTEND=noninteractive apt-get install -y -q --no-install-recommends "${missing[@]}"
fi

ROOT="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
BUILD="${TARNWICK_BUILD_DIR:-$ROOT/build}"
cmake -S "$ROOT" -B "$BUILD" -G Ninja -DCMAKE_BUILD_TYPE="${TARNWICK_BUILD_TYPE:-RelWithDebInfo}"
cmake --build "$BUILD" -j"$(nproc)"
