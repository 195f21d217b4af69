"""The HTTP rules every path shares: health, the error envelope and each error status."""

import json
import os
import shutil
import socket
import subprocess
import sys
import tempfile
import unittest

import support
from relaylib.migrations import MIGRATIONS
from support import RelayTestCase


def read_raw_answer(sock):
    """The status line and the decoded JSON body of a reply read to the end of the connection."""
    data = b""
    while chunk := sock.recv(65536):
        data += chunk
    head, _, body = data.decode("utf-8", "replace").partition("\r\n\r\n")
    return head.splitlines()[0], json.loads(body)


class HealthTest(RelayTestCase):
    def test_health_needs_no_token(self):
        status, answer, headers = self.call("GET", "v1/health", token=None)
        self.assertEqual(status, 200)
        self.assertEqual(answer["status"], "ok")
        self.assertEqual(answer["schema_version"], max(version for version, _, _ in MIGRATIONS))
        self.assertTrue(headers["Content-Type"].startswith("application/json"))
        self.assertTrue(headers["X-Request-Id"].startswith("req_"))

    def test_health_ignores_a_query(self):
        status, _, _ = self.call("GET", "v1/health?x=1", token=None)
        self.assertEqual(status, 200)


class ErrorStatusTest(RelayTestCase):
    def test_unknown_path_is_404(self):
        for path in ["v1/nothing", "v1/health/", "", "v2/health", "v1/interrupts/a/b/c"]:
            status, answer, _ = self.call("GET", path)
            self.assertError(answer, status, 404, contains="no such path")

    def test_wrong_method_is_405_with_allow(self):
        status, answer, headers = self.call("DELETE", "v1/health")
        self.assertError(answer, status, 405, "method DELETE is not allowed here; use GET")
        self.assertEqual(headers["Allow"], "GET")
        status, answer, headers = self.call("GET", "v1/interrupts/x/verdict")
        self.assertError(answer, status, 405, "method GET is not allowed here; use POST")
        status, answer, _ = self.call("PUT", "v1/projects")
        self.assertError(answer, status, 405, "method PUT is not allowed here; use GET, POST")

    def test_head_is_answered_without_a_body(self):
        conn = self.relay.connection()
        conn.request("HEAD", "/v1/health")
        response = conn.getresponse()
        self.assertEqual(response.status, 405)
        self.assertEqual(response.read(), b"")
        conn.close()

    def test_malformed_json_is_400(self):
        status, answer, _ = self.call("POST", "v1/events", raw=b'{"run_id": ')
        self.assertError(answer, status, 400, contains="malformed JSON")
        status, answer, _ = self.call("POST", "v1/events", raw=b"\xff\xfe{}")
        self.assertError(answer, status, 400, "request body is not valid UTF-8")
        status, answer, _ = self.call("POST", "v1/events", raw=b"[1, 2]")
        self.assertError(answer, status, 400, "request body must be a JSON object")
        status, answer, _ = self.call("POST", "v1/events", raw=b"")
        self.assertError(answer, status, 400, "request body must be a JSON object")

    def test_wrong_field_type_is_400_naming_the_field(self):
        body = {"run_id": "r", "name": "n", "type": "started", "tokens": "5"}
        status, answer, _ = self.call("POST", "v1/events", body)
        self.assertError(answer, status, 400, "tokens must be an integer, not a string")

    def test_missing_or_bad_token_is_401(self):
        status, answer, headers = self.call("GET", "v1/me", token=None)
        self.assertError(answer, status, 401, "missing session token")
        self.assertIn("Bearer", headers["WWW-Authenticate"])
        status, answer, _ = self.call("GET", "v1/me", token="not-a-token")
        self.assertError(answer, status, 401, "invalid or expired session token")
        status, answer, _ = self.call("GET", "v1/me", token=None, headers={"Authorization": "Basic abc"})
        self.assertError(answer, status, 401, "missing session token")

    def test_authentication_comes_before_the_body(self):
        status, answer, _ = self.call("POST", "v1/events", raw=b"{", token=None)
        self.assertError(answer, status, 401, "missing session token")

    def test_oversized_body_is_413(self):
        conn = self.relay.connection()
        conn.putrequest("POST", "/v1/events")
        conn.putheader("Content-Length", str(16 * 1024 * 1024 + 1))
        conn.putheader("Content-Type", "application/json")
        conn.putheader("Authorization", "Bearer " + self.token)
        conn.endheaders()
        response = conn.getresponse()
        answer = json.loads(response.read())
        conn.close()
        self.assertError(answer, response.status, 413, "request body is larger than 16777216 bytes")

    def test_body_of_exactly_the_limit_is_read(self):
        filler = b" " * (16 * 1024 * 1024 - 2)
        status, answer, _ = self.call("POST", "v1/events", raw=b"{" + filler + b"}")
        self.assertError(answer, status, 400, "run_id is required")

    def test_chunked_body_is_read(self):
        conn = self.relay.connection()
        parts = [b'{"run_id": "chunked", ', b'"name": "n", ', b'"type": "started"}']
        conn.request("POST", "/v1/events", body=iter(parts), encode_chunked=True,
                     headers={"Authorization": "Bearer " + self.token, "Content-Type": "application/json"})
        response = conn.getresponse()
        self.assertEqual((response.status, json.loads(response.read())), (200, {"accepted": True}))
        conn.close()

    def test_malformed_chunked_body_is_400(self):
        with socket.create_connection(("127.0.0.1", self.relay.port), timeout=5) as sock:
            sock.sendall(b"POST /v1/events HTTP/1.1\r\nHost: " + self.relay.host_header +
                         b"\r\nTransfer-Encoding: chunked\r\nContent-Type: application/json\r\n"
                         b"Authorization: Bearer " + self.token.encode() + b"\r\n\r\nZZ\r\n")
            status_line, answer = read_raw_answer(sock)
        self.assertIn(" 400 ", status_line)
        self.assertEqual(answer["error"]["message"], "malformed chunked body")

    def test_bad_content_length_is_400(self):
        with socket.create_connection(("127.0.0.1", self.relay.port), timeout=5) as sock:
            sock.sendall(b"POST /v1/events HTTP/1.1\r\nHost: " + self.relay.host_header +
                         b"\r\nContent-Length: -5\r\n\r\n")
            status_line, answer = read_raw_answer(sock)
        self.assertIn(" 400 ", status_line)
        self.assertEqual(answer["error"]["message"], "Content-Length must be a whole number")

    def test_get_with_a_body_is_400(self):
        status, answer, _ = self.call("GET", "v1/me", raw=b'{"a": 1}')
        self.assertError(answer, status, 400, "a GET request takes no body")

    def test_malformed_request_line_answers_the_envelope(self):
        with socket.create_connection(("127.0.0.1", self.relay.port), timeout=5) as sock:
            sock.sendall(b"THIS IS NOT HTTP\r\n\r\n")
            status_line, answer = read_raw_answer(sock)
        self.assertIn(" 400 ", status_line)
        self.assertEqual(set(answer), {"error", "request_id"})

    def test_keep_alive_connection_serves_several_requests(self):
        conn = self.relay.connection()
        for _ in range(3):
            conn.request("GET", "/v1/health")
            response = conn.getresponse()
            self.assertEqual(response.status, 200)
            response.read()
        conn.close()

    def test_log_holds_no_token(self):
        self.call("GET", "v1/me")
        support.wait_for(lambda: "GET /v1/me 200" in self.relay.log())
        self.assertNotIn(self.token, self.relay.log())


class StartupTest(unittest.TestCase):
    def setUp(self):
        self.folder = tempfile.mkdtemp(prefix="relay-start-")

    def tearDown(self):
        shutil.rmtree(self.folder, ignore_errors=True)

    def test_port_zero_prints_the_chosen_port_and_sigterm_stops_cleanly(self):
        relay = support.Relay(self.folder).start()
        self.assertGreater(relay.port, 0)
        status, _, _ = relay.request("GET", "v1/health")
        self.assertEqual(status, 200)
        self.assertEqual(relay.stop(), 0)
        self.assertIn("relay stopped", relay.log())

    def test_database_in_a_folder_that_does_not_exist_yet(self):
        relay = support.Relay(self.folder)
        relay.db_path = os.path.join(self.folder, "a", "b", "relay.db")
        relay.start()
        try:
            self.assertEqual(relay.request("GET", "v1/health")[0], 200)
            self.assertTrue(os.path.exists(relay.db_path))
        finally:
            relay.stop()

    def test_host_override(self):
        relay = support.Relay(self.folder, {"MERE_RELAY_HOST": "127.0.0.1"}).start()
        try:
            self.assertEqual(relay.request("GET", "v1/health")[0], 200)
        finally:
            relay.stop()

    def test_run_script_starts_with_no_setup(self):
        env = {key: value for key, value in os.environ.items() if not key.startswith("MERE_")}
        env.update({"HOME": self.folder, "MERE_RELAY_PORT": "0"})
        env.pop("XDG_DATA_HOME", None)
        process = subprocess.Popen([os.path.join(support.RELAY_DIR, "run.sh")], env=env,
                                   stdout=subprocess.PIPE, stderr=subprocess.DEVNULL)
        try:
            line = process.stdout.readline().decode()
            self.assertIn("listening on http://127.0.0.1:", line)
            self.assertTrue(os.path.exists(os.path.join(self.folder, ".local", "share", "Quillmere", "relay.db")))
        finally:
            process.terminate()
            self.assertEqual(process.wait(10), 0)
            process.stdout.close()

    def test_unknown_command_is_refused(self):
        result = subprocess.run([sys.executable, support.SERVER, "frobnicate"], capture_output=True, text=True)
        self.assertEqual(result.returncode, 2)
        self.assertIn("totp-enable", result.stderr)

    def test_port_in_use_fails_with_a_message(self):
        with socket.socket() as taken:
            taken.bind(("127.0.0.1", 0))
            taken.listen()
            relay = support.Relay(self.folder, {"MERE_RELAY_PORT": str(taken.getsockname()[1])})
            with self.assertRaises(RuntimeError):
                relay.start()
        self.assertIn("cannot listen", relay.log())


if __name__ == "__main__":
    unittest.main()
