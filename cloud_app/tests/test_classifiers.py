"""Usage classifiers through the relay: the person's taxonomies, and the tags a small
structured-output lane gives a sample of completed API generations, off the callers' path."""

import copy
import json
import sqlite3
import time
import unittest

from fake_provider import Reply
from router_support import lane
from support import CLASSIFIER
from test_router import RouterTestCase

TAGS = {"difficulty_tier": "expert", "task_family": "coding"}
# How long a test waits for tagging that runs in the background.
TAGGING_WAIT_SECONDS = 20
POLL_SECONDS = 0.05
QUIET_SECONDS = 1.0
# Long beside the few milliseconds the pending row takes to appear after the caller's answer.
TAGGER_DELAY_SECONDS = 2.0


class ClassifierTestCase(RouterTestCase):
    # A repeatable sample; a provider may be silent long enough for a slow tagging lane.
    extra_env = {"MERE_RELAY_CLASSIFIER_SEED": "7", "MERE_RELAY_UPSTREAM_READ_SECONDS": "10"}

    @classmethod
    def make_lanes(cls, fake):
        return [lane("work", fake.openai_base_url, quality=90),
                lane("tagger", fake.openai_base_url, quality=10, upstream_model="tagger-model",
                     capabilities=["structured_output"]),
                lane("no-structure", fake.openai_base_url, quality=5, upstream_model="tagger-model")]

    def setUp(self):
        super().setUp()
        for classifier in self.call("GET", "v1/classifiers")[1]["data"]:
            self.call("DELETE", f"v1/classifiers/{classifier['id']}")
        self.tagger_reply = lambda: Reply(text=json.dumps(TAGS))
        self.fake.responder = self.respond

    def respond(self, recorded):
        if recorded.body.get("model") == "tagger-model":
            return self.tagger_reply()
        return Reply(text="Done.")

    def classifier(self, **changes):
        body = copy.deepcopy(CLASSIFIER)
        body.update(dict({"model": "tagger"}, **changes))
        status, answer, _ = self.call("POST", "v1/classifiers", body)
        self.assertEqual(status, 200, answer)
        return answer["data"]

    def complete(self, text="Refactor the parser."):
        status, answer, _ = self.call("POST", "v1/complete", {"task": "code", "input": text, "model": "work",
                                                               "max_output_tokens": 100})
        self.assertEqual(status, 200, answer)
        return answer

    def activity(self):
        status, rows, _ = self.call("GET", "v1/classifiers/activity")
        self.assertEqual(status, 200, rows)
        return rows

    def rows(self, count):
        """The activity once it holds `count` rows, whatever their status."""
        deadline = time.monotonic() + TAGGING_WAIT_SECONDS
        while len(rows := self.activity()) < count:
            if time.monotonic() > deadline:
                self.fail(f"no {count} activity rows: {rows}")
            time.sleep(POLL_SECONDS)
        return rows

    def quiet(self):
        """The activity once sampling and tagging are over: nothing pending, and no new row for
        QUIET_SECONDS (samples are recorded just after their answers, off the callers' path)."""
        deadline = time.monotonic() + TAGGING_WAIT_SECONDS
        rows, stable_since = self.activity(), time.monotonic()
        while time.monotonic() - stable_since < QUIET_SECONDS or any(row["status"] == "pending" for row in rows):
            if time.monotonic() > deadline:
                self.fail(f"tagging did not settle: {rows}")
            time.sleep(POLL_SECONDS)
            now = self.activity()
            if len(now) != len(rows) or any(row["status"] == "pending" for row in now):
                stable_since = time.monotonic()
            rows = now
        return rows

    def settled(self, count):
        """The activity once `count` rows exist and none is pending."""
        deadline = time.monotonic() + TAGGING_WAIT_SECONDS
        while True:
            rows = self.activity()
            if len(rows) >= count and all(row["status"] != "pending" for row in rows):
                return rows
            if time.monotonic() > deadline:
                self.fail(f"tagging did not settle: {rows}")
            time.sleep(POLL_SECONDS)


class ClassifierRecordsTest(ClassifierTestCase):
    def test_a_classifier_is_created_listed_replaced_at_its_own_path_and_deleted_in_the_data_envelope(self):
        created = self.classifier(name="  Agent complexity ", dimensions=[
            {"key": " Task_Family ", "label": " Task family ", "values": ["coding", " analysis ", "", "coding"]}])
        self.assertTrue(created["id"].startswith("cls_"))
        self.assertEqual(created["name"], "Agent complexity")
        self.assertEqual(created["dimensions"], [{"key": "task_family", "label": "Task family",
                                                  "values": ["coding", "analysis"]}])
        self.assertEqual(created["coverage"], {"pending": 0, "succeeded": 0, "failed": 0})
        self.assertEqual((created["sampling_rate"], created["active"], created["model"]), (1.0, True, "tagger"))
        status, listed, _ = self.call("GET", "v1/classifiers")
        self.assertEqual((status, [item["id"] for item in listed["data"]]), (200, [created["id"]]))
        changed = dict(CLASSIFIER, name="Renamed", sampling_rate=0.5, active=False)
        status, answer, _ = self.call("PUT", f"v1/classifiers/{created['id']}", changed)
        self.assertEqual(status, 200, answer)
        self.assertEqual((answer["data"]["id"], answer["data"]["name"], answer["data"]["active"]),
                         (created["id"], "Renamed", False))
        self.assertEqual(answer["data"]["created_at"], created["created_at"])
        self.assertEqual(len(self.call("GET", "v1/classifiers")[1]["data"]), 1)
        status, answer, _ = self.call("PUT", "v1/classifiers/cls_missing", changed)
        self.assertError(answer, status, 404, message="classifier not found")
        self.assertEqual(self.call("DELETE", f"v1/classifiers/{created['id']}")[0], 200)
        self.assertEqual(self.call("GET", "v1/classifiers")[1], {"data": []})
        status, answer, _ = self.call("DELETE", f"v1/classifiers/{created['id']}")
        self.assertError(answer, status, 404, message="classifier not found")

    def test_inputs_the_screen_would_refuse_are_refused_with_the_field_named(self):
        one_value = [{"key": "k", "label": "L", "values": ["a", ""]}]
        cases = [({"name": "  "}, "name must be 1 to 200 characters"),
                 ({"dimensions": one_value}, "dimensions[0].values must hold 2 to 32 different values"),
                 ({"dimensions": []}, "dimensions must hold 1 to 8 dimensions"),
                 ({"dimensions": [dict(one_value[0], values=["a", "b"])] * 9},
                  "dimensions must hold 1 to 8 dimensions"),
                 ({"dimensions": [{"key": " ", "label": "L", "values": ["a", "b"]}]},
                  "dimensions[0].key and dimensions[0].label must not be empty"),
                 ({"dimensions": [{"key": "k", "label": "L", "values": ["a", "b"]},
                                  {"key": "K ", "label": "M", "values": ["a", "b"]}]},
                  "dimensions[1].key k is used twice"),
                 ({"sampling_rate": 1.5}, "sampling_rate must be a fraction from 0 to 1"),
                 ({"sampling_rate": -0.1}, "sampling_rate must be a fraction from 0 to 1"),
                 ({"active": "yes"}, "active must be a boolean, not a string")]
        for change, message in cases:
            with self.subTest(message=message):
                status, answer, _ = self.call("POST", "v1/classifiers", dict(CLASSIFIER, **change))
                self.assertError(answer, status, 400, message=message)
        self.assertEqual(self.call("GET", "v1/classifiers")[1], {"data": []})


class TaggingTest(ClassifierTestCase):
    def test_a_sampled_generation_is_tagged_after_the_caller_has_its_answer(self):
        classifier = self.classifier()
        # The tagging lane is slow: the caller's answer must not wait for it, so the sample is
        # still pending once it shows (it is recorded just after the answer, off its path).
        self.tagger_reply = lambda: Reply(text=json.dumps(TAGS), first_byte_delay=TAGGER_DELAY_SECONDS)
        started = time.monotonic()
        answer = self.complete("Refactor the parser. SECRET-PROMPT-WORDS")
        self.assertLess(time.monotonic() - started, TAGGER_DELAY_SECONDS)
        [pending] = self.rows(1)
        self.assertEqual((pending["status"], pending["generation_id"], pending["classifier_id"]),
                         ("pending", answer["id"], classifier["id"]))
        [row] = self.settled(1)
        self.assertEqual((row["status"], row["tags"], row["model_id"], row["provider"]),
                         ("succeeded", TAGS, "tagger", "fake"))
        self.assertNotIn("error_code", row)
        [listed] = self.call("GET", "v1/classifiers")[1]["data"]
        self.assertEqual(listed["coverage"], {"pending": 0, "succeeded": 1, "failed": 0})
        # The tagging call saw the conversation with its taxonomy, and was itself not tagged.
        [tagging] = [request for request in self.fake.model_requests() if request.body["model"] == "tagger-model"
                     and "SECRET-PROMPT-WORDS" in json.dumps(request.body)]
        system = tagging.body["messages"][0]["content"]
        self.assertIn("difficulty_tier (Difficulty): trivial | standard | expert", system)
        self.assertIn("SECRET-PROMPT-WORDS", tagging.body["messages"][1]["content"])
        self.assertEqual(len(self.activity()), 1)
        # Only tags are kept: the conversation is nowhere in the database.
        with open(self.relay.db_path, "rb") as handle:
            self.assertNotIn(b"SECRET-PROMPT-WORDS", handle.read())
        with sqlite3.connect(self.relay.db_path) as conn:
            self.assertEqual(conn.execute("PRAGMA wal_checkpoint(TRUNCATE)").fetchone()[0], 0)
        with open(self.relay.db_path, "rb") as handle:
            self.assertNotIn(b"SECRET-PROMPT-WORDS", handle.read())

    def test_an_answer_outside_the_taxonomy_or_not_json_is_a_failure_not_a_tag(self):
        self.classifier()
        answers = [('{"difficulty_tier": "impossible", "task_family": "coding"}', "value_outside_taxonomy"),
                   ('{"difficulty_tier": "expert"}', "missing_dimension"),
                   ("expert coding", "invalid_json")]
        for number, (text, code) in enumerate(answers, start=1):
            with self.subTest(code=code):
                self.tagger_reply = lambda text=text: Reply(text=text)
                self.complete()
                row = self.settled(number)[0]
                self.assertEqual((row["status"], row["error_code"], row["tags"]), ("failed", code, {}))
        [listed] = self.call("GET", "v1/classifiers")[1]["data"]
        self.assertEqual(listed["coverage"], {"pending": 0, "succeeded": 0, "failed": 3})

    def test_a_model_that_is_not_a_ready_structured_output_lane_fails_each_sample_by_name(self):
        for model in ("", "no-structure", "absent"):
            with self.subTest(model=model):
                self.setUp()
                self.classifier(model=model)
                self.complete()
                [row] = self.settled(1)
                self.assertEqual((row["status"], row["error_code"]), ("failed", "model_unavailable"))
        self.assertFalse([request for request in self.fake.model_requests()
                          if request.body["model"] == "tagger-model"])

    def test_an_inactive_classifier_and_a_zero_rate_sample_nothing(self):
        self.classifier(active=False)
        self.classifier(sampling_rate=0.0)
        for _ in range(5):
            self.complete()
        self.assertEqual(self.quiet(), [])

    def test_a_quarter_of_a_hundred_generations_is_tagged_within_the_stated_bound(self):
        classifier = self.classifier(sampling_rate=0.25)
        for _ in range(100):
            self.complete()
        rows = self.quiet()
        # The sampled count is Binomial(100, 0.25): mean 25, standard deviation 4.3. Within
        # 12 of the mean is nearly three deviations: a sampler that is off shows, chance does not.
        self.assertLessEqual(abs(len(rows) - 25), 12, len(rows))
        self.assertEqual({(row["status"], row["classifier_id"]) for row in rows}, {("succeeded", classifier["id"])})
        [listed] = self.call("GET", "v1/classifiers")[1]["data"]
        self.assertEqual(listed["coverage"]["succeeded"], len(rows))


if __name__ == "__main__":
    unittest.main()
