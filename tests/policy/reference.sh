#!/usr/bin/env bash
# reference.sh PROGRAM PAGE: the page on the operator's lines is what the program's own table says.
set -euo pipefail
page=$("$1" reference; echo .)  # the last line end is kept
if ! diff -u "$2" <(printf '%s' "${page%.}"); then
    echo "$2 is not current. Write it again: anti-cpu reference > docs/console.md" >&2
    exit 1
fi
