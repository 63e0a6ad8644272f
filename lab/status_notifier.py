# SPDX-License-Identifier: MIT
"""A status bar of the newer kind: watcher and host of StatusNotifier items on the session's bus.

Writes one JSON line for each item that comes, with what it says of itself, one when it goes, and one when somebody asks
for the host. Reads requests, and answers each with one line: {"menu": true} with the entries of the item's menu,
{"choose": ENTRY} chooses one, {"host": true} has the host come to a watcher that was started with --alone.
"""
import json
import sys
import typing

import gi

gi.require_version("Gio", "2.0")
from gi.repository import Gio, GLib  # noqa: E402

WATCHER, PATH = "org.kde.StatusNotifierWatcher", "/StatusNotifierWatcher"
ITEM = "org.kde.StatusNotifierItem"
MENU = "com.canonical.dbusmenu"
INTERFACE = Gio.DBusNodeInfo.new_for_xml(
    f"""<node><interface name="{WATCHER}">
    <method name="RegisterStatusNotifierItem"><arg type="s" direction="in"/></method>
    <property name="IsStatusNotifierHostRegistered" type="b" access="read"/>
    <property name="ProtocolVersion" type="i" access="read"/>
    </interface></node>"""
).interfaces[0]

bus = Gio.bus_get_sync(Gio.BusType.SESSION)
menus: dict[str, str] = {}  # of the items' owners on the bus
hosts = [True] if "--alone" not in sys.argv else []


def tell(**what: typing.Any) -> None:
    print(json.dumps(what), flush=True)


def ask(owner: str, path: str, interface: str, member: str, arguments: GLib.Variant) -> typing.Any:
    return bus.call_sync(owner, path, interface, member, arguments, None, Gio.DBusCallFlags.NONE, 5000, None).unpack()


def entries(owner: str) -> dict[str, int]:
    layout = ask(owner, menus[owner], MENU, "GetLayout", GLib.Variant("(iias)", (0, -1, [])))[1]
    return {entry[1].get("label", ""): entry[0] for entry in layout[2]}


def welcome(owner: str) -> bool:
    about = GLib.Variant("(s)", (ITEM,))
    said = ask(owner, "/StatusNotifierItem", "org.freedesktop.DBus.Properties", "GetAll", about)[0]
    menus[owner] = said["Menu"]
    tell(came=said["Title"] or said["Id"], tip=said["ToolTip"][2], pictures=len(said["IconPixmap"]),
         menu=list(entries(owner)))
    return False


def on_call(_bus: Gio.DBusConnection, sender: str, _path: str, _interface: str, _member: str, _arguments: GLib.Variant,
            invocation: Gio.DBusMethodInvocation) -> None:
    invocation.return_value(None)
    GLib.idle_add(welcome, sender)


def on_owner_change(_bus: Gio.DBusConnection, _sender: str, _path: str, _interface: str, _member: str,
                    arguments: GLib.Variant) -> None:
    name, _old, new = arguments.unpack()
    if not new and menus.pop(name, None):
        tell(gone=True)


def on_request(_source: typing.TextIO, _condition: GLib.IOCondition) -> bool:
    line = sys.stdin.readline()
    if not line:
        loop.quit()
        return False
    request = json.loads(line)
    if "host" in request:
        hosts.append(True)
        bus.emit_signal(None, PATH, WATCHER, "StatusNotifierHostRegistered", None)
        tell(host=True)
        return True
    owner = list(menus)[-1]
    if "choose" in request:
        event = (entries(owner)[request["choose"]], "clicked", GLib.Variant("i", 0), 0)
        ask(owner, menus[owner], MENU, "Event", GLib.Variant("(isvu)", event))
        tell(choose=request["choose"])
    else:
        tell(menu=list(entries(owner)))
    return True


def value_of(_bus: Gio.DBusConnection, _sender: str, _path: str, _interface: str, name: str) -> GLib.Variant:
    if name == "ProtocolVersion":
        return GLib.Variant("i", 0)
    tell(asked=True)
    return GLib.Variant("b", bool(hosts))


bus.register_object(PATH, INTERFACE, on_call, value_of, None)
bus.signal_subscribe(
    "org.freedesktop.DBus", "org.freedesktop.DBus", "NameOwnerChanged", None, None, Gio.DBusSignalFlags.NONE,
    on_owner_change,
)
Gio.bus_own_name_on_connection(bus, WATCHER, Gio.BusNameOwnerFlags.NONE, None, None)
GLib.io_add_watch(sys.stdin, GLib.PRIORITY_DEFAULT, GLib.IO_IN | GLib.IO_HUP, on_request)
loop = GLib.MainLoop()
loop.run()
