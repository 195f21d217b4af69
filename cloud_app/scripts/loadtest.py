#!/usr/bin/env python3
"""Measures the relay on this machine: stream fan-out and interrupt intake, in requests per second.

    python3 cloud_app/scripts/loadtest.py [--streams 1,20,100] [--clients 8] [--duration 5]

Starts its own relay on a free port with a temporary database and quiet logging.
Fan-out: N streams are held open while writers post run events that each change
the queue's counts, so every event publishes one snapshot to every stream; it
reports changes per second and snapshots delivered per second over all streams.
Intake: client threads post interrupts as fast as the relay answers with no
stream open; then, with 20 streams watching, each raise is followed by its verdict. The load generator runs on the
same machine as the relay, so the figures are a floor, not a ceiling.
"""

import argparse
import http.client
import json
import os
import shutil
import subprocess
import sys
import tempfile
import threading
import time

RELAY = os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "src", "relay", "server.py")
QUESTION = {"run_id": "load", "run_name": "codex · workspace edits", "kind": "approval", "prompt": "Go on?",
            "options": ["Approve", "Reject"]}


class Relay:
    def __init__(self, folder):
        env = {key: value for key, value in os.environ.items() if not key.startswith("MERE_")}
        env.update({"MERE_RELAY_PORT": "0", "MERE_RELAY_DB_PATH": os.path.join(folder, "relay.db"),
                    "MERE_RELAY_LOCAL_AUTH": "1", "MERE_RELAY_LOG_LEVEL": "WARNING",
                    "PYTHONDONTWRITEBYTECODE": "1"})
        self.process = subprocess.Popen([sys.executable, RELAY], env=env, stdout=subprocess.PIPE,
                                        stderr=subprocess.DEVNULL)
        line = self.process.stdout.readline().decode()
        self.port = int(line.rsplit(":", 1)[1].strip().rstrip("/"))
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

    def stop(self):
        self.process.terminate()
        self.process.wait(10)
        self.process.stdout.close()


class StreamCounter(threading.Thread):
    """Holds one stream open and counts the snapshots it receives."""

    def __init__(self, relay):
        super().__init__(daemon=True)
        self.conn = relay.connect()
        self.conn.request("GET", "/v1/stream", headers={"Authorization": "Bearer " + relay.token})
        # The response takes the socket over; keep it to cut the stream from another thread.
        self.sock = self.conn.sock
        self.response = self.conn.getresponse()
        self.snapshots = 0
        self.last_at = None
        self.first = threading.Event()

    def run(self):
        try:
            while line := self.response.readline():
                if line.startswith(b"data:"):
                    self.snapshots += 1
                    self.last_at = time.monotonic()
                    self.first.set()
        except (OSError, http.client.HTTPException):
            pass

    def close(self):
        try:
            self.sock.shutdown(2)
        except OSError:
            pass
        self.conn.close()


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


def fan_out(relay, streams, clients, duration):
    counters = [StreamCounter(relay) for _ in range(streams)]
    for counter in counters:
        counter.start()
        counter.first.wait(10)

    def change(conn, index, number):
        # Alternating started and finished flips the run's state, so every event is a change.
        kind = "started" if number % 2 == 0 else "finished"
        relay.post(conn, "v1/events", {"run_id": f"fan-{index}", "name": "load", "type": kind})

    started = time.monotonic()
    changes, _ = hammer(relay, clients, duration, change)
    expected = changes + 1
    deadline = time.monotonic() + 30
    while any(counter.snapshots < expected for counter in counters) and time.monotonic() < deadline:
        time.sleep(0.05)
    finished = max(counter.last_at or started for counter in counters)
    delivered = sum(counter.snapshots - 1 for counter in counters)
    for counter in counters:
        counter.close()
    elapsed = finished - started
    complete = all(counter.snapshots >= expected for counter in counters)
    return changes / elapsed, delivered / elapsed, complete


def intake(relay, clients, duration, streams):
    """Interrupts raised per second. With streams open, each raise is followed by its verdict, so the
    queue stays as short as it is in use and every request publishes a snapshot to every stream."""
    counters = [StreamCounter(relay) for _ in range(streams)]
    for counter in counters:
        counter.start()
        counter.first.wait(10)

    def raise_one(conn, index, number):
        raised = relay.post(conn, "v1/interrupts", dict(QUESTION, prompt=f"{index}-{number}"))
        if streams:
            relay.post(conn, f"v1/interrupts/{raised['id']}/verdict", {"verdict": "approve", "source": "load"})

    raised, elapsed = hammer(relay, clients, duration, raise_one)
    for counter in counters:
        counter.close()
    requests = raised * (2 if streams else 1)
    return raised / elapsed, requests / elapsed


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--streams", default="1,20,100", help="stream counts for the fan-out runs")
    parser.add_argument("--clients", type=int, default=8, help="concurrent writer connections")
    parser.add_argument("--duration", type=float, default=5.0, help="seconds per run")
    args = parser.parse_args()
    print(f"machine: {os.cpu_count()} cores; writers: {args.clients} connections; {args.duration:g} s per run")
    for streams in [int(text) for text in args.streams.split(",")]:
        folder = tempfile.mkdtemp(prefix="relay-load-")
        relay = Relay(folder)
        try:
            changes, delivered, complete = fan_out(relay, streams, args.clients, args.duration)
        finally:
            relay.stop()
            shutil.rmtree(folder, ignore_errors=True)
        note = "" if complete else " (some streams fell behind and skipped snapshots)"
        print(f"fan-out  {streams:4d} streams: {changes:8.0f} changes/s, {delivered:9.0f} snapshots delivered/s{note}")
    for streams in (0, 20):
        folder = tempfile.mkdtemp(prefix="relay-load-")
        relay = Relay(folder)
        try:
            rate, requests = intake(relay, args.clients, args.duration, streams)
        finally:
            relay.stop()
            shutil.rmtree(folder, ignore_errors=True)
        if streams:
            print(f"intake   {streams:4d} streams: {rate:8.0f} interrupts raised and decided/s "
                  f"({requests:.0f} requests/s, each a snapshot to every stream)")
        else:
            print(f"intake   {streams:4d} streams: {rate:8.0f} POST v1/interrupts/s")
    return 0


if __name__ == "__main__":
    sys.exit(main())
