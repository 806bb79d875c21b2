#!/usr/bin/env bash
# The main job on a fresh machine, offline: install and build (setup.sh), make
# a 10 s sample movie, serve the movie database on loopback, turn the sample
# into a tagged .m4v with `tarnwick-cli encode`, and show the file's tags.
#
#   scripts/demo.sh            (TARNWICK_BUILD_DIR: build folder, default build/)
#
# The run uses a private home folder, so the user's settings and presets are
# not touched. Running it again replaces the output; the sample is kept.
set -euo pipefail

ROOT="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
BUILD="${TARNWICK_BUILD_DIR:-$ROOT/build}"
"$ROOT/scripts/setup.sh"

BUILD="$(cd "$BUILD" && pwd)"
CLI="$BUILD/bin/tarnwick-cli"
SERVER="$BUILD/bin/tarnwick-tmdb-server"
WORK="$BUILD/demo"
OUT="$BUILD/demo-output"
NAME="The Lighthouse Keeper"
SAMPLE="$WORK/$NAME (2019).mkv"
MOVIE="$OUT/$NAME.m4v"
mkdir -p "$WORK" "$OUT"

# --- the sample: named after the loopback database's record -------------------
if [[ ! -s "$SAMPLE" ]]; then
  echo "demo: making the sample movie $SAMPLE"
  part="$WORK/sample.part"
  rm -rf "$part" && mkdir -p "$part"
  printf '1\n00:00:01,000 --> 00:00:04,000\nThe lamp must never go out.\n\n2\n00:00:05,000 --> 00:00:08,000\nShips are counting on us.\n' \
    >"$part/en.srt"
  ffmpeg -v error -nostdin -y \
    -f lavfi -i "testsrc2=size=1280x720:rate=25" \
    -f lavfi -i "sine=frequency=440:sample_rate=48000" \
    -i "$part/en.srt" \
    -t 10 -map 0:v -map 1:a -map 2:s \
    -c:v libx264 -preset veryfast -pix_fmt yuv420p \
    -c:a aac -ac 2 -c:s srt \
    -metadata:s:a:0 language=eng -metadata:s:s:0 language=eng \
    "$part/sample.mkv"
  mv "$part/sample.mkv" "$SAMPLE"
  rm -rf "$part"
fi

# --- a private home, and the movie database on a free loopback port ------------
DEMO_HOME="$(mktemp -d "${TMPDIR:-/tmp}/tarnwick-demo-home.XXXXXX")"
SERVER_PID=""
cleanup() {
  if [[ -n "$SERVER_PID" ]]; then
    kill "$SERVER_PID" 2>/dev/null || true
    wait "$SERVER_PID" 2>/dev/null || true
  fi
  rm -rf "$DEMO_HOME"
}
trap cleanup EXIT
trap 'exit 130' INT
trap 'exit 143' TERM
export HOME="$DEMO_HOME"
export XDG_CONFIG_HOME="$DEMO_HOME/.config" XDG_DATA_HOME="$DEMO_HOME/.local/share"
export XDG_CACHE_HOME="$DEMO_HOME/.cache"
unset TARNWICK_SETTINGS

"$SERVER" >"$DEMO_HOME/server.url" 2>"$DEMO_HOME/server.log" &
SERVER_PID=$!
for _ in $(seq 100); do
  [[ -s "$DEMO_HOME/server.url" ]] && break
  kill -0 "$SERVER_PID" 2>/dev/null || break
  sleep 0.05
done
TARNWICK_TMDB_URL="$(head -n1 "$DEMO_HOME/server.url" 2>/dev/null || true)"
if [[ "$TARNWICK_TMDB_URL" != http://127.0.0.1:* ]]; then
  echo "demo: the loopback movie database did not start:" >&2
  cat "$DEMO_HOME/server.log" >&2
  exit 1
fi
export TARNWICK_TMDB_URL
echo "demo: movie database at $TARNWICK_TMDB_URL"

# --- the main job --------------------------------------------------------------
rm -f "$MOVIE"
"$CLI" --version
"$CLI" encode "$SAMPLE" --dest "$OUT" --yes

# --- what the file carries ------------------------------------------------------
tags="$(AtomicParsley "$MOVIE" -t)"
echo
echo "demo: tags of $MOVIE (AtomicParsley -t)"
printf '%s\n' "$tags"
echo
echo "demo: tracks (ffprobe; the name is the handler name)"
tracks="$(ffprobe -v error -show_entries stream=index,codec_type,codec_name:stream_tags=language,handler_name \
  -of compact=p=0 "$MOVIE")"
printf '%s\n' "$tracks"

missing=()
grep -q 'Atom "covr" contains: [1-9]' <<<"$tags" || missing+=("cover art")
grep -q 'iTunEXTC\] contains: .*|.*|' <<<"$tags" || missing+=("rating")
grep -q '<key>cast</key>' <<<"$tags" || missing+=("cast")
grep -q 'Atom "©gen" contains: [[:alpha:]]' <<<"$tags" || missing+=("genre")
grep -q 'codec_type=audio.*language=eng.*handler_name=English' <<<"$tracks" || missing+=("audio track name")
grep -q 'codec_type=subtitle.*language=eng.*handler_name=English' <<<"$tracks" || missing+=("subtitle track name")
if ((${#missing[@]})); then
  echo "demo: missing in $MOVIE: ${missing[*]}" >&2
  exit 1
fi
echo
echo "demo: done: $MOVIE carries cover art, rating, cast, genre and track names."
