#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# format.sh ROOT: every source file is laid out as clang-format would.
set -euo pipefail
command -v clang-format >/dev/null || { echo 'skipped: clang-format is not installed'; exit 77; }
find "$1"/{module,platform,host,tests,bench,fuzz,docs} -name '*.h' -o -name '*.cpp' -o -name '*.c' |
    xargs -r clang-format --dry-run --Werror
