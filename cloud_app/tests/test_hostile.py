"""Hostile input on every path: malformed JSON, wrong types, lone surrogates, odd digits, broken
framing, oversize bodies, slow and half-open requests. Each is refused with a 4xx envelope (or the
connection is closed), and afterwards the relay answers, its database is whole and its log holds
no traceback."""

import json
import os
import socket
import sqlite3
import sys
import time
import unittest

import support
from support import ROUTES, RelayTestCase, make_records, route_path

sys.path.insert(0, os.path.join(support.HERE, "..", "scripts"))
import fuzz_http  # noqa: E402

SURROGATE = "a\ud800b"


def rss_bytes(pid):
    with open(f"/proc/{pid}/status") as handle:
        for line in handle:
            if line.startswith("VmRSS:"):
                return int(line.split()[1]) * 1024
    return 0


def string_fields(value, where=""):
    """(path, setter) for every string in a JSON body, nested ones included."""
    found = []
    if isinstance(value, dict):
        for key, inner in value.items():
            found += string_fields(inner, f"{where}.{key}" if where else key)
    elif isinstance(value, list):
        for index, inner in enumerate(value):
            found += string_fields(inner, f"{where}[{index}]")
    elif isinstance(value, str):
        found.append(where)
    return found


def replaced(body, path, value):
    """A deep copy of `body` with the field at `path` ("chunks[0].data") set to `value`."""
    copy = json.loads(json.dumps(body))
    target, key = copy, None
    tokens = path.replace("[", ".[").split(".")
    for position, token in enumerate(tokens):
        key = int(token[1:-1]) if token.startswith("[") else token
        if position < len(tokens) - 1:
            target = target[key]
    target[key] = value
    return copy


def wrong_type(value):
    if isinstance(value, bool):
        return "yes"
    if isinstance(value, (int, float)):
        return "7"
    if isinstance(value, str):
        return 7
    if isinstance(value, list):
        return "a list"
    return [value]


class HostileTestCase(RelayTestCase):
    relay_env = {"MERE_RELAY_LINGER_SECONDS": "0.3", "MERE_RELAY_CODE_RATE_LIMIT_PER_IP": "100000",
                 "MERE_RELAY_CODE_RATE_LIMIT_PER_EMAIL": "100000"}

    @classmethod
    def setUpClass(cls):
        super().setUpClass()
        cls.ids = make_records(cls.relay, cls.token)

    def body_routes(self):
        for method, pattern, auth, body in ROUTES:
            if body:
                yield method, route_path(pattern, self.ids), body, auth

    def head(self, method, path, *lines, token=True):
        """A request head with this relay's Host, the token unless told otherwise, and `lines`."""
        text = f"{method} /{path} HTTP/1.1\r\nHost: 127.0.0.1:{self.relay.port}\r\n"
        if token:
            text += f"Authorization: Bearer {self.token}\r\n"
        return text.encode() + b"".join(line + b"\r\n" for line in lines) + b"\r\n"

    def assertRefused(self, status, body, expected, message=None):
        self.assertEqual(status, expected, body[:300])
        answer = json.loads(body)
        self.assertEqual(set(answer), {"error", "request_id"})
        if message is not None:
            self.assertIn(message, answer["error"]["message"])


class BodyTest(HostileTestCase):
    def test_malformed_json_on_every_path(self):
        garbage = [(b"{", "malformed JSON"), (b'{"a": 1', "malformed JSON"), (b"nul", "malformed JSON"),
                   (b'{"a": NaN}', "malformed JSON"), (b'{"a": 1e999}', "malformed JSON"),
                   (b"\xff\xfe{}", "not valid UTF-8"), (b"\xed\xa0\x80", "not valid UTF-8"),
                   (b"[" * 10000, "nested too deeply"), (b"[1, 2]", "must be a JSON object"),
                   (b'"text"', "must be a JSON object"), (b"{'a': 1}", "malformed JSON")]
        for method, path, _, auth in self.body_routes():
            for raw, message in garbage:
                status, answer, _ = self.call(method, path, raw=raw, token=self.token if auth else None)
                self.assertError(answer, status, 400, contains=message)
        self.assertRelayIntact()

    def test_wrong_types_on_every_path_name_the_field(self):
        for method, path, body, auth in self.body_routes():
            for field in body:
                values = body[field]
                if field == "chunks":
                    for key, value in body["chunks"][0].items():
                        changed = replaced(body, f"chunks[0].{key}", wrong_type(value))
                        status, answer, _ = self.call(method, path, changed)
                        self.assertError(answer, status, 400, contains=f"chunks[0].{key} must be")
                    continue
                changed = dict(body, **{field: wrong_type(values)})
                status, answer, _ = self.call(method, path, changed, token=self.token if auth else None)
                self.assertError(answer, status, 400, contains=f"{field} must be")
        self.assertRelayIntact()

    def test_a_lone_surrogate_in_any_string_is_refused_naming_the_field(self):
        checked = 0
        for method, path, body, auth in self.body_routes():
            for field in string_fields(body):
                status, answer, _ = self.call(method, path, replaced(body, field, SURROGATE),
                                              token=self.token if auth else None)
                self.assertError(answer, status, 400, f"{field} must be valid Unicode text, without a lone surrogate")
                checked += 1
        self.assertGreaterEqual(checked, 30)
        # A surrogate as a key, and one in a field the relay does not even read.
        status, answer, _ = self.call("POST", "v1/interrupts", raw=b'{"\\udc00": 1}')
        self.assertError(answer, status, 400, contains="key that is not valid Unicode")
        status, answer, _ = self.call("POST", "v1/interrupts", dict(support.INTERRUPT, unknown="\udfff"))
        self.assertError(answer, status, 400, contains="unknown must be valid Unicode text")
        # A surrogate pair is one character and welcome.
        status, answer, _ = self.call("POST", "v1/interrupts", dict(support.INTERRUPT, prompt="\U0001F600?"))
        self.assertEqual((status, answer["interrupt"]["prompt"]), (200, "\U0001F600?"))
        stream = self.relay.open_stream(self.token)
        try:
            line = [stream.next_line() for _ in range(1)][0]
        finally:
            stream.close()
        self.assertNotRegex(line, r"\\ud[89ab][0-9a-f]{2}(?!\\ud[c-f])")
        json.loads(line[5:])
        self.assertRelayIntact()

    def test_a_plain_text_body_is_refused_on_every_path(self):
        for method, path, body, auth in self.body_routes():
            status, answer, _ = self.call(method, path, raw=json.dumps(body).encode(),
                                          token=self.token if auth else None, headers={"Content-Type": "text/plain"})
            self.assertError(answer, status, 415, "Content-Type must be application/json")
        self.assertRelayIntact()


class NumberTest(HostileTestCase):
    def test_a_content_length_of_other_digits_is_refused_and_nothing_smuggled_runs(self):
        smuggled = (self.head("POST", "v1/terminal/sessions", b"Content-Type: application/json",
                              b"Content-Length: 20") + b'{"source":"smuggle"}')
        for length in ["\u00b2", "\u0661\u0662", "+5", "-5", "0x10", "1_0", "5 5", "\uff15"]:
            request = self.head("POST", "v1/events", b"Content-Type: application/json",
                                b"Content-Length: " + length.encode()) + smuggled
            status, head, body = self.relay.raw(request)
            self.assertRefused(status, body, 400, "Content-Length must be a whole number")
        with sqlite3.connect(self.relay.db_path) as conn:
            self.assertEqual(conn.execute("SELECT count(*) FROM terminal_sessions WHERE source = 'smuggle'")
                             .fetchone()[0], 0)
        self.assertRelayIntact()

    def test_numbers_in_queries_are_ascii_digits_only(self):
        interrupt = self.ids["interrupt"]
        for path, message in [("v1/terminal/sessions?limit=%C2%B2", "limit must be a whole number"),
                              ("v1/terminal/sessions?limit=%D9%A3", "limit must be a whole number"),
                              ("v1/terminal/sessions?limit=%EF%BC%95", "limit must be a whole number"),
                              ("v1/terminal/sessions?limit=1e2", "limit must be a whole number"),
                              ("v1/terminal/sessions?limit=-3", "limit must be a whole number"),
                              ("v1/terminal/sessions?limit=99999999999999999999999", "limit must be a whole number"),
                              (f"v1/interrupts/{interrupt}?wait=%D9%A3", "wait must be a number of seconds"),
                              (f"v1/interrupts/{interrupt}?wait=%C2%B2", "wait must be a number of seconds"),
                              (f"v1/interrupts/{interrupt}?wait=1e3", "wait must be a number of seconds"),
                              (f"v1/interrupts/{interrupt}?wait=0x1", "wait must be a number of seconds"),
                              ("v1/terminal/sessions?limit=%ff", "the query is not valid UTF-8"),
                              ("v1/terminal/sessions?limit=%ed%a0%80", "the query is not valid UTF-8")]:
            status, answer, _ = self.call("GET", path)
            self.assertError(answer, status, 400, contains=message)
        # Unencoded non-ASCII in the request line is refused before anything reads it.
        status, _, body = self.relay.raw(self.head("GET", "v1/terminal/sessions?limit=X").replace(
            b"limit=X", b"limit=\xc2\xb2"))
        self.assertRefused(status, body, 400, "ASCII path")
        self.assertEqual(self.call("GET", "v1/terminal/sessions?limit=2")[0], 200)
        self.assertRelayIntact()


class FramingTest(HostileTestCase):
    def test_negative_and_odd_chunk_sizes_are_refused(self):
        for size in [b"-1", b"-2", b"ffffffffffffffffffff", b"0x10", b"\xc2\xb2", b"g", b"1;\x00"]:
            for token in (True, False):
                request = self.head("POST", "v1/events", b"Content-Type: application/json",
                                    b"Transfer-Encoding: chunked", token=token) + size + b"\r\n{}\r\n0\r\n\r\n"
                status, _, body = self.relay.raw(request)
                self.assertIn(status, (400, 401), (size, body[:200]))
                self.assertEqual(set(json.loads(body)), {"error", "request_id"})
        self.assertRelayIntact()

    def test_a_chunked_body_past_the_limit_is_refused_once_the_limit_is_reached(self):
        with socket.create_connection(("127.0.0.1", self.relay.port), timeout=10) as sock:
            sock.sendall(self.head("POST", "v1/events", b"Content-Type: application/json",
                                   b"Transfer-Encoding: chunked") + b"2000000\r\n")
            block = b" " * (1024 * 1024)
            try:
                for _ in range(18):
                    sock.sendall(block)
            except (BrokenPipeError, ConnectionResetError):
                pass
            status, _, body = support.read_answer(sock)
        self.assertRefused(status, body, 413, "request body is larger than 16777216 bytes")
        self.assertRelayIntact()

    def test_a_huge_body_without_a_session_is_never_read_into_memory(self):
        before = rss_bytes(self.relay.process.pid)
        with socket.create_connection(("127.0.0.1", self.relay.port), timeout=10) as sock:
            sock.sendall(self.head("POST", "v1/terminal/sessions", b"Content-Type: application/json",
                                   b"Transfer-Encoding: chunked", token=False))
            # The refusal comes before a single byte of the body was sent.
            status, _, body = support.read_answer(sock)
            self.assertRefused(status, body, 401, "missing session token")
            block = b"100000\r\n" + b"x" * 0x100000 + b"\r\n"
            try:
                for _ in range(256):
                    sock.sendall(block)
            except (BrokenPipeError, ConnectionResetError, socket.timeout):
                pass
        # Whatever the relay took in before it closed the connection was dropped as it came.
        self.assertLess(rss_bytes(self.relay.process.pid) - before, 32 * 1024 * 1024)
        self.assertRelayIntact()

    def test_request_lines_and_headers_are_capped_and_malformed_ones_refused(self):
        host = b"Host: " + self.relay.host_header
        for request, expected in [
                (b"GET /" + b"a" * 9000 + b" HTTP/1.1\r\n" + host + b"\r\n\r\n", 431),
                (b"GET /v1/health HTTP/1.1\r\n" + host + b"\r\nX: " + b"y" * 9000 + b"\r\n\r\n", 431),
                (b"GET /v1/health HTTP/1.1\r\n" + host + b"\r\n" + b"X: y\r\n" * 101 + b"\r\n", 431),
                (b"GET /v1/health HTTP/9.9\r\n" + host + b"\r\n\r\n", 505),
                (b"GARBAGE\r\n\r\n", 400),
                (b"GET /v1/health HTTP/1.1\r\n" + host + b"\r\nX: a\x00b\r\n\r\n", 400),
                (b"GET /v1/health HTTP/1.1\r\n" + host + b"\r\n" + host + b"\r\n\r\n", 400),
                (b"GET /v1/%ff HTTP/1.1\r\n" + host + b"\r\n\r\n", 400),
                (b"GET /v1/\xc3\xa9 HTTP/1.1\r\n" + host + b"\r\n\r\n", 400),
                (b"GET * HTTP/1.1\r\n" + host + b"\r\n\r\n", 400),
                (b"GET http://\xff\xfe/v1/health HTTP/1.1\r\n" + host + b"\r\n\r\n", 400),
                (b"GET http://[::1/v1/health HTTP/1.1\r\n" + host + b"\r\n\r\n", 400),
                (b"POST /v1/events HTTP/1.1\r\n" + host + b"\r\nContent-Length: 3\r\nContent-Length: 4\r\n\r\n", 400),
                (b"POST /v1/events HTTP/1.1\r\n" + host + b"\r\nContent-Length: 3\r\n"
                 b"Transfer-Encoding: chunked\r\n\r\n3\r\nabc\r\n0\r\n\r\n", 400)]:
            status, _, body = self.relay.raw(request)
            self.assertRefused(status, body, expected)
        self.assertRelayIntact()

    def test_a_token_of_odd_bytes_is_just_a_wrong_token(self):
        for token in [b"\xe9\xe9", b"\xff", "\u00e9".encode(), b"a b"]:
            status, _, body = self.relay.raw(self.head("GET", "v1/me", b"Authorization: Bearer " + token,
                                                       token=False))
            self.assertRefused(status, body, 401, "invalid or expired session token")
        # A control character is not even a header.
        status, _, body = self.relay.raw(self.head("GET", "v1/me", b"Authorization: Bearer a\x7fb", token=False))
        self.assertRefused(status, body, 400, "malformed header")
        self.assertRelayIntact()


class SlowClientTest(HostileTestCase):
    relay_env = dict(HostileTestCase.relay_env, MERE_RELAY_IDLE_TIMEOUT_SECONDS="0.5",
                     MERE_RELAY_BODY_TIMEOUT_SECONDS="0.8")

    def test_half_open_and_half_sent_requests_are_closed(self):
        port = self.relay.port
        silent = socket.create_connection(("127.0.0.1", port))
        partial = socket.create_connection(("127.0.0.1", port))
        partial.sendall(b"GET /v1/health HTTP/1.1\r\nHost: 127.0")
        trickle = socket.create_connection(("127.0.0.1", port))
        try:
            started = time.monotonic()
            for _ in range(3):
                trickle.sendall(b"X-Slow: y\r\n" if _ else b"GET /v1/health HTTP/1.1\r\n")
                time.sleep(0.3)
            self.assertEqual(self.call("GET", "v1/health", token=None)[0], 200)
            self.assertTrue(support.closed_by_relay(silent, 3))
            self.assertTrue(support.closed_by_relay(partial, 3))
            self.assertTrue(support.closed_by_relay(trickle, 3))
            self.assertLess(time.monotonic() - started, 5)
        finally:
            for sock in (silent, partial, trickle):
                sock.close()
        self.assertRelayIntact()

    def test_a_body_that_comes_too_slowly_is_refused(self):
        with socket.create_connection(("127.0.0.1", self.relay.port), timeout=5) as sock:
            sock.sendall(self.head("POST", "v1/events", b"Content-Type: application/json",
                                   b"Content-Length: 100") + b'{"run_id": ')
            status, _, body = support.read_answer(sock)
        self.assertRefused(status, body, 408, "the request body did not arrive in time")
        self.assertRelayIntact()

    def test_a_kept_alive_connection_that_keeps_asking_stays_open(self):
        conn = self.relay.connection()
        try:
            for _ in range(6):
                conn.request("GET", "/v1/me", headers={"Authorization": "Bearer " + self.token})
                response = conn.getresponse()
                response.read()
                self.assertEqual(response.status, 200)
                time.sleep(0.2)
        finally:
            conn.close()

    def test_a_caller_that_goes_away_is_logged_once_as_gone_not_as_a_failure(self):
        interrupt = self.ids["interrupt"]
        with socket.create_connection(("127.0.0.1", self.relay.port)) as sock:
            sock.sendall(self.head("GET", f"v1/interrupts/{interrupt}?wait=30"))
            time.sleep(0.3)
        # The held wait ends when its caller leaves, not thirty seconds later.
        support.wait_for(lambda: f"GET /v1/interrupts/{interrupt} gone" in self.relay.log(), timeout=3)
        with socket.create_connection(("127.0.0.1", self.relay.port)) as sock:
            sock.sendall(self.head("POST", "v1/events", b"Content-Type: application/json",
                                   b"Content-Length: 100") + b'{"run_id"')
        support.wait_for(lambda: "POST /v1/events gone" in self.relay.log(), timeout=3)
        self.assertNotIn(" 500 ", self.relay.log())
        self.assertRelayIntact()


class StreamAbuseTest(HostileTestCase):
    def test_a_stream_that_reads_nothing_and_sends_garbage_after_its_request(self):
        stream = self.head("GET", "v1/stream")
        socks = []
        for tail in [b"", b"GARBAGE\r\n\r\n", stream, b"POST /v1/events HTTP/1.1\r\nContent-Length: -1\r\n\r\n"]:
            sock = socket.create_connection(("127.0.0.1", self.relay.port))
            sock.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 4096)
            sock.sendall(stream + tail)
            socks.append(sock)
        try:
            # Enough changes, each a snapshot of a growing queue, to fill what the clients never read.
            for number in range(60):
                body = dict(support.INTERRUPT, prompt=f"#{number}", detail="x" * 20000)
                self.assertEqual(self.call("POST", "v1/interrupts", body)[0], 200)
        finally:
            for sock in socks:
                sock.close()
        time.sleep(0.5)
        self.assertEqual(self.call("GET", "v1/health", token=None)[0], 200)
        self.assertRelayIntact()


class FuzzTest(HostileTestCase):
    def test_a_short_fuzz_run_finds_no_server_error(self):
        stats = fuzz_http.fuzz(self.relay.port, self.token, duration=4, workers=2, seed=20261123)
        self.assertGreater(stats.total, 200)
        self.assertEqual(stats.server_errors, 0, fuzz_http.report(stats, 4))
        self.assertEqual(stats.health_failures, 0)
        self.assertGreater(stats.health_checks, 5)
        self.assertRelayIntact()


if __name__ == "__main__":
    unittest.main()
