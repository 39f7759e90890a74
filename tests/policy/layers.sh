#!/usr/bin/env bash
# layers.sh SRC: the module's includes run downwards only. A file may include files of its own layer's subject and of the
# layers below it; layers stand from the ground up.
set -euo pipefail
src=$1

layer_of() {
    case $1 in
        anti_cpu/* | atc_lock/* | atc_list/* | atc_avltree/* | atc/protocol.* | atc/l4_ports.*) echo 0 ;;
        atc_timer/*) echo 1 ;;
        atc/state/records.*) echo 2 ;;
        atc/state/*) echo 3 ;;
        atc/text.* | atc/parser.* | atc/rule_match.*) echo 4 ;;
        atc/capture.* | atc/trace.* | atc_api_hw/driver_lists.*) echo 5 ;;
        atc_api_hw/*) echo 6 ;;
        atc/hw_deny.* | atc/upload.*) echo 7 ;;
        atc/entries.*) echo 8 ;;
        atc/accounting.*) echo 9 ;;
        atc/evaluation.* | atc/trunk.*) echo 10 ;;
        atc/pipeline.* | atc/monitor.* | atc/dumps.* | atc_api/*) echo 11 ;;
        atc/startup.*) echo 12 ;;
        *) echo "layers.sh: no layer is told for $1" >&2; return 1 ;;
    esac
}

status=0
while IFS=: read -r file included; do
    from=$(layer_of "$file")
    to=$(layer_of "$included")
    if [ "$to" -gt "$from" ] || { [ "$to" -eq "$from" ] && [ "$from" -gt 3 ] && [ "${file%.*}" != "${included%.*}" ] &&
        [ "$(dirname "$file")" = atc ]; }; then
        echo "$file (layer $from) includes $included (layer $to)" >&2
        status=1
    fi
done < <(cd "$src" && grep -rnoE '^#include "[^"]+"' --include='*.h' --include='*.cpp' . |
    sed -E 's|^\./([^:]+):[0-9]+:#include "([^"]+)"|\1:\2|')
exit $status
