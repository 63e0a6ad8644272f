# SPDX-License-Identifier: MIT
"""The helper's way into the system: helpers of other versions, and clients that start under the eyes of an agent."""
import pathlib
import re
import subprocess
import time

from helper_calls import HELPER, start_helper
from session import LOGS, PERSONAL, Person, Session, wait_for
from stage import STOPPED, Stage

BLESS = pathlib.Path("/usr/libexec/corvale/bless")
INSTALLED = BLESS.with_name(HELPER)
BUNDLED = pathlib.Path("/usr/lib/corvale/Corvale.app/Contents/Library/LaunchServices", HELPER)
PASSWORD = "kolibri"
OURS = ("Helper: ", "No right to ", "Authorization error: ", "Bless Error: ", "XPC ", HELPER, "The name ")
VERSION = re.compile(rb"<key>CFBundleVersion</key>\s*<string>([^<]*)")


class Helpers:
    """The bundle's helper as it was built, and as it would be if it had been built with another version."""

    def __init__(self) -> None:
        self.built = BUNDLED.read_bytes()
        self.version = VERSION.search(self.built)[1].decode()

    def of_version(self, version: str) -> bytes:
        """Five characters long, or with blanks after them."""
        made, plain = self.built, version.rstrip()
        more = len(version) - len(plain)
        for old, new in ((self.version.encode("utf-16-le"), plain.encode("utf-16-le")),
                         (b" " * more + b"<string>" + self.version.encode(), b"<string>" + version.encode())):
            assert old in made
            made = made.replace(old, new)
        assert len(made) == len(self.built)
        return made

    def bundle(self, version: str) -> None:
        BUNDLED.write_bytes(self.of_version(version))

    def install(self, version: str) -> None:
        """By an administrator; and it runs."""
        file = pathlib.Path("/root/helper")
        file.write_bytes(self.of_version(version))
        file.chmod(0o755)
        bless(str(file))
        start_helper()

    @staticmethod
    def installed() -> str:
        return VERSION.search(INSTALLED.read_bytes())[1].decode()


def bless(*arguments: str) -> None:
    done = subprocess.run([BLESS, *arguments], capture_output=True, text=True, check=False)
    print(f"  bless {' '.join(arguments)}: status {done.returncode}{', ' + done.stderr.strip() if done.stderr else ''}")
    assert done.returncode == 0


def make_administrator() -> None:
    """The person's password counts as an administrator's."""
    hashed = subprocess.run(["openssl", "passwd", "-6", PASSWORD], capture_output=True, text=True, check=True).stdout
    for file, pattern, new in (("/etc/shadow", r"^ana:\*:", f"ana:{hashed.strip()}:"),
                               ("/etc/group", r"^(sudo:.*)$", r"\1ana")):
        path = pathlib.Path(file)
        path.write_text(re.sub(pattern, new, path.read_text(encoding="utf-8"), flags=re.M), encoding="utf-8")


def system_files() -> dict[str, tuple[bytes, int]]:
    """What the bless tool puts into the system, with modes."""
    places = ("/usr/libexec/corvale", "/usr/share/dbus-1/system.d", "/usr/share/dbus-1/system-services",
              "/lib/systemd/system")
    paths = (path for place in places for path in pathlib.Path(place).rglob("*"))
    return {str(path): (path.read_bytes(), path.stat().st_mode) for path in paths
            if "corvale" in str(path) and path.is_file() and path != BLESS}


class Install(Stage):
    """Each client of this stage starts under the eyes of an agent; `agent` is what that one does, None for no agent."""

    def __init__(self, session: Session, person: Person) -> None:
        self.session, self.person = session, person
        self.agent: str | None = PASSWORD
        self.client = self.prompts = None

    def launch(self) -> None:
        for program in (self.client, self.prompts):
            if program and program.process.poll() is None:
                program.end()
        self.client = self.session.program("sh", "-c", "read go && exec corvale", stderr=self.session.errors())
        self.prompts = None
        if self.agent:
            self.prompts = self.session.program("/usr/bin/python3", "-B", str(PERSONAL / "agent.py"),
                                                str(self.client.process.pid), self.agent)
            wait_for("the agent", lambda: self.prompts.lines)
        self.mark = (LOGS / "system").stat().st_size
        self.client.process.stdin.write("\n")

    def start_client(self) -> None:
        self.launch()
        wait_for("the window", lambda: self.person.do("window", limit=20)["title"] == STOPPED)

    def log(self) -> list[str]:
        """What this client wrote about the helper."""
        with open(LOGS / "system", encoding="utf-8") as file:
            file.seek(self.mark)
            said = [line.split(": ", 1)[1] for line in file.read().splitlines() if re.match(r"[\d.]+ corvale: ", line)]
        return [line for line in said if line.startswith(OURS)]

    def asked(self) -> list[str]:
        return [line for _, line in self.prompts.lines if line.startswith("prompt ")] if self.prompts else []

    def logs(self, *lines: str, prompts: int = 0) -> None:
        """Lines that begin like these, in this order, and no others, after so many prompts."""
        try:
            wait_for(f'the line "{lines[-1]}"', lambda: any(line.startswith(lines[-1]) for line in self.log()), 40)
        finally:
            print(*self.log(), f"prompts: {self.asked() or 'none'}", sep="\n    ")
        log = self.log()
        assert len(log) == len(lines) and all(map(str.startswith, log, lines)), f"the log is {log}, not {lines}"
        assert len(self.asked()) == prompts

    def quits(self) -> None:
        """When it is told to, in good order."""
        began = time.monotonic()
        status = self.client.end()
        print(f"    status {status} after {time.monotonic() - began:.3f} s")
        assert status == 0

    def gives_up(self, *lines: str, prompts: int = 0) -> None:
        """By itself, in good order, with these lines."""
        status = self.client.process.wait(30)
        self.logs(*lines, prompts=prompts)
        assert status == 0
