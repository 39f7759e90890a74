#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Installs the Debian packages of the given lists (packages.txt when none is given) that are missing. Needs root, or sudo.
set -euo pipefail

here=$(cd "$(dirname "$0")" && pwd)
[ $# -gt 0 ] || set -- "$here/packages.txt"

missing=()
while read -r package _; do
    case $package in '' | '#'*) continue ;; esac
    [ "$(dpkg-query -W -f '${db:Status-Status}' "$package" 2>/dev/null || true)" = installed ] || missing+=("$package")
done < <(cat "$@")
[ ${#missing[@]} -gt 0 ] || exit 0

echo "Installing ${missing[*]}"
root=()
if [ "$(id -u)" -ne 0 ]; then
    command -v sudo >/dev/null || { echo "Missing packages need root to install: ${missing[*]}" >&2; exit 1; }
    root=(sudo)
fi

# A server that comes is for the tests, which start it in a network of its own: it must not serve this machine besides,
# neither now nor after the next start. What was there before stays as it is.
services() { ls /etc/init.d 2>/dev/null || true; }
before=$(services)
policy=/usr/sbin/policy-rc.d
if [ ! -e $policy ]; then
    trap '"${root[@]}" rm -f $policy' EXIT
    printf '#!/bin/sh\nexit 101\n' | "${root[@]}" tee $policy >/dev/null
    "${root[@]}" chmod +x $policy
fi
"${root[@]}" apt-get update -q=2
"${root[@]}" env DEBIAN_FRONTEND=noninteractive apt-get install -q=2 -y --no-install-recommends "${missing[@]}" >/dev/null
for service in $(comm -13 <(sort <<<"$before") <(services | sort)); do
    "${root[@]}" update-rc.d "$service" disable 2>/dev/null  # which complains of a service that is a script only
done
