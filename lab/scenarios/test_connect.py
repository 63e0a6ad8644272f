# SPDX-License-Identifier: MIT
"""The main job: one click connects, the next one disconnects. What each part recorded of it is shown in order."""
import machine
import plain
import timeline
from stage import ANA, CONNECTED, CONNECTING, STOPPED, Stage


def test_one_click_connects_and_the_next_one_disconnects(bus: timeline.Bus, stage: Stage) -> None:
    yardstick = plain.measure()
    person, picture = stage.person, stage.session.picture
    picture("1-stopped")
    click = person.sign_in(*ANA)
    person.sees(CONNECTING, click)
    picture("2-connecting")
    connected = person.sees(CONNECTED, click)
    began = machine.openvpn_started()
    picture("3-connected")
    machine.check_connected()
    again = person.do("click")["time"]
    person.sees(STOPPED, again)
    picture("4-disconnected")
    machine.check_gone()
    stage.hears_of_the_end()
    timeline.show(timeline.collect(person, stage.client, bus, began), click)
    took = connected - click
    print(f'  click until "{CONNECTED}": {took:.3f} s; a plain script, same work: {yardstick:.3f} s;'
          f" more: {took - yardstick:.3f} s")
