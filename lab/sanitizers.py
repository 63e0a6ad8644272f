# SPDX-License-Identifier: MIT
"""When the installed programs are those of a sanitized build: ends them in good order and looks for reports."""
import os
import pathlib
import re
import signal
import subprocess
from collections.abc import Iterator

from helper_calls import HELPER
from session import BUILD, LOGS, Failure, wait_for

RUNTIMES = {"address,undefined": "libasan", "thread": "libtsan"}
REPORT = re.compile(r"(Address|Leak|Thread|UndefinedBehavior)Sanitizer|runtime error: ")
PROGRAMS = ("Corvale", HELPER)
END = "Sanitizer at the end: leaks come next"


def sanitizers() -> str:
    if BUILD.is_file():
        return ""
    cache = (BUILD / "CMakeCache.txt").read_text(encoding="utf-8")
    return re.search(r"^CORVALE_SANITIZE:\w+=(.*)$", cache, re.MULTILINE)[1]


def running() -> Iterator[tuple[int, pathlib.Path]]:
    """Process ids and programs of the client and the helper."""
    for path in pathlib.Path("/proc").glob("[0-9]*"):
        try:
            program = pathlib.Path(os.readlink(path / "exe"))
        except OSError:
            continue
        if program.name in PROGRAMS:
            yield int(path.name), program


def ends() -> int:
    log = LOGS / "client"
    return log.read_text(encoding="utf-8", errors="replace").count(END) if log.exists() else 0


def check(main_job: bool) -> None:
    """Leaks are counted when a process ends, so what still runs is told to. After the main job both do."""
    which = sanitizers()
    if not which:
        return
    last = dict(running())
    if main_job and {program.name for program in last.values()} != set(PROGRAMS):
        raise Failure(f"client and helper do not both run at the end: {last}")
    for pid, program in last.items():
        needs = subprocess.run(["readelf", "--dynamic", program], capture_output=True, text=True, check=True).stdout
        if RUNTIMES[which] not in needs:
            raise Failure(f"{program} was built without -fsanitize={which}")
        before = ends()
        os.kill(pid, signal.SIGTERM)
        wait_for(f"the end of {program}", lambda: pid not in dict(running()))
        # The client has a tenth of a second, which a busy machine may use up.
        if which != "thread" and program.name != HELPER and ends() == before:
            raise Failure(f"{program} ended before it came to its leaks; once more, with less to do beside it")
    if reports():
        raise Failure("a sanitizer has reported something")
    ended = ", ".join(sorted(program.name for program in last.values()))
    print(f"  -fsanitize={which}: no report; running until the end: {ended or 'none'}")


def reports() -> list[str]:
    """The beginning of the first in each log."""
    texts = {log: log.read_text(encoding="utf-8", errors="replace") for log in sorted(LOGS.iterdir()) if log.is_file()}
    found = {log: REPORT.search(text) for log, text in texts.items()}
    return [f"--- in {log}:\n{texts[log][match.start():][:5000]}" for log, match in found.items() if match]
