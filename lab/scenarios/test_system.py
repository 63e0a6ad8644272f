# SPDX-License-Identifier: MIT
"""What a user's system makes of the package: whatever ends a tunnel, its name servers and routes are as before."""
import os
import pathlib
import shutil
import signal

import machine
import plain
import pytest
from helper_calls import HANDED_OUT, HELPER, RUN, hand_out, kill_helper
from packages import done, ended_by, installed, repacked
from session import BUILD, wait_for
from stage import Stage

pytestmark = pytest.mark.system
UNIT = "corvale-restore.service"
NEAR = "kill -9 of OpenVPN, whose server is in this network,"
VERSIONS = ("openvpn", "libqt6core6", "libqt6core6t64", "systemd", "polkitd")
INSTALL = ("apt-get", "install", "--yes", "--quiet", "--allow-downgrades")


def test_whatever_ends_a_tunnel_leaves_the_network_as_before(stage: Stage) -> None:
    release = pathlib.Path("/etc/os-release").read_text(encoding="utf-8").split('PRETTY_NAME="')[1].split('"')[0]
    versions = ", ".join(f"{name} {version}" for name in VERSIONS if (version := installed(name)))
    print(f"  {release}: {versions}; name servers by {machine.resolver()}")
    other = repacked(BUILD, "1.0.1")
    hits = {
        "kill -9 of the helper": kill_helper,
        "kill -9 of OpenVPN": lambda: os.kill(machine.openvpn_pid(), signal.SIGKILL),
        NEAR: lambda: os.kill(machine.openvpn_pid(), signal.SIGKILL),
        "systemctl stop": lambda: done("systemctl", "stop", HELPER),
        "upgrade": lambda: done(*INSTALL, other),
        "downgrade": lambda: done(*INSTALL, BUILD),
        "removal": lambda: done("apt-get", "remove", "--yes", "corvale"),
        "purge": lambda: done("apt-get", "purge", "--yes", "corvale"),
    }
    stage.connect()
    stage.disconnect()
    took = []
    for what, hit in hits.items():
        if what == "purge":
            done(*INSTALL, BUILD)
        if what == NEAR:
            hand_out(plain.profile().replace("remote vpn.corvale.example", "remote 198.51.100.20"))
        stage.connect()
        HANDED_OUT.unlink(missing_ok=True)
        took.append(f"{what} {ended_by(stage, what, hit):.1f} s")
        # A helper that was killed has told nobody; then OpenVPN's own last word stands.
        wait_for("the client to hear of the end", lambda: stage.states()[-1] in ("EXITING", "NOPROCESS"))
    if machine.resolver() == "file":
        done(*INSTALL, BUILD)
        power_cut(stage)
        took.append("power cut, at boot")
    print(f"  row: {release}, OpenVPN {installed('openvpn')}, name servers by {machine.resolver()}: {'; '.join(took)}:")


def power_cut(stage: Stage) -> None:
    """The machine has ended with the tunnel up, and boots: the client and the helper have not been started yet."""
    stage.connect()
    files = {path: path.read_bytes() for path in (machine.RESOLVER, machine.KEPT)}
    stage.disconnect()
    done("systemctl", "stop", HELPER)
    shutil.rmtree(RUN, ignore_errors=True)
    for path, text in files.items():
        path.write_bytes(text)
    assert UNIT in done("systemctl", "show", "--property=Wants", "sysinit.target"), "nothing restores them at boot"
    done("systemctl", "start", UNIT)
    assert machine.name_servers() == machine.before()[0] and not machine.KEPT.exists(), "the boot does not restore them"
    # Whatever has it started later must not take a tunnel's name servers away.
    stage.connect()
    done("systemctl", "start", UNIT)
    machine.check_connected()
    stage.disconnect()
