#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""A router under twelve floods, without protection and with it, in turns: demonstration.py [OPTION]... ANTI_CPU FLOOD

ANTI_CPU and FLOOD are the programs anti-cpu and flood, as built. The router, its good neighbour and the bad one are
namespaces of this machine (network.py draws them); nothing outside notices. The daemons of the router have a small share
of a processor, as on a line card. Prints a table of what was lost and what it cost, and what of the promises did not
hold: exit status 0 only if all did. Where a machine cannot show it, the exit status is what ctest takes for "skipped".
"""
import argparse
import contextlib
import json
import os
import pathlib
import re
import signal
import statistics
import subprocess
import sys
import time

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parent.parent / "system"))

import network  # noqa: E402
import recipes  # noqa: E402

PINGS_S = 20
COUNTERS = ("offered", "stopped", "dropped", "passed", "lost")
SHORT_S = 20  # floods shorter than this do not average their beginning away
CONTROL = "/run/demonstration.control"
# Every sender over its limit is stopped in the chip, and in software until the chip does. Limits are the default ones, but
# for the pings that measure.
PROTECTION = ["set fast-period 1", "set limit icmpv4 source fast 100", "set limit icmpv6-request source fast 100"]
CLASSES = "stp lldp isis arp lacp ospfv2 icmpv4 icmpv6-request icmpv6-ns icmpv6-na dhcp tcp-syn bgp unknown-packet".split()
PROTECTION += [f"set {what} {name} source on" for name in CLASSES for what in ("deny", "hw-deny")]


class Guard:
    """The running protection of the router."""

    def __init__(self, program, folder, lines):
        self.program, self.folder = program, folder
        (folder / "protection").write_text("\n".join(lines) + "\n")
        self.log = folder / "anti-cpu.log"
        # As the service runs it, before the daemons.
        self.process = network.start("router", self.log, "nice", "-n", "-5", program, "run", "--port", "eth0=1", "--port", "eth1=2",
                                     "--config", str(folder / "protection"), "--control", CONTROL)
        network.until("the protection's console", self._answers, 20)

    def _answers(self):
        if self.process.poll() is not None:
            raise RuntimeError(f"{self.program} run: exit status {self.process.returncode}: {self.log.read_text()[-800:]}")
        return os.path.exists(CONTROL) and bool(self.line("show clock", check=False))

    def line(self, line, **options):
        return network.at("router", self.program, "console", "--control", CONTROL, "-c", line, **options)

    def counts(self):
        """offered, stopped, dropped, passed and lost copies of the port that is flooded."""
        return next(row for row in json.loads(self.line("show card json")) if row["port"] == 1)

    def processor_seconds(self):
        return network.processor_seconds(self.process.pid)

    def stop(self):
        for pid in network.family(self.process.pid)[1:] or [self.process.pid]:
            os.kill(pid, signal.SIGTERM)
        if self.process.wait(20) != 0:
            raise RuntimeError(f"{self.program} run ended with {self.process.returncode}: {self.log.read_text()[-800:]}")


class Pings:
    """Round trips of the good neighbour, in milliseconds."""

    def __init__(self, seconds):
        self.processes = [subprocess.Popen(["ip", "netns", "exec", "good", "ping", "-n", "-c", str(seconds * PINGS_S), "-i",
                                            str(1 / PINGS_S), "-W", "1", address], stdout=subprocess.PIPE, text=True)
                          for address in ("10.0.0.254", "2001:db8::fe")]

    def end(self):
        texts = [process.communicate(timeout=network.PATIENCE_S)[0] for process in self.processes]
        sent, got = (sum(int(re.search(rf"(\d+) {what}", text)[1]) for text in texts)
                     for what in ("packets transmitted", "received"))
        trips = sorted(float(trip) for text in texts for trip in re.findall(r"time=([\d.]+)", text))
        return {"lost": sent - got, "sent": sent, "p99": trips[len(trips) * 99 // 100] if trips else float("inf")}


def observe(net, seconds, flood=None):
    """What befalls the router in so many seconds."""
    losses, used = net.losses(), net.router_seconds()
    pings = Pings(seconds)
    sent = 0
    if flood:
        time.sleep(0.5)
        sender = subprocess.Popen(["ip", "netns", "exec", "bad", *flood], stdout=subprocess.PIPE, text=True)
        time.sleep(seconds - 1)
        neighbours = net.lldp_neighbours("router")
        sent = int(sender.communicate(timeout=network.PATIENCE_S)[0])
    else:
        time.sleep(seconds)
        neighbours = net.lldp_neighbours("router")
    result = {"pings": pings.end(), "cpu": net.router_seconds() - used, "sent": sent,
              "lldp": neighbours == [network.PORTS["good"][0]]}
    result["recovery"] = net.recover()
    result["lost"] = net.losses() - losses
    return result


def one_flood(net, options, name, quiet):
    """The flood without and with protection."""
    frames = net.folder / f"{name}.frames"
    recipes.write(name, frames)
    command = [options.flood, "eth0", str(frames), str(options.seconds), str(options.processor)]
    row = {"name": name, "without": observe(net, options.seconds + 2, command)}
    frames_of_good = quiet["offered_s"] * (options.seconds + 2) if quiet["with"] else 0
    if not options.without:
        row["with"] = observe_protected(net, options, command)
        row["with"]["good_frames"] = frames_of_good
    frames.unlink()
    return row


def observe_protected(net, options, command, lines=None):
    with protected(net, options, lines) as guard:
        time.sleep(1.5)
        before, used = guard.counts(), guard.processor_seconds()
        measured = observe(net, options.seconds + 2, command)
        after = guard.counts()
        measured["counts"] = {key: after[key] - before[key] for key in COUNTERS}
        measured["guard_cpu"] = guard.processor_seconds() - used
    return measured


@contextlib.contextmanager
def protected(net, options, lines=None):
    guard = Guard(options.program, net.folder, lines or PROTECTION + options.line)
    try:
        yield guard
    finally:
        guard.stop()


def forwarded(net, megabits):
    """Megabits a second that reach the network behind the router, of so many offered (0: of as many as go)."""
    server = network.start("behind", net.folder / "iperf3.log", "iperf3", "-s", "-1")
    try:
        network.until("iperf3", lambda: ":5201" in network.at("behind", "ss", "-ltn"))
        said = json.loads(network.at("good", "iperf3", "-c", "10.99.0.2", "-J", "-t", "3", "-b", f"{megabits}M"))
        server.wait(network.PATIENCE_S)
    finally:
        server.kill()
    return said["end"]["sum_received"]["bits_per_second"] / 1e6


def quiet_time(net, options):
    """Without a flood: round trips and forwarded traffic, bare and protected in turns."""
    result = {"without": observe(net, options.seconds), "with": None, "offered_s": 0}
    rates = {"without": [], "with": []}
    for _ in range(3):
        rates["without"].append(forwarded(net, options.megabits))
        if not options.without:
            with protected(net, options):
                rates["with"].append(forwarded(net, options.megabits))
    if not options.without:
        with protected(net, options) as guard:
            before = guard.counts()
            result["with"] = observe(net, options.seconds)
            result["offered_s"] = (guard.counts()["offered"] - before["offered"]) / options.seconds
    result["forwarded"] = {key: statistics.median(value) if value else None for key, value in rates.items()}
    return result


def stopped_share(measured, good_frames):
    """Of the flood's frames, those that did not reach the stack; the good neighbour's own are taken off what passed."""
    counts = measured["counts"]
    return 1 - max(0, counts["passed"] - good_frames) / max(1, counts["offered"] - good_frames)


def broken_promises(row, quiet, options):
    """What a flood whose senders can be told apart must not do to a protected router."""
    is_apart, got, bare, is_short = recipes.FLOODS[row["name"]][2], row["with"], row["without"], options.seconds < SHORT_S
    counts = got["counts"]
    if counts["offered"] != counts["stopped"] + counts["dropped"] + counts["passed"]:
        yield f"offered {counts['offered']} is not stopped + dropped + passed"
    if not is_apart:
        return
    if got["recovery"] is None:
        yield "sessions did not come back"
    if got["lost"]:
        yield f"{got['lost']} sessions lost"
    if got["pings"]["lost"]:
        yield f"{got['pings']['lost']} of {got['pings']['sent']} pings lost"
    if not got["lldp"]:
        yield "the LLDP neighbour is gone"
    share = stopped_share(got, got["good_frames"])
    if share <= (0.99 if is_short else 0.999):
        yield f"only {share:.2%} of the flood stopped"
    if got["pings"]["p99"] > 2 * quiet["without"]["pings"]["p99"] and not is_short:
        yield f"round trip {got['pings']['p99']:.3f} ms, quiet {quiet['without']['pings']['p99']:.3f} ms"
    idle = quiet["without"]["cpu"] / options.seconds * (options.seconds + 2)
    if bare["cpu"] > 5 * idle and got["cpu"] > max(0.1 * bare["cpu"], 2 * idle) and not is_short:
        yield f"daemons used {got['cpu']:.2f} s, without protection {bare['cpu']:.2f} s"


def is_harmless(measured):
    return not measured["lost"] and not measured["pings"]["lost"] and measured["lldp"]


def print_table(rows, quiet, options):
    print(f"{'':12} {'frames/s':>9}  without: {'sessions':>8} {'pings':>6} {'p99':>8} {'daemons':>7}", end="")
    print("" if options.without else f"   with: {'sessions':>8} {'pings':>6} {'p99':>8} {'daemons':>7} {'stopped':>9}")
    print(f"{'flood':12} {'':>9}           {'lost':>8} {'lost':>6} {'ms':>8} {'s':>7}", end="")
    print("" if options.without else f"         {'lost':>8} {'lost':>6} {'ms':>8} {'s':>7} {'of it':>9}")

    def columns(measured):
        pings = measured["pings"]
        return f"{measured['lost']:8} {pings['lost']:6} {pings['p99']:8.3f} {measured['cpu']:7.2f}"
    for row in [{"name": "none", **quiet}, *rows]:
        print(f"{row['name']:12} {row['without']['sent'] / options.seconds:9,.0f}           {columns(row['without'])}", end="")
        if row.get("with"):
            print(f"         {columns(row['with'])}", end="")
            print(f" {stopped_share(row['with'], row['with']['good_frames']):9.3%}" if "counts" in row["with"] else "", end="")
        print()


def arguments():
    parser = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    parser.add_argument("program", help="anti-cpu")
    parser.add_argument("flood", help="flood")
    parser.add_argument("--seconds", type=int, default=30, help="each flood lasts [30]")
    parser.add_argument("--floods", type=lambda text: text.split(","), default=list(recipes.FLOODS), help="some of: " + ", ".join(recipes.FLOODS))
    parser.add_argument("--quota", type=int, default=10, help="percent of a processor that the router's daemons have [10]")
    parser.add_argument("--megabits", type=int, default=100, help="a second, forwarded through the router; 0: as many as go [100]")
    parser.add_argument("--line", action="append", default=[], help="operator's line behind those of the protection; again and again")
    parser.add_argument("--without", action="store_true", help="only the runs without protection")
    parser.add_argument("--json", help="file for all that was measured")
    options = parser.parse_args()
    if unknown := set(options.floods) - set(recipes.FLOODS):
        parser.error(f"no such flood: {', '.join(sorted(unknown))}")
    options.program, options.flood = (os.path.abspath(name) for name in (options.program, options.flood))
    return options


def demonstrate(net, options):
    """Everything, and what did not hold."""
    quota = network.Quota(options.quota)
    try:
        net.build()
        net.limit(quota)
        print(f"The router's daemons have {quota.told}; each flood lasts {options.seconds} s.", flush=True)
        quiet, rows, broken = quiet_time(net, options), [], []
        for name in options.floods:
            rows.append(one_flood(net, options, name, quiet))
            print(f"  {recipes.FLOODS[name][0]}: {rows[-1]['without']['sent']:,} frames", flush=True)
    finally:
        quota.close()
    print()
    print_table(rows, quiet, options)
    harmless = [row["name"] for row in rows if is_harmless(row["without"])]
    print("\nNo session, ping or LLDP neighbour is lost without protection to: " + (", ".join(harmless) or "none of them"))
    if options.json:
        pathlib.Path(options.json).write_text(json.dumps({"quiet": quiet, "floods": rows}, indent=1))
    if len(harmless) == len(rows) and len(rows) == len(recipes.FLOODS):
        broken.append("no flood does harm without protection: nothing is shown")
    if not options.without:
        through = quiet["forwarded"]
        print(f"Forwarded: {through['without']:.1f} Mbit/s without protection, {through['with']:.1f} with it.")
        if through["with"] < 0.97 * through["without"]:
            broken.append(f"forwarded traffic: {through['with']:.1f} of {through['without']:.1f} Mbit/s")
        broken += [f"{row['name']}: {what}" for row in rows for what in broken_promises(row, quiet, options)]
    for what in broken:
        print(f"BROKEN {what}")
    return 1 if broken else 0


def enter(options):
    """The network, in a machine of its own, of which one processor is the flood's, the others everybody else's."""
    processors = sorted(os.sched_getaffinity(0))
    if len(processors) < 2:
        network.skip("one processor floods, another one works: two are needed")
    network.enter_own_machine("bridge", "vtysh", "/usr/lib/frr/ospfd", "lldpd", "busybox", "iperf3", "ping")
    options.processor = processors[-1]
    os.sched_setaffinity(0, processors[:-1])
    folder = pathlib.Path("/run/demonstration")
    folder.mkdir()
    return network.Network(folder)


def main():
    options = arguments()
    return demonstrate(enter(options), options)


if __name__ == "__main__":
    sys.exit(main())
