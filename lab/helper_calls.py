# SPDX-License-Identifier: MIT
"""Talking to the privileged helper, and what it leaves in its run folder."""
import os
import pathlib
import pwd
import signal
import subprocess

import plain
from session import as_user, wait_for
from stage import Stage

HELPER = "com.corvale.macos.helper"
SCRIPTS = plain.SCRIPTS
RUN = pathlib.Path("/run/corvale")
CANONICAL = RUN / "openvpn.conf"
HOLD = pathlib.Path("/run/lab/hold")  # while it is there, the account service answers no sign-in
NO_PROFILE = pathlib.Path("/run/lab/no_profile")  # while it is there, the account service refuses to give one
HANDED_OUT = pathlib.Path("/run/lab/profile.ovpn")  # what the account service gives instead of its own
expect = Stage.expect


def send(user, member, *arguments, to=HELPER, path="/com/corvale/macos/helper", **options):
    """A program of `user` sends one message; its output ends with the answer."""
    return subprocess.Popen(
        as_user(user, ["dbus-send", "--system", "--print-reply", "--reply-timeout=60000", f"--dest={to}", path, member,
                       *arguments]),
        stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True, **options,
    )


def call(user, member, *arguments, **options):
    return send(user, member, *arguments, **options).communicate()[0].strip()


def run_arguments(config, up=SCRIPTS + "client.up"):
    return [f"{HELPER}.runOpenVPN", f"string:{config}", f"string:{up}", f"string:{SCRIPTS}client.down"]


def owner(name):
    """Whom the system bus takes for this name's process, or None."""
    said = call("root", "org.freedesktop.DBus.GetConnectionUnixProcessID", f"string:{name}",
                to="org.freedesktop.DBus", path="/")
    return int(said.split()[-1]) if "uint32" in said else None


def helper_pid():
    return owner(HELPER)


def kill_helper():
    """Returns when the bus knows about it."""
    pid = helper_pid()
    os.kill(pid, signal.SIGKILL)
    wait_for("the helper's end", lambda: helper_pid() != pid)


def start_helper():
    expect("string" in call("ana", f"{HELPER}.getVersion"), "the helper does not start")
    return helper_pid()


def own_file(name, text, mode=0o600):
    """A file in ana's home that is hers."""
    path = pathlib.Path("/home/ana", name)
    path.write_text(text, encoding="utf-8")
    path.chmod(mode)
    os.chown(path, pwd.getpwnam("ana").pw_uid, pwd.getpwnam("ana").pw_gid)
    return path


def hand_out(text):
    HANDED_OUT.write_bytes(text.encode())


def run_folder():
    return sorted(path.name for path in RUN.iterdir()) if RUN.exists() else []
