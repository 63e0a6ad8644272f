# SPDX-License-Identifier: MIT
"""The person before the screen: finds things by their accessible names, types, clicks, and says what the window shows.

Runs in the person's own session. Reads one request a line ({"do": …}), answers each with one line, and in between
writes a line for every new title of the connect button, with the time at which the accessibility bus told of it.
"""
import json
import os
import sys
import time
import typing
from collections.abc import Iterator

import gi

gi.require_version("Atspi", "2.0")
from gi.repository import Atspi, GLib  # noqa: E402

Thing = Atspi.Accessible
Answer = dict | None
TITLES = ("Conectar", "Conectando...", "Desconectar")
# With a screen of its own the lab may move the pointer; on a person's display it uses the button's own action.
OWN_SCREEN = "LAB_OWN_SCREEN" in os.environ


def tell(**what: typing.Any) -> None:
    print(json.dumps(what), flush=True)


def application() -> Thing | None:
    desktop = Atspi.get_desktop(0)
    found = [desktop.get_child_at_index(i) for i in range(desktop.get_child_count())]
    return next((a for a in found if a and a.get_name().lower() == "corvale"), None)


def everything(thing: Thing | None) -> Iterator[Thing]:
    if thing is None:
        return
    yield thing
    for i in range(thing.get_child_count()):
        yield from everything(thing.get_child_at_index(i))


def showing(thing: Thing) -> bool:
    return thing.get_state_set().contains(Atspi.StateType.SHOWING)


def has(thing: Thing, state: Atspi.StateType) -> bool:
    """Asks the client itself: what the library keeps of a state may be old."""
    thing.clear_cache()
    return thing.get_state_set().contains(state)


def find(role: tuple[Atspi.Role, ...], names: tuple[str, ...]) -> Thing | None:
    for thing in everything(application()):
        if thing.get_role() in role and thing.get_name() in names and showing(thing):
            return thing
    return None


BUTTON = (Atspi.Role.PUSH_BUTTON,)
FIELD = (Atspi.Role.TEXT, Atspi.Role.PASSWORD_TEXT, Atspi.Role.ENTRY)
ENTRY = (Atspi.Role.CHECK_BOX, Atspi.Role.MENU_ITEM)
ALERT = (Atspi.Role.ALERT, Atspi.Role.DIALOG)


def connect_button() -> Thing | None:
    return find(BUTTON, TITLES)


def press(button: Thing) -> float:
    if not OWN_SCREEN:
        began = time.time()
        button.do_action(0)
        return began
    place = button.get_extents(Atspi.CoordType.SCREEN)
    x, y = place.x + place.width // 2, place.y + place.height // 2
    Atspi.generate_mouse_event(x, y, "abs")
    began = time.time()
    Atspi.generate_mouse_event(x, y, "b1c")
    return began


# What a request does: each returns something for the answer, or None while it cannot be done yet.

def window(_: dict) -> Answer:
    button = connect_button()
    return button and {"title": button.get_name()}


def type_text(request: dict) -> Answer:
    field = find(FIELD, (request["name"],))
    return field and {"typed": field.set_text_contents(request["text"])}


def text_of(request: dict) -> Answer:
    field = find(FIELD, (request["name"],))
    return field and {"text": field.get_text(0, -1)}


def frame(_: dict) -> Answer:
    found = find((Atspi.Role.FRAME,), ("Corvale",))
    return found and {"path": found.path}


def click(request: dict) -> Answer:
    button = find(BUTTON, (request["name"],)) if "name" in request else connect_button()
    return button and {"time": press(button)}


def alert(_: dict) -> Answer:
    for thing in everything(application()):
        if thing.get_role() in ALERT and showing(thing):
            texts = [t.get_name() for t in everything(thing) if t.get_role() == Atspi.Role.LABEL and t.get_name()]
            return {"text": texts[0] if texts else thing.get_name()}
    return None


def fields_enabled(_: dict) -> Answer:
    field = find(FIELD, ("Email",))
    return field and {"enabled": has(field, Atspi.StateType.ENABLED)}


def labelled(_: dict) -> Answer:
    for relation in find((Atspi.Role.CHECK_BOX,), ("Recordarme",)).get_relation_set():
        if relation.get_relation_type() == Atspi.RelationType.LABELLED_BY:
            return {"by": [relation.get_target(i).get_name() for i in range(relation.get_n_targets())]}
    return {"by": []}


def checked(_: dict) -> Answer:
    box = find((Atspi.Role.CHECK_BOX,), ("Recordarme",))
    return box and {"checked": has(box, Atspi.StateType.CHECKED)}


def act(request: dict) -> Answer:
    """What a screen reader does to press something."""
    thing = find(BUTTON + (Atspi.Role.CHECK_BOX,), (request["name"],))
    began = time.time()
    return thing and thing.do_action(0) and {"time": began}


def focus(_: dict) -> Answer:
    for thing in everything(application()):
        # A dialog's row of buttons has no name, and says that it has the focus of its button.
        if thing.get_name() and has(thing, Atspi.StateType.FOCUSED):
            return {"role": thing.get_role_name(), "name": thing.get_name()}
    return {}


def place(request: dict) -> Answer:
    role = BUTTON + FIELD + ENTRY if request.get("works", True) else (Atspi.Role.LABEL,)
    thing = find(role, (request["name"],))
    at = thing and thing.get_extents(Atspi.CoordType.SCREEN)
    return at and {"place": [at.x, at.y, at.width, at.height]}


def key(request: dict) -> Answer:
    """Types one key, into whatever window has the keyboard."""
    return {"pressed": Atspi.generate_keyboard_event(request["symbol"], None, Atspi.KeySynthType.SYM)}


def point(request: dict) -> Answer:
    """Moves the pointer of a screen of the lab's own, and clicks there when asked to."""
    Atspi.generate_mouse_event(request["x"], request["y"], "abs")
    if request.get("click"):
        Atspi.generate_mouse_event(request["x"], request["y"], "b1c")
    return {"pointed": True}


def tree(_: dict) -> Answer:
    return {"tree": [f"{t.get_role_name()} {t.get_name()!r}" for t in everything(application()) if showing(t)]}


REQUESTS = {"window": window, "type": type_text, "click": click, "alert": alert, "fields": fields_enabled, "tree": tree,
            "labelled": labelled, "checked": checked, "act": act, "focus": focus, "text": text_of, "frame": frame,
            "place": place, "key": key, "point": point}


def on_name_change(event: Atspi.Event) -> None:
    when = time.time()
    try:
        # The event itself carries no name.
        title, role = event.source.get_name(), event.source.get_role()
    except GLib.Error:  # the client has gone
        return
    if title in TITLES and role in BUTTON:
        tell(time=when, title=title)


def on_request(_source: typing.TextIO, _condition: GLib.IOCondition) -> bool:
    line = sys.stdin.readline()
    if not line:
        Atspi.event_quit()
        return False
    request = json.loads(line)
    deadline = time.monotonic() + request.get("limit", 10)

    def attempt() -> bool:
        try:
            answer = REQUESTS[request["do"]](request)
        except GLib.Error as error:  # the client is busy, or a thing went away meanwhile
            answer, request["why"] = None, error.message
        if answer is not None:
            tell(answer=answer)
        elif time.monotonic() > deadline:
            tell(failed=f"{request} found nothing")
        else:
            return True
        return False

    if attempt():
        GLib.timeout_add(20, attempt)
    return True


Atspi.init()
Atspi.set_timeout(30000, 30000)
listener = Atspi.EventListener.new(on_name_change)
listener.register("object:property-change:accessible-name")
GLib.io_add_watch(sys.stdin, GLib.PRIORITY_DEFAULT, GLib.IO_IN | GLib.IO_HUP, on_request)
tell(answer={"ready": True})
Atspi.event_main()
