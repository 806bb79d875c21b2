#!/usr/bin/env bash
# Start-up of the desktop application: `tarnwick` from launch to its first
# painted main window (TARNWICK_QUIT_AFTER_SHOW=1 makes it exit right after),
# against `tarnwick-cli --version`, best of N runs each, interleaved, on the
# offscreen platform and, when Xvfb is installed, on a virtual X display.
# The movie database points at a loopback port that accepts connections and
# never answers and counts the connections, so a start that waited on the
# network would show here. Wall and CPU times are both printed: on a busy
# machine the wall time stretches, the CPU time much less.
# Goal: the window in under 0.5 s.
#
#   bench/gui-startup.sh BUILD_DIR [RUNS]      (RUNS default 10)
#
# Settings live in a private home folder; the first start (which writes them)
# is timed on its own.
set -euo pipefail

if [[ $# -lt 1 ]]; then
  echo "usage: bench/gui-startup.sh BUILD_DIR [RUNS]" >&2
  exit 2
fi
BUILD="$(cd "$1" && pwd)"
RUNS="${2:-10}"
APP="$BUILD/bin/tarnwick"
CLI="$BUILD/bin/tarnwick-cli"
[[ -x "$APP" && -x "$CLI" ]] || { echo "build tarnwick and tarnwick-cli in $BUILD first" >&2; exit 1; }
command -v python3 >/dev/null || { echo "missing tool: python3" >&2; exit 1; }

WORK="$(mktemp -d "${TMPDIR:-/tmp}/tarnwick-gui-startup.XXXXXX")"
PIDS=()
cleanup() {
  for pid in "${PIDS[@]}"; do
    kill "$pid" 2>/dev/null || true
    wait "$pid" 2>/dev/null || true
  done
  rm -rf "$WORK"
}
trap cleanup EXIT
export HOME="$WORK/home" XDG_CONFIG_HOME="$WORK/home/.config" XDG_DATA_HOME="$WORK/home/.local/share"
export XDG_CACHE_HOME="$WORK/home/.cache" XDG_RUNTIME_DIR="$WORK/runtime"
unset TARNWICK_SETTINGS
mkdir -p "$HOME" "$XDG_RUNTIME_DIR"
chmod 700 "$XDG_RUNTIME_DIR"

# A movie database that takes every connection, notes it, and says nothing.
python3 -c '
import socket, sys
s = socket.socket()
s.bind(("127.0.0.1", 0))
s.listen(64)
print(s.getsockname()[1], flush=True)
held = []
with open(sys.argv[1], "a") as log:
    while True:
        held.append(s.accept()[0])
        print("connection", file=log, flush=True)
' "$WORK/silent.connections" >"$WORK/silent.port" &
PIDS+=($!)
for _ in $(seq 200); do
  [[ -s "$WORK/silent.port" ]] && break
  sleep 0.05
done
[[ -s "$WORK/silent.port" ]] || { echo "the silent movie database did not start" >&2; exit 1; }
export TARNWICK_TMDB_URL="http://127.0.0.1:$(head -n1 "$WORK/silent.port")"
echo "movie database: $TARNWICK_TMDB_URL (accepts, never answers)"

min() { awk -v a="$1" -v b="$2" 'BEGIN { print (a == "" || b < a) ? b : a }'; }

# Runs "$@" once; prints its wall time and its CPU time (user + system, which
# a busy machine does not stretch); fails when it fails or takes over 10 s.
timed() {
  local status=0 TIMEFORMAT='%R %U %S'
  { time timeout 10 "$@" >"$WORK/run.out" 2>&1 || status=$?; } 2>"$WORK/run.time"
  if ((status != 0)); then
    echo "  $* ended with status $status:" >&2
    sed 's/^/    /' "$WORK/run.out" >&2
    return 1
  fi
  awk '{ printf "%.3f %.3f\n", $1, $2 + $3 }' "$WORK/run.time"
}

# One platform: the first start, then best of RUNS for both programs.
measure() {
  local platform="$1" first best_app="" best_cli="" cpu_app="" cpu_cli="" t
  first=$(QT_QPA_PLATFORM="$platform" TARNWICK_QUIT_AFTER_SHOW=1 timed "$APP")
  for ((i = 0; i < RUNS; ++i)); do
    t=$(QT_QPA_PLATFORM="$platform" TARNWICK_QUIT_AFTER_SHOW=1 timed "$APP")
    best_app=$(min "$best_app" "${t% *}")
    cpu_app=$(min "$cpu_app" "${t#* }")
    t=$(timed "$CLI" --version)
    best_cli=$(min "$best_cli" "${t% *}")
    cpu_cli=$(min "$cpu_cli" "${t#* }")
  done
  printf '%-10s tarnwick to first window: best %s s, CPU %s s (first start %s s); tarnwick-cli --version: best %s s, CPU %s s\n' \
    "$platform" "$best_app" "$cpu_app" "${first% *}" "$best_cli" "$cpu_cli"
  awk -v a="$best_app" -v c="$best_cli" -v p="$platform" 'BEGIN {
    printf "%-10s window start-up costs %.3f s more than the CLI; goal under 0.5 s: %s\n",
      p, a - c, (a < 0.5) ? "met" : "NOT met" }'
}

report_connections() {
  local n=0
  [[ -f "$WORK/silent.connections" ]] && n=$(wc -l <"$WORK/silent.connections")
  echo "connections to the movie database during all these starts: $n"
}

echo "best of $RUNS runs each"
measure offscreen

if command -v Xvfb >/dev/null; then
  display=""
  for n in $(seq 90 110); do
    [[ -e "/tmp/.X11-unix/X$n" || -e "/tmp/.X$n-lock" ]] && continue
    display=":$n"
    break
  done
  if [[ -n "$display" ]]; then
    Xvfb "$display" -screen 0 1280x800x24 -nolisten tcp >"$WORK/xvfb.log" 2>&1 &
    PIDS+=($!)
    for _ in $(seq 100); do
      [[ -e "/tmp/.X11-unix/X${display#:}" ]] && break
      sleep 0.05
    done
    DISPLAY="$display" measure xcb
  fi
else
  echo "Xvfb not installed: the X display run is left out"
fi
report_connections
