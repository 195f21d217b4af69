#!/usr/bin/env python3
"""Quillmere reference relay.

    python3 server.py                         serve (settings from MERE_RELAY_* variables)
    python3 server.py totp-enable EMAIL       turn on two-factor sign-in, print secret and recovery codes
    python3 server.py totp-disable EMAIL      turn it off again
"""

import os
import sys

# Nothing is written beside the sources (they may be read-only, or a checkout kept clean);
# the relay's own compiled modules go to the user's cache once aiohttp is in (below).
sys.dont_write_bytecode = True
sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))

# The relay's HTTP layer is aiohttp from the system's packages (python3-aiohttp). An
# interpreter found first on PATH (a version manager's, say) may not see them; then the
# relay starts again under the system's own interpreter, once.
SYSTEM_INTERPRETERS = ("/usr/bin/python3",)
REEXEC_MARKER = "MERE_RELAY_SYSTEM_PYTHON"


def ensure_aiohttp(argv):
    try:
        import aiohttp  # noqa: F401
        return
    except ImportError:
        pass
    here = os.path.realpath(sys.executable)
    if not os.environ.get(REEXEC_MARKER):
        for candidate in SYSTEM_INTERPRETERS:
            if os.access(candidate, os.X_OK) and os.path.realpath(candidate) != here:
                os.environ[REEXEC_MARKER] = "1"
                os.execv(candidate, [candidate, os.path.abspath(__file__)] + argv[1:])
    print("relay: the Python package aiohttp is missing; install it with: apt-get install python3-aiohttp",
          file=sys.stderr)
    sys.exit(1)


def use_bytecode_cache():
    """Keeps the relay's compiled modules in the user's cache: compiling them all again at
    every start costs the relay a third of its start-up. Set only after aiohttp and the
    standard library it needs are loaded, so those still come from the system's own cache."""
    cache = os.environ.get("XDG_CACHE_HOME") or os.path.expanduser("~/.cache")
    sys.pycache_prefix = os.path.join(cache, "quillmere-relay")
    sys.dont_write_bytecode = False


def main(argv):
    ensure_aiohttp(argv)
    use_bytecode_cache()
    from relaylib import admin, app

    if len(argv) > 1 and argv[1] in admin.COMMANDS:
        return admin.run(argv[1:])
    if len(argv) > 1:
        print(__doc__.strip(), file=sys.stderr)
        return 2
    return app.serve()


if __name__ == "__main__":
    sys.exit(main(sys.argv))
