# SPDX-License-Identifier: MIT
"""How the helper gets into the system, shown with polkit's own authority and an agent that answers its prompts."""
import fcntl
import os
import pathlib
import signal
from collections.abc import Iterator

import machine
import pytest
from helper_calls import HELPER, helper_pid, owner, reload_bus, run_folder
from installing import BUNDLED, PASSWORD, Helpers, Install, bless, make_administrator, system_files
from obstacles import refusing
from session import Person, Session, wait_for
from traces import processes

ACTION = "com.apple.ServiceManagement.blesshelper"
SUCCESS = HELPER + " installed successfully"
BUNDLE, INSTALLED = "Helper: Bundle Version => ", "Helper: Installed Version => "


@pytest.fixture(scope="module")
def installer(session: Session, person: Person) -> Install:
    make_administrator()
    return Install(session, person)


@pytest.fixture(scope="module")
def helpers() -> Helpers:
    return Helpers()


def use(stage: Install) -> None:
    stage.connect()
    stage.disconnect()


def test_a_start_without_a_helper_installs_it_and_the_next_one_keeps_it(installer: Install, helpers: Helpers) -> None:
    before = system_files()
    for _ in range(2):
        bless("--remove")
        assert not system_files()
    installer.start_client()
    installer.logs(BUNDLE + helpers.version, f"The name {HELPER} was not provided", SUCCESS,
                   "XPC Connection Invalidated", prompts=1)
    assert system_files() == before, "the files are not those of the installation, to the byte and the mode"
    use(installer)
    installer.start_client()
    installer.logs(BUNDLE + helpers.version, INSTALLED + helpers.version)
    use(installer)


def test_an_older_helper_is_replaced_and_its_tunnel_ends(installer: Install, helpers: Helpers) -> None:
    helpers.install("0.9.0")
    helpers.bundle("0.9.0")
    installer.start_client()
    installer.logs(BUNDLE + "0.9.0", INSTALLED + "0.9.0")
    installer.connect()
    older = helper_pid()
    helpers.bundle(helpers.version)
    installer.start_client()
    installer.logs(BUNDLE + helpers.version, INSTALLED + "0.9.0", SUCCESS, prompts=1)
    machine.check_gone()
    assert not pathlib.Path(f"/proc/{older}").exists(), "the older helper still runs"
    use(installer)
    assert helper_pid() != older


def test_the_tool_goes_on_when_the_client_quits(installer: Install, helpers: Helpers) -> None:
    before = helpers.installed()
    helpers.bundle("3.0.0")
    with open("/run/corvale-bless.lock", "w", encoding="ascii") as lock:
        fcntl.flock(lock, fcntl.LOCK_EX)  # the tool waits
        installer.launch()
        wait_for("the tool", lambda: processes()["bless"])
        installer.quits()
        assert helpers.installed() == before
    wait_for("the tool's end", lambda: not processes()["bless"])
    assert helpers.installed() == "3.0.0"


def test_a_helper_that_was_killed_with_its_openvpn_is_removed(installer: Install, helpers: Helpers) -> None:
    helpers.bundle(helpers.version)
    helpers.install(helpers.version)
    installer.start_client()
    installer.logs(BUNDLE, INSTALLED + helpers.version)
    installer.connect()
    for pid in (helper_pid(), machine.openvpn_pid()):
        os.kill(pid, signal.SIGKILL)
    bless("--remove")
    machine.check_gone()
    assert not system_files() and not run_folder()


FOUND = (BUNDLE, INSTALLED + "0.9.0")
NO_RIGHT = (*FOUND, "No right to " + ACTION)


def error(code: int) -> str:
    return f'Authorization error: Error Domain=NSOSStatusErrorDomain Code={code} "(null)"'


@pytest.fixture
def refused(installer: Install, helpers: Helpers) -> Iterator[Install]:
    """With an older helper, which is still the installed one in the end."""
    helpers.bundle(helpers.version)
    helpers.install("0.9.0")
    installer.agent = PASSWORD
    yield installer
    assert helpers.installed() == "0.9.0", "something was installed"


def test_the_client_ends_when_a_rule_says_no(refused: Install) -> None:
    with refusing(ACTION):
        refused.launch()
        refused.gives_up(*NO_RIGHT, error(-60005))


@pytest.mark.parametrize("agent, code", [("-", -60006), (None, -60007)], ids=["she cancels", "nobody can be asked"])
def test_the_client_ends_without_the_persons_consent(refused: Install, agent: str | None, code: int) -> None:
    refused.agent = agent
    refused.launch()
    refused.gives_up(*NO_RIGHT, error(code), prompts=bool(agent))


@pytest.mark.parametrize("bundled", [None, b"no program"], ids=["on the connection's thread", "on the main thread"])
def test_the_client_quits_while_the_prompt_is_open(refused: Install, bundled: bytes | None) -> None:
    refused.agent = "hold"
    if bundled:
        BUNDLED.write_bytes(bundled)
    refused.launch()
    wait_for("the prompt", refused.asked)
    refused.quits()
    wait_for("the prompt's end", lambda: any(line == "prompt withdrawn" for _, line in refused.prompts.lines))


def test_the_client_ends_when_there_is_no_polkit(refused: Install) -> None:
    refused.agent = None
    pathlib.Path("/usr/share/dbus-1/system-services/org.freedesktop.PolicyKit1.service").unlink()
    reload_bus()
    os.kill(owner("org.freedesktop.PolicyKit1"), signal.SIGKILL)
    wait_for("polkit's end", lambda: not owner("org.freedesktop.PolicyKit1"))
    refused.launch()
    refused.gives_up(*NO_RIGHT, error(-60008))
