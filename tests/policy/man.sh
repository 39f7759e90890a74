#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# man.sh PROGRAM PAGE COMMAND...: the manual page names exactly the long options of these commands' --help, and is
# well-formed.
set -euo pipefail
options=$(for command in "${@:3}"; do "$1" "$command" --help; done | grep -E '^ +-' |
    grep -oE -- '--[a-z][a-z-]*[^a-z-]' | tr -cd 'a-z\n-' | sort -u)
described=$(grep -E '^\.It ' "$2" | grep -oE 'Fl -[a-z][a-z-]*' | sed 's/^Fl -/--/' | sort -u)
[ -n "$options" ] || { echo 'no options are shown' >&2; exit 1; }
status=0
if ! diff <(echo "$options") <(echo "$described"); then
    echo "$2: \"<\" is an option without an item, \">\" an item without an option" >&2
    status=1
fi
if command -v mandoc >/dev/null; then
    mandoc -T lint -W warning "$2" || status=1
elif command -v man >/dev/null; then
    warnings=$(LC_ALL=C.UTF-8 MANROFFSEQ='' man --warnings -E UTF-8 -l -Tutf8 "$2" 2>&1 >/dev/null)
    [ -z "$warnings" ] || { echo "$warnings" >&2; status=1; }
fi
exit $status
