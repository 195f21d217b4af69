"""The model router through the relay: the catalog, previews, policy, hard budgets, the ledger and
completions against a fake provider on loopback in each of the three protocols."""

import concurrent.futures
import json
import os
import socket
import sqlite3
import unittest

import support
from fake_provider import FakeProvider, Reply, ToolCall, failure, stream_failure, timeout
from router_support import FAKE_KEY, inventory_env, lane
from support import RelayTestCase, SAMPLE_TOOL

COMPLETE = {"task": "reason", "input": "Plan the change.", "model": "auto", "max_output_tokens": 400}
PREVIEW = {"task": "code", "input_tokens": 8000, "estimated_output_tokens": 2000, "channel": "any"}
# Provider calls in these tests give up quickly on a silent provider.
SILENCE_SECONDS = "0.5"


class RouterTestCase(RelayTestCase):
    """A relay whose inventory holds lanes on one fake provider, in every protocol."""

    lanes = ()
    # More of the relay's environment, for a subclass.
    extra_env = {}

    @classmethod
    def setUpClass(cls):
        cls.fake = FakeProvider(expected_key=FAKE_KEY).start()
        cls.relay_env = dict(inventory_env(cls.make_lanes(cls.fake)),
                             MERE_RELAY_UPSTREAM_READ_SECONDS=SILENCE_SECONDS, MERE_RELAY_ROUTER_SIGNALS_SECONDS="0")
        cls.relay_env.update(cls.extra_env)
        super().setUpClass()

    @classmethod
    def tearDownClass(cls):
        super().tearDownClass()
        cls.fake.stop()

    @classmethod
    def make_lanes(cls, fake):
        return [lane("chat", fake.openai_base_url, quality=90),
                lane("chat-stream", fake.openai_base_url, quality=85, supported_parameters=["stream"]),
                lane("responses", fake.url, "openai_responses", quality=80),
                lane("responses-stream", fake.url, "openai_responses", quality=75, supported_parameters=["stream"]),
                lane("messages", fake.url + "/v1/messages", "anthropic_messages", quality=70),
                lane("messages-stream", fake.url, "anthropic_messages", quality=65, supported_parameters=["stream"]),
                lane("keyless", fake.url, key_env="ROUTER_UNSET_KEY", quality=99)]

    def setUp(self):
        self.fake.reset()
        self.policy(allowed_providers=[])
        # Each test starts with healthy providers: earlier tests' failures are forgotten.
        with sqlite3.connect(self.relay.db_path) as conn:
            conn.execute("DELETE FROM provider_health")

    def policy(self, **fields):
        body = {"strategy": "quality", "fallback_enabled": True, "max_fallbacks": 2, "allowed_providers": []}
        body.update(fields)
        status, answer, _ = self.call("POST", "v1/router/policy", body)
        self.assertEqual(status, 200, answer)
        return answer


    def complete(self, body=None, token=True, **fields):
        return self.call("POST", "v1/complete", dict(body or COMPLETE, **fields), token=token)

    def generations(self, token=True):
        return self.call("GET", "v1/router/generations", token=token)[1]

    def reservations(self):
        with sqlite3.connect(self.relay.db_path) as conn:
            return conn.execute("SELECT count(*) FROM router_reservations").fetchone()[0]


class CatalogTest(RouterTestCase):
    def test_the_catalog_holds_the_cli_lanes_and_the_inventory_with_readiness(self):
        status, catalog, _ = self.call("GET", "v1/router/catalog")
        self.assertEqual(status, 200)
        models = {model["id"]: model for model in catalog["models"]}
        self.assertEqual(list(models)[:2], ["claude-subscription", "codex-subscription"])
        self.assertEqual((models["claude-subscription"]["channel"], models["claude-subscription"]["provider"]),
                         ("cli", "anthropic-subscription"))
        self.assertEqual(models["codex-subscription"]["provider"], "openai-subscription")
        # No CLI is installed in the relay's test PATH.
        self.assertFalse(models["claude-subscription"]["available"])
        self.assertTrue(models["chat"]["available"])
        self.assertEqual(models["chat"]["channel"], "api")
        self.assertFalse(models["keyless"]["available"])
        adapters = {adapter["model_id"]: adapter for adapter in catalog["adapters"]}
        self.assertEqual(adapters["messages"]["protocol_name"], "anthropic_messages")
        self.assertEqual(adapters["chat-stream"]["supported_parameters"], ["stream"])
        self.assertFalse(adapters["keyless"]["ready"])
        self.assertEqual(catalog["policy"]["strategy"], "quality")
        # The catalog never carries an endpoint's address path, a key or its variable.
        text = json.dumps(catalog)
        self.assertNotIn(FAKE_KEY, text)
        self.assertNotIn("ROUTER_TEST_KEY", text)

    def test_a_lane_without_its_credential_is_not_available_and_says_why(self):
        status, decision, _ = self.call("POST", "v1/router/preview", PREVIEW)
        self.assertEqual(status, 200, decision)
        rejected = {item["model_id"]: item["reason"] for item in decision["rejected"]}
        self.assertEqual(rejected["keyless"], "not ready: its credential variable ROUTER_UNSET_KEY is not set on the relay")
        self.assertEqual(rejected["claude-subscription"], "not ready: the claude CLI is not installed on the relay's machine")
        # The keyless lane has the best quality, yet it is never chosen nor called.
        self.assertEqual(decision["primary"]["model"]["id"], "chat")
        status, answer, _ = self.complete(model="keyless")
        self.assertError(answer, status, 422, contains="ROUTER_UNSET_KEY is not set")
        self.assertEqual(self.fake.model_requests(), [])


class PreviewTest(RouterTestCase):
    def test_a_preview_answers_a_stored_decision_with_fallbacks_rejections_and_reasons(self):
        self.policy(max_fallbacks=3)
        status, decision, _ = self.call("POST", "v1/router/preview", dict(PREVIEW, tools=[SAMPLE_TOOL]))
        self.assertEqual(status, 200, decision)
        self.assertEqual(decision["required_capabilities"], ["tools"])
        self.assertEqual(len(decision["fallbacks"]), 3)
        self.assertTrue(decision["id"].startswith("rd_"))
        self.assertAlmostEqual(decision["primary"]["estimated_cost_usd"], (8000 * 1.0 + 2000 * 4.0) / 1e6)
        self.assertIn("quality 90", decision["primary"]["reasons"])
        self.assertIn("was chosen for the code task by the quality strategy", decision["routed_because"])
        with sqlite3.connect(self.relay.db_path) as conn:
            stored = conn.execute("SELECT source, decision FROM router_decisions WHERE id = ?",
                                  (decision["id"],)).fetchone()
        self.assertEqual((stored[0], json.loads(stored[1])), ("preview", decision))

    def test_the_policy_is_saved_read_back_and_reset_by_the_next_save(self):
        saved = self.policy(strategy="cost", max_cost_per_request=0.05, allowed_providers=["other"])
        self.assertEqual(saved, {"strategy": "cost", "max_cost_per_request": 0.05, "fallback_enabled": True,
                                 "max_fallbacks": 2, "allowed_providers": ["other"]})
        self.assertEqual(self.call("GET", "v1/router/catalog")[1]["policy"], saved)
        status, answer, _ = self.call("POST", "v1/router/preview", PREVIEW)
        self.assertError(answer, status, 422, contains="provider fake is not allowed by the policy")
        self.policy(strategy="cost")
        policy = self.call("GET", "v1/router/catalog")[1]["policy"]
        self.assertEqual(policy["allowed_providers"], [])
        self.assertNotIn("max_cost_per_request", policy)
        self.assertEqual(self.call("POST", "v1/router/preview", PREVIEW)[0], 200)

    def test_bad_values_are_refused_naming_the_field(self):
        cases = [("v1/router/policy", {"strategy": "fastest", "fallback_enabled": True, "max_fallbacks": 2,
                                       "allowed_providers": []}, "strategy must be one of"),
                 ("v1/router/policy", {"strategy": "cost", "max_cost_per_request": -1, "fallback_enabled": True,
                                       "max_fallbacks": 2, "allowed_providers": []}, "max_cost_per_request must be"),
                 ("v1/router/policy", {"strategy": "cost", "fallback_enabled": True, "max_fallbacks": 11,
                                       "allowed_providers": []}, "max_fallbacks must be an integer from 0 to 10"),
                 ("v1/router/preview", dict(PREVIEW, latency_budget_ms=-5), "latency_budget_ms must be"),
                 ("v1/router/preview", dict(PREVIEW, max_cost_usd=-0.5), "max_cost_usd must be"),
                 ("v1/router/preview", dict(PREVIEW, channel="web"), "channel must be one of"),
                 ("v1/router/preview", dict(PREVIEW, provider={"sort": {"by": "fame", "partition": "model"}}),
                  "provider.sort.by must be one of"),
                 ("v1/router/budgets", {"period": "monthly", "limit_usd": 0}, "limit_usd must be above 0"),
                 ("v1/router/budgets", {"period": "hourly", "limit_usd": 5}, "period must be one of"),
                 ("v1/complete", dict(COMPLETE, max_output_tokens=0), "max_output_tokens must be"),
                 ("v1/complete", dict(COMPLETE, input=""), "input must not be empty")]
        for path, body, message in cases:
            status, answer, _ = self.call("POST", path, body)
            self.assertError(answer, status, 400, contains=message)
        self.assertRelayIntact()

    def test_a_cli_preview_with_no_signed_in_cli_is_a_clear_error(self):
        status, answer, _ = self.call("POST", "v1/router/preview", dict(PREVIEW, channel="cli"))
        self.assertError(answer, status, 422)
        self.assertIn("no lane qualifies for this code request", answer["error"]["message"])
        self.assertIn("claude-subscription: not ready: the claude CLI is not installed", answer["error"]["message"])


class CompletionTest(RouterTestCase):
    def test_each_protocol_whole_and_streamed_answers_with_the_providers_tokens_and_the_lanes_prices(self):
        for lane_id in ("chat", "chat-stream", "responses", "responses-stream", "messages", "messages-stream"):
            with self.subTest(lane=lane_id):
                self.fake.reset()
                self.fake.script(Reply(text=f"answer from {lane_id}", input_tokens=1000, output_tokens=250))
                status, answer, _ = self.complete(model=lane_id)
                self.assertEqual(status, 200, answer)
                self.assertEqual(answer["output"], f"answer from {lane_id}")
                self.assertEqual((answer["model"], answer["provider"], answer["upstream_model"]),
                                 (lane_id, "fake", "fake-model"))
                self.assertEqual(answer["usage"], {"input_tokens": 1000, "output_tokens": 250,
                                                   "cost_usd": (1000 * 1.0 + 250 * 4.0) / 1e6})
                self.assertFalse(answer["fell_back"])
                self.assertEqual([attempt["status"] for attempt in answer["attempts"]], ["succeeded"])
                [sent] = self.fake.model_requests()
                self.assertTrue(sent.key_ok)
                self.assertEqual(sent.stream, lane_id.endswith("-stream"))
                self.assertEqual(sent.body["model"], "fake-model")
                self.assertIn("Plan the change.", json.dumps(sent.body))
                generation = self.generations()[0]
                self.assertEqual((generation["id"], generation["model_id"], generation["status"]),
                                 (answer["id"], lane_id, "succeeded"))
                self.assertEqual(generation["route_decision_id"], answer["route_decision_id"])

    def test_a_primary_that_answers_503_falls_back_and_both_attempts_are_in_the_ledger(self):
        self.fake.script(failure(503))
        status, answer, _ = self.complete()
        self.assertEqual(status, 200, answer)
        self.assertTrue(answer["fell_back"])
        self.assertEqual([(item["model_id"], item["status"], item.get("error_code")) for item in answer["attempts"]],
                         [("chat", "failed", "overloaded"), ("chat-stream", "succeeded", None)])
        generation = self.generations()[0]
        self.assertEqual(generation["attempts"], answer["attempts"])
        self.assertTrue(generation["fell_back"])
        usage = self.call("GET", "v1/router/usage")[1]
        self.assertGreaterEqual(usage["fallbacks"], 1)

    def test_rate_limits_server_errors_time_outs_and_broken_streams_fall_back_each_with_its_class(self):
        self.policy(max_fallbacks=5)
        self.fake.script(failure(429), failure(500), timeout(2), stream_failure(500, after_chunks=5),
                         failure(401))
        status, answer, _ = self.complete()
        self.assertEqual(status, 200, answer)
        self.assertEqual([item.get("error_code") for item in answer["attempts"]],
                         ["rate_limited", "server_error", "timeout", "server_error", "refused", None])
        self.assertEqual(answer["model"], "messages-stream")
        # The stream that broke off after it had started answering is not charged.
        self.assertTrue(self.generations()[0]["zero_completion_insured"])

    def test_a_request_the_provider_calls_malformed_is_not_retried_elsewhere(self):
        self.fake.script(failure(400, "bad parameter"))
        status, answer, _ = self.complete()
        self.assertError(answer, status, 502, contains="(bad_request)")
        self.assertEqual(len(self.fake.model_requests()), 1)
        self.assertEqual(self.generations()[0]["status"], "failed")
        self.assertEqual(self.generations()[0]["error_code"], "bad_request")

    def test_when_every_lane_fails_the_error_names_the_last_failure_and_health_drops(self):
        self.policy(max_fallbacks=1)
        self.fake.script(failure(503), failure(503))
        status, answer, _ = self.complete()
        self.assertError(answer, status, 502, contains="every lane failed")
        health = self.call("GET", "v1/router/catalog")[1]["provider_health"]
        self.assertLess(health["fake"], 1.0)

    def test_an_empty_completion_is_not_charged_and_the_next_lane_answers(self):
        self.fake.script(Reply(text="", input_tokens=500, output_tokens=0))
        status, answer, _ = self.complete()
        self.assertEqual(status, 200, answer)
        self.assertEqual(answer["attempts"][0]["error_code"], "empty_completion")
        generation = self.generations()[0]
        self.assertTrue(generation["zero_completion_insured"])
        self.assertGreaterEqual(self.call("GET", "v1/router/usage")[1]["insured_requests"], 1)

    def test_tool_calls_are_sent_in_each_protocol_and_their_validity_feeds_the_catalog(self):
        for lane_id in ("chat", "responses", "messages-stream"):
            self.fake.script(Reply(text="", tool_calls=[ToolCall("project_action", {"action": "build"})]))
            status, answer, _ = self.complete(model=lane_id, tools=[SAMPLE_TOOL])
            self.assertEqual(status, 200, answer)
            self.fake.script(Reply(text="", tool_calls=[ToolCall("project_action", {"verb": "build"})]))
            self.assertEqual(self.complete(model=lane_id, tools=[SAMPLE_TOOL])[0], 200)
        sent = self.fake.model_requests()
        self.assertEqual(sent[0].body["tools"][0]["function"]["name"], "project_action")
        self.assertEqual(sent[2].body["tools"][0]["name"], "project_action")
        self.assertEqual(sent[4].body["tools"][0]["input_schema"]["required"], ["action"])
        quality = self.call("GET", "v1/router/catalog")[1]["tool_call_quality"]
        for lane_id in ("chat", "responses", "messages-stream"):
            self.assertEqual((quality[lane_id]["valid_count"], quality[lane_id]["invalid_count"]), (1, 1), lane_id)
            self.assertEqual(quality[lane_id]["valid_rate"], 0.5)
            self.assertEqual(quality[lane_id]["error_categories"], {"missing_required": 1})
            self.assertEqual(quality[lane_id]["window_seconds"], 32 * 24 * 3600)

    def test_observed_latency_and_throughput_appear_in_the_catalog(self):
        token, _ = self.relay.code_token("timing@example.com")
        for _ in range(3):
            self.fake.script(Reply(text="x" * 200, output_tokens=50, first_byte_delay=0.05, chunk_delay=0.005))
            self.assertEqual(self.complete(model="chat-stream", token=token)[0], 200)
        performance = self.call("GET", "v1/router/catalog", token=token)[1]["model_performance"]["chat-stream"]
        self.assertEqual((performance["sample_count"], performance["window_seconds"]), (3, 300))
        self.assertGreaterEqual(performance["latency_ms"]["p50"], 50)
        self.assertGreater(performance["throughput_tps"]["p50"], 0)

    def test_a_caller_that_goes_away_frees_its_reservation_and_the_provider(self):
        self.call("POST", "v1/router/budgets", {"period": "lifetime", "limit_usd": 1000})
        self.fake.script(Reply(first_byte_delay=3))
        body = json.dumps(COMPLETE).encode()
        sock = socket.create_connection(("127.0.0.1", self.relay.port))
        sock.sendall(b"POST /v1/complete HTTP/1.1\r\nHost: 127.0.0.1:%d\r\nAuthorization: Bearer %s\r\n"
                     b"Content-Type: application/json\r\nContent-Length: %d\r\n\r\n"
                     % (self.relay.port, self.token.encode(), len(body)) + body)
        self.fake.wait_for_requests(1, path="/v1/chat/completions")
        self.assertEqual(self.reservations(), 1)
        sock.close()
        support.wait_for(lambda: self.reservations() == 0)
        support.wait_for(lambda: self.generations()[0]["status"] == "cancelled")
        self.assertEqual(self.generations()[0]["attempts"][0]["status"], "cancelled")
        self.assertRelayIntact()

    def test_an_unknown_model_or_preset_and_a_foreign_project_are_refused(self):
        status, answer, _ = self.complete(model="no-such-lane")
        self.assertError(answer, status, 404, "model no-such-lane is not in the catalog")
        status, answer, _ = self.complete(preset="reviewer")
        self.assertError(answer, status, 404, "preset reviewer not found")
        status, answer, _ = self.complete(project_id="p_nobody")
        self.assertError(answer, status, 404, "project not found")
        self.assertEqual(self.fake.model_requests(), [])

    def test_no_key_and_no_prompt_reach_the_ledger_or_the_log(self):
        self.fake.script(Reply(text="the secret answer"))
        self.assertEqual(self.complete(input="the secret prompt")[0], 200)
        with open(self.relay.db_path, "rb") as handle:
            stored = handle.read()
        for suffix in ("-wal",):
            if os.path.exists(self.relay.db_path + suffix):
                with open(self.relay.db_path + suffix, "rb") as handle:
                    stored += handle.read()
        for secret in (FAKE_KEY, "the secret prompt", "the secret answer"):
            self.assertNotIn(secret.encode(), stored)
            self.assertNotIn(secret, self.relay.log())


class BudgetTest(RouterTestCase):
    # Cheap enough that the worst case of one completion is about a tenth of a cent.
    @classmethod
    def make_lanes(cls, fake):
        return [lane("metered", fake.openai_base_url, input_cost_per_million=2.0, output_cost_per_million=8.0)]

    def test_budgets_are_set_per_period_and_replaced_and_show_what_was_spent(self):
        status, budget, _ = self.call("POST", "v1/router/budgets", {"period": "weekly", "limit_usd": 5})
        self.assertEqual(status, 200, budget)
        self.assertEqual({key: budget[key] for key in ("period", "limit_usd", "utilization")},
                         {"period": "weekly", "limit_usd": 5.0, "utilization": budget["spent_usd"] / 5.0})
        self.assertNotIn("project_id", budget)
        self.call("POST", "v1/router/budgets", {"period": "weekly", "limit_usd": 7.5})
        budgets = [item for item in self.call("GET", "v1/router/budgets")[1] if item["period"] == "weekly"]
        self.assertEqual([item["limit_usd"] for item in budgets], [7.5])

    def test_a_request_whose_worst_case_exceeds_what_remains_is_refused_before_any_provider_call(self):
        self.call("POST", "v1/router/budgets", {"period": "daily", "limit_usd": 0.0001})
        try:
            status, answer, _ = self.complete(max_output_tokens=4000)
            self.assertError(answer, status, 402, contains="budget exceeded")
            self.assertEqual(self.fake.model_requests(), [])
        finally:
            self.call("POST", "v1/router/budgets", {"period": "daily", "limit_usd": 1000})

    def test_fifty_concurrent_completions_never_spend_more_than_a_budget_of_one_cent(self):
        # A fresh user, so that earlier spending of this class does not count.
        token, _ = self.relay.code_token("budget@example.com")
        self.assertEqual(self.call("POST", "v1/router/budgets", {"period": "lifetime", "limit_usd": 0.01},
                                   token=token)[0], 200)
        self.fake.responder = lambda recorded: Reply(text="ok " * 20, input_tokens=120, output_tokens=100,
                                                     first_byte_delay=0.05)
        try:
            with concurrent.futures.ThreadPoolExecutor(50) as pool:
                results = list(pool.map(lambda _: self.complete(token=token, max_output_tokens=100)[0], range(50)))
        finally:
            self.fake.responder = None
        served = results.count(200)
        self.assertEqual(results.count(402), 50 - served)
        self.assertGreater(served, 0)
        budget = self.call("GET", "v1/router/budgets", token=token)[1][0]
        self.assertLessEqual(budget["spent_usd"], 0.01)
        spent = sum(item["cost_usd"] for item in self.generations(token=token))
        self.assertLessEqual(spent, 0.01)
        self.assertEqual(len(self.fake.model_requests()), served)
        self.assertEqual(self.reservations(), 0)


class TwoUsersTest(RouterTestCase):
    def test_policy_budgets_and_the_ledger_are_each_users_own(self):
        bob, _ = self.relay.code_token("bob@example.com")
        self.policy(strategy="latency")
        self.call("POST", "v1/router/budgets", {"period": "monthly", "limit_usd": 3})
        self.assertEqual(self.complete()[0], 200)
        self.assertEqual(self.call("GET", "v1/router/catalog", token=bob)[1]["policy"]["strategy"], "balanced")
        self.assertEqual(self.call("GET", "v1/router/budgets", token=bob)[1], [])
        self.assertEqual(self.generations(token=bob), [])
        self.assertEqual(self.call("GET", "v1/router/usage", token=bob)[1]["requests"], 0)
        self.assertEqual(self.call("GET", "v1/router/catalog", token=bob)[1]["model_performance"], {})
        # Bob's budget of almost nothing limits Bob only.
        self.call("POST", "v1/router/budgets", {"period": "daily", "limit_usd": 0.0000001}, token=bob)
        self.assertEqual(self.complete(token=bob)[0], 402)
        self.assertEqual(self.complete()[0], 200)


if __name__ == "__main__":
    unittest.main()
