#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# layers.sh SRC: the module's includes run downwards only. Every file has its layer, from the ground up; it may include
# files of its own subject and of the layers below it.
set -euo pipefail
src=$1

layer_of() {
    case $1 in
        anti_cpu/* | atc_lock/* | atc_list/* | atc_avltree/* | atc/protocol.* | atc/l4_ports.*) echo 0 ;;
        atc/header_classes.* | atc/rule_mask.*) echo 0 ;;
        atc_timer/*) echo 1 ;;
        atc/state/records.*) echo 2 ;;
        atc/state/*) echo 3 ;;
        atc/text.* | atc/parser.* | atc/rule_match.*) echo 4 ;;
        atc/capture.* | atc/trace.* | atc_api_hw/driver_lists.*) echo 5 ;;
        atc_api_hw/*) echo 6 ;;
        atc/hw_deny.* | atc/upload.*) echo 7 ;;
        atc/entries.*) echo 8 ;;
        atc/accounting.* | atc/notes.* | atc/walk.*) echo 9 ;;
        atc/evaluation.* | atc/trunk.*) echo 10 ;;
        atc/pipeline.* | atc/monitor.* | atc/dumps.* | atc_api/*) echo 11 ;;
        atc/startup.*) echo 12 ;;
        *) echo "layers.sh: no layer is told for $1" >&2; return 1 ;;
    esac
}

status=0
complain() {
    echo "$*" >&2
    status=1
}

cd "$src"
mapfile -t files < <(find . -name '*.h' -o -name '*.cpp' | sed 's|^\./||')
[ "${#files[@]}" -gt 0 ] || complain "no sources in $src"
for file in "${files[@]}"; do
    layer_of "$file" >/dev/null || status=1
done

# "FILE:INCLUDED" for every include of the module's own.
mapfile -t includes < <(grep -roE '^#include ("[^"]+"|<(anti_cpu|atc)[a-z_]*/[^>]+>)' --include='*.h' --include='*.cpp' . |
    sed -E 's|^\./([^:]+):#include ["<]([^">]+)[">]|\1:\2|')
for pair in "${includes[@]}"; do
    file=${pair%%:*}
    included=${pair#*:}
    from=$(layer_of "$file") && to=$(layer_of "$included") || { status=1; continue; }
    subject=${file%.*}
    other=${included%.*}
    if [ "$to" -gt "$from" ]; then
        complain "$file (layer $from) includes $included (layer $to)"
    elif [ "$to" -eq "$from" ] && [ "$subject" != "$other" ]; then
        # Above the ground, subjects of the core do not know those beside them; elsewhere one of two may.
        case $from:$(dirname "$file") in
            0:*) ;;
            *:atc | *:atc_api_hw) complain "$file includes $included, which stands beside it (layer $from)" ;;
        esac
        if printf '%s\n' "${includes[@]}" | grep -qxF "$included:$file"; then
            complain "$file and $included include each other"
        fi
    fi
done
exit $status
