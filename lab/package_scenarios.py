"""What the Debian package does to a machine: put in, used, exchanged under a running tunnel, taken out."""
import os
import pathlib
import re
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


def make_next_package():
    """The same with the next version, which stands in one place."""
    top = REPOSITORY / "CMakeLists.txt"
    text = top.read_text(encoding="utf-8")
    top.write_text(re.sub(r"(?<=\(Corvale VERSION )(\d+\.\d+\.)(\d+)", lambda m: f"{m[1]}{int(m[2]) + 1}", text), encoding="utf-8")
    alone = os.environ | {"CCACHE_DISABLE": "1"}  # a cache would lie outside the checkout
    done("cmake", "-DBUILD_TESTING=OFF", BUILD, env=alone)
    done("cmake", "--build", BUILD, env=alone)
    return make_package()


def put_in(package):
    for line in done("dpkg", "--install", package).splitlines():
        print(f"    {line}")


def expect_version(version):
    said = call("ana", f"{HELPER}.getVersion")
    print("  helper's version:", said.split()[-1])
    expect(said.endswith(f'"{version}"'), f"that is not {version}: {said}")


def ended_by(stage, what, command):
    """A tunnel is up; the command ends it, and the window hears of it."""
    began, helper = time.time(), helper_pid()
    for line in done(*command).splitlines():
        print(f"    {line}")
    print(f"  {what} with a tunnel up: {time.time() - began:.3f} s; "
          f'button "Conectar" {stage.person.sees("Conectar", began) - began:.3f} s after its begin')
    machine.check_gone()
    expect(not run_folder() and helper_pid() != helper, "the helper of before still runs or left something")


def package():
    by_rules = files()
    uninstall = [REPOSITORY / "packaging/uninstall.sh", BUILD, "--prefix", "/usr"]
    done(*uninstall)
    before = files()
    (first, version), (second, next_version) = make_package(), make_next_package()
    print(f"  made: {first.name}, {second.name}")

    done("unshare", "--mount", "sh", "-ec",
         f"mount -t tmpfs run /run; dpkg --install {first}; dpkg --purge corvale; ! ls -d /run/corvale* 2>&1")
    expect_same(before, files(), "before the package, and after it was put in and purged without a bus")

    put_in(first)
    expect_same(added(before, by_rules), added(before, files()), "put in by the install rules and by the package")
    expect_version(version)
    stage = Stage()
    stage.connect()

    ended_by(stage, "upgrade", ["dpkg", "--install", second])
    expect_version(next_version)
    stage.connect()
    program = os.readlink(f"/proc/{helper_pid()}/exe")
    expect(program == f"/usr/libexec/corvale/{HELPER}", f"the helper is {program}")

    ended_by(stage, "removal", ["dpkg", "--remove", "corvale"])
    wait_for("the helper's end", lambda: not helper_pid())
    expect("ServiceUnknown" in call("ana", f"{HELPER}.getVersion"), "the bus still knows the helper")
    done("dpkg", "--purge", "corvale")
    stage.client.end()
    expect_same(before, files(), "before the package, and after it was purged")
    log = (LOGS / "system").read_text(encoding="utf-8")
    expect("installed successfully" not in log and "Authorization error" not in log, "a client installed the helper by itself")


PACKAGE_SCENARIOS = {"package": package}
