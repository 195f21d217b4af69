"""The router's pure parts: reading the inventory, the hard filters and the score, the provider
sort, tool-call validity, percentiles and budget periods."""

import datetime
import json
import os
import tempfile
import unittest

import support  # noqa: F401  (puts the relay on the path)
from relaylib import clock
from relaylib.db import Database
from relaylib.modelrouter import conversation, lanes, ledger, protocols, scoring, toolcheck
from relaylib.modelrouter.protocols import ToolCallOut
from router_support import lane as record


def api_lane(lane_id, **fields):
    return lanes.lane_from_profile(record(lane_id, "https://api.example.com/v1", **fields))


def signals(**fields):
    base = {"health": {}, "performance": {}, "tool_quality": {}, "budget_remaining": None}
    base.update(fields)
    return scoring.Signals(**base)


POLICY = dict(ledger.DEFAULT_POLICY)


def request(**fields):
    base = {"task": "code", "input_tokens": 1000, "output_tokens": 1000, "channel": "any"}
    base.update(fields)
    return scoring.RouteRequest(**base)


class InventoryTest(unittest.TestCase):
    def test_records_that_break_a_rule_are_left_out_and_the_rest_kept(self):
        good = record("good", "https://api.example.com/v1")
        text = json.dumps([
            good,
            record("plain-http", "http://api.example.com/v1"),
            record("bad-key", "https://x.example.com", key_env="AB"),
            record("too-good", "https://x.example.com", quality=101),
            record("ftp", "ftp://x.example.com"),
            record("bad-tier", "https://x.example.com", service_tier="gold"),
            dict(good, display_name="again"),
            record("claude-subscription", "https://x.example.com"),
            record("local", "http://localhost:9999", protocol="anthropic_messages"),
        ])
        with self.assertLogs("relay", "WARNING") as logged:
            read = lanes.read_inventory(text)
        self.assertEqual([lane.id for lane in read], ["good", "local"])
        self.assertEqual(len(logged.records), 7)
        # The log names the place and the rule, never a value from the record.
        self.assertNotIn("api.example.com", "\n".join(logged.output))

    def test_an_inventory_that_is_not_a_json_array_offers_no_api_lane(self):
        for text in ("{", "{}", "7", ""):
            with self.assertLogs("relay", "WARNING") if text else self.assertNoLogs("relay"):
                self.assertEqual(lanes.read_inventory(text), ())

    def test_missing_routing_model_and_tier_take_their_defaults(self):
        profile = record("solo", "https://api.example.com")
        del profile["routing_model"]
        lane = lanes.lane_from_profile(profile)
        self.assertEqual((lane.routing_model, lane.service_tier), ("solo", "default"))
        self.assertEqual(lane.endpoint_slug, "fake/api.example.com")

    def test_the_url_of_each_protocol_from_an_origin_a_version_folder_or_the_full_path(self):
        self.assertEqual(lanes.protocol_url("https://a.example", "openai_chat"), "https://a.example/v1/chat/completions")
        self.assertEqual(lanes.protocol_url("https://a.example/v1/", "openai_responses"), "https://a.example/v1/responses")
        self.assertEqual(lanes.protocol_url("https://a.example/v1/messages", "anthropic_messages"),
                         "https://a.example/v1/messages")
        self.assertEqual(lanes.protocol_url("https://a.example/api/v2", "openai_chat"),
                         "https://a.example/api/v2/chat/completions")

    def test_a_lane_is_ready_only_with_its_credential_and_a_cli_only_installed_and_signed_in(self):
        text = json.dumps([record("keyed", "https://a.example"), record("keyless", "https://a.example", key_env="NOPE_KEY"),
                           record("off", "https://a.example", available=False)])
        status = {"claude": {"installed": True, "authenticated": False}, "codex": {"installed": True, "authenticated": True}}
        catalog = lanes.Catalog(text, {"ROUTER_TEST_KEY": "sk"}.get, lambda: status)
        readiness = catalog.readiness()
        self.assertIsNone(readiness["keyed"])
        self.assertEqual(readiness["keyless"], "its credential variable NOPE_KEY is not set on the relay")
        self.assertEqual(readiness["off"], "the inventory marks this lane as not offered")
        self.assertEqual(readiness["claude-subscription"], "the claude CLI is not signed in")
        self.assertIsNone(readiness["codex-subscription"])


class FilterTest(unittest.TestCase):
    def rejection(self, lane, req=None, policy=None, sig=None, readiness=None):
        with self.assertRaises(scoring.NoLane) as caught:
            scoring.decide([lane], readiness or {}, req or request(), policy or POLICY, sig or signals())
        return caught.exception.rejected[0][1]

    def test_each_hard_filter_names_its_reason(self):
        lane = api_lane("a", capabilities=["reasoning"], context_window=4000, latency_ms=900,
                        input_cost_per_million=10.0, output_cost_per_million=10.0)
        self.assertIn("channel is api", self.rejection(lane, request(channel="cli")))
        self.assertEqual(self.rejection(lane, request(task="vision")), "lacks vision")
        self.assertEqual(self.rejection(lane, request(tools=[{}])), "lacks tools")
        self.assertIn("context window", self.rejection(lane, request(input_tokens=3500, output_tokens=600)))
        self.assertIn("not ready: no key", self.rejection(lane, readiness={"a": "no key"}))
        self.assertIn("exceeds the budget of 500 ms", self.rejection(lane, request(latency_budget_ms=500)))
        self.assertIn("exceeds the cap of $0.0100", self.rejection(lane, request(max_cost_usd=0.01)))
        self.assertIn("cap of $0.0010", self.rejection(lane, policy=dict(POLICY, max_cost_per_request=0.001)))
        self.assertIn("not allowed", self.rejection(lane, policy=dict(POLICY, allowed_providers=["other"])))
        self.assertIn("left in the budget", self.rejection(lane, sig=signals(budget_remaining=0.001)))

    def test_poor_health_rejects_a_lane_only_while_a_healthier_one_qualifies(self):
        sick, well = api_lane("sick", provider="p1", quality=99), api_lane("well", provider="p2")
        decision = scoring.decide([sick, well], {}, request(), POLICY, signals(health={"p1": 0.2}))
        self.assertEqual(decision.primary.lane.id, "well")
        self.assertEqual(decision.rejected, [("sick", "provider health 20% is below 25%")])
        # Alone, the failing provider is still tried: otherwise it could never show it recovered.
        decision = scoring.decide([sick], {}, request(), POLICY, signals(health={"p1": 0.0}))
        self.assertEqual(decision.primary.lane.id, "sick")

    def test_a_lane_kept_out_only_by_the_budget_says_so(self):
        with self.assertRaises(scoring.NoLane) as caught:
            scoring.decide([api_lane("a")], {}, request(), POLICY, signals(budget_remaining=0.0))
        self.assertTrue(caught.exception.over_budget)
        with self.assertRaises(scoring.NoLane) as caught:
            scoring.decide([api_lane("a")], {"a": "off"}, request(), POLICY, signals(budget_remaining=0.0))
        self.assertFalse(caught.exception.over_budget)

    def test_the_latency_budget_uses_the_observed_p50_once_there_are_enough_samples(self):
        lane = api_lane("a", latency_ms=100)
        slow = {"a": {"sample_count": 3, "latency_ms": {"p50": 900.0}, "throughput_tps": {}}}
        self.assertIn("900 ms", self.rejection(lane, request(latency_budget_ms=500), sig=signals(performance=slow)))
        few = {"a": {"sample_count": 2, "latency_ms": {"p50": 900.0}, "throughput_tps": {}}}
        scoring.decide([lane], {}, request(latency_budget_ms=500), POLICY, signals(performance=few))

    def test_no_qualifying_lane_names_every_reason(self):
        with self.assertRaises(scoring.NoLane) as caught:
            scoring.decide([api_lane("a"), api_lane("b")], {"a": "off", "b": "down"}, request(), POLICY, signals())
        self.assertEqual(caught.exception.message,
                         "no lane qualifies for this code request — a: not ready: off; b: not ready: down")


class ScoreTest(unittest.TestCase):
    def lanes(self):
        return [api_lane("smart", quality=95, input_cost_per_million=15, output_cost_per_million=60, latency_ms=3000),
                api_lane("cheap", quality=60, input_cost_per_million=0.1, output_cost_per_million=0.4, latency_ms=900),
                api_lane("quick", quality=70, input_cost_per_million=2, output_cost_per_million=8, latency_ms=200)]

    def primary(self, strategy, **fields):
        decision = scoring.decide(self.lanes(), {}, request(**fields), dict(POLICY, strategy=strategy), signals())
        return decision.primary.lane.id

    def test_the_strategy_decides_what_counts(self):
        self.assertEqual(self.primary("quality"), "smart")
        self.assertEqual(self.primary("cost"), "cheap")
        self.assertEqual(self.primary("latency"), "quick")

    def test_fallbacks_follow_the_policy(self):
        decision = scoring.decide(self.lanes(), {}, request(), dict(POLICY, max_fallbacks=1), signals())
        self.assertEqual(len(decision.fallbacks), 1)
        decision = scoring.decide(self.lanes(), {}, request(), dict(POLICY, fallback_enabled=False), signals())
        self.assertEqual(decision.fallbacks, [])
        self.assertIn("3 lanes qualified", decision.routed_because)

    def test_a_provider_sort_orders_by_its_measure(self):
        decision = scoring.decide(self.lanes(), {}, request(sort_by="price", partition="none"),
                                  dict(POLICY, strategy="quality", max_fallbacks=2), signals())
        self.assertEqual([decision.primary.lane.id] + [item.lane.id for item in decision.fallbacks],
                         ["cheap", "quick", "smart"])
        self.assertIn("Sorted by price", decision.routed_because)

    def test_a_sort_partitioned_by_model_keeps_models_in_score_order(self):
        lanes_ = [api_lane("gpt-priority", routing_model="gpt", quality=90, input_cost_per_million=5, service_tier="priority"),
                  api_lane("gpt-flex", routing_model="gpt", quality=90, input_cost_per_million=1, service_tier="flex"),
                  api_lane("small", routing_model="small", quality=40, input_cost_per_million=0.1)]
        decision = scoring.decide(lanes_, {}, request(sort_by="price", partition="model"),
                                  dict(POLICY, strategy="quality"), signals())
        self.assertEqual([decision.primary.lane.id] + [item.lane.id for item in decision.fallbacks],
                         ["gpt-flex", "gpt-priority", "small"])

    def test_declared_tools_put_the_lane_with_valid_tool_calls_first_among_one_models_lanes(self):
        lanes_ = [api_lane("a", routing_model="m", quality=90), api_lane("b", routing_model="m", quality=85)]
        quality = {"a": {"sample_count": 10, "valid_rate": 0.5, "routing_score": 50.0},
                   "b": {"sample_count": 10, "valid_rate": 1.0, "routing_score": 95.0}}
        sample = [{"type": "function", "function": {"name": "f", "parameters": {}}}]
        decision = scoring.decide(lanes_, {}, request(tools=sample), POLICY, signals(tool_quality=quality))
        self.assertEqual(decision.primary.lane.id, "b")
        self.assertEqual(decision.required_capabilities, ["tools"])
        # An explicit price sort opts out.
        decision = scoring.decide(lanes_, {}, request(tools=sample, sort_by="price"), POLICY,
                                  signals(tool_quality=quality))
        self.assertEqual(decision.primary.lane.id, "a")

    def test_poor_health_lowers_the_score_and_soft_preferences_cost_points(self):
        lanes_ = [api_lane("a", provider="p1"), api_lane("b", provider="p2")]
        healthy = scoring.decide(lanes_, {}, request(), POLICY, signals(health={"p1": 0.5}))
        self.assertEqual(healthy.primary.lane.id, "b")
        self.assertIn("health 50%", healthy.fallbacks[0].reasons)
        slow = scoring.decide(lanes_, {}, request(preferred_max_latency_s=0.5), POLICY, signals())
        self.assertIn("slower than the preferred latency", slow.primary.reasons)


class ToolCheckTest(unittest.TestCase):
    TOOLS = [{"type": "function", "function": {"name": "project_action", "parameters": {
        "type": "object", "properties": {"action": {"type": "string"}}, "required": ["action"],
        "additionalProperties": False}}}]

    def check(self, *calls):
        return toolcheck.check_answer([ToolCallOut(name, arguments) for name, arguments in calls], self.TOOLS)

    def test_categories(self):
        self.assertEqual(self.check(("project_action", '{"action": "build"}')), (True, None))
        self.assertEqual(self.check(("project_action", {"action": "build"})), (True, None))
        self.assertEqual(self.check(), (None, "no_tool_call"))
        self.assertEqual(self.check(("other", "{}")), (False, "unknown_tool"))
        self.assertEqual(self.check(("project_action", '{"action": ')), (False, "invalid_json"))
        self.assertEqual(self.check(("project_action", "{}")), (False, "missing_required"))
        self.assertEqual(self.check(("project_action", '{"action": 1}')), (False, "wrong_type"))
        self.assertEqual(self.check(("project_action", '{"action": "a", "x": 1}')), (False, "unexpected_property"))


class StreamDeltaTest(unittest.TestCase):
    def feed(self, protocol, events):
        reader = protocols.StreamReader(protocol)
        for name, event in events:
            if name:
                reader.feed(b"event: " + name.encode())
            reader.feed(b"data: " + json.dumps(event).encode())
        return reader

    def test_text_and_tool_calls_are_kept_in_order_with_their_ids_in_each_protocol(self):
        anthropic = self.feed(lanes.ANTHROPIC_MESSAGES, [
            ("message_start", {"type": "message_start", "message": {"id": "m", "usage": {"input_tokens": 5}}}),
            (None, {"type": "content_block_start", "index": 0, "content_block": {"type": "text", "text": ""}}),
            (None, {"type": "content_block_delta", "index": 0, "delta": {"type": "text_delta", "text": "Hi"}}),
            (None, {"type": "content_block_start", "index": 1,
                    "content_block": {"type": "tool_use", "id": "toolu_9", "name": "f"}}),
            (None, {"type": "content_block_delta", "index": 1,
                    "delta": {"type": "input_json_delta", "partial_json": "{\"a\":"}}),
            (None, {"type": "content_block_delta", "index": 1,
                    "delta": {"type": "input_json_delta", "partial_json": "1}"}}),
            (None, {"type": "message_delta", "delta": {"stop_reason": "tool_use"}, "usage": {"output_tokens": 3}}),
            (None, {"type": "message_stop"})])
        chat = self.feed(lanes.OPENAI_CHAT, [
            (None, {"id": "c", "choices": [{"delta": {"content": "Hi"}}]}),
            (None, {"choices": [{"delta": {"tool_calls": [{"index": 0, "id": "call_9",
                                                           "function": {"name": "f", "arguments": "{\"a\":"}}]}}]}),
            (None, {"choices": [{"delta": {"tool_calls": [{"index": 0, "function": {"arguments": "1}"}}]}}]}),
            (None, {"choices": [{"delta": {}, "finish_reason": "tool_calls"}]})])
        responses = self.feed(lanes.OPENAI_RESPONSES, [
            (None, {"type": "response.output_text.delta", "delta": "Hi"}),
            (None, {"type": "response.output_item.added", "output_index": 1,
                    "item": {"type": "function_call", "call_id": "fc_9", "name": "f"}}),
            (None, {"type": "response.function_call_arguments.delta", "output_index": 1, "delta": "{\"a\":"}),
            (None, {"type": "response.function_call_arguments.delta", "output_index": 1, "delta": "1}"}),
            (None, {"type": "response.output_item.done", "output_index": 1,
                    "item": {"type": "function_call", "call_id": "fc_9", "name": "f", "arguments": "{\"a\":1}"}}),
            (None, {"type": "response.completed", "response": {"status": "completed"}})])
        for reader, call_id in ((anthropic, "toolu_9"), (chat, "call_9"), (responses, "fc_9")):
            with self.subTest(protocol=reader.protocol):
                self.assertEqual(reader.take_deltas(), [("text", "Hi"), ("tool", 0, call_id, "f"),
                                                        ("arguments", 0, "{\"a\":"), ("arguments", 0, "1}")])
                [call] = reader.outcome.tool_calls
                self.assertEqual((call.id, call.name, conversation.arguments_object(call.arguments)),
                                 (call_id, "f", {"a": 1}))
                self.assertEqual(reader.take_deltas(), [])


class ConversationTest(unittest.TestCase):
    TURNS = [{"role": "user", "content": "Go"},
             {"role": "assistant", "content": "", "tool_calls": [{"id": "1", "name": "f", "arguments": "{}"},
                                                                 {"id": "2", "name": "g", "arguments": "bad"}]},
             {"role": "tool", "tool_call_id": "1", "content": "one"},
             {"role": "tool", "tool_call_id": "2", "content": "two", "is_error": True},
             {"role": "user", "content": "And?"}]

    def test_anthropic_puts_every_tool_result_and_the_following_text_in_one_user_message(self):
        messages = conversation.anthropic_messages(self.TURNS)
        self.assertEqual([message["role"] for message in messages], ["user", "assistant", "user"])
        self.assertEqual([block["type"] for block in messages[1]["content"]], ["tool_use", "tool_use"])
        # Arguments that are not a JSON object reach an object-only protocol as an empty one.
        self.assertEqual(messages[1]["content"][1]["input"], {})
        self.assertEqual(messages[2]["content"], [
            {"type": "tool_result", "tool_use_id": "1", "content": "one"},
            {"type": "tool_result", "tool_use_id": "2", "content": "two", "is_error": True},
            {"type": "text", "text": "And?"}])

    def test_responses_gets_calls_and_outputs_as_items_and_chat_keeps_its_own_shape(self):
        items = conversation.responses_input(self.TURNS)
        self.assertEqual([item.get("type", item.get("role")) for item in items],
                         ["user", "function_call", "function_call", "function_call_output", "function_call_output",
                          "user"])
        chat = conversation.openai_chat_messages(self.TURNS)
        self.assertEqual([message["role"] for message in chat], ["user", "assistant", "tool", "tool", "user"])
        self.assertIsNone(chat[1]["content"])
        self.assertEqual(chat[1]["tool_calls"][1]["function"]["arguments"], "bad")


class FiguresTest(unittest.TestCase):
    def test_percentiles_by_nearest_rank(self):
        self.assertEqual(scoring.percentiles([]), {})
        self.assertEqual(scoring.percentiles(list(range(1, 101))), {"p50": 50.0, "p75": 75.0, "p90": 90.0, "p99": 99.0})
        self.assertEqual(scoring.percentiles([7]), {"p50": 7.0, "p75": 7.0, "p90": 7.0, "p99": 7.0})

    def test_budget_periods_begin_at_utc_midnight_monday_and_the_first(self):
        moment = datetime.datetime(2026, 11, 19, 15, 30, tzinfo=datetime.timezone.utc).timestamp()  # a Thursday

        def start(period):
            return datetime.datetime.fromtimestamp(ledger.period_start(period, moment), tz=datetime.timezone.utc)

        self.assertEqual(start("daily").isoformat(), "2026-11-19T00:00:00+00:00")
        self.assertEqual(start("weekly").isoformat(), "2026-11-16T00:00:00+00:00")
        self.assertEqual(start("monthly").isoformat(), "2026-11-01T00:00:00+00:00")
        self.assertEqual(ledger.period_start("lifetime", moment), 0.0)

    def test_headroom_is_the_least_left_in_any_budget_that_applies_counting_reservations(self):
        moment = datetime.datetime(2026, 11, 19, 15, 30, tzinfo=datetime.timezone.utc).timestamp()  # a Thursday
        with tempfile.TemporaryDirectory() as folder:
            db = Database(os.path.join(folder, "relay.db"))
            self.addCleanup(db.close)
            with db.write() as conn:
                conn.execute("INSERT INTO users (id, email, created_at) VALUES ('u', 'u@x', 'now')")
            with db.write_as("u") as conn:
                for project, cost, when in ((None, 1.0, moment), ("p", 0.5, moment),
                                            ("p", 50.0, moment - 40 * 86400)):
                    conn.execute("INSERT INTO router_attempts (user_id, generation_id, seq, provider, model_id, "
                                 "project_id, status, latency_ms, input_tokens, output_tokens, cost_usd, "
                                 "created_at) VALUES (:user_id, 'g', 1, 'p1', 'm', :project, 'succeeded', 1, 1, 1, "
                                 ":cost, :when)", {"project": project, "cost": cost, "when": when})
                self.assertIsNone(ledger.headroom(conn, None, moment))
                ledger.set_budget(conn, "daily", 10.0)
                ledger.set_budget(conn, "monthly", 5.0)
                ledger.set_budget(conn, "daily", 3.0, "p")
                ledger.set_budget(conn, "monthly", 4.0, "p")
                saved, clock.now = clock.now, lambda: moment
                try:
                    self.assertIsNotNone(ledger.reserve(conn, 0.25, "p"))
                    self.assertIsNotNone(ledger.reserve(conn, 0.1))
                finally:
                    clock.now = saved
                # The account's budgets count every attempt this period (1.5) and every reservation (0.35).
                self.assertAlmostEqual(ledger.headroom(conn, None, moment), 5.0 - 1.5 - 0.35)
                # The project's count its own (0.5 today and this month, 0.25 reserved).
                self.assertAlmostEqual(ledger.headroom(conn, "p", moment), 3.0 - 0.5 - 0.25)
                self.assertAlmostEqual(ledger.headroom(conn, "q", moment), 5.0 - 1.5 - 0.35)


if __name__ == "__main__":
    unittest.main()
