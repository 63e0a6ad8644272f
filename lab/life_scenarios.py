# SPDX-License-Identifier: MIT
"""A tunnel's life: who comes back to it, what it leaves behind, and what becomes of it when one of the three is killed."""
import os
import random
import signal
import threading
import time

import machine
import plain
from helper_calls import CANONICAL, HANDED_OUT, HELPER, call, expect, hand_out, helper_pid, kill_helper, start_helper
from session import LOGS, Failure, wait_for
from stage import ANA, Stage
from traces import check_as_before, nobody_waits_for, rested, settled_traces

# ---- a client that comes back to a running tunnel

def log(name):
    return (LOGS / name).read_text(encoding="utf-8")


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
    before, rest = settled_traces(stage), rested(stage)
    for _ in range(count):
        stage.connect()
        stage.disconnect()
    check_as_before(stage, before)
    now = rested(stage, rest)
    print(f"  the client's descriptors at rest: {rest} before, {now} now")
    expect(now <= rest, "the client keeps descriptors")


# ---- a helper that leaves just when it is needed

def handover(count=25):
    """It ends at a random moment of the click, as when it has been idle or is being upgraded: the request is served."""
    stage = Stage()
    stage.connect()
    stage.disconnect()
    served = 0
    for _ in range(count):
        helper, said = start_helper(), len(log("system"))
        timer = threading.Timer(random.random() / 40, os.kill, (helper, signal.SIGTERM))
        timer.start()
        click = stage.person.do("click")["time"]
        stage.person.sees("Conectando...", click)
        timer.join()
        # An OpenVPN that had been started ends with its helper.
        ended = lambda: "OpenVPN exited: " in log("system")[said:]
        wait_for("the tunnel, or its end", lambda: ended() or stage.person.do("window")["title"] == "Desconectar")
        expect("XPCService error" not in log("system")[said:], f"a request was lost: {log('system')[said:]}")
        expect(helper_pid() != helper, "the helper did not end")
        if not ended():
            served += 1
            stage.disconnect()
        machine.check_gone()
    print(f"  {count} clicks while the helper left: {served} connected, {count - served} begun and ended with it")
    expect(served, "the helper left too late each time")


# ---- kill -9

def kills():
    """Each of the three in each phase. What is wrong is told at the end, so that one fault does not hide another."""
    stage = Stage()
    stage.connect()
    stage.disconnect()
    before = settled_traces(stage)
    wrong = []
    for phase in PHASES:
        for victim in ("client", "helper", "OpenVPN"):
            print(f"  kill -9 of {victim} while {phase}:")
            try:
                killed(stage, victim, phase, before)
            except Failure as failure:
                wrong.append(f"{victim} killed while {phase}: {failure}")
                print(f"  WRONG: {failure}; another client:")
                call("ana", f"{HELPER}.killOpenVPN")
                another_client(stage)
    unwaited = nobody_waits_for()
    print("  ended processes that nobody has waited for:", *unwaited or ["none"])
    if unwaited:
        wrong.append("ended processes that nobody has waited for")
    expect(not wrong, "; ".join(wrong))


def starting(stage):
    """OpenVPN has just been started, and the client is yet to find its management port."""
    stage.person.sign_in(*ANA)
    wait_for("OpenVPN", machine.openvpn_pid)


def authenticating(stage):
    """OpenVPN has just been given the password."""
    said = len(stage.client.lines)
    stage.person.sign_in(*ANA)
    told(stage, said, f"password 'Auth' {ANA[1]}")


def connecting(stage):
    machine.server("stop")
    seen = len(stage.states())
    stage.person.sign_in(*ANA)
    wait_for("OpenVPN to wait for its server", lambda: "WAIT" in stage.states()[seen:])


def disconnecting(stage):
    """With a configuration that has OpenVPN take leave of its server, which lasts."""
    hand_out(plain.profile() + "explicit-exit-notify 2\n")
    stage.connect()
    HANDED_OUT.unlink()
    said = len(stage.client.lines)
    stage.person.do("click")
    told(stage, said, "signal SIGINT")


def told(stage, since, word):
    wait_for("the client's word to OpenVPN", lambda: any(line == word for _, line in stage.client.lines[since:]))


PHASES = {"starting": starting, "authenticating": authenticating, "connecting": connecting, "connected": Stage.connect,
          "disconnecting": disconnecting}


def killed(stage, victim, phase, before):
    seen = len(stage.states())
    PHASES[phase](stage)
    if victim == "helper":
        kill_helper()
    else:
        os.kill(stage.client.process.pid if victim == "client" else machine.openvpn_pid(), signal.SIGKILL)
    when = time.monotonic()
    if phase == "connecting":
        machine.server("start")
    if victim == "client":
        stage.client.process.wait()
        stage.start_client()
    if victim != "client" or phase == "disconnecting":
        wait_for("OpenVPN's end", lambda: not machine.openvpn_pid())
        says = button_tells(stage, seen)
        print(f"  OpenVPN has ended, and the button tells {time.monotonic() - when:.1f} s after the kill: {says}")
        start_helper()
        machine.check_gone()
        check_as_before(stage, before)
        expect(button_tells(stage, seen) == says, "the button has changed its mind")
    connected_again(stage)
    stage.disconnect()
    check_as_before(stage, before)


def button_tells(stage, seen):
    """What the button says when there is no OpenVPN. One that died before it reported a state has left no trace in the
    client, whose form waits for the first one: the next click connects all the same."""
    try:
        wait_for('the button\'s title "Conectar"', lambda: stage.person.do("window")["title"] == "Conectar", 5)
    except Failure:
        expect(not stage.states()[seen:], f"the button does not say that OpenVPN has ended: {stage.states()[seen:]}")
    return stage.person.do("window")["title"]


def connected_again(stage):
    """With one click. An OpenVPN that had no password yet may be connected twice: it takes the password, and only then
    can it be made to read its file again."""
    click = stage.person.sign_in(*ANA)
    wait_for("the tunnel", lambda: stage.person.do("window")["title"] == "Desconectar" and machine.reply_from_inside())
    wait_for("a reply through the tunnel", machine.ping)  # the first connection of the two may have been seen
    titles = [f"{title} {when - click:.3f}" for when, title in stage.person.titles if when >= click]
    print("  button after the click:", ", ".join(titles))
    machine.check_connected()
