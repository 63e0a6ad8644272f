# SPDX-License-Identifier: MIT
"""What a click costs beside a plain script that does the same work."""
import statistics

import costs
import plain
from session import quiet
from stage import CONNECTED, Stage

CLICKS = 5


def test_a_click_beside_a_plain_script(stage: Stage) -> None:
    times: dict[str, list[float]] = {"plain": [], "ours": []}
    for _ in range(CLICKS):
        times["plain"].append(plain.connect_once())
        with quiet():
            click, connected = stage.connect()
            stage.disconnect()
        times["ours"].append(connected - click)
    ours, script = statistics.median(times["ours"]), statistics.median(times["plain"])
    print(f'  click until "{CONNECTED}", {CLICKS} times: {ours:.3f} s; a plain script, same work: {script:.3f} s;'
          f" more: {ours - script:.3f} s")
    costs.keep(more=ours - script, **times)
