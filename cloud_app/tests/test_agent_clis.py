"""The real agent CLIs (pinned Claude Code and Codex) run offline against the fake provider.

Each test runs a CLI in a throwaway HOME whose only way out is the fake on
127.0.0.1; any other connection lands in a loopback trap, and the tests assert
it stayed empty. With QUILLMERE_RECORD_CLI_FIXTURES=1 the tests also rewrite
the fixtures in data/cli/ from what the CLIs really sent; without it they check
that the committed fixtures still have the shape the pinned CLIs send.
"""

import json
import os
import platform
import unittest

import npm_peers
from agent_clis import (
    CLAUDE_KEY, CODEX_KEY, CliHome, claude_capture_hooks, claude_tool_loop, claude_tool_results, codex_tool_loop,
    codex_tool_outputs, run_claude_print, run_codex_exec, scrubbed, start_claude_tui, start_codex_tui,
    write_claude_settings, write_codex_config, write_codex_hooks, write_fixture)
from fake_provider import DEFAULT_TEXT, REDACTED, FakeProvider, ToolCall

HERE = os.path.dirname(os.path.abspath(__file__))
FIXTURES = os.path.join(HERE, "data", "cli")
RECORD = os.environ.get("QUILLMERE_RECORD_CLI_FIXTURES") == "1"
FINAL_TEXT = "The command ran."
# The Codex TUI fetches its start-screen tip from GitHub whatever the settings say; the trap refuses it.
CODEX_TUI_KNOWN_ATTEMPTS = ("CONNECT raw.githubusercontent.com:443",)
HOOK_EVENTS = ("PermissionRequest", "PreToolUse", "PostToolUse", "Notification", "Stop")
ALLOW = {"hookSpecificOutput": {"hookEventName": "PermissionRequest", "decision": {"behavior": "allow"}}}
DENY = {"hookSpecificOutput": {"hookEventName": "PermissionRequest",
                               "decision": {"behavior": "deny", "message": "Not this time."}}}


def fixture_path(name):
    return os.path.join(FIXTURES, name)


def key_shape(value):
    """The nested key names of a JSON object: what a consumer of the fixture relies on."""
    if isinstance(value, dict):
        return {key: key_shape(item) for key, item in value.items() if not isinstance(item, list)}
    return None


class CliTestCase(unittest.TestCase):
    def setUp(self):
        self.peers = npm_peers.require(self)
        self.home = CliHome()
        self.addCleanup(self.home.close)

    def start_provider(self, key):
        provider = FakeProvider(expected_key=key).start()
        self.addCleanup(provider.stop)
        return provider

    def assert_offline(self, known=()):
        stray = [attempt for attempt in self.home.trap.attempts if not attempt.startswith(known or ("\0",))]
        self.assertEqual(stray, [], "the CLI tried to reach beyond loopback")

    def keep_or_check_fixture(self, name, value, secrets=()):
        """Records `value` as a fixture, or checks the committed one has the same key shape."""
        value = scrubbed(value, self.home, secrets + (platform.release(),))
        if RECORD:
            write_fixture(fixture_path(name), value)
            return
        with open(fixture_path(name), encoding="utf-8") as handle:
            committed = json.load(handle)
        self.assertEqual(key_shape(committed), key_shape(value), f"{name} no longer matches what the CLI sends")


class ClaudePrintTest(CliTestCase):
    """`claude -p` against the fake's Anthropic Messages endpoint."""

    def setUp(self):
        super().setUp()
        self.provider = self.start_provider(CLAUDE_KEY)

    def test_answers_plain_text(self):
        run = run_claude_print(self.peers, self.provider, self.home, "Say hello")
        self.assertEqual(run.returncode, 0, run.stderr)
        self.assertEqual(run.stdout.strip(), DEFAULT_TEXT)
        [request] = self.provider.model_requests()
        self.assertEqual((request.path, request.query, request.stream), ("/v1/messages", "beta=true", True))
        self.assertTrue(request.key_ok)
        self.assertEqual(request.headers["x-api-key"], REDACTED)
        self.assertEqual(request.headers["anthropic-version"], "2023-06-01")
        self.assertEqual(request.body["messages"][0]["role"], "user")
        self.assert_offline()
        headers = dict(request.headers, host="127.0.0.1:<port>")
        self.keep_or_check_fixture("claude_messages_request_headers.json", headers)

    def test_runs_a_shell_tool_with_permissions_bypassed_and_sends_the_result_back(self):
        self.provider.responder = claude_tool_loop(ToolCall("Bash", {"command": "echo hi", "description": "Say hi"}),
                                                   FINAL_TEXT)
        run = run_claude_print(self.peers, self.provider, self.home, "Run echo hi",
                               permission_mode="bypassPermissions")
        self.assertEqual(run.returncode, 0, run.stderr)
        self.assertEqual(run.stdout.strip(), FINAL_TEXT)
        first, second = self.provider.model_requests()
        self.assertIn("Bash", [tool["name"] for tool in first.body["tools"]])
        [result] = claude_tool_results(second.body)
        self.assertEqual(result["content"], "hi")
        self.assertFalse(result["is_error"])
        self.assert_offline()
        self.keep_or_check_fixture("claude_messages_request.json", first.body)
        self.keep_or_check_fixture("claude_messages_tool_result_request.json", second.body)

    def test_permission_hook_allows_the_tool_and_sees_the_real_request(self):
        write_claude_settings(self.home, claude_capture_hooks(self.home, HOOK_EVENTS, permission_answer=ALLOW))
        self.provider.responder = claude_tool_loop(
            ToolCall("Bash", {"command": "echo hi > out.txt", "description": "Write hi"}), FINAL_TEXT)
        run = run_claude_print(self.peers, self.provider, self.home, "Write hi", permission_mode="default")
        self.assertEqual(run.returncode, 0, run.stderr)
        self.assertTrue(os.path.exists(os.path.join(self.home.work, "out.txt")))
        captured = self.home.captured_hook_inputs()
        permission = captured["PermissionRequest"]
        self.assertEqual(permission["hook_event_name"], "PermissionRequest")
        self.assertEqual(permission["tool_name"], "Bash")
        self.assertEqual(permission["tool_input"]["command"], "echo hi > out.txt")
        self.assertEqual(permission["cwd"], self.home.work)
        self.assertEqual(permission["permission_mode"], "default")
        self.assertIn("PostToolUse", captured)
        self.assert_offline()
        self.keep_or_check_fixture("claude_hook_permission_request.json", permission)
        self.keep_or_check_fixture("claude_hook_pre_tool_use.json", captured["PreToolUse"])

    def test_permission_hook_denial_keeps_the_tool_from_running(self):
        write_claude_settings(self.home, claude_capture_hooks(self.home, ["PermissionRequest"],
                                                              permission_answer=DENY))
        self.provider.responder = claude_tool_loop(
            ToolCall("Bash", {"command": "echo hi > out.txt", "description": "Write hi"}), FINAL_TEXT)
        run = run_claude_print(self.peers, self.provider, self.home, "Write hi", permission_mode="default")
        self.assertEqual(run.returncode, 0, run.stderr)
        self.assertFalse(os.path.exists(os.path.join(self.home.work, "out.txt")))
        [result] = claude_tool_results(self.provider.model_requests()[-1].body)
        self.assertTrue(result["is_error"])
        self.assertIn("Not this time.", json.dumps(result["content"]))


class CodexExecTest(CliTestCase):
    """`codex exec` against the fake's OpenAI Responses endpoint, the only wire API Codex speaks."""

    def setUp(self):
        super().setUp()
        self.provider = self.start_provider(CODEX_KEY)
        write_codex_config(self.provider, self.home)

    def test_answers_plain_text(self):
        run = run_codex_exec(self.peers, self.provider, self.home, "Say hello")
        self.assertEqual(run.returncode, 0, run.stderr)
        self.assertEqual(run.stdout.strip(), DEFAULT_TEXT)
        [request] = self.provider.model_requests()
        self.assertEqual((request.path, request.stream), ("/v1/responses", True))
        self.assertTrue(request.key_ok)
        self.assertEqual(request.headers["authorization"], REDACTED)
        self.assertEqual(request.body["model"], "fake-model")
        self.assertEqual(request.body["input"][-1]["content"][0]["text"], "Say hello")
        self.assert_offline()
        headers = dict(request.headers, host="127.0.0.1:<port>")
        self.keep_or_check_fixture("codex_responses_request_headers.json", headers)

    def test_runs_a_shell_tool_and_sends_the_output_back(self):
        self.provider.responder = codex_tool_loop(ToolCall("exec_command", {"cmd": "echo hi"}), FINAL_TEXT)
        run = run_codex_exec(self.peers, self.provider, self.home, "Run echo hi", bypass_sandbox=True)
        self.assertEqual(run.returncode, 0, run.stderr)
        self.assertEqual(run.stdout.strip(), FINAL_TEXT)
        first, second = self.provider.model_requests()
        self.assertIn("exec_command", [tool.get("name") for tool in first.body["tools"]])
        [output] = codex_tool_outputs(second.body)
        self.assertEqual(output["call_id"], "call_fake1_0")
        self.assertIn("Output:\nhi\n", output["output"])
        self.assert_offline()
        self.keep_or_check_fixture("codex_responses_request.json", first.body)
        self.keep_or_check_fixture("codex_responses_tool_output_request.json", second.body)

    def test_exec_hooks_see_the_tool_call(self):
        write_codex_hooks(self.home, HOOK_EVENTS)
        self.provider.responder = codex_tool_loop(ToolCall("exec_command", {"cmd": "echo hi"}), FINAL_TEXT)
        run = run_codex_exec(self.peers, self.provider, self.home, "Run echo hi", bypass_sandbox=True,
                             extra_args=["--dangerously-bypass-hook-trust"])
        self.assertEqual(run.returncode, 0, run.stderr)
        captured = self.home.captured_hook_inputs()
        self.assertEqual(captured["PreToolUse"]["tool_name"], "Bash")
        self.assertEqual(captured["PreToolUse"]["tool_input"], {"command": "echo hi"})
        self.assertEqual(captured["Stop"]["last_assistant_message"], FINAL_TEXT)
        self.keep_or_check_fixture("codex_hook_pre_tool_use.json", captured["PreToolUse"])


class InteractiveTest(CliTestCase):
    """The interactive CLIs under tmux: a permission prompt on screen, answered by a key press."""

    def approve_on_screen(self, session, ready, dialog, key, before_answer=lambda: None):
        """Asks for the file through the TUI, sees the dialog hold the tool back, approves, sees it run."""
        written = os.path.join(self.home.work, "out.txt")
        session.wait_for(ready)
        session.type_line("Write hi to a file")
        session.wait_for(dialog)
        before_answer()
        self.assertFalse(os.path.exists(written))
        session.answer_prompt(key, dialog)
        session.wait_for(FINAL_TEXT)
        self.assertTrue(os.path.exists(written))

    def test_claude_asks_permission_and_runs_the_tool_once_allowed(self):
        provider = self.start_provider(CLAUDE_KEY)
        write_claude_settings(self.home, claude_capture_hooks(self.home, ["PermissionRequest", "Notification"]))
        provider.responder = claude_tool_loop(
            ToolCall("Bash", {"command": "echo hi > out.txt", "description": "Write hi"}), FINAL_TEXT)
        session = start_claude_tui(self.peers, provider, self.home, ["--permission-mode", "default"])
        self.addCleanup(session.close)
        # A prompt left unanswered for a few seconds (six, as measured) raises a Notification.
        notification = {}
        self.approve_on_screen(session, r"manual mode on", r"Do you want to proceed\?", "Enter",
                               before_answer=lambda: notification.update(self.home.wait_for_hook_input("Notification")))
        self.assertEqual(self.home.captured_hook_inputs()["PermissionRequest"]["tool_name"], "Bash")
        self.assertEqual(notification["notification_type"], "permission_prompt")
        self.assertEqual(notification["message"], "Claude needs your permission")
        self.assert_offline()
        self.keep_or_check_fixture("claude_hook_notification.json", notification)

    def test_codex_asks_approval_and_runs_the_tool_once_approved(self):
        provider = self.start_provider(CODEX_KEY)
        write_codex_config(provider, self.home)
        write_codex_hooks(self.home, ["PermissionRequest", "Notification"])
        provider.responder = codex_tool_loop(ToolCall("exec_command", {
            "cmd": "echo hi > out.txt", "sandbox_permissions": "require_escalated",
            "justification": "Write hi to out.txt?"}), FINAL_TEXT)
        session = start_codex_tui(self.peers, self.home, ["-a", "on-request", "-s", "read-only",
                                                          "--dangerously-bypass-hook-trust"])
        self.addCleanup(session.close)
        self.approve_on_screen(session, r"Ask Codex", r"Yes, proceed", "y")
        permission = self.home.captured_hook_inputs()["PermissionRequest"]
        self.assertEqual(permission["tool_name"], "Bash")
        self.assertEqual(permission["tool_input"]["command"], "echo hi > out.txt")
        self.assert_offline(known=CODEX_TUI_KNOWN_ATTEMPTS)
        self.keep_or_check_fixture("codex_hook_permission_request.json", permission)


if __name__ == "__main__":
    unittest.main()
