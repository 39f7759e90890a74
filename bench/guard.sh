#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Fails when a packet takes more instructions than bench/limits.txt allows. It does not depend on the clock.
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
. "$here/build.sh"
limits=$here/limits.txt

usage() {
    cat <<'TEXT'
bench/guard.sh [--update] [--markdown] [--build DIR] [--built]

Counts the instructions a packet of three inputs under callgrind (bench/instructions.sh) and holds them against the
limits in bench/limits.txt. The status is 1 when one is passed.
  --update     set every limit to 1.1 x what is counted, but to no more than 1.1 x the goal; goals stay
  --markdown   also write the table into docs/performance.md, between the markers of that section
  --build DIR  build directory (build/bench), made when it is not there
  --built      count what stands there, build nothing
TEXT
}

update=no
markdown=no
options=()
while [ $# -gt 0 ]; do
    case $1 in
        --update) update=yes ;;
        --markdown) markdown=yes ;;
        --build) options+=("$1" "${2:?--build needs a directory}"); shift ;;
        --built) options+=("$1") ;;
        --help) usage; exit 0 ;;
        *) usage >&2; exit 2 ;;
    esac
    shift
done

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
"$here/instructions.sh" --rows "${options[@]}" >"$work/rows"
# The limits as they are, or as they become; a line that was not measured is a fault.
awk -v update="$update" '
    NR == FNR { measured[$1] = $2; next }
    /^#/ { print; next }
    !($1 in measured) { print "guard.sh: no figure " $1 > "/dev/stderr"; exit 1 }
    {
        highest = measured[$1] < $2 ? measured[$1] : $2
        printf "%s %s %s\n", $1, $2, update == "yes" ? sprintf("%.0f", highest * 1.1) : $3
    }' "$work/rows" "$limits" >"$work/limits"
[ "$update" = no ] || cat "$work/limits" >"$limits"

[ "$markdown" = no ] || has_section guard
status=0
awk 'NR == FNR { measured[$1] = $2; next }
    /^#/ { next }
    !lines++ {
        printf "| %-23s | %8s | %8s | %8s |\n", "instructions a packet", "goal", "reached", "limit"
        print "|:------------------------|---------:|---------:|---------:|"
    }
    {
        over = measured[$1] > $3
        failed = failed || over
        printf "| %-23s | %8s | %8.1f | %8s |%s\n", $1, $2, measured[$1], $3, over ? " over the limit" : ""
    }
    END { exit failed || !lines }' "$work/rows" "$work/limits" >"$work/table" || status=1
cat "$work/table"
[ "$markdown" = no ] || paste_section guard "$work/table"
exit $status
