#!/usr/bin/env python3
"""Feeds a recorded byte stream to tmux and to termkit-dump at the same size and shows
where the two screens differ. tmux is used as a black-box second emulator: the stream is
written into a pane by `cat`, and the pane is read back with `capture-pane`.

    compare_with_tmux.py TERMKIT_DUMP FILE COLS ROWS [--show]

Exit status 0 when the screens and cursors agree, 1 otherwise.
"""
import os
import subprocess
import sys
import tempfile
import time


def tmux_screen(path, cols, rows):
    sock = "termkit-cmp-%d" % os.getpid()
    flag = tempfile.mktemp(prefix="termkit-cmp-")
    tmux = ["tmux", "-L", sock, "-f", "/dev/null"]
    # The pane starts with a pause so that the status line is off before any output.
    cmd = "stty raw -echo -opost; sleep 0.3; cat '%s'; touch '%s'; sleep 600" % (path, flag)
    subprocess.run(tmux + ["new-session", "-d", "-x", str(cols), "-y", str(rows), "sh", "-c", cmd], check=True)
    try:
        subprocess.run(tmux + ["set", "-g", "status", "off"], check=True)
        deadline = time.time() + 60
        while not os.path.exists(flag) and time.time() < deadline:
            time.sleep(0.05)
        time.sleep(0.2)
        screen = subprocess.run(tmux + ["capture-pane", "-p"], check=True, capture_output=True).stdout.decode("utf-8", "replace")
        cursor = subprocess.run(tmux + ["display", "-p", "#{cursor_y} #{cursor_x}"], check=True, capture_output=True).stdout.decode().split()
    finally:
        subprocess.run(tmux + ["kill-server"], capture_output=True)
        if os.path.exists(flag):
            os.unlink(flag)
    lines = [l.rstrip(" ") for l in screen.split("\n")[:rows]]
    lines += [""] * (rows - len(lines))
    return lines, "cursor %s %s" % (cursor[0], min(int(cursor[1]), cols - 1))


def termkit_screen(dump, path, cols, rows):
    out = subprocess.run([dump, "--cols", str(cols), "--rows", str(rows), path], check=True, capture_output=True).stdout.decode("utf-8", "replace")
    lines = out.split("\n")
    return lines[:rows], lines[rows]


def main():
    if len(sys.argv) < 5:
        sys.exit(__doc__)
    dump, path, cols, rows = sys.argv[1], sys.argv[2], int(sys.argv[3]), int(sys.argv[4])
    ours, our_cursor = termkit_screen(dump, path, cols, rows)
    theirs, their_cursor = tmux_screen(path, cols, rows)
    same = True
    for i, (a, b) in enumerate(zip(ours, theirs)):
        if a != b:
            same = False
            print("row %d\n  termkit: %r\n  tmux:    %r" % (i, a, b))
    if our_cursor != their_cursor:
        same = False
        print("termkit %s, tmux %s" % (our_cursor, their_cursor))
    if "--show" in sys.argv:
        print("\n".join("|" + l for l in ours))
    print("same" if same else "different")
    return 0 if same else 1


if __name__ == "__main__":
    sys.exit(main())
