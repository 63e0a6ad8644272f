# SPDX-License-Identifier: MIT
"""How long traffic takes to pass the tunnel again once a network is back."""
import time

import costs
import networks
from networks import CAFE, HOME
from stage import Stage

ROWS = [(1, "udp", HOME), (1, "tcp", CAFE), (8, "udp", CAFE), (8, "tcp", HOME), (60, "udp", HOME), (60, "tcp", CAFE)]


def test_the_tunnel_after_a_network_without(stage: Stage) -> None:
    networks.build()
    took = {}
    for gap, protocol, to in ROWS:
        networks.tunnel(stage, protocol)
        networks.leave(HOME)
        time.sleep(gap)
        networks.join(to)
        took[f"{gap} s, {protocol}, {to.link}"] = networks.returned(20)
        stage.disconnect(networks.BEFORE[to])
        networks.reset()
    for row, seconds in took.items():
        print(f"  after {row}: {seconds:.2f} s")
    costs.keep(**took)
