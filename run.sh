#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
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

Replaying samples/campus.pcap: 72 seconds on one port of a switch. Into the quiet traffic of routers and hosts fall an
ARP flood and two floods of TCP SYN. The last lines say what to try next.

TEXT
build/release/anti-cpu replay samples/campus.pcap "$@"
