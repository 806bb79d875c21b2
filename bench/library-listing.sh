#!/bin/bash
# Library listing benchmark: the basic data of 2,000 tagged .m4v files read by
# our MP4 layer in one process (bench_library_listing basic), against
# `mediainfo` reading the same files 200 per process; prints both per-file
# costs and the ratio. Then lists 10,000 files through the library browser,
# genres grouped, and reports the time and how long the event loop paused.
#
#   bench/library-listing.sh [BUILD_DIR] [WORK_DIR]
#
# BUILD_DIR holds bin/bench_library_listing (default: build). The files are
# made in WORK_DIR (default: a temporary folder), about 40 MB at most, and
# removed at the end.
set -euo pipefail

build=$(realpath "${1:-build}")
bench=$build/bin/bench_library_listing
for tool in ffmpeg mediainfo; do
    command -v "$tool" >/dev/null || { echo "missing tool: $tool" >&2; exit 1; }
done
[ -x "$bench" ] || { echo "build the bench_library_listing target first ($bench)" >&2; exit 1; }
if [ -n "${2:-}" ]; then
    mkdir -p "$2"
    work=$(mktemp -d "$2/library-listing.XXXXXX")
else
    work=$(mktemp -d "${TMPDIR:-/tmp}/library-listing.XXXXXX")
fi
trap 'rm -rf "$work"' EXIT

now() { date +%s.%N; }

echo "making a tiny clip and 2,000 tagged copies in $work..."
ffmpeg -v error -y -f lavfi -i "testsrc=size=64x48:rate=10:duration=0.2" \
    -c:v libx264 -preset ultrafast -movflags +faststart -f mp4 "$work/clip.m4v"
"$bench" generate "$work/clip.m4v" "$work/m2000" 2000

echo "ours: readBasicDataFromFile, one process"
ours_line=$("$bench" basic "$work/m2000")
echo "  $ours_line"
ours_us=$(sed -E 's/.* ([0-9.]+) us per file/\1/' <<<"$ours_line")

echo "mediainfo: 200 files per process"
mapfile -t files < <(find "$work/m2000" -name '*.m4v' | sort)
start=$(now)
for ((i = 0; i < ${#files[@]}; i += 200)); do
    mediainfo "${files[@]:i:200}" >/dev/null
done
end=$(now)
mi_us=$(awk -v s="$start" -v e="$end" -v n="${#files[@]}" 'BEGIN { printf "%.1f", (e - s) * 1e6 / n }')
echo "  ${#files[@]} files in $(awk -v s="$start" -v e="$end" 'BEGIN { printf "%.3f", e - s }') s, $mi_us us per file"
awk -v o="$ours_us" -v m="$mi_us" 'BEGIN { printf "ratio: ours is %.1fx faster per file (goal: 20x)\n", m / o }'

rm -rf "$work/m2000"
echo "making 10,000 tagged copies..."
"$bench" generate "$work/clip.m4v" "$work/m10000" 10000
echo "library browser over 10,000 files"
echo "  $("$bench" browser "$work/m10000")"
