# SPDX-License-Identifier: MIT
"""The person's session inside the private machine: screen, buses, the client, and whoever works it."""
import json
import os
import pathlib
import pwd
import queue
import shutil
import subprocess
import threading
import time

HERE = pathlib.Path(__file__).parent
PERSONAL = pathlib.Path("/run/lab/person")  # what the person runs and reads herself
BUILD = HERE.parent / (os.environ.get("BUILD") or "build")
PICTURES = HERE.parent / (os.environ.get("OUT") or "build/demo")
BOOTED = os.path.isdir("/run/systemd/system")
LOGS = pathlib.Path("/var/log/lab")


class Failure(Exception):
    """The demonstration did not show what it is to show."""


def wait_for(what, condition, limit=20.0):
    """Returns the condition's first true value."""
    deadline = time.monotonic() + limit
    while True:
        value = condition()
        if value:
            return value
        if time.monotonic() > deadline:
            raise Failure(f"{what}: not within {limit:g} s")
        time.sleep(0.01)


def as_user(user, arguments):
    """The command with the user's rights and nothing else; the person's is part of her session at the seat."""
    command = ["setpriv", f"--reuid={user}", f"--regid={user}", "--init-groups", *map(str, arguments)]
    if user != "ana" or not BOOTED:
        return command
    session = pathlib.Path("/run/lab/session").read_text(encoding="ascii").strip()
    return ["sh", "-c", 'echo 0 >"$0" && exec "$@"', session, *command]


class Program:
    """A child whose lines are kept, each with the time of its arrival."""

    def __init__(self, arguments, on_line=None, **options):
        self.lines = []
        self.on_line = on_line
        self.process = subprocess.Popen(
            arguments, stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True, bufsize=1, errors="replace", **options
        )
        threading.Thread(target=self._read, daemon=True).start()

    def _read(self):
        for line in self.process.stdout:
            self.lines.append((time.time(), line.rstrip("\n")))
            if self.on_line:
                self.on_line(line)

    def end(self):
        self.process.terminate()
        return self.process.wait(20)


class Session:
    """A desktop with a panel, or, for what a desktop may lack or do, one with a window manager alone."""

    def __init__(self, bare=False, size="800x600"):
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
        if "DISPLAY" in os.environ:
            self.environment["DISPLAY"] = os.environ["DISPLAY"]
            if os.path.exists("/run/lab/xauthority"):
                self.environment["XAUTHORITY"] = "/run/lab/xauthority"
        else:
            self._start_screen(size)
        if not os.path.exists(f"{runtime}/bus"):  # the person's systemd has one
            self.run("dbus-daemon", "--session", "--nofork", f"--address={self.environment['DBUS_SESSION_BUS_ADDRESS']}")
        wait_for("session bus", lambda: os.path.exists(f"{runtime}/bus"))
        if BOOTED:
            self.run("dbus-update-activation-environment", "--systemd", "DISPLAY", "QT_LINUX_ACCESSIBILITY_ALWAYS_ON").wait()
        if bare:
            self.run("openbox")
            wait_for("window manager", lambda: self.output("xprop", "-root", "_NET_SUPPORTING_WM_CHECK").count("#"))
        elif self.screen:
            # The panel waits for these, which a window manager would set.
            for name, value in (("_NET_NUMBER_OF_DESKTOPS", "1"), ("_NET_CURRENT_DESKTOP", "0")):
                self.run("xprop", "-root", "-f", name, "32c", "-set", name, value).wait()
            self.start_panel()

    def start_panel(self):
        self.panel = self.run("tint2", "-c", str(PERSONAL / "tint2rc"))
        return self.panel

    def _start_screen(self, size):
        self.environment |= {"DISPLAY": ":7", "LAB_OWN_SCREEN": "1"}
        frames = pathlib.Path(self.environment["XDG_RUNTIME_DIR"], "screen")
        frames.mkdir()
        os.chown(frames, self.account.pw_uid, self.account.pw_gid)
        self.run("Xvfb", ":7", "-screen", "0", f"{size}x24", "-noreset", "-nolisten", "tcp", "-fbdir", str(frames))
        wait_for("screen", lambda: os.path.exists("/tmp/.X11-unix/X7"))
        self.screen = frames / "Xvfb_screen0"

    def run(self, *arguments, **options):
        """Starts a program as the person, with the person's rights and nothing else."""
        log = open(LOGS / "session", "a", encoding="utf-8")
        options = {"stdout": log, "stderr": log} | options
        return subprocess.Popen(self.as_person(arguments), env=self.environment, cwd="/", **options)

    def output(self, *arguments):
        """What a program of the person writes until its end."""
        return self.run(*arguments, stdout=subprocess.PIPE, text=True).communicate(timeout=20)[0]

    def program(self, *arguments, **options):
        return Program(self.as_person(arguments), **{"env": self.environment, "cwd": "/"} | options)

    @staticmethod
    def as_person(arguments):
        return as_user("ana", arguments)

    def client(self, **environment):
        """The installed client."""
        return self.program("corvale", stderr=self.errors(),
                            env=self.environment | {"CORVALE_TELL_END": "1"} | environment)

    @staticmethod
    def errors():
        """Where a client's standard error goes: its lines of the system log, and what a sanitizer has to say."""
        return open(LOGS / "client", "a", encoding="utf-8")

    def keys(self, *names):
        """Strikes keys, one after the other."""
        self.run("xdotool", "key", "--delay", "30", *names).wait(20)

    def types(self, text):
        self.run("xdotool", "type", "--delay", "20", text).wait(60)

    def picture(self, name):
        """Keeps the screen as it is now. The copy takes a millisecond; it becomes a PNG when the work is over."""
        if self.screen:
            shutil.copyfile(self.screen, PICTURES / f"{name}.xwd")

    @staticmethod
    def finish_pictures():
        for frame in sorted(PICTURES.glob("*.xwd")):
            subprocess.run(["convert", f"xwd:{frame}", frame.with_suffix(".png")], check=True)
            frame.unlink()
            print(f"  picture: build/demo/{frame.stem}.png")


class Person:
    """Works the client through the accessibility bus; `titles` are the connect button's, with their times."""

    def __init__(self, session):
        self.titles = []
        self.answers = queue.Queue()
        self.program = session.program("/usr/bin/python3", "-B", str(PERSONAL / "person.py"), on_line=self._hear)
        self._answer(20)

    def _hear(self, line):
        said = json.loads(line)
        if "title" in said and "time" in said:
            self.titles.append((said["time"], said["title"]))
        else:
            self.answers.put(said)

    def _answer(self, limit):
        try:
            said = self.answers.get(timeout=limit)
        except queue.Empty:
            raise Failure("the person does not answer") from None
        if "failed" in said:
            raise Failure(said["failed"])
        return said["answer"]

    def do(self, what, **more):
        self.program.process.stdin.write(json.dumps({"do": what, **more}) + "\n")
        return self._answer(60)

    def sign_in(self, email, password):
        """Fills the form and presses the button; returns the time of the click."""
        self.do("type", name="Email", text=email)
        self.do("type", name="Contraseña", text=password)
        return self.do("click")["time"]

    def sees(self, title, since, limit=30.0):
        """Waits for a title that the button got after `since`; returns the time when it did."""
        return wait_for(
            f'the button\'s title "{title}"',
            lambda: next((when for when, shown in list(self.titles) if shown == title and when >= since), None),
            limit,
        )
