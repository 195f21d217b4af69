"""The Claude Code and Codex permission hooks, fed recorded events, against the real relay."""

import contextlib
import io
import json
import os
import shutil
import socket
import sqlite3
import subprocess
import sys
import tempfile
import time
import unittest

import support
from support import RelayTestCase
import install
import permission_hook

CLAUDE = os.path.join(support.HOOKS_DIR, "claude_permission.py")
CODEX = os.path.join(support.HOOKS_DIR, "codex_permission.py")


class HookRun:
    """One hook process, started with a recorded event on its standard input."""

    def __init__(self, script, fixture, env):
        self.process = subprocess.Popen([sys.executable, script], stdin=subprocess.PIPE, stdout=subprocess.PIPE,
                                        stderr=subprocess.PIPE, env=env)
        event = support.read_data(fixture) if fixture.endswith(".json") else fixture
        self.process.stdin.write(event.encode("utf-8"))
        self.process.stdin.close()

    def finish(self, timeout=15):
        stdout = self.process.stdout.read()
        self.process.stdout.close()
        self.process.stderr.close()
        code = self.process.wait(timeout)
        return code, stdout.decode("utf-8")


class HookTestCase(RelayTestCase):
    def hook_env(self, **extra):
        env = {key: value for key, value in os.environ.items() if not key.startswith("MERE_")}
        env.update({"MERE_RELAY_URL": self.relay.base_url, "PYTHONDONTWRITEBYTECODE": "1"})
        env.update(extra)
        return env

    def run_hook(self, script, fixture, verdict=None, watch=True, **env):
        """Runs the hook and returns the interrupt it raised and its output; answers with `verdict` if given."""
        stream = self.relay.open_stream(self.token)
        try:
            before = {item["id"] for item in stream.next_snapshot()["interrupts"]}
            run = HookRun(script, fixture, self.hook_env(**env))
            interrupt = self.new_interrupt(stream, before) if watch else None
            if verdict is not None:
                status, answer, _ = self.call("POST", f"v1/interrupts/{interrupt['id']}/verdict",
                                              dict(verdict, source="desktop"))
                self.assertEqual(status, 200, answer)
            code, output = run.finish()
        finally:
            stream.close()
        self.assertEqual(code, 0)
        return interrupt, output

    def new_interrupt(self, stream, before):
        while True:
            snapshot = stream.next_snapshot(timeout=15)
            fresh = [item for item in snapshot["interrupts"] if item["id"] not in before]
            if fresh:
                return fresh[0]

    def session_count(self):
        with sqlite3.connect(self.relay.db_path) as conn:
            return conn.execute("SELECT count(*) FROM sessions").fetchone()[0]


class ClaudeHookTest(HookTestCase):
    def test_approve_allows_and_the_interrupt_carries_the_request(self):
        sessions = self.session_count()
        interrupt, output = self.run_hook(CLAUDE, "claude_permission_request_bash.json", {"verdict": "approve"})
        self.assertEqual(json.loads(output), {"hookSpecificOutput": {"hookEventName": "PermissionRequest",
                                                                     "decision": {"behavior": "allow"}}})
        event = json.loads(support.read_data("claude_permission_request_bash.json"))
        self.assertEqual(interrupt["kind"], "approval")
        self.assertEqual(interrupt["action_slug"], "Bash")
        self.assertEqual(interrupt["action_toolkit"], "claude-code")
        self.assertEqual(interrupt["detail"], json.dumps(event["tool_input"], indent=2, ensure_ascii=False))
        self.assertEqual(interrupt["target"], "/home/dev/quillmere")
        self.assertEqual(interrupt["run_id"], event["session_id"])
        self.assertEqual(interrupt["run_name"], "claude code · quillmere")
        self.assertEqual(interrupt["proposed_action"], "Reconfigure from a clean build folder")
        self.assertEqual(interrupt["options"], ["Approve", "Reject"])
        self.assertEqual(interrupt["prompt"], "Allow Bash: rm -rf build && cmake -S . -B build -G Ninja?")
        self.assertIn("expires_at", interrupt)
        self.assertIn("timeout_behavior", interrupt)
        # The hook gave back the local session it asked for.
        self.assertEqual(self.session_count(), sessions)

    def test_reject_button_denies_with_a_plain_message(self):
        _, output = self.run_hook(CLAUDE, "claude_permission_request_write.json",
                                  {"verdict": "reject", "reply": "Reject"})
        decision = json.loads(output)["hookSpecificOutput"]["decision"]
        self.assertEqual(decision, {"behavior": "deny", "message": permission_hook.DENIED_MESSAGE})

    def test_reply_is_passed_on_as_the_deny_message(self):
        interrupt, output = self.run_hook(CLAUDE, "claude_permission_request_write.json",
                                          {"verdict": "reply", "reply": "Write it under docs/relay/ instead"})
        decision = json.loads(output)["hookSpecificOutput"]["decision"]
        self.assertEqual(decision, {"behavior": "deny", "message": "Write it under docs/relay/ instead"})
        self.assertEqual(interrupt["affected_resources"], ["/home/dev/quillmere/docs/notes.md"])
        self.assertNotIn("proposed_action", interrupt)

    def test_timeout_prints_nothing_and_the_interrupt_times_out(self):
        interrupt, output = self.run_hook(CLAUDE, "claude_permission_request_bash.json",
                                          MERE_HOOK_WAIT_SECONDS="1")
        self.assertEqual(output, "")
        support.wait_for(lambda: self.call("GET", f"v1/interrupts/{interrupt['id']}")[1]["status"] == "expired")

    def test_unreachable_relay_prints_nothing(self):
        with socket.socket() as probe:
            probe.bind(("127.0.0.1", 0))
            closed = probe.getsockname()[1]
        env = self.hook_env(MERE_RELAY_URL=f"http://127.0.0.1:{closed}/")
        started = time.monotonic()
        code, output = HookRun(CLAUDE, "claude_permission_request_bash.json", env).finish()
        self.assertEqual((code, output), (0, ""))
        self.assertLess(time.monotonic() - started, 10)

    def test_bad_input_prints_nothing(self):
        for event in ["not json", "[]", "{}", support.read_data("claude_pre_tool_use.json"),
                      json.dumps({"hook_event_name": "PermissionRequest", "tool_input": {}})]:
            code, output = HookRun(CLAUDE, event, self.hook_env()).finish()
            self.assertEqual((code, output), (0, ""), event)

    def test_given_token_is_used(self):
        env = self.hook_env(MERE_RELAY_TOKEN="not-a-valid-token")
        code, output = HookRun(CLAUDE, "claude_permission_request_bash.json", env).finish()
        self.assertEqual((code, output), (0, ""))
        sessions = self.session_count()
        _, output = self.run_hook(CLAUDE, "claude_permission_request_bash.json", {"verdict": "approve"},
                                  MERE_RELAY_TOKEN=self.token)
        self.assertEqual(json.loads(output)["hookSpecificOutput"]["decision"]["behavior"], "allow")
        self.assertEqual(self.session_count(), sessions)


class CodexHookTest(HookTestCase):
    def test_approve_allows(self):
        interrupt, output = self.run_hook(CODEX, "codex_permission_request_shell.json", {"verdict": "approve"})
        self.assertEqual(json.loads(output), {"hookSpecificOutput": {"hookEventName": "PermissionRequest",
                                                                     "decision": {"behavior": "allow"}}})
        self.assertEqual(interrupt["action_slug"], "Bash")
        self.assertEqual(interrupt["action_toolkit"], "codex")
        self.assertEqual(interrupt["run_id"], "0199a1b2-7c3d-7e4f-8a9b-0c1d2e3f4a5b")
        self.assertEqual(interrupt["run_name"], "codex · quillmere")
        self.assertEqual(interrupt["proposed_action"], "Run the relay tests, which bind a local port outside the sandbox")
        self.assertEqual(json.loads(interrupt["detail"])["command"], "ctest --test-dir build -L relay")

    def test_network_approval_denied_with_reply(self):
        interrupt, output = self.run_hook(CODEX, "codex_permission_request_network.json",
                                          {"verdict": "reject", "reply": "No downloads today"})
        self.assertEqual(json.loads(output)["hookSpecificOutput"]["decision"],
                         {"behavior": "deny", "message": "No downloads today"})
        self.assertEqual(interrupt["action_slug"], "NetworkAccess")
        self.assertEqual(interrupt["proposed_action"], "network-access pypi.org")

    def test_timeout_prints_nothing(self):
        # A deadline this short may pass before any snapshot shows the interrupt (deadlines
        # are whole seconds), so the stream is not watched here.
        _, output = self.run_hook(CODEX, "codex_permission_request_shell.json", watch=False,
                                  MERE_HOOK_WAIT_SECONDS="0.5")
        self.assertEqual(output, "")


class DecisionTest(unittest.TestCase):
    def test_only_approve_allows(self):
        self.assertEqual(permission_hook.decision({"verdict": "approve", "reply": "Approve"}), {"behavior": "allow"})
        self.assertEqual(permission_hook.decision({"verdict": "reject"}),
                         {"behavior": "deny", "message": permission_hook.DENIED_MESSAGE})
        self.assertIsNone(permission_hook.decision({"verdict": "reply", "reply": "  "}))
        self.assertIsNone(permission_hook.decision({"verdict": "maybe"}))
        self.assertIsNone(permission_hook.decision(None))

    def test_summary_is_one_short_line(self):
        self.assertEqual(permission_hook.summary({"command": "a\nb"}), "a")
        self.assertEqual(len(permission_hook.summary({"command": "x" * 500})), permission_hook.SUMMARY_LENGTH)
        self.assertEqual(permission_hook.summary({"other": 1}), "")


class InstallTest(unittest.TestCase):
    def setUp(self):
        self.folder = tempfile.mkdtemp(prefix="hook-install-")
        self.env = {"HOME": self.folder}

    def tearDown(self):
        shutil.rmtree(self.folder, ignore_errors=True)

    def read(self, path):
        with open(path) as handle:
            return json.load(handle)

    def install(self, *argv):
        printed = io.StringIO()
        with contextlib.redirect_stdout(printed), contextlib.redirect_stderr(printed):
            return install.main(list(argv), self.env)

    def test_claude_install_keeps_other_settings_and_is_idempotent(self):
        path = os.path.join(self.folder, ".claude", "settings.json")
        os.makedirs(os.path.dirname(path))
        other = {"matcher": "Bash", "hooks": [{"type": "command", "command": "/usr/bin/true"}]}
        with open(path, "w") as handle:
            json.dump({"model": "opus", "hooks": {"PermissionRequest": [other], "Stop": []}}, handle)
        self.assertEqual(self.install("claude"), 0)
        self.assertEqual(self.install("claude"), 0)
        settings = self.read(path)
        self.assertEqual(settings["model"], "opus")
        self.assertEqual(settings["hooks"]["Stop"], [])
        groups = settings["hooks"]["PermissionRequest"]
        self.assertEqual(len(groups), 2)
        self.assertEqual(groups[0], other)
        ours = groups[1]
        self.assertEqual(ours["matcher"], "*")
        self.assertEqual(ours["hooks"][0]["type"], "command")
        self.assertEqual(ours["hooks"][0]["timeout"], int(permission_hook.WAIT_SECONDS) + 30)
        self.assertIn(CLAUDE, ours["hooks"][0]["command"])
        self.assertEqual(self.install("claude", "--uninstall"), 0)
        self.assertEqual(self.read(path)["hooks"]["PermissionRequest"], [other])

    def test_codex_install_has_no_matcher_and_its_command_runs(self):
        self.assertEqual(self.install("codex"), 0)
        settings = self.read(os.path.join(self.folder, ".codex", "hooks.json"))
        [group] = settings["hooks"]["PermissionRequest"]
        self.assertNotIn("matcher", group)
        command = group["hooks"][0]["command"]
        self.assertIn(CODEX, command)
        result = subprocess.run(["/bin/sh", "-c", command], input="{}", capture_output=True, text=True, timeout=10)
        self.assertEqual((result.returncode, result.stdout), (0, ""))

    def test_a_broken_settings_file_is_left_alone(self):
        path = os.path.join(self.folder, "settings.json")
        with open(path, "w") as handle:
            handle.write("{ not json")
        self.assertEqual(self.install("claude", "--settings", path), 1)
        with open(path) as handle:
            self.assertEqual(handle.read(), "{ not json")


if __name__ == "__main__":
    unittest.main()
