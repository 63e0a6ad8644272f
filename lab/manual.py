# SPDX-License-Identifier: MIT
"""On the person's own display: the client is theirs until they quit it."""
import machine
from session import Session
from stage import ANA


def main() -> None:
    session = Session()
    print(f"  Sign in with {ANA[0]} / {ANA[1]}. Behind the tunnel: http://{machine.INSIDE}/. Quit the client to end.")
    client = session.client()
    client.process.wait()
    for _, line in client.lines:
        print("  " + line)


main()
