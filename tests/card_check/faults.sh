#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# faults.sh PROGRAM: the check of a card with one fault names the function that has it, no other, and exits with 1.
set -euo pipefail
one() {
    status=0
    seen=$("$1" "$2" 2>/dev/null) || status=$?
    if [ "$status" -ne 1 ] || ! grep -qE "^Broken by $3\.$|^$3  .*BROKEN: (no end|crashed)" <<<"$seen"; then
        printf '%s: status %s, "Broken by %s." expected\n%s\n' "$2" "$status" "$3" "$seen" >&2
        return 255
    fi
}
export -f one
faults=$("$1")
[ "$(wc -l <<<"$faults")" -ge 20 ] || { echo 'hardly any fault is planted' >&2; exit 1; }
xargs -d '\n' -P 4 -I{} bash -c 'IFS=: read -r fault function <<<"{}"; one "$0" "$fault" "$function"' "$1" <<<"$faults"
