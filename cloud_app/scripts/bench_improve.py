#!/usr/bin/env python3
"""Measures the improve scan: a first reading of about 1 GB of conversation logs, and a rescan
after one log grew by one line.

    python3 cloud_app/scripts/bench_improve.py [--megabytes 1024] [--max-repeats 40] [--rescans 5] [--keep]

The logs are generated from the recorded fixtures' shapes (tests/data/improve): each generated
conversation is a recorded one of Claude Code or Codex (three quarters of the bytes Claude's,
as their logs are the larger) repeated 1 to `--max-repeats` times, as a long conversation goes
on turn after turn, with a session id of its own and the person's messages drawn from a pool
in which a few corrections recur. The recorded conversations are short (three turns, about
150 KB and 50 KB), so `--max-repeats 1` makes many small logs (about 8,600): the shape in which
a rescan that looked at every log's size and time spent most of its time on those looks. They
are written to a temporary folder and deleted afterwards. A relay of its own (a child process, its database in the same folder) reads
them through `v1/improve/scan`, timed by the client: the first scan (MB/s over the bytes on
disk), a second scan of unchanged logs, and `--rescans` scans each after one log (another each
time, Claude's and Codex's in turn) grew by one line, with their least and median times, and
the suggestions' list the application asks for after each.

The files were just written, so the first scan reads them from the page cache: the figure is
the scanner's own speed, not the disk's.
"""

import argparse
import json
import os
import random
import re
import shutil
import statistics
import sys
import tempfile
import time
import uuid

HERE = os.path.dirname(os.path.abspath(__file__))
TESTS = os.path.normpath(os.path.join(HERE, "..", "tests"))
sys.path.insert(0, TESTS)

import support  # noqa: E402

FIXTURES = os.path.join(TESTS, "data", "improve")
SCAN_TIMEOUT_SECONDS = 600
TARGET_FIRST_MB_PER_SECOND = 100
TARGET_RESCAN_MS = 100
# What a person says to agents: mostly tasks, some corrections, a few of which recur.
MESSAGES = [
    "Rename the helper in utils.py to parse_line.", "Add a docstring to the parser.",
    "Fix the failing build in src/.", "Update the changelog for the release.", "Why does this test fail?",
    "Refactor the config loader into its own module.", "Look at the logs and tell me what broke.",
    "Don't use sed, use the edit tool instead.", "Always run the tests before you commit.",
    "Never push to main without a review.", "Stop adding comments that repeat the code.",
    "Use pnpm instead of npm in this repo.", "Prefer early returns over nested ifs.",
]
_UUID = re.compile(rb"[0-9a-f]{8}-[0-9a-f]{4}-[0-9a-f]{4}-[0-9a-f]{4}-[0-9a-f]{12}")


def templates():
    """Each recorded log as bytes with its person's messages replaced by numbered placeholders."""
    found = []
    for agent in ("claude", "codex"):
        root = os.path.join(FIXTURES, agent)
        for folder, _, names in os.walk(root):
            for name in sorted(names):
                with open(os.path.join(folder, name), "rb") as handle:
                    data = handle.read()
                texts = []
                for line in data.splitlines():
                    record = json.loads(line)
                    message = record.get("message") if agent == "claude" else record.get("payload")
                    if isinstance(message, dict) and message.get("role") == "user":
                        content = message.get("content")
                        if isinstance(content, str) and not content.startswith("<"):
                            texts.append(content)
                        elif isinstance(content, list):
                            texts.extend(block.get("text") for block in content if isinstance(block, dict)
                                         and isinstance(block.get("text"), str)
                                         and not block["text"].startswith(("<", "#")))
                for index, text in enumerate(dict.fromkeys(texts)):
                    data = data.replace(json.dumps(text, ensure_ascii=False)[1:-1].encode("utf-8"),
                                        f"@@M{index}@@".encode())
                found.append((agent, data, len(dict.fromkeys(texts))))
    return found


def generate(root, megabytes, max_repeats=1, seed=7):
    rng = random.Random(seed)
    shapes = templates()
    claude = [shape for shape in shapes if shape[0] == "claude"]
    codex = [shape for shape in shapes if shape[0] == "codex"]
    target = megabytes * 1024 * 1024
    written = files = 0
    paths = []
    while written < target:
        agent, data, count = rng.choice(claude) if rng.random() < 0.75 else rng.choice(codex)
        session = str(uuid.UUID(int=rng.getrandbits(128)))
        data = _UUID.sub(session.encode(), data)
        blocks = []
        for _ in range(rng.randint(1, max_repeats)):
            block = data
            for index in range(count):
                text = json.dumps(rng.choice(MESSAGES), ensure_ascii=False)[1:-1].encode("utf-8")
                block = block.replace(f"@@M{index}@@".encode(), text)
            blocks.append(block)
        data = b"".join(blocks)
        if agent == "claude":
            path = os.path.join(root, "claude", f"-home-user-project-{files % 40}", session + ".jsonl")
        else:
            day = files % 28 + 1
            path = os.path.join(root, "codex", "2026", "01", f"{day:02d}",
                                f"rollout-2026-01-{day:02d}T10-00-00-{session}.jsonl")
        os.makedirs(os.path.dirname(path), exist_ok=True)
        with open(path, "wb") as handle:
            handle.write(data)
        written += len(data)
        files += 1
        paths.append(path)
    return written, files, paths


def timed_scan(relay, token, force=False):
    started = time.perf_counter()
    status, answer, _ = relay.request("POST", "v1/improve/scan", {"force": force}, token=token,
                                      timeout=SCAN_TIMEOUT_SECONDS)
    seconds = time.perf_counter() - started
    if status != 200:
        sys.exit(f"scan failed: {status} {answer}")
    return seconds, answer


def grow(path):
    """Appends one message of the person to a log, as its CLI writes it."""
    line = {"type": "user", "message": {"role": "user", "content": "Never push to main without a review."},
            "timestamp": time.strftime("%Y-%m-%dT%H:%M:%S.000Z", time.gmtime())}
    if "/codex/" in path:
        line = {"timestamp": line["timestamp"], "type": "response_item", "payload": {
            "type": "message", "role": "user",
            "content": [{"type": "input_text", "text": "Never push to main without a review."}]}}
    with open(path, "a", encoding="utf-8") as handle:
        handle.write(json.dumps(line, separators=(",", ":")) + "\n")


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--megabytes", type=int, default=1024)
    parser.add_argument("--max-repeats", type=int, default=40,
                        help="each log is a recorded conversation repeated 1 to this many times")
    parser.add_argument("--rescans", type=int, default=5, help="rescans after one log grew by one line")
    parser.add_argument("--keep", action="store_true", help="leave the generated folder in place")
    args = parser.parse_args()
    root = tempfile.mkdtemp(prefix="bench-improve-")
    relay = None
    try:
        started = time.perf_counter()
        size, files, paths = generate(root, args.megabytes, args.max_repeats)
        print(f"generated {size / 1e6:.0f} MB in {files} logs (mean {size / files / 1e6:.2f} MB) "
              f"in {time.perf_counter() - started:.1f} s")
        os.makedirs(os.path.join(root, "relay", "bin"))
        relay = support.Relay(os.path.join(root, "relay"), {
            "MERE_RELAY_CLAUDE_PROJECTS_DIR": os.path.join(root, "claude"),
            "MERE_RELAY_CODEX_SESSIONS_DIR": os.path.join(root, "codex")}).start()
        token = relay.local_token()
        seconds, answer = timed_scan(relay, token)
        print(f"first scan: {seconds:.2f} s, {size / 1e6 / seconds:.0f} MB/s "
              f"({answer['sessions_scanned']} conversations, {answer['turns_observed']} turns, "
              f"{answer['signals_found']} signals, {answer['suggestions_found']} suggestions)"
              f"  target >= {TARGET_FIRST_MB_PER_SECOND} MB/s")
        seconds, answer = timed_scan(relay, token)
        print(f"rescan, nothing changed: {seconds * 1000:.1f} ms ({answer['sessions_scanned']} read)")
        claude = [path for path in paths if "/claude/" in path]
        codex = [path for path in paths if "/codex/" in path]
        times, listings = [], []
        for index in range(args.rescans):
            grown = (claude, codex)[index % 2] or claude or codex
            grow(grown[len(grown) - 1 - index // 2])
            seconds, answer = timed_scan(relay, token)
            times.append(seconds * 1000)
            print(f"rescan after one log grew by one line: {seconds * 1000:.1f} ms "
                  f"({answer['sessions_scanned']} read, {answer['turns_observed']} turn)")
            # As the application does after a scan: it asks for the list, with the reading's progress.
            started = time.perf_counter()
            status, _, _ = relay.request("GET", "v1/improve/suggestions?include_dismissed=false&limit=20", token=token)
            if status != 200:
                sys.exit(f"listing failed: {status}")
            listings.append((time.perf_counter() - started) * 1000)
        if times:
            print(f"rescans after one grown line: least {min(times):.1f} ms, median {statistics.median(times):.1f} ms"
                  f" over {len(times)}  target < {TARGET_RESCAN_MS} ms")
            print(f"the list asked for after each: least {min(listings):.1f} ms, "
                  f"median {statistics.median(listings):.1f} ms")
    finally:
        if relay is not None:
            relay.stop()
        if args.keep:
            print("kept", root)
        else:
            shutil.rmtree(root, ignore_errors=True)


if __name__ == "__main__":
    main()
