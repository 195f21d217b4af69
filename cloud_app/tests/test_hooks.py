"""The Claude Code and Codex permission hooks, fed recorded events, against the real relay."""

import contextlib
import io
import json
import os
import shlex
import shutil
import signal
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

    def __init__(self, script, fixture, env, args=(), command=None):
        self.process = subprocess.Popen(command or [sys.executable, *install.PYTHON_FLAGS, script, *args],
                                        stdin=subprocess.PIPE, stdout=subprocess.PIPE, stderr=subprocess.PIPE,
                                        env=env)
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
    # A killed hook's interrupt is withdrawn this long after its last poll.
    relay_env = {"MERE_RELAY_UNPOLLED_SECONDS": "0.5", "MERE_RELAY_EXPIRY_SWEEP_SECONDS": "0.1"}

    def setUp(self):
        # Each test gets its own marker folder, as a session of its own would.
        self.runtime = tempfile.mkdtemp(prefix="hook-runtime-")
        os.chmod(self.runtime, 0o700)
        self.addCleanup(shutil.rmtree, self.runtime, True)

    def hook_env(self, **extra):
        env = {key: value for key, value in os.environ.items() if not key.startswith("MERE_")}
        env.update({"PYTHONDONTWRITEBYTECODE": "1", "XDG_RUNTIME_DIR": self.runtime})
        env.update(extra)
        return env

    def hook_args(self, wait="30", relay=None):
        return ["--relay", relay or self.relay.base_url, "--wait", wait]

    def start_hook(self, script, fixture, wait="30", **env):
        return HookRun(script, fixture, self.hook_env(**env), self.hook_args(wait))

    def run_hook(self, script, fixture, verdict=None, watch=True, wait="30", **env):
        """Runs the hook and returns the interrupt it raised and its output; answers with `verdict` if given."""
        stream = self.relay.open_stream(self.token)
        try:
            before = {item["id"] for item in stream.next_snapshot()["interrupts"]}
            run = self.start_hook(script, fixture, wait, **env)
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
        interrupt, output = self.run_hook(CLAUDE, "claude_permission_request_bash.json", wait="1")
        self.assertEqual(output, "")
        support.wait_for(lambda: self.call("GET", f"v1/interrupts/{interrupt['id']}")[1]["status"] == "expired")

    def test_unreachable_relay_prints_nothing(self):
        with socket.socket() as probe:
            probe.bind(("127.0.0.1", 0))
            closed = probe.getsockname()[1]
        started = time.monotonic()
        code, output = HookRun(CLAUDE, "claude_permission_request_bash.json", self.hook_env(),
                               self.hook_args(relay=f"http://127.0.0.1:{closed}/")).finish()
        self.assertEqual((code, output), (0, ""))
        self.assertLess(time.monotonic() - started, 10)

    def test_bad_input_prints_nothing(self):
        for event in ["not json", "[]", "{}", support.read_data("claude_pre_tool_use.json"),
                      json.dumps({"hook_event_name": "PermissionRequest", "tool_input": {}})]:
            code, output = self.start_hook(CLAUDE, event).finish()
            self.assertEqual((code, output), (0, ""), event)

    def test_given_token_is_used(self):
        code, output = self.start_hook(CLAUDE, "claude_permission_request_bash.json",
                                       MERE_RELAY_TOKEN="not-a-valid-token").finish()
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
        _, output = self.run_hook(CODEX, "codex_permission_request_shell.json", watch=False, wait="0.5")
        self.assertEqual(output, "")


AFTER_TOOL = os.path.join(support.HOOKS_DIR, "claude_after_tool.py")
NOTIFICATION = os.path.join(support.HOOKS_DIR, "claude_notification.py")
# Recorded from one real `claude -p` run: the permission request and the events after it share
# the session and the tool call.
PERMISSION = "cli/claude_hook_permission_request.json"
POST_TOOL = "cli/claude_hook_post_tool_use.json"


def fixture(name, **changes):
    return json.dumps(dict(json.loads(support.read_data(name)), **changes))


class LeftBehindTestCase(HookTestCase):
    def tearDown(self):
        # A notice's child or a hook a test left waiting is stopped, never left to poll.
        folder = os.path.join(self.runtime, permission_hook.MARKER_FOLDER_NAME)
        for name in os.listdir(folder) if os.path.isdir(folder) else []:
            pid = int(name.rsplit("-", 1)[-1])
            if permission_hook.is_hook_process(pid):
                os.kill(pid, signal.SIGKILL)

    def start_and_see(self, script, event, command=None, **env):
        """Starts a hook (or `command`); returns it and the interrupt it raised, once the queue shows it."""
        stream = self.relay.open_stream(self.token)
        try:
            before = {item["id"] for item in stream.next_snapshot()["interrupts"]}
            run = (HookRun(script, event, self.hook_env(**env), command=command) if command is not None
                   else self.start_hook(script, event, **env))
            return run, self.new_interrupt(stream, before)
        finally:
            stream.close()

    def status(self, interrupt_id):
        return self.call("GET", f"v1/interrupts/{interrupt_id}")[1]["status"]

    def assert_becomes(self, interrupt_id, status):
        support.wait_for(lambda: self.status(interrupt_id) == status, timeout=10)

    def run_quick(self, script, event, *args):
        return HookRun(script, event, self.hook_env(), list(args)).finish()


class StoppedHookTest(LeftBehindTestCase):
    def test_a_stopped_hook_withdraws_its_interrupt(self):
        for stop in (signal.SIGTERM, signal.SIGINT):
            run, interrupt = self.start_and_see(CLAUDE, PERMISSION)
            run.process.send_signal(stop)
            self.assertEqual(run.finish(), (0, ""))
            self.assertEqual(self.status(interrupt["id"]), "withdrawn")
            status, answer, _ = self.call("POST", f"v1/interrupts/{interrupt['id']}/verdict",
                                          {"verdict": "approve", "source": "desktop"})
            self.assertError(answer, status, 409, contains="withdrawn")

    def test_a_hook_killed_outright_has_its_interrupt_withdrawn_by_the_relay(self):
        run, interrupt = self.start_and_see(CODEX, "cli/codex_hook_permission_request.json")
        run.process.kill()
        run.finish()
        self.assert_becomes(interrupt["id"], "withdrawn")

    def test_a_hook_whose_cli_is_gone_withdraws(self):
        # The hook's parent stands for the CLI; the hook looks for it between two polls.
        parent = [sys.executable, "-c", "import subprocess, sys; subprocess.run(sys.argv[1:])",
                  sys.executable, CLAUDE, *self.hook_args(), "--poll", "0.2"]
        run, interrupt = self.start_and_see(CLAUDE, PERMISSION, command=parent)
        run.process.kill()
        self.assert_becomes(interrupt["id"], "withdrawn")
        run.finish()


class AnsweredInTheTerminalTest(LeftBehindTestCase):
    def test_the_after_tool_hook_withdraws_the_call_that_went_ahead(self):
        run, interrupt = self.start_and_see(CLAUDE, PERMISSION)
        self.assertEqual(self.run_quick(AFTER_TOOL, POST_TOOL), (0, ""))
        self.assertEqual(run.finish(), (0, ""))
        self.assertEqual(self.status(interrupt["id"]), "answered_elsewhere")
        status, answer, _ = self.call("POST", f"v1/interrupts/{interrupt['id']}/verdict",
                                      {"verdict": "approve", "source": "desktop"})
        self.assertError(answer, status, 409, contains="answered elsewhere")

    def test_another_call_is_left_waiting_until_the_turn_ends(self):
        run, interrupt = self.start_and_see(CLAUDE, PERMISSION)
        other = fixture(POST_TOOL, tool_input={"command": "echo other", "description": "Another"})
        self.assertEqual(self.run_quick(AFTER_TOOL, other), (0, ""))
        self.assertEqual(self.run_quick(AFTER_TOOL, "cli/claude_hook_pre_tool_use.json"), (0, ""))
        time.sleep(0.5)
        self.assertEqual(self.status(interrupt["id"]), "open")
        self.assertEqual(self.run_quick(AFTER_TOOL, "cli/claude_hook_stop.json"), (0, ""))
        self.assertEqual(run.finish(), (0, ""))
        self.assertEqual(self.status(interrupt["id"]), "answered_elsewhere")

    def test_a_marker_left_by_a_killed_hook_is_removed_and_its_process_id_left_alone(self):
        run, interrupt = self.start_and_see(CLAUDE, PERMISSION)
        run.process.kill()
        run.finish()
        folder = os.path.join(self.runtime, permission_hook.MARKER_FOLDER_NAME)
        [stale] = os.listdir(folder)
        # Its process id now belongs to something that is no hook (this test), which is never signalled.
        os.rename(os.path.join(folder, stale), os.path.join(folder, stale.rsplit("-", 1)[0] + f"-{os.getpid()}"))
        self.assertEqual(self.run_quick(AFTER_TOOL, POST_TOOL), (0, ""))
        self.assertEqual(os.listdir(folder), [])

    def test_the_next_prompt_withdraws_what_the_session_left(self):
        run, interrupt = self.start_and_see(CLAUDE, PERMISSION)
        self.assertEqual(self.run_quick(AFTER_TOOL, "cli/claude_hook_user_prompt_submit.json"), (0, ""))
        self.assertEqual(run.finish(), (0, ""))
        self.assertEqual(self.status(interrupt["id"]), "answered_elsewhere")


class NoticeTest(LeftBehindTestCase):
    """The notification hook, for prompts the permission hook never sees."""

    def transcript(self, tool_input):
        post = json.loads(support.read_data(POST_TOOL))
        path = os.path.join(self.runtime, "session.jsonl")
        lines = [{"type": "user", "message": {"role": "user", "content": "Write hi"}},
                 {"type": "assistant", "message": {"role": "assistant", "content": [
                     {"type": "tool_use", "id": "toolu_done", "name": "Read", "input": {"file_path": "/etc/hosts"}}]}},
                 {"type": "user", "message": {"role": "user", "content": [
                     {"type": "tool_result", "tool_use_id": "toolu_done", "content": "127.0.0.1"}]}},
                 {"type": "assistant", "message": {"role": "assistant", "content": [
                     {"type": "tool_use", "id": post["tool_use_id"], "name": post["tool_name"],
                      "input": tool_input}]}}]
        with open(path, "w") as handle:
            handle.write("".join(json.dumps(line) + "\n" for line in lines))
        return path

    def notification(self, name="cli/claude_hook_notification.json"):
        post = json.loads(support.read_data(POST_TOOL))
        return fixture(name, session_id=post["session_id"], transcript_path=self.transcript(post["tool_input"]))

    def test_a_prompt_of_the_terminal_is_announced_and_leaves_when_the_tool_runs(self):
        run, interrupt = self.start_and_see(NOTIFICATION, self.notification())
        self.assertEqual(run.finish(), (0, ""))
        self.assertEqual(interrupt["kind"], "question")
        self.assertEqual(interrupt["prompt"],
                         "Claude Code waits in its terminal: it asks to use Bash: echo hi > out.txt")
        self.assertEqual(interrupt["options"], ["Open the drawer", "Open its terminal"])
        self.assertEqual(interrupt["target"], "/home/user/project")
        self.assertEqual(json.loads(interrupt["detail"])["command"], "echo hi > out.txt")
        self.assertIn("Claude needs your permission", interrupt["reason"])
        self.assertNotIn("action_slug", interrupt)
        self.assertEqual(self.status(interrupt["id"]), "open")
        self.assertEqual(self.run_quick(AFTER_TOOL, POST_TOOL), (0, ""))
        self.assert_becomes(interrupt["id"], "answered_elsewhere")

    def test_auto_mode_asking_how_to_go_on_is_announced_and_leaves_when_the_agent_goes_on(self):
        event = self.notification("cli/claude_hook_notification_auto_mode.json")
        run, interrupt = self.start_and_see(NOTIFICATION, event)
        self.assertEqual(run.finish(), (0, ""))
        self.assertIn("Auto mode can't check actions", interrupt["reason"])
        self.assertIn("Bash", interrupt["prompt"])
        # The person answered in the terminal: the turn stopped, and the transcript says so.
        with open(json.loads(event)["transcript_path"], "a") as handle:
            handle.write(json.dumps({"type": "user", "message": {"role": "user", "content": "[Request interrupted]"}})
                         + "\n")
        self.assert_becomes(interrupt["id"], "answered_elsewhere")

    def test_no_notice_while_the_permission_hook_waits(self):
        run, interrupt = self.start_and_see(CLAUDE, PERMISSION)
        self.assertEqual(self.run_quick(NOTIFICATION, self.notification(), *self.hook_args()), (0, ""))
        time.sleep(1.0)
        stream = self.relay.open_stream(self.token)
        try:
            self.assertEqual([item["id"] for item in stream.next_snapshot()["interrupts"]], [interrupt["id"]])
        finally:
            stream.close()
        run.process.terminate()
        run.finish()

    def test_the_notice_is_withdrawn_when_claude_code_is_gone(self):
        parent = [sys.executable, "-c", "import subprocess, sys, time; subprocess.run(sys.argv[1:]); time.sleep(60)",
                  sys.executable, NOTIFICATION, *self.hook_args()]
        run, interrupt = self.start_and_see(NOTIFICATION, self.notification(), command=parent)
        run.process.kill()
        run.finish()
        self.assert_becomes(interrupt["id"], "withdrawn")


class UnwatchedCodexTest(LeftBehindTestCase):
    """Nobody has the queue open (this relay never has a stream)."""

    def test_codex_asks_itself_at_once_and_nothing_is_left_in_the_queue(self):
        code, output = self.start_hook(CODEX, "cli/codex_hook_permission_request.json", wait="60").finish()
        self.assertEqual((code, output), (0, ""))
        with sqlite3.connect(self.relay.db_path) as conn:
            rows = conn.execute("SELECT status, payload FROM interrupts").fetchall()
        self.assertEqual([(status, json.loads(payload)["action_toolkit"]) for status, payload in rows],
                         [("withdrawn", "codex")])


class DecisionTest(unittest.TestCase):
    def test_only_approve_allows(self):
        self.assertEqual(permission_hook.decision({"verdict": "approve", "reply": "Approve"}), {"behavior": "allow"})
        self.assertEqual(permission_hook.decision({"verdict": "reject"}),
                         {"behavior": "deny", "message": permission_hook.DENIED_MESSAGE})
        self.assertIsNone(permission_hook.decision({"verdict": "reply", "reply": "  "}))
        self.assertIsNone(permission_hook.decision({"verdict": "maybe"}))
        self.assertIsNone(permission_hook.decision(None))

    def test_json_reads_and_writes_as_the_standard_library_does(self):
        values = [{}, [], {"command": "echo hi > out.txt", "n": [1, 2.5, None, True, {"é": "→ \u2028"}]},
                  json.loads(support.read_data("cli/claude_hook_post_tool_use.json")), "plain", 3, [[]], {"a": {}}]
        for value in values:
            self.assertEqual(permission_hook.pretty(value), json.dumps(value, indent=2, ensure_ascii=False))
            self.assertEqual(permission_hook.dumps(value), json.dumps(value))
            self.assertEqual(permission_hook.dumps(value, ascii=False, sort_keys=True),
                             json.dumps(value, ensure_ascii=False, sort_keys=True))
            self.assertEqual(permission_hook.loads(" \n" + json.dumps(value) + "\n"), value)
        for text in ["", "not json", "{} {}", '{"a": 1,}', "[1, 2", "NaN x"]:
            with self.assertRaises(ValueError, msg=text):
                permission_hook.loads(text)

    def test_relay_addresses(self):
        for url, expected in [("http://127.0.0.1:8787/", ("127.0.0.1", 8787, "/", False)),
                              ("http://[::1]:9000", ("::1", 9000, "/", False)),
                              ("https://relay.example.com/base/", ("relay.example.com", 443, "/base/", True)),
                              ("http://localhost/", ("localhost", 80, "/", False))]:
            client = permission_hook.RelayClient(url)
            self.assertEqual((client.host, client.port, client.prefix, client.secure), expected, url)

    def test_settings_come_from_the_command_line(self):
        given = permission_hook.Settings(["--relay", "http://127.0.0.1:9/", "--wait", "12.5", "--poll", "0.2"])
        self.assertEqual((given.relay, given.wait, given.poll), ("http://127.0.0.1:9/", 12.5, 0.2))
        given = permission_hook.Settings(["--relay", "ftp://x", "--wait", "-1", "--poll", "soon", "--wait"])
        self.assertEqual((given.relay, given.wait, given.poll), (permission_hook.DEFAULT_RELAY_URL,
                                                                 permission_hook.WAIT_SECONDS,
                                                                 permission_hook.POLL_SECONDS))

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
            code = install.main(list(argv), self.env)
        self.printed = printed.getvalue()
        return code

    def ours(self, settings, event):
        return [group for group in settings["hooks"].get(event, []) if install.is_ours(group)]

    def test_claude_install_keeps_other_settings_and_is_idempotent(self):
        path = os.path.join(self.folder, ".claude", "settings.json")
        os.makedirs(os.path.dirname(path))
        other = {"matcher": "Bash", "hooks": [{"type": "command", "command": "/usr/bin/true"}]}
        with open(path, "w") as handle:
            json.dump({"model": "opus", "hooks": {"PermissionRequest": [other], "Stop": []}}, handle)
        self.assertEqual(self.install("claude"), 0)
        self.assertEqual(self.install("claude", "--relay", "http://127.0.0.1:9999/", "--wait", "120"), 0)
        settings = self.read(path)
        self.assertEqual(settings["model"], "opus")
        groups = settings["hooks"]["PermissionRequest"]
        self.assertEqual(groups[0], other)
        # One entry per event however often it runs, with the settings of the last run.
        for event, script, matcher, takes_settings, waits in install.HOOKS["claude"]:
            [group] = self.ours(settings, event)
            [hook] = group["hooks"]
            self.assertEqual(group.get("matcher"), matcher)
            self.assertEqual(hook["type"], "command")
            words = shlex.split(hook["command"])
            self.assertEqual(words[1:4], ["-I", "-S", os.path.join(support.HOOKS_DIR, script)])
            if takes_settings:
                self.assertEqual(words[4:], ["--relay", "http://127.0.0.1:9999/", "--wait", "120"])
            else:
                self.assertEqual(words[4:], [])
            self.assertEqual(hook["timeout"], 150 if waits else install.QUICK_HOOK_TIMEOUT_SECONDS)
        self.assertEqual(self.install("claude", "--uninstall"), 0)
        settings = self.read(path)
        self.assertEqual(settings["hooks"]["PermissionRequest"], [other])
        self.assertEqual(settings["model"], "opus")
        for event in ("Notification", "PostToolUse", "PostToolUseFailure", "UserPromptSubmit"):
            self.assertNotIn(event, settings["hooks"])

    def test_an_earlier_entry_with_another_command_is_replaced(self):
        path = os.path.join(self.folder, ".codex", "hooks.json")
        os.makedirs(os.path.dirname(path))
        old = {"hooks": [{"type": "command", "command": f"python3 {CODEX}", "timeout": 330}]}
        with open(path, "w") as handle:
            json.dump({"hooks": {"PermissionRequest": [old]}}, handle)
        self.assertEqual(self.install("codex", "--wait", "60"), 0)
        [group] = self.read(path)["hooks"]["PermissionRequest"]
        self.assertIn("--wait 60", group["hooks"][0]["command"])

    def test_codex_install_has_no_matcher_tells_to_review_and_its_command_runs(self):
        self.assertEqual(self.install("codex"), 0)
        path = os.path.join(self.folder, ".codex", "hooks.json")
        with open(path, "rb") as handle:
            first = handle.read()
        # The same settings give the same command, so Codex has nothing new to review.
        self.assertEqual(self.install("codex"), 0)
        with open(path, "rb") as handle:
            self.assertEqual(handle.read(), first)
        self.assertIn("review", self.printed)
        self.assertIn("/hooks", self.printed)
        settings = self.read(os.path.join(self.folder, ".codex", "hooks.json"))
        self.assertEqual(set(settings["hooks"]), {"PermissionRequest"})
        [group] = settings["hooks"]["PermissionRequest"]
        self.assertNotIn("matcher", group)
        command = group["hooks"][0]["command"]
        self.assertIn(f"{CODEX} --relay {permission_hook.DEFAULT_RELAY_URL} --wait 300", command)
        result = subprocess.run(["/bin/sh", "-c", command], input="{}", capture_output=True, text=True, timeout=10)
        self.assertEqual((result.returncode, result.stdout), (0, ""))

    def test_the_relay_defaults_to_the_environment_at_install_time(self):
        self.env["MERE_RELAY_URL"] = "http://127.0.0.1:8123/"
        self.assertEqual(self.install("claude"), 0)
        settings = self.read(os.path.join(self.folder, ".claude", "settings.json"))
        [group] = self.ours(settings, "PermissionRequest")
        self.assertIn("--relay http://127.0.0.1:8123/", group["hooks"][0]["command"])

    def test_bad_settings_are_refused(self):
        for argv in (["claude", "--relay", "127.0.0.1:8787"], ["codex", "--wait", "0"]):
            with self.assertRaises(SystemExit):
                self.install(*argv)

    def test_a_broken_settings_file_is_left_alone(self):
        path = os.path.join(self.folder, "settings.json")
        with open(path, "w") as handle:
            handle.write("{ not json")
        self.assertEqual(self.install("claude", "--settings", path), 1)
        with open(path) as handle:
            self.assertEqual(handle.read(), "{ not json")


if __name__ == "__main__":
    unittest.main()
