#!/usr/bin/env bash
# The installed copy on its own: `cmake --install` into a temporary prefix,
# then the installed tarnwick-cli scans and encodes a generated sample against
# the loopback movie database, finding its tools, codec module and resources
# from its own folder (nothing points it at the build tree).
#
#   tests/install/installed-copy.sh BUILD_DIR
set -euo pipefail

BUILD="$(cd "${1:?usage: installed-copy.sh BUILD_DIR}" && pwd)"
WORK="$(mktemp -d "${TMPDIR:-/tmp}/tarnwick-install.XXXXXX")"
SERVER_PID=""
cleanup() {
  if [[ -n "$SERVER_PID" ]]; then
    kill "$SERVER_PID" 2>/dev/null || true
    wait "$SERVER_PID" 2>/dev/null || true
  fi
  rm -rf "$WORK"
}
trap cleanup EXIT
fail() { echo "install test: $*" >&2; exit 1; }

PREFIX="$WORK/prefix"
cmake --install "$BUILD" --prefix "$PREFIX" >"$WORK/install.log" || { cat "$WORK/install.log" >&2; fail "cmake --install failed"; }

expected=(
  bin/tarnwick-cli
  libexec/tarnwick/Tarnwick_Pro_Encoder libexec/tarnwick/tarnwick-encoder-scan
  libexec/tarnwick/Tarnwick_Pro_Muxer libexec/tarnwick/libtarnwick_imagecodec.so
  share/tarnwick/Devices.plist share/tarnwick/ISO-639.plist share/tarnwick/MovieTicket.png
  share/applications/tarnwick.desktop share/icons/hicolor/scalable/apps/tarnwick.svg
  # What the Help menu opens.
  share/doc/tarnwick/README.md share/doc/tarnwick/FAQ.md share/doc/tarnwick/SUPPORT.md
  share/doc/tarnwick/FEATURES.md
)
# The artwork the window asks for by name.
for image in Aqua-Pause-icon Aqua-Play-icon Aqua-Stop-icon Actions-zoom-out-icon \
  Actions-page-zoom-icon Actions-document-open-icon Actions-edit-clear-icon warning-icon \
  Mode-Encode Mode-Retag Mode-Library Badge-Added Badge-Scanning Badge-Working Badge-Error \
  Badge-Done Tarnwick NoArtworkBackground PosterNotAvailable; do
  expected+=("share/tarnwick/$image.png")
done
[[ -x "$BUILD/bin/Tarnwick_Pro_Muxer_Demuxer" ]] && expected+=(libexec/tarnwick/Tarnwick_Pro_Muxer_Demuxer)
[[ -x "$BUILD/bin/tarnwick" ]] && expected+=(bin/tarnwick)
for size in 16 32 48 64 128 256; do
  expected+=("share/icons/hicolor/${size}x${size}/apps/tarnwick.png")
done
for file in "${expected[@]}"; do
  [[ -s "$PREFIX/$file" ]] || fail "not installed: $file"
done
if command -v desktop-file-validate >/dev/null; then
  desktop-file-validate "$PREFIX/share/applications/tarnwick.desktop" || fail "tarnwick.desktop is not valid"
fi

# A private home; nothing leads the programs back to the build tree.
export HOME="$WORK/home" XDG_CONFIG_HOME="$WORK/home/.config" XDG_DATA_HOME="$WORK/home/.local/share"
export XDG_CACHE_HOME="$WORK/home/.cache"
unset TARNWICK_SETTINGS TARNWICK_RESOURCES TARNWICK_LIBEXEC TARNWICK_HANDBRAKE
mkdir -p "$HOME" "$WORK/out"
export PATH="$PREFIX/bin:$PATH"

# The desktop application comes up on its own artwork and leaves after its
# first painted window.
if [[ -x "$PREFIX/bin/tarnwick" ]]; then
  QT_QPA_PLATFORM=offscreen TARNWICK_QUIT_AFTER_SHOW=1 XDG_RUNTIME_DIR="$WORK" \
    timeout 30 "$PREFIX/bin/tarnwick" >"$WORK/app.log" 2>&1 || { cat "$WORK/app.log" >&2; fail "the installed tarnwick did not show its window"; }
  ! grep -q "resource.*missing\|resource folder not found" "$WORK/app.log" || { cat "$WORK/app.log" >&2; fail "the installed tarnwick misses resources"; }
fi

SAMPLE="$WORK/The Lighthouse Keeper (2019).mkv"
ffmpeg -v error -nostdin -y -f lavfi -i "testsrc2=size=320x240:rate=25" \
  -f lavfi -i "sine=frequency=440:sample_rate=48000" -t 2 \
  -c:v libx264 -preset ultrafast -pix_fmt yuv420p -c:a aac -ac 2 \
  -metadata:s:a:0 language=eng "$SAMPLE"

"$BUILD/bin/tarnwick-tmdb-server" >"$WORK/server.url" 2>"$WORK/server.log" &
SERVER_PID=$!
for _ in $(seq 100); do
  [[ -s "$WORK/server.url" ]] && break
  kill -0 "$SERVER_PID" 2>/dev/null || break
  sleep 0.05
done
TARNWICK_TMDB_URL="$(head -n1 "$WORK/server.url" 2>/dev/null || true)"
[[ "$TARNWICK_TMDB_URL" == http://127.0.0.1:* ]] || { cat "$WORK/server.log" >&2; fail "the loopback movie database did not start"; }
export TARNWICK_TMDB_URL

scan="$(tarnwick-cli scan "$SAMPLE" --json 2>"$WORK/scan.log")" || { cat "$WORK/scan.log" >&2; fail "installed tarnwick-cli scan failed"; }
grep -q '"tmdbID": "100001"' <<<"$scan" || { printf '%s\n' "$scan" >&2; fail "scan did not match the sample"; }
grep -q "$PREFIX/libexec/tarnwick/Tarnwick_Pro_Encoder" <<<"$scan" || { printf '%s\n' "$scan" >&2; fail "scan did not run the installed encoder tool"; }

tarnwick-cli encode "$SAMPLE" --dest "$WORK/out" --yes >"$WORK/encode.log" 2>&1 || { cat "$WORK/encode.log" >&2; fail "installed tarnwick-cli encode failed"; }
MOVIE="$WORK/out/The Lighthouse Keeper.m4v"
[[ -s "$MOVIE" ]] || { cat "$WORK/encode.log" >&2; fail "no $MOVIE"; }
tags="$(AtomicParsley "$MOVIE" -t)"
grep -q 'Atom "©nam" contains: The Lighthouse Keeper' <<<"$tags" || { printf '%s\n' "$tags" >&2; fail "the encoded file has no title tag"; }
grep -q 'Atom "covr" contains: [1-9]' <<<"$tags" || { printf '%s\n' "$tags" >&2; fail "the encoded file has no cover art"; }
echo "install test: the installed copy in $PREFIX scanned and encoded $(basename "$SAMPLE")"
