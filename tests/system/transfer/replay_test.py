#!/usr/bin/env python3
"""A replayed flood whose captures go to an FTP server on loopback. Usage: replay_test.py Replay ANTI_CPU"""
import pathlib
import subprocess
import sys

import support
from support import PASSWORD, USER

TRAFFIC = pathlib.Path(__file__).resolve().parent.parent / "traffic.py"
FLOOD = "0 60 200 syn 9 vlan 100\n"  # fills the buffers of its flow and of its source
FULL = ("atc-rx-3-100-tcp-syn-(10.0.0.9).cap", "atc-rx-3-100-tcp-syn.cap")
SETTINGS = f"""
set capture tcp-syn on
set capture tcp-syn source on
upload server 127.0.0.1
upload type ftp
upload user {USER}
upload password "{PASSWORD}"
upload enable on
"""


class Replay(support.Upload):
    PORT = 21  # where automatic uploads go

    @classmethod
    def setUpClass(cls):
        super().setUpClass()
        cls.serve_ftp()
        (cls.work / "flood").write_text(FLOOD, encoding="utf-8")
        (cls.work / "settings").write_text(SETTINGS, encoding="utf-8")
        subprocess.run([sys.executable, TRAFFIC, cls.work / "flood", cls.work / "flood.pcap"], check=True)

    def test_full_captures_arrive_as_they_are_written(self):
        command = [self.program, "replay", self.work / "flood.pcap", "--port", "3", "--fast-period", "10"]
        command += ["--config", self.work / "settings", "--captures", self.work / "written"]
        output = support.run(*map(str, command), cwd=self.work, stderr=subprocess.STDOUT)
        self.assertNotIn("Failed to upload", output)
        self.assertEqual(tuple(sorted(path.name for path in self.folder.iterdir())), FULL, output)
        for name in FULL:
            self.assertTrue((self.folder / name).read_bytes() == (self.work / "written" / name).read_bytes(), name)


if __name__ == "__main__":
    support.main()
