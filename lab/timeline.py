# SPDX-License-Identifier: MIT
"""Puts what the parts themselves recorded about one connection in order: nothing in here is computed from another."""
import os
import re
import subprocess
from collections.abc import Iterator

from session import Person, Program, log

HELPER = "com.corvale.macos.helper"
Event = tuple[float, str, str]
STATE = re.compile(r"^([\d.]+) corvale: (?:\w+\(\): )?([A-Z][A-Z_]+)$", re.IGNORECASE)


class Bus(Program):
    """Listens to everything that is said to and about the helper on the system bus."""

    def __init__(self) -> None:
        super().__init__(
            ["dbus-monitor", "--system", "--profile", f"interface='{HELPER}'",
             f"arg0='{HELPER}',member='NameOwnerChanged'", "member='CheckAuthorization'"],
            stderr=subprocess.DEVNULL,
        )

    def events(self) -> Iterator[Event]:
        # type, time, serial, sender, destination, path, interface, member
        for _, line in list(self.lines):
            fields = line.split("\t")
            if len(fields) < 8 or fields[0] not in ("mc", "sig"):
                continue
            when, member = float(fields[1]), fields[7]
            if member == "NameOwnerChanged":
                yield when, "system bus", "the helper came or went"
            elif member == "CheckAuthorization":
                yield when, "system bus", "polkit asked about the caller"
            else:
                yield when, "system bus", f"helper called: {member}"


def service_events() -> Iterator[Event]:
    words = {"/api/login": "sign-in answered", "/api/profile": "profile answered"}
    for line in log("account").splitlines():
        when, _method, path, status = line.split()
        yield float(when), "account service", f"{words.get(path, path)}: {status}"


def state_events() -> Iterator[Event]:
    for line in log("system").splitlines():
        match = STATE.match(line)
        if match:
            yield float(match[1]), "client's log", f"state {match[2]}"


def client_events(client: Program) -> Iterator[Event]:
    """The client echoes each command once the management interface has taken it."""
    for when, line in list(client.lines):
        if line == "state on":
            yield when, "client's output", "management connected"
        elif line == "signal SIGINT":
            yield when, "client's output", "OpenVPN told to end"
        elif line == "error while starting mgmt interface":
            yield when, "client's output", line


def file_events() -> Iterator[Event]:
    path = "/tmp/corvale.ovpn"
    if os.path.exists(path):
        yield os.stat(path).st_mtime, "file system", f"{path} written"


def collect(person: Person, client: Program, bus: Bus, started: float | None) -> list[Event]:
    """All that is known, sorted. `started` is when the OpenVPN process began, or None."""
    events = [(when, "accessibility bus", f'button "{title}"') for when, title in person.titles]
    events += [*service_events(), *state_events(), *client_events(client), *file_events(), *bus.events()]
    if started:
        events.append((started, "/proc", "OpenVPN process began"))
    return sorted(events)


def show(events: list[Event], click: float) -> None:
    print(f"\n  {'ms':>8}  {'seen by':<18} what")
    print(f"  {0:>8.0f}  {'person':<18} click")
    for when, source, what in events:
        if when >= click:
            print(f"  {(when - click) * 1000:>8.0f}  {source:<18} {what}")
    print()
