#!/usr/bin/env python3
"""A stand-in for the Claude CLI's interactive screen, for the usage probe's tests.

A full-screen program like the real one: it takes the alternate screen, discards what was
typed before it was ready, draws a coloured prompt box, opens a tabbed panel on "/usage" at
its first tab, moves to the next tab (the usage figures) on Tab, and quits on the second
Ctrl-C. The figures stand in the "Usage" tab, drawn with cursor moves so that the cells
between label and figure are never written. Started with a delay in seconds as its first
argument, it is slow to start. Writes its process id to $HOME/fake-claude.pids, so tests can look for leftovers.
"""
import os
import sys
import termios
import time
import tty

ESC = "\x1b"
TABS = ["Status", "Usage", "Config"]


def out(text):
    sys.stdout.write(text)
    sys.stdout.flush()


def at(row, col, text):
    return f"{ESC}[{row};{col}H{text}"


def frame(width, height):
    top = "╭" + "─" * (width - 2) + "╮"
    bottom = "╰" + "─" * (width - 2) + "╯"
    lines = [at(2, 2, f"{ESC}[38;5;208m{top}")]
    for row in range(3, 3 + height):
        lines.append(at(row, 2, "│") + at(row, 1 + width, "│"))
    lines.append(at(3 + height, 2, bottom + f"{ESC}[0m"))
    return "".join(lines)


def prompt_screen(typed):
    return (f"{ESC}[2J" + frame(80, 3) + at(3, 4, f"{ESC}[1;38;5;208m✻ Welcome to Claude Code!{ESC}[0m") +
            at(5, 4, f"> {typed}"))


def panel(tab):
    heads = "  ".join(f"{ESC}[7m {name} {ESC}[0m" if index == tab else f" {name} "
                      for index, name in enumerate(TABS))
    body = frame(100, 12) + at(3, 4, f"{ESC}[1mSettings:{ESC}[0m  " + heads)
    if TABS[tab] == "Status":
        body += at(5, 4, "Version: 0.0.0-fake") + at(6, 4, "Model: default")
    elif TABS[tab] == "Config":
        body += at(5, 4, "Theme: dark")
    else:
        body += at(5, 4, f"{ESC}[1mTotal tokens:{ESC}[0m") + at(5, 24, f"{ESC}[32m1.2M{ESC}[0m")
        body += at(6, 4, f"{ESC}[1mSessions:{ESC}[0m") + at(6, 24, f"{ESC}[36m14{ESC}[0m")
        body += at(8, 4, f"{ESC}[2mEsc to cancel · Tab to cycle{ESC}[0m")
    return f"{ESC}[2J" + body


def main():
    with open(os.path.join(os.environ.get("HOME", "/tmp"), "fake-claude.pids"), "a") as pids:
        pids.write(f"{os.getpid()}\n")
    if len(sys.argv) > 1:
        time.sleep(float(sys.argv[1]))
    fd = sys.stdin.fileno()
    saved = termios.tcgetattr(fd)
    # Raw input, and whatever was typed before the program was ready is dropped.
    tty.setraw(fd, termios.TCSAFLUSH)
    out(f"{ESC}[?1049h{ESC}[?25l")
    typed, tab, interrupts = "", None, 0
    out(prompt_screen(typed))
    try:
        while True:
            data = os.read(fd, 64)
            if not data:
                break
            for byte in data:
                if byte == 3:
                    interrupts += 1
                    if interrupts >= 2:
                        return
                    out(at(20, 4, "Press Ctrl-C again to exit"))
                    continue
                interrupts = 0
                if tab is not None:
                    if byte == 9:
                        tab = (tab + 1) % len(TABS)
                        out(panel(tab))
                    elif byte == 27:
                        tab = None
                        out(prompt_screen(typed))
                    continue
                if byte == 13:
                    if typed == "/usage":
                        tab = 0
                        out(panel(tab))
                    typed = ""
                    continue
                typed += chr(byte)
                if tab is None:
                    out(prompt_screen(typed))
    finally:
        out(f"{ESC}[?25h{ESC}[?1049l")
        termios.tcsetattr(fd, termios.TCSADRAIN, saved)


if __name__ == "__main__":
    main()
