#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Runs every fuzz target with its corpus: fuzz/run.sh [SECONDS [TARGET...]], 60 seconds each unless told otherwise. A
# crash, a hang or a leak fails; the input is kept in fuzz/corpus/TARGET/, where the tests replay it from then on.
# New inputs that reach more code stay in build/fuzz/corpus/.
set -euo pipefail
cd "$(dirname "$0")/.."

seconds=${1:-60}
[ $# -eq 0 ] || shift
build=${ATC_FUZZ_BUILD:-build/fuzz}
cmake --preset fuzz -B "$build" --log-level=WARNING
cmake --build "$build" -j"$(nproc)" --target fuzz
[ $# -gt 0 ] || set -- module driver capture console

status=0
for target in "$@"; do
    printf '\n==== %s, %s s\n' "$target" "$seconds"
    found=$build/corpus/$target
    mkdir -p "$found"
    words=(-max_len=8192)
    # A few lines: a thousand inputs a second.
    [ "$target" != console ] || words=(-max_len=100 -entropic=0)
    [ ! -f "fuzz/$target.dict" ] || words+=(-dict="fuzz/$target.dict")
    # The targets have clocks of their own, so a hang is noticed from here: SIGABRT makes libFuzzer keep the input.
    timeout -s ABRT $((seconds + 120)) "$build/fuzz_$target" -max_total_time="$seconds" -timeout=0 \
        -rss_limit_mb=4096 -close_fd_mask=3 -print_final_stats=1 "${words[@]}" -artifact_prefix="fuzz/corpus/$target/" \
        "$found" "fuzz/corpus/$target" 2>"$build/$target.log" || status=$?
    grep -E '^(stat::number|SUMMARY|artifact|fuzz:)|INITED|DONE|Test unit written' "$build/$target.log" || true
    if [ "$status" -ne 0 ]; then
        # Once more, with what the target itself has to say about it.
        kept=$(sed -n 's/.*Test unit written to //p' "$build/$target.log")
        [ -z "$kept" ] || timeout -s ABRT 60 "$build/fuzz_$target" -timeout=0 "$kept" || true
        echo "$target: failed; see $build/$target.log" >&2
        exit 1
    fi
done
