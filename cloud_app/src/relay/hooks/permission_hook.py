"""What both permission hooks share: raise an approval on the relay, wait, answer.

A hook runs when an agent CLI would otherwise ask the person at the terminal. It
raises an `approval` interrupt on the relay, waits for the person's verdict in
the Quillmere queue and prints the CLI's allow or deny answer. On a timeout, an
unreachable relay, a malformed input or any other failure it prints nothing and
exits 0: the CLI then shows its own prompt, so nothing is ever approved by
accident. Only a verdict of "approve" on this very interrupt prints an allow.

Environment: MERE_RELAY_URL (default http://127.0.0.1:8787/), MERE_RELAY_TOKEN
(otherwise a local session is asked for and given back afterwards) and
MERE_HOOK_WAIT_SECONDS (default 300).
"""

import datetime
import json
import os
import sys
import time
import urllib.error
import urllib.parse
import urllib.request

DEFAULT_RELAY_URL = "http://127.0.0.1:8787/"
# How long the person has to answer in the queue before the CLI's own prompt shows.
WAIT_SECONDS = 300.0
# The relay holds one request for at most this long; the hook asks again until its deadline.
POLL_SECONDS = 60.0
CONNECT_TIMEOUT_SECONDS = 5.0
DENIED_MESSAGE = "Denied from the Quillmere queue."
OPTIONS = ["Approve", "Reject"]
SUMMARY_KEYS = ("command", "file_path", "notebook_path", "path", "url", "pattern", "query", "prompt")
SUMMARY_LENGTH = 120


class RelayClient:
    def __init__(self, base_url, token=None):
        self.base_url = base_url if base_url.endswith("/") else base_url + "/"
        self.token = token
        self._owns_session = False

    def call(self, method, path, body=None, timeout=CONNECT_TIMEOUT_SECONDS, auth=True):
        data = None if body is None else json.dumps(body).encode("utf-8")
        request = urllib.request.Request(urllib.parse.urljoin(self.base_url, path), data=data, method=method)
        request.add_header("Content-Type", "application/json")
        if auth and self.token:
            request.add_header("Authorization", "Bearer " + self.token)
        with urllib.request.urlopen(request, timeout=timeout) as response:
            return json.loads(response.read() or b"null")

    def sign_in(self):
        """Uses the given token, or asks the loopback relay for a session of its own."""
        if self.token:
            return
        answer = self.call("POST", "v1/auth/local", {}, auth=False)
        self.token = answer["token"]
        self._owns_session = True

    def sign_out(self):
        if self._owns_session:
            try:
                self.call("POST", "v1/auth/logout")
            except Exception:
                pass


def iso_in(seconds):
    moment = datetime.datetime.fromtimestamp(int(time.time() + seconds), tz=datetime.timezone.utc)
    return moment.strftime("%Y-%m-%dT%H:%M:%SZ")


def summary(tool_input):
    """One short line naming what the tool would touch: its command, file, address or pattern."""
    if not isinstance(tool_input, dict):
        return ""
    for key in SUMMARY_KEYS:
        value = tool_input.get(key)
        if isinstance(value, str) and value.strip():
            line = value.strip().splitlines()[0]
            return line if len(line) <= SUMMARY_LENGTH else line[:SUMMARY_LENGTH - 1] + "…"
    return ""


def pretty(value):
    return json.dumps(value, indent=2, ensure_ascii=False)


def approval_interrupt(event, wait_seconds, agent, reason, timeout_behavior):
    """The approval interrupt both hooks raise for one request, before each adds its own.

    `agent` is how the CLI is named: its toolkit slug (also the run id without a
    session), the lower-case run name and the requester. Returns the interrupt and
    the request's tool input, or None when the event names no tool.
    """
    toolkit, run_name, requester = agent
    tool = event.get("tool_name")
    if not isinstance(tool, str) or not tool:
        return None
    tool_input = event.get("tool_input") if isinstance(event.get("tool_input"), dict) else {}
    cwd = event.get("cwd") if isinstance(event.get("cwd"), str) else ""
    session = event.get("session_id") if isinstance(event.get("session_id"), str) else ""
    folder = os.path.basename(cwd.rstrip("/")) or cwd
    about = summary(tool_input)
    interrupt = {
        "run_id": session or toolkit,
        "run_name": f"{run_name} · {folder}" if folder else run_name,
        "kind": "approval",
        "prompt": f"Allow {tool}: {about}?" if about else f"Allow {tool}?",
        "options": list(OPTIONS),
        "detail": pretty(tool_input),
        "action_toolkit": toolkit,
        "action_slug": tool,
        "target": cwd,
        "requester": requester,
        "reason": reason(tool),
        "expires_at": iso_in(wait_seconds),
        "timeout_behavior": timeout_behavior,
    }
    description = tool_input.get("description")
    if isinstance(description, str) and description.strip():
        interrupt["proposed_action"] = description.strip()
    return interrupt, tool_input


def wait_for_verdict(client, interrupt_id, wait_seconds):
    """The verdict once decided; None when the time is up or the interrupt expired."""
    deadline = time.monotonic() + wait_seconds
    while True:
        remaining = deadline - time.monotonic()
        if remaining <= 0:
            return None
        hold = min(remaining, POLL_SECONDS)
        path = f"v1/interrupts/{urllib.parse.quote(interrupt_id)}?wait={hold:.1f}"
        state = client.call("GET", path, timeout=hold + CONNECT_TIMEOUT_SECONDS)
        if state.get("id") != interrupt_id:
            return None
        if state.get("status") == "decided":
            return state.get("verdict")
        if state.get("status") != "open":
            return None


def decision(verdict):
    """The CLI's decision object for a verdict, or None to leave the choice to the CLI."""
    if not isinstance(verdict, dict):
        return None
    kind = verdict.get("verdict")
    reply = verdict.get("reply") if isinstance(verdict.get("reply"), str) else ""
    if kind == "approve":
        return {"behavior": "allow"}
    if kind == "reject":
        # The queue's "Reject" button sends its own label as the reply; that says nothing to the agent.
        meaningful = reply.strip() and reply.strip().lower() != "reject"
        return {"behavior": "deny", "message": reply.strip() if meaningful else DENIED_MESSAGE}
    if kind == "reply" and reply.strip():
        return {"behavior": "deny", "message": reply.strip()}
    return None


def hook_output(decided):
    return {"hookSpecificOutput": {"hookEventName": "PermissionRequest", "decision": decided}}


def wait_seconds_setting(environ):
    try:
        value = float(environ.get("MERE_HOOK_WAIT_SECONDS") or WAIT_SECONDS)
    except ValueError:
        return WAIT_SECONDS
    return value if value > 0 else WAIT_SECONDS


def ask(event, build_interrupt, environ):
    """The decision for one permission request event, or None."""
    wait = wait_seconds_setting(environ)
    interrupt = build_interrupt(event, wait)
    if interrupt is None:
        return None
    client = RelayClient(environ.get("MERE_RELAY_URL") or DEFAULT_RELAY_URL, environ.get("MERE_RELAY_TOKEN"))
    client.sign_in()
    try:
        raised = client.call("POST", "v1/interrupts", interrupt)
        return decision(wait_for_verdict(client, raised["id"], wait))
    finally:
        client.sign_out()


def main(build_interrupt, stdin=None, stdout=None, environ=None):
    """Reads the event, prints an answer only for a clear verdict, and always exits 0."""
    stdin = stdin or sys.stdin
    stdout = stdout or sys.stdout
    environ = os.environ if environ is None else environ
    try:
        event = json.loads(stdin.read())
        if not isinstance(event, dict) or event.get("hook_event_name") != "PermissionRequest":
            return 0
        decided = ask(event, build_interrupt, environ)
    except Exception:
        # Whatever went wrong, the person still gets the CLI's own prompt.
        return 0
    if decided is not None:
        stdout.write(json.dumps(hook_output(decided)) + "\n")
        stdout.flush()
    return 0
