#!/usr/bin/env bash
# Builds the host messaging fuzz target (the database's message handler and the welcome-message
# reader) with clang (libFuzzer, AddressSanitizer, UndefinedBehaviorSanitizer) and runs it for a
# bounded time, 60 seconds unless given:
#     bash scripts/fuzz_hostmsg.sh [seconds]
# Seeds are written by the target itself: a welcome message, a three-piece transfer and one
# message of every opcode.
set -euo pipefail
cd "$(dirname "$0")/.."
seconds=${1:-60}
build=build/fuzz-hostmsg
flags="-fsanitize=address,undefined -fno-sanitize-recover=undefined -fno-omit-frame-pointer -g -O1"

CC=clang CXX=clang++ cmake -S . -B "$build" -DCMAKE_BUILD_TYPE=Debug -DQV_TESTS=OFF \
  -DCMAKE_CXX_FLAGS="$flags -fsanitize=fuzzer-no-link" >/dev/null
cmake --build "$build" -j 2 --target qv_tool >/dev/null

libs=""
for lib in tool finalgather maps containers database serial runtime mem; do
  libs="$libs $build/libqv_$lib.a"
done
clang++ -std=c++20 $flags -fsanitize=fuzzer -I. tests/fuzz/hostmsg_fuzz.cpp \
  -Wl,--start-group $libs -Wl,--end-group -lpthread -o "$build/hostmsg_fuzz"

corpus="$build/corpus"
mkdir -p "$corpus"
QV_HOSTMSG_FUZZ_SEEDS="$corpus" ASAN_OPTIONS=detect_leaks=0 "$build/hostmsg_fuzz" >/dev/null 2>&1 || true

# Leaks are not what this run looks for: the database lives until the process ends.
ASAN_OPTIONS=detect_leaks=0 UBSAN_OPTIONS=print_stacktrace=1 \
  "$build/hostmsg_fuzz" "$corpus" -max_total_time="$seconds" -max_len=20000 -timeout=10 \
  -rss_limit_mb=2048 -malloc_limit_mb=512 -print_final_stats=1 -artifact_prefix="$build/"
