#!/usr/bin/env python3
"""Throughput of a child's output through a pseudo-terminal into a terminal: Termkit's
LocalProcess and HeadlessTerminal against tmux, on the same file, in the same run.

    pty_throughput.py [--build DIR] [--megabytes N] [--runs N] [--sizes 80x24,200x50]
                      [--file PATH] [--no-lock] [--json]

For each size, `termkit-pty-bench` runs `cat FILE; echo MARKER` in a child and feeds it to a
headless terminal until the child's exit is reported; tmux runs the same command in a
detached session of the same size, timed from the session's start until the marker shows
in `capture-pane`. Both children run `stty -echo` first, and tmux keeps the same 500 lines
of history as the headless terminal. The file is generated (plain text lines, lines with
colours, lines with accented, wide and emoji characters; long lines wrap) unless one is given.

Prints the median of the runs for each side, the ratio Termkit / tmux (above 1: Termkit is
faster), and the peak resident memory of the Termkit harness (by /usr/bin/time -v, and by
its own VmHWM) and of the tmux server. The pseudo-terminal alone (`--count-only`: bytes
counted, no terminal) is measured too, as the ceiling both sides share.

The shared build lock is held while timing, so that no build runs beside the measurement.
"""
import argparse
import fcntl
import json
import os
import random
import re
import shutil
import statistics
import subprocess
import sys
import tempfile
import time

LOCK_PATH = "/tmp/quillmere-build.lock"
MARKER = "PTY-THROUGHPUT-MARKER-7d1f"
HISTORY_LINES = 500
POLL_SECONDS = 0.01


def make_corpus(path, megabytes):
    """Writes `megabytes` million bytes of terminal-like output, ending with a line feed."""
    rng = random.Random(7)
    words = ("build test error warning ok passed failed compile link module source target value "
             "function return const struct include namespace agent relay queue verdict terminal").split()
    accents = "é ü ñ ç å ø ß".split()
    wide = ["日本語", "中文字", "한국어", "✓", "→", "😀", "🚀"]
    colours = [31, 32, 33, 34, 35, 36, 90]
    pool = []
    for i in range(4000):
        n = rng.randint(3, 30)
        text = " ".join(rng.choice(words) for _ in range(n))
        kind = rng.random()
        if kind < 0.15:
            c = rng.choice(colours)
            text = "\x1b[%dm%s\x1b[0m %s \x1b[1m%d\x1b[22m" % (c, rng.choice(words).upper(), text, i)
        elif kind < 0.25:
            text = "%s %s %s %s" % (rng.choice(accents), text, rng.choice(wide), rng.choice(wide))
        pool.append((text + "\n").encode("utf-8"))
    target = megabytes * 1_000_000
    written = 0
    with open(path, "wb") as out:
        while written < target:
            block = b"".join(rng.choice(pool) for _ in range(2000))
            block = block[: target - written]
            if written + len(block) >= target:
                block = block[:-1] + b"\n"
            out.write(block)
            written += len(block)


def run_termkit(bench, path, cols, rows, count_only=False):
    cmd = ["/usr/bin/time", "-v", bench, path, str(cols), str(rows), "--marker", MARKER]
    if count_only:
        cmd.append("--count-only")
    result = subprocess.run(cmd, capture_output=True, text=True)
    line = [l for l in result.stdout.splitlines() if l.startswith("{")]
    if result.returncode != 0 or not line:
        raise RuntimeError("termkit-pty-bench failed: %s %s" % (result.stdout, result.stderr))
    record = json.loads(line[-1])
    match = re.search(r"Maximum resident set size \(kbytes\): (\d+)", result.stderr)
    record["time_max_rss_kb"] = int(match.group(1)) if match else None
    return record


def tmux_server_peak_kb(tmux):
    pid = subprocess.run(tmux + ["display", "-p", "#{pid}"], capture_output=True, text=True).stdout.strip()
    try:
        with open("/proc/%s/status" % pid) as status:
            for line in status:
                if line.startswith("VmHWM:"):
                    return int(line.split()[1])
    except OSError:
        pass
    return None


def run_tmux(path, cols, rows, workdir):
    sock = "pty-throughput-%d" % os.getpid()
    conf = os.path.join(workdir, "tmux.conf")
    with open(conf, "w") as f:
        f.write("set -g status off\nset -g history-limit %d\n" % HISTORY_LINES)
    tmux = ["tmux", "-L", sock, "-f", conf]
    command = "stty -echo; cat '%s'; echo %s; sleep 100000" % (path, MARKER)
    start = time.perf_counter()
    subprocess.run(tmux + ["new-session", "-d", "-x", str(cols), "-y", str(rows), "sh", "-c", command], check=True)
    try:
        while True:
            screen = subprocess.run(tmux + ["capture-pane", "-p"], capture_output=True, text=True,
                                    errors="replace").stdout
            if MARKER in screen:
                break
            if time.perf_counter() - start > 600:
                raise RuntimeError("tmux never showed the marker")
            time.sleep(POLL_SECONDS)
        seconds = time.perf_counter() - start
        size = subprocess.run(tmux + ["display", "-p", "#{pane_width}x#{pane_height}"], capture_output=True,
                              text=True).stdout.strip()
        peak = tmux_server_peak_kb(tmux)
    finally:
        subprocess.run(tmux + ["kill-server"], capture_output=True)
    return {"seconds": seconds, "pane": size, "server_peak_rss_kb": peak}


def measure(args, bench, path, workdir):
    file_bytes = os.path.getsize(path)
    rows = []
    for size in args.sizes.split(","):
        cols, lines = (int(v) for v in size.split("x"))
        termkit, tmux, ceiling = [], [], []
        for _ in range(args.runs):
            termkit.append(run_termkit(bench, path, cols, lines))
            tmux.append(run_tmux(path, cols, lines, workdir))
            ceiling.append(run_termkit(bench, path, cols, lines, count_only=True))
        t_sec = statistics.median(r["seconds"] for r in termkit)
        x_sec = statistics.median(r["seconds"] for r in tmux)
        c_sec = statistics.median(r["seconds"] for r in ceiling)
        rows.append({
            "size": size,
            "file_bytes": file_bytes,
            "termkit_bytes_per_second": file_bytes / t_sec,
            "tmux_bytes_per_second": file_bytes / x_sec,
            "pty_only_bytes_per_second": file_bytes / c_sec,
            "ratio_termkit_over_tmux": x_sec / t_sec,
            "termkit_seconds": [round(r["seconds"], 3) for r in termkit],
            "tmux_seconds": [round(r["seconds"], 3) for r in tmux],
            "termkit_peak_rss_kb": max(r["time_max_rss_kb"] or 0 for r in termkit),
            "termkit_vmhwm_kb": max(r["peak_rss_kb"] for r in termkit),
            "termkit_peak_backlog_bytes": max(r["peak_backlog_bytes"] for r in termkit),
            "termkit_suspensions": max(r["suspensions"] for r in termkit),
            "termkit_main_thread_cpu_seconds": statistics.median(r["main_thread_cpu_seconds"] for r in termkit),
            "termkit_marker_shown": all(r["marker_shown"] for r in termkit),
            "tmux_server_peak_rss_kb": max(r["server_peak_rss_kb"] or 0 for r in tmux),
            "tmux_pane": tmux[0]["pane"],
        })
    return rows


def print_table(rows):
    mb = 1e6
    print("%-7s %12s %12s %8s %12s %14s %14s %13s" % (
        "size", "termkit MB/s", "tmux MB/s", "ratio", "pty-only MB/s", "termkit peak", "tmux srv peak",
        "peak backlog"))
    for r in rows:
        print("%-7s %12.1f %12.1f %8.2f %13.1f %11.1f MB %11.1f MB %10.2f MB" % (
            r["size"], r["termkit_bytes_per_second"] / mb, r["tmux_bytes_per_second"] / mb,
            r["ratio_termkit_over_tmux"], r["pty_only_bytes_per_second"] / mb, r["termkit_peak_rss_kb"] / 1024,
            r["tmux_server_peak_rss_kb"] / 1024, r["termkit_peak_backlog_bytes"] / (1024 * 1024)))


def main():
    here = os.path.dirname(os.path.abspath(__file__))
    root = os.path.abspath(os.path.join(here, "..", "..", ".."))
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--build", default=os.path.join(root, "build"))
    parser.add_argument("--megabytes", type=int, default=100)
    parser.add_argument("--runs", type=int, default=3)
    parser.add_argument("--sizes", default="80x24,200x50")
    parser.add_argument("--file")
    parser.add_argument("--no-lock", action="store_true")
    parser.add_argument("--json", action="store_true")
    args = parser.parse_args()

    bench = os.path.join(args.build, "desktop_app", "Benchmarks", "termkit-pty-bench")
    if not os.access(bench, os.X_OK):
        sys.exit("no %s: build the target termkit-pty-bench first" % bench)
    for tool in ("tmux", "/usr/bin/time"):
        if shutil.which(tool) is None:
            sys.exit("%s is needed (scripts/bootstrap installs it)" % tool)

    workdir = tempfile.mkdtemp(prefix="pty-throughput-")
    try:
        path = args.file or os.path.join(workdir, "corpus.txt")
        if not args.file:
            make_corpus(path, args.megabytes)
        lock = None
        if not args.no_lock:
            lock = open(LOCK_PATH, "a")
            fcntl.flock(lock, fcntl.LOCK_EX)
        try:
            rows = measure(args, bench, path, workdir)
        finally:
            if lock:
                lock.close()
    finally:
        shutil.rmtree(workdir, ignore_errors=True)
    if args.json:
        print(json.dumps(rows, indent=2))
    print_table(rows)
    return 0


if __name__ == "__main__":
    sys.exit(main())
