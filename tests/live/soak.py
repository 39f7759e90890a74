#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Mixed floods for minutes or hours, with settings, clears and port changes at random: soak.py [OPTION]... ANTI_CPU FLOOD

Whatever comes, offered = stopped + dropped + passed for each port; the process leaks neither descriptors nor memory, and
when it ends nothing of it is left. Prints a line a minute and the seed; exit status 0 only if all held.
"""
import argparse
import json
import os
import pathlib
import random
import re
import subprocess
import sys
import time

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parent.parent / "system"))

import network  # noqa: E402
import recipes  # noqa: E402

CONTROL = "/run/soak.control"
BUDGET = 32  # megabytes, of the module; what it frees stays with the process, for the next flood
MEGABYTES_MORE = BUDGET + 16  # once warm and with all flows cleared
CLASSES = "arp icmpv4 tcp-syn ospfv2 lldp stp lacp dhcp icmpv6-ns".split()


class Soak:
    def __init__(self, options, seed):
        self.options, self.random = options, random.Random(seed)
        self.broken, self.steps, self.flood = [], 0, None
        self.log = pathlib.Path("/run/soak.log")
        self.events = pathlib.Path("/run/soak.events")
        self.ports = {1: "eth0", 2: "eth1"}
        for name in self.ports.values():
            self.make(name)
        self.frames = []
        for name in recipes.FLOODS:
            self.frames.append(f"/run/{name}.frames")
            recipes.write(name, self.frames[-1])
        with open(self.log, "wb") as file:
            ports = [word for number, name in self.ports.items() for word in ("--port", f"{name}={number}")]
            self.process = subprocess.Popen([options.program, "run", *ports, "--control", CONTROL, "--events", self.events,
                                             "-x", "set fast-period 1", "-x", f"set memory-budget {BUDGET}"],
                                            stdin=subprocess.DEVNULL, stdout=file, stderr=file)
        network.until("a protection that runs", lambda: "running;" in self.log.read_text())

    def make(self, name):
        network.run("ip", "link", "add", name, "type", "veth", "peer", "name", name, "netns", "bad")
        network.run("ip", "link", "set", name, "address", "02:00:00:00:00:fe")  # as the floods know it
        network.run("ip", "address", "add", f"10.{name[-1]}.0.254/24", "dev", name)
        network.at("bad", "ip", "link", "set", name, "up")
        network.run("ip", "link", "set", name, "up")

    def line(self, *lines):
        words = [word for line in lines for word in ("-c", line)]
        return network.run(self.options.program, "console", "--control", CONTROL, *words, check=False)

    # ---- What happens ----
    def setting(self):
        self.line(f"set {self.random.choice(('deny', 'hw-deny'))} {self.random.choice(CLASSES)} "
                  f"{self.random.choice(('', 'source '))}{self.random.choice(('on', 'on', 'off'))}",
                  f"set limit {self.random.choice(CLASSES)} fast {self.random.choice((1, 10, 100, 1000))}")

    def rule(self):
        number, of = self.random.randint(1, 20), f"source 10.0.{self.random.randint(0, 255)}.0/24 port {self.random.randint(1, 2)}"
        self.line(self.random.choice((f"filter {self.random.choice(('permit', 'deny'))} id {number} {of}", f"filter delete {number}",
                                      f"hw-filter deny {number} eth-type 0x0800 {of}", f"hw-filter delete {number}")))

    def clear(self):
        self.line(self.random.choice(("clear statistic all", "clear hw-deny", "set fast-period 1", "show flows", "show chip",
                                      "trunk 9 join 1", "trunk 9 leave 1")))

    def port(self):
        name = self.random.choice(list(self.ports.values()))
        what = self.random.randrange(5)
        if what == 0:
            network.run("ip", "link", "set", name, "down")
            network.run("ip", "link", "set", name, "up")
        elif what == 1:
            network.run("ip", "link", "set", name, "mtu", str(self.random.choice((1280, 1500))))
        elif what == 2:
            network.run("ip", "address", "add", f"10.9.{self.random.randint(0, 255)}.1/32", "dev", name, check=False)
        elif what == 3:
            network.run("ip", "address", "flush", "dev", name)
            network.run("ip", "address", "add", f"10.{name[-1]}.0.254/24", "dev", name)
        else:
            self.stop_flood()
            network.run("ip", "link", "del", name)
            self.make(name)

    def start_flood(self):
        self.stop_flood()
        self.flood = subprocess.Popen(["ip", "netns", "exec", "bad", self.options.flood, self.random.choice(list(self.ports.values())),
                                       self.random.choice(self.frames), "2"], stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)

    def stop_flood(self):
        if self.flood:
            self.flood.kill()
            self.flood.wait()
            self.flood = None

    # ---- What must hold ----
    def used(self):
        """Descriptors, and megabytes of memory of its own: the ring, which it sees twice, is the kernel's."""
        status = pathlib.Path(f"/proc/{self.process.pid}/status").read_text()
        return len(os.listdir(f"/proc/{self.process.pid}/fd")), int(re.search(r"RssAnon:\s+(\d+)", status)[1]) // 1024

    def maps(self):
        """Ids of its maps in the kernel."""
        descriptors = [file.read_text() for file in pathlib.Path(f"/proc/{self.process.pid}/fdinfo").iterdir()]
        return {int(number) for text in descriptors for number in re.findall(r"map_id:\s*(\d+)", text)}

    def settled(self):
        """The same without a flood and without flows, all ports there."""
        self.stop_flood()
        self.line("clear statistic all", *(f"filter delete {number}" for number in range(1, 21)))
        network.until("all ports", lambda: all(row["state"] == "native" for row in self.card()))
        time.sleep(0.5)  # the console's own connections are closed by then
        return self.used()

    def card(self):
        return json.loads(self.line("show card json") or "[]")

    def check(self):
        if self.process.poll() is not None:
            raise RuntimeError(f"the process ended with {self.process.returncode}: {self.log.read_text()[-2000:]}")
        self.stop_flood()
        time.sleep(0.1)
        for row in self.card():
            if row["offered"] != row["stopped"] + row["dropped"] + row["passed"]:
                self.broken.append(f"step {self.steps}: {row}")

    def run(self):
        end, begin = time.monotonic() + self.options.minutes * 60, None
        next_line = time.monotonic() + 60
        while time.monotonic() < end:
            self.steps += 1
            self.random.choice((self.setting, self.rule, self.clear, self.port, self.start_flood, self.start_flood))()
            time.sleep(self.random.random() * 0.5)
            if self.steps % 20 == 0:
                self.check()
            if begin is None and time.monotonic() > end - self.options.minutes * 45:
                begin = self.settled()
            if time.monotonic() > next_line:
                next_line += 60
                card = self.card()
                print(f"{self.steps} steps, {sum(row['offered'] for row in card):,} offered, {sum(row['stopped'] for row in card):,} stopped, "
                      f"{sum(row['dropped'] for row in card):,} dropped, {sum(row['lost'] for row in card):,} copies lost; "
                      f"descriptors and MB: {self.used()}", flush=True)
        self.check()
        after = self.settled()
        print(f"settled: descriptors and MB {begin} when warm, {after} at the end")
        if after[0] > begin[0] or after[1] > begin[1] + MEGABYTES_MORE:
            self.broken.append(f"descriptors and MB grew from {begin} to {after}")
        maps = self.maps()
        self.process.terminate()
        if status := self.process.wait(network.PATIENCE_S):
            self.broken.append(f"exit status {status}, events {self.events.stat().st_size:,} bytes: {self.log.read_text()[-2000:]}")
        # The kernel frees them some time after the last descriptor.
        network.until("a kernel without these maps", lambda: maps and not maps & {
            one["id"] for one in json.loads(network.run("bpftool", "-j", "map", "show"))}, 20)
        left = [name for name in self.ports.values()
                if "xdp" in network.run("ip", "-d", "link", "show", "dev", name) or "tcx" in network.run("bpftool", "net", "show", "dev", name)]
        if left:
            self.broken.append(f"programs are left at {left}")
        for line in self.events.read_text().splitlines():
            json.loads(line)


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    parser.add_argument("program", help="anti-cpu")
    parser.add_argument("flood", help="flood")
    parser.add_argument("--minutes", type=float, default=60, help="how long [60]")
    parser.add_argument("--seed", type=int, default=time.time_ns() % 1_000_000, help="of what happens [by the clock]")
    options = parser.parse_args()
    options.program, options.flood = (os.path.abspath(name) for name in (options.program, options.flood))
    network.enter_own_machine("bpftool")
    print(f"seed {options.seed}", flush=True)
    network.run("ip", "netns", "add", "bad")
    network.run("ip", "link", "set", "lo", "up")
    soak = Soak(options, options.seed)
    try:
        soak.run()
    finally:
        soak.stop_flood()
        soak.process.kill()
    for what in soak.broken:
        print(f"BROKEN {what}")
    return 1 if soak.broken else 0


if __name__ == "__main__":
    sys.exit(main())
