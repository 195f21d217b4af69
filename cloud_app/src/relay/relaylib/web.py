"""The HTTP layer: reads a request, finds its route, checks the session, writes JSON.

Every failure, including the ones the standard library raises for a malformed
request line, answers the error envelope. Nothing a client sends reaches the log
but the method, the path and the status: no body, no header, no token.
"""

import http.server
import logging
import secrets
import socket
import time
import urllib.parse

from . import VERSION, jsonio
from .config import MAX_BODY_BYTES
from .errors import ApiError, envelope

log = logging.getLogger("relay")

# Methods that may carry a body.
_BODY_METHODS = {"POST", "PUT", "PATCH", "DELETE"}


class Response:
    """A JSON answer with a status other than the default 200."""

    def __init__(self, status, value, headers=None):
        self.status = status
        self.value = value
        self.headers = dict(headers or {})


class Streamer:
    """An answer that holds the connection and writes as it goes (server-sent events)."""

    def __init__(self, run):
        self.run = run


class Request:
    def __init__(self, app, method, path, query, headers, client_ip, request_id, body_bytes):
        self.app = app
        self.method = method
        self.path = path
        self.query = query
        self.headers = headers
        self.client_ip = client_ip
        self.request_id = request_id
        self.body_bytes = body_bytes
        self.params = {}
        self.user = None
        self.token_hash = None
        self._parsed = False
        self._json = None

    def json(self):
        """The parsed body, or None for an empty one."""
        if not self._parsed:
            self._json = jsonio.parse(self.body_bytes)
            self._parsed = True
        return self._json

    def body(self, allow_empty=False):
        return jsonio.Body.of(self.json(), allow_empty=allow_empty)

    def query_value(self, name):
        values = self.query.get(name)
        return values[-1] if values else None

    def bearer_token(self):
        header = self.headers.get("Authorization") or ""
        scheme, _, token = header.partition(" ")
        if scheme.lower() != "bearer" or not token.strip():
            return None
        return token.strip()


class StreamClosed(Exception):
    """The client went away while the relay was writing to it."""


class RelayHandler(http.server.BaseHTTPRequestHandler):
    protocol_version = "HTTP/1.1"
    # Answers to unparseable request lines still carry a status line and headers.
    default_request_version = "HTTP/1.0"
    # A client that stalls mid-request does not hold a thread for ever.
    timeout = 120
    # Headers and body go out in separate writes; without this, Nagle's algorithm and the
    # client's delayed acknowledgement hold every small answer back by tens of milliseconds.
    disable_nagle_algorithm = True

    def do_GET(self):
        self._dispatch("GET")

    def do_POST(self):
        self._dispatch("POST")

    def do_DELETE(self):
        self._dispatch("DELETE")

    def do_PUT(self):
        self._dispatch("PUT")

    def do_PATCH(self):
        self._dispatch("PATCH")

    def do_HEAD(self):
        self._dispatch("HEAD")

    def do_OPTIONS(self):
        self._dispatch("OPTIONS")

    def version_string(self):
        return "QuillmereRelay/" + VERSION

    def log_message(self, format, *args):
        """The standard library's own lines go to the debug level; requests are logged once below."""
        log.debug("http: " + format, *args)

    def send_error(self, code, message=None, explain=None):
        """Answers the standard library's own refusals (bad request line, long headers) as JSON."""
        self.close_connection = True
        request_id = getattr(self, "_request_id", None) or _new_request_id()
        if not message:
            try:
                message = http.HTTPStatus(code).phrase
            except ValueError:
                message = "request refused"
        try:
            self._write_json(code, envelope(str(message).lower(), request_id), {"Connection": "close"}, request_id)
        except OSError:
            pass
        log.info("refused a malformed request with %d id=%s", code, request_id)

    def _dispatch(self, method):
        started = time.monotonic()
        self._request_id = _new_request_id()
        status = 500
        try:
            status = self._handle(method)
        except (StreamClosed, ConnectionError, socket.timeout):
            self.close_connection = True
        except Exception:
            log.exception("unexpected failure on %s %s id=%s", method, self._route_path(), self._request_id)
            status = self._fail(ApiError(500, "internal error"))
        elapsed = (time.monotonic() - started) * 1000
        log.info("%s %s %d %.1fms id=%s", method, self._route_path(), status, elapsed, self._request_id)

    def _route_path(self):
        return urllib.parse.urlsplit(self.path).path[:300]

    def _handle(self, method):
        app = self.server.app
        try:
            body = self._read_body(method)
            split = urllib.parse.urlsplit(self.path)
            query = urllib.parse.parse_qs(split.query, keep_blank_values=True)
            request = Request(app, method, split.path, query, self.headers, self.client_address[0],
                              self._request_id, body)
            route, request.params = app.router.resolve(method, split.path)
            if route.auth:
                app.authenticate(request)
            result = route.handler(request)
        except ApiError as error:
            return self._fail(error)
        if isinstance(result, Streamer):
            return self._stream(result)
        if isinstance(result, Response):
            self._write_json(result.status, result.value, result.headers, self._request_id)
            return result.status
        self._write_json(200, result, {}, self._request_id)
        return 200

    def _read_body(self, method):
        if "chunked" in (self.headers.get("Transfer-Encoding") or "").lower():
            body = self._read_chunked()
        else:
            body = self._read_sized()
        if method not in _BODY_METHODS and body.strip():
            raise ApiError(400, f"a {method} request takes no body")
        return body

    def _refuse(self, status, message):
        # A body left unread or half read means this connection cannot carry another request.
        self.close_connection = True
        return ApiError(status, message)

    def _read_sized(self):
        text = self.headers.get("Content-Length")
        if not text:
            return b""
        if not text.strip().isdigit() or len(text) > 20:
            raise self._refuse(400, "Content-Length must be a whole number")
        length = int(text)
        if length > MAX_BODY_BYTES:
            raise self._refuse(413, f"request body is larger than {MAX_BODY_BYTES} bytes")
        body = self.rfile.read(length) if length else b""
        if len(body) < length:
            raise self._refuse(400, "request body ended early")
        return body

    def _read_chunked(self):
        parts, total = [], 0
        while True:
            line = self.rfile.readline(1024)
            try:
                size = int(line.split(b";", 1)[0].strip(), 16)
            except ValueError:
                raise self._refuse(400, "malformed chunked body") from None
            if size == 0:
                break
            total += size
            if total > MAX_BODY_BYTES:
                raise self._refuse(413, f"request body is larger than {MAX_BODY_BYTES} bytes")
            chunk = self.rfile.read(size)
            if len(chunk) < size or self.rfile.readline(3) not in (b"\r\n", b"\n"):
                raise self._refuse(400, "malformed chunked body")
            parts.append(chunk)
        while self.rfile.readline(1024) not in (b"\r\n", b"\n", b""):
            pass
        return b"".join(parts)

    def _fail(self, error):
        headers = dict(error.headers)
        if self.close_connection:
            headers["Connection"] = "close"
        self._write_json(error.status, envelope(error.message, self._request_id), headers, self._request_id)
        return error.status

    def _write_json(self, status, value, headers, request_id):
        data = jsonio.dumps(value)
        self.send_response(status)
        self.send_header("Content-Type", "application/json; charset=utf-8")
        self.send_header("Content-Length", str(len(data)))
        self.send_header("X-Request-Id", request_id)
        self.send_header("Cache-Control", "no-store")
        for name, value_text in headers.items():
            self.send_header(name, value_text)
        self.end_headers()
        if self.command != "HEAD":
            self.wfile.write(data)

    def _stream(self, streamer):
        """Server-sent events: no length, the connection closes when the stream ends."""
        self.close_connection = True
        self.send_response(200)
        self.send_header("Content-Type", "text/event-stream; charset=utf-8")
        self.send_header("Cache-Control", "no-store")
        self.send_header("Connection", "close")
        self.send_header("X-Accel-Buffering", "no")
        self.send_header("X-Request-Id", self._request_id)
        self.end_headers()
        self.wfile.flush()
        streamer.run(self._stream_write)
        return 200

    def _stream_write(self, data):
        try:
            self.wfile.write(data)
            self.wfile.flush()
        except OSError as error:
            raise StreamClosed() from error


def _new_request_id():
    return "req_" + secrets.token_hex(8)


class RelayServer(http.server.ThreadingHTTPServer):
    daemon_threads = True
    # Many agents may connect at once; the default backlog of 5 drops connections under load.
    request_queue_size = 256

    def __init__(self, address, app):
        self.app = app
        if ":" in address[0]:
            self.address_family = socket.AF_INET6
        super().__init__(address, RelayHandler)
