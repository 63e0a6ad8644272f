# SPDX-License-Identifier: MIT
"""Files, ports and programs that are not as they should be: each attempt ends clearly, and the next click connects."""
import contextlib
import os
import pathlib
import shutil
import socket
import subprocess
import time

import machine
import plain
from fault_scenarios import CONNECTED, CONNECTING, STOPPED, log
from helper_calls import HANDED_OUT, expect, hand_out, own_file, run_folder
from life_scenarios import connected_again
from session import Failure, wait_for
from stage import ANA, Stage
from traces import check_as_before, settled_traces

PROFILE = pathlib.Path("/tmp/corvale.ovpn")
FILLER = pathlib.Path("/tmp/filler")
OPENVPN = pathlib.Path(shutil.which("openvpn"))
ASIDE = OPENVPN.with_name("openvpn.aside")
DEFAULTS = pathlib.Path("/home/ana/.config/Corvale")


@contextlib.contextmanager
def full_disk():
    """One page is left, and a configuration whose first page could pass for a whole one."""
    hand_out(plain.profile() + "# and so on\n" * 2000)
    PROFILE.unlink(missing_ok=True)
    size = subprocess.run(["findmnt", "-no", "OPTIONS", "/tmp"], capture_output=True, text=True, check=True).stdout
    used = os.statvfs("/tmp")
    room = (used.f_blocks - used.f_bfree) * used.f_frsize + (1 << 20)
    subprocess.run(["mount", "-o", f"remount,size={room}", "/tmp"], check=True)
    with contextlib.suppress(OSError), FILLER.open("wb", buffering=0) as file:
        while True:
            file.write(bytes(4096))
    os.truncate(FILLER, FILLER.stat().st_size - 4096)
    try:
        yield
        expect(PROFILE.stat().st_size == 0, "half a configuration was left")
    finally:
        FILLER.unlink()
        before = next((word for word in size.strip().split(",") if word.startswith("size=")), "size=50%")
        subprocess.run(["mount", "-o", f"remount,{before}", "/tmp"], check=True)
        HANDED_OUT.unlink()


@contextlib.contextmanager
def directory():
    PROFILE.unlink(missing_ok=True)
    PROFILE.mkdir()
    yield
    PROFILE.rmdir()


@contextlib.contextmanager
def link():
    PROFILE.unlink(missing_ok=True)
    target = own_file("diary", "kept")
    PROFILE.symlink_to(target)
    yield
    PROFILE.unlink()
    expect(target.read_text(encoding="utf-8") == "kept", "the link was followed")


@contextlib.contextmanager
def somebody_elses():
    PROFILE.unlink(missing_ok=True)
    PROFILE.write_text("kept", encoding="utf-8")
    PROFILE.chmod(0o666)
    os.chown(PROFILE, 61001, 61001)
    yield
    expect(PROFILE.read_text(encoding="utf-8") == "kept", "another's file was written")
    PROFILE.unlink()


@contextlib.contextmanager
def locked_defaults():
    DEFAULTS.mkdir(parents=True, exist_ok=True)
    for path in (DEFAULTS, *DEFAULTS.iterdir()):
        os.chown(path, 0, 0)
    DEFAULTS.chmod(0o555)
    yield
    shutil.rmtree(DEFAULTS)


@contextlib.contextmanager
def roots_program():
    """Takes every connection, and says nothing."""
    with socket.create_server(("127.0.0.1", 1337)):
        yield


LISTENER = """
import socket
with socket.create_server(("127.0.0.1", 1337)) as listener:
    print("listening", flush=True)
    while True:
        print("received", listener.accept()[0].recv(1000), flush=True)
"""


@contextlib.contextmanager
def stranger():
    """Another user's program, which tells of each connection and what came over it."""
    program = subprocess.Popen(["setpriv", "--reuid=berta", "--regid=berta", "--clear-groups", "/usr/bin/python3", "-c",
                                LISTENER], stdout=subprocess.PIPE, text=True)
    expect(program.stdout.readline() == "listening\n", "the stranger does not listen")
    yield
    program.kill()
    said = program.communicate()[0].splitlines()
    print(f"  the stranger {len(said)} times: {', '.join(sorted(set(said)))}")
    expect(said and set(said) == {"received b''"}, "the stranger was told something, or not asked at all")


@contextlib.contextmanager
def missing_openvpn():
    OPENVPN.rename(ASIDE)
    yield
    ASIDE.rename(OPENVPN)


def nothing_more():
    return contextlib.nullcontext()


# The obstacle; what turns up while the client tries; how the button ends; what the log says.
TABLE = {
    "the disk is full": (full_disk, nothing_more, STOPPED, "No space left on device"),
    "/tmp/corvale.ovpn is a directory": (directory, nothing_more, STOPPED, "Is a directory"),
    "/tmp/corvale.ovpn is a symbolic link": (link, nothing_more, STOPPED, "Too many levels of symbolic links"),
    "/tmp/corvale.ovpn is somebody else's": (somebody_elses, nothing_more, STOPPED, "XPCService error"),
    "the user defaults cannot be written": (locked_defaults, nothing_more, CONNECTED, "User defaults error"),
    "OpenVPN is missing": (missing_openvpn, nothing_more, STOPPED, "XPCService error"),
    # A program of root's could be OpenVPN: the form waits for its first word, and the next click starts anew.
    "a program of root's has port 1337": (roots_program, nothing_more, CONNECTING, "XPCService error"),
    "it takes port 1337 between two attempts": (missing_openvpn, roots_program, CONNECTING, "XPCService error"),
    "a stranger has port 1337": (stranger, nothing_more, STOPPED, "XPCService error"),
    "a stranger takes port 1337 between two attempts": (missing_openvpn, stranger, STOPPED, "XPCService error"),
}


def obstacles():
    stage = Stage()
    stage.connect()
    stage.disconnect()
    before, wrong = settled_traces(stage), []
    for what, row in TABLE.items():
        print(f"  {what}:")
        try:
            meet(stage, *row)
            if row[2] != CONNECTED:
                connected_again(stage)
            stage.disconnect()
            check_as_before(stage, before)
        except Failure as failure:
            wrong.append(f"{what}: {failure}")
            print(f"  WRONG: {failure}")
            stage.client.end()
            stage.start_client()
    expect(not wrong, "; ".join(wrong))


def meet(stage, obstacle, later, ends, says):
    said = len(log("system"))
    with contextlib.ExitStack() as stack:
        stack.enter_context(obstacle())
        click = stage.person.sign_in(*ANA)
        stage.person.sees(CONNECTING, click)
        wait_for(f'"{says}" in the log', lambda: says in log("system")[said:])
        stack.enter_context(later())
        if ends == CONNECTING:
            wait_for("the client to have found the stranger", lambda: told_the_password(stage, click))
            time.sleep(0.5)  # the reader looks ten times a second
            expect(stage.person.do("window")["title"] == CONNECTING, "the form does not wait")
        else:
            print(f'  button "{ends}" after {stage.person.sees(ends, click) - click:.1f} s')
        for line in log("system")[said:].splitlines():
            if " corvale: " in line and not line.rsplit(" ", 1)[-1].isupper():
                print("    log:", line.split(" corvale: ", 1)[1])
        expect(ends == CONNECTED or not machine.openvpn_pid() and not run_folder(), "something was started")


def told_the_password(stage, since):
    return any(line.startswith("password ") for when, line in list(stage.client.lines) if when >= since)
