#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""What scenarios cannot show: files the reader must refuse or take, captures written out, two replays alike.

Usage: host_test.py ANTI_CPU [unittest arguments]
"""
import csv
import datetime
import fcntl
import gzip
import json
import lzma
import os
import pathlib
import pty
import re
import resource
import select
import shutil
import signal
import socket
import stat
import struct
import subprocess
import sys
import tempfile
import termios
import threading
import unittest

TESTS = pathlib.Path(__file__).resolve().parent
SAMPLES = TESTS.parent.parent / "samples"
PROGRAM = pathlib.Path(sys.argv.pop(1)).resolve()
START_S = 1630554380
ETHERNET = 1


def arp(n):
    body = struct.pack(">HHBBH", 1, 0x0800, 6, 4, 1) + struct.pack(">IHI", 0x02000000, n, 0x0A000000 + n)
    return b"\xff" * 6 + struct.pack(">IH", 0x02000000, n) + b"\x08\x06" + body + bytes(28)


def pcap(packets, order="<", nanoseconds=False, link_type=ETHERNET, snaplen=262144):
    """packets: (seconds since START_S, frame)"""
    unit = 10**9 if nanoseconds else 10**6
    data = struct.pack(order + "IHHiIII", 0xA1B23C4D if nanoseconds else 0xA1B2C3D4, 2, 4, 0, 0, snaplen, link_type)
    records = []
    for seconds, frame in packets:
        ticks = round(seconds * unit)
        records.append(struct.pack(order + "IIII", START_S + ticks // unit, ticks % unit, len(frame), len(frame)) + frame)
    return data + b"".join(records)


def pcapng(sections, order="<"):
    """sections: lists of (seconds, frame, interface)"""
    blocks = []

    def block(kind, body):
        body += bytes(-len(body) % 4)
        return struct.pack(order + "II", kind, len(body) + 12) + body + struct.pack(order + "I", len(body) + 12)

    for packets in sections:
        blocks.append(block(0x0A0D0D0A, struct.pack(order + "IHHq", 0x1A2B3C4D, 1, 0, -1)))
        for _ in range(max(interface for _, _, interface in packets) + 1):
            blocks.append(block(1, struct.pack(order + "HHI", ETHERNET, 0, 65535)))
        for seconds, frame, interface in packets:
            ticks = START_S * 10**6 + round(seconds * 10**6)
            head = struct.pack(order + "IIIII", interface, ticks >> 32, ticks & 0xFFFFFFFF, len(frame), len(frame))
            blocks.append(block(6, head + frame))
    return b"".join(blocks)


def zstd(data):
    """One frame (RFC 8878) of blocks that are not packed at all."""
    blocks = [data[i : i + 65536] for i in range(0, len(data), 65536)]
    heads = [(len(block) << 3 | (i + 1 == len(blocks))).to_bytes(3, "little") for i, block in enumerate(blocks)]
    return bytes.fromhex("28b52ffd0050") + b"".join(head + block for head, block in zip(heads, blocks))


class HostTest(unittest.TestCase):
    def setUp(self):
        self.work = pathlib.Path(tempfile.mkdtemp())
        self.addCleanup(shutil.rmtree, self.work)

    def file(self, name, data):
        (self.work / name).write_bytes(data)
        return str(self.work / name)

    def run_program(self, *arguments, fed=None):
        """fed: what comes through standard input"""
        result = subprocess.run([PROGRAM, *arguments], input=fed, capture_output=True, timeout=300, check=False)
        result.stdout, result.stderr = result.stdout.decode(), result.stderr.decode()
        return result

    def report(self, *arguments, fed=None):
        result = self.run_program("replay", "--json", *arguments, fed=fed)
        return json.loads(result.stdout), result

    def test_refused_input(self):
        good = pcap([(0, arp(1)), (1, arp(2)), (2, arp(3))])
        sizes = [(0, b""), (0, b"a"), (0, b"b" * 13), (0, b"c" * 65535), (0, b"d" * 65536), (1, b"e" * 70000), (2, arp(1))]
        rows = [  # name, content, exit status, packets read, refused, words of the message
            ("good", good, 0, 3, 0, ""),
            ("empty", pcap([]), 0, 0, 0, ""),
            ("nothing", b"", 1, None, None, "not a capture file"),
            ("text", b"no capture at all\n" * 9, 1, None, None, "not a capture file"),
            ("header cut", good[:20], 1, None, None, "not a capture file"),
            ("record cut", good[:-1], 1, 2, 1, "packet 3: truncated"),
            ("record header cut", good[: 24 + 16 + 70 + 15], 1, 1, 1, "packet 2: truncated"),
            ("other link type", pcap([(0, arp(1))], link_type=105), 1, None, None, "IEEE802_11, not Ethernet"),
            ("time goes back", pcap([(9, arp(1)), (7, arp(1))]), 1, 2, 0, "packet 2: time goes back by 2.000000 s"),
            ("time far ahead", pcap([(0, arp(1)), (4e8, arp(1)), (1, arp(1))]), 1, 3, 0, "packet 2: time jumps ahead"),
            ("sizes", pcap(sizes), 1, 5, 2, "packet 5: 65536 bytes"),
            ("packed, cut", gzip.compress(good)[:-9], 1, None, None, "truncated gzip"),
        ]
        for name, content, status, packets, refused, words in rows:
            with self.subTest(name):
                result = self.run_program("replay", "--json", self.file("capture", content))
                self.assertEqual(result.returncode, status, result.stderr)
                self.assertIn(words, result.stderr)
                if packets is None:
                    self.assertEqual(result.stdout, "")
                    continue
                summary = json.loads(result.stdout)["summary"]
                self.assertEqual((summary["packets"], summary["refused_by_reader"]), (packets, refused))

    def test_formats_give_the_same(self):
        packets = [(i / 50, arp(i % 4)) for i in range(2000)]
        one_interface = [[(seconds, frame, 0) for seconds, frame in packets]]
        expected = None
        for name, content in [
            ("microseconds", pcap(packets)),
            ("other byte order", pcap(packets, order=">")),
            ("nanoseconds", pcap(packets, nanoseconds=True)),
            ("nanoseconds, other byte order", pcap(packets, order=">", nanoseconds=True)),
            ("pcapng", pcapng(one_interface)),
            ("pcapng, other byte order", pcapng(one_interface, order=">")),
            ("gzip, in two members", b"".join(map(gzip.compress, (pcap(packets)[:9999], pcap(packets)[9999:])))),
            ("xz", lzma.compress(pcapng(one_interface))),
            ("zstd", zstd(pcap(packets))),
            ("pipe", pcap(packets)),
            ("pipe, gzip", gzip.compress(pcap(packets))),
        ]:
            with self.subTest(name):
                capture, fed = ("-", content) if name.startswith("pipe") else (self.file("capture", content), None)
                report, _ = self.report("--fast-period", "10", capture, fed=fed)
                del report["summary"]["real_seconds"], report["summary"]["packets_per_second"]
                # What comes through a pipe cannot be read again by the command that is proposed.
                self.assertEqual(report["verdict"]["try_next"] is None, capture == "-")
                del report["verdict"]["try_next"], report["verdict"]["reasons"]
                expected = expected or report
                self.assertEqual(report, expected)

    def test_pcapng_interfaces_are_ports(self):
        first = [(i, arp(1), i % 3) for i in range(12)]
        second = [(12 + i, arp(1), 0) for i in range(5)]
        for order, pack in ("<", bytes), (">", gzip.compress):
            report, _ = self.report("--port", "5", self.file("capture", pack(pcapng([first, second], order))))
            found = {row["port"]: row["packets"] for row in report["ports"]}
            self.assertEqual(found, {5: 4, 6: 4, 7: 4, 8: 5})

    def test_alarms_come_while_the_capture_does(self):
        with subprocess.Popen([PROGRAM, "replay", "-", "--fast-period", "10"], stdin=subprocess.PIPE,
                              stdout=subprocess.PIPE) as program:
            watchdog = threading.Timer(100, program.kill)
            watchdog.start()
            program.stdin.write(pcap([(i / 200, arp(7)) for i in range(2400)]))
            program.stdin.flush()
            self.assertIn(b"protocol arp over fast period limit", program.stdout.readline())
            watchdog.cancel()
            program.communicate()

    def test_syslog(self):
        capture = self.file("flood.pcap", pcap([(i / 200, arp(7)) for i in range(200 * 15)]))
        for target, family in (str(self.work / "log"), socket.AF_UNIX), ("127.0.0.1", socket.AF_INET):
            with self.subTest(target), socket.socket(family, socket.SOCK_DGRAM) as log:
                log.bind(target if family == socket.AF_UNIX else (target, 0))
                log.setblocking(False)
                if family == socket.AF_INET:
                    target += ":%d" % log.getsockname()[1]
                result = self.run_program("replay", capture, "--fast-period", "10", "--syslog", target)
                self.assertEqual(result.returncode, 0, result.stderr)
                # RFC 5424, 6: header, one element of structured data, no text.
                form = r'<2[89]>1 2021-09-02T03:46:[\d.]+Z \S+ anti-cpu \d+ (\S+) \[anti-cpu@32473( [a-z_]+="[^"\\\]]*")+\]'
                found = [re.fullmatch(form, log.recv(2048).decode()).group(1) for _ in range(3)]
                self.assertEqual(found, ["alarm-raised", "alarm-raised", "alarm-cleared"])

    def test_usage(self):
        capture = self.file("capture", pcap([(0, arp(1))]))
        settings = self.file("settings", b"set limit arp fast 50\nset limits arp fast 5\n")
        secret = self.file("secret", b"open sesame\nand more\n")
        long, other = self.file("long", b"a" * 32), self.file("other", b"sesame\r\n")
        missing = str(self.work / "missing")
        rows = [  # arguments, exit status, words of the message
            ((), 2, "subcommand"),
            (("replay",), 2, "FILE"),
            (("replay", missing), 1, "cannot be opened"),
            (("replay", capture, "--vlan", "4096"), 2, "4096"),
            (("replay", capture, "--events", str(self.work)), 1, "cannot be written"),
            (("replay", capture, "--rates", str(self.work)), 1, "cannot be written: Is a directory"),
            (("replay", capture, "--report", "/dev/full"), 1, "/dev/full: not all of the report"),
            (("replay", capture, "--rates", "/dev/full"), 1, "/dev/full: not all rates"),
            (("replay", capture, "--interval", "5"), 2, "--rates"),
            (("replay", capture, "--syslog", missing), 1, "takes no syslog messages"),
            (("replay", capture, "--syslog", "udp://[::1]:no-such-service"), 1, "takes no syslog messages"),
            (("replay", capture, "--syslog", "127.0.0.1:no-such-service"), 1, "takes no syslog messages"),
            (("replay", "-", "--interactive"), 2, "not the operator's terminal"),
            (("replay", capture, "--own-mac", "02:00"), 2, "no MAC address"),
            (("replay", capture, "--fast-period", "0"), 2, "0 not in range"),
            (("replay", capture, "--until", "noon"), 2, "no time"),
            (("replay", capture, "--config", settings), 2, 'settings:2: word 2 "limits"'),
            (("replay", capture, "--config", missing), 1, "cannot be read"),
            (("replay", capture, "--config", self.work), 1, "cannot be read: Is a directory"),
            (("replay", capture, "--script", self.work), 1, "cannot be read: Is a directory"),
            (("replay", capture, "--until", "03:46:19"), 1, "first packet, which came at 2021-09-02 03:46:20"),
            (("replay", capture, "--until", "9999-12-31T23:59:59"), 2, "no time before 2262"),
            (("replay", capture, "-x", f"upload password file {secret}", "-x", "show settings"), 0, "passwd ***\n"),
            (("replay", capture, "-x", "show top"), 0, "before the first packet; --then 'show top', behind"),
            (("replay", capture, "--then", "run 0"), 2, "--then 'run 0': the script stops here"),
            (("replay", capture, "-x", f"upload password file {long}"), 1, "more than the 31 characters"),
            (("replay", capture, "-x", f"upload password file {other}"), 1, "a control character in the password"),
            (("replay", capture, "-x", "set enable maybe"), 2, 'word 3 "maybe": expected on or off'),
            (("replay", capture, "-x", "run 5"), 1, "failed"),
            (("replay", capture, "-x", "set enable off", "--quiet"), 0, ""),
            (("help", "nonsense"), 2, ""),
        ]
        for arguments, status, words in rows:
            with self.subTest(arguments):
                result = self.run_program(*arguments)
                self.assertEqual(result.returncode, status, result.stderr)
                self.assertIn(words, result.stdout + result.stderr)

    def test_lost_output(self):
        capture = self.file("capture", pcap([(i / 150, arp(1)) for i in range(60_000)]))
        read_end, write_end = os.pipe()
        os.close(read_end)
        full = os.open("/dev/full", os.O_WRONLY)
        rows = [  # arguments, standard output, words of the message
            (("replay", capture), full, "standard output: cannot be written: No space left on device"),
            (("replay", "--json", capture), write_end, "standard output: cannot be written: Broken pipe"),
            (("replay", capture, "--log", "/dev/full"), subprocess.DEVNULL, "/dev/full: cannot be"),
            (("help",), full, "standard output: cannot be written"),
        ]
        for arguments, output, words in rows:
            with self.subTest(arguments):
                result = subprocess.run([PROGRAM, *arguments], stdout=output, stderr=subprocess.PIPE, text=True, check=False)
                self.assertEqual(result.returncode, 1, result.stderr)
                self.assertIn(words, result.stderr)
        # A disk on which a capture has no room: told, and nothing half-written stays.
        folder = self.work / "captures"
        result = subprocess.run([PROGRAM, "replay", SAMPLES / "campus.pcap", "--fast-period", "5", "--captures", folder, "-x", "set capture arp on"],
                                capture_output=True, text=True, check=False, restore_signals=False,
                                preexec_fn=lambda: resource.setrlimit(resource.RLIMIT_FSIZE, (1000, 1000)))
        self.assertEqual(result.returncode, 1, result.stderr)
        self.assertIn("atc-rx-1-100-arp.cap: cannot be written: File too large", result.stderr)
        self.assertEqual(list(folder.iterdir()), [])

    def test_captures_hold_the_packets_of_the_input(self):
        packets = sorted([(i / 150, arp(7)) for i in range(9000)] + [(i / 20 + 0.001, arp(20 + i % 9)) for i in range(900)])
        capture = self.file("flood.pcap", pcap(packets, nanoseconds=True))
        sent = {(START_S + int(seconds), int(round(seconds * 10**9) % 10**9) // 1000, frame) for seconds, frame in packets}
        folder = self.work / "captures"
        lines = ["-x", "set capture arp on", "-x", "set capture arp source on", "-x", "set hw-deny arp source on"]
        result = self.run_program("replay", capture, "--port", "3", "--fast-period", "10", "--captures", folder, *lines)
        self.assertEqual(result.returncode, 0, result.stderr)
        files = sorted(folder.iterdir())
        self.assertIn("atc-rx-3-1-arp.cap", [file.name for file in files])
        for file in files:
            data = file.read_bytes()
            self.assertEqual(data[:24], pcap([], snaplen=65535))
            offset, last, records = 24, (0, 0), 0
            while offset < len(data):
                seconds, microseconds, held, length = struct.unpack_from("<IIII", data, offset)
                frame = data[offset + 16 : offset + 16 + held]
                self.assertEqual(held, length)
                self.assertIn((seconds, microseconds, frame), sent)
                self.assertLessEqual(last, (seconds, microseconds))
                last = (seconds, microseconds)
                offset += 16 + held
                records += 1
            self.assertEqual(offset, len(data))
            if shutil.which("tcpdump"):
                subprocess.run(["tcpdump", "-r", file, "-w", self.work / "read"], check=True, capture_output=True)
                self.assertEqual((self.work / "read").stat().st_size, len(data))
            if shutil.which("tshark"):
                fields = ["-T", "fields", "-e", "frame.protocols", "-e", "_ws.malformed"]
                seen = subprocess.run(["tshark", "-r", file, *fields], check=True, capture_output=True, text=True)
                self.assertEqual(seen.stdout.splitlines(), ["eth:ethertype:arp\t"] * records)

    def test_captures_of_the_day_before_are_kept(self):
        # The sweep of the day frees the capture in the middle of a flood.
        capture = self.file("days.pcap", pcap([(0, arp(7))] + [(86380 + i / 120, arp(7)) for i in range(120 * 40)]))
        folder = self.work / "captures"
        lines = ["-x", "set capture arp on"]
        result = self.run_program("replay", capture, "--fast-period", "10", "--captures", folder, "--quiet", *lines)
        self.assertEqual(result.returncode, 0, result.stderr)
        self.assertEqual(
            {file.name: file.stat().st_size // 76 for file in folder.iterdir()},
            {"atc-rx-1-1-arp.cap": 1200, "atc-rx-1-1-arp-2.cap": 1347},
        )

    def test_captures_reach_the_folder_whoever_frees_them(self):
        capture = self.file("flood.pcap", pcap([(i / 12, arp(7)) for i in range(12 * 60)]))
        settings = [word for kind in ("", "source ") for line in ("limit arp %sfast 5", "capture arp %son")
                    for word in ("-x", "set " + line % kind)]
        expected = None
        for lines in ("run 61", "run 9061", "run 90061", "run 61\nclear capture auto", "run 61\nclear statistic all",
                      "run 61\nclear statistic flow rx 1 1 arp", "run 61\nclear capture manual",
                      "run 61\nclear statistic flow rx 1 1 arp source 02:00:00:00:00:07"):
            with self.subTest(lines):
                folder = self.work / f"after {lines}"
                script = self.file("script", f"capture start 1000\n{lines}\n".encode())
                result = self.run_program("replay", capture, "--fast-period", "10", *settings, "--captures", folder,
                                          "--script", script)
                self.assertEqual(result.returncode, 0, result.stderr)
                found = {file.name: file.read_bytes() for file in folder.iterdir()}
                self.assertEqual({name: len(data) // 76 for name, data in found.items()},
                                 {"atc-manual.cap": 720, "atc-rx-1-1-arp.cap": 600, "atc-rx-1-1-arp-(02-00-00-00-00-07).cap": 600})
                expected = expected or found
                self.assertEqual(found, expected)

    def test_captures_folder(self):
        capture = self.file("flood.pcap", pcap([(i / 200, arp(7)) for i in range(200 * 25)]))
        lines = ["-x", "set capture arp on", "-x", "set capture arp source on"]
        folder = self.work / "captures"
        folder.mkdir()
        flow, source = folder / "atc-rx-1-1-arp.cap", folder / "atc-rx-1-1-arp-(02-00-00-00-00-07).cap"
        other = pathlib.Path(self.file("other", b"of somebody else"))

        def replay(size):
            return subprocess.run([PROGRAM, "replay", capture, "--quiet", "--fast-period", "10", "--captures", folder, *lines],
                                  preexec_fn=lambda: resource.setrlimit(resource.RLIMIT_FSIZE, (size, size)),
                                  capture_output=True, text=True, timeout=300, check=False)

        # A link, a FIFO and a file of an earlier run give way to whole files; what the link points to does not.
        flow.symlink_to(other)
        os.mkfifo(source)
        self.assertEqual(replay(10**6).returncode, 0)
        self.assertEqual(other.read_bytes(), b"of somebody else")
        self.assertEqual([stat.filemode(file.lstat().st_mode) for file in (flow, source)], ["-rw-------"] * 2)
        before = {file: file.read_bytes() for file in folder.iterdir()}
        self.assertEqual([len(data) // 76 for data in before.values()], [1347] * 2)
        # A full disk leaves what was there, and nothing beside it.
        result = replay(50000)
        self.assertEqual(result.returncode, 1)
        for file in (flow, source):
            self.assertIn(f"{file}: cannot be written: File too large", result.stderr)
        self.assertEqual({file: file.read_bytes() for file in folder.iterdir()}, before)

    def start(self, *arguments, **files):
        def undo():  # what a shell does to those that it starts in the background
            for number in (signal.SIGINT, signal.SIGHUP):
                signal.signal(number, signal.SIG_DFL)

        return subprocess.Popen([PROGRAM, "replay", *arguments], preexec_fn=undo, **files)

    def test_signals_end_a_replay_in_order(self):
        flood = pcap([(i / 200, arp(7)) for i in range(4000)])  # far more than a pipe holds
        for number in (signal.SIGINT, signal.SIGTERM, signal.SIGHUP):
            with self.subTest(number):
                capture, folder, log = (self.work / f"{name}{number}" for name in ("pipe", "captures", "log"))
                os.mkfifo(capture)
                process = self.start(capture, "--fast-period", "10", "--captures", folder, "--log", log, "-x",
                                     "set capture arp on", stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)
                with open(capture, "wb") as writer:
                    writer.write(flood)
                    process.send_signal(number)
                    output, errors = process.communicate(timeout=300)
                self.assertEqual(process.returncode, 128 + number, errors)
                self.assertIn("protocol arp over fast period limit", log.read_text())
                self.assertIn("2 alarms raised.", output)
                self.assertEqual([file.name for file in folder.iterdir()], ["atc-rx-1-1-arp.cap"])

    # A program at a terminal; types and waits for words that it prints, in this order.
    def at_a_terminal(self, *arguments):
        leader, follower = pty.openpty()
        self.addCleanup(os.close, leader)
        fcntl.ioctl(leader, termios.TIOCSWINSZ, struct.pack("HHHH", 40, 120, 0, 0))
        process = self.start(*arguments, "--interactive", stdin=follower, stdout=follower, stderr=follower,
                             env={**os.environ, "PAGER": "sed s/^/paged:/"})
        os.close(follower)
        output = bytearray()

        def see(words, typed=b""):
            os.write(leader, typed)
            while words not in output:
                self.assertTrue(select.select([leader], [], [], 60)[0], output)
                output.extend(os.read(leader, 1000))
            del output[: output.index(words) + len(words)]

        return process, see

    # The first one ends a silence of many years, at whose end there is no more time; the second one a line.
    def test_ctrl_c_at_a_terminal(self):
        capture = self.file("capture", pcapng([[(69 * 10**8, arp(1), 0)]]))
        script = self.file("script", b"show clock\nrun 4294967295\n")
        process, see = self.at_a_terminal(capture, "--script", script)
        see(b"1 packets, 2240-")  # progress
        process.send_signal(signal.SIGINT)
        see(b"stopped at 22")
        see(b"anti-cpu> ")
        see(b"show cl", b"show cl")
        process.send_signal(signal.SIGINT)
        see(b"anti-cpu> ")
        see(b"quit", b"quit\n")
        self.assertEqual(process.wait(timeout=300), 0)

    def test_operator_at_a_terminal(self):
        capture = self.file("capture", pcap([(i, arp(1)) for i in range(30)]))
        process, see = self.at_a_terminal(capture, "--until", "5", "--until", "03:46:32", "--fast-period", "10")
        see(b"anti-cpu> ")
        for typed, *words in [
            (b"show cl\t\n", b"show clock ", b"2021-09-02 03:46:25", b"anti-cpu> "),
            (b"set lim\tospfv3\tfast 3\n", b"set limit ospfv3 fast 3", b"anti-cpu> "),
            (b"set limit icmpv6\t\t\t", b"icmpv6-rs"),  # all that may follow
            (b"\x15/etc/pas\t\n", b'wrong: word 1 "/etc/pas"', b"anti-cpu> "),  # no file
            (b"show ports 7 ?\n", b"wrong: word 3", b"anti-cpu> "),
            (b"show ports ?\n", b"<return>         the line is complete: ", b"anti-cpu> "),
            (b"\x10\x10\x10\n", b'wrong: word 1 "/etc/pas"', b"anti-cpu> "),  # the third to last line again
            (b"\x04", b"anti-cpu> "),
            (b"show clock\n", b"03:46:32", b"anti-cpu> "),
            (b"upload password sesame\n", b"sesame", b"anti-cpu> "),
            (b"\x10\n", b"show clock", b"03:46:32", b"anti-cpu> "),  # a secret is not remembered
            (b"\x04", b"anti-cpu> "),
            (b"show clock\n", b"03:46:51", b"none left", b"anti-cpu> "),
            # More lines than the terminal has go through the pager.
            (b"show settings\n", b"\rglobal enable 1", b"anti-cpu> "),
            (b"show limits\n", b"paged:bgp ", b"anti-cpu> "),
            (b"quit\n", b"quit"),
        ]:
            with self.subTest(typed):
                for each in words:
                    see(each, typed)
                    typed = b""
        self.assertEqual(process.wait(timeout=300), 0)

    def test_quota(self):
        capture = self.file("flood.pcap", pcap([(i / 200, arp(7)) for i in range(200 * 40)]))
        folder = self.work / "captures"
        folder.mkdir()
        (folder / "old.cap").write_bytes(bytes(950_000))
        result = self.run_program("replay", capture, "--fast-period", "10", "--captures", folder, "--captures-quota", "1",
                                  "-x", "set capture arp on")
        self.assertEqual(result.returncode, 1)
        self.assertIn("more than its quota of 1000000 bytes", result.stderr)
        self.assertEqual([file.name for file in folder.iterdir()], ["old.cap"])

    def test_data_and_text_agree(self):
        # Frames of no class are over their limit with the first one: more flows, sources and alarms than the module's
        # texts have room for, and a flood on the last port.
        no_class = bytes.fromhex("ffffffffffff 020000000001 0800") + b"\x70" * 46
        wide = [(i / 150, arp(7), 16000) for i in range(2900)] + [(12 + i / 10000, no_class, i) for i in range(16000)]
        wide = self.file("wide", pcapng([sorted(wide)]))
        captured = ("--captures", str(self.work / "captures"), "-x", "set capture arp on")
        for options in ((SAMPLES / "campus.pcap",), (wide, *captured), (wide, "--memory-budget", "5")):
            arguments = ("--fast-period", "10", *options)
            report, _ = self.report(*arguments)
            sections = self.run_program("replay", "--all", *arguments).stdout.split("\n== ")
            texts = {title: body for title, _, body in (section.partition(" ==\n") for section in sections)}
            flows, alarms = [], []
            columns = "{packets:<11}{speed_pps:<14}{peak_packets:<16}{peak_pps:<19}"
            for flow in report["flows"]:
                key = f"{flow['port']}/{flow['vlan']}/{flow['protocol']}/"
                where = f"port 1/{flow['port'] // 64 + 1}/{flow['port'] % 64} vlan {flow['vlan']} protocol {flow['protocol']}"
                for row in (flow, *flow["sources"]):
                    kind = {"mac": "mac ", "ipv4": "ip ", "ipv6": "ipv6 "}.get(row.get("type"), "")
                    source = kind + row["address"] if kind else "NULL"
                    over = "YES" if row["over_limit"] else "NO"
                    flows.append(f"{key + source:<44}" + columns.format(**row) + f"{row['peak_time']:<21}{over:<14}")
                    if row["over_limit"]:
                        source = f" source {source}" if kind else ""
                        alarms.append(f"alarm {len(alarms) + 1}: {where}{source}")
            ports = [f"{row['port']:<14}" + columns.format(**row) + f"{row['peak_time']:<13}" for row in report["ports"]]
            self.assertEqual(len(report["alarms"]), len(alarms))
            tables = {"Ports": ports, "Flows and their sources": flows, "Alarms that stand at the end": alarms}
            for title, rows in tables.items():
                shown = texts[title].replace("(none)\n", "").splitlines()[title[0] != "A" :]  # without the header
                cut = shown.pop() if shown and shown[-1].startswith("...") else "... and 0"
                self.assertEqual(shown, rows[: len(shown)])
                self.assertEqual(cut.split()[2], str(len(rows) - len(shown)), title)
                self.assertEqual(len(rows) > 10000, "more" in cut, (title, len(rows), cut))
        self.assertEqual([file.name for file in (self.work / "captures").iterdir()], ["atc-rx-16001-1-arp.cap"])

    def traffic(self, description):
        capture = self.work / "traffic.pcap"
        subprocess.run([sys.executable, TESTS / "traffic.py", description, capture], check=True)
        return capture

    def test_the_flood_is_what_was_sent(self):
        sent = "0 100 2000 syn forged vlan 7\n0 100 100 syn 9 vlan 7\n0 100 1 bgp 2 vlan 7\n"
        capture = self.traffic(self.file("sent.txt", sent.encode()))
        report, _ = self.report(capture, "--fast-period", "10", "-x", "set hw-deny tcp-syn source on")
        (flood,) = report["floods"]
        (verdict,) = report["flow_verdicts"]
        self.assertEqual((flood["packets"], flood["peak_second_packets"], flood["times"]), (210000, 2100, 1))
        self.assertEqual((flood["packets"], flood["stopped_in_chip"], flood["passed"]),
                         (verdict["offered"], verdict["stopped_in_chip"], verdict["passed"]))
        loudest = flood["addresses"]["busiest"][0]
        self.assertEqual((loudest["address"], loudest["packets"]), ("10.0.0.9", 10000))
        self.assertEqual(loudest["stopped_in_chip"], flood["stopped_in_chip"])
        self.assertFalse(flood["addresses"]["number_is_exact"])
        self.assertAlmostEqual(flood["addresses"]["number"], 200000, delta=10000)
        self.assertEqual(report["verdict"]["alarms_raised"], report["summary"]["alarms_raised"])

    OUTCOMES = (("offered", "packets"), ("stopped", "stopped_in_chip"), ("dropped", "dropped_in_software"), ("passed", "passed"))

    def replay_with_report(self, capture, *arguments):
        """The report as data, and what stands in the page."""
        page = self.work / "page.html"
        report, result = self.report(capture, "--report", page, *arguments)
        self.assertEqual(result.returncode, 0, result.stderr)
        text = page.read_text(encoding="utf-8")
        # The library, the licence, the data and the page's own; nothing is fetched.
        self.assertEqual((text.count("<script"), text.count("</script>")), (4, 4))
        self.assertIn("default-src 'none'", text)
        self.assertEqual(re.findall("<link|<img|<iframe|@import|sourceMappingURL", text), [])
        data = json.loads(re.search(r'id="data">(.*?)</script>', text, re.DOTALL).group(1))
        self.assertEqual(data["verdict"], report["verdict"])
        self.assertEqual([{key: shown[key] for key in flood} for shown, flood in zip(data["floods"], report["floods"])],
                         report["floods"][:500])
        self.assertEqual(sum(point[1] for point in data["total"]), report["summary"]["received"])
        return report, data

    def test_rates_and_page_agree_with_the_verdict(self):
        capture, rates = self.work / "<" / "script><script>alert(1)<!--.pcap", self.work / "rates.csv"
        capture.parent.mkdir()
        shutil.copy(SAMPLES / "campus.pcap", capture)
        lines = ["-x", "set hw-deny arp source on", "-x", "set deny tcp-syn on", "-x", "set capture arp on"]
        report, data = self.replay_with_report(capture, "--fast-period", "5", "--rates", rates, "--interval", "7", *lines)
        self.assertEqual(data["files"], [str(capture)])
        with open(rates, encoding="utf-8", newline="") as file:
            rows = list(csv.DictReader(file))
        for row in rows:
            self.assertEqual(datetime.datetime.fromisoformat(row["time"].replace("Z", "+00:00")).timestamp() % 7, 0)

        def sums(chosen, unit="packets"):
            return [sum(int(row[f"{outcome}_{unit}"]) for row in chosen) for outcome, _ in self.OUTCOMES]

        all_packets = [sum(port[key] for port in report["port_verdicts"]) for key in ("offered", *(key for _, key in self.OUTCOMES[1:]))]
        flows = [row for row in rows if row["of"] == "flow"]
        self.assertEqual(sums(flows), all_packets)
        self.assertEqual(sums([row for row in rows if row["of"] == "class"]), all_packets)
        self.assertGreater(min(all_packets), 0)
        self.assertEqual(sorted({row["protocol"] for row in flows}), sorted({row["protocol"] for row in rows}))
        for flood, shown in zip(report["floods"], data["floods"]):
            key = [str(flood[name]) for name in ("protocol", "port", "vlan")]
            chosen = [row for row in flows if [row[name] for name in ("protocol", "port", "vlan")] == key]
            self.assertEqual(sums(chosen), [flood[key] for _, key in self.OUTCOMES])
            self.assertEqual(sums(chosen, "bytes")[0], flood["bytes"])
            self.assertEqual([sum(point[i] for point in shown["points"]) for i in (1, 2, 3)], sums(chosen)[:3])
            self.assertEqual(sum(mark["kind"] == "alarm" for mark in shown["marks"]), flood["alarms_raised"])
        self.assertEqual({mark["kind"] for flood in data["floods"] for mark in flood["marks"]},
                         {"alarm", "cleared", "rule", "withdrawn", "capture"})

    def test_limits_of_a_page_are_those_of_tune(self):
        for name, flooding in (("1_good", []), ("2_flood", ["arp", "tcp-syn", "icmpv6-ns"])):
            capture = self.traffic(TESTS / "scenarios" / "tuned_limits" / f"traffic_{name}.txt")
            _, data = self.replay_with_report(capture, "--fast-period", "10")
            tuned = json.loads(self.run_program("tune", capture, "--json", "--fast-period", "10").stdout)
            rows = {row["protocol"]: row for row in data["limits"]["classes"]}
            self.assertEqual(list(rows), [of["protocol"] for of in tuned["classes"]])
            for of in tuned["classes"]:
                row, flow = rows[of["protocol"]], of["flow"]
                self.assertEqual(row["flood_period_pps"] is None, of["protocol"] not in flooding)
                side = "flood" if of["protocol"] in flooding else "good"
                self.assertAlmostEqual(row[f"{side}_period_pps"], flow["good"]["period_pps"])
                if side == "good":
                    self.assertEqual((row["recommended_pps"], row["why"]), (flow["recommended_pps"], flow["why"]))

    def test_a_page_stays_until_there_is_another(self):
        for before in ("yesterday's", None):
            page = self.work / "page.html"
            page.unlink(missing_ok=True)
            if before:
                page.write_text(before, encoding="utf-8")
            result = self.run_program("replay", SAMPLES / "campus.pcap", "--report", page, "-x", "set hw-deny arp sauce on")
            self.assertEqual(result.returncode, 2, result.stderr)
            self.assertEqual(page.read_text(encoding="utf-8") if page.exists() else None, before)

    def test_a_page_is_bounded(self):
        for seconds in (0, 1, 600, 86400, 3 * 10**7):
            packets = [(i * seconds / 1000, arp(1)) for i in range(1000)]
            _, data = self.replay_with_report(self.file("capture", pcap(packets)), "--drain", "1")
            self.assertLessEqual(data["total"][-1][0], 600)
            self.assertGreaterEqual(data["width_s"] * 600, seconds * 0.999)
        _, data = self.replay_with_report(self.file("empty", pcap([])))
        self.assertEqual((data["total"], data["floods"]), ([], []))

    def test_two_replays_print_the_same(self):
        capture = self.traffic(TESTS / "scenarios" / "denied_source" / "traffic.txt")
        arguments = ["replay", capture, "--all", "--fast-period", "10", "-x", "set hw-deny arp on", "-x", "set deny arp source on"]
        runs = [self.run_program(*arguments).stdout.splitlines() for _ in range(2)]
        runs = [[line for line in run if not line.startswith("real time")] for run in runs]
        self.assertGreater(len(runs[0]), 20)
        self.assertEqual(runs[0], runs[1])


if __name__ == "__main__":
    unittest.main()
