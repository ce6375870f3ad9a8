#!/usr/bin/env bash
# Builds fg_splice and runs it verbosely on the sample map in examples/.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/deps.sh
cmake -S . -B build/release -DCMAKE_BUILD_TYPE=Release >/dev/null
cmake --build build/release -j "$(nproc)" --target fg_splice
out=$(mktemp -d)
set +e
./build/release/fg_splice -v examples/room_classic.fg examples/room_bigendian.fg "$out/room_copy.fgm"
rc=$?
set -e
echo "exit code: $rc"
ls -l "$out"
rm -rf "$out"
