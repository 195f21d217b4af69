#!/usr/bin/env python3
"""Measures relays on this machine, side by side in one run: stream fan-out, intake, latency, memory.

    python3 cloud_app/scripts/loadtest.py [--relay NAME=PATH/server.py ...] [--streams 1,20,100]
                                          [--clients 8] [--duration 5] [--samples 300] [--idle 1000]

Each relay named with --relay (default: this tree's) is started on a free loopback
port with a temporary database and quiet logging, and measured in turn:

- fan-out: N streams are held open while writers post run events that each change
  the queue's counts, so every event publishes one snapshot to every stream; changes
  per second and snapshots delivered per second over all streams;
- intake: writers post interrupts as fast as the relay answers, no stream open;
- latency: with 20 streams open, one interrupt at a time is raised and the time from
  sending the POST to the moment all 20 streams hold the snapshot that shows it is
  taken (then it is decided, and the next one waits for that to reach every stream);
  median and 99th percentile;
- idle streams: the relay's resident memory with 1,000 streams open and quiet;
- with the rates, the relay's own processor time per change and per intake POST,
  which other work on the machine hardly changes.

Streams are read by one thread with a selector, so the load generator's own cost
does not grow with the number of streams. Every figure is taken --repeat times, the
relays taking turns, and the best is kept: other work on the machine only ever makes
a figure worse. The generator runs on the same machine as the relay, so the figures
are a floor, not a ceiling.
"""

import argparse
import http.client
import json
import os
import resource
import selectors
import shutil
import socket
import statistics
import subprocess
import sys
import tempfile
import threading
import time

HERE = os.path.dirname(os.path.abspath(__file__))
THIS_RELAY = os.path.normpath(os.path.join(HERE, "..", "src", "relay", "server.py"))
QUESTION = {"run_id": "load", "run_name": "codex · workspace edits", "kind": "approval", "prompt": "Go on?",
            "options": ["Approve", "Reject"]}
SETTLE_SECONDS = 30
LATENCY_STREAMS = 20
STREAM_BATCH = 100


def interpreter():
    """An interpreter that runs the relay as the application would (with aiohttp if it has it)."""
    probe = subprocess.run([sys.executable, "-c", "import aiohttp"], capture_output=True)
    return sys.executable if probe.returncode == 0 or not os.path.exists("/usr/bin/python3") else "/usr/bin/python3"


class Relay:
    def __init__(self, server, python):
        self.folder = tempfile.mkdtemp(prefix="relay-load-")
        env = {key: value for key, value in os.environ.items() if not key.startswith("MERE_")}
        env.update({"MERE_RELAY_PORT": "0", "MERE_RELAY_DB_PATH": os.path.join(self.folder, "relay.db"),
                    "MERE_RELAY_LOCAL_AUTH": "1", "MERE_RELAY_LOG_LEVEL": "WARNING",
                    "PYTHONDONTWRITEBYTECODE": "1", "HOME": self.folder})
        self.process = subprocess.Popen([python, server], env=env, stdout=subprocess.PIPE,
                                        stderr=subprocess.DEVNULL)
        line = self.process.stdout.readline().decode()
        self.port = int(line.rsplit(":", 1)[1].strip().rstrip("/"))
        self.host = f"127.0.0.1:{self.port}"
        self.token = self.post(self.connect(), "v1/auth/local", {}, auth=False)["token"]

    def connect(self):
        return http.client.HTTPConnection("127.0.0.1", self.port, timeout=60)

    def post(self, conn, path, body, auth=True):
        headers = {"Content-Type": "application/json"}
        if auth:
            headers["Authorization"] = "Bearer " + self.token
        conn.request("POST", "/" + path, json.dumps(body), headers)
        response = conn.getresponse()
        data = response.read()
        if response.status != 200:
            raise RuntimeError(f"{path}: {response.status} {data[:200]!r}")
        return json.loads(data)

    def rss_mb(self):
        with open(f"/proc/{self.process.pid}/status") as handle:
            for line in handle:
                if line.startswith("VmRSS:"):
                    return int(line.split()[1]) / 1024
        return 0.0

    def cpu_seconds(self):
        """The relay's processor time so far, user and system; other work on the machine
        hardly changes it, unlike the rates above."""
        with open(f"/proc/{self.process.pid}/stat") as handle:
            fields = handle.read().rsplit(")", 1)[1].split()
        return (int(fields[11]) + int(fields[12])) / os.sysconf("SC_CLK_TCK")

    def stop(self):
        self.process.terminate()
        try:
            self.process.wait(15)
        except subprocess.TimeoutExpired:
            self.process.kill()
            self.process.wait()
        self.process.stdout.close()
        shutil.rmtree(self.folder, ignore_errors=True)


class Streams:
    """Many open v1/stream answers on one selector: counts "data:" lines and finds markers in them."""

    MARK = b"data: "

    def __init__(self, relay):
        self.relay = relay
        self.selector = selectors.DefaultSelector()
        self.socks = []
        self.frames = {}
        self.tails = {}
        self.heads = {}

    def open(self, count):
        request = (f"GET /v1/stream HTTP/1.1\r\nHost: {self.relay.host}\r\n"
                   f"Authorization: Bearer {self.relay.token}\r\n\r\n").encode()
        fresh = []
        for _ in range(count):
            sock = socket.create_connection(("127.0.0.1", self.relay.port), timeout=30)
            sock.sendall(request)
            sock.setblocking(False)
            self.selector.register(sock, selectors.EVENT_READ)
            self.socks.append(sock)
            self.frames[sock] = 0
            self.tails[sock] = b""
            self.heads[sock] = False
            fresh.append(sock)
        self.wait(lambda: all(self.frames[sock] >= 1 for sock in fresh))

    def pump(self, timeout, markers=None, seen=None):
        """Reads what has arrived; counts frames; notes the streams that hold `markers`."""
        for key, _ in self.selector.select(timeout):
            sock = key.fileobj
            try:
                data = sock.recv(1 << 20)
            except (BlockingIOError, InterruptedError):
                continue
            if not data:
                self.selector.unregister(sock)
                continue
            text = self.tails[sock] + data
            if not self.heads[sock] and b"\r\n\r\n" in text:
                self.heads[sock] = True
                text = text.split(b"\r\n\r\n", 1)[1]
            self.frames[sock] += text.count(self.MARK) - self.tails[sock].count(self.MARK)
            if markers is not None and markers in text:
                seen.add(sock)
            self.tails[sock] = text[-64:]

    def wait(self, condition, timeout=SETTLE_SECONDS):
        deadline = time.monotonic() + timeout
        while not condition():
            if time.monotonic() > deadline:
                raise RuntimeError("streams did not catch up")
            self.pump(0.05)

    def total_frames(self):
        return sum(self.frames.values())

    def close(self):
        for sock in self.socks:
            try:
                self.selector.unregister(sock)
            except (KeyError, ValueError):
                pass
            sock.close()
        self.selector.close()


def hammer(relay, clients, duration, make_request):
    """Runs `clients` threads, each on its own keep-alive connection, for `duration` seconds."""
    counts = [0] * clients
    stop_at = time.monotonic() + duration

    def work(index):
        conn = relay.connect()
        number = 0
        while time.monotonic() < stop_at:
            make_request(conn, index, number)
            number += 1
        counts[index] = number
        conn.close()

    threads = [threading.Thread(target=work, args=(index,)) for index in range(clients)]
    started = time.monotonic()
    for thread in threads:
        thread.start()
    for thread in threads:
        thread.join()
    return sum(counts), time.monotonic() - started


def fan_out(relay, count, clients, duration):
    streams = Streams(relay)
    streams.open(count)
    before = dict(streams.frames)
    done = threading.Event()

    def change(conn, index, number):
        # Alternating started and finished flips the run's state, so every event is a change.
        kind = "started" if number % 2 == 0 else "finished"
        relay.post(conn, "v1/events", {"run_id": f"fan-{index}", "name": "load", "type": kind})

    result = {}

    def write():
        result["changes"], _ = hammer(relay, clients, duration, change)
        done.set()

    writer = threading.Thread(target=write)
    started = time.monotonic()
    cpu_before = relay.cpu_seconds()
    writer.start()
    while not done.is_set():
        streams.pump(0.05)
    writer.join()
    expected = result["changes"]
    deadline = time.monotonic() + SETTLE_SECONDS
    while any(streams.frames[sock] - before[sock] < expected for sock in streams.socks):
        if time.monotonic() > deadline:
            break
        streams.pump(0.05)
    last = time.monotonic()
    cpu = relay.cpu_seconds() - cpu_before
    complete = all(streams.frames[sock] - before[sock] >= expected for sock in streams.socks)
    delivered = streams.total_frames() - sum(before.values())
    streams.close()
    elapsed = last - started
    return expected / elapsed, delivered / elapsed, complete, cpu / max(1, expected) * 1e6


def intake(relay, clients, duration):
    def raise_one(conn, index, number):
        relay.post(conn, "v1/interrupts", dict(QUESTION, prompt=f"{index}-{number}"))

    cpu_before = relay.cpu_seconds()
    raised, elapsed = hammer(relay, clients, duration, raise_one)
    return raised / elapsed, (relay.cpu_seconds() - cpu_before) / max(1, raised) * 1e6


def latency(relay, samples):
    """Median and 99th percentile, in milliseconds, from sending an intake POST until all 20
    streams hold the snapshot that shows it."""
    streams = Streams(relay)
    streams.open(LATENCY_STREAMS)
    conn = relay.connect()
    conn.connect()
    conn.sock.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
    times = []
    for number in range(samples):
        marker = f"lat-{number}-{os.getpid()}".encode()
        body = json.dumps(dict(QUESTION, prompt=marker.decode())).encode()
        request = (f"POST /v1/interrupts HTTP/1.1\r\nHost: {relay.host}\r\nAuthorization: Bearer {relay.token}\r\n"
                   f"Content-Type: application/json\r\nContent-Length: {len(body)}\r\n\r\n").encode() + body
        seen = set()
        counts = dict(streams.frames)
        started = time.perf_counter()
        conn.sock.sendall(request)
        deadline = time.monotonic() + SETTLE_SECONDS
        while len(seen) < LATENCY_STREAMS:
            if time.monotonic() > deadline:
                raise RuntimeError("latency sample did not arrive")
            streams.pump(0.05, marker, seen)
        times.append((time.perf_counter() - started) * 1000)
        answer = read_response(conn.sock)
        relay.post(relay_conn(relay), f"v1/interrupts/{answer['id']}/verdict", {"verdict": "approve", "source": "load"})
        streams.wait(lambda: all(streams.frames[sock] >= counts[sock] + 2 for sock in streams.socks))
    streams.close()
    conn.close()
    times.sort()
    return statistics.median(times), times[min(len(times) - 1, int(len(times) * 0.99))]


_verdict_conn = {}


def relay_conn(relay):
    if relay not in _verdict_conn:
        _verdict_conn[relay] = relay.connect()
    return _verdict_conn[relay]


def read_response(sock):
    """The JSON body of one answer on a blocking socket with keep-alive."""
    data = b""
    while b"\r\n\r\n" not in data:
        data += sock.recv(65536)
    head, _, body = data.partition(b"\r\n\r\n")
    length = int([line.split(b":", 1)[1] for line in head.split(b"\r\n")
                  if line.lower().startswith(b"content-length:")][0])
    while len(body) < length:
        body += sock.recv(65536)
    return json.loads(body[:length])


def idle_memory(relay, count):
    before = relay.rss_mb()
    streams = Streams(relay)
    for opened in range(0, count, STREAM_BATCH):
        streams.open(min(STREAM_BATCH, count - opened))
    time.sleep(1.0)
    after = relay.rss_mb()
    held = sum(1 for sock in streams.socks if streams.frames[sock] >= 1)
    streams.close()
    return before, after, held


def run_on_fresh_relay(server, python, measurement):
    relay = Relay(server, python)
    try:
        return measurement(relay)
    finally:
        relay.stop()


def measure_all(relays, python, args):
    """Each figure for each relay, in turn, `args.repeat` times; the best of the repeats is kept,
    since other work on the machine only ever makes a figure worse."""
    results = {name: {} for name, _ in relays}
    figures = [(f"fan-out {count}", (lambda count: lambda relay: fan_out(relay, count, args.clients,
                                                                          args.duration))(count), max)
               for count in args.stream_counts]
    figures += [("intake", lambda relay: intake(relay, args.clients, args.duration), max),
                ("latency", lambda relay: latency(relay, args.samples), min),
                ("idle", lambda relay: idle_memory(relay, args.idle), min)]
    for key, measurement, best in figures:
        for repeat in range(args.repeat):
            for name, server in relays:
                value = run_on_fresh_relay(server, python, measurement)
                print(f"{name}: {key}: {describe(key, value)}", flush=True)
                kept = results[name].get(key)
                results[name][key] = value if kept is None else best(kept, value, key=rank(key))
    return results


def rank(key):
    """What makes one repeat better than another."""
    if key == "latency":
        return lambda value: value[1]
    if key == "idle":
        return lambda value: value[1]
    return lambda value: value[0]


def describe(key, value):
    if key.startswith("fan-out"):
        changes, delivered, complete, cpu = value
        note = "" if complete else " (some streams fell behind and skipped snapshots)"
        return f"{changes:.0f} changes/s, {delivered:.0f} snapshots/s, relay CPU {cpu:.0f} us/change{note}"
    if key == "intake":
        return f"{value[0]:.0f} POST v1/interrupts/s, relay CPU {value[1]:.0f} us/request"
    if key == "latency":
        return f"median {value[0]:.2f} ms, p99 {value[1]:.2f} ms"
    before, after, held = value
    return f"{held} idle streams, {after:.1f} MB resident ({before:.1f} MB before them)"


def table(names, results, args):
    rows = [["", *names]]
    for count in args.stream_counts:
        rows.append([f"fan-out, {count} streams (changes/s)",
                     *[f"{results[name][f'fan-out {count}'][0]:.0f}" for name in names]])
    rows.append(["intake (POST v1/interrupts/s)", *[f"{results[name]['intake'][0]:.0f}" for name in names]])
    for count in args.stream_counts:
        rows.append([f"relay CPU per change, {count} streams (us)",
                     *[f"{results[name][f'fan-out {count}'][3]:.0f}" for name in names]])
    rows.append(["relay CPU per intake POST (us)", *[f"{results[name]['intake'][1]:.0f}" for name in names]])
    rows.append([f"intake to {LATENCY_STREAMS} streams, median (ms)",
                 *[f"{results[name]['latency'][0]:.2f}" for name in names]])
    rows.append([f"intake to {LATENCY_STREAMS} streams, p99 (ms)",
                 *[f"{results[name]['latency'][1]:.2f}" for name in names]])
    rows.append([f"{args.idle} idle streams, relay memory (MB)",
                 *[f"{results[name]['idle'][1]:.1f} ({results[name]['idle'][2]} held)" for name in names]])
    widths = [max(len(row[column]) for row in rows) for column in range(len(rows[0]))]
    lines = ["| " + " | ".join(cell.ljust(width) for cell, width in zip(row, widths)) + " |" for row in rows]
    lines.insert(1, "|" + "|".join("-" * (width + 2) for width in widths) + "|")
    return "\n".join(lines)


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--relay", action="append", default=[], metavar="NAME=PATH",
                        help="a relay to measure, as name=path/to/server.py (repeatable; default: this tree's)")
    parser.add_argument("--streams", default="1,20,100", help="stream counts for the fan-out runs")
    parser.add_argument("--clients", type=int, default=8, help="concurrent writer connections")
    parser.add_argument("--duration", type=float, default=5.0, help="seconds per throughput run")
    parser.add_argument("--samples", type=int, default=300, help="latency samples")
    parser.add_argument("--idle", type=int, default=1000, help="idle streams for the memory figure")
    parser.add_argument("--repeat", type=int, default=3, help="measurements per figure; the best is kept")
    args = parser.parse_args()
    args.stream_counts = [int(text) for text in args.streams.split(",")]
    relays = [entry.split("=", 1) for entry in args.relay] or [["this", THIS_RELAY]]
    soft, hard = resource.getrlimit(resource.RLIMIT_NOFILE)
    resource.setrlimit(resource.RLIMIT_NOFILE, (hard, hard))
    python = interpreter()
    print(f"machine: {os.cpu_count()} cores; load average {os.getloadavg()[0]:.1f}; writers: {args.clients} "
          f"connections; {args.duration:g} s per run, best of {args.repeat}; interpreter {python}", flush=True)
    results = measure_all([(name, os.path.abspath(server)) for name, server in relays], python, args)
    print()
    print(table([name for name, _ in relays], results, args))
    return 0


if __name__ == "__main__":
    sys.exit(main())
