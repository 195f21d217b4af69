"""What this machine says about the two agent CLIs: installed, signed in, used today.

`installed` is whether the command is on the relay's PATH. `authenticated` is
whether the CLI's own credential file is there (only the presence of keys is
looked at; no value is read out or logged). Today's tokens and messages come from
each CLI's local session logs, read incrementally and cached per file. An absent
tool, a missing folder or an unreadable log gives zeros, never an error.

Claude Code keeps one JSON line per message under <config>/projects/; a reply
that streams in parts repeats its usage on each line, so usage is counted once per
message id. Tokens are input, output and cache tokens together. Codex keeps
rollout files under <home>/sessions/YYYY/MM/DD/, with a "token_count" event per
turn and a "user_message" event per prompt.
"""

import datetime
import json
import logging
import os
import shutil
import threading

from . import clock

log = logging.getLogger("relay")

MAX_CONFIG_BYTES = 32 * 1024 * 1024
CLAUDE_TOKEN_FIELDS = ("input_tokens", "output_tokens", "cache_creation_input_tokens", "cache_read_input_tokens")


def _int(value):
    return value if type(value) is int and value > 0 else 0


def _read_json(path):
    try:
        if os.path.getsize(path) > MAX_CONFIG_BYTES:
            return None
        with open(path, encoding="utf-8") as handle:
            return json.load(handle)
    except (OSError, ValueError):
        return None


class FileTally:
    """Running totals of one log file for one day, with the read position reached."""

    def __init__(self, day):
        self.day = day
        self.offset = 0
        self.identity = None
        self.tokens = 0
        self.messages = 0
        self.seen = set()
        self.previous_total = None


class LogCounter:
    """Counts a family of JSON-lines logs for today, reading only what was appended since last time."""

    def __init__(self, count_line):
        self._count_line = count_line
        self._files = {}

    def totals(self, paths, day, day_start, day_end):
        tokens = messages = 0
        for path in paths:
            tally = self._tally(path, day)
            if tally is not None:
                self._advance(path, tally, day_start, day_end)
                tokens += tally.tokens
                messages += tally.messages
        self._files = {path: tally for path, tally in self._files.items() if tally.day == day}
        return tokens, messages

    def _tally(self, path, day):
        try:
            stat = os.stat(path)
        except OSError:
            return None
        identity = (stat.st_dev, stat.st_ino)
        tally = self._files.get(path)
        if tally is None or tally.day != day or tally.identity != identity or stat.st_size < tally.offset:
            tally = FileTally(day)
            tally.identity = identity
            self._files[path] = tally
        return tally

    def _advance(self, path, tally, day_start, day_end):
        try:
            with open(path, "rb") as handle:
                handle.seek(tally.offset)
                data = handle.read()
        except OSError:
            return
        end = data.rfind(b"\n")
        if end < 0:
            return
        for raw in data[:end].split(b"\n"):
            try:
                entry = json.loads(raw)
            except ValueError:
                continue
            if isinstance(entry, dict):
                self._count_line(entry, tally, day_start, day_end)
        tally.offset += end + 1


def _today(seconds, day_start, day_end):
    return seconds is not None and day_start <= seconds < day_end


def count_claude_line(entry, tally, day_start, day_end):
    if not _today(clock.parse_iso(entry.get("timestamp")), day_start, day_end):
        return
    message = entry.get("message")
    if not isinstance(message, dict):
        return
    kind = entry.get("type")
    if kind == "assistant" and isinstance(message.get("usage"), dict):
        key = (message.get("id"), entry.get("requestId"))
        if key != (None, None):
            if key in tally.seen:
                return
            tally.seen.add(key)
        tally.tokens += sum(_int(message["usage"].get(field)) for field in CLAUDE_TOKEN_FIELDS)
    elif kind == "user" and not entry.get("isSidechain") and not entry.get("isMeta") and _is_prompt(message):
        tally.messages += 1


def _is_prompt(message):
    """A person's prompt, not a tool result sent back on the user's side of the conversation."""
    if message.get("role") != "user":
        return False
    content = message.get("content")
    if isinstance(content, str):
        return bool(content.strip())
    if isinstance(content, list):
        return any(isinstance(part, dict) and part.get("type") == "text" for part in content)
    return False


def count_codex_line(entry, tally, day_start, day_end):
    payload = entry.get("payload")
    if entry.get("type") != "event_msg" or not isinstance(payload, dict):
        return
    today = _today(clock.parse_iso(entry.get("timestamp")), day_start, day_end)
    if payload.get("type") == "user_message":
        tally.messages += 1 if today else 0
    elif payload.get("type") == "token_count" and isinstance(payload.get("info"), dict):
        info = payload["info"]
        total = info.get("total_token_usage")
        total = _int(total.get("total_tokens")) if isinstance(total, dict) else None
        last = info.get("last_token_usage")
        if isinstance(last, dict):
            used = _int(last.get("total_tokens"))
        elif total is not None and tally.previous_total is not None:
            used = max(0, total - tally.previous_total)
        else:
            used = total or 0
        if total is not None:
            tally.previous_total = total
        tally.tokens += used if today else 0


def _jsonl_files(root, modified_since, prefix=""):
    found = []
    for folder, _, names in os.walk(root):
        for name in names:
            if name.endswith(".jsonl") and name.startswith(prefix):
                path = os.path.join(folder, name)
                try:
                    if os.path.getmtime(path) >= modified_since:
                        found.append(path)
                except OSError:
                    continue
    return sorted(found)


class CliInspector:
    """The status of this machine's CLIs: the same for every signed-in user, since it is read
    from the relay's own environment and home folder, never stored."""

    def __init__(self, app=None, environ=None):
        self._environ = environ
        self._lock = threading.Lock()
        self._claude_logs = LogCounter(count_claude_line)
        self._codex_logs = LogCounter(count_codex_line)

    def register(self, router):
        router.add("GET", "v1/cli/status", self.handle)

    def handle(self, request):
        return self.status()

    def status(self):
        env = dict(os.environ if self._environ is None else self._environ)
        home = env.get("HOME") or os.path.expanduser("~")
        day = datetime.date.fromtimestamp(clock.now())
        day_start = datetime.datetime.combine(day, datetime.time()).timestamp()
        day_end = datetime.datetime.combine(day + datetime.timedelta(days=1), datetime.time()).timestamp()
        with self._lock:
            return {"claude": self._claude(env, home, day, day_start, day_end),
                    "codex": self._codex(env, home, day, day_start, day_end)}

    def _claude(self, env, home, day, day_start, day_end):
        config = env.get("CLAUDE_CONFIG_DIR") or os.path.join(home, ".claude")
        info = _info(shutil.which("claude", path=env.get("PATH", "")), _claude_signed_in(config, env, home))
        try:
            paths = _jsonl_files(os.path.join(config, "projects"), day_start)
            info["tokens_today"], info["messages_today"] = self._claude_logs.totals(paths, day, day_start, day_end)
        except Exception:
            log.warning("could not read the Claude Code session logs", exc_info=True)
        return info

    def _codex(self, env, home, day, day_start, day_end):
        codex_home = env.get("CODEX_HOME") or os.path.join(home, ".codex")
        info = _info(shutil.which("codex", path=env.get("PATH", "")), _codex_signed_in(codex_home))
        try:
            paths = _jsonl_files(os.path.join(codex_home, "sessions"), day_start, prefix="rollout-")
            info["tokens_today"], info["messages_today"] = self._codex_logs.totals(paths, day, day_start, day_end)
        except Exception:
            log.warning("could not read the Codex session logs", exc_info=True)
        return info


def _info(executable, authenticated):
    return {"installed": executable is not None, "authenticated": bool(authenticated),
            "tokens_today": 0, "messages_today": 0}


def _claude_signed_in(config, env, home):
    credentials = _read_json(os.path.join(config, ".credentials.json"))
    if isinstance(credentials, dict) and any(credentials.values()):
        return True
    global_config = os.path.join(config, ".claude.json") if env.get("CLAUDE_CONFIG_DIR") else os.path.join(home, ".claude.json")
    settings = _read_json(global_config)
    if not isinstance(settings, dict):
        return False
    return bool(settings.get("oauthAccount")) or bool(settings.get("primaryApiKey"))


def _codex_signed_in(codex_home):
    auth = _read_json(os.path.join(codex_home, "auth.json"))
    if not isinstance(auth, dict):
        return False
    tokens = auth.get("tokens")
    return (isinstance(tokens, dict) and bool(tokens.get("access_token") or tokens.get("refresh_token"))) \
        or bool(auth.get("OPENAI_API_KEY"))
