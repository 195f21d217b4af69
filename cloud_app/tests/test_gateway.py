"""The gateway through the relay: programs holding a gateway key, authenticated as OpenAI and
Anthropic clients authenticate, reaching only the gateway's paths and only the lanes their key
allows, with errors in their own protocol's shape."""

import concurrent.futures
import copy
import json
import sqlite3
import time
import unittest

import npm_peers
from fake_provider import Reply, failure
from support import GATEWAY_KEY, ROUTES
from test_fake_provider import run_sdk
from relaylib.modelrouter.ratelimit import KeyRateLimiter, RateLimited
from test_router import RouterTestCase

ANTHROPIC = {"anthropic-version": "2023-06-01"}


class GatewayTestCase(RouterTestCase):
    def new_key(self, **changes):
        body = copy.deepcopy(GATEWAY_KEY)
        body.update(changes)
        status, created, _ = self.call("POST", "v1/router/api-keys", body)
        self.assertEqual(status, 200, created)
        return created

    def as_key(self, method, path, secret, body=None, header="bearer", headers=None):
        sent = dict(headers or {})
        if header == "bearer":
            return self.call(method, path, body, token=secret, headers=sent)
        sent["x-api-key"] = secret
        return self.call(method, path, body, token=None, headers=sent)


class KeyAuthenticationTest(GatewayTestCase):
    def test_models_lists_the_ready_lanes_for_a_bearer_key_and_an_x_api_key(self):
        secret = self.new_key()["key"]
        for header, extra in (("bearer", {}), ("x-api-key", ANTHROPIC)):
            with self.subTest(header=header):
                status, answer, _ = self.as_key("GET", "v1/models", secret, header=header, headers=extra)
                self.assertEqual(status, 200, answer)
                ids = [model["id"] for model in answer["data"]]
                self.assertEqual(ids[0], "auto")
                self.assertEqual(sorted(ids[1:]), sorted(["chat", "chat-stream", "responses", "responses-stream",
                                                          "messages", "messages-stream"]))
                self.assertEqual((answer["object"], answer["has_more"]), ("list", False))
                self.assertEqual((answer["first_id"], answer["last_id"]), (ids[0], ids[-1]))
                for model in answer["data"]:
                    self.assertEqual((model["object"], model["type"]), ("model", "model"))

    def test_allowlists_and_retention_narrow_the_models_a_key_reaches(self):
        only_chat = self.new_key(allowed_models=["chat", "messages"])["key"]
        ids = [model["id"] for model in self.as_key("GET", "v1/models", only_chat)[1]["data"]]
        self.assertEqual(ids, ["auto", "chat", "messages"])
        other_provider = self.new_key(allowed_providers=["someone-else"])["key"]
        self.assertEqual([model["id"] for model in self.as_key("GET", "v1/models", other_provider)[1]["data"]],
                         ["auto"])
        by_slug = self.new_key(allowed_providers=["fake/127.0.0.1:%d" % self.fake.port])["key"]
        self.assertEqual(len(self.as_key("GET", "v1/models", by_slug)[1]["data"]), 7)
        # The fake provider's lanes are in the "other" group and keep data: enforcing it leaves none.
        zdr = self.new_key(enforce_zdr_other=True)["key"]
        self.assertEqual([model["id"] for model in self.as_key("GET", "v1/models", zdr)[1]["data"]], ["auto"])

    def test_a_missing_wrong_revoked_or_expired_key_is_refused_in_the_callers_shape(self):
        created = self.new_key()
        status, answer, _ = self.call("GET", "v1/models", token=None)
        self.assertEqual(status, 401)
        self.assertEqual(answer["error"]["type"], "authentication_error")
        status, answer, _ = self.as_key("GET", "v1/models", "qmk_not-a-key")
        self.assertEqual((status, answer["error"]["message"]), (401, "invalid gateway key"))
        self.assertEqual(answer["error"]["code"], "authentication_error")
        status, answer, _ = self.as_key("GET", "v1/models", "wrong", header="x-api-key", headers=ANTHROPIC)
        self.assertEqual((status, answer["type"], answer["error"]["type"]), (401, "error", "authentication_error"))
        self.assertEqual(self.as_key("GET", "v1/models", created["key"])[0], 200)
        self.assertEqual(self.call("DELETE", f"v1/router/api-keys/{created['id']}")[0], 200)
        status, answer, _ = self.as_key("GET", "v1/models", created["key"], header="x-api-key", headers=ANTHROPIC)
        self.assertEqual((status, answer["error"]["type"]), (401, "authentication_error"))
        self.assertEqual(answer["error"]["message"], "this gateway key is revoked")
        expiring = self.new_key(expires_in_days=30)
        with sqlite3.connect(self.relay.db_path) as conn:
            conn.execute("UPDATE gateway_keys SET expires_at = ? WHERE id = ?", (time.time() - 1, expiring["id"]))
        status, answer, _ = self.as_key("GET", "v1/models", expiring["key"])
        self.assertEqual((status, answer["error"]["message"]), (401, "this gateway key is expired"))

    def test_the_applications_session_may_call_the_gateway_without_a_keys_limits(self):
        status, answer, _ = self.call("GET", "v1/models")
        self.assertEqual((status, len(answer["data"])), (200, 7))
        status, answer, _ = self.call("GET", "v1/models", token="not-a-session")
        self.assertEqual((status, answer["error"]["message"]), (401, "invalid or expired session token"))
        self.assertEqual(answer["error"]["type"], "authentication_error")

    def test_a_gateway_key_reaches_no_other_path_of_the_relay(self):
        secret = self.new_key()["key"]
        gateway_paths = {"v1/models", "v1/chat/completions", "v1/responses", "v1/messages", "v1/v1/messages",
                         "v1/complete"}
        checked = 0
        for method, pattern, auth, body in ROUTES:
            if not auth or pattern in gateway_paths:
                continue
            path = pattern.replace("{id}", "x").replace("{item}", "x")
            for header in ("bearer", "x-api-key"):
                status, answer, _ = self.as_key(method, path, secret, body, header=header)
                self.assertEqual(status, 401, (method, pattern, header, answer))
            checked += 1
        self.assertGreater(checked, 30)

    def test_use_is_shown_as_last_used_at(self):
        created = self.new_key()
        self.assertNotIn("last_used_at", created)
        before = int(time.time())
        self.as_key("GET", "v1/models", created["key"])
        listed = {key["id"]: key for key in self.call("GET", "v1/router/api-keys")[1]}
        self.assertGreaterEqual(listed[created["id"]]["last_used_at"], before)


class CompletionTest(GatewayTestCase):
    CHAT = {"model": "chat", "messages": [{"role": "system", "content": "Be brief."},
                                          {"role": "user", "content": "Hello"},
                                          {"role": "assistant", "content": "Hi."},
                                          {"role": "user", "content": [{"type": "text", "text": "Plan it."}]}],
            "max_tokens": 300}

    def test_a_chat_completion_is_routed_and_answered_in_openais_shape(self):
        created = self.new_key()
        self.fake.script(Reply(text="Planned.", input_tokens=40, output_tokens=3))
        status, answer, _ = self.as_key("POST", "v1/chat/completions", created["key"], self.CHAT)
        self.assertEqual(status, 200, answer)
        self.assertEqual((answer["object"], answer["model"]), ("chat.completion", "chat"))
        self.assertEqual(answer["choices"][0]["message"], {"role": "assistant", "content": "Planned."})
        self.assertEqual(answer["choices"][0]["finish_reason"], "stop")
        self.assertEqual(answer["usage"], {"prompt_tokens": 40, "completion_tokens": 3, "total_tokens": 43})
        [sent] = self.fake.model_requests()
        self.assertEqual(sent.body["messages"], [{"role": "system", "content": "Be brief."},
                                                 {"role": "user", "content": "Hello"},
                                                 {"role": "assistant", "content": "Hi."},
                                                 {"role": "user", "content": "Plan it."}])
        self.assertEqual(sent.body["max_completion_tokens"], 300)
        # The generation is the key's: its spending shows in the key's record.
        generation = self.generations()[0]
        self.assertEqual(generation["id"], answer["id"].removeprefix("chatcmpl-"))
        key = {key["id"]: key for key in self.call("GET", "v1/router/api-keys")[1]}[created["id"]]
        self.assertAlmostEqual(key["spent_usd"], (40 * 1.0 + 3 * 4.0) / 1e6)
        self.assertAlmostEqual(key["lifetime_spent_usd"], key["spent_usd"])
        self.assertAlmostEqual(key["remaining_usd"], 5 - key["spent_usd"])

    def test_an_anthropic_message_reaches_a_lane_of_another_protocol_at_either_path(self):
        secret = self.new_key()["key"]
        body = {"model": "responses", "max_tokens": 200, "system": "Be brief.",
                "messages": [{"role": "user", "content": "Hello"}]}
        for path in ("v1/messages", "v1/v1/messages"):
            with self.subTest(path=path):
                self.fake.reset()
                self.fake.script(Reply(text="Hi.", input_tokens=10, output_tokens=2))
                status, answer, _ = self.as_key("POST", path, secret, body, header="x-api-key", headers=ANTHROPIC)
                self.assertEqual(status, 200, answer)
                self.assertEqual((answer["type"], answer["role"], answer["model"]), ("message", "assistant", "responses"))
                self.assertEqual(answer["content"], [{"type": "text", "text": "Hi."}])
                self.assertEqual(answer["usage"], {"input_tokens": 10, "output_tokens": 2})
                self.assertEqual(answer["stop_reason"], "end_turn")
                [sent] = self.fake.model_requests()
                self.assertEqual(sent.path, "/v1/responses")
                self.assertEqual(sent.body["instructions"], "Be brief.")

    def test_an_openai_response_reaches_an_anthropic_lane_with_its_conversation(self):
        secret = self.new_key()["key"]
        self.fake.script(Reply(text="Done.", input_tokens=20, output_tokens=2))
        status, answer, _ = self.as_key("POST", "v1/responses", secret, {
            "model": "messages", "instructions": "Be brief.", "max_output_tokens": 50,
            "input": [{"role": "developer", "content": "Answer in English."},
                      {"role": "user", "content": [{"type": "input_text", "text": "Hello"}]}]})
        self.assertEqual(status, 200, answer)
        self.assertEqual((answer["object"], answer["status"], answer["model"]), ("response", "completed", "messages"))
        self.assertEqual(answer["output"][0]["content"][0]["text"], "Done.")
        self.assertEqual(answer["usage"]["total_tokens"], 22)
        [sent] = self.fake.model_requests()
        self.assertEqual(sent.path, "/v1/messages")
        self.assertEqual(sent.body["system"], "Be brief.\n\nAnswer in English.")
        self.assertEqual(sent.body["messages"], [{"role": "user", "content": "Hello"}])
        self.assertEqual(sent.body["max_tokens"], 50)

    def test_the_relays_own_completion_takes_a_key_under_its_rules(self):
        created = self.new_key(allowed_models=["responses"])
        self.fake.script(Reply(text="Planned.", input_tokens=5, output_tokens=1))
        body = {"task": "reason", "input": "Plan it. sk-" + "Z" * 24, "model": "auto", "max_output_tokens": 50}
        status, answer, _ = self.as_key("POST", "v1/complete", created["key"], body, header="x-api-key")
        self.assertEqual((status, answer["model"], answer["output"]), (200, "responses", "Planned."))
        [sent] = self.fake.model_requests()
        self.assertEqual(sent.body["input"], [{"role": "user", "content": "Plan it. [REDACTED]"}])
        key = {key["id"]: key for key in self.call("GET", "v1/router/api-keys")[1]}[created["id"]]
        self.assertEqual(key["guardrail_events"], {"block": 0, "redact": 1})
        self.assertGreater(key["spent_usd"], 0)
        # No project of the user's is reachable with a key.
        project = self.call("POST", "v1/projects", {"name": "p", "root_path": "/work/p"})[1]["id"]
        status, answer, _ = self.as_key("POST", "v1/complete", created["key"], dict(body, project_id=project))
        self.assertError(answer, status, 404, "project not found")

    def test_the_metadata_header_adds_the_content_free_route_attempts_candidates_and_guardrails(self):
        secret = self.new_key()["key"]
        self.fake.script(failure(503), Reply(text="Second lane answered."))
        body = dict(self.CHAT, model="auto")
        status, answer, _ = self.as_key("POST", "v1/chat/completions", secret, body,
                                        headers={"X-OpenRouter-Metadata": "enabled"})
        self.assertEqual(status, 200, answer)
        metadata = answer["quillmere_metadata"]
        self.assertEqual(metadata["route"]["model"], answer["model"])
        self.assertTrue(metadata["route"]["fell_back"])
        self.assertEqual([item["status"] for item in metadata["attempts"]], ["failed", "succeeded"])
        self.assertEqual(metadata["candidates"][:2], [item["model_id"] for item in metadata["attempts"]])
        self.assertEqual([stage["stage"] for stage in metadata["guardrails"]],
                         ["allowlists", "content_filters", "rate_limits"])
        self.assertEqual(metadata["guardrails"][1], {"stage": "content_filters", "filters": 1, "blocked": 0,
                                                     "redacted": 0})
        text = json.dumps(metadata)
        for said in ("Be brief.", "Hello", "Plan it.", "Second lane answered."):
            self.assertNotIn(said, text)
        self.fake.script(Reply(text="ok"))
        plain = self.as_key("POST", "v1/chat/completions", secret, body)[1]
        self.assertNotIn("quillmere_metadata", plain)

    def test_allowlists_intersect_the_models_a_request_names(self):
        secret = self.new_key(allowed_models=["messages"])["key"]
        status, answer, _ = self.as_key("POST", "v1/chat/completions", secret, dict(self.CHAT, model="chat"))
        self.assertEqual(status, 404, answer)
        self.assertEqual(answer["error"]["type"], "not_found_error")
        self.fake.script(Reply(text="ok"))
        status, answer, _ = self.as_key("POST", "v1/chat/completions", secret, dict(self.CHAT, model="auto"))
        self.assertEqual((status, answer["model"]), (200, "messages"))
        self.assertEqual([sent.path for sent in self.fake.model_requests()], ["/v1/messages"])

    def test_a_request_for_lanes_a_retention_rule_excludes_reaches_no_provider(self):
        secret = self.new_key(enforce_zdr_other=True)["key"]
        status, answer, _ = self.as_key("POST", "v1/messages", secret,
                                        {"model": "auto", "max_tokens": 10, "messages": [{"role": "user",
                                                                                          "content": "x"}]},
                                        header="x-api-key", headers=ANTHROPIC)
        self.assertEqual((status, answer["type"], answer["error"]["type"]), (422, "error", "invalid_request_error"))
        self.assertEqual(self.fake.model_requests(), [])

    def test_malformed_requests_are_refused_in_the_callers_shape(self):
        secret = self.new_key()["key"]
        status, answer, _ = self.as_key("POST", "v1/chat/completions", secret, {"model": "chat", "messages": []})
        self.assertEqual((status, answer["error"]["message"]), (400, "messages must hold at least one user message"))
        self.assertEqual(answer["error"]["type"], "invalid_request_error")
        status, answer, _ = self.as_key("POST", "v1/messages", secret, {"model": "chat", "messages": []},
                                        header="x-api-key", headers=ANTHROPIC)
        self.assertEqual((status, answer["type"], answer["error"]["message"]), (400, "error", "max_tokens is required"))
        self.assertEqual(self.fake.model_requests(), [])


class RateLimiterTest(unittest.TestCase):
    def test_requests_are_counted_over_a_rolling_window(self):
        now = [100.0]
        limiter = KeyRateLimiter(60.0, clock=lambda: now[0])
        for second in (0, 10, 20):
            now[0] = 100.0 + second
            limiter.admit("k", 3, None, 1)
        now[0] = 159.0
        with self.assertRaises(RateLimited) as caught:
            limiter.admit("k", 3, None, 1)
        self.assertEqual(caught.exception.status, 429)
        self.assertEqual(caught.exception.headers["Retry-After"], "1")  # the first falls out at 160
        limiter.admit("other", 3, None, 1)  # each key has its own window
        now[0] = 160.0
        limiter.admit("k", 3, None, 1)
        with self.assertRaises(RateLimited):
            limiter.admit("k", 3, None, 1)

    def test_tokens_are_the_windows_used_tokens_plus_the_new_requests_input(self):
        now = [0.0]
        limiter = KeyRateLimiter(60.0, clock=lambda: now[0])
        limiter.admit("k", None, 100, 10)
        limiter.count_tokens("k", 90)
        limiter.admit("k", None, 100, 10)  # 90 + 10 fits exactly
        with self.assertRaises(RateLimited) as caught:
            limiter.admit("k", None, 100, 11)
        self.assertIn("100 tokens per minute", caught.exception.message)
        now[0] = 60.0
        limiter.admit("k", None, 100, 100)


class KeyLimitsTest(GatewayTestCase):
    def test_a_hundred_parallel_requests_against_sixty_per_minute_give_exactly_sixty(self):
        secret = self.new_key(requests_per_minute=60, tokens_per_minute=None)["key"]
        body = {"model": "chat", "messages": [{"role": "user", "content": "Hello"}], "max_tokens": 20}

        def one(_):
            status, answer, headers = self.as_key("POST", "v1/chat/completions", secret, body)
            return status, answer, headers

        with concurrent.futures.ThreadPoolExecutor(max_workers=100) as pool:
            results = list(pool.map(one, range(100)))
        statuses = [status for status, _, _ in results]
        self.assertEqual((statuses.count(200), statuses.count(429)), (60, 40), statuses)
        refused = next(answer for status, answer, _ in results if status == 429)
        self.assertEqual(refused["error"]["type"], "rate_limit_exceeded")
        self.assertIn("60 requests per minute", refused["error"]["message"])
        self.assertTrue(all(int(headers["Retry-After"]) >= 1 for status, _, headers in results if status == 429))
        self.assertEqual(len(self.fake.model_requests()), 60)

    def test_tokens_per_minute_refuse_a_request_once_the_window_is_used(self):
        secret = self.new_key(requests_per_minute=None, tokens_per_minute=50)["key"]
        body = {"model": "chat", "max_tokens": 10, "messages": [{"role": "user", "content": "Hello " * 10}]}
        self.fake.script(Reply(text="ok", input_tokens=40, output_tokens=5))
        status, answer, _ = self.as_key("POST", "v1/messages", secret, body, header="x-api-key", headers=ANTHROPIC)
        self.assertEqual(status, 200, answer)
        status, answer, _ = self.as_key("POST", "v1/messages", secret, body, header="x-api-key",
                                              headers=ANTHROPIC)
        self.assertEqual((status, answer["error"]["type"]), (429, "rate_limit_error"))
        self.assertIn("50 tokens per minute", answer["error"]["message"])
        self.assertEqual(len(self.fake.model_requests()), 1)

    def test_fifty_concurrent_requests_never_spend_past_a_keys_limit(self):
        # Each answer costs (50 x 1 + 100 x 4) / 1e6 = $0.00045 (no more input tokens than the
        # request's bytes, as with any tokenizer); the worst case reserved for one is larger, so the
        # limit admits a few at a time and never lets spending pass it.
        created = self.new_key(limit_usd=0.002, requests_per_minute=None, tokens_per_minute=None,
                               content_filters=[])
        self.fake.responder = lambda recorded: Reply(text="ok", input_tokens=50, output_tokens=100)
        body = {"model": "chat", "max_tokens": 100, "messages": [{"role": "user", "content": "Hello"}]}
        with concurrent.futures.ThreadPoolExecutor(max_workers=50) as pool:
            results = list(pool.map(lambda _: self.as_key("POST", "v1/chat/completions", created["key"], body),
                                    range(50)))
        statuses = [status for status, _, _ in results]
        served = statuses.count(200)
        self.assertEqual(statuses.count(402), 50 - served, statuses)
        self.assertGreaterEqual(served, 1)
        key = {key["id"]: key for key in self.call("GET", "v1/router/api-keys")[1]}[created["id"]]
        self.assertLessEqual(key["spent_usd"], 0.002)
        self.assertAlmostEqual(key["spent_usd"], served * 0.00045)
        self.assertEqual(len(self.fake.model_requests()), served)
        self.assertEqual(self.reservations(), 0)
        refused = next(answer for status, answer, _ in results if status == 402)
        self.assertEqual(refused["error"]["type"], "insufficient_quota")


class ContentFilterTest(GatewayTestCase):
    FILTERS = [{"name": "Card numbers", "pattern": "\\b\\d{4}-\\d{4}-\\d{4}-\\d{4}\\b", "action": "block"},
               {"name": "Secrets", "pattern": "sk-[A-Za-z0-9]{20,}", "action": "redact"}]
    SECRET = "sk-" + "Q" * 24
    CARD = "4111-1111-1111-1111"

    def chat(self, secret, text, system=None):
        messages = ([{"role": "system", "content": system}] if system else []) + [{"role": "user", "content": text}]
        return self.as_key("POST", "v1/chat/completions", secret, {"model": "chat", "messages": messages,
                                                                  "max_tokens": 20})

    def test_blocked_text_never_reaches_a_provider_and_redacted_text_reaches_it_redacted(self):
        created = self.new_key(content_filters=self.FILTERS, requests_per_minute=None)
        secret = created["key"]
        status, answer, _ = self.chat(secret, f"Pay with {self.CARD} please")
        self.assertEqual((status, answer["error"]["type"]), (400, "invalid_request_error"))
        self.assertEqual(answer["error"]["message"], 'the request was blocked by the content filter "Card numbers"')
        self.assertEqual(self.fake.model_requests(), [])
        self.fake.script(Reply(text="noted"))
        status, answer, _ = self.chat(secret, f"My key is {self.SECRET}, twice {self.SECRET}.",
                                      system=f"Never repeat {self.SECRET}")
        self.assertEqual(status, 200, answer)
        [sent] = self.fake.model_requests()
        self.assertEqual(sent.body["messages"], [{"role": "system", "content": "Never repeat [REDACTED]"},
                                                 {"role": "user", "content": "My key is [REDACTED], twice [REDACTED]."}])
        key = {key["id"]: key for key in self.call("GET", "v1/router/api-keys")[1]}[created["id"]]
        self.assertEqual(key["guardrail_events"], {"block": 1, "redact": 1})
        # What matched is in no log and no stored record.
        self.assertNotIn(self.SECRET, self.relay.log())
        self.assertNotIn(self.CARD, self.relay.log())
        with sqlite3.connect(self.relay.db_path) as conn:
            conn.execute("PRAGMA wal_checkpoint(FULL)")
        for path in (self.relay.db_path, self.relay.db_path + "-wal"):
            try:
                with open(path, "rb") as stored:
                    data = stored.read()
            except FileNotFoundError:
                continue
            self.assertNotIn(self.SECRET.encode(), data)
            self.assertNotIn(self.CARD.encode(), data)

    def test_under_concurrency_no_blocked_text_reaches_a_provider_and_the_counts_match(self):
        created = self.new_key(content_filters=self.FILTERS, requests_per_minute=None, tokens_per_minute=None)
        texts = [f"card {self.CARD}" if index % 3 == 0 else f"key {self.SECRET}" if index % 3 == 1 else "plain"
                 for index in range(30)]
        with concurrent.futures.ThreadPoolExecutor(max_workers=30) as pool:
            results = list(pool.map(lambda text: self.chat(created["key"], text), texts))
        statuses = [status for status, _, _ in results]
        self.assertEqual((statuses.count(400), statuses.count(200)), (10, 20), statuses)
        sent = [record.body["messages"][-1]["content"] for record in self.fake.model_requests()]
        self.assertEqual(sorted(sent), sorted(["key [REDACTED]"] * 10 + ["plain"] * 10))
        key = {key["id"]: key for key in self.call("GET", "v1/router/api-keys")[1]}[created["id"]]
        self.assertEqual(key["guardrail_events"], {"block": 10, "redact": 10})


class ReplayCacheTest(GatewayTestCase):
    BODY = {"model": "chat", "max_tokens": 20, "messages": [{"role": "user", "content": "Same question"}]}
    ON = {"X-OpenRouter-Cache": "true"}

    def ask(self, secret, body=None, **headers):
        sent = dict(self.ON)
        sent.update({name.replace("_", "-"): value for name, value in headers.items()})
        return self.as_key("POST", "v1/chat/completions", secret, body or self.BODY, headers=sent)

    def test_an_identical_request_is_replayed_at_no_cost_per_credential_until_cleared(self):
        secret = self.new_key()["key"]
        self.fake.responder = lambda recorded: Reply(text="answer %d" % len(self.fake.model_requests()),
                                                     input_tokens=10, output_tokens=2)
        first = self.ask(secret)[1]
        again = self.ask(secret)[1]
        self.assertEqual(again["choices"][0]["message"]["content"], first["choices"][0]["message"]["content"])
        self.assertEqual(again["usage"], {"prompt_tokens": 0, "completion_tokens": 0, "total_tokens": 0})
        self.assertEqual(len(self.fake.model_requests()), 1)
        # Another body, another key, no header, or a clear: each goes to the provider.
        self.ask(secret, dict(self.BODY, max_tokens=21))
        self.ask(self.new_key()["key"])
        self.as_key("POST", "v1/chat/completions", secret, self.BODY)
        self.ask(secret, X_OpenRouter_Cache_Clear="true")
        self.assertEqual(len(self.fake.model_requests()), 5)
        # The cleared entry was refreshed by that request.
        self.ask(secret)
        self.assertEqual(len(self.fake.model_requests()), 5)

    def test_a_key_that_enforces_zero_retention_is_never_cached(self):
        secret = self.new_key(enforce_zdr_anthropic=True)["key"]
        self.fake.responder = lambda recorded: Reply(text="fresh")
        self.ask(secret)
        self.ask(secret)
        self.assertEqual(len(self.fake.model_requests()), 2)

    def test_a_time_to_live_out_of_range_is_refused(self):
        secret = self.new_key()["key"]
        for ttl in ("0", "86401", "abc", "-5"):
            status, answer, _ = self.ask(secret, X_OpenRouter_Cache_TTL=ttl)
            self.assertEqual(status, 400, (ttl, answer))
            self.assertIn("X-OpenRouter-Cache-TTL", answer["error"]["message"])
        self.assertEqual(self.fake.model_requests(), [])


class ReplayCacheExpiryTest(unittest.TestCase):
    def test_entries_expire_after_their_time_to_live(self):
        from relaylib.modelrouter.replaycache import ReplayCache
        now = [0.0]
        cache = ReplayCache(clock=lambda: now[0])

        class Asked:
            headers = {}
        cache.put("d", 5, {"usage": {"input_tokens": 3, "output_tokens": 1, "cost_usd": 0.1}, "id": "g"}, "out")
        now[0] = 4.9
        self.assertEqual(cache.get(Asked, "d")[0]["usage"]["cost_usd"], 0.0)
        now[0] = 5.0
        self.assertIsNone(cache.get(Asked, "d"))


class OfficialSdkTest(GatewayTestCase):
    """The official SDKs, configured as the key's screen shows them: base URL the relay's
    address plus "/v1", the key as their API key."""

    def setUp(self):
        super().setUp()
        self.peers = npm_peers.require(self)
        self.base_url = f"http://127.0.0.1:{self.relay.port}/v1"

    def test_openai_and_anthropic_sdks_complete_through_the_gateway(self):
        created = self.new_key()
        for script, api, model in (("openai_sdk_check.cjs", "chat", "chat-stream"),
                                   ("openai_sdk_check.cjs", "responses", "messages-stream"),
                                   ("anthropic_sdk_check.cjs", "messages", "messages")):
            for stream in (False, True):
                with self.subTest(api=api, stream=stream):
                    self.fake.reset()
                    self.fake.script(Reply(text="Hello there.", input_tokens=12, output_tokens=3))
                    [result] = run_sdk(self.peers, script, [{"baseURL": self.base_url, "apiKey": created["key"],
                                                             "api": api, "stream": stream, "model": model}])
                    self.assertTrue(result["ok"], result)
                    self.assertEqual(result["text"], "Hello there.")
                    self.assertEqual((result["usage"]["input"], result["usage"]["output"]), (12, 3))
                    self.assertEqual(len(self.fake.model_requests()), 1)
        self.assertEqual(self.call("DELETE", f"v1/router/api-keys/{created['id']}")[0], 200)
        for script, api in (("openai_sdk_check.cjs", "chat"), ("anthropic_sdk_check.cjs", "messages")):
            with self.subTest(api=api, revoked=True):
                [result] = run_sdk(self.peers, script, [{"baseURL": self.base_url, "apiKey": created["key"],
                                                         "api": api, "stream": False, "model": "auto"}])
                self.assertEqual((result["ok"], result["errorClass"], result["status"]),
                                 (False, "AuthenticationError", 401))
                self.assertIn("revoked", result["message"])


if __name__ == "__main__":
    unittest.main()
