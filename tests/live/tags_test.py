#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""VLAN tags in the frame and beside it, two of them, and a bond as a trunk: tags_test.py ANTI_CPU

The machine is a namespace with one neighbour. Skipped where the kernel has neither 802.1Q nor bonds; that of Debian 12 has
them: tests/live/emulated.sh tests/live/tags_test.py build/debug/anti-cpu
"""
import json
import os
import signal
import subprocess
import sys
import unittest

import network
from faults_test import CONTROL, Protection, RUNNING, card, console

import faults_test


def pings(address, count=10):
    """How many of so many come back."""
    text = network.at("neighbour", "ping", "-n", "-q", "-c", str(count), "-i", "0.05", "-W", "1", address, check=False)
    return int(text.split(" received")[0].split()[-1])


def flows():
    """(class, port, VLAN) of received flows."""
    return {(flow["protocol"], flow["port"], flow["vlan"]) for flow in json.loads(console("show flows json"))}


def wire(name):
    """A pair of ports, one here and one at the neighbour."""
    network.run("ip", "link", "add", name, "type", "veth", "peer", "name", name, "netns", "neighbour")


class Tags(unittest.TestCase):
    def tearDown(self):
        while RUNNING:
            RUNNING.pop().end(signal.SIGKILL)
        for name in ("eth0", "eth1", "eth2", "bond0"):
            network.run("ip", "link", "del", name, check=False)
        network.at("neighbour", "ip", "link", "del", "bond0", check=False)

    def stack(self, tags):
        """Sub-interfaces on both ends of eth0, one in another; addresses on the last."""
        wire("eth0")
        for at, host in ((network.run, 254), (lambda *command: network.at("neighbour", *command), 1)):
            at("ip", "link", "set", "eth0", "up")
            below = "eth0"
            for protocol, vlan in tags:
                name = f"{below}.{vlan}"
                at("ip", "link", "add", "link", below, "name", name, "type", "vlan", "protocol", protocol, "id", str(vlan))
                at("ip", "link", "set", name, "up")
                below = name
            at("ip", "address", "add", f"10.1.0.{host}/24", "dev", below)

    def test_tags_in_the_frame(self):
        for tags, vlan in (([("802.1Q", 100)], 100), ([("802.1ad", 200), ("802.1Q", 100)], 200)):
            with self.subTest(tags):
                self.stack(tags)
                network.at("neighbour", "ethtool", "-K", "eth0", "txvlan", "off", "tx-vlan-stag-hw-insert", "off")
                protection = Protection("--port", "lo=2", port="eth0=1:7").ready()
                self.assertEqual(pings("10.1.0.254"), 10, protection.text)
                self.assertLessEqual({("icmpv4", 1, vlan), ("arp", 1, vlan)}, flows())
                console(f"filter deny id 1 protocol icmpv4 vlan {vlan}")
                console("filter deny id 2 protocol icmpv4 vlan 7")
                self.assertEqual(pings("10.1.0.254", 3), 0)
                console("filter delete 1")
                self.assertEqual(pings("10.1.0.254", 3), 3)
                console(f"hw-filter deny 1 port 1 vlan {vlan} eth-type 0x0800 ip-protocol 1")
                self.assertEqual(pings("10.1.0.254", 3), 0)
                self.assertEqual(protection.end(), 0, protection.text)
                self.assertEqual(pings("10.1.0.254", 3), 3)
                self.tearDown()

    def test_tags_beside_the_frame(self):
        """A veth pair hands them on so: the frame counts for the port's own VLAN, and nothing breaks."""
        self.stack([("802.1Q", 100)])
        protection = Protection(port="eth0=1:7").ready()
        self.assertEqual(pings("10.1.0.254"), 10, protection.text)
        self.assertTrue({("icmpv4", 1, 7), ("icmpv4", 1, 100)} & flows(), flows())
        console("hw-filter deny 1 port 1 eth-type 0x0800 ip-protocol 1")
        self.assertEqual(pings("10.1.0.254", 3), 0)
        self.assertEqual(protection.end(), 0, protection.text)

    def test_a_bond_is_a_trunk(self):
        def bond(at, host):
            at("ip", "link", "add", "bond0", "type", "bond", "mode", "balance-rr", "miimon", "100")
            for name in ("eth0", "eth1"):
                at("ip", "link", "set", name, "down")
                at("ip", "link", "set", name, "master", "bond0")
            at("ip", "link", "set", "bond0", "up")
            at("ip", "address", "add", f"10.1.0.{host}/24", "dev", "bond0")
        wire("eth2")
        protection = Protection("--port", "eth2=2", port="bond0=5").ready()
        self.assertIn("bond0", protection.text)
        wire("eth0")
        wire("eth1")
        bond(network.run, 254)
        bond(lambda *command: network.at("neighbour", *command), 1)
        network.until("a bond that carries", lambda: pings("10.1.0.254", 2) == 2)
        for member in (60000, 60001):
            network.until(f"port {member}", lambda: f"port {member} " in protection.text and card(member)["state"] == "native")
        self.assertEqual(pings("10.1.0.254"), 10, protection.text)
        self.assertIn(("icmpv4", 5, 1), flows())
        self.assertGreater(min(card(60000)["offered"], card(60001)["offered"]), 0)
        for line, end in (("hw-filter deny 1 port 5 eth-type 0x0800 ip-protocol 1", "hw-filter delete 1"),
                          ("filter deny id 1 port 5 protocol icmpv4", "filter delete 1")):
            console(line)
            self.assertEqual(pings("10.1.0.254", 6), 0, line)
            console(end)
            self.assertEqual(pings("10.1.0.254", 6), 6, end)
        # One leaves on both ends, and comes back under its number.
        for at in (network.run, lambda *command: network.at("neighbour", *command)):
            at("ip", "link", "set", "eth1", "nomaster")
        network.until("a member that leaves", lambda: "port 60001 (eth1) leaves trunk 5" in protection.text)
        self.assertEqual(pings("10.1.0.254"), 10, protection.text)
        for at in (network.run, lambda *command: network.at("neighbour", *command)):
            at("ip", "link", "set", "eth1", "down")
            at("ip", "link", "set", "eth1", "master", "bond0")
        network.until("a member that comes back", lambda: protection.text.count("port 60001 (eth1) joins trunk 5") == 2)
        network.until("its program", lambda: card(60001)["state"] == "native")
        console("hw-filter deny 1 port 5 eth-type 0x0800 ip-protocol 1")
        self.assertEqual(pings("10.1.0.254", 6), 0)
        self.assertEqual(protection.end(), 0, protection.text)
        self.assertEqual(pings("10.1.0.254", 6), 6)


def has_devices():
    """Whether this kernel makes them."""
    network.run("ip", "link", "add", "below", "type", "veth")
    made = [subprocess.run(["ip", "link", "add", "probe", *kind], stderr=subprocess.DEVNULL).returncode == 0 and
            network.run("ip", "link", "del", "probe") == ""
            for kind in (["link", "below", "type", "vlan", "id", "1"], ["type", "bond"])]
    network.run("ip", "link", "del", "below")
    return all(made)


if __name__ == "__main__":
    network.enter_own_machine("ping", "ethtool")
    if not has_devices():
        network.skip("this kernel has neither 802.1Q nor bonds")
    faults_test.PROGRAM = os.path.abspath(sys.argv.pop(1))
    network.run("ip", "netns", "add", "neighbour")
    network.run("ip", "link", "set", "lo", "up")
    unittest.main(verbosity=2)
