# SPDX-License-Identifier: MIT
"""The fault matrix: each part of the whole is killed, stopped and restarted in each phase of a connection."""
import contextlib
import io
import os
import signal
import time
import typing

import machine
from helper_calls import HELPER, HOLD, call, expect, start_helper
from life_scenarios import connected_again, disconnecting, log, starting
from session import BOOTED, Failure, wait_for
from stage import ANA, Stage
from traces import check_as_before, nobody_waits_for, settled_traces
from victims import server_pid, victims, wake

STOPPED, CONNECTING, CONNECTED = "Conectar", "Conectando...", "Desconectar"
SLACK = 8  # seconds for a busy machine, on top of what the protocol takes

# Seconds that the protocol takes until the button knows, and why.
RULES = {
    "told": (0, "somebody says so at once: a state line, a reply, a lost connection"),
    "attempts": (2.4, "nobody answers on the management port: eight attempts, 0.3 s apart"),
    "calls": (8, "OpenVPN calls a server that does not answer again after 2, 4, 8 s"),
    "keepalive": (4, "OpenVPN takes a server for gone that has been silent for the 4 s that it pushed"),
    "HTTP": (60, "a request to the account service may be idle for 60 s"),
    "waits": (None, "no message has a time limit: the button stays as it is until the fault is over"),
    "unseen": (None, "the window itself is gone or still"),
    "unused": (None, "nobody asks for it in this phase: the button stays as it is"),
}


class Cell(typing.NamedTuple):
    phase: str
    victim: str
    how: str
    rule: str    # until what is shown meanwhile
    during: str  # the button while the fault lasts
    after: str   # and once it is over
    truth: str   # tunnel; OpenVPN (one runs, without a tunnel); nothing


def cells(phase, *rows):
    return [Cell(phase, victim, how, rule, during, after, truth)
            for victim, hows, rule, during, after, truth in rows for how in hows.split()]


ALL = "killed stopped restarted"
TABLE = [
    *cells("signing in",
           ("client", "killed restarted", "unseen", "", STOPPED, "nothing"),
           ("client", "stopped", "unseen", "", CONNECTED, "tunnel"),
           ("helper", "killed restarted", "told", CONNECTED, CONNECTED, "tunnel"),
           # A request that was on its way to one that was stopped starts OpenVPN when nobody waits for it any more.
           ("helper", "stopped", "attempts", STOPPED, STOPPED, "OpenVPN"),
           ("account service", "killed restarted", "told", STOPPED, STOPPED, "nothing"),
           ("account service", "stopped", "waits", CONNECTING, CONNECTED, "tunnel"),
           ("system bus", "killed", "attempts", STOPPED, STOPPED, "nothing"),
           ("system bus", "stopped", "attempts", STOPPED, STOPPED, "OpenVPN"),
           ("system bus", "restarted", "told", CONNECTED, CONNECTED, "tunnel"),
           ("polkit", "killed restarted", "told", CONNECTED, CONNECTED, "tunnel"),
           ("polkit", "stopped", "attempts", STOPPED, STOPPED, "OpenVPN"),
           ("OpenVPN server", "killed stopped", "waits", CONNECTING, CONNECTED, "tunnel"),
           ("OpenVPN server", "restarted", "told", CONNECTED, CONNECTED, "tunnel")),
    *cells("starting",
           ("client", "killed restarted", "unseen", "", STOPPED, "OpenVPN"),
           ("client", "stopped", "unseen", "", CONNECTED, "tunnel"),
           ("helper", "killed restarted", "attempts", STOPPED, STOPPED, "nothing"),
           ("helper", "stopped", "told", CONNECTED, CONNECTED, "tunnel"),
           ("OpenVPN", "killed", "attempts", STOPPED, STOPPED, "nothing"),
           ("OpenVPN", "stopped", "waits", CONNECTING, CONNECTED, "tunnel"),
           ("OpenVPN", "restarted", "told", CONNECTED, CONNECTED, "tunnel"),
           ("account service", ALL, "told", CONNECTED, CONNECTED, "tunnel"),
           ("system bus", "killed restarted", "attempts", STOPPED, STOPPED, "nothing"),
           ("system bus", "stopped", "told", CONNECTED, CONNECTED, "tunnel"),
           ("polkit", ALL, "told", CONNECTED, CONNECTED, "tunnel"),
           ("OpenVPN server", "killed stopped", "waits", CONNECTING, CONNECTED, "tunnel"),
           ("OpenVPN server", "restarted", "calls", CONNECTED, CONNECTED, "tunnel")),
    *cells("connecting",
           # It had the password already: OpenVPN goes on without her, and her next click takes over.
           ("client", "killed restarted", "unseen", "", STOPPED, "tunnel"),
           ("client", "stopped", "unseen", "", CONNECTED, "tunnel"),
           ("helper", "killed restarted", "told", STOPPED, STOPPED, "nothing"),
           ("helper", "stopped", "waits", CONNECTING, CONNECTED, "tunnel"),
           ("OpenVPN", "killed", "told", STOPPED, STOPPED, "nothing"),
           ("OpenVPN", "stopped restarted", "waits", CONNECTING, CONNECTED, "tunnel"),
           ("account service", ALL, "unused", CONNECTING, CONNECTED, "tunnel"),
           ("system bus", "killed restarted", "told", STOPPED, STOPPED, "nothing"),
           ("system bus", "stopped", "waits", CONNECTING, CONNECTED, "tunnel"),
           ("polkit", ALL, "unused", CONNECTING, CONNECTED, "tunnel"),
           ("OpenVPN server", "killed stopped", "waits", CONNECTING, CONNECTED, "tunnel"),
           ("OpenVPN server", "restarted", "calls", CONNECTED, CONNECTED, "tunnel")),
    *cells("connected",
           ("client", "killed restarted", "unseen", "", STOPPED, "tunnel"),
           ("client", "stopped", "unseen", "", CONNECTED, "tunnel"),
           ("helper", "killed restarted", "told", STOPPED, STOPPED, "nothing"),
           ("helper", "stopped", "unused", CONNECTED, CONNECTED, "tunnel"),
           ("OpenVPN", "killed", "told", STOPPED, STOPPED, "nothing"),
           ("OpenVPN", "stopped", "waits", CONNECTED, CONNECTED, "tunnel"),
           ("OpenVPN", "restarted", "told", CONNECTED, CONNECTED, "tunnel"),
           ("account service", ALL, "unused", CONNECTED, CONNECTED, "tunnel"),
           ("system bus", "killed restarted", "told", STOPPED, STOPPED, "nothing"),
           ("system bus", "stopped", "unused", CONNECTED, CONNECTED, "tunnel"),
           ("polkit", ALL, "unused", CONNECTED, CONNECTED, "tunnel"),
           ("OpenVPN server", "killed stopped", "keepalive", CONNECTING, CONNECTED, "tunnel"),
           # One that ends in good order has OpenVPN forget the password, which the client gives once.
           ("OpenVPN server", "restarted", "told", CONNECTING, CONNECTING, "OpenVPN")),
    *cells("disconnecting",
           ("client", ALL, "unseen", "", STOPPED, "nothing"),
           ("helper", ALL, "told", STOPPED, STOPPED, "nothing"),
           ("OpenVPN", "killed restarted", "told", STOPPED, STOPPED, "nothing"),
           ("OpenVPN", "stopped", "waits", CONNECTED, STOPPED, "nothing"),
           ("account service", ALL, "told", STOPPED, STOPPED, "nothing"),
           ("system bus", ALL, "told", STOPPED, STOPPED, "nothing"),
           ("polkit", ALL, "told", STOPPED, STOPPED, "nothing"),
           ("OpenVPN server", ALL, "told", STOPPED, STOPPED, "nothing")),
    Cell("signing in", "account service", "stopped for good", "HTTP", STOPPED, STOPPED, "nothing"),
]


def as_systemd_has_it(cell):
    """systemd starts the bus again as soon as somebody turns to it."""
    if cell.victim != "system bus" or cell.how != "killed":
        return cell
    restarted = next(each for each in TABLE if each[:3] == (cell.phase, cell.victim, "restarted"))
    return restarted._replace(how="killed")


SKIPPED = [
    ("OpenVPN while signing in", "there is none yet"),
]


# ---- the phases

def signing_in(stage):
    """The account service has the request, and thinks."""
    asked = log("account")
    HOLD.touch()
    start_helper()
    stage.person.sees(CONNECTING, stage.person.sign_in(*ANA))
    wait_for("the sign-in", lambda: "asked" in log("account")[len(asked):])


def connecting(stage):
    os.kill(server_pid(), signal.SIGSTOP)
    seen = len(stage.states())
    stage.person.sign_in(*ANA)
    wait_for("OpenVPN to wait for its server", lambda: "WAIT" in stage.states()[seen:])


PHASES = {"signing in": signing_in, "starting": starting, "connecting": connecting, "connected": Stage.connect,
          "disconnecting": disconnecting}


def go_on():
    """What had been held up to make the phase last is let go."""
    HOLD.unlink(missing_ok=True)
    if server_pid():
        wake(server_pid())


# ---- one cell

def invalidations():
    return log("system").count("XPC Connection Invalidated")


def truth():
    if not machine.openvpn_pid():
        return "nothing"
    return "tunnel" if machine.reply_from_inside() else "OpenVPN"


def title(stage):
    return stage.person.do("window")["title"]


def shown(stage, wanted, limit):
    """Waits for the button's title; returns how long that took. Told by seconds, as the clock goes while it waits."""
    began = time.monotonic()
    wait_for(f'the button to show "{wanted}"', lambda: title(stage) == wanted, limit + SLACK)
    return time.monotonic() - began


def while_it_lasts(stage, cell):
    limit = RULES[cell.rule][0]
    if limit is not None:
        return shown(stage, cell.during, limit)
    time.sleep(1)
    if cell.rule != "unseen":
        expect(title(stage) == cell.during, f'meanwhile the button shows "{title(stage)}", not "{cell.during}"')
    return 1.0


def afterwards(stage, cell):
    limit = 20 if cell.after == CONNECTED else 0  # OpenVPN calls a silent server again after 2, 4, 8 s
    took = shown(stage, cell.after, limit)
    # It must not change its mind when the machine has come to rest. The reader looks ten times a second.
    agreed = lambda: (truth(), title(stage)) == (cell.truth, cell.after)
    wait_for(f'truth and button to be: {cell.truth}, "{cell.after}"', agreed, 12)
    time.sleep(0.2)
    expect(agreed(), f'in the end the button shows "{title(stage)}" and the truth is: {truth()}')
    return took


def recover(stage, cell):
    """Returns how many clicks that took: none where the connection goes on by itself."""
    if cell.after == CONNECTED:
        return 0
    clicks = 1
    if cell.after == CONNECTING:
        stage.disconnect()
        clicks = 2
    connected_again(stage)
    return clicks


def told_the_person(stage, cell):
    if cell.victim == "account service" and cell.phase == "signing in" and cell.after == STOPPED:
        said = stage.person.do("alert")["text"]
        expect(said == "Network connection failed", f'the alert says "{said}"')
        stage.person.do("click", name="OK")
    return 0


def unreported(stage, cell, seen):
    """An OpenVPN that ended before it reported any state left no trace in the client, whose form waits for the first
    one: its end is announced only where it changes the state."""
    return cell.phase == "starting" and cell.truth == "nothing" and not stage.states()[seen:]


def early_password(cell, lines, since):
    """A client that was not hit within its first 0.3 s has given the password, and OpenVPN goes on without it."""
    hit = (cell.phase, cell.victim) == ("starting", "client") and cell.how != "stopped"
    return hit and any(line.startswith("password ") for _, line in lines[since:])


def go_through(stage, cell, before):
    """What the table shows of it."""
    seen, noticed = len(stage.states()), invalidations()
    said, told = len(log("system")), (stage.client.lines, len(stage.client.lines))
    PHASES[cell.phase](stage)
    if (cell.phase, cell.victim) == ("starting", "OpenVPN"):
        # Stopped before, it is one whose port nobody finds; the client tries no sooner than 0.3 s from its first attempt.
        wait_for("OpenVPN's management port", machine.management_listens)
    heal = victims(stage)[cell.victim].hit(cell.how.split()[0])
    if early_password(cell, *told):
        cell = cell._replace(truth="tunnel")
    lost = cell.victim == "system bus" and cell.how != "stopped"
    try:
        if lost and cell.phase == "signing in":
            wait_for("the client to notice the lost bus", lambda: invalidations() > noticed)
        # OpenVPN ignores the signal until it has had its password, and once it is ending.
        if (cell.victim, cell.how) == ("OpenVPN", "restarted") and cell.phase in ("connecting", "connected"):
            wait_for("OpenVPN's restart", lambda: "SIGHUP[" in log("system")[said:])
        HOLD.unlink(missing_ok=True)
        meanwhile = while_it_lasts(stage, cell)
        told_the_person(stage, cell)
        heal()
        go_on()
        later = afterwards(stage, cell)
    except Failure:
        heal()
        go_on()
        if not unreported(stage, cell, seen):
            raise
        cell, meanwhile, later = cell._replace(during=CONNECTING, after=STOPPED), SLACK, 0
        wait_for("OpenVPN's end", lambda: truth() == "nothing")
    if lost:
        wait_for("the client to notice the lost bus", lambda: invalidations() > noticed)
    clicks = recover(stage, cell)
    stage.disconnect()
    check_as_before(stage, before)
    during = f'"{cell.during}"' if cell.during else "not seen"
    later = f'"{cell.after}" {later:4.1f}'
    return f"{f'{during} {meanwhile:4.1f}':<22}{later:<22}{cell.truth:<9}{clicks}    "


def polkit_hung(since):
    """Whether polkit gave up its own rules, which it does when their evaluation has not returned after 15 s. That was
    seen once in thousands of answers, on a busy machine, of a polkit that had just been started."""
    with contextlib.suppress(Failure):
        return wait_for("polkit's word", lambda: "Terminating runaway script" in log("system")[since:], 16)
    return False


def row(stage, cell, before, wrong, again=True):
    """The same, or what is wrong. What polkit itself did wrong counts against nobody, once."""
    since = len(log("system"))
    try:
        with contextlib.redirect_stdout(io.StringIO()):
            return go_through(stage, cell, before)
    except (Failure, OSError) as failure:
        said = f"WRONG: {failure}\n" + "".join(f"    | {line}\n" for line in log("system").splitlines()[-15:])
        hung = again and polkit_hung(since)
        with contextlib.redirect_stdout(io.StringIO()):
            start_over(stage)
        if hung:
            print(f"  polkit's rules hung (in its words, a runaway script), so once more, after {said}", flush=True)
            return row(stage, cell, before, wrong, again=False)
        wrong.append(f"{cell.victim} {cell.how} while {cell.phase}: {failure}")
        return said


def start_over(stage):
    """After a cell that failed: everything as it was at the first."""
    HOLD.unlink(missing_ok=True)
    for name, victim in victims(stage).items():
        if name in ("client", "OpenVPN", "helper"):
            continue
        if victim.find() is None:
            victim.start()
        wake(victim.find())
    call("ana", f"{HELPER}.killOpenVPN")
    if stage.client.process.poll() is None:
        stage.client.process.kill()
        stage.client.process.wait()
    stage.start_client()


def faults(only=""):
    """`only`: a part of the cells' names."""
    stage = Stage()
    stage.bus.end()  # it would be lost with the bus
    stage.connect()
    stage.disconnect()
    before = settled_traces(stage)
    wrong, began = [], time.monotonic()
    table = [as_systemd_has_it(cell) if BOOTED else cell for cell in TABLE if only in f"{cell.victim} {cell.how} while {cell.phase}"]
    print(f'  {"phase":<14}{"victim":<17}{"":<18}{"meanwhile, s":<22}{"afterwards, s":<22}{"truth":<9}clicks  s')
    for cell in table:
        start = time.monotonic()
        said = row(stage, cell, before, wrong)
        print(f"  {cell.phase:<14}{cell.victim:<17}{cell.how:<18}{said} {time.monotonic() - start:5.1f}", flush=True)
    print(f"  {len(table)} cells in {time.monotonic() - began:.0f} s")
    show_the_rest()
    if unwaited := nobody_waits_for():
        wrong.append(f"ended processes that nobody has waited for: {unwaited}")
    expect(not wrong, f"{len(wrong)} of {len(table)}:\n    " + "\n    ".join(wrong))


def show_the_rest():
    print("  left out:", *(f"    {what}: {why}" for what, why in SKIPPED), sep="\n")
    print("  how long the button may take:",
          *(f"    {name}: {'-' if limit is None else limit} s (and {SLACK} s for a busy machine), {why}"
            for name, (limit, why) in RULES.items()), sep="\n")
