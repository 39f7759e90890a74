#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Three protected routers, one Prometheus, one Alertmanager, and a sender that floods two of them: fleet.py ANTI_CPU

    noc (Prometheus, Alertmanager) ---- management ---- r1  r2  r3
    segment1 ---- r1    segment2 ---- r2    segment3 ---- r3        the sender is at segment 1, then at 2 besides

Each router is a namespace that runs `anti-cpu run --metrics`. The configurations are those of share/prometheus, with their
intervals shortened to a second, and to ten where they are a minute. Prints what is told to whom, and when; the exit status is 0 only if all of it came: a flood
at the first router, the same sender at two, a router that does not answer, and the end of each, but nothing of the third.
"""
import http.server
import json
import os
import pathlib
import signal
import sys
import threading
import time

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parent.parent / "system"))

import monitor  # noqa: E402
import network  # noqa: E402
import traffic  # noqa: E402

FOLDER = pathlib.Path("/run/fleet")
ROUTERS = ("r1", "r2", "r3")
SENDER = 0x42
SETTINGS = [word for line in ("set fast-period 1", "set hw-deny arp source on") for word in ("-x", line)]


def address(router):
    return f"192.0.2.{1 + ROUTERS.index(router)}:9777"


class Receiver(http.server.ThreadingHTTPServer):
    """What Alertmanager posts: who was told what, in its order."""

    def __init__(self):
        super().__init__(("127.0.0.1", 0), self.Handler)
        self.begin, self.told = time.monotonic(), []
        threading.Thread(target=self.serve_forever, daemon=True).start()

    class Handler(http.server.BaseHTTPRequestHandler):
        def do_POST(self):
            for alert in json.loads(self.rfile.read(int(self.headers["Content-Length"])))["alerts"]:
                labels = alert["labels"]
                what = (self.path[1:], labels["alertname"], labels.get("source") or labels["instance"].replace(":9777", ""), alert["status"])
                if what not in self.server.told:
                    self.server.told.append(what)
                    print(f"{time.monotonic() - self.server.begin:5.1f} s  {what[0]:9}  {what[3]:8}  {alert['annotations']['summary']}", flush=True)
            self.send_response(200)
            self.end_headers()

        def log_message(self, *_):
            pass

    def expect(self, *what):
        network.until(f"{what} to be told", lambda: what in self.told)


def build():
    """The routers, each with a segment of its own, and the network that they are managed by."""
    network.run("ip", "link", "set", "lo", "up")
    network.run("ip", "link", "add", "management", "type", "bridge")
    network.run("ip", "address", "add", "192.0.2.254/24", "dev", "management")
    network.run("ip", "link", "set", "management", "up")
    for number, router in enumerate(ROUTERS, 1):
        segment = f"segment{number}"
        for namespace in (router, segment):
            network.run("ip", "netns", "add", namespace)
        network.run("ip", "link", "add", router, "type", "veth", "peer", "name", "mgmt", "netns", router)
        network.run("ip", "link", "set", router, "master", "management", "up")
        network.run("ip", "link", "add", "eth0", "netns", router, "type", "veth", "peer", "name", "eth0", "netns", segment)
        network.at(router, "ip", "address", "add", f"192.0.2.{number}/24", "dev", "mgmt")
        for namespace, link in ((router, "mgmt"), (router, "eth0"), (segment, "eth0")):
            network.at(namespace, "ip", "link", "set", link, "up")


def protect(router):
    return network.start(router, FOLDER / f"{router}.log", PROGRAM, "run", "--port", "eth0", "--metrics", address(router),
                         "--control", f"/run/{router}.control", *SETTINGS)


def show(prometheus, receiver, routers):
    flood = [traffic.arp(SENDER, None)]
    sender = "02:00:00:00:00:42"
    print(f"The sender {sender} floods segment 1.", flush=True)
    first = monitor.Sender("segment1", "eth0", flood, 500)
    receiver.expect("operators", "AntiCpuFlood", "192.0.2.1", "firing")
    print("It floods segment 2 besides.", flush=True)
    second = monitor.Sender("segment2", "eth0", flood, 500)
    receiver.expect("operators", "AntiCpuFlood", "192.0.2.2", "firing")
    receiver.expect("on-call", "AntiCpuSourceAtSeveralRouters", sender, "firing")
    rate = prometheus.value("source_class:anti_cpu_flooding_source_packets_per_second:sum")
    print(f"On the page of the fleet: {rate:.0f} packets a second from it, at all routers together.", flush=True)
    print("It leaves segment 2; r3 is stopped.", flush=True)
    second.end()
    routers["r3"].send_signal(signal.SIGSTOP)
    receiver.expect("on-call", "AntiCpuSourceAtSeveralRouters", sender, "resolved")
    receiver.expect("on-call", "AntiCpuDown", "192.0.2.3", "firing")
    routers["r3"].send_signal(signal.SIGCONT)
    receiver.expect("on-call", "AntiCpuDown", "192.0.2.3", "resolved")
    print("It leaves segment 1, too.", flush=True)
    first.end()
    for router in ("192.0.2.1", "192.0.2.2"):
        receiver.expect("operators", "AntiCpuFlood", router, "resolved")
    return [what for what in receiver.told if "192.0.2.3" in what and what[1] not in ("AntiCpuDown", "AntiCpuBlind")]


def main():
    FOLDER.mkdir()
    build()
    routers = {router: protect(router) for router in ROUTERS}
    receiver = Receiver()
    prometheus = monitor.Monitor(FOLDER, [address(router) for router in ROUTERS], f"http://127.0.0.1:{receiver.server_port}")
    network.until("three routers", lambda: prometheus.value('sum(up{job="anti-cpu"})') == len(ROUTERS))
    try:
        wrong = show(prometheus, receiver, routers)
    except TimeoutError as error:
        wrong = [str(error), *(log.read_text()[-300:] for log in FOLDER.glob("*.log"))]
    prometheus.end()
    for what in wrong:
        print(f"BROKEN {what}")
    return 1 if wrong else 0


if __name__ == "__main__":
    network.enter_own_machine("prometheus", "prometheus-alertmanager", "bridge")
    PROGRAM = os.path.abspath(sys.argv.pop(1))
    sys.exit(main())
