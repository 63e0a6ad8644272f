# SPDX-License-Identifier: MIT
"""Whether a process grows while the same is done again and again."""
import pathlib
import statistics
import typing

from traces import descriptors, threads

STEADY = 50  # cycles until everything has been used that is used again and again


class Sample(typing.NamedTuple):
    cycle: int
    RSS: int  # KiB, like the next two
    anonymous: int
    PSS: int  # falls while other programs share the same libraries, so it is shown and not judged
    descriptors: int
    threads: int


class Growth:
    """What a process has used so far; `room` is how many KiB its memory may grow from the first to the last fifth."""

    def __init__(self, name: str, pid: int, room: int) -> None:
        self.name, self.pid, self.room = name, pid, room
        self.samples: list[Sample] = []

    def take(self, cycle: int) -> str:
        lines = pathlib.Path(f"/proc/{self.pid}/smaps_rollup").read_text(encoding="ascii").splitlines()[1:]
        sizes = dict(line.split(":", 1) for line in lines)
        self.samples.append(Sample(
            cycle, *(int(sizes[name].split()[0]) for name in ("Rss", "Anonymous", "Pss")),
            sum(descriptors(self.pid).values()), sum(threads(self.pid).values())))
        figures = zip(Sample._fields[1:], self.samples[-1][1:])
        return f"{self.name}: " + ", ".join(f"{what} {figure}" for what, figure in figures)

    def grown(self) -> list[str]:
        """The last fifth of the samples after the steady point against the first fifth of them, each with its median,
        since descriptors come and go with what is just being done."""
        steady = [each for each in self.samples if each.cycle >= STEADY]
        fifth, wrong = max(len(steady) // 5, 1), []
        for what, room in (("RSS", self.room), ("anonymous", self.room), ("descriptors", 0), ("threads", 0)):
            first, last = (statistics.median(getattr(each, what) for each in part)
                           for part in (steady[:fifth], steady[-fifth:]))
            print(f"  {self.name}'s {what}: {first:g} at first, {last:g} in the end (may grow by {room})")
            if last > first + room:
                wrong.append(f"the {self.name}'s {what}")
        return wrong
