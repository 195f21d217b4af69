#!/usr/bin/env python3
"""Records what a real program writes to a terminal of fixed size.

    record_session.py OUT.bin COLS ROWS [--env K=V ...] -- PROGRAM ARGS... [@keys]

The program runs under a fresh pseudo-terminal of COLS x ROWS with TERM=xterm-256color.
Keystrokes come from a script on standard input, one step a line:
    wait 0.5          pause (seconds)
    keys text\\r       send bytes (C escapes: \\e \\r \\n \\t \\xNN)
Every byte the program writes is saved to OUT.bin. Nothing answers the program's queries,
as when its output is replayed later. A program still running after the last step is killed
without a chance to clean up, so the recording ends on what it showed.
"""
import fcntl
import os
import pty
import select
import signal
import struct
import subprocess
import sys
import termios
import time


def unescape(text):
    out = bytearray()
    i = 0
    while i < len(text):
        c = text[i]
        if c == "\\" and i + 1 < len(text):
            e = text[i + 1]
            i += 2
            if e == "x":
                out.append(int(text[i:i + 2], 16))
                i += 2
            else:
                out += {"e": b"\x1b", "r": b"\r", "n": b"\n", "t": b"\t", "\\": b"\\", "s": b" "}[e]
        else:
            out += c.encode()
            i += 1
    return bytes(out)


def main():
    args = sys.argv[1:]
    sep = args.index("--")
    out, cols, rows = args[0], int(args[1]), int(args[2])
    extra = dict(a.split("=", 1) for a in args[3:sep] if "=" in a)
    program = args[sep + 1:]
    steps = [l.rstrip("\n") for l in sys.stdin if l.strip()]

    master, slave = pty.openpty()
    fcntl.ioctl(slave, termios.TIOCSWINSZ, struct.pack("HHHH", rows, cols, 0, 0))
    env = {"PATH": os.environ["PATH"], "HOME": os.environ.get("HOME", "/root"), "TERM": "xterm-256color",
           "LANG": "C.UTF-8", "LC_ALL": "C.UTF-8", "COLUMNS": str(cols), "LINES": str(rows)}
    env.update(extra)

    def child_setup():
        os.setsid()
        fcntl.ioctl(0, termios.TIOCSCTTY, 0)

    proc = subprocess.Popen(program, stdin=slave, stdout=slave, stderr=slave, env=env, preexec_fn=child_setup)
    os.close(slave)
    data = bytearray()

    def pump(seconds):
        end = time.time() + seconds
        while True:
            left = end - time.time()
            if left <= 0:
                return
            r, _, _ = select.select([master], [], [], left)
            if r:
                try:
                    chunk = os.read(master, 65536)
                except OSError:
                    return
                if not chunk:
                    return
                data.extend(chunk)

    pump(0.5)
    for step in steps:
        word, _, rest = step.partition(" ")
        if word == "wait":
            pump(float(rest))
        elif word == "keys":
            os.write(master, unescape(rest))
            pump(0.15)
    # A program still running is killed outright, so that the recording ends on the screen
    # it was showing rather than on its clean-up.
    pump(0.2)
    if proc.poll() is None:
        proc.send_signal(signal.SIGKILL)
    proc.wait()
    with open(out, "wb") as f:
        f.write(bytes(data))
    print(f"{out}: {len(data)} bytes")


if __name__ == "__main__":
    main()
