"""What the transfer tests share: a network of their own, servers that end with the test, one upload by the card.

A test script calls main(), which gives the process a loopback interface and mounts of its own: every port is free there,
the well-known ones too, no packet can leave the machine, and accounts made up for a server exist for that server only.
Where that, or a server, is not to be had, the script ends with the status that ctest takes for "skipped".
"""
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
import time
import unittest

SKIPPED = 77
PATIENCE_S = 60  # nothing takes this long unless it hangs
FTP, TFTP, SFTP, FTPS = range(4)
USER = "transfer"
PASSWORD = "not so secret"
CLONE_NEWNS = 0x00020000
CLONE_NEWNET = 0x40000000
LIBC = ctypes.CDLL(None, use_errno=True)


def skip(reason):
    print(f"skipped: {reason}")
    sys.exit(SKIPPED)


def tool(name):
    """Where a program is; the test is skipped where there is none."""
    path = shutil.which(name, path=os.environ["PATH"] + ":/usr/sbin:/sbin")
    return path or skip(f"{name} is not installed")


def enter_own_machine():
    if os.geteuid() != 0:
        skip("servers that change to other users need root")
    if LIBC.unshare(CLONE_NEWNET | CLONE_NEWNS) != 0:
        skip(f"no network of its own: {os.strerror(ctypes.get_errno())}")
    set_flags, get_flags, up = 0x8914, 0x8913, 1  # SIOCSIFFLAGS, SIOCGIFFLAGS, IFF_UP
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as any_socket:
        request = fcntl.ioctl(any_socket, get_flags, struct.pack("16sh22x", b"lo", 0))
        flags = struct.unpack("16sh22x", request)[1] | up
        fcntl.ioctl(any_socket, set_flags, struct.pack("16sh22x", b"lo", flags))
    mount("--make-rprivate", "/")
    mount("-t", "tmpfs", "tmpfs", "/run")


def mount(*arguments):
    subprocess.run(["mount", *arguments], check=True)


def main(*programs):
    """Runs the tests of the calling script; its arguments, under these names, are the programs that it runs."""
    for name, path in zip(programs, sys.argv[1:], strict=True):
        setattr(Upload, name, pathlib.Path(path).resolve())
    enter_own_machine()
    unittest.main(argv=sys.argv[:1], verbosity=2)


def wait_until(condition, what):
    deadline = time.monotonic() + PATIENCE_S
    while not condition():
        if time.monotonic() > deadline:
            raise TimeoutError(what)
        time.sleep(0.01)


def is_bound(kind, port):
    """Whether somebody listens. The kernel is asked, so that the server does not see a first, odd connection."""
    waits = "0A" if kind == "tcp" else "07"
    lines = pathlib.Path(f"/proc/net/{kind}").read_text(encoding="ascii").splitlines()[1:]
    return any(line.split()[1].endswith(f":{port:04X}") and line.split()[3] == waits for line in lines)


class Server:
    """A server program in a folder of its own, from the time it listens until stop()."""

    def __init__(self, command, folder, kind, port):
        self.output = (folder / "server.log").open("w+", encoding="utf-8", errors="replace")
        self.process = subprocess.Popen(
            command,
            stdin=subprocess.DEVNULL,
            stdout=self.output,
            stderr=subprocess.STDOUT,
            start_new_session=True,
            preexec_fn=lambda: LIBC.prctl(1, signal.SIGKILL),  # PR_SET_PDEATHSIG: also when the test is killed
        )
        self.port = port
        try:
            wait_until(lambda: self.process.poll() is not None or is_bound(kind, port), f"{command[0]} does not listen")
            if self.process.poll() is not None:
                raise RuntimeError(f"{command[0]} ended with {self.process.returncode}: {self.log()}")
        except Exception:
            self.stop()
            raise

    def log(self):
        self.output.flush()
        return pathlib.Path(self.output.name).read_text(encoding="utf-8", errors="replace")

    def stop(self):
        try:
            os.killpg(self.process.pid, signal.SIGKILL)
        except ProcessLookupError:
            pass
        self.process.wait()
        self.output.close()


class Upload(unittest.TestCase):
    """Uploads by the card, and what they must leave behind. The folder of the class is where its server's user lands."""

    upload_file = None  # programs, from the command line of the script
    anti_cpu = None
    TYPE = FTP
    PORT = 0

    @classmethod
    def setUpClass(cls):
        holder = tempfile.TemporaryDirectory()
        cls.addClassCleanup(holder.cleanup)
        cls.work = pathlib.Path(holder.name)
        cls.work.chmod(0o755)
        cls.folder = cls.work / "arrived"
        cls.folder.mkdir()
        shutil.chown(cls.folder, "nobody")

    @classmethod
    def serve(cls, command, kind="tcp"):
        server = Server([str(word) for word in command], cls.work, kind, cls.PORT)
        cls.addClassCleanup(server.stop)
        return server

    def upload(self, data, name, *options, port=None, type_=None, user=USER, password=PASSWORD):
        """Returns exit status and log of one upload; fails when it does not end or the log holds the password."""
        source = self.work / "source"
        source.write_bytes(data)
        command = [self.upload_file, source, "--server", f"127.0.0.1:{port or self.PORT}", "--name", name]
        command += ["--type", self.TYPE if type_ is None else type_, "--user", user, "--password", password, *options]
        environment = {**os.environ, "HOME": str(self.work)}
        result = subprocess.run(
            [str(word) for word in command], capture_output=True, timeout=PATIENCE_S, env=environment, check=False
        )
        log = result.stderr.decode()
        self.assertIn(result.returncode, (0, 1), log)
        self.assertNotIn(password, log)
        return result.returncode, log

    def assert_arrives(self, data, name, *options, **where):
        status, log = self.upload(data, name, *options, **where)
        self.assertEqual((status, log), (0, ""))
        arrived = self.folder / name
        self.assertEqual([path.name for path in self.folder.iterdir()], [name])
        self.assertEqual(len(arrived.read_bytes()), len(data), name)
        self.assertTrue(arrived.read_bytes() == data, f"{name}: other bytes arrived than were sent")
        arrived.unlink()

    def assert_fails(self, reason, data, name, *options, **where):
        """The card says no, and says why in one line; 'reason' is a regular expression, in any case."""
        status, log = self.upload(data, name, *options, **where)
        self.assertEqual(status, 1, log)
        self.assertEqual(log.count("\n"), 1, log)
        line = rf' 13 upload of "{re.escape(name)}" to "127\.0\.0\.1:\d+" failed: .*({reason})'
        self.assertRegex(log, re.compile(line, re.IGNORECASE))


# Names as the module builds them, and one that has everything a URL gives another meaning to.
NAMES = (
    "atc-manual.cap",
    "atc-rx-3-100-arp-(02-00-00-00-00-07).cap",
    "atc-rx-3-100-tcp-syn-(10.0.0.1).cap",
    "atc-rx-3-100-icmpv6-ns-(2001:db8::7).cap",
    "a b#c?d%41;type=a&e.cap",
)
# Around the block of TFTP, and what a full capture has.
LENGTHS = (0, 1, 511, 512, 513, 1024, 102000)
CAPTURE = os.urandom(102000)


def password_hash():
    command = [tool("openssl"), "passwd", "-6", "-stdin"]
    return subprocess.run(command, input=PASSWORD, capture_output=True, check=True, text=True).stdout.strip()


def sent_lengths(test, *options):
    for length in LENGTHS:
        with test.subTest(length=length):
            test.assert_arrives(CAPTURE[:length], "a.cap", *options)


def sent_names(test, *options):
    for name in NAMES:
        with test.subTest(name=name):
            test.assert_arrives(CAPTURE[:1000], name, *options)
