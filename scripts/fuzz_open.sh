#!/usr/bin/env bash
# Builds the open binary map reader's fuzz target with clang (libFuzzer, AddressSanitizer,
# UndefinedBehaviorSanitizer) and runs it for a bounded time, 60 seconds unless given:
#     bash scripts/fuzz_open.sh [seconds]
# Seeds are written by the target itself: small maps of every field type, an empty one of
# dimension 6, a file cut inside its last element and a field text with faulty items.
set -euo pipefail
cd "$(dirname "$0")/.."
seconds=${1:-60}
build=build/fuzz-open
flags="-fsanitize=address,undefined -fno-sanitize-recover=undefined -fno-omit-frame-pointer -g -O1"

CC=clang CXX=clang++ cmake -S . -B "$build" -DCMAKE_BUILD_TYPE=Debug -DQV_TESTS=OFF \
  -DCMAKE_CXX_FLAGS="$flags -fsanitize=fuzzer-no-link" >/dev/null
cmake --build "$build" -j 2 --target qv_maps >/dev/null

# Libraries that the maps do not need may not have been built; link those that are there.
present=""
for lib in tool finalgather maps containers database serial runtime mem; do
  [ -f "$build/libqv_$lib.a" ] && present="$present $build/libqv_$lib.a"
done
clang++ -std=c++20 $flags -fsanitize=fuzzer -I. tests/fuzz/open_binary_header_fuzz.cpp \
  -Wl,--start-group $present -Wl,--end-group -lpthread -o "$build/open_binary_header_fuzz"

corpus="$build/corpus"
mkdir -p "$corpus"
QV_OPEN_FUZZ_SEEDS="$corpus" ASAN_OPTIONS=detect_leaks=0 "$build/open_binary_header_fuzz" >/dev/null 2>&1 || true

# Leaks are not what this run looks for: the map manager lives until the process ends. The
# malloc limit catches an allocation that the input's size does not explain.
ASAN_OPTIONS=detect_leaks=0 UBSAN_OPTIONS=print_stacktrace=1 \
  "$build/open_binary_header_fuzz" "$corpus" -max_total_time="$seconds" -max_len=4096 -timeout=10 \
  -rss_limit_mb=2048 -malloc_limit_mb=256 -print_final_stats=1 -artifact_prefix="$build/"
