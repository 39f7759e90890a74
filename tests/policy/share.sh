#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# share.sh ROOT: tests and fuzz targets are at most a third of the code, in non-blank lines of sources; fails above 35 %.
set -euo pipefail
cd "$1"

lines() {
    find "$@" -type f \( -name '*.c' -o -name '*.cpp' -o -name '*.h' -o -name '*.py' -o -name '*.sh' \) -print0 |
        xargs -0 cat | grep -cv '^[[:space:]]*$'
}

code=$(lines module platform host bench)
tests=$(lines tests fuzz)
echo "tests and fuzz targets: $tests lines, code: $code lines, $((1000 * tests / code / 10)).$((1000 * tests / code % 10)) %"
[ $((100 * tests)) -le $((35 * code)) ]
