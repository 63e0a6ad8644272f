#!/bin/bash
# SPDX-License-Identifier: MIT
# What makes a private machine out of a root folder: its people, its networks, its services, the product; then what was
# asked for. With systemd it is a service of that machine, else its first process.
#
#   client machine 198.51.100.2 ── 198.51.100.1 "internet" ── 10.77.0.2 "behind" 10.77.0.1
#                                  203.0.113.10 account service             only through the tunnel
#                                  203.0.113.20 OpenVPN server, also 198.51.100.20, without a way between
set -euo pipefail

lab=$(cd "$(dirname "$0")" && pwd)
repo=$(dirname "$lab")
said=$repo/$OUT
log=/var/log/lab
person=ana
booted() { [ -d /run/systemd/system ]; }

finish() {
    status=$?
    # What the machine leaves for the check afterwards: each file that it put on top of the host's.
    find /run/lab/upper -type f -printf '/%P\n' | sort >"$said/written"
    cut -d' ' -f1 /proc/uptime >"$said/ended"
    exit "$status"
}
trap finish EXIT
trap 'exit 130' INT TERM
readlink /proc/self/ns/{mnt,net,pid,ipc} >"$said/namespaces"

# Waits until a condition holds: settled WHAT COMMAND…
settled() {
    local what=$1 tries=0
    shift
    until "$@" >/dev/null 2>&1; do
        tries=$((tries + 1))
        if [ "$tries" -gt 200 ]; then
            echo "The lab's $what did not come up. What it wrote:" >&2
            tail "$log"/* >&2
            exit 1
        fi
        sleep 0.05
    done
}

people() {
    local id=${SUDO_UID:-1000} file
    [ "$id" -ne 0 ] || id=1000
    for file in passwd group; do sed -i -E "/^$person:|^[^:]*:[^:]*:$id:/d" "/etc/$file"; done
    sed -i "/^$person:/d" /etc/shadow
    echo "$person:*:19000::::::" >>/etc/shadow
    echo "$person:x:$id:$id:Ana:/home/$person:/bin/sh" >>/etc/passwd
    echo "$person:x:$id:" >>/etc/group
    # Two others, who only talk to the helper.
    printf '%s\n' berta:x:61001:61001::/:/bin/sh carla:x:61002:61002::/:/bin/sh >>/etc/passwd
    printf '%s\n' berta:x:61001: carla:x:61002: >>/etc/group
    install -d -m 700 -o "$id" -g "$id" "/home/$person"
    booted || { mkdir /run/user && install -d -m 700 -o "$id" -g "$id" "/run/user/$id"; }
    # The checkout may lie where this person may not look, such as root's home.
    install -D -m 644 -t /run/lab/person "$lab"/{agent,person,rewriter,status_notifier}.py "$lab/tint2rc"
    if [ -f /run/lab/xauthority ]; then chown "$id" /run/lab/xauthority; fi
}

networks() {
    ip link set lo up
    ip netns add internet
    ip netns add behind
    ip link add wan type veth peer name home netns internet
    ip address add 198.51.100.2/24 dev wan
    ip link set wan up
    ip -n internet link set lo up
    ip -n internet address add 203.0.113.10/32 dev lo
    ip -n internet address add 203.0.113.20/32 dev lo
    ip -n internet address add 198.51.100.1/24 dev home
    ip -n internet address add 198.51.100.20/24 dev home
    ip -n internet link set home up
    ip route add default via 198.51.100.1

    ip -n internet link add inner type veth peer name inner netns behind
    ip -n internet address add 10.77.0.2/24 dev inner
    ip -n internet link set inner up
    ip -n behind link set lo up
    ip -n behind address add 10.77.0.1/24 dev inner
    ip -n behind link set inner up
    ip -n behind route add default via 10.77.0.2
    ip netns exec internet sysctl -qw net.ipv4.ip_forward=1
    # Nobody gets behind the server except out of the tunnel.
    ip -n internet rule add iif home to 10.77.0.0/24 prohibit

    printf '%s\n' "127.0.0.1 localhost $(hostname)" "203.0.113.10 api.corvale.example" \
        "203.0.113.20 vpn.corvale.example" >/etc/hosts
}

trust() {
    "$lab/certificates.sh" /etc/lab
    local certificates=/etc/ssl/certs
    install -m 644 /etc/lab/authority.crt "$certificates/corvale-lab.pem"
    ln -sf corvale-lab.pem "$certificates/$(openssl x509 -noout -hash -in /etc/lab/authority.crt).0"
    cat /etc/lab/authority.crt >>"$certificates/ca-certificates.crt"
}

# The network's name server, where the system at hand keeps it. RESOLVER names the one to use, out of the packages that
# lie ready; the file is what is left where there is none.
name_server() {
    local address=198.51.100.1 package=
    case ${RESOLVER:-} in
    resolved) package=systemd-resolved ;;
    resolvconf) package=resolvconf ;;
    esac
    if [ -n "$package" ]; then
        export DEBIAN_FRONTEND=noninteractive
        apt-get install -y --no-install-recommends --no-download "$package" >"$log/resolver" 2>&1 ||
            { cat "$log/resolver" >&2; exit 1; }
        # The bus did not know its user yet when it was started.
        [ "$package" != systemd-resolved ] || systemctl restart systemd-resolved
    fi
    if booted && systemctl --quiet is-active systemd-resolved; then
        ln -sf ../run/systemd/resolve/stub-resolv.conf /etc/resolv.conf
        resolvectl dns wan "$address"
        resolvectl default-route wan yes
    elif [ "$package" = resolvconf ]; then
        ln -sf ../run/resolvconf/resolv.conf /etc/resolv.conf
        resolvconf --enable-updates
        echo "nameserver $address" | resolvconf -a wan.lab
    else
        # A link would be followed out of /etc.
        rm -f /etc/resolv.conf
        echo "nameserver $address" >/etc/resolv.conf
    fi
}

# Whom a rule allows what a person may who sits at the machine.
allow() {
    mkdir -p /etc/polkit-1/rules.d
    sed "s/PEOPLE/$(printf '"%s",' "$@")/" "$lab/people.rules" >/etc/polkit-1/rules.d/10-lab.rules
}

# The person signs in at the machine's seat, as a display manager would have her do.
sign_in() {
    printf '%s\n' 'auth required pam_permit.so' 'account required pam_permit.so' 'session required pam_systemd.so' \
        >/etc/pam.d/lab
    systemd-run --quiet --unit=lab-session --property=User="$person" --property=PAMName=lab \
        --setenv=XDG_SEAT=seat0 --setenv=XDG_SESSION_TYPE=x11 --setenv=XDG_SESSION_CLASS=user sleep infinity
    settled "person's session" pgrep -xu "$person" sleep
    # What she runs from here on belongs to that session.
    sed -n 's|^0::\(.*\)$|/sys/fs/cgroup\1/cgroup.procs|p' "/proc/$(pgrep -xu "$person" sleep)/cgroup" >/run/lab/session
}

bus_call() { dbus-send --system --print-reply --dest=org.freedesktop.DBus / "org.freedesktop.DBus.$1" "${@:2}"; }

bus_and_rights() {
    if booted; then
        bus_call ReloadConfig >/dev/null
        allow carla
        sign_in
        return
    fi
    # Without a login manager nobody counts as sitting at the machine.
    allow "$person" carla
    dbus-uuidgen --ensure=/etc/machine-id
    mkdir -p /run/dbus
    dbus-daemon --system --nofork --nopidfile >"$log/bus" 2>&1 &
    settled "system bus" bus_call ListNames
    settled "polkit" bus_call StartServiceByName string:org.freedesktop.PolicyKit1 uint32:0
}

servers() {
    local incoming=/dev/log
    ! booted || incoming=/run/systemd/journal/syslog
    /usr/bin/python3 "$lab/system_log.py" "$incoming" "$log/system" &
    ip netns exec internet /usr/bin/python3 "$lab/account_service.py" "$log/account" 2>"$log/account_errors" &
    ip netns exec behind /usr/bin/python3 "$lab/inner_service.py" 2>"$log/inner" &
    "$lab/openvpn_server.sh" start
    settled "system log" test -S "$incoming"
    settled "account service" bash -c ': </dev/tcp/203.0.113.10/443'
    settled "OpenVPN server" grep -q "Initialization Sequence Completed" "$log/server"
    settled "service behind the tunnel" ip netns exec behind bash -c ': </dev/tcp/10.77.0.1/80'
}

# A file of scenarios/ or figures/ by its name; what follows is for pytest, but for a number.
scenario() { # NAME [CYCLES] [OPTION…]
    local file
    for file in "$lab"/{scenarios,figures}/"test_${1//-/_}.py"; do [ ! -f "$file" ] || break; done
    if [ ! -f "$file" ]; then
        echo "There is no scenario $1; there are:" >&2
        basename -a -s .py "$lab"/scenarios/test_*.py | sed 's/^test_/    /; s/_/-/g' >&2
        exit 1
    fi
    shift
    case ${1:-} in [0-9]*) set -- --cycles="$1" "${@:2}" ;; esac
    if [ -n "${MANUAL:-}" ]; then
        /usr/bin/python3 -B "$lab/manual.py"
    else
        /usr/bin/python3 -B -m pytest -sv "$file" "$@"
    fi
}

mkdir -p "$log"
people
networks
trust
name_server
servers
if [ -f "$repo/$BUILD" ]; then
    apt-get install -y --no-install-recommends "$repo/$BUILD" >"$log/install" 2>&1 || { cat "$log/install" >&2; exit 1; }
else
    cmake --install "$repo/$BUILD" --prefix /usr >"$log/install"
    ! booted || systemctl daemon-reload
fi
bus_and_rights

if [ "${1:-}" = shell ]; then
    shift
    if [ $# -gt 0 ]; then "$@"; else bash; fi
else
    scenario "${@:-connect}"
fi
