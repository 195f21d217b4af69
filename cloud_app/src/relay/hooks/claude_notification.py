#!/usr/bin/env python3
"""Claude Code notification hook: a prompt only the terminal can answer is announced in the queue.

Claude Code calls its permission hook in some modes only. In auto mode (its
interactive default) it never does, even when it shows its own approval prompt,
and some questions (auto mode asking how to go on without its safety check) come
as a dialog of their own. It does raise a Notification for each, a few seconds
after the prompt appears (`notification_type` "permission_prompt" or
"agent_needs_input"). This hook then raises a `question` interrupt saying the
agent waits in its terminal, naming the tool it asked about (read from the
session's transcript), and offering to open the drawer or its terminal.

Claude Code waits for a notification hook to end, so the hook hands the interrupt
to a child of its own and returns at once. The child holds the interrupt as the
permission hook does: it leaves the queue as answered elsewhere when the agent
goes on (the after-tool hook signals it, or the session's transcript grows), is
withdrawn when Claude Code goes away, and expires after the wait. When a permission hook already waits for this
session, its approval is in the queue and no notice is raised.

Installed by `install.py` as `python3 -I -S claude_notification.py --relay URL --wait SECONDS`.
"""

import os
import sys

# Compiled modules go to the user's cache, never beside the sources: compiling the shared module
# anew on every call would cost a hook more than the rest of its start-up.
sys.pycache_prefix = os.path.join(os.environ.get("XDG_CACHE_HOME") or os.path.expanduser("~/.cache"),
                                  "quillmere-hooks")
sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))

import permission_hook  # noqa: E402

NOTICE_TYPES = ("permission_prompt", "agent_needs_input")
# The notice looks this often whether the agent went on (its transcript grew): a prompt
# answered in the terminal with no tool run after it (a refusal, a turn stopped) runs no
# after-tool hook.
NOTICE_POLL_SECONDS = 1.0
# The app opens its drawer when the first is chosen (it matches these words).
OPTIONS = ["Open the drawer", "Open its terminal"]
# Only the end of a transcript is read: the call waiting for an answer is the last one.
TRANSCRIPT_TAIL_BYTES = 256 * 1024


def pending_tool_call(transcript_path):
    """(tool name, tool input) of the last tool call in the transcript without a result, or ("", {})."""
    try:
        with open(transcript_path, "rb") as handle:
            handle.seek(0, os.SEEK_END)
            size = handle.tell()
            handle.seek(max(0, size - TRANSCRIPT_TAIL_BYTES))
            tail = handle.read().decode("utf-8", "replace")
    except (OSError, TypeError):
        return "", {}
    calls, answered = [], set()
    for line in tail.splitlines():
        try:
            entry = permission_hook.loads(line)
        except ValueError:
            continue
        message = entry.get("message") if isinstance(entry, dict) else None
        content = message.get("content") if isinstance(message, dict) else None
        if not isinstance(content, list):
            continue
        for block in content:
            if not isinstance(block, dict):
                continue
            if block.get("type") == "tool_use" and isinstance(block.get("name"), str):
                calls.append(block)
            elif block.get("type") == "tool_result":
                answered.add(block.get("tool_use_id"))
    for call in reversed(calls):
        if call.get("id") not in answered:
            tool_input = call.get("input") if isinstance(call.get("input"), dict) else {}
            return call["name"], tool_input
    return "", {}


def notice(event, wait_seconds, tool, tool_input):
    """The question interrupt announcing that Claude Code waits in its terminal."""
    _, _, cwd, session, folder = permission_hook.event_strings(event)
    about = permission_hook.summary(tool_input)
    if tool:
        prompt = f"Claude Code waits in its terminal: it asks to use {tool}" + (f": {about}" if about else "")
    else:
        prompt = "Claude Code waits in its terminal for your answer"
    message = event.get("message") if isinstance(event.get("message"), str) else ""
    interrupt = {
        "run_id": session or "claude-code",
        "run_name": f"claude code · {folder}" if folder else "claude code",
        "kind": "question",
        "prompt": prompt,
        "options": list(OPTIONS),
        "target": cwd,
        "requester": "Claude Code",
        "reason": (f"{message}. " if message else "")
        + "Claude Code asks in its own terminal here, where the queue cannot answer for it.",
        "expires_at": permission_hook.iso_in(wait_seconds),
        "timeout_behavior": "Claude Code keeps waiting in its terminal; this leaves the queue when the agent goes on.",
    }
    if tool:
        interrupt["detail"] = permission_hook.pretty(tool_input)
        path = tool_input.get("file_path") or tool_input.get("notebook_path")
        if isinstance(path, str) and path:
            interrupt["affected_resources"] = [path]
    return interrupt


def transcript_grew(path):
    """A callable telling whether the transcript at `path` has grown since this call."""
    def size():
        try:
            return os.stat(path).st_size
        except (OSError, TypeError, ValueError):
            return None
    start = size()
    return lambda: start is not None and size() != start


def hold_in_child(client_factory, interrupt, given, keys, cli_pid, went_on):
    """Forks a child that holds the interrupt; the parent returns at once."""
    if os.fork():
        return
    try:
        os.setsid()
        null = os.open(os.devnull, os.O_RDWR)
        for descriptor in (0, 1, 2):
            os.dup2(null, descriptor)
        client = client_factory()
        client.sign_in()
        try:
            permission_hook.hold(client, interrupt, given.wait, keys, cli_pid,
                                 poll_seconds=min(given.poll, NOTICE_POLL_SECONDS), went_on=went_on)
        finally:
            client.sign_out()
    except BaseException:
        pass
    os._exit(0)


def main(argv=None, stdin=None, environ=None):
    environ = os.environ if environ is None else environ
    given = permission_hook.Settings(sys.argv[1:] if argv is None else argv)
    try:
        event = permission_hook.read_event(stdin or sys.stdin, "Notification")
        if event is None or event.get("notification_type") not in NOTICE_TYPES:
            return 0
        _, _, _, session, _ = permission_hook.event_strings(event)
        if not session:
            return 0
        session_key = permission_hook.call_keys({"session_id": session})[0]
        if permission_hook.waiting_hooks(session_key, None, environ):
            return 0
        tool, tool_input = pending_tool_call(event.get("transcript_path"))
        keys = permission_hook.call_keys({"session_id": session, "tool_name": tool, "tool_input": tool_input})
        interrupt = notice(event, given.wait, tool, tool_input)
        cli_pid = permission_hook.cli_process()
        sys.stdout.flush()
        hold_in_child(lambda: permission_hook.RelayClient(given.relay, environ.get("MERE_RELAY_TOKEN")),
                      interrupt, given, keys, cli_pid, transcript_grew(event.get("transcript_path")))
    except Exception:
        pass
    return 0


if __name__ == "__main__":
    sys.exit(main())
