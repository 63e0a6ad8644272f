# SPDX-License-Identifier: MIT
"""The phases of a connection, each held for whoever wants to do something in it."""
import os
import signal
import time

import machine
import plain
from helper_calls import HANDED_OUT, HOLD, hand_out, start_helper
from session import log, wait_for
from stage import ANA, CONNECTING, Stage
from victims import server_pid, wake


def signing_in(stage: Stage) -> None:
    """The account service has the request, and thinks."""
    asked = log("account")
    HOLD.touch()
    start_helper()
    stage.person.sees(CONNECTING, stage.person.sign_in(*ANA))
    wait_for("the sign-in", lambda: "asked" in log("account")[len(asked):])


def starting(stage: Stage) -> None:
    """OpenVPN has just been started, and the client is yet to find its management port."""
    stage.person.sign_in(*ANA)
    wait_for("OpenVPN", machine.openvpn_pid)


def listening(stage: Stage) -> None:
    """Now it could find the port; it tries no sooner than 0.3 s from its first attempt."""
    starting(stage)
    wait_for("OpenVPN's management port", machine.management_listens)


def authenticating(stage: Stage) -> None:
    """OpenVPN has just been given the password."""
    click = stage.person.sign_in(*ANA)
    wait_for("the password", lambda: stage.told("password ", click))


def connecting(stage: Stage) -> None:
    os.kill(server_pid(), signal.SIGSTOP)
    seen = len(stage.states())
    stage.person.sign_in(*ANA)
    wait_for("OpenVPN to wait for its server", lambda: "WAIT" in stage.states()[seen:])


def disconnecting(stage: Stage) -> None:
    """With a configuration that has OpenVPN take leave of its server, which lasts."""
    hand_out(plain.profile() + "explicit-exit-notify 2\n")
    stage.connect()
    HANDED_OUT.unlink()
    click = time.time()
    stage.person.do("click")
    wait_for("OpenVPN to be told", lambda: stage.told("signal SIGINT", click))


PHASES = {"signing in": signing_in, "starting": starting, "listening": listening, "authenticating": authenticating,
          "connecting": connecting, "connected": Stage.connect, "disconnecting": disconnecting}


def go_on() -> None:
    """What had been held up to make the phase last is let go."""
    HOLD.unlink(missing_ok=True)
    if server := server_pid():
        wake(server)
