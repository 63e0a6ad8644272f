# SPDX-License-Identifier: MIT
"""A tunnel that outlives its network: gaps, moves, wake-ups, a server that goes away; and what leaves meanwhile."""
import os
import signal
import time
from collections.abc import Iterator

import machine
import networks
import pytest
from growth import STEADY, Growth
from helper_calls import HANDED_OUT, HELPER, call, helper_pid
from networks import BEFORE, CAFE, HOME, HOST, HOST6, NEIGHBOUR6, handshakes, ip, overheard
from session import wait_for
from stage import CONNECTED, CONNECTING, STOPPED, Stage
from traces import check_as_before, settled_traces

slow = pytest.mark.slow
NAMES = "vpn.corvale.example", "vpn2.corvale.example"
SWIFT, RETURN = 3, 12  # seconds from the network's, and from the server's return until the tunnel's


@pytest.fixture(scope="module", autouse=True)
def second_network() -> None:
    networks.build()


@pytest.fixture(autouse=True)
def at_home() -> Iterator[None]:
    """Whatever came of a test, the next one begins at home, with the server as it was and without a tunnel."""
    yield
    HANDED_OUT.unlink(missing_ok=True)
    call("ana", f"{HELPER}.killOpenVPN")
    networks.reset()


def back(what: str, limit: float) -> None:
    """Traffic and name servers; the figure is shown even where it is too much."""
    took = networks.returned(2 * limit)
    print(f"  figure: {what}: answered after {took:.2f} s (at most {limit})")
    assert took <= limit
    machine.check_connected()


def shows(stage: Stage, title: str, limit: float = 5) -> None:
    wait_for(f'the button to show "{title}"', lambda: stage.title() == title, limit)


CORE = [(1, "udp", HOME, True), (1, "udp", CAFE, True)]
GAPS = CORE + [(1, "tcp", HOME, True), (1, "tcp", CAFE, True), (8, "udp", HOME, False), (8, "udp", CAFE, False)] + [
    (8, protocol, to, True) for protocol in ("udp", "tcp") for to in (HOME, CAFE)]  # a minute: network-figures


@pytest.mark.parametrize("gap, protocol, to, persist", [
    pytest.param(*row, marks=pytest.mark.system if row in CORE else slow,
                 id=f"{row[0]} s, {row[1]}, {row[2].link}{'' if row[3] else ', no persist-tun'}") for row in GAPS])
def test_the_tunnel_is_back_soon_after_the_network(
        stage: Stage, gap: int, protocol: str, to: networks.Network, persist: bool) -> None:
    pid = networks.tunnel(stage, protocol, ("", "") if persist else ("persist-tun\n", ""))
    networks.leave(HOME)
    time.sleep(gap)
    networks.join(to)
    back(f"gap of {gap} s, {protocol}, {to.link}, persist-tun {persist}", SWIFT)
    shows(stage, CONNECTED)
    assert machine.openvpn_pid() == pid, "it is another OpenVPN"
    stage.disconnect(BEFORE[to])


@slow
@pytest.mark.parametrize("variant", [{"SPLIT": "1"}, {"IPV6": "1"}, {"REDIRECT": ""}], ids=str)
def test_other_tunnels_move_as_well(stage: Stage, variant: dict[str, str]) -> None:
    networks.tunnel(stage, **variant)
    networks.leave(HOME)
    networks.join(CAFE)
    back(f"another network, {variant}", SWIFT)
    stage.disconnect(BEFORE[CAFE])


@slow
def test_the_tunnel_outlives_a_better_network_that_comes_and_goes(stage: Stage) -> None:
    networks.join(HOME, metric=600)
    home = machine.name_servers(), machine.settled_routes()
    networks.tunnel(stage)
    networks.join(CAFE, metric=100)
    back("a better network has come", SWIFT)
    networks.leave(CAFE)
    networks.join(HOME, metric=600)
    back("the better network has gone", SWIFT)
    stage.disconnect(home)


@pytest.mark.parametrize("how, protocol, away, variant", [
    pytest.param("stop", "udp", 2, {}, marks=pytest.mark.system), pytest.param("stop", "tcp", 2, {}, marks=slow),
    *(pytest.param(*row, marks=slow) for row in (
        ("crash", "tcp", 2, {}), ("crash", "udp", 8, {"KEEPALIVE": "1 4"}), ("crash", "udp", 80, {}),
        ("crash", "tcp", 80, {})))])
def test_the_tunnel_is_back_soon_after_its_server(
        stage: Stage, how: str, protocol: str, away: int, variant: dict[str, str]) -> None:
    pid = networks.tunnel(stage, protocol, **variant)
    with overheard(HOME) as heard:
        machine.server(how)
        until = time.monotonic() + away
        if away < 60:  # otherwise OpenVPN may need that long to notice
            shows(stage, CONNECTING, away + 4)
        while time.monotonic() < until:
            networks.reaches(HOST)
            time.sleep(0.2)
        networks.start_server(**{"PROTOCOL": protocol, "KEEPALIVE": "10 60"} | variant)
        back(f"server's {how}, {protocol}, away {away} s", RETURN)
        assert not (said := heard()), f"this left in the clear: {said}"
        shows(stage, CONNECTED)
        assert machine.openvpn_pid() == pid, "it is another OpenVPN"
        stage.disconnect()
        networks.reaches(HOST)
        assert HOST in heard(), "nothing would have been heard"


@slow
@pytest.mark.parametrize("servers, limit", [((networks.SERVER, networks.SECOND_SERVER), 20), (NAMES, 30)], ids=str)
def test_another_server_takes_over(stage: Stage, servers: tuple[str, str], limit: int) -> None:
    with networks.names(dict(zip(NAMES, (networks.SERVER, networks.SECOND_SERVER)))):
        remotes = "\n".join(f"remote {each} 1194" for each in servers)
        pid = networks.tunnel(stage, "udp", (f"remote {NAMES[0]} 1194", remotes), KEEPALIVE="1 4")
        ip("-n", "internet", "address", "del", f"{networks.SERVER}/32", "dev", "lo")
        try:
            back(f"another of {servers}", limit)
        finally:
            ip("-n", "internet", "address", "add", f"{networks.SERVER}/32", "dev", "lo")
        networks.leave(HOME)
        networks.join(CAFE)
        back("another network then", SWIFT)
        assert machine.openvpn_pid() == pid, "it is another OpenVPN"
    stage.disconnect(BEFORE[CAFE])


@slow
def test_no_name_has_to_be_found_from_inside_a_dead_tunnel(stage: Stage) -> None:
    networks.tunnel(stage)
    with networks.names({}):
        networks.leave(HOME)
        networks.join(CAFE)
        back("another network, without names", SWIFT)
    stage.disconnect(BEFORE[CAFE])


@slow
def test_a_click_ends_a_reconnect_at_once(stage: Stage) -> None:
    networks.tunnel(stage)
    machine.server("stop")
    shows(stage, CONNECTING)
    click = stage.person.do("click")["time"]
    took = stage.person.sees(STOPPED, click) - click
    machine.check_gone()
    print(f"  figure: click while reconnecting: {took:.2f} s, all gone after {time.time() - click:.2f} s (at most 3)")
    assert time.time() - click <= 3


@slow
def test_a_wake_up_makes_the_tunnel_anew(stage: Stage) -> None:
    pid, before = networks.tunnel(stage), handshakes()
    networks.wake_up()
    wait_for("a new handshake", lambda: handshakes() > before, 5)
    back("a wake-up", SWIFT)
    assert machine.openvpn_pid() == pid, "it is another OpenVPN"
    stage.disconnect()


@slow
@pytest.mark.parametrize("variant, killed, blocked, around", [
    ({}, False, True, False), ({}, True, True, False), ({"REDIRECT": ""}, False, True, False),
    ({"SPLIT": "1"}, False, False, True), ({"IPV6": "1"}, False, False, False)], ids=str)
def test_what_a_tunnel_does_not_carry_does_not_go_around_it(
        stage: Stage, variant: dict[str, str], killed: bool, blocked: bool, around: bool) -> None:
    networks.ipv6(True)
    before = machine.name_servers(), machine.settled_routes()
    assert networks.answers(HOST6) and networks.reaches(HOST6) and networks.answers(NEIGHBOUR6)
    networks.tunnel(stage, **variant)
    with overheard(HOME) as heard:
        reached = networks.reaches(HOST6)
        went = HOST6 in heard()
    ways = [way for way in machine.routes() if way.startswith("unreachable") and way not in before[1]]
    print(f"  figure: {variant}: IPv6 host reached: {reached}, around the tunnel: {went}; {ways}")
    assert (reached, went, bool(ways)) == (not blocked, around, blocked)
    assert networks.answers(NEIGHBOUR6), "the neighbour is out of reach"
    if killed:
        os.kill(machine.openvpn_pid(), signal.SIGKILL)
        machine.check_gone(before)
    else:
        stage.disconnect(before)
    assert networks.reaches(HOST6)


@slow
def test_what_does_not_concern_the_way_leaves_the_tunnel_alone(stage: Stage) -> None:
    pid, before = networks.tunnel(stage), handshakes()
    for _ in range(5):
        ip("link", "add", "guest", "type", "veth", "peer", "name", "guest-end")
        ip("address", "add", "172.19.0.1/16", "dev", "guest")
        ip("link", "set", "guest", "up")
        assert networks.answers(machine.INSIDE)
        ip("link", "del", "guest")
    time.sleep(12)  # a second try of the product's comes after ten
    assert (machine.openvpn_pid(), handshakes()) == (pid, before), "OpenVPN was restarted"
    machine.check_connected()
    stage.disconnect()


@slow
def test_a_link_that_flaps_is_survived(stage: Stage) -> None:
    pid = networks.tunnel(stage)
    for _ in range(100):
        networks.leave(HOME)
        time.sleep(0.05)
        networks.join(HOME)
        time.sleep(0.05)
    back("a link that flapped", SWIFT)
    assert machine.openvpn_pid() == pid, "it is another OpenVPN"
    stage.disconnect()


@slow
def test_many_moves_leave_nothing_behind(stage: Stage, request: pytest.FixtureRequest) -> None:
    stage.connect()
    stage.disconnect()
    before = settled_traces(stage)
    networks.tunnel(stage)
    helper = Growth("helper", helper_pid(), 256)
    moves = request.config.getoption("cycles") or 10
    for move in range(1, moves + 1):
        there, here = (HOME, CAFE) if move % 2 else (CAFE, HOME)
        networks.leave(there)
        networks.join(here)
        back(f"move {move}", SWIFT)
        print("  " + helper.take(move))
    if here == CAFE:
        networks.leave(CAFE)
        networks.join(HOME)
        back("home again", SWIFT)
    stage.disconnect()
    check_as_before(stage, before)
    assert moves <= STEADY or not helper.grown()
