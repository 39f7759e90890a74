#!/usr/bin/env python3
"""FTP and FTPS by the card, held against pure-ftpd on loopback. Usage: ftp_test.py UPLOAD_FILE"""
import subprocess

import support
from support import CAPTURE, USER, tool


def start_pure_ftpd(test, *options):
    """A server with one user of its own, whose folder is the test's."""
    passwords, database = test.work / "passwords", test.work / "passwords.pdb"
    fields = f"{USER}:{support.password_hash()}:65534:65534::{test.folder}/./" + ":" * 12
    passwords.write_text(fields + "\n", encoding="utf-8")
    subprocess.run([tool("pure-pw"), "mkdb", database, "-f", passwords], check=True)
    server = [tool("pure-ftpd"), f"--bind=127.0.0.1,{test.PORT}", "--dontresolve", "--ipv4only", "--noanonymous"]
    server += ["--chrooteveryone", "--minuid=1", "--syslogfacility=none", f"--login=puredb:{database}", *options]
    return test.serve(server)


class Ftp(support.Upload):
    PORT = 2121

    @classmethod
    def setUpClass(cls):
        super().setUpClass()
        start_pure_ftpd(cls)

    def test_names(self):
        support.sent_names(self)

    def test_lengths(self):
        support.sent_lengths(self)

    def test_overwrites(self):
        (self.folder / "a.cap").write_bytes(CAPTURE)
        (self.folder / "a.cap").chmod(0o666)
        self.assert_arrives(CAPTURE[:100], "a.cap")

    def test_refused(self):
        self.assert_fails("Login denied.*answered 530", CAPTURE, "a.cap", password="wrong")
        self.folder.chmod(0o555)
        self.addCleanup(self.folder.chmod, 0o755)
        self.assert_fails("Upload failed.*answered 553", CAPTURE, "a.cap")
        self.assertEqual(list(self.folder.iterdir()), [])


class Ftps(support.Upload):
    TYPE = support.FTPS
    PORT = 2122

    @classmethod
    def setUpClass(cls):
        super().setUpClass()
        cls.trusted = ["--ca-file", cls.work / "certificate.pem"]
        cls.other = ["--ca-file", cls.work / "other.pem"]
        for certificate in (cls.trusted[1], cls.other[1]):
            key = certificate.with_suffix(".key")
            command = [tool("openssl"), "req", "-x509", "-newkey", "rsa:2048", "-nodes", "-keyout", key]
            command += ["-subj", "/CN=localhost", "-addext", "subjectAltName=IP:127.0.0.1", "-out", certificate]
            subprocess.run(command, capture_output=True, check=True)
        both = cls.work / "key-and-certificate.pem"
        both.write_bytes(cls.trusted[1].with_suffix(".key").read_bytes() + cls.trusted[1].read_bytes())
        both.chmod(0o600)
        start_pure_ftpd(cls, "--tls=3", f"--certfile={both}")  # 3: control and data must both be encrypted

    def test_names(self):
        support.sent_names(self, *self.trusted)

    def test_lengths(self):
        support.sent_lengths(self, *self.trusted)

    def test_wrong_password(self):
        self.assert_fails("Login denied.*answered 530", CAPTURE, "a.cap", *self.trusted, password="wrong")

    def test_trust(self):
        self.assert_fails("certificate", CAPTURE, "a.cap", *self.other)
        self.assert_fails("certificate", CAPTURE, "a.cap")
        self.assert_fails("certificate|CA", CAPTURE, "a.cap", "--ca-file", self.work / "missing.pem")
        self.assert_arrives(CAPTURE, "a.cap", *self.other, "--accept-any")

    def test_clear_text_is_refused_by_this_server(self):
        """So what arrives in the other tests was encrypted."""
        self.assert_fails("answered 421", CAPTURE, "a.cap", type_=support.FTP)


if __name__ == "__main__":
    support.main("upload_file")
