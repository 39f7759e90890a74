#!/usr/bin/env python3
"""A replayed flood whose captures go to an FTP server on loopback. Usage: replay_test.py UPLOAD_FILE ANTI_CPU"""
import pathlib
import shutil
import subprocess
import sys

import ftp_test
import support
from support import PASSWORD, USER

TRAFFIC = pathlib.Path(__file__).resolve().parent.parent / "traffic.py"
# Two floods: by a MAC and by an IPv4 source. Each fills the buffers of its flow and of its source.
FLOODS = """
0 60 200 arp 7 vlan 100
0 60 200 syn 9 vlan 100
"""
FULL = (
    "atc-rx-3-100-arp.cap",
    "atc-rx-3-100-arp-(02-00-00-00-00-07).cap",
    "atc-rx-3-100-tcp-syn.cap",
    "atc-rx-3-100-tcp-syn-(10.0.0.9).cap",
)
SETTINGS = f"""
set capture arp on
set capture arp source on
set capture tcp-syn on
set capture tcp-syn source on
upload server 127.0.0.1
upload type ftp
upload user {USER}
upload password "{PASSWORD}"
upload enable on
"""
SCRIPT = f"""
capture start 20 protocol arp
run 5
capture save manual.cap
upload now manual to 127.0.0.1:21 {USER} "{PASSWORD}" ftp
"""


class Replay(support.Upload):
    PORT = 21  # where automatic uploads go

    @classmethod
    def setUpClass(cls):
        super().setUpClass()
        ftp_test.start_pure_ftpd(cls)
        (cls.work / "floods").write_text(FLOODS, encoding="utf-8")
        (cls.work / "settings").write_text(SETTINGS, encoding="utf-8")
        (cls.work / "script").write_text(SCRIPT, encoding="utf-8")
        subprocess.run([sys.executable, TRAFFIC, cls.work / "floods", cls.work / "floods.pcap"], check=True)

    def setUp(self):
        for path in self.folder.iterdir():
            path.unlink()

    def replay(self, *options):
        command = [self.anti_cpu, "replay", self.work / "floods.pcap", "--port", "3", "--fast-period", "10", *options]
        result = subprocess.run(
            command, cwd=self.work, capture_output=True, timeout=support.PATIENCE_S, text=True, check=False
        )
        return result.returncode, result.stdout + result.stderr

    def assert_readable(self, path):
        """Returns the packets that tshark finds, which has nothing to complain about."""
        if shutil.which("tshark") is None:
            self.skipTest("tshark is not installed")
        command = ["tshark", "-n", "-r", path, "-T", "fields", "-e", "frame.number", "-e", "frame.protocols"]
        result = subprocess.run(command, capture_output=True, text=True, check=True)
        complaints = [line for line in result.stderr.splitlines() if not line.startswith("Running as user")]
        self.assertEqual(complaints, [], path.name)
        return result.stdout.splitlines()

    def test_full_captures_arrive_as_they_are_written(self):
        written = self.work / "written"
        status, output = self.replay("--config", self.work / "settings", "--captures", written)
        self.assertEqual(status, 0, output)
        self.assertNotIn("Failed to upload", output)
        self.assertEqual(sorted(path.name for path in self.folder.iterdir()), sorted(FULL), output)
        for name in FULL:
            arrived = (self.folder / name).read_bytes()
            self.assertTrue(arrived == (written / name).read_bytes(), f"{name}: arrived and written bytes differ")
            # Records of 60-byte frames behind the file's header, until the next would reach the last byte.
            packets = self.assert_readable(self.folder / name)
            self.assertEqual(len(packets), (102400 - 24 - 1) // (16 + 60), name)
            self.assertTrue(all(("arp" in line) == ("arp" in name) for line in packets), name)

    def test_manual_capture_on_demand(self):
        status, output = self.replay("--script", self.work / "script")
        self.assertEqual(status, 0, output)
        arrived = self.folder / "atc-manual.cap"
        self.assertTrue(arrived.read_bytes() == (self.work / "manual.cap").read_bytes())
        self.assertEqual(len(self.assert_readable(arrived)), 20)

    def test_refusal_is_told_once_a_capture(self):
        status, output = self.replay("--config", self.work / "settings", "-x", "upload password wrong")
        self.assertEqual(status, 0, output)
        self.assertEqual(output.count("Failed to upload diagnose to server 127.0.0.1"), len(FULL), output)
        for name in FULL:
            self.assertIn(f'upload of "{name}" to "127.0.0.1" failed: ', output)
        self.assertEqual(list(self.folder.iterdir()), [])


if __name__ == "__main__":
    support.main("upload_file", "anti_cpu")
