# SPDX-License-Identifier: MIT
"""The client in status bars of both kinds: its item, and what it does for a window that was closed."""
import time

import machine
from desk import Desk, NewerBar
from session import wait_for
from stage import ANA, CONNECTED, STOPPED

SCREEN = {"bare": True}
ENTRIES = [STOPPED, "Mostrar ventana", "", "Salir"]


def test_a_panel_that_comes_late_or_again_shows_the_item(desk: Desk) -> None:
    desk.close_window()  # there is no status bar on this desktop yet
    desk.start_again()
    for what in ("started late", "killed and started again"):
        panel = desk.session.start_panel()
        x, _ = wait_for("the item in the panel", desk.item_in_panel)
        print(f"  panel {what}: item at x = {x}")
        desk.close_window()
        desk.choose_in_panel("Down", "Down", "Return")
        assert desk.shown() == desk.first, "the menu made another window"
        panel.kill()
        panel.wait()
        wait_for("the item's end", lambda: not desk.item_in_panel())


def check_item(desk: Desk, bar: NewerBar, after: int = 0) -> None:
    said = bar.hears("came", after)
    assert (said["came"], said["tip"], said["menu"]) == ("Corvale", "Corvale", ENTRIES) and said["pictures"]
    desk.close_window()
    bar.ask(choose="Mostrar ventana")
    desk.shown()


def test_a_bar_of_the_newer_kind_shows_the_item_whenever_it_comes_and_its_menu_works(desk: Desk) -> None:
    bar = NewerBar(desk.session, "--alone")
    bar.hears("asked")
    bar.ask(host=True)
    check_item(desk, bar)
    bar.end()
    desk.another_client()
    for _ in range(2):  # it comes late, and again
        bar.end()
        bar = NewerBar(desk.session)
        check_item(desk, bar)
    said = len(bar.lines)
    desk.another_client()  # to a bar that is there
    check_item(desk, bar, said)
    since = desk.person.sign_in(*ANA)
    desk.person.sees(CONNECTED, since)
    assert bar.ask(menu=True)["menu"][0] == CONNECTED, "the menu is not in step with the button"
    since = time.time()
    bar.ask(choose=CONNECTED)
    print(f'  "{CONNECTED}" in its menu: button "{STOPPED}" after {desk.person.sees(STOPPED, since) - since:.3f} s')
    machine.check_gone()
    bar.ask(choose="Salir")
    assert desk.client.process.wait(5) == 0, '"Salir" does not end the client'
