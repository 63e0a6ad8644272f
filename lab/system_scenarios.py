"""What a user's system makes of the package: whatever ends a tunnel, its name servers and routes are as before."""
import os
import pathlib
import signal
import subprocess
import time

import machine
from helper_calls import HELPER, helper_pid, kill_helper
from package_scenarios import done, ended_by, repacked
from session import BUILD, wait_for
from stage import Stage

VERSIONS = ("openvpn", "libqt6core6", "libqt6core6t64", "systemd", "polkitd")


def installed(package):
    asked = ["dpkg-query", "--show", "--showformat=${db:Status-Status} ${Version}", package]
    status, _, version = subprocess.run(asked, capture_output=True, text=True, check=False).stdout.partition(" ")
    return version if status == "installed" else None


def system():
    release = pathlib.Path("/etc/os-release").read_text(encoding="utf-8").split('PRETTY_NAME="')[1].split('"')[0]
    versions = ", ".join(f"{name} {version}" for name in VERSIONS if (version := installed(name)))
    print(f"  {release}: {versions}; name servers by {machine.resolver()}")
    other = repacked(BUILD, "1.0.1")
    install = ["apt-get", "install", "--yes", "--quiet", "--allow-downgrades"]
    hits = {
        "kill -9 of the helper": kill_helper,
        "kill -9 of OpenVPN": lambda: os.kill(machine.openvpn_pid(), signal.SIGKILL),
        "systemctl stop": lambda: done("systemctl", "stop", HELPER),
        "upgrade": lambda: done(*install, other),
        "downgrade": lambda: done(*install, BUILD),
        "removal": lambda: done("apt-get", "remove", "--yes", "corvale"),
        "purge": lambda: done("apt-get", "purge", "--yes", "corvale"),
    }
    stage = Stage()
    stage.connect()
    stage.disconnect()
    took = []
    for what, hit in hits.items():
        if what == "purge":
            done(*install, BUILD)
        stage.connect()
        took.append(f"{what} {ended_by(stage, what, hit):.1f} s")
        # A helper that was killed has told nobody; then OpenVPN's own last word stands.
        wait_for("the client to hear of the end", lambda: stage.states()[-1] in ("EXITING", "NOPROCESS"))
    print(f"  row: {release}, OpenVPN {installed('openvpn')}, name servers by {machine.resolver()}: {'; '.join(took)}:")


SYSTEM_SCENARIOS = {"system": system}
