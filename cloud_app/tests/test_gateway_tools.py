"""Tool calls through the gateway, between any caller protocol and any lane protocol, and
streams passed on as the provider sends them; then Claude Code itself, holding a gateway key."""

import json
import subprocess
import time
import unittest
import urllib.request

import npm_peers
from agent_clis import CLAUDE_OFFLINE_ENV, CliHome
from fake_provider import ANTHROPIC_MESSAGES, OPENAI_CHAT, OPENAI_RESPONSES, Reply, ToolCall, stream_failure
from test_fake_provider import run_sdk
from test_gateway import ANTHROPIC, GatewayTestCase

WEATHER = ToolCall("get_weather", {"city": "Paris"}, call_id="call_weather_1")
WEATHER_TOOL = {"type": "function", "function": {"name": "get_weather", "description": "The weather of a city.",
                                                 "parameters": {"type": "object",
                                                                "properties": {"city": {"type": "string"}},
                                                                "required": ["city"]}}}
LANES = ("chat", "chat-stream", "responses", "responses-stream", "messages", "messages-stream")
LANE_PROTOCOL = {"chat": OPENAI_CHAT, "responses": OPENAI_RESPONSES, "messages": ANTHROPIC_MESSAGES}
# A streamed reply whose chunks come this far apart (less than the silence the relay allows a
# provider here): far enough that the caller's first text, if it is passed on as it comes, arrives
# well before the provider's answer ends.
CHUNK_DELAY_SECONDS = 0.3
CLAUDE_TIMEOUT_SECONDS = 180


def declared_names(body, protocol):
    """The tool names a provider request declares, read the way its protocol declares them."""
    if protocol == OPENAI_CHAT:
        return [tool["function"]["name"] for tool in body["tools"]]
    return [tool["name"] for tool in body["tools"]]


class ToolTranslationTest(GatewayTestCase):
    def setUp(self):
        super().setUp()
        self.peers = npm_peers.require(self)
        self.base_url = f"http://127.0.0.1:{self.relay.port}/v1"

    def test_each_sdk_gets_a_providers_tool_call_from_every_lane_protocol_streamed_and_not(self):
        secret = self.new_key()["key"]
        for script, api in (("openai_sdk_check.cjs", "chat"), ("openai_sdk_check.cjs", "responses"),
                            ("anthropic_sdk_check.cjs", "messages")):
            cases = [{"baseURL": self.base_url, "apiKey": secret, "api": api, "stream": stream, "tools": True,
                      "model": model} for model in LANES for stream in (False, True)]
            self.fake.reset()
            self.fake.script(*[Reply(text="", tool_calls=[WEATHER], input_tokens=20, output_tokens=7)
                               for _ in cases])
            results = run_sdk(self.peers, script, cases)
            requests = self.fake.model_requests()
            self.assertEqual(len(requests), len(cases))
            for case, result, request in zip(cases, results, requests):
                with self.subTest(api=api, lane=case["model"], stream=case["stream"]):
                    self.assertTrue(result["ok"], result)
                    [call] = result["toolCalls"]
                    self.assertEqual((call["name"], call["arguments"]), ("get_weather", {"city": "Paris"}))
                    self.assertEqual(call["id"], "call_weather_1")
                    self.assertEqual(result["finishReason"], {"chat": "tool_calls", "responses": "completed",
                                                              "messages": "tool_use"}[api])
                    self.assertEqual((result["usage"]["input"], result["usage"]["output"]), (20, 7))
                    protocol = LANE_PROTOCOL[case["model"].split("-")[0]]
                    self.assertEqual(request.protocol, protocol)
                    self.assertEqual(declared_names(request.body, protocol), ["get_weather"])

    def test_a_conversation_with_a_tool_result_reaches_each_lane_in_its_protocols_shape(self):
        secret = self.new_key()["key"]
        chat = {"max_tokens": 100, "tools": [WEATHER_TOOL], "messages": [
            {"role": "user", "content": "Weather in Paris?"},
            {"role": "assistant", "content": None, "tool_calls": [
                {"id": "call_1", "type": "function",
                 "function": {"name": "get_weather", "arguments": "{\"city\":\"Paris\"}"}}]},
            {"role": "tool", "tool_call_id": "call_1", "content": "Sunny, 21 C"}]}
        expected = {
            "messages": lambda body: (body["messages"][1], body["messages"][2]) == (
                {"role": "assistant", "content": [{"type": "tool_use", "id": "call_1", "name": "get_weather",
                                                   "input": {"city": "Paris"}}]},
                {"role": "user", "content": [{"type": "tool_result", "tool_use_id": "call_1",
                                              "content": "Sunny, 21 C"}]}),
            "responses": lambda body: body["input"][1:] == [
                {"type": "function_call", "call_id": "call_1", "name": "get_weather",
                 "arguments": "{\"city\":\"Paris\"}"},
                {"type": "function_call_output", "call_id": "call_1", "output": "Sunny, 21 C"}],
            "chat": lambda body: body["messages"][1:] == chat["messages"][1:]}
        for model, check in expected.items():
            with self.subTest(lane=model):
                self.fake.reset()
                self.fake.script(Reply(text="It is sunny."))
                status, answer, _ = self.as_key("POST", "v1/chat/completions", secret, dict(chat, model=model))
                self.assertEqual(status, 200, answer)
                self.assertEqual(answer["choices"][0]["message"]["content"], "It is sunny.")
                [request] = self.fake.model_requests()
                self.assertTrue(check(request.body), json.dumps(request.body))

    def test_an_anthropic_tool_result_with_text_reaches_an_openai_lane_as_a_tool_message_then_the_text(self):
        secret = self.new_key()["key"]
        body = {"model": "chat", "max_tokens": 100, "system": [{"type": "text", "text": "Be brief."}],
                "tools": [{"name": "get_weather", "input_schema": WEATHER_TOOL["function"]["parameters"]}],
                "messages": [
                    {"role": "user", "content": "Weather in Paris?"},
                    {"role": "assistant", "content": [
                        {"type": "thinking", "thinking": "Look it up.", "signature": "sig"},
                        {"type": "text", "text": "Checking."},
                        {"type": "tool_use", "id": "toolu_1", "name": "get_weather", "input": {"city": "Paris"}}]},
                    {"role": "user", "content": [
                        {"type": "tool_result", "tool_use_id": "toolu_1", "is_error": True,
                         "content": [{"type": "text", "text": "service down"}]},
                        {"type": "text", "text": "Guess then."}]}]}
        self.fake.script(Reply(text="Probably sunny."))
        status, answer, _ = self.as_key("POST", "v1/messages", secret, body, header="x-api-key", headers=ANTHROPIC)
        self.assertEqual(status, 200, answer)
        self.assertEqual(answer["content"], [{"type": "text", "text": "Probably sunny."}])
        [request] = self.fake.model_requests()
        self.assertEqual(request.body["messages"], [
            {"role": "system", "content": "Be brief."},
            {"role": "user", "content": "Weather in Paris?"},
            {"role": "assistant", "content": "Checking.", "tool_calls": [
                {"id": "toolu_1", "type": "function",
                 "function": {"name": "get_weather", "arguments": "{\"city\":\"Paris\"}"}}]},
            {"role": "tool", "tool_call_id": "toolu_1", "content": "service down"},
            {"role": "user", "content": "Guess then."}])
        self.assertEqual(request.body["tools"][0]["function"]["name"], "get_weather")

    def test_tools_and_content_the_relay_cannot_carry_are_refused_by_name(self):
        secret = self.new_key()["key"]
        cases = [
            ("v1/messages", {"model": "chat", "max_tokens": 10, "messages": [{"role": "user", "content": "hi"}],
                             "tools": [{"type": "web_search_20250305", "name": "web_search"}]},
             "tools[0].type web_search_20250305 is not supported by this relay yet; declare custom tools"),
            ("v1/messages", {"model": "chat", "max_tokens": 10, "messages": [{"role": "user", "content": "hi"}],
                             "tool_choice": {"type": "any"}},
             "tool_choice other than automatic is not supported by this relay yet"),
            ("v1/messages", {"model": "chat", "max_tokens": 10, "messages": [{"role": "user", "content": [
                {"type": "image", "source": {"type": "base64", "media_type": "image/png", "data": "AA=="}}]}]},
             "messages[0].content[0].type image is not supported by this relay yet"),
            ("v1/chat/completions", {"model": "chat", "messages": [{"role": "user", "content": "hi"}],
                                     "tool_choice": "required", "tools": [WEATHER_TOOL]},
             "tool_choice other than automatic is not supported by this relay yet"),
            ("v1/chat/completions", {"model": "chat", "messages": [
                {"role": "user", "content": "hi"}, {"role": "assistant", "tool_calls": [{"id": "c"}]}]},
             "messages[1].tool_calls[0].function must be a JSON object"),
            ("v1/responses", {"model": "chat", "input": "hi", "tools": [{"type": "web_search"}]},
             "tools[0].type web_search is not supported by this relay yet; declare function tools"),
        ]
        for path, body, message in cases:
            with self.subTest(path=path, message=message):
                headers = ANTHROPIC if path == "v1/messages" else None
                status, answer, _ = self.as_key("POST", path, secret, body, headers=headers)
                self.assertError(answer, status, 400, message=message)
        self.assertEqual(self.fake.model_requests(), [])


class LiveStreamTest(GatewayTestCase):
    def stream(self, path, secret, body, headers=None):
        """(seconds from sending to each event, the events) of a streamed answer, read as it comes."""
        request = urllib.request.Request(f"http://127.0.0.1:{self.relay.port}/{path}", data=json.dumps(body).encode(),
                                          method="POST", headers=dict(headers or {}, Authorization=f"Bearer {secret}",
                                                                      **{"Content-Type": "application/json"}))
        started, events = time.monotonic(), []
        with urllib.request.urlopen(request, timeout=30) as answer:
            self.assertEqual(answer.status, 200)
            for line in answer:
                if line.startswith(b"data: ") and line.strip() != b"data: [DONE]":
                    events.append((time.monotonic() - started, json.loads(line[6:])))
        return events

    def test_text_reaches_the_caller_as_the_provider_sends_it_in_every_callers_protocol(self):
        secret = self.new_key()["key"]
        asks = [("v1/chat/completions", {"model": "chat-stream", "stream": True,
                                         "messages": [{"role": "user", "content": "Count"}]}, None,
                 lambda event: event.get("choices") and event["choices"][0]["delta"].get("content")),
                ("v1/messages", {"model": "messages-stream", "stream": True, "max_tokens": 50,
                                 "messages": [{"role": "user", "content": "Count"}]}, ANTHROPIC,
                 lambda event: event.get("type") == "content_block_delta"),
                ("v1/responses", {"model": "responses-stream", "stream": True, "input": "Count"}, None,
                 lambda event: event.get("type") == "response.output_text.delta")]
        for path, body, headers, is_text in asks:
            with self.subTest(path=path):
                self.fake.script(Reply(text="one two three", chunk_delay=CHUNK_DELAY_SECONDS))
                events = self.stream(path, secret, body, headers)
                texts = [(at, event) for at, event in events if is_text(event)]
                self.assertGreaterEqual(len(texts), 2, events)
                # The first words were passed on while the provider was still sending the rest.
                self.assertLess(texts[0][0], events[-1][0] - CHUNK_DELAY_SECONDS / 2)

    def test_a_stream_that_breaks_after_text_has_gone_out_ends_with_an_error_event_and_no_other_lane(self):
        # Auto routes to the streamed chat lane first, with a lane to fall back on.
        secret = self.new_key(allowed_models=["chat-stream", "messages"])["key"]
        self.fake.script(stream_failure(529, after_chunks=3), Reply(text="Other lane."))
        events = self.stream("v1/messages", secret, {"model": "auto", "stream": True, "max_tokens": 50,
                                                     "messages": [{"role": "user", "content": "Count"}]}, ANTHROPIC)
        kinds = [event["type"] for _, event in events]
        self.assertEqual(kinds[0], "message_start")
        self.assertIn("content_block_delta", kinds)
        self.assertEqual(events[-1][1]["type"], "error")
        self.assertEqual(events[-1][1]["error"]["type"], "api_error")
        self.assertNotIn("Other lane.", json.dumps([event for _, event in events]))
        self.assertEqual(len(self.fake.model_requests()), 1)


class ClaudeCodeThroughGatewayTest(GatewayTestCase):
    """`claude -p`, holding a gateway key, with the gateway as its Anthropic endpoint. Its main
    lane here speaks OpenAI Chat, so its tools and their results cross protocols both ways."""

    FINAL_TEXT = "The command ran."

    def setUp(self):
        super().setUp()
        self.peers = npm_peers.require(self)
        self.home = CliHome()
        self.addCleanup(self.home.close)

    def run_claude(self, secret, prompt, *extra, retries=None):
        env = self.home.base_environment()
        env.update(CLAUDE_OFFLINE_ENV)
        env.update({"ANTHROPIC_BASE_URL": f"http://127.0.0.1:{self.relay.port}", "ANTHROPIC_API_KEY": secret,
                    "ANTHROPIC_MODEL": "chat-stream", "ANTHROPIC_SMALL_FAST_MODEL": "chat-stream"})
        if retries is not None:
            env["CLAUDE_CODE_MAX_RETRIES"] = str(retries)
        return subprocess.run([self.peers.claude, "-p", prompt, *extra], env=env, cwd=self.home.work,
                              capture_output=True, text=True, timeout=CLAUDE_TIMEOUT_SECONDS, stdin=subprocess.DEVNULL)

    def test_claude_completes_a_prompt_and_a_tool_loop_through_the_gateway_then_fails_once_revoked(self):
        created = self.new_key()
        self.fake.default_reply = Reply(text="Hello from the gateway.")
        run = self.run_claude(created["key"], "Say hello")
        self.assertEqual(run.returncode, 0, run.stderr + run.stdout)
        self.assertEqual(run.stdout.strip(), "Hello from the gateway.")
        requests = self.fake.model_requests()
        self.assertTrue(requests)
        self.assertTrue(all(request.protocol == OPENAI_CHAT for request in requests))
        main = [request for request in requests if request.body.get("tools")]
        self.assertTrue(main, "Claude's main request declares its tools")
        self.assertIn("Bash", [tool["function"]["name"] for tool in main[0].body["tools"]])

        self.fake.reset()
        asked = ToolCall("Bash", {"command": "echo hi", "description": "Say hi"}, call_id="call_bash_1")

        def respond(recorded):
            names = [tool["function"]["name"] for tool in recorded.body.get("tools") or []]
            if "Bash" not in names:
                return None
            said = [message for message in recorded.body["messages"] if message["role"] == "tool"]
            return Reply(text=self.FINAL_TEXT) if said else Reply(text="", tool_calls=[asked])
        self.fake.responder = respond
        run = self.run_claude(created["key"], "Run echo hi", "--permission-mode", "bypassPermissions")
        self.assertEqual(run.returncode, 0, run.stderr + run.stdout)
        self.assertEqual(run.stdout.strip(), self.FINAL_TEXT)
        second = [request for request in self.fake.model_requests()
                  if any(message["role"] == "tool" for message in request.body["messages"])]
        self.assertTrue(second)
        [result] = [message for message in second[0].body["messages"] if message["role"] == "tool"]
        self.assertEqual((result["tool_call_id"], result["content"]), ("call_bash_1", "hi"))
        self.fake.responder = None

        self.assertEqual(self.call("DELETE", f"v1/router/api-keys/{created['id']}")[0], 200)
        # The CLI retries a refused call with growing pauses; one try shows what the relay said.
        run = self.run_claude(created["key"], "Say hello", retries=0)
        self.assertNotEqual(run.returncode, 0)
        self.assertIn("401", run.stdout + run.stderr)
        self.assertIn("this gateway key is revoked", run.stdout + run.stderr)


if __name__ == "__main__":
    unittest.main()
