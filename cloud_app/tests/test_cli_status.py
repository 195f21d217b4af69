"""CLI status from a made-up machine: PATH, credential files and session logs under a test HOME."""

import datetime
import json
import os
import shutil
import stat
import tempfile
import time
import unittest

import support
from relaylib import clock
from support import RelayTestCase

EMPTY = {"installed": False, "authenticated": False, "tokens_today": 0, "messages_today": 0}
# Expected from the fixtures: two prompts; msg_011 counted once (1115) plus msg_012 (27).
CLAUDE_TOKENS, CLAUDE_MESSAGES = 1142, 2
# 1050 and 550 by each turn's usage, 300 as the growth of a cumulative total since yesterday.
CODEX_TOKENS, CODEX_MESSAGES = 1900, 2


def stamps():
    start = datetime.datetime.combine(datetime.date.today(), datetime.time()).timestamp()
    return {"{TODAY}": clock.iso(time.time()), "{YESTERDAY}": clock.iso(start - 3600)}


def write_log(fixture, path, extra=""):
    text = support.read_data(fixture)
    for placeholder, value in stamps().items():
        text = text.replace(placeholder, value)
    os.makedirs(os.path.dirname(path), exist_ok=True)
    with open(path, "w", encoding="utf-8") as handle:
        handle.write(text + extra)


def write_json(path, value):
    os.makedirs(os.path.dirname(path), exist_ok=True)
    with open(path, "w", encoding="utf-8") as handle:
        json.dump(value, handle)


def make_executable(path, executable=True):
    with open(path, "w") as handle:
        handle.write("#!/bin/sh\nexit 0\n")
    os.chmod(path, stat.S_IRWXU if executable else stat.S_IRUSR | stat.S_IWUSR)


class NothingInstalledTest(RelayTestCase):
    def test_absent_tools_give_zeros(self):
        status, answer, _ = self.call("GET", "v1/cli/status")
        self.assertEqual((status, answer), (200, {"claude": EMPTY, "codex": EMPTY}))

    def test_needs_a_token(self):
        status, answer, _ = self.call("GET", "v1/cli/status", token=None)
        self.assertError(answer, status, 401, "missing session token")


class InspectionTest(RelayTestCase):
    def setUp(self):
        self.home = self.relay.home
        self.bin = os.path.join(self.folder, "bin")
        self.claude_log = os.path.join(self.home, ".claude", "projects", "-home-dev-project", "2f1c.jsonl")
        self.codex_log = os.path.join(self.home, ".codex", "sessions", "2026", "01", "31", "rollout-a.jsonl")

    def status(self):
        status, answer, _ = self.call("GET", "v1/cli/status")
        self.assertEqual(status, 200)
        self.assertEqual(set(answer), {"claude", "codex"})
        for info in answer.values():
            self.assertEqual(set(info), set(EMPTY))
        return answer

    def test_installed_means_an_executable_on_path(self):
        make_executable(os.path.join(self.bin, "claude"))
        make_executable(os.path.join(self.bin, "codex"), executable=False)
        answer = self.status()
        self.assertTrue(answer["claude"]["installed"])
        self.assertFalse(answer["codex"]["installed"])
        os.remove(os.path.join(self.bin, "claude"))
        self.assertFalse(self.status()["claude"]["installed"])

    def test_signed_in_by_credential_files(self):
        write_json(os.path.join(self.home, ".claude", ".credentials.json"), {"claudeAiOauth": {"scopes": ["x"]}})
        write_json(os.path.join(self.home, ".codex", "auth.json"), {"tokens": {"refresh_token": "placeholder"}})
        answer = self.status()
        self.assertTrue(answer["claude"]["authenticated"])
        self.assertTrue(answer["codex"]["authenticated"])
        write_json(os.path.join(self.home, ".codex", "auth.json"), {"tokens": {}, "OPENAI_API_KEY": None})
        os.remove(os.path.join(self.home, ".claude", ".credentials.json"))
        write_json(os.path.join(self.home, ".claude.json"), {"oauthAccount": {"emailAddress": "dev@example.com"}})
        answer = self.status()
        self.assertTrue(answer["claude"]["authenticated"])
        self.assertFalse(answer["codex"]["authenticated"])
        with open(os.path.join(self.home, ".claude.json"), "w") as handle:
            handle.write("{ broken")
        self.assertFalse(self.status()["claude"]["authenticated"])

    def test_todays_usage_from_the_session_logs(self):
        write_log("claude_session.jsonl", self.claude_log)
        write_log("codex_rollout.jsonl", self.codex_log)
        write_log("codex_rollout_cumulative.jsonl", self.codex_log.replace("rollout-a", "rollout-b"))
        answer = self.status()
        self.assertEqual((answer["claude"]["tokens_today"], answer["claude"]["messages_today"]),
                         (CLAUDE_TOKENS, CLAUDE_MESSAGES))
        self.assertEqual((answer["codex"]["tokens_today"], answer["codex"]["messages_today"]),
                         (CODEX_TOKENS, CODEX_MESSAGES))
        # Asking again reads nothing new and counts nothing twice.
        self.assertEqual(self.status(), answer)

    def test_appended_lines_are_counted_and_a_half_written_line_waits(self):
        write_log("claude_session.jsonl", self.claude_log)
        self.status()
        line = {"type": "user", "timestamp": clock.iso(time.time()), "message": {"role": "user", "content": "more"}}
        with open(self.claude_log, "a") as handle:
            handle.write(json.dumps(line) + "\n" + json.dumps(line)[:20])
        self.assertEqual(self.status()["claude"]["messages_today"], CLAUDE_MESSAGES + 1)
        with open(self.claude_log, "a") as handle:
            handle.write(json.dumps(line)[20:] + "\n")
        self.assertEqual(self.status()["claude"]["messages_today"], CLAUDE_MESSAGES + 2)

    def test_unreadable_logs_give_zeros_not_errors(self):
        os.makedirs(os.path.dirname(self.claude_log), exist_ok=True)
        os.symlink("/nonexistent/target", self.claude_log.replace("2f1c", "broken"))
        with open(self.claude_log, "wb") as handle:
            handle.write(b'\xff\xfe{"type": "user"}\n[1, 2]\n"text"\n')
        os.makedirs(os.path.join(self.home, ".codex"), exist_ok=True)
        with open(os.path.join(self.home, ".codex", "sessions"), "w") as handle:
            handle.write("a file where a folder belongs")
        answer = self.status()
        self.assertEqual(answer["claude"]["tokens_today"], 0)
        self.assertEqual(answer["codex"]["messages_today"], 0)

    def tearDown(self):
        for path in [os.path.join(self.home, ".claude"), os.path.join(self.home, ".codex")]:
            shutil.rmtree(path, ignore_errors=True)
        for path in [os.path.join(self.home, ".claude.json"), os.path.join(self.home, ".codex")]:
            if os.path.isfile(path):
                os.remove(path)
        for name in os.listdir(self.bin):
            os.remove(os.path.join(self.bin, name))


class OverrideFoldersTest(RelayTestCase):
    @classmethod
    def setUpClass(cls):
        cls.config_folder = tempfile.mkdtemp(prefix="relay-cli-")
        cls.claude_dir = os.path.join(cls.config_folder, "claude-config")
        cls.codex_dir = os.path.join(cls.config_folder, "codex-home")
        cls.relay_env = {"CLAUDE_CONFIG_DIR": cls.claude_dir, "CODEX_HOME": cls.codex_dir}
        super().setUpClass()

    @classmethod
    def tearDownClass(cls):
        super().tearDownClass()
        shutil.rmtree(cls.config_folder, ignore_errors=True)

    def test_logs_and_credentials_in_the_overridden_folders(self):
        write_json(os.path.join(self.claude_dir, ".claude.json"), {"primaryApiKey": "placeholder"})
        write_json(os.path.join(self.codex_dir, "auth.json"), {"OPENAI_API_KEY": "placeholder"})
        write_log("claude_session.jsonl", os.path.join(self.claude_dir, "projects", "p", "s.jsonl"))
        write_log("codex_rollout.jsonl", os.path.join(self.codex_dir, "sessions", "2026", "rollout-x.jsonl"))
        answer = self.call("GET", "v1/cli/status")[1]
        self.assertEqual(answer["claude"], {"installed": False, "authenticated": True,
                                            "tokens_today": CLAUDE_TOKENS, "messages_today": CLAUDE_MESSAGES})
        self.assertEqual(answer["codex"], {"installed": False, "authenticated": True,
                                           "tokens_today": 1600, "messages_today": 2})


if __name__ == "__main__":
    unittest.main()
