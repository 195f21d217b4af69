#!/usr/bin/env python3
"""The terminal view against xterm and alacritty on one Xvfb display, in one run.

Flood: `cat` of the 32 MiB plain and sgr corpora at 80x24 and 200x50, timed inside each
terminal from the start of `cat` until the terminal answers a device-attributes query sent
after it (so every byte has been taken in), median of --runs. Responsiveness: the largest
gap of a 10 ms main-thread timer in the view during its floods. Typing: key to pixels on the
screen for all three alike (X test extension), and key event to presented frame inside the
view. Memory: the application with its drawer open and two idle shells after --idle seconds
(default and software scene graphs), beside xterm and alacritty with one idle shell each.
Frame build: the Google Benchmark of one full 200x50 frame and of one changed row.

    desktop_app/Benchmarks/Terminal/terminal_bench.py [--build build] [--runs 3] [--idle 60]

Needs: Xvfb, xterm, alacritty (Debian packages), the corpora of ../shared/bench/gen_corpus.py
(in ~/.cache/termbench/corpus by default), and the build's termkit-view-host, key-to-pixels,
termkit_view_benchmarks and quillmere.
"""
import argparse
import json
import os
import shutil
import signal
import socket
import statistics
import subprocess
import sys
import tempfile
import time
import urllib.request

HERE = os.path.dirname(os.path.abspath(__file__))
ROOT = os.path.abspath(os.path.join(HERE, "..", "..", ".."))
FONT = "DejaVu Sans Mono"
FONT_POINTS = 11
FLOOD = os.path.join(HERE, "flood.sh")
TEST_SHELL = os.path.join(ROOT, "desktop_app", "Tests", "QuillmereDesktopTests", "gui", "data", "test-shell.sh")


def free_display():
    for n in range(90, 200):
        if not os.path.exists(f"/tmp/.X{n}-lock"):
            return n
    raise RuntimeError("no free X display number")


def start_xvfb():
    n = free_display()
    xvfb = subprocess.Popen(["Xvfb", f":{n}", "-screen", "0", "1920x1080x24", "-dpi", "96", "-nolisten", "tcp"],
                            stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
    for _ in range(100):
        if os.path.exists(f"/tmp/.X11-unix/X{n}"):
            return xvfb, f":{n}"
        time.sleep(0.05)
    raise RuntimeError("Xvfb did not start")


class Terminals:
    """How to start each terminal at a size in cells with a command."""

    def __init__(self, build, env):
        self.host = os.path.join(build, "desktop_app", "Benchmarks", "termkit-view-host")
        self.env = env

    def command(self, name, cols, rows, argv):
        if name == "view":
            return [self.host, "--cols", str(cols), "--rows", str(rows), "--run", " ".join(argv)]
        if name == "view-software":
            return [self.host, "--software", "--cols", str(cols), "--rows", str(rows), "--run", " ".join(argv)]
        if name == "xterm":
            return ["xterm", "-fa", FONT, "-fs", str(FONT_POINTS), "-geometry", f"{cols}x{rows}+0+0",
                    "-bg", "white", "-fg", "black", "-e"] + argv
        if name == "alacritty":
            return ["alacritty", "--config-file", "/dev/null", "-o", f'font.normal.family="{FONT}"',
                    "-o", f"font.size={FONT_POINTS}", "-o", f"window.dimensions.columns={cols}",
                    "-o", f"window.dimensions.lines={rows}", "-o", "window.position.x=0",
                    "-o", "window.position.y=0", "-e"] + argv
        raise ValueError(name)

    def run(self, name, cols, rows, argv, timeout=600):
        return subprocess.run(self.command(name, cols, rows, argv), env=self.env, capture_output=True, text=True,
                              timeout=timeout)

    def start(self, name, cols, rows, argv):
        return subprocess.Popen(self.command(name, cols, rows, argv), env=self.env, stdout=subprocess.PIPE,
                                stderr=subprocess.DEVNULL, text=True)


def flood(terminals, name, corpus, cols, rows):
    with tempfile.NamedTemporaryFile(prefix="flood-", delete=False) as out:
        result = out.name
    os.unlink(result)
    done = terminals.run(name, cols, rows, [FLOOD, corpus, result])
    with open(result) as f:
        start, end = (int(v) for v in f.read().split())
    os.unlink(result)
    gap = None
    if name.startswith("view"):
        for line in done.stdout.splitlines():
            if line.startswith("{"):
                gap = json.loads(line)["max_timer_gap_ms"]
    return (end - start) / 1e9, gap


def typing_external(terminals, build, name, keys):
    probe = os.path.join(build, "desktop_app", "Benchmarks", "key-to-pixels")
    process = terminals.start(name, 80, 24, ["cat"])
    time.sleep(3)
    try:
        # The first two rows of the text area: where `cat` echoes.
        answer = subprocess.run([probe, "0", "0", "720", "40", str(keys)], env=terminals.env, capture_output=True,
                                text=True, timeout=600)
        return json.loads(answer.stdout.strip().splitlines()[-1])
    finally:
        process.terminate()
        process.wait(timeout=10)


def typing_inside(terminals, keys, software=False):
    argv = [terminals.host, "--cols", "80", "--rows", "24", "--typing", str(keys)]
    if software:
        argv.insert(1, "--software")
    done = subprocess.run(argv, env=terminals.env, capture_output=True, text=True, timeout=600)
    return json.loads([l for l in done.stdout.splitlines() if l.startswith("{")][-1])


def memory_of(pid):
    anonymous = rss = 0
    with open(f"/proc/{pid}/smaps_rollup") as f:
        for line in f:
            if line.startswith("Anonymous:"):
                anonymous = int(line.split()[1])
    with open(f"/proc/{pid}/status") as f:
        for line in f:
            if line.startswith("VmRSS:"):
                rss = int(line.split()[1])
    return anonymous / 1024, rss / 1024


def free_port():
    with socket.socket() as s:
        s.bind(("127.0.0.1", 0))
        return s.getsockname()[1]


def relay_up(port):
    try:
        with urllib.request.urlopen(f"http://127.0.0.1:{port}/v1/health", timeout=0.5) as answer:
            return answer.status == 200
    except OSError:
        return False


def app_memory(build, env, idle, software):
    """The application signed in to a relay of its own, drawer open, two idle shells."""
    home = tempfile.mkdtemp(prefix="quillmere-bench-")
    port = free_port()
    relay_env = dict(env, MERE_RELAY_PORT=str(port), MERE_RELAY_DB_PATH=f"{home}/relay.db",
                     MERE_RELAY_ENV_PATH=f"{home}/relay.env", MERE_RELAY_LOCAL_AUTH="1",
                     PYTHONDONTWRITEBYTECODE="1")
    relay = subprocess.Popen([sys.executable, os.path.join(ROOT, "cloud_app", "src", "relay", "server.py")],
                             env=relay_env, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
    try:
        for _ in range(100):
            if relay_up(port):
                break
            time.sleep(0.1)
        os.makedirs(f"{home}/config/Quillmere", exist_ok=True)
        with open(f"{home}/config/Quillmere/Quillmere.conf", "w") as conf:
            conf.write(f"[General]\nrelayURL=http://127.0.0.1:{port}/\n")
        app_env = dict(env, HOME=home, XDG_DATA_HOME=f"{home}/share", XDG_CONFIG_HOME=f"{home}/config",
                       XDG_RUNTIME_DIR=f"{home}/run", DBUS_SESSION_BUS_ADDRESS="unix:path=/nonexistent",
                       # The drawer's shells get stand-ins for the agents' installers.
                       SHELL=TEST_SHELL)
        if software:
            app_env["QT_QUICK_BACKEND"] = "software"
        os.makedirs(f"{home}/run", mode=0o700, exist_ok=True)
        app = subprocess.Popen([os.path.join(build, "desktop_app", "Sources", "QuillmereDesktop", "quillmere")],
                               env=app_env, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        time.sleep(idle)
        children = subprocess.run(["pgrep", "-P", str(app.pid)], capture_output=True, text=True).stdout.split()
        figures = memory_of(app.pid)
        app.send_signal(signal.SIGTERM)
        try:
            app.wait(timeout=20)
        except subprocess.TimeoutExpired:
            app.kill()
        return figures, len(children)
    finally:
        relay.terminate()
        relay.wait(timeout=10)
        shutil.rmtree(home, ignore_errors=True)


def peer_memory(terminals, name, idle):
    process = terminals.start(name, 80, 24, ["bash", "--norc", "-i"])
    time.sleep(idle)
    figures = memory_of(process.pid)
    process.terminate()
    process.wait(timeout=10)
    return figures


def frame_build(build, env):
    bench = os.path.join(build, "desktop_app", "Benchmarks", "termkit_view_benchmarks")
    done = subprocess.run([bench, "--benchmark_format=json", "--benchmark_min_time=1"], env=env, capture_output=True,
                          text=True, timeout=600)
    return {b["name"]: b["cpu_time"] for b in json.loads(done.stdout)["benchmarks"]}


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--build", default=os.path.join(ROOT, "build"))
    parser.add_argument("--corpus", default=os.path.expanduser("~/.cache/termbench/corpus"))
    parser.add_argument("--runs", type=int, default=3)
    parser.add_argument("--keys", type=int, default=200)
    parser.add_argument("--idle", type=int, default=60)
    parser.add_argument("--skip", default="", help="comma-separated parts to leave out: flood,typing,memory,frame")
    args = parser.parse_args()
    skip = set(filter(None, args.skip.split(",")))
    xvfb, display = start_xvfb()
    env = dict(os.environ, DISPLAY=display, QT_QPA_PLATFORM="xcb")
    env.pop("QT_QUICK_BACKEND", None)
    terminals = Terminals(args.build, env)
    report = {}
    try:
        if "flood" not in skip:
            report["flood"] = {}
            for cols, rows in ((80, 24), (200, 50)):
                for corpus in ("plain", "sgr"):
                    path = os.path.join(args.corpus, f"{corpus}.bin")
                    times = {n: [] for n in ("view", "xterm", "alacritty")}
                    gaps = []
                    for _ in range(args.runs):
                        # Interleaved, so that a slow moment of the machine falls on all alike.
                        for name in times:
                            seconds, gap = flood(terminals, name, path, cols, rows)
                            times[name].append(seconds)
                            if gap is not None:
                                gaps.append(gap)
                    key = f"{corpus} {cols}x{rows}"
                    report["flood"][key] = {n: statistics.median(v) for n, v in times.items()}
                    report["flood"][key]["view_max_timer_gap_ms"] = max(gaps)
                    print(key, report["flood"][key], flush=True)
        if "typing" not in skip:
            report["typing"] = {n: typing_external(terminals, args.build, n, args.keys)
                                for n in ("view", "xterm", "alacritty")}
            report["typing"]["view inside (gpu)"] = typing_inside(terminals, args.keys)
            report["typing"]["view inside (software)"] = typing_inside(terminals, args.keys, software=True)
            print("typing", report["typing"], flush=True)
        if "frame" not in skip:
            report["frame"] = frame_build(args.build, env)
            print("frame", report["frame"], flush=True)
        if "memory" not in skip:
            report["memory"] = {}
            (report["memory"]["app, drawer open (default)"], shells) = app_memory(args.build, env, args.idle, False)
            (report["memory"]["app, drawer open (software)"], _) = app_memory(args.build, env, args.idle, True)
            report["memory"]["xterm"] = peer_memory(terminals, "xterm", args.idle)
            report["memory"]["alacritty"] = peer_memory(terminals, "alacritty", args.idle)
            report["memory"]["app children (shells and relay helpers)"] = shells
            print("memory", report["memory"], flush=True)
    finally:
        xvfb.terminate()
        xvfb.wait(timeout=10)
    print(json.dumps(report, indent=2))
    print_table(report)


def print_table(report):
    # The ratios are the peer's figure over the view's: above 1 the view is faster (smaller).
    print("\n| Measure | Termkit view | xterm | alacritty | xterm / view | alacritty / view |")
    print("|---|---|---|---|---|---|")
    for key, row in report.get("flood", {}).items():
        v, x, a = row["view"], row["xterm"], row["alacritty"]
        print(f"| flood {key} (s) | {v:.2f} | {x:.2f} | {a:.2f} | {x / v:.1f}x | {a / v:.1f}x |")
    for key, row in report.get("flood", {}).items():
        print(f"| largest 10 ms timer gap, {key} (ms) | {row['view_max_timer_gap_ms']:.1f} | | | | |")
    typing = report.get("typing", {})
    if typing:
        v, x, a = typing["view"], typing["xterm"], typing["alacritty"]
        for p in ("p50_ms", "p95_ms"):
            print(f"| key to pixels {p[:3]} (ms) | {v[p]:.1f} | {x[p]:.1f} | {a[p]:.1f} | "
                  f"{x[p] / v[p]:.2f}x | {a[p] / v[p]:.2f}x |")
        for name in ("view inside (gpu)", "view inside (software)"):
            t = typing[name]
            print(f"| key event to presented frame, {name[13:-1]}, p50 / p95 (ms) | {t['p50_ms']:.1f} / "
                  f"{t['p95_ms']:.1f} | | | | |")
    for name, value in report.get("frame", {}).items():
        print(f"| frame build {name} (us CPU) | {value:.1f} | | | | |")
    memory = report.get("memory", {})
    if memory:
        for name in ("app, drawer open (default)", "app, drawer open (software)"):
            anon, rss = memory[name]
            print(f"| {name}: private anonymous / VmRSS (MB) | {anon:.1f} / {rss:.1f} | | | | |")
        for name in ("xterm", "alacritty"):
            anon, rss = memory[name]
            print(f"| {name}, one idle shell: private anonymous / VmRSS (MB) | | "
                  f"{anon:.1f} / {rss:.1f} |" if name == "xterm" else
                  f"| {name}, one idle shell: private anonymous / VmRSS (MB) | | | {anon:.1f} / {rss:.1f} |")


if __name__ == "__main__":
    main()
