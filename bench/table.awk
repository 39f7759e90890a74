# SPDX-License-Identifier: Apache-2.0
# table.awk: "key value" rows and figures.txt, in this order, to a table in Markdown. A figure that was not measured, or
# that no line of the table asks for, is a fault.
function trim(text) { gsub(/^ +| +$/, "", text); return text }
function shown(value) { return value >= 1000 ? sprintf("%.0f", value) : sprintf("%.1f", value) }
function die(text) { print "table.awk: " text > "/dev/stderr"; failed = 1; exit 1 }

FNR == 1 { file++ }
file == 1 { value[$1] = $2; next }
/^#/ { next }
{
    split($0, cell, "|")
    key = trim(cell[1]); floor_key = trim(cell[4])
    if (!(key in value)) die("no figure " key)
    if (floor_key != "" && !(floor_key in value)) die("no figure " floor_key)
    if (!heading++) {
        printf "| %-47s | %-21s | %8s | %7s | %6s | %-12s |\n", "what", "unit", "measured", "floor", "ratio", "goal"
        print "|:------------------------------------------------|:----------------------|---------:|--------:|-------:|:-------------|"
    }
    floor = floor_key == "" ? "" : shown(value[floor_key])
    ratio = floor_key == "" ? "" : sprintf("%.2f", value[key] / value[floor_key])
    printf "| %-47s | %-21s | %8s | %7s | %6s | %-12s |\n", trim(cell[2]), trim(cell[3]), shown(value[key]), floor, ratio, trim(cell[5])
    used[key] = used[floor_key] = 1
}
END {
    if (failed) exit 1
    for (key in value) if (!(key in used) && key !~ /\.ratio$/) die("no line for figure " key)
}
