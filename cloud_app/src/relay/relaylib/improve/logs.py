"""Readers of the agents' conversation logs: the person's own messages, and nothing else.

Claude Code writes one JSON object per line to `~/.claude/projects/<folder>/<session>.jsonl`;
the person's messages are lines of type "user" whose content is their text (a string, or text
blocks). Lines of type "user" also carry tool results, meta lines (command caveats) and the
prompts of sub-agents (`isSidechain`), and the person's text can be a system reminder or the
output of a local command wrapped in tags: none of those is what the person said.

Codex writes `~/.codex/sessions/YYYY/MM/DD/rollout-<time>-<id>.jsonl`; the person's messages are
`response_item` messages of role "user" (older versions also repeat each as an `event_msg` of
type "user_message"). Codex puts its environment and the project's instructions into user
messages too, each wrapped in a tag or under an "# AGENTS.md instructions" heading.

Reading is by bytes from where the last read stopped. Only whole lines are read (a line still
being written is left for the next read), and a line is parsed only when a cheap substring
test says it may hold the person's message: the agent's own lines, which are most of a log,
are never parsed.
"""

import hashlib
import json
import os
import re
from stat import S_ISREG

from .. import clock
from .detect import Turn

CLAUDE = "claude"
CODEX = "codex"
TERMINAL = "terminal"
# How much of a grown log one read takes at most; the rest waits for the next scan.
READ_LIMIT_BYTES = 256 * 1024 * 1024
# How many bytes before the place a read stopped are remembered (as a digest) to tell a grown
# log from another text in its place: enough to hold the last whole lines, which name the
# session and carry timestamps, so two different conversations never share them.
TAIL_BYTES = 4096
TAIL_DIGEST_BYTES = 16

_CLAUDE_MARK = b'"type":"user"'
_CLAUDE_SKIP = (b'"type":"tool_result"', b'"isMeta":true', b'"isSidechain":true', b'"isCompactSummary":true')
_CODEX_MARKS = (b'"role":"user"', b'"type":"user_message"')
_UUID_TAIL = re.compile(r"([0-9a-f]{8}-[0-9a-f]{4}-[0-9a-f]{4}-[0-9a-f]{4}-[0-9a-f]{12})$")
# What an agent puts among the person's messages: tagged context, caveats, reminders.
_NOT_THE_PERSON = ("<", "# AGENTS.md instructions", "Caveat:", "[Request interrupted")


def session_of(path, agent):
    stem = os.path.basename(path)[:-len(".jsonl")] if path.endswith(".jsonl") else os.path.basename(path)
    if agent == CODEX:
        found = _UUID_TAIL.search(stem)
        return found.group(1) if found else stem[len("rollout-"):] if stem.startswith("rollout-") else stem
    return stem


def _persons_text(text):
    if not isinstance(text, str):
        return None
    stripped = text.strip()
    if not stripped or stripped.startswith(_NOT_THE_PERSON):
        return None
    return stripped


def _observed(value, fallback):
    seconds = clock.parse_iso(value) if isinstance(value, str) else None
    return float(int(seconds)) if seconds is not None else fallback


def _claude_text(record):
    if record.get("type") != "user" or record.get("isMeta") or record.get("isSidechain"):
        return None
    message = record.get("message")
    if not isinstance(message, dict) or message.get("role") != "user":
        return None
    content = message.get("content")
    if isinstance(content, str):
        return _persons_text(content)
    if isinstance(content, list):
        parts = []
        for block in content:
            if not isinstance(block, dict):
                continue
            if block.get("type") == "tool_result":
                return None
            if block.get("type") == "text":
                text = _persons_text(block.get("text"))
                if text:
                    parts.append(text)
        return "\n".join(parts) or None
    return None


def _codex_text(record):
    payload = record.get("payload")
    if not isinstance(payload, dict):
        return None
    if record.get("type") == "response_item" and payload.get("type") == "message" and payload.get("role") == "user":
        parts = [block.get("text") for block in payload.get("content") or []
                 if isinstance(block, dict) and block.get("type") in ("input_text", "text")]
        return _persons_text("\n".join(part for part in parts if isinstance(part, str)))
    if record.get("type") == "event_msg" and payload.get("type") == "user_message":
        return _persons_text(payload.get("message"))
    return None


def _candidate_lines(data, marks, skips):
    """The whole lines of `data` holding one of `marks` and none of `skips`, found by searching
    the bytes rather than splitting them: most lines never become objects."""
    found = []
    for mark in marks:
        start = 0
        while True:
            at = data.find(mark, start)
            if at < 0:
                break
            begin = data.rfind(b"\n", 0, at) + 1
            end = data.find(b"\n", at)
            end = len(data) if end < 0 else end
            found.append((begin, end))
            start = end + 1
    if len(marks) > 1:
        found = sorted(set(found))
    lines = []
    for begin, end in found:
        line = data[begin:end]
        if not any(skip in line for skip in skips):
            lines.append(line)
    return lines


def read_log(path, agent, offset, state, limit=READ_LIMIT_BYTES):
    """The person's messages in `path` after byte `offset`. Returns (turns, new offset, state);
    `state` carries the turn count, the last message taken and a digest of the bytes just before
    the offset, across reads of a growing file. When those bytes are not the ones read last time
    (the file was replaced or rewritten, even at the same size and time), the file is another
    text and is read from its start; the state then says "restarted"."""
    with open(path, "rb") as handle:
        stat = os.fstat(handle.fileno())
        before = _bytes_before(handle, offset, stat.st_size)
        restarted = offset > 0 and (before is None or state.get("tail", _digest(before)) != _digest(before))
        if restarted:
            offset, state, before = 0, {}, b""
        turns_so_far = int(state.get("turns", 0))
        last = state.get("last")
        handle.seek(offset)
        # Asked for no more than the file holds: a read of the limit itself allocates the whole
        # limit first, which costs more than reading a small log. What is written after the
        # look at the size is read at the next scan.
        data = handle.read(min(limit, max(0, stat.st_size - offset)))
        stopped_at_limit = len(data) >= limit
        end = data.rfind(b"\n") + 1
        if end == 0:
            if stopped_at_limit:
                # One line longer than the limit is no one's message: step over it.
                after = _after_next_newline(handle, offset + len(data))
                state = dict(state, more=True, tail=_digest(_bytes_before(handle, after, after) or b""))
                return [], after, _noting(state, restarted)
            return [], offset, _noting(state, restarted)
    data = data[:end]
    turns, turns_so_far, last = _turns_in(data, agent, session_of(path, agent), turns_so_far, last, stat.st_mtime)
    tail = data[-TAIL_BYTES:] if end >= TAIL_BYTES else (before + data)[-TAIL_BYTES:]
    state = {"turns": turns_so_far, "last": last, "tail": _digest(tail)}
    if stopped_at_limit:
        # Stopped at the limit, not at the end: the caller reads on at its next scan.
        state["more"] = True
    return turns, offset + end, _noting(state, restarted)


def _turns_in(data, agent, session, turns_so_far, last, mtime):
    """The person's messages in whole lines `data`, numbered on from `turns_so_far`; `last` is
    the last message taken before. Returns (turns, turns so far, last)."""
    if agent == CLAUDE:
        lines, read = _candidate_lines(data, (_CLAUDE_MARK,), _CLAUDE_SKIP), _claude_text
    else:
        lines, read = _candidate_lines(data, _CODEX_MARKS, ()), _codex_text
    turns = []
    for line in lines:
        try:
            record = json.loads(line)
        except ValueError:
            continue
        if not isinstance(record, dict):
            continue
        text = read(record)
        if text is None:
            continue
        # Older Codex logs hold each message twice, as an item and as an event, one after the other.
        if agent == CODEX and text == last:
            continue
        last = text
        turns_so_far += 1
        turns.append(Turn(session, turns_so_far, agent, text, _observed(record.get("timestamp"), mtime)))
    return turns, turns_so_far, last


def _noting(state, restarted):
    return dict(state, restarted=True) if restarted else state


def _digest(data):
    return hashlib.blake2b(data, digest_size=TAIL_DIGEST_BYTES).hexdigest()


def _bytes_before(handle, offset, size):
    """The up to TAIL_BYTES bytes before `offset`, or None when the file ends before it."""
    if offset > size:
        return None
    start = max(0, offset - TAIL_BYTES)
    handle.seek(start)
    data = handle.read(offset - start)
    return data if len(data) == offset - start else None


def _after_next_newline(handle, offset, step=1024 * 1024):
    """The offset just past the next newline at or after `offset` (the file's end when none)."""
    handle.seek(offset)
    while True:
        chunk = handle.read(step)
        if not chunk:
            return offset
        at = chunk.find(b"\n")
        if at >= 0:
            return offset + at + 1
        offset += len(chunk)


def is_log_name(name, agent):
    """Whether a file named `name` in `agent`'s folders is one of its conversation logs."""
    return name.endswith(".jsonl") and (agent != CODEX or name.startswith("rollout-"))


def find_logs(claude_dir, codex_dir, on_folder=None):
    """Every conversation log under the two folders: (path, agent, size, mtime), by path.
    `on_folder(folder, agent)` is called for each folder before it is listed."""
    found = []
    for root, agent in ((claude_dir, CLAUDE), (codex_dir, CODEX)):
        if root and os.path.isdir(root):
            _walk(root, agent, found, on_folder)
    found.sort()
    return found


def walk_folder(folder, agent, on_folder=None):
    """The conversation logs under one folder, as `find_logs` gives them."""
    found = []
    _walk(folder, agent, found, on_folder)
    found.sort()
    return found


def _walk(folder, agent, found, on_folder):
    # scandir rather than walk and stat: one system call per entry, which a walk over thousands
    # of conversations spends most of its time on.
    if on_folder is not None:
        on_folder(folder, agent)
    try:
        entries = list(os.scandir(folder))
    except OSError:
        return
    for entry in entries:
        try:
            if entry.is_dir(follow_symlinks=False):
                _walk(entry.path, agent, found, on_folder)
                continue
            if not is_log_name(entry.name, agent):
                continue
            stat = entry.stat()
        except OSError:
            continue
        # Only files: opening a pipe of that name would wait for a writer.
        if S_ISREG(stat.st_mode):
            found.append((entry.path, agent, stat.st_size, stat.st_mtime))


_ESCAPE = re.compile(r"\x1b(?:\[[0-?]*[ -/]*[@-~]|\][^\x07\x1b]*(?:\x07|\x1b\\)|O.|[@-Z\\-_])")


def typed_lines(pending, data):
    """Lines typed into a terminal: `pending` (the unfinished line so far) and new input `data`.
    Returns (finished lines, the unfinished rest). Escape sequences (arrows, bracketed paste
    marks) are dropped, backspace takes a character back, Ctrl-U clears the line."""
    data = _ESCAPE.sub("", data)
    lines, current = [], list(pending)
    for char in data:
        if char in "\r\n":
            line = "".join(current).strip()
            if line:
                lines.append(line)
            current = []
        elif char in "\x7f\b":
            if current:
                current.pop()
        elif char == "\x15":
            current = []
        elif char == "\t" or char >= " ":
            current.append(char)
    return lines, "".join(current)
