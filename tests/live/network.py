# SPDX-License-Identifier: Apache-2.0
"""The network of the demonstration, in namespaces of its own: a bridge with a router, a good neighbour and a bad one.

                      10.0.0.254 ____________ 10.99.0.1
    good 10.0.0.1 ---- bridge ---| router     |---- behind 10.99.0.2
    bad  10.0.0.66 -----/        |____________|

Between router and good neighbour there are OSPF (1 s, lost after 4), BGP (1 s, 3), IS-IS (1 s, 3), LLDP (1 s, 4), IPv4 and
IPv6; the router serves DHCP. The bridge lets neither hear the other's floods, nor learns the good one's address from the
bad one: what suffers is the router. Processes end with the namespace of this one.
"""
import json
import os
import pathlib
import re
import shutil
import subprocess
import sys
import time

PATIENCE_S = 240 if os.environ.get("ATC_EMULATED") else 60
PORTS = {"router": ("02:00:00:00:00:fe", "10.0.0.254/16", "2001:db8::fe/64"),
         "good": ("02:00:00:00:00:01", "10.0.0.1/16", "2001:db8::1/64"),
         "bad": ("02:00:00:00:00:42", "10.0.0.66/16", "2001:db8::42/64")}
DAEMONS = {
    "zebra": "",
    "ospfd": """
interface eth0
 ip ospf hello-interval 1
 ip ospf dead-interval 4
router ospf
 ospf router-id {address}
 log-adjacency-changes
 network 10.0.0.0/16 area 0
""",
    "bgpd": """
router bgp {own}
 bgp router-id {address}
 bgp log-neighbor-changes
 no bgp ebgp-requires-policy
 neighbor {peer} remote-as {other}
 neighbor {peer} timers 1 3
 neighbor {peer} timers connect 1
""",
    "isisd": """
interface eth0
 ip router isis live
 isis hello-interval 1
 isis hello-multiplier 3
router isis live
 net 49.0001.0000.0000.{own}.00
 is-type level-1
 log-adjacency-changes
"""}
# Of the two, not of those that a flood invents.
LOST = re.compile(r"ADJCHANGE: neighbor 10\.0\.0\.(?:1|254)\(.* Down|AdjChg: Nbr 10\.0\.0\.(?:1|254), .*: Full -> |"
                  r"ADJCHANGE: Adjacency to \S+ \(eth0\) for level-1 changed from Up to")


def run(*command, check=True, timeout=PATIENCE_S):
    """What a command prints; with 'check', it must not fail."""
    done = subprocess.run(command, stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True, timeout=timeout)
    if check and done.returncode != 0:
        raise RuntimeError(f"{' '.join(command)}: exit status {done.returncode}: {(done.stderr or done.stdout).strip()}")
    return done.stdout


def at(namespace, *command, **options):
    return run("ip", "netns", "exec", namespace, *command, **options)


def start(namespace, log, *command):
    with open(log, "ab") as file:
        return subprocess.Popen(["ip", "netns", "exec", namespace, *command], stdin=subprocess.DEVNULL, stdout=file, stderr=file)


def until(what, ready, patience_s=PATIENCE_S):
    """Seconds until 'ready' came true."""
    begin = time.monotonic()
    while not ready():
        if time.monotonic() - begin > patience_s:
            raise TimeoutError(f"{what}: not within {patience_s} s")
        time.sleep(0.2)
    return time.monotonic() - begin


class Quota:
    """A share of one processor for some processes, in percent. Where no group for it can be made, the lowest priority."""

    def __init__(self, percent):
        self.folder = None
        version_2 = os.path.exists("/sys/fs/cgroup/cgroup.controllers")
        root = pathlib.Path("/sys/fs/cgroup" if version_2 else "/sys/fs/cgroup/cpu")
        self.limit, self.value, self.none = (("cpu.max", f"{percent * 1000} 100000", "max 100000") if version_2 else
                                             ("cpu.cfs_quota_us", f"{percent * 1000}", "-1"))
        folder = root / f"demonstration.{time.time_ns()}"
        try:
            if version_2:
                (root / "cgroup.subtree_control").write_text("+cpu")
            folder.mkdir()
            self.folder = folder
            self.tighten()
            self.told = f"{percent} % of a processor"
        except OSError as error:
            self.close()
            self.told = f"the lowest priority (no processor quota: {error})"

    def take(self, pid):
        if self.folder:
            (self.folder / "cgroup.procs").write_text(str(pid))
        else:
            os.setpriority(os.PRIO_PROCESS, pid, 19)

    def tighten(self):
        if self.folder:
            (self.folder / self.limit).write_text(self.value)

    def loosen(self):
        if self.folder:
            (self.folder / self.limit).write_text(self.none)

    def close(self):
        if self.folder:
            for pid in (self.folder / "cgroup.procs").read_text().split():
                (self.folder.parent / "cgroup.procs").write_text(pid)
            self.folder.rmdir()
        self.folder = None


class Network:
    """Built by 'build'; 'folder' holds configurations and logs."""

    def __init__(self, folder):
        self.folder = pathlib.Path(folder)
        self.daemons = {"router": {}, "good": {}}

    def build(self):
        for namespace in ("segment", "behind", *PORTS):
            run("ip", "netns", "add", namespace)
            at(namespace, "ip", "link", "set", "lo", "up")
        for knob in ("bridge-nf-call-iptables", "bridge-nf-call-arptables"):
            at("segment", "sysctl", "-qw", f"net.bridge.{knob}=0", check=False)
        at("segment", "sysctl", "-qw", "net.ipv6.conf.all.disable_ipv6=1", "net.ipv6.conf.default.disable_ipv6=1")
        at("segment", "ip", "link", "add", "br0", "type", "bridge", "mcast_snooping", "0", "stp_state", "0", "group_fwd_mask", "0x4000")
        at("segment", "ip", "link", "set", "br0", "up")
        for name, (mac, ipv4, ipv6) in PORTS.items():
            run("ip", "link", "add", name, "netns", "segment", "type", "veth", "peer", "name", "eth0", "address", mac, "netns", name)
            at("segment", "ip", "link", "set", name, "master", "br0", "up")
            at("segment", "ip", "link", "set", name, "type", "bridge_slave", "group_fwd_mask", "0x4005",
               "isolated", "off" if name == "router" else "on", "learning", "off" if name == "bad" else "on")
            at(name, "sysctl", "-qw", "net.ipv6.conf.all.accept_dad=0", "net.ipv6.conf.eth0.accept_dad=0")
            at(name, "ip", "address", "add", ipv4, "dev", "eth0")
            at(name, "ip", "address", "add", ipv6, "dev", "eth0", "nodad")
            at(name, "ip", "link", "set", "eth0", "up")
        run("ip", "link", "add", "eth1", "netns", "router", "type", "veth", "peer", "name", "eth0", "netns", "behind")
        at("router", "sysctl", "-qw", "net.ipv4.ip_forward=1", "net.ipv6.conf.all.forwarding=1")
        for namespace, port, address in (("router", "eth1", "10.99.0.1/24"), ("behind", "eth0", "10.99.0.2/24")):
            at(namespace, "ip", "address", "add", address, "dev", port)
            at(namespace, "ip", "link", "set", port, "up")
        # A veth pair has the sender do the receiver's work; the router's own processors do its stack's, as with a network card.
        own = sum(1 << processor for processor in os.sched_getaffinity(0))
        at("router", "sh", "-c", f"echo {own:x} >/sys/class/net/eth0/queues/rx-0/rps_cpus")
        at("behind", "ip", "route", "add", "default", "via", "10.99.0.1")
        at("good", "ip", "route", "add", "10.99.0.0/24", "via", "10.0.0.254")
        self._start_speakers("router", "good", 65001, 65002)
        self._start_speakers("good", "router", 65002, 65001)
        self._start_dhcp()
        try:
            until("sessions between router and good neighbour", self.is_whole)
        except TimeoutError as error:
            raise RuntimeError(f"{error}: {[(name, self.sessions(name), self.lldp_neighbours(name)) for name in self.daemons]}")

    def _start_speakers(self, name, peer, own, other):
        space, logs = f"demo-{name}", self.folder / name
        etc, sockets = pathlib.Path("/etc/frr", space), pathlib.Path("/run/frr", space)
        for folder in (logs, etc, sockets):
            folder.mkdir(parents=True)
        for folder in (logs, sockets):
            shutil.chown(folder, "frr", "frr")
        (etc / "vtysh.conf").write_text("no service integrated-vtysh-config\n")
        for daemon, text in DAEMONS.items():
            file = etc / f"{daemon}.conf"
            head = f"hostname {name}\nlog file {logs}/{daemon}.log debugging\nlog timestamp precision 3\n"
            file.write_text(head + text.format(own=own, other=other, address=PORTS[name][1].split("/")[0],
                                               peer=PORTS[peer][1].split("/")[0]).replace(f"0000.{own}", f"0000.{own % 10000:04}"))
            command = [f"/usr/lib/frr/{daemon}", "-N", space, "-f", str(file), "--vty_port", "0"]
            self.daemons[name][daemon] = start(name, logs / f"{daemon}.out", *command)
            if daemon == "zebra":
                until("zebra", (sockets / "zserv.api").exists)
        control = self._lldp_control(name)
        self.daemons[name]["lldpd"] = start(name, logs / "lldpd.out", "lldpd", "-d", "-u", control,
                                            "-I", "eth0", "-C", "eth0", "-L", "/bin/true")
        until("lldpd", pathlib.Path(control).exists)
        run("lldpcli", "-u", control, "configure", "lldp", "tx-interval", "1")
        run("lldpcli", "-u", control, "resume")

    def _start_dhcp(self):
        conf, leases = self.folder / "udhcpd.conf", self.folder / "leases"
        leases.touch()
        conf.write_text(f"interface eth0\nstart 10.0.250.1\nend 10.0.250.250\nlease_file {leases}\npidfile {self.folder}/udhcpd.pid\n")
        self.daemons["router"]["dhcp"] = start("router", self.folder / "udhcpd.out", "busybox", "udhcpd", "-f", str(conf))

    def _lldp_control(self, name):
        return f"/run/lldpd-{name}.socket"

    def _ask(self, name, question):
        try:
            return json.loads(run("vtysh", "-N", f"demo-{name}", "-c", question, timeout=PATIENCE_S / 10))
        except (RuntimeError, ValueError, subprocess.TimeoutExpired):
            return {}

    def lldp_neighbours(self, name):
        """Chassis of those that the router's lldpd, or the neighbour's, sees."""
        try:
            seen = json.loads(run("lldpcli", "-u", self._lldp_control(name), "-f", "json0", "show", "neighbors", timeout=PATIENCE_S / 10))
        except (RuntimeError, ValueError, subprocess.TimeoutExpired):
            return []
        found = [interface for part in seen["lldp"] for interface in part.get("interface", [])]
        return [chassis["id"][0]["value"] for interface in found for chassis in interface["chassis"]]

    def sessions(self, name):
        """Which of the three stand, as 'name' sees it; OSPF only once those that a flood invented are forgotten."""
        ospf = self._ask(name, "show ip ospf neighbor json").get("neighbors", {})
        bgp = self._ask(name, "show bgp summary json").get("ipv4Unicast", {}).get("peers", {})
        isis = json.dumps(self._ask(name, "show isis neighbor json"))
        peer = PORTS["good" if name == "router" else "router"][1].split("/")[0]
        return {"ospf": list(ospf) == [peer] and "Full" in str(ospf[peer]),
                "bgp": bgp.get(peer, {}).get("state") == "Established",
                "isis": '"state": "Up"' in isis}

    def is_whole(self):
        return all(all(self.sessions(name).values()) and self.lldp_neighbours(name) for name in self.daemons)

    def losses(self):
        """How often any session of the two was lost so far, by their own logs."""
        return sum(len(LOST.findall(log.read_text(errors="replace"))) for log in self.folder.glob("*/*.log"))

    def router_seconds(self):
        """Processor time that the router's daemons have used so far."""
        return sum(processor_seconds(process.pid) for process in self.daemons["router"].values())

    def limit(self, quota):
        self.quota = quota
        for process in self.daemons["router"].values():
            for pid in family(process.pid):
                quota.take(pid)

    def recover(self, patience_s=20):
        """Seconds until everything stood again; None when it took longer, and daemons that were let off their quota."""
        try:
            return until("sessions after the flood", self.is_whole, patience_s)
        except TimeoutError:
            self.quota.loosen()
            until("sessions after the flood, without a quota", self.is_whole, 5 * PATIENCE_S)
            self.quota.tighten()
            return None


def family(pid):
    try:
        children = pathlib.Path(f"/proc/{pid}/task/{pid}/children").read_text().split()
    except OSError:
        return []
    return [pid, *(member for child in children for member in family(int(child)))]


def processor_seconds(pid):
    """Of a process and its children."""
    times = (pathlib.Path(f"/proc/{member}/stat").read_text().rsplit(")", 1)[1].split()[11:13] for member in family(pid))
    return sum(int(user) + int(system) for user, system in times) / os.sysconf("SC_CLK_TCK")


def skip(reason):
    print(f"skipped: {reason}")
    sys.exit(77)


def enter_own_machine(*tools):
    """Starts this program anew with namespaces and mounts of its own, whose end is the end of everything it started."""
    if not os.environ.get("ATC_OWN_MACHINE"):
        if os.geteuid() != 0:
            skip("network namespaces need root")
        os.environ["PATH"] += ":/usr/sbin:/sbin"
        for tool in ("ip", "unshare", *tools):
            if not shutil.which(tool):
                skip(f"{tool} is not installed")
        own = ["unshare", "--mount", "--net", "--pid", "--fork", "--kill-child", "--mount-proc"]
        if subprocess.run([*own, "ip", "link", "add", "type", "bridge"], stderr=subprocess.DEVNULL).returncode != 0:
            skip("no namespaces, or no bridge in them")
        os.execvpe(own[0], [*own, sys.executable, *sys.argv], {**os.environ, "ATC_OWN_MACHINE": "1"})
    run("mount", "--make-rprivate", "/")
    for folder in ("/run", "/etc/frr"):
        if os.path.isdir(folder):
            run("mount", "-t", "tmpfs", "own", folder)
    for folder in ("/run/netns", "/run/frr", "/run/lldpd"):
        os.makedirs(folder, exist_ok=True)
