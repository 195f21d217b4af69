#!/usr/bin/env python3
"""Asks the terminal for kitty keyboard reporting and prints what each key sends.

Pushes flags 11 (disambiguate, report events, report all keys), prints "kitty flags N"
from the terminal's answer to CSI ? u, then one line per read, the bytes escaped, until
it reads "q" (as CSI 113 u) or runs for SECONDS (default 20). Pops the flags on the way out.
"""
import os
import select
import sys
import termios
import time
import tty

seconds = float(sys.argv[1]) if len(sys.argv) > 1 else 20.0
fd = sys.stdin.fileno()
saved = termios.tcgetattr(fd)
tty.setraw(fd)
out = sys.stdout


def show(data):
    return data.decode("latin-1").encode("unicode_escape").decode("ascii")


try:
    out.write("\x1b[>11u\x1b[?u")
    out.flush()
    deadline = time.monotonic() + seconds
    while time.monotonic() < deadline:
        ready, _, _ = select.select([fd], [], [], 0.2)
        if not ready:
            continue
        data = os.read(fd, 256)
        if data.startswith(b"\x1b[?") and data.endswith(b"u"):
            out.write("kitty flags " + data[3:-1].decode() + "\r\n")
        else:
            out.write("got " + show(data) + "\r\n")
        out.flush()
        if b"\x1b[113u" in data:
            break
finally:
    out.write("\x1b[<u")
    out.flush()
    termios.tcsetattr(fd, termios.TCSADRAIN, saved)
