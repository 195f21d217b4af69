#!/usr/bin/env python3
"""A fake model provider on 127.0.0.1 that answers the three wire protocols the relay routes to.

It serves OpenAI Responses (`/v1/responses`), OpenAI Chat Completions
(`/v1/chat/completions`) and Anthropic Messages (`/v1/messages`, with
`/v1/messages/count_tokens`), plus `/v1/models`, each streamed (server-sent
events in that protocol's own event format) and not. What it answers is
scripted: a queue of `Reply` values consumed one per model request, then an
optional `responder` function, then `default_reply`. Every request is recorded
(secrets taken out of the headers) for tests to read.

In a test:

    with FakeProvider(expected_key="sk-test") as provider:
        provider.script(Reply(text="hi"), failure(429))
        ... point a client at provider.url ...
        provider.requests()[0].body

As a program (benchmarks, other processes), it prints its base URL and serves
until interrupted; `/_fake/...` lets another process script and read it:

    python3 fake_provider.py --port 0 --key sk-test
"""

import argparse
import asyncio
import collections
import itertools
import json
import os
import signal
import sys
import threading
import time
from dataclasses import dataclass, field, fields

try:
    from aiohttp import web
except ImportError:  # pragma: no cover - depends on the interpreter CTest found
    # CTest may run the suite under an interpreter other than Debian's own, and
    # python3-aiohttp lives in Debian's folder; borrow it when the versions agree.
    DEBIAN_PACKAGES = "/usr/lib/python3/dist-packages"
    if sys.version_info[:2] != (3, 11) or not os.path.isdir(DEBIAN_PACKAGES):
        raise
    sys.path.append(DEBIAN_PACKAGES)
    from aiohttp import web

from provider_wire import (  # noqa: F401  (the protocol names and OVERLOADED are part of this module's interface)
    ANTHROPIC_MESSAGES, OPENAI_CHAT, OPENAI_RESPONSES, OVERLOADED, STREAM_ERRORS, Answer,
    anthropic_events, anthropic_message, chat_completion, chat_events, dumps, error_body, error_status,
    estimate_tokens, responses_events, responses_object)

DEFAULT_TEXT = "Hello from the fake provider."
# Models listed by /v1/models; a request may name any model, these are only what a client can discover.
LISTED_MODELS = ("fake-model", "claude-sonnet-4-5", "gpt-5-codex")
# How long the started server may take to bind before `start` gives up.
START_TIMEOUT_SECONDS = 10.0
# How long `stop` waits for in-flight answers before it cancels them.
SHUTDOWN_GRACE_SECONDS = 0.2
# A scripted time-out holds its request at most this long, so a forgotten one cannot keep a run alive.
HANG_LIMIT_SECONDS = 300.0
# How long `wait_for_requests` waits by default, and how often it looks.
RECORD_WAIT_SECONDS = 5.0
RECORD_POLL_SECONDS = 0.01
# Claude Code sends about 50 KB per turn; long conversations grow well past that.
MAX_BODY_BYTES = 64 * 1024 * 1024
# Requests kept in the record; older ones fall off so a long benchmark run stays small.
RECORD_LIMIT = 10_000
# Header values that carry credentials; the record keeps the header but never its value.
SECRET_HEADERS = frozenset({
    "authorization", "x-api-key", "api-key", "proxy-authorization", "cookie", "x-goog-api-key",
    "chatgpt-account-id", "openai-organization", "openai-project",
})
REDACTED = "<redacted>"


@dataclass
class ToolCall:
    """One call of a client-side tool (function call / tool_use block) that a reply asks for."""

    name: str
    arguments: dict = field(default_factory=dict)
    call_id: str = ""  # generated per protocol when empty

    @classmethod
    def from_dict(cls, value):
        return cls(value["name"], dict(value.get("arguments") or {}), value.get("call_id", ""))


@dataclass
class Reply:
    """What the fake answers to one model request; the defaults are a short plain-text answer."""

    text: str = DEFAULT_TEXT
    tool_calls: list = field(default_factory=list)
    # None reports a cheap estimate: a quarter of the request's bytes in, of the answer's characters out.
    input_tokens: int | None = None
    output_tokens: int | None = None
    model: str | None = None  # None echoes the model the request named
    # Seconds before the response headers go out, and between streamed chunks.
    first_byte_delay: float = 0.0
    chunk_delay: float = 0.0
    # A status of 400 and above answers with the protocol's error body instead of a message.
    status: int = 200
    error_message: str = ""
    retry_after: str | None = None
    # In a stream, send this many chunks, then the error above as the protocol's in-stream error event.
    error_after_chunks: int | None = None
    # Hold the request this many seconds and close it without an answer (a time-out on the client).
    hang_seconds: float = 0.0
    # Close the connection with no status line (0), or after this many streamed chunks.
    drop_after_chunks: int | None = None

    @classmethod
    def from_dict(cls, value):
        known = {item.name for item in fields(cls)}
        reply = cls(**{key: item for key, item in value.items() if key in known})
        reply.tool_calls = [ToolCall.from_dict(call) for call in reply.tool_calls]
        return reply


def failure(status, message="", retry_after=None):
    """A reply that answers `status` with the protocol's error body (OVERLOADED for overloaded)."""
    return Reply(status=status, error_message=message, retry_after=retry_after)


def stream_failure(status, after_chunks=1, message=""):
    """A streamed reply that starts well and then reports `status` as an in-stream error event."""
    return Reply(status=status, error_message=message, error_after_chunks=after_chunks)


def timeout(seconds=HANG_LIMIT_SECONDS):
    """A reply that never comes: the request is held until the client gives up (or `seconds` pass)."""
    return Reply(hang_seconds=seconds)


def dropped(after_chunks=0):
    """A reply cut off by closing the connection, before the status line or after some chunks."""
    return Reply(drop_after_chunks=after_chunks)


@dataclass
class RecordedRequest:
    """One request as the fake received it; header names are lower case and secrets are redacted."""

    method: str
    path: str
    query: str
    headers: dict
    body: object  # parsed JSON, the raw text when it is not JSON, None when empty
    protocol: str | None
    stream: bool
    key_ok: bool | None  # None when no key is expected
    status: int = 0  # what the fake answered; 0 while it is still answering or when it dropped
    received_at: float = 0.0


def _protocol_of(path):
    if path == "/v1/responses":
        return OPENAI_RESPONSES
    if path == "/v1/chat/completions":
        return OPENAI_CHAT
    if path.startswith("/v1/messages"):
        return ANTHROPIC_MESSAGES
    return None


def _public_headers(headers):
    return {name.lower(): (REDACTED if name.lower() in SECRET_HEADERS else value) for name, value in headers.items()}


# ---------------------------------------------------------------------------
# The server.

class FakeProvider:
    """The fake provider: an aiohttp server on 127.0.0.1 with its own event loop on its own thread."""

    def __init__(self, expected_key=None, port=0, record_limit=RECORD_LIMIT, default_reply=None):
        self.expected_key = expected_key
        self.default_reply = default_reply or Reply()
        # Called with the RecordedRequest when the script queue has nothing for it; returns a Reply or None.
        self.responder = None
        self._port = port
        self._records = collections.deque(maxlen=record_limit)
        self._script = []  # (predicate or None, Reply), consumed front first
        self._lock = threading.Lock()
        self._serial = itertools.count(1)
        self._loop = None
        self._thread = None
        self._runner = None
        self.port = None

    # -- lifecycle ---------------------------------------------------------

    @property
    def url(self):
        """The base URL without a version, e.g. http://127.0.0.1:41234 (Anthropic clients add /v1)."""
        return f"http://127.0.0.1:{self.port}"

    @property
    def openai_base_url(self):
        """The base URL OpenAI clients expect, with /v1."""
        return self.url + "/v1"

    def start(self):
        started = threading.Event()
        failures = []

        def serve():
            loop = asyncio.new_event_loop()
            self._loop = loop
            asyncio.set_event_loop(loop)
            try:
                loop.run_until_complete(self._open())
            except Exception as error:  # reported to the starting thread below
                failures.append(error)
                started.set()
                loop.close()
                return
            started.set()
            loop.run_forever()
            loop.run_until_complete(self._close())
            loop.close()

        self._thread = threading.Thread(target=serve, name="fake-provider", daemon=True)
        self._thread.start()
        if not started.wait(START_TIMEOUT_SECONDS):
            raise RuntimeError("fake provider did not start in time")
        if failures:
            raise failures[0]
        return self

    def stop(self):
        if self._thread is None:
            return
        self._loop.call_soon_threadsafe(self._loop.stop)
        self._thread.join(START_TIMEOUT_SECONDS + SHUTDOWN_GRACE_SECONDS)
        self._thread = None

    def __enter__(self):
        return self.start()

    def __exit__(self, *exc):
        self.stop()

    async def _open(self):
        loop = asyncio.get_running_loop()

        def make_request(message, payload, protocol, writer, task):
            return web.BaseRequest(message, payload, protocol, writer, task, loop, client_max_size=MAX_BODY_BYTES)

        server = web.Server(self._dispatcher(), request_factory=make_request, access_log=None)
        self._runner = web.ServerRunner(server, handle_signals=False)
        await self._runner.setup()
        site = web.TCPSite(self._runner, "127.0.0.1", self._port, shutdown_timeout=SHUTDOWN_GRACE_SECONDS)
        await site.start()
        self.port = site._server.sockets[0].getsockname()[1]

    async def _close(self):
        await self._runner.cleanup()
        # Answers still held (scripted time-outs, slow streams) end with the server, not after it.
        pending = [task for task in asyncio.all_tasks() if task is not asyncio.current_task()]
        for task in pending:
            task.cancel()
        await asyncio.gather(*pending, return_exceptions=True)

    def routes(self):
        """(method, path) -> handler; anything else is recorded too, so a test sees every path a client tried."""
        return {
            ("POST", "/v1/responses"): self._model_request,
            ("POST", "/v1/chat/completions"): self._model_request,
            ("POST", "/v1/messages"): self._model_request,
            ("POST", "/v1/messages/count_tokens"): self._count_tokens,
            ("GET", "/v1/models"): self._models,
            ("POST", "/_fake/script"): self._control_script,
            ("GET", "/_fake/requests"): self._control_requests,
            ("POST", "/_fake/reset"): self._control_reset,
        }

    def _dispatcher(self):
        # One dictionary look-up instead of aiohttp's router and middleware chain: the
        # fake sits in benchmarks, where its own cost should stay far below the relay's.
        routes = self.routes()
        unknown = self._unknown

        async def dispatch(request):
            return await routes.get((request.method, request.path), unknown)(request)

        return dispatch

    # -- scripting and the record (any thread) -----------------------------

    def script(self, *replies, when=None):
        """Queues replies for the next model requests; `when(recorded)` limits which requests take them."""
        with self._lock:
            self._script.extend((when, reply) for reply in replies)

    def pending(self):
        """How many scripted replies are still waiting for a request."""
        with self._lock:
            return len(self._script)

    def reset(self):
        """Forgets the script, the responder and the record."""
        with self._lock:
            self._script.clear()
            self._records.clear()
            self.responder = None

    def requests(self, path=None):
        """A copy of the record, oldest first; only requests to `path` when given."""
        with self._lock:
            records = list(self._records)
        return [record for record in records if path is None or record.path == path]

    def model_requests(self):
        """The recorded requests to the three model endpoints (not token counts, models or others)."""
        paths = ("/v1/responses", "/v1/chat/completions", "/v1/messages")
        return [record for record in self.requests() if record.path in paths]

    def wait_for_requests(self, count, timeout=RECORD_WAIT_SECONDS, path=None):
        """Waits until at least `count` requests (to `path`) are recorded; returns them."""
        deadline = time.monotonic() + timeout
        while True:
            records = self.requests(path)
            if len(records) >= count or time.monotonic() > deadline:
                return records
            time.sleep(RECORD_POLL_SECONDS)

    def _next_reply(self, recorded):
        with self._lock:
            for index, (when, reply) in enumerate(self._script):
                if when is None or when(recorded):
                    del self._script[index]
                    return reply
        responder = self.responder
        reply = responder(recorded) if responder is not None else None
        return reply or self.default_reply

    # -- handlers (server thread) ------------------------------------------

    async def _record(self, request):
        raw = await request.read()
        body = None
        if raw:
            try:
                body = json.loads(raw)
            except ValueError:
                body = raw.decode("utf-8", "replace")
        protocol = _protocol_of(request.path)
        recorded = RecordedRequest(
            method=request.method, path=request.path, query=request.query_string,
            headers=_public_headers(request.headers), body=body, protocol=protocol,
            stream=isinstance(body, dict) and body.get("stream") is True,
            key_ok=self._key_ok(request, protocol), received_at=time.monotonic())
        with self._lock:
            self._records.append(recorded)
        return recorded, len(raw)

    def _key_ok(self, request, protocol):
        if self.expected_key is None:
            return None
        bearer = request.headers.get("Authorization") == "Bearer " + self.expected_key
        if protocol == ANTHROPIC_MESSAGES or protocol is None:
            # Claude Code sends x-api-key; the official SDK from 1.x on sends the same key as a bearer token.
            return bearer or request.headers.get("x-api-key") == self.expected_key
        return bearer

    def _error(self, recorded, protocol, status, message="", retry_after=None):
        headers = {"x-request-id": f"req_fake{next(self._serial)}"}
        if retry_after is not None:
            headers["retry-after"] = str(retry_after)
        sent = error_status(protocol, status)
        recorded.status = sent
        return web.Response(status=sent, headers=headers, content_type="application/json",
                            text=dumps(error_body(protocol, status, message, headers["x-request-id"])))

    async def _model_request(self, request):
        recorded, size = await self._record(request)
        protocol = recorded.protocol
        if recorded.key_ok is False:
            return self._error(recorded, protocol, 401)
        if not isinstance(recorded.body, dict):
            return self._error(recorded, protocol, 400, "The body must be a JSON object.")
        reply = self._next_reply(recorded)
        if reply.first_byte_delay:
            await asyncio.sleep(reply.first_byte_delay)
        if reply.hang_seconds:
            await asyncio.sleep(min(reply.hang_seconds, HANG_LIMIT_SECONDS))
            return self._drop(request)
        if reply.drop_after_chunks == 0:
            return self._drop(request)
        if reply.status >= 400 and not (recorded.stream and reply.error_after_chunks is not None):
            return self._error(recorded, protocol, reply.status, reply.error_message, reply.retry_after)
        answer = Answer(reply, recorded.body.get("model"), next(self._serial), size)
        created = int(time.time())
        if not recorded.stream:
            recorded.status = 200
            return web.Response(content_type="application/json", text=dumps(self._whole(protocol, answer, created)))
        return await self._stream(request, recorded, reply, self._events(protocol, answer, created, recorded.body))

    @staticmethod
    def _whole(protocol, answer, created):
        if protocol == ANTHROPIC_MESSAGES:
            return anthropic_message(answer)
        if protocol == OPENAI_CHAT:
            return chat_completion(answer, created)
        return responses_object(answer, created)

    @staticmethod
    def _events(protocol, answer, created, body):
        if protocol == ANTHROPIC_MESSAGES:
            return anthropic_events(answer)
        if protocol == OPENAI_CHAT:
            include_usage = bool((body.get("stream_options") or {}).get("include_usage"))
            return chat_events(answer, created, include_usage)
        return responses_events(answer, created)

    async def _stream(self, request, recorded, reply, events):
        failing = reply.error_after_chunks is not None and reply.status >= 400
        dropping = reply.drop_after_chunks is not None and not failing
        if failing:
            error = STREAM_ERRORS[recorded.protocol](reply.status, reply.error_message)
            events = events[:reply.error_after_chunks] + [error]
        elif dropping:
            events = events[:reply.drop_after_chunks]
        response = web.StreamResponse(headers={"Content-Type": "text/event-stream; charset=utf-8",
                                               "Cache-Control": "no-cache"})
        await response.prepare(request)
        recorded.status = 200
        if reply.chunk_delay:
            for event in events:
                await response.write(event)
                await asyncio.sleep(reply.chunk_delay)
            events = []
        if dropping:
            if events:
                await response.write(b"".join(events))
            recorded.status = 0
            return self._drop(request, response)
        # What is left of the stream and its end in one write: one system call fewer per answer.
        await response.write_eof(b"".join(events))
        return response

    @staticmethod
    def _drop(request, response=None):
        # Closing the socket under aiohttp leaves the client with a reset or a short chunked body.
        if request.transport is not None:
            request.transport.abort()
        return response or web.Response(status=204)

    async def _count_tokens(self, request):
        recorded, size = await self._record(request)
        if recorded.key_ok is False:
            return self._error(recorded, ANTHROPIC_MESSAGES, 401)
        recorded.status = 200
        return web.json_response({"input_tokens": estimate_tokens(size)})

    async def _models(self, request):
        recorded, _ = await self._record(request)
        anthropic = "anthropic-version" in recorded.headers
        if recorded.key_ok is False:
            return self._error(recorded, ANTHROPIC_MESSAGES if anthropic else OPENAI_CHAT, 401)
        recorded.status = 200
        if anthropic:
            data = [{"type": "model", "id": name, "display_name": name, "created_at": "2025-01-01T00:00:00Z"}
                    for name in LISTED_MODELS]
            return web.json_response({"data": data, "has_more": False, "first_id": data[0]["id"],
                                      "last_id": data[-1]["id"]})
        return web.json_response({"object": "list", "data": [
            {"id": name, "object": "model", "created": 1735689600, "owned_by": "fake"} for name in LISTED_MODELS]})

    async def _unknown(self, request):
        recorded, _ = await self._record(request)
        return self._error(recorded, OPENAI_CHAT, 404, f"No such path: {request.path}")

    # -- control endpoints for a standalone fake ---------------------------

    async def _control_script(self, request):
        body = await request.json()
        self.script(*(Reply.from_dict(item) for item in body.get("replies", [])))
        return web.json_response({"pending": self.pending()})

    async def _control_requests(self, request):
        return web.json_response({"requests": [record.__dict__ for record in self.requests()]})

    async def _control_reset(self, request):
        self.reset()
        return web.json_response({})


def main(argv=None):
    parser = argparse.ArgumentParser(description="Serve a fake model provider on 127.0.0.1.")
    parser.add_argument("--port", type=int, default=0, help="port to listen on (0: any free port)")
    parser.add_argument("--key", help="API key the clients must send (default: any)")
    parser.add_argument("--text", default=DEFAULT_TEXT, help="the default answer's text")
    parser.add_argument("--first-byte-delay", type=float, default=0.0, help="seconds before each answer")
    parser.add_argument("--chunk-delay", type=float, default=0.0, help="seconds between streamed chunks")
    parser.add_argument("--record-limit", type=int, default=RECORD_LIMIT, help="requests kept in the record")
    args = parser.parse_args(argv)
    reply = Reply(text=args.text, first_byte_delay=args.first_byte_delay, chunk_delay=args.chunk_delay)
    provider = FakeProvider(expected_key=args.key, port=args.port, record_limit=args.record_limit,
                            default_reply=reply).start()
    stopped = threading.Event()
    # Handlers first: whoever reads the address may stop the fake the moment it has read it.
    for number in (signal.SIGINT, signal.SIGTERM):
        signal.signal(number, lambda *_: stopped.set())
    print(provider.url, flush=True)
    stopped.wait()
    provider.stop()
    return 0


if __name__ == "__main__":
    sys.exit(main())
