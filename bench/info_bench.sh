#!/usr/bin/env bash
# fg_info against fg_splice on one generated room map: the summary and the picture of a map
# next to fg_splice copying the same map (to the current format), for a classic and a current
# input. Rows of one repeat run back to back, so that they share the machine's load; the
# figures are medians over REPEAT runs, and the ratios are to the copy of the same input.
#
#   REPEAT=3 bench/info_bench.sh [build_dir] [point count]
#       (defaults: build/rel, 10000000, REPEAT=3)
set -euo pipefail
cd "$(dirname "$0")/.."
build=${1:-build/rel}
count=${2:-10000000}
repeat=${REPEAT:-3}
for exe in fg_splice fg_info fg_make_room; do
  [ -x "$build/$exe" ] || { echo "build $build/$exe first" >&2; exit 1; }
done
work=$(mktemp -d "${TMPDIR:-/tmp}/fg_info_bench.XXXXXX")
trap 'rm -rf "$work"' EXIT

"$build/fg_make_room" -n "$count" "$work/room.fg" >/dev/null
"$build/fg_splice" "$work/room.fg" "$work/room.fgm"

# Prints the wall seconds of one run; a failing run is reported, as its time would mean nothing.
wall() {
  if ! /usr/bin/time -f "%e" -o "$work/time" "$@" >/dev/null 2>"$work/err"; then
    echo "failed: $*" >&2
    cat "$work/err" >&2
  fi
  tail -n 1 "$work/time"
}
median() { sort -g | awk '{ v[NR] = $1 } END { print v[int((NR + 1) / 2)] }'; }

echo "points: $count, repeats: $repeat, load before: $(cut -d' ' -f1-3 /proc/loadavg)"
printf "%-8s %-22s %10s %8s\n" input run "median s" ratio
for kind in fg fgm; do
  input="$work/room.$kind"
  : >"$work/copy"; : >"$work/summary"; : >"$work/png"
  for _ in $(seq "$repeat"); do
    rm -f "$work/copy.fgm"
    wall "$build/fg_splice" "$input" "$work/copy.fgm" >>"$work/copy"
    wall "$build/fg_info" "$input" >>"$work/summary"
    wall "$build/fg_info" --png "$work/room.png" "$input" >>"$work/png"
  done
  copy=$(median <"$work/copy")
  for row in copy summary png; do
    m=$(median <"$work/$row")
    printf "%-8s %-22s %10s %8s\n" "$kind" "$row" "$m" "$(awk -v a="$m" -v b="$copy" 'BEGIN { printf "%.2f", a / b }')"
  done
done
echo "load after: $(cut -d' ' -f1-3 /proc/loadavg)"
