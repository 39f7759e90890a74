#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# packages.sh TREE CACHE: the Debian packages are built, please lintian, and come and go in a minimal system without a
# trace; the program runs there, and so does a process that was compiled with what the packages brought. The minimal
# system is kept in CACHE, with what the packages say they need and nothing else.
set -euo pipefail
tree=$1
cache=$2
for tool in mmdebstrap lintian dh; do
    command -v $tool >/dev/null || { echo "skipped: $tool is not installed"; exit 77; }
done
[ "$(id -u)" -eq 0 ] || { echo 'skipped: only root can make a minimal system'; exit 77; }
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
root=$work/root

mkdir "$work/tree" "$root"
tar -C "$tree" --exclude=./build --exclude=./out --exclude=./.git -c . | tar -C "$work/tree" -x
# Without what debuggers need, which takes long and changes nothing else.
export DEB_BUILD_OPTIONS="parallel=$(nproc) noautodbgsym" DEB_CFLAGS_STRIP=-g DEB_CXXFLAGS_STRIP=-g
(cd "$work/tree" && dpkg-buildpackage -b -us -uc) >"$work/log" 2>&1 || { tail -n 40 "$work/log" >&2; exit 1; }
lintian --allow-root --fail-on error,warning "$work"/*.changes

# What they need besides each other: "libc6 (>= 2.36), libanti-cpu0 (>= 0.1.0)" gives libc6.
needs=$(for deb in "$work"/*.deb; do dpkg-deb -f "$deb" Depends; done | tr ',' '\n' | awk '$1 !~ /anti-cpu/ { print $1 }' |
    sort -u | paste -sd,)
. /etc/os-release
minimal=$cache/minimal-$(sha256sum <<<"$VERSION_CODENAME $needs" | cut -c -12).tar
if [ ! -f "$minimal" ]; then
    mkdir -p "$cache"
    sources=$(ls /etc/apt/sources.list.d/*.sources /etc/apt/sources.list.d/*.list /etc/apt/sources.list 2>/dev/null || true)
    # shellcheck disable=SC2086 # sources are words
    mmdebstrap --quiet --variant=minbase --include="$needs" "$VERSION_CODENAME" "$work/minimal.tar" $sources 2>"$work/log" ||
        { echo "skipped: no minimal system can be made here: $(tail -n 1 "$work/log")"; exit 77; }
    mv "$work/minimal.tar" "$minimal"
fi
tar -C "$root" --exclude='./dev/*' -xf "$minimal"

# What is there, without dpkg's own notes, what the first look-up of a library leaves, and the /dev/null that scripts make
# where there is none.
listing() { (cd "$root" && find . ! -path './var/lib/dpkg/*' ! -path './var/log/*' ! -path './var/cache/*' ! -path './dev/*' | sort); }

listing >"$work/before"
cp "$work"/*.deb "$tree/samples/campus.pcap" "$root/tmp"
run() { chroot "$root" env -i PATH=/usr/sbin:/usr/bin:/sbin:/bin LC_ALL=C.UTF-8 DEBIAN_FRONTEND=noninteractive "$@"; }
run sh -c 'dpkg -i /tmp/*.deb' >"$work/log" 2>&1 || { cat "$work/log" >&2; exit 1; }
run anti-cpu replay /tmp/campus.pcap | grep '^FLOODED: 3 floods'
export PKG_CONFIG_LIBDIR=$root/usr/lib/$(dpkg-architecture -qDEB_HOST_MULTIARCH)/pkgconfig PKG_CONFIG_SYSROOT_DIR=$root
# shellcheck disable=SC2046 # flags are words
gcc "$root/usr/share/doc/libanti-cpu-dev/examples/card.c" $(pkg-config --cflags --libs anti_cpu) -pthread -o "$root/tmp/card"
run /tmp/card | grep 'over fast period limit'
rm "$root"/tmp/*
run dpkg --purge anti-cpu libanti-cpu-dev libanti-cpu0 >"$work/log" 2>&1 || { cat "$work/log" >&2; exit 1; }
listing >"$work/after"
diff "$work/before" "$work/after" || { echo 'the packages leave or take something' >&2; exit 1; }
