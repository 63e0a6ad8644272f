# SPDX-License-Identifier: MIT
"""The yardstick: the same work without window, helper or bus. Two HTTPS requests, OpenVPN started directly, and its
management port asked as fast as it answers, until CONNECTED.
"""
import json
import socket
import statistics
import subprocess
import time
import typing
import urllib.request

from session import Failure

BASE = "https://api.corvale.example/api/"
CONFIGURATION = "/run/lab/plain.ovpn"
SCRIPTS = "/usr/libexec/corvale/"


def request(address: str, body: bytes | None = None, headers: dict[str, str] | None = None) -> typing.Any:
    with urllib.request.urlopen(urllib.request.Request(BASE + address, body, headers or {})) as answer:
        return json.load(answer)


def profile() -> str:
    """The configuration that the account service has for the person."""
    body = json.dumps({"email": "ana@example.com", "password": "secret"}).encode()
    token = request("login", body, {"Content-Type": "application/json"})["access_token"]
    return request("profile?country_code=CO", headers={"Authorization": "Bearer " + token})["config"]


def management(openvpn: subprocess.Popen) -> socket.socket:
    while openvpn.poll() is None:
        try:
            return socket.create_connection(("127.0.0.1", 1337), timeout=30)
        except ConnectionRefusedError:
            pass
    raise Failure(f"OpenVPN ended at once, with status {openvpn.returncode}")


def connect_once() -> float:
    """Seconds from the first request until CONNECTED. The tunnel is taken down again."""
    began = time.monotonic()
    with open(CONFIGURATION, "w", encoding="utf-8") as file:
        file.write(profile())
    openvpn = subprocess.Popen(
        ["openvpn", "--config", CONFIGURATION, "--management", "127.0.0.1", "1337", "--management-query-passwords",
         "--script-security", "2", "--up", SCRIPTS + "client.up", "--down", SCRIPTS + "client.down"],
        stdout=subprocess.DEVNULL,
    )
    with management(openvpn) as port, port.makefile("rw", newline="\n") as lines:
        lines.write("state on\nbytecount 1\nlog on\nusername 'Auth' ana@example.com\npassword 'Auth' secret\n")
        lines.flush()
        for line in lines:
            if line.startswith(">STATE:") and line.split(",")[1] == "CONNECTED":
                break
        else:
            raise Failure("OpenVPN ended before it was connected")
        took = time.monotonic() - began
        lines.write("signal SIGINT\n")
        lines.flush()
        openvpn.wait(20)
    return took


def measure(times: int = 3) -> float:
    return statistics.median(connect_once() for _ in range(times))
