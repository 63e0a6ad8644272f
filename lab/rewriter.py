# SPDX-License-Identifier: MIT
"""Changes one byte of a file again and again, between a comment mark and a blank: in place, and every eighth time
with a new file in the old one's place.

usage: rewriter.py FILE OFFSET        until it is told to end; then it says how many times it did
"""
import os
import random
import signal
import sys
import time


def main() -> None:
    path, mark = sys.argv[1], int(sys.argv[2])
    going, count = [True], 0
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


main()
