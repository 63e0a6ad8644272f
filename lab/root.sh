#!/bin/bash
# The private machine's root, made inside the new namespaces: the host's files below, a memory file system above, and
# nothing else of the host in sight. Goes on as machine.sh, the first process of the machine.
# usage: root.sh STAGE REPOSITORY ARGUMENT…
set -euo pipefail

stage=$1 repo=$2
shift 2

mount -t tmpfs -o mode=755 lab "$stage"
root=$stage/root
mkdir "$root" "$stage"/{upper,work,repo_upper,repo_work}
mount -t overlay -o "lowerdir=/,upperdir=$stage/upper,workdir=$stage/work" lab "$root"

mount -t proc -o nosuid,nodev,noexec proc "$root/proc"
mount -t sysfs -o nosuid,nodev,noexec sysfs "$root/sys"
mount -t tmpfs -o nosuid,nodev,mode=755 run "$root/run"
mount -t tmpfs -o nosuid,nodev,mode=1777 tmp "$root/tmp"

mount -t tmpfs -o nosuid,mode=755 dev "$root/dev"
mkdir "$root"/dev/{net,shm,pts}
for node in null zero full random urandom tty net/tun; do
    touch "$root/dev/$node"
    mount --bind "/dev/$node" "$root/dev/$node"
done
mount -t tmpfs -o nosuid,nodev,mode=1777 shm "$root/dev/shm"
mount -t devpts -o newinstance,ptmxmode=0666 devpts "$root/dev/pts"
ln -s pts/ptmx "$root/dev/ptmx"
ln -s /proc/self/fd "$root/dev/fd"
ln -s fd/0 "$root/dev/stdin"
ln -s fd/1 "$root/dev/stdout"
ln -s fd/2 "$root/dev/stderr"

# The checkout may lie on another file system than the root, where the overlay above does not reach.
mkdir -p "$root$repo"
mount -t overlay -o "lowerdir=$repo,upperdir=$stage/repo_upper,workdir=$stage/repo_work" lab "$root$repo"
mount --bind "$repo/build/demo" "$root$repo/build/demo"

mkdir "$root/run/lab" "$root/run/lab/upper"
mount --bind -o ro "$stage/upper" "$root/run/lab/upper"
mkdir -m 1777 "$root/tmp/.X11-unix"
if [ -n "${DISPLAY:-}" ]; then
    mount --bind /tmp/.X11-unix "$root/tmp/.X11-unix"
    # A display's cookie lies in a folder that the person inside may not enter.
    [ ! -f "${XAUTHORITY:-$HOME/.Xauthority}" ] || cp "${XAUTHORITY:-$HOME/.Xauthority}" "$root/run/lab/xauthority"
fi

mkdir "$root/run/lab/host"
cd "$root"
pivot_root . run/lab/host
umount -l /run/lab/host
rmdir /run/lab/host
cd "$repo"
exec "$repo/lab/machine.sh" "$@"
