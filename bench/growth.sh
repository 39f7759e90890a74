#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# How cost grows with flows, sources, rules and period passes, and what a flood costs under a memory budget.
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
. "$here/build.sh"

usage() {
    cat <<'TEXT'
bench/growth.sh [--markdown] [--build DIR] [--built]

Builds the release preset when needed, measures and prints one table a question. Two to five minutes behind the build.
  --markdown   also write them into docs/performance.md, between the markers of that section
  --build DIR  build directory (build/bench), made when it is not there
  --built      run what stands there, build nothing
TEXT
}

take_options "$@"

build=$(realpath -m "$build")
[ "$markdown" = no ] || has_section growth
[ "$built" = yes ] || build_programs "$build" bench_growth
load=$(cut -d' ' -f1-3 /proc/loadavg)
out=$(mktemp)
trap 'rm -f "$out"' EXIT
{
    machine "$build"
    echo
    "$build/bench_growth"
} | tee "$out"
[ "$markdown" = no ] || paste_section growth "$out"
