# SPDX-License-Identifier: MIT
"""What the Debian package does to a machine: put in, used, exchanged under a running tunnel, taken out."""
import os
import pathlib

import pytest
from helper_calls import HELPER, call, helper_pid
from packages import BUILD, added, done, ended_by, files, make_package, repacked, same
from session import HERE, Person, Session, log, wait_for
from stage import Stage

pytestmark = pytest.mark.slow


def tells_version(version: str) -> bool:
    return call("ana", f"{HELPER}.getVersion").endswith(f'"{version}"')


def test_the_package_is_put_in_exchanged_and_taken_out(session: Session, person: Person) -> None:
    by_rules = files()
    done(HERE.parent / "packaging/uninstall.sh", BUILD, "--prefix", "/usr")
    before = files()
    first, version = make_package()
    next_version = version[:-1] + str(int(version[-1]) + 1)
    second = repacked(first, next_version)
    print(f"  made: {first.name}, {second.name}")

    done("unshare", "--mount", "sh", "-ec",
         f"mount -t tmpfs run /run; dpkg --install {first}; dpkg --purge corvale; ! ls -d /run/corvale* 2>&1")
    same(before, files(), "before the package, and after it was put in and purged without a bus")

    print(done("dpkg", "--install", first))
    same(added(before, by_rules), added(before, files()), "put in by the install rules and by the package")
    assert tells_version(version)
    stage = Stage(session, person)
    stage.connect()

    ended_by(stage, "upgrade", lambda: print(done("dpkg", "--install", second)))
    assert tells_version(next_version)
    stage.connect()
    assert pathlib.Path(os.readlink(f"/proc/{helper_pid()}/exe")) == pathlib.Path("/usr/libexec/corvale", HELPER)

    ended_by(stage, "removal", lambda: done("dpkg", "--remove", "corvale"))
    wait_for("the helper's end", lambda: not helper_pid())
    assert "ServiceUnknown" in call("ana", f"{HELPER}.getVersion"), "the bus still knows the helper"
    done("dpkg", "--purge", "corvale")
    stage.client.end()
    same(before, files(), "before the package, and after it was purged")
    assert "installed successfully" not in log("system") and "Authorization error" not in log("system"), (
        "a client installed the helper by itself")
