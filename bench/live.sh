#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# What the live card costs a frame, beside a bare stack, a plain XDP drop and nft rules, and what it costs the process.
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
. "$here/build.sh"

usage() {
    cat <<'TEXT'
bench/live.sh [--markdown] [--build DIR] [--built]

Builds the release preset when needed, measures in a network namespace of its own and prints two tables; some ten seconds
behind the build. Wants root, a kernel that takes the program, and nft.
  --markdown   also write them into docs/performance.md, between the markers of that section
  --build DIR  build directory (build/bench), made when it is not there
  --built      run what stands there, build nothing
TEXT
}

take_options "$@"

PATH=$PATH:/usr/sbin:/sbin
for tool in nft ip unshare; do
    command -v $tool >/dev/null || { echo "live.sh: skipped, $tool is not installed"; exit 0; }
done
[ "$(id -u)" = 0 ] || { echo 'live.sh: skipped, it takes root'; exit 0; }
build=$(realpath -m "$build")
[ "$markdown" = no ] || has_section live
[ "$built" = yes ] || build_programs "$build" bench_live
load=$(cut -d' ' -f1-3 /proc/loadavg)
out=$(mktemp)
trap 'rm -f "$out"' EXIT
{
    machine "$build"
    echo
    # A veth pair, for its driver takes XDP programs; nothing is sent through it.
    unshare --net sh -e -c '
        ip link add bench0 type veth peer name bench1
        ip link set bench0 address 02:00:00:00:00:01 up
        ip link set bench1 up
        ip address add 10.0.0.1/24 dev bench0
        exec "$0" bench0' "$build/bench_live"
} | tee "$out"
[ "$markdown" = no ] || paste_section live "$out"
