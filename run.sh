#!/usr/bin/env bash
# Installs what is missing, builds, and replays a recorded capture in which three floods come and go. Further arguments go
# to the replay: ./run.sh --quiet; `build/release/anti-cpu replay --help` tells them all.
set -euo pipefail
cd "$(dirname "$0")"

scripts/install-packages.sh scripts/packages.txt
echo 'Building (two minutes the first time) ...'
cmake --preset release -DATC_BENCH=OFF --log-level=WARNING >/dev/null
if ! output=$(cmake --build --preset release --target anti-cpu -j"$(nproc)" 2>&1); then
    printf '%s\n' "$output" >&2
    exit 1
fi

cat <<'TEXT'

Replaying samples/campus.pcap: 72 seconds on one port of a switch, VLANs 100 and 200. Into the quiet traffic of routers
and hosts fall an ARP flood (250 packets a second, 200 of them from one station; the limit is 100) and two floods of TCP
SYN (60 a second from one host, 40 from forged addresses; the limit is 12). Time is the capture's own; a fast period has
10 seconds in place of 300, so that there are several. Sources over their limit are to be denied in the switching chip.

Below: alarms as they are raised and cleared, then what the module knows at the end, and what became of the packets.

TEXT
build/release/anti-cpu replay samples/campus.pcap --fast-period 10 \
    -x 'set hw-deny arp source on' -x 'set hw-deny tcp-syn source on' "$@"
