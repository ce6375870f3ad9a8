#!/usr/bin/env bash
# Builds the binary map file reader's fuzz target with clang (libFuzzer, AddressSanitizer,
# UndefinedBehaviorSanitizer) and runs it for a bounded time, 60 seconds unless given:
#     bash scripts/fuzz.sh [seconds]
# Seeds are written by the target itself: small and empty maps, one with a BVH, a file cut
# behind its last element, and the first bytes of the two open formats.
set -euo pipefail
cd "$(dirname "$0")/.."
seconds=${1:-60}
build=build/fuzz-mapfile
flags="-fsanitize=address,undefined -fno-sanitize-recover=undefined -fno-omit-frame-pointer -g -O1"

CC=clang CXX=clang++ cmake -S . -B "$build" -DCMAKE_BUILD_TYPE=Debug -DQV_TESTS=OFF \
  -DCMAKE_CXX_FLAGS="$flags -fsanitize=fuzzer-no-link" >/dev/null
cmake --build "$build" -j 2 --target qv_maps >/dev/null

libs=""
for lib in tool finalgather maps containers database serial runtime mem; do
  libs="$libs $build/libqv_$lib.a"
done
# Libraries that the maps do not need may not have been built; link those that are there.
present=""
for lib in $libs; do
  [ -f "$lib" ] && present="$present $lib"
done
clang++ -std=c++20 $flags -fsanitize=fuzzer -I. tests/fuzz/map_header_fuzz.cpp \
  -Wl,--start-group $present -Wl,--end-group -lpthread -o "$build/map_header_fuzz"

corpus="$build/corpus"
mkdir -p "$corpus"
QV_MAP_FUZZ_SEEDS="$corpus" ASAN_OPTIONS=detect_leaks=0 "$build/map_header_fuzz" >/dev/null 2>&1 || true

# Leaks are not what this run looks for: the map manager lives until the process ends.
ASAN_OPTIONS=detect_leaks=0 UBSAN_OPTIONS=print_stacktrace=1 \
  "$build/map_header_fuzz" "$corpus" -max_total_time="$seconds" -max_len=40000 -timeout=10 \
  -rss_limit_mb=2048 -print_final_stats=1 -artifact_prefix="$build/"
