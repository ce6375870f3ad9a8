#!/usr/bin/env bash
# Whole-tool benchmark: runs the built fg_splice on generated room maps for a plain copy, a box,
# a merge and a classic output, and prints wall time, points per second and peak resident
# memory next to a user-space copy of the same input with dd (the floor of what a copy costs).
#
#   REPEAT=3 bench/tool_bench.sh [build_dir] [point counts...]
#       (defaults: build/toolbench, 1000000 10000000, REPEAT=1)
#
# Each row is run REPEAT times; wall time and peak memory are the medians. The machine is
# shared, so the load average is printed before and after each size: rows measured under a
# high load are worth running again.
#
# The merge distance follows the point density of the generated room, so that a point has about
# NEIGHBOURS others within it whatever the count: fg_make_room spreads the points evenly over
# 312 square metres of surface (floor, ceiling, four walls of a 10 x 4 x 8 room, three faces of
# a box), and on a surface of density rho a disc of radius d holds rho * pi * d^2 points.
set -euo pipefail
cd "$(dirname "$0")/.."
build=${1:-build/toolbench}
shift || true
counts=("$@")
[ ${#counts[@]} -gt 0 ] || counts=(1000000 10000000)
repeat=${REPEAT:-1}
neighbours=${NEIGHBOURS:-5}
room_area=312
tool=$build/fg_splice
make_room=$build/fg_make_room
[ -x "$tool" ] && [ -x "$make_room" ] || { echo "build $tool and $make_room first" >&2; exit 1; }

work=$(mktemp -d "${TMPDIR:-/tmp}/fg_bench.XXXXXX")
trap 'rm -rf "$work"' EXIT

# Runs a command under /usr/bin/time; prints "wall_s peak_kb". A failing command is reported,
# as its figures would mean nothing.
measure() {
  if ! /usr/bin/time -f "%e %M" -o "$work/time" "$@" >/dev/null 2>"$work/err"; then
    echo "failed: $*" >&2
    cat "$work/err" >&2
  fi
  tail -n 1 "$work/time"
}

# Median of the numbers on standard input.
median() {
  sort -g | awk '{ v[NR] = $1 } END { print (NR % 2) ? v[(NR + 1) / 2] : (v[NR / 2] + v[NR / 2 + 1]) / 2 }'
}

printf '%-10s %-24s %9s %14s %11s %13s\n' points case wall_s points_per_s peak_MB bytes_per_pt
for n in "${counts[@]}"; do
  classic=$work/room_$n.fg
  current=$work/room_$n.fgm
  "$make_room" -n "$n" "$classic"
  "$tool" "$classic" "$current"
  distance=$(awk -v n="$n" -v k="$neighbours" -v a="$room_area" \
    'BEGIN { printf "%.5f", sqrt(k * a / (3.14159265 * n)) }')
  echo "# $n points: merge distance $distance (about $neighbours neighbours), $(uptime | sed 's/.*load/load/')"

  row() {
    local name=$1; shift
    : >"$work/walls"
    : >"$work/peaks"
    for ((r = 0; r < repeat; ++r)); do
      read -r wall peak_kb < <(measure "$@")
      echo "$wall" >>"$work/walls"
      echo "$peak_kb" >>"$work/peaks"
    done
    wall=$(median <"$work/walls")
    peak_kb=$(median <"$work/peaks")
    awk -v n="$n" -v name="$name" -v w="$wall" -v k="$peak_kb" -v all="$(paste -sd/ "$work/walls")" 'BEGIN {
      pps = (w > 0) ? n / w : 0;
      printf "%-10d %-24s %9.2f %14.0f %11.1f %13.1f   (%s)\n", n, name, w, pps, k / 1024, k * 1024 / n, all }'
  }
  row "dd classic (floor)" dd if="$classic" of="$work/dd.out" bs=1M status=none
  row "copy classic->current" "$tool" "$classic" "$work/out.fgm"
  row "copy current->current" "$tool" "$current" "$work/out.fgm"
  row "box (half) current" "$tool" -b 0 0 0 5 4 8 "$current" "$work/out.fgm"
  row "merge -f $distance" "$tool" -f "$distance" "$current" "$work/out.fgm"
  row "classic out (-l on)" "$tool" -l on "$current" "$work/out.fg"
  echo "# after $n points: $(uptime | sed 's/.*load/load/')"
  rm -f "$classic" "$current" "$work"/out.* "$work/dd.out"
done
