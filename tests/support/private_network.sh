#!/bin/sh
# SPDX-License-Identifier: MIT
# Runs a test program in mount and network namespaces of its own: an empty /tmp, nothing but the loopback, the account
# service's name on it, and certificates in /tmp/certificates. Needs root, or a kernel that lets anyone have namespaces.
# usage: private_network.sh PROGRAM [ARGUMENT...]
set -eu

if [ "${1:-}" != --inside ]; then
    as_root=
    [ "$(id -u)" -eq 0 ] || as_root=--map-root-user
    exec unshare $as_root --mount --net -- "$0" --inside "$@"
fi
shift

# Held open, since it may lie below /tmp.
exec 3<"$1"
shift

ip link set lo up
mount -t tmpfs tmpfs /tmp
# All of /etc, since a minimal system has no file of hosts to mount another one over.
cp -R /etc /tmp/etc 2>/dev/null || : # without what only root may read
rm -f /tmp/etc/hosts
printf '127.0.0.1 localhost api.corvale.example other.example\n' >/tmp/etc/hosts
mount --bind /tmp/etc /etc
unset http_proxy https_proxy all_proxy HTTP_PROXY HTTPS_PROXY ALL_PROXY

mkdir /tmp/certificates
cd /tmp/certificates
new="-newkey ec -pkeyopt ec_paramgen_curve:prime256v1 -nodes"
authority() { # NAME
    # shellcheck disable=SC2086 # a list of words is what is wanted
    openssl req -x509 $new -days 2 -subj "/CN=$1" -keyout "$1.key" -out "$1.pem"
}
certificate() { # NAME AUTHORITY DAYS HOST
    # shellcheck disable=SC2086
    openssl req $new -subj "/CN=$1" -addext "subjectAltName=DNS:$4" -keyout "$1.key" -out "$1.csr"
    openssl x509 -req -in "$1.csr" -copy_extensions copy -days "$3" -CA "$2.pem" -CAkey "$2.key" -out "$1.pem"
}
{
    authority trusted
    authority stranger
    certificate good trusted 2 "localhost,DNS:api.corvale.example"
    certificate wrong-host trusted 2 other.example
    certificate expired trusted -1 localhost
    certificate untrusted stranger 2 localhost
} 2>openssl.log || { cat openssl.log >&2; exit 1; }
cd /

exec /proc/self/fd/3 "$@"
