"""The private machine's system log: every datagram sent to /dev/log becomes one line, with the time of its arrival.

usage: system_log.py FILE
"""
import os
import re
import socket
import sys
import time


def main():
    log = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
    log.bind("/dev/log")
    os.chmod("/dev/log", 0o666)
    with open(sys.argv[1], "a", buffering=1, encoding="utf-8") as out:
        while True:
            text = log.recv(65536).decode("utf-8", "replace").rstrip("\n\0")
            # <priority>month day time
            text = re.sub(r"^<\d+>\w{3} [ \d]\d [\d:]{8} ", "", text)
            print(f"{time.time():.6f} {text}", file=out)


main()
