"""Starts the real relay in a child process on a free port with a temporary database.

Every test talks to it over HTTP with http.client, as the application would.
"""

import asyncio
import http.client
import json
import logging
import os
import queue
import select
import shutil
import socket
import sqlite3
import subprocess
import sys
import tempfile
import threading
import time
import unittest

HERE = os.path.dirname(os.path.abspath(__file__))
RELAY_DIR = os.path.normpath(os.path.join(HERE, "..", "src", "relay"))
SERVER = os.path.join(RELAY_DIR, "server.py")
HOOKS_DIR = os.path.join(RELAY_DIR, "hooks")
DATA_DIR = os.path.join(HERE, "data")
START_TIMEOUT = 15

sys.path.insert(0, RELAY_DIR)
sys.path.insert(0, HOOKS_DIR)

# Fast timings for tests; the defaults themselves are asserted in test_units.
FAST_ENV = {
    "MERE_RELAY_KEEPALIVE_SECONDS": "0.3",
    "MERE_RELAY_EXPIRY_SWEEP_SECONDS": "0.1",
}


def wait_for(condition, timeout=5.0, interval=0.02):
    """Polls until `condition()` is true; fails the test with AssertionError otherwise."""
    deadline = time.monotonic() + timeout
    while not condition():
        if time.monotonic() > deadline:
            raise AssertionError("condition not met in time")
        time.sleep(interval)


def data_path(name):
    return os.path.join(DATA_DIR, name)


def read_data(name):
    with open(data_path(name), encoding="utf-8") as handle:
        return handle.read()


class Relay:
    """One relay child process; `stop` and `start` again keep the same database."""

    def __init__(self, folder, env=None):
        self.folder = folder
        self.db_path = os.path.join(folder, "relay.db")
        self.log_path = os.path.join(folder, "relay.log")
        self.home = os.path.join(folder, "home")
        os.makedirs(self.home, exist_ok=True)
        self.extra_env = dict(env or {})
        self.process = None
        self.port = None
        # Run in the child before the relay starts (to lower its open-file limit, say).
        self.preexec = None

    def environment(self):
        env = {key: value for key, value in os.environ.items() if not key.startswith(("MERE_", "CLAUDE_", "CODEX_"))}
        env.update({
            "MERE_RELAY_PORT": "0",
            "MERE_RELAY_DB_PATH": self.db_path,
            "MERE_RELAY_ENV_PATH": os.path.join(self.folder, "relay.env"),
            "MERE_RELAY_LOCAL_AUTH": "1",
            "PYTHONDONTWRITEBYTECODE": "1",
            # The relay inspects $HOME for the agent CLIs; tests give it a home of their own.
            "HOME": self.home,
            "PATH": os.path.join(self.folder, "bin"),
        })
        env.update(FAST_ENV)
        env.update(self.extra_env)
        return env

    def start(self):
        log = open(self.log_path, "ab")
        self.process = subprocess.Popen([sys.executable, SERVER], cwd=RELAY_DIR, env=self.environment(),
                                        stdout=subprocess.PIPE, stderr=log, stdin=subprocess.DEVNULL,
                                        preexec_fn=self.preexec)
        log.close()
        line = self._first_line()
        marker = "listening on http://"
        if marker not in line:
            self.stop()
            raise RuntimeError("relay did not start: " + line + self.log())
        self.port = int(line.rsplit(":", 1)[1].strip().rstrip("/"))
        return self

    def _first_line(self):
        ready, _, _ = select.select([self.process.stdout], [], [], START_TIMEOUT)
        if not ready:
            return ""
        return self.process.stdout.readline().decode("utf-8", "replace")

    def stop(self):
        if self.process is None:
            return None
        if self.process.poll() is None:
            self.process.terminate()
        try:
            code = self.process.wait(timeout=10)
        except subprocess.TimeoutExpired:
            self.process.kill()
            code = self.process.wait()
        self.process.stdout.close()
        self.process = None
        return code

    def log(self):
        with open(self.log_path, encoding="utf-8", errors="replace") as handle:
            return handle.read()

    @property
    def base_url(self):
        return f"http://127.0.0.1:{self.port}/"

    @property
    def host_header(self):
        """The Host a client of this relay sends, as bytes for raw requests."""
        return f"127.0.0.1:{self.port}".encode()

    def raw(self, data, timeout=5.0):
        """Sends bytes as they are and reads one answer: up to its Content-Length, or until the
        relay closes or goes quiet. Returns (status or None, the head as text, the body as bytes)."""
        with socket.create_connection(("127.0.0.1", self.port), timeout=timeout) as sock:
            try:
                sock.sendall(data)
            except (BrokenPipeError, ConnectionResetError):
                pass
            return read_answer(sock)

    def code_token(self, address):
        """Signs `address` in with an e-mailed code read from the outbox; returns the token and user."""
        status, answer, _ = self.request("POST", "v1/auth/request-code", {"email": address})
        assert status == 200, answer
        with open(os.path.join(self.folder, "relay-outbox.txt"), encoding="utf-8") as handle:
            code = [line for line in handle if f" to={address} " in line][-1].rsplit("code=", 1)[1].strip()
        status, answer, _ = self.request("POST", "v1/auth/verify-code", {"email": address, "code": code})
        assert status == 200, answer
        return answer["token"], answer["user"]

    def connection(self, timeout=30):
        return http.client.HTTPConnection("127.0.0.1", self.port, timeout=timeout)

    def request(self, method, path, body=None, token=None, headers=None, raw=None, timeout=30):
        """(status, decoded JSON or None, response headers). `raw` sends bytes as they are."""
        conn = self.connection(timeout)
        try:
            sent = dict(headers or {})
            data = raw
            if body is not None:
                data = json.dumps(body).encode("utf-8")
            if data is not None or method in ("POST", "PUT", "PATCH"):
                sent.setdefault("Content-Type", "application/json")
            if token:
                sent["Authorization"] = "Bearer " + token
            conn.request(method, "/" + path, body=data, headers=sent)
            response = conn.getresponse()
            payload = response.read()
            decoded = json.loads(payload) if payload else None
            return response.status, decoded, dict(response.getheaders())
        finally:
            conn.close()

    def local_token(self):
        status, answer, _ = self.request("POST", "v1/auth/local", {})
        assert status == 200, answer
        return answer["token"]

    def open_stream(self, token):
        return Stream(self, token)


def closed_by_relay(sock, seconds):
    """Whether the relay closes this connection, which has been sent nothing more, in time."""
    sock.settimeout(seconds)
    try:
        return sock.recv(1) == b""
    except ConnectionResetError:
        return True
    except socket.timeout:
        return False


def read_answer(sock):
    """One HTTP answer from a socket: (status or None, head text, body bytes)."""
    reply = b""
    try:
        while b"\r\n\r\n" not in reply:
            chunk = sock.recv(65536)
            if not chunk:
                break
            reply += chunk
        head, _, body = reply.partition(b"\r\n\r\n")
        length = None
        for line in head.split(b"\r\n")[1:]:
            name, _, value = line.partition(b":")
            if name.strip().lower() == b"content-length" and value.strip().isdigit():
                length = int(value)
        while length is None or len(body) < length:
            chunk = sock.recv(65536)
            if not chunk:
                break
            body += chunk
    except (socket.timeout, ConnectionResetError):
        head, _, body = reply.partition(b"\r\n\r\n")
    parts = head.split(b" ", 2)
    status = int(parts[1]) if len(parts) > 1 and parts[1].isdigit() else None
    return status, head.decode("latin-1"), body


class InProcessRelay(Relay):
    """The relay's App served on a thread of this process: for tests that add a route of their
    own (a failing handler, a provider call) or read what the relay logged, record by record."""

    def __init__(self, folder, env=None, setup=None):
        super().__init__(folder, env)
        self._setup = setup
        self.app = None
        self.records = []
        self._thread = None

    def start(self):
        from relaylib import app as relay_app, config

        self.app = relay_app.App(config.load_settings(self.environment()))
        if self._setup is not None:
            self._setup(self.app)
        handler = _Recorder(self.records)
        logging.getLogger("relay").addHandler(handler)
        logging.getLogger("relay").setLevel(logging.INFO)
        self._handler = handler
        ready = threading.Event()

        def listening(host, port):
            self.port = port
            ready.set()

        self._thread = threading.Thread(
            target=lambda: asyncio.run(self.app.run(on_listening=listening, handle_signals=False)), daemon=True)
        self._thread.start()
        if not ready.wait(START_TIMEOUT):
            raise RuntimeError("in-process relay did not start")
        return self

    def stop(self):
        if self._thread is None:
            return None
        self.app.request_stop()
        self._thread.join(15)
        logging.getLogger("relay").removeHandler(self._handler)
        self._thread = None
        return 0

    def log(self):
        return "\n".join(record.getMessage() for record in self.records)

    def tracebacks(self):
        return [record for record in self.records if record.exc_info]


class _Recorder(logging.Handler):
    def __init__(self, records):
        super().__init__(logging.DEBUG)
        self._records = records

    def emit(self, record):
        self._records.append(record)


class Stream:
    """A held-open v1/stream, read by a thread into a queue of lines."""

    def __init__(self, relay, token):
        self.conn = relay.connection(timeout=30)
        self.conn.request("GET", "/v1/stream", headers={"Authorization": "Bearer " + token})
        # The response takes the socket over; keep it to cut the stream from the test's thread.
        self.sock = self.conn.sock
        self.response = self.conn.getresponse()
        self.status = self.response.status
        self.headers = dict(self.response.getheaders())
        self.lines = queue.Queue()
        self._thread = threading.Thread(target=self._read, daemon=True)
        if self.status == 200:
            self._thread.start()

    def _read(self):
        try:
            while True:
                line = self.response.readline()
                if not line:
                    break
                self.lines.put(line.decode("utf-8"))
        except (OSError, ValueError, AttributeError, http.client.HTTPException):
            # Closing the stream from the test's thread cuts a read short in any of these ways.
            pass
        self.lines.put(None)

    def next_line(self, timeout=10):
        return self.lines.get(timeout=timeout)

    def next_snapshot(self, timeout=10):
        """The next data line, decoded; comments and blank lines are skipped."""
        deadline = time.monotonic() + timeout
        while True:
            line = self.next_line(max(0.01, deadline - time.monotonic()))
            if line is None:
                raise EOFError("stream ended")
            if line.startswith("data:"):
                return json.loads(line[5:].strip())

    def close(self):
        try:
            self.sock.shutdown(2)
        except OSError:
            pass
        self.conn.close()


class RelayTestCase(unittest.TestCase):
    """One relay per test class, with a local session ready in `token`."""

    relay_env = {}
    needs_token = True

    @classmethod
    def setUpClass(cls):
        cls.folder = tempfile.mkdtemp(prefix="relay-test-")
        os.makedirs(os.path.join(cls.folder, "bin"), exist_ok=True)
        cls.relay = Relay(cls.folder, cls.relay_env).start()
        cls.token = cls.relay.local_token() if cls.needs_token else None

    @classmethod
    def tearDownClass(cls):
        cls.relay.stop()
        shutil.rmtree(cls.folder, ignore_errors=True)

    def assertRelayIntact(self):
        """The relay still answers, its database is whole, and nothing it logged was a traceback."""
        self.assertEqual(self.relay.request("GET", "v1/health")[0], 200)
        with sqlite3.connect(self.relay.db_path) as conn:
            self.assertEqual(conn.execute("PRAGMA integrity_check").fetchone()[0], "ok")
        log = self.relay.log()
        self.assertNotIn("Traceback", log)
        self.assertNotIn("unexpected failure", log)

    def call(self, method, path, body=None, token=True, **kwargs):
        use = self.token if token is True else token
        return self.relay.request(method, path, body, token=use or None, **kwargs)

    def assertError(self, answer, status, expected_status, message=None, contains=None):
        """The error envelope: an object `error` with a string `message`, and a `request_id`."""
        # An unexpected internal error is explained by the relay's log, not by its answer.
        self.assertEqual(status, expected_status, answer if status != 500 else f"{answer}\n{self.relay.log()[-4000:]}")
        # The gateway's paths answer in their callers' protocols: Anthropic's marks the body as an
        # error, and both name the error's type beside its message.
        protocol_shape = answer.get("type") == "error" or "type" in answer.get("error", {})
        self.assertEqual(set(answer) - {"type"} if protocol_shape else set(answer), {"error", "request_id"})
        self.assertIsInstance(answer["error"]["message"], str)
        self.assertTrue(answer["request_id"].startswith("req_"))
        if message is not None:
            self.assertEqual(answer["error"]["message"], message)
        if contains is not None:
            self.assertIn(contains, answer["error"]["message"])


# Every path of the relay: (method, pattern, needs a session, a valid body). A path added to
# the relay must be added here, so that the trust, hostile-input and two-user tests cover it.
INTERRUPT = {"run_id": "run-1", "run_name": "claude · workspace", "kind": "approval", "prompt": "Allow Bash?",
             "options": ["Approve", "Reject"], "detail": "ls"}
CHUNK = {"seq": 1, "stream": "output", "data": "hello\r\n", "ts": "2026-01-31T09:30:00Z"}
# The one tool a route preview declares to simulate an agent's tool-call request.
SAMPLE_TOOL = {"type": "function", "function": {"name": "project_action", "parameters": {
    "type": "object", "properties": {"action": {"type": "string"}}, "required": ["action"],
    "additionalProperties": False}}}
# A gateway key as the application's create form sends it, every field given.
GATEWAY_KEY = {"name": "Local SDK", "limit_usd": 5, "reset_interval": "monthly", "requests_per_minute": 60,
               "tokens_per_minute": 100000, "allowed_models": [], "allowed_providers": [],
               "content_filters": [{"name": "Secrets", "pattern": "sk-[A-Za-z0-9]{20,}", "action": "redact"}],
               "enforce_zdr_anthropic": False, "enforce_zdr_openai": False, "enforce_zdr_google": False,
               "enforce_zdr_xai": False, "enforce_zdr_other": False, "expires_in_days": 90}

CLASSIFIER = {"name": "Agent complexity", "model": "", "sampling_rate": 1.0,
              "prompt": "Classify the work being requested, not the person asking.", "active": True,
              "dimensions": [{"key": "difficulty_tier", "label": "Difficulty",
                              "values": ["trivial", "standard", "expert"]},
                             {"key": "task_family", "label": "Task family",
                              "values": ["coding", "analysis", "planning", "research"]}]}

# What the application tells the relay after it wrote a suggested rule.
IMPROVE_APPLY = {"agent": "codex", "path": "AGENTS.md", "resolved_path": "/work/quillmere/AGENTS.md",
                 "inserted_text": "- Never push to main without a review.", "content_sha256": "0" * 64,
                 "created_file": True}
# A correction typed into two drawer terminals: enough for one suggestion.
TYPED_CORRECTION = "never push to main without a review\r"
# An edit of version 1: another user, who has no such preset, gets a 404 rather than a preset of their own.
PRESET_CAPTURE = {"model": "fast", "models": ["fast", "slow"], "temperature": 0.2, "provider": {"sort": "price"},
                  "messages": [{"role": "system", "content": "Review the diff."}], "quillmere_base_version": 1,
                  "quillmere_clear_fields": ["top_p"]}

ROUTES = [
    ("GET", "v1/health", False, None),
    ("POST", "v1/auth/local", False, {}),
    ("POST", "v1/auth/request-code", False, {"email": "someone@example.com"}),
    ("POST", "v1/auth/verify-code", False, {"email": "someone@example.com", "code": "123456"}),
    ("POST", "v1/auth/mfa/verify", False, {"mfa_ticket": "ticket", "code": "123456"}),
    ("GET", "v1/me", True, None),
    ("POST", "v1/auth/logout", True, None),
    ("GET", "v1/stream", True, None),
    ("POST", "v1/interrupts", True, INTERRUPT),
    ("GET", "v1/interrupts/{id}", True, None),
    ("POST", "v1/interrupts/{id}/verdict", True, {"verdict": "reply", "reply": "Billing", "source": "desktop"}),
    ("POST", "v1/interrupts/{id}/withdraw", True, {"reason": "answered_elsewhere"}),
    ("POST", "v1/events", True, {"run_id": "run-1", "name": "claude · plan", "type": "started", "tokens": 1,
                                 "cost_usd": 0.5, "detail": "Started"}),
    ("POST", "v1/router/health", True, {"provider": "anthropic-subscription", "success": True, "latency_ms": 5}),
    ("POST", "v1/terminal/sessions", True, {"source": "desktop"}),
    ("GET", "v1/terminal/sessions", True, None),
    ("GET", "v1/terminal/sessions/{id}", True, None),
    ("POST", "v1/terminal/sessions/{id}/events", True, {"chunks": [CHUNK]}),
    ("POST", "v1/terminal/sessions/{id}/end", True, None),
    ("GET", "v1/cli/status", True, None),
    ("GET", "v1/projects", True, None),
    ("POST", "v1/projects", True, {"name": "quillmere", "root_path": "/work/quillmere"}),
    ("GET", "v1/projects/{id}/context", True, None),
    ("POST", "v1/projects/{id}/context", True, {"title": "Tests", "content": "Run ctest.", "source": ""}),
    ("DELETE", "v1/projects/{id}/context/{item}", True, None),
    ("POST", "v1/projects/{id}/context/pack", True, {"query": "tests", "character_budget": 1000}),
    ("GET", "v1/router/catalog", True, None),
    ("POST", "v1/router/policy", True, {"strategy": "balanced", "max_cost_per_request": 0.05,
                                        "fallback_enabled": True, "max_fallbacks": 2, "allowed_providers": []}),
    ("POST", "v1/router/preview", True, {"task": "code", "input_tokens": 8000, "estimated_output_tokens": 2000,
                                         "latency_budget_ms": 20000, "max_cost_usd": 1.5, "channel": "any",
                                         "provider": {"sort": {"by": "price", "partition": "model"},
                                                      "preferred_max_latency": 2.5,
                                                      "preferred_min_throughput": 10},
                                         "tools": [SAMPLE_TOOL]}),
    ("GET", "v1/router/usage", True, None),
    ("GET", "v1/router/budgets", True, None),
    ("POST", "v1/router/budgets", True, {"period": "monthly", "limit_usd": 25}),
    ("GET", "v1/router/generations", True, None),
    ("POST", "v1/complete", True, {"task": "reason", "input": "Plan the change.", "model": "auto",
                                   "max_output_tokens": 4000}),
    ("POST", "v1/router/probe", True, {"model_id": "claude-subscription"}),
    ("GET", "v1/router/api-keys", True, None),
    ("POST", "v1/router/api-keys", True, GATEWAY_KEY),
    ("DELETE", "v1/router/api-keys/{id}", True, None),
    ("GET", "v1/models", True, None),
    ("POST", "v1/chat/completions", True, {"model": "auto", "messages": [{"role": "user", "content": "Hello"}]}),
    ("POST", "v1/responses", True, {"model": "auto", "input": "Hello", "instructions": "Be brief.",
                                    "max_output_tokens": 100}),
    ("POST", "v1/messages", True, {"model": "auto", "max_tokens": 100,
                                   "messages": [{"role": "user", "content": "Hello"}]}),
    ("POST", "v1/v1/messages", True, {"model": "auto", "max_tokens": 100,
                                      "messages": [{"role": "user", "content": "Hello"}]}),
    ("GET", "v1/classifiers", True, None),
    ("POST", "v1/classifiers", True, CLASSIFIER),
    ("GET", "v1/classifiers/activity", True, None),
    ("PUT", "v1/classifiers/{id}", True, CLASSIFIER),
    ("DELETE", "v1/classifiers/{id}", True, None),
    ("GET", "v1/composio/status", True, None),
    ("GET", "v1/composio/toolkits", True, None),
    ("GET", "v1/composio/connections", True, None),
    ("POST", "v1/composio/connections", True, {"toolkit": "github"}),
    ("POST", "v1/improve/scan", True, {"force": False}),
    ("GET", "v1/improve/suggestions", True, None),
    ("POST", "v1/improve/suggestions/{id}/dismiss", True, None),
    ("POST", "v1/improve/suggestions/{id}/snooze", True, {"days": 7}),
    ("POST", "v1/improve/suggestions/{id}/reopen", True, None),
    ("POST", "v1/improve/suggestions/{id}/draft", True, None),
    ("POST", "v1/improve/suggestions/{id}/apply", True, IMPROVE_APPLY),
    ("POST", "v1/improve/applications/{id}/undo", True, None),
    ("GET", "v1/improve/settings", True, None),
    ("POST", "v1/improve/settings", True, {"automatic": False, "cadence_hours": 24}),
    ("GET", "v1/presets", True, None),
    ("GET", "v1/presets/{slug}", True, None),
    ("POST", "v1/presets/{slug}/chat/completions", True, PRESET_CAPTURE),
    ("POST", "v1/presets/{slug}/messages", True, {"model": "fast", "max_tokens": 100, "system": "Review.",
                                                  "messages": [], "quillmere_base_version": 1}),
    ("POST", "v1/presets/{slug}/responses", True, {"model": "fast", "instructions": "Review.", "input": "",
                                                   "quillmere_base_version": 1}),
    ("POST", "v1/presets/{slug}/versions/{version}/designate", True, {}),
    ("DELETE", "v1/presets/{slug}", True, None),
    ("GET", "v1/insights", True, None),
]


def make_records(relay, token):
    """One record of each kind for `token`'s user; returns the ids the paths above name."""
    def post(path, body):
        status, answer, _ = relay.request("POST", path, body, token=token)
        assert status == 200, (path, answer)
        return answer

    interrupt = post("v1/interrupts", INTERRUPT)["id"]
    session = post("v1/terminal/sessions", {"source": "desktop"})["id"]
    post(f"v1/terminal/sessions/{session}/events", {"chunks": [CHUNK]})
    project = post("v1/projects", {"name": "p", "root_path": f"/work/{interrupt}"})["id"]
    item = post(f"v1/projects/{project}/context", {"title": "Tests", "content": "Run ctest."})["id"]
    key = post("v1/router/api-keys", GATEWAY_KEY)["id"]
    classifier = post("v1/classifiers", CLASSIFIER)["data"]["id"]
    for _ in range(2):
        typed = post("v1/terminal/sessions", {"source": "desktop"})["id"]
        # Typed now, so the suggestion it makes has recent evidence.
        now = time.strftime("%Y-%m-%dT%H:%M:%SZ", time.gmtime())
        post(f"v1/terminal/sessions/{typed}/events",
             {"chunks": [dict(CHUNK, stream="input", data=TYPED_CORRECTION, ts=now)]})
    post("v1/improve/scan", {"force": False})
    status, listed, _ = relay.request("GET", "v1/improve/suggestions?include_dismissed=true&limit=20", token=token)
    assert status == 200 and listed["suggestions"], listed
    suggestion = listed["suggestions"][0]["id"]
    application = post(f"v1/improve/suggestions/{suggestion}/apply", IMPROVE_APPLY)["id"]
    slug = "reviewer-" + interrupt[-8:].lower()
    post(f"v1/presets/{slug}/chat/completions", {"model": "fast", "messages": [], "quillmere_clear_fields": []})
    return {"interrupt": interrupt, "session": session, "project": project, "item": item, "key": key,
            "classifier": classifier, "suggestion": suggestion, "application": application, "slug": slug}


def route_path(pattern, ids):
    """A pattern with its {id} and {item} filled for the record kind its path names."""
    kind = ("interrupt" if "interrupts" in pattern else "session" if "terminal" in pattern
            else "key" if "api-keys" in pattern else "classifier" if "classifiers" in pattern
            else "suggestion" if "improve/suggestions" in pattern
            else "application" if "improve/applications" in pattern else "project")
    return (pattern.replace("{id}", ids.get(kind, "none")).replace("{item}", ids.get("item", "none"))
            .replace("{slug}", ids.get("slug", "none")).replace("{version}", "1"))
