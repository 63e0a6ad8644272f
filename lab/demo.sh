#!/bin/bash
# SPDX-License-Identifier: MIT
# The demonstration: a private machine with an account service, an OpenVPN server and a screen of its own, in which the
# installed client is driven like a person would. Everything in it ends with this command.
#
# usage: lab/demo.sh [SCENARIO [OPTION…]] lab/scenarios/test_SCENARIO.py, and what pytest is told about it (such as -k
#                                         "helper and killed"); connect, where none is named
#        lab/demo.sh soak CYCLES          so many connections in a row
#        lab/demo.sh shell [COMMAND…]     a command (or a shell) inside the machine, its services running
#        lab/demo.sh check                says whether this system lets the lab be made, and starts nothing
# MANUAL=1 opens the client on the display that is there and leaves it to the person.
# BUILD=build/asan installs what a sanitized build made; BUILD=build/NAME.deb installs a package.
# ROOT=FOLDER is the root folder of another Debian for the machine; it stays as it is.
# INIT=none does without systemd, which otherwise is the machine's first process where it is installed.
# OUT=build/NAME takes what the machine says and shows, build/demo where it is not set.
set -euo pipefail

lab=$(cd "$(dirname "$0")" && pwd)
repo=$(dirname "$lab")
root=$(readlink -f "${ROOT:-/}")
export BUILD=${BUILD:-build} OUT=${OUT:-build/demo}

sorry() {
    echo "The lab cannot start: $1" >&2
    exit 1
}

if [ "$(id -u)" -ne 0 ]; then
    command -v sudo >/dev/null || sorry "it makes namespaces and a tunnel, which needs root, and there is no sudo."
    exec sudo --preserve-env=DISPLAY,XAUTHORITY,MANUAL,BUILD,ROOT,INIT,OUT,RESOLVER "$0" "$@"
fi
[ -c /dev/net/tun ] || sorry "/dev/net/tun is missing, so OpenVPN could make no tunnel (try: modprobe tun)."
unshare --mount --net --pid --ipc --fork true 2>/dev/null || sorry "this system does not let root make namespaces."
[ -z "${MANUAL:-}" ] || [ -n "${DISPLAY:-}" ] || sorry "MANUAL=1 needs a display, and DISPLAY is not set."
groups=$(findmnt --noheadings --first-only --types cgroup2 --output TARGET || true)
if [ -z "${INIT:-}" ]; then
    INIT=none
    [ -z "$groups" ] || [ ! -x "$root/lib/systemd/systemd" ] || INIT=systemd
fi
[ "$INIT" = none ] || [ -n "$groups" ] || sorry "systemd needs control groups of the second version (cgroup2)."
[ "${1:-}" != check ] || exit 0
[ -f "$repo/$BUILD" ] || [ -f "$repo/$BUILD/cmake_install.cmake" ] || sorry "nothing is built yet (try: make build)."
for tool in openvpn Xvfb xprop tint2 dbus-daemon pgrep openssl ip ping convert setpriv; do
    chroot "$root" which "$tool" >/dev/null || sorry "the program $tool is missing (try: make packages)."
done

chroot "$root" /usr/bin/python3 -Bc 'import pytest' 2>/dev/null || sorry "pytest is missing (try: make packages)."

said=$repo/$OUT
stage=$(mktemp -d)
group=
outer=
# Ends the machine, and waits until the kernel has ended all its processes.
halt() {
    if [ -n "$outer" ]; then
        pkill -9 -P "$outer" || kill -9 "$outer" 2>/dev/null || true
        wait "$outer" 2>/dev/null || true
    fi
    # What the machine's systemd has made below this goes from the leaves up.
    for _ in $(seq 200); do
        [ -n "$group" ] && [ -d "$group" ] || return 0
        find "$group" -depth -type d -exec rmdir {} + 2>/dev/null || sleep 0.05
    done
}
# shellcheck disable=SC2317 # the trap calls it
tidy() {
    halt
    rm -f "$stage/before"
    rmdir "$stage"
}
trap tidy EXIT
trap 'exit 130' INT TERM
rm -rf "$said"
mkdir -p "$said"
"$lab/leftovers.sh" note >"$stage/before"

# With its first process every other one of the machine ends, and that one with the outer process.
machine=(unshare --mount --net --pid --ipc --uts --fork --kill-child --propagation private)
inside() { nsenter -t "$first" -m -n -p -i -u -C -- "$@"; }
boot() {
    group=$groups$(sed -n 's/^0:://p' /proc/self/cgroup)/corvale-lab-$$
    mkdir "$group"
    (
        echo 0 >"$group/cgroup.procs"
        exec "${machine[@]}" --cgroup "$lab/root.sh" "$root" "$stage" "$repo" systemd
    ) </dev/null >"$said/boot" 2>&1 &
    outer=$!
    for _ in $(seq 300); do
        first=$(pgrep -P "$outer" || true)
        if [ -n "$first" ] && nsenter -t "$first" -m -- test -S /run/systemd/private 2>/dev/null; then
            inside systemctl is-system-running --wait >/dev/null || true # a unit of the host's may fail
            return
        fi
        kill -0 "$outer" 2>/dev/null || break
        sleep 0.05
    done
    cat "$said/boot" >&2
    sorry "systemd does not boot."
}

status=0
if [ "$INIT" = systemd ]; then
    boot
    # shellcheck disable=SC2016 # the shell inside
    # In a group of its own beside those of the machine's services, and without the help of a bus that it may kill.
    inside env -i PATH="$PATH" HOME=/root TERM="${TERM:-dumb}" BUILD="$BUILD" OUT="$OUT" MANUAL="${MANUAL:-}" RESOLVER="${RESOLVER:-}" \
        ${DISPLAY:+DISPLAY="$DISPLAY"} sh -ec 'mkdir /sys/fs/cgroup/lab; echo 0 >/sys/fs/cgroup/lab/cgroup.procs
        cd "$0"; exec lab/machine.sh "$@"' "$repo" "$@" <&0 &
    wait $! || status=$?
    halt
else
    "${machine[@]}" "$lab/root.sh" "$root" "$stage" "$repo" "$lab/machine.sh" "$@" <&0 &
    outer=$!
    wait "$outer" || status=$?
fi

chown -R "$(stat -c %u:%g "$repo/build")" "$said"
"$lab/leftovers.sh" compare "$stage/before" "$said" || status=1
exit "$status"
