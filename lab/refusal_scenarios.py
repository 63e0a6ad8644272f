# SPDX-License-Identifier: MIT
"""Who and what the privileged helper refuses, and what it may do itself."""
import os
import pathlib
import socket
import subprocess

import machine
import plain
from helper_calls import (
    HELPER, call, expect, helper_pid, kill_helper, own_file, run_arguments, run_folder, send, start_helper,
)
from session import BOOTED, HERE, LOGS, wait_for
from stage import Stage

UNIT = HERE.parent / "packaging/systemd" / f"{HELPER}.service"
ACTIVATION = pathlib.Path(f"/usr/share/dbus-1/system-services/{HELPER}.service")


def refusals():
    good = own_file("good.ovpn", plain.profile())
    link = pathlib.Path("/home/ana/link.ovpn")
    link.symlink_to(good)
    plugin = own_file("plugin.ovpn", plain.profile() + "plugin /tmp/mark-4711.so\n")
    script = own_file("client.up", "#!/bin/sh\n# mark-4711\n", 0o755)
    subprocess.run("echo 'carla:mark-4711:1::::::' >>/etc/shadow", shell=True, check=True)
    bus = {"to": "org.freedesktop.DBus", "path": "/"}
    table = [
        ("berta, whom polkit does not allow", "berta", run_arguments(good), "NotAuthorized"),
        ("berta ends a tunnel", "berta", [f"{HELPER}.killOpenVPN"], "NotAuthorized"),
        ("/etc/shadow", "ana", run_arguments("/etc/shadow"), "ConfigUnsafe"),
        ("a symbolic link", "ana", run_arguments(link), "ConfigUnsafe"),
        ("another's file", "carla", run_arguments(good), "ConfigUnsafe"),
        ("another script", "ana", run_arguments(good, script), "ScriptRejected"),
        ("plugin", "ana", run_arguments(plugin), "ConfigRejected"),
        ("a fourth method", "ana", [f"{HELPER}.runAnything"], "AccessDenied"),
        ("introspection", "ana", ["org.freedesktop.DBus.Introspectable.Introspect"], "AccessDenied"),
        ("properties", "ana", ["org.freedesktop.DBus.Properties.GetAll", f"string:{HELPER}"], "AccessDenied"),
    ]
    start_helper()
    for what, user, arguments, error in table:
        refused(what, call(user, *arguments), error)
        expect(not machine.openvpn_pid() and not run_folder(), f"{what}: something was started")
    refused("the helper's name", call("ana", "org.freedesktop.DBus.RequestName", f"string:{HELPER}", "uint32:0", **bus),
            "AccessDenied")
    said = call("root", "org.freedesktop.DBus.RequestName", f"string:{HELPER}", "uint32:4", **bus)
    expect(said.endswith("uint32 3"), f"root may not own the name: {said}")  # the helper has it

    with socket.create_server(("127.0.0.1", 1337)):
        refused("a stranger on port 1337", call("ana", *run_arguments(good)), "PortBusy")
        expect(not machine.openvpn_pid() and not run_folder(), "something was started")

    print("  while ana's tunnel runs:")
    tunnel = send("ana", *run_arguments(good))
    pid = wait_for("OpenVPN", machine.openvpn_pid)
    carlas = pathlib.Path("/tmp/carla.ovpn")
    carlas.write_text(plain.profile(), encoding="utf-8")
    os.chown(carlas, 61002, 61002)
    carlas.chmod(0o600)
    refused("carla's own", call("carla", *run_arguments(carlas)), "Busy")
    refused("carla ends it", call("carla", f"{HELPER}.killOpenVPN"), "NotAuthorized")
    expect(machine.openvpn_pid() == pid and tunnel.poll() is None, "ana's tunnel did not go on")
    call("ana", f"{HELPER}.killOpenVPN")
    print("  ana ends it:", tunnel.communicate()[0].split("\n")[-2].strip())
    machine.check_gone()
    expect(not run_folder(), "the run folder is not empty")


def refused(what, said, error):
    print(f"  {what}: {said}")
    expect(said.startswith("Error ") and said.split()[1].rstrip(":").endswith("." + error), f"that is not {error}")
    expect("4711" not in said and "root:" not in said, "the answer quotes a file")


# ---- under the limits of the unit

def confine(unit, capabilities, writable):
    """What systemd would do, as far as it can be done by hand."""
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
    ACTIVATION.write_text(activation.replace(unit["ExecStart"], f"/usr/bin/unshare --mount {wrapper}"), encoding="ascii")
    call("root", "org.freedesktop.DBus.ReloadConfig", to="org.freedesktop.DBus", path="/")


def confined():
    unit = dict(line.split("=", 1) for line in UNIT.read_text(encoding="ascii").splitlines() if "=" in line)
    capabilities = ",".join("+" + name.removeprefix("CAP_").lower() for name in unit["CapabilityBoundingSet"].split())
    writable = unit["ReadWritePaths"].split()
    if not BOOTED:
        confine(unit, capabilities, writable)
    print(f"  capabilities: {capabilities}; writable: {' '.join(writable)}")
    stage = Stage()
    stage.connect()
    for name, pid in (("helper", helper_pid()), ("OpenVPN", machine.openvpn_pid())):
        status = dict(line.split(":\t", 1) for line in pathlib.Path(f"/proc/{pid}/status").read_text().splitlines())
        print(f"  {name}: capabilities {status['CapEff']} of {status['CapBnd']}, no new privileges {status['NoNewPrivs']}")
        # kill, setgid, setuid, net_admin
        expect((status["CapBnd"], status["NoNewPrivs"]) == ("00000000000010e0", "1"), f"{name} is not confined")
    stage.disconnect()
    lines = [line for line in (LOGS / "system").read_text(encoding="utf-8").splitlines() if " corvale-openvpn[" in line]
    print(f"  OpenVPN's lines in the system log: {len(lines)}")
    expect(lines, "OpenVPN does not reach the system log")
    print("  kill -9 of the helper:")
    stage.connect()
    kill_helper()
    start_helper()
    machine.check_gone()
    expect(not run_folder(), "the run folder is not empty")
