"""Run events, provider health and terminal sessions."""

import re
import unittest

import support  # noqa: F401
from support import RelayTestCase

ISO_SECONDS = re.compile(r"^\d{4}-\d\d-\d\dT\d\d:\d\d:\d\dZ$")
EVENT = {"run_id": "4C6E1B0A-0000-4000-8000-000000000001", "name": "codex · workspace edits", "type": "started",
         "tokens": 0, "cost_usd": 0, "detail": "Started from the Quillmere orchestrator"}


class EventsTest(RelayTestCase):
    def test_event_is_accepted(self):
        status, answer, _ = self.call("POST", "v1/events", EVENT)
        self.assertEqual((status, answer), (200, {"accepted": True}))

    def test_cost_may_be_fractional_and_tokens_large(self):
        body = dict(EVENT, type="finished", tokens=2**40, cost_usd=0.0125)
        self.assertEqual(self.call("POST", "v1/events", body)[0], 200)

    def test_validation(self):
        cases = [({"type": "paused"}, "type must be one of started, progress, finished, failed"),
                 ({"run_id": ""}, "run_id must not be empty"),
                 ({"run_id": None}, "run_id is required"),
                 ({"name": 7}, "name must be a string, not a number"),
                 ({"tokens": 1.5}, "tokens must be an integer, not a number"),
                 ({"tokens": -1}, "tokens must be an integer from 0 to 9223372036854775807"),
                 ({"tokens": 2**64}, "tokens must be an integer from 0 to 9223372036854775807"),
                 ({"cost_usd": "0"}, "cost_usd must be a number, not a string"),
                 ({"cost_usd": 1e300}, "cost_usd must be a number of at least 0 within range"),
                 ({"detail": []}, "detail must be a string, not an array")]
        for change, message in cases:
            status, answer, _ = self.call("POST", "v1/events", dict(EVENT, **change))
            self.assertError(answer, status, 400, message)


class ProviderHealthTest(RelayTestCase):
    def report(self, provider, success, latency=120):
        status, answer, _ = self.call("POST", "v1/router/health",
                                      {"provider": provider, "success": success, "latency_ms": latency})
        self.assertEqual(status, 200, answer)
        self.assertEqual(set(answer), {"provider", "health"})
        self.assertIsInstance(answer["health"], float)
        return answer["health"]

    def test_health_is_the_moving_mean_of_successes(self):
        self.assertEqual(self.report("anthropic-subscription", True), 1.0)
        self.assertEqual(self.report("anthropic-subscription", False), 0.5)
        self.assertAlmostEqual(self.report("anthropic-subscription", True), 2 / 3)
        self.assertEqual(self.report("openai-subscription", False), 0.0)

    def test_only_the_latest_twenty_reports_count(self):
        for _ in range(20):
            self.report("window", False)
        for number in range(1, 21):
            self.assertAlmostEqual(self.report("window", True), number / 20)

    def test_validation(self):
        for body, message in [({"provider": "p", "success": 1, "latency_ms": 5}, "success must be a boolean"),
                              ({"provider": "p", "success": True, "latency_ms": 5.5}, "latency_ms must be an integer"),
                              ({"provider": "", "success": True, "latency_ms": 5}, "provider must not be empty"),
                              ({"success": True, "latency_ms": 5}, "provider is required")]:
            status, answer, _ = self.call("POST", "v1/router/health", body)
            self.assertError(answer, status, 400, contains=message)


class TerminalTest(RelayTestCase):
    def create(self, source="desktop"):
        status, answer, _ = self.call("POST", "v1/terminal/sessions", {"source": source})
        self.assertEqual(status, 200, answer)
        self.assertEqual(set(answer), {"id", "started_at"})
        self.assertRegex(answer["started_at"], ISO_SECONDS)
        return answer["id"]

    def append(self, session_id, chunks):
        return self.call("POST", f"v1/terminal/sessions/{session_id}/events", {"chunks": chunks})

    @staticmethod
    def chunk(seq, data, stream="output"):
        return {"seq": seq, "stream": stream, "data": data, "ts": "2026-01-31T09:30:00Z"}

    def test_transcript_in_order(self):
        session_id = self.create()
        self.append(session_id, [self.chunk(2, "b"), self.chunk(1, "a", "input")])
        self.append(session_id, [self.chunk(3, "c\u00e9\ufffd")])
        status, answer, _ = self.call("GET", f"v1/terminal/sessions/{session_id}")
        self.assertEqual(status, 200)
        self.assertEqual([c["data"] for c in answer["chunks"]], ["a", "b", "c\u00e9\ufffd"])
        self.assertEqual(answer["chunks"][0], self.chunk(1, "a", "input"))
        self.assertEqual(answer["source"], "desktop")
        self.assertNotIn("ended_at", answer)

    def test_repeated_batch_is_accepted_and_stored_once(self):
        session_id = self.create()
        batch = [self.chunk(1, "one"), self.chunk(2, "two")]
        status, answer, _ = self.append(session_id, batch)
        self.assertEqual((status, answer), (200, {"accepted": 2, "stored": 2}))
        status, answer, _ = self.append(session_id, batch + [self.chunk(3, "three")])
        self.assertEqual((status, answer), (200, {"accepted": 3, "stored": 1}))
        status, answer, _ = self.append(session_id, [self.chunk(1, "changed")])
        self.assertEqual((status, answer), (200, {"accepted": 1, "stored": 0}))
        chunks = self.call("GET", f"v1/terminal/sessions/{session_id}")[1]["chunks"]
        self.assertEqual([(c["seq"], c["data"]) for c in chunks], [(1, "one"), (2, "two"), (3, "three")])

    def test_agent_run_output_of_two_million_characters(self):
        session_id = self.create("orchestrator:claude")
        output = ("x" * 99 + "\u00e9") * 20000 + "\n[OUTPUT TRUNCATED]"
        self.assertEqual(self.append(session_id, [self.chunk(1, "prompt", "input")])[0], 200)
        self.assertEqual(self.append(session_id, [self.chunk(2, output)])[0], 200)
        chunks = self.call("GET", f"v1/terminal/sessions/{session_id}")[1]["chunks"]
        self.assertEqual(chunks[1]["data"], output)

    def test_end_and_list(self):
        session_id = self.create("orchestrator:api router")
        self.append(session_id, [self.chunk(1, "x")])
        status, answer, _ = self.call("POST", f"v1/terminal/sessions/{session_id}/end")
        self.assertEqual(status, 200)
        self.assertEqual(set(answer), {"id", "ended_at"})
        again = self.call("POST", f"v1/terminal/sessions/{session_id}/end")[1]
        self.assertEqual(again["ended_at"], answer["ended_at"])
        status, answer, _ = self.append(session_id, [self.chunk(2, "late")])
        self.assertError(answer, status, 409, "terminal session has ended")
        status, sessions, _ = self.call("GET", "v1/terminal/sessions")
        self.assertEqual(status, 200)
        mine = [s for s in sessions if s["id"] == session_id][0]
        self.assertEqual(mine["chunk_count"], 1)
        self.assertEqual(mine["source"], "orchestrator:api router")
        self.assertRegex(mine["ended_at"], ISO_SECONDS)
        self.assertEqual(len(self.call("GET", "v1/terminal/sessions?limit=1")[1]), 1)

    def test_unknown_session_is_404(self):
        for method, path, body in [("POST", "v1/terminal/sessions/ts_none/events", {"chunks": []}),
                                   ("POST", "v1/terminal/sessions/ts_none/end", None),
                                   ("GET", "v1/terminal/sessions/ts_none", None)]:
            status, answer, _ = self.call(method, path, body)
            self.assertError(answer, status, 404, "terminal session not found")

    def test_validation(self):
        session_id = self.create()
        cases = [({"chunks": "x"}, "chunks must be an array, not a string"),
                 ({}, "chunks is required"),
                 ({"chunks": [5]}, "chunks[0] must be a JSON object"),
                 ({"chunks": [dict(self.chunk(1, "a"), seq=0)]}, "chunks[0].seq must be an integer from 1 to"),
                 ({"chunks": [dict(self.chunk(1, "a"), seq="1")]}, "chunks[0].seq must be an integer, not a string"),
                 ({"chunks": [self.chunk(1, "a"), dict(self.chunk(2, "a"), stream="error")]},
                  "chunks[1].stream must be one of input, output"),
                 ({"chunks": [dict(self.chunk(1, "a"), data=None)]}, "chunks[0].data is required")]
        for body, message in cases:
            status, answer, _ = self.call("POST", f"v1/terminal/sessions/{session_id}/events", body)
            self.assertError(answer, status, 400, contains=message)
        self.assertEqual(self.call("GET", f"v1/terminal/sessions/{session_id}")[1]["chunks"], [])
        status, answer, _ = self.call("POST", "v1/terminal/sessions", {"source": 1})
        self.assertError(answer, status, 400, "source must be a string, not a number")
        status, answer, _ = self.call("GET", "v1/terminal/sessions?limit=0")
        self.assertError(answer, status, 400, "limit must be a whole number from 1 to 1000")


if __name__ == "__main__":
    unittest.main()
