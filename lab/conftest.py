# SPDX-License-Identifier: MIT
"""What scenarios ask for. Each file of scenarios/ has a machine to itself: what belongs to a module is made once."""
from collections.abc import Iterator

import machine
import pytest
import sanitizers
from desk import Desk
from helper_calls import HANDED_OUT, HELPER, call
from session import LOGS, Person, Session, log, quiet
from stage import Stage
from timeline import Bus
from traces import settled_traces


def pytest_addoption(parser: pytest.Parser) -> None:
    parser.addoption("--cycles", type=int, help="how many connections, or moves, are made in a row")


@pytest.hookimpl(tryfirst=True)
def pytest_collection_modifyitems(items: list[pytest.Item]) -> None:
    """What is not marked is fast, so that every scenario of this system is either fast or slow."""
    for item in items:
        if not any(item.get_closest_marker(name) for name in ("slow", "system")):
            item.add_marker("fast")


def pytest_runtest_setup() -> None:
    print()  # what a scenario shows begins below its name


@pytest.hookimpl(hookwrapper=True)
def pytest_runtest_makereport() -> Iterator[None]:
    """A failure is shown with the ends of the logs."""
    report = (yield).get_result()
    if report.failed:
        report.sections += [(f"the end of {LOGS / name}", "\n".join(log(name).splitlines()[-15:]))
                            for name in ("system", "account_errors", "server")]
        report.sections += [("a sanitizer's report", text) for text in sanitizers.reports()]


@pytest.fixture(scope="session", autouse=True)
def whole(request: pytest.FixtureRequest) -> Iterator[None]:
    """The first to be set up, when there is no tunnel yet, and the last to be done."""
    machine.before()
    yield
    Session.finish_pictures()
    sanitizers.check(main_job=any(item.path.stem == "test_connect" for item in request.session.items))


@pytest.fixture(scope="module")
def session(request: pytest.FixtureRequest) -> Session:
    """The person's session. A module's SCREEN says what is different about it."""
    return Session(**getattr(request.module, "SCREEN", {}))


@pytest.fixture(scope="module")
def person(session: Session) -> Person:
    return Person(session)


@pytest.fixture
def bus() -> Bus:
    return Bus()


@pytest.fixture
def nothing_before(session: Session) -> None:
    """What a test before this one has left is ended."""
    session.end_clients()
    HANDED_OUT.unlink(missing_ok=True)
    if machine.openvpn_pid():
        call("ana", f"{HELPER}.killOpenVPN")
        machine.check_gone()


@pytest.fixture
def stage(nothing_before: None, session: Session, person: Person) -> Stage:
    """With a client that has just been started."""
    return Stage(session, person)


@pytest.fixture
def desk(nothing_before: None, session: Session, person: Person) -> Desk:
    """The same, with what its SCREEN shows."""
    return Desk(session, person)


@pytest.fixture(scope="module")
def rested(session: Session, person: Person) -> tuple[Stage, dict]:
    """With a client that has been connected once; and what there is in the machine now that it has come to rest."""
    with quiet():
        stage = Stage(session, person)
        stage.connect()
        stage.disconnect()
        return stage, settled_traces(stage)
