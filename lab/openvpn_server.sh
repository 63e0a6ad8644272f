#!/bin/sh
# SPDX-License-Identifier: MIT
# The OpenVPN server on the lab's internet.
# usage: openvpn_server.sh start|stop|crash     stop tells the connected clients to start over, crash says nothing
# What the environment may change: PROTOCOL=udp|tcp|udp6|tcp6 (the last two take both families), KEEPALIVE="10 60",
# SPLIT=1 (the network behind it is all that goes through the tunnel), REDIRECT= (the default route is replaced instead
# of covered), IPV6=1 (the tunnel carries that, too).
set -eu

keys=/etc/lab
log=/var/log/lab/server
pid=/run/lab/server.pid

case $1 in
start)
    mkdir -p /run/lab
    cat >/run/lab/check_password <<'SCRIPT'
#!/bin/sh
# The file holds the user name and the password, one a line.
[ "$(cat "$1")" = "ana@example.com
secret" ]
SCRIPT
    chmod 755 /run/lab/check_password
    : >"$log"
    protocol=${PROTOCOL:-udp}
    set -- --push "redirect-gateway ${REDIRECT-def1}${IPV6:+ ipv6}"
    [ -z "${SPLIT:-}" ] || set -- --push "route 10.77.0.0 255.255.255.0"
    [ -z "${IPV6:-}" ] || set -- "$@" --server-ipv6 2001:db8:8::/64
    case $protocol in udp*) set -- "$@" --multihome --explicit-exit-notify 1 ;; esac
    # shellcheck disable=SC2086 # two words
    exec ip netns exec internet openvpn --daemon --writepid "$pid" --log-append "$log" --verb 3 \
        --dev tun --topology subnet --server 10.8.0.0 255.255.255.0 \
        --proto "$protocol" --port 1194 --keepalive ${KEEPALIVE:-1 4} \
        --ca "$keys/tunnel_authority.crt" --cert "$keys/tunnel.crt" --key "$keys/tunnel.key" \
        --dh none --tls-crypt "$keys/tunnel_shared.key" \
        --verify-client-cert none --username-as-common-name --script-security 2 \
        --auth-user-pass-verify /run/lab/check_password via-file \
        --push "dhcp-option DNS 10.77.0.1" "$@"
    ;;
stop | crash)
    server=$(cat "$pid") # it removes the file as it ends
    [ "$1" = stop ] && signal=TERM || signal=KILL
    kill -s "$signal" "$server"
    while [ -d "/proc/$server" ]; do sleep 0.02; done
    ;;
esac
