#!/usr/bin/env python3
"""A small full-screen program for recorded sessions: boxes, colours, a scrolling log
window (which curses drives with a scroll region), wide and combining characters, and a
status line. It waits for keys: any key adds log lines, 'q' quits."""
import curses
import locale


def main(screen):
    locale.setlocale(locale.LC_ALL, "")
    curses.start_color()
    curses.use_default_colors()
    for i, colour in enumerate([curses.COLOR_RED, curses.COLOR_GREEN, curses.COLOR_YELLOW, curses.COLOR_BLUE,
                                curses.COLOR_MAGENTA, curses.COLOR_CYAN], start=1):
        curses.init_pair(i, colour, -1)
    rows, cols = screen.getmaxyx()
    screen.box()
    screen.addstr(0, 2, " Termkit session ", curses.A_BOLD | curses.color_pair(3))
    for i in range(6):
        screen.addstr(2 + i, 3, f"item {i}: ", curses.color_pair(i + 1))
        screen.addstr("状態 ok ✓ café" if i % 2 else "ready", curses.A_REVERSE if i == 2 else curses.A_NORMAL)
    log = curses.newwin(rows - 12, cols - 6, 9, 3)
    log.scrollok(True)
    log.idlok(True)
    for n in range(30):
        log.addstr(f"log line {n:02d} " + "=" * (n % 17) + "\n", curses.color_pair(n % 6 + 1))
    screen.addstr(rows - 2, 2, "press q to quit", curses.A_UNDERLINE)
    screen.refresh()
    log.refresh()
    n = 30
    while True:
        key = screen.getch()
        if key == ord("q"):
            break
        for _ in range(3):
            log.addstr(f"key {key} line {n:03d}\n", curses.A_BOLD)
            n += 1
        log.refresh()


curses.wrapper(main)
