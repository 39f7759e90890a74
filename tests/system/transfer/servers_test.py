#!/usr/bin/env python3
"""The card's uploads, held against servers on loopback: pure-ftpd, OpenSSH, tftpd-hpa.
Usage: servers_test.py Ftp|Ftps|Sftp|Tftp UPLOAD_FILE"""
import pathlib
import subprocess

import support
from support import CAPTURE, USER, run

# Names as the module builds them, and one that has everything a URL gives another meaning to.
NAMES = (
    "atc-rx-3-100-arp-(02-00-00-00-00-07).cap",
    "atc-rx-3-100-icmpv6-ns-(2001:db8::7).cap",
    "a b#c?d%41;type=a&e.cap",
)
LENGTHS = (0, 1, 511, 512, 513, 102000)  # around the block of TFTP


class Tftp(support.Upload):
    TYPE = support.TFTP
    PORT = 69

    @classmethod
    def setUpClass(cls):
        super().setUpClass()
        cls.start()

    @classmethod
    def start(cls):
        # Any address: the server does not find 127.0.0.1 where there is none but loopback.
        options = ["--ipv4", "--address", f":{cls.PORT}", "--create", "--permissive", "--user", "nobody", "--secure"]
        cls.serve("in.tftpd", "--foreground", *options, cls.folder, kind="udp")

    def test_arrives(self):
        for name in NAMES:
            self.assert_arrives(CAPTURE[:1000], name)
        for length in LENGTHS:
            self.assert_arrives(CAPTURE[:length], "a.cap")


class Ftp(Tftp):
    TYPE = support.FTP
    PORT = 2121

    @classmethod
    def start(cls):
        cls.serve_ftp()

    def test_wrong_password(self):
        self.assert_fails("Login denied", CAPTURE, password="wrong")


class Ftps(Ftp):
    TYPE = support.FTPS

    @classmethod
    def start(cls):
        certificate = cls.work / "certificate.pem"
        request = ["-x509", "-newkey", "rsa:2048", "-nodes", "-subj", "/CN=localhost", "-keyout", cls.work / "key"]
        request += ["-addext", "subjectAltName=IP:127.0.0.1"]
        text = run("openssl", "req", *request, stderr=subprocess.DEVNULL)
        certificate.write_text((cls.work / "key").read_text(encoding="ascii") + text, encoding="ascii")
        certificate.chmod(0o600)
        cls.OPTIONS = ["--ca-file", certificate]
        cls.serve_ftp("--tls=3", f"--certfile={certificate}")  # 3: control and data must both be encrypted

    def test_trust(self):
        self.assert_fails("certificate|CA", CAPTURE, "--connect-seconds", "10")
        self.assert_arrives(CAPTURE, "a.cap", "--accept-any")


class Sftp(Ftp):
    TYPE = support.SFTP

    @classmethod
    def start(cls):
        # A user that only this script and the servers it starts see.
        account = {"passwd": f"x:65534:65534::{cls.folder}:/bin/false", "shadow": f"{cls.password_hash}:::::::"}
        for name, fields in account.items():
            real = pathlib.Path("/etc", name)
            (cls.work / name).write_text(f"{real.read_text(encoding='utf-8')}{USER}:{fields}\n", encoding="utf-8")
            run("mount", "--bind", cls.work / name, real)
        key = cls.work / "key"
        run("ssh-keygen", "-q", "-t", "ed25519", "-N", "", "-f", key)
        known, public = cls.work / "known", key.with_suffix(".pub").read_text(encoding="ascii")
        known.write_text(f"[127.0.0.1]:{cls.PORT} {public}", encoding="ascii")
        cls.OPTIONS = ["--known-hosts", known]
        pathlib.Path("/run/sshd").mkdir(mode=0o755)
        settings = ["ListenAddress=127.0.0.1", f"Port={cls.PORT}", f"HostKey={key}", "PidFile=none", "UsePAM=no"]
        settings += ["PasswordAuthentication=yes", "Subsystem=sftp internal-sftp", "ForceCommand=internal-sftp"]
        cls.serve("sshd", "-D", "-e", "-f", "/dev/null", *(word for setting in settings for word in ("-o", setting)))

    def test_trust(self):
        empty = self.work / "empty"
        empty.touch()
        self.assert_fails("fingerprint|key", CAPTURE, "--known-hosts", empty)
        self.assert_arrives(CAPTURE, "a.cap", "--known-hosts", empty, "--accept-any")


if __name__ == "__main__":
    support.main()
