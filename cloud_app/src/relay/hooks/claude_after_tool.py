#!/usr/bin/env python3
"""Claude Code after-tool hook: a prompt answered in the terminal leaves the Quillmere queue.

Claude Code does not stop its permission hook when the person answers its own
terminal prompt first: the tool runs, and the hook would go on waiting with its
interrupt in the queue. This hook runs on PostToolUse and PostToolUseFailure
(that tool call went ahead) and on Stop and UserPromptSubmit (the turn is over,
nothing of it waits any more); it finds the hooks still waiting for that call, or
for anything of that session, by the markers they left, and sends each SIGUSR1,
on which it withdraws its interrupt as answered elsewhere. It talks to no relay
and prints nothing.
"""

import os
import sys

# Compiled modules go to the user's cache, never beside the sources: compiling the shared module
# anew on every call would cost a hook more than the rest of its start-up.
sys.pycache_prefix = os.path.join(os.environ.get("XDG_CACHE_HOME") or os.path.expanduser("~/.cache"),
                                  "quillmere-hooks")
sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))

import permission_hook  # noqa: E402

CALL_EVENTS = ("PostToolUse", "PostToolUseFailure")
SESSION_EVENTS = ("Stop", "UserPromptSubmit", "SessionEnd")


def waiting_for(event, environ=os.environ):
    """The process ids of the hooks that wait for what this event says is over."""
    keys = permission_hook.call_keys(event)
    if keys is None:
        return []
    name = event.get("hook_event_name")
    if name in CALL_EVENTS:
        return permission_hook.waiting_hooks(keys[0], keys[1], environ)
    if name in SESSION_EVENTS:
        return permission_hook.waiting_hooks(keys[0], None, environ)
    return []


def main(stdin=None, environ=None):
    environ = os.environ if environ is None else environ
    try:
        event = permission_hook.loads((stdin or sys.stdin).read())
        if not isinstance(event, dict):
            return 0
        # Only processes that still run a hook are listed (waiting_hooks looks at each).
        for pid in waiting_for(event, environ):
            os.kill(pid, permission_hook.ANSWERED_ELSEWHERE_SIGNAL)
    except Exception:
        pass
    return 0


if __name__ == "__main__":
    sys.exit(main())
