#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""anti-cpu.service under a systemd that is booted for it: service_test.py ANTI_CPU DEBIAN_FOLDER

The machine is a container with this one's files under an overlay and a network of its own: systemd is its first process,
FRR's own unit stands beside ours. Everything is gone with it.
"""
import json
import os
import pathlib
import shutil
import subprocess
import sys
import tempfile
import time
import unittest

import network

UNIT = "anti-cpu.service"
BOOT = r"""
set -e
mount --make-rprivate /
mount -t tmpfs tmpfs /mnt
for folder in etc var usr; do
    mkdir /mnt/$folder /mnt/$folder.work
    mount -t overlay overlay -o lowerdir=/$folder,upperdir=/mnt/$folder,workdir=/mnt/$folder.work /$folder
done
install -m 755 "$PROGRAM" /usr/bin/anti-cpu
cp "$LIBRARY" /usr/lib/libanti_cpu.so.0
install -D -m 644 "$DEBIAN/anti-cpu.service" /usr/lib/systemd/system/anti-cpu.service
install -D -m 644 "$DEBIAN/anti-cpu.conf" /etc/anti-cpu/anti-cpu.conf
sed 's/ANTI_CPU_OPTIONS=.*/ANTI_CPU_OPTIONS="--observers adm"/' "$DEBIAN/anti-cpu.default" >/etc/default/anti-cpu
install -D -m 644 "$DEBIAN/anti-cpu.logrotate" /etc/logrotate.d/anti-cpu
systemd-sysusers "$DEBIAN/anti-cpu.sysusers"
systemd-machine-id-setup >/dev/null
rm -f /etc/systemd/system/multi-user.target.wants/*
umount -R /sys/fs/cgroup 2>/dev/null || true
mount -t sysfs sys /sys
mount -t cgroup2 none /sys/fs/cgroup
mount -t tmpfs tmpfs /run
mount -t tmpfs tmpfs /tmp
ip link add eth0 type veth peer name far
ip link set far up
ip link set eth0 up
exec env -i container=anti-cpu-test PATH="$PATH" /lib/systemd/systemd --log-target=journal --show-status=no --unit=basic.target
"""
OWN = ("--mount", "--net", "--pid", "--ipc", "--uts", "--cgroup")


class Machine:
    def __init__(self, program, debian):
        library = pathlib.Path(program).parent / "libanti_cpu.so.0"
        self.log = tempfile.TemporaryFile()
        self.process = subprocess.Popen(["unshare", *OWN, "--fork", "--kill-child", "--mount-proc", "sh", "-c", BOOT],
                                        stdin=subprocess.DEVNULL, stdout=self.log, stderr=self.log, env={
                                            **os.environ, "PROGRAM": program, "LIBRARY": str(library.resolve()), "DEBIAN": debian})
        self.first = None
        try:
            network.until("a systemd", self.is_up)
        except TimeoutError as error:
            self.log.seek(0)
            network.skip(f"no systemd comes up in a container: {error}: {self.log.read().decode(errors='replace').strip()[-300:]}")

    def is_up(self):
        if self.process.poll() is not None:
            raise TimeoutError("it has ended")
        children = pathlib.Path(f"/proc/{self.process.pid}/task/{self.process.pid}/children").read_text().split()
        self.first = children[0] if children else None
        return bool(children) and self.run("systemctl", "is-system-running", check=False).strip() in ("running", "degraded")

    def run(self, *command, **options):
        return network.run("nsenter", "-t", self.first, "-m", "-n", "-p", "-i", "-u", "-C", *command, **options)

    def end(self):
        self.process.kill()
        self.process.wait()


def show(name, unit=UNIT):
    return MACHINE.run("systemctl", "show", "--value", "-p", name, unit).strip()


def attached():
    return bool(json.loads(MACHINE.run("ip", "-d", "-j", "link", "show", "dev", "eth0"))[0].get("xdp"))


def journal():
    return MACHINE.run("journalctl", "-u", UNIT, "--no-pager", "-o", "cat")


class Service(unittest.TestCase):
    """In this order; each goes on with the service that the one before has left."""

    def restarted(self, before, what):
        """A second process is in force."""
        restarts, process = before
        network.until(what, lambda: show("NRestarts") == str(restarts + 1) and show("ActiveState") == "active")
        self.assertNotEqual(show("MainPID"), process)
        self.assertTrue(attached())
        return time.monotonic()

    def now(self):
        return int(show("NRestarts")), show("MainPID")

    def test_1_protects_before_frr_speaks(self):
        self.assertEqual(MACHINE.run("systemctl", "is-enabled", UNIT, check=False).strip(), "disabled")
        MACHINE.run("systemctl", "enable", "frr.service", UNIT)
        MACHINE.run("systemctl", "start", "multi-user.target")
        self.assertEqual((show("ActiveState"), show("ActiveState", "frr.service")), ("active", "active"))
        ours, frr = int(show("ActiveEnterTimestampMonotonic")), int(show("InactiveExitTimestampMonotonic", "frr.service"))
        self.assertLess(ours, frr, "FRR was started before the ports were protected")
        self.assertTrue(attached())
        network.until("a status", lambda: "1 of 1 ports protected" in show("StatusText"))

    def test_2_has_three_capabilities_and_no_more(self):
        status = dict(line.split(":\t", 1) for line in MACHINE.run("cat", f"/proc/{show('MainPID')}/status").splitlines() if ":\t" in line)
        three = (1 << 12 | 1 << 38 | 1 << 39).to_bytes(8, "big").hex()  # NET_ADMIN, PERFMON, BPF
        self.assertEqual([status[name] for name in ("CapPrm", "CapEff", "CapBnd", "NoNewPrivs", "Seccomp")], [three] * 3 + ["1", "2"])
        self.assertNotEqual(status["Uid"].split()[0], "0")
        exposure = MACHINE.run("systemd-analyze", "security", UNIT, "--no-pager").strip().splitlines()[-1]
        print(exposure)
        self.assertLessEqual(float(exposure.split(":")[1].split()[0]), 2.0)

    def test_3_killed_it_is_back(self):
        before = self.now()
        begin = time.monotonic()
        MACHINE.run("kill", "-KILL", before[1])
        print(f"killed: running again after {self.restarted(before, 'a service after SIGKILL') - begin:.1f} s")

    def test_4_hung_it_is_found_out_and_back(self):
        before = self.now()
        begin = time.monotonic()
        MACHINE.run("kill", "-STOP", before[1])
        print(f"stopped: running again after {self.restarted(before, 'a service after SIGSTOP') - begin:.0f} s")
        self.assertIn("Watchdog timeout", journal())

    def test_5_reads_its_lines_again(self):
        MACHINE.run("sh", "-c", "echo 'set deny icmpv4 on' >>/etc/anti-cpu/anti-cpu.conf")
        before = self.now()
        MACHINE.run("systemctl", "reload", UNIT)
        network.until("new lines", lambda: "1 new lines of /etc/anti-cpu/anti-cpu.conf, 0 failed" in journal())
        self.assertEqual((self.now(), show("ActiveState")), (before, "active"))

    def test_6_lets_observers_look_and_others_not(self):
        def as_nobody(group, *command):
            return MACHINE.run("setpriv", "--reuid", "nobody", "--regid", group, "--clear-groups", "anti-cpu", *command, check=False)

        page = ("top", "--once", "--interval", "0.2", "--page", "ports")
        for group, shown in (("anti-cpu", "eth0"), ("adm", "eth0"), ("nogroup", "")):
            self.assertIn(shown, as_nobody(group, *page), group)
        self.assertEqual(as_nobody("nogroup", *page), "")
        for group, period in (("nogroup", "10"), ("adm", "10"), ("anti-cpu", "20")):
            as_nobody(group, "console", "-c", "set fast-period 20")
            self.assertIn(f'"fast_time": {period},', MACHINE.run("anti-cpu", "console", "--json", "-c", "show settings"), group)

    def test_7_follows_its_events_through_a_rotation(self):
        events = "/var/log/anti-cpu/events.jsonl"
        rule = "hw-filter {} 1 port 1 eth-type 0x0800 ip-protocol 1"
        MACHINE.run("anti-cpu", "console", "-c", rule.format("deny"))
        network.until("an event", lambda: "rule-installed" in MACHINE.run("cat", events))
        MACHINE.run("logrotate", "--force", "/etc/logrotate.d/anti-cpu")
        MACHINE.run("anti-cpu", "console", "-c", "hw-filter delete 1")
        network.until("an event in a new file", lambda: "rule-withdrawn" in MACHINE.run("cat", events, check=False))
        self.assertNotIn("rule-withdrawn", MACHINE.run("cat", events + ".1"))

    def test_8_waits_for_a_port_that_comes_later(self):
        MACHINE.run("ip", "link", "del", "eth0")
        MACHINE.run("systemctl", "restart", UNIT)
        network.until("a service without ports", lambda: "0 of 1 ports protected" in show("StatusText"))
        MACHINE.run("ip", "link", "add", "eth0", "type", "veth", "peer", "name", "far")
        network.until("a port that came", lambda: "1 of 1 ports protected" in show("StatusText") and attached())

    def test_9_stopped_in_order_it_leaves_nothing(self):
        MACHINE.run("systemctl", "stop", UNIT)
        self.assertEqual((show("ActiveState"), show("Result")), ("inactive", "success"))
        self.assertFalse(attached())


if __name__ == "__main__":
    if os.geteuid() != 0:
        network.skip("a container needs root")
    for tool in ("unshare", "nsenter", "systemctl", "systemd-sysusers", "logrotate", "/lib/systemd/systemd", "/usr/lib/frr/watchfrr"):
        if not shutil.which(tool):
            network.skip(f"{tool} is not installed")
    MACHINE = Machine(*(os.path.abspath(name) for name in (sys.argv.pop(1), sys.argv.pop(1))))
    try:
        unittest.main(failfast=True, verbosity=2)
    finally:
        MACHINE.end()
