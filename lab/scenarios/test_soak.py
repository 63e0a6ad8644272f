# SPDX-License-Identifier: MIT
"""Many connections one after the other, as fast as they go: nothing is left, and client and helper do not grow."""
import time

import machine
import pytest
from growth import STEADY, Growth
from helper_calls import helper_pid, start_helper
from session import quiet, wait_for
from stage import CONNECTED, STOPPED, Stage
from traces import check_as_before, nobody_waits_for, open_files

pytestmark = pytest.mark.slow
EVERY = 10
# Qt's connection to the account service takes some kilobytes for each sign-in, and gives them back when it has been
# idle for two seconds, which it never is here without a rest.
REST = 3


def test_many_connections_leave_nothing_behind(rested: tuple[Stage, dict], request: pytest.FixtureRequest) -> None:
    count = request.config.getoption("cycles") or 100
    assert count >= STEADY + 5 * EVERY, "so few cycles show nothing"
    stage, before = rested
    files, helper, began = open_files(stage), start_helper(), time.monotonic()
    parts = Growth("client", stage.client.process.pid, 1024), Growth("helper", helper, 256)
    for cycle in range(1, count + 1):
        for title in (CONNECTED, STOPPED):
            stage.person.do("click")
            wait_for(f'the button to show "{title}"', lambda: stage.title() == title)
            if title == CONNECTED and cycle % EVERY == 0:
                with quiet():
                    machine.check_connected()
        stage.hears_of_the_end()
        if cycle % STEADY == 0:
            time.sleep(REST)
        if cycle % EVERY == 0:
            assert helper_pid() == helper, "it is another helper"
            print(f"  {cycle} in {time.monotonic() - began:.0f} s", *(part.take(cycle) for part in parts), sep="; ")
    machine.check_gone()
    assert not [what for part in parts for what in part.grown()]
    check_as_before(stage, before)
    assert not nobody_waits_for()
    now = open_files(stage, files)
    print(f"  the client's descriptors at rest: {files} before, {now} now")
    assert now <= files, "the client keeps descriptors"
