#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""What floods with forged senders cost a good neighbour at each setting: losses.py [OPTION]... ANTI_CPU FLOOD

The network of the demonstration. Nobody can tell good from forged in these floods; the table says which setting loses
least. --markdown writes it into docs/live.md, between its markers.
"""
import argparse
import os
import pathlib
import re
import sys

import demonstration
import network
import recipes

PAGE = pathlib.Path(__file__).resolve().parent.parent.parent / "docs" / "live.md"
CLASSES = {"arp-random": "arp", "syn-forged": "tcp-syn", "ospf-forged": "ospfv2"}
FIRST = ["set fast-period 1", "set limit icmpv4 source fast 100", "set limit icmpv6-request source fast 100"]
SETTINGS = {
    "no protection": None,
    "`set deny CLASS source on`": ["set deny {} source on"],
    "`set hw-deny CLASS source on`": ["set hw-deny {} source on"],
    "`set deny CLASS on`": ["set deny {} on"],
    "`set hw-deny CLASS on`": ["set hw-deny {} on"],
    "the last, and `set limit CLASS fast 1000`": ["set hw-deny {} on", "set limit {} fast 1000"],
}


def cell(measured):
    pings = measured["pings"]
    what = [f"{measured['lost']} sessions" if measured["lost"] else "", f"{pings['lost']} of {pings['sent']} pings" if pings["lost"] else "",
            "" if measured["lldp"] else "LLDP neighbour", "not back in 20 s" if measured["recovery"] is None else ""]
    return (", ".join(one for one in what if one) or "nothing") + f"; {measured['cpu']:.1f} s"


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    parser.add_argument("program", help="anti-cpu")
    parser.add_argument("flood", help="flood")
    parser.add_argument("--seconds", type=int, default=10, help="each flood lasts [10]")
    parser.add_argument("--quota", type=int, default=10, help="percent of a processor that the router's daemons have [10]")
    parser.add_argument("--markdown", action="store_true", help="write the table into docs/live.md")
    options = parser.parse_args()
    options.program, options.flood = (os.path.abspath(name) for name in (options.program, options.flood))
    net = demonstration.enter(options)
    quota = network.Quota(options.quota)
    rows = []
    try:
        net.build()
        net.limit(quota)
        for name in CLASSES:
            recipes.write(name, net.folder / name)
        for setting, lines in SETTINGS.items():
            cells = []
            for name, of in CLASSES.items():
                command = [options.flood, "eth0", str(net.folder / name), str(options.seconds), str(options.processor)]
                if lines is None:
                    measured = demonstration.observe(net, options.seconds + 2, command)
                else:
                    lines_of = FIRST + [line.format(of) for line in lines]
                    measured = demonstration.observe_protected(net, options, command, lines_of)
                cells.append(cell(measured))
            rows.append(f"| {setting} | {' | '.join(cells)} |")
            print(rows[-1], flush=True)
    finally:
        quota.close()
    head = ["| setting | " + " | ".join(recipes.FLOODS[name][0] for name in CLASSES) + " |", "|:---|" + ":---|" * len(CLASSES)]
    table = "\n".join([f"Floods of {options.seconds} s; the router's daemons have {quota.told}; behind the semicolon the processor time they used.", "",
                       *head, *rows])
    print(table)
    if options.markdown:
        page = re.sub("(<!-- losses: begin -->\n).*(<!-- losses: end -->)", lambda found: found[1] + table + "\n" + found[2],
                      PAGE.read_text(), flags=re.S)
        PAGE.write_text(page)
    return 0


if __name__ == "__main__":
    sys.exit(main())
