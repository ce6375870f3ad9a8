#!/usr/bin/env bash
# Builds everything and runs every test: in a Release build (each case alone under ctest, then
# each suite binary whole in a shuffled order), under AddressSanitizer and
# UndefinedBehaviorSanitizer, and the multi-thread suites under ThreadSanitizer.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/deps.sh
jobs=$(nproc)

cmake -S . -B build/release -DCMAKE_BUILD_TYPE=Release -DQV_BENCH=ON >/dev/null
cmake --build build/release -j "$jobs"
ctest --test-dir build/release -j "$jobs" --output-on-failure

# ctest runs each case in a process of its own, which hides faults that need two cases in one
# process; every suite binary also runs whole, in an order chosen by a seed that is printed so
# that a failure can be repeated.
seed=${QV_TEST_SEED:-$(( $(date +%s) % 100000 ))}
for suite in build/release/tests/test_*; do
  [ -x "$suite" ] || continue
  echo "shuffled run: $suite --gtest_shuffle --gtest_random_seed=$seed"
  "$suite" --gtest_shuffle --gtest_random_seed="$seed" --gtest_brief=1 >"$suite.shuffled.log" 2>&1 ||
    { tail -n 60 "$suite.shuffled.log"; echo "FAILED: $suite with seed $seed"; exit 1; }
done

cmake -S . -B build/sanitize -DCMAKE_BUILD_TYPE=Debug -DQV_SANITIZE=ON >/dev/null
cmake --build build/sanitize -j "$jobs"
ASAN_OPTIONS=detect_leaks=0 UBSAN_OPTIONS=print_stacktrace=1 \
  ctest --test-dir build/sanitize -j "$jobs" --output-on-failure

# The suites with lock-free and multi-thread code, whole, under ThreadSanitizer.
cmake -S . -B build/tsan -DCMAKE_BUILD_TYPE=RelWithDebInfo -DQV_TSAN=ON -DQV_BENCH=OFF >/dev/null
tsan_suites=(test_runtime test_maps test_database test_hostmsg test_mem test_containers)
cmake --build build/tsan -j "$jobs" --target "${tsan_suites[@]}"
for suite in "${tsan_suites[@]}"; do
  echo "thread sanitizer: $suite"
  TSAN_OPTIONS="halt_on_error=1 second_deadlock_stack=1 report_signal_unsafe=0" \
    "build/tsan/tests/$suite" --gtest_brief=1 >"build/tsan/$suite.log" 2>&1 ||
    { tail -n 80 "build/tsan/$suite.log"; echo "FAILED: $suite under ThreadSanitizer"; exit 1; }
done
echo "all suites passed: release, shuffled, address/undefined sanitizers, thread sanitizer"
