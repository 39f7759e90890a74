#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# What a packet waits for while passes, sweeps, clears and reports run: a table, and a picture of it.
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
. "$here/build.sh"

usage() {
    cat <<'TEXT'
bench/waits.sh [--markdown] [--quick] [--build DIR] [--built]

Builds the release preset when needed, measures five times and prints a table; two minutes behind the build. Wants two
idle cores. What disturbs a run (an interrupt, the host of a virtual machine) adds to its figures, so of each figure the
smallest of the five stands.
  --markdown   also write it into docs/performance.md, between its two markers, and the picture docs/waits.svg
  --quick      at 10,000 flows only
  --build DIR  build directory (build/bench), made when it is not there
  --built      measure with what stands there, build nothing
TEXT
}

quick=()
own_option() {
    if [ "$1" = --quick ]; then quick=(--quick); taken=1; fi
}
take_options "$@"

[ "$markdown" = no ] || has_section waits
[ "$built" = yes ] || build_programs "$build" bench_waits
load=$(cut -d' ' -f1-3 /proc/loadavg)
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
for run in 1 2 3 4 5; do
    echo "run $run of 5" >&2
    "$build/bench_waits" --rows "${quick[@]}"
done >"$work/runs"
awk -F'|' -v OFS='|' '{ key = $1 OFS $2 OFS $3 }
    !(key in least) { order[++rows] = key; least[key] = $4 }
    $4 + 0 < least[key] + 0 { least[key] = $4 }
    END { for (i = 1; i <= rows; ++i) print order[i], least[order[i]] }' "$work/runs" >"$work/rows"
{
    machine "$build"
    echo
    awk -F'|' '
        !header++ {
            print "| while | flows | p50, us | p99 | p99.9 | p99.999 | longest | over 50 us, a second | hold p99 | longest hold |"
            print "|:------|------:|--------:|----:|------:|--------:|--------:|---------------------:|---------:|-------------:|"
        }
        $3 == "p50" { printf "| %s | %d |", $1, $2 }
        { printf " %s |", $4 }
        $3 == "held" { print "" }' "$work/rows"
} >"$work/table"
cat "$work/table"
if [ "$markdown" = yes ]; then
    paste_section waits "$work/table"
    awk -F'|' -f "$here/waits_picture.awk" "$work/rows" >"$bench_root/docs/waits.svg"
    echo 'written to docs/waits.svg' >&2
fi
