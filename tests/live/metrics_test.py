#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""What a real Prometheus reads from a protected machine under a small flood: metrics_test.py ANTI_CPU

Its figures are those of `show card`, the dashboard's queries and the rules give data, and promtool finds nothing wrong.
"""
import collections
import json
import os
import pathlib
import socket
import subprocess
import sys
import unittest

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parent.parent / "system"))

import monitor  # noqa: E402
import network  # noqa: E402
import recipes  # noqa: E402
import traffic  # noqa: E402

ADDRESS, CONTROL, FOLDER = "127.0.0.1:9777", "/run/metrics.control", pathlib.Path("/run/metrics")
VERDICTS = ("stopped", "dropped", "passed", "transit", "blind", "sent")
# ARP senders go into the chip, OSPF senders are dropped in software, LLDP and DHCP meet filters, of STP all passes.
SETTINGS = ("set fast-period 1", "set hw-deny arp source on", "set deny ospfv2 source on", "set capture stp on",
            "hw-filter deny 1 port 1 eth-type 0x88cc", "filter deny protocol dhcp",
            "set limit stp fast 20")
FLOODS = {"arp": [traffic.arp(n, None) for n in range(2, 5)], "ospfv2": [recipes.summed(traffic.ospf(n, None)) for n in (5, 9)],
          "none": [traffic.lldp(6, None)], "stp": [traffic.stp(7, None)],
          "dhcp": [recipes.summed(traffic.dhcp(8, None))]}


def run_options(metrics=ADDRESS, control=CONTROL):
    lines = [word for line in SETTINGS for word in ("-x", line)]
    return [PROGRAM, "run", "--port", "eth0", "--metrics", metrics, "--control", control, "--memory-budget", "64", *lines]


class Metrics(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        with open(FOLDER / "protection.log", "wb") as log:
            cls.protection = subprocess.Popen(run_options(), stdin=subprocess.DEVNULL, stdout=log, stderr=log)
        cls.prometheus = monitor.Monitor(FOLDER, [ADDRESS])
        network.until("a first scrape", lambda: cls.prometheus.value("up") == 1)

    @classmethod
    def tearDownClass(cls):
        cls.prometheus.end()
        cls.protection.terminate()
        cls.protection.wait(network.PATIENCE_S)

    def until_all(self, what, queries):
        """Every query gives data at the same time."""
        empty = {}

        def ready():
            empty.update({query: not self.prometheus.rows(query) for query in queries})
            return not any(empty.values())
        try:
            network.until(what, ready)
        except TimeoutError:
            self.fail(f"{what}: no data for {[query for query, is_empty in empty.items() if is_empty]}")

    def test_a_flood(self):
        senders = {name: monitor.Sender("neighbour", "eth0", frames, 600) for name, frames in FLOODS.items()}
        self.dashboard_has_data()
        self.rules_give_data()
        sent = {name: sender.end() for name, sender in senders.items()}
        self.equals_show_card()
        for name, count in sent.items():
            self.assertEqual(self.prometheus.value(f'sum(anti_cpu_packets_total{{class="{name}",direction="rx"}})'), count, name)
        # A verdict each; a frame of 60 bytes each but for what the chip has stopped.
        for name, verdict in (("arp", "stopped"), ("ospfv2", "dropped"), ("none", "stopped"), ("stp", "passed"), ("dhcp", "filtered")):
            of = f'{{class="{name}",verdict="{verdict}"}}'
            self.assertGreater(self.prometheus.value(f"anti_cpu_packets_total{of}"), sent[name] / 2, name)
            if verdict != "stopped":
                size = len(FLOODS[name][0])
                self.assertEqual(self.prometheus.value(f"anti_cpu_bytes_total{of} / anti_cpu_packets_total{of}"), size, name)

    def dashboard_has_data(self):
        board = json.loads((monitor.SHARE / "grafana/anti-cpu.json").read_text())
        queries = [target["expr"] for panel in board["panels"] for target in panel.get("targets", [])]
        self.assertGreater(len(queries), 20)
        self.until_all("the dashboard", [query.replace("$instance", ".*").replace("$__rate_interval", "10s").replace("[1h]", "[10s]")
                                         for query in queries])

    def rules_give_data(self):
        rules = [rule for group in self.prometheus.ask("rules")["groups"] for rule in group["rules"]]
        self.assertEqual({rule["health"] for rule in rules}, {"ok"}, rules)
        self.until_all("the records", [rule["name"] for rule in rules if rule["type"] == "recording"])
        self.until_all("the alarm", ['ALERTS{alertname="AntiCpuFlood",class="arp"}'])
        network.run(PROGRAM, "console", "--control", CONTROL, "-c", "set limit stp source fast 7")
        of_stp = 'anti_cpu_limit_packets_per_second{class="stp",period="fast",scope='
        self.until_all("figures", ['anti_cpu_flows_over_limit{class="ospfv2"} == 1', 'anti_cpu_sources_over_limit{class="ospfv2"} == 2',
                                   'anti_cpu_alarms_total{class="stp",period="fast"} > 0', 'anti_cpu_fast_period_seconds == 1',
                                   of_stp + '"flow"} == 20', of_stp + '"source"} == 7', 'anti_cpu_software_denies == 2',
                                   'anti_cpu_chip_rules{kind="filter"} == 1', 'anti_cpu_chip_rules{kind="automatic"} == 3',
                                   'anti_cpu_chip_rules_free == 1020', 'anti_cpu_memory_budget_bytes == 64000000'])
        self.until_all("the senders' names", [f'anti_cpu_flooding_source_packets_per_second{{class="arp",source="02:00:00:00:00:{n:02x}"}} > 100'
                                              for n in range(2, 5)])

    def equals_show_card(self):
        def by_verdict(query):
            return collections.Counter({labels["verdict"]: value for labels, value in self.prometheus.rows(query)})

        def equal():
            row = json.loads(network.run(PROGRAM, "console", "--control", CONTROL, "-c", "show card json"))[0]
            card = {name: row[name] for name in VERDICTS}
            by_class = by_verdict("sum by (verdict) (anti_cpu_packets_total)")
            by_class["dropped"] += by_class["filtered"]
            seen.update(card=card, kernel=by_verdict('anti_cpu_port_packets_total{port="1"}'), classes=by_class)
            return seen["kernel"] == card and all(by_class[name] == card[name] for name in ("stopped", "dropped", "passed", "sent"))
        seen = {}
        try:
            network.until("figures that are those of show card", equal, 20)
        except TimeoutError:
            self.fail(seen)

    def test_promtool_finds_nothing(self):
        self.assertEqual(subprocess.run(["promtool", "check", "metrics"], input=monitor.get(f"http://{ADDRESS}/metrics"), text=True,
                                        stdout=subprocess.PIPE, stderr=subprocess.STDOUT).stdout, "")
        own = str(pathlib.Path(__file__).resolve().parent / "rules_test.yml")
        for command in (["promtool", "check", "config", "prometheus.yml"], ["promtool", "test", "rules", own],
                        ["amtool", "check-config", "alertmanager.yml"]):
            done = subprocess.run(command, cwd=monitor.SHARE / "prometheus", stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True)
            self.assertEqual(done.returncode, 0, done.stdout)

    def test_what_cannot_be_is_refused_by_name(self):
        with socket.create_server(("127.0.0.1", 0)) as taken:
            rows = [(address, "ADDRESS:PORT") for address in ("nonsense", "127.0.0.1", "127.0.0.1:0", "127.0.0.1:65536",
                                                              "localhost:9777", "[::1]:9777", "::1:9777", "127.0.0.1:9777x")]
            rows += [("127.0.0.1:%d" % taken.getsockname()[1], "in use"), ("192.0.2.1:9777", "assign")]
            for address, named in rows:
                with self.subTest(address):
                    done = subprocess.run(run_options(address, "/run/other.control"), stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
                                          text=True, timeout=network.PATIENCE_S)
                    self.assertEqual(done.returncode, 1, done.stdout)
                    self.assertIn(f"--metrics {address}", done.stdout)
                    self.assertIn(named, done.stdout)


if __name__ == "__main__":
    network.enter_own_machine("prometheus", "promtool", "amtool")
    PROGRAM = os.path.abspath(sys.argv.pop(1))
    FOLDER.mkdir()
    network.run("ip", "netns", "add", "neighbour")
    network.run("ip", "link", "set", "lo", "up")
    network.run("ip", "link", "add", "eth0", "type", "veth", "peer", "name", "eth0", "netns", "neighbour")
    network.at("neighbour", "ip", "link", "set", "eth0", "up")
    network.run("ip", "link", "set", "eth0", "up")
    unittest.main(verbosity=2)
