# SPDX-License-Identifier: MIT
"""Talking to the privileged helper, and what it leaves in its run folder."""
import os
import pathlib
import pwd
import signal
import subprocess
import typing

import plain
from session import HERE, as_user, wait_for

HELPER = "com.corvale.macos.helper"
SCRIPTS = plain.SCRIPTS
RUN = pathlib.Path("/run/corvale")
CANONICAL = RUN / "openvpn.conf"
HOLD = pathlib.Path("/run/lab/hold")  # while it is there, the account service answers no sign-in
NO_PROFILE = pathlib.Path("/run/lab/no_profile")  # while it is there, the account service refuses to give one
HANDED_OUT = pathlib.Path("/run/lab/profile.ovpn")  # what the account service gives instead of its own
ACTIVATION = pathlib.Path(f"/usr/share/dbus-1/system-services/{HELPER}.service")


def send(user: str, member: str, *arguments: str, to: str = HELPER, path: str = "/com/corvale/macos/helper",
         **options: typing.Any) -> subprocess.Popen:
    """A program of `user` sends one message; its output ends with the answer."""
    return subprocess.Popen(
        as_user(user, ["dbus-send", "--system", "--print-reply", "--reply-timeout=60000", f"--dest={to}", path, member,
                       *arguments]),
        stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True, **options,
    )


def call(user: str, member: str, *arguments: str, **options: typing.Any) -> str:
    return send(user, member, *arguments, **options).communicate()[0].strip()


def run_arguments(config: object, up: object = SCRIPTS + "client.up") -> list[str]:
    return [f"{HELPER}.runOpenVPN", f"string:{config}", f"string:{up}", f"string:{SCRIPTS}client.down"]


def owner(name: str) -> int | None:
    """Whom the system bus takes for this name's process, or None."""
    said = call("root", "org.freedesktop.DBus.GetConnectionUnixProcessID", f"string:{name}",
                to="org.freedesktop.DBus", path="/")
    return int(said.split()[-1]) if "uint32" in said else None


def helper_pid() -> int | None:
    return owner(HELPER)


def kill_helper() -> None:
    """Returns when the bus knows about it."""
    pid = helper_pid()
    os.kill(pid, signal.SIGKILL)
    wait_for("the helper's end", lambda: helper_pid() != pid)


def start_helper() -> int:
    assert "string" in call("ana", f"{HELPER}.getVersion"), "the helper does not start"
    return helper_pid()


def own_file(name: str, text: str, mode: int = 0o600) -> pathlib.Path:
    """A file in ana's home that is hers."""
    path = pathlib.Path("/home/ana", name)
    path.write_text(text, encoding="utf-8")
    path.chmod(mode)
    os.chown(path, pwd.getpwnam("ana").pw_uid, pwd.getpwnam("ana").pw_gid)
    return path


def hand_out(text: str) -> None:
    HANDED_OUT.write_bytes(text.encode())


def run_folder() -> list[str]:
    return sorted(path.name for path in RUN.iterdir()) if RUN.exists() else []


def confine() -> None:
    """Under the limits of its unit, from its next start on: what systemd would do, as far as it can be done by hand."""
    lines = (HERE.parent / "packaging/systemd" / f"{HELPER}.service").read_text(encoding="ascii").splitlines()
    unit = dict(line.split("=", 1) for line in lines if "=" in line)
    capabilities = ",".join("+" + name.removeprefix("CAP_").lower() for name in unit["CapabilityBoundingSet"].split())
    writable = unit["ReadWritePaths"].split()
    wrapper = pathlib.Path("/run/lab/confined")
    wrapper.write_text("\n".join([
        "#!/bin/sh -e",
        *(f"mount --bind {path} {path}" for path in writable),
        *(f"mount -o remount,bind,ro {path}" for path in ("/", "/tmp") if path not in writable),
        "mount -t proc -o hidepid=invisible proc /proc",
        f"umask {unit['UMask']}",
        f"exec setpriv --bounding-set -all,{capabilities} --no-new-privs {unit['ExecStart']}",
    ]) + "\n", encoding="ascii")
    wrapper.chmod(0o755)
    activation = ACTIVATION.read_text(encoding="ascii")
    activation = activation.replace(unit["ExecStart"], f"/usr/bin/unshare --mount {wrapper}")
    ACTIVATION.write_text(activation, encoding="ascii")
    reload_bus()
    if helper_pid():
        kill_helper()


def reload_bus() -> None:
    call("root", "org.freedesktop.DBus.ReloadConfig", to="org.freedesktop.DBus", path="/")
