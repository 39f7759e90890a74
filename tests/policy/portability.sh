#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# portability.sh TREE: the table in README.md is drawn from what scripts/portability.sh has written, the library on armhf is
# smaller than 96 KiB, and atc_init takes less than a millisecond there at 100 million instructions a second.
set -euo pipefail
cd "$1"
diff <(sed -n '/<!-- portability -->/,/<!-- end -->/p' README.md | sed '1d;$d') \
    <(scripts/portability-table.awk docs/portability.txt cmake/cross.cmake) ||
    { echo 'README.md: run scripts/portability.sh --record' >&2; exit 1; }
awk '$1 == "armhf" { found = 1; exit !($4 < 98304 && $5 < 100000) } END { if (!found) exit 1 }' docs/portability.txt ||
    { echo 'armhf: too large, or too slow to start' >&2; exit 1; }
