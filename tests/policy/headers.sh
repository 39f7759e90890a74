#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# headers.sh INCLUDE CC CXX: each public header compiles alone as C11 and as C++20, without a warning.
set -euo pipefail
code='extern int nothing_else;'  # an empty file is no C
for header in "$1"/anti_cpu/*.h; do
    "$2" -std=c11 -Wall -Wextra -Wpedantic -Werror -fsyntax-only -I"$1" -include "$header" -x c - <<<"$code"
    "$3" -std=c++20 -Wall -Wextra -Wpedantic -Werror -fsyntax-only -I"$1" -include "$header" -x c++ - <<<"$code"
done
