#!/bin/bash
# SPDX-License-Identifier: MIT
# The private machine's root, made inside the new namespaces: the files of a root folder below, a memory file system
# above, and nothing else of the host in sight. Goes on as the first process of the machine.
# usage: root.sh ROOT STAGE REPOSITORY systemd|COMMAND…
set -euo pipefail

below=$1 stage=$2 repo=$3
shift 3

mount -t tmpfs -o mode=755 lab "$stage"
root=$stage/root
mkdir "$root" "$stage"/{upper,work,repo_upper,repo_work}
mount -t overlay -o "lowerdir=$below,upperdir=$stage/upper,workdir=$stage/work" lab "$root"

mount -t proc -o nosuid,nodev,noexec proc "$root/proc"
mount -t sysfs -o nosuid,nodev,noexec,ro sysfs "$root/sys"
mount -t tmpfs -o nosuid,nodev,mode=755 run "$root/run"
mount -t tmpfs -o nosuid,nodev,mode=1777 tmp "$root/tmp"

mount -t tmpfs -o nosuid,mode=755 dev "$root/dev"
mkdir "$root"/dev/{net,shm,pts}
for node in null zero full random urandom tty net/tun; do
    touch "$root/dev/$node"
    mount --bind "/dev/$node" "$root/dev/$node"
done
mount -t tmpfs -o nosuid,nodev,mode=1777 shm "$root/dev/shm"
mount -t devpts -o newinstance,ptmxmode=0666,mode=620 devpts "$root/dev/pts"
ln -s pts/ptmx "$root/dev/ptmx"
ln -s /proc/self/fd "$root/dev/fd"
ln -s fd/0 "$root/dev/stdin"
ln -s fd/1 "$root/dev/stdout"
ln -s fd/2 "$root/dev/stderr"

# The checkout may lie on another file system than the root, where the overlay above does not reach.
mkdir -p "$root$repo"
mount -t overlay -o "lowerdir=$repo,upperdir=$stage/repo_upper,workdir=$stage/repo_work" lab "$root$repo"
mount --bind "$repo/$OUT" "$root$repo/$OUT"

mkdir "$root/run/lab" "$root/run/lab/upper"
mount --bind -o ro "$stage/upper" "$root/run/lab/upper"
mkdir -m 1777 "$root/tmp/.X11-unix"
if [ -n "${DISPLAY:-}" ]; then
    mount --bind -o ro /tmp/.X11-unix "$root/tmp/.X11-unix" # systemd empties /tmp as it boots
    # A display's cookie lies in a folder that the person inside may not enter.
    [ ! -f "${XAUTHORITY:-$HOME/.Xauthority}" ] || cp "${XAUTHORITY:-$HOME/.Xauthority}" "$root/run/lab/xauthority"
fi

# Of what the host starts, only what a desktop needs to sign somebody in; nothing of its disks and terminals.
for_systemd() {
    mount -t cgroup2 -o nosuid,nodev,noexec cgroup2 "$root/sys/fs/cgroup"
    # A seat without virtual terminals: whoever signs in there is the active person.
    mount -t tmpfs -o mode=755,ro tmpfs "$root/sys/class/tty"
    : >"$root/etc/fstab"
    mkdir -p "$root"/run/systemd/{system,journald.conf.d}
    printf '%s\n' '[Journal]' 'ForwardToSyslog=yes' 'RateLimitBurst=0' >"$root/run/systemd/journald.conf.d/lab.conf"
    cat >"$root/run/systemd/system/lab.target" <<UNIT
[Unit]
Requires=sysinit.target dbus.socket
Wants=systemd-logind.service systemd-resolved.service polkit.service
After=sysinit.target dbus.socket
UNIT
}
[ "$1" != systemd ] || for_systemd

mkdir "$root/run/lab/host"
cd "$root"
pivot_root . run/lab/host
umount -l /run/lab/host
rmdir /run/lab/host
cd "$repo"
hostname corvale-lab
[ "$1" != systemd ] || exec env -i container=lab PATH=/usr/sbin:/usr/bin:/sbin:/bin \
    /lib/systemd/systemd --unit=lab.target --show-status=no
exec "$@"
