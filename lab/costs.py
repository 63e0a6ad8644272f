# SPDX-License-Identifier: MIT
"""What programs cost: starts beside a bare window's, memory, processor. Nothing is judged here."""
import json
import pathlib
import re
import statistics
import subprocess
import time

from desk import resident
from screen import Pixels
from session import PICTURES, Session, wait_for

TIMES = 21  # starts of each program
REST = 30  # s


def keep(**figures: object) -> None:
    """For who compares them with their budgets."""
    (PICTURES / "figures.json").write_text(json.dumps(figures), encoding="utf-8")


def start(session: Session, screen: Pixels, program: str) -> tuple[subprocess.Popen, float]:
    """A program of the person and the seconds until its window was drawn."""
    wait_for("a free screen", lambda: not screen.shows_form())
    began = time.perf_counter()
    running = session.run(program)
    while not screen.shows_form():
        assert time.perf_counter() - began < 20 and running.poll() is None, f"{program} shows no window"
        time.sleep(0.0002)
    return running, time.perf_counter() - began


def compare(what: str, unit: str, ours: float, bare: float) -> float:
    ratio = ours / bare
    print(f"  {what}: {ours:.1f} {unit}, a bare window {bare:.1f} {unit}: {ratio:.2f} x", flush=True)
    return ratio


def compare_starts(session: Session, screen: Pixels, window: str) -> tuple[float, float]:
    """How many times as long the client takes as a bare window, and how much memory, in KiB, that one has."""
    bare = []
    took: dict[str, list[float]] = {"corvale": [], window: []}
    for _ in range(TIMES):
        for program, times in took.items():
            running, seconds = start(session, screen, program)
            times.append(seconds)
            if program == window:
                time.sleep(0.3)  # until it is at rest
                bare.append(resident(running.pid))
            running.terminate()
            running.wait(10)
    ratio = compare("start until the window is drawn", "ms",
                    *(statistics.median(times[1:]) * 1000 for times in took.values()))
    return ratio, statistics.median(bare)


class Accounts:
    """What the kernel has written down about a process so far."""

    def __init__(self, pid: int) -> None:
        process = pathlib.Path(f"/proc/{pid}")
        self.when = time.monotonic()
        self.ticks = sum(map(int, (process / "stat").read_text().rsplit(")", 1)[1].split()[11:13]))
        self.nanoseconds = 0
        self.waits = {}
        for thread in (process / "task").iterdir():
            self.nanoseconds += int((thread / "schedstat").read_text().split()[0])
            switches = re.search(r"^voluntary_ctxt_switches:\s+(\d+)", (thread / "status").read_text(), re.MULTILINE)
            self.waits[thread.name] = int(switches[1])


def rest(pid: int) -> dict[str, object]:
    """Processor, in percent of a core, and wake-ups a second of all threads: how often one gave up the processor to
    wait. What OpenVPN writes each second wakes nobody by itself: the reader finds it.
    """
    before = Accounts(pid)
    time.sleep(REST)
    after = Accounts(pid)
    span = after.when - before.when
    percent = (after.nanoseconds - before.nanoseconds) / span / 1e7
    ticks = after.ticks - before.ticks
    waits = sorted(((count - before.waits.get(thread, 0)) / span for thread, count in after.waits.items()),
                   reverse=True)
    print(f"  connected and idle for {span:.0f} s: {percent:.3f} % of a core ({ticks} ticks of 10 ms),"
          f" {sum(waits):.2f} wake-ups a second (by thread: {', '.join(f'{each:.2f}' for each in waits)})")
    return {"percent": percent, "ticks": ticks, "wakeups": sum(waits), "threads": waits}
