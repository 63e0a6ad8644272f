# SPDX-License-Identifier: MIT
"""Many connections one after the other, as fast as they go: client and helper must not grow."""
import pathlib
import statistics
import time
import typing

import machine
from helper_calls import expect, helper_pid
from session import wait_for
from stage import Stage
from traces import descriptors, processes, threads

STEADY = 50      # cycles until everything has been used that is used again and again
EVERY = 10
# Qt's connection to the account service takes some kilobytes for each sign-in, and gives them back when it has been
# idle for two seconds, which it never is here without a rest.
REST = 3
# KiB that memory may grow between the first and the last fifth of the cycles after that.
ROOM = {"client": 1024, "helper": 256}


class Sample(typing.NamedTuple):
    cycle: int
    RSS: int  # KiB, like the next two
    anonymous: int
    PSS: int  # falls while other programs share the same libraries, so it is shown and not judged
    descriptors: int
    threads: int


def sample(cycle, pid):
    sizes = dict(line.split(":", 1) for line in pathlib.Path(f"/proc/{pid}/smaps_rollup").read_text().splitlines()[1:])
    return Sample(cycle, *(int(sizes[name].split()[0]) for name in ("Rss", "Anonymous", "Pss")),
                  sum(descriptors(pid).values()), sum(threads(pid).values()))


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
    columns = "anonymous  PSS KiB  descriptors  threads"
    print("  cycle    s" + "".join(f"   {name + ': RSS':<12} {columns}" for name in pids))
    for cycle in range(1, count + 1):
        once(stage)
        if cycle % STEADY == 0:
            time.sleep(REST)
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
    for title in ("Desconectar", "Conectar"):
        stage.person.do("click")
        wait_for(f'the button to show "{title}"', lambda: stage.person.do("window")["title"] == title)
    stage.hears_of_the_end()


def show(cycle, seconds, samples):
    figures = "".join(f"   {s.RSS:<12} {s.anonymous:<9}  {s.PSS:<7}  {s.descriptors:<11}  {s.threads:<7}"
                      for s in samples)
    print(f"  {cycle:>5} {seconds:>4.0f}{figures}", flush=True)


def growth(name, curve):
    """What has grown: the last fifth of the samples after the steady point against the first fifth of them, each with
    its median, since descriptors come and go with what is just being done."""
    steady = [each for each in curve if each.cycle >= STEADY]
    fifth = max(len(steady) // 5, 1)
    for what, room in (("RSS", ROOM[name]), ("anonymous", ROOM[name]), ("descriptors", 0), ("threads", 0)):
        first = statistics.median(getattr(each, what) for each in steady[:fifth])
        last = statistics.median(getattr(each, what) for each in steady[-fifth:])
        print(f"  {name}'s {what}: {first:g} at first, {last:g} in the end (may grow by {room})")
        if last > first + room:
            yield f"the {name}'s {what} grew from {first:g} to {last:g}"
