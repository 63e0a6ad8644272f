# SPDX-License-Identifier: MIT
"""What can be seen of the private machine from inside: tunnel, traffic, names, and its OpenVPN server."""
import functools
import glob
import os
import pathlib
import subprocess
import time
import urllib.error
import urllib.request

from session import HERE, Failure, wait_for

RESOLVER = pathlib.Path("/etc/resolv.conf")
KEPT = pathlib.Path("/etc/resolv.conf.corvale")
INSIDE = "10.77.0.1"


def routes() -> list[str]:
    """Every route and every rule, of both families."""
    return subprocess.run("ip route show table all; ip -6 route show table all; ip rule; ip -6 rule", shell=True,
                          capture_output=True, text=True, check=True).stdout.splitlines()


def settled_routes() -> list[str]:
    """A new address has its routes only when it is sure that nobody else has it."""
    tentative = ["ip", "-6", "-o", "address", "show", "tentative"]
    wait_for("the addresses", lambda: not subprocess.run(tentative, capture_output=True, check=True).stdout)
    return routes()


def resolver() -> str:
    """Who keeps the name servers: resolved, resolvconf, or nobody but those who write the file."""
    if os.path.isdir("/run/systemd/resolve"):
        return "resolved"
    return "resolvconf" if os.path.isdir("/run/resolvconf") else "file"


def name_servers() -> str:
    """The file that programs read, and what resolved asks for whom."""
    said = RESOLVER.read_text(encoding="utf-8")
    if resolver() == "resolved":
        for what in ("dns", "domain"):
            said += subprocess.run(["resolvectl", what], capture_output=True, text=True, check=True).stdout
    return said


@functools.cache
def before() -> tuple[str, list[str]]:
    """The name servers and the routes of a machine without a tunnel: as they were when this was first asked."""
    return name_servers(), settled_routes()


def tunnel_interfaces() -> list[str]:
    return [path.split("/")[-1] for path in glob.glob("/sys/class/net/tun*")]


MANAGEMENT = "/run/corvale/management"


def openvpn_pid() -> int | None:
    """The client's OpenVPN process, the one that serves the helper's management socket, or None."""
    for path in pathlib.Path("/proc").glob("[0-9]*"):
        try:
            arguments = (path / "cmdline").read_bytes().split(b"\0")
        except OSError:
            continue
        if MANAGEMENT.encode() in arguments and arguments[0].endswith(b"openvpn"):
            return int(path.name)
    return None


def management_listens() -> bool:
    return any(line.endswith(f" {MANAGEMENT}") for line in pathlib.Path("/proc/net/unix").read_text().splitlines())


def openvpn_started() -> float | None:
    """When the client's OpenVPN process began, or None."""
    try:
        ticks = int(pathlib.Path(f"/proc/{openvpn_pid()}/stat").read_text().rsplit(")", 1)[1].split()[19])
    except (OSError, IndexError):
        return None
    return time.time() - float(pathlib.Path("/proc/uptime").read_text().split()[0]) + ticks / 100


def reply_from_inside() -> str | None:
    """What the page behind the tunnel says, or None where it cannot be reached."""
    try:
        with urllib.request.urlopen(f"http://{INSIDE}/", timeout=2) as page:
            return page.read().decode().strip()
    except (urllib.error.URLError, OSError):
        return None


def ping() -> str | None:
    """What ping says of a reply through the tunnel, or None without one."""
    done = subprocess.run(["ping", "-c1", "-W5", INSIDE], capture_output=True, text=True, check=False)
    return None if done.returncode else next(line for line in done.stdout.splitlines() if "time=" in line)


def check_connected() -> None:
    """Traffic, both kinds, goes through the tunnel, and names are asked of the server behind it."""
    answered = ping()
    assert answered, "no ping through the tunnel"
    print("  ping:", answered)
    reply = wait_for("the page behind the tunnel", reply_from_inside)
    print("  page behind the tunnel:", reply)
    assert reply.startswith("You are 10.8.0."), "the page was not reached through the tunnel"
    servers = wait_for("the pushed name server", lambda: "10.77.0.1" in name_servers() and name_servers())
    print(f"  {resolver()}:", " ".join(line for line in servers.splitlines() if "10.77.0.1" in line))


def check_gone(then: tuple[str, list[str]] | None = None) -> None:
    """No OpenVPN, no tunnel, no way inside, and the name servers and routes of before."""
    servers, ways = then or before()
    wait_for("OpenVPN's end", lambda: not openvpn_pid())
    wait_for("the tunnel's end", lambda: not tunnel_interfaces())
    try:
        wait_for("the name servers of before", lambda: name_servers() == servers, 10)
    except Failure:
        raise Failure(f"the name servers are not those of before:\n{name_servers()}\nbut were\n{servers}") from None
    try:
        wait_for("the routes of before", lambda: routes() == ways, 5)
    except Failure:
        changed = sorted(set(routes()).symmetric_difference(ways))
        raise Failure(f"the routes are not those of before: {changed}") from None
    assert not reply_from_inside(), "the page behind the tunnel is reached without a tunnel"
    assert not KEPT.exists(), "the copy of /etc/resolv.conf is still there"
    print("  OpenVPN and tunnel are gone; /etc/resolv.conf, routes and rules are as before")


def server(what: str, **variant: str) -> None:
    subprocess.run([HERE / "openvpn_server.sh", what], check=True, env=os.environ | variant)
