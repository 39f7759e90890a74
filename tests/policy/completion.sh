#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# completion.sh PROGRAM SCRIPT: the script is the one that the program draws, and bash completes with it.
set -euo pipefail
PATH=$(dirname "$1"):$PATH
if ! diff -u "$2" <("$1" completion bash); then
    echo "$2 is not current. Write it again: anti-cpu completion bash > $2" >&2
    exit 1
fi
# shellcheck source=/dev/null
. "$2"
status=0
# expect WORDS... CHOICES: the last word is begun.
expect() {
    COMP_WORDS=("${@:1:$#-1}")
    COMP_CWORD=$((${#COMP_WORDS[@]} - 1))
    _anti_cpu anti-cpu
    if [ "${COMPREPLY[*]}" != "${*: -1}" ]; then
        echo "'${COMP_WORDS[*]}' becomes '${COMPREPLY[*]}' in place of '${*: -1}'" >&2
        status=1
    fi
}
expect anti-cpu repl replay
expect anti-cpu replay --events-f ''
expect anti-cpu replay --fast --fast-period
expect anti-cpu replay file --then "'show mem" 'show memory'
expect anti-cpu replay -x "\"set limit vr" 'set limit vrrp'
expect anti-cpu help que ''
expect anti-cpu help tr trunk
exit $status
