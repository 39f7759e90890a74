#!/bin/sh
# SPDX-License-Identifier: Apache-2.0
# emulated.sh COMMAND [ARGUMENT]...: runs a command, as root, on Debian's own kernel in an emulated machine.
#
# The kernel comes from Debian's package and is unpacked into a cache folder, not installed; no hardware help is needed.
# The machine sees this one's files as they are; what it writes stays in its memory and is gone afterwards, except below
# $ATC_RESULTS, which is this machine's. Exit status is the command's; 125 = the machine did not get as far.
#
#   ATC_KERNEL   package, or a package that depends on it   (linux-image-amd64)
#   ATC_CACHE    where kernels are kept                     (~/.cache/anti_cpu/kernels)
#   ATC_RESULTS  a folder that keeps what is written there  (none)
#   ATC_MEMORY   of the machine, MiB                        (2048)
#   ATC_PATIENCE seconds after which it is switched off     (900)
set -eu

[ $# -gt 0 ] || { sed -n '2,12s/^# \{0,1\}//p' "$0" >&2; exit 2; }
: "${ATC_KERNEL:=linux-image-amd64}" "${ATC_CACHE:=${HOME:-/root}/.cache/anti_cpu/kernels}" "${ATC_MEMORY:=2048}"
: "${ATC_RESULTS:=}" "${ATC_PATIENCE:=900}"

missing() { echo "emulated.sh: $1" >&2; exit 125; }

for tool in qemu-system-x86_64:qemu-system-x86 busybox:busybox-static cpio:cpio modprobe:kmod apt-get:apt; do
    command -v "${tool%%:*}" >/dev/null 2>&1 || [ -x "/usr/sbin/${tool%%:*}" ] ||
        missing "${tool%%:*} is not here: apt-get install ${tool#*:}"
done
PATH=$PATH:/usr/sbin:/sbin

# The package that holds the kernel itself: a name with a version in it.
package=$ATC_KERNEL
case $package in
    *[0-9].[0-9]*) ;;
    *)  package=$(apt-cache depends "$ATC_KERNEL" 2>/dev/null | sed -n 's/^ *Depends: \(linux-image-[0-9].*\)/\1/p' | head -n 1)
        [ -n "$package" ] || missing "apt knows no kernel behind $ATC_KERNEL: apt-get update" ;;
esac
release=${package#linux-image-}
release=${release%-unsigned}
home=$ATC_CACHE/$release

# Unpacked beside its place and moved there whole: a broken download or a second caller leaves no half of one.
if [ ! -d "$home" ]; then
    mkdir -p "$ATC_CACHE"
    fresh=$(mktemp -d "$ATC_CACHE/new.XXXXXX")
    (cd "$fresh" && apt-get -q=2 download "$package" >&2) || { rm -rf "$fresh"; missing "$package cannot be downloaded"; }
    dpkg-deb -x "$fresh"/*.deb "$fresh" && rm -f "$fresh"/*.deb
    depmod -b "$fresh" "$release"
    mv -T "$fresh" "$home" 2>/dev/null || rm -rf "$fresh"
fi
[ -f "$home/boot/vmlinuz-$release" ] || missing "$home holds no kernel: remove that folder"

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
mkdir -p "$work/root/bin" "$work/root/modules" "$work/root/lower" "$work/root/upper" "$work/root/new" "$work/shared"
[ -z "$ATC_RESULTS" ] || { mkdir -p "$ATC_RESULTS"; ATC_RESULTS=$(cd "$ATC_RESULTS" && pwd); }

# ---- What the machine runs once its files are there: mounts, then the command ----
quoted() { printf "'%s' " "$(printf '%s' "$1" | sed "s/'/'\\\\''/g")"; }
{
    echo "export PATH=/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin HOME=/root LANG=C.UTF-8 ATC_EMULATED=1"
    printf 'cd '; quoted "$PWD"; echo '|| exit 125'
    for word in "$@"; do quoted "$word"; done
    echo
} >"$work/shared/command"
cat >"$work/shared/start" <<END
#!/bin/sh
mount -t proc proc /proc
mount -t sysfs sys /sys
mount -t devtmpfs dev /dev
mkdir -p /dev/pts /dev/shm
mount -t devpts pts /dev/pts
mount -t tmpfs shm /dev/shm
mount -t tmpfs run /run
mount -t bpf bpf /sys/fs/bpf
mount -t cgroup2 none /sys/fs/cgroup
mkdir -p /run/lock /run/netns /run/shared /usr/lib/modules
ln -sfn "$home/lib/modules/$release" "/usr/lib/modules/$release"
mount -t 9p -o trans=virtio,version=9p2000.L,msize=262144,access=any shared /run/shared
[ -z "$ATC_RESULTS" ] || mount -t 9p -o trans=virtio,version=9p2000.L,msize=262144,access=any results "$ATC_RESULTS"
ip link set lo up
stty -onlcr -F /dev/console
setsid -w sh -c '/bin/sh /run/shared/command; echo \$? >/run/shared/status' </dev/null >/dev/console 2>&1
sync
echo 1 >/proc/sys/kernel/printk
sleep 60 &
echo o >/proc/sysrq-trigger
wait
END

# ---- Its first steps: modules for the files of this machine, and the overlay over them ----
cat >"$work/root/init" <<'END'
#!/bin/busybox sh
/bin/busybox mkdir -p /proc /lower /upper /new
/bin/busybox mount -t proc proc /proc
for module in $(/bin/busybox cat /modules/order); do /bin/busybox insmod "/modules/$module"; done
stop() { echo "emulated.sh: $1"; /bin/busybox sync; echo o >/proc/sysrq-trigger; /bin/busybox sleep 60; }
/bin/busybox mount -t 9p -o ro,trans=virtio,version=9p2000.L,msize=262144,cache=loose,access=any files /lower || stop "no files"
/bin/busybox mount -t tmpfs upper /upper && /bin/busybox mkdir /upper/files /upper/work
/bin/busybox mount -t overlay -o lowerdir=/lower,upperdir=/upper/files,workdir=/upper/work over /new || stop "no overlay"
/bin/busybox mkdir -p /new/run/start
/bin/busybox cp /start /new/run/start/start
exec /bin/busybox switch_root /new /bin/sh /run/start/start
END
cp "$work/shared/start" "$work/root/start"
cp "$(command -v busybox)" "$work/root/bin/busybox"
chmod +x "$work/root/init"
for module in virtio_pci 9pnet_virtio 9p overlay; do
    modprobe -d "$home" -S "$release" --show-depends "$module" | sed -n 's/^insmod \([^ ]*\).*/\1/p'
done | awk '!seen[$0]++' | while read -r file; do
    cp "$file" "$work/root/modules/"
    basename "$file"
done >"$work/order"
mv "$work/order" "$work/root/modules/order"
(cd "$work/root" && find . | cpio --quiet -o -H newc) >"$work/initrd"

set -- -fsdev "local,id=files,path=/,security_model=none,readonly=on,multidevs=remap" \
    -device virtio-9p-pci,fsdev=files,mount_tag=files \
    -fsdev "local,id=shared,path=$work/shared,security_model=none" -device virtio-9p-pci,fsdev=shared,mount_tag=shared
[ -z "$ATC_RESULTS" ] || set -- "$@" -fsdev "local,id=results,path=$ATC_RESULTS,security_model=none" \
    -device virtio-9p-pci,fsdev=results,mount_tag=results

timeout "$ATC_PATIENCE" qemu-system-x86_64 -accel tcg,thread=multi -cpu max -smp 2 -m "$ATC_MEMORY" -no-reboot \
    -display none -monitor none -serial stdio -nic none -kernel "$home/boot/vmlinuz-$release" -initrd "$work/initrd" \
    -append "console=ttyS0 quiet panic=-1 random.trust_cpu=on mitigations=off" "$@" </dev/null ||
    missing "the machine was switched off, or did not start"
[ -s "$work/shared/status" ] || missing "the machine ended before the command did"
exit "$(cat "$work/shared/status")"
