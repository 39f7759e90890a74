#!/usr/bin/env python3
"""Uploads by the card to servers that misbehave: each ends, as a failure, with a reason. Usage:
bad_server_test.py UPLOAD_FILE"""
import bad_servers
import support
from bad_servers import TcpServer, TftpServer, ftp
from support import CAPTURE, FTP, FTPS, SFTP, TFTP

LIMITS = ("--connect-seconds", "1", "--stall-seconds", "1", "--total-seconds", "4")

# Transfer, what the server does, the server, what the log says.
ROWS = (
    (FTP, "never speaks", lambda: TcpServer(bad_servers.never_speaks), "time"),
    (FTPS, "never speaks", lambda: TcpServer(bad_servers.never_speaks), "time"),
    (SFTP, "never speaks", lambda: TcpServer(bad_servers.never_speaks), "time"),
    (TFTP, "never speaks", lambda: TftpServer(0), "time"),
    (FTP, "closes at once", lambda: TcpServer(bad_servers.closes_at_once), ""),
    (SFTP, "closes at once", lambda: TcpServer(bad_servers.closes_at_once), ""),
    (FTP, "greets without end", lambda: TcpServer(bad_servers.greets_without_end), "time"),
    (FTP, "talks noise", lambda: TcpServer(bad_servers.talks_noise), ""),
    (SFTP, "talks noise", lambda: TcpServer(bad_servers.talks_noise), ""),
    (FTP, "silent on the user", lambda: TcpServer(ftp(None, {b"USER": None})), "time"),
    (FTPS, "silent in the handshake", lambda: TcpServer(bad_servers.silent_in_the_handshake), "time"),
    (FTP, "gone in the middle", lambda: TcpServer(ftp(bad_servers.gone_in_the_middle)), ""),
    (FTP, "silent in the middle", lambda: TcpServer(ftp(bad_servers.silent_in_the_middle)), "time"),
    (FTP, "disk full", lambda: TcpServer(ftp(bad_servers.disk_full_behind_the_last_byte)), "disk full.*answered 552"),
    (FTP, "silent at the end", lambda: TcpServer(ftp(bad_servers.silent_behind_the_last_byte)), "time|response"),
    (TFTP, "silent in the middle", lambda: TftpServer(20), "time"),
    (TFTP, "error in the middle", lambda: TftpServer(20, b"\0\5\0\3disk full\0"), "disk full"),
    (TFTP, "talks noise", lambda: TftpServer(20, b"\xff" * 3), "time|unexpected|unrecovered"),
)


class BadServers(support.Upload):
    def test_rows(self):
        long_one = CAPTURE * 100  # more than the sockets between take
        for type_, name, make_server, reason in ROWS:
            with self.subTest(f"{('ftp', 'tftp', 'sftp', 'ftps')[type_]}: {name}"), make_server() as server:
                data = CAPTURE if type_ == TFTP else long_one
                self.assert_fails(reason, data, "a.cap", "--accept-any", *LIMITS, port=server.port, type_=type_)
                self.assertTrue(server.reached.is_set(), "the upload failed before the server misbehaved")

    def test_no_password_in_the_clear(self):
        """FTPS is FTP when the server says no to encryption; the card does not go on with that."""
        with TcpServer(ftp(bad_servers.gone_in_the_middle)) as server:
            self.assert_fails("", CAPTURE, "a.cap", "--accept-any", *LIMITS, port=server.port, type_=FTPS)
        self.assertIn(b"AUTH TLS", server.heard)
        self.assertNotIn(b"USER", server.heard)
        self.assertNotIn(b"PASS", server.heard)


if __name__ == "__main__":
    support.main("upload_file")
