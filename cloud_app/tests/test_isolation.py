"""One user's records are that user's alone: another user's ids answer 404, lists and streams hold
only the caller's own, and a hook acts as the user whose token it holds."""

import io
import json
import shutil
import sqlite3
import tempfile
import threading
import unittest

import support
from support import ROUTES, RelayTestCase, make_records, route_path
import permission_hook


class TwoUsersTestCase(RelayTestCase):
    relay_env = {"MERE_RELAY_CODE_RATE_LIMIT_PER_IP": "1000", "MERE_RELAY_CODE_RATE_LIMIT_PER_EMAIL": "1000"}

    @classmethod
    def setUpClass(cls):
        super().setUpClass()
        # Alice is the local user of this machine; Bob signed in by e-mail.
        cls.alice = cls.token
        cls.bob, cls.bob_user = cls.relay.code_token("bob@example.com")

    def as_bob(self, method, path, body=None, **kwargs):
        return self.call(method, path, body, token=self.bob, **kwargs)

    def row(self, sql, *args):
        with sqlite3.connect(self.relay.db_path) as conn:
            return conn.execute(sql, args).fetchone()


class EveryPathTest(TwoUsersTestCase):
    def test_every_path_with_another_users_id_answers_404_and_changes_nothing(self):
        ids = make_records(self.relay, self.alice)
        checked = 0
        for method, pattern, auth, body in ROUTES:
            if "{" not in pattern:
                continue
            status, answer, _ = self.as_bob(method, route_path(pattern, ids), body)
            self.assertEqual(status, 404, (method, pattern, answer))
            checked += 1
        self.assertEqual(checked, 25)
        # Nothing of Alice's was decided, written, ended or deleted by those requests.
        self.assertEqual(self.call("GET", f"v1/interrupts/{ids['interrupt']}")[1]["status"], "open")
        transcript = self.call("GET", f"v1/terminal/sessions/{ids['session']}")[1]
        self.assertEqual(len(transcript["chunks"]), 1)
        self.assertNotIn("ended_at", transcript)
        # Alice's suggestion kept its state and its one application stands.
        listed = self.call("GET", "v1/improve/suggestions?include_dismissed=true&limit=20")[1]["suggestions"]
        self.assertEqual([(item["id"], item["status"], item["applied"]) for item in listed],
                         [(ids["suggestion"], "open", True)])
        self.assertEqual([item["id"] for item in self.call("GET", f"v1/projects/{ids['project']}/context")[1]],
                         [ids["item"]])
        alice_keys = self.call("GET", "v1/router/api-keys", token=self.alice)[1]
        self.assertEqual([(key["id"], key["status"]) for key in alice_keys], [(ids["key"], "active")])
        self.assertEqual(self.call("GET", "v1/router/api-keys", token=self.bob)[1], [])
        [classifier] = self.call("GET", "v1/classifiers", token=self.alice)[1]["data"]
        self.assertEqual((classifier["id"], classifier["name"]), (ids["classifier"], "Agent complexity"))
        self.assertEqual(self.call("GET", "v1/classifiers", token=self.bob)[1], {"data": []})
        preset = self.call("GET", f"v1/presets/{ids['slug']}")[1]["data"]
        self.assertEqual([version["version"] for version in preset["versions"]], [1])
        self.assertRelayIntact()

    def test_the_path_list_names_every_route_of_the_relay(self):
        from relaylib import app as relay_app, config
        folder = tempfile.mkdtemp(prefix="relay-routes-")
        try:
            app = relay_app.App(config.load_settings({"MERE_RELAY_DB_PATH": folder + "/relay.db", "HOME": folder}))
            registered = {(route.method, "/".join(route.segments)) for route in app.router.routes}
            app.workers.shutdown()
            app.db.close()
        finally:
            shutil.rmtree(folder, ignore_errors=True)
        self.assertEqual(registered, {(method, pattern) for method, pattern, _, _ in ROUTES})


class QueueIsolationTest(TwoUsersTestCase):
    def test_each_user_sees_and_decides_only_their_own_interrupts(self):
        alice_stream = self.relay.open_stream(self.alice)
        bob_stream = self.relay.open_stream(self.bob)
        try:
            alice_stream.next_snapshot()
            bob_stream.next_snapshot()
            mine = self.call("POST", "v1/interrupts", support.INTERRUPT)[1]["id"]
            self.assertIn(mine, [item["id"] for item in alice_stream.next_snapshot()["interrupts"]])
            bobs = self.as_bob("POST", "v1/interrupts", dict(support.INTERRUPT, prompt="Bob's"))[1]["id"]
            snapshot = bob_stream.next_snapshot()
            self.assertEqual([item["id"] for item in snapshot["interrupts"]], [bobs])
            status, answer, _ = self.as_bob("POST", f"v1/interrupts/{mine}/verdict", {"verdict": "approve"})
            self.assertError(answer, status, 404, "interrupt not found")
            status, answer, _ = self.as_bob("GET", f"v1/interrupts/{mine}?wait=0.2")
            self.assertError(answer, status, 404, "interrupt not found")
            self.assertEqual(self.call("POST", f"v1/interrupts/{mine}/verdict", {"verdict": "approve"})[0], 200)
            self.assertNotIn(mine, [item["id"] for item in alice_stream.next_snapshot()["interrupts"]])
            # Bob's stream saw his own change only: nothing from Alice's raise or verdict is queued for him.
            with self.assertRaises(Exception):
                bob_stream.next_snapshot(timeout=0.5)
        finally:
            alice_stream.close()
            bob_stream.close()
        self.assertEqual(self.row("SELECT user_id FROM interrupts WHERE id = ?", bobs)[0], self.bob_user["id"])

    def test_running_and_done_count_the_callers_runs(self):
        self.call("POST", "v1/events", {"run_id": "shared-id", "name": "n", "type": "started"})
        self.as_bob("POST", "v1/events", {"run_id": "shared-id", "name": "n", "type": "finished"})
        for token, expected in [(self.alice, (1, 0)), (self.bob, (0, 1))]:
            stream = self.relay.open_stream(token)
            try:
                snapshot = stream.next_snapshot()
            finally:
                stream.close()
            self.assertEqual((snapshot["running"], snapshot["done"]), expected)

    def test_provider_health_is_the_callers_own(self):
        for _ in range(3):
            self.call("POST", "v1/router/health", {"provider": "openai-subscription", "success": False,
                                                    "latency_ms": 1})
        status, answer, _ = self.as_bob("POST", "v1/router/health", {"provider": "openai-subscription",
                                                                     "success": True, "latency_ms": 1})
        self.assertEqual((status, answer["health"]), (200, 1.0))

    def test_a_hook_acts_as_the_user_whose_token_it_holds(self):
        event = json.loads(support.read_data("claude_permission_request_bash.json"))
        from claude_permission import build_interrupt
        argv = ["--relay", self.relay.base_url, "--wait", "10"]
        output = io.StringIO()
        bob_stream = self.relay.open_stream(self.bob)
        try:
            bob_stream.next_snapshot()
            hook = threading.Thread(target=permission_hook.main, args=(build_interrupt, argv, io.StringIO(
                json.dumps(event)), output, {"MERE_RELAY_TOKEN": self.bob}))
            hook.start()
            raised = bob_stream.next_snapshot()["interrupts"][-1]
            self.assertEqual(raised["action_slug"], "Bash")
            # Alice cannot answer it; Bob can.
            status, _, _ = self.call("POST", f"v1/interrupts/{raised['id']}/verdict", {"verdict": "approve"})
            self.assertEqual(status, 404)
            self.assertEqual(self.as_bob("POST", f"v1/interrupts/{raised['id']}/verdict",
                                         {"verdict": "approve", "source": "desktop"})[0], 200)
            hook.join(15)
        finally:
            bob_stream.close()
        self.assertEqual(json.loads(output.getvalue())["hookSpecificOutput"]["decision"], {"behavior": "allow"})
        self.assertEqual(self.row("SELECT user_id FROM interrupts WHERE id = ?", raised["id"])[0],
                         self.bob_user["id"])


class TerminalIsolationTest(TwoUsersTestCase):
    def test_sessions_are_listed_read_appended_and_ended_by_their_owner_only(self):
        session = self.call("POST", "v1/terminal/sessions", {"source": "desktop"})[1]["id"]
        self.call("POST", f"v1/terminal/sessions/{session}/events", {"chunks": [support.CHUNK]})
        self.assertNotIn(session, [item["id"] for item in self.as_bob("GET", "v1/terminal/sessions")[1]])
        self.assertIn(session, [item["id"] for item in self.call("GET", "v1/terminal/sessions")[1]])
        for method, path, body in [("GET", f"v1/terminal/sessions/{session}", None),
                                   ("POST", f"v1/terminal/sessions/{session}/events",
                                    {"chunks": [dict(support.CHUNK, seq=2, data="injected")]}),
                                   ("POST", f"v1/terminal/sessions/{session}/end", None)]:
            status, answer, _ = self.as_bob(method, path, body)
            self.assertError(answer, status, 404, "terminal session not found")
        transcript = self.call("GET", f"v1/terminal/sessions/{session}")[1]
        self.assertEqual([chunk["data"] for chunk in transcript["chunks"]], [support.CHUNK["data"]])
        self.assertNotIn("ended_at", transcript)


class ContextRankingIsolationTest(TwoUsersTestCase):
    def test_another_users_items_never_change_the_order_of_a_pack(self):
        # Two items that tie within Alice's project: the newer comes first. Were the ranking's
        # statistics the whole relay's, Bob's many items holding "beta" would make it the
        # commoner word and put "Alpha" first, telling Alice something of Bob's notes.
        project = self.call("POST", "v1/projects", {"name": "ranked", "root_path": "/srv/ranked"})[1]
        for title, content in [("Alpha", "alpha alpha alpha"), ("Beta", "beta beta beta"), ("Other", "gamma")]:
            self.call("POST", f"v1/projects/{project['id']}/context", {"title": title, "content": content})

        def order():
            status, answer, _ = self.call("POST", f"v1/projects/{project['id']}/context/pack",
                                          {"query": "alpha beta", "character_budget": 1000})
            self.assertEqual(status, 200, answer)
            return [item["title"] for item in answer["items"]]

        self.assertEqual(order(), ["Beta", "Alpha"])
        bobs = self.as_bob("POST", "v1/projects", {"name": "bob's", "root_path": "/srv/bobs"})[1]
        for n in range(40):
            self.as_bob("POST", f"v1/projects/{bobs['id']}/context", {"title": f"B{n}", "content": "beta notes"})
        self.assertEqual(order(), ["Beta", "Alpha"])


class ProjectIsolationTest(TwoUsersTestCase):
    def test_projects_and_context_belong_to_their_owner(self):
        project = self.call("POST", "v1/projects", {"name": "shared", "root_path": "/srv/shared"})[1]
        item = self.call("POST", f"v1/projects/{project['id']}/context",
                         {"title": "Secret plan", "content": "Alice's notes", "source": "file:AGENTS.md"})[1]
        self.assertEqual(self.as_bob("GET", "v1/projects")[1], [])
        # The same folder registered by Bob is his own project.
        bobs = self.as_bob("POST", "v1/projects", {"name": "mine", "root_path": "/srv/shared"})[1]
        self.assertNotEqual(bobs["id"], project["id"])
        self.assertEqual(bobs["name"], "mine")
        for method, path, body in [("GET", f"v1/projects/{project['id']}/context", None),
                                   ("POST", f"v1/projects/{project['id']}/context",
                                    {"title": "t", "content": "planted", "source": "file:AGENTS.md"}),
                                   ("POST", f"v1/projects/{project['id']}/context/pack",
                                    {"query": "plan", "character_budget": 1000}),
                                   ("DELETE", f"v1/projects/{project['id']}/context/{item['id']}", None)]:
            status, answer, _ = self.as_bob(method, path, body)
            self.assertError(answer, status, 404, "project not found")
        # Nor can Bob reach Alice's item through a project of his own.
        status, answer, _ = self.as_bob("DELETE", f"v1/projects/{bobs['id']}/context/{item['id']}")
        self.assertError(answer, status, 404, "context item not found")
        self.assertEqual(self.call("GET", f"v1/projects/{project['id']}/context")[1], [item])
        self.assertEqual([p["id"] for p in self.call("GET", "v1/projects")[1]], [project["id"]])


class SessionIsolationTest(TwoUsersTestCase):
    def test_presets_belong_to_their_owner(self):
        capture = {"model": "fast", "messages": [{"role": "system", "content": "Alice's rules"}],
                   "quillmere_clear_fields": []}
        alices = self.call("POST", "v1/presets/shared-role/chat/completions", capture)[1]["data"]
        self.call("POST", "v1/presets/shared-role/chat/completions", capture)
        self.assertEqual(self.as_bob("GET", "v1/presets")[1], {"data": []})
        for method, path, body in [("GET", "v1/presets/shared-role", None),
                                   ("POST", "v1/presets/shared-role/versions/1/designate", {}),
                                   ("DELETE", "v1/presets/shared-role", None),
                                   ("POST", "v1/presets/shared-role/chat/completions",
                                    dict(capture, quillmere_base_version=2)),
                                   ("POST", "v1/complete", {"task": "reason", "input": "x", "preset": "shared-role",
                                                            "max_output_tokens": 5}),
                                   ("POST", "v1/complete", {"task": "reason", "input": "x",
                                                            "model": "@preset/shared-role", "max_output_tokens": 5})]:
            status, answer, _ = self.as_bob(method, path, body)
            self.assertError(answer, status, 404, "preset shared-role not found")
        bobs = self.as_bob("POST", "v1/presets/shared-role/chat/completions",
                           dict(capture, messages=[]))[1]["data"]
        self.assertNotEqual(bobs["id"], alices["id"])
        self.assertEqual(bobs["designated_version"]["version"], 1)
        mine = self.call("GET", "v1/presets/shared-role")[1]["data"]
        self.assertEqual((mine["id"], mine["designated_version"]["version"]), (alices["id"], 2))
        self.assertEqual(mine["designated_version"]["system_prompt"], "Alice's rules")

    def test_each_token_names_its_own_user_and_signing_out_ends_only_that_session(self):
        self.assertEqual(self.call("GET", "v1/me")[1]["email"], "local@localhost")
        self.assertEqual(self.as_bob("GET", "v1/me")[1], self.bob_user)
        other, _ = self.relay.code_token("bob@example.com")
        self.assertEqual(self.call("POST", "v1/auth/logout", token=other)[0], 200)
        self.assertEqual(self.call("GET", "v1/me", token=other)[0], 401)
        self.assertEqual(self.as_bob("GET", "v1/me")[0], 200)
        self.assertEqual(self.call("GET", "v1/me")[0], 200)


if __name__ == "__main__":
    unittest.main()
