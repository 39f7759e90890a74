"""What the transfer tests share: a network of their own, servers that end with the tests, one upload by the card.

A test script calls main(), which gives the process a loopback interface and mounts of its own: every port is free
there, no packet can leave the machine, and accounts made up for a server exist for that server only. Where that, or a
server, is not to be had, the script ends with the status that ctest takes for "skipped". As a script itself, this runs
a program on such a machine.
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
CAPTURE = os.urandom(102000)  # bytes, what a full one has
LIBC = ctypes.CDLL(None, use_errno=True)


def skip(reason):
    print(f"skipped: {reason}")
    sys.exit(SKIPPED)


def tool(name):
    """Where a program is; the test is skipped where there is none."""
    return shutil.which(name, path=os.environ["PATH"] + ":/usr/sbin:/sbin") or skip(f"{name} is not installed")


def run(*command, **options):
    """What a program prints; it must not fail."""
    command = [tool(command[0]), *command[1:]]
    return subprocess.run(command, stdout=subprocess.PIPE, check=True, text=True, **options).stdout


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


def main():
    """Runs the calling script's tests: SCRIPT CLASS PROGRAM."""
    Upload.program = pathlib.Path(sys.argv[2]).resolve()
    enter_own_machine()
    unittest.main(argv=sys.argv[:2], verbosity=2)


class Upload(unittest.TestCase):
    """Uploads by the card, and what they must leave behind: "folder" is where the user of the server lands."""

    program = None
    TYPE = FTP
    PORT = 0
    OPTIONS = ()

    @classmethod
    def setUpClass(cls):
        holder = tempfile.TemporaryDirectory()
        cls.addClassCleanup(holder.cleanup)
        cls.work = pathlib.Path(holder.name)
        cls.work.chmod(0o755)
        cls.folder = cls.work / "arrived"
        cls.folder.mkdir()
        shutil.chown(cls.folder, "nobody")
        cls.password_hash = run("openssl", "passwd", "-6", "-stdin", input=PASSWORD).strip()

    @classmethod
    def serve(cls, *command, kind="tcp"):
        """Starts a server, which ends with the class, and returns when it listens."""
        server = subprocess.Popen(
            [tool(command[0]), *command[1:]],
            stdin=subprocess.DEVNULL,
            start_new_session=True,
            preexec_fn=lambda: LIBC.prctl(1, signal.SIGKILL),  # PR_SET_PDEATHSIG: also when the test is killed
        )
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
        """A server with one user of its own."""
        passwords, database = cls.work / "passwords", cls.work / "passwords.pdb"
        fields = f"{USER}:{cls.password_hash}:65534:65534::{cls.folder}/./" + ":" * 12
        passwords.write_text(fields + "\n", encoding="utf-8")
        run("pure-pw", "mkdb", database, "-f", passwords)
        options += ("--dontresolve", "--ipv4only", "--noanonymous", "--chrooteveryone", "--minuid=1")
        cls.serve("pure-ftpd", f"--bind=127.0.0.1,{cls.PORT}", f"--login=puredb:{database}", *options)

    def upload(self, data, name, *options, port=None, type_=None, password=PASSWORD):
        """Returns exit status and log of one upload; fails when it does not end or the log holds the password."""
        source = self.work / "source"
        source.write_bytes(data)
        command = [self.program, source, "--server", f"127.0.0.1:{port or self.PORT}", "--name", name]
        command += ["--type", self.TYPE if type_ is None else type_, "--user", USER, "--password", password]
        command = [str(word) for word in (*command, *(options or self.OPTIONS))]
        result = subprocess.run(command, stderr=subprocess.PIPE, timeout=PATIENCE_S, check=False, text=True)
        self.assertNotIn(password, result.stderr)
        return result.returncode, result.stderr

    def assert_arrives(self, data, name, *options):
        self.assertEqual(self.upload(data, name, *options), (0, ""))
        self.assertEqual([path.name for path in self.folder.iterdir()], [name])
        self.assertTrue((self.folder / name).read_bytes() == data, f"{name}: other bytes arrived than were sent")
        (self.folder / name).unlink()

    def assert_fails(self, reason, data, *options, **where):
        """The card says no, and says why in one line; 'reason' is a regular expression, in any case."""
        status, log = self.upload(data, "a.cap", *options, **where)
        self.assertEqual((status, log.count("\n")), (1, 1), log)
        line = rf' 13 upload of "a\.cap" to "127\.0\.0\.1:\d+" failed: .*({reason})'
        self.assertRegex(log, re.compile(line, re.IGNORECASE))


if __name__ == "__main__":
    enter_own_machine()
    os.execv(sys.argv[1], sys.argv[1:])
