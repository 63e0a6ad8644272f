# SPDX-License-Identifier: MIT
"""The networks that the machine can be in, how it comes and goes as with a network manager, and what it sends there."""
import contextlib
import errno
import os
import ipaddress
import pathlib
import signal
import socket
import subprocess
import time
import typing
from collections.abc import Callable, Iterator

import machine
import plain
from gi.repository import Gio, GLib
from helper_calls import HANDED_OUT, hand_out
from session import BOOTED, log, wait_for
from stage import Stage
from victims import server_pid

HOST, HOST6 = "203.0.113.10", "2001:db8:ff::10"  # on the internet
NEIGHBOUR6 = "2001:db8:1::20"  # in the network at home
SERVER, SECOND_SERVER = "203.0.113.20", "203.0.113.21"
INTERNET = ("-n", "internet")
LOGIN, LOGIN_PATH = "org.freedesktop.login1", "/org/freedesktop/login1"
OUTGOING = 4  # PACKET_OUTGOING
LASTING = 2  # seconds with every answer


class Network(typing.NamedTuple):
    link: str
    peer: str  # the link's other end
    prefix: str
    prefix6: str

    @property
    def gateway(self) -> str:
        """Also its name server."""
        return self.prefix + "1"


HOME = Network("wan", "home", "198.51.100.", "2001:db8:1::")
CAFE = Network("cafe", "street", "192.0.2.", "2001:db8:2::")
BEFORE: dict[Network, tuple[str, list[str]]] = {}  # name servers and routes of each, without a tunnel


def ip(*words: str, check: bool = True) -> None:
    subprocess.run(["ip", *words], check=check, stderr=None if check else subprocess.DEVNULL)


def build() -> None:
    """Makes the second network, whose addresses nobody outside of it answers to, and what each has on the internet."""
    ip("link", "add", CAFE.link, "type", "veth", "peer", "name", CAFE.peer, "netns", "internet")
    ip(*INTERNET, "address", "add", f"{CAFE.gateway}/24", "dev", CAFE.peer)
    ip(*INTERNET, "link", "set", CAFE.peer, "up")
    ip(*INTERNET, "rule", "add", "iif", CAFE.peer, "to", "10.77.0.0/24", "prohibit")
    for host in (f"{SECOND_SERVER}/32", f"{HOST6}/128"):
        ip(*INTERNET, "address", "add", host, "dev", "lo")
    for network, other in ((HOME, CAFE), (CAFE, HOME)):
        # A sender with another network's address is not let out.
        for setting in (f"net.ipv4.conf.{network.peer}.rp_filter=1", "net.ipv6.conf.all.forwarding=1"):
            subprocess.run(["ip", "netns", "exec", "internet", "sysctl", "-qw", setting], check=True)
        ip(*INTERNET, "address", "add", f"{network.prefix6}1/64", "dev", network.peer, "nodad")
        ip(*INTERNET, "rule", "add", "pref", "0", "iif", network.peer, "to", f"{other.prefix}0/24", "prohibit")
    ip(*INTERNET, "address", "add", f"{NEIGHBOUR6}/64", "dev", HOME.peer, "nodad")
    for network in (CAFE, HOME):
        leave(HOME)
        join(network)
        BEFORE[network] = machine.name_servers(), machine.settled_routes()
        leave(CAFE)
    machine.before.cache_clear()
    machine.before()


def join(network: Network, metric: int = 100) -> None:
    """Addresses, way out, name server. A tunnel's default route has the metric 0, like one made by hand."""
    ip("link", "set", network.link, "up")
    ip("address", "replace", f"{network.prefix}2/24", "dev", network.link)
    ip("route", "del", "default", "dev", network.link, check=False)
    ip("route", "add", "default", "via", network.gateway, "dev", network.link, "metric", str(metric))
    name_server(network, network.gateway)


def leave(network: Network) -> None:
    ip("link", "set", network.link, "down")
    ip("address", "flush", "dev", network.link)
    name_server(network, None)


def name_server(network: Network, address: str | None) -> None:
    """Told to whoever keeps the name servers; a file is replaced whole."""
    if machine.resolver() == "resolved":
        if not address:
            subprocess.run(["resolvectl", "revert", network.link], check=True)
            return
        subprocess.run(["resolvectl", "dns", network.link, address], check=True)
        subprocess.run(["resolvectl", "default-route", network.link, "yes"], check=True)
    elif machine.resolver() == "resolvconf":
        subprocess.run(["resolvconf", "-a" if address else "-d", f"{network.link}.lab"], check=True, text=True,
                       input=f"nameserver {address}\n")
    elif address or (HOME if network == CAFE else CAFE).gateway not in machine.name_servers():
        new = pathlib.Path("/etc/resolv.conf.lab")
        new.write_text(f"nameserver {address}\n" if address else "", encoding="ascii")
        new.rename(machine.RESOLVER)


def ipv6(on: bool, network: Network = HOME) -> None:
    """The network's second family, which the machine has not until it is asked for."""
    what = "add" if on else "del"
    ip("-6", "address", what, f"{network.prefix6}2/64", "dev", network.link, *(["nodad"] if on else []), check=on)
    ip("-6", "route", what, "default", "via", f"{network.prefix6}1", "dev", network.link, check=on)


def serve(**variant: str) -> None:
    """The OpenVPN server starts over, as openvpn_server.sh can be told in its environment."""
    if server_pid():
        machine.server("crash")
    start_server(**variant)


def start_server(**variant: str) -> None:
    machine.server("start", **variant)
    wait_for("the OpenVPN server", lambda: "Initialization Sequence Completed" in log("server"))


def tunnel(stage: Stage, protocol: str = "udp", edit: tuple[str, str] = ("", ""), **variant: str) -> int:
    """Is up, with the times that servers push and an edited profile; returns OpenVPN's process."""
    serve(**{"PROTOCOL": protocol, "KEEPALIVE": "10 60"} | variant)
    HANDED_OUT.unlink(missing_ok=True)
    hand_out(plain.profile().replace("proto udp", f"proto {protocol}").replace(*edit, 1))
    stage.connect()
    return machine.openvpn_pid()


def returned(limit: float) -> float:
    """Seconds from now until the page behind the tunnel is in reach for good: OpenVPN may connect again although its
    old connection works, once the way is mended."""
    began, answered = time.monotonic(), None
    while not answered or time.monotonic() < answered + LASTING:
        if answers(machine.INSIDE):
            answered = answered or time.monotonic()
            time.sleep(0.05)
        else:
            answered = None
            assert time.monotonic() < began + limit, f"no answer through the tunnel within {limit} s"
    return answered - began


def reset() -> None:
    """Home, as it was, whatever there is."""
    while pid := machine.openvpn_pid():
        os.kill(pid, signal.SIGKILL)
    for network in (CAFE, HOME):
        leave(network)
    ip("-6", "route", "flush", "type", "unreachable", check=False)
    join(HOME)
    serve()


def wake_up() -> None:
    """As the login manager announces it: the real one is made to believe that the machine can sleep, and where there is
    none somebody speaks in its name."""
    if BOOTED:
        unit = pathlib.Path("/run/systemd/system/systemd-suspend.service.d")
        unit.mkdir(parents=True, exist_ok=True)
        (unit / "lab.conf").write_text("[Service]\nExecStart=\nExecStart=/bin/true\n", encoding="ascii")
        pathlib.Path("/run/lab/power").write_text("mem", encoding="ascii")
        inside = "nsenter -m -t $(systemctl show -P MainPID systemd-logind)"
        for command in ("systemctl daemon-reload", f"{inside} mount --bind /run/lab/power /sys/power/state",
                        f"busctl call {LOGIN} {LOGIN_PATH} {LOGIN}.Manager Suspend b false"):
            subprocess.run(command, shell=True, check=True)
        return
    bus = Gio.bus_get_sync(Gio.BusType.SYSTEM)
    own, leave_it = GLib.Variant("(su)", (LOGIN, 4)), GLib.Variant("(s)", (LOGIN,))
    for member, name in (("RequestName", own), ("ReleaseName", leave_it)):
        bus.call_sync("org.freedesktop.DBus", "/", "org.freedesktop.DBus", member, name, None, 0, -1)
        for asleep in (True, False) if member == "RequestName" else ():
            bus.emit_signal(None, LOGIN_PATH, f"{LOGIN}.Manager", "PrepareForSleep", GLib.Variant("(b)", (asleep,)))


@contextlib.contextmanager
def names(servers: dict[str, str]) -> Iterator[None]:
    """What is known of the OpenVPN servers' names while this lasts."""
    hosts = pathlib.Path("/etc/hosts")
    before = hosts.read_text(encoding="ascii")
    others = [line for line in before.splitlines() if "vpn" not in line]
    known = [f"{address} {name}\n" for name, address in servers.items()]
    hosts.write_text("\n".join(others) + "\n" + "".join(known), encoding="ascii")
    try:
        yield
    finally:
        hosts.write_text(before, encoding="ascii")


def handshakes() -> int:
    return log("server").count("Peer Connection Initiated")


def answers(host: str) -> bool:
    return not subprocess.run(["ping", "-n", "-c1", "-W0.3", host], capture_output=True, check=False).returncode


def reaches(host: str) -> bool:
    """Whether a TCP connection gets there and back, be it refused."""
    with socket.socket(socket.AF_INET6 if ":" in host else socket.AF_INET) as probe:
        probe.settimeout(1)
        return probe.connect_ex((host, 443)) in (0, errno.ECONNREFUSED)


@contextlib.contextmanager
def overheard(*networks: Network) -> Iterator[Callable[[], set[str]]]:
    """To whom but an OpenVPN server something is sent while this lasts, as the links see it."""
    with contextlib.ExitStack() as stack:
        kind = socket.AF_PACKET, socket.SOCK_RAW, socket.htons(3)
        ears = [stack.enter_context(socket.socket(*kind)) for _ in networks]
        for ear, network in zip(ears, networks):
            ear.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 1 << 22)
            ear.bind((network.link, 3))
            ear.setblocking(False)
        yield lambda: {to for ear in ears for to in receivers(ear)} - {SERVER, SECOND_SERVER}


def receivers(ear: socket.socket) -> Iterator[str]:
    while True:
        try:
            frame, (_, kind, packet, *_) = ear.recvfrom(100)
        except BlockingIOError:
            return
        except OSError:  # once for each time that the link went down
            continue
        where = {0x0800: slice(30, 34), 0x86DD: slice(38, 54)}.get(kind)
        to = ipaddress.ip_address(frame[where]) if where and packet == OUTGOING else None
        if to and not to.is_multicast:
            yield str(to)
