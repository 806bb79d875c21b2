#!/usr/bin/env bash
# Mutation sample of the test suite, one folder at a time, fixed seed.
#   tests/mutation.sh BUILD_DIR [GROUP...]   (run from the source root)
# Prints one block per group and a closing score line for each.
set -uo pipefail
B="${1:?usage: tests/mutation.sh BUILD_DIR [GROUP...]}"; shift
MUTANTS="${MUTANTS:-../shared/tools/mutants}"
SEED="${SEED:-1}"; COUNT="${COUNT:-10}"
ct() { echo "ctest --test-dir $B -j2 -E _asan --output-on-failure -L '$1'"; }
declare -A TARGET RUN FILES
TARGET[core]=test_core;            RUN[core]="$(ct '^core$')"
TARGET[media]=test_media;          RUN[media]="cmake --build $B --target test_scan >/dev/null && $(ct '^(media|scan)$')"
TARGET[metadata]=test_metadata;    RUN[metadata]="$(ct '^metadata$')"
TARGET[mp4]=test_mp4;              RUN[mp4]="$(ct '^mp4$')"
TARGET[lookup]=test_lookup;        RUN[lookup]="$(ct '^lookup$')"
TARGET[processing]=test_processing; RUN[processing]="$(ct '^processing$')"
TARGET[library]=test_library;      RUN[library]="cmake --build $B --target test_retag >/dev/null && $(ct '^(library|retag)$')"
TARGET[presets]=test_presets;      RUN[presets]="$(ct '^presets$')"
TARGET[encoder]=test_tools;        RUN[encoder]="cmake --build $B --target test_scan test_media >/dev/null && $(ct '^(tools|scan|media)$')"
TARGET[muxer]=test_muxer;          RUN[muxer]="$(ct '^muxer$')"
FILES[core]="core/*.cpp"; FILES[media]="media/*.cpp"; FILES[metadata]="metadata/*.cpp"
FILES[mp4]="mp4/*.cpp"; FILES[lookup]="lookup/*.cpp"; FILES[processing]="processing/*.cpp"
FILES[library]="library/*.cpp"; FILES[presets]="presets/*.cpp"
FILES[encoder]="tools/encoder/*.cpp tools/encoder/*/*.cpp"; FILES[muxer]="tools/muxer/*.cpp"
SEL=("$@"); [[ ${#SEL[@]} -eq 0 ]] && SEL=(core media metadata mp4 lookup processing library presets encoder muxer)
for g in "${SEL[@]}"; do
  echo "== $g"
  # shellcheck disable=SC2086
  "$MUTANTS" --build "$B" --target "${TARGET[$g]}" --run "${RUN[$g]}" \
    --files $(ls ${FILES[$g]}) --count "$COUNT" --seed "$SEED" --timeout 600
done
