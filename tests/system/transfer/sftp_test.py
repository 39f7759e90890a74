#!/usr/bin/env python3
"""SFTP by the card, held against OpenSSH's server on loopback. Usage: sftp_test.py UPLOAD_FILE"""
import pathlib
import subprocess

import bad_servers
import support
from support import CAPTURE, USER, tool

CONFIGURATION = """
ListenAddress 127.0.0.1
Port {port}
HostKey {key}
PidFile none
UsePAM no
PasswordAuthentication yes
AuthorizedKeysFile none
Subsystem sftp internal-sftp
ForceCommand internal-sftp
"""


def make_account(work, home):
    """A user that only this script and the servers it starts see."""
    lines = {"passwd": f"{USER}:x:65534:65534::{home}:/bin/false\n", "shadow": f"{USER}:{support.password_hash()}:::::::\n"}
    for name, line in lines.items():
        real = pathlib.Path("/etc", name)
        replacement = work / name
        replacement.write_text(real.read_text(encoding="utf-8") + line, encoding="utf-8")
        support.mount("--bind", str(replacement), str(real))


def make_key(path):
    command = [tool("ssh-keygen"), "-q", "-t", "ed25519", "-N", "", "-f", str(path)]
    subprocess.run(command, stdin=subprocess.DEVNULL, check=True)
    return path.with_suffix(".pub").read_text(encoding="ascii")


class Sftp(support.Upload):
    TYPE = support.SFTP
    PORT = 2222

    @classmethod
    def setUpClass(cls):
        super().setUpClass()
        sshd = tool("sshd")
        make_account(cls.work, cls.folder)
        key = make_key(cls.work / "host-key")
        cls.known = cls.work / "known"
        cls.known.write_text(f"[127.0.0.1]:{cls.PORT} {key}", encoding="ascii")
        cls.trusted = ["--known-hosts", cls.known]
        configuration = cls.work / "sshd_config"
        configuration.write_text(CONFIGURATION.format(port=cls.PORT, key=cls.work / "host-key"), encoding="utf-8")
        pathlib.Path("/run/sshd").mkdir(mode=0o755)
        cls.serve([sshd, "-D", "-e", "-f", configuration])

    def test_names(self):
        support.sent_names(self, *self.trusted)

    def test_lengths(self):
        support.sent_lengths(self, *self.trusted)

    def test_overwrites(self):
        (self.folder / "a.cap").write_bytes(CAPTURE)
        (self.folder / "a.cap").chmod(0o666)
        self.assert_arrives(CAPTURE[:100], "a.cap", *self.trusted)

    def test_refused(self):
        self.assert_fails("Login denied", CAPTURE, "a.cap", *self.trusted, password="wrong")
        self.assert_fails("Login denied", CAPTURE, "a.cap", *self.trusted, user="nobody-there")
        self.folder.chmod(0o555)
        self.addCleanup(self.folder.chmod, 0o755)
        self.assert_fails("permission denied|access", CAPTURE, "a.cap", *self.trusted)
        self.assertEqual(list(self.folder.iterdir()), [])

    def test_trust(self):
        other = self.work / "other"
        other.write_text(f"[127.0.0.1]:{self.PORT} {make_key(self.work / 'other-key')}", encoding="ascii")
        empty = self.work / "empty"
        empty.touch()
        for known in (other, empty, self.work / "missing"):
            self.assert_fails("fingerprint|key", CAPTURE, "a.cap", "--known-hosts", known)
        self.assert_fails("fingerprint|key", CAPTURE, "a.cap")
        self.assert_arrives(CAPTURE, "a.cap", "--known-hosts", other, "--accept-any")

    def test_the_users_own_known_hosts(self):
        own = self.work / ".ssh"
        own.mkdir()
        (own / "known_hosts").write_bytes(self.known.read_bytes())
        self.addCleanup((own / "known_hosts").unlink)
        self.assert_arrives(CAPTURE, "a.cap")

    def test_gone_in_the_middle(self):
        for name, serve in (("gone", bad_servers.cut_behind), ("silent", bad_servers.stall_behind)):
            with self.subTest(name), bad_servers.TcpServer(serve(50000, self.PORT)) as line:
                limits = ["--accept-any", "--stall-seconds", "2", "--total-seconds", "20"]
                self.assert_fails("", CAPTURE, "a.cap", *limits, port=line.port)
                self.assertTrue(line.reached.is_set(), "the upload did not get to the middle")
                (self.folder / "a.cap").unlink()


if __name__ == "__main__":
    support.main("upload_file")
