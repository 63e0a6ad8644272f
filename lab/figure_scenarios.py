# SPDX-License-Identifier: MIT
"""What the client costs beside a bare window and beside a plain script. Nothing is judged here: the figures also go
to build/demo/figures.json.
"""
import contextlib
import io
import json
import mmap
import pathlib
import re
import shutil
import statistics
import struct
import time

import machine
import plain
import timeline
from session import HERE, PERSONAL, PICTURES, Failure, Session, wait_for
from stage import ANA, Stage

BARE = PERSONAL / "bare_window"
BACKGROUND = b"\x35\x2c\x28"  # blue, green, red
TIMES = 21  # starts of each program
CLICKS = 5
REST = 30  # s


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


def keep(**figures):
    (PICTURES / "figures.json").write_text(json.dumps(figures), encoding="utf-8")


def compare_starts(session, screen):
    """How many times as long the client takes as a bare window, and how much memory, in KiB, that one has."""
    bare = []
    took = {"corvale": [], str(BARE): []}
    for _ in range(TIMES):
        for program, times in took.items():
            running, seconds = start(session, screen, program)
            times.append(seconds)
            if program == str(BARE):
                time.sleep(0.3)  # until it is at rest
                bare.append(resident(running.pid))
            end(running)
    ratio = compare("start until the window is drawn", "ms",
                    *(statistics.median(times[1:]) * 1000 for times in took.values()))
    return ratio, statistics.median(bare)


class Accounts:
    """What the kernel has written down about a process so far."""

    def __init__(self, pid):
        process = pathlib.Path(f"/proc/{pid}")
        self.when = time.monotonic()
        self.ticks = sum(map(int, (process / "stat").read_text().rsplit(")", 1)[1].split()[11:13]))
        self.nanoseconds = 0
        self.waits = {}
        for thread in (process / "task").iterdir():
            self.nanoseconds += int((thread / "schedstat").read_text().split()[0])
            switches = re.search(r"^voluntary_ctxt_switches:\s+(\d+)", (thread / "status").read_text(), re.MULTILINE)
            self.waits[thread.name] = int(switches[1])


def rest(pid):
    """Processor, in percent of a core, and wake-ups a second of all threads: how often one gave up the processor to
    wait. What OpenVPN writes each second wakes nobody by itself: the reader finds it.
    """
    before = Accounts(pid)
    time.sleep(REST)
    after = Accounts(pid)
    span = after.when - before.when
    percent = (after.nanoseconds - before.nanoseconds) / span / 1e7
    ticks = after.ticks - before.ticks
    waits = sorted(((count - before.waits.get(thread, 0)) / span for thread, count in after.waits.items()), reverse=True)
    print(f"  connected and idle for {span:.0f} s: {percent:.3f} % of a core ({ticks} ticks of 10 ms),"
          f" {sum(waits):.2f} wake-ups a second (by thread: {', '.join(f'{each:.2f}' for each in waits)})")
    return {"percent": percent, "ticks": ticks, "wakeups": sum(waits), "threads": waits}


def window_figures():
    shutil.copy(HERE.parent / "build/bench/bare_window", BARE)
    session = Session(bare=True)
    # As most people's: nothing on the accessibility bus.
    del session.environment["QT_LINUX_ACCESSIBILITY_ALWAYS_ON"]
    screen = Screen(session.screen)
    ratio, bare = compare_starts(session, screen)

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
    memory = compare("resident memory while connected", "MiB", resident(client.pid) / 1024, bare / 1024)
    keep(start=ratio, memory=memory, rest=rest(client.pid))


def click_figures():
    stage = Stage()
    times = {"plain": [], "ours": []}
    for _ in range(CLICKS):
        times["plain"].append(plain.connect_once())
        with contextlib.redirect_stdout(io.StringIO()):
            click, connected = stage.connect()
            stage.disconnect()
        times["ours"].append(connected - click)
    ours, script = statistics.median(times["ours"]), statistics.median(times["plain"])
    print(f'  click until "Desconectar", {CLICKS} times: {ours:.3f} s; a plain script, same work: {script:.3f} s;'
          f" more: {ours - script:.3f} s")
    keep(more=ours - script, **times)


FIGURE_SCENARIOS = {"window-figures": window_figures, "click-figures": click_figures}
