# SPDX-License-Identifier: Apache-2.0
# Draws the rows of bench_waits ("what|flows|figure|value", microseconds) as an SVG: a line a thing that happens, from the
# packet in the middle to the longest on a scale of powers of ten, and the longest hold of the mutex as a bar.
function x(us) { return left + (log(us < 0.1 ? 0.1 : us) / log(10) + 1) * decade }
function text(at, y, anchor, words) {
    printf "<text x=\"%.0f\" y=\"%d\" text-anchor=\"%s\">%s</text>\n", at, y, anchor, words
}
{
    key = $1 ", " $2
    if (!(key in seen)) { seen[key] = 1; keys[++count] = key }
    value[key, $3] = $4
}
END {
    left = 300; decade = 110; row = 20; top = 60
    height = top + count * row + 20
    printf "<svg xmlns=\"http://www.w3.org/2000/svg\" width=\"%d\" height=\"%d\" font-family=\"sans-serif\" font-size=\"12\">\n", \
        left + 6 * decade + 20, height
    print "<rect width=\"100%\" height=\"100%\" fill=\"white\"/>"
    text(10, 18, "start", "What a packet takes while this happens: line from the median to 99.999 %, circle the longest; bar: the longest hold of the mutex")
    for (power = -1; power <= 5; power++) {
        at = x(10 ^ power)
        printf "<line x1=\"%.0f\" y1=\"%d\" x2=\"%.0f\" y2=\"%d\" stroke=\"#ddd\"/>\n", at, top - 12, at, height - 12
        text(at, top - 18, "middle", power < 3 ? 10 ^ power " us" : 10 ^ (power - 3) " ms")
    }
    for (i = 1; i <= count; i++) {
        y = top + (i - 1) * row
        text(left - 8, y + 4, "end", keys[i])
        held = value[keys[i], "held"]
        if (held > 0.1) {
            printf "<rect x=\"%.0f\" y=\"%d\" width=\"%.0f\" height=\"10\" fill=\"#bcd4ee\"/>\n", x(0.1), y - 5, x(held) - x(0.1)
        }
        printf "<line x1=\"%.0f\" y1=\"%d\" x2=\"%.0f\" y2=\"%d\" stroke=\"#333\" stroke-width=\"2\"/>\n", \
            x(value[keys[i], "p50"]), y, x(value[keys[i], "p99.999"]), y
        printf "<circle cx=\"%.0f\" cy=\"%d\" r=\"3\" fill=\"#c33\"/>\n", x(value[keys[i], "longest"]), y
    }
    print "</svg>"
}
