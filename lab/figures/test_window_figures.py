# SPDX-License-Identifier: MIT
"""What the client costs beside a bare window."""
import shutil
import time

import costs
import machine
import timeline
from desk import resident
from screen import Pixels
from session import HERE, PERSONAL, Session, wait_for
from stage import ANA

SCREEN = {"bare": True}


def test_start_memory_and_rest_beside_a_bare_window(session: Session) -> None:
    window = shutil.copy(HERE.parent / "build/bench/bare_window", PERSONAL / "bare_window")
    # As most people's: nothing on the accessibility bus.
    del session.environment["QT_LINUX_ACCESSIBILITY_ALWAYS_ON"]
    screen = Pixels(session.screen)
    ratio, bare = costs.compare_starts(session, screen, str(window))

    client, _ = costs.start(session, screen, "corvale")
    time.sleep(0.3)
    costs.compare("resident memory at the start", "MiB", resident(client.pid) / 1024, bare / 1024)
    session.types(ANA[0])
    session.keys("Tab")
    session.types(ANA[1])
    session.keys("Return")
    wait_for("the tunnel", lambda: any(what == "state CONNECTED" for _, _, what in timeline.state_events()))
    machine.check_connected()
    time.sleep(2)
    memory = costs.compare("resident memory while connected", "MiB", resident(client.pid) / 1024, bare / 1024)
    costs.keep(start=ratio, memory=memory, rest=costs.rest(client.pid))
