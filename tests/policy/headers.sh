#!/usr/bin/env bash
# headers.sh INCLUDE CC CXX: each public header compiles alone as C11 and as C++20, without a warning.
set -euo pipefail
for header in "$1"/anti_cpu/*.h; do
    "$2" -std=c11 -Wall -Wextra -Wpedantic -Werror -fsyntax-only -I"$1" -include "$header" -x c /dev/null
    "$3" -std=c++20 -Wall -Wextra -Wpedantic -Werror -fsyntax-only -I"$1" -include "$header" -x c++ /dev/null
done
