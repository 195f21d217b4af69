"""No way in from a web page: Host and Origin checks, JSON-only bodies, the session before the body."""

import json
import os
import sqlite3
import time
import unittest

import support
from support import ROUTES, RelayTestCase, make_records, route_path

EVIL = "evil.example"


class TrustTestCase(RelayTestCase):
    @classmethod
    def setUpClass(cls):
        super().setUpClass()
        cls.ids = make_records(cls.relay, cls.token)

    def every_route(self):
        """(method, path, body bytes or None, needs a session) for every path, logout and the
        stream left out where answering them would end this test's session or hold it open."""
        for method, pattern, auth, body in ROUTES:
            if pattern in ("v1/auth/logout",):
                continue
            data = None if body is None else json.dumps(body).encode()
            yield method, route_path(pattern, self.ids), data, auth

    def count(self, table):
        with sqlite3.connect(self.relay.db_path) as conn:
            return conn.execute(f"SELECT count(*) FROM {table}").fetchone()[0]


class HostTest(TrustTestCase):
    def test_a_foreign_host_is_refused_on_every_path(self):
        for method, path, data, _ in self.every_route():
            for host in [f"{EVIL}:{self.relay.port}", EVIL, "127.0.0.1", f"127.0.0.1:{self.relay.port + 1}",
                         f"0.0.0.0:{self.relay.port}"]:
                status, answer, _ = self.call(method, path, raw=data, headers={"Host": host})
                self.assertError(answer, status, 403, "the Host header does not name this relay")
        self.assertRelayIntact()

    def test_a_request_without_a_host_is_refused(self):
        for request in [b"GET /v1/health HTTP/1.1\r\n\r\n", b"GET /v1/health HTTP/1.0\r\n\r\n"]:
            status, _, body = self.relay.raw(request, timeout=2)
            self.assertEqual(status, 403)
            self.assertEqual(json.loads(body)["error"]["message"], "the Host header does not name this relay")

    def test_every_loopback_name_of_the_relay_is_accepted(self):
        for host in [f"127.0.0.1:{self.relay.port}", f"localhost:{self.relay.port}", f"LocalHost:{self.relay.port}",
                     f"[::1]:{self.relay.port}"]:
            status, answer, _ = self.call("GET", "v1/me", headers={"Host": host})
            self.assertEqual(status, 200, (host, answer))

    def test_a_dns_rebinding_page_can_neither_sign_in_nor_read(self):
        # The page's name now points at 127.0.0.1: its requests carry its own name in both headers.
        page = {"Host": f"{EVIL}:{self.relay.port}", "Origin": f"http://{EVIL}:{self.relay.port}"}
        sessions = self.count("sessions")
        status, answer, _ = self.call("POST", "v1/auth/local", {}, token=None, headers=page)
        self.assertError(answer, status, 403)
        self.assertEqual(self.count("sessions"), sessions)
        status, answer, _ = self.call("GET", f"v1/terminal/sessions/{self.ids['session']}", headers=page)
        self.assertError(answer, status, 403)
        status, answer, _ = self.call("POST", f"v1/interrupts/{self.ids['interrupt']}/verdict",
                                      {"verdict": "approve"}, headers=page)
        self.assertError(answer, status, 403)
        self.assertEqual(self.call("GET", f"v1/interrupts/{self.ids['interrupt']}")[1]["status"], "open")

    def test_an_absolute_request_target_is_refused(self):
        request = (b"GET http://" + self.relay.host_header + b"/v1/health HTTP/1.1\r\nHost: " +
                   self.relay.host_header + b"\r\nConnection: close\r\n\r\n")
        status, _, body = self.relay.raw(request)
        self.assertEqual(status, 400)
        self.assertIn("ASCII path beginning with /", json.loads(body)["error"]["message"])


class OriginTest(TrustTestCase):
    def test_a_foreign_origin_is_refused_on_every_path(self):
        for method, path, data, _ in self.every_route():
            for origin in [f"http://{EVIL}", f"https://{EVIL}:{self.relay.port}", "null",
                           f"http://127.0.0.1:{self.relay.port + 1}", f"http://localhost:{self.relay.port}/x"]:
                status, answer, _ = self.call(method, path, raw=data, headers={"Origin": origin})
                self.assertError(answer, status, 403, "requests from a web page of another origin are refused")
        self.assertRelayIntact()

    def test_the_relays_own_origin_is_accepted(self):
        for origin in [f"http://127.0.0.1:{self.relay.port}", f"http://localhost:{self.relay.port}"]:
            status, _, _ = self.call("GET", "v1/me", headers={"Origin": origin})
            self.assertEqual(status, 200, origin)

    def test_a_request_a_browser_marks_as_cross_site_is_refused(self):
        # A plain GET from another page carries no Origin, but browsers mark it all the same.
        for site in ["cross-site", "same-site"]:
            status, answer, _ = self.call("GET", "v1/health", token=None, headers={"Sec-Fetch-Site": site})
            self.assertError(answer, status, 403, "requests from a web page of another origin are refused")
        for site in ["same-origin", "none"]:
            self.assertEqual(self.call("GET", "v1/health", token=None, headers={"Sec-Fetch-Site": site})[0], 200)

    def test_two_origins_are_refused(self):
        request = (b"GET /v1/health HTTP/1.1\r\nHost: " + self.relay.host_header + b"\r\nOrigin: http://" +
                   self.relay.host_header + b"\r\nOrigin: http://evil.example\r\nConnection: close\r\n\r\n")
        self.assertEqual(self.relay.raw(request)[0], 403)


class ContentTypeTest(TrustTestCase):
    relay_env = {"MERE_RELAY_CODE_RATE_LIMIT_PER_IP": "20"}

    def test_a_body_must_be_declared_json(self):
        for method, path, data, _ in self.every_route():
            if data is None:
                continue
            for content_type in ["text/plain", "text/plain; charset=utf-8", "application/x-www-form-urlencoded",
                                 "multipart/form-data; boundary=x", "application/jsonx", "application/json; charset=latin-1",
                                 None]:
                headers = {"Content-Type": content_type} if content_type else {}
                sent = self.relay.connection()
                try:
                    sent.putrequest(method, "/" + path, skip_accept_encoding=True)
                    for name, value in headers.items():
                        sent.putheader(name, value)
                    sent.putheader("Authorization", "Bearer " + self.token)
                    sent.putheader("Content-Length", str(len(data)))
                    sent.endheaders(data)
                    response = sent.getresponse()
                    answer = json.loads(response.read())
                finally:
                    sent.close()
                self.assertError(answer, response.status, 415, "Content-Type must be application/json")
        self.assertRelayIntact()

    def test_json_with_its_charset_is_accepted_and_an_empty_post_needs_no_type(self):
        status, _, _ = self.call("POST", "v1/events", raw=json.dumps({"run_id": "r", "name": "n", "type": "started"})
                                 .encode(), headers={"Content-Type": "Application/JSON; charset=UTF-8"})
        self.assertEqual(status, 200)
        session = self.call("POST", "v1/terminal/sessions", {"source": "desktop"})[1]["id"]
        conn = self.relay.connection()
        conn.request("POST", f"/v1/terminal/sessions/{session}/end", headers={"Authorization": "Bearer " + self.token})
        self.assertEqual(conn.getresponse().status, 200)
        conn.close()

    def test_plain_text_posts_change_nothing(self):
        before = {table: self.count(table) for table in ("sessions", "terminal_sessions", "interrupts", "login_codes")}
        plain = {"Content-Type": "text/plain"}
        for path, body, token in [("v1/auth/local", b"{}", None),
                                  ("v1/auth/request-code", b'{"email": "victim@example.com"}', None),
                                  ("v1/terminal/sessions", b'{"source": "page"}', self.token),
                                  ("v1/interrupts", json.dumps(support.INTERRUPT).encode(), self.token)]:
            status, answer, _ = self.call("POST", path, raw=body, token=token, headers=plain)
            self.assertError(answer, status, 415)
        self.assertEqual({table: self.count(table) for table in before}, before)
        outbox = os.path.join(self.relay.folder, "relay-outbox.txt")
        if os.path.exists(outbox):
            with open(outbox, encoding="utf-8") as handle:
                self.assertNotIn("victim@example.com", handle.read())

    def test_blind_posts_cannot_use_up_the_sign_in_codes_of_this_address(self):
        # 25 posts a page could send without the browser asking first; the limit is 20 per address.
        for number in range(25):
            body = json.dumps({"email": f"victim{number}@example.com"}).encode()
            status, _, _ = self.call("POST", "v1/auth/request-code", raw=body, token=None,
                                     headers={"Content-Type": "text/plain"})
            self.assertEqual(status, 415)
            status, _, _ = self.call("POST", "v1/auth/request-code", raw=body, token=None,
                                     headers={"Origin": f"http://{EVIL}"})
            self.assertEqual(status, 403)
        status, answer, _ = self.call("POST", "v1/auth/request-code", {"email": "person@example.com"}, token=None)
        self.assertEqual((status, answer), (200, {"sent": True}))

    def test_a_compressed_body_is_refused(self):
        status, answer, _ = self.call("POST", "v1/events", raw=b"\x1f\x8b\x08\x00",
                                      headers={"Content-Encoding": "gzip"})
        self.assertError(answer, status, 415, "request bodies must not be compressed")


class SessionBeforeBodyTest(TrustTestCase):
    def send_head(self, path, headers):
        """Sends a request's head only and reads the answer the relay gives before any body."""
        head = f"POST /{path} HTTP/1.1\r\nHost: 127.0.0.1:{self.relay.port}\r\n"
        head += "".join(f"{name}: {value}\r\n" for name, value in headers.items())
        started = time.monotonic()
        status, _, body = self.relay.raw(head.encode() + b"\r\n", timeout=3)
        return status, json.loads(body), time.monotonic() - started

    def test_no_body_is_read_before_the_session_is_checked(self):
        json_type = {"Content-Type": "application/json"}
        for headers, message in [(dict(json_type, **{"Content-Length": str(16 * 1024 * 1024)}), "missing session token"),
                                 (dict(json_type, **{"Transfer-Encoding": "chunked"}), "missing session token"),
                                 (dict(json_type, **{"Content-Length": "1000", "Authorization": "Bearer wrong"}),
                                  "invalid or expired session token")]:
            status, answer, elapsed = self.send_head("v1/terminal/sessions", headers)
            self.assertEqual((status, answer["error"]["message"]), (401, message))
            # Answered at once, though not one byte of the body was sent.
            self.assertLess(elapsed, 2)

    def test_an_oversized_body_with_a_session_is_refused_unread(self):
        status, answer, _ = self.send_head("v1/events", {"Content-Type": "application/json",
                                                         "Authorization": "Bearer " + self.token,
                                                         "Content-Length": str(16 * 1024 * 1024 + 1)})
        self.assertEqual((status, answer["error"]["message"]), (413, "request body is larger than 16777216 bytes"))

    def test_paths_without_a_session_take_small_bodies_only(self):
        status, answer, _ = self.send_head("v1/auth/request-code", {"Content-Type": "application/json",
                                                                    "Content-Length": str(16 * 1024 + 1)})
        self.assertEqual((status, answer["error"]["message"]), (413, "request body is larger than 16384 bytes"))
        padded = b'{"email": "a@example.com"' + b" " * (20 * 1024) + b"}"
        status, answer, _ = self.call("POST", "v1/auth/verify-code", raw=padded, token=None)
        self.assertError(answer, status, 413)


if __name__ == "__main__":
    unittest.main()
