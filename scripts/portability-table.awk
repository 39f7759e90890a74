#!/usr/bin/awk -f
# SPDX-License-Identifier: Apache-2.0
# portability-table.awk RECORD TOOLCHAIN: the table of README.md, from what scripts/portability.sh has written and the
# processors of cmake/cross.cmake.
function remember(target) {
    if (!(target in seen)) {
        seen[target] = 1
        order[++count] = target
    }
}

FILENAME ~ /cross\.cmake$/ {
    if (match($0, /^ *"[a-z0-9]+\|[^|]*\|/)) {
        split(substr($0, index($0, "\"") + 1), part, "|")
        word[part[1]] = part[2]
        how[part[1]] = $0 ~ /\|qemu-/ ? "qemu-user" : "native"
    }
    next
}

/^#/ { next }

{
    target = $1
    is_clang = sub(/-clang$/, "", target)
    remember(target)
    gsub(/_/, " ", $3)
    passed[target, is_clang] = $3 " (" $2 ")"
    if (!is_clang) {
        bytes[target] = $4
        instructions[target] = $5
    }
}

END {
    word["musl"] = "the build machine's, C library musl"
    how["musl"] = "native"
    print ""
    print "| | words | run | g++ | clang | text and data | `atc_init` |"
    print "|---|---|---|---|---|---|---|"
    for (i = 1; i <= count; i++) {
        t = order[i]
        cost = instructions[t] ~ /^[0-9]+$/ ? sprintf("%d,%03d instructions", instructions[t] / 1000, instructions[t] % 1000) : "-"
        size = bytes[t] ~ /^[0-9]+$/ ? sprintf("%.0f KiB", bytes[t] / 1024) : "-"
        printf "| %s | %s | %s | %s | %s | %s | %s |\n", t, word[t], how[t], (t, 0) in passed ? passed[t, 0] : "-",
            (t, 1) in passed ? passed[t, 1] : "-", size, cost
    }
    print ""
}
