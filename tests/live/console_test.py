#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Who may give lines to a protected machine, and how: console_test.py ANTI_CPU"""
import grp
import json
import subprocess
import unittest

import network
from faults_test import CONTROL, Protection, RUNNING, console
from top_test import Screen

import faults_test

OPERATORS, OBSERVERS, OTHERS = "games", "mail", "nogroup"


def given(lines, *words, group=None, control=CONTROL):
    """The answer to lines, one an option or all typed, of somebody in a group; and the exit status."""
    someone = ("setpriv", "--reuid=65534", f"--regid={grp.getgrnam(group).gr_gid}", "--clear-groups") if group else ()
    options = [word for line in lines for word in ("-c", line)] if isinstance(lines, tuple) else []
    result = subprocess.run([*someone, faults_test.PROGRAM, "console", "--control", control, *words, *options], text=True, check=False,
                            input=lines if isinstance(lines, str) else None, stdout=subprocess.PIPE, stderr=subprocess.STDOUT)
    return result.stdout, result.returncode


class Console(unittest.TestCase):
    def setUp(self):
        network.run("ip", "link", "add", "eth0", "type", "veth", "peer", "name", "eth0", "netns", "neighbour")
        network.run("ip", "link", "set", "eth0", "up")
        self.protection = Protection("--operators", OPERATORS, "--observers", OBSERVERS, "--events", "/run/console.events").ready()

    def tearDown(self):
        while RUNNING:
            self.assertEqual(RUNNING.pop().end(), 0)
        network.run("ip", "link", "del", "eth0")

    def test_groups(self):
        for group, looks, sets in ((OPERATORS, "native", 0), (OBSERVERS, "native", 1), (OTHERS, "only root, and members", 1)):
            with self.subTest(group):
                console("set fast-period 10")
                self.assertIn(looks, given(("show card",), group=group)[0])
                text, status = given(("set fast-period 7",), group=group)
                self.assertEqual(status != 0, sets != 0, text)
                self.assertIn(f"fast time {10 if sets else 7} ", console("show settings"))

    def test_lines_typed_or_read(self):
        text, status = given("show card\nshow outputs\nshow memory\nhelp nonsense\n")
        for wanted in ("interface", "/run/console.events", "refused-blocks", "begins with \"nonsense\""):
            self.assertIn(wanted, text)
        self.assertNotEqual(status, 0)
        for line in ("show outputs", "show memory", "show trunks", "show port-map 3"):
            json.loads(given((line,), "--json")[0])
        screen = Screen("console")
        screen.press("", "> ")
        screen.press("show memo\t\r", "refused-blocks", "> ")
        # The first is what was typed. The answer's prompt comes last: before it the terminal is not readline's.
        screen.press("nonsense\r", "nonsense", "nonsense", "> ")
        screen.press("\x04")
        self.assertEqual(screen.process.wait(network.PATIENCE_S), 0)

    def test_nobody_there(self):
        for control, named in (("/run/" + "x" * 120, "too long"), ("/run/nobody", "/run/nobody")):
            text, status = given(("show card",), control=control)
            self.assertIn(named, text)
            self.assertNotEqual(status, 0)
        second = Protection("--port", "eth0=2", port="lo=1", control="/run/" + "x" * 120)
        self.assertNotEqual(second.process.wait(network.PATIENCE_S), 0)
        self.assertIn("too long", second.text)
        RUNNING.remove(second)


if __name__ == "__main__":
    faults_test.enter("setpriv")
    unittest.main(verbosity=2)
