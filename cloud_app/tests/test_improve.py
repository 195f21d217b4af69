"""Improve: suggestions from the person's own recurring instructions, read from real logs of both
agent CLIs (recorded with record_improve_logs.py) and from the drawer terminals' typed input."""

import calendar
import hashlib
import json
import os
import re
import shutil
import time
import unittest

from fake_provider import FakeProvider, Reply
from router_support import FAKE_KEY, inventory_env, lane
from support import CHUNK, DATA_DIR, RelayTestCase, wait_for

FIXTURES = os.path.join(DATA_DIR, "improve")
SED_RULE = "- Don't use sed, use the edit tool instead."
TESTS_RULE = "- Always run the tests before you commit."
NO_MODEL = ("No model is available to reword this suggestion: add an API model with its key in the "
            "router's settings, or apply the wording as it is.")
TIMESTAMP_FIELD = re.compile(r'"timestamp":"([^"]+)"')


class ImproveTestCase(RelayTestCase):
    """A relay whose log folders are copies of fixtures, chosen per test."""

    extra_env = {}

    @classmethod
    def setUpClass(cls):
        cls.root = __import__("tempfile").mkdtemp(prefix="improve-logs-")
        cls.claude_dir = os.path.join(cls.root, "claude")
        cls.codex_dir = os.path.join(cls.root, "codex")
        cls.relay_env = dict({"MERE_RELAY_CLAUDE_PROJECTS_DIR": cls.claude_dir,
                              "MERE_RELAY_CODEX_SESSIONS_DIR": cls.codex_dir}, **cls.extra_env)
        super().setUpClass()

    @classmethod
    def tearDownClass(cls):
        super().tearDownClass()
        shutil.rmtree(cls.root, ignore_errors=True)

    def setUp(self):
        for folder in (self.claude_dir, self.codex_dir):
            shutil.rmtree(folder, ignore_errors=True)
            os.makedirs(folder)
        # Each test is a person of their own: nothing read or found by another test.
        self.token, _ = self.relay.code_token(f"{self.id().rsplit('.', 1)[-1][:40]}@example.com")

    def copy(self, agent, *names):
        """Copies fixture logs (paths under data/improve/<agent>/) into the relay's folders, moved
        in time so that their last line is a minute old: recent evidence whenever the test runs."""
        for name in names:
            with open(os.path.join(FIXTURES, agent, name), encoding="utf-8") as handle:
                text = handle.read()
            stamps = [calendar.timegm(time.strptime(found[:19], "%Y-%m-%dT%H:%M:%S"))
                      for found in TIMESTAMP_FIELD.findall(text)]
            shift = time.time() - 60 - max(stamps)

            def moved(match):
                seconds = calendar.timegm(time.strptime(match.group(1)[:19], "%Y-%m-%dT%H:%M:%S")) + shift
                return '"timestamp":"' + time.strftime("%Y-%m-%dT%H:%M:%S", time.gmtime(seconds)) + \
                    match.group(1)[19:] + '"'

            target = os.path.join(self.claude_dir if agent == "claude" else self.codex_dir, name)
            os.makedirs(os.path.dirname(target), exist_ok=True)
            with open(target, "w", encoding="utf-8") as handle:
                handle.write(TIMESTAMP_FIELD.sub(moved, text))
            yield target

    def fixtures(self, agent):
        root = os.path.join(FIXTURES, agent)
        return sorted(os.path.relpath(os.path.join(folder, name), root)
                      for folder, _, names in os.walk(root) for name in names)

    def scan(self, force=False):
        status, answer, _ = self.call("POST", "v1/improve/scan", {"force": force})
        self.assertEqual(status, 200, answer)
        return answer

    def listed(self, include_dismissed=True):
        status, answer, _ = self.call(
            "GET", f"v1/improve/suggestions?include_dismissed={'true' if include_dismissed else 'false'}&limit=20")
        self.assertEqual(status, 200, answer)
        return answer


class ReadingTest(ImproveTestCase):
    def test_claude_logs_with_one_correction_in_two_conversations_give_exactly_that_suggestion(self):
        list(self.copy("claude", *self.fixtures("claude")))
        result = self.scan()
        self.assertEqual(result["sessions_scanned"], 2)
        self.assertEqual(result["turns_observed"], 6)
        self.assertEqual(result["suggestions_found"], 1)
        listing = self.listed()
        self.assertEqual(len(listing["suggestions"]), 1)
        suggestion = listing["suggestions"][0]
        self.assertEqual(suggestion["body"], SED_RULE)
        self.assertEqual(suggestion["artifact"], "rule")
        self.assertEqual(suggestion["section"], "## Rules")
        self.assertEqual(suggestion["targets"], [{"agent": "claude", "path": "CLAUDE.md", "artifact": "rule"}])
        self.assertEqual(suggestion["agents"], ["claude"])
        self.assertEqual((suggestion["session_count"], suggestion["turn_count"]), (2, 2))
        self.assertEqual(suggestion["status"], "open")
        self.assertEqual(sorted(item["excerpt"] for item in suggestion["evidence"]),
                         ["Don't use sed, use the edit tool instead.",
                          "don't use sed for this \u2014 use the Edit tool instead!"])
        sessions = {name[:-len(".jsonl")].rsplit("/", 1)[-1] for name in self.fixtures("claude")}
        self.assertEqual({item["session_id"] for item in suggestion["evidence"]}, sessions)
        self.assertEqual({item["turn_index"] for item in suggestion["evidence"]}, {2})
        for item in suggestion["evidence"]:
            self.assertEqual(item["agent"], "claude")
            self.assertIn("negation", item["kinds"])
            self.assertIn("instead", item["kinds"])
            self.assertTrue(item["observed_at"].endswith("Z"))
        self.assertIn("sed", suggestion["terms"])
        self.assertEqual(listing["counts"], {"open": 1, "snoozed": 0, "dismissed": 0})
        self.assertEqual(listing["window_days"], 30)
        processing = listing["processing"]
        self.assertEqual((processing["sessions"], processing["sessions_processed"], processing["sessions_pending"]),
                         (2, 2, 0))
        self.assertFalse(processing["automatic"])

    def test_codex_logs_with_one_correction_in_two_conversations_give_exactly_that_suggestion(self):
        list(self.copy("codex", *self.fixtures("codex")))
        result = self.scan()
        self.assertEqual((result["sessions_scanned"], result["turns_observed"], result["suggestions_found"]),
                         (2, 4, 1))
        suggestion = self.listed()["suggestions"][0]
        self.assertEqual(suggestion["body"], TESTS_RULE)
        self.assertEqual(suggestion["targets"], [{"agent": "codex", "path": "AGENTS.md", "artifact": "rule"}])
        self.assertEqual(sorted(item["excerpt"] for item in suggestion["evidence"]),
                         ["Always run the tests before you commit.",
                          "Please always run the tests before committing!!"])
        # Codex's environment and instruction messages are not the person's words.
        for item in suggestion["evidence"]:
            self.assertNotIn("<", item["excerpt"])

    def test_a_correction_in_only_one_conversation_gives_no_suggestion(self):
        list(self.copy("claude", self.fixtures("claude")[0]))
        list(self.copy("codex", self.fixtures("codex")[0]))
        result = self.scan()
        self.assertEqual(result["sessions_scanned"], 2)
        self.assertGreater(result["signals_found"], 0)
        self.assertEqual(result["suggestions_found"], 0)
        listing = self.listed()
        self.assertEqual((listing["suggestions"], listing["total"]), ([], 0))

    def test_the_same_instruction_to_both_agents_names_both_files_most_frequent_agent_first(self):
        list(self.copy("claude", *self.fixtures("claude")))
        list(self.copy("codex", *self.fixtures("codex")))
        self.scan()
        by_body = {item["body"]: item for item in self.listed()["suggestions"]}
        self.assertEqual(set(by_body), {SED_RULE, TESTS_RULE})
        tests = by_body[TESTS_RULE]
        self.assertEqual(tests["session_count"], 3)
        self.assertEqual(tests["agents"], ["codex", "claude"])
        self.assertEqual([target["path"] for target in tests["targets"]], ["AGENTS.md", "CLAUDE.md"])
        # More conversations rank first.
        self.assertEqual([item["body"] for item in self.listed()["suggestions"]], [TESTS_RULE, SED_RULE])
        # "Prefer tabs" was said once: no suggestion mentions it.
        self.assertFalse(any("tabs" in item["body"].lower() for item in by_body.values()))

    def test_a_second_scan_of_unchanged_logs_reads_nothing_anew_and_a_grown_log_only_its_new_line(self):
        paths = list(self.copy("claude", *self.fixtures("claude")))
        first = self.scan()
        self.assertEqual(first["sessions_scanned"], 2)
        again = self.scan()
        self.assertEqual((again["sessions_scanned"], again["turns_observed"], again["signals_found"]), (0, 0, 0))
        self.assertEqual(again["suggestions_found"], 1)
        line = {"type": "user", "message": {"role": "user", "content": "Never force-push to main."},
                "timestamp": "2026-11-24T03:00:00.000Z", "sessionId": "x"}
        with open(paths[0], "a", encoding="utf-8") as handle:
            # As the CLI writes it: compact JSON, one object a line.
            handle.write(json.dumps(line, separators=(",", ":")) + "\n")
            # A line still being written is left for the next scan.
            handle.write('{"type":"user","message":{"role":"user","content":"Never')
        grown = self.scan()
        self.assertEqual((grown["sessions_scanned"], grown["turns_observed"], grown["signals_found"]), (1, 1, 1))
        listing = self.listed()
        self.assertEqual(listing["processing"]["sessions_pending"], 0)
        self.assertEqual(listing["processing"]["turns_observed"], 7)
        forced = self.scan(force=True)
        self.assertEqual((forced["sessions_scanned"], forced["turns_observed"]), (2, 7))
        self.assertEqual(len(self.listed()["suggestions"]), 1)

    def test_a_new_log_shows_as_pending_until_it_is_read(self):
        list(self.copy("claude", self.fixtures("claude")[0]))
        self.scan()
        list(self.copy("claude", self.fixtures("claude")[1]))
        processing = self.listed()["processing"]
        self.assertEqual((processing["sessions"], processing["sessions_processed"], processing["sessions_pending"]),
                         (2, 1, 1))
        self.assertIn("last_scan_at", processing)

    def test_terminal_input_typed_in_two_drawer_sessions_is_a_source(self):
        for text in ("git status\rnever push to maim\x7fn without a review\r",
                     "\x1b[Anever push to main without\x15Never push to main without a review!\r"):
            status, session, _ = self.call("POST", "v1/terminal/sessions", {"source": "desktop"})
            self.assertEqual(status, 200, session)
            status, answer, _ = self.call("POST", f"v1/terminal/sessions/{session['id']}/events",
                                          {"chunks": [dict(CHUNK, stream="input", data=text),
                                                      dict(CHUNK, seq=2, data="never again\r\n")]})
            self.assertEqual(status, 200, answer)
        result = self.scan()
        self.assertEqual((result["sessions_scanned"], result["turns_observed"], result["suggestions_found"]),
                         (2, 3, 1))
        suggestion = self.listed()["suggestions"][0]
        self.assertEqual(suggestion["body"], "- Never push to main without a review.")
        self.assertEqual(suggestion["agents"], ["terminal"])
        self.assertEqual(suggestion["targets"], [{"agent": "codex", "path": "AGENTS.md", "artifact": "rule"}])
        self.assertEqual(self.scan()["sessions_scanned"], 0)

    def test_a_procedure_said_in_two_conversations_is_a_skill_and_is_never_reworded(self):
        said = "Always release like this: first bump the version, then tag it, then push the tag.\r"
        for _ in range(2):
            status, session, _ = self.call("POST", "v1/terminal/sessions", {"source": "desktop"})
            now = time.strftime("%Y-%m-%dT%H:%M:%SZ", time.gmtime())
            self.call("POST", f"v1/terminal/sessions/{session['id']}/events",
                      {"chunks": [dict(CHUNK, stream="input", data=said, ts=now)]})
        self.scan()
        suggestion = self.listed()["suggestions"][0]
        self.assertEqual((suggestion["artifact"], suggestion["section"]), ("skill", ""))
        slug = suggestion["slug"]
        self.assertEqual(suggestion["targets"], [{"agent": "codex", "path": f".agents/skills/{slug}/SKILL.md",
                                                  "artifact": "skill"}])
        self.assertIn("first bump the version, then tag it, then push the tag.", suggestion["body"])
        status, answer, _ = self.call("POST", f"v1/improve/suggestions/{suggestion['id']}/draft")
        self.assertError(answer, status, 409, message="a skill is written as it stands and is never reworded")


class BookkeepingTest(ImproveTestCase):
    def setUp(self):
        super().setUp()
        list(self.copy("claude", *self.fixtures("claude")))
        self.scan()
        self.suggestion = self.listed()["suggestions"][0]
        self.path = f"v1/improve/suggestions/{self.suggestion['id']}"

    def test_dismiss_snooze_and_reopen_change_the_status_and_the_counts(self):
        status, dismissed, _ = self.call("POST", self.path + "/dismiss")
        self.assertEqual(status, 200, dismissed)
        self.assertEqual((dismissed["status"], dismissed["stored_status"], dismissed["stale"]),
                         ("dismissed", "dismissed", False))
        self.assertEqual(self.listed(include_dismissed=False)["suggestions"], [])
        self.assertEqual(self.listed(include_dismissed=False)["counts"]["dismissed"], 1)
        # A rescan finds the same instruction again and leaves it dismissed.
        self.scan(force=True)
        self.assertEqual(self.listed()["suggestions"][0]["status"], "dismissed")
        status, snoozed, _ = self.call("POST", self.path + "/snooze", {"days": 7})
        self.assertEqual(status, 200, snoozed)
        self.assertEqual(snoozed["status"], "snoozed")
        self.assertIn("snoozed_until", snoozed)
        self.assertEqual(self.listed()["counts"], {"open": 0, "snoozed": 1, "dismissed": 0})
        status, reopened, _ = self.call("POST", self.path + "/reopen")
        self.assertEqual(status, 200, reopened)
        self.assertEqual(reopened["status"], "open")
        self.assertNotIn("snoozed_until", reopened)

    def test_apply_then_undo_keep_their_records(self):
        digest = hashlib.sha256(b"## Rules\n\n" + SED_RULE.encode() + b"\n").hexdigest()
        body = {"agent": "claude", "path": "CLAUDE.md", "resolved_path": "/home/user/project/CLAUDE.md",
                "inserted_text": SED_RULE, "content_sha256": digest, "created_file": True}
        status, application, _ = self.call("POST", self.path + "/apply", body)
        self.assertEqual(status, 200, application)
        self.assertEqual({key: application[key] for key in body}, body)
        self.assertEqual((application["suggestion_id"], application["artifact"]), (self.suggestion["id"], "rule"))
        self.assertNotIn("undone_at", application)
        suggestion = self.listed()["suggestions"][0]
        self.assertTrue(suggestion["applied"])
        self.assertEqual(suggestion["applications"], [application])
        status, undone, _ = self.call("POST", f"v1/improve/applications/{application['id']}/undo")
        self.assertEqual(status, 200, undone)
        self.assertIn("undone_at", undone)
        self.assertEqual({key: undone[key] for key in application}, application)
        suggestion = self.listed()["suggestions"][0]
        self.assertFalse(suggestion["applied"])
        self.assertEqual(suggestion["applications"], [undone])
        status, answer, _ = self.call("POST", f"v1/improve/applications/{application['id']}/undo")
        self.assertError(answer, status, 409, message="this application was already undone")

    def test_apply_refuses_a_malformed_record(self):
        good = {"agent": "claude", "path": "CLAUDE.md", "resolved_path": "/p/CLAUDE.md", "inserted_text": SED_RULE,
                "content_sha256": "a" * 64, "created_file": False}
        for change, message in (({"content_sha256": "A" * 64}, "content_sha256 must be 64 lower-case hexadecimal "
                                                                "characters"),
                                ({"path": "/etc/CLAUDE.md"}, "path must be relative to the project"),
                                ({"created_file": "yes"}, "created_file must be a boolean, not a string")):
            with self.subTest(change=change):
                status, answer, _ = self.call("POST", self.path + "/apply", dict(good, **change))
                self.assertError(answer, status, 400, message=message)
        # A record the relay did not take leaves the suggestion as it was: open, not applied.
        suggestion = self.listed()["suggestions"][0]
        self.assertEqual((suggestion["applications"], suggestion["applied"], suggestion["status"]), ([], False, "open"))

    def test_unknown_ids_are_not_found(self):
        for path in ("v1/improve/suggestions/imp_none/dismiss", "v1/improve/applications/app_none/undo"):
            status, answer, _ = self.call("POST", path)
            self.assertError(answer, status, 404)

    def test_rewording_without_a_model_says_so_plainly(self):
        status, answer, _ = self.call("POST", self.path + "/draft")
        self.assertError(answer, status, 503, message=NO_MODEL)

    def test_the_queue_snapshot_counts_open_suggestions(self):
        stream = self.relay.open_stream(self.token)
        try:
            self.assertEqual(stream.next_snapshot().get("open_suggestions"), 1)
            self.call("POST", self.path + "/dismiss")
            self.assertEqual(stream.next_snapshot().get("open_suggestions"), 0)
        finally:
            stream.close()
        status, settings, _ = self.call("GET", "v1/improve/settings")
        self.assertEqual(status, 200, settings)
        self.assertEqual(settings["open_suggestions"], 0)


class AgeingTest(ImproveTestCase):
    # A day of one second: snoozes end and evidence ages within a test.
    extra_env = {"MERE_RELAY_IMPROVE_DAY_SECONDS": "1"}

    def redate(self, paths, when):
        """Dates every line of the copied logs at `when` (epoch seconds)."""
        stamp = time.strftime("%Y-%m-%dT%H:%M:%S.000Z", time.gmtime(when))
        for path in paths:
            with open(path, encoding="utf-8") as handle:
                text = handle.read()
            with open(path, "w", encoding="utf-8") as handle:
                handle.write(re.sub(r'"timestamp":"[^"]+"', f'"timestamp":"{stamp}"', text))

    def test_a_snooze_expires_and_the_suggestion_is_open_again(self):
        # Evidence dated now, so that it is not stale within the 30-second window.
        self.redate(self.copy("claude", *self.fixtures("claude")), time.time())
        self.scan()
        suggestion = self.listed()["suggestions"][0]
        status, snoozed, _ = self.call("POST", f"v1/improve/suggestions/{suggestion['id']}/snooze", {"days": 1})
        self.assertEqual((status, snoozed["status"]), (200, "snoozed"))
        wait_for(lambda: self.listed()["suggestions"][0]["status"] == "open", timeout=5)
        again = self.listed()["suggestions"][0]
        self.assertEqual((again["stored_status"], again["stale"]), ("snoozed", False))
        self.assertNotIn("snoozed_until", again)

    def test_no_evidence_within_the_window_makes_a_suggestion_stale_and_dismissed(self):
        # Conversations of a minute ago: older than thirty "days" of a second.
        self.redate(self.copy("claude", *self.fixtures("claude")), time.time() - 60)
        self.scan()
        listing = self.listed(include_dismissed=False)
        self.assertEqual(listing["suggestions"], [])
        self.assertEqual(listing["counts"], {"open": 0, "snoozed": 0, "dismissed": 1})
        suggestion = self.listed()["suggestions"][0]
        self.assertEqual((suggestion["status"], suggestion["stored_status"], suggestion["stale"]),
                         ("dismissed", "open", True))
        status, reopened, _ = self.call("POST", f"v1/improve/suggestions/{suggestion['id']}/reopen")
        self.assertEqual(status, 200, reopened)
        self.assertEqual((reopened["status"], reopened["stale"]), ("open", False))


class SettingsTest(ImproveTestCase):
    # An hour of a tenth of a second, looked at every twentieth: the automatic reading runs in a test.
    extra_env = {"MERE_RELAY_IMPROVE_HOUR_SECONDS": "0.1", "MERE_RELAY_IMPROVE_CHECK_SECONDS": "0.05"}

    def test_settings_start_off_and_automatic_reading_scans_every_cadence(self):
        status, settings, _ = self.call("GET", "v1/improve/settings")
        self.assertEqual(status, 200, settings)
        self.assertEqual(settings, {"automatic": False, "cadence_hours": 24, "open_suggestions": 0})
        status, settings, _ = self.call("POST", "v1/improve/settings", {"cadence_hours": 6})
        self.assertEqual((status, settings["cadence_hours"], settings["automatic"]), (200, 6, False))
        list(self.copy("codex", *self.fixtures("codex")))
        status, settings, _ = self.call("POST", "v1/improve/settings", {"automatic": True})
        self.assertEqual((status, settings["automatic"], settings["cadence_hours"]), (200, True, 6))
        self.assertIn("next_run_at", settings)
        wait_for(lambda: self.call("GET", "v1/improve/settings")[1].get("open_suggestions") == 1, timeout=10)
        settings = self.call("GET", "v1/improve/settings")[1]
        self.assertIn("last_run_at", settings)
        processing = self.listed()["processing"]
        self.assertEqual((processing["automatic"], processing["cadence_hours"]), (True, 6))
        self.assertIn("next_run_at", processing)
        status, settings, _ = self.call("POST", "v1/improve/settings", {"automatic": False})
        self.assertNotIn("next_run_at", settings)
        for body, message in (({"cadence_hours": 0}, "cadence_hours must be"),
                              ({"automatic": "yes"}, "automatic must be a boolean")):
            status, answer, _ = self.call("POST", "v1/improve/settings", body)
            self.assertError(answer, status, 400, contains=message)


class DraftTest(ImproveTestCase):
    """Rewording through the router, with an API lane on a fake provider."""

    REWORDED = "Edit files with the edit tool, never with sed."

    @classmethod
    def setUpClass(cls):
        cls.fake = FakeProvider(expected_key=FAKE_KEY).start()
        cls.extra_env = inventory_env([lane("writer", cls.fake.openai_base_url)])
        super().setUpClass()

    @classmethod
    def tearDownClass(cls):
        super().tearDownClass()
        cls.fake.stop()

    def test_a_rewording_comes_from_a_model_through_the_router_and_is_not_kept(self):
        self.fake.reset()
        self.fake.responder = lambda recorded: Reply(text=f"  - \"{self.REWORDED}\"\n")
        list(self.copy("claude", *self.fixtures("claude")))
        self.scan()
        suggestion = self.listed()["suggestions"][0]
        status, draft, _ = self.call("POST", f"v1/improve/suggestions/{suggestion['id']}/draft")
        self.assertEqual(status, 200, draft)
        self.assertEqual(draft, {"suggestion_id": suggestion["id"], "title": self.REWORDED,
                                 "body": "- " + self.REWORDED, "section": "## Rules", "model": "writer"})
        # The model read the person's own words, and the call is in the ledger like any other.
        sent = json.dumps(self.fake.requests()[-1].body)
        self.assertIn("don't use sed for this", sent)
        status, generations, _ = self.call("GET", "v1/router/generations")
        self.assertEqual(status, 200, generations)
        self.assertEqual(len(generations["data"] if isinstance(generations, dict) else generations), 1)
        # The suggestion itself keeps its wording.
        self.assertEqual(self.listed()["suggestions"][0]["body"], SED_RULE)


if __name__ == "__main__":
    unittest.main()
