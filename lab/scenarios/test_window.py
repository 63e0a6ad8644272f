# SPDX-License-Identifier: MIT
"""The window: closed and reopened, and on a session whose bus is not what it should be."""
import os
import signal
import socket
import time

from desk import Desk, resident
from session import PERSONAL, wait_for

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
    desk.start_again()


def test_the_client_starts_whatever_the_sessions_bus_is_like(desk: Desk) -> None:
    desk.client.end()
    places = {name: PERSONAL / f"{name}-bus" for name in ("stale", "silent")}
    sockets = {name: socket.socket(socket.AF_UNIX) for name in places}
    for name, place in places.items():
        sockets[name].bind(str(place))
        place.chmod(0o666)
    sockets["silent"].listen()
    for place in ("/nonexistent", *places.values()):
        wait_for("the end of the client before", lambda: not desk.window())
        began = time.monotonic()
        client = desk.session.client(DBUS_SESSION_BUS_ADDRESS=f"unix:path={place}")
        wait_for("the window on the screen", desk.window)
        took = time.monotonic() - began
        print(f"  session bus {place}: window after {took:.2f} s")
        assert took < 3
        client.process.send_signal(signal.SIGTERM)
        assert client.process.wait(5) == 0, "SIGTERM does not end it"
