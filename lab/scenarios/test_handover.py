# SPDX-License-Identifier: MIT
"""A helper that leaves just when it is needed."""
import os
import random
import signal
import threading

import machine
import pytest
from helper_calls import helper_pid, start_helper
from session import log, wait_for
from stage import CONNECTED, CONNECTING, Stage

pytestmark = pytest.mark.slow
CLICKS = 25


def test_a_click_is_served_while_the_helper_leaves(stage: Stage) -> None:
    """It ends at a random moment of the click, as when it has been idle or is being upgraded."""
    stage.connect()
    stage.disconnect()
    served = 0
    for _ in range(CLICKS):
        helper, said = start_helper(), len(log("system"))
        timer = threading.Timer(random.random() / 40, os.kill, (helper, signal.SIGTERM))
        timer.start()
        click = stage.person.do("click")["time"]
        stage.person.sees(CONNECTING, click)
        timer.join()

        def ended() -> bool:
            """An OpenVPN that had been started ends with its helper."""
            return "OpenVPN exited: " in log("system")[said:]

        wait_for("the tunnel, or its end", lambda: ended() or stage.title() == CONNECTED)
        assert "XPCService error" not in log("system")[said:], "a request was lost"
        assert helper_pid() != helper, "the helper did not end"
        if not ended():
            served += 1
            stage.disconnect()
        machine.check_gone()
    print(f"  {CLICKS} clicks while the helper left: {served} connected, {CLICKS - served} begun and ended with it")
    assert served, "the helper left too late each time"
