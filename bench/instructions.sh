#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Instructions a packet under callgrind, of the module and of the floor under it. They do not depend on what else the
# machine does: the same binary gives the same number.
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
. "$here/build.sh"

usage() {
    cat <<'TEXT'
bench/instructions.sh [--rows] [--build DIR] [--built]

Counts the instructions of the packet path and of its floor (mutex, parser, four counters) for each input, from the
first instruction of the sending loop to the last, divided by the packets.
  --rows       print "input.figure instructions" lines instead of a table
  --build DIR  build directory (build/bench), made when it is not there
  --built      count what stands there, build nothing
TEXT
}

rows=no
own_option() {
    if [ "$1" = --rows ]; then rows=yes; taken=1; fi
}
take_options "$@"

build=$(realpath -m "$build")
command -v valgrind >/dev/null || { echo 'instructions.sh: valgrind is not installed' >&2; exit 1; }
[ "$built" = yes ] || build_programs "$build"
log=$(mktemp)
trap 'rm -f "$log"' EXIT

# Instructions a packet of input $1 through $2 (path or floor).
count() {
    valgrind --tool=callgrind --callgrind-out-file=/dev/null --collect-atstart=no \
        --toggle-collect=atc_bench_measured "$build/bench_instructions" "$1" "$2" >"$log" 2>&1 ||
        { cat "$log" >&2; return 1; }
    awk '$1 == "packets" { packets = $2 } $2 == "Collected" { collected = $4 }
        END { if (!packets || !collected) exit 1; printf "%.1f\n", collected / packets }' "$log" ||
        { echo "instructions.sh: callgrind counted nothing for $1 $2" >&2; cat "$log" >&2; return 1; }
}

[ "$rows" = yes ] || printf '%-10s %8s %8s %7s\n' input floor path ratio
for input in one-flow mix sources new-flow; do
    floor=$(count "$input" floor)
    path=$(count "$input" path)
    if [ "$rows" = yes ]; then
        printf '%s.floor-instructions %s\n%s.instructions %s\n' "$input" "$floor" "$input" "$path"
    else
        awk -v i="$input" -v f="$floor" -v p="$path" 'BEGIN { printf "%-10s %8.1f %8.1f %7.2f\n", i, f, p, p / f }'
    fi
done
