# SPDX-License-Identifier: MIT
"""Everything that a tunnel could leave behind, and whether it did."""
import collections
import contextlib
import os
import pathlib
import signal
import subprocess
import time
import typing
from collections.abc import Callable

import machine
from helper_calls import RUN, run_folder, start_helper
from session import LOGS, Failure, wait_for
from stage import Stage

PASSING = (
    "anon_inode:[eventfd]",  # every thread of Qt's waits with one, and idle ones of its pool end after half a minute
    "/usr/share/icons/hicolor/icon-theme.cache",  # opened for the first alert's icon, once
)


def descriptors(pid: int) -> collections.Counter[str]:
    """How many of each kind, but for those whose number depends on how long ago something happened."""
    links = []
    for path in pathlib.Path(f"/proc/{pid}/fd").iterdir():
        try:
            links.append(os.readlink(path))
        except OSError:
            continue
    return collections.Counter(link.rstrip("0123456789]") for link in links if link not in PASSING)


def threads(pid: int) -> collections.Counter[str]:
    """How many of each name. Those of Qt's pool end when they have been idle for half a minute."""
    names = []
    for path in pathlib.Path(f"/proc/{pid}/task").glob("*/comm"):
        with contextlib.suppress(OSError):  # it has just ended
            names.append(path.read_text().strip())
    return collections.Counter(name for name in names if not name.startswith("Thread (pooled"))


def processes(dead: bool = False) -> collections.Counter[str]:
    """How many of each program run in the machine, or of those that have ended and nobody has waited for."""
    names = []
    for path in pathlib.Path("/proc").glob("[0-9]*/stat"):
        try:
            name, state = path.read_text().split("(", 1)[1].rsplit(")", 1)
        except OSError:
            continue
        if state.split()[0].startswith("Z") == dead:
            names.append(name)
    return collections.Counter(names)


def nobody_waits_for() -> list[str]:
    """The processes that have ended and stay so."""
    with contextlib.suppress(Failure):
        wait_for("somebody to wait for every ended process", lambda: not processes(dead=True), 5)
    return sorted(processes(dead=True))


def traces(stage: Stage) -> dict[str, typing.Any]:
    return {
        "name servers": machine.name_servers(),
        "routes and rules": machine.routes(),
        "interfaces": sorted(os.listdir("/sys/class/net")),
        "processes": processes(),
        str(RUN): run_folder(),
        "the client's descriptors": descriptors(stage.client.process.pid),
        "the client's threads": threads(stage.client.process.pid),
        "the helper's descriptors": descriptors(start_helper()),
    }


def settled_traces(stage: Stage) -> dict[str, typing.Any]:
    """What there is once a whole second has changed nothing."""
    seen = []

    def calm() -> typing.Any:
        seen.append(traces(stage))
        time.sleep(1)
        return len(seen) > 1 and seen[-1] == seen[-2] and seen[-1]

    return wait_for("the machine to come to rest", calm)


def more(what: str, before: typing.Any, now: typing.Any) -> bool:
    """Descriptors may be fewer: an idle connection to the account service closes in its own time."""
    return bool(now - before) if what.endswith(("descriptors", "threads")) else now != before


def difference(before: typing.Any, now: typing.Any) -> str:
    if isinstance(now, list):
        gone, new = ([each for each in one if each not in other] for one, other in ((before, now), (now, before)))
        return f"gone {gone}, new {new}"
    return f"before {before!r}, now {now!r}"


def check_as_before(stage: Stage, before: dict[str, typing.Any]) -> None:
    left = []

    def same() -> bool:
        now = traces(stage)
        left[:] = [f"{what}: {difference(before[what], now[what])}" for what in before
                   if more(what, before[what], now[what])]
        return not left

    try:
        wait_for("everything as before", same, 8)
    except Failure:
        raise Failure("left behind: " + "; ".join(left)) from None
    print(f"  as before: {', '.join(before)}")


def open_files(stage: Stage, most: int = 0) -> int:
    """How many descriptors the client has, all kinds, when its idle threads have ended: nothing changed for longer
    than they wait, or there are no more than `most`."""
    folder = f"/proc/{stage.client.process.pid}/fd"
    seen, since = len(os.listdir(folder)), time.monotonic()
    while seen > most and time.monotonic() - since < 35:
        time.sleep(1)
        if len(os.listdir(folder)) != seen:
            seen, since = len(os.listdir(folder)), time.monotonic()
    return seen


def sent_to_openvpn(pid: int, work: Callable[[], None]) -> list[str]:
    """What the process sends over its connection to the management port while `work` is done."""
    log = LOGS / "sent"
    trace = subprocess.Popen(["strace", "-f", "-q", "-yy", "-s", "120", "-o", log, "-e",
                              "trace=write,writev,sendto,sendmsg,sendmmsg", "-p", str(pid)])
    wait_for("strace", lambda: "TracerPid:\t0" not in pathlib.Path(f"/proc/{pid}/status").read_text())
    work()
    trace.send_signal(signal.SIGINT)  # in vain when the process has ended
    trace.wait(10)
    lines = log.read_text(errors="replace").splitlines()
    return [line for line in lines if "127.0.0.1:1337]" in line.split(", ")[0]]
