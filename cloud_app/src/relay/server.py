#!/usr/bin/env python3
"""Quillmere reference relay.

    python3 server.py                         serve (settings from MERE_RELAY_* variables)
    python3 server.py totp-enable EMAIL       turn on two-factor sign-in, print secret and recovery codes
    python3 server.py totp-disable EMAIL      turn it off again
"""

import os
import sys

sys.dont_write_bytecode = True
sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))

from relaylib import admin, app  # noqa: E402


def main(argv):
    if len(argv) > 1 and argv[1] in admin.COMMANDS:
        return admin.run(argv[1:])
    if len(argv) > 1:
        print(__doc__.strip(), file=sys.stderr)
        return 2
    return app.serve()


if __name__ == "__main__":
    sys.exit(main(sys.argv))
