# SPDX-License-Identifier: MIT
"""Pictures of the installed client on a real screen, for docs/: cut out of the screen and put side by side. Nothing is
drawn here, and the colours that make the looks are held against the fixed ones."""
import subprocess

import pytest
from screen import PANEL, Picture, Screen, compose
from session import PERSONAL, Person, Session, wait_for
from stage import ANA, CONNECTED, CONNECTING, STOPPED, Stage

SCREEN = {"size": f"{PANEL[0]}x{PANEL[1]}"}
ACCOUNT_SERVICE, VPN_SERVER = "203.0.113.10", "203.0.113.20"
RETURN = 0xFF0D
GREY, WHITE = "9D9EA2", "FFFFFF"
DARK_IMAGE, GREEN_IMAGE = "22262E", "1A7E50"  # half-way down the buttons' images


def ip(*what: str) -> None:
    subprocess.run(["ip", "route", *what], check=True)


@pytest.fixture(scope="module")
def screen(session: Session, person: Person) -> Screen:
    return Screen(Stage(session, person))


def check(screen: Screen, picture: Picture, title: str, colour: str, image: str) -> None:
    x, y, *rest = place = screen.person.do("place", name=title)["place"]
    assert picture.colours((*(at + 3 for at in picture.origin), 1, 1)) == {"282C35"}
    assert colour in picture.colours(place)
    assert picture.colours((x + 24, y + 24, 1, 1)) == {image}


def test_the_three_looks(screen: Screen) -> None:
    person = screen.person
    screen.point()
    check(screen, screen.keep("stopped"), STOPPED, GREY, DARK_IMAGE)
    ip("add", "blackhole", VPN_SERVER)
    click = person.sign_in(*ANA)
    person.sees(CONNECTING, click)
    screen.point()
    check(screen, screen.keep("connecting"), CONNECTING, GREY, DARK_IMAGE)
    ip("del", "blackhole", VPN_SERVER)
    person.sees(CONNECTED, click, 60)
    screen.point()
    check(screen, screen.keep("connected"), CONNECTED, WHITE, GREEN_IMAGE)
    screen.stage.disconnect()
    compose("looks", "@stopped", "@connecting", "@connected", "+smush", "16")


def test_the_alerts(screen: Screen) -> None:
    person = screen.person
    for name, email, password, message in (
        ("email", "", "", "Email should not be empty!"),
        ("password", ANA[0], "", "Password should not be empty!"),
        ("rejected", ANA[0], "wrong", "Email o Contraseña inválidos"),
        ("network", *ANA, "Network connection failed"),
        ("unknown", ANA[0], "closed for maintenance", "Unknown error"),
    ):
        if name == "network":
            # A connection that is already there would only fall silent.
            screen.stage.client.end()
            ip("add", "prohibit", ACCOUNT_SERVICE)
            screen.stage.start_client()
        person.sign_in(email, password)
        assert person.do("alert")["text"] == message
        screen.point()
        screen.keep(f"alert-{name}")
        person.do("click", name="OK")
        if name == "network":
            ip("del", "prohibit", ACCOUNT_SERVICE)
    compose("alerts", "(", "@alert-email", "@alert-password", "@alert-rejected", "+smush", "16", ")",
            "(", "@alert-network", "@alert-unknown", "+smush", "16", ")", "-smush", "16")


def test_the_item_and_its_menu_on_a_dark_panel_and_on_a_light_one(screen: Screen) -> None:
    _, height, panel = PANEL
    for name, colour in (("dark", "#333842"), ("light", "#ececec")):
        screen.session.panel.terminate()
        screen.session.panel.wait()
        file = PERSONAL / f"tint2rc-{name}"
        file.write_text((PERSONAL / "tint2rc").read_text(encoding="utf-8").replace("#333842", colour), encoding="utf-8")
        file.chmod(0o644)
        screen.session.start_panel(file)
        x, y, *_ = screen.status_item()
        screen.keep(f"tray-{name}", (0, height - panel, 200, panel))
        before = len(screen.windows())
        screen.point((x + 20, y + 2), click=True)
        wait_for("the menu", lambda: len(screen.windows()) > before)
        screen.point()
        screen.keep(f"menu-{name}", (0, height - 110, 200, 110))
        screen.point(click=True)
    compose("menu", "@menu-dark", "@menu-light", "+smush", "16")


def test_scaled_screens_and_large_letters(screen: Screen) -> None:
    for name, dpi, options in (("scale-200", 192, {}), ("large-fonts", 144, {"QT_ENABLE_HIGHDPI_SCALING": "0"})):
        screen.stage.client.end()
        screen.session.run("xprop", "-root", "-f", "RESOURCE_MANAGER", "8s", "-set", "RESOURCE_MANAGER",
                           f"Xft.dpi:\t{dpi}\n").wait()
        before = dict(screen.session.environment)
        screen.session.environment |= options
        screen.stage.start_client()
        screen.session.environment = before
        screen.keep(name)
    screen.person.do("key", symbol=RETURN)
    screen.person.do("alert")
    screen.keep("large-fonts-alert")
    compose("scale-200", "@scale-200")
    compose("large-fonts", "@large-fonts", "@large-fonts-alert", "+smush", "16")
