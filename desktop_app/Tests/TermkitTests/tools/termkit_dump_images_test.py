#!/usr/bin/env python3
"""Runs termkit-dump --images on recorded kitty and sixel streams, and on Unicode placeholder
cells, and checks what it prints and writes: one line per placement with its cells, and a
PNG of each picture's size."""
import base64
import os
import re
import struct
import subprocess
import sys
import tempfile

dump, data = sys.argv[1], sys.argv[2]
with open(os.path.join(data, "chafa-kitty-16x12.kitty"), "rb") as f:
    kitty = f.read()
with open(os.path.join(data, "img2sixel-16x12.six"), "rb") as f:
    sixel = f.read()
with tempfile.TemporaryDirectory() as out:
    stream = os.path.join(out, "stream.bin")
    with open(stream, "wb") as f:
        # chafa ends its picture with a line feed: the sixel starts two rows below it.
        f.write(b"hello\r\n" + kitty + b"\r\n" + sixel)
    images = os.path.join(out, "images")
    os.mkdir(images)
    result = subprocess.run([dump, "--cols", "40", "--rows", "10", "--images", images, stream],
                            capture_output=True, check=True, timeout=60)
    lines = [l for l in result.stdout.decode().splitlines() if l.startswith("image ")]
    expected = [
        r"image id=1 placement=1 source=kitty row=1 col=0 cols=8 rows=3 file=kitty-1.png",
        r"image id=1 placement=0 source=sixel row=5 col=0 cols=2 rows=1 file=sixel-1.png",
    ]
    if lines != expected:
        sys.exit(f"unexpected lines: {lines}")
    for name, size in (("kitty-1.png", (64, 24)), ("sixel-1.png", (16, 12))):
        with open(os.path.join(images, name), "rb") as f:
            header = f.read(24)
        if header[:8] != b"\x89PNG\r\n\x1a\n" or struct.unpack(">II", header[16:24]) != size:
            sys.exit(f"{name}: not a {size} PNG")

# Unicode placeholders: a 2x2 RGB picture stored as image 7, a virtual placement of four by
# two cells, and the cells printed at row 3, column 5 with the id as a 256-colour foreground.
diacritics = ["\u0305", "\u030d", "\u030e", "\u0310"]  # the protocol's values 0 to 3
placeholder = "\U0010eeee"
stream = b"\x1b_Ga=t,f=24,s=2,v=2,i=7,q=2;" + base64.b64encode(bytes(range(12))) + b"\x1b\\"
stream += b"\x1b_Ga=p,U=1,i=7,c=4,r=2,q=2\x1b\\"
for r in range(2):
    cells = "".join(placeholder + diacritics[r] + diacritics[c] for c in range(4))
    stream += f"\x1b[{r + 3};5H\x1b[38;5;7m{cells}\x1b[m".encode()
with tempfile.TemporaryDirectory() as out:
    path = os.path.join(out, "placeholders.bin")
    with open(path, "wb") as f:
        f.write(stream)
    result = subprocess.run([dump, "--cols", "20", "--rows", "6", "--images", out, path],
                            capture_output=True, check=True, timeout=60)
    lines = [l for l in result.stdout.decode().splitlines() if l.startswith("image ")]
    if lines != ["image id=7 placement=1 source=placeholder row=2 col=4 cols=4 rows=2 file=kitty-7.png"]:
        sys.exit(f"unexpected placeholder lines: {lines}")
    if not os.path.exists(os.path.join(out, "kitty-7.png")):
        sys.exit("kitty-7.png was not written")
print("termkit-dump --images: ok")
