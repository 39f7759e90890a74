#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Measures everything and prints it as one table. About three minutes behind the build.
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
. "$here/build.sh"

usage() {
    cat <<'TEXT'
bench/run.sh [--markdown] [--build DIR] [--built]

Builds the release preset when needed, measures times, instructions and bytes, and prints one table.
  --markdown   also write it into docs/performance.md, between its two markers
  --build DIR  build directory (build/bench), made when it is not there
  --built      measure what stands there, build nothing
TEXT
}

take_options "$@"

note() { echo "run.sh: $*" >&2; }

build=$(realpath -m "$build")
command -v valgrind >/dev/null || { note "valgrind is not installed"; exit 1; }
[ "$markdown" = no ] || has_section figures
[ "$built" = yes ] || { note 'building'; build_programs "$build"; }
load=$(cut -d' ' -f1-3 /proc/loadavg)
out=$(mktemp -d)
trap 'rm -rf "$out"' EXIT
{
    note 'packet path'
    "$build/bench_packet_path" --rows
    note 'evaluation'
    "$build/bench_evaluation" --rows
    note 'memory'
    "$build/bench_memory" --rows
    note 'instructions'
    "$here/instructions.sh" --rows --build "$build" --built
} >"$out/rows"
{
    machine "$build"
    echo
    awk -f "$here/table.awk" "$out/rows" "$here/figures.txt"
} >"$out/table"
cat "$out/table"

[ "$markdown" = no ] || paste_section figures "$out/table"
