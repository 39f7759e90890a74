#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# anti-cpu replay as a whole process, paired with a program that reads and writes the same packets and does nothing else.
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
. "$here/build.sh"
packets=1000000

usage() {
    cat <<'TEXT'
bench/replay.sh [--runs N] [--markdown] [--build DIR] [--built]

Replays 1,000,000 packets of each input, in turns with "tcpdump -r FILE -w /dev/null", and prints the smallest processor
and wall-clock times of N runs each, and their ratios.
  --runs N     runs of each program (9)
  --markdown   also write the table into docs/performance.md, between the markers of that section
  --build DIR  build directory (build/bench), made when it is not there
  --built      run what stands there, build nothing
TEXT
}

runs=9
own_option() {
    if [ "$1" = --runs ]; then runs=${2:?--runs needs a number}; taken=2; fi
}
take_options "$@"

command -v tcpdump >/dev/null || { echo 'replay.sh: skipped, tcpdump is not installed'; exit 0; }
build=$(realpath -m "$build")
[ "$markdown" = no ] || has_section replay
[ "$built" = yes ] || build_programs "$build" bench_capture anti-cpu
load=$(cut -d' ' -f1-3 /proc/loadavg)
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
chmod 755 "$work"  # tcpdump gives root's rights up

# "wall processor" seconds of a command, appended to file $1. A command that fails ends the script.
timed() {
    local file=$1 TIMEFORMAT='%R %U %S'
    shift
    { time "$@" >/dev/null 2>"$work/complaint"; } 2>"$work/time" || { cat "$work/complaint" >&2; return 1; }
    awk '{ print $1, $2 + $3 }' "$work/time" >>"$file"
}

# The smallest of column $2 of file $1.
smallest() { awk -v c="$2" 'NR == 1 || $c < min { min = $c } END { print min }' "$1"; }

measure() {
    local input run
    for input in one-flow mix half-mix sources; do
        "$build/bench_capture" "$input" "$packets" "$work/$input.pcap"
        for ((run = 0; run < runs; run++)); do
            timed "$work/$input.replay" "$build/anti-cpu" replay --quiet "$work/$input.pcap"
            timed "$work/$input.tcpdump" tcpdump -r "$work/$input.pcap" -w /dev/null
        done
        awk -v input="$input" -v wall="$(smallest "$work/$input.replay" 1)" -v cpu="$(smallest "$work/$input.replay" 2)" \
            -v other_wall="$(smallest "$work/$input.tcpdump" 1)" -v other_cpu="$(smallest "$work/$input.tcpdump" 2)" 'BEGIN {
            printf "| %-8s | %9.3f | %10.3f | %9.2f | %9.3f | %10.3f | %9.2f | %4s |\n", input,
                cpu, other_cpu, cpu / other_cpu, wall, other_wall, wall / other_wall, "1.00" }'
        rm "$work/$input.pcap"
    done
}

{
    machine "$build"
    echo "- $(tcpdump --version 2>&1 | head -2 | paste -sd, | sed 's/,/, /g'); $packets packets, smallest of $runs runs each"
    echo
    echo '| input    | replay, s |  tcpdump, s |  ratio | replay wall, s | tcpdump wall, s | wall ratio | goal |'
    echo '|:---------|----------:|------------:|-------:|---------------:|----------------:|-----------:|-----:|'
    measure
} | tee "$work/table"
[ "$markdown" = no ] || paste_section replay "$work/table"
