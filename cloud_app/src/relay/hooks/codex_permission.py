#!/usr/bin/env python3
"""Codex PermissionRequest hook: the Quillmere queue answers Codex's approval prompts.

Codex runs this hook on its approval path, before it asks the person. The event
(JSON on standard input) carries `session_id`, `turn_id`, `cwd`, `tool_name`
("Bash" for a shell command, "NetworkAccess" for a network approval) and
`tool_input` with `command` and, when Codex gave one, a `description` (the
request's justification). The answer has the same form as Claude Code's:
{"hookSpecificOutput": {"hookEventName": "PermissionRequest",
 "decision": {"behavior": "allow" | "deny", "message": ...}}}.
No output lets Codex go on to its own approval prompt.

While this hook waits, the Codex TUI shows only "Running hook", with no prompt of its
own. So when nobody watches the queue (the relay counts no open desktop stream), the
hook withdraws its interrupt at once and Codex asks in the terminal. Esc in Codex kills
a waiting hook outright; the relay then withdraws the interrupt nobody polls.
"""

import os
import sys

# Compiled modules go to the user's cache, never beside the sources: compiling the shared module
# anew on every call would cost a hook more than the rest of its start-up.
sys.pycache_prefix = os.path.join(os.environ.get("XDG_CACHE_HOME") or os.path.expanduser("~/.cache"),
                                  "quillmere-hooks")
sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))

import permission_hook  # noqa: E402


AGENT = ("codex", "codex", "Codex")


def reason(tool):
    if tool == "NetworkAccess":
        return "Codex asks approval before it reaches the network."
    return "Codex asks approval before it runs this command."


def build_interrupt(event, wait_seconds):
    """The approval interrupt for one approval request; None if the event names no tool."""
    built = permission_hook.approval_interrupt(
        event, wait_seconds, AGENT, reason=reason,
        timeout_behavior="Codex shows its own approval prompt in the terminal.")
    return None if built is None else built[0]


if __name__ == "__main__":
    sys.exit(permission_hook.main(build_interrupt, quit_unwatched=True))
