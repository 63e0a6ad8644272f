# SPDX-License-Identifier: MIT
"""What is shown inside the private machine, one function each. A scenario either returns or raises Failure.

usage: scenario.py connect|wrong-password|server-late|server-restart|server-reset|rejected|reuse|plain
       scenario.py window-figures|click-figures                                what it costs
       scenario.py takeover|cycles|handover|kills|refusals|confined|profiles|race       what the helper promises
       scenario.py faults [PART]|obstacles|soak [CYCLES]                        what it endures
       scenario.py steps                                                        what the log tells of it
       scenario.py install|install-refused|package                             how the product gets into the system
       scenario.py system                                                      what a user's system makes of the package
       scenario.py keyboard|reader|tray|reopen|no-bus|quit                    what the window's shell promises
       scenario.py pictures                                                    what the handbook's pages show
"""
import os
import sys
import time

import machine
import plain
import sanitizers
import timeline
from configuration_scenarios import profiles, race
from fault_scenarios import faults
from figure_scenarios import FIGURE_SCENARIOS
from install_scenarios import INSTALL_SCENARIOS
from life_scenarios import cycles, handover, kills, log, takeover
from log_scenarios import steps
from obstacle_scenarios import obstacles
from package_scenarios import PACKAGE_SCENARIOS
from picture_scenarios import PICTURE_SCENARIOS
from refusal_scenarios import confined, refusals
from session import LOGS, Failure, Session, wait_for
from shell_scenarios import SHELL_SCENARIOS
from soak import soak
from stage import ANA, BERTA, Stage
from system_scenarios import SYSTEM_SCENARIOS

REJECTED = "Email o Contraseña inválidos"


def connect():
    yardstick = plain.measure()
    stage = Stage()
    stage.session.picture("1-stopped")
    click = stage.person.sign_in(*ANA)
    stage.person.sees("Conectando...", click)
    stage.session.picture("2-connecting")
    connected = stage.person.sees("Desconectar", click)
    began = machine.openvpn_started()
    stage.session.picture("3-connected")
    machine.check_connected()
    again = stage.person.do("click")["time"]
    stage.person.sees("Conectar", again)
    stage.session.picture("4-disconnected")
    machine.check_gone()
    stage.hears_of_the_end()
    timeline.show(timeline.collect(stage.person, stage.client, stage.bus, began), click)
    took = connected - click
    print(f'  click until "Desconectar": {took:.3f} s; a plain script, same work: {yardstick:.3f} s;'
          f" more: {took - yardstick:.3f} s")


def wrong_password():
    stage = Stage()
    click = stage.person.sign_in(*BERTA)
    stage.person.sees("Conectando...", click)
    print(f'  button "Conectar" again after {stage.person.sees("Conectar", click) - click:.3f} s')
    stage.expect("AUTH_FAILED" in log("server"), "the server refused nothing")
    # Its state then may be gone before the reader, which looks ten times a second, has told of it.
    stage.expect("AUTH_FAILED" in log("system"), "OpenVPN never came as far as the password")
    machine.check_gone()
    stage.expect(stage.person.do("fields")["enabled"], "the fields stay locked")
    print("  the other subscriber, in the same window:")
    stage.connect()
    stage.disconnect()


def server_late():
    stage = Stage()
    machine.server("stop")
    click = stage.person.sign_in(*ANA)
    wait_for("OpenVPN to wait for its server", lambda: "WAIT" in stage.states())
    stage.expect(stage.person.do("window")["title"] == "Conectando...", "the button does not say that it is connecting")
    machine.server("start")
    print(f'  button "Desconectar" after {stage.person.sees("Desconectar", click, 60) - click:.3f} s')
    machine.check_connected()
    stage.disconnect()


def server_restart():
    stage = Stage()
    stage.connect()
    stop = time.time()
    machine.server("crash")
    print(f'  button "Conectando..." {stage.person.sees("Conectando...", stop) - stop:.3f} s after the server went')
    stage.expect("RECONNECTING" in stage.states(), "OpenVPN did not reconnect")
    start = time.time()
    machine.server("start")
    print(f'  button "Desconectar" {stage.person.sees("Desconectar", start, 60) - start:.3f} s after it came back')
    machine.check_connected()
    stage.disconnect()


def server_reset():
    """A server that tells its clients to start over makes OpenVPN forget the password, and the client gives it once."""
    stage = Stage()
    stage.connect()
    stop = time.time()
    machine.server("stop")
    stage.person.sees("Conectando...", stop)
    machine.server("start")
    wait_for("OpenVPN to come as far as the password", lambda: stage.states()[-1:] == ["AUTH"])
    print('  button "Conectando...": being set up again; a click ends it, the next one connects')
    stage.disconnect()
    stage.connect()
    stage.disconnect()


def rejected():
    stage = Stage()
    click = stage.person.sign_in(ANA[0], "wrong")
    alert = stage.person.do("alert")["text"]
    stage.expect(alert == REJECTED, f'the alert says "{alert}"')
    print(f'  alert "{alert}"')
    stage.session.picture("rejected")
    stage.person.sees("Conectar", click)
    stage.person.do("click", name="OK")
    stage.expect(not stage.helper_calls(), "the helper was called without a sign-in")
    print("  the right password, in the same window:")
    stage.connect()
    stage.disconnect()


def reuse():
    stage = Stage()
    stage.connect()
    status = stage.client.end()
    print(f"  the client has quit (status {status}); the tunnel stays:")
    machine.check_connected()
    stage.start_client()
    stage.connect()
    stage.disconnect()


def plain_only():
    print(f"  plain script: {plain.measure():.3f} s")
    machine.check_gone()


def manual():
    """On the person's own display: the client is theirs until they quit it."""
    session = Session()
    print(f"  Sign in with {ANA[0]} / {ANA[1]}. Behind the tunnel: http://{machine.INSIDE}/. Quit the client to end.")
    client = session.client()
    client.process.wait()
    for _, line in client.lines:
        print("  " + line)


SCENARIOS = {
    "connect": connect,
    "wrong-password": wrong_password,
    "server-late": server_late,
    "server-restart": server_restart,
    "server-reset": server_reset,
    "rejected": rejected,
    "reuse": reuse,
    "plain": plain_only,
    "takeover": takeover,
    "cycles": cycles,
    "handover": handover,
    "kills": kills,
    "refusals": refusals,
    "confined": confined,
    "profiles": profiles,
    "race": race,
    "faults": faults,
    "obstacles": obstacles,
    "soak": soak,
    "steps": steps,
} | FIGURE_SCENARIOS | INSTALL_SCENARIOS | PACKAGE_SCENARIOS | PICTURE_SCENARIOS | SHELL_SCENARIOS | SYSTEM_SCENARIOS


def main():
    name = sys.argv[1]
    if name not in SCENARIOS:
        sys.exit(f"There is no scenario {name}; there are: {', '.join(SCENARIOS)}")
    scenario = manual if os.environ.get("MANUAL") else SCENARIOS[name]
    print(f"{name}:", flush=True)
    try:
        scenario(*sys.argv[2:])
        sanitizers.check(main_job=name == "connect")
    except Failure as failure:
        print(f"FAILED: {name}: {failure}", *sanitizers.reports(), sep="\n", flush=True)
        for log in ("system", "account_errors", "server"):
            print(f"--- the end of {LOGS / log}", *(LOGS / log).read_text(encoding="utf-8").splitlines()[-15:], sep="\n")
        sys.exit(1)
    finally:
        Session.finish_pictures()
    print(f"PASSED: {name}")


main()
