#!/usr/bin/env bash
# Builds everything and runs every test twice: in a Release build, and under
# AddressSanitizer and UndefinedBehaviorSanitizer.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/deps.sh
jobs=$(nproc)

cmake -S . -B build/release -DCMAKE_BUILD_TYPE=Release -DQV_BENCH=ON >/dev/null
cmake --build build/release -j "$jobs"
ctest --test-dir build/release -j "$jobs" --output-on-failure

cmake -S . -B build/sanitize -DCMAKE_BUILD_TYPE=Debug -DQV_SANITIZE=ON >/dev/null
cmake --build build/sanitize -j "$jobs"
ASAN_OPTIONS=detect_leaks=0 UBSAN_OPTIONS=print_stacktrace=1 \
  ctest --test-dir build/sanitize -j "$jobs" --output-on-failure
