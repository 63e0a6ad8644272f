# SPDX-License-Identifier: MIT
"""The product's Debian package: made, made over with another version, and what it leaves in a system."""
import os
import pathlib
import shutil
import subprocess
import time
import typing
from collections.abc import Callable

import machine
from helper_calls import HELPER, helper_pid, run_folder
from session import HERE, wait_for
from stage import STOPPED, Stage

BUILD = HERE.parent / "build"
# Where a package puts things; aside is what the distribution's own tools write in passing, and anybody.
SYSTEM = ("/etc", "/opt", "/srv", "/usr", "/var")
ASIDE = ("/var/lib/dpkg", "/var/cache", "/var/log", "/var/tmp")
Files = dict[str, tuple[str, str]]


def done(*command: object, **options: typing.Any) -> str:
    ran = subprocess.run(command, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True, check=False, **options)
    assert not ran.returncode, f"{' '.join(map(str, command))}: {ran.stdout}"
    return ran.stdout


def files() -> Files:
    """Each file of the system with its type, mode, owner and where it leads, and with its size."""
    aside = [word for path in ASIDE for word in ("-path", path, "-prune", "-o")]
    listed = done("find", *SYSTEM, *aside, "-printf", r"%p\t%y %m %U:%G %l\t%s\n")
    rows = (line.split("\t") for line in listed.splitlines())
    found = {path: (kind, "" if kind.startswith("d") else size) for path, kind, size in rows}
    return found | {str(path): ("in /run", "") for path in pathlib.Path("/run").glob("corvale*")}


def same(before: dict, now: dict, what: str) -> None:
    differ = sorted(path for path in before.keys() | now.keys() if before.get(path) != now.get(path))
    assert not differ, f"{what}: {[(path, before.get(path), now.get(path)) for path in differ[:20]]}"
    print(f"  {what}: the same {len(now)} files and folders")


def added(before: Files, now: Files) -> dict[str, str]:
    """What was put in; sizes aside, because what the package holds is stripped."""
    return {path: kind for path, (kind, _) in now.items() if path not in before and not path.startswith("/run/")}


def make_package() -> tuple[pathlib.Path, str]:
    """The package of what is built, and its version."""
    done(HERE.parent / "packaging/make-deb.sh", BUILD)
    package = max(BUILD.glob("corvale_*.deb"), key=os.path.getmtime)
    return package, done("dpkg-deb", "--field", package, "Version").strip()


def repacked(package: pathlib.Path, version: str) -> pathlib.Path:
    """The same package with another version, which its two copies of the helper tell of themselves, too."""
    folder = pathlib.Path("/root/other")
    done("dpkg-deb", "--raw-extract", package, folder)
    own = done("dpkg-deb", "--field", package, "Version").strip()
    assert len(own) == len(version), "the versions are not of one length"
    for path in (folder / "DEBIAN/control", *folder.glob(f"usr/**/{HELPER}")):
        text = path.read_bytes()
        for encoding in ("ascii", "utf-16-le"):
            text = text.replace(own.encode(encoding), version.encode(encoding))
        path.write_bytes(text)
    other = pathlib.Path(f"/var/tmp/corvale_{version}.deb")
    done("dpkg-deb", "--root-owner-group", "-Znone", "--build", folder, other)
    shutil.rmtree(folder)
    return other


def installed(package: str) -> str | None:
    """Its version, where it is."""
    asked = ["dpkg-query", "--show", "--showformat=${db:Status-Status} ${Version}", package]
    status, _, version = subprocess.run(asked, capture_output=True, text=True, check=False).stdout.partition(" ")
    return version if status == "installed" else None


def ended_by(stage: Stage, what: str, end: Callable[[], object]) -> float:
    """A tunnel is up and `end` ends it; returns how many seconds later the window, which hears of it, said so."""
    began, helper = time.time(), helper_pid()
    end()
    took = stage.person.sees(STOPPED, began) - began
    print(f'  {what} with a tunnel up: {time.time() - began:.3f} s; button "{STOPPED}" after {took:.3f} s')
    machine.check_gone()
    wait_for("an empty run folder", lambda: not run_folder())
    assert what.startswith("kill -9 of OpenVPN") or helper_pid() != helper, "the helper of before still runs"
    return took
