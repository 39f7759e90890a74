# SPDX-License-Identifier: Apache-2.0
"""The twelve floods of the demonstration: what frames each is made of, and whether anybody can tell its senders apart."""
import functools
import random
import struct

import traffic

ROUTER, GOOD, BAD = 0xFE, 1, 0x42  # as traffic.py numbers senders
VARIANTS = 16384
FORGED = range(0x100, 0xFFFF)  # senders in the router's own subnet that nobody else is


def internet_sum(data):
    total = sum(struct.unpack(f">{len(data) // 2}H", data[:len(data) // 2 * 2])) + (data[-1] << 8 if len(data) % 2 else 0)
    while total >> 16:
        total = (total & 0xFFFF) + (total >> 16)
    return ~total & 0xFFFF


def patched(data, at, value):
    return data[:at] + struct.pack(">H", value) + data[at + 2:]


def summed(frame):
    """The frame with its checksums, which the stack looks at."""
    at = 14
    while frame[at - 2:at] == b"\x81\x00":
        at += 4
    ethernet, packet = frame[:at], frame[at:]
    if frame[at - 2:at] == b"\x86\xdd":
        len_ = struct.unpack(">H", packet[4:6])[0]
        body = packet[40:40 + len_]
        pseudo = packet[8:40] + struct.pack(">II", len_, packet[6])
        return ethernet + packet[:40] + patched(body, 2, internet_sum(pseudo + body)) + packet[40 + len_:]
    if frame[at - 2:at] != b"\x08\x00":
        return frame
    total = struct.unpack(">H", packet[2:4])[0]
    header, body, rest = patched(packet[:20], 10, internet_sum(packet[:20])), packet[20:total], packet[total:]
    pseudo = packet[12:20] + struct.pack(">HH", packet[9], len(body))
    if packet[9] == 6:
        body = patched(body, 16, internet_sum(pseudo + body))
    elif packet[9] == 17:
        body = patched(body, 6, internet_sum(pseudo + body))
    elif packet[9] == 1:
        body = patched(body, 2, internet_sum(body))
    return ethernet + header + body + rest


def to_router(n, eth_type, payload, vlan=None):
    return traffic.ethernet(traffic.mac(n), traffic.mac(ROUTER), eth_type, payload, vlan)


def ipv4(n, protocol, payload):
    return traffic.ipv4(traffic.ip(n), protocol, traffic.ip(ROUTER), payload)


def arp(n, vlan=None):
    return traffic.arp(n, vlan)


def syn(n, vlan=None, port=1024):
    return to_router(n, 0x0800, ipv4(n, 6, struct.pack(">HHIIBBHHH", port, 179, 1, 0, 0x50, 0x02, 1000, 0, 0)), vlan)


def ospf(n, vlan=None):
    """A hello as the router expects it, so that it is read to its end."""
    head = struct.pack(">BBH", 2, 1, 44) + traffic.ip(n) + bytes(4)
    hello = struct.pack(">IHBBI", 0xFFFF0000, 1, 2, 1, 4) + bytes(8)
    sum_ = internet_sum(head + bytes(4) + hello)
    packet = traffic.ipv4(traffic.ip(n), 89, bytes([224, 0, 0, 5]), head + struct.pack(">HH", sum_, 0) + bytes(8) + hello)
    packet = packet[:8] + b"\x01" + packet[9:]
    return traffic.ethernet(traffic.mac(n), bytes.fromhex("01005e000005"), 0x0800, packet, vlan)


def echo(n, vlan=None, sequence=1):
    return to_router(n, 0x0800, ipv4(n, 1, struct.pack(">BBHHH", 8, 0, 0, n, sequence) + bytes(56)), vlan)


def solicitation(n, vlan=None):
    source, target = (bytes.fromhex("20010db8") + bytes(10) + struct.pack(">H", who) for who in (n, ROUTER))
    body = struct.pack(">BBHI", 135, 0, 0, 0) + target + b"\x01\x01" + traffic.mac(n)
    packet = struct.pack(">IHBB", 0x60000000, len(body), 58, 255) + source + bytes.fromhex("ff0200000000000000000001ff0000fe") + body
    return traffic.ethernet(traffic.mac(n), bytes.fromhex("3333ff0000fe"), 0x86DD, packet, vlan)


def lldp(n):
    """To the router's own address: not what LLDP is sent to, but what it takes."""
    return to_router(n, 0x88CC, b"\x02\x07\x04" + traffic.mac(n) + b"\x04\x05\x05eth0" + b"\x06\x02\x00\x78" + bytes(2))


def lacp(n):
    actor = b"\x01\x14" + struct.pack(">H", 0x8000) + traffic.mac(n) + struct.pack(">HHHB", 1, 0x8000, 1, 0x45) + bytes(3)
    body = b"\x01\x01" + actor + b"\x02\x14" + bytes(18) + b"\x03\x10" + bytes(14) + bytes(52)
    return traffic.ethernet(traffic.mac(n), bytes.fromhex("0180c2000002"), 0x8809, body, None)


def stp(n):
    bridge = struct.pack(">H", 32768) + traffic.mac(n)
    bpdu = b"\x42\x42\x03" + bytes(5) + bridge + bytes(4) + bridge + struct.pack(">HHHHH", 1, 0, 5120, 512, 3840)
    return traffic.ethernet(traffic.mac(n), bytes.fromhex("0180c2000000"), len(bpdu), bpdu, None)


def dhcp(n, client):
    """One sender in the name of many clients: what empties a server's pool."""
    frame = traffic.dhcp(client, None)
    return frame[:6] + traffic.mac(n) + frame[12:]


def vlans(i):
    return (arp, syn, ospf, echo, solicitation)[i % 5](BAD, 1 + i % 4094)


# name: what it is, frame number i, whether good and bad can be told apart
FLOODS = {
    "arp": ("ARP requests from one", lambda i: arp(BAD), True),
    "arp-random": ("ARP requests from random MAC addresses", lambda i: arp(forged(i)), False),
    "syn": ("TCP SYN to port 179 from one", lambda i: syn(BAD, port=1024 + i), True),
    "syn-forged": ("TCP SYN to port 179, forged senders", lambda i: syn(forged(i), port=1024 + i), False),
    "ospf": ("OSPF hellos from one", lambda i: ospf(BAD), True),
    "ospf-forged": ("OSPF hellos, forged senders", lambda i: ospf(forged(i)), False),
    "icmp": ("Echo requests from one", lambda i: echo(BAD, sequence=i), True),
    "nd": ("Neighbour solicitations from one", lambda i: solicitation(BAD), True),
    "lldp": ("LLDP in the neighbour's name, to the router's address", lambda i: lldp(GOOD), True),
    "lacp-stp": ("LACP and STP from one", lambda i: (lacp, stp)[i % 2](BAD), True),
    "dhcp": ("DHCP discovers for many clients, from one", lambda i: dhcp(BAD, forged(i)), True),
    "vlans": ("Five protocols on all VLANs, from one", vlans, True),
}


@functools.lru_cache(maxsize=None)
def forged(i):
    return random.Random(i).choice(FORGED)


def write(name, path):
    """The flood's frames, as the sender wants them."""
    frame = FLOODS[name][1]
    with open(path, "wb") as file:
        for i in range(VARIANTS):
            data = summed(frame(i))
            file.write(struct.pack(">H", len(data)) + data)
