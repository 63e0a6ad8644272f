# SPDX-License-Identifier: MIT
"""Pictures of the installed client on a real screen, for docs/, and the colours in them held against the fixed ones.

Nothing is drawn here: the pictures are cut out of the screen and put side by side.
"""
import re
import subprocess
import time

from session import PERSONAL, PICTURES, Failure, wait_for
from stage import ANA, Stage

ACCOUNT_SERVICE, VPN_SERVER = "203.0.113.10", "203.0.113.20"
AWAY = (900, 40)  # where the pointer covers nothing
TAB, RETURN = 0xFF09, 0xFF0D
PANEL = (1024, 1080, 30)  # the screen's width and height, and the height of the panel at its lower edge

BACKGROUND, GREY, WHITE = "282C35", "9D9EA2", "FFFFFF"
DARK_IMAGE, GREEN_IMAGE = "22262E", "1A7E50"  # half-way down the buttons' images

ALERTS = (
    ("email", "", "", "Email should not be empty!"),
    ("password", ANA[0], "", "Password should not be empty!"),
    ("rejected", ANA[0], "wrong", "Email o Contraseña inválidos"),
    ("network", *ANA, "Network connection failed"),
    ("unknown", ANA[0], "closed for maintenance", "Unknown error"),
)
STOPPED, CONNECTING, CONNECTED = "Conectar", "Conectando...", "Desconectar"
# (button's title, its colour, the image under it, the check box's label)
LOOKS = (
    (STOPPED, GREY, DARK_IMAGE, WHITE),
    (CONNECTING, GREY, DARK_IMAGE, GREY),
    (CONNECTED, WHITE, GREEN_IMAGE, GREY),
)


def ip(*what):
    subprocess.run(["ip", *what], check=True)


class Screen:
    """The lab's screen: what of it to keep under which name, and which colours are in what was kept."""

    def __init__(self, stage):
        self.stage = stage
        self.session = stage.session
        self.person = stage.person
        self.wrong = 0

    def windows(self):
        """Places of the client's windows that are on the screen, menus among them: (x, y, width, height)."""
        found = re.findall(r'(0x\w+) "Corvale": .*  (\d+)x(\d+)\S+  \+(\d+)\+(\d+)', self.ask("-root", "-tree"))
        return [(int(x), int(y), int(w), int(h)) for window, w, h, x, y in found
                if "IsViewable" in self.ask("-id", window)]

    def ask(self, *what):
        return subprocess.run(["xwininfo", *what], env=self.session.environment, check=True, capture_output=True,
                              text=True).stdout

    def form(self):
        return max(self.windows(), key=lambda place: place[2] * place[3])

    def status_item(self):
        """Where the panel has put it, once it is there."""
        inside = PANEL[1] - PANEL[2]
        return wait_for("the status item", lambda: [place for place in self.windows() if place[1] >= inside])[0]

    def point(self, place=AWAY, **more):
        self.person.do("point", x=place[0], y=place[1], **more)

    def keep(self, name, place=None):
        x, y, width, height = place or self.form()
        frame = PICTURES / f"{name}.xwd"
        time.sleep(0.4)  # what was just announced to the accessibility bus is on the screen a moment later
        self.session.picture(name)
        subprocess.run(["convert", f"xwd:{frame}", "-crop", f"{width}x{height}+{x}+{y}", "+repage",
                        "-depth", "8", frame.with_suffix(".png")], check=True)
        frame.unlink()
        return Picture(frame.with_suffix(".png"), (x, y))

    def check(self, picture, what, named, expected, at=None, works=True):
        """The colour at a point of a named thing (counted from its left upper corner), or somewhere in it."""
        place = self.person.do("place", name=named, works=works)["place"] if named else picture.origin + (0, 0)
        x, y, width, height = place
        seen = picture.colours((x + at[0], y + at[1], 1, 1) if at else (x, y, width, height))
        holds = expected in seen
        shown = expected if holds else "/".join(sorted(seen)[:3])
        print(f"  {picture.path.stem:12} {what:24} 0x{expected}  0x{shown}  {'' if holds else 'DIFFERENT'}")
        self.wrong += not holds


class Picture:
    def __init__(self, path, origin):
        self.path = path
        self.origin = origin

    def colours(self, place):
        x, y, width, height = place
        crop = f"{width}x{height}+{x - self.origin[0]}+{y - self.origin[1]}"
        pixels = subprocess.run(["convert", self.path, "-crop", crop, "+repage", "-depth", "8", "rgb:-"],
                                check=True, capture_output=True).stdout
        return {pixels[i:i + 3].hex().upper() for i in range(0, len(pixels), 3)}


def compose(name, *options):
    """One page out of kept pictures."""
    page = PICTURES / "docs" / f"{name}.png"
    page.parent.mkdir(exist_ok=True)
    kept = [PICTURES / f"{option[1:]}.png" if option.startswith("@") else option for option in options]
    subprocess.run(["convert", "-background", "none", *kept, "-strip", "-define", "png:compression-level=9", page],
                   check=True)
    print(f"  {page.name}: {page.stat().st_size} bytes")


def looks(screen):
    """The three looks, and every fixed colour in them."""
    person = screen.person
    screen.point()
    print("  picture      what                     fixed     seen")
    check_form(screen, screen.keep("stopped"), LOOKS[0])
    # A tunnel that waits for its server stays where it is while its picture is taken.
    ip("route", "add", "blackhole", VPN_SERVER)
    click = person.sign_in(*ANA)
    person.sees(CONNECTING, click)
    screen.point()
    check_form(screen, screen.keep("connecting"), LOOKS[1])
    ip("route", "del", "blackhole", VPN_SERVER)
    person.sees(CONNECTED, click, 60)
    screen.point()
    check_form(screen, screen.keep("connected"), LOOKS[2])


def check_form(screen, picture, look):
    title, title_colour, image, label = look
    screen.check(picture, "background", None, BACKGROUND, (3, 3))
    for field in ("Email", "Contraseña"):
        height = screen.person.do("place", name=field)["place"][3]
        screen.check(picture, f"line under {field}", field, GREY, (100, height))
        if title == STOPPED:
            screen.check(picture, f"placeholder {field}", field, GREY)
    screen.check(picture, f"title {title}", title, title_colour)
    screen.check(picture, "button's image", title, image, (24, 24))
    screen.check(picture, "check box's label", "Recordarme", label, works=False)
    screen.check(picture, "title Registrarme", "Registrarme", GREY)
    screen.check(picture, "title Ayuda", "Ayuda", GREY)


def alerts(screen):
    person = screen.person
    for name, email, password, message in ALERTS:
        if name == "network":
            # A connection that is already there would only fall silent.
            screen.stage.client.end()
            ip("route", "add", "prohibit", ACCOUNT_SERVICE)
            screen.stage.start_client()
        person.sign_in(email, password)
        shown = person.do("alert")["text"]
        Stage.expect(shown == message, f'the alert says "{shown}", not "{message}"')
        screen.point()
        screen.keep(f"alert-{name}")
        person.do("click", name="OK")
        if name == "network":
            ip("route", "del", "prohibit", ACCOUNT_SERVICE)


def attention(screen):
    """Every control with the keyboard's focus, and the two kinds of button under the pointer."""
    screen.stage.client.end()
    screen.stage.start_client()  # whose window has the keyboard
    for control in ("password", "remember", "connect", "signup", "help"):
        screen.person.do("key", symbol=TAB)
        screen.keep(f"focus-{control}")
    for control in (STOPPED, "Ayuda"):
        x, y, width, height = screen.person.do("place", name=control)["place"]
        screen.point((x + width - 12, y + height // 2))
        screen.keep(f"pointer-{control}")
    screen.point()


def panels(screen):
    """The status item and its menu, on a dark panel and on a light one."""
    _, height, panel = PANEL
    for name, colour in (("dark", "#333842"), ("light", "#ececec")):
        screen.session.panel.terminate()
        screen.session.panel.wait()
        text = (PERSONAL / "tint2rc").read_text(encoding="utf-8").replace("#333842", colour)
        file = PERSONAL / f"tint2rc-{name}"
        file.write_text(text, encoding="utf-8")
        file.chmod(0o644)
        screen.session.panel = screen.session.run("tint2", "-c", str(file))
        x, y, *_ = screen.status_item()
        screen.keep(f"tray-{name}", (0, height - panel, 200, panel))
        before = len(screen.windows())
        screen.point((x + 20, y + 2), click=True)
        wait_for("the menu", lambda: len(screen.windows()) > before)
        screen.point()
        screen.keep(f"menu-{name}", (0, height - 110, 200, 110))
        screen.point(click=True)


def sizes(screen):
    """Scaled screens and large letters. The form leaves room for a panel and a title bar on the screens there are."""
    letters = {"QT_ENABLE_HIGHDPI_SCALING": "0"}
    for name, dpi, options, highest in (
        ("scale-150", 144, {}, 768 - 100),
        ("scale-200", 192, {}, 1080 - 150),
        ("large-fonts", 144, letters, 768 - 100),
    ):
        screen.stage.client.end()
        screen.session.run("xprop", "-root", "-f", "RESOURCE_MANAGER", "8s", "-set", "RESOURCE_MANAGER",
                           f"Xft.dpi:\t{dpi}\n").wait()
        before = dict(screen.session.environment)
        screen.session.environment |= options
        screen.stage.start_client()
        screen.session.environment = before
        place = screen.form()
        print(f"  {name}: {place[2]} × {place[3]}")
        Stage.expect(place[3] <= highest, f"the window of {name} is too high")
        screen.keep(name)
        screen.person.do("key", symbol=RETURN)
        screen.person.do("alert")
        screen.keep(f"{name}-alert")


def pictures():
    stage = Stage(size=f"{PANEL[0]}x{PANEL[1]}")
    screen = Screen(stage)
    looks(screen)
    stage.disconnect()
    alerts(screen)
    attention(screen)
    panels(screen)
    sizes(screen)
    compose("looks", "@stopped", "@connecting", "@connected", "+smush", "16")
    compose("alerts", "(", "@alert-email", "@alert-password", "@alert-rejected", "+smush", "16", ")",
            "(", "@alert-network", "@alert-unknown", "+smush", "16", ")", "-smush", "16")
    compose("menu", "@menu-dark", "@menu-light", "+smush", "16")
    compose("scale-200", "@scale-200")
    compose("large-fonts", "@large-fonts", "@large-fonts-alert", "+smush", "16")
    if screen.wrong:
        raise Failure(f"{screen.wrong} colours differ from the fixed ones")


PICTURE_SCENARIOS = {"pictures": pictures}
