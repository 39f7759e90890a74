#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""What a scrape of --metrics costs a card with 100,000 flows, in a quarter of an hour: scrape.py ANTI_CPU FLOOD

The card is a namespace with four ports, on each of which seven classes are seen in 4,000 VLANs. Prints, for a card that is
quiet, one that is flooded with the packets of one port's flows, and one where these are over their limits: how long a
scrape took, what it took of the thread that reads copies, how long it kept that thread from copies at once, and the
longest that a copy waited in two minutes without scrapes and in two with up to ten a second.
"""
import os
import pathlib
import re
import statistics
import struct
import subprocess
import sys
import time

TESTS = pathlib.Path(__file__).resolve().parent.parent / "tests"
sys.path[:0] = [str(TESTS / "live"), str(TESTS / "system")]

import monitor  # noqa: E402
import network  # noqa: E402
import traffic  # noqa: E402

PORTS, VLANS = 4, 4000
KINDS = (traffic.arp, traffic.syn, traffic.lldp, traffic.ospf, traffic.stp, traffic.dhcp, traffic.bgp)
ADDRESS, CONTROL, FOLDER = "127.0.0.1:9777", "/run/scrape.control", pathlib.Path("/run/scrape")
SPAN_S = 125  # after which a peak of before is forgotten


def value(text, name):
    return sum(float(row) for row in re.findall(rf"^anti_cpu_{name}(?:{{.*}})? (\S+)$", text, re.MULTILINE))


def tail(values):
    """Of a hundred, all but one stay below."""
    return sorted(values)[len(values) * 99 // 100]


def scrape():
    return monitor.get(f"http://{ADDRESS}/metrics")


def measure(name):
    """A row of the table. The time without scrapes comes first."""
    time.sleep(SPAN_S)
    alone = value(scrape(), "longest_packet_wait_seconds")
    took, work, slices = [], [], []
    end = time.monotonic() + SPAN_S
    while (begin := time.monotonic()) < end:
        text = scrape()
        took.append(time.monotonic() - begin)
        work.append(value(text, "scrape_work_seconds"))
        slices.append(value(text, "scrape_longest_slice_seconds"))
        time.sleep(0.1)
    waited = value(text, "longest_packet_wait_seconds")
    print(f"| {name} | {value(text, 'flows_over_limit'):,.0f} | {statistics.median(took) * 1e3:.1f} | {tail(took) * 1e3:.1f} "
          f"| {statistics.median(work) * 1e3:.2f} | {statistics.median(slices) * 1e6:.0f} | {tail(slices) * 1e6:.0f} | {alone * 1e3:.2f} | {waited * 1e3:.2f} |", flush=True)


def console(line):
    return network.run(PROGRAM, "console", "--control", CONTROL, "-c", line)


def main():
    network.run("ip", "link", "set", "lo", "up")
    network.run("ip", "netns", "add", "senders")
    ports = [f"eth{port}" for port in range(PORTS)]
    for port in ports:
        network.run("ip", "link", "add", port, "type", "veth", "peer", "name", port, "netns", "senders")
        network.at("senders", "ip", "link", "set", port, "up")
        network.run("ip", "link", "set", port, "up")
    frames = [kind(2, vlan) for vlan in range(1, VLANS + 1) for kind in KINDS]
    (FOLDER / "frames").write_bytes(b"".join(struct.pack(">H", len(frame)) + frame for frame in frames))
    with open(FOLDER / "log", "wb") as log:
        card = subprocess.Popen([PROGRAM, "run", "--all", "--metrics", ADDRESS, "--control", CONTROL,
                                 *(word for port in ports for word in ("--port", port))], stdout=log, stderr=log)
    network.until("a card", lambda: os.path.exists(CONTROL) and "running;" in (FOLDER / "log").read_text())
    for port in ports:
        sender = monitor.Sender("senders", port, frames, 20000)
        network.until("every flow", lambda: sender.sent >= len(frames))  # noqa: B023
        sender.end()
    print(f"{PORTS * len(frames):,} flows in {value(scrape(), 'memory_bytes') / 1e6:.0f} MB, "
          f"{value(scrape(), 'lost_copies_total'):.0f} copies lost, {len(scrape().splitlines())} lines a scrape")
    print("| card | flows over limit | scrape, ms | 99 % | of the thread, ms | longest slice, us | 99 % "
          "| copy's longest wait, ms | with scrapes |")
    print("|---|---|---|---|---|---|---|---|---|")
    measure("quiet")
    flood = subprocess.Popen(["ip", "netns", "exec", "senders", FLOOD, ports[0], str(FOLDER / "frames"), "100000"],
                             stdout=subprocess.DEVNULL)
    measure("flooded at one port")
    console("set limit all fast 1")
    console("set fast-period 1")
    measure("the same, over their limits")
    for process in (flood, card):
        process.terminate()


if __name__ == "__main__":
    network.enter_own_machine("bridge")
    PROGRAM, FLOOD = (os.path.abspath(name) for name in sys.argv[1:3])
    FOLDER.mkdir()
    main()
