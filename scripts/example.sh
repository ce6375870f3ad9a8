#!/usr/bin/env bash
# Builds fg_splice and runs it verbosely on the sample maps in examples/: two classic maps
# (one written in the foreign byte order) combined into a current map, then a box cut out of
# the current sample map, merged and written in the classic format. fg_info then shows what is
# in the sample maps: a summary with the first points, and a PLY cloud and a picture of one.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/deps.sh
cmake -S . -B build/release -DCMAKE_BUILD_TYPE=Release >/dev/null
cmake --build build/release -j "$(nproc)" --target fg_splice fg_make_room fg_info
out=$(mktemp -d)
trap 'rm -rf "$out"' EXIT
./build/release/fg_splice -v examples/room_classic.fg examples/room_bigendian.fg "$out/combined.fgm"
echo "exit code: $?"
./build/release/fg_splice -v -b 0 0 0 5 4 8 -f 0.05 -l on examples/room_current.fgm "$out/half_merged.fg"
echo "exit code: $?"
./build/release/fg_info -n 3 examples/room_bigendian.fg
./build/release/fg_info --ply "$out/room.ply" --png "$out/room.png" examples/room_current.fgm
echo "exit code: $?"
ls -l "$out"
