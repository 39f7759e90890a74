#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""A terminal's screen as a picture: tmux capture-pane -e -p | screen_svg.py COLUMNS ROWS > screen.svg"""
import re
import sys
from xml.sax.saxutils import escape

WIDTH, HEIGHT, EDGE = 8, 17, 10  # of a character and of the frame, in pixels
GROUND, TEXT = "#1c1f24", "#d6d9de"
COLOURS = {31: "#ff7b72", 32: "#7ee787", 33: "#e3b341"}


class Style:
    def __init__(self):
        self.colour, self.is_bold, self.is_reverse = TEXT, False, False

    def take(self, codes):
        for code in (int(code or 0) for code in codes.split(";")):
            if code == 0:
                self.__init__()
            elif code in (1, 22):
                self.is_bold = code == 1
            elif code in (7, 27):
                self.is_reverse = code == 7
            elif code == 39 or code in COLOURS:
                self.colour = COLOURS.get(code, TEXT)


def runs(line, style):
    """Pieces of a line that look the same: where each begins, its text, ground, colour, weight."""
    column = 0
    for part in re.split(r"(\x1b\[[\d;]*m)", line):
        if part.startswith("\x1b["):
            style.take(part[2:-1])
        elif part:
            ground, colour = (style.colour, GROUND) if style.is_reverse else (None, style.colour)
            yield column, part, ground, colour, style.is_bold
            column += len(part)


def main():
    columns, rows = int(sys.argv[1]), int(sys.argv[2])
    width, height = columns * WIDTH + 2 * EDGE, rows * HEIGHT + 2 * EDGE
    print(f'<svg xmlns="http://www.w3.org/2000/svg" width="{width}" height="{height}" viewBox="0 0 {width} {height}" '
          f'font-family="DejaVu Sans Mono, Menlo, Consolas, monospace" font-size="13">\n'
          f'<rect width="{width}" height="{height}" rx="6" fill="{GROUND}"/>')
    style = Style()
    for row, line in enumerate(sys.stdin.read().split("\n")[:rows]):
        top = EDGE + row * HEIGHT
        for column, text, ground, colour, is_bold in runs(line, style):
            left = EDGE + column * WIDTH
            if ground:
                print(f'<rect x="{left}" y="{top}" width="{len(text) * WIDTH}" height="{HEIGHT}" fill="{ground}"/>')
            if text.strip():
                weight = ' font-weight="bold"' if is_bold else ""
                print(f'<text x="{left}" y="{top + 13}" fill="{colour}"{weight} xml:space="preserve" '
                      f'textLength="{len(text) * WIDTH}" lengthAdjust="spacingAndGlyphs">{escape(text)}</text>')
    print("</svg>")


if __name__ == "__main__":
    main()
