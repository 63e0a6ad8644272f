# SPDX-License-Identifier: MIT
"""The form without a pointer: by the keyboard, and by the names, roles and actions that a screen reader uses."""
import time

import machine
from desk import Desk
from session import wait_for
from stage import ANA, CONNECTED, CONNECTING, STOPPED

SCREEN = {"bare": True}
EMAIL, PASSWORD, CHECK = ("text", "Email"), ("password text", "Contraseña"), ("check box", "Recordarme")
BUTTON, SIGN_UP, HELP = (("push button", title) for title in (STOPPED, "Registrarme", "Ayuda"))


def test_the_keyboard_alone_does_everything(desk: Desk) -> None:
    person, keys, types = desk.person, desk.session.keys, desk.session.types
    desk.focus_is(*EMAIL)
    for where in (PASSWORD, CHECK, BUTTON, SIGN_UP, HELP, EMAIL):
        keys("Tab")
        desk.focus_is(*where)
    keys("Return")
    desk.alert_says("Email should not be empty!", "Escape")
    desk.focus_is(*EMAIL)
    types(ANA[0])
    keys("Return")
    desk.alert_says("Password should not be empty!", "Return")
    desk.focus_is(*PASSWORD)
    types("wrong")
    keys("Return")
    desk.alert_says("Email o Contraseña inválidos", "space")
    desk.focus_is(*PASSWORD)
    types(ANA[1])  # over the wrong one, which is selected
    keys("Tab", "space")
    assert person.do("checked")["checked"], "the space bar does not set the check box"
    keys("Return")
    assert not person.do("checked")["checked"], "Return does not clear the check box"
    keys("KP_Enter", "Tab")
    desk.focus_is(*BUTTON)
    for key, then in (("Return", BUTTON), ("space", EMAIL)):
        since = time.time()
        keys(key)
        person.sees(CONNECTED, since)
        desk.focus_is("push button", CONNECTED)
        machine.check_connected()
        since = time.time()
        keys(key)
        person.sees(STOPPED, since)
        machine.check_gone()
        desk.focus_is(*BUTTON)
        desk.another_client()
        desk.focus_is(*then)  # the credentials are remembered; forgotten, since the check box is not set again


def test_a_screen_reader_finds_everything_by_name_and_can_press_it(desk: Desk) -> None:
    person = desk.person
    wait_for("the whole form", lambda: any("Ayuda" in thing for thing in person.do("tree")["tree"]))
    tree = person.do("tree")["tree"]
    print(*("  " + thing for thing in tree), sep="\n")
    named = (("frame", "Corvale"), EMAIL, PASSWORD, CHECK, BUTTON, SIGN_UP, HELP)
    assert {f"{role} {name!r}" for role, name in named} <= set(tree)
    assert not [thing for thing in tree if thing.endswith("''") and not thing.startswith("filler")], "without a name"
    assert person.do("labelled")["by"] == ["Recordarme"]

    person.do("type", name="Email", text="")
    person.do("act", name=STOPPED)
    assert person.do("alert")["text"] == "Email should not be empty!"
    person.do("act", name="OK")
    person.do("type", name="Email", text=ANA[0])
    person.do("type", name="Contraseña", text=ANA[1])
    person.do("act", name="Recordarme")
    assert person.do("checked")["checked"], "the check box has no action"
    since = person.do("act", name=STOPPED)["time"]
    for title in (CONNECTING, CONNECTED):
        print(f'  told of "{title}" after {person.sees(title, since) - since:.3f} s')
    assert not person.do("fields")["enabled"], "the fields do not say that they are locked"
    machine.check_connected()
    since = person.do("act", name=CONNECTED)["time"]
    print(f'  told of "{STOPPED}" after {person.sees(STOPPED, since) - since:.3f} s')
    machine.check_gone()
    assert person.do("fields")["enabled"], "the fields do not say that they are free"
