#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# reference.sh PROGRAM COMMAND PAGE: a page that the program draws from its own tables is what it draws now.
set -euo pipefail
page=$("$1" "$2"; echo .)  # the last line end is kept
if ! diff -u "$3" <(printf '%s' "${page%.}"); then
    echo "$3 is not current. Write it again: anti-cpu $2 > $3" >&2
    exit 1
fi
