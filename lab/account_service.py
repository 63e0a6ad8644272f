# SPDX-License-Identifier: MIT
"""The account service, https://api.corvale.example/api/: signs subscribers in and hands out their configuration.

usage: account_service.py LOG        one line for each answer: time, method, path, status
"""
import http.server
import json
import os
import secrets
import socket
import ssl
import sys
import time
import typing
from urllib.parse import parse_qs, urlsplit

KEYS = "/etc/lab/"
HOLD = "/run/lab/hold"  # while it is there, no sign-in is answered
REFUSED = "/run/lab/no_profile"  # while it is there, nobody is given a configuration
OTHER = "/run/lab/profile.ovpn"  # a scenario's own configuration, handed out instead
# The second subscriber may sign in, but the OpenVPN server does not know the password.
PASSWORDS = {"ana@example.com": "secret", "berta@example.com": "expired"}
GARBLED = "closed for maintenance"  # signs in nobody, and is answered with something that makes no sense
TOKENS = set()


def inline(tag: str, name: str) -> str:
    with open(KEYS + name, encoding="ascii") as file:
        return f"<{tag}>\n{file.read().strip()}\n</{tag}>\n"


def configuration() -> str:
    if os.path.exists(OTHER):
        with open(OTHER, encoding="utf-8", newline="") as file:
            return file.read()
    return (
        "client\ndev tun\nproto udp\nremote vpn.corvale.example 1194\nnobind\npersist-key\npersist-tun\n"
        "resolv-retry infinite\nremote-cert-tls server\nverify-x509-name vpn.corvale.example name\n"
        "auth-user-pass\nverb 3\n"
        + inline("ca", "tunnel_authority.crt")
        + inline("tls-crypt", "tunnel_shared.key")
    )


class Handler(http.server.BaseHTTPRequestHandler):
    protocol_version = "HTTP/1.1"
    # An answer goes out in two writes; without this the second waits for the first one's acknowledgement.
    disable_nagle_algorithm = True

    def do_POST(self) -> None:
        body = self.rfile.read(int(self.headers.get("Content-Length", 0)))
        try:
            sent = json.loads(body)
        except ValueError:
            sent = None
        if os.path.exists(HOLD):
            print(f"{time.time():.6f} asked {self.path} held", file=LOG)
            while os.path.exists(HOLD):
                time.sleep(0.02)
        if self.path != "/api/login" or not self.headers.get("Content-Type", "").startswith("application/json"):
            return self.answer(404, {"error": "no such address"})
        if not isinstance(sent, dict) or sorted(sent) != ["email", "password"]:
            return self.answer(400, {"error": "not a sign-in"})
        if sent["password"] == GARBLED:
            return self.answer(200, GARBLED)
        if PASSWORDS.get(sent["email"]) != sent["password"]:
            return self.answer(401, {"error": "unknown subscriber or password"})
        token = secrets.token_urlsafe(24)
        TOKENS.add(token)
        return self.answer(200, {"access_token": token})

    def do_GET(self) -> None:
        url = urlsplit(self.path)
        if url.path != "/api/profile" or parse_qs(url.query) != {"country_code": ["CO"]}:
            return self.answer(404, {"error": "no such address"})
        if os.path.exists(REFUSED):
            return self.answer(403, {"error": "no subscription"})
        if self.headers.get("Authorization", "").removeprefix("Bearer ") not in TOKENS:
            return self.answer(401, {"error": "sign in first"})
        return self.answer(200, {"config": configuration(), "country": "CO"})

    def answer(self, status: int, document: typing.Any) -> None:
        body = json.dumps(document).encode()
        self.send_response(status)
        self.send_header("Content-Type", "application/json")
        self.send_header("Content-Length", str(len(body)))
        self.end_headers()
        self.wfile.write(body)

    def log_request(self, code: int | str = "-", size: int | str = "-") -> None:
        print(f"{time.time():.6f} {self.command} {urlsplit(self.path).path} {int(code)}", file=LOG)


class Server(http.server.ThreadingHTTPServer):
    def __init__(self) -> None:
        super().__init__(("203.0.113.10", 443), Handler)
        self.context = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
        self.context.load_cert_chain(KEYS + "account.crt", KEYS + "account.key")

    def finish_request(self, request: socket.socket, client_address: tuple[str, int]) -> None:
        # The handshake belongs to the connection's own thread: a silent peer must not hold up the others.
        try:
            secured = self.context.wrap_socket(request, server_side=True)
        except OSError as error:
            print("no handshake:", error, file=sys.stderr)
            return
        with secured:
            super().finish_request(secured, client_address)


with open(sys.argv[1], "a", buffering=1, encoding="utf-8") as LOG:
    Server().serve_forever()
