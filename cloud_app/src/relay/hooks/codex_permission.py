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
"""

import os
import sys

sys.dont_write_bytecode = True
sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))

import permission_hook  # noqa: E402


def build_interrupt(event, wait_seconds):
    """The approval interrupt for one approval request; None if the event names no tool."""
    tool = event.get("tool_name")
    if not isinstance(tool, str) or not tool:
        return None
    tool_input = event.get("tool_input") if isinstance(event.get("tool_input"), dict) else {}
    cwd = event.get("cwd") if isinstance(event.get("cwd"), str) else ""
    session = event.get("session_id") if isinstance(event.get("session_id"), str) else ""
    folder = os.path.basename(cwd.rstrip("/")) or cwd
    about = permission_hook.summary(tool_input)
    interrupt = {
        "run_id": session or "codex",
        "run_name": f"codex · {folder}" if folder else "codex",
        "kind": "approval",
        "prompt": f"Allow {tool}: {about}?" if about else f"Allow {tool}?",
        "options": list(permission_hook.OPTIONS),
        "detail": permission_hook.pretty(tool_input),
        "action_toolkit": "codex",
        "action_slug": tool,
        "target": cwd,
        "requester": "Codex",
        "reason": "Codex asks approval before it runs this command."
        if tool != "NetworkAccess" else "Codex asks approval before it reaches the network.",
        "expires_at": permission_hook.iso_in(wait_seconds),
        "timeout_behavior": "Codex shows its own approval prompt in the terminal.",
    }
    description = tool_input.get("description")
    if isinstance(description, str) and description.strip():
        interrupt["proposed_action"] = description.strip()
    return interrupt


if __name__ == "__main__":
    sys.exit(permission_hook.main(build_interrupt))
