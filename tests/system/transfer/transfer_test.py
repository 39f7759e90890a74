#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Uploads by the card to servers on loopback, good ones and bad ones: transfer_test.py TESTS PROGRAM

TESTS is a class of this file, PROGRAM what uploads: upload_file, or anti-cpu for Replay. TESTS "-" just runs PROGRAM.
Everything happens on a loopback interface and mounts of its own: every port is free there, no packet can leave the
machine, and an account made up for a server exists for that server only. Where that, or a server, is not to be had, the
exit status is what ctest takes for "skipped".
"""
import contextlib
import ctypes
import fcntl
import os
import pathlib
import re
import shutil
import signal
import socket
import struct
import subprocess
import sys
import tempfile
import threading
import time
import unittest
import unittest.mock

PATIENCE_S = 60  # nothing takes this long unless it hangs
USER, PASSWORD = "transfer", "not so secret"
CAPTURE = os.urandom(102000)  # bytes, what a full one has
LONG = CAPTURE * 100  # more than the sockets between take
# Names as the module builds them, and one that has everything a URL gives another meaning to.
NAMES = ["atc-rx-3-100-arp-(02-00-00-00-00-07).cap", "atc-rx-3-100-icmpv6-ns-(2001:db8::7).cap"]
NAMES += ["a b#c?d%41;type=a&e.cap"]
LENGTHS = (0, 1, 511, 512, 513, 102000)  # around the block of TFTP
LIBC = ctypes.CDLL(None, use_errno=True)


def skip(reason):
    print(f"skipped: {reason}")
    sys.exit(77)


def run(*command, **options):
    """What a program prints; it must not fail."""
    command = [tool(command[0]), *command[1:]]
    return subprocess.run(command, stdout=subprocess.PIPE, check=True, text=True, **options).stdout


def tool(name):
    return shutil.which(name, path=os.environ["PATH"] + ":/usr/sbin:/sbin") or skip(f"{name} is not installed")


def enter_own_machine():
    if os.geteuid() != 0:
        skip("servers that change to other users need root")
    if LIBC.unshare(0x40000000 | 0x00020000) != 0:  # CLONE_NEWNET, CLONE_NEWNS
        skip(f"no network of its own: {os.strerror(ctypes.get_errno())}")
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as any_socket:
        fcntl.ioctl(any_socket, 0x8914, struct.pack("16sh22x", b"lo", 0x49))  # SIOCSIFFLAGS: up, loopback, running
    try:
        run("mount", "--make-rprivate", "/")
        run("mount", "-t", "tmpfs", "tmpfs", "/run")
    except subprocess.CalledProcessError as error:  # in a chroot the root is no mount of its own
        skip(f"no mounts of its own: {error}")


class Upload(unittest.TestCase):
    """One upload, and what it must leave behind: "folder" is where the user of the server lands."""

    OPTIONS = {"server": "127.0.0.1", "type": 0, "user": USER, "password": PASSWORD, "connect_s": 10, "stall_s": 10,
               "total_s": 60, "ca_file": "", "known_hosts": "", "accept_any": 0}
    PORT = 0

    @classmethod
    def setUpClass(cls):
        cls.work = pathlib.Path(cls.enterClassContext(tempfile.TemporaryDirectory()))
        cls.work.chmod(0o755)
        cls.folder = cls.work / "arrived"
        cls.folder.mkdir()
        shutil.chown(cls.folder, "nobody")
        cls.password_hash = run("openssl", "passwd", "-6", "-stdin", input=PASSWORD).strip()
        cls.OPTIONS = cls.OPTIONS | {"server": f"127.0.0.1:{cls.PORT}"}
        cls.start()

    @classmethod
    def start(cls):
        pass

    @classmethod
    def serve(cls, *command, kind="tcp"):
        """Starts a server, which ends with the class, and returns when it listens."""
        server = subprocess.Popen([tool(command[0]), *command[1:]], stdin=subprocess.DEVNULL, start_new_session=True,
                                  preexec_fn=lambda: LIBC.prctl(1, signal.SIGKILL))  # PR_SET_PDEATHSIG
        cls.addClassCleanup(server.wait)
        cls.addClassCleanup(os.killpg, server.pid, signal.SIGKILL)
        # The kernel is asked, so that the server does not see a first, odd connection.
        listens = re.compile(rf":{cls.PORT:04X} 0+:0000 0[A7] ")
        deadline = time.monotonic() + PATIENCE_S
        while not listens.search(pathlib.Path("/proc/net", kind).read_text(encoding="ascii")):
            if server.poll() is not None or time.monotonic() > deadline:
                raise RuntimeError(f"{command[0]} does not listen")
            time.sleep(0.01)

    @classmethod
    def serve_ftp(cls, *options):
        passwords, database = cls.work / "passwords", cls.work / "passwords.pdb"
        passwords.write_text(f"{USER}:{cls.password_hash}:65534:65534::{cls.folder}/./{':' * 12}\n", encoding="utf-8")
        run("pure-pw", "mkdb", database, "-f", passwords)
        options += ("--dontresolve", "--ipv4only", "--noanonymous", "--chrooteveryone", "--minuid=1")
        cls.serve("pure-ftpd", f"--bind=127.0.0.1,{cls.PORT}", f"--login=puredb:{database}", *options)

    def upload(self, data, name="a.cap", **options):
        """Exit status and log of one upload; fails when it does not end or the log holds the password."""
        (self.work / "source").write_bytes(data)
        options = self.OPTIONS | options
        command = [str(word) for word in (PROGRAM, self.work / "source", name, *options.values())]
        result = subprocess.run(command, stderr=subprocess.PIPE, timeout=PATIENCE_S, check=False, text=True)
        self.assertNotIn(options["password"], result.stderr)
        return result.returncode, result.stderr

    def assert_arrives(self, data, name="a.cap", **options):
        self.assertEqual(self.upload(data, name, **options), (0, ""))
        self.assertEqual([path.name for path in self.folder.iterdir()], [name])
        self.assertTrue((self.folder / name).read_bytes() == data, f"{name}: other bytes arrived than were sent")
        (self.folder / name).unlink()

    def assert_fails(self, reason, data=CAPTURE, **options):
        """The card says no, and says why in one line; 'reason' is a regular expression, in any case."""
        status, log = self.upload(data, **options)
        self.assertEqual((status, log.count("\n")), (1, 1), log)
        self.assertRegex(log, rf'(?i) 13 upload of "a\.cap" to "127\.0\.0\.1:\d+" failed: .*({reason})')


class Tftp(Upload):
    OPTIONS = Upload.OPTIONS | {"type": 1}
    PORT = 69

    @classmethod
    def start(cls):
        # Any address: the server does not find 127.0.0.1 where there is none but loopback.
        options = ["--ipv4", "--address", f":{cls.PORT}", "--create", "--permissive", "--user", "nobody", "--secure"]
        cls.serve("in.tftpd", "--foreground", *options, cls.folder, kind="udp")

    def test_arrives(self):
        for data, name in [(CAPTURE[:1000], name) for name in NAMES] + [(CAPTURE[:n], "a.cap") for n in LENGTHS]:
            self.assert_arrives(data, name)


class Ftp(Tftp):
    OPTIONS = Upload.OPTIONS
    PORT = 2121
    STRANGER = None  # options with which the server is not known, why it is then not trusted

    @classmethod
    def start(cls):
        cls.serve_ftp()

    def test_trust(self):
        self.assert_fails("Login denied", password="wrong")
        if self.STRANGER:
            self.assert_fails(self.STRANGER[1], **self.STRANGER[0])
            self.assert_arrives(CAPTURE, **self.STRANGER[0], accept_any=1)


class Ftps(Ftp):
    OPTIONS = Upload.OPTIONS | {"type": 3}
    STRANGER = {"ca_file": ""}, "certificate|CA"

    @classmethod
    def start(cls):
        key, certificate = cls.work / "key", cls.work / "certificate.pem"
        request = ["-x509", "-newkey", "rsa:2048", "-nodes", "-subj", "/CN=localhost", "-keyout", key]
        text = run("openssl", "req", *request, "-addext", "subjectAltName=IP:127.0.0.1", stderr=subprocess.DEVNULL)
        certificate.write_text(key.read_text(encoding="ascii") + text, encoding="ascii")
        certificate.chmod(0o600)
        cls.OPTIONS |= {"ca_file": certificate}
        cls.serve_ftp("--tls=3", f"--certfile={certificate}")  # 3: control and data must both be encrypted


class Sftp(Ftp):
    OPTIONS = Upload.OPTIONS | {"type": 2}
    STRANGER = {"known_hosts": "/dev/null"}, "fingerprint|key"

    @classmethod
    def start(cls):
        # A user that only this script and the servers it starts see.
        account = {"passwd": f"x:65534:65534::{cls.folder}:/bin/false", "shadow": f"{cls.password_hash}:::::::"}
        for name, fields in account.items():
            real = pathlib.Path("/etc", name)
            (cls.work / name).write_text(f"{real.read_text(encoding='utf-8')}{USER}:{fields}\n", encoding="utf-8")
            run("mount", "--bind", cls.work / name, real)
        key, known = cls.work / "key", cls.work / "known"
        run("ssh-keygen", "-q", "-t", "ed25519", "-N", "", "-f", key)
        public = key.with_suffix(".pub").read_text(encoding="ascii")
        known.write_text(f"[127.0.0.1]:{cls.PORT} {public}", encoding="ascii")
        cls.OPTIONS |= {"known_hosts": known}
        pathlib.Path("/run/sshd").mkdir(mode=0o755)
        settings = ["ListenAddress=127.0.0.1", f"Port={cls.PORT}", f"HostKey={key}", "PidFile=none", "UsePAM=no"]
        settings += ["PasswordAuthentication=yes", "Subsystem=sftp internal-sftp", "ForceCommand=internal-sftp"]
        cls.serve("sshd", "-D", "-e", "-f", "/dev/null", *(word for setting in settings for word in ("-o", setting)))


class Replay(Upload):
    """A replayed flood fills the captures of its flow and of its source."""

    PORT = 21  # where automatic uploads go
    FLOOD = "0 60 200 syn 9 vlan 100\n"
    SETTINGS = f"""
set capture tcp-syn on
set capture tcp-syn source on
upload server 127.0.0.1
upload type ftp
upload user {USER}
upload password file password
upload enable on
"""

    @classmethod
    def start(cls):
        cls.serve_ftp()

    def test_full_captures_arrive_as_they_are_written(self):
        flood, capture, settings, written = (self.work / name for name in ("flood", "capture", "settings", "written"))
        flood.write_text(self.FLOOD, encoding="utf-8")
        settings.write_text(self.SETTINGS, encoding="utf-8")
        (self.work / "password").write_text(f"{PASSWORD}\nand more\n", encoding="utf-8")
        run(sys.executable, pathlib.Path(__file__).resolve().parent.parent / "traffic.py", flood, capture)
        options = ["--port", "3", "--fast-period", "10", "--config", settings, "--captures", written, "--events", "-"]
        output = run(PROGRAM, "replay", capture, *options, cwd=self.work, stderr=subprocess.STDOUT)
        self.assertEqual([output.count(f'"event":"capture-{what}"') for what in ("written", "uploaded")], [2, 2], output)
        names = ["atc-rx-3-100-tcp-syn-(10.0.0.9).cap", "atc-rx-3-100-tcp-syn.cap"]
        self.assertEqual(sorted(path.name for path in self.folder.iterdir()), names, output)
        for name in names:
            self.assertTrue((self.folder / name).read_bytes() == (written / name).read_bytes(), name)


def receive(connection, count):
    while count > 0 and (chunk := connection.recv(min(65536, count))):
        count -= len(chunk)


def gone(control, data):
    receive(data, len(LONG) // 2)
    for connection in (data, control):
        connection.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))  # closed by a reset
        connection.close()


def disk_full(control, data):
    receive(data, len(LONG) + 1)
    control.sendall(b"552 disk full\r\n")


class BadServers(Upload):
    OPTIONS = Upload.OPTIONS | {"connect_s": 1, "stall_s": 1, "total_s": 4, "accept_any": 1}

    def serve_badly(self, misbehave):
        """A server that keeps to the book up to the file, which it hands to misbehave(control, data). Where it is, and
        a list of what the client says on its control connection."""
        listener, data_listener = (socket.create_server(("127.0.0.1", 0)) for _ in range(2))
        book = {b"USER": b"331 password\r\n", b"PASS": b"230 in\r\n", b"PWD": b'257 "/"\r\n', b"TYPE": b"200 yes\r\n",
                b"STOR": b"150 go on\r\n", b"EPSV": f"229 here (|||{data_listener.getsockname()[1]}|)\r\n".encode()}
        heard = []

        def serve():
            with listener, data_listener, listener.accept()[0] as control, contextlib.suppress(OSError):
                control.sendall(b"220 hello\r\n")
                for line in control.makefile("rb"):
                    heard.append(line.split()[0])
                    control.sendall(book.get(heard[-1], b"500 what\r\n"))
                    if heard[-1] == b"STOR":
                        with data_listener.accept()[0] as data:
                            return misbehave(control, data)

        threading.Thread(target=serve, daemon=True).start()
        return f"127.0.0.1:{listener.getsockname()[1]}", heard

    def test_never_answers(self):
        for type_ in range(4):
            kind = socket.SOCK_DGRAM if type_ == 1 else socket.SOCK_STREAM
            with self.subTest(type_), socket.socket(type=kind) as server:
                server.bind(("127.0.0.1", 0))
                if kind == socket.SOCK_STREAM:
                    server.listen()
                self.assert_fails("time", server=f"127.0.0.1:{server.getsockname()[1]}", type=type_)

    def test_in_the_middle(self):
        for misbehave, reason in ((gone, ""), (disk_full, "disk full.*answered 552")):
            with self.subTest(misbehave.__name__):
                server, heard = self.serve_badly(misbehave)
                self.assert_fails(reason, LONG, server=server)
                self.assertIn(b"STOR", heard)

    def test_no_password_in_the_clear(self):
        """FTPS is FTP when the server says no to encryption; the card does not go on with that."""
        server, heard = self.serve_badly(gone)
        self.assert_fails("", server=server, type=3)
        self.assertIn(b"AUTH", heard)
        self.assertFalse({b"USER", b"PASS"} & set(heard))

    def test_without_the_library(self):
        (self.work / "libcurl.so.4").touch()
        with unittest.mock.patch.dict(os.environ, LD_LIBRARY_PATH=str(self.work)):
            self.assert_fails("libcurl is not installed", server="127.0.0.1:9")


if __name__ == "__main__":
    PROGRAM = pathlib.Path(sys.argv[2]).resolve()
    enter_own_machine()
    if sys.argv[1] == "-":
        os.execv(PROGRAM, sys.argv[2:])
    unittest.main(argv=sys.argv[:2], verbosity=2)
