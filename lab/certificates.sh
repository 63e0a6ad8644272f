#!/bin/sh
# SPDX-License-Identifier: MIT
# The lab's own authorities, made anew each time: one that the account service's certificate is signed by, one for the
# tunnel, and the tunnel's shared key.
# usage: certificates.sh DIRECTORY
set -eu

umask 077
mkdir -p "$1"
cd "$1"

authority() { # NAME
    openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:prime256v1 -nodes -days 2 \
        -subj "/CN=Corvale lab $1" -addext keyUsage=critical,keyCertSign,cRLSign \
        -keyout "$1.key" -out "$1.crt" 2>/dev/null
}

certificate() { # AUTHORITY NAME HOST
    openssl req -newkey ec -pkeyopt ec_paramgen_curve:prime256v1 -nodes \
        -subj "/CN=$3" -keyout "$2.key" -out "$2.csr" 2>/dev/null
    printf 'subjectAltName=DNS:%s\nextendedKeyUsage=serverAuth\nkeyUsage=digitalSignature\n' "$3" >"$2.ext"
    openssl x509 -req -in "$2.csr" -CA "$1.crt" -CAkey "$1.key" -CAcreateserial -days 2 \
        -extfile "$2.ext" -out "$2.crt" 2>/dev/null
}

authority authority
certificate authority account api.corvale.example
authority tunnel_authority
certificate tunnel_authority tunnel vpn.corvale.example
openvpn --genkey tls-crypt tunnel_shared.key
