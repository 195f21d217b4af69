"""Probing one provider lane: a real minimal request, recorded in the ledger, and a failure
status (never a 2xx) when the provider does not answer correctly."""

import unittest

from fake_provider import Reply, failure
from test_router import RouterTestCase


class ProbeTest(RouterTestCase):
    def probe(self, model_id):
        return self.call("POST", "v1/router/probe", {"model_id": model_id})

    def test_a_probe_of_each_protocol_makes_one_minimal_request_and_records_a_generation(self):
        for lane_id in ("chat", "chat-stream", "responses", "responses-stream", "messages", "messages-stream"):
            with self.subTest(lane=lane_id):
                self.fake.reset()
                self.fake.script(Reply(text="OK", input_tokens=12, output_tokens=1))
                status, answer, _ = self.probe(lane_id)
                self.assertEqual(status, 200, answer)
                self.assertEqual(set(answer), {"ok", "generation_id", "model", "provider", "latency_ms", "cost_usd"})
                self.assertEqual((answer["ok"], answer["model"], answer["provider"]), (True, lane_id, "fake"))
                self.assertAlmostEqual(answer["cost_usd"], (12 * 1.0 + 1 * 4.0) / 1e6)
                self.assertIsInstance(answer["latency_ms"], int)
                [sent] = self.fake.model_requests()
                self.assertTrue(sent.key_ok)
                # The one-token output cap travels in the protocol's own field.
                caps = {name: sent.body[name] for name in ("max_tokens", "max_completion_tokens", "max_output_tokens")
                        if name in sent.body}
                self.assertEqual(set(caps.values()), {1}, sent.body)
                generation = self.generations()[0]
                self.assertEqual((generation["id"], generation["model_id"], generation["status"]),
                                 (answer["generation_id"], lane_id, "succeeded"))

    def test_a_provider_that_fails_makes_the_probe_fail_with_its_reason(self):
        for reply, failure_class in ((failure(401, "bad key"), "refused"), (failure(503), "overloaded"),
                                     (failure(400, "no such model"), "bad_request")):
            with self.subTest(failure=failure_class):
                self.fake.reset()
                self.fake.script(reply)
                status, answer, _ = self.probe("chat")
                self.assertError(answer, status, 502, contains=f"({failure_class})")
                self.assertTrue(answer["error"]["message"].startswith("probe failed: "))
                self.assertEqual(len(self.fake.model_requests()), 1)  # a probe is never retried elsewhere
                generation = self.generations()[0]
                self.assertEqual((generation["model_id"], generation["status"]), ("chat", "failed"))

    def test_unknown_cli_and_keyless_lanes_are_refused_without_a_provider_call(self):
        status, answer, _ = self.probe("nope")
        self.assertError(answer, status, 404, "model nope is not in the catalog")
        status, answer, _ = self.probe("claude-subscription")
        self.assertError(answer, status, 422, contains="CLI lane")
        status, answer, _ = self.probe("keyless")
        self.assertError(answer, status, 422, contains="ROUTER_UNSET_KEY is not set")
        status, answer, _ = self.probe("")
        self.assertError(answer, status, 400, "model_id must not be empty")
        self.assertEqual(self.fake.model_requests(), [])


if __name__ == "__main__":
    unittest.main()
