# SPDX-License-Identifier: MIT
"""Which configurations the privileged helper takes: as services hand them out, and one that changes under its eyes."""
import collections
import pathlib
import subprocess
import time

import machine
import plain
from helper_calls import CANONICAL, HELPER, call, expect, hand_out, own_file, run_arguments, run_folder, send, start_helper
from session import as_user
from stage import Stage


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
        expect(pathlib.Path("/tmp/corvale.ovpn").read_bytes() == text.encode(), "the client has another file")
        stage.disconnect()


# ---- a file that changes under the helper's eyes

def race(runs=1000):
    """The two profiles differ in one byte: a comment mark before the directive."""
    good = (plain.profile() + "# plugin /tmp/x.so\n").encode()
    profile = own_file("race.ovpn", good.decode())
    changes = subprocess.Popen(
        as_user("ana", ["/usr/bin/python3", "-c", REWRITER, profile, good.index(b"# plugin")]), stdout=subprocess.PIPE, text=True)
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
