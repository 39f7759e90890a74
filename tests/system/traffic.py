#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Makes a capture out of a description of traffic.

Usage: traffic.py DESCRIPTION CAPTURE

Each line of the description is a stream of frames, or tells what happens to the file:

    FROM TO PPS KIND SENDERS [vlan VLANS] [size BYTES]    from second FROM to second TO, PPS frames a second
    cut BYTES                                the file ends behind so many bytes
    back PACKET SECONDS                      this packet (from 1) is stamped so many seconds earlier

KIND is arp, syn (TCP, by IPv4), ns (neighbour solicitation), lldp, ospf, stp, dhcp (discover, from 0.0.0.0), bgp,
bgp-syn (through the router 02:00:00:00:00:fe), tags (five of them: no class) or version (IP of none: no class).
SENDERS and VLANS are a number or a range, "7" or "20-39", taken in turn: sender n has the addresses 02:00:00:00:HH:LL,
10.0.HH.LL and 2001:db8::n. SENDERS "forged" are new ones each time, the same in every run.
Of several PPS, "5,20,1", each holds for an equal part of the time. The first second is 2021-09-02 03:46:20 UTC.
"""
import functools
import random
import struct
import sys

START_NS = 1630554380 * 10**9
ROUTER_MAC = bytes.fromhex("0200000000fe")


def mac(n):
    return (0x02 << 40 | n).to_bytes(6, "big")


def ip(n):
    return (0x0A000000 + n & 0xFFFFFFFF).to_bytes(4, "big")


def ethernet(source, destination, eth_type, payload, vlan):
    tag = struct.pack(">HH", 0x8100, vlan) if vlan is not None else b""
    frame = destination + source + tag + struct.pack(">H", eth_type) + payload
    return frame + bytes(max(0, 60 - len(frame)))


def ipv4(source, protocol, destination, payload):
    return struct.pack(">BBHHHBBH", 0x45, 0, 20 + len(payload), 1, 0, 64, protocol, 0) + source + destination + payload


def arp(n, vlan):
    body = struct.pack(">HHBBH", 1, 0x0800, 6, 4, 1) + mac(n) + ip(n)
    return ethernet(mac(n), b"\xff" * 6, 0x0806, body + bytes(6) + bytes([10, 0, 0, 254]), vlan)


def tcp(n, port, flags, source_mac, vlan):
    segment = struct.pack(">HHIIBBHHH", 1024 + n % 60000, port, 1, 0, 0x50, flags, 1000, 0, 0)
    return ethernet(source_mac, ROUTER_MAC, 0x0800, ipv4(ip(n), 6, bytes([10, 0, 0, 254]), segment), vlan)


def syn(n, vlan):
    return tcp(n, 8080, 0x02, mac(n), vlan)


def bgp(n, vlan):
    return tcp(n, 179, 0x10, mac(n), vlan)


def bgp_syn(n, vlan):
    return tcp(n, 179, 0x02, ROUTER_MAC, vlan)


def ns(n, vlan):
    source = bytes.fromhex("20010db8") + bytes(10) + struct.pack(">H", n)
    target = bytes.fromhex("ff02000000000000000000000001ff") + bytes([n & 255])
    body = struct.pack(">BBHI", 135, 0, 0, 0) + source
    header = struct.pack(">IHBB", 0x60000000, len(body), 58, 255) + source + target
    return ethernet(mac(n), bytes.fromhex("3333ff") + target[13:], 0x86DD, header + body, vlan)


def lldp(n, vlan):
    return ethernet(mac(n), bytes.fromhex("0180c200000e"), 0x88CC, b"\x02\x07\x04" + mac(n) + bytes(2), vlan)


def ospf(n, vlan):
    hello = struct.pack(">BBHI", 2, 1, 44, n) + bytes(36)
    return ethernet(mac(n), bytes.fromhex("01005e000005"), 0x0800, ipv4(ip(n), 89, bytes([224, 0, 0, 5]), hello), vlan)


def stp(n, vlan):
    bpdu = b"\x42\x42\x03" + bytes(5) + 2 * (struct.pack(">H", 32768) + mac(n)) + struct.pack(">HHHHH", 1, 0, 5120, 512, 3840)
    return ethernet(mac(n), bytes.fromhex("0180c2000000"), len(bpdu), bpdu, vlan)


def dhcp(n, vlan):
    bootp = struct.pack(">BBBBI", 1, 1, 6, 0, n & 0xFFFFFFFF) + bytes(20) + mac(n) + bytes(202)
    discover = bootp + bytes.fromhex("63825363350101ff")
    datagram = struct.pack(">HHHH", 68, 67, 8 + len(discover), 0) + discover
    return ethernet(mac(n), b"\xff" * 6, 0x0800, ipv4(bytes(4), 17, b"\xff" * 4, datagram), vlan)


def tags(n, vlan):
    return ethernet(mac(n), ROUTER_MAC, 0x8100, 4 * struct.pack(">HH", n & 0xFFF, 0x8100) + struct.pack(">HH", 1, 0x0806), vlan)


def version(n, vlan):
    return ethernet(mac(n), ROUTER_MAC, 0x0800, bytes(20), vlan)


KINDS = {"arp": arp, "syn": syn, "ns": ns, "lldp": lldp, "ospf": ospf, "stp": stp, "dhcp": dhcp, "bgp": bgp,
         "bgp-syn": bgp_syn, "tags": tags, "version": version}


def numbers(word):
    if word == "forged":
        return random.Random(word).choices(range(1 << 32), k=1 << 20)
    first, _, last = word.partition("-")
    return range(int(first), int(last or first) + 1)


def stream(words):
    begin, end, rates, kind, senders = float(words[0]), float(words[1]), words[2].split(","), functools.cache(KINDS[words[3]]), numbers(words[4])
    options = dict(zip(words[5::2], words[6::2]))
    vlans = numbers(options["vlan"]) if "vlan" in options else [None]
    part = (end - begin) / len(rates)
    for number, pps in enumerate(map(float, rates)):
        for i in range(round(part * pps)):
            frame = kind(senders[i % len(senders)], vlans[i % len(vlans)])
            yield START_NS + round((begin + number * part + i / pps) * 10**9), frame.ljust(int(options.get("size", 0)), b"\0")


def main():
    packets, cut, back = [], None, []
    for line in open(sys.argv[1], encoding="utf-8"):
        words = line.partition("#")[0].split()
        if not words:
            continue
        if words[0] == "cut":
            cut = int(words[1])
        elif words[0] == "back":
            back.append((int(words[1]), float(words[2])))
        else:
            packets += stream(words)
    packets.sort(key=lambda packet: packet[0])
    for number, seconds in back:
        time_ns, frame = packets[number - 1]
        packets[number - 1] = time_ns - round(seconds * 10**9), frame
    data = struct.pack("<IHHiIII", 0xA1B23C4D, 2, 4, 0, 0, 65535, 1)
    data += b"".join(
        struct.pack("<IIII", time_ns // 10**9, time_ns % 10**9, len(frame), len(frame)) + frame
        for time_ns, frame in packets
    )
    with open(sys.argv[2], "wb") as capture:
        capture.write(data[:cut])


if __name__ == "__main__":
    main()
