# SPDX-License-Identifier: MIT
"""The person's authentication agent: shows nothing, and answers polkit's prompts as it was told.

usage: agent.py PID PASSWORD|-|hold        for the process PID; - cancels every prompt, hold leaves it open

Runs in the person's own session, as an agent with a dialog would. Writes a line for each prompt; "ready" is the first.
"""
import pathlib
import subprocess
import sys

from gi.repository import Gio, GLib

POLKIT = "org.freedesktop.PolicyKit1"
AUTHORITY = (POLKIT, "/org/freedesktop/PolicyKit1/Authority", f"{POLKIT}.Authority")
OURS = "/corvale/lab/agent"
INTERFACE = """<node><interface name="org.freedesktop.PolicyKit1.AuthenticationAgent">
  <method name="BeginAuthentication"><arg type="s"/><arg type="s"/><arg type="s"/><arg type="a{ss}"/><arg type="s"/>
    <arg type="a(sa{sv})"/></method>
  <method name="CancelAuthentication"><arg type="s"/></method>
</interface></node>"""
PROMPT = "PAM_PROMPT_ECHO_OFF"


def tell(text: str) -> None:
    print(text, flush=True)


def authenticate(cookie: str, password: str) -> None:
    """Has polkit's own helper ask PAM about the password; it tells polkit itself."""
    helper = subprocess.Popen(["/usr/lib/polkit-1/polkit-agent-helper-1", "ana"], stdin=subprocess.PIPE,
                              stdout=subprocess.PIPE, text=True, bufsize=1)
    helper.stdin.write(cookie + "\n")
    for line in helper.stdout:
        if line.startswith(PROMPT):
            helper.stdin.write(password + "\n")
        elif line.strip() in ("SUCCESS", "FAILURE"):
            tell(line.strip().lower())
    helper.wait()


def on_call(_bus: Gio.DBusConnection, _sender: str, _path: str, _interface: str, method: str, arguments: GLib.Variant,
            invocation: Gio.DBusMethodInvocation) -> None:
    if method == "CancelAuthentication":
        tell("prompt withdrawn")
    else:
        action, message, _icon, _details, cookie, _identities = arguments.unpack()
        tell(f"prompt {action}: {message}")
        if sys.argv[2] == "-":
            invocation.return_dbus_error("org.freedesktop.PolicyKit1.Error.Cancelled", "The person cancelled.")
            return
        if sys.argv[2] == "hold":
            return
        authenticate(cookie, sys.argv[2])
    invocation.return_value(None)


def main() -> None:
    pid = int(sys.argv[1])
    started = int(pathlib.Path(f"/proc/{pid}/stat").read_text(encoding="utf-8").rsplit(")", 1)[1].split()[19])
    bus = Gio.bus_get_sync(Gio.BusType.SYSTEM)
    bus.register_object(OURS, Gio.DBusNodeInfo.new_for_xml(INTERFACE).interfaces[0], on_call, None, None)
    process = {"pid": GLib.Variant("u", pid), "start-time": GLib.Variant("t", started)}
    bus.call_sync(*AUTHORITY, "RegisterAuthenticationAgent",
                  GLib.Variant("((sa{sv})ss)", (("unix-process", process), "en_US.UTF-8", OURS)), None, 0, -1)
    tell("ready")
    GLib.MainLoop().run()


main()
