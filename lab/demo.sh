#!/bin/sh
# The demonstration: a private machine with an account service, an OpenVPN server and a screen of its own, in which the
# installed client is driven like a person would. Everything in it ends with this command.
#
# usage: lab/demo.sh [SCENARIO [ARGUMENT]] one of those in scenario.py; connect, where none is named
#        lab/demo.sh shell [COMMAND…]    a command (or a shell) inside the machine, its services running
#        lab/demo.sh check               says whether this system lets the lab be made, and starts nothing
# MANUAL=1 opens the client on the display that is there and leaves it to the person. BUILD=build/asan installs what a
# sanitized build made.
set -eu

lab=$(cd "$(dirname "$0")" && pwd)
repo=$(dirname "$lab")

sorry() {
    echo "The lab cannot start: $1" >&2
    exit 1
}

if [ "$(id -u)" -ne 0 ]; then
    command -v sudo >/dev/null || sorry "it makes namespaces and a tunnel, which needs root, and there is no sudo."
    exec sudo --preserve-env=DISPLAY,XAUTHORITY,MANUAL,BUILD "$0" "$@"
fi
[ -c /dev/net/tun ] || sorry "/dev/net/tun is missing, so OpenVPN could make no tunnel (try: modprobe tun)."
unshare --mount --net --pid --ipc --fork true 2>/dev/null || sorry "this system does not let root make namespaces."
[ -z "${MANUAL:-}" ] || [ -n "${DISPLAY:-}" ] || sorry "MANUAL=1 needs a display, and DISPLAY is not set."
[ "${1:-}" != check ] || exit 0
[ -f "$repo/${BUILD:-build}/cmake_install.cmake" ] || sorry "nothing is built yet (try: make build)."
for tool in openvpn Xvfb xprop tint2 openbox xdotool strace dbus-daemon openssl ip ping convert setpriv; do
    command -v "$tool" >/dev/null || sorry "the program $tool is missing (try: make packages)."
done

pictures=$repo/build/demo
stage=$(mktemp -d)
trap 'rm -f "$stage/before"; rmdir "$stage"' EXIT
trap 'exit 130' INT TERM
rm -rf "$pictures"
mkdir -p "$pictures"
"$lab/leftovers.sh" note >"$stage/before"

status=0
unshare --mount --net --pid --ipc --fork --kill-child --propagation private \
    "$lab/root.sh" "$stage" "$repo" "$@" || status=$?

chown -R "$(stat -c %u:%g "$repo/build")" "$pictures"
"$lab/leftovers.sh" compare "$stage/before" "$pictures" || status=1
exit "$status"
