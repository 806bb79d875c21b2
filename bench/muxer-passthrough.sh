#!/bin/bash
# Pass-through muxing benchmark: a ~2 GiB 1080p H.264 source in Matroska and
# a converted file with a stand-by video, tags, cover art and a freeform item.
# Times, in one run and with the source in the page cache:
#   - Tarnwick_Pro_Muxer -dest O -source T -video V -optimize
#   - ffmpeg -i V -i T -map 0:v -map 1:a -c copy -movflags +faststart out.mp4
#   - cp V copy.mkv
# and prints the ratios and whether T's tags, cover art and freeform item
# reached each output. Goal: muxer <= 1.2 x cp, and >= 1.5 x faster than ffmpeg.
#
#   bench/muxer-passthrough.sh [BUILD_DIR] [WORK_DIR]
#
# BUILD_DIR holds bin/Tarnwick_Pro_Muxer (default: build). Sources are cached
# in WORK_DIR (default: BUILD_DIR/bench-data/muxer); the run needs about 9 GB
# free there. The outputs are removed at the end; `--clean` as the only
# argument after them removes the cached sources too.
set -euo pipefail

build=$(realpath "${1:-build}")
work=${2:-$build/bench-data/muxer}
clean=${3:-}
muxer=$build/bin/Tarnwick_Pro_Muxer
target_bytes=$((2 * 1024 * 1024 * 1024))

for tool in ffmpeg HandBrakeCLI AtomicParsley; do
    command -v "$tool" >/dev/null || { echo "missing tool: $tool" >&2; exit 1; }
done
[ -x "$muxer" ] || { echo "build the Tarnwick_Pro_Muxer target first ($muxer)" >&2; exit 1; }
mkdir -p "$work"
cd "$work"

# --- sources (cached) ---------------------------------------------------------
if [ ! -f clip.mkv ]; then
    echo "encoding a 10 s 1080p clip..."
    ffmpeg -v error -y -f lavfi -i "testsrc2=size=1920x1080:rate=24000/1001:duration=10,noise=alls=12:allf=t" \
        -f lavfi -i "sine=frequency=440:duration=10" \
        -c:v libx264 -preset ultrafast -qp 8 -g 48 -c:a aac -b:a 160k -f matroska clip.part
    mv clip.part clip.mkv
fi
if [ ! -f source.mkv ]; then
    clip_bytes=$(stat -c %s clip.mkv)
    loops=$(((target_bytes + clip_bytes - 1) / clip_bytes - 1))
    echo "building a ~2 GiB source from $((loops + 1)) copies of the clip..."
    ffmpeg -v error -y -stream_loop "$loops" -i clip.mkv -map 0 -c copy -f matroska source.part
    mv source.part source.mkv
fi
if [ ! -f converted.m4v ]; then
    echo "making the converted file with a stand-by video (HandBrakeCLI)..."
    HandBrakeCLI -i source.mkv -o converted.part.m4v --encoder x264 --encoder-preset ultrafast \
        --encoder-profile high --vb 50 --format mp4 --width 80 --maxWidth 80 \
        --audio 1 --aencoder av_aac >/dev/null 2>&1
    ffmpeg -v error -y -f lavfi -i "testsrc=size=600x900" -frames:v 1 -c:v png -f image2 cover.png
    AtomicParsley converted.part.m4v --overWrite --title "Bench Movie" --genre Drama \
        --artwork cover.png \
        --rDNSatom '<?xml version="1.0" encoding="UTF-8"?><plist version="1.0"><dict><key>cast</key><array><dict><key>name</key><string>A. Actor</string></dict></array></dict></plist>' \
        name=iTunMOVI domain=com.apple.iTunes >/dev/null
    mv converted.part.m4v converted.m4v
fi

# --- the runs -----------------------------------------------------------------
rm -f O.m4v out.mp4 copy.mkv
cat source.mkv converted.m4v >/dev/null # same page-cache state for every contender
sync

seconds() {
    local start end
    start=$(date +%s.%N)
    "$@"
    end=$(date +%s.%N)
    sync
    echo "$end - $start" | bc -l
}

# Shared disks are noisy: every contender runs $rounds times, in turn, and
# its best time counts.
rounds=${ROUNDS:-3}
min() { if [ -z "$1" ] || (($(echo "$2 < $1" | bc -l))); then echo "$2"; else echo "$1"; fi; }
t_cp= t_ours= t_ffmpeg= all_cp= all_ours= all_ffmpeg=
for ((round = 1; round <= rounds; ++round)); do
    rm -f O.m4v out.mp4 copy.mkv
    sync
    t=$(seconds cp source.mkv copy.mkv)
    t_cp=$(min "$t_cp" "$t") all_cp+=" $t"
    t=$(seconds "$muxer" -dest O.m4v -source converted.m4v -video source.mkv -optimize 2>/dev/null)
    t_ours=$(min "$t_ours" "$t") all_ours+=" $t"
    t=$(seconds ffmpeg -v error -y -i source.mkv -i converted.m4v -map 0:v -map 1:a -c copy \
        -movflags +faststart out.mp4)
    t_ffmpeg=$(min "$t_ffmpeg" "$t") all_ffmpeg+=" $t"
done

carried() {
    local tags
    tags=$(AtomicParsley "$1" -t 2>/dev/null || true)
    local name=no cover=no free=no
    grep -q 'Bench Movie' <<<"$tags" && name=yes
    grep -q '"covr" contains: 1 piece of artwork' <<<"$tags" && cover=yes
    grep -q 'iTunMOVI' <<<"$tags" && free=yes
    echo "name=$name cover=$cover freeform=$free"
}

top_level() { python3 - "$1" <<'EOF'
import struct, sys, os
f = open(sys.argv[1], 'rb'); n = os.path.getsize(sys.argv[1]); p = 0; out = []
while p + 8 <= n:
    f.seek(p); s, t = struct.unpack('>I4s', f.read(8))
    if s == 1: s = struct.unpack('>Q', f.read(8))[0]
    if s == 0: s = n - p
    out.append(t.decode('latin1')); p += s
print(' '.join(out))
EOF
}

printf 'source:            %s bytes\n' "$(stat -c %s source.mkv)"
t_cp_best=$t_cp
times() { for t in $1; do printf '%.2f ' "$t"; done; }
printf 'runs (s):          cp: %s| muxer: %s| ffmpeg: %s\n' "$(times "$all_cp")" "$(times "$all_ours")" "$(times "$all_ffmpeg")"
printf 'cp:                 %.2f s\n' "$t_cp_best"
printf 'Tarnwick_Pro_Muxer: %.2f s  = %.2f x cp   [%s]  layout: %s\n' "$t_ours" \
    "$(echo "$t_ours / $t_cp_best" | bc -l)" "$(carried O.m4v)" "$(top_level O.m4v)"
printf 'ffmpeg +faststart:  %.2f s  = %.2f x cp   [%s]  layout: %s\n' "$t_ffmpeg" \
    "$(echo "$t_ffmpeg / $t_cp_best" | bc -l)" "$(carried out.mp4)" "$(top_level out.mp4)"
printf 'ffmpeg / muxer:     %.2f\n' "$(echo "$t_ffmpeg / $t_ours" | bc -l)"

rm -f O.m4v out.mp4 copy.mkv
if [ "$clean" = "--clean" ]; then
    rm -f clip.mkv source.mkv converted.m4v cover.png
fi
