"""Many connections one after the other, as fast as they go: client and helper must not grow."""
import os
import pathlib
import statistics
import time
import typing

import machine
from helper_calls import expect, helper_pid
from stage import Stage
from traces import processes

STEADY = 50      # cycles until everything has been used that is used again and again
EVERY = 10
TOLERANCE = 1.02  # of memory, between the first and the last fifth of what comes after that
ROOM = 512       # KiB: a page here and there is no growth


class Sample(typing.NamedTuple):
    cycle: int
    rss: int  # KiB, like the next
    pss: int
    descriptors: int
    threads: int


def sample(cycle, pid):
    sizes = dict(line.split(":", 1) for line in pathlib.Path(f"/proc/{pid}/smaps_rollup").read_text().splitlines()[1:])
    return Sample(cycle, *(int(sizes[name].split()[0]) for name in ("Rss", "Pss")),
                  len(os.listdir(f"/proc/{pid}/fd")), len(os.listdir(f"/proc/{pid}/task")))


def soak(cycles="500"):
    count = int(cycles)
    expect(count >= STEADY + 5 * EVERY, f"fewer than {STEADY + 5 * EVERY} cycles show nothing")
    stage = Stage()
    stage.bus.end()
    stage.connect()
    stage.disconnect()
    pids = {"client": stage.client.process.pid, "helper": helper_pid()}
    curves = {name: [] for name in pids}
    began = time.monotonic()
    print("  cycle    s   " + "".join(f"{name + ': RSS KiB':<18}{'PSS KiB':<10}{'fds':<6}{'threads':<10}" for name in pids))
    for cycle in range(1, count + 1):
        once(stage)
        if cycle % EVERY == 0:
            expect(helper_pid() == pids["helper"], "it is another helper")
            for name, pid in pids.items():
                curves[name].append(sample(cycle, pid))
        if cycle % max(EVERY, count // 20 // EVERY * EVERY) == 0:
            show(cycle, time.monotonic() - began, [curve[-1] for curve in curves.values()])
    machine.check_gone()
    wrong = [fault for name, curve in curves.items() for fault in growth(name, curve)]
    if processes(dead=True):
        wrong.append("ended processes that nobody has waited for")
    expect(not wrong, "; ".join(wrong))


def once(stage):
    click = stage.person.do("click")["time"]
    stage.person.sees("Desconectar", click)
    stage.person.sees("Conectar", stage.person.do("click")["time"])
    stage.hears_of_the_end()


def show(cycle, seconds, samples):
    figures = "".join(f"{s.rss:<18}{s.pss:<10}{s.descriptors:<6}{s.threads:<10}" for s in samples)
    print(f"  {cycle:>5} {seconds:>4.0f}   {figures}", flush=True)


def growth(name, curve):
    """What has grown: the last fifth of the samples after the steady point against the first fifth of them. Threads and
    descriptors come and go with what is just being done, so each fifth counts with its median."""
    steady = [each for each in curve if each.cycle >= STEADY]
    fifth = max(len(steady) // 5, 1)
    for what in ("rss", "pss", "descriptors", "threads"):
        first = statistics.median(getattr(each, what) for each in steady[:fifth])
        last = statistics.median(getattr(each, what) for each in steady[-fifth:])
        memory = what in ("rss", "pss")
        print(f"  {name}'s {what}: {first:g} at first, {last:g} in the end{' (KiB)' if memory else ''}")
        if last > (max(first * TOLERANCE, first + ROOM) if memory else first):
            yield f"the {name}'s {what} grew from {first:g} to {last:g}"
