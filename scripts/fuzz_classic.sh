#!/usr/bin/env bash
# Builds the classic final-gather reader's fuzz target with clang (libFuzzer, AddressSanitizer,
# UndefinedBehaviorSanitizer) and runs it for a bounded time, 60 seconds unless given:
#     bash scripts/fuzz_classic.sh [seconds]
# Seeds are the sample maps and small generated ones of every byte order and version.
set -euo pipefail
cd "$(dirname "$0")/.."
seconds=${1:-60}
build=build/fuzz
flags="-fsanitize=address,undefined -fno-sanitize-recover=undefined -fno-omit-frame-pointer -g -O1"

CC=clang CXX=clang++ cmake -S . -B "$build" -DCMAKE_BUILD_TYPE=Debug -DQV_TESTS=OFF \
  -DCMAKE_CXX_FLAGS="$flags -fsanitize=fuzzer-no-link" >/dev/null
cmake --build "$build" -j 2 --target qv_finalgather qv_tool fg_make_room >/dev/null

libs=""
for lib in tool finalgather maps containers database serial runtime mem; do
  libs="$libs $build/libqv_$lib.a"
done
clang++ -std=c++20 $flags -fsanitize=fuzzer -I. tests/fuzz/classic_reader_fuzz.cpp \
  -Wl,--start-group $libs -Wl,--end-group -lpthread -o "$build/classic_reader_fuzz"

corpus="$build/corpus"
mkdir -p "$corpus"
cp examples/*.fg "$corpus/" 2>/dev/null || true
"$build/fg_make_room" -n 3 -s 1 "$corpus/small.fg" >/dev/null
"$build/fg_make_room" -n 3 -s 2 -e "$corpus/small_be.fg" >/dev/null
"$build/fg_make_room" -n 3 -s 3 -0 "$corpus/small_v0.fg" >/dev/null
"$build/fg_make_room" -n 0 -s 4 "$corpus/empty.fg" >/dev/null || true

# Leaks are not what this run looks for: the process ends with the database alive.
ASAN_OPTIONS=detect_leaks=0 UBSAN_OPTIONS=print_stacktrace=1 \
  "$build/classic_reader_fuzz" "$corpus" -max_total_time="$seconds" -max_len=2048 -timeout=10 \
  -rss_limit_mb=2048 -print_final_stats=1
