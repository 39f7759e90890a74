#!/usr/bin/env python3
"""TFTP by the card, held against tftpd-hpa on loopback. Usage: tftp_test.py UPLOAD_FILE"""
import support
from support import CAPTURE, tool


class Tftp(support.Upload):
    TYPE = support.TFTP
    PORT = 69

    @classmethod
    def setUpClass(cls):
        super().setUpClass()
        # Any address: the server does not find 127.0.0.1 where there is none but loopback.
        server = [tool("in.tftpd"), "--foreground", "--ipv4", "--address", f":{cls.PORT}"]
        cls.serve([*server, "--create", "--permissive", "--user", "nobody", "--secure", cls.folder], "udp")

    def test_names(self):
        support.sent_names(self)

    def test_lengths(self):
        support.sent_lengths(self)

    def test_refused(self):
        self.folder.chmod(0o555)
        self.addCleanup(self.folder.chmod, 0o755)
        self.assert_fails("TFTP: ", CAPTURE, "a.cap")
        self.assertEqual(list(self.folder.iterdir()), [])


if __name__ == "__main__":
    support.main("upload_file")
