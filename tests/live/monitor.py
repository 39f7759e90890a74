# SPDX-License-Identifier: Apache-2.0
"""A real Prometheus and Alertmanager with the files that operators get, and senders of so many frames a second."""
import ctypes
import json
import os
import pathlib
import re
import socket
import subprocess
import threading
import time
import urllib.parse
import urllib.request

SHARE = pathlib.Path(__file__).resolve().parent.parent.parent / "share"
C_LIBRARY = ctypes.CDLL(None, use_errno=True)


def get(url):
    with urllib.request.urlopen(url, timeout=10) as answer:
        return answer.read().decode()


def faster(text):
    """Of a configuration: whatever waits for seconds waits for one; rates over a minute are over ten seconds."""
    text = re.sub(r"((?:_interval|_timeout|_wait|for): )\d+[sm]$", r"\g<1>1s", text, flags=re.MULTILINE)
    return text.replace("[1m]", "[10s]")


class Monitor:
    """Prometheus, and with a receiver's address Alertmanager, in this namespace."""

    def __init__(self, folder, targets, receiver=None):
        self.folder = pathlib.Path(folder)
        rows = "".join(f"          - '{target}'\n" for target in targets)
        text = faster((SHARE / "prometheus/prometheus.yml").read_text())
        text, count = re.subn(r"(- targets:\n)(?: +- '.*:9777'\n)+", r"\1" + rows, text)
        if count != 1:
            raise RuntimeError("prometheus.yml has no targets to replace")
        (self.folder / "prometheus.yml").write_text(text)
        (self.folder / "anti-cpu.rules.yml").write_text(faster((SHARE / "prometheus/anti-cpu.rules.yml").read_text()))
        self.processes = [self._start("prometheus", "--config.file=prometheus.yml", "--storage.tsdb.path=data",
                                      "--web.listen-address=127.0.0.1:9090")]
        if receiver:
            text = faster((SHARE / "prometheus/alertmanager.yml").read_text())
            (self.folder / "alertmanager.yml").write_text(text.replace("http://localhost:9099", receiver))
            self.processes.append(self._start("prometheus-alertmanager", "--config.file=alertmanager.yml", "--storage.path=alerts",
                                              "--web.listen-address=127.0.0.1:9093", "--cluster.listen-address="))

    def _start(self, *command):
        with open(self.folder / f"{command[0]}.log", "wb") as log:
            return subprocess.Popen(command, cwd=self.folder, stdin=subprocess.DEVNULL, stdout=log, stderr=log)

    def ask(self, path, **query):
        """None while it does not answer."""
        try:
            return json.loads(get(f"http://127.0.0.1:9090/api/v1/{path}?{urllib.parse.urlencode(query)}"))["data"]
        except OSError:
            return None

    def rows(self, query):
        """What a query gives: labels and value."""
        data = self.ask("query", query=query)
        return [(row["metric"], float(row["value"][1])) for row in data["result"]] if data else []

    def value(self, query):
        rows = self.rows(query)
        return rows[0][1] if len(rows) == 1 else None

    def end(self):
        for process in self.processes:
            process.terminate()
            process.wait()


class Sender(threading.Thread):
    """Sends frames in turn, so many a second, until it is told to end; 'sent' is how many there were."""

    def __init__(self, namespace, interface, frames, pps):
        super().__init__(daemon=True)
        self.socket = self._socket_in(namespace)
        self.socket.bind((interface, 0))
        self.frames, self.pps, self.sent, self.is_over = frames, pps, 0, False
        self.start()

    @staticmethod
    def _socket_in(namespace):
        """A socket stays in the namespace that it was made in; this thread comes back."""
        home = os.open("/proc/thread-self/ns/net", os.O_RDONLY)
        there = os.open(f"/run/netns/{namespace}", os.O_RDONLY)
        try:
            if C_LIBRARY.setns(there, 0) != 0:
                raise OSError(ctypes.get_errno(), f"namespace {namespace}")
            return socket.socket(socket.AF_PACKET, socket.SOCK_RAW)
        finally:
            C_LIBRARY.setns(home, 0)
            os.close(home)
            os.close(there)

    def run(self):
        begin = time.monotonic()
        while not self.is_over:
            while self.sent < (time.monotonic() - begin) * self.pps:
                self.socket.send(self.frames[self.sent % len(self.frames)])
                self.sent += 1
            time.sleep(0.002)

    def end(self):
        self.is_over = True
        self.join()
        self.socket.close()
        return self.sent
