#!/usr/bin/env bash
# The library grid of the desktop application with many movies: the library
# browser loads COUNT tagged .m4v files with covers into the grid the window
# uses (offscreen), which is then scrolled end to end a page a frame. Prints
# the time to the first painted grid, the longest main-thread stall while
# loading and while scrolling, and the resident memory.
# Goals: first grid under 1 s, no stall over 50 ms, under 400 MB.
#
#   bench/gui-library.sh BUILD_DIR [COUNT]      (COUNT default 10000)
#
# The library is made once and cached in BUILD_DIR/bench-data/gui-library-COUNT
# (about 15 MB per 1,000 movies); settings live in a private home folder.
set -euo pipefail

if [[ $# -lt 1 ]]; then
  echo "usage: bench/gui-library.sh BUILD_DIR [COUNT]" >&2
  exit 2
fi
BUILD="$(cd "$1" && pwd)"
COUNT="${2:-10000}"
BENCH="$BUILD/bin/bench_gui_library"
command -v ffmpeg >/dev/null || { echo "missing tool: ffmpeg" >&2; exit 1; }
[[ -x "$BENCH" ]] || { echo "build the bench_gui_library target first ($BENCH)" >&2; exit 1; }

DATA="$BUILD/bench-data/gui-library-$COUNT"
if [[ ! -s "$DATA/complete" ]]; then
  echo "making a library of $COUNT tagged movies with covers in $DATA (once)..."
  rm -rf "$DATA"
  mkdir -p "$DATA"
  ffmpeg -v error -nostdin -y -f lavfi -i "testsrc=size=64x48:rate=10:duration=0.2" \
    -c:v libx264 -preset ultrafast -movflags +faststart -f mp4 "$DATA/clip.m4v"
  "$BENCH" generate "$DATA/clip.m4v" "$DATA" "$COUNT"
  echo "$COUNT" >"$DATA/complete"
fi

WORK="$(mktemp -d "${TMPDIR:-/tmp}/tarnwick-gui-library.XXXXXX")"
trap 'rm -rf "$WORK"' EXIT
export HOME="$WORK/home" XDG_CONFIG_HOME="$WORK/home/.config" XDG_DATA_HOME="$WORK/home/.local/share"
export XDG_CACHE_HOME="$WORK/home/.cache" XDG_RUNTIME_DIR="$WORK/runtime"
unset TARNWICK_SETTINGS
mkdir -p "$HOME" "$XDG_RUNTIME_DIR"
chmod 700 "$XDG_RUNTIME_DIR"

echo "library grid over $DATA/Movies (offscreen, 1280x800)"
QT_QPA_PLATFORM=offscreen "$BENCH" grid "$DATA/Movies"
