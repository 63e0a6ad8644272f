# SPDX-License-Identifier: MIT
"""What the logs tell: each step of a click fails in turn, and the system log says how far the click came and why."""
import contextlib
import io
import pathlib
import socket
import subprocess
import threading
import time

import machine
import plain
from fault_scenarios import CONNECTED, CONNECTING, STOPPED, log
from helper_calls import HANDED_OUT, NO_PROFILE, expect, hand_out
from life_scenarios import connected_again
from obstacle_scenarios import directory, missing_openvpn, roots_program
from session import BOOTED, Session, wait_for
from stage import ANA, BERTA, Stage
from victims import victims

RULE = pathlib.Path("/etc/polkit-1/rules.d/05-nobody.rules")


class Journal:
    """Takes what a desktop's programs write to standard output; without systemd, in the place of its own."""

    WHOSE = "lab-desktop"

    def __init__(self):
        self.text = ""
        self.socket = pathlib.Path("/run/systemd/journal/stdout")
        self.listener = None
        if not BOOTED:
            self.socket.parent.mkdir(parents=True)
            self.listener = socket.socket(socket.AF_UNIX)
            self.listener.bind(str(self.socket))
            self.listener.listen()

    def connection(self):
        there = socket.socket(socket.AF_UNIX)
        there.connect(str(self.socket))
        if self.listener:
            threading.Thread(target=self._read, args=(self.listener.accept()[0],), daemon=True).start()
        else:
            # Who writes, which unit, how important, and where else the lines are to go.
            there.sendall(f"{self.WHOSE}\n\n6\n0\n0\n0\n0\n".encode())
        return there

    def _read(self, connection):
        for piece in iter(lambda: connection.recv(65536), b""):
            self.text += piece.decode(errors="replace")

    def written(self):
        if self.listener:
            return self.text
        subprocess.run(["journalctl", "--sync"], check=True)
        return subprocess.run(["journalctl", "--boot", f"--identifier={self.WHOSE}", "--output=cat", "--quiet"],
                              capture_output=True, text=True, check=True).stdout


class DesktopsClient:
    """A client that was started from a desktop's menu."""

    def __init__(self, session, journal):
        with journal.connection() as output:
            self.process = session.run("corvale", stdout=output, stderr=Session.errors())


@contextlib.contextmanager
def no_account_service(stage):
    heal = victims(stage)["account service"].hit("killed")
    yield
    heal()


@contextlib.contextmanager
def no_profile(_stage):
    NO_PROFILE.touch()
    yield
    NO_PROFILE.unlink()


@contextlib.contextmanager
def no_right(stage):
    """polkit has read the new rule when it refuses."""
    RULE.write_text("polkit.addRule(function () { return polkit.Result.NO; });\n", encoding="utf-8")
    may = ["pkcheck", "--action-id", "com.corvale.macos.helper.run", "--process", str(stage.client.process.pid)]
    allowed = lambda: not subprocess.run(may, capture_output=True, check=False).returncode
    wait_for("polkit's refusal", lambda: not allowed())
    yield
    RULE.unlink()
    wait_for("polkit's consent", allowed)


def handed_out(change):
    @contextlib.contextmanager
    def profile(_stage):
        hand_out(change(plain.profile()))
        yield
        HANDED_OUT.unlink()
    return profile


def without(tag):
    def change(profile):
        before, rest = profile.split(f"<{tag}>")
        return before + rest.split(f"</{tag}>\n")[1]
    return change


def obstacle(context):
    return lambda _stage: context()


def nothing(_stage):
    return contextlib.nullcontext()


SIGNED_IN = ("Signing in", "Signed in")
RECEIVED = (*SIGNED_IN, "Profile received")
# What goes wrong; how; who signs in; how the button ends; what the log has, in this order, and what it has not.
TABLE = {
    "no account service": (no_account_service, ANA, STOPPED, ("Signing in",), "Signed in"),
    "no such subscriber": (nothing, (ANA[0], "not-hers-4711"), STOPPED, ("Signing in",), "Signed in"),
    "no profile for her": (no_profile, ANA, STOPPED, SIGNED_IN, "Profile received"),
    "no place for the configuration": (obstacle(directory), ANA, STOPPED, (*RECEIVED, "Is a directory"), "AUTH"),
    "polkit refuses": (no_right, ANA, STOPPED, (*RECEIVED, "XPCService error: ", "NOPROCESS"), "AUTH"),
    "the helper refuses the configuration": (handed_out(lambda text: text + "plugin /tmp/own.so\n"), ANA, STOPPED,
                                             (*RECEIVED, "not allowed: plugin", "NOPROCESS"), "AUTH"),
    "OpenVPN refuses it": (handed_out(without("ca")), ANA, STOPPED,
                           (*RECEIVED, "Options error: You must define CA", "termiationStatus=1", "NOPROCESS"), "AUTH"),
    "OpenVPN is missing": (obstacle(missing_openvpn), ANA, STOPPED, (*RECEIVED, "XPCService error: ", "NOPROCESS"), "AUTH"),
    "the port is taken": (obstacle(roots_program), ANA, CONNECTING, (*RECEIVED, "XPCService error: "), "AUTH"),
    "the server has no such name": (handed_out(lambda text: text.replace("remote vpn.", "remote nowhere.")), ANA,
                                    CONNECTING, (*RECEIVED, "Cannot resolve host address: nowhere.", " corvale: RESOLVE"), "WAIT"),
    "it is another server": (handed_out(lambda text: text.replace("name vpn.", "name other.")), ANA, CONNECTING,
                             (*RECEIVED, "VERIFY X509NAME ERROR", " corvale: RECONNECTING"), "CONNECTED"),
    "the server refuses the password": (nothing, BERTA, STOPPED,
                                        (*RECEIVED, "AUTH_FAILED", "termiationStatus=0"), "CONNECTED"),
    # At this level OpenVPN would repeat the commands that it is given.
    "nothing": (handed_out(lambda text: text.replace("verb 3", "verb 4")), ANA, CONNECTED, (*RECEIVED, "Initialization Sequence Completed", " corvale: CONNECTED"), "NOPROCESS"),
}


def steps():
    stage = Stage()
    stage.client.end()
    journal = Journal()
    stage.client = DesktopsClient(stage.session, journal)
    wrong = []
    for what, (cause, who, ends, says, hides) in TABLE.items():
        said = len(log("system"))
        with cause(stage):
            stage.person.sign_in(*who)  # a refusal may be quicker than whoever watches the button
            lines = wait_for(f"{what}: {says} in the log", lambda: found(log("system")[said:], says))
            wait_for(f'the button to show "{ends}"', lambda: stage.person.do("window")["title"] == ends)
            print(f"  {what}:", *lines, sep="\n    ")
            if ends == CONNECTING:
                time.sleep(0.5)  # for what must not come
            if any(line.endswith(": " + hides) for line in log("system")[said:].splitlines()):
                wrong.append(f"{what}: {hides} is in the log")
        come_back(stage, ends, told=says in (SIGNED_IN, SIGNED_IN[:1]))
    expect(not journal.written(), f"standard output went to the journal: {journal.written()[:1000]!r}")
    for name, text in (("the system log", log("system")), ("the client's standard error", log("client"))):
        for password in ("secret", "expired", "not-hers-4711"):
            expect(password not in text, f"{name} has the password {password}")
    expect("MANAGEMENT: CMD" not in log("system"), "OpenVPN repeats its commands")
    expect(not wrong, "; ".join(wrong))


def found(text, says):
    """The log's lines that have these words, in their order, or None where one is missing."""
    lines = iter(text.splitlines())
    hits = [next((line for line in lines if word in line), None) for word in says]
    return None if None in hits else [hit.split(" ", 1)[1] for hit in hits]


def come_back(stage, ends, told):
    if told:
        stage.person.do("click", name="OK")
    with contextlib.redirect_stdout(io.StringIO()):
        if ends != STOPPED:
            if not machine.openvpn_pid():
                connected_again(stage)
            stage.disconnect()
        machine.check_gone()
    wait_for("the client's rest", lambda: stage.states()[-1:] in ([], ["NOPROCESS"]))
