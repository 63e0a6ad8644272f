# SPDX-License-Identifier: MIT
"""Whom polkit and the bus keep from the privileged helper, what it makes of a file that changes under its eyes, and
what it may do itself."""
import collections
import pathlib
import re
import subprocess
import time

import machine
import plain
import pytest
from helper_calls import (
    CANONICAL, HELPER, call, confine, helper_pid, kill_helper, own_file, run_arguments, run_folder, send, start_helper,
)
from session import BOOTED, PERSONAL, as_user, log, wait_for
from stage import Stage

pytestmark = pytest.mark.slow
BUS = {"to": "org.freedesktop.DBus", "path": "/"}
REQUEST = "org.freedesktop.DBus.RequestName"
RUN = run_arguments("/nonexistent.ovpn")


def refused(said: str, error: str) -> None:
    print("  " + said)
    assert said.startswith("Error ") and said.split()[1].rstrip(":").endswith("." + error)


@pytest.mark.parametrize("user, arguments, error", [
    ("berta", RUN, "NotAuthorized"),  # whom polkit does not allow
    ("berta", [f"{HELPER}.killOpenVPN"], "NotAuthorized"),
    ("ana", [f"{HELPER}.runAnything"], "AccessDenied"),
    ("ana", ["org.freedesktop.DBus.Properties.GetAll", f"string:{HELPER}"], "AccessDenied"),
])
def test_polkit_and_the_bus_refuse(user: str, arguments: list[str], error: str) -> None:
    start_helper()
    refused(call(user, *arguments), error)
    assert not machine.openvpn_pid() and not run_folder(), "something was started"


def test_only_root_may_own_the_helpers_name() -> None:
    refused(call("ana", REQUEST, f"string:{HELPER}", "uint32:0", **BUS), "AccessDenied")
    assert call("root", REQUEST, f"string:{HELPER}", "uint32:4", **BUS).endswith("uint32 3")  # the helper has it


def test_everybody_may_ask_what_the_helper_offers() -> None:
    said = call("berta", "org.freedesktop.DBus.Introspectable.Introspect")
    ours = said.split(f'<interface name="{HELPER}">')[1].split("</interface>")[0]
    assert set(re.findall('method name="(.*?)"', ours)) == {"getVersion", "runOpenVPN", "killOpenVPN"}


def raced(profile: pathlib.Path) -> str:
    """One run; what came of it."""
    run = send("ana", *run_arguments(profile))
    while run.poll() is None and not (CANONICAL.exists() and machine.openvpn_pid()):
        time.sleep(0.002)
    if run.poll() is None:
        given = CANONICAL.read_text(encoding="utf-8")
        assert "plugin" not in given and "remote" in given, "that is what OpenVPN was given"
        call("ana", f"{HELPER}.killOpenVPN")
    said = run.communicate()[0]
    return said.split(": ")[0].rsplit(".", 1)[1] if said.startswith("Error") else "started"


def test_what_was_checked_is_what_openvpn_is_given(runs: int = 1000) -> None:
    """The two profiles differ in one byte: a comment mark before the directive."""
    good = plain.profile() + "# plugin /tmp/x.so\n"
    profile = own_file("race.ovpn", good)
    command = ["/usr/bin/python3", "-B", PERSONAL / "rewriter.py", profile, good.encode().index(b"# plugin")]
    changes = subprocess.Popen(as_user("ana", command), stdout=subprocess.PIPE, text=True)
    start_helper()
    ends, began = collections.Counter(), time.monotonic()
    while sum(ends.values()) < runs and time.monotonic() - began < 120:
        ends[raced(profile)] += 1
    changes.terminate()
    print(f"  {sum(ends.values())} runs in {time.monotonic() - began:.0f} s: {dict(ends)}; the file was rewritten"
          f" {changes.communicate()[0].strip()} times")
    assert min(ends["started"], ends["ConfigRejected"]) > runs // 20, "the two kinds of file did not alternate"
    assert not run_folder()


def test_helper_and_openvpn_work_under_the_limits_of_the_unit(stage: Stage) -> None:
    if not BOOTED:
        confine()
    stage.connect()
    for name, pid in (("helper", helper_pid()), ("OpenVPN", machine.openvpn_pid())):
        status = dict(line.split(":\t", 1) for line in pathlib.Path(f"/proc/{pid}/status").read_text().splitlines())
        print(f"  {name}: capabilities {status['CapEff']} of {status['CapBnd']}")
        # kill, setgid, setuid, net_admin
        assert (status["CapBnd"], status["NoNewPrivs"]) == ("00000000000010e0", "1"), f"{name} is not confined"
    stage.disconnect()
    assert " corvale-openvpn[" in log("system"), "OpenVPN does not reach the system log"
    stage.connect()
    kill_helper()
    start_helper()
    machine.check_gone()
    wait_for("an empty run folder", lambda: not run_folder())
