"""Connections: the cap and the open-file limit, floods of half-open connections, handler bugs,
and stopping with streams and waits open."""

import http.client
import resource
import shutil
import signal
import socket
import tempfile
import time
import unittest

import support
from support import RelayTestCase

# The open-file limit the flood test gives the relay: low enough that a few hundred
# connections would use it up.
LOW_FILE_LIMIT = 128
FLOOD = 300


def lower_file_limit():
    resource.setrlimit(resource.RLIMIT_NOFILE, (LOW_FILE_LIMIT, LOW_FILE_LIMIT))


def health(relay, timeout=3):
    conn = http.client.HTTPConnection("127.0.0.1", relay.port, timeout=timeout)
    try:
        conn.request("GET", "/v1/health")
        return conn.getresponse().status
    except (OSError, http.client.HTTPException):
        return None
    finally:
        conn.close()


class FloodTest(unittest.TestCase):
    def setUp(self):
        self.folder = tempfile.mkdtemp(prefix="relay-flood-")
        self.relay = support.Relay(self.folder)
        self.relay.preexec = lower_file_limit
        self.relay.start()
        self.sockets = []

    def tearDown(self):
        for sock in self.sockets:
            sock.close()
        self.relay.stop()
        shutil.rmtree(self.folder, ignore_errors=True)

    def half_open(self, count, data):
        for _ in range(count):
            sock = socket.create_connection(("127.0.0.1", self.relay.port), timeout=5)
            if data:
                sock.sendall(data)
            self.sockets.append(sock)

    def test_health_answers_under_a_flood_of_half_open_connections(self):
        support.wait_for(lambda: "at most 64 connections" in self.relay.log())
        partial = b"GET /v1/health HTTP/1.1\r\nHost: 127.0.0.1:" + str(self.relay.port).encode() + b"\r\n"
        self.half_open(FLOOD, partial)
        answered = []
        for _ in range(10):
            answered.append(health(self.relay))
            # The flood goes on between the checks.
            self.half_open(20, b"")
        self.assertEqual(answered, [200] * 10)
        log = self.relay.log()
        self.assertNotIn("Traceback", log)
        self.assertNotIn("out of file descriptors", log)


class CapTest(RelayTestCase):
    relay_env = {"MERE_RELAY_MAX_CONNECTIONS": "4"}

    def test_at_the_cap_the_longest_idle_connection_makes_room(self):
        first = socket.create_connection(("127.0.0.1", self.relay.port))
        time.sleep(0.1)
        others = [socket.create_connection(("127.0.0.1", self.relay.port)) for _ in range(3)]
        try:
            time.sleep(0.2)
            self.assertEqual(health(self.relay), 200)
            self.assertTrue(support.closed_by_relay(first, 3))
            self.assertFalse(support.closed_by_relay(others[-1], 0.3))
        finally:
            for sock in [first] + others:
                sock.close()

    def test_when_every_connection_is_busy_newcomers_are_turned_away(self):
        streams = [self.relay.open_stream(self.token) for _ in range(4)]
        try:
            for stream in streams:
                stream.next_snapshot()
            started = time.monotonic()
            self.assertIsNone(health(self.relay, timeout=2))
            # Turned away at once, not left waiting.
            self.assertLess(time.monotonic() - started, 1)
            streams.pop().close()
            support.wait_for(lambda: health(self.relay) == 200, timeout=5)
            # Busy connections are never pushed out: the streams still get their changes.
            self.assertEqual(self.call("POST", "v1/events", {"run_id": "r", "name": "n", "type": "started"})[0], 200)
            for stream in streams:
                self.assertEqual(stream.next_snapshot()["running"], 1)
        finally:
            for stream in streams:
                stream.close()
        self.assertNotIn("Traceback", self.relay.log())


class HandlerBugTest(unittest.TestCase):
    """A handler that raises (a bug) answers 500 with the envelope, and its traceback is logged once."""

    def setUp(self):
        self.folder = tempfile.mkdtemp(prefix="relay-bug-")

        def broken(request):
            raise KeyError("a bug")

        async def broken_later(request):
            raise ValueError("another bug")

        def add_routes(app):
            app.router.add("GET", "v1/test/broken", broken)
            app.router.add("GET", "v1/test/broken-async", broken_later)

        self.relay = support.InProcessRelay(self.folder, setup=add_routes).start()

    def tearDown(self):
        self.relay.stop()
        shutil.rmtree(self.folder, ignore_errors=True)

    def test_a_handler_bug_is_a_500_envelope_and_one_traceback(self):
        token = self.relay.local_token()
        for path, kind in [("v1/test/broken", KeyError), ("v1/test/broken-async", ValueError)]:
            before = len(self.relay.tracebacks())
            status, answer, headers = self.relay.request("GET", path, token=token)
            self.assertEqual(status, 500)
            self.assertEqual(answer["error"]["message"], "internal error")
            self.assertEqual(answer["request_id"], headers["X-Request-Id"])
            records = self.relay.tracebacks()[before:]
            self.assertEqual(len(records), 1)
            self.assertIs(records[0].exc_info[0], kind)
            self.assertIn(answer["request_id"], records[0].getMessage())
        self.assertEqual(self.relay.request("GET", "v1/health")[0], 200)


class StopTest(unittest.TestCase):
    def test_sigterm_with_streams_and_waits_open_stops_at_once(self):
        folder = tempfile.mkdtemp(prefix="relay-stop-")
        relay = support.Relay(folder).start()
        try:
            token = relay.local_token()
            interrupt = relay.request("POST", "v1/interrupts", support.INTERRUPT, token=token)[1]["id"]
            streams = [relay.open_stream(token) for _ in range(3)]
            for stream in streams:
                stream.next_snapshot()
            waiter = relay.connection()
            waiter.request("GET", f"/v1/interrupts/{interrupt}?wait=30", headers={"Authorization": "Bearer " + token})
            time.sleep(0.2)
            started = time.monotonic()
            relay.process.send_signal(signal.SIGTERM)
            self.assertEqual(relay.process.wait(10), 0)
            self.assertLess(time.monotonic() - started, 5)
            for stream in streams:
                stream.close()
            waiter.close()
            self.assertIn("relay stopped", relay.log())
            self.assertNotIn("Traceback", relay.log())
        finally:
            relay.stop()
            shutil.rmtree(folder, ignore_errors=True)


if __name__ == "__main__":
    unittest.main()
