# SPDX-License-Identifier: MIT
"""The fault matrix: each part of the whole is killed, stopped and restarted in each phase of a connection."""
import time
import typing

import machine
import pytest
from helper_calls import HOLD
from phases import PHASES, go_on
from session import BOOTED, log, quiet, wait_for
from stage import CONNECTED, CONNECTING, STOPPED, Stage
from traces import check_as_before, nobody_waits_for
from victims import polkit_hung, start_over, victims

pytestmark = pytest.mark.slow
Rested = tuple[Stage, dict]
SLACK = 8  # seconds for a busy machine, on top of what the protocol takes


class Outcome(typing.NamedTuple):
    limit: float | None  # seconds that the protocol takes until the button knows; None where it is to stay as it is
    during: str  # the button while the fault lasts; nothing where the window itself is gone or still
    after: str   # and once it is over
    truth: str   # tunnel; OpenVPN (one runs, without a tunnel); nothing


# Somebody says so at once: a state line, a reply, a lost connection.
GOES_ON = Outcome(0, CONNECTED, CONNECTED, "tunnel")
ENDS = Outcome(0, STOPPED, STOPPED, "nothing")
# Nobody answers on the management port: eight attempts, 0.3 s apart.
GIVES_UP = Outcome(2.4, STOPPED, STOPPED, "nothing")
# A request that was on its way to one that was stopped starts OpenVPN when nobody waits for it any more.
LEAVES_ONE = Outcome(2.4, STOPPED, STOPPED, "OpenVPN")
# OpenVPN calls a server that does not answer again after 2, 4, 8 s.
CALLS_AGAIN = Outcome(8, CONNECTED, CONNECTED, "tunnel")
# OpenVPN takes a server for gone that has been silent for the 4 s that it pushed.
NOTICES = Outcome(4, CONNECTING, CONNECTED, "tunnel")
# No message has a time limit, or nobody asks for it in this phase.
WAITS = Outcome(None, CONNECTING, CONNECTED, "tunnel")
STAYS = Outcome(None, CONNECTED, CONNECTED, "tunnel")
ENDS_LATER = Outcome(None, CONNECTED, STOPPED, "nothing")
# A request to the account service may be idle for 60 s.
TIMES_OUT = Outcome(60, STOPPED, STOPPED, "nothing")
UNSEEN = Outcome(None, "", CONNECTED, "tunnel")
# OpenVPN goes on without her if it had the password, and her next click takes over.
LEFT = {truth: Outcome(None, "", STOPPED, truth) for truth in ("nothing", "OpenVPN", "tunnel")}


class Cell(typing.NamedTuple):
    victim: str
    how: str
    phase: str
    outcome: Outcome

    def __str__(self) -> str:
        return f"{self.victim} {self.how} while {self.phase}"


ALL = "killed stopped restarted"
TABLE = [Cell(victim, how, phase, outcome) for phase, rows in {
    "signing in": [  # there is no OpenVPN yet
        ("client", "killed restarted", LEFT["nothing"]), ("client", "stopped", UNSEEN),
        ("helper", "killed restarted", GOES_ON), ("helper", "stopped", LEAVES_ONE),
        ("account service", "killed restarted", ENDS), ("account service", "stopped", WAITS),
        ("system bus", "killed", GIVES_UP), ("system bus", "stopped", LEAVES_ONE), ("system bus", "restarted", GOES_ON),
        ("polkit", "killed restarted", GOES_ON), ("polkit", "stopped", LEAVES_ONE),
        ("OpenVPN server", "killed stopped", WAITS), ("OpenVPN server", "restarted", GOES_ON)],
    "starting": [
        ("client", "killed restarted", LEFT["OpenVPN"]), ("client", "stopped", UNSEEN),
        ("helper", "killed restarted", GIVES_UP), ("helper", "stopped", GOES_ON),
        ("account service", ALL, GOES_ON),
        ("system bus", "killed restarted", GIVES_UP), ("system bus", "stopped", GOES_ON),
        ("polkit", ALL, GOES_ON),
        ("OpenVPN server", "killed stopped", WAITS), ("OpenVPN server", "restarted", CALLS_AGAIN)],
    "listening": [("OpenVPN", "killed", GIVES_UP), ("OpenVPN", "stopped", WAITS), ("OpenVPN", "restarted", GOES_ON)],
    "authenticating": [("client", "killed", LEFT["tunnel"]), ("helper", "killed", ENDS), ("OpenVPN", "killed", ENDS)],
    "connecting": [
        ("client", "killed restarted", LEFT["tunnel"]), ("client", "stopped", UNSEEN),
        ("helper", "killed restarted", ENDS), ("helper", "stopped", WAITS),
        ("OpenVPN", "killed", ENDS), ("OpenVPN", "stopped restarted", WAITS), ("gate", "killed", ENDS),
        ("account service", ALL, WAITS),
        ("system bus", "killed restarted", ENDS), ("system bus", "stopped", WAITS),
        ("polkit", ALL, WAITS),
        ("OpenVPN server", "killed stopped", WAITS), ("OpenVPN server", "restarted", CALLS_AGAIN)],
    "connected": [
        ("client", "killed restarted", LEFT["tunnel"]), ("client", "stopped", UNSEEN),
        ("helper", "killed restarted", ENDS), ("helper", "stopped", STAYS),
        ("OpenVPN", "killed", ENDS), ("OpenVPN", "stopped", STAYS), ("OpenVPN", "restarted", GOES_ON),
        ("account service", ALL, STAYS),
        ("system bus", "killed restarted", ENDS), ("system bus", "stopped", STAYS),
        ("polkit", ALL, STAYS),
        ("gate", "killed", ENDS), ("gate", "stopped", STAYS),
        # One that ends in good order has OpenVPN forget the password, which the gate gives again.
        ("OpenVPN server", "killed stopped", NOTICES), ("OpenVPN server", "restarted", GOES_ON)],
    "disconnecting": [
        ("client", ALL, LEFT["nothing"]),
        ("OpenVPN", "killed restarted", ENDS), ("OpenVPN", "stopped", ENDS_LATER),
        *((victim, ALL, ENDS) for victim in ("helper", "account service", "system bus", "polkit", "OpenVPN server"))],
}.items() for victim, hows, outcome in rows for how in hows.split()]
TABLE.append(Cell("account service", "stopped for good", "signing in", TIMES_OUT))


def invalidations() -> int:
    return log("system").count("XPC Connection Invalidated")


def truth() -> str:
    if not machine.openvpn_pid():
        return "nothing"
    return "tunnel" if machine.reply_from_inside() else "OpenVPN"


def shown(stage: Stage, wanted: str, limit: float) -> None:
    """Waits for the button's title. Told by seconds, as the clock goes while it waits."""
    wait_for(f'the button to show "{wanted}"', lambda: stage.title() == wanted, limit + SLACK)


def while_it_lasts(stage: Stage, outcome: Outcome) -> None:
    if outcome.limit is not None:
        return shown(stage, outcome.during, outcome.limit)
    time.sleep(1)
    if outcome.during:
        assert stage.title() == outcome.during


def afterwards(stage: Stage, outcome: Outcome) -> None:
    shown(stage, outcome.after, 20 if outcome.after == CONNECTED else 0)  # a silent server is called after 2, 4, 8 s

    def agreed() -> bool:
        return (truth(), stage.title()) == (outcome.truth, outcome.after)

    # It must not change its mind when the machine has come to rest. The reader looks ten times a second.
    wait_for(f'truth and button to be: {outcome.truth}, "{outcome.after}"', agreed, 12)
    time.sleep(0.2)
    assert agreed(), f'in the end the button shows "{stage.title()}" and the truth is: {truth()}'


def go_through(stage: Stage, before: dict, cell: Cell) -> Outcome:
    """What the table shows of it; returns what came."""
    victim, how, phase, outcome = cell
    seen, noticed, said = len(stage.states()), invalidations(), len(log("system"))
    since, lines = time.time(), stage.client.lines
    PHASES[phase](stage)
    heal = victims(stage)[victim].hit(how.split()[0])
    # A client that was not hit within its first 0.3 s has given the password, and OpenVPN goes on without it.
    if outcome == LEFT["OpenVPN"] and any(when >= since and line.startswith("password ") for when, line in lines):
        outcome = LEFT["tunnel"]
    lost = victim == "system bus" and how != "stopped"
    try:
        if lost and phase == "signing in":
            wait_for("the client to notice the lost bus", lambda: invalidations() > noticed)
        # OpenVPN ignores the signal until it has had its password, and once it is ending.
        if (victim, how) == ("OpenVPN", "restarted") and phase in ("connecting", "connected"):
            wait_for("OpenVPN's restart", lambda: "SIGHUP[" in log("system")[said:])
        HOLD.unlink(missing_ok=True)
        while_it_lasts(stage, outcome)
        if (victim, phase, outcome.after) == ("account service", "signing in", STOPPED):
            assert stage.person.do("alert")["text"] == "Network connection failed"
            stage.person.do("click", name="OK")
        heal()
        go_on()
        afterwards(stage, outcome)
    except AssertionError:
        heal()
        go_on()
        # An OpenVPN that ended before it reported any state left no trace in the client, whose form waits for the
        # first one: its end is announced only where it changes the state.
        early = phase in ("starting", "listening", "authenticating") and not stage.states()[seen:]
        if not early or outcome.truth != "nothing":
            raise
        outcome = outcome._replace(during=CONNECTING)
        wait_for("OpenVPN's end", lambda: truth() == "nothing")
    if lost:
        wait_for("the client to notice the lost bus", lambda: invalidations() > noticed)
    # Where the connection does not go on by itself, the next click makes it.
    if outcome.after != CONNECTED:
        stage.connect_again()
    stage.disconnect()
    check_as_before(stage, before)
    return outcome


@pytest.mark.parametrize("cell", TABLE, ids=str)
def test_the_button_tells_the_truth_and_nothing_is_left(rested: Rested, cell: Cell) -> None:
    if BOOTED and (cell.victim, cell.how) == ("system bus", "killed"):
        # systemd starts the bus again as soon as somebody turns to it.
        restarted = (cell.victim, "restarted", cell.phase)
        cell = cell._replace(outcome=next(each.outcome for each in TABLE if each[:3] == restarted))
    began, since = time.monotonic(), len(log("system"))
    for again in (True, False):
        try:
            with quiet():
                came = go_through(*rested, cell)
            break
        except (AssertionError, OSError):
            # What polkit itself did wrong counts against nobody, once.
            hung = again and polkit_hung(since)
            with quiet():
                start_over(rested[0])
            if not hung:
                raise
            print("  polkit's rules hung (in its words, a runaway script), so once more")
    meanwhile = f'meanwhile "{came.during}", ' if came.during else ""
    print(f'  {meanwhile}afterwards "{came.after}", and there is: {came.truth}; {time.monotonic() - began:.1f} s')


def test_every_process_that_ended_was_waited_for(rested: Rested) -> None:
    assert not nobody_waits_for()
