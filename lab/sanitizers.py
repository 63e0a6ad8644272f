"""When the installed programs are those of a sanitized build: ends them in good order and looks for reports."""
import os
import pathlib
import re
import signal
import subprocess

from helper_calls import HELPER
from session import BUILD, LOGS, Failure, wait_for

RUNTIMES = {"address,undefined": "libasan", "thread": "libtsan"}
REPORT = re.compile(r"(ERROR|WARNING): \w+Sanitizer|runtime error: ")
PROGRAMS = ("Corvale", HELPER)


def sanitizers():
    cache = (BUILD / "CMakeCache.txt").read_text(encoding="utf-8")
    return re.search(r"^CORVALE_SANITIZE:\w+=(.*)$", cache, re.MULTILINE)[1]


def running():
    """Process ids and programs of the client and the helper."""
    for path in pathlib.Path("/proc").glob("[0-9]*"):
        try:
            program = pathlib.Path(os.readlink(path / "exe"))
        except OSError:
            continue
        if program.name in PROGRAMS:
            yield int(path.name), program


def check():
    """Leaks are counted when a process ends, so what still runs is told to."""
    which = sanitizers()
    if not which:
        return
    last = dict(running())
    if not last:
        raise Failure("neither client nor helper is left to be looked at")
    for pid, program in last.items():
        needs = subprocess.run(["readelf", "--dynamic", program], capture_output=True, text=True, check=True).stdout
        if RUNTIMES[which] not in needs:
            raise Failure(f"{program} was built without -fsanitize={which}")
        os.kill(pid, signal.SIGTERM)
        wait_for(f"the end of {program}", lambda: pid not in dict(running()))
    for log in sorted(LOGS.iterdir()):
        text = log.read_text(encoding="utf-8", errors="replace")
        if REPORT.search(text):
            raise Failure(f"a report in {log}:\n{text[REPORT.search(text).start():][:5000]}")
    ended = ", ".join(sorted(program.name for program in last.values()))
    print(f"  -fsanitize={which}: no report; running until the end: {ended}")
