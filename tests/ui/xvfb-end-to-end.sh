#!/usr/bin/env bash
# The real tarnwick window under a virtual X server: a generated sample named
# on the command line, the loopback movie database, Start pressed from the
# keyboard, a screenshot while it converts, and a tagged .m4v at the end.
# Exit 77 (skipped) when Xvfb or xdotool is not installed.
set -euo pipefail

BUILD="$(cd "${1:?usage: xvfb-end-to-end.sh BUILD_DIR}" && pwd)"
for tool in Xvfb xdotool xwd ffmpeg HandBrakeCLI AtomicParsley; do
  if ! command -v "$tool" >/dev/null; then
    echo "xvfb-end-to-end: $tool is not installed; skipped"
    exit 77
  fi
done

WORK="$(mktemp -d "${TMPDIR:-/tmp}/tarnwick-xvfb.XXXXXX")"
OUT="$WORK/out"
SHOTS="$BUILD/screenshots"
mkdir -p "$OUT" "$SHOTS" "$WORK/home/Documents" "$WORK/tmp" "$WORK/runtime"
chmod 700 "$WORK/runtime"
XVFB_PID="" SERVER_PID="" APP_PID=""
cleanup() {
  for pid in $APP_PID $SERVER_PID $XVFB_PID; do
    kill "$pid" 2>/dev/null || true
    wait "$pid" 2>/dev/null || true
  done
  rm -rf "$WORK"
}
trap cleanup EXIT
fail() {
  echo "xvfb-end-to-end: $*" >&2
  [[ -f "$WORK/app.log" ]] && tail -n 30 "$WORK/app.log" >&2
  exit 1
}

export HOME="$WORK/home" XDG_CONFIG_HOME="$WORK/home/.config" TMPDIR="$WORK/tmp"
export XDG_RUNTIME_DIR="$WORK/runtime"
# The real window, whatever platform the caller chose for widget tests.
export QT_QPA_PLATFORM=xcb
export TARNWICK_RESOURCES="$BUILD/share/tarnwick" TARNWICK_LIBEXEC="$BUILD/bin"
unset TARNWICK_SETTINGS
CLI="$BUILD/bin/tarnwick-cli"

SAMPLE_DIR="$BUILD/test-media/ui"
SAMPLE="$SAMPLE_DIR/The Lighthouse Keeper (2019).mkv"
if [[ ! -s "$SAMPLE" ]]; then
  mkdir -p "$SAMPLE_DIR"
  ffmpeg -v error -nostdin -y -f lavfi -i "testsrc2=size=640x360:rate=25" \
    -f lavfi -i "sine=frequency=440:sample_rate=48000" -t 4 \
    -c:v libx264 -preset ultrafast -pix_fmt yuv420p -c:a aac -ac 2 \
    -metadata:s:a:0 language=eng "$SAMPLE_DIR/.making.mkv"
  mv "$SAMPLE_DIR/.making.mkv" "$SAMPLE"
fi

"$BUILD/bin/tarnwick-tmdb-server" >"$WORK/server.url" 2>"$WORK/server.log" &
SERVER_PID=$!
for _ in $(seq 100); do [[ -s "$WORK/server.url" ]] && break; sleep 0.05; done
TARNWICK_TMDB_URL="$(head -n1 "$WORK/server.url")"
[[ "$TARNWICK_TMDB_URL" == http://127.0.0.1:* ]] || fail "the loopback movie database did not start"
export TARNWICK_TMDB_URL

# Settings of a user who has been here before: presets current, no
# introduction, converted movies into $OUT.
"$CLI" settings set "Presets Current" "$("$CLI" settings get Presets)" >/dev/null
"$CLI" settings set "Update Presets" YES >/dev/null
"$CLI" settings set "Hide Instructions" YES >/dev/null
"$CLI" settings set "Primary Device" "SD 480p" >/dev/null
"$CLI" settings set "Destination Path Bookmark" "$OUT" >/dev/null

DISPLAY_NUMBER=$((90 + RANDOM % 400))
export DISPLAY=":$DISPLAY_NUMBER"
Xvfb "$DISPLAY" -screen 0 1280x800x24 -nolisten tcp >"$WORK/xvfb.log" 2>&1 &
XVFB_PID=$!
for _ in $(seq 100); do xdotool getdisplaygeometry >/dev/null 2>&1 && break; sleep 0.1; done
xdotool getdisplaygeometry >/dev/null 2>&1 || fail "Xvfb did not start"

scratch_before="$(ls "$TMPDIR")"
"$BUILD/bin/tarnwick" "$SAMPLE" >"$WORK/app.log" 2>&1 &
APP_PID=$!
WINDOW="$(timeout 60 xdotool search --sync --onlyvisible --name '^Tarnwick$' | head -n1)" ||
  fail "the main window did not appear"

key() {
  xdotool windowfocus --sync "$WINDOW" 2>/dev/null || true
  xdotool key --clearmodifiers "$@"
}

# Start (Ctrl+R) at once, before the scan and the match are done: the queue
# takes the movie when it becomes ready.
key ctrl+r
shot=""
movie=""
deadline=$((SECONDS + 300))
while ((SECONDS < deadline)); do
  kill -0 "$APP_PID" 2>/dev/null || fail "tarnwick ended early"
  movie="$(find "$OUT" -maxdepth 1 -name '*.m4v' | head -n1)"
  if [[ -n "$movie" && -z "$shot" ]]; then
    shot="$SHOTS/xvfb-converting.png"
    xwd -root -silent -out "$WORK/screen.xwd"
    ffmpeg -v error -nostdin -y -i "$WORK/screen.xwd" "$shot" || fail "cannot convert the screenshot"
  fi
  if [[ -n "$movie" ]] && AtomicParsley "$movie" -t 2>/dev/null | grep -q 'The Lighthouse Keeper'; then
    break
  fi
  sleep 1
done
[[ -n "$movie" ]] || fail "no .m4v was written"
AtomicParsley "$movie" -t | grep -q 'The Lighthouse Keeper' || fail "$movie is not tagged"
[[ -s "$shot" ]] || fail "no screenshot"

# Quit from the keyboard; the scratch folder goes with the application.
sleep 1
key ctrl+q
for _ in $(seq 300); do kill -0 "$APP_PID" 2>/dev/null || break; sleep 0.1; done
if kill -0 "$APP_PID" 2>/dev/null; then fail "tarnwick did not quit"; fi
wait "$APP_PID" || fail "tarnwick exited with status $?"
APP_PID=""
left="$(comm -13 <(printf '%s\n' "$scratch_before" | sort) <(ls "$TMPDIR" | sort))"
[[ -z "$left" ]] || fail "left behind in the scratch area: $left"

# SIGTERM in the middle of a conversion: the job stops without a question,
# no half-written movie, no scratch files and no tool outlive the program.
LONG="$SAMPLE_DIR/long/The Lighthouse Keeper (2019).mkv"
if [[ ! -s "$LONG" ]]; then
  mkdir -p "$SAMPLE_DIR/long"
  ffmpeg -v error -nostdin -y -f lavfi -i "testsrc2=size=640x360:rate=25" \
    -f lavfi -i "sine=frequency=440:sample_rate=48000" -t 120 \
    -c:v libx264 -preset ultrafast -pix_fmt yuv420p -c:a aac -ac 2 \
    -metadata:s:a:0 language=eng "$SAMPLE_DIR/long/.making.mkv"
  mv "$SAMPLE_DIR/long/.making.mkv" "$LONG"
fi
OUT2="$WORK/out2"
mkdir -p "$OUT2"
"$CLI" settings set "Destination Path Bookmark" "$OUT2" >/dev/null
"$BUILD/bin/tarnwick" "$LONG" >"$WORK/app2.log" 2>&1 &
APP_PID=$!
WINDOW="$(timeout 60 xdotool search --sync --onlyvisible --name '^Tarnwick$' | head -n1)" ||
  fail "the main window did not appear a second time"
key ctrl+r
for _ in $(seq 1200); do
  [[ -n "$(find "$OUT2" -maxdepth 1 -name '*.m4v' | head -n1)" ]] && break
  kill -0 "$APP_PID" 2>/dev/null || fail "tarnwick ended before converting"
  sleep 0.1
done
[[ -n "$(find "$OUT2" -maxdepth 1 -name '*.m4v' | head -n1)" ]] || fail "the second conversion did not start"
kill -TERM "$APP_PID"
for _ in $(seq 300); do kill -0 "$APP_PID" 2>/dev/null || break; sleep 0.1; done
if kill -0 "$APP_PID" 2>/dev/null; then fail "tarnwick did not end on SIGTERM"; fi
wait "$APP_PID" || fail "tarnwick exited with status $? on SIGTERM"
APP_PID=""
half="$(find "$OUT2" -mindepth 1 | head -n1)"
[[ -z "$half" ]] || fail "left behind after SIGTERM: $half"
left="$(comm -13 <(printf '%s\n' "$scratch_before" | sort) <(ls "$TMPDIR" | sort))"
[[ -z "$left" ]] || fail "left behind in the scratch area after SIGTERM: $left"
if pgrep -f "$SAMPLE_DIR/long/" >/dev/null; then fail "a tool outlived tarnwick after SIGTERM"; fi
echo "xvfb-end-to-end: $(basename "$movie") tagged; screenshot $shot; SIGTERM mid-conversion left nothing"
