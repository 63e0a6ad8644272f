"""What the client costs beside a bare window: the time until it is on the screen, and memory while connected."""
import mmap
import pathlib
import re
import shutil
import statistics
import struct
import time

import machine
import timeline
from session import HERE, PERSONAL, Failure, Session, wait_for
from stage import ANA

BARE = PERSONAL / "bare_window"
BACKGROUND = b"\x35\x2c\x28"  # blue, green, red
TIMES = 21
BUDGETS = {"time": 2.0, "memory": 1.6}


class Screen:
    """The pixels of the private screen, which its server keeps in a file."""

    def __init__(self, path):
        with open(path, "rb") as file:
            self.pixels = mmap.mmap(file.fileno(), 0, prot=mmap.PROT_READ)
        fields = struct.unpack(">25I", self.pixels[:100])  # of an xwd file
        self.width, self.height, self.line = fields[4], fields[5], fields[12]
        self.begin = fields[0] + fields[19] * 12

    def shows_form(self):
        """Whether the screen's middle has the form's left margin."""
        at = self.begin + self.height // 2 * self.line + (self.width // 2 - 170) * 4
        return self.pixels[at:at + 3] == BACKGROUND


def start(session, screen, program):
    """A program of the person and the seconds until its window was drawn."""
    wait_for("a free screen", lambda: not screen.shows_form())
    began = time.perf_counter()
    running = session.run(program)
    while not screen.shows_form():
        if time.perf_counter() - began > 20 or running.poll() is not None:
            raise Failure(f"{program} shows no window")
        time.sleep(0.0002)
    return running, time.perf_counter() - began


def end(program):
    program.terminate()
    program.wait(10)


def resident(pid):
    return int(re.search(r"VmRSS:\s+(\d+)", pathlib.Path(f"/proc/{pid}/status").read_text())[1])


def compare(what, unit, ours, bare):
    ratio = ours / bare
    print(f"  {what}: {ours:.1f} {unit}, a bare window {bare:.1f} {unit}: {ratio:.2f} x", flush=True)
    return ratio


def start_figures():
    shutil.copy(HERE.parent / "build/bench/bare_window", BARE)
    session = Session(bare=True)
    # As most people's: nothing on the accessibility bus.
    del session.environment["QT_LINUX_ACCESSIBILITY_ALWAYS_ON"]
    screen = Screen(session.screen)
    took = {"corvale": [], str(BARE): []}
    for _ in range(TIMES):
        for program, times in took.items():
            running, seconds = start(session, screen, program)
            times.append(seconds)
            if program != str(BARE):
                end(running)
                continue
            time.sleep(0.3)  # until it is at rest
            bare = resident(running.pid)
            end(running)
    ratios = {"time": compare("start until the window is drawn", "ms",
                              *(statistics.median(times[1:]) * 1000 for times in took.values()))}

    client, _ = start(session, screen, "corvale")
    time.sleep(0.3)
    compare("resident memory at the start", "MiB", resident(client.pid) / 1024, bare / 1024)
    session.types(ANA[0])
    session.keys("Tab")
    session.types(ANA[1])
    session.keys("Return")
    wait_for("the tunnel", lambda: any(what == "state CONNECTED" for _, _, what in timeline.state_events()))
    machine.check_connected()
    time.sleep(2)
    ratios["memory"] = compare("resident memory while connected", "MiB", resident(client.pid) / 1024, bare / 1024)
    over = [name for name, ratio in ratios.items() if ratio > BUDGETS[name]]
    if over:
        raise Failure(f"over the budget of {BUDGETS}: {', '.join(over)}")
