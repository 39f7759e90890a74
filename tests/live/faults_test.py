#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""What befalls a protected machine when its protection is killed, stopped, refused or misled: faults_test.py ANTI_CPU

The machine is a namespace with one neighbour. Whatever happens to the process, the neighbour must reach the machine.
"""
import ctypes
import errno
import json
import os
import pathlib
import platform
import re
import signal
import socket
import struct
import subprocess
import sys
import time
import unittest

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parent.parent / "system"))

import monitor  # noqa: E402
import network  # noqa: E402
import traffic  # noqa: E402

CONTROL = "/run/faults.control"
BPF_CALL = {"x86_64": 321, "aarch64": 280}.get(platform.machine())
NEIGHBOUR_MAC = "02:00:00:00:00:01"


RUNNING = []


class Protection:
    """anti-cpu run, at eth0 unless told otherwise; the text is what it has said so far."""

    def __init__(self, *options, port="eth0", control=CONTROL, wrapper=()):
        self.log = pathlib.Path("/run", f"protection.{time.monotonic_ns()}")
        RUNNING.append(self)
        with open(self.log, "wb") as file:
            self.process = subprocess.Popen([*wrapper, PROGRAM, "run", "--port", port, "--control", control, *options],
                                            stdin=subprocess.DEVNULL, stdout=file, stderr=file)

    @property
    def text(self):
        return self.log.read_text()

    def ready(self):
        network.until("a protection that runs: " + self.text, lambda: "running;" in self.text or self.process.poll() is not None)
        return self

    def end(self, number=signal.SIGTERM):
        self.process.send_signal(number)
        return self.process.wait(network.PATIENCE_S)


def console(line, **options):
    return network.run(PROGRAM, "console", "--control", CONTROL, "-c", line, **options)


def card(port=1):
    return next(row for row in json.loads(console("show card json")) if row["port"] == port)


def attached():
    """What of ours hangs on the port."""
    link = json.loads(network.run("ip", "-d", "-j", "link", "show", "dev", "eth0"))[0]
    programs = json.loads(network.run("bpftool", "-j", "net", "show", "dev", "eth0"))[0]
    return bool(link.get("xdp")), sorted(kind for kind in ("xdp", "tc", "tcx") if programs.get(kind))


def lost_pings(count=20, interval=0.05):
    text = network.at("neighbour", "ping", "-n", "-c", str(count), "-i", str(interval), "-W", "1", "10.0.0.254", check=False)
    return count - int(re.search(r"(\d+) received", text)[1])


class Faults(unittest.TestCase):
    def setUp(self):
        network.run("ip", "link", "add", "eth0", "type", "veth", "peer", "name", "eth0", "address", NEIGHBOUR_MAC, "netns", "neighbour")
        network.run("ip", "address", "add", "10.0.0.254/24", "dev", "eth0")
        network.at("neighbour", "ip", "address", "add", "10.0.0.1/24", "dev", "eth0")
        network.at("neighbour", "ip", "link", "set", "eth0", "up")
        network.run("ip", "link", "set", "eth0", "up")
        network.until("a neighbour", lambda: lost_pings(1) == 0)

    def tearDown(self):
        while RUNNING:
            RUNNING.pop().end(signal.SIGKILL)
        network.run("ip", "link", "del", "eth0", check=False)
        network.run("ip", "link", "del", "other", check=False)

    def test_ended_in_order_it_leaves_nothing(self):
        features = network.run("ethtool", "-k", "eth0")
        for number in (signal.SIGTERM, signal.SIGINT):
            protection = Protection().ready()
            self.assertTrue(attached()[0], protection.text)
            self.assertEqual(protection.end(number), 0, protection.text)
            self.assertEqual(attached(), (False, []))
            self.assertFalse(os.path.exists(CONTROL))
        self.assertEqual(network.run("ethtool", "-k", "eth0"), features)

    def test_killed_it_leaves_the_machine_reachable_and_comes_back(self):
        protection = Protection().ready()
        console("hw-filter deny 1 port 1 eth-type 0x0800 ip-protocol 1")
        self.assertEqual(lost_pings(3), 3)
        protection.end(signal.SIGKILL)
        self.assertEqual(lost_pings(), 0)
        self.assertFalse(attached()[0])
        protection = Protection().ready()
        self.assertEqual(lost_pings(), 0)
        self.assertEqual(card()["lost"], 0)
        self.assertEqual(protection.end(), 0, protection.text)
        self.assertEqual(attached(), (False, []))

    def test_stopped_it_blocks_nothing(self):
        protection = Protection("--stall", "1").ready()
        console("hw-filter deny 1 port 1 eth-type 0x0800 ip-protocol 1")
        self.assertEqual(lost_pings(3), 3)
        protection.process.send_signal(signal.SIGSTOP)
        network.until("a kernel that has lost patience", lambda: lost_pings(1) == 0)
        self.assertEqual(lost_pings(), 0)
        protection.process.send_signal(signal.SIGCONT)
        network.until("rules in force again", lambda: lost_pings(1) == 1)
        counts = card()
        self.assertGreaterEqual(counts["blind"], 20)
        self.assertEqual(counts["offered"], counts["stopped"] + counts["dropped"] + counts["passed"])
        self.assertEqual(protection.end(), 0, protection.text)

    def test_a_service_manager_hears_how_it_is(self):
        for path in ("/run/faults.notify", "@faults.notify"):
            with self.subTest(path), socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM) as manager:
                manager.bind(path.replace("@", "\0"))
                manager.settimeout(network.PATIENCE_S)

                def heard(begin):
                    return next(text for text in iter(lambda: manager.recv(4096).decode(), None) if text.startswith(begin))
                protection = Protection(wrapper=("env", f"NOTIFY_SOCKET={path}", "WATCHDOG_USEC=400000"))
                self.assertIn("READY=1", heard("READY"))
                self.assertEqual(heard("STATUS="), "STATUS=1 of 1 ports protected")
                heard("WATCHDOG=1")
                protection.process.send_signal(signal.SIGHUP)
                self.assertLess(int(heard("RELOADING=1\nMONOTONIC_USEC=").partition("C=")[2]), time.monotonic_ns() // 1000)
                heard("READY=1")
                protection.process.send_signal(signal.SIGTERM)
                heard("STOPPING=1")
                self.assertEqual(protection.process.wait(network.PATIENCE_S), 0, protection.text)

    def test_what_cannot_be_is_refused_by_name(self):
        rows = [("no such interface", {"port": "nowhere"}, "nowhere"),
                ("no name", {"port": "=1"}, "--port =1"),
                ("port number 0", {"port": "eth0=0"}, "1 to 59999"),
                ("VLAN 4096", {"port": "eth0=1:4096"}, "eth0=1:4096"),
                ("loopback twice as one port", {"options": ("--port", "lo=1"), "port": "eth0=1"}, "port number"),
                ("settings that are not there", {"options": ("--config", "/nowhere")}, "/nowhere"),
                ("a wrong line", {"options": ("-x", "set nonsense")}, "nonsense"),
                ("no group", {"options": ("--operators", "no-such-group")}, "no-such-group"),
                ("control in no folder", {"control": "/dev/null/socket"}, "/dev/null/socket"),
                ("a user without rights", {"wrapper": ("setpriv", "--reuid=65534", "--clear-groups"),
                                           "control": "/run/open/faults.control"}, "ermi")]
        if BPF_CALL:
            rows += [(f"bpf answers {name}", {"wrapper": (sys.executable, __file__, "--bpf-answers", str(number))}, named)
                     for name, number, named in (("ENOSYS", errno.ENOSYS, "without BPF"), ("EPERM", errno.EPERM, "CAP_BPF"),
                                                 ("ENOMEM", errno.ENOMEM, "memory limit"))]
        for name, what, named in rows:
            with self.subTest(name):
                protection = Protection(*what.pop("options", ()), **what)
                self.assertNotIn(protection.process.wait(network.PATIENCE_S), (0, -signal.SIGABRT, -signal.SIGSEGV), protection.text)
                self.assertIn(named, protection.text)
                self.assertEqual(attached(), (False, []))
        self.assertEqual(lost_pings(), 0)

    def test_a_second_one_does_not_disturb_the_first(self):
        first = Protection().ready()
        for control, named in ((CONTROL, CONTROL), (CONTROL + ".2", "eth0")):
            second = Protection(control=control)
            self.assertNotEqual(second.process.wait(network.PATIENCE_S), 0, second.text)
            self.assertIn(named, second.text)
        console("hw-filter deny 1 port 1 eth-type 0x0800 ip-protocol 1")
        self.assertEqual(lost_pings(3), 3)
        self.assertEqual(first.end(), 0, first.text)

    def test_a_port_that_goes_and_comes(self):
        protection = Protection("--port", "other=7").ready()
        self.assertIn("other", protection.text)
        network.run("ip", "link", "add", "other", "type", "veth")
        network.run("ip", "link", "set", "other", "up")
        network.until("the new port", lambda: card(7)["state"] == "native")
        network.run("ip", "link", "set", "eth0", "down")
        network.run("ip", "link", "set", "eth0", "name", "uplink")
        network.run("ip", "link", "set", "uplink", "up", "mtu", "1400")
        self.assertEqual(lost_pings(5), 0)
        before = card()["offered"]
        self.assertEqual(lost_pings(5), 0)
        self.assertGreaterEqual(card()["offered"], before + 5)
        network.run("ip", "link", "set", "uplink", "down")
        network.run("ip", "link", "set", "uplink", "name", "eth0", "up")
        network.run("ip", "link", "del", "eth0")
        self.setUp()
        network.until("the port again", lambda: attached()[0])
        console("hw-filter deny 1 port 1 eth-type 0x0800 ip-protocol 1")
        self.assertEqual(lost_pings(3), 3)
        self.assertEqual(protection.end(), 0, protection.text)

    def test_the_operators_rules_decide_in_the_kernel(self):
        protection = Protection("-x", "set fast-period 1", "-x", "set limit icmpv4 fast 1", "-x", "set deny icmpv4 on").ready()
        console("filter deny id 1 protocol icmpv4 source 10.0.0.1")
        self.assertEqual(lost_pings(5), 5)
        counts = card()
        self.assertGreaterEqual(counts["dropped"], 5)
        self.assertEqual(counts["stopped"], 0)
        console("filter delete 1")
        network.until("a flow that is denied", lambda: lost_pings(10) > 5)
        console("filter permit id 2 protocol icmpv4 source 10.0.0.0/24 port 1")
        self.assertEqual(lost_pings(40), 0, protection.text)
        self.assertEqual(protection.end(), 0, protection.text)

    def test_detached_by_somebody_else(self):
        protection = Protection("--events", "/run/detached.events").ready()
        network.run("ip", "link", "set", "eth0", "xdp", "off", check=False)
        self.assertTrue(attached()[0], "a link's program cannot be taken off by its port: " + protection.text)
        descriptors = [file.read_text() for file in pathlib.Path(f"/proc/{protection.process.pid}/fdinfo").iterdir()]
        links = [re.search(r"link_id:\s*(\d+)", text)[1] for text in descriptors if re.search(r"link_type:\s*xdp", text)]
        network.run("bpftool", "link", "detach", "id", *links)
        network.until("a line about it", lambda: "taken the program off" in protection.text)
        network.until("the program again", lambda: attached()[0])
        console("hw-filter deny 1 port 1 eth-type 0x0800 ip-protocol 1")
        self.assertEqual(lost_pings(3), 3)
        self.assertEqual(protection.end(), 0, protection.text)
        events = [json.loads(line)["event"] for line in pathlib.Path("/run/detached.events").read_text().splitlines()]
        self.assertEqual(events[:3], ["port-protected", "port-lost", "port-protected"])

    def test_out_of_memory_it_goes_on_or_ends_with_a_word(self):
        protection = Protection().ready()
        network.run("prlimit", "--pid", str(protection.process.pid), "--as=1")
        sender = monitor.Sender("neighbour", "eth0", [traffic.syn(n, vlan) for vlan in range(1, 4000) for n in (1, 2)], 4000)
        network.until("every flow", lambda: sender.sent >= 8000)
        sender.end()
        for _ in range(20):
            network.run(PROGRAM, "console", "--control", CONTROL, "-c", "show flows json", check=False)
        self.assertEqual(lost_pings(), 0)
        if protection.process.poll() is not None:
            self.assertIn("no memory left", protection.text)
            self.assertEqual(attached(), (False, []))
        else:
            counts = card()
            self.assertEqual(counts["offered"], counts["stopped"] + counts["dropped"] + counts["passed"])

    def test_a_full_ring_loses_copies_and_no_packet(self):
        protection = Protection("--stall", "60", "--events", "/run/faults.events").ready()
        protection.process.send_signal(signal.SIGSTOP)
        text = network.at("neighbour", "ping", "-n", "-q", "-f", "-c", "12000", "-s", "1400", "10.0.0.254")
        protection.process.send_signal(signal.SIGCONT)
        self.assertIn(" 0% packet loss", text)
        network.until("a line about it", lambda: "without a copy" in protection.text)
        counts = card()
        self.assertGreater(counts["lost"], 1000)
        self.assertEqual(counts["offered"], counts["stopped"] + counts["dropped"] + counts["passed"])
        self.assertEqual(protection.end(), 0, protection.text)
        self.assertIn('"copies-lost"', pathlib.Path("/run/faults.events").read_text())

    def test_what_a_full_chip_does_not_take_is_denied_in_software(self):
        lines = ("set fast-period 1", "set limit icmpv4 source fast 1", "set limit icmpv4 fast 1", "set hw-deny icmpv4 source on")
        protection = Protection("--chip-rules", "1", *(word for line in lines for word in ("-x", line))).ready()
        for last in range(2, 6):
            network.at("neighbour", "ip", "address", "add", f"10.0.0.{last}/24", "dev", "eth0")
        for last in (2, 3, 4, 5) * 2:
            network.at("neighbour", "ping", "-n", "-q", "-f", "-c", "200", "-W", "1", "-I", f"10.0.0.{last}", "10.0.0.254", check=False)
        self.assertEqual(protection.text.count("found no room in the kernel"), 1, protection.text)
        self.assertLessEqual(len(protection.text.splitlines()), 100, protection.text)
        self.assertGreater(card()["stopped"], 0)
        rules = json.loads(console("show chip json"))
        self.assertEqual([rule.get("in_software", False) for rule in rules].count(False), 1, rules)
        self.assertTrue(all(rule["packets"] for rule in rules), rules)
        self.assertGreater(card()["dropped"], 100)
        self.assertEqual(protection.end(), 0, protection.text)


def enter(*tools):
    """A machine of its own with one neighbour; the program is the first argument."""
    global PROGRAM
    network.enter_own_machine(*tools)
    PROGRAM = os.path.abspath(sys.argv.pop(1))
    network.run("ip", "netns", "add", "neighbour")
    network.run("ip", "link", "set", "lo", "up")


# What bpf(2) answers when there is none, when it is not allowed, or when there is no memory.
def run_without_bpf(error, command):
    refuse = struct.pack("HBBI", 0x06, 0, 0, 0x00050000 | error)  # SECCOMP_RET_ERRNO
    rows = [struct.pack("HBBI", 0x20, 0, 0, 0), struct.pack("HBBI", 0x15, 0, 1, BPF_CALL), refuse,
            struct.pack("HBBI", 0x06, 0, 0, 0x7fff0000)]
    code = ctypes.create_string_buffer(b"".join(rows))
    program = ctypes.create_string_buffer(struct.pack("HxxxxxxP", len(rows), ctypes.addressof(code)))
    prctl = ctypes.CDLL(None).prctl
    prctl.argtypes = [ctypes.c_int] + [ctypes.c_ulong] * 4
    if prctl(38, 1, 0, 0, 0) != 0 or prctl(22, 2, ctypes.addressof(program), 0, 0) != 0:
        sys.exit("no seccomp filter")
    os.execv(command[0], command)


if __name__ == "__main__":
    if sys.argv[1] == "--bpf-answers":
        run_without_bpf(int(sys.argv[2]), sys.argv[3:])
    enter("ping", "ethtool", "bpftool", "setpriv")
    network.run("install", "-d", "-m", "777", "/run/open")
    unittest.main(verbosity=2)
