"""Concurrency and abuse: many streams, many agents, racing verdicts, repeated batches, bad requests.

These check correctness under load, not speed; the speed is measured by
cloud_app/scripts/loadtest.py.
"""

import concurrent.futures
import http.client
import json
import os
import random
import shutil
import signal
import socket
import sqlite3
import tempfile
import threading
import unittest

import support  # noqa: F401  (puts the relay on the import path)
from support import RelayTestCase

QUESTION = {"run_id": "load", "run_name": "codex · workspace edits", "kind": "question", "prompt": "Go on?"}


class FanOutTest(RelayTestCase):
    STREAMS = 20
    CHANGES = 10

    def test_twenty_streams_each_see_every_change(self):
        streams = [self.relay.open_stream(self.token) for _ in range(self.STREAMS)]
        try:
            baseline = [len(stream.next_snapshot()["interrupts"]) for stream in streams]
            raised = []
            for _ in range(self.CHANGES):
                raised.append(self.call("POST", "v1/interrupts", QUESTION)[1]["id"])
            for stream, start in zip(streams, baseline):
                for number in range(1, self.CHANGES + 1):
                    ids = [item["id"] for item in stream.next_snapshot()["interrupts"]]
                    self.assertEqual(len(ids), start + number)
                    self.assertEqual(ids[-1], raised[number - 1])
        finally:
            for stream in streams:
                stream.close()


class ConcurrentIntakeTest(RelayTestCase):
    AGENTS = 200

    def test_two_hundred_interrupts_raised_at_once_none_lost(self):
        def raise_one(number):
            status, answer, _ = self.relay.request("POST", "v1/interrupts", dict(QUESTION, prompt=f"#{number}"),
                                                   token=self.token)
            return status, answer["id"], answer["interrupt"]["prompt"]

        with concurrent.futures.ThreadPoolExecutor(max_workers=50) as pool:
            results = list(pool.map(raise_one, range(self.AGENTS)))
        self.assertEqual({status for status, _, _ in results}, {200})
        ids = {interrupt_id for _, interrupt_id, _ in results}
        self.assertEqual(len(ids), self.AGENTS)
        stream = self.relay.open_stream(self.token)
        try:
            snapshot = stream.next_snapshot()
        finally:
            stream.close()
        self.assertEqual({item["id"] for item in snapshot["interrupts"]}, ids)
        self.assertEqual({item["prompt"] for item in snapshot["interrupts"]}, {f"#{n}" for n in range(self.AGENTS)})


class VerdictRaceTest(RelayTestCase):
    ROUNDS = 25

    def test_two_racing_verdicts_give_one_200_and_one_409(self):
        for _ in range(self.ROUNDS):
            interrupt_id = self.call("POST", "v1/interrupts", QUESTION)[1]["id"]
            barrier = threading.Barrier(2)

            def decide(verdict):
                barrier.wait()
                return self.relay.request("POST", f"v1/interrupts/{interrupt_id}/verdict",
                                          {"verdict": verdict, "source": "desktop"}, token=self.token)

            with concurrent.futures.ThreadPoolExecutor(max_workers=2) as pool:
                answers = list(pool.map(decide, ["approve", "reject"]))
            self.assertEqual(sorted(status for status, _, _ in answers), [200, 409])
            winner = [answer for status, answer, _ in answers if status == 200][0]
            stored = self.call("GET", f"v1/interrupts/{interrupt_id}")[1]
            self.assertEqual(stored["verdict"]["verdict"], winner["verdict"]["verdict"])


class RepeatedBatchTest(RelayTestCase):
    def test_the_same_batch_sent_concurrently_is_stored_once(self):
        session = self.call("POST", "v1/terminal/sessions", {"source": "desktop"})[1]["id"]
        batch = {"chunks": [{"seq": n, "stream": "output", "data": f"line {n}\r\n", "ts": "2026-01-31T09:30:00Z"}
                            for n in range(1, 51)]}
        with concurrent.futures.ThreadPoolExecutor(max_workers=10) as pool:
            statuses = list(pool.map(
                lambda _: self.call("POST", f"v1/terminal/sessions/{session}/events", batch)[0], range(10)))
        self.assertEqual(statuses, [200] * 10)
        chunks = self.call("GET", f"v1/terminal/sessions/{session}")[1]["chunks"]
        self.assertEqual([chunk["seq"] for chunk in chunks], list(range(1, 51)))


class KillTest(unittest.TestCase):
    """kill -9 in the middle of chunk writes: every chunk that was acknowledged is there after a
    restart, none twice, and sending the lost ones again stores each once."""

    WRITERS = 4
    CHUNK_TEXT = "x" * 8000

    def setUp(self):
        self.folder = tempfile.mkdtemp(prefix="relay-kill-")
        self.relay = support.Relay(self.folder).start()

    def tearDown(self):
        self.relay.stop()
        shutil.rmtree(self.folder, ignore_errors=True)

    def chunk(self, seq):
        return {"seq": seq, "stream": "output", "data": f"{seq}:{self.CHUNK_TEXT}", "ts": "2026-01-31T09:30:00Z"}

    def test_nothing_acknowledged_is_lost_or_stored_twice(self):
        token = self.relay.local_token()
        session = self.relay.request("POST", "v1/terminal/sessions", {"source": "desktop"}, token=token)[1]["id"]
        acknowledged, attempted, lock = set(), set(), threading.Lock()

        def write(writer):
            for number in range(1, 100000):
                seq = writer * 100000 + number
                with lock:
                    attempted.add(seq)
                try:
                    status, _, _ = self.relay.request("POST", f"v1/terminal/sessions/{session}/events",
                                                      {"chunks": [self.chunk(seq)]}, token=token, timeout=5)
                except (OSError, http.client.HTTPException):
                    return
                if status == 200:
                    with lock:
                        acknowledged.add(seq)

        threads = [threading.Thread(target=write, args=(writer,)) for writer in range(1, self.WRITERS + 1)]
        for thread in threads:
            thread.start()
        support.wait_for(lambda: len(acknowledged) >= 40, timeout=20)
        os.kill(self.relay.process.pid, signal.SIGKILL)
        for thread in threads:
            thread.join(10)
        self.relay.process.wait(10)
        self.relay.process.stdout.close()
        self.relay.process = None
        self.relay.start()

        chunks = self.relay.request("GET", f"v1/terminal/sessions/{session}", token=token)[1]["chunks"]
        stored = [chunk["seq"] for chunk in chunks]
        self.assertEqual(len(stored), len(set(stored)))
        self.assertLessEqual(acknowledged, set(stored))
        self.assertLessEqual(set(stored), attempted)
        for chunk in chunks:
            self.assertEqual(chunk, self.chunk(chunk["seq"]))
        # The client sends again what it did not hear acknowledged, and what it did, once more.
        again = sorted(attempted)
        status, answer, _ = self.relay.request("POST", f"v1/terminal/sessions/{session}/events",
                                               {"chunks": [self.chunk(seq) for seq in again]}, token=token)
        self.assertEqual((status, answer), (200, {"accepted": len(again), "stored": len(again) - len(stored)}))
        chunks = self.relay.request("GET", f"v1/terminal/sessions/{session}", token=token)[1]["chunks"]
        self.assertEqual([chunk["seq"] for chunk in chunks], again)
        with sqlite3.connect(self.relay.db_path) as conn:
            self.assertEqual(conn.execute("PRAGMA integrity_check").fetchone()[0], "ok")


def bad_requests(token, rng):
    """A thousand requests that must each be refused with a 4xx and change nothing."""
    paths = ["v1/interrupts", "v1/events", "v1/router/health", "v1/terminal/sessions", "v1/projects",
             "v1/auth/verify-code", "v1/auth/mfa/verify", "v1/interrupts/x/verdict"]
    garbage = [b"{", b"}", b"[", b"nul", b"{'a': 1}", b"\xff\xfe\x00", b"{\"a\": NaN}", b"[" * 5000,
               b"{\"a\": 1e400}", b"{\"kind\": " + b"9" * 5000 + b"}", b"\x00" * 100, b"{\"a\":\"\\ud800\"",
               b"true", b"\"text\"", b"{\"run_id\": {\"$gt\": 1}}"]
    wrong_types = [{"run_id": 1, "run_name": "n", "kind": "question", "prompt": "p"},
                   {"run_id": "r", "name": "n", "type": "started", "tokens": 2**70},
                   {"run_id": "r", "name": "n", "type": "started", "tokens": -(2**70)},
                   {"run_id": "r", "name": "n", "type": "started", "cost_usd": 1e308},
                   {"provider": "p", "success": "yes", "latency_ms": 1},
                   {"provider": "p", "success": True, "latency_ms": 10**40},
                   {"source": ["desktop"]}, {"name": None, "root_path": 7},
                   {"chunks": [{"seq": 2**63, "stream": "output", "data": "x", "ts": "t"}]},
                   {"email": "a@b.c", "code": ["123456"]}, {"mfa_ticket": 1, "code": "1"},
                   {"verdict": "approve", "decided_at": "9999-99-99T99:99:99Z"},
                   {"run_id": "r", "run_name": "n", "kind": "question", "prompt": "p",
                    "expires_at": "0001-01-01T00:00:00+01:00"},
                   {"run_id": "r", "run_name": "n", "kind": "question", "prompt": "p",
                    "expires_at": "9999-12-31T23:59:59-05:00"}]
    requests = []
    for number in range(1000):
        choice = number % 6
        if choice == 0:
            requests.append(("POST", rng.choice(paths), rng.choice(garbage), token))
        elif choice == 1:
            requests.append(("POST", rng.choice(paths), json.dumps(rng.choice(wrong_types)).encode(), token))
        elif choice == 2:
            requests.append(("GET", f"v1/{rng.choice(['nope', 'stream/x', 'me/', 'interrupts'])}{number}", None, token))
        elif choice == 3:
            requests.append((rng.choice(["PUT", "PATCH", "DELETE"]), rng.choice(paths), b"{}", token))
        elif choice == 4:
            requests.append(("POST", "v1/interrupts", json.dumps(QUESTION).encode(), rng.choice([None, "bad-token"])))
        else:
            requests.append(("RAW", None, rng.choice(RAW_GARBAGE), None))
    return requests


RAW_GARBAGE = [b"GARBAGE\r\n\r\n", b"GET /v1/health HTTP/9.9\r\n\r\n", b"\x16\x03\x01\x02\x00\x01\x00\x01\xfc\x03\x03",
               b"POST /v1/events HTTP/1.1\r\nContent-Length: 99999999999\r\n\r\n",
               b"POST /v1/events HTTP/1.1\r\nContent-Length: 10\r\n\r\n{",
               b"GET /" + b"a" * 70000 + b" HTTP/1.1\r\n\r\n",
               b"GET /v1/health HTTP/1.1\r\n" + b"X: y\r\n" * 200 + b"\r\n"]


class AbuseTest(RelayTestCase):
    def send(self, item):
        method, path, body, token = item
        if method == "RAW":
            return self.send_raw(body)
        conn = self.relay.connection(timeout=30)
        try:
            headers = {"Content-Type": "application/json"}
            if token:
                headers["Authorization"] = "Bearer " + token
            conn.request(method, "/" + path, body=body, headers=headers)
            response = conn.getresponse()
            answer = json.loads(response.read())
            assert set(answer) == {"error", "request_id"}, answer
            return response.status
        finally:
            conn.close()

    def send_raw(self, data):
        with socket.create_connection(("127.0.0.1", self.relay.port), timeout=30) as sock:
            try:
                sock.sendall(data)
                sock.shutdown(socket.SHUT_WR)
                reply = b""
                while chunk := sock.recv(65536):
                    reply += chunk
            except (ConnectionResetError, BrokenPipeError):
                return 400
        if not reply:
            return 400
        return int(reply.split(b" ", 2)[1])

    def test_a_thousand_bad_requests_leave_the_server_answering_and_the_data_intact(self):
        kept = self.call("POST", "v1/interrupts", QUESTION)[1]["id"]
        requests = bad_requests(self.token, random.Random(20260131))
        with concurrent.futures.ThreadPoolExecutor(max_workers=8) as pool:
            statuses = list(pool.map(self.send, requests))
        self.assertEqual(len(statuses), 1000)
        # Every one is refused as the client's fault; 505 is the answer to an unknown HTTP version.
        self.assertTrue(all(400 <= status < 500 or status == 505 for status in statuses), sorted(set(statuses)))
        self.assertGreaterEqual(statuses.count(400), 300)
        self.assertEqual(self.call("GET", "v1/health", token=None)[0], 200)
        stream = self.relay.open_stream(self.token)
        try:
            self.assertEqual([item["id"] for item in stream.next_snapshot()["interrupts"]], [kept])
        finally:
            stream.close()
        self.assertNotIn("unexpected failure", self.relay.log())
        with sqlite3.connect(self.relay.db_path) as conn:
            self.assertEqual(conn.execute("PRAGMA integrity_check").fetchone()[0], "ok")
            self.assertEqual(conn.execute("SELECT count(*) FROM interrupts").fetchone()[0], 1)
            self.assertEqual(conn.execute("SELECT count(*) FROM run_events").fetchone()[0], 0)


if __name__ == "__main__":
    unittest.main()
