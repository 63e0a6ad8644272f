# SPDX-License-Identifier: MIT
"""What may stand in the way of a connection: files, ports, programs, rights and configurations that are not as they
should be. Each is there for as long as its context lasts."""
import contextlib
import os
import pathlib
import shutil
import socket
import subprocess
from collections.abc import Callable, Iterator

import plain
from helper_calls import HANDED_OUT, NO_PROFILE, hand_out, own_file
from session import as_user, wait_for
from stage import Stage
from victims import victims

Obstacle = Callable[[Stage], contextlib.AbstractContextManager]
PROFILE = pathlib.Path("/tmp/corvale.ovpn")
DEFAULTS = pathlib.Path("/home/ana/.config/Corvale")
RULE = pathlib.Path("/etc/polkit-1/rules.d/05-nobody.rules")


def nothing(_stage: Stage) -> contextlib.AbstractContextManager:
    return contextlib.nullcontext()


@contextlib.contextmanager
def full_disk(_stage: Stage) -> Iterator[None]:
    """One page is left, and a configuration whose first page could pass for a whole one."""
    hand_out(plain.profile() + "# and so on\n" * 2000)
    PROFILE.unlink(missing_ok=True)
    filler = pathlib.Path("/tmp/filler")
    size = subprocess.run(["findmnt", "-no", "OPTIONS", "/tmp"], capture_output=True, text=True, check=True).stdout
    used = os.statvfs("/tmp")
    room = (used.f_blocks - used.f_bfree) * used.f_frsize + (1 << 20)
    subprocess.run(["mount", "-o", f"remount,size={room}", "/tmp"], check=True)
    with contextlib.suppress(OSError), filler.open("wb", buffering=0) as file:
        while True:
            file.write(bytes(4096))
    os.truncate(filler, filler.stat().st_size - 4096)
    try:
        yield
        assert PROFILE.stat().st_size == 0, "half a configuration was left"
    finally:
        filler.unlink()
        before = next((word for word in size.strip().split(",") if word.startswith("size=")), "size=50%")
        subprocess.run(["mount", "-o", f"remount,{before}", "/tmp"], check=True)
        HANDED_OUT.unlink()


@contextlib.contextmanager
def directory(_stage: Stage) -> Iterator[None]:
    PROFILE.unlink(missing_ok=True)
    PROFILE.mkdir()
    try:
        yield
    finally:
        PROFILE.rmdir()


@contextlib.contextmanager
def link(_stage: Stage) -> Iterator[None]:
    PROFILE.unlink(missing_ok=True)
    target = own_file("diary", "kept")
    PROFILE.symlink_to(target)
    try:
        yield
    finally:
        PROFILE.unlink()
    assert target.read_text(encoding="utf-8") == "kept", "the link was followed"


@contextlib.contextmanager
def somebody_elses(_stage: Stage) -> Iterator[None]:
    PROFILE.unlink(missing_ok=True)
    PROFILE.write_text("kept", encoding="utf-8")
    PROFILE.chmod(0o666)
    os.chown(PROFILE, 61001, 61001)
    yield
    assert PROFILE.read_text(encoding="utf-8") == "kept", "another's file was written"
    PROFILE.unlink()


@contextlib.contextmanager
def locked_defaults(_stage: Stage) -> Iterator[None]:
    DEFAULTS.mkdir(parents=True, exist_ok=True)
    for path in (DEFAULTS, *DEFAULTS.iterdir()):
        os.chown(path, 0, 0)
    DEFAULTS.chmod(0o555)
    try:
        yield
    finally:
        shutil.rmtree(DEFAULTS)


@contextlib.contextmanager
def roots_program(_stage: Stage) -> Iterator[None]:
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
def stranger(_stage: Stage) -> Iterator[None]:
    """Another user's program, which tells of each connection and what came over it."""
    command = as_user("berta", ["/usr/bin/python3", "-c", LISTENER])
    program = subprocess.Popen(command, stdout=subprocess.PIPE, text=True)
    assert program.stdout.readline() == "listening\n", "the stranger does not listen"
    try:
        yield
    finally:
        program.kill()
    said = program.communicate()[0].splitlines()
    print(f"  the stranger {len(said)} times: {', '.join(sorted(set(said)))}")
    assert said and set(said) == {"received b''"}, "the stranger was told something, or not asked at all"


@contextlib.contextmanager
def missing_openvpn(_stage: Stage) -> Iterator[None]:
    program = pathlib.Path("/usr/sbin/openvpn")
    aside = program.rename(program.with_name("openvpn.aside"))
    try:
        yield
    finally:
        aside.rename(program)


@contextlib.contextmanager
def no_account_service(stage: Stage) -> Iterator[None]:
    heal = victims(stage)["account service"].hit("killed")
    try:
        yield
    finally:
        heal()


@contextlib.contextmanager
def no_profile(_stage: Stage) -> Iterator[None]:
    NO_PROFILE.touch()
    try:
        yield
    finally:
        NO_PROFILE.unlink()


@contextlib.contextmanager
def refusing(action: str) -> Iterator[None]:
    """A rule of polkit's says no, and polkit has read it."""
    def refuses() -> bool:
        """What polkit says of some process of the person's, without asking anybody."""
        check = as_user("ana", ["sh", "-c", f"exec pkcheck --action-id {action} --process $$"])
        return "not authorized" in subprocess.run(check, capture_output=True, text=True, check=False).stderr.lower()

    RULE.write_text(f'polkit.addRule(function (action) {{ if (action.id == "{action}") return polkit.Result.NO; }});',
                    encoding="ascii")
    try:
        wait_for("the rule", refuses)
        yield
    finally:
        RULE.unlink()
    wait_for("the rule's end", lambda: not refuses())


def no_right(_stage: Stage) -> contextlib.AbstractContextManager:
    return refusing("com.corvale.macos.helper.run")


def handed_out(change: Callable[[str], str]) -> Obstacle:
    @contextlib.contextmanager
    def profile(_stage: Stage) -> Iterator[None]:
        hand_out(change(plain.profile()))
        try:
            yield
        finally:
            HANDED_OUT.unlink()
    return profile


def without_authority(profile: str) -> str:
    before, rest = profile.split("<ca>")
    return before + rest.split("</ca>\n")[1]
