#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# record.sh: records the sample captures of this folder from real protocol speakers.
#
# Each capture is made in a sealed world: a shell in network, mount, process, host-name and IPC namespaces of its
# own, with an empty /run. Its nodes are network namespaces joined by veth cables; no cable leads out, so
# traffic cannot leave. When that shell ends, normally or not, the kernel ends all its processes and takes
# the interfaces with it: nothing stays behind but the capture file. speakers.sh has one function per speaker.
set -euo pipefail

HERE=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
WORK=/run/record
MOST_BYTES=$((2 * 1024 * 1024))

# command that must be there -> Debian package that brings it
declare -A PACKAGE_OF=(
    [/usr/lib/frr/zebra]=frr [vtysh]=frr [lldpd]=lldpd [dhcpd]=isc-dhcp-server [dhclient]=isc-dhcp-client
    [tshark]=tshark [dumpcap]=wireshark-common [capinfos]=wireshark-common [tcpdump]=tcpdump [hping3]=hping3
    [rdisc6]=ndisc6 [ip]=iproute2 [ping]=iputils-ping [ethtool]=ethtool [ovs-vswitchd]=openvswitch-switch
    [reordercap]=wireshark-common [hostapd]=hostapd [wpa_supplicant]=wpasupplicant [pppoe-server]=pppoe
    [python3]=python3 [sysctl]=procps [nsenter]=util-linux
)

usage() {
    cat <<'TEXT'
Usage: record.sh [--output DIR] [--no-install] [--keep-logs DIR] [CAPTURE...]

Records sample captures of real protocol speakers. Needs root on Linux; takes about three minutes.

CAPTURE (default: all)
  routers   routers.pcapng: protocol speakers only, one interface per switch port
  campus    campus.pcap: hosts and routers on VLANs 100 and 200 of one trunk, an ARP flood and TCP SYN floods

Options
  --output DIR     where the files go (default: the script's own folder)
  --no-install     fail when a program is missing instead of installing its Debian package
  --keep-logs DIR  copy the speakers' logs there
  --help           this text

Packages, installed with apt-get when missing: frr, lldpd, openvswitch-switch, isc-dhcp-server,
isc-dhcp-client, hostapd, wpasupplicant, pppoe, hping3, ndisc6, iputils-ping, iproute2, ethtool, tcpdump,
tshark, wireshark-common, python3, procps, util-linux. Some start a service of their own when installed;
where that is unwanted, install them by hand and use --no-install.
TEXT
}

say() { printf '%s\n' "$*" >&2; }
die() { say "record.sh: $*"; exit 1; }

# ---- outside the sealed world ----

install_missing() {
    local command missing=()
    for command in "${!PACKAGE_OF[@]}"; do
        command -v "$command" >/dev/null || missing+=("${PACKAGE_OF[$command]}")
    done
    [ ${#missing[@]} -eq 0 ] && return
    mapfile -t missing < <(printf '%s\n' "${missing[@]}" | sort -u)
    [ "$1" = yes ] || die "missing packages: ${missing[*]}"
    say "installing: ${missing[*]}"
    apt-get update -qq
    DEBIAN_FRONTEND=noninteractive apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
}

world='' # process id of the running sealed world, if any
part=''  # its unfinished capture file, if any

# abandon: ends the running world. Its shell is process 1 there and deaf to lesser signals; --kill-child passes
# this one on, and all that lives in the namespaces goes with it.
abandon() {
    [ -z "$world" ] || { kill -KILL "$world"; wait "$world"; } 2>/dev/null || true
    [ -z "$part" ] || rm -f "$part"
}

# record CAPTURE FILE LOGS: one capture in a sealed world; FILE is replaced only when that succeeded.
record() {
    part=$(mktemp "$2.XXXXXX")
    say "recording $(basename "$2")"
    unshare --mount --net --pid --uts --ipc --propagation private --fork --kill-child --mount-proc \
        bash "${BASH_SOURCE[0]}" --sealed "$1" "$part" "$3" &
    world=$!
    if wait "$world"; then
        world=''
        chmod 644 "$part"
        mv "$part" "$2"
        part=''
    else
        world=''
        die "$1: nothing recorded"
    fi
}

# protocols FILE: highest protocol of each frame with its count, most frequent first, on one line.
protocols() {
    tshark -n -r "$1" -T fields -e _ws.col.Protocol 2>/dev/null | sort | uniq -c | sort -k1,1nr -k2 |
        awk '{ n = $1; $1 = ""; printf "%s%s=%d", sep, substr($0, 2), n; sep = ", " }'
}

# table FILE...: what was recorded; fails when all together are too large to keep in a repository.
table() {
    local file total=0 size
    for file in "$@"; do
        size=$(stat -c %s "$file")
        total=$((total + size))
        printf '\n%s: %s packets, %.0f s, %d bytes\n' "$(basename "$file")" \
            "$(capinfos -Mrc "$file" | awk '/Number of packets/ { print $NF }')" \
            "$(capinfos -Mru "$file" | awk '/Capture duration/ { print $(NF - 1) }')" "$size"
        protocols "$file" | fold -s -w 100 | sed 's/^/  /'
        printf '\n'
    done
    [ "$total" -le "$MOST_BYTES" ] || die "$total bytes in all, more than $MOST_BYTES"
}

# ---- inside the sealed world ----

# at SECOND: waits until that second of the recording.
at() {
    local left
    left=$(($1 - (SECONDS - recording_since)))
    if [ "$left" -gt 0 ]; then sleep "$left"; fi
}

# seal: what the speakers would otherwise share with the machine.
seal() {
    mount -t tmpfs tmpfs /run
    mount -t tmpfs tmpfs /var/tmp
    mkdir -p "$WORK/log" "$WORK/uts" "$WORK/ovs" /run/netns
    install -d -o frr -g frr /run/frr
    printf '127.0.0.1 localhost\n' >"$WORK/hosts"
    : >"$WORK/resolv.conf"
    mount --bind "$WORK/hosts" /etc/hosts
    mount --bind "$WORK/resolv.conf" /etc/resolv.conf
    # One namespace file per node is mounted below here; they must not spread to a parent.
    mount --bind "$WORK/uts" "$WORK/uts"
    mount --make-private "$WORK/uts"
    ip link set lo up
}

# routers.pcapng: sw1 in the middle; r1 on p1, r2 on p2, sw2 on p3 and p4 (LACP), sw3 on p5 (spanning tree),
# h2 on p6 (802.1X, PPPoE discovery).
# Recorded on sw1's ports, frames that come in only, so every frame is there once, on the port it came from.
capture_routers() {
    local file=$1 seconds=60 port interfaces=() recorder
    WORLD=1
    node r1; node r2; node h1; node h2
    switch_node sw1; switch_node sw2; switch_node sw3
    cable r1 eth0 sw1 p1
    cable r2 eth0 sw1 p2
    cable sw2 up1 sw1 p3
    cable sw2 up2 sw1 p4
    cable sw3 up1 sw1 p5
    cable h1 eth0 sw3 host1
    cable h2 eth0 sw1 p6
    host h1 10.0.12.11/24 2001:db8:12::11/64 10.0.12.1
    host h2 10.0.12.12/24 2001:db8:12::12/64 10.0.12.1
    vlan_switch sw1 02:00:00:00:01:f1
    for port in p1 p2 p5 p6; do ovs sw1 ovs-vsctl add-port br0 "$port"; done
    lacp_bond sw1 p3 p4
    vlan_switch sw2 02:00:00:00:01:f2
    vrrp_interfaces r1 05 10.0.12.254 fe80::5
    vrrp_interfaces r2 05 10.0.12.254 fe80::5

    for port in p1 p2 p3 p4 p5 p6; do interfaces+=(-i "$port"); done
    speak sw1 dumpcap dumpcap -q -f inbound "${interfaces[@]}" -a "duration:$seconds" -w "$WORK/raw.pcapng"
    recorder=$!
    recording_since=$SECONDS
    at 2; say "  switches: STP, LACP, CFM, LLDP"
    stp_bridge sw3 up1 host1
    lacp_bond sw2 up1 up2
    cfm sw2 up1 7
    cfm sw1 p3 8
    lldp sw1 'p1,p2,p5'; lldp sw2 up1; lldp r1 eth0; lldp r2 eth0
    at 4; say "  routers: OSPFv2, OSPFv3, IS-IS, BGP, BFD, LDP, VRRP, PIM, RIP, RIPng"
    frr_router r1 ospfd ospf6d isisd bgpd bfdd ldpd vrrpd pimd ripd ripngd
    frr_router r2 ospfd ospf6d isisd bgpd bfdd ldpd vrrpd pimd ripd ripngd
    dhcp_server r1 eth0 10.0.12.0 10.0.12.100 10.0.12.120
    dhcp6_server r1 eth0 2001:db8:12::/64 2001:db8:12::100 2001:db8:12::120
    pppoe_server r1 eth0
    at 15; say "  hosts: DHCP, pings, neighbour discovery, IGMP, MLD, 802.1X, PPPoE discovery"
    port_control sw1 p6
    port_login h2
    pppoe_discover h2
    old_multicast h1
    solicit h1
    dhcp_client h1 -4; dhcp_client h1 -6; dhcp_client r2 -4
    greet h1 10.0.12.1 2001:db8:12::1 5
    greet r2 10.0.12.1 2001:db8:12::1 5
    join_groups h1 239.2.2.2 ff05::2:2 15
    join_groups r2 239.2.2.3 ff05::2:3 15
    at 30; big_ping h1 10.0.12.2
    say "  recording until second $seconds"
    wait "$recorder"
    # dumpcap writes its interfaces' frames as they reach it; a reader of the file wants them by time.
    reordercap -n "$WORK/raw.pcapng" "$WORK/ordered.pcapng" >/dev/null
    [ -f "$WORK/ordered.pcapng" ] || mv "$WORK/raw.pcapng" "$WORK/ordered.pcapng"
    python3 "$HERE/scrub_pcapng.py" "$WORK/ordered.pcapng" "$file"
}

# campus.pcap: sw1 is the switch under flood, sw2 its access switch; the trunk between them carries VLANs 100
# and 200 tagged. Recorded on sw1's end of the trunk, frames that come in only: what its processor would get.
capture_campus() {
    local file=$1 seconds=75 name recorder
    WORLD=2
    for name in r3 r4 h1 h2 a1 a2; do node "$name"; done
    switch_node sw1; switch_node sw2
    cable sw1 p1 sw2 up1
    for name in r3 r4 h1 h2 a1 a2; do cable "$name" eth0 sw2 "$name"; done
    vlan_switch sw1 02:00:00:00:02:f1
    vlan_switch sw2 02:00:00:00:02:f2
    trunk_port sw1 p1; trunk_port sw2 up1
    vlan_interface sw1 100; vlan_interface sw1 200
    for name in r3 h1 a1; do access_port sw2 "$name" 100; done
    for name in r4 h2 a2; do access_port sw2 "$name" 200; done
    rstp sw1 32768; rstp sw2 4096
    frr_router sw1 ospfd ospf6d bgpd
    dhcp_server sw1 vlan100 10.1.100.0 10.1.100.100 10.1.100.120
    dhcp6_server sw1 vlan200 2001:db8:200::/64 2001:db8:200::100 2001:db8:200::120
    host h1 10.1.100.11/24 2001:db8:100::11/64 10.1.100.1
    host h2 10.1.200.12/24 2001:db8:200::12/64 10.1.200.1
    host a1 10.1.100.66/24 2001:db8:100::66/64 10.1.100.1
    host a2 10.1.200.66/24 2001:db8:200::66/64 10.1.200.1

    speak sw1 tcpdump timeout --signal=INT --preserve-status "$seconds" tcpdump -Z root -n -p -i p1 -Q in -s 0 -w "$file"
    recorder=$!
    recording_since=$SECONDS
    at 1; say "  quiet: RSTP, LLDP, OSPFv2, OSPFv3, BGP, DHCP, pings, IGMP, MLD"
    lldp sw2 up1; lldp sw1 p1
    frr_router r3 ospfd ospf6d
    frr_router r4 ospfd bgpd
    dhcp_client h1 -4; dhcp_client h2 -6
    solicit h1; solicit h2
    greet h1 10.1.100.1 2001:db8:100::1 30
    greet h2 10.1.200.1 2001:db8:200::1 30
    join_groups h1 239.3.3.3 ff05::3:3 50
    join_groups h2 239.4.4.4 ff05::4:4 50
    at 15; say "  ARP flood on VLAN 100: 250 pps, 25 s"
    arp_flood a1 10.1.100.1 250 25
    at 20; say "  TCP SYN flood on VLAN 200: 60 pps, 20 s, one source"
    syn_flood a2 10.1.200.1 60 20
    at 25; say "  TCP SYN flood on VLAN 100: 40 pps, 15 s, forged sources"
    syn_flood a1 10.1.100.1 40 15 --rand-source
    at 41; say "  quiet again, recording until second $seconds"
    wait "$recorder"
}

# sealed CAPTURE FILE LOGS: the shell of the sealed world.
sealed() {
    # shellcheck source=SCRIPTDIR/speakers.sh
    . "$HERE/speakers.sh"
    set -E
    trap 'say "  failed: $BASH_COMMAND"' ERR
    seal
    if [ -n "$3" ]; then
        LOGS=$3/$1
        trap 'mkdir -p "$LOGS" && cp -rT "$WORK/log" "$LOGS"' EXIT
    fi
    "capture_$1" "$2"
}

main() {
    local output=$HERE install=yes logs='' capture captures=() files=()
    while [ $# -gt 0 ]; do
        case $1 in
            --output) output=${2:?--output needs a folder}; shift ;;
            --keep-logs) logs=$(realpath -m "${2:?--keep-logs needs a folder}"); shift ;;
            --no-install) install=no ;;
            --help | -h) usage; return ;;
            routers | campus) captures+=("$1") ;;
            *) usage >&2; die "not understood: $1" ;;
        esac
        shift
    done
    [ "$(id -u)" -eq 0 ] || die "must run as root: namespaces and raw sockets need it"
    [ ${#captures[@]} -gt 0 ] || captures=(routers campus)
    PATH=$PATH:/usr/sbin:/sbin
    trap abandon EXIT
    trap 'exit 130' INT TERM
    install_missing "$install"
    mkdir -p "$output"
    output=$(cd "$output" && pwd)
    for capture in "${captures[@]}"; do
        local file=$output/$capture.pcap
        [ "$capture" = campus ] || file+=ng
        record "$capture" "$file" "$logs"
        files+=("$file")
    done
    table "${files[@]}"
}

if [ "${1-}" = --sealed ]; then
    sealed "$2" "$3" "$4"
else
    main "$@"
fi
