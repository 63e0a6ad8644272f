# SPDX-License-Identifier: MIT
"""The pixels of the lab's screen: pictures cut out of it for docs/, colours in them, and the moment of a window."""
import mmap
import pathlib
import re
import struct
import subprocess
import time
import typing

from session import PICTURES, wait_for
from stage import Stage

PANEL = (1024, 1080, 30)  # the screen's width and height, and the height of the panel at its lower edge
AWAY = (900, 40)  # where the pointer covers nothing
Place = tuple[int, int, int, int]  # x, y, width, height


class Picture(typing.NamedTuple):
    path: pathlib.Path
    origin: tuple[int, int]

    def colours(self, place: Place) -> set[str]:
        """In a place of the screen."""
        x, y, width, height = place
        crop = f"{width}x{height}+{x - self.origin[0]}+{y - self.origin[1]}"
        pixels = subprocess.run(["convert", self.path, "-crop", crop, "+repage", "-depth", "8", "rgb:-"],
                                check=True, capture_output=True).stdout
        return {pixels[i:i + 3].hex().upper() for i in range(0, len(pixels), 3)}


class Screen:
    """What of it to keep under which name."""

    def __init__(self, stage: Stage) -> None:
        self.stage, self.session, self.person = stage, stage.session, stage.person

    def windows(self) -> list[Place]:
        """Places of the client's windows that are on the screen, menus among them."""
        found = re.findall(r'(0x\w+) "Corvale": .*  (\d+)x(\d+)\S+  \+(\d+)\+(\d+)', self.ask("-root", "-tree"))
        return [(int(x), int(y), int(w), int(h)) for window, w, h, x, y in found
                if "IsViewable" in self.ask("-id", window)]

    def ask(self, *what: str) -> str:
        return subprocess.run(["xwininfo", *what], env=self.session.environment, check=True, capture_output=True,
                              text=True).stdout

    def form(self) -> Place:
        return max(self.windows(), key=lambda place: place[2] * place[3])

    def status_item(self) -> Place:
        """Where the panel has put it, once it is there."""
        inside = PANEL[1] - PANEL[2]
        return wait_for("the status item", lambda: [place for place in self.windows() if place[1] >= inside])[0]

    def point(self, place: tuple[int, int] = AWAY, **more: bool) -> None:
        self.person.do("point", x=place[0], y=place[1], **more)

    def keep(self, name: str, place: Place | None = None) -> Picture:
        x, y, width, height = place or self.form()
        frame = PICTURES / f"{name}.xwd"
        time.sleep(0.4)  # what was just announced to the accessibility bus is on the screen a moment later
        self.session.picture(name)
        subprocess.run(["convert", f"xwd:{frame}", "-crop", f"{width}x{height}+{x}+{y}", "+repage",
                        "-depth", "8", frame.with_suffix(".png")], check=True)
        frame.unlink()
        return Picture(frame.with_suffix(".png"), (x, y))


def compose(name: str, *options: str) -> None:
    """One page out of kept pictures."""
    page = PICTURES / "docs" / f"{name}.png"
    page.parent.mkdir(exist_ok=True)
    kept = [PICTURES / f"{option[1:]}.png" if option.startswith("@") else option for option in options]
    subprocess.run(["convert", "-background", "none", *kept, "-strip", "-define", "png:compression-level=9", page],
                   check=True)
    print(f"  {page.name}: {page.stat().st_size} bytes")


class Pixels:
    """The private screen, which its server keeps in a file."""

    BACKGROUND = b"\x35\x2c\x28"  # blue, green, red

    def __init__(self, path: pathlib.Path) -> None:
        with open(path, "rb") as file:
            self.pixels = mmap.mmap(file.fileno(), 0, prot=mmap.PROT_READ)
        fields = struct.unpack(">25I", self.pixels[:100])  # of an xwd file
        self.width, self.height, self.line = fields[4], fields[5], fields[12]
        self.begin = fields[0] + fields[19] * 12

    def shows_form(self) -> bool:
        """Whether the screen's middle has the form's left margin."""
        at = self.begin + self.height // 2 * self.line + (self.width // 2 - 170) * 4
        return self.pixels[at:at + 3] == self.BACKGROUND
