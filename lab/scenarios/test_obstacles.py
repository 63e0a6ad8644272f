# SPDX-License-Identifier: MIT
"""Files, ports and programs that are not as they should be: each attempt ends clearly, and the next click connects."""
import time

import machine
import pytest
from helper_calls import run_folder
from obstacles import (
    Obstacle, directory, full_disk, link, locked_defaults, missing_openvpn, roots_program, somebody_elses, stranger,
)
from session import log, wait_for
from stage import ANA, CONNECTED, CONNECTING, STOPPED, Stage
from traces import check_as_before

pytestmark = pytest.mark.slow
RECEIVED = ("Signing in", "Signed in", "Profile received")


# The obstacle; how the button ends; what the log says.
@pytest.mark.parametrize("obstacle, ends, says", [
    (full_disk, STOPPED, "No space left on device"),
    (directory, STOPPED, "Is a directory"),
    (link, STOPPED, "Too many levels of symbolic links"),
    (somebody_elses, STOPPED, "XPCService error"),
    (locked_defaults, CONNECTED, "User defaults error"),
    (missing_openvpn, STOPPED, "XPCService error"),
    # A program of root's could be OpenVPN: the form waits for its first word, and the next click starts anew.
    (roots_program, CONNECTING, "XPCService error"),
    (stranger, STOPPED, "XPCService error"),
])
def test_an_attempt_ends_clearly_and_the_next_click_connects(
        rested: tuple[Stage, dict], obstacle: Obstacle, ends: str, says: str) -> None:
    stage, before = rested
    if stage.client.process.poll() is not None:  # the attempt before this one failed
        stage.start_client()
    try:
        meet(stage, obstacle, ends, says)
        if ends != CONNECTED:
            stage.connect_again()
        stage.disconnect()
        check_as_before(stage, before)
    except AssertionError:
        stage.client.end()
        raise


def meet(stage: Stage, obstacle: Obstacle, ends: str, says: str) -> None:
    said = len(log("system"))
    with obstacle(stage):
        click = stage.person.sign_in(*ANA)
        stage.person.sees(CONNECTING, click)
        wait_for(f"{RECEIVED}, {says} in the log",
                 lambda: all(word in log("system")[said:] for word in (*RECEIVED, says)))
        if ends == CONNECTING:
            wait_for("the client to have found the stranger", lambda: stage.told("password ", click))
            time.sleep(0.5)  # the reader looks ten times a second
            assert stage.title() == CONNECTING, "the form does not wait"
        else:
            print(f'  button "{ends}" after {stage.person.sees(ends, click) - click:.1f} s')
        for line in log("system")[said:].splitlines():
            if " corvale: " in line and not line.rsplit(" ", 1)[-1].isupper():
                print("  log:", line.split(" corvale: ", 1)[1])
        assert ends == CONNECTED or not machine.openvpn_pid() and not run_folder(), "something was started"
