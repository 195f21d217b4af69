#!/usr/bin/env python3
"""Measures how long the permission hooks make a person wait, with the real CLIs (a benchmark, not a test).

    python3 cloud_app/scripts/hook_latency.py [--runs 20] [--cli claude,codex] [--old-hook PATH]

With a relay of this tree on a free loopback port, the fake model provider and
the pinned CLIs from npm (installed on first use, see cloud_app/tests/README.md),
each run asks the CLI for one shell command that needs approval, with the hooks
install.py writes, and takes two times:

- request → queue: from the moment the fake provider sends the model's tool call
  to the moment the interrupt arrives on a `v1/stream` (what the desktop sees);
- verdict → tool: from just before the approving POST to the moment the command
  starts (it writes the clock's time as its first act).

For Claude Code it also takes, with a permission hook that only notes the time,
how much of the first interval is Claude Code's own, before any hook of ours runs.

Claude Code runs as `claude -p --permission-mode default`, a new process per run;
Codex as one TUI (on-request approvals) under tmux, one turn per run. Then the
hook alone is taken apart: Python's start-up, the imports, and the hook's
exchanges with the relay (signing in, raising, the verdict, signing out), each
the median of --runs, for this tree's hook and, with --old-hook, another copy
(for instance the one before this change) fed the same event.

Everything runs on this machine, which others may share: the figures include
their noise. p50 and p95 are taken over the runs.
"""

import argparse
import contextlib
import io
import json
import os
import shutil
import statistics
import subprocess
import sys
import tempfile
import time

HERE = os.path.dirname(os.path.abspath(__file__))
TESTS = os.path.join(os.path.dirname(HERE), "tests")
sys.path.insert(0, TESTS)

import support  # noqa: E402  (also puts the relay and the hooks on the import path)
import install  # noqa: E402
import npm_peers  # noqa: E402
import permission_hook  # noqa: E402
from agent_clis import (  # noqa: E402
    CLAUDE_KEY, CODEX_KEY, OPENAI_RESPONSES, ANTHROPIC_MESSAGES, CliHome, claude_environment, start_codex_tui,
    write_claude_settings, write_codex_config)
from fake_provider import FakeProvider, Reply, ToolCall  # noqa: E402

FINAL_TEXT = "The command ran."
STAMP = "started.txt"
# The command writes the time it started before anything else.
COMMAND = f"date +%s.%N > {STAMP}"
HOOK_WAIT = "120"
RUN_TIMEOUT_SECONDS = 60.0


class Skip(Exception):
    pass


class Peers:
    def skipTest(self, message):
        raise Skip(message)


def percentile(values, share):
    ordered = sorted(values)
    return ordered[min(len(ordered) - 1, int(round(share * (len(ordered) - 1))))]


class Bench:
    def __init__(self, runs):
        self.runs = runs
        self.folder = tempfile.mkdtemp(prefix="hook-bench-")
        os.makedirs(os.path.join(self.folder, "bin"))
        self.relay = support.Relay(self.folder, {"MERE_RELAY_LOG_LEVEL": "WARNING"}).start()
        self.token = self.relay.local_token()
        self.stream = self.relay.open_stream(self.token)
        self.stream.next_snapshot()
        self.sent_tool_call = None

    def close(self):
        self.stream.close()
        self.relay.stop()
        shutil.rmtree(self.folder, ignore_errors=True)

    def next_interrupt(self, seen):
        while True:
            snapshot = self.stream.next_snapshot(timeout=RUN_TIMEOUT_SECONDS)
            fresh = [item for item in snapshot["interrupts"] if item["id"] not in seen]
            if fresh:
                return fresh[0], time.monotonic()

    def approve(self, interrupt_id):
        started = time.time()
        status, answer, _ = self.relay.request("POST", f"v1/interrupts/{interrupt_id}/verdict",
                                               {"verdict": "approve", "source": "desktop"}, token=self.token)
        assert status == 200, answer
        return started

    def responder(self, protocol, has_result):
        """Asks for the command when the conversation's last turn is the person's, then says it ran."""
        def respond(recorded):
            if recorded.protocol != protocol or not recorded.body.get("tools"):
                return None
            if has_result(recorded.body):
                return Reply(text=FINAL_TEXT)
            self.sent_tool_call = time.monotonic()
            self.sent_tool_call_wall = time.time()
            if protocol == ANTHROPIC_MESSAGES:
                return Reply(text="", tool_calls=[ToolCall("Bash", {"command": COMMAND, "description": "Stamp"})])
            return Reply(text="", tool_calls=[ToolCall("exec_command", {
                "cmd": COMMAND, "sandbox_permissions": "require_escalated", "justification": "Stamp?"},
                call_id=f"call_{time.monotonic_ns()}")])
        return respond

    def stamp(self, home):
        path = os.path.join(home.work, STAMP)
        deadline = time.monotonic() + RUN_TIMEOUT_SECONDS
        while True:
            try:
                with open(path) as handle:
                    text = handle.read().strip()
                if text:
                    os.unlink(path)
                    return float(text)
            except FileNotFoundError:
                pass
            if time.monotonic() > deadline:
                raise RuntimeError("the command never ran")
            time.sleep(0.005)

    def install(self, home, cli):
        name = "settings.json" if cli == "claude" else "hooks.json"
        settings = os.path.join(home.home, ".claude" if cli == "claude" else ".codex", name)
        with contextlib.redirect_stdout(io.StringIO()):
            install.main([cli, "--settings", settings, "--relay", self.relay.base_url, "--wait", HOOK_WAIT], {})
        with open(settings) as handle:
            return json.load(handle)

    def claude(self, peers):
        to_queue, to_tool = [], []
        with FakeProvider(expected_key=CLAUDE_KEY) as provider, CliHome() as home:
            def last_is_result(body):
                content = (body.get("messages") or [{}])[-1].get("content")
                return isinstance(content, list) and any(
                    isinstance(block, dict) and block.get("type") == "tool_result" for block in content)
            provider.responder = self.responder(ANTHROPIC_MESSAGES, last_is_result)
            write_claude_settings(home, self.install(home, "claude"))
            env = claude_environment(provider, home)
            seen = set()
            for _ in range(self.runs):
                process = subprocess.Popen([peers.claude, "-p", "Stamp the time", "--permission-mode", "default"],
                                           cwd=home.work, env=env, stdin=subprocess.DEVNULL,
                                           stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
                interrupt, shown = self.next_interrupt(seen)
                seen.add(interrupt["id"])
                to_queue.append(shown - self.sent_tool_call)
                verdict = self.approve(interrupt["id"])
                to_tool.append(self.stamp(home) - verdict)
                process.wait(RUN_TIMEOUT_SECONDS)
        return to_queue, to_tool

    def claude_alone(self, peers):
        """From the tool request to the start of a permission hook that only notes the time: Claude Code's own part."""
        spawned = []
        with FakeProvider(expected_key=CLAUDE_KEY) as provider, CliHome() as home:
            provider.responder = self.responder(ANTHROPIC_MESSAGES, lambda body: False)
            stamp = os.path.join(home.work, STAMP)
            hook = {"type": "command", "command": f"date +%s.%N > {stamp}; cat > /dev/null"}
            write_claude_settings(home, {"hooks": {"PermissionRequest": [{"matcher": "*", "hooks": [hook]}]}})
            env = claude_environment(provider, home)
            for _ in range(self.runs):
                process = subprocess.Popen([peers.claude, "-p", "Stamp the time", "--permission-mode", "default",
                                            "--max-turns", "1"], cwd=home.work, env=env, stdin=subprocess.DEVNULL,
                                           stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
                spawned.append(self.stamp(home) - self.sent_tool_call_wall)
                process.kill()
                process.wait(RUN_TIMEOUT_SECONDS)
        return spawned

    def codex(self, peers):
        to_queue, to_tool = [], []
        with FakeProvider(expected_key=CODEX_KEY) as provider, CliHome() as home:
            def last_is_result(body):
                items = body.get("input") or [{}]
                return isinstance(items[-1], dict) and items[-1].get("type") == "function_call_output"
            provider.responder = self.responder(OPENAI_RESPONSES, last_is_result)
            write_codex_config(provider, home)
            self.install(home, "codex")
            session = start_codex_tui(peers, home, ["-a", "on-request", "-s", "read-only"])
            try:
                session.wait_for(r"Hooks need review")
                support.wait_for(lambda: session.send_keys("2") or "› 2. Trust all" in session.screen(),
                                 timeout=20, interval=0.3)
                session.answer_prompt("Enter", r"Hooks need review")
                session.wait_for(r"Ask Codex")
                seen = set()
                for run in range(self.runs):
                    session.type_line(f"Stamp the time, turn {run}")
                    interrupt, shown = self.next_interrupt(seen)
                    seen.add(interrupt["id"])
                    to_queue.append(shown - self.sent_tool_call)
                    verdict = self.approve(interrupt["id"])
                    to_tool.append(self.stamp(home) - verdict)
                    session.wait_for(rf"(?s)turn {run}.*{FINAL_TEXT}", timeout=RUN_TIMEOUT_SECONDS)
            finally:
                session.close()
        return to_queue, to_tool

    def hook_parts(self, script, old=False):
        """Medians of a hook's start-up and of its whole run to the interrupt in the queue and after the verdict."""
        event = support.read_data("cli/claude_hook_permission_request.json")
        python = [sys.executable] if old else [sys.executable, *install.PYTHON_FLAGS]
        env = {"PATH": os.environ.get("PATH", ""), "HOME": self.folder, "XDG_RUNTIME_DIR": self.folder}
        if old:
            env.update({"MERE_RELAY_URL": self.relay.base_url, "MERE_HOOK_WAIT_SECONDS": HOOK_WAIT})
        args = [] if old else ["--relay", self.relay.base_url, "--wait", HOOK_WAIT]
        folder = os.path.dirname(script)
        imports = f"import sys; sys.path.insert(0, {folder!r}); import {os.path.basename(script)[:-3]}"
        parts = {"python start-up": [], "start-up with imports": [], "spawn → interrupt in queue": [],
                 "verdict → hook ended": []}
        seen = set()
        for _ in range(self.runs):
            for name, code in (("python start-up", "pass"), ("start-up with imports", imports)):
                started = time.monotonic()
                subprocess.run([*python, "-c", code], check=True, env=env)
                parts[name].append(time.monotonic() - started)
            started = time.monotonic()
            process = subprocess.Popen([*python, script, *args], stdin=subprocess.PIPE, stdout=subprocess.PIPE,
                                       env=env)
            process.stdin.write(event.encode())
            process.stdin.close()
            interrupt, shown = self.next_interrupt(seen)
            seen.add(interrupt["id"])
            parts["spawn → interrupt in queue"].append(shown - started)
            verdict = time.monotonic()
            self.approve(interrupt["id"])
            output = process.stdout.read()
            process.wait()
            parts["verdict → hook ended"].append(time.monotonic() - verdict)
            assert b'"allow"' in output, output
        return {name: statistics.median(values) for name, values in parts.items()}

    def relay_exchanges(self):
        """Medians of the hook's own calls to the relay, made in this process with the hook's client."""
        parts = {"sign in": [], "raise": [], "withdraw": [], "sign out": []}
        event = json.loads(support.read_data("cli/claude_hook_permission_request.json"))
        import claude_permission
        interrupt = claude_permission.build_interrupt(event, 60)
        for _ in range(self.runs):
            client = permission_hook.RelayClient(self.relay.base_url)
            for name, call in (("sign in", client.sign_in),
                               ("raise", lambda: parts.setdefault("_id", client.call("POST", "v1/interrupts",
                                                                                      interrupt)["id"])),
                               ("withdraw", lambda: client.call("POST", f"v1/interrupts/{parts.pop('_id')}/withdraw",
                                                                {})),
                               ("sign out", client.sign_out)):
                started = time.monotonic()
                call()
                parts[name].append(time.monotonic() - started)
        return {name: statistics.median(values) for name, values in parts.items() if not name.startswith("_")}


def row(name, values):
    ms = [value * 1000 for value in values]
    return f"| {name} | {percentile(ms, 0.5):.0f} | {percentile(ms, 0.95):.0f} | {min(ms):.0f} | {max(ms):.0f} |"


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--runs", type=int, default=20)
    parser.add_argument("--cli", default="claude,codex")
    parser.add_argument("--old-hook", help="another claude_permission.py to take apart beside this tree's")
    args = parser.parse_args()
    try:
        peers = npm_peers.require(Peers())
    except Skip as skip:
        print(f"cannot run the CLIs: {skip}")
        return 1
    bench = Bench(args.runs)
    try:
        print(f"{args.runs} runs each; milliseconds\n")
        print("| CLI, interval | p50 | p95 | min | max |\n|---|---|---|---|---|")
        for cli in args.cli.split(","):
            to_queue, to_tool = getattr(bench, cli)(peers)
            print(row(f"{cli}: tool request → interrupt in queue", to_queue))
            print(row(f"{cli}: verdict → tool starting", to_tool))
            if cli == "claude":
                print(row("claude alone: tool request → a hook that only notes the time starts",
                          bench.claude_alone(peers)))
        hooks = [("this tree", os.path.join(support.HOOKS_DIR, "claude_permission.py"), False)]
        if args.old_hook:
            hooks.append(("--old-hook", os.path.abspath(args.old_hook), True))
        print("\nThe Claude hook alone (medians, ms):\n")
        results = [(label, bench.hook_parts(script, old)) for label, script, old in hooks]
        print("| part | " + " | ".join(label for label, _ in results) + " |")
        print("|---|" + "---|" * len(results))
        for name in results[0][1]:
            print(f"| {name} | " + " | ".join(f"{parts[name] * 1000:.1f}" for _, parts in results) + " |")
        print("\nThe hook's calls to the relay (medians, ms):\n")
        for name, value in bench.relay_exchanges().items():
            print(f"- {name}: {value * 1000:.2f}")
    finally:
        bench.close()
    return 0


if __name__ == "__main__":
    sys.exit(main())
