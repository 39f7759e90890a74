#!/usr/bin/env python3
"""Uploads by the card to servers that misbehave: each ends, as a failure, with a reason. Usage:
bad_server_test.py BadServers UPLOAD_FILE"""
import contextlib
import os
import socket
import struct
import threading
import unittest.mock

import support
from support import CAPTURE, FTP, FTPS, SFTP, TFTP

LIMITS = ("--accept-any", "--connect-seconds", "1", "--stall-seconds", "1", "--total-seconds", "4")
LONG = CAPTURE * 100  # more than the sockets between take


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


class FtpServer:
    """Keeps to the book up to the file, which it hands to misbehave(control, data)."""

    def __init__(self, misbehave):
        self.misbehave = misbehave
        self.heard = []  # what the client has said on its control connection
        self.listener, self.data = (socket.create_server(("127.0.0.1", 0)) for _ in range(2))
        self.port = self.listener.getsockname()[1]
        threading.Thread(target=self.serve, daemon=True).start()

    def serve(self):
        passive = f"229 here (|||{self.data.getsockname()[1]}|)\r\n".encode()
        book = {b"USER": b"331 password\r\n", b"PASS": b"230 in\r\n", b"PWD": b'257 "/"\r\n', b"EPSV": passive}
        book |= {b"TYPE": b"200 yes\r\n", b"STOR": b"150 go on\r\n"}
        with self.listener, self.data, self.listener.accept()[0] as control, contextlib.suppress(OSError):
            control.sendall(b"220 hello\r\n")
            for line in control.makefile("rb"):
                verb = line.split()[0]
                self.heard.append(verb)
                control.sendall(book.get(verb, b"500 what\r\n"))
                if verb == b"STOR":
                    with self.data.accept()[0] as data:
                        self.misbehave(control, data)
                    return


class BadServers(support.Upload):
    def test_never_answers(self):
        for type_ in (FTP, FTPS, SFTP, TFTP):
            kind = socket.SOCK_DGRAM if type_ == TFTP else socket.SOCK_STREAM
            with self.subTest(type_), socket.socket(socket.AF_INET, kind) as server:
                server.bind(("127.0.0.1", 0))
                if type_ != TFTP:
                    server.listen()
                self.assert_fails("time", CAPTURE, *LIMITS, port=server.getsockname()[1], type_=type_)

    def test_in_the_middle(self):
        for misbehave, reason in ((gone, ""), (disk_full, "disk full.*answered 552")):
            with self.subTest(misbehave.__name__):
                server = FtpServer(misbehave)
                self.assert_fails(reason, LONG, *LIMITS, port=server.port)
                self.assertIn(b"STOR", server.heard)

    def test_no_password_in_the_clear(self):
        """FTPS is FTP when the server says no to encryption; the card does not go on with that."""
        server = FtpServer(gone)
        self.assert_fails("", CAPTURE, *LIMITS, port=server.port, type_=FTPS)
        self.assertIn(b"AUTH", server.heard)
        self.assertFalse({b"USER", b"PASS"} & set(server.heard))

    def test_without_the_library(self):
        (self.work / "libcurl.so.4").touch()
        with unittest.mock.patch.dict(os.environ, LD_LIBRARY_PATH=str(self.work)):
            self.assert_fails("libcurl is not installed", CAPTURE, port=9)


if __name__ == "__main__":
    support.main()
