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
# high load are worth running again. Every row also gives its wall time as a multiple of the dd
# row of the same size in the same run ("x dd"), and its peak memory as a multiple of the
# current map file's size ("x map"), so rows measured on different days compare by ratio.
#
# With the benchmark build's nanoflann_merge (built when the nanoflann header is installed) the
# merge rows are followed by the same merge done by that peer on the same file. SHA_FILE=path
# appends the SHA-256 of every output to that file, to check that two builds write the same
# bytes. BASELINE=build_dir runs that build's fg_splice right after every row of this one, on the
# same files under the same load, and prints the ratio of the two (this build / the baseline).
# Besides wall time, every row reports the CPU time (user + system), which a shared machine's
# load inflates far less than the wall time. ROWS=regex runs only the tool rows whose names match
# it (the dd row always runs), e.g. ROWS='copy|box' for the copies and the box.
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
peer=$build/bench/nanoflann_merge
[ -x "$peer" ] || peer=$build/nanoflann_merge
sha_file=${SHA_FILE:-}
base_tool=${BASELINE:+$BASELINE/fg_splice}
[ -x "$tool" ] && [ -x "$make_room" ] || { echo "build $tool and $make_room first" >&2; exit 1; }

work=$(mktemp -d "${TMPDIR:-/tmp}/fg_bench.XXXXXX")
trap 'rm -rf "$work"' EXIT

# Runs a command under /usr/bin/time; prints "wall_s peak_kb". A failing command is reported,
# as its figures would mean nothing.
measure() {
  if ! /usr/bin/time -f "%e %M %U %S" -o "$work/time" "$@" >/dev/null 2>"$work/err"; then
    echo "failed: $*" >&2
    cat "$work/err" >&2
  fi
  tail -n 1 "$work/time"
}

# Median of the numbers on standard input.
median() {
  sort -g | awk '{ v[NR] = $1 } END { print (NR % 2) ? v[(NR + 1) / 2] : (v[NR / 2] + v[NR / 2 + 1]) / 2 }'
}

printf '%-10s %-30s %9s %7s %7s %14s %11s %13s %7s\n' points case wall_s x_dd cpu_s points_per_s peak_MB bytes_per_pt x_map
for n in "${counts[@]}"; do
  classic=$work/room_$n.fg
  current=$work/room_$n.fgm
  "$make_room" -n "$n" "$classic"
  "$tool" "$classic" "$current"
  map_bytes=$(stat -c %s "$current")
  dd_wall=0
  distance=$(awk -v n="$n" -v k="$neighbours" -v a="$room_area" \
    'BEGIN { printf "%.5f", sqrt(k * a / (3.14159265 * n)) }')
  echo "# $n points: merge distance $distance (about $neighbours neighbours), $(uptime | sed 's/.*load/load/')"

  # row NAME OUTPUT COMMAND...: OUTPUT (or -) is the file whose digest goes to SHA_FILE.
  row() {
    local name=$1 output=$2; shift 2
    : >"$work/walls"
    : >"$work/peaks"
    : >"$work/cpus"
    for ((r = 0; r < repeat; ++r)); do
      read -r wall peak_kb user sys < <(measure "$@")
      echo "$wall" >>"$work/walls"
      echo "$peak_kb" >>"$work/peaks"
      awk -v u="$user" -v s="$sys" 'BEGIN { print u + s }' >>"$work/cpus"
    done
    wall=$(median <"$work/walls")
    peak_kb=$(median <"$work/peaks")
    cpu=$(median <"$work/cpus")
    awk -v n="$n" -v name="$name" -v w="$wall" -v k="$peak_kb" -v all="$(paste -sd/ "$work/walls")" \
        -v dd="$dd_wall" -v mb="$map_bytes" -v c="$cpu" 'BEGIN {
      pps = (w > 0) ? n / w : 0;
      xdd = (dd > 0) ? w / dd : 1;
      printf "%-10d %-30s %9.2f %7.1f %7.2f %14.0f %11.1f %13.1f %7.2f   (%s)\n", n, name, w, xdd, c, pps, k / 1024,
             k * 1024 / n, k * 1024 / mb, all }'
    if [ -n "$sha_file" ] && [ "$output" != - ]; then
      echo "$n $name $(sha256sum "$output" | cut -d' ' -f1)" >>"$sha_file"
    fi
    last_wall=$wall
    last_cpu=$cpu
  }
  # tool_row NAME OUTPUT ARGS...: this build's fg_splice, then the baseline's on the same files.
  tool_row() {
    local name=$1 output=$2; shift 2
    [[ -z "${ROWS:-}" || "$name" =~ $ROWS ]] || return 0
    row "$name" "$output" "$tool" "$@"
    [ -n "$base_tool" ] || return 0
    local wall_now=$last_wall cpu_now=$last_cpu
    row "  baseline: $name" "$output" "$base_tool" "$@"
    awk -v a="$wall_now" -v b="$last_wall" -v c="$cpu_now" -v d="$last_cpu" 'BEGIN {
      printf "#   this build / baseline: wall %.2f, cpu %.2f\n", (b > 0) ? a / b : 0, (d > 0) ? c / d : 0 }'
    last_wall=$wall_now
  }
  row "dd classic (floor)" - dd if="$classic" of="$work/dd.out" bs=1M status=none
  dd_wall=$last_wall
  tool_row "copy classic->current" "$work/out.fgm" "$classic" "$work/out.fgm"
  tool_row "copy current->current" "$work/out.fgm" "$current" "$work/out.fgm"
  tool_row "box (half) current" "$work/out.fgm" -b 0 0 0 5 4 8 "$current" "$work/out.fgm"
  tool_row "classic out (-l on) current" "$work/out.fg" -l on "$current" "$work/out.fg"
  tool_row "classic out (-l on) classic" "$work/out.fg" -l on "$classic" "$work/out.fg"
  tool_row "merge -f $distance current" "$work/out.fgm" -f "$distance" "$current" "$work/out.fgm"
  tool_row "merge classic -l on" "$work/out.fg" -l on -f "$distance" "$classic" "$work/out.fg"
  merge_wall=$last_wall
  if [ -x "$peer" ] && [[ -z "${ROWS:-}" || "merge" =~ $ROWS ]]; then
    row "peer nanoflann merge classic" - "$peer" "$distance" 5 "$classic" "$work/peer.out"
    awk -v a="$merge_wall" -v b="$last_wall" 'BEGIN { printf "# merge classic -l on is %.2f times faster than the peer\n", (a > 0) ? b / a : 0 }'
  fi
  echo "# after $n points: $(uptime | sed 's/.*load/load/')"
  rm -f "$classic" "$current" "$work"/out.* "$work/dd.out" "$work/peer.out"
done
