#!/usr/bin/env python3
"""Claude Code PermissionRequest hook: the Quillmere queue answers Claude's permission prompts.

Claude Code runs this hook only when it would otherwise prompt the person. The
event (JSON on standard input) carries `session_id`, `cwd`, `tool_name` and
`tool_input`; the answer (JSON on standard output) is
{"hookSpecificOutput": {"hookEventName": "PermissionRequest",
 "decision": {"behavior": "allow"}}} or the same with "deny" and a "message".
No output leaves the decision to Claude Code's own prompt.
"""

import os
import sys

sys.dont_write_bytecode = True
sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))

import permission_hook  # noqa: E402


def build_interrupt(event, wait_seconds):
    """The approval interrupt for one permission request; None if the event names no tool."""
    tool = event.get("tool_name")
    if not isinstance(tool, str) or not tool:
        return None
    tool_input = event.get("tool_input") if isinstance(event.get("tool_input"), dict) else {}
    cwd = event.get("cwd") if isinstance(event.get("cwd"), str) else ""
    session = event.get("session_id") if isinstance(event.get("session_id"), str) else ""
    folder = os.path.basename(cwd.rstrip("/")) or cwd
    about = permission_hook.summary(tool_input)
    interrupt = {
        "run_id": session or "claude-code",
        "run_name": f"claude code · {folder}" if folder else "claude code",
        "kind": "approval",
        "prompt": f"Allow {tool}: {about}?" if about else f"Allow {tool}?",
        "options": list(permission_hook.OPTIONS),
        "detail": permission_hook.pretty(tool_input),
        "action_toolkit": "claude-code",
        "action_slug": tool,
        "target": cwd,
        "requester": "Claude Code",
        "reason": f"Claude Code asks permission before it uses {tool}.",
        "expires_at": permission_hook.iso_in(wait_seconds),
        "timeout_behavior": "Claude Code shows its own permission prompt in the terminal.",
    }
    description = tool_input.get("description")
    if isinstance(description, str) and description.strip():
        interrupt["proposed_action"] = description.strip()
    path = tool_input.get("file_path") or tool_input.get("notebook_path")
    if isinstance(path, str) and path:
        interrupt["affected_resources"] = [path]
    return interrupt


if __name__ == "__main__":
    sys.exit(permission_hook.main(build_interrupt))
