#!/usr/bin/env python3
"""Measures the desktop app as a person starts it: time from launch to the first drawn
frame of the signed-in home screen, and resident memory after a minute of idling.

Runs under its own Xvfb display with a throwaway home folder, five runs each, and prints
medians. "cold" lets the app start its own relay; "warm" finds one already running.

    scripts/measure-app.py [--build build] [--runs 5] [--idle 60]
"""
import argparse
import os
import shutil
import signal
import statistics
import subprocess
import sys
import tempfile
import time
import urllib.request

ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
PORT = 8787


def relay_answers():
    try:
        with urllib.request.urlopen(f"http://127.0.0.1:{PORT}/v1/health", timeout=0.5) as answer:
            return answer.status == 200
    except OSError:
        return False


def rss_kib(pid):
    with open(f"/proc/{pid}/status") as status:
        for line in status:
            if line.startswith("VmRSS:"):
                return int(line.split()[1])
    return 0


# A person's cache outlives a start, while the home is made afresh for each run: the
# relay's compiled modules are compiled at the first run only, as on a real machine.
CACHE = tempfile.mkdtemp(prefix="quillmere-measure-cache-")


def environment(home, display):
    env = dict(os.environ)
    env.update(HOME=home, XDG_DATA_HOME=f"{home}/share", XDG_CONFIG_HOME=f"{home}/config", XDG_CACHE_HOME=CACHE,
               XDG_RUNTIME_DIR=f"{home}/run", DISPLAY=display, QUILLMERE_STARTUP_PROBE="1",
               # No keyring on this display: the session lives in memory only.
               DBUS_SESSION_BUS_ADDRESS="unix:path=/nonexistent")
    os.makedirs(f"{home}/run", mode=0o700, exist_ok=True)
    return env


def one_run(app, display, idle):
    home = tempfile.mkdtemp(prefix="quillmere-measure-")
    started = time.monotonic()
    process = subprocess.Popen([app], env=environment(home, display), stderr=subprocess.PIPE, text=True)
    drawn = None
    for line in process.stderr:
        if "home screen drawn" in line:
            drawn = time.monotonic() - started
            break
    memory = None
    if drawn is not None and idle > 0:
        time.sleep(idle)
        memory = rss_kib(process.pid)
    process.send_signal(signal.SIGTERM)
    process.wait(timeout=15)
    shutil.rmtree(home, ignore_errors=True)
    return drawn, memory


def wait_relay_gone():
    for _ in range(100):
        if not relay_answers():
            return
        time.sleep(0.1)


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--build", default=os.path.join(ROOT, "build"))
    parser.add_argument("--runs", type=int, default=5)
    parser.add_argument("--idle", type=int, default=60)
    args = parser.parse_args()
    app = os.path.join(args.build, "desktop_app/Sources/QuillmereDesktop/quillmere")
    if relay_answers():
        sys.exit(f"something already answers on port {PORT}; stop it first")

    display = ":97"
    xvfb = subprocess.Popen(["Xvfb", display, "-screen", "0", "800x600x24", "-nolisten", "tcp"],
                            stderr=subprocess.DEVNULL)
    time.sleep(1)
    try:
        cold, memory = [], []
        for _ in range(args.runs):
            drawn, rss = one_run(app, display, args.idle)
            cold.append(drawn)
            memory.append(rss)
            wait_relay_gone()
        # A relay that is already there: the app uses it as it is.
        data = tempfile.mkdtemp(prefix="quillmere-relay-")
        relay = subprocess.Popen([sys.executable, os.path.join(ROOT, "cloud_app/src/relay/server.py")],
                                 env=dict(os.environ, MERE_RELAY_PORT=str(PORT), MERE_RELAY_LOCAL_AUTH="1",
                                          MERE_RELAY_DB_PATH=f"{data}/relay.db"),
                                 stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        while not relay_answers():
            time.sleep(0.05)
        warm = [one_run(app, display, 0)[0] for _ in range(args.runs)]
        relay.terminate()
        relay.wait()
        shutil.rmtree(data, ignore_errors=True)
    finally:
        xvfb.terminate()
        shutil.rmtree(CACHE, ignore_errors=True)

    def ms(values):
        return f"{statistics.median(values) * 1000:.0f} ms (runs: {', '.join(f'{v * 1000:.0f}' for v in values)})"
    print(f"first home frame, app starts its own relay: {ms(cold)}")
    print(f"first home frame, relay already running:    {ms(warm)}")
    if args.idle > 0:
        print(f"resident memory after {args.idle} s idle: {statistics.median(memory) / 1024:.1f} MiB "
              f"(runs: {', '.join(f'{m / 1024:.1f}' for m in memory)})")


if __name__ == "__main__":
    main()
