#!/usr/bin/env python3
"""Claude Code PermissionRequest hook: the Quillmere queue answers Claude's permission prompts.

Claude Code runs this hook only when it would otherwise prompt the person. The
event (JSON on standard input) carries `session_id`, `cwd`, `tool_name` and
`tool_input`; the answer (JSON on standard output) is
{"hookSpecificOutput": {"hookEventName": "PermissionRequest",
 "decision": {"behavior": "allow"}}} or the same with "deny" and a "message".
No output leaves the decision to Claude Code's own prompt.

Installed by `install.py` as `python3 -I -S claude_permission.py --relay URL --wait SECONDS`.
Claude Code does not stop this hook when the person answers its own prompt first; the
after-tool hook (`claude_after_tool.py`) then tells it to withdraw its interrupt.
"""

import os
import sys

# Compiled modules go to the user's cache, never beside the sources: compiling the shared module
# anew on every call would cost a hook more than the rest of its start-up.
sys.pycache_prefix = os.path.join(os.environ.get("XDG_CACHE_HOME") or os.path.expanduser("~/.cache"),
                                  "quillmere-hooks")
sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))

import permission_hook  # noqa: E402


AGENT = ("claude-code", "claude code", "Claude Code")


def build_interrupt(event, wait_seconds):
    """The approval interrupt for one permission request; None if the event names no tool."""
    built = permission_hook.approval_interrupt(
        event, wait_seconds, AGENT,
        reason=lambda tool: f"Claude Code asks permission before it uses {tool}.",
        timeout_behavior="Claude Code shows its own permission prompt in the terminal.")
    if built is None:
        return None
    interrupt, tool_input = built
    path = tool_input.get("file_path") or tool_input.get("notebook_path")
    if isinstance(path, str) and path:
        interrupt["affected_resources"] = [path]
    return interrupt


if __name__ == "__main__":
    sys.exit(permission_hook.main(build_interrupt))
