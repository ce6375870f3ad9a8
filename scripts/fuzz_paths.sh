#!/usr/bin/env bash
# Builds the fuzz targets of path substitution and registry expansion with clang (libFuzzer,
# AddressSanitizer, UndefinedBehaviorSanitizer) and runs each for a bounded time, 60 seconds
# unless given:
#     bash scripts/fuzz_paths.sh [seconds-per-target]
set -euo pipefail
cd "$(dirname "$0")/.."
seconds=${1:-60}
build=build/fuzz-paths
flags="-fsanitize=address,undefined -fno-sanitize-recover=undefined -fno-omit-frame-pointer -g -O1"

CC=clang CXX=clang++ cmake -S . -B "$build" -DCMAKE_BUILD_TYPE=Debug -DQV_TESTS=OFF \
  -DCMAKE_CXX_FLAGS="$flags -fsanitize=fuzzer-no-link" >/dev/null
cmake --build "$build" -j 2 --target qv_runtime qv_mem >/dev/null

# The runtime reaches into the other libraries (the host layer's registration, the map cache);
# link whichever of them the build left, inside one group.
libs=""
for lib in tool finalgather maps containers database serial runtime mem; do
  [ -f "$build/libqv_$lib.a" ] && libs="$libs $build/libqv_$lib.a"
done

esc=$(printf '\033')
for target in path_substitute_fuzz registry_expand_fuzz; do
  clang++ -std=c++20 $flags -fsanitize=fuzzer -I. "tests/fuzz/$target.cpp" \
    -Wl,--start-group $libs -Wl,--end-group -lpthread -o "$build/$target"
  corpus="$build/corpus-$target"
  mkdir -p "$corpus"
done

# Seeds: rule texts with anchors, ranges, escapes and variables; registry texts with braces.
seed() { printf '%b' "$2" >"$build/corpus-$1/$3"; }
seed path_substitute_fuzz '\x00\x04/.so$/.dll/ |^/a/|/b/|\x00val\x00/a/libx.so' rules
seed path_substitute_fuzz '\x10\x00/[a-zz]/X/ /a'"$esc"'/b/c/\x00v\x00${QVF_V}/$?HOME/a/b' ranges
seed path_substitute_fuzz '\xff\x07\x00\x00{r}/$QVF_V/{loop}' registry
seed registry_expand_fuzz 'a\x00A\x00b\x00{a}{a}\x00x{{{b}}}{$QVF_E}' braces
seed registry_expand_fuzz 's\x00{s}\x00e\x00\x01{e}\x00{s}{e}' recursion

for target in path_substitute_fuzz registry_expand_fuzz; do
  ASAN_OPTIONS=detect_leaks=0 UBSAN_OPTIONS=print_stacktrace=1 \
    "$build/$target" "$build/corpus-$target" -max_total_time="$seconds" -max_len=4096 -timeout=10 \
    -rss_limit_mb=2048 -print_final_stats=1 -artifact_prefix="$build/$target-"
done
