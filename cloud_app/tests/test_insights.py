"""Insights through the relay: counts from the relay's own records, for the caller alone, and
the suggestions they lead to."""

import copy
import json
import sqlite3
import time
import unittest

from fake_provider import Reply
from router_support import lane
from support import CHUNK, CLASSIFIER, INTERRUPT
from test_router import RouterTestCase

GENERATIONS = 21
# The share of a budget the test's spending takes: past the warning's 80%.
BUDGET_SHARE = 0.9


class InsightsTest(RouterTestCase):
    @classmethod
    def make_lanes(cls, fake):
        return [lane("work", fake.openai_base_url, quality=90)]

    @classmethod
    def setUpClass(cls):
        super().setUpClass()
        cls.bob, _ = cls.relay.code_token("bob@example.com")

    def insights(self, token=True):
        status, answer, _ = self.call("GET", "v1/insights", token=token)
        self.assertEqual(status, 200, answer)
        return answer

    def test_a_new_user_has_zeros_a_summary_and_no_suggestions(self):
        answer = self.insights(token=self.bob)
        self.assertEqual({key: value for key, value in answer.items() if key != "summary"}, {
            "terminal_sessions": 0, "terminal_events": 0, "connected_apps": [], "integration_activity": {},
            "recent_external_activity": 0, "project_count": 0, "context_items": 0, "preset_count": 0,
            "classifier_count": 0, "classification_status": {}, "classification_tags": {}, "gateway_requests": 0,
            "gateway_spend_usd": 0.0, "suggestions": []})
        self.assertEqual(answer["summary"], "Last 30 days: 0 API runs for $0.0000. 0 projects with 0 context items, "
                                            "0 connected apps.")

    def test_the_records_are_counted_for_their_user_and_lead_to_suggestions(self):
        self.fake.default_reply = Reply(text="Done.", input_tokens=1000, output_tokens=500)
        for _ in range(GENERATIONS):
            status, answer, _ = self.call("POST", "v1/complete", {"task": "code", "input": "Do it.", "model": "work",
                                                                   "max_output_tokens": 600})
            self.assertEqual(status, 200, answer)
        session = self.call("POST", "v1/terminal/sessions", {"source": "desktop"})[1]["id"]
        self.call("POST", f"v1/terminal/sessions/{session}/events", {"chunks": [CHUNK]})
        self.call("POST", "v1/interrupts", INTERRUPT)
        self.call("POST", "v1/projects", {"name": "p", "root_path": "/work/insights-p"})
        classifier = copy.deepcopy(CLASSIFIER)
        classifier["active"] = False
        classifier_id = self.call("POST", "v1/classifiers", classifier)[1]["data"]["id"]
        with sqlite3.connect(self.relay.db_path) as conn:
            user = conn.execute("SELECT user_id FROM classifiers WHERE id = ?", (classifier_id,)).fetchone()[0]
            for tags, status in (({"difficulty_tier": "expert", "task_family": "coding"}, "succeeded"),
                                 ({"difficulty_tier": "expert", "task_family": "analysis"}, "succeeded"),
                                 ({}, "failed")):
                conn.execute("INSERT INTO classification_activity (user_id, id, generation_id, classifier_id, "
                             "classifier_name, status, tags, created_at) VALUES (?, ?, 'g', ?, 'c', ?, ?, ?)",
                             (user, f"act_{status}_{len(tags)}_{json.dumps(tags)}", classifier_id, status,
                              json.dumps(tags), time.time()))
        answer = self.insights()
        self.assertEqual((answer["terminal_sessions"], answer["terminal_events"]), (1, 1))
        self.assertEqual(answer["recent_external_activity"], 1)
        self.assertEqual((answer["project_count"], answer["context_items"], answer["classifier_count"]), (1, 0, 1))
        self.assertEqual(answer["classification_status"], {"failed": 1, "succeeded": 2})
        self.assertEqual(answer["classification_tags"], {"difficulty_tier": {"expert": 2},
                                                         "task_family": {"coding": 1, "analysis": 1}})
        self.assertEqual(answer["gateway_requests"], GENERATIONS)
        self.assertGreater(answer["gateway_spend_usd"], 0)
        self.assertEqual([suggestion["id"] for suggestion in answer["suggestions"]], ["context-empty", "tag-traffic"])
        self.assertIn(f"Last 30 days: {GENERATIONS} API runs for $", answer["summary"])
        # A budget nearly used is a warning, first.
        limit = round(answer["gateway_spend_usd"] / BUDGET_SHARE, 6)
        self.assertEqual(self.call("POST", "v1/router/budgets", {"period": "monthly", "limit_usd": limit})[0], 200)
        warning = self.insights()["suggestions"][0]
        self.assertEqual((warning["id"], warning["priority"], warning["action"]),
                         ("budget-account-monthly", "warning", "Review budgets"))
        # Bob sees none of it.
        self.assertEqual(self.insights(token=self.bob)["gateway_requests"], 0)
        self.assertEqual(self.insights(token=self.bob)["classification_tags"], {})

if __name__ == "__main__":
    unittest.main()
