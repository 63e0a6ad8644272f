# SPDX-License-Identifier: MIT
"""A desktop with a window manager, and what can be seen of its screen from outside the client."""
import contextlib
import json
import pathlib
import re
import time

from session import PERSONAL, Failure, Person, Program, Session, as_user, wait_for
from stage import Stage


class Desk(Stage):
    def __init__(self, session: Session, person: Person) -> None:
        super().__init__(session, person)
        self.first = self.shown()

    def window(self) -> str | None:
        """The X id of the client's window while it is on the screen."""
        found = self.session.output("xdotool", "search", "--onlyvisible", "--name", "^Corvale$").split()
        return found[0] if found else None

    def shown(self) -> str:
        """Which of the client's things the window on the screen is, as the accessibility bus knows it."""
        wait_for("the window on the screen", self.window)
        return self.person.do("frame")["path"]

    def close_window(self) -> None:
        wait_for("the window in front",
                 lambda: self.session.output("xdotool", "getactivewindow").strip() == self.window())
        # A window manager that has just started manages windows before it takes keys.
        began = time.monotonic()
        while self.window():
            assert time.monotonic() - began < 20, "the window does not close"
            self.session.keys("alt+F4")
            with contextlib.suppress(Failure):
                wait_for("the window's end", lambda: not self.window(), 2)
        assert self.client.process.poll() is None, "closing the window ended the client"

    def start_again(self) -> None:
        second = self.session.client()
        assert second.process.wait(20) == 0, "the second start did not end well"
        assert self.shown() == self.first, "the second start made another window"

    def item_in_panel(self) -> tuple[int, int] | None:
        """Where the panel shows the client's item."""
        tree = self.session.output("xwininfo", "-root", "-tree")
        found = re.search(r'"Corvale": \("corvale" "Corvale"\) +22x22\S+ +\+(\d+)\+(5[789]\d)\n', tree)
        return found and (int(found[1]) + 11, int(found[2]) + 11)

    def all_windows(self) -> set[str]:
        """Those on the screen, the item and its menu among them."""
        return set(self.session.output("xdotool", "search", "--onlyvisible", "--class", "^corvale$").split())

    def choose_in_panel(self, *keys: str) -> None:
        x, y = wait_for("the item in the panel", self.item_in_panel)
        before = self.all_windows()
        self.session.run("xdotool", "mousemove", str(x), str(y), "click", "1").wait(20)
        wait_for("the open menu", lambda: self.all_windows() - before)
        self.session.keys(*keys)

    def focus_is(self, role: str, name: str) -> None:
        seen: list[tuple] = []

        def there() -> bool:
            focus = self.person.do("focus")
            seen.append((focus.get("role"), focus.get("name")))
            return seen[-1] == (role, name)

        with contextlib.suppress(Failure):
            wait_for("focus", there, 5)
        assert seen[-1] == (role, name), "the focus is on the first of these, not on the second"

    def alert_says(self, text: str, key: str) -> None:
        assert self.person.do("alert")["text"] == text
        wait_for("the alert in front", lambda: self.person.do("focus").get("name") == "OK")
        self.session.keys(key)


class NewerBar(Program):
    """The status bar of the session's bus, or --alone, its part that may be there long before what shows the items."""

    def __init__(self, session: Session, *options: str) -> None:
        super().__init__(as_user("ana", ["/usr/bin/python3", "-B", str(PERSONAL / "status_notifier.py"), *options]),
                         env=session.environment, cwd="/")

    def hears(self, key: str, after: int = 0) -> dict:
        """The first of what it said under that name after so many lines."""
        def said() -> list[dict]:
            return [what for what in (json.loads(line) for _, line in self.lines[after:]) if key in what]

        return wait_for(f'the status bar\'s "{key}"', lambda: said() and said()[0])

    def ask(self, **request: object) -> dict:
        after = len(self.lines)
        self.process.stdin.write(json.dumps(request) + "\n")
        return self.hears(next(iter(request)), after)


def resident(pid: int) -> int:
    """KiB."""
    return int(re.search(r"VmRSS:\s+(\d+)", pathlib.Path(f"/proc/{pid}/status").read_text())[1])
