# SPDX-License-Identifier: MIT
"""What the application's shell promises, seen on a desktop: keyboard, accessibility, status bars, window, session bus."""
import contextlib
import json
import os
import pathlib
import re
import signal
import socket
import subprocess
import time

import machine
from session import LOGS, PERSONAL, Failure, Program, wait_for
from stage import ANA, Stage

expect = Stage.expect
EMAIL, PASSWORD = ("text", "Email"), ("password text", "Contraseña")
CHECK = ("check box", "Recordarme")
ENTRIES = ["Conectar", "Mostrar ventana", "Salir"]


def button(title):
    return ("push button", title)


class Desk(Stage):
    """A stage without a panel, with what can be seen of the screen from outside the client."""

    def __init__(self):
        super().__init__(bare=True)

    def window(self):
        """The X id of the client's window while it is on the screen, or None."""
        found = self.session.output("xdotool", "search", "--onlyvisible", "--name", "^Corvale$").split()
        return found[0] if found else None

    def shown(self):
        """Which of the client's things the window on the screen is, as the accessibility bus knows it."""
        wait_for("the window on the screen", self.window)
        return self.person.do("frame")["path"]

    def close_window(self):
        active = lambda: self.session.output("xdotool", "getactivewindow").strip()
        wait_for("the window in front", lambda: active() == self.window())
        # A window manager that has just started manages windows before it takes keys.
        began = time.monotonic()
        while self.window():
            expect(time.monotonic() - began < 20, "the window does not close")
            self.session.keys("alt+F4")
            with contextlib.suppress(Failure):
                wait_for("the window's end", lambda: not self.window(), 2)
        expect(self.client.process.poll() is None, "closing the window ended the client")

    def start_again(self):
        second = self.session.client()
        expect(second.process.wait(20) == 0, "the second start did not end well")
        return self.shown()

    def item_in_panel(self):
        """Where the panel shows the client's item, or None."""
        tree = self.session.output("xwininfo", "-root", "-tree")
        found = re.search(r'"Corvale": \("corvale" "Corvale"\) +22x22\S+ +\+(\d+)\+(5[789]\d)\n', tree)
        return found and (int(found[1]) + 11, int(found[2]) + 11)

    def all_windows(self):
        """Those on the screen, the item and its menu among them."""
        return set(self.session.output("xdotool", "search", "--onlyvisible", "--class", "^corvale$").split())

    def choose_in_panel(self, *keys):
        x, y = wait_for("the item in the panel", self.item_in_panel)
        before = self.all_windows()
        self.session.run("xdotool", "mousemove", str(x), str(y), "click", "1").wait(20)
        wait_for("the open menu", lambda: self.all_windows() - before)
        self.session.keys(*keys)

    def focus_is(self, where, when):
        seen = {}

        def there():
            seen["now"] = self.person.do("focus")
            return (seen["now"].get("role"), seen["now"].get("name")) == where

        try:
            wait_for("focus", there, 5)
        except Exception:
            expect(False, f'{when}: the focus is {seen["now"]}, not {where}')
        print(f'  {when}: focus on {where[0]} "{where[1]}"')

    def alert_says(self, text, key):
        said = self.person.do("alert")["text"]
        expect(said == text, f'the alert says "{said}"')
        print(f'  alert "{said}", closed with {key}')
        wait_for("the alert in front", lambda: self.person.do("focus").get("name") == "OK")
        self.session.keys(key)


def keyboard():
    desk = Desk()
    keys, types = desk.session.keys, desk.session.types
    desk.focus_is(EMAIL, "at the start")
    for where in (PASSWORD, CHECK, button("Conectar"), button("Registrarme"), button("Ayuda"), EMAIL):
        keys("Tab")
        desk.focus_is(where, "Tab")
    keys("Return")
    desk.alert_says("Email should not be empty!", "Escape")
    desk.focus_is(EMAIL, "afterwards")
    types(ANA[0])
    keys("Return")
    desk.alert_says("Password should not be empty!", "Return")
    desk.focus_is(PASSWORD, "afterwards")
    types("wrong")
    keys("Return")
    desk.alert_says("Email o Contraseña inválidos", "space")
    desk.focus_is(PASSWORD, "afterwards")
    types(ANA[1])  # over the wrong one, which is selected
    keys("Tab", "space")
    expect(desk.person.do("checked")["checked"], "the space bar does not set the check box")
    keys("Return")
    expect(not desk.person.do("checked")["checked"], "Return does not clear the check box")
    keys("space", "Tab")
    desk.focus_is(button("Conectar"), "Tab from the check box")
    for key in ("Return", "space"):
        since = time.time()
        keys(key)
        desk.person.sees("Desconectar", since)
        desk.focus_is(button("Desconectar"), f"connected with {key}")
        machine.check_connected()
        since = time.time()
        keys(key)
        desk.person.sees("Conectar", since)
        machine.check_gone()
        desk.focus_is(button("Conectar"), f"disconnected with {key}")
    desk.client.end()
    desk.start_client()
    desk.focus_is(button("Conectar"), "the next start, with remembered credentials")


def reader():
    """No key and no pointer: names, roles and actions alone."""
    desk = Desk()
    person = desk.person
    wait_for("the whole form", lambda: any("Ayuda" in thing for thing in person.do("tree")["tree"]))
    tree = person.do("tree")["tree"]
    print(*("  " + thing for thing in tree), sep="\n")
    missing = {f'{role} {name!r}' for role, name in
               (("frame", "Corvale"), EMAIL, PASSWORD, CHECK, *map(button, ("Conectar", "Registrarme", "Ayuda")))}
    expect(not missing - set(tree), f"not to be found: {missing - set(tree)}")
    nameless = [thing for thing in tree if thing.endswith("''") and not thing.startswith("filler")]
    expect(not nameless, f"without a name: {nameless}")
    expect(person.do("labelled")["by"] == ["Recordarme"], "the check box has no label")

    person.do("act", name="Conectar")
    expect(person.do("alert")["text"] == "Email should not be empty!", "the alert cannot be read")
    person.do("act", name="OK")
    person.do("type", name="Email", text=ANA[0])
    person.do("type", name="Contraseña", text=ANA[1])
    person.do("act", name="Recordarme")
    expect(person.do("checked")["checked"], "the check box has no action")
    since = person.do("act", name="Conectar")["time"]
    for title in ("Conectando...", "Desconectar"):
        print(f'  told of "{title}" after {person.sees(title, since) - since:.3f} s')
    expect(not person.do("fields")["enabled"], "the fields do not say that they are locked")
    machine.check_connected()
    since = person.do("act", name="Desconectar")["time"]
    print(f'  told of "Conectar" after {person.sees("Conectar", since) - since:.3f} s')
    machine.check_gone()
    expect(person.do("fields")["enabled"], "the fields do not say that they are free")


class NewerBar(Program):
    """The status bar of the session's bus."""

    def __init__(self, session):
        program = ["/usr/bin/python3", "-B", str(PERSONAL / "status_notifier.py")]
        super().__init__(session.as_person(program), env=session.environment, cwd="/")

    def hears(self, key, after=0):
        """The first of what it said under that name after so many lines."""
        said = lambda: [what for what in (json.loads(line) for _, line in self.lines[after:]) if key in what]
        return wait_for(f'the status bar\'s "{key}"', lambda: said() and said()[0])

    def ask(self, **request):
        after = len(self.lines)
        self.process.stdin.write(json.dumps(request) + "\n")
        return self.hears("chosen" if "choose" in request else "menu", after)

    def has_item(self):
        said = self.hears("came")
        print(f'  newer kind: item "{said["came"]}", {said["pictures"]} picture(s), menu {said["menu"]}')
        expect(said["came"] == "Corvale" and said["pictures"] and said["menu"] == ENTRIES, "that is not the item")


def tray():
    desk = Desk()
    first = desk.shown()
    print("  no status bar on this desktop:")
    desk.close_window()
    expect(desk.start_again() == first, "the second start made another window")
    print("  closed, and brought back by a second start")

    for what in ("started late", "killed and started again"):
        panel = desk.session.start_panel()
        x, _ = wait_for("the item in the panel", desk.item_in_panel)
        print(f"  panel {what}: item at x = {x}")
        desk.close_window()
        desk.choose_in_panel("Down", "Down", "Return")
        expect(desk.shown() == first, "the menu made another window")
        print('  closed, and brought back by the menu\'s "Mostrar ventana", chosen with the arrow keys')
        panel.kill()
        panel.wait()
        wait_for("the item's end", lambda: not desk.item_in_panel())

    desk.client.end()
    desk.start_client()
    for what in ("started late", "killed and started again"):
        bar = NewerBar(desk.session)
        print(f"  status bar of the newer kind, {what}:")
        bar.has_item()
        desk.close_window()
        bar.ask(choose="Mostrar ventana")
        desk.shown()
        if what == "started late":
            bar.process.kill()
            bar.process.wait()
    since = desk.person.sign_in(*ANA)
    desk.person.sees("Desconectar", since)
    expect(bar.ask(menu=True)["menu"][0] == "Desconectar", "the menu is not in step with the button")
    since = time.time()
    bar.ask(choose="Desconectar")
    print(f'  "Desconectar" in its menu: button "Conectar" after {desk.person.sees("Conectar", since) - since:.3f} s')
    machine.check_gone()
    bar.ask(choose="Salir")
    expect(desk.client.process.wait(5) == 0, '"Salir" does not end the client')
    print('  "Salir" ends the client')


def resident(pid):
    """KiB."""
    return int(re.search(r"VmRSS:\s+(\d+)", pathlib.Path(f"/proc/{pid}/status").read_text())[1])


def reopen():
    desk = Desk()
    first, pid = desk.shown(), desk.client.process.pid
    seen = []
    desk.person.do("type", name="Email", text="kept")
    for _ in range(20):
        desk.close_window()
        expect(desk.start_again() == first, "the second start made another window")
        seen.append((len(os.listdir(f"/proc/{pid}/fd")), resident(pid)))
    print(f"  closed and reopened 20 times: the window is {first}; descriptors {seen[1][0]} then {seen[-1][0]},"
          f" memory {seen[1][1]} then {seen[-1][1]} KiB (after the 2nd and the 20th)")
    expect(desk.person.do("text", name="Email")["text"] == "kept", "the form is another one")
    expect(seen[-1][0] <= seen[1][0], "descriptors are not given back")
    expect(seen[-1][1] - seen[1][1] < 2048, "memory grows")
    desk.session.run("xdotool", "windowminimize", desk.window()).wait(20)
    wait_for("the minimised window", lambda: not desk.window())
    expect(desk.start_again() == first, "the second start does not bring back a minimised window")
    print("  minimised, and brought back by a second start")


def no_bus():
    """Whatever the session's bus is like, the client starts."""
    desk = Desk()
    desk.client.end()
    wait_for("the client's end", lambda: not desk.window())
    places = {name: PERSONAL / f"{name}-bus" for name in ("stale", "silent")}
    sockets = {name: socket.socket(socket.AF_UNIX) for name in places}
    for name, place in places.items():
        sockets[name].bind(str(place))
        place.chmod(0o666)
    sockets["silent"].listen()
    addresses = {"absent": "unix:path=/nonexistent"} | {name: f"unix:path={place}" for name, place in places.items()}
    for name, address in addresses.items():
        began = time.monotonic()
        client = desk.session.client(DBUS_SESSION_BUS_ADDRESS=address)
        wait_for("the window on the screen", desk.window)
        print(f"  session bus {name}: window after {time.monotonic() - began:.2f} s")
        expect(time.monotonic() - began < 3, "that is too long")
        client.process.send_signal(signal.SIGTERM)
        expect(client.process.wait(5) == 0, "SIGTERM does not end it")
        wait_for("the client's end", lambda: not desk.window())


def sent_to_openvpn(pid, work):
    """What the process sends over its connection to the management port while `work` is done, and how much in all."""
    log = LOGS / "sent"
    trace = subprocess.Popen(["strace", "-f", "-q", "-yy", "-s", "120", "-o", log, "-e",
                              "trace=write,writev,sendto,sendmsg,sendmmsg", "-p", str(pid)])
    wait_for("strace", lambda: "TracerPid:\t0" not in pathlib.Path(f"/proc/{pid}/status").read_text())
    work()
    trace.send_signal(signal.SIGINT)  # in vain when the process has ended
    trace.wait(10)
    lines = log.read_text(errors="replace").splitlines()
    return [line for line in lines if "127.0.0.1:1337]" in line.split(", ")[0]], len(lines)


def quit_silently():
    desk = Desk()
    desk.session.start_panel()
    desk.connect()
    openvpn, since = machine.openvpn_pid(), time.time()

    def choose_quit():
        desk.choose_in_panel("Up", "Return")
        expect(desk.client.process.wait(10) == 0, '"Salir" does not end the client')

    told, writes = sent_to_openvpn(desk.client.process.pid, choose_quit)
    calls = [what for when, _, what in desk.bus.events() if when >= since]
    print(f'  "Salir": {writes} writes and sends until the end, {len(told)} of them to OpenVPN;'
          f" on the system bus: {calls or 'nothing'}")
    expect(not told and not calls, f"somebody was told: {told} {calls}")
    machine.check_connected()
    expect(machine.openvpn_pid() == openvpn, "OpenVPN is another one")

    desk.start_client()
    desk.connect()
    told, _ = sent_to_openvpn(desk.client.process.pid, desk.disconnect)
    print(f'  "Desconectar", for comparison: {told}')
    expect(told, "what is sent cannot be seen")
    desk.client.end()
    desk.start_client()
    quit_while_a_name_is_looked_up(desk)


def quit_while_a_name_is_looked_up(desk):
    hosts = pathlib.Path("/etc/hosts")
    before = hosts.read_text(encoding="utf-8")
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as silent:
        silent.bind(("127.0.0.9", 53))
        machine.RESOLVER.write_text("nameserver 127.0.0.9\n", encoding="utf-8")
        hosts.write_text("127.0.0.1 localhost\n", encoding="utf-8")
        desk.person.sign_in(*ANA)
        silent.settimeout(20)
        asked = b"corvale" in silent.recv(1000)
        began = time.monotonic()
        desk.choose_in_panel("Up", "Return")
        expect(asked and desk.client.process.wait(10) == 0, '"Salir" does not end the client')
        took = time.monotonic() - began
    hosts.write_text(before, encoding="utf-8")
    print(f'  "Salir" while a name server is silent: ended after {took:.1f} s')
    expect(took < 3, "it waited for the name server")


SHELL_SCENARIOS = {"keyboard": keyboard, "reader": reader, "tray": tray, "reopen": reopen, "no-bus": no_bus,
                   "quit": quit_silently}
