#!/usr/bin/env bash
# Whole-tool benchmark: runs the built fg_splice on generated room maps for a plain copy, a box,
# a merge and a classic output, and prints wall time, points per second and peak resident
# memory next to a user-space copy of the same input with dd (the floor of what a copy costs).
#
#   bench/tool_bench.sh [build_dir] [point counts...]     (default: build/release 1000000 10000000)
set -euo pipefail
cd "$(dirname "$0")/.."
build=${1:-build/release}
shift || true
counts=("$@")
[ ${#counts[@]} -gt 0 ] || counts=(1000000 10000000)
tool=$build/fg_splice
make_room=$build/fg_make_room
[ -x "$tool" ] && [ -x "$make_room" ] || { echo "build $tool and $make_room first" >&2; exit 1; }

work=$(mktemp -d "${TMPDIR:-/tmp}/fg_bench.XXXXXX")
trap 'rm -rf "$work"' EXIT

# Runs a command under /usr/bin/time; prints "wall_s peak_kb".
measure() {
  /usr/bin/time -f "%e %M" -o "$work/time" "$@" >/dev/null 2>"$work/err" || true
  cat "$work/time"
}

printf '%-10s %-22s %9s %14s %11s %13s\n' points case wall_s points_per_s peak_MB bytes_per_pt
for n in "${counts[@]}"; do
  classic=$work/room_$n.fg
  current=$work/room_$n.fgm
  "$make_room" -n "$n" "$classic"
  "$tool" "$classic" "$current"
  size=$(stat -c %s "$classic")

  row() {
    local name=$1; shift
    read -r wall peak_kb < <(measure "$@")
    awk -v n="$n" -v name="$name" -v w="$wall" -v k="$peak_kb" 'BEGIN {
      pps = (w > 0) ? n / w : 0;
      printf "%-10d %-22s %9.2f %14.0f %11.1f %13.1f\n", n, name, w, pps, k / 1024, k * 1024 / n }'
  }
  row "dd classic (floor)" dd if="$classic" of="$work/dd.out" bs=1M status=none
  row "copy classic->current" "$tool" "$classic" "$work/out.fgm"
  row "copy current->current" "$tool" "$current" "$work/out.fgm"
  row "box (half)" "$tool" -b 0 0 0 5 4 8 "$current" "$work/out.fgm"
  row "merge -f 0.01" "$tool" -f 0.01 "$current" "$work/out.fgm"
  row "classic out (-l on)" "$tool" -l on "$current" "$work/out.fg"
  rm -f "$classic" "$current" "$work"/out.* "$work/dd.out"
done
