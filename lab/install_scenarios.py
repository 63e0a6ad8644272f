# SPDX-License-Identifier: MIT
"""How the helper gets into the system, shown with polkit's own authority and an agent that answers its prompts."""
import fcntl
import os
import pathlib
import re
import signal
import subprocess
import time

import machine
from helper_calls import HELPER, call, helper_pid, owner, run_folder, start_helper
from session import HERE, LOGS, as_user, wait_for
from stage import Stage
from traces import processes

BLESS = "/usr/libexec/corvale/bless"
INSTALLED = pathlib.Path("/usr/libexec/corvale", HELPER)
BUNDLED = pathlib.Path("/usr/lib/corvale/Corvale.app/Contents/Library/LaunchServices", HELPER)
RULES = pathlib.Path("/etc/polkit-1/rules.d/05-blesshelper.rules")
PASSWORD = "kolibri"
ACTION = "com.apple.ServiceManagement.blesshelper"
OURS = ("Helper: ", "No right to ", "Authorization error: ", "Bless Error: ", "XPC ", HELPER, "The name ")
expect = Stage.expect


class Install(Stage):
    """Each client of this stage starts under the eyes of an agent; `agent` is what that one does, None for no agent."""

    def __init__(self, agent=PASSWORD):
        make_administrator()
        self.agent = agent
        self.client = self.prompts = None
        super().__init__()

    def launch(self):
        for program in (self.client, self.prompts):
            if program and program.process.poll() is None:
                program.end()
        self.client = self.session.program("sh", "-c", "read go && exec corvale", stderr=self.session.errors())
        self.prompts = None
        if self.agent:
            self.prompts = self.session.program("/usr/bin/python3", "-B", "/run/lab/person/agent.py",
                                                str(self.client.process.pid), self.agent)
            wait_for("the agent", lambda: self.prompts.lines)
        self.mark = (LOGS / "system").stat().st_size
        self.client.process.stdin.write("\n")

    def start_client(self):
        self.launch()
        wait_for("the window", lambda: self.person.do("window", limit=20)["title"] == "Conectar")

    def log(self):
        """What this client wrote about the helper."""
        with open(LOGS / "system", encoding="utf-8") as file:
            file.seek(self.mark)
            said = [line.split(": ", 1)[1] for line in file.read().splitlines() if re.match(r"[\d.]+ corvale: ", line)]
        return [line for line in said if line.startswith(OURS)]

    def asked(self):
        return [line for _, line in self.prompts.lines if line.startswith("prompt ")] if self.prompts else []

    def settled(self, last, prompts=0):
        """Waits for the log's last line, and shows the log."""
        try:
            wait_for(f'the line "{last}"', lambda: any(line.startswith(last) for line in self.log()), 40)
        finally:
            for line in self.log():
                print("    " + line)
        print(f"    prompts: {self.asked() or 'none'}")
        expect(len(self.asked()) == prompts, f"{len(self.asked())} prompts, not {prompts}")

    def expect_log(self, *lines):
        """These beginnings, in this order, and nothing else."""
        log = self.log()
        expect(len(log) == len(lines) and all(map(str.startswith, log, lines)), f"the log is not {lines}")


def make_administrator():
    """The person's password counts as an administrator's."""
    hashed = subprocess.run(["openssl", "passwd", "-6", PASSWORD], capture_output=True, text=True, check=True).stdout.strip()
    shadow, group = pathlib.Path("/etc/shadow"), pathlib.Path("/etc/group")
    if "\nana:*:" not in shadow.read_text(encoding="utf-8"):
        return
    shadow.write_text(shadow.read_text(encoding="utf-8").replace("\nana:*:", f"\nana:{hashed}:"), encoding="utf-8")
    group.write_text(re.sub(r"^(sudo:.*)$", r"\1ana", group.read_text(encoding="utf-8"), flags=re.M), encoding="utf-8")
    pathlib.Path("/run/lab/person/agent.py").write_bytes((HERE / "agent.py").read_bytes())


def bless(*arguments):
    done = subprocess.run([BLESS, *arguments], capture_output=True, text=True, check=False)
    print(f"  bless {' '.join(arguments)}: status {done.returncode}{', ' + done.stderr.strip() if done.stderr else ''}")
    expect(done.returncode == 0, "the bless tool failed")


def of_version(version):
    """The helper as it would be if it had been built with this version, five characters long or with blanks after."""
    bytes_ = BUNDLED_BYTES
    plain = version.rstrip()
    more = len(version) - len(plain)
    for old, new in ((OWN.encode("utf-16-le"), plain.encode("utf-16-le")),
                     (b" " * more + b"<string>" + OWN.encode(), b"<string>" + version.encode())):
        expect(bytes_.count(old) >= 1, f"the helper has no {old}")
        bytes_ = bytes_.replace(old, new)
    expect(len(bytes_) == len(BUNDLED_BYTES), "the helper's size changed")
    return bytes_


BUNDLED_BYTES = BUNDLED.read_bytes()
OWN = re.search(rb"<key>CFBundleVersion</key>\s*<string>([^<]*)", BUNDLED_BYTES)[1].decode()
SUCCESS = HELPER + " installed successfully"


def bundle_becomes(version):
    BUNDLED.write_bytes(of_version(version))


def put_older(version):
    """A machine with a helper of another version, that runs."""
    file = pathlib.Path("/root/helper")
    file.write_bytes(of_version(version))
    file.chmod(0o755)
    bless(str(file))
    start_helper()


def installed_version():
    return re.search(rb"<key>CFBundleVersion</key>\s*<string>([^<]*)", INSTALLED.read_bytes())[1].decode()


def check_use(stage):
    stage.connect()
    stage.disconnect()


def system_files():
    places = ("/usr/libexec/corvale", "/usr/share/dbus-1/system.d", "/usr/share/dbus-1/system-services",
              "/lib/systemd/system")
    return sorted(str(path) for place in places for path in pathlib.Path(place).glob("*")
                  if "corvale" in str(path) and path.name != "bless")


def install():
    before = {path: (pathlib.Path(path).read_bytes(), os.stat(path).st_mode) for path in system_files()}
    bless("--remove")
    print("  left of it:", *system_files() or ["nothing"])
    expect(not system_files(), "the helper is not removed")
    bless("--remove")

    print("  the first start without a helper:")
    stage = Install()
    stage.settled("XPC Connection Invalidated", prompts=1)
    stage.expect_log(f"Helper: Bundle Version => {OWN}", "The name com.corvale.macos.helper was not provided", SUCCESS,
                     "XPC Connection Invalidated")
    after = {path: (pathlib.Path(path).read_bytes(), os.stat(path).st_mode) for path in system_files()}
    expect(after == before, "the files are not those of the installation")
    print(f"  the {len(after)} files are those of the installation, to the byte and the mode")
    check_use(stage)

    print("  the next start, the same version:")
    stage.start_client()
    stage.settled("Helper: Installed Version => ")
    stage.expect_log(f"Helper: Bundle Version => {OWN}", f"Helper: Installed Version => {OWN}")
    check_use(stage)

    print("  an older helper, its tunnel up, and a client that starts anew:")
    put_older("0.9.0")
    stage.client.end()
    bundle_becomes("0.9.0")
    stage.start_client()
    stage.settled("Helper: Installed Version => 0.9.0")
    stage.connect()
    older = helper_pid()
    bundle_becomes(OWN)
    stage.start_client()
    stage.settled(SUCCESS, prompts=1)
    stage.expect_log(f"Helper: Bundle Version => {OWN}", "Helper: Installed Version => 0.9.0", SUCCESS)
    machine.check_gone()
    expect(not pathlib.Path(f"/proc/{older}").exists(), "the older helper still runs")
    check_use(stage)
    expect(helper_pid() != older, "no new helper")

    print("  a newer helper is installed:")
    put_older("2.0.0")
    stage.start_client()
    stage.settled(SUCCESS, prompts=1)
    stage.expect_log(f"Helper: Bundle Version => {OWN}", "Helper: Installed Version => 2.0.0", SUCCESS)
    expect(installed_version() == OWN, "it was not replaced")

    print("  the bundle's version ends in a blank:")
    bundle_becomes(OWN + " ")
    stage.start_client()
    stage.settled(SUCCESS, prompts=1)
    expect(stage.log() == [f"Helper: Bundle Version => {OWN} ", f"Helper: Installed Version => {OWN}", SUCCESS],
           "the log is another")
    expect(installed_version() == OWN + " ", "it was not replaced")
    check_use(stage)

    print("  the client is asked to quit while the helper is being installed:")
    bundle_becomes("3.0.0")
    with open("/run/corvale-bless.lock", "w", encoding="ascii") as lock:
        fcntl.flock(lock, fcntl.LOCK_EX)  # the tool waits
        stage.launch()
        wait_for("the tool", lambda: processes()["bless"])
        began = time.monotonic()
        status = stage.client.end()
        print(f"    status {status} after {time.monotonic() - began:.3f} s; installed meanwhile: {installed_version()!r}")
        expect(status == 0 and installed_version() == OWN + " ", "the client did not end well")
    wait_for("the tool's end", lambda: not processes()["bless"])
    print(f"    the tool went on without it: {installed_version()!r}")
    expect(installed_version() == "3.0.0", "the tool did not go on")

    print("  the helper is removed after it and OpenVPN were killed:")
    stage.start_client()
    stage.settled("Helper: Installed Version => 3.0.0")
    stage.connect()
    for pid in (helper_pid(), machine.openvpn_pid()):
        os.kill(pid, signal.SIGKILL)
    bless("--remove")
    machine.check_gone()
    expect(not system_files() and not run_folder(), "something is left")


def install_refused():
    stage = Install()
    stage.settled("Helper: Installed Version => ")
    put_older("0.9.0")
    found = ["Helper: Bundle Version => ", "Helper: Installed Version => 0.9.0", "No right to " + ACTION]

    print("  a rule says no:")
    RULES.write_text(f'polkit.addRule(function (action) {{ if (action.id == "{ACTION}") return polkit.Result.NO; }});',
                     encoding="ascii")
    wait_for("the rule", lambda: "not authorized" in checked().lower())
    ends_with(stage, found, -60005)
    RULES.unlink()
    wait_for("the rule's end", lambda: "not authorized" not in checked().lower())

    print("  the person cancels:")
    stage.agent = "-"
    ends_with(stage, found, -60006, prompts=1)

    print("  nobody can be asked:")
    stage.agent = None
    ends_with(stage, found, -60007)

    stage.agent = "hold"
    for where, helper in (("the connection's thread", BUNDLED_BYTES), ("the main thread", b"no program")):
        print(f"  the client is asked to quit while the prompt is open, on {where}:")
        BUNDLED.write_bytes(helper)
        stage.launch()
        wait_for("the prompt", stage.asked)
        began = time.monotonic()
        status = stage.client.end()
        print(f"    status {status} after {time.monotonic() - began:.3f} s")
        expect(status == 0, "the client did not end well")
        wait_for("the prompt's end", lambda: any(line == "prompt withdrawn" for _, line in stage.prompts.lines))
    bundle_becomes(OWN)

    print("  the helper does not answer:")
    stage.agent = None
    os.kill(start_helper(), signal.SIGSTOP)
    stage.start_client()
    stage.settled("Helper: Bundle Version => ")
    time.sleep(3)
    stage.expect_log("Helper: Bundle Version => ")
    expect(stage.client.process.poll() is None, "the client has ended")
    print(f'    the client goes on, button "{stage.person.do("window")["title"]}"')
    os.kill(helper_pid(), signal.SIGCONT)
    ends_with(stage, found, -60007, running=True)

    stage.agent = PASSWORD
    print("  the bundle's helper is no program:")
    BUNDLED.write_bytes(b"#!/bin/sh\n")
    stage.launch()
    check_end(stage, ["Bless Error: The tool that installs the helper ended with status 1."], prompts=1)
    bundle_becomes(OWN)

    print("  the bless tool is missing:")
    os.rename(BLESS, BLESS + ".away")
    stage.launch()
    check_end(stage, found[:2] + ["Bless Error: pkexec"], prompts=1)
    os.rename(BLESS + ".away", BLESS)

    print("  there is no polkit:")
    stage.agent = None
    pathlib.Path("/usr/share/dbus-1/system-services/org.freedesktop.PolicyKit1.service").unlink()
    call("root", "org.freedesktop.DBus.ReloadConfig", to="org.freedesktop.DBus", path="/")
    os.kill(owner("org.freedesktop.PolicyKit1"), signal.SIGKILL)
    wait_for("polkit's end", lambda: not owner("org.freedesktop.PolicyKit1"))
    ends_with(stage, found, -60008)
    expect(installed_version() == "0.9.0", "something was installed")


def checked():
    """What polkit says of some process of the person's, without asking anybody."""
    return subprocess.run(as_user("ana", ["sh", "-c", f"exec pkcheck --action-id {ACTION} --process $$"]),
                          capture_output=True, text=True, check=False).stderr


def ends_with(stage, found, code, prompts=0, running=False):
    if not running:
        stage.launch()
    check_end(stage, found + [f'Authorization error: Error Domain=NSOSStatusErrorDomain Code={code} "(null)"'], prompts)


def check_end(stage, lines, prompts=0):
    status = stage.client.process.wait(30)
    stage.settled(lines[-1], prompts)
    stage.expect_log(*lines)
    print(f"    the client ended with status {status}")
    expect(status == 0, "the client did not end well")


INSTALL_SCENARIOS = {"install": install, "install-refused": install_refused}
