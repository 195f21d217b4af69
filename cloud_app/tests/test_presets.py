"""Versioned agent presets: captures, designation and rollback, and `@preset/<slug>` in completions
against a fake provider on loopback."""

import concurrent.futures
import json
import sqlite3
import threading
import unittest
import urllib.request

import support  # noqa: F401
from fake_provider import FakeProvider, Reply, failure
from router_support import FAKE_KEY, inventory_env, lane
from relaylib.modelrouter import middle_out
from support import GATEWAY_KEY, RelayTestCase

PRESET_KEYS = ["id", "name", "slug", "status", "designated_version_id", "created_at", "updated_at",
               "designated_version", "versions"]
VERSION_KEYS = ["id", "version", "system_prompt", "config", "created_at", "updated_at"]
# What the form sends for a new preset with everything set.
FULL = {"model": "fast", "models": ["fast", "slow"], "service_tier": "default", "max_tokens": 900,
        "temperature": 0.3, "top_p": 0.9, "provider": {"sort": "price"},
        "plugins": [{"id": "context-compression"}, {"id": "response-healing"}],
        "response_format": {"type": "json_object"},
        "messages": [{"role": "system", "content": "You review code."}], "quillmere_clear_fields": []}


class PresetTestCase(RelayTestCase):
    def capture(self, slug, body, expected=200):
        status, answer, _ = self.call("POST", f"v1/presets/{slug}/chat/completions", body)
        self.assertEqual(status, expected, answer)
        if expected == 200:
            self.assertEqual(list(answer), ["data"])
            self.assertEqual(list(answer["data"]), PRESET_KEYS)
            for version in answer["data"]["versions"]:
                self.assertEqual(list(version), VERSION_KEYS)
            return answer["data"]
        return answer

    def designate(self, slug, version, expected=200):
        status, answer, _ = self.call("POST", f"v1/presets/{slug}/versions/{version}/designate", {})
        self.assertEqual(status, expected, answer)
        return answer["data"] if expected == 200 else answer

    def presets(self):
        status, answer, _ = self.call("GET", "v1/presets")
        self.assertEqual(status, 200)
        self.assertEqual(list(answer), ["data"])
        return answer["data"]


class CaptureTest(PresetTestCase):
    def setUp(self):
        for preset in self.presets():
            self.call("DELETE", f"v1/presets/{preset['slug']}")

    def test_a_capture_creates_version_one_and_designates_it(self):
        preset = self.capture("code-reviewer", FULL)
        self.assertEqual((preset["slug"], preset["name"], preset["status"]), ("code-reviewer", "code-reviewer",
                                                                              "active"))
        self.assertEqual([version["version"] for version in preset["versions"]], [1])
        self.assertEqual(preset["designated_version"], preset["versions"][0])
        self.assertEqual(preset["designated_version_id"], preset["versions"][0]["id"])
        self.assertEqual(preset["designated_version"]["system_prompt"], "You review code.")
        self.assertEqual(preset["designated_version"]["config"], {
            "model": "fast", "models": ["fast", "slow"], "max_output_tokens": 900, "temperature": 0.3,
            "top_p": 0.9, "provider": {"sort": "price"},
            "plugins": [{"id": "context-compression"}, {"id": "response-healing"}],
            "response_format": {"type": "json_object"}})
        self.assertEqual(self.presets(), [preset])

    def test_an_anthropic_or_responses_body_is_captured_like_a_chat_completion(self):
        schema = {"type": "object", "properties": {"path": {"type": "string"}}}
        bodies = {
            "messages": {"model": "fast", "max_tokens": 700, "temperature": 0.2, "system": [
                {"type": "text", "text": "You review code."}],
                "tools": [{"name": "read_file", "description": "Reads a file.", "input_schema": schema}],
                "messages": [{"role": "user", "content": "ignored"}]},
            "responses": {"model": "fast", "max_output_tokens": 700, "temperature": 0.2,
                          "instructions": "You review code.",
                          "tools": [{"type": "function", "name": "read_file", "description": "Reads a file.",
                                     "parameters": schema}],
                          "text": {"format": {"type": "json_object"}}, "input": "ignored"}}
        for path, body in bodies.items():
            with self.subTest(path=path):
                status, answer, _ = self.call("POST", f"v1/presets/from-{path}/{path}", body)
                self.assertEqual(status, 200, answer)
                version = answer["data"]["designated_version"]
                self.assertEqual(version["system_prompt"], "You review code.")
                config = version["config"]
                self.assertEqual((config["model"], config["max_output_tokens"], config["temperature"]),
                                 ("fast", 700, 0.2))
                self.assertEqual(config["tools"], [{"type": "function", "function": {
                    "name": "read_file", "parameters": schema, "description": "Reads a file."}}])
        self.assertEqual(self.call("GET", "v1/presets/from-responses")[1]["data"]["designated_version"]["config"]
                         ["response_format"], {"type": "json_object"})
        status, answer, _ = self.call("POST", "v1/presets/bad/messages",
                                      {"model": "fast", "tools": [{"type": "bash_20250124", "name": "bash"}]})
        self.assertError(answer, status, 400,
                         message="tools[0].type bash_20250124 is not supported by this relay yet; declare custom tools")

    def test_every_save_is_a_new_version_and_an_edit_inherits_what_it_does_not_clear(self):
        self.capture("planner", FULL)
        edit = {"model": "slow", "messages": [], "quillmere_base_version": 1,
                "quillmere_clear_fields": ["temperature", "plugins"]}
        preset = self.capture("planner", edit)
        self.assertEqual([version["version"] for version in preset["versions"]], [1, 2])
        second = preset["designated_version"]
        self.assertEqual(second["version"], 2)
        # Cleared fields are gone, the others come from version 1; the chain, the tier and the
        # instructions are what the edit says.
        self.assertEqual(second["config"], {"model": "slow", "max_output_tokens": 900, "top_p": 0.9,
                                            "provider": {"sort": "price"}, "response_format": {"type": "json_object"}})
        self.assertEqual(second["system_prompt"], "")
        self.assertEqual(preset["versions"][0]["config"]["temperature"], 0.3)
        third = self.capture("planner", {"model": "fast", "messages": [], "quillmere_clear_fields": []})
        self.assertEqual(third["designated_version"]["config"], {"model": "fast"})
        self.assertEqual(len(third["versions"]), 3)

    def test_rollback_moves_the_pointer_and_makes_no_version(self):
        first = self.capture("roles", FULL)
        self.capture("roles", dict(FULL, model="slow", models=None))
        rolled = self.designate("roles", 1)
        self.assertEqual(rolled["designated_version"]["id"], first["designated_version"]["id"])
        self.assertEqual(len(rolled["versions"]), 2)
        self.assertEqual(self.presets()[0]["designated_version"]["version"], 1)
        forward = self.designate("roles", 2)
        self.assertEqual(forward["designated_version"]["config"]["model"], "slow")

    def test_a_sort_given_as_an_object_is_stored_as_its_by_entry(self):
        preset = self.capture("sorted", dict(FULL, provider={"sort": {"by": "latency", "partition": "none"}}))
        self.assertEqual(preset["designated_version"]["config"]["provider"], {"sort": "latency"})
        preset = self.capture("sorted", dict(FULL, provider={"sort": {"partition": "none"}}))
        self.assertNotIn("provider", preset["designated_version"]["config"])

    def test_a_real_chat_request_body_is_captured_as_defaults(self):
        body = {"model": "fast", "stream": True, "max_completion_tokens": 64, "user": "someone",
                "messages": [{"role": "developer", "content": [{"type": "text", "text": "Be brief."}]},
                             {"role": "user", "content": "What is this?"}],
                "tools": [{"type": "function", "function": {"name": "project_action", "parameters": {}}}]}
        version = self.capture("from-sdk", body)["designated_version"]
        self.assertEqual(version["system_prompt"], "Be brief.")
        self.assertEqual(version["config"]["max_output_tokens"], 64)
        self.assertEqual(version["config"]["tools"][0]["function"]["name"], "project_action")

    def test_delete(self):
        self.capture("gone", FULL)
        status, answer, _ = self.call("DELETE", "v1/presets/gone")
        self.assertEqual((status, answer), (200, {"deleted": True, "slug": "gone"}))
        self.assertEqual(self.presets(), [])
        status, answer, _ = self.call("DELETE", "v1/presets/gone")
        self.assertError(answer, status, 404, "preset gone not found")
        with sqlite3.connect(self.relay.db_path) as conn:
            self.assertEqual(conn.execute("SELECT count(*) FROM preset_versions").fetchone()[0], 0)

    def test_validation(self):
        longest = "a" * 64
        self.capture(longest, FULL)
        for slug in ["Code-Reviewer", "a" * 65, "-lead", "_x", "code%20reviewer"]:
            answer = self.capture(slug, FULL, expected=400)
            self.assertIn("slug must use lowercase letters", answer["error"]["message"])
        for change, message in [({"model": " "}, "model must not be empty"),
                                ({"model": None}, "model is required"),
                                ({"temperature": 2.5}, "temperature must be a number from 0 to 2"),
                                ({"top_p": -0.1}, "top_p must be a number of at least 0"),
                                ({"service_tier": "gold"}, "service_tier must be one of default, flex, priority"),
                                ({"provider": {"sort": "cheapest"}}, "provider.sort must be one of"),
                                ({"plugins": [{"id": "web"}]}, "plugins[0].id must be one of"),
                                ({"response_format": {"type": "yaml"}}, "response_format.type must be one of"),
                                ({"quillmere_clear_fields": ["model"]}, "quillmere_clear_fields[0] must be one of"),
                                ({"messages": [{"content": "x"}]}, "messages[0].role is required"),
                                ({"models": ["a", ""]}, "models[1] must be a model name")]:
            body = {key: value for key, value in dict(FULL, **change).items() if value is not None}
            answer = self.capture("valid", body, expected=400)
            self.assertIn(message, answer["error"]["message"], change)
        self.assertError(self.capture("nobase", dict(FULL, quillmere_base_version=1), expected=404), 404, 404,
                         "preset nobase not found")
        self.capture("based", FULL)
        self.assertError(self.capture("based", dict(FULL, quillmere_base_version=5), expected=404), 404, 404,
                         "version 5 of preset based not found")
        self.assertError(self.designate("based", 9, expected=404), 404, 404, "version 9 of preset based not found")
        self.assertError(self.designate("none", 1, expected=404), 404, 404, "preset none not found")
        for version in ["0", "1.0", "-1", "x", "%EF%BC%91", "99999999999"]:
            answer = self.designate("based", version, expected=400)
            self.assertIn("version must be a version number", answer["error"]["message"])


class PresetCompletionTest(PresetTestCase):
    """`@preset/<slug>` and `preset` in `v1/complete`, against a fake provider."""

    @classmethod
    def setUpClass(cls):
        cls.fake = FakeProvider(expected_key=FAKE_KEY).start()
        lanes = [lane("fast", cls.fake.openai_base_url, quality=90, upstream_model="fast-upstream"),
                 lane("slow", cls.fake.openai_base_url, quality=60, upstream_model="slow-upstream"),
                 lane("best", cls.fake.openai_base_url, quality=99, upstream_model="best-upstream"),
                 lane("flexible", cls.fake.openai_base_url, quality=50, upstream_model="flex-upstream",
                      service_tier="flex"),
                 lane("narrow", cls.fake.openai_base_url, quality=40, upstream_model="narrow-upstream",
                      context_window=400),
                 lane("wide", cls.fake.openai_base_url, quality=30, upstream_model="wide-upstream",
                      context_window=1000)]
        cls.relay_env = dict(inventory_env(lanes), MERE_RELAY_UPSTREAM_READ_SECONDS="2",
                             MERE_RELAY_ROUTER_SIGNALS_SECONDS="0")
        super().setUpClass()

    @classmethod
    def tearDownClass(cls):
        super().tearDownClass()
        cls.fake.stop()

    def setUp(self):
        self.fake.reset()
        with sqlite3.connect(self.relay.db_path) as conn:
            conn.execute("DELETE FROM provider_health")

    def complete(self, **fields):
        body = {"task": "reason", "input": "Shared Quillmere project context: tests use ctest.\n\nTask:\nReview."}
        body.update(fields)
        return self.call("POST", "v1/complete", body)

    def sent(self):
        requests = self.fake.model_requests()
        self.assertTrue(requests)
        return requests[-1].body

    def test_the_designated_version_is_applied_and_the_request_adds_its_own_context(self):
        self.capture("reviewer", FULL)
        for fields in ({"preset": "reviewer", "model": "auto"}, {"model": "@preset/reviewer"},
                       {"preset": "reviewer", "model": "@preset/reviewer"}):
            self.fake.reset()
            status, answer, _ = self.complete(instructions="Answer in English.", **fields)
            self.assertEqual(status, 200, answer)
            self.assertEqual(answer["model"], "fast")
            body = self.sent()
            self.assertEqual(body["model"], "fast-upstream")
            self.assertEqual(body["messages"][0], {"role": "system",
                                                   "content": "You review code.\n\nAnswer in English."})
            self.assertIn("tests use ctest", body["messages"][-1]["content"])
            self.assertEqual((body["max_completion_tokens"], body["temperature"], body["top_p"]), (900, 0.3, 0.9))
            self.assertEqual(body["response_format"], {"type": "json_object"})

    def test_the_gateway_paths_apply_a_preset_named_as_the_model(self):
        self.capture("reviewer", FULL)
        status, created, _ = self.call("POST", "v1/router/api-keys", GATEWAY_KEY)
        self.assertEqual(status, 200, created)
        asks = [("v1/chat/completions", {"model": "@preset/reviewer", "messages": [
                    {"role": "system", "content": "Answer in English."}, {"role": "user", "content": "Review."}]},
                 {"Authorization": f"Bearer {created['key']}"}),
                ("v1/messages", {"model": "@preset/reviewer", "max_tokens": 900, "system": "Answer in English.",
                                 "messages": [{"role": "user", "content": "Review."}]},
                 {"x-api-key": created["key"], "anthropic-version": "2023-06-01"})]
        for path, body, headers in asks:
            with self.subTest(path=path):
                self.fake.reset()
                status, answer, _ = self.call("POST", path, body, token=None, headers=headers)
                self.assertEqual(status, 200, answer)
                self.assertEqual(answer["model"], "fast")
                sent = self.sent()
                self.assertEqual(sent["model"], "fast-upstream")
                self.assertEqual(sent["messages"][0], {"role": "system",
                                                       "content": "You review code.\n\nAnswer in English."})
                self.assertEqual((sent["temperature"], sent["top_p"]), (0.3, 0.9))
        status, answer, _ = self.call("POST", "v1/chat/completions", dict(asks[0][1], model="@preset/nobody"),
                                      token=None, headers=asks[0][2])
        self.assertError(answer, status, 404, message="preset nobody not found")

    def test_request_fields_override_the_preset(self):
        self.capture("reviewer", FULL)
        status, answer, _ = self.complete(preset="reviewer", model="best", max_output_tokens=50)
        self.assertEqual(status, 200, answer)
        body = self.sent()
        self.assertEqual((body["model"], body["max_completion_tokens"]), ("best-upstream", 50))
        self.assertEqual(body["messages"][0]["content"], "You review code.")

    def test_the_fallback_chain_is_tried_in_the_presets_order(self):
        self.capture("chain", dict(FULL, model="slow", models=["slow", "fast"]))
        self.fake.script(failure(500))
        status, answer, _ = self.complete(preset="chain")
        self.assertEqual(status, 200, answer)
        self.assertEqual([attempt["model_id"] for attempt in answer["attempts"]], ["slow", "fast"])
        self.assertTrue(answer["fell_back"])

    def test_the_tier_narrows_the_lanes(self):
        self.capture("cheap", dict(FULL, model="flexible", models=None, service_tier="flex"))
        status, answer, _ = self.complete(preset="cheap")
        self.assertEqual((status, answer.get("model")), (200, "flexible"), answer)
        self.capture("mismatch", dict(FULL, model="fast", models=None, service_tier="priority"))
        status, answer, _ = self.complete(preset="mismatch")
        self.assertError(answer, status, 422, "no lane of the chosen models serves the service tier priority")

    def test_unknown_and_conflicting_presets(self):
        status, answer, _ = self.complete(preset="nobody", max_output_tokens=10)
        self.assertError(answer, status, 404, "preset nobody not found")
        status, answer, _ = self.complete(model="@preset/nobody", max_output_tokens=10)
        self.assertError(answer, status, 404, "preset nobody not found")
        self.capture("one", FULL)
        self.capture("two", FULL)
        status, answer, _ = self.complete(preset="one", model="@preset/two")
        self.assertError(answer, status, 400, "preset and model name two different presets")
        status, answer, _ = self.complete(model="auto")
        self.assertError(answer, status, 400, "max_output_tokens is required")

    def test_context_compression_keeps_the_start_and_the_end_sized_for_each_lane(self):
        prompt = "START of the task. " + "middle filler words " * 400 + "the END of the task."
        plain = dict(FULL, model="narrow", models=["narrow", "wide"], plugins=[], response_format=None,
                     quillmere_clear_fields=["plugins", "response_format"])
        self.capture("uncut", plain)
        status, answer, _ = self.complete(preset="uncut", input=prompt, max_output_tokens=100)
        self.assertError(answer, status, 422)
        self.assertEqual(self.fake.model_requests(), [])

        self.capture("squeezed", dict(plain, plugins=[{"id": "context-compression"}]))
        self.fake.script(failure(500))
        status, answer, _ = self.complete(preset="squeezed", input=prompt, max_output_tokens=100)
        self.assertEqual(status, 200, answer)
        self.assertEqual([attempt["model_id"] for attempt in answer["attempts"]], ["narrow", "wide"])
        sent = [request.body["messages"][-1]["content"] for request in self.fake.model_requests()]
        for text, window in zip(sent, (400, 1000)):
            self.assertTrue(text.startswith("START of the task."), text[:40])
            self.assertTrue(text.endswith("the END of the task."), text[-40:])
            self.assertIn("characters left out here to fit the model's context window", text)
            instructions = len("You review code.".encode("utf-8"))
            room = (window - 100 - -(-instructions // middle_out.BYTES_PER_TOKEN)) * middle_out.BYTES_PER_TOKEN
            self.assertLessEqual(len(text.encode("utf-8")), room)
        # The wider lane got more of the prompt than the narrow one.
        self.assertGreater(len(sent[1]), len(sent[0]))
        # A prompt that fits goes as it is.
        self.fake.reset()
        status, answer, _ = self.complete(preset="squeezed", input="A short task.", max_output_tokens=100)
        self.assertEqual(status, 200, answer)
        self.assertEqual(self.sent()["messages"][-1]["content"], "A short task.")

    def test_response_healing_repairs_a_whole_json_answer_only(self):
        broken = "Here you go:\n```json\n{'verdict': 'approve', \"notes\": [\"ok\",],}\n```"
        self.capture("healer", dict(FULL, plugins=[{"id": "response-healing"}]))
        self.fake.script(Reply(text=broken))
        status, answer, _ = self.complete(preset="healer")
        self.assertEqual(status, 200, answer)
        self.assertEqual(answer["output"], '{"verdict": "approve", "notes": ["ok"]}')
        # Without the plugin, or with a plain text format, the answer is left as it came.
        self.capture("plain-json", dict(FULL, plugins=[]))
        self.capture("plain-text", dict(FULL, response_format=None, quillmere_clear_fields=["response_format"],
                                        plugins=[{"id": "response-healing"}]))
        for slug in ("plain-json", "plain-text"):
            self.fake.script(Reply(text=broken))
            status, answer, _ = self.complete(preset=slug)
            self.assertEqual((status, answer["output"]), (200, broken), slug)
        # A streamed answer has reached the caller piece by piece already: never rewritten.
        status, created, _ = self.call("POST", "v1/router/api-keys", GATEWAY_KEY)
        self.assertEqual(status, 200, created)
        self.fake.script(Reply(text=broken))
        request = urllib.request.Request(
            f"http://127.0.0.1:{self.relay.port}/v1/chat/completions", method="POST",
            data=json.dumps({"model": "@preset/healer", "stream": True,
                             "messages": [{"role": "user", "content": "Review."}]}).encode(),
            headers={"Authorization": f"Bearer {created['key']}", "Content-Type": "application/json"})
        with urllib.request.urlopen(request, timeout=30) as streamed:
            events = [json.loads(line[6:]) for line in streamed
                      if line.startswith(b"data: ") and line.strip() != b"data: [DONE]"]
        text = "".join(event["choices"][0]["delta"].get("content") or "" for event in events if event.get("choices"))
        self.assertEqual(text, broken)
        # Not streamed, the gateway's answer is healed too.
        self.fake.script(Reply(text=broken))
        status, answer, _ = self.call("POST", "v1/chat/completions",
                                      {"model": "@preset/healer", "messages": [{"role": "user", "content": "Review."}]},
                                      token=None, headers={"Authorization": f"Bearer {created['key']}"})
        self.assertEqual(status, 200, answer)
        self.assertEqual(answer["choices"][0]["message"]["content"], '{"verdict": "approve", "notes": ["ok"]}')

    def test_a_request_during_designations_sees_one_whole_version(self):
        old = dict(FULL, model="fast", models=None, messages=[{"role": "system", "content": "OLD rules"}],
                   temperature=0.1)
        new = dict(FULL, model="slow", models=None, messages=[{"role": "system", "content": "NEW rules"}],
                   temperature=0.9)
        self.capture("flip", old)
        self.capture("flip", new)
        stop = threading.Event()

        def flip():
            version = 1
            for _ in range(400):
                if stop.is_set():
                    return
                self.designate("flip", version)
                version = 3 - version

        expected = {("fast-upstream", "OLD rules", 0.1), ("slow-upstream", "NEW rules", 0.9)}
        with concurrent.futures.ThreadPoolExecutor(max_workers=5) as pool:
            flipper = pool.submit(flip)
            answers = list(pool.map(lambda _: self.complete(preset="flip")[0], range(60)))
            stop.set()
            flipper.result()
        self.assertEqual(answers, [200] * 60)
        seen = {(r.body["model"], r.body["messages"][0]["content"], r.body["temperature"])
                for r in self.fake.model_requests()}
        self.assertLessEqual(seen, expected)
        self.assertEqual(len(self.fake.model_requests()), 60)


if __name__ == "__main__":
    unittest.main()
