# SPDX-License-Identifier: MIT
"""The private machine's system log: every datagram sent to it becomes one line, with the time of its arrival.

usage: system_log.py SOCKET FILE     /dev/log, or the one to which a journal forwards what it receives
"""
import os
import re
import socket
import sys
import time


def main() -> None:
    log = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
    log.bind(sys.argv[1])
    os.chmod(sys.argv[1], 0o666)
    with open(sys.argv[2], "a", buffering=1, encoding="utf-8") as out:
        while True:
            text = log.recv(65536).decode("utf-8", "replace").rstrip("\n\0")
            # <priority>month day time
            text = re.sub(r"^<\d+>\w{3} [ \d]\d [\d:]{8} ", "", text)
            print(f"{time.time():.6f} {text}", file=out)


main()
