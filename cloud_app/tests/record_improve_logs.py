"""Records real conversation logs of both agent CLIs for the improve fixtures.

Runs `claude -p` (continued with `--continue`) and `codex exec` (continued with `exec resume --last`)
offline against the fake provider in a throwaway HOME, with a person's corrections among the turns,
then copies each session log the CLI wrote into data/improve/, scrubbed of the throwaway paths and
of the placeholder keys.

    cd cloud_app/tests && python3 record_improve_logs.py
"""

import glob
import json
import os
import shutil
import sys

import npm_peers
from agent_clis import (CLAUDE_KEY, CODEX_KEY, CliHome, codex_home, run_claude_print, run_codex_exec, scrubbed,
                        write_claude_settings, write_codex_config)
from fake_provider import FakeProvider

HERE = os.path.dirname(os.path.abspath(__file__))
OUT = os.path.join(HERE, "data", "improve")

# Each conversation: the person's turns in order. The same correction comes back in a second
# conversation of each CLI; "prefer tabs" comes once only.
CLAUDE_CONVERSATIONS = [
    ["Rename the helper in utils.py to parse_line.",
     "Don't use sed, use the edit tool instead.",
     "Always run the tests before you commit."],
    ["Add a docstring to the parser.",
     "don't use sed for this — use the Edit tool instead!",
     "Prefer tabs over spaces in the Makefile."],
]
CODEX_CONVERSATIONS = [
    ["Fix the failing build in src/.",
     "Always run the tests before you commit."],
    ["Update the changelog for the release.",
     "Please always run the tests before committing!!"],
]


def scrub_lines(path, home, secrets):
    lines = []
    with open(path, encoding="utf-8") as handle:
        for line in handle:
            if line.strip():
                lines.append(json.dumps(scrubbed(json.loads(line), home, secrets), ensure_ascii=False,
                                        separators=(",", ":")))
    return "\n".join(lines) + "\n"


def record_claude(peers):
    with FakeProvider(expected_key=CLAUDE_KEY) as provider, CliHome() as home:
        write_claude_settings(home, {})
        for number, turns in enumerate(CLAUDE_CONVERSATIONS):
            for index, turn in enumerate(turns):
                extra = ("--continue",) if index else ()
                run = run_claude_print(peers, provider, home, turn, extra_args=extra)
                if run.returncode != 0:
                    sys.exit(f"claude failed: {run.stderr[-2000:]}")
            logs = sorted(glob.glob(os.path.join(home.home, ".claude", "projects", "*", "*.jsonl")),
                          key=os.path.getmtime)
            newest = logs[-1]
            # Claude names the log after the session; the folder after the project's path (scrubbed).
            target = os.path.join(OUT, "claude", "-home-user-project", os.path.basename(newest))
            os.makedirs(os.path.dirname(target), exist_ok=True)
            with open(target, "w", encoding="utf-8") as handle:
                handle.write(scrub_lines(newest, home, (CLAUDE_KEY,)))
            # The next conversation starts afresh: move this one's log aside.
            shutil.move(newest, newest + ".done")


def record_codex(peers):
    with FakeProvider(expected_key=CODEX_KEY) as provider, CliHome() as home:
        write_codex_config(provider, home)
        for number, turns in enumerate(CODEX_CONVERSATIONS):
            for index, turn in enumerate(turns):
                extra = ("resume", "--last") if index else ()
                if index:
                    # `codex exec resume --last PROMPT`: the options belong to `exec`, the prompt comes last.
                    run = run_codex_exec(peers, provider, home, turn, extra_args=extra)
                else:
                    run = run_codex_exec(peers, provider, home, turn)
                if run.returncode != 0:
                    sys.exit(f"codex failed: {run.stderr[-2000:]}")
            logs = sorted(glob.glob(os.path.join(codex_home(home), "sessions", "*", "*", "*", "rollout-*.jsonl")),
                          key=os.path.getmtime)
            newest = logs[-1]
            # Codex files the log by day: two conversations of one day would share a folder, so the
            # fixtures file them on two days of their own.
            target = os.path.join(OUT, "codex", "2026", "01", f"{number + 1:02d}", os.path.basename(newest))
            os.makedirs(os.path.dirname(target), exist_ok=True)
            with open(target, "w", encoding="utf-8") as handle:
                handle.write(scrub_lines(newest, home, (CODEX_KEY,)))
            shutil.move(newest, newest + ".done")


def main():
    peers = npm_peers.ensure_installed()
    # The recorded sessions get new ids: the old files go, or both would be fixtures.
    shutil.rmtree(OUT, ignore_errors=True)
    record_claude(peers)
    record_codex(peers)
    print("written under", OUT)


if __name__ == "__main__":
    main()
