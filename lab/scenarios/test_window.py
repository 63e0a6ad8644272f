# SPDX-License-Identifier: MIT
"""The window: closed and minimised and brought back, and on a session bus that is of no use."""
import os
import signal
import socket

import pytest
from desk import Desk, resident
from session import wait_for

SCREEN = {"bare": True}


def test_a_closed_window_is_brought_back_by_the_next_start(desk: Desk) -> None:
    seen, person, pid = [], desk.person, desk.client.process.pid
    person.do("type", name="Email", text="kept")
    for _ in range(20):
        desk.close_window()
        desk.start_again()
        seen.append((len(os.listdir(f"/proc/{pid}/fd")), resident(pid)))
    (files, memory), (more_files, more_memory) = seen[1], seen[-1]
    print(f"  after the 2nd and the 20th time: descriptors {files}, {more_files}; memory {memory}, {more_memory} KiB")
    assert person.do("text", name="Email")["text"] == "kept", "the form is another one"
    assert more_files <= files and more_memory - memory < 2048
    desk.session.run("xdotool", "windowminimize", desk.window()).wait(20)
    wait_for("the minimised window", lambda: not desk.window())
    os.kill(pid, signal.SIGSTOP)  # busy
    assert desk.session.client().process.wait(20) == 0, "the second start takes a busy client for none"
    os.kill(pid, signal.SIGCONT)
    assert desk.shown() == desk.first


@pytest.mark.parametrize("bus", ["unix:path=/nonexistent", "unix:abstract=silent"])
def test_the_client_starts_whatever_the_session_bus_does_and_ends_when_asked(desk: Desk, bus: str) -> None:
    desk.client.end()
    wait_for("the window's end", lambda: not desk.window())
    with socket.socket(socket.AF_UNIX) as silent:
        silent.bind("\0silent")
        silent.listen()
        client = desk.session.client(DBUS_SESSION_BUS_ADDRESS=bus)
        wait_for("the window", desk.window)
        assert client.end() == 0
