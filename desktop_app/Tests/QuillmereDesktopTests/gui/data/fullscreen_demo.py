#!/usr/bin/env python3
"""A small full-screen program for screenshots of a terminal: it takes the alternate screen
and draws boxes of every line weight, the 16 colours and a 256-colour strip, text styles,
block elements, powerline separators and a few wide characters, then waits for a key (or
for a time given in seconds) and restores the screen. The same bytes in any terminal, so
two terminals' screenshots can be compared side by side.

    fullscreen_demo.py [SECONDS]
"""
import os
import select
import sys
import termios
import time
import tty

ESC = "\x1b"
CSI = ESC + "["


def at(row, col):
    return f"{CSI}{row};{col}H"


def box(top, left, width, height, chars, title=""):
    h, v, tl, tr, bl, br = chars
    out = [at(top, left), tl, h * (width - 2), tr]
    for r in range(1, height - 1):
        out += [at(top + r, left), v, at(top + r, left + width - 1), v]
    out += [at(top + height - 1, left), bl, h * (width - 2), br]
    if title:
        out += [at(top, left + 2), f" {title} "]
    return "".join(out)


def screen(cols, rows):
    """Everything laid out for a terminal at least 48 columns wide and 20 rows high."""
    width = max(48, min(cols - 1, 72))
    inner = width - 4
    box_w = (inner - 2) // 3
    out = [CSI + "?1049h", CSI + "?25l", CSI + "0m", CSI + "2J"]
    out.append(box(1, 1, width, min(rows - 1, 21), "═║╔╗╚╝", "TERMKIT"))
    out.append(box(3, 3, box_w, 4, "─│┌┐└┘", "light"))
    out.append(box(3, 4 + box_w, box_w, 4, "━┃┏┓┗┛", "heavy"))
    out.append(box(3, 5 + 2 * box_w, box_w, 4, "─│╭╮╰╯", "round"))
    out.append(at(7, 3) + "┼─┬─┐ ╋━┳━┓ ╬═╦═╗ ├─┼─┤ ┣━╋━┫ ╠═╬═╣")
    # The sixteen colours as backgrounds, with their numbers.
    out.append(at(9, 3))
    for i in range(16):
        fg = 30 if i in (7, 15) or i >= 10 else 97
        code = 40 + i if i < 8 else 100 + i - 8
        out.append(f"{CSI}{code};{fg}m{i:^{max(2, inner // 16)}}")
    out.append(CSI + "0m")
    # A strip of the 256-colour cube and the grey ramp, as wide as the box allows.
    out.append(at(10, 3))
    step = max(1, 216 // inner + 1)
    for i in range(16, 232, step):
        out.append(f"{CSI}48;5;{i}m ")
    out.append(CSI + "0m" + at(11, 3))
    for i in range(232, 256):
        out.append(f"{CSI}48;5;{i}m" + " " * max(1, inner // 24))
    out.append(CSI + "0m")
    styles = [("1", "bold"), ("3", "italic"), ("4", "under"), ("4:3", "curly"), ("9", "struck"),
              ("7", "inverse"), ("2", "dim")]
    out.append(at(13, 3))
    for sgr, name in styles:
        out.append(f"{CSI}{sgr}m{name}{CSI}0m ")
    out.append(at(14, 3) + f"{CSI}38;2;255;105;0mtrue colour{CSI}0m "
               + f"{CSI}1;34mbold blue{CSI}0m {CSI}5mblinking{CSI}0m")
    out.append(at(15, 3) + "blocks ▀▄█▌▐░▒▓ ▖▗▘▙▚▛▜▝▞▟ ▁▂▃▄▅▆▇█")
    pl = f"{CSI}44;97m main {CSI}34;42m\ue0b0{CSI}30;42m ok {CSI}32;49m\ue0b0{CSI}0m"
    out.append(at(16, 3) + "powerline " + pl + " " + f"{CSI}35m\ue0b6{CSI}45;97m x {CSI}0;35m\ue0b4{CSI}0m")
    out.append(at(17, 3) + "wide 漢字 😀 🚀  marks é ñ̃")
    out.append(at(19, 3) + "press a key to leave")
    return "".join(out)


def main():
    seconds = float(sys.argv[1]) if len(sys.argv) > 1 else None
    size = os.get_terminal_size()
    sys.stdout.write(screen(size.columns, size.lines))
    sys.stdout.flush()
    fd = sys.stdin.fileno()
    saved = termios.tcgetattr(fd) if os.isatty(fd) else None
    try:
        if saved:
            tty.setcbreak(fd)
        deadline = None if seconds is None else time.monotonic() + seconds
        while True:
            timeout = None if deadline is None else max(0.0, deadline - time.monotonic())
            ready, _, _ = select.select([fd], [], [], timeout)
            if ready:
                os.read(fd, 64)
                break
            if deadline is not None and time.monotonic() >= deadline:
                break
    finally:
        if saved:
            termios.tcsetattr(fd, termios.TCSADRAIN, saved)
        sys.stdout.write(CSI + "0m" + CSI + "?25h" + CSI + "?1049l")
        sys.stdout.flush()


if __name__ == "__main__":
    main()
