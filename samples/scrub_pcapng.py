#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Rewrites a pcapng file without the recording machine's description.

Usage: scrub_pcapng.py IN OUT

dumpcap notes the processor, kernel and program version in the section header (options 2, 3, 4) and
the kernel in every interface description (option 12). These are left out; packets, interface names,
filters and time resolutions stay byte for byte. Reads little-endian files of one section, as dumpcap
writes them on such a machine.
"""
import struct
import sys

SECTION, INTERFACE = 0x0A0D0D0A, 1
BYTE_ORDER = 0x1A2B3C4D
# block type -> (bytes between the block header and the options, option codes to leave out)
SCRUBBED = {SECTION: (16, {2, 3, 4}), INTERFACE: (8, {12})}


def kept_options(options: bytes, dropped: set) -> bytes:
    kept, at = b"", 0
    while at + 4 <= len(options):
        code, length = struct.unpack_from("<HH", options, at)
        end = at + 4 + (length + 3) // 4 * 4
        if code == 0:
            break
        if code not in dropped:
            kept += options[at:end]
        at = end
    return kept + bytes(4) if kept else b""


def main() -> int:
    if len(sys.argv) != 3:
        print(__doc__, file=sys.stderr)
        return 2
    with open(sys.argv[1], "rb") as source:
        data = source.read()
    if len(data) < 12 or struct.unpack_from("<I", data, 8)[0] != BYTE_ORDER:
        print(f"{sys.argv[1]}: not a little-endian pcapng file", file=sys.stderr)
        return 1

    blocks, at = [], 0
    while at < len(data):
        kind, length = struct.unpack_from("<II", data, at)
        if length < 12 or length % 4 or at + length > len(data):
            print(f"{sys.argv[1]}: damaged block at byte {at}", file=sys.stderr)
            return 1
        body = data[at + 8:at + length - 4]
        if kind in SCRUBBED:
            fixed, dropped = SCRUBBED[kind]
            body = body[:fixed] + kept_options(body[fixed:], dropped)
        size = struct.pack("<I", len(body) + 12)
        blocks.append(struct.pack("<I", kind) + size + body + size)
        at += length
    with open(sys.argv[2], "wb") as target:
        target.write(b"".join(blocks))
    return 0


if __name__ == "__main__":
    sys.exit(main())
