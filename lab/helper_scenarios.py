"""What the privileged helper promises, shown on the installed product."""
import collections
import os
import pathlib
import pwd
import signal
import socket
import subprocess
import time

import machine
import plain
from session import HERE, LOGS, Failure, wait_for
from stage import Stage

HELPER = "com.corvale.macos.helper"
SCRIPTS = plain.SCRIPTS
RUN = pathlib.Path("/run/corvale")
CANONICAL = RUN / "openvpn.conf"
HANDED_OUT = pathlib.Path("/run/lab/profile.ovpn")  # what the account service gives instead of its own
UNIT = HERE.parent / "packaging/systemd" / f"{HELPER}.service"
ACTIVATION = pathlib.Path(f"/usr/share/dbus-1/system-services/{HELPER}.service")
expect = Stage.expect


def send(user, member, *arguments, to=HELPER, path="/com/corvale/macos/helper", **options):
    """A program of `user` sends one message; its output ends with the answer."""
    return subprocess.Popen(
        ["setpriv", f"--reuid={user}", f"--regid={user}", "--init-groups", "dbus-send", "--system", "--print-reply",
         "--reply-timeout=60000", f"--dest={to}", path, member, *arguments],
        stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True, **options,
    )


def call(user, member, *arguments, **options):
    return send(user, member, *arguments, **options).communicate()[0].strip()


def run_arguments(config, up=SCRIPTS + "client.up"):
    return [f"{HELPER}.runOpenVPN", f"string:{config}", f"string:{up}", f"string:{SCRIPTS}client.down"]


def helper_pid():
    said = call("root", "org.freedesktop.DBus.GetConnectionUnixProcessID", f"string:{HELPER}",
                to="org.freedesktop.DBus", path="/")
    return int(said.split()[-1]) if "uint32" in said else None


def kill_helper():
    """Returns when the bus knows about it."""
    pid = helper_pid()
    os.kill(pid, signal.SIGKILL)
    wait_for("the helper's end", lambda: helper_pid() != pid)


def start_helper():
    expect("string" in call("ana", f"{HELPER}.getVersion"), "the helper does not start")
    return helper_pid()


def own_file(name, text, mode=0o600):
    """A file in ana's home that is hers."""
    path = pathlib.Path("/home/ana", name)
    path.write_text(text, encoding="utf-8")
    path.chmod(mode)
    os.chown(path, pwd.getpwnam("ana").pw_uid, pwd.getpwnam("ana").pw_gid)
    return path


def hand_out(text):
    HANDED_OUT.write_bytes(text.encode())


def run_folder():
    return sorted(path.name for path in RUN.iterdir()) if RUN.exists() else []


def descriptors(pid):
    return len(os.listdir(f"/proc/{pid}/fd"))


def processes(dead=False):
    """How many of each program run in the machine, or of those that have ended and nobody has waited for."""
    names = []
    for path in pathlib.Path("/proc").glob("[0-9]*/stat"):
        try:
            name, state = path.read_text().split("(", 1)[1].rsplit(")", 1)
        except OSError:
            continue
        if state.split()[0].startswith("Z") == dead:
            names.append(name)
    return collections.Counter(names)


def traces(stage):
    """Everything that a tunnel could leave behind."""
    return {
        "/etc/resolv.conf": machine.RESOLVER.read_text(encoding="utf-8"),
        "routes": subprocess.run("ip route show table all; ip -6 route show table all; ip rule", shell=True,
                                 capture_output=True, text=True, check=True).stdout.splitlines(),
        "interfaces": sorted(os.listdir("/sys/class/net")),
        "processes": processes(),
        RUN: run_folder(),
        "the client's descriptors": descriptors(stage.client.process.pid),
        "the helper's descriptors": descriptors(start_helper()),
    }


def settled_traces(stage):
    """What there is once a whole second has changed nothing."""
    seen = []

    def calm():
        seen.append(traces(stage))
        time.sleep(1)
        return len(seen) > 1 and seen[-1] == seen[-2] and seen[-1]

    return wait_for("the machine to come to rest", calm)


def difference(before, now):
    if isinstance(now, list):
        return f"gone {[each for each in before if each not in now]}, new {[each for each in now if each not in before]}"
    return f"before {before!r}, now {now!r}"


def check_as_before(stage, before):
    """Descriptors may be fewer: an idle connection to the account service closes in its own time."""
    more = {}

    def same():
        now = traces(stage)
        more.clear()
        more.update({what: f"{what}: {difference(before[what], now[what])}" for what in before
                     if (now[what] > before[what] if isinstance(now[what], int) else now[what] != before[what])})
        return not more

    try:
        wait_for("everything as before", same, 8)
    except Failure:
        raise Failure("left behind: " + "; ".join(more.values())) from None
    print(f"  as before: {', '.join(map(str, before))}")


# ---- a client that comes back to a running tunnel

def takeover():
    profile = plain.profile()
    changed = {
        "the same profile": profile,
        "another verb": profile.replace("verb 3", "verb 4"),
        "a dead remote first": profile.replace("remote vpn", "server-poll-timeout 2\nremote 203.0.113.99 1194\nremote vpn", 1),
    }
    stage = Stage()
    for what, text in changed.items():
        print(f"  {what}:")
        hand_out(profile)
        stage.connect()
        pid, first = machine.openvpn_pid(), CANONICAL.read_text()
        another_client(stage)
        hand_out(text)
        stage.connect()
        now, same = machine.openvpn_pid(), CANONICAL.read_text() == first
        print(f"  OpenVPN process {pid} before, {now} after; its file {'is the same' if same else 'changed'}")
        expect(now == pid, "it is another OpenVPN")
        expect(same == (text == profile), "OpenVPN's file is not this profile's")
        stage.disconnect()
        another_client(stage)
    print("  a client that signed in through the tunnel connects once more after it:")
    stage.connect()
    another_client(stage)
    stage.connect()
    stage.disconnect()
    stage.connect()
    stage.disconnect()


def another_client(stage):
    stage.client.end()
    stage.start_client()


# ---- nothing is left behind

def cycles(count=20):
    stage = Stage()
    stage.connect()
    stage.disconnect()
    before = settled_traces(stage)
    print("  descriptors: client {the client's descriptors}, helper {the helper's descriptors}".format(**{str(k): v for k, v in before.items()}))
    for _ in range(count):
        stage.connect()
        stage.disconnect()
    check_as_before(stage, before)
    wrong = []
    for state in ("connecting", "connected"):
        for victim in ("client", "helper", "OpenVPN"):
            print(f"  kill -9 of {victim} while {state}:")
            killed(stage, victim, state, before, wrong)
    print("  ended processes that nobody has waited for:", *processes(dead=True) or ["none"])
    if processes(dead=True):
        wrong.append("ended processes that nobody has waited for")
    expect(not wrong, "; ".join(wrong))


def killed(stage, victim, state, before, wrong):
    if state == "connecting":
        machine.server("stop")
        seen = len(stage.states())
        stage.person.sign_in("ana@example.com", "secret")
        wait_for("OpenVPN to wait for its server", lambda: "WAIT" in stage.states()[seen:])
    else:
        stage.connect()
    when = time.time()
    if victim == "helper":
        kill_helper()
    else:
        os.kill(stage.client.process.pid if victim == "client" else machine.openvpn_pid(), signal.SIGKILL)
    if state == "connecting":
        machine.server("start")
        wait_for("the server", lambda: "Initialization Sequence Completed" in (LOGS / "server").read_text())
    if victim == "client":
        stage.client.process.wait()
        stage.start_client()
    else:
        wait_for("OpenVPN's end", lambda: not machine.openvpn_pid())
        start_helper()
        machine.check_gone()
        try:
            print(f'  button "Conectar" after {stage.person.sees("Conectar", when, 3) - when:.3f} s')
        except Failure:
            stage.person.do("click")
            time.sleep(1)
            title = stage.person.do("window")["title"]
            wrong.append(f'{victim} killed while {state}: the button stays "{title}" and a click changes nothing')
            print(f"  {wrong[-1]}; another client:")
            another_client(stage)
        try:
            check_as_before(stage, before)
        except Failure as failure:
            wrong.append(f"{victim} killed while {state}: {failure}")
            print(f"  {wrong[-1]}")
    stage.connect()
    stage.disconnect()
    check_as_before(stage, before)
    if victim == "client":
        another_client(stage)  # this one signed in through a tunnel, which is `takeover`'s to judge


# ---- who is refused

def refusals():
    good = own_file("good.ovpn", plain.profile())
    link = pathlib.Path("/home/ana/link.ovpn")
    link.symlink_to(good)
    plugin = own_file("plugin.ovpn", plain.profile() + "plugin /tmp/mark-4711.so\n")
    script = own_file("client.up", "#!/bin/sh\n# mark-4711\n", 0o755)
    subprocess.run("echo 'carla:mark-4711:1::::::' >>/etc/shadow", shell=True, check=True)
    bus = {"to": "org.freedesktop.DBus", "path": "/"}
    table = [
        ("berta, whom polkit does not allow", "berta", run_arguments(good), "NotAuthorized"),
        ("berta ends a tunnel", "berta", [f"{HELPER}.killOpenVPN"], "NotAuthorized"),
        ("/etc/shadow", "ana", run_arguments("/etc/shadow"), "ConfigUnsafe"),
        ("a symbolic link", "ana", run_arguments(link), "ConfigUnsafe"),
        ("another's file", "carla", run_arguments(good), "ConfigUnsafe"),
        ("another script", "ana", run_arguments(good, script), "ScriptRejected"),
        ("plugin", "ana", run_arguments(plugin), "ConfigRejected"),
        ("a fourth method", "ana", [f"{HELPER}.runAnything"], "AccessDenied"),
        ("introspection", "ana", ["org.freedesktop.DBus.Introspectable.Introspect"], "AccessDenied"),
        ("properties", "ana", ["org.freedesktop.DBus.Properties.GetAll", f"string:{HELPER}"], "AccessDenied"),
    ]
    start_helper()
    for what, user, arguments, error in table:
        refused(what, call(user, *arguments), error)
        expect(not machine.openvpn_pid() and not run_folder(), f"{what}: something was started")
    refused("the helper's name", call("ana", "org.freedesktop.DBus.RequestName", f"string:{HELPER}", "uint32:0", **bus),
            "AccessDenied")
    said = call("root", "org.freedesktop.DBus.RequestName", f"string:{HELPER}", "uint32:4", **bus)
    expect(said.endswith("uint32 3"), f"root may not own the name: {said}")  # the helper has it

    with socket.create_server(("127.0.0.1", 1337)):
        refused("a stranger on port 1337", call("ana", *run_arguments(good)), "PortBusy")
        expect(not machine.openvpn_pid() and not run_folder(), "something was started")

    print("  while ana's tunnel runs:")
    tunnel = send("ana", *run_arguments(good))
    pid = wait_for("OpenVPN", machine.openvpn_pid)
    carlas = pathlib.Path("/tmp/carla.ovpn")
    carlas.write_text(plain.profile(), encoding="utf-8")
    os.chown(carlas, 61002, 61002)
    carlas.chmod(0o600)
    refused("carla's own", call("carla", *run_arguments(carlas)), "Busy")
    refused("carla ends it", call("carla", f"{HELPER}.killOpenVPN"), "NotAuthorized")
    expect(machine.openvpn_pid() == pid and tunnel.poll() is None, "ana's tunnel did not go on")
    call("ana", f"{HELPER}.killOpenVPN")
    print("  ana ends it:", tunnel.communicate()[0].split("\n")[-2].strip())
    machine.check_gone()
    expect(not run_folder(), "the run folder is not empty")


def refused(what, said, error):
    print(f"  {what}: {said}")
    expect(said.startswith("Error ") and said.split()[1].rstrip(":").endswith("." + error), f"that is not {error}")
    expect("4711" not in said and "root:" not in said, "the answer quotes a file")


# ---- under the limits of the unit

def confined():
    unit = dict(line.split("=", 1) for line in UNIT.read_text(encoding="ascii").splitlines() if "=" in line)
    capabilities = ",".join("+" + name.removeprefix("CAP_").lower() for name in unit["CapabilityBoundingSet"].split())
    writable = unit["ReadWritePaths"].split()
    wrapper = pathlib.Path("/run/lab/confined")
    wrapper.write_text("\n".join([
        "#!/bin/sh -e",
        *(f"mount --bind {path} {path}" for path in writable),
        *(f"mount -o remount,bind,ro {path}" for path in ("/", "/tmp") if path not in writable),
        "mount -t proc -o hidepid=invisible proc /proc",
        f"umask {unit['UMask']}",
        f"exec setpriv --bounding-set -all,{capabilities} --no-new-privs {unit['ExecStart']}",
    ]) + "\n", encoding="ascii")
    wrapper.chmod(0o755)
    activation = ACTIVATION.read_text(encoding="ascii")
    ACTIVATION.write_text(activation.replace(unit["ExecStart"], f"/usr/bin/unshare --mount {wrapper}"), encoding="ascii")
    call("root", "org.freedesktop.DBus.ReloadConfig", to="org.freedesktop.DBus", path="/")
    print(f"  capabilities: {capabilities}; writable: {' '.join(writable)}")
    stage = Stage()
    stage.connect()
    for name, pid in (("helper", helper_pid()), ("OpenVPN", machine.openvpn_pid())):
        status = dict(line.split(":\t", 1) for line in pathlib.Path(f"/proc/{pid}/status").read_text().splitlines())
        print(f"  {name}: capabilities {status['CapEff']} of {status['CapBnd']}, no new privileges {status['NoNewPrivs']}")
        # kill, setgid, setuid, net_admin
        expect((status["CapBnd"], status["NoNewPrivs"]) == ("00000000000010e0", "1"), f"{name} is not confined")
    stage.disconnect()
    print("  kill -9 of the helper:")
    stage.connect()
    kill_helper()
    start_helper()
    machine.check_gone()
    expect(not run_folder(), "the run folder is not empty")


# ---- profiles as services hand them out

def styles(own):
    dead = "203.0.113.99"
    remote = "remote vpn.corvale.example 1194\n"
    block = "<connection>\nremote {} 1194 udp\nconnect-timeout 2\n</connection>\n"
    return {
        "Windows line ends": own.replace("\n", "\r\n"),
        "byte-order mark": "\ufeff# CORVALE_PROFILE=ana\n" + own,
        "comments and tabs": "##\t Hecho para Ana, señora de su túnel\n;dev tap\n" + own.replace(remote, "\tremote\tvpn.corvale.example\t1194\t# home\n"),
        "connection blocks, the first one dead": own.replace(remote, block.format(dead) + block.format("vpn.corvale.example")),
        "three remotes, the first one dead": own.replace(remote, f"server-poll-timeout 2\nremote {dead} 51820 udp\n{remote}remote {dead} 1194 udp\n"),
        "cipher lists": own + "cipher AES-256-CBC\ndata-ciphers AES-256-GCM:AES-128-GCM:?CHACHA20-POLY1305\nncp-ciphers AES-256-GCM:AES-128-GCM\n"
                              "data-ciphers-fallback AES-256-CBC\nauth SHA512\ntls-version-min 1.2\n",
        "dropped directives": own + "block-outside-dns\nregister-dns\nuser nobody\ngroup nogroup\nscript-security 2\nfast-io\n"
                                    "ignore-unknown-option block-outside-dns\nauth-nocache\nroute-method exe\nnice -5\n",
        "setenv": "setenv FORWARD_COMPATIBLE 1\nsetenv CLIENT_CERT 0\nsetenv UV_ID 4f2c\nsetenv opt block-outside-dns\nsetenv opt tls-cert-profile insecure\n" + own,
        "timers": own + "explicit-exit-notify 2\nping 15\nping-restart 0\nping-timer-rem\nreneg-sec 0\nmssfix 1450\ntun-mtu 1500\nremote-random\nauth-retry nointeract\n",
        "quotes, leading --, no last line end": own.replace("dev tun", '--dev "tun"').replace("vpn.corvale.example name", "'vpn.corvale.example'\"name\"").replace("remote vpn", '"remote" "vpn').replace("example 1194", 'example""1194"').rstrip(),
    }


def profiles():
    own = plain.profile()
    stage = Stage()
    for what, text in styles(own).items():
        print(f"  {what}:")
        hand_out(text)
        stage.connect()
        expect(pathlib.Path("/tmp/corvale.ovpn").read_bytes() == text.removeprefix("\ufeff").encode(), "the client has another file")
        stage.disconnect()


# ---- a file that changes under the helper's eyes

def race(runs=1000):
    """The two profiles differ in one byte: a comment mark before the directive."""
    good = (plain.profile() + "# plugin /tmp/x.so\n").encode()
    profile = own_file("race.ovpn", good.decode())
    changes = subprocess.Popen(
        ["setpriv", "--reuid=ana", "--regid=ana", "--init-groups", "/usr/bin/python3", "-c", REWRITER, str(profile),
         str(good.index(b"# plugin"))], stdout=subprocess.PIPE, text=True)
    start_helper()
    ends, began = collections.Counter(), time.monotonic()
    while sum(ends.values()) < runs and time.monotonic() - began < 120:
        ends[raced(profile)] += 1
    took = time.monotonic() - began
    changes.terminate()
    print(f"  {sum(ends.values())} runs in {took:.0f} s: {dict(ends)}; the file was rewritten {changes.communicate()[0].strip()} times")
    expect(min(ends["started"], ends["ConfigRejected"]) > runs // 20, "the two kinds of file did not alternate")
    expect(not run_folder(), "the run folder is not empty")


def raced(profile):
    """One run; what came of it."""
    run = send("ana", *run_arguments(profile))
    while run.poll() is None and not (CANONICAL.exists() and machine.openvpn_pid()):
        time.sleep(0.002)
    if run.poll() is None:
        given = CANONICAL.read_text(encoding="utf-8")
        expect("plugin" not in given and "remote" in given, f"OpenVPN was given {given!r}")
        call("ana", f"{HELPER}.killOpenVPN")
    said = run.communicate()[0]
    return said.split(": ")[0].rsplit(".", 1)[1] if said.startswith("Error") else "started"


# In place, byte by byte, and every eighth time by a new file in the old one's place.
REWRITER = """
import os, random, signal, sys, time
path, mark, count, going = sys.argv[1], int(sys.argv[2]), 0, [1]
signal.signal(signal.SIGTERM, lambda *_: going.clear())
while going:
    count += 1
    if count % 8 == 0:
        with open(path, "rb") as old, open(os.open(path + ".new", os.O_WRONLY | os.O_CREAT, 0o600), "wb") as new:
            new.write(old.read())
        os.rename(path + ".new", path)
    file = os.open(path, os.O_WRONLY)
    os.pwrite(file, random.choice((b"#", b" ")), mark)
    os.close(file)
    time.sleep(random.random() / 1000)
print(count)
"""

HELPER_SCENARIOS = {
    "takeover": takeover,
    "cycles": cycles,
    "refusals": refusals,
    "confined": confined,
    "profiles": profiles,
    "race": race,
}
