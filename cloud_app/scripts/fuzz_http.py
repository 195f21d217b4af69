#!/usr/bin/env python3
"""Fuzzes the relay's HTTP layer with random mutations of valid requests, on loopback, for a set time.

    python3 cloud_app/scripts/fuzz_http.py [--duration 600] [--workers 4] [--seed N]

Starts its own relay on a free loopback port with a temporary database, signs in
locally, creates one record of each kind, and from then on sends requests built
from valid ones for every path with their request line, headers, lengths, chunked
framing, JSON bodies and raw bytes mutated. Every answer must be 2xx, 4xx or 505
(an HTTP version the relay does not speak); any other 5xx is a finding. Meanwhile
"v1/health" is asked four times a second and must answer 200 within 3 seconds
every time. At the end the database must pass its integrity check and the relay's
log must hold no traceback. Exits 0 when nothing was found. Nothing it writes holds
a token: findings are printed with the token replaced.
"""

import argparse
import collections
import json
import os
import random
import shutil
import socket
import sqlite3
import subprocess
import sys
import tempfile
import threading
import time

HERE = os.path.dirname(os.path.abspath(__file__))
RELAY = os.path.join(HERE, "..", "src", "relay", "server.py")
# One answer must arrive within this long; the relay holds bodies it still waits for longer.
ANSWER_SECONDS = 2.0
HEALTH_INTERVAL_SECONDS = 0.25
HEALTH_TIMEOUT_SECONDS = 3.0
# Findings kept for the report, at most.
KEPT_FINDINGS = 20
KEPT_TRACEBACKS = 3

INTERRUPT = {"run_id": "fuzz", "run_name": "codex · fuzz", "kind": "approval", "prompt": "Allow?",
             "options": ["Approve", "Reject"], "detail": "{}", "expires_at": "2099-01-01T00:00:00Z"}


def valid_requests(ids):
    """(method, path, body) for every path but sign-out, with the records' ids filled in."""
    chunk = {"seq": 1, "stream": "output", "data": "fuzz\r\n", "ts": "2026-01-31T09:30:00Z"}
    interrupt, session, project, item = ids["interrupt"], ids["session"], ids["project"], ids["item"]
    return [
        ("GET", "v1/health", None),
        ("POST", "v1/auth/local", {}),
        ("POST", "v1/auth/request-code", {"email": "fuzz@example.com"}),
        ("POST", "v1/auth/verify-code", {"email": "fuzz@example.com", "code": "123456"}),
        ("POST", "v1/auth/mfa/verify", {"mfa_ticket": "ticket", "code": "123456"}),
        ("GET", "v1/me", None),
        ("GET", "v1/stream", None),
        ("POST", "v1/interrupts", INTERRUPT),
        ("GET", f"v1/interrupts/{interrupt}?wait=0.1", None),
        ("POST", f"v1/interrupts/{interrupt}/verdict", {"verdict": "reply", "reply": "x", "source": "fuzz"}),
        ("POST", "v1/events", {"run_id": "fuzz", "name": "n", "type": "started", "tokens": 1, "cost_usd": 0.1,
                               "detail": "d"}),
        ("POST", "v1/router/health", {"provider": "p", "success": True, "latency_ms": 3}),
        ("POST", "v1/terminal/sessions", {"source": "fuzz"}),
        ("GET", "v1/terminal/sessions?limit=5", None),
        ("GET", f"v1/terminal/sessions/{session}", None),
        ("POST", f"v1/terminal/sessions/{session}/events", {"chunks": [chunk, dict(chunk, seq=2, stream="input")]}),
        ("POST", f"v1/terminal/sessions/{session}/end", None),
        ("GET", "v1/cli/status", None),
        ("GET", "v1/projects", None),
        ("POST", "v1/projects", {"name": "fuzz", "root_path": "/work/fuzz"}),
        ("GET", f"v1/projects/{project}/context", None),
        ("POST", f"v1/projects/{project}/context", {"title": "t", "content": "c", "source": "file:A.md"}),
        ("DELETE", f"v1/projects/{project}/context/{item}", None),
        ("POST", f"v1/projects/{project}/context/pack", {"query": "t", "character_budget": 100}),
    ]


# Values a JSON field may be replaced with: wrong types, limits, and text no field may hold.
ODD_VALUES = [None, True, False, 0, -1, 1.5, 2**63, -(2**63) - 1, 10**40, 1e308, "", " ", "x" * 5000,
              "\u00b2", "\u0663", "\ufffd", "\x00", "\U0001F600", [], [1, "a"], {}, {"$gt": 1},
              "2026-01-31T09:30:00Z", "9999-12-31T23:59:59Z", "0001-01-01T00:00:00+01:00", "/", "file:x"]
# Escapes spliced into a JSON text: lone surrogates, a surrogate pair, a NUL.
ODD_ESCAPES = ["\\ud800", "\\udfff", "\\ud83d", "\\ude00x", "\\ud83d\\ude00", "\\u0000", "\\uZZZZ"]
ODD_LENGTHS = ["\u00b2", "\u0661\u0662", "-1", "+5", " 5", "0x10", "1e3", "99999999999999999999", "5, 5", ""]
ODD_CHUNK_SIZES = [b"-1", b"-2", b"ffffffffffffffffffff", b"0x5", b"\xc2\xb2", b" 5", b"5;ext=1", b"", b"g"]
ODD_QUERIES = ["limit=\u00b2", "limit=%C2%B2", "limit=-1", "limit=0", "limit=99999999", "wait=%D9%A3", "wait=1e9",
               "wait=nan", "wait=inf", "wait=0.5&wait=1", "x=%ff", "x=%ed%a0%80", "&&&=", "a=" + "b" * 9000]
ODD_PATH_PARTS = ["%00", "%ff", "%ed%a0%80", "..", ".", "", "%2F", "\u00e9", "x" * 3000, "%", "%zz", "int_"]
# Whole request targets other than a path: absolute, with broken hosts, or none at all.
ODD_TARGETS = ["http://127.0.0.1/PATH", "http://\udcff\udcfe/PATH", "http://[::1/PATH", "http://a b/PATH",
               "https://evil.example:99999/PATH", "//PATH", "*", "PATH", "http://%zz/PATH", "http://[v1.x]/PATH"]
METHODS = ["GET", "POST", "PUT", "PATCH", "DELETE", "HEAD", "OPTIONS", "TRACE", "CONNECT", "get", "PRI", "G\x00T",
           "X" * 100]
VERSIONS = ["HTTP/1.1", "HTTP/1.0", "HTTP/2.0", "HTTP/9.9", "HTTP/1.1 x", "HTTP/1", "", "http/1.1", "HTTP/1.01"]


class Mutator:
    def __init__(self, rng, port, token):
        self.rng = rng
        self.host = f"127.0.0.1:{port}"
        self.token = token

    def build(self, method, path, body):
        """One raw request made from a valid one, and what was changed."""
        rng = self.rng
        notes = []
        data = b"" if body is None else json.dumps(body).encode()
        if body is not None and rng.random() < 0.5:
            data, note = self.mutate_body(body, data)
            notes.append(note)
        headers = [("Host", self.host), ("Content-Type", "application/json"),
                   ("Authorization", "Bearer " + self.token)]
        if method in ("POST", "PUT", "PATCH", "DELETE"):
            headers.append(("Content-Length", str(len(data))))
        framing = None
        if rng.random() < 0.5:
            method, path, headers, framing, note = self.mutate_head(method, path, headers, data)
            notes.append(note)
        version = "HTTP/1.1"
        if rng.random() < 0.05:
            version = rng.choice(VERSIONS)
            notes.append("version " + repr(version))
        target = "/" + path
        if rng.random() < 0.03:
            target = rng.choice(ODD_TARGETS).replace("PATH", path)
            notes.append(f"target {target[:40]!r}")
        raw = f"{method} {target} {version}\r\n".encode("utf-8", "surrogateescape")
        raw += b"".join(f"{name}: {value}\r\n".encode("utf-8", "surrogateescape") for name, value in headers)
        raw += b"\r\n" + (framing if framing is not None else data)
        if rng.random() < 0.1:
            raw, note = self.mutate_bytes(raw)
            notes.append(note)
        if rng.random() < 0.05:
            raw += raw
            notes.append("sent twice on one connection")
        return raw, "; ".join(notes) or "unchanged"

    def mutate_body(self, body, data):
        rng = self.rng
        choice = rng.randrange(8)
        if choice == 0 and isinstance(body, dict) and body:
            key = rng.choice(list(body))
            value = rng.choice(ODD_VALUES)
            return json.dumps(dict(body, **{key: value})).encode(), f"{key} = {value!r:.40}"
        if choice == 1 and data:
            text = data.decode()
            cut = rng.randrange(len(text))
            escape = rng.choice(ODD_ESCAPES)
            quote = text.find('"', cut)
            if quote > 0:
                return (text[:quote] + escape + text[quote:]).encode(), f"escape {escape} in a string"
        if choice == 2:
            return data[:rng.randrange(len(data) + 1)], "body cut short"
        if choice == 3:
            depth = rng.choice([50, 1000, 100000])
            return b"[" * depth + b"]" * depth, f"nesting {depth}"
        if choice == 4:
            return bytes(rng.randrange(256) for _ in range(rng.randrange(1, 64))), "random bytes"
        if choice == 5 and isinstance(body, dict):
            key = rng.choice(list(body) or ["x"])
            return json.dumps({key: body.get(key), "extra": rng.choice(ODD_VALUES)}).encode(), "fields dropped"
        if choice == 6:
            return b"\xef\xbb\xbf" + data, "byte order mark"
        return rng.choice([b"NaN", b"1e999", b"{\"a\":1,\"a\":2}", b"\"\\ud800\"", b"null", b"[]",
                           b"{\"chunks\": [{\"seq\": 1e400}]}"]), "odd JSON"

    def mutate_head(self, method, path, headers, data):
        rng = self.rng
        choice = rng.randrange(12)
        framing = None
        if choice == 0:
            method = rng.choice(METHODS)
            note = f"method {method!r:.20}"
        elif choice == 1:
            parts = path.split("?")[0].split("/")
            parts[rng.randrange(len(parts))] = rng.choice(ODD_PATH_PARTS)
            path = "/".join(parts)
            note = "path part " + path[:40]
        elif choice == 2:
            path = path.split("?")[0] + "?" + rng.choice(ODD_QUERIES)
            note = "query " + path.split("?")[1][:40]
        elif choice == 3:
            value = rng.choice(ODD_LENGTHS + [str(len(data) + rng.randint(-5, 5))])
            headers = [(n, v) for n, v in headers if n != "Content-Length"] + [("Content-Length", value)]
            note = f"Content-Length {value!r}"
        elif choice == 4:
            headers = [(n, v) for n, v in headers if n != "Content-Length"]
            headers.append(("Transfer-Encoding", rng.choice(["chunked", "chunked", "gzip, chunked", "identity",
                                                              "chunked, gzip"])))
            size = rng.choice(ODD_CHUNK_SIZES + [f"{len(data):x}".encode()])
            framing = size + b"\r\n" + data + b"\r\n" + rng.choice([b"0\r\n\r\n", b"", b"0\r\nX: y\r\n\r\n"])
            note = f"chunked, size {size!r}"
        elif choice == 5:
            value = rng.choice([None, "evil.example", f"evil.example:{self.host.split(':')[1]}", "127.0.0.1",
                                "localhost:" + self.host.split(":")[1], "[::1]:1", self.host + "/x", "\u00e9:1"])
            headers = [(n, v) for n, v in headers if n != "Host"] + ([("Host", value)] if value else [])
            if rng.random() < 0.2:
                headers.append(("Host", self.host))
            note = f"Host {value!r}"
        elif choice == 6:
            value = rng.choice(["http://evil.example", "null", f"http://{self.host}", "file://", "http://\u00e9"])
            headers.append(("Origin", value))
            note = f"Origin {value!r}"
        elif choice == 7:
            value = rng.choice([None, "text/plain", "application/x-www-form-urlencoded", "application/json; charset=latin-1",
                                "application/json;;", "multipart/form-data"])
            headers = [(n, v) for n, v in headers if n != "Content-Type"] + ([("Content-Type", value)] if value else [])
            note = f"Content-Type {value!r}"
        elif choice == 8:
            value = rng.choice([None, "Bearer", "Bearer ", "Basic abc", "Bearer \u00e9\u00e9", "Bearer " + "x" * 9000,
                                "bearer " + self.token, "Bearer " + self.token + "x"])
            headers = [(n, v) for n, v in headers if n != "Authorization"] + (
                [("Authorization", value)] if value else [])
            note = "Authorization changed"
        elif choice == 9:
            headers.append(rng.choice([("Expect", "100-continue"), ("Expect", "nonsense"), ("Connection", "close"),
                                       ("Connection", "Upgrade"), ("Upgrade", "h2c"), ("Content-Encoding", "gzip"),
                                       ("X-" + "y" * 9000, "z"), ("X", "a\x01b"), ("Sec-Fetch-Site", "cross-site")]))
            note = f"header {headers[-1][0][:20]}"
        elif choice == 10:
            headers = headers + [("X-Filler", str(number)) for number in range(rng.choice([50, 99, 150]))]
            note = "many headers"
        else:
            rng.shuffle(headers)
            note = "headers reordered"
        return method, path, headers, framing, note

    def mutate_bytes(self, raw):
        rng = self.rng
        data = bytearray(raw)
        for _ in range(rng.randint(1, 4)):
            position = rng.randrange(len(data))
            action = rng.randrange(3)
            if action == 0:
                data[position] = rng.randrange(256)
            elif action == 1:
                data.insert(position, rng.choice(b"\r\n\x00: \xff0"))
            elif len(data) > 1:
                del data[position]
        return bytes(data), "bytes changed"


def read_status(sock):
    """The status of the first answer, or None when the relay closed or stayed quiet."""
    head = b""
    try:
        while b"\r\n" not in head:
            chunk = sock.recv(4096)
            if not chunk:
                return None
            head += chunk
    except (socket.timeout, ConnectionResetError):
        return None
    parts = head.split(b" ", 2)
    return int(parts[1]) if len(parts) > 1 and parts[1].isdigit() else -1


class Stats:
    def __init__(self):
        self.lock = threading.Lock()
        self.statuses = collections.Counter()
        self.findings = []
        self.health_checks = 0
        self.health_failures = 0
        self.health_slowest = 0.0

    def record(self, status, note, method, path):
        with self.lock:
            self.statuses[status] += 1
            if is_finding(status) and len(self.findings) < KEPT_FINDINGS:
                self.findings.append((status, method, path, note))

    @property
    def total(self):
        return sum(self.statuses.values())

    @property
    def server_errors(self):
        return sum(count for status, count in self.statuses.items() if is_finding(status))


def is_finding(status):
    return status is not None and status >= 500 and status != 505


def prepare(port, token):
    """Creates the records the valid requests name; returns their ids."""
    def post(path, body):
        return call(port, "POST", path, body, token)

    interrupt = post("v1/interrupts", INTERRUPT)["id"]
    session = post("v1/terminal/sessions", {"source": "fuzz"})["id"]
    project = post("v1/projects", {"name": "fuzz", "root_path": "/work/fuzz"})["id"]
    item = post(f"v1/projects/{project}/context", {"title": "t", "content": "c"})["id"]
    return {"interrupt": interrupt, "session": session, "project": project, "item": item}


def call(port, method, path, body=None, token=None):
    import http.client
    conn = http.client.HTTPConnection("127.0.0.1", port, timeout=10)
    headers = {"Content-Type": "application/json"}
    if token:
        headers["Authorization"] = "Bearer " + token
    conn.request(method, "/" + path, None if body is None else json.dumps(body), headers)
    response = conn.getresponse()
    answer = json.loads(response.read() or b"null")
    conn.close()
    if response.status != 200:
        raise RuntimeError(f"{method} {path}: {response.status} {answer}")
    return answer


def watch_health(port, stats, stop):
    import http.client
    while not stop.wait(HEALTH_INTERVAL_SECONDS):
        started = time.monotonic()
        ok = False
        try:
            conn = http.client.HTTPConnection("127.0.0.1", port, timeout=HEALTH_TIMEOUT_SECONDS)
            conn.request("GET", "/v1/health")
            ok = conn.getresponse().status == 200
            conn.close()
        except (OSError, http.client.HTTPException):
            ok = False
        elapsed = time.monotonic() - started
        with stats.lock:
            stats.health_checks += 1
            stats.health_failures += 0 if ok else 1
            stats.health_slowest = max(stats.health_slowest, elapsed)


def fuzz(port, token, duration, workers=4, seed=None):
    """Sends mutated requests from `workers` threads for `duration` seconds; returns the Stats."""
    seed = random.randrange(2**32) if seed is None else seed
    requests = valid_requests(prepare(port, token))
    stats = Stats()
    stop = threading.Event()
    deadline = time.monotonic() + duration

    def work(number):
        rng = random.Random(seed * 1000 + number)
        mutator = Mutator(rng, port, token)
        while time.monotonic() < deadline:
            method, path, body = rng.choice(requests)
            raw, note = mutator.build(method, path, body)
            try:
                with socket.create_connection(("127.0.0.1", port), timeout=ANSWER_SECONDS) as sock:
                    sock.sendall(raw)
                    status = read_status(sock)
            except (ConnectionResetError, BrokenPipeError, socket.timeout):
                status = None
            stats.record(status, note.replace(token, "<token>"), method, path)

    health = threading.Thread(target=watch_health, args=(port, stats, stop), daemon=True)
    health.start()
    threads = [threading.Thread(target=work, args=(number,)) for number in range(workers)]
    for thread in threads:
        thread.start()
    for thread in threads:
        thread.join()
    stop.set()
    health.join()
    stats.seed = seed
    return stats


class Relay:
    def __init__(self, server):
        self.folder = tempfile.mkdtemp(prefix="relay-fuzz-")
        self.db_path = os.path.join(self.folder, "relay.db")
        self.log_path = os.path.join(self.folder, "relay.log")
        env = {key: value for key, value in os.environ.items() if not key.startswith("MERE_")}
        env.update({"MERE_RELAY_PORT": "0", "MERE_RELAY_DB_PATH": self.db_path, "MERE_RELAY_LOCAL_AUTH": "1",
                    "MERE_RELAY_LOG_LEVEL": "WARNING", "PYTHONDONTWRITEBYTECODE": "1", "HOME": self.folder})
        with open(self.log_path, "ab") as log:
            self.process = subprocess.Popen([sys.executable, server], env=env, stdout=subprocess.PIPE, stderr=log)
        line = self.process.stdout.readline().decode()
        self.port = int(line.rsplit(":", 1)[1].strip().rstrip("/"))

    def stop(self):
        self.process.terminate()
        self.process.wait(15)
        self.process.stdout.close()

    def log(self):
        with open(self.log_path, encoding="utf-8", errors="replace") as handle:
            return handle.read()

    def integrity(self):
        with sqlite3.connect(self.db_path) as conn:
            return conn.execute("PRAGMA integrity_check").fetchone()[0]


def report(stats, elapsed, log_text=None, integrity=None, token=None):
    lines = [f"seed {stats.seed}; {stats.total} requests in {elapsed:.0f} s ({stats.total / elapsed:.0f}/s)",
             "answers: " + ", ".join(f"{status if status is not None else 'none'}: {count}"
                                     for status, count in sorted(stats.statuses.items(),
                                                                 key=lambda item: (item[0] is None, item[0] or 0))),
             f"server errors (5xx but 505): {stats.server_errors}",
             f"health: {stats.health_checks} checks, {stats.health_failures} failed, "
             f"slowest {stats.health_slowest * 1000:.0f} ms"]
    if log_text is not None:
        lines.append(f"log: {log_text.count('Traceback')} tracebacks, "
                     f"{log_text.count('unexpected failure')} unexpected failures")
        # The relay logs no body or header and a traceback names no exception's message.
        for block in log_text.split("Traceback (most recent call last):")[1:KEPT_TRACEBACKS + 1]:
            lines.append("  traceback:" + block.rstrip()[-1500:].replace("\n", "\n    "))
    if integrity is not None:
        lines.append(f"database integrity: {integrity}")
    for status, method, path, note in stats.findings:
        lines.append(f"  finding: {status} for {method} {path} ({note})")
    text = "\n".join(lines)
    # The relay never logs a token, but should a bug make it, the report still does not repeat it.
    return text.replace(token, "<token>") if token else text


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--duration", type=float, default=600.0, help="seconds to fuzz (default 600)")
    parser.add_argument("--workers", type=int, default=4, help="concurrent senders (default 4)")
    parser.add_argument("--seed", type=int, help="random seed, printed so that a run can be repeated")
    parser.add_argument("--relay", default=RELAY, help="the relay's server.py")
    args = parser.parse_args()
    relay = Relay(os.path.abspath(args.relay))
    try:
        token = call(relay.port, "POST", "v1/auth/local", {})["token"]
        started = time.monotonic()
        stats = fuzz(relay.port, token, args.duration, args.workers, args.seed)
        elapsed = time.monotonic() - started
    finally:
        relay.stop()
    log_text = relay.log()
    integrity = relay.integrity()
    print(report(stats, elapsed, log_text, integrity, token))
    shutil.rmtree(relay.folder, ignore_errors=True)
    clean = (stats.server_errors == 0 and stats.health_failures == 0 and "Traceback" not in log_text
             and integrity == "ok")
    return 0 if clean else 1


if __name__ == "__main__":
    sys.exit(main())
