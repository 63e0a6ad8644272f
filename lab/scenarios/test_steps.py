# SPDX-License-Identifier: MIT
"""What the logs tell: each step of a click fails in turn, and the system log says how far the click came and why."""
import time
import types

import machine
import pytest
from journal import Journal
from obstacles import Obstacle, handed_out, no_account_service, no_profile, no_right, nothing, without_authority
from session import Person, Session, found, log, quiet, wait_for
from stage import ANA, BERTA, CONNECTED, CONNECTING, STOPPED, Stage
from timeline import Bus

pytestmark = pytest.mark.slow
STRANGER = (ANA[0], "not-hers-4711")
SIGNED_IN = ("Signing in", "Signed in")
RECEIVED = (*SIGNED_IN, "Profile received")


@pytest.fixture(scope="module")
def journal() -> Journal:
    return Journal()


@pytest.fixture(scope="module")
def desktop(session: Session, person: Person, journal: Journal) -> Stage:
    """With a client that was started from a desktop's menu."""
    stage = Stage(session, person)
    stage.client.end()
    with journal.connection() as output:
        stage.client = types.SimpleNamespace(
            process=session.run("corvale", stdout=output, stderr=session.errors()), lines=[])
    return stage


# What goes wrong; who signs in; how the button ends; what the log has, in this order, and what it has not.
@pytest.mark.parametrize("obstacle, who, ends, says, hides", [
    pytest.param(*row, id=name) for name, row in {
        "no account service": (no_account_service, ANA, STOPPED, ("Signing in",), "Signed in"),
        "no such subscriber": (nothing, STRANGER, STOPPED, ("Signing in",), "Signed in"),
        "no profile for her": (no_profile, ANA, STOPPED, SIGNED_IN, "Profile received"),
        "polkit refuses": (no_right, ANA, STOPPED, (*RECEIVED, "XPCService error: ", "NOPROCESS"), "AUTH"),
        "the helper refuses the configuration": (
            handed_out(lambda text: text + "plugin /tmp/own.so\n"), ANA, STOPPED,
            (*RECEIVED, "not allowed: plugin", "NOPROCESS"), "AUTH"),
        "OpenVPN refuses it": (
            handed_out(without_authority), ANA, STOPPED,
            (*RECEIVED, "Options error: You must define CA", "termiationStatus=1", "NOPROCESS"), "AUTH"),
        "the server has no such name": (
            handed_out(lambda text: text.replace("remote vpn.", "remote nowhere.")), ANA, CONNECTING,
            (*RECEIVED, "Cannot resolve host address: nowhere.", " corvale: RESOLVE"), "WAIT"),
        "it is another server": (
            handed_out(lambda text: text.replace("name vpn.", "name other.")), ANA, CONNECTING,
            (*RECEIVED, "VERIFY X509NAME ERROR", " corvale: RECONNECTING"), "CONNECTED"),
        "the server refuses the password": (
            nothing, BERTA, STOPPED, (*RECEIVED, "AUTH_FAILED", "termiationStatus=0"), "CONNECTED"),
        # At this level OpenVPN would repeat the commands that it is given.
        "nothing": (
            handed_out(lambda text: text.replace("verb 3", "verb 4")), ANA, CONNECTED,
            (*RECEIVED, "Initialization Sequence Completed", " corvale: CONNECTED"), "NOPROCESS"),
    }.items()])
def test_the_log_says_how_far_a_click_came(
        bus: Bus, desktop: Stage, obstacle: Obstacle, who: tuple[str, str], ends: str, says: tuple[str, ...],
        hides: str) -> None:
    said = len(log("system"))
    with obstacle(desktop):
        desktop.person.sign_in(*who)  # a refusal may be quicker than whoever watches the button
        lines = wait_for(f"{says} in the log", lambda: found(log("system")[said:], says))
        wait_for(f'the button to show "{ends}"', lambda: desktop.title() == ends)
        print("   ", *lines, sep="\n    ")
        if ends == CONNECTING:
            time.sleep(0.5)  # for what must not come
        hidden = [line for line in log("system")[said:].splitlines() if line.endswith(": " + hides)]
    called = any(what == "helper called: runOpenVPN" for _, _, what in bus.events())
    assert called == ("Profile received" in says), "the helper is called with a profile, and never without"
    if not called:
        desktop.person.do("click", name="OK")
    with quiet():
        if ends != STOPPED:
            if not machine.openvpn_pid():
                desktop.connect_again()
            desktop.disconnect()
        machine.check_gone()
    assert desktop.person.do("fields")["enabled"], "the fields stay locked"
    wait_for("the client's rest", lambda: desktop.states()[-1:] in ([], ["NOPROCESS"]))
    assert not hidden


def test_no_log_has_a_password_and_the_desktops_has_nothing(desktop: Stage, journal: Journal) -> None:
    assert not journal.written(), "standard output went to the journal"
    for name in ("system", "client"):
        for password in (ANA[1], BERTA[1], STRANGER[1]):
            assert password not in log(name)
    assert "MANAGEMENT: CMD" not in log("system"), "OpenVPN repeats its commands"
