#!/usr/bin/env bash
# Orchestration overhead: the whole road of one movie through tarnwick-cli
# (start-up, scan through the encoder tool, parsing, command line, encode,
# tagging, summary) against bare HandBrakeCLI doing the same work by hand: a
# scan (--scan -t 0) and then the encode with the very arguments our encoder
# tool hands to HandBrakeCLI. Best of N runs each, interleaved.
# Goal: tarnwick-cli <= 1.05 x the bare tool (our own work < 50 ms a movie).
#
# On a busy machine the encode's own spread hides tens of milliseconds, so the
# orchestration is also timed alone: tarnwick-cli against a stand-in
# HandBrakeCLI that replays what the real one printed and wrote (scan report,
# progress, log, the encoded file), with the stand-in's own time taken off.
#
#   bench/orchestration.sh BUILD_DIR [RUNS]      (RUNS default 3)
#
# The 10 s sample is cached in BUILD_DIR/bench-data/orchestration; settings
# live in a private home folder for the run.
set -euo pipefail

if [[ $# -lt 1 ]]; then
  echo "usage: bench/orchestration.sh BUILD_DIR [RUNS]" >&2
  exit 2
fi
BUILD="$(cd "$1" && pwd)"
RUNS="${2:-3}"
CLI="$BUILD/bin/tarnwick-cli"
ENCODER="$BUILD/bin/Tarnwick_Pro_Encoder"
for tool in ffmpeg HandBrakeCLI; do
  command -v "$tool" >/dev/null || { echo "missing tool: $tool" >&2; exit 1; }
done
[[ -x "$CLI" && -x "$ENCODER" ]] || { echo "build tarnwick-cli and Tarnwick_Pro_Encoder in $BUILD first" >&2; exit 1; }
HANDBRAKE="$(command -v HandBrakeCLI)"

DATA="$BUILD/bench-data/orchestration"
SAMPLE="$DATA/Harbour Lights.mkv"
mkdir -p "$DATA"
if [[ ! -s "$SAMPLE" ]]; then
  echo "making a 10 s 640x360 sample..."
  ffmpeg -v error -nostdin -y -f lavfi -i "testsrc2=size=640x360:rate=25" \
    -f lavfi -i "sine=frequency=440:sample_rate=48000" -t 10 \
    -c:v libx264 -preset veryfast -pix_fmt yuv420p -c:a aac -ac 2 \
    -metadata:s:a:0 language=eng "$DATA/sample.part.mkv"
  mv "$DATA/sample.part.mkv" "$SAMPLE"
fi

WORK="$(mktemp -d "${TMPDIR:-/tmp}/tarnwick-bench.XXXXXX")"
trap 'rm -rf "$WORK"' EXIT
export HOME="$WORK/home" XDG_CONFIG_HOME="$WORK/home/.config" XDG_DATA_HOME="$WORK/home/.local/share"
export XDG_CACHE_HOME="$WORK/home/.cache"
unset TARNWICK_SETTINGS TARNWICK_HANDBRAKE
mkdir -p "$HOME" "$WORK/ours" "$WORK/bare"

# The encoder tool's command line for the sample, as `scan` prints it, run
# through the encoder tool with a stand-in HandBrakeCLI that only writes down
# the arguments it was given: that is exactly what the real one receives.
command_line="$("$CLI" scan "$SAMPLE" --skip-tagging | sed -n 's/^  command:    //p')"
[[ -n "$command_line" ]] || { echo "tarnwick-cli scan printed no command line" >&2; exit 1; }
eval "encoder_args=($command_line)"
cat >"$WORK/capture" <<EOF
#!/bin/sh
for a in "\$@"; do printf '%s\0' "\$a"; done >"$WORK/handbrake.args"
EOF
chmod +x "$WORK/capture"
TARNWICK_HANDBRAKE="$WORK/capture" "${encoder_args[@]}"
mapfile -d '' handbrake_args <"$WORK/handbrake.args"
# Our own output name goes out; the bare run writes into its own folder.
for i in "${!handbrake_args[@]}"; do
  if [[ "${handbrake_args[$i]}" == "--output" || "${handbrake_args[$i]}" == "-o" ]]; then
    handbrake_args[$((i + 1))]="$WORK/bare/Harbour Lights.m4v"
  fi
done
echo "HandBrakeCLI ${handbrake_args[*]}"

now() { date +%s.%N; }
elapsed() { awk -v a="$1" -v b="$2" 'BEGIN { printf "%.3f", b - a }'; }
min() { awk -v a="$1" -v b="$2" 'BEGIN { print (a == "" || b < a) ? b : a }'; }

# --- the stand-in: the real tool recorded once, then replayed --------------------
REC="$WORK/recorded"
mkdir -p "$REC"
stand_in() { # $1: record | replay
  cat <<'EOS'
#!/bin/sh
mode=encode; out=""; prev=""
for a in "$@"; do
  [ "$a" = "--scan" ] && mode=scan
  [ "$prev" = "--output" ] && out="$a"
  prev="$a"
done
EOS
  if [[ "$1" == record ]]; then
    printf '"$HANDBRAKE" "$@" >"$REC/$mode.out" 2>"$REC/$mode.err"; status=$?\n'
    printf '[ -n "$out" ] && cp "$out" "$REC/encoded.m4v"\n'
    printf 'cat "$REC/$mode.out"; cat "$REC/$mode.err" >&2\nexit $status\n'
  else
    printf 'cat "$REC/$mode.out"; cat "$REC/$mode.err" >&2\n'
    printf '[ -n "$out" ] && cp "$REC/encoded.m4v" "$out"\nexit 0\n'
  fi
}
stand_in record >"$WORK/record"
stand_in replay >"$WORK/replay"
chmod +x "$WORK/record" "$WORK/replay"
export HANDBRAKE REC
TARNWICK_HANDBRAKE="$WORK/record" "$CLI" encode "$SAMPLE" --skip-tagging --yes --dest "$WORK/ours" \
  >"$WORK/ours.log" 2>&1 || { cat "$WORK/ours.log" >&2; exit 1; }
[[ -s "$REC/encoded.m4v" && -s "$REC/scan.err" ]] || { echo "recording the tool failed" >&2; exit 1; }

best_ours=""
best_bare=""
best_alone=""
best_standin=""
bare_run() {
  t0=$(now)
  # No input: HandBrakeCLI polls an open standard input between status checks.
  "$HANDBRAKE" -i "$SAMPLE" -t 0 --scan </dev/null >/dev/null 2>&1
  "$HANDBRAKE" "${handbrake_args[@]}" </dev/null >/dev/null 2>&1
  t1=$(now)
  bare=$(elapsed "$t0" "$t1")
}
ours_run() {
  t0=$(now)
  "$CLI" encode "$SAMPLE" --skip-tagging --yes --dest "$WORK/ours" </dev/null >"$WORK/ours.log" 2>&1 ||
    { cat "$WORK/ours.log" >&2; exit 1; }
  t1=$(now)
  ours=$(elapsed "$t0" "$t1")
}
for run in $(seq "$RUNS"); do
  rm -f "$WORK"/ours/*.m4v "$WORK"/bare/*.m4v
  # Alternate which goes first: the second of two encodes in a row runs on
  # a warmer (or hotter) machine.
  if ((run % 2)); then bare_run; ours_run; else ours_run; bare_run; fi
  [[ -s "$WORK/ours/Harbour Lights.m4v" && -s "$WORK/bare/Harbour Lights.m4v" ]] ||
    { echo "run $run: an output is missing" >&2; exit 1; }

  rm -f "$WORK"/ours/*.m4v "$WORK"/bare/*.m4v
  t0=$(now)
  "$WORK/replay" -i "$SAMPLE" -t 0 --scan >/dev/null 2>&1
  "$WORK/replay" "${handbrake_args[@]}" >/dev/null 2>&1
  t1=$(now)
  standin=$(elapsed "$t0" "$t1")
  t0=$(now)
  TARNWICK_HANDBRAKE="$WORK/replay" "$CLI" encode "$SAMPLE" --skip-tagging --yes --dest "$WORK/ours" \
    >"$WORK/ours.log" 2>&1 || { cat "$WORK/ours.log" >&2; exit 1; }
  t1=$(now)
  alone=$(elapsed "$t0" "$t1")

  printf 'run %d: tarnwick-cli %ss, HandBrakeCLI scan + encode %ss; with the stand-in %ss, stand-in alone %ss\n' \
    "$run" "$ours" "$bare" "$alone" "$standin"
  best_ours=$(min "$best_ours" "$ours")
  best_bare=$(min "$best_bare" "$bare")
  best_alone=$(min "$best_alone" "$alone")
  best_standin=$(min "$best_standin" "$standin")
done

awk -v o="$best_ours" -v b="$best_bare" -v a="$best_alone" -v s="$best_standin" -v n="$RUNS" 'BEGIN {
  r = o / b
  printf "best of %d: tarnwick-cli encode %.3f s, bare HandBrakeCLI %.3f s\n", n, o, b
  printf "ratio %.3f (goal <= 1.05), difference %+.0f ms: %s\n", r, (o - b) * 1000, (r <= 1.05 ? "met" : "missed")
  printf "orchestration alone (start-up, scan relay and parsing, command line, tagging, exit): %.0f ms a movie (goal < 50 ms): %s\n",
    (a - s) * 1000, ((a - s) < 0.050 ? "met" : "missed")
}'
