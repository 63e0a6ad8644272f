# SPDX-License-Identifier: MIT
"""The person's session inside the private machine: screen, buses, the client, and whoever works it."""
import contextlib
import io
import json
import os
import pathlib
import pwd
import queue
import shutil
import subprocess
import threading
import time
import typing
from collections.abc import Callable, Sequence

HERE = pathlib.Path(__file__).parent
PERSONAL = pathlib.Path("/run/lab/person")  # what the person runs and reads herself
BUILD = HERE.parent / (os.environ.get("BUILD") or "build")
PICTURES = HERE.parent / (os.environ.get("OUT") or "build/demo")
BOOTED = os.path.isdir("/run/systemd/system")
LOGS = pathlib.Path("/var/log/lab")


class Failure(AssertionError):
    """What was waited for did not come."""


def wait_for(what: str, condition: Callable[[], typing.Any], limit: float = 20.0) -> typing.Any:
    """Returns the condition's first true value."""
    deadline = time.monotonic() + limit
    while True:
        value = condition()
        if value:
            return value
        if time.monotonic() > deadline:
            raise Failure(f"{what}: not within {limit:g} s")
        time.sleep(0.01)


def log(name: str) -> str:
    """What one of the machine's logs has so far."""
    return (LOGS / name).read_text(encoding="utf-8")


def found(text: str, words: Sequence[str]) -> list[str] | None:
    """The log's lines that have these words, in their order, or None where one is missing."""
    lines = iter(text.splitlines())
    hits = [next((line for line in lines if word in line), None) for word in words]
    return None if None in hits else [hit.split(" ", 1)[1] for hit in hits]


def quiet() -> contextlib.AbstractContextManager:
    """For what was shown often enough."""
    return contextlib.redirect_stdout(io.StringIO())


def as_user(user: str, arguments: Sequence[object]) -> list[str]:
    """The command with the user's rights and nothing else; the person's is part of her session at the seat."""
    command = ["setpriv", f"--reuid={user}", f"--regid={user}", "--init-groups", *map(str, arguments)]
    if user != "ana" or not BOOTED:
        return command
    session = pathlib.Path("/run/lab/session").read_text(encoding="ascii").strip()
    return ["sh", "-c", 'echo 0 >"$0" && exec "$@"', session, *command]


class Program:
    """A child whose lines are kept, each with the time of its arrival."""

    def __init__(self, arguments: Sequence[str], on_line: Callable[[str], None] | None = None,
                 **options: typing.Any) -> None:
        self.lines: list[tuple[float, str]] = []
        self.on_line = on_line
        self.process = subprocess.Popen(
            arguments, stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True, bufsize=1, errors="replace", **options
        )
        threading.Thread(target=self._read, daemon=True).start()

    def _read(self) -> None:
        for line in self.process.stdout:
            self.lines.append((time.time(), line.rstrip("\n")))
            if self.on_line:
                self.on_line(line)

    def end(self) -> int:
        self.process.terminate()
        return self.process.wait(20)


class Session:
    """A desktop with a panel, or, for what a desktop may lack or do, one with a window manager alone."""

    def __init__(self, bare: bool = False, size: str = "800x600") -> None:
        self.account = pwd.getpwnam("ana")
        runtime = f"/run/user/{self.account.pw_uid}"
        self.environment = {
            "HOME": self.account.pw_dir,
            "USER": "ana",
            "PATH": "/usr/local/bin:/usr/bin:/bin",
            "LANG": "C.UTF-8",
            "XDG_RUNTIME_DIR": runtime,
            "DBUS_SESSION_BUS_ADDRESS": f"unix:path={runtime}/bus",
            "QT_LINUX_ACCESSIBILITY_ALWAYS_ON": "1",
        }
        self.screen = None
        self.clients: list[Program] = []
        if "DISPLAY" in os.environ:
            self.environment["DISPLAY"] = os.environ["DISPLAY"]
            if os.path.exists("/run/lab/xauthority"):
                self.environment["XAUTHORITY"] = "/run/lab/xauthority"
        else:
            self._start_screen(size)
        if not os.path.exists(f"{runtime}/bus"):  # the person's systemd has one
            self.run("dbus-daemon", "--session", "--nofork", f"--address=unix:path={runtime}/bus")
        wait_for("session bus", lambda: os.path.exists(f"{runtime}/bus"))
        if BOOTED:
            names = "DISPLAY", "QT_LINUX_ACCESSIBILITY_ALWAYS_ON"
            self.run("dbus-update-activation-environment", "--systemd", *names).wait()
        if bare:
            self.run("openbox")
            wait_for("window manager", lambda: self.output("xprop", "-root", "_NET_SUPPORTING_WM_CHECK").count("#"))
        elif self.screen:
            # The panel waits for these, which a window manager would set.
            for name, value in (("_NET_NUMBER_OF_DESKTOPS", "1"), ("_NET_CURRENT_DESKTOP", "0")):
                self.run("xprop", "-root", "-f", name, "32c", "-set", name, value).wait()
            self.start_panel()

    def start_panel(self, settings: pathlib.Path = PERSONAL / "tint2rc") -> subprocess.Popen:
        self.panel = self.run("tint2", "-c", str(settings))
        return self.panel

    def _start_screen(self, size: str) -> None:
        self.environment |= {"DISPLAY": ":7", "LAB_OWN_SCREEN": "1"}
        frames = pathlib.Path(self.environment["XDG_RUNTIME_DIR"], "screen")
        frames.mkdir()
        os.chown(frames, self.account.pw_uid, self.account.pw_gid)
        self.run("Xvfb", ":7", "-screen", "0", f"{size}x24", "-noreset", "-nolisten", "tcp", "-fbdir", str(frames))
        wait_for("screen", lambda: os.path.exists("/tmp/.X11-unix/X7"))
        self.screen = frames / "Xvfb_screen0"

    def run(self, *arguments: str, **options: typing.Any) -> subprocess.Popen:
        """Starts a program as the person, with the person's rights and nothing else."""
        log = open(LOGS / "session", "a", encoding="utf-8")
        options = {"stdout": log, "stderr": log} | options
        return subprocess.Popen(as_user("ana", arguments), env=self.environment, cwd="/", **options)

    def output(self, *arguments: str) -> str:
        """What a program of the person writes until its end."""
        return self.run(*arguments, stdout=subprocess.PIPE, text=True).communicate(timeout=20)[0]

    def program(self, *arguments: str, **options: typing.Any) -> Program:
        return Program(as_user("ana", arguments), **{"env": self.environment, "cwd": "/"} | options)

    def client(self, **environment: str) -> Program:
        """The installed client."""
        client = self.program("corvale", stderr=self.errors(),
                              env=self.environment | {"CORVALE_TELL_END": "1"} | environment)
        self.clients.append(client)
        return client

    def end_clients(self) -> None:
        """Those that still run."""
        while self.clients:
            if (client := self.clients.pop()).process.poll() is None:
                client.end()

    @staticmethod
    def errors() -> typing.TextIO:
        """Where a client's standard error goes: its lines of the system log, and what a sanitizer has to say."""
        return open(LOGS / "client", "a", encoding="utf-8")

    def keys(self, *names: str) -> None:
        """Strikes keys, one after the other."""
        self.run("xdotool", "key", "--delay", "30", *names).wait(20)

    def types(self, text: str) -> None:
        self.run("xdotool", "type", "--delay", "20", text).wait(60)

    def picture(self, name: str) -> None:
        """Keeps the screen as it is now. The copy takes a millisecond; it becomes a PNG when the work is over."""
        if self.screen:
            shutil.copyfile(self.screen, PICTURES / f"{name}.xwd")

    @staticmethod
    def finish_pictures() -> None:
        for frame in sorted(PICTURES.glob("*.xwd")):
            subprocess.run(["convert", f"xwd:{frame}", frame.with_suffix(".png")], check=True)
            frame.unlink()
            print(f"  picture: {frame.stem}.png")


class Person:
    """Works the client through the accessibility bus; `titles` are the connect button's, with their times."""

    def __init__(self, session: Session) -> None:
        self.titles: list[tuple[float, str]] = []
        self.answers: queue.Queue[dict] = queue.Queue()
        self.program = session.program("/usr/bin/python3", "-B", str(PERSONAL / "person.py"), on_line=self._hear)
        self._answer(20)

    def _hear(self, line: str) -> None:
        said = json.loads(line)
        if "title" in said and "time" in said:
            self.titles.append((said["time"], said["title"]))
        else:
            self.answers.put(said)

    def _answer(self, limit: float) -> typing.Any:
        try:
            said = self.answers.get(timeout=limit)
        except queue.Empty:
            raise Failure("the person does not answer") from None
        if "failed" in said:
            raise Failure(said["failed"])
        return said["answer"]

    def do(self, what: str, **more: typing.Any) -> dict:
        self.program.process.stdin.write(json.dumps({"do": what, **more}) + "\n")
        return self._answer(60)

    def sign_in(self, email: str, password: str) -> float:
        """Fills the form and presses the button; returns the time of the click."""
        self.do("type", name="Email", text=email)
        self.do("type", name="Contraseña", text=password)
        return self.do("click")["time"]

    def sees(self, title: str, since: float, limit: float = 30.0) -> float:
        """Waits for a title that the button got after `since`; returns the time when it did."""
        return wait_for(
            f'the button\'s title "{title}"',
            lambda: next((when for when, shown in list(self.titles) if shown == title and when >= since), None),
            limit,
        )
