# SPDX-License-Identifier: MIT
"""What "Salir", in the menu of the client's item, ends: the client, and nothing else."""
import pathlib
import socket
import time

import machine
from desk import Desk
from stage import ANA
from timeline import Bus
from traces import sent_to_openvpn

SCREEN = {"bare": True}


def choose_quit(desk: Desk) -> float:
    began = time.monotonic()
    desk.choose_in_panel("Up", "Return")
    assert desk.client.process.wait(10) == 0, '"Salir" does not end the client'
    return time.monotonic() - began


def test_the_tunnel_stays_and_nobody_is_told(bus: Bus, desk: Desk) -> None:
    desk.session.start_panel()
    desk.connect()
    openvpn, since = machine.openvpn_pid(), time.time()
    assert not sent_to_openvpn(desk.client.process.pid, lambda: choose_quit(desk))
    assert not [what for when, _, what in bus.events() if when >= since]
    machine.check_connected()
    assert machine.openvpn_pid() == openvpn
    desk.start_client()
    desk.connect()
    told = sent_to_openvpn(desk.client.process.pid, desk.disconnect)
    assert told, "what is sent cannot be seen"
    print(f"  a disconnect, for comparison: {told}")


def test_a_silent_name_server_holds_up_nobody(desk: Desk) -> None:
    hosts = pathlib.Path("/etc/hosts")
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as silent:
        silent.bind(("127.0.0.9", 53))
        machine.RESOLVER.write_text("nameserver 127.0.0.9\n", encoding="utf-8")
        hosts.write_text("127.0.0.1 localhost\n", encoding="utf-8")
        desk.person.sign_in(*ANA)
        silent.settimeout(20)
        assert b"corvale" in silent.recv(1000)
        assert choose_quit(desk) < 3, "it waited for the name server"
