#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""anti-cpu top on a terminal of 80 x 24, every key of it, while a machine is flooded: top_test.py ANTI_CPU"""
import fcntl
import os
import pty
import re
import select
import struct
import subprocess
import termios
import time
import unittest

import network
from faults_test import CONTROL, Protection, RUNNING, console

import faults_test
import monitor
import traffic

FLOOD = ("02:00:00:00:00:07", "arp")


class Screen:
    """What a terminal has been sent since it was last asked; escape sequences are blanks."""

    def __init__(self, verb, *words):
        self.master, slave = pty.openpty()
        fcntl.ioctl(slave, termios.TIOCSWINSZ, struct.pack("HHHH", 24, 80, 0, 0))
        self.process = subprocess.Popen([faults_test.PROGRAM, verb, "--control", CONTROL, *words], stdin=slave, stdout=slave,
                                        stderr=slave, env={**os.environ, "TERM": "xterm", "LANG": "C.UTF-8"})
        os.close(slave)
        self.text = ""

    def press(self, keys, *wanted):
        """Until all of 'wanted' has been drawn since, one behind the other."""
        os.write(self.master, keys.encode())
        self.text, end = "", time.monotonic() + 10
        while not re.search(".*".join(re.escape(one) for one in wanted), self.text, re.S):
            if time.monotonic() > end:
                raise AssertionError(f"after {keys!r} there is no {wanted} in: {self.text}")
            if select.select([self.master], [], [], 0.2)[0]:
                self.text += re.sub(r"\x1b\[[0-9;?]*[A-Za-z]|\x1b[()][A-Z0-9]", " ", os.read(self.master, 65536).decode(errors="replace"))
        return self.text


class Top(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        network.run("ip", "link", "add", "eth0", "type", "veth", "peer", "name", "eth0", "netns", "neighbour")
        network.run("ip", "link", "set", "eth0", "up")
        network.at("neighbour", "ip", "link", "set", "eth0", "up")

    def tearDown(self):
        while RUNNING:
            RUNNING.pop().end()

    def test_keys_while_it_floods(self):
        Protection("-x", "set fast-period 1", "-x", "set hw-deny arp source on", "-x", "set deny lldp on").ready()
        sender = monitor.Sender("neighbour", "eth0", [traffic.arp(7, 100), traffic.lldp(8, 101), traffic.arp(9, 100)], 3000)
        network.until("a rule", lambda: "src-mac" in console("show chip"))
        for page in ("floods", "ports", "classes", "rules"):
            text = network.run(faults_test.PROGRAM, "top", "--control", CONTROL, "--once", "--page", page, "--interval", "0.5")
            self.assertIn("deny port 1" if page == "rules" else "eth0" if page == "ports" else FLOOD[1], text)
        screen = Screen("top", "--interval", "0.5")
        screen.press("", *FLOOD)
        for keys, wanted in (("2", "eth0"), ("3", "lldp"), ("4", "src-mac"), ("1", "arp"), ("?", "look more often"), ("?", "arp"),
                             ("\t", "eth0"), ("\x1b[Z", "arp"), ("z", "no key is"), (">", "*"), ("<", "*"), ("r", ""), ("j", ""),
                             ("k", ""), ("\x1b[6~", ""), ("\x1b[5~", ""), ("\x1bOF", ""), ("\x1bOH", ""), ("\x1b[B", ""),
                             ("\x1b[A", ""), ("-", ""), ("+", ""), ("p", "pause"), (" ", ""), ("p", ""), ("4", "src-mac"),
                             ("\r", "only a flood"), ("c", "no packets are named"), ("1", "arp"), ("\r", "sources of"), ("c", "Record how many"),
                             ("\r", "capture"), ("x", "")):
            with self.subTest(keys):
                screen.press(keys, wanted)
        RUNNING[0].end()
        screen.press("", "NO ANSWER")
        screen.press("q")
        self.assertEqual(screen.process.wait(network.PATIENCE_S), 0)
        sender.end()
        os.close(screen.master)

    def test_without_a_terminal_or_a_process(self):
        for words, named in (((), "--once"), (("--once",), CONTROL)):
            result = subprocess.run([faults_test.PROGRAM, "top", "--control", CONTROL, *words], stdin=subprocess.DEVNULL, text=True,
                                    stdout=subprocess.PIPE, stderr=subprocess.STDOUT, env={"TERM": "nonsense"}, check=False)
            self.assertNotEqual(result.returncode, 0)
            self.assertIn(named, result.stdout)


if __name__ == "__main__":
    faults_test.enter("ping")
    unittest.main(verbosity=2)
