"""The fake model provider, checked with raw HTTP and with the official SDKs as real clients."""

import http.client
import json
import os
import socket
import subprocess
import sys
import time
import unittest

import npm_peers
from fake_provider import (
    ANTHROPIC_MESSAGES, DEFAULT_TEXT, OPENAI_CHAT, OPENAI_RESPONSES, OVERLOADED, REDACTED, FakeProvider, Reply,
    ToolCall, dropped, failure, stream_failure, timeout)

HERE = os.path.dirname(os.path.abspath(__file__))
KEY = "sk-fake-provider-test-key"
PATHS = {OPENAI_RESPONSES: "/v1/responses", OPENAI_CHAT: "/v1/chat/completions",
         ANTHROPIC_MESSAGES: "/v1/messages"}
# Scripted token counts, so that a client reporting usage can be checked exactly.
INPUT_TOKENS = 11
OUTPUT_TOKENS = 7
TOOL = ToolCall("get_weather", {"city": "Paris"})
# How long a test client waits on a scripted time-out before it gives up.
CLIENT_TIMEOUT_SECONDS = 0.3
# A scripted latency small enough for a test and large enough to see.
SCRIPTED_DELAY_SECONDS = 0.2
NODE_TIMEOUT_SECONDS = 45
# Bounds every plain HTTP exchange with the fake, and the standalone fake's exit.
HTTP_TIMEOUT_SECONDS = 10.0
GATEWAY_POLL_SECONDS = 0.05
# Bounds the gateway's start (node loading its bundle) before the test gives up on it.
GATEWAY_START_SECONDS = 20


def request_body(protocol, stream=False):
    if protocol == OPENAI_RESPONSES:
        body = {"model": "fake-model", "input": "Say hello"}
    elif protocol == OPENAI_CHAT:
        body = {"model": "fake-model", "messages": [{"role": "user", "content": "Say hello"}],
                "stream_options": {"include_usage": True}}
    else:
        body = {"model": "fake-model", "max_tokens": 64, "messages": [{"role": "user", "content": "Say hello"}]}
    if stream:
        body["stream"] = True
    return body


def key_headers(protocol, key=KEY):
    if protocol == ANTHROPIC_MESSAGES:
        return {"x-api-key": key, "anthropic-version": "2023-06-01"}
    return {"Authorization": f"Bearer {key}"}


def post(provider, path, body, headers, timeout=HTTP_TIMEOUT_SECONDS):
    """Sends one POST with http.client; returns (status, headers, raw body)."""
    connection = http.client.HTTPConnection("127.0.0.1", provider.port, timeout=timeout)
    try:
        connection.request("POST", path, json.dumps(body), {"Content-Type": "application/json", **headers})
        response = connection.getresponse()
        return response.status, dict(response.getheaders()), response.read()
    finally:
        connection.close()


def sse_events(raw):
    """Parses a server-sent event stream into (event name or None, data text) pairs."""
    events = []
    for block in raw.decode().split("\n\n"):
        if not block.strip():
            continue
        name, data = None, []
        for line in block.split("\n"):
            if line.startswith("event: "):
                name = line[len("event: "):]
            elif line.startswith("data: "):
                data.append(line[len("data: "):])
        events.append((name, "\n".join(data)))
    return events


def streamed_text(protocol, events):
    """The answer's text put back together from the protocol's own delta events."""
    pieces = []
    for name, data in events:
        if data == "[DONE]":
            continue
        value = json.loads(data)
        if protocol == ANTHROPIC_MESSAGES and name == "content_block_delta" and value["delta"]["type"] == "text_delta":
            pieces.append(value["delta"]["text"])
        elif protocol == OPENAI_RESPONSES and name == "response.output_text.delta":
            pieces.append(value["delta"])
        elif protocol == OPENAI_CHAT and value.get("choices"):
            pieces.append(value["choices"][0]["delta"].get("content") or "")
    return "".join(pieces)


class RawHttpTest(unittest.TestCase):
    """Each protocol's wire format as a plain HTTP client sees it."""

    def setUp(self):
        self.provider = FakeProvider(expected_key=KEY).start()
        self.addCleanup(self.provider.stop)

    def test_whole_answers_carry_text_and_usage_in_each_protocol_shape(self):
        for protocol, path in PATHS.items():
            with self.subTest(protocol=protocol):
                self.provider.script(Reply(text="Plain answer.", input_tokens=INPUT_TOKENS,
                                           output_tokens=OUTPUT_TOKENS))
                status, headers, raw = post(self.provider, path, request_body(protocol), key_headers(protocol))
                self.assertEqual(status, 200)
                self.assertTrue(headers["Content-Type"].startswith("application/json"))
                answer = json.loads(raw)
                if protocol == ANTHROPIC_MESSAGES:
                    self.assertEqual(answer["content"], [{"type": "text", "text": "Plain answer."}])
                    self.assertEqual(answer["stop_reason"], "end_turn")
                    usage = (answer["usage"]["input_tokens"], answer["usage"]["output_tokens"])
                elif protocol == OPENAI_CHAT:
                    self.assertEqual(answer["choices"][0]["message"]["content"], "Plain answer.")
                    self.assertEqual(answer["choices"][0]["finish_reason"], "stop")
                    usage = (answer["usage"]["prompt_tokens"], answer["usage"]["completion_tokens"])
                    self.assertEqual(answer["usage"]["total_tokens"], INPUT_TOKENS + OUTPUT_TOKENS)
                else:
                    self.assertEqual(answer["output"][0]["content"][0]["text"], "Plain answer.")
                    self.assertEqual(answer["status"], "completed")
                    usage = (answer["usage"]["input_tokens"], answer["usage"]["output_tokens"])
                self.assertEqual(usage, (INPUT_TOKENS, OUTPUT_TOKENS))
                self.assertEqual(answer["model"], "fake-model")

    def test_streams_use_each_protocol_event_sequence_and_rebuild_the_text(self):
        expected_names = {
            ANTHROPIC_MESSAGES: ["message_start", "content_block_start", "content_block_delta"],
            OPENAI_RESPONSES: ["response.created", "response.in_progress", "response.output_item.added",
                               "response.content_part.added", "response.output_text.delta"],
        }
        last_names = {ANTHROPIC_MESSAGES: ["message_delta", "message_stop"],
                      OPENAI_RESPONSES: ["response.output_item.done", "response.completed"]}
        for protocol, path in PATHS.items():
            with self.subTest(protocol=protocol):
                self.provider.script(Reply(text="One two three.", input_tokens=INPUT_TOKENS,
                                           output_tokens=OUTPUT_TOKENS))
                status, headers, raw = post(self.provider, path, request_body(protocol, stream=True),
                                            key_headers(protocol))
                self.assertEqual(status, 200)
                self.assertTrue(headers["Content-Type"].startswith("text/event-stream"))
                events = sse_events(raw)
                self.assertEqual(streamed_text(protocol, events), "One two three.")
                names = [name for name, _ in events]
                if protocol == OPENAI_CHAT:
                    self.assertTrue(all(name is None for name in names))
                    self.assertEqual(events[-1][1], "[DONE]")
                    usage = json.loads(events[-2][1])["usage"]
                    self.assertEqual((usage["prompt_tokens"], usage["completion_tokens"]),
                                     (INPUT_TOKENS, OUTPUT_TOKENS))
                    continue
                self.assertEqual(names[:len(expected_names[protocol])], expected_names[protocol])
                self.assertEqual(names[-2:], last_names[protocol])
                for name, data in events:
                    self.assertEqual(json.loads(data)["type"], name)
                final = json.loads(events[-2][1] if protocol == ANTHROPIC_MESSAGES else events[-1][1])
                if protocol == ANTHROPIC_MESSAGES:
                    self.assertEqual(final["usage"]["output_tokens"], OUTPUT_TOKENS)
                else:
                    self.assertEqual(final["response"]["usage"]["input_tokens"], INPUT_TOKENS)

    def test_tool_calls_in_each_protocol_carry_name_and_arguments(self):
        for protocol, path in PATHS.items():
            for stream in (False, True):
                with self.subTest(protocol=protocol, stream=stream):
                    self.provider.script(Reply(text="", tool_calls=[TOOL]))
                    status, _, raw = post(self.provider, path, request_body(protocol, stream), key_headers(protocol))
                    self.assertEqual(status, 200)
                    self.assertEqual(self.tool_call_of(protocol, stream, raw), ("get_weather", {"city": "Paris"}))

    def tool_call_of(self, protocol, stream, raw):
        if not stream:
            answer = json.loads(raw)
            if protocol == ANTHROPIC_MESSAGES:
                block = answer["content"][0]
                self.assertEqual(answer["stop_reason"], "tool_use")
                return block["name"], block["input"]
            if protocol == OPENAI_CHAT:
                call = answer["choices"][0]["message"]["tool_calls"][0]["function"]
                return call["name"], json.loads(call["arguments"])
            item = answer["output"][0]
            return item["name"], json.loads(item["arguments"])
        events = [(name, json.loads(data)) for name, data in sse_events(raw) if data != "[DONE]"]
        if protocol == ANTHROPIC_MESSAGES:
            start = next(value for name, value in events if name == "content_block_start")
            partial = "".join(value["delta"]["partial_json"] for name, value in events
                              if name == "content_block_delta")
            return start["content_block"]["name"], json.loads(partial)
        if protocol == OPENAI_CHAT:
            calls = [value["choices"][0]["delta"]["tool_calls"][0] for _, value in events
                     if value.get("choices") and value["choices"][0]["delta"].get("tool_calls")]
            return calls[0]["function"]["name"], json.loads("".join(call["function"]["arguments"] for call in calls))
        done = next(value for name, value in events if name == "response.output_item.done")
        return done["item"]["name"], json.loads(done["item"]["arguments"])

    def test_wrong_or_missing_key_is_refused_with_the_protocol_error_body(self):
        for protocol, path in PATHS.items():
            for headers in (key_headers(protocol, "sk-wrong"), {}):
                with self.subTest(protocol=protocol, headers=sorted(headers)):
                    status, _, raw = post(self.provider, path, request_body(protocol), headers)
                    self.assertEqual(status, 401)
                    body = json.loads(raw)
                    if protocol == ANTHROPIC_MESSAGES:
                        self.assertEqual(body["error"]["type"], "authentication_error")
                    else:
                        self.assertEqual(body["error"]["code"], "invalid_api_key")
        self.assertEqual({record.key_ok for record in self.provider.requests()}, {False})
        self.assertEqual(self.provider.pending(), 0)

    def test_anthropic_accepts_its_key_as_x_api_key_or_bearer_token(self):
        for headers in ({"x-api-key": KEY}, {"Authorization": f"Bearer {KEY}"}):
            status, _, _ = post(self.provider, "/v1/messages", request_body(ANTHROPIC_MESSAGES), headers)
            self.assertEqual(status, 200)
        status, _, _ = post(self.provider, "/v1/chat/completions", request_body(OPENAI_CHAT), {"x-api-key": KEY})
        self.assertEqual(status, 401, "the OpenAI protocols take the key only as a bearer token")

    def test_record_holds_method_path_parsed_body_and_no_secret(self):
        body = request_body(OPENAI_CHAT)
        post(self.provider, "/v1/chat/completions?trace=1", body, {**key_headers(OPENAI_CHAT), "Cookie": "a=b",
                                                                     "X-Custom": "kept"})
        record = self.provider.requests()[0]
        self.assertEqual((record.method, record.path, record.query), ("POST", "/v1/chat/completions", "trace=1"))
        self.assertEqual(record.body, body)
        self.assertEqual(record.protocol, OPENAI_CHAT)
        self.assertTrue(record.key_ok)
        self.assertEqual(record.status, 200)
        self.assertEqual(record.headers["authorization"], REDACTED)
        self.assertEqual(record.headers["cookie"], REDACTED)
        self.assertEqual(record.headers["x-custom"], "kept")
        self.assertNotIn(KEY, json.dumps(record.__dict__))

    def test_scripted_failures_answer_each_status_with_the_protocol_error(self):
        anthropic_types = {429: "rate_limit_error", 500: "api_error", 503: "api_error",
                           OVERLOADED: "overloaded_error"}
        for protocol, path in PATHS.items():
            for status in (429, 500, 503, OVERLOADED):
                with self.subTest(protocol=protocol, status=status):
                    self.provider.script(failure(status, retry_after="2" if status == 429 else None))
                    sent, headers, raw = post(self.provider, path, request_body(protocol), key_headers(protocol))
                    body = json.loads(raw)
                    if protocol == ANTHROPIC_MESSAGES:
                        self.assertEqual(sent, status)
                        self.assertEqual(body["type"], "error")
                        self.assertEqual(body["error"]["type"], anthropic_types[status])
                    else:
                        self.assertEqual(sent, 503 if status == OVERLOADED else status)
                        self.assertIn("message", body["error"])
                        self.assertIn("type", body["error"])
                    if status == 429:
                        self.assertEqual(headers["retry-after"], "2")

    def test_in_stream_error_event_follows_the_first_chunks(self):
        for protocol, path in PATHS.items():
            with self.subTest(protocol=protocol):
                self.provider.script(stream_failure(OVERLOADED, after_chunks=2))
                status, _, raw = post(self.provider, path, request_body(protocol, stream=True), key_headers(protocol))
                self.assertEqual(status, 200)
                events = sse_events(raw)
                self.assertEqual(len(events), 3)
                name, data = events[-1]
                error = json.loads(data)
                if protocol == OPENAI_CHAT:
                    self.assertIsNone(name)
                    self.assertIn("overloaded", error["error"]["message"])
                else:
                    self.assertEqual(name, "error")
                    self.assertEqual(error["type"], "error")

    def test_scripted_time_out_holds_the_request_until_the_client_gives_up(self):
        self.provider.script(timeout(seconds=30))
        started = time.monotonic()
        with self.assertRaises(socket.timeout):
            post(self.provider, "/v1/messages", request_body(ANTHROPIC_MESSAGES), key_headers(ANTHROPIC_MESSAGES),
                 timeout=CLIENT_TIMEOUT_SECONDS)
        self.assertGreaterEqual(time.monotonic() - started, CLIENT_TIMEOUT_SECONDS)
        self.assertEqual(self.provider.requests()[0].status, 0)

    def test_dropped_connections_before_the_status_line_and_mid_stream(self):
        self.provider.script(dropped(0))
        with self.assertRaises((http.client.RemoteDisconnected, ConnectionError)):
            post(self.provider, "/v1/responses", request_body(OPENAI_RESPONSES), key_headers(OPENAI_RESPONSES))
        self.provider.script(dropped(after_chunks=3))
        with self.assertRaises(http.client.IncompleteRead):
            post(self.provider, "/v1/responses", request_body(OPENAI_RESPONSES, stream=True),
                 key_headers(OPENAI_RESPONSES))

    def test_first_byte_and_chunk_delays_hold_the_answer_back(self):
        self.provider.script(Reply(first_byte_delay=SCRIPTED_DELAY_SECONDS))
        started = time.monotonic()
        post(self.provider, "/v1/chat/completions", request_body(OPENAI_CHAT), key_headers(OPENAI_CHAT))
        self.assertGreaterEqual(time.monotonic() - started, SCRIPTED_DELAY_SECONDS)
        # Five words and the closing events: well over four chunk delays in all.
        self.provider.script(Reply(chunk_delay=SCRIPTED_DELAY_SECONDS / 4))
        started = time.monotonic()
        post(self.provider, "/v1/chat/completions", request_body(OPENAI_CHAT, stream=True), key_headers(OPENAI_CHAT))
        self.assertGreaterEqual(time.monotonic() - started, SCRIPTED_DELAY_SECONDS)

    def test_script_queue_then_responder_then_default_reply(self):
        self.provider.script(Reply(text="scripted for chat"), when=lambda record: record.protocol == OPENAI_CHAT)
        self.provider.script(Reply(text="first in line"))
        self.provider.responder = lambda record: Reply(text="from the responder") if record.stream else None

        def text_of(protocol, stream=False):
            _, _, raw = post(self.provider, PATHS[protocol], request_body(protocol, stream), key_headers(protocol))
            return streamed_text(protocol, sse_events(raw)) if stream else json.loads(raw)["content"][0]["text"]

        self.assertEqual(text_of(ANTHROPIC_MESSAGES), "first in line")
        self.assertEqual(text_of(ANTHROPIC_MESSAGES, stream=True), "from the responder")
        self.assertEqual(text_of(ANTHROPIC_MESSAGES), DEFAULT_TEXT)
        self.assertEqual(self.provider.pending(), 1)
        _, _, raw = post(self.provider, "/v1/chat/completions", request_body(OPENAI_CHAT), key_headers(OPENAI_CHAT))
        self.assertEqual(json.loads(raw)["choices"][0]["message"]["content"], "scripted for chat")
        self.assertEqual(self.provider.pending(), 0)

    def test_models_and_token_counts_answer_in_the_asking_protocol_shape(self):
        connection = http.client.HTTPConnection("127.0.0.1", self.provider.port, timeout=HTTP_TIMEOUT_SECONDS)
        self.addCleanup(connection.close)
        connection.request("GET", "/v1/models", headers=key_headers(OPENAI_CHAT))
        self.assertEqual(json.loads(connection.getresponse().read())["object"], "list")
        connection.request("GET", "/v1/models", headers=key_headers(ANTHROPIC_MESSAGES))
        self.assertEqual(json.loads(connection.getresponse().read())["data"][0]["type"], "model")
        status, _, raw = post(self.provider, "/v1/messages/count_tokens", request_body(ANTHROPIC_MESSAGES),
                              key_headers(ANTHROPIC_MESSAGES))
        self.assertEqual(status, 200)
        self.assertGreater(json.loads(raw)["input_tokens"], 0)
        self.assertEqual(self.provider.model_requests(), [], "neither counts as a model request")

    def test_unknown_paths_are_recorded_and_answered_404(self):
        status, _, _ = post(self.provider, "/v1/embeddings", {"input": "x"}, key_headers(OPENAI_CHAT))
        self.assertEqual(status, 404)
        self.assertEqual(self.provider.requests("/v1/embeddings")[0].body, {"input": "x"})

    def test_control_endpoints_script_and_read_a_running_fake(self):
        status, _, raw = post(self.provider, "/_fake/script", {"replies": [
            {"text": "", "tool_calls": [{"name": "run", "arguments": {"cmd": "ls"}}]}, {"status": 429}]}, {})
        self.assertEqual((status, json.loads(raw)), (200, {"pending": 2}))
        _, _, raw = post(self.provider, "/v1/messages", request_body(ANTHROPIC_MESSAGES),
                         key_headers(ANTHROPIC_MESSAGES))
        self.assertEqual(json.loads(raw)["content"][0]["input"], {"cmd": "ls"})
        status, _, _ = post(self.provider, "/v1/messages", request_body(ANTHROPIC_MESSAGES),
                            key_headers(ANTHROPIC_MESSAGES))
        self.assertEqual(status, 429)
        connection = http.client.HTTPConnection("127.0.0.1", self.provider.port, timeout=HTTP_TIMEOUT_SECONDS)
        self.addCleanup(connection.close)
        connection.request("GET", "/_fake/requests")
        recorded = json.loads(connection.getresponse().read())["requests"]
        # The control calls themselves stay out of the record: it holds client traffic only.
        self.assertEqual([(record["path"], record["status"]) for record in recorded],
                         [("/v1/messages", 200), ("/v1/messages", 429)])


class StandaloneTest(unittest.TestCase):
    def test_program_prints_its_address_and_serves_until_terminated(self):
        process = subprocess.Popen([sys.executable, os.path.join(HERE, "fake_provider.py"), "--port", "0",
                                    "--key", KEY, "--text", "standalone"],
                                   stdout=subprocess.PIPE, text=True,
                                   env={**os.environ, "PYTHONDONTWRITEBYTECODE": "1"})
        self.addCleanup(process.stdout.close)
        self.addCleanup(process.kill)
        url = process.stdout.readline().strip()
        self.assertRegex(url, r"^http://127\.0\.0\.1:\d+$")
        provider = FakeProvider()
        provider.port = int(url.rsplit(":", 1)[1])
        _, _, raw = post(provider, "/v1/chat/completions", request_body(OPENAI_CHAT), key_headers(OPENAI_CHAT))
        self.assertEqual(json.loads(raw)["choices"][0]["message"]["content"], "standalone")
        process.terminate()
        self.assertEqual(process.wait(timeout=HTTP_TIMEOUT_SECONDS), 0)


def run_sdk(peers, script, cases):
    """Runs one SDK check script over `cases`; returns its list of results."""
    cases = [dict(case, nodeModules=peers.node_modules) for case in cases]
    result = subprocess.run(["node", os.path.join(HERE, "npm", script), json.dumps(cases)], capture_output=True,
                            text=True, timeout=NODE_TIMEOUT_SECONDS)
    if result.returncode != 0 or not result.stdout.strip():
        raise AssertionError(f"{script} failed:\n{result.stderr}")
    return json.loads(result.stdout)


class OfficialSdkTest(unittest.TestCase):
    """The official `openai` and `@anthropic-ai/sdk` packages as the clients of the fake."""

    def setUp(self):
        self.peers = npm_peers.require(self)
        self.provider = FakeProvider(expected_key=KEY).start()
        self.addCleanup(self.provider.stop)
        self.apis = [("openai_sdk_check.cjs", self.provider.openai_base_url, "chat"),
                     ("openai_sdk_check.cjs", self.provider.openai_base_url, "responses"),
                     ("anthropic_sdk_check.cjs", self.provider.url, "messages")]

    def test_sdks_complete_text_and_tool_calls_streamed_and_not_with_usage(self):
        for script, base_url, api in self.apis:
            cases = []
            for stream in (False, True):
                for tools in (False, True):
                    self.provider.script(Reply(text="Let me look." if tools else "Hello there.",
                                               tool_calls=[TOOL] if tools else [], input_tokens=INPUT_TOKENS,
                                               output_tokens=OUTPUT_TOKENS))
                    cases.append({"baseURL": base_url, "apiKey": KEY, "api": api, "stream": stream, "tools": tools})
            for case, result in zip(cases, run_sdk(self.peers, script, cases)):
                with self.subTest(api=api, stream=case["stream"], tools=case["tools"]):
                    self.assertTrue(result["ok"], result)
                    self.assertEqual(result["text"], "Let me look." if case["tools"] else "Hello there.")
                    calls = [(call["name"], call["arguments"]) for call in result["toolCalls"]]
                    self.assertEqual(calls, [("get_weather", {"city": "Paris"})] if case["tools"] else [])
                    self.assertEqual((result["usage"]["input"], result["usage"]["output"]),
                                     (INPUT_TOKENS, OUTPUT_TOKENS))
        streamed = [record.stream for record in self.provider.model_requests()]
        self.assertEqual(streamed, [False, False, True, True] * 3)

    def test_sdks_see_scripted_failures_as_their_own_error_classes(self):
        failures = [
            (failure(429), False, {"chat": "RateLimitError", "messages": "RateLimitError"}),
            (failure(500), False, {"chat": "InternalServerError", "messages": "InternalServerError"}),
            (failure(503), False, {"chat": "InternalServerError", "messages": "ServiceUnavailableError"}),
            (failure(OVERLOADED), False, {"chat": "InternalServerError", "messages": "OverloadedError"}),
            (timeout(seconds=10), False,
             {"chat": "APIConnectionTimeoutError", "messages": "APIConnectionTimeoutError"}),
            (dropped(0), False, {"chat": "APIConnectionError", "messages": "APIConnectionError"}),
            (dropped(after_chunks=3), True, {"chat": "OpenAIError", "messages": "AnthropicError"}),
            (stream_failure(OVERLOADED, after_chunks=3), True, {"chat": "APIError", "messages": "APIError"}),
        ]
        for script, base_url, api in self.apis:
            cases = []
            for reply, stream, _ in failures:
                self.provider.script(reply)
                cases.append({"baseURL": base_url, "apiKey": KEY, "api": api, "stream": stream, "timeoutMs": 500})
            for (reply, stream, expected), result in zip(failures, run_sdk(self.peers, script, cases)):
                with self.subTest(api=api, status=reply.status, stream=stream):
                    self.assertFalse(result["ok"], result)
                    self.assertEqual(result["errorClass"], expected["messages" if api == "messages" else "chat"])

    def test_sdk_retries_a_scripted_rate_limit_and_the_record_shows_both_tries(self):
        for script, base_url, api in self.apis:
            with self.subTest(api=api):
                self.provider.reset()
                self.provider.script(failure(429, retry_after="0"))
                [result] = run_sdk(self.peers, script, [{"baseURL": base_url, "apiKey": KEY, "api": api,
                                                         "maxRetries": 2}])
                self.assertTrue(result["ok"], result)
                self.assertEqual(result["text"], DEFAULT_TEXT)
                tries = self.provider.model_requests()
                self.assertEqual([record.status for record in tries], [429, 200])
                self.assertEqual([record.headers["x-stainless-retry-count"] for record in tries], ["0", "1"])


def free_port():
    with socket.socket() as probe:
        probe.bind(("127.0.0.1", 0))
        return probe.getsockname()[1]


def listening_addresses(port):
    """The local addresses of the IPv4 and IPv6 sockets listening on `port`, from /proc."""
    addresses = []
    for table in ("/proc/net/tcp", "/proc/net/tcp6"):
        with open(table, encoding="ascii") as handle:
            for line in handle.readlines()[1:]:
                local, state = line.split()[1], line.split()[3]
                address, hex_port = local.rsplit(":", 1)
                if state == "0A" and int(hex_port, 16) == port:  # 0A: LISTEN
                    addresses.append(address)
    return addresses


class GatewayPeerTest(unittest.TestCase):
    """The pinned Portkey gateway, started as benchmarks will start it, relays to the fake."""

    def setUp(self):
        self.peers = npm_peers.require(self)
        self.provider = FakeProvider(expected_key=KEY).start()
        self.addCleanup(self.provider.stop)
        self.port = free_port()
        self.gateway = subprocess.Popen(self.peers.gateway_command(self.port), stdout=subprocess.DEVNULL,
                                        stderr=subprocess.DEVNULL, env={**os.environ, **npm_peers.GATEWAY_ENV})
        self.addCleanup(self.gateway.wait, GATEWAY_START_SECONDS)
        self.addCleanup(self.gateway.terminate)
        deadline = time.monotonic() + GATEWAY_START_SECONDS
        while not listening_addresses(self.port):
            if time.monotonic() > deadline or self.gateway.poll() is not None:
                self.fail("the gateway did not start listening")
            time.sleep(GATEWAY_POLL_SECONDS)

    def test_gateway_listens_on_loopback_only_and_relays_both_protocols_to_the_fake(self):
        self.assertEqual(listening_addresses(self.port), ["0100007F"], "127.0.0.1 and nothing else")
        gateway = FakeProvider()
        gateway.port = self.port
        status, _, raw = post(gateway, "/v1/chat/completions", request_body(OPENAI_CHAT), {
            **key_headers(OPENAI_CHAT), "x-portkey-provider": "openai",
            "x-portkey-custom-host": self.provider.openai_base_url})
        self.assertEqual(status, 200, raw)
        self.assertEqual(json.loads(raw)["choices"][0]["message"]["content"], DEFAULT_TEXT)
        status, _, raw = post(gateway, "/v1/messages", request_body(ANTHROPIC_MESSAGES), {
            **key_headers(ANTHROPIC_MESSAGES), "x-portkey-provider": "anthropic",
            "x-portkey-custom-host": self.provider.url + "/v1"})
        self.assertEqual(status, 200, raw)
        self.assertEqual(json.loads(raw)["content"][0]["text"], DEFAULT_TEXT)
        records = self.provider.model_requests()
        self.assertEqual([(record.path, record.key_ok) for record in records],
                         [("/v1/chat/completions", True), ("/v1/messages", True)])


if __name__ == "__main__":
    unittest.main()
