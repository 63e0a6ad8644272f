# SPDX-License-Identifier: MIT
"""A client that comes back to a running tunnel, and configurations as services hand them out."""
import pathlib

import machine
import plain
import pytest
from helper_calls import CANONICAL, hand_out
from stage import Stage

REMOTE = "remote vpn.corvale.example 1194\n"
SERVERS = "".join(f"<connection>\nremote {host} 1194 udp\nconnect-timeout 2\n</connection>\n"
                  for host in ("203.0.113.99", "vpn.corvale.example"))


@pytest.mark.parametrize("old, new", [
    ("", ""), ("verb 3", "verb 4"), (REMOTE, SERVERS),
], ids=["the same", "another verb", "a dead server first"])
def test_the_next_client_takes_over_the_running_openvpn(stage: Stage, old: str, new: str) -> None:
    profile = plain.profile()
    stage.connect()
    pid, first = machine.openvpn_pid(), CANONICAL.read_text(encoding="utf-8")
    status = stage.client.end()
    print(f"  the client has quit (status {status}); the tunnel stays:")
    machine.check_connected()
    stage.start_client()
    hand_out(profile.replace(old, new, 1))
    stage.connect()
    assert machine.openvpn_pid() == pid, "it is another OpenVPN"
    assert (CANONICAL.read_text(encoding="utf-8") == first) == (old == new), "OpenVPN's file is not this profile's"
    stage.disconnect()


def test_a_client_that_signed_in_through_the_tunnel_connects_after_it(stage: Stage) -> None:
    stage.connect()
    stage.another_client()
    for _ in range(2):
        stage.connect()
        stage.disconnect()


def many_directives(own: str) -> str:
    """Line ends, marks, comments, quotes, lists, and what the helper drops, since the server does without it."""
    own = own.replace("dev tun", '--dev "tun"').replace("vpn.corvale.example name", "'vpn.corvale.example'\"name\"")
    own = own.replace(REMOTE, '\t"remote"\t"vpn.corvale.example""1194"\t# home\n')
    return ("\ufeff##\t Hecho para Ana, señora de su túnel\n;dev tap\nsetenv FORWARD_COMPATIBLE 1\n"
            "setenv CLIENT_CERT 0\nsetenv UV_ID 4f2c\nsetenv opt block-outside-dns\n"
            "setenv opt tls-cert-profile insecure\n" + own +
            "cipher AES-256-CBC\ndata-ciphers AES-256-GCM:AES-128-GCM:?CHACHA20-POLY1305\n"
            "ncp-ciphers AES-256-GCM:AES-128-GCM\ndata-ciphers-fallback AES-256-CBC\nauth SHA512\n"
            "tls-version-min 1.2\nblock-outside-dns\nregister-dns\nuser nobody\ngroup nogroup\nscript-security 2\n"
            "fast-io\nignore-unknown-option block-outside-dns\nauth-nocache\nroute-method exe\nnice -5\n"
            "explicit-exit-notify 2\nping 15\nping-restart 0\nping-timer-rem\nreneg-sec 0\nmssfix 1450\ntun-mtu 1500\n"
            "remote-random\nauth-retry nointeract").replace("\n", "\r\n")


def test_openvpn_connects_with_what_services_hand_out(stage: Stage) -> None:
    text = many_directives(plain.profile())
    hand_out(text)
    stage.connect()
    assert pathlib.Path("/tmp/corvale.ovpn").read_bytes() == text.encode(), "the client has another file"
    stage.disconnect()
