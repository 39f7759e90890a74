"""Servers that misbehave, on a thread and a free port of loopback each, for as long as a "with" lasts."""
import socket
import struct
import threading


class TcpServer:
    """Serves one client by serve(connection, server); 'released' ends whoever holds a connection open in silence."""

    def __init__(self, serve):
        self.serve = serve
        self.heard = b""  # what the client has said on its control connection
        self.reached = threading.Event()  # the point where it begins to misbehave
        self.released = threading.Event()
        self.listener = socket.create_server(("127.0.0.1", 0))
        self.port = self.listener.getsockname()[1]
        self.thread = threading.Thread(target=self.run, daemon=True)

    def run(self):
        try:
            connection, _ = self.listener.accept()
            with connection:
                self.serve(connection, self)
        except OSError:
            pass  # the client was first

    def __enter__(self):
        self.thread.start()
        return self

    def __exit__(self, *_):
        self.released.set()
        try:
            self.listener.shutdown(socket.SHUT_RDWR)
        except OSError:
            pass
        self.listener.close()
        self.thread.join()


def never_speaks(_, server):
    server.reached.set()
    server.released.wait()


def closes_at_once(_, server):
    server.reached.set()


def greets_without_end(connection, server):
    server.reached.set()
    while not server.released.wait(0.1):
        connection.sendall(b"220-still coming up\r\n")


def talks_noise(connection, server):
    server.reached.set()
    connection.sendall(bytes(range(256)) * 64 + b"\r\n")
    server.released.wait()


def silent_in_the_handshake(connection, server):
    connection.sendall(b"220 hello\r\n")
    server.heard = read_line(connection)
    connection.sendall(b"234 go on\r\n")
    server.reached.set()
    server.released.wait()


def receive_at_least(connection, count):
    got = 0
    while got < count:
        chunk = connection.recv(min(65536, count - got))
        if not chunk:
            return
        got += len(chunk)


def ftp(misbehave, answers=None):
    """An FTP server that keeps to the book up to the file, which it hands to misbehave(control, data, server)."""

    def serve(control, server):
        listener = socket.create_server(("127.0.0.1", 0))
        port = listener.getsockname()[1]
        book = {
            b"USER": b"331 password\r\n",
            b"PASS": b"230 in\r\n",
            b"PWD": b'257 "/" is here\r\n',
            b"EPSV": f"229 here (|||{port}|)\r\n".encode(),
            b"TYPE": b"200 yes\r\n",
            **(answers or {}),
        }
        with listener:
            control.sendall(b"220 hello\r\n")
            while line := read_line(control):
                server.heard += line
                verb = line.split()[0].upper()
                if verb == b"STOR":
                    data, _ = listener.accept()
                    with data:
                        control.sendall(b"150 go on\r\n")
                        misbehave(control, data, server)
                    return
                answer = book.get(verb, b"500 what\r\n")
                if answer is None:
                    server.reached.set()
                    server.released.wait()
                    return
                control.sendall(answer)

    return serve


def read_line(connection):
    line = b""
    while not line.endswith(b"\n"):
        byte = connection.recv(1)
        if not byte:
            return b""
        line += byte
    return line


def reset(connection):
    connection.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
    connection.close()


def gone_in_the_middle(control, data, server):
    receive_at_least(data, 50000)
    server.reached.set()
    reset(data)
    reset(control)


def silent_in_the_middle(_, data, server):
    receive_at_least(data, 50000)
    server.reached.set()
    server.released.wait()


def disk_full_behind_the_last_byte(control, data, server):
    receive_at_least(data, 1 << 30)
    server.reached.set()
    control.sendall(b"552 disk full\r\n")


def silent_behind_the_last_byte(_, data, server):
    receive_at_least(data, 1 << 30)
    server.reached.set()
    server.released.wait()


def cut_behind(count, port):
    """A line to the server on 'port' that breaks behind 'count' bytes of the client's."""
    return lambda connection, server: forward(connection, server, count, port, reset)


def stall_behind(count, port):
    return lambda connection, server: forward(connection, server, count, port, lambda _: server.released.wait())


def forward(connection, server, count, port, misbehave):
    with socket.create_connection(("127.0.0.1", port)) as behind:
        back = threading.Thread(target=copy, args=(behind, connection), daemon=True)
        back.start()
        copy(connection, behind, count)
        server.reached.set()
        misbehave(connection)
        behind.shutdown(socket.SHUT_RDWR)
        back.join()


def copy(source, target, count=1 << 62):
    try:
        while count > 0 and (chunk := source.recv(min(65536, count))):
            target.sendall(chunk)
            count -= len(chunk)
    except OSError:
        pass


class TftpServer:
    """Acknowledges 'blocks' blocks of one upload, then sends 'last' (nothing when empty) and falls silent."""

    def __init__(self, blocks, last=b""):
        self.blocks, self.last = blocks, last
        self.reached = threading.Event()
        self.socket = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
        self.socket.bind(("127.0.0.1", 0))
        self.port = self.socket.getsockname()[1]
        self.ended = threading.Event()
        self.thread = threading.Thread(target=self.run, daemon=True)

    def run(self):
        acknowledged = -1  # the request itself counts as block 0
        while not self.ended.is_set():
            packet, client = self.socket.recvfrom(65536)
            block = struct.unpack(">HH", packet[:4])[1] if packet[:2] == b"\0\3" else 0
            if block > self.blocks or self.blocks == 0:
                self.reached.set()
                if self.last:
                    self.socket.sendto(self.last, client)
            elif block == acknowledged + 1:
                acknowledged = block
                self.socket.sendto(struct.pack(">HH", 4, block), client)

    def __enter__(self):
        self.thread.start()
        return self

    def __exit__(self, *_):
        self.ended.set()
        with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as waker:
            waker.sendto(bytes(4), ("127.0.0.1", self.port))
        self.thread.join()
        self.socket.close()
