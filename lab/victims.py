# SPDX-License-Identifier: MIT
"""Whom a fault may hit: how each is found, killed, stopped, and put back."""
import contextlib
import os
import pathlib
import select
import signal
import subprocess
import typing
from collections.abc import Callable

import machine
from helper_calls import HELPER, HOLD, call, helper_pid, owner, start_helper
from session import BOOTED, HERE, LOGS, log, wait_for
from stage import Stage

BUS = ("org.freedesktop.DBus", "/")
POLKIT = "org.freedesktop.PolicyKit1"
SERVER_PID = pathlib.Path("/run/lab/server.pid")


def running(*words: str) -> int | None:
    """The first process whose command line has all these words, each at an argument's end, or None."""
    found = []
    for path in pathlib.Path("/proc").glob("[0-9]*"):
        try:
            arguments = (path / "cmdline").read_bytes().decode(errors="replace").split("\0")
        except OSError:
            continue
        if all(any(argument.endswith(word) for argument in arguments) for word in words):
            found.append(int(path.name))
    return min(found, default=None)


def start_in_background(*command: str, log: typing.TextIO) -> None:
    """The first process of the machine waits for its end, as for that of the one before it."""
    subprocess.run(["setsid", "-f", *command], stdout=log, stderr=log, check=True)


def bus_call(member: str, *arguments: str) -> str:
    return call("root", f"{BUS[0]}.{member}", *arguments, to=BUS[0], path=BUS[1])


def start_account() -> None:
    with open(LOGS / "account_errors", "a", encoding="utf-8") as log:
        start_in_background("ip", "netns", "exec", "internet", "/usr/bin/python3", str(HERE / "account_service.py"),
                            str(LOGS / "account"), log=log)
    wait_for("the account service", lambda: not subprocess.run(["bash", "-c", ": </dev/tcp/203.0.113.10/443"],
                                                               stderr=subprocess.DEVNULL, check=False).returncode)


def start_polkit() -> None:
    wait_for("polkit", lambda: "uint32" in bus_call("StartServiceByName", f"string:{POLKIT}", "uint32:0"))


def start_bus() -> None:
    if BOOTED:
        subprocess.run(["systemctl", "start", "dbus.service"], check=True)
    else:
        with open(LOGS / "bus", "a", encoding="utf-8") as log:
            start_in_background("dbus-daemon", "--system", "--nofork", "--nopidfile", log=log)
    wait_for("the system bus", lambda: "array" in bus_call("ListNames"))
    start_polkit()


def server_pid() -> int | None:
    """A killed one leaves its file."""
    pid = ""
    with contextlib.suppress(FileNotFoundError):
        pid = SERVER_PID.read_text(encoding="ascii").strip()
    return int(pid) if pid and os.path.exists(f"/proc/{pid}") else None


def start_server() -> None:
    machine.server("start")
    wait_for("the OpenVPN server", server_pid)


def wake(pid: int) -> None:
    with contextlib.suppress(ProcessLookupError):
        os.kill(pid, signal.SIGCONT)


class Victim:
    """One of the parts: how it is found, and how it comes back."""

    def __init__(self, find: Callable[[], int | None], start: Callable[[], object],
                 restart: signal.Signals = signal.SIGTERM) -> None:
        self.find, self.start, self.restart = find, start, restart

    def hit(self, how: str) -> Callable[[], object]:
        """Kills it, stops it, or ends it in good order and starts it again; one that knows how restarts itself.

        Its end is awaited to the last thread and socket, and until the bus knows about it: one whose memory is gone
        already has its port and its name for a moment more, and the next one would not get them."""
        pid = self.find()
        assert pid, "the victim is not there"
        with open(os.pidfd_open(pid), "rb", buffering=0) as process:
            os.kill(pid, {"killed": signal.SIGKILL, "stopped": signal.SIGSTOP, "restarted": self.restart}[how])
            if how == "stopped":
                return lambda: wake(pid)
            if how == "restarted":
                wake(pid)  # the phase may have stopped it
                if self.restart == signal.SIGHUP:
                    return lambda: None
            wait_for("the victim's end", lambda: select.select([process], [], [], 0)[0] and self.find() != pid)
        if how == "killed":
            return self.start
        self.start()
        return lambda: None


def victims(stage: Stage) -> dict[str, Victim]:
    return {
        "client": Victim(lambda: None if stage.client.process.poll() is not None else stage.client.process.pid,
                         stage.start_client),
        "helper": Victim(helper_pid, start_helper),
        "gate": Victim(lambda: running("gate", machine.MANAGEMENT), lambda: None),
        "OpenVPN": Victim(machine.openvpn_pid, lambda: None, signal.SIGHUP),
        "account service": Victim(lambda: running("python3", "account_service.py"), start_account),
        "system bus": Victim(lambda: running("dbus-daemon", "--system", "--nopidfile"), start_bus),
        "polkit": Victim(lambda: owner(POLKIT), start_polkit),
        "OpenVPN server": Victim(server_pid, start_server),
    }


def polkit_hung(since: int) -> bool:
    """Whether polkit gave up its own rules, which it does when their evaluation has not returned after 15 s. That was
    seen once in thousands of answers, on a busy machine, of a polkit that had just been started."""
    with contextlib.suppress(AssertionError):
        return wait_for("polkit's word", lambda: "Terminating runaway script" in log("system")[since:], 16)
    return False


def start_over(stage: Stage) -> None:
    """After something went wrong: every part is there and goes on, with another client and no tunnel."""
    HOLD.unlink(missing_ok=True)
    for name, victim in victims(stage).items():
        if name not in ("client", "OpenVPN", "gate", "helper"):
            if victim.find() is None:
                victim.start()
            wake(victim.find())
    call("ana", f"{HELPER}.killOpenVPN")
    if stage.client.process.poll() is None:
        stage.client.process.kill()
        stage.client.process.wait()
    stage.start_client()
