#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# symbols.sh LIBRARY MODULE RELEASED: the library exports exactly the operations of anti_cpu.h, leaves undefined exactly the functions
# of platform.h besides the C library's, and needs no other library. What a release exported stays: RELEASED is its symbols
# file.
set -euo pipefail
library=$1
include=$2/include/anti_cpu
map=$2/anti_cpu.map
released=$3
status=0

# compare WHAT EXPECTED FOUND: two lists, sorted here.
compare() {
    if ! difference=$(diff <(sort -u <<<"$2") <(sort -u <<<"$3")); then
        printf '%s ("<" missing, ">" unexpected):\n%s\n' "$1" "$difference" >&2
        status=1
    fi
}

# Names of the functions that a header declares, comments aside.
declared() {
    sed -e 's://.*::' "$1" | tr '\n' ' ' | sed -e 's:/\*[^*]*\*\+\([^/*][^*]*\*\+\)*/: :g' | grep -oE "$2\(" | tr -d '('
}

header=$(declared "$include/anti_cpu.h" '\batc_[a-z0-9_]+')
platform=$(declared "$include/platform.h" '\b(bep|hw|hss|hal|br|get|norv|mod|set|ulog|syslog|xftp|inet)_?[A-Za-z0-9_]+')
exported=$(nm -D --defined-only "$library" | awk '$2 != "A" { sub(/@.*/, "", $3); print $3 }')
undefined=$(nm -D --undefined-only "$library" | awk '$1 == "U" && $2 !~ /@GLIBC/ { print $2 }')
needed=$(readelf -d "$library" | sed -n 's/.*(NEEDED).*\[\(.*\)\]/\1/p')

compare 'version script against anti_cpu.h' "$header" "$(grep -oE '\batc_[a-z0-9_]+;' "$map" | tr -d ';')"
compare 'exported symbols against anti_cpu.h' "$header" "$exported"
compare 'undefined symbols against platform.h' "$platform" "$undefined"
compare 'libraries needed' 'libc.so.6' "$(grep -v '^ld-linux' <<<"$needed")"
compare 'symbols of the last release that are gone' '' \
    "$(comm -23 <(sed -n 's/^ \(atc_[a-z0-9_]*\)@.*/\1/p' "$released" | sort) <(sort <<<"$exported"))"
exit $status
