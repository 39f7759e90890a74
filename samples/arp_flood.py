#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Sends ARP requests at a steady rate from one interface: count and rate are bounded, then it ends.

Usage: arp_flood.py INTERFACE TARGET_IP PPS SECONDS

Four of five requests carry the interface's own MAC address; the fifth carries one of 16 forged ones,
so a look at the sources shows one loud talker and several quiet ones.
"""
import socket
import struct
import sys
import time

ETH_P_ARP = 0x0806
FORGED_SOURCES = 16
MOST_PPS = 2000
MOST_SECONDS = 60


def request(source_mac: bytes, source_ip: bytes, target_ip: bytes) -> bytes:
    """One ARP request (RFC 826) in an untagged Ethernet frame of 42 bytes."""
    header = b"\xff" * 6 + source_mac + struct.pack("!H", ETH_P_ARP)
    fixed = struct.pack("!HHBBH", 1, 0x0800, 6, 4, 1)
    return header + fixed + source_mac + source_ip + bytes(6) + target_ip


def main() -> int:
    if len(sys.argv) != 5:
        print(__doc__, file=sys.stderr)
        return 2
    interface, target = sys.argv[1], socket.inet_aton(sys.argv[2])
    pps, seconds = int(sys.argv[3]), int(sys.argv[4])
    if not (0 < pps <= MOST_PPS and 0 < seconds <= MOST_SECONDS):
        print(f"at most {MOST_PPS} pps for {MOST_SECONDS} s", file=sys.stderr)
        return 2

    sock = socket.socket(socket.AF_PACKET, socket.SOCK_RAW, socket.htons(ETH_P_ARP))
    sock.bind((interface, 0))
    own_mac = sock.getsockname()[4]
    start = time.monotonic()
    for n in range(pps * seconds):
        if n % 5:
            mac, host = own_mac, 200
        else:
            which = (n // 5) % FORGED_SOURCES
            mac, host = bytes((2, 0xBA, 0xD0, 0, 0, which)), 210 + which
        # The deadline comes from the start, not from the last frame, so the rate does not drift.
        pause = start + n / pps - time.monotonic()
        if pause > 0:
            time.sleep(pause)
        sock.send(request(mac, target[:3] + bytes((host,)), target))
    return 0


if __name__ == "__main__":
    sys.exit(main())
