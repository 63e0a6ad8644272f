# SPDX-License-Identifier: MIT
"""What the Debian package does to a machine: put in, used, exchanged under a running tunnel, taken out."""
import os
import pathlib
import shutil
import subprocess
import time

import machine
from helper_calls import HELPER, call, helper_pid, run_folder
from session import HERE, LOGS, Failure, wait_for
from stage import Stage

REPOSITORY = HERE.parent
BUILD = REPOSITORY / "build"
# Where a package puts things; aside is what the distribution's own tools write in passing, and anybody.
SYSTEM = ("/etc", "/opt", "/srv", "/usr", "/var")
ASIDE = ("/var/lib/dpkg", "/var/cache", "/var/log", "/var/tmp")
expect = Stage.expect


def done(*command, **options):
    ran = subprocess.run(command, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True, check=False, **options)
    if ran.returncode:
        raise Failure(f"{' '.join(map(str, command))}: {ran.stdout}")
    return ran.stdout


def files():
    """Each file of the system with its type, mode, owner and where it leads, and with its size."""
    aside = [word for path in ASIDE for word in ("-path", path, "-prune", "-o")]
    listed = done("find", *SYSTEM, *aside, "-printf", r"%p\t%y %m %U:%G %l\t%s\n")
    rows = (line.split("\t") for line in listed.splitlines())
    found = {path: (kind, "" if kind.startswith("d") else size) for path, kind, size in rows}
    return found | {str(path): ("in /run", "") for path in pathlib.Path("/run").glob("corvale*")}


def expect_same(before, now, what):
    differ = sorted(path for path in before.keys() | now.keys() if before.get(path) != now.get(path))
    expect(not differ, f"{what}: {[(path, before.get(path), now.get(path)) for path in differ[:20]]}")
    print(f"  {what}: the same {len(now)} files and folders")


def added(before, now):
    """What was put in; sizes aside, because what the package holds is stripped."""
    return {path: kind for path, (kind, _) in now.items() if path not in before and not path.startswith("/run/")}


def make_package():
    """Returns the package of what is built, and its version."""
    done(REPOSITORY / "packaging/make-deb.sh", BUILD)
    package = max(BUILD.glob("corvale_*.deb"), key=os.path.getmtime)
    return package, done("dpkg-deb", "--field", package, "Version").strip()


def repacked(package, version):
    """The same package with another version, which its two copies of the helper tell of themselves, too."""
    folder = pathlib.Path("/root/other")
    done("dpkg-deb", "--raw-extract", package, folder)
    own = done("dpkg-deb", "--field", package, "Version").strip()
    expect(len(own) == len(version), "the versions are not of one length")
    for path in (folder / "DEBIAN/control", *folder.glob(f"usr/**/{HELPER}")):
        text = path.read_bytes()
        for encoding in ("ascii", "utf-16-le"):
            text = text.replace(own.encode(encoding), version.encode(encoding))
        path.write_bytes(text)
    other = pathlib.Path(f"/var/tmp/corvale_{version}.deb")
    done("dpkg-deb", "--root-owner-group", "-Znone", "--build", folder, other)
    shutil.rmtree(folder)
    return other


def put_in(package):
    for line in done("dpkg", "--install", package).splitlines():
        print(f"    {line}")


def expect_version(version):
    said = call("ana", f"{HELPER}.getVersion")
    print("  helper's version:", said.split()[-1])
    expect(said.endswith(f'"{version}"'), f"that is not {version}: {said}")


def ended_by(stage, what, end):
    """A tunnel is up and `end` ends it; returns how many seconds later the window, which hears of it, said so."""
    began, helper = time.time(), helper_pid()
    end()
    took = stage.person.sees("Conectar", began) - began
    print(f'  {what} with a tunnel up: {time.time() - began:.3f} s; button "Conectar" after {took:.3f} s')
    machine.check_gone()
    wait_for("an empty run folder", lambda: not run_folder())
    expect(what.startswith("kill -9 of OpenVPN") or helper_pid() != helper, "the helper of before still runs")
    return took


def package():
    by_rules = files()
    uninstall = [REPOSITORY / "packaging/uninstall.sh", BUILD, "--prefix", "/usr"]
    done(*uninstall)
    before = files()
    first, version = make_package()
    next_version = version[:-1] + str(int(version[-1]) + 1)
    second = repacked(first, next_version)
    print(f"  made: {first.name}, {second.name}")

    done("unshare", "--mount", "sh", "-ec",
         f"mount -t tmpfs run /run; dpkg --install {first}; dpkg --purge corvale; ! ls -d /run/corvale* 2>&1")
    expect_same(before, files(), "before the package, and after it was put in and purged without a bus")

    put_in(first)
    expect_same(added(before, by_rules), added(before, files()), "put in by the install rules and by the package")
    expect_version(version)
    stage = Stage()
    stage.connect()

    ended_by(stage, "upgrade", lambda: put_in(second))
    expect_version(next_version)
    stage.connect()
    program = os.readlink(f"/proc/{helper_pid()}/exe")
    expect(program == f"/usr/libexec/corvale/{HELPER}", f"the helper is {program}")

    ended_by(stage, "removal", lambda: done("dpkg", "--remove", "corvale"))
    wait_for("the helper's end", lambda: not helper_pid())
    expect("ServiceUnknown" in call("ana", f"{HELPER}.getVersion"), "the bus still knows the helper")
    done("dpkg", "--purge", "corvale")
    stage.client.end()
    expect_same(before, files(), "before the package, and after it was purged")
    log = (LOGS / "system").read_text(encoding="utf-8")
    expect("installed successfully" not in log and "Authorization error" not in log, "a client installed the helper by itself")


PACKAGE_SCENARIOS = {"package": package}
