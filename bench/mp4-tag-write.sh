#!/bin/bash
# Tag-write benchmark: 15 tags and a ~500 KB PNG cover written into a ~2 GiB
# MP4, once with moov after mdat and once with moov first, by our MP4 layer
# (bench_mp4_tagwrite) and by `AtomicParsley --overWrite` on copies of the
# same files. Prints both times, the ratio, and the bytes our write cost.
#
#   bench/mp4-tag-write.sh [BUILD_DIR] [WORK_DIR]
#
# BUILD_DIR holds bin/bench_mp4_tagwrite (default: build). The generated
# sources are cached in WORK_DIR (default: BUILD_DIR/bench-data/mp4); the
# run needs about 12 GB free there.
set -euo pipefail

build=$(realpath "${1:-build}")
work=${2:-$build/bench-data/mp4}
bench=$build/bin/bench_mp4_tagwrite
target_bytes=$((2 * 1024 * 1024 * 1024))

for tool in ffmpeg AtomicParsley python3; do
    command -v "$tool" >/dev/null || { echo "missing tool: $tool" >&2; exit 1; }
done
[ -x "$bench" ] || { echo "build the bench_mp4_tagwrite target first ($bench)" >&2; exit 1; }
mkdir -p "$work"
cd "$work"

# --- sources (cached) ---------------------------------------------------------
if [ ! -f clip.mp4 ]; then
    echo "encoding a 60 s clip..."
    ffmpeg -v error -y -f lavfi -i "testsrc2=size=640x360:rate=25:duration=60,noise=alls=3:allf=t" \
        -f lavfi -i "sine=frequency=440:duration=60" \
        -c:v libx264 -preset ultrafast -qp 14 -c:a aac -b:a 128k clip.part.mp4
    mv clip.part.mp4 clip.mp4
fi
if [ ! -f big-last.mp4 ]; then
    clip_bytes=$(stat -c %s clip.mp4)
    loops=$(( (target_bytes + clip_bytes - 1) / clip_bytes - 1 ))
    echo "building a ~2 GiB file from $((loops + 1)) copies of the clip (moov last)..."
    ffmpeg -v error -y -stream_loop "$loops" -i clip.mp4 -c copy -map 0 big-last.part.mp4
    mv big-last.part.mp4 big-last.mp4
fi
if [ ! -f big-first.mp4 ]; then
    echo "making the moov-first variant..."
    ffmpeg -v error -y -i big-last.mp4 -c copy -map 0 -movflags +faststart big-first.part.mp4
    mv big-first.part.mp4 big-first.mp4
fi
if [ ! -f cover.png ]; then
    # Noise does not compress: 420x420 RGB is about 520 KB of PNG.
    ffmpeg -v error -y -f lavfi -i "color=gray:size=420x420,noise=alls=100:allf=t+u" \
        -frames:v 1 -c:v png -f image2 -update 1 cover.part.png
    mv cover.part.png cover.png
fi

echo "file sizes: moov-last $(stat -c %s big-last.mp4) B, moov-first $(stat -c %s big-first.mp4) B, cover $(stat -c %s cover.png) B"

# --- runs -----------------------------------------------------------------------
now() { date +%s.%N; }

run_case() {
    local label=$1 source=$2
    cp "$source" "ours-$label.mp4"
    cp "$source" "ap-$label.mp4"
    sync

    local ours
    ours=$("$bench" "ours-$label.mp4" cover.png)
    local start mid end
    start=$(now)
    AtomicParsley "ap-$label.mp4" --overWrite --artwork cover.png \
        --title "Benchmark Movie" --artist "Director Name" --albumArtist "Studio Name" \
        --album "Collection" --genre "Drama" --year "2024-05-17" --comment "Tagged by the benchmark" \
        --description "A short description of the movie." --longdesc "$(printf 'x%.0s' $(seq 1500))" \
        --TVShowName "Show" --TVNetwork "Network" --TVSeasonNum 2 --TVEpisodeNum 7 \
        --stik Movie --copyright "(c) Nobody" >/dev/null
    mid=$(now)
    sync -f "ap-$label.mp4"  # ours syncs before it returns; count AtomicParsley's flush too
    end=$(now)

    # Both results must still play.
    for f in "ours-$label.mp4" "ap-$label.mp4"; do
        ffmpeg -v error -i "$f" -map 0:v:0 -map 0:a -c copy -f null - || { echo "$f does not play" >&2; exit 1; }
    done
    python3 - "$label" "$ours" "$start" "$mid" "$end" <<'PY'
import sys
label, ours = sys.argv[1], sys.argv[2]
start, mid, end = (float(x) for x in sys.argv[3:6])
f = dict(kv.split("=") for kv in ours.split())
t_ours, t_ap, t_ap_flushed = float(f["seconds"]), mid - start, end - start
moov, wchar = int(f["moov"]), int(f["wchar"])
print(f"{label:10s}  ours {t_ours*1000:9.2f} ms   AtomicParsley {t_ap*1000:9.1f} ms "
      f"({t_ap_flushed*1000:.1f} ms with its flush)   ratio {t_ap/t_ours:8.1f}x "
      f"({t_ap_flushed/t_ours:.1f}x)")
print(f"{'':10s}  our bytes written: {wchar} (write calls), {f['write_bytes']} (to storage); "
      f"file size change {f['size_change']}; moov {moov}; "
      f"budget moov+64KiB {'met' if wchar <= moov + 65536 else 'EXCEEDED'}")
PY
    rm -f "ours-$label.mp4" "ap-$label.mp4"
}

run_case moov-last big-last.mp4
run_case moov-first big-first.mp4
