"""The HTTP layer on aiohttp: who may ask, what a request may hold, and the answer's shape.

aiohttp parses the request (its parser refuses malformed lengths and chunk sizes
and caps the request line and headers); this module decides everything else, in
this order, for every request:

1. the HTTP version (505), the `Host` and a browser's `Origin` (403, see trust.py),
   and a request target of plain ASCII with UTF-8 escapes (400);
2. the route (404, 405);
3. the session, for every route that needs one (401), before any body is read;
4. the body: JSON only (415), within the route's limit (413) and the body time-out
   (408), parsed strictly (400);
5. the handler. A synchronous handler runs on the bounded worker pool, an async one
   on the event loop. An `ApiError` becomes the error envelope; any other exception is
   a bug: it is logged with its traceback once and answers 500 with the envelope.

A caller that goes away cancels its handler (a synchronous handler's thread still
finishes its transaction). Nothing a client sends reaches the log but the method,
the path and the status: no body, no header, no token.
"""

import asyncio
import errno
import itertools
import logging
import secrets
import socket
import urllib.parse

import yarl
from aiohttp import http_exceptions, web
from aiohttp.web_protocol import RequestHandler

from . import VERSION, jsonio
from .errors import ApiError, envelope, forbidden, shown
from .trust import HOST_REFUSED, ORIGIN_REFUSED

log = logging.getLogger("relay")

SERVER_NAME = "QuillmereRelay/" + VERSION
# Methods whose requests may carry a body.
BODY_METHODS = frozenset({"POST", "PUT", "PATCH", "DELETE"})
SUPPORTED_VERSIONS = frozenset({(1, 0), (1, 1)})
# A query with more fields than this is not one the relay wrote.
MAX_QUERY_FIELDS = 50
# A quick handler runs on the event loop only with a body up to this size: parsing a
# larger one would hold up every other connection.
QUICK_BODY_BYTES = 64 * 1024
# ... and only for a user with at most this many streams open.
QUICK_MAX_STREAMS = 4
# Connections accepted in one go before the event loop turns to other work.
ACCEPT_BATCH = 64
# When the process is out of file descriptors anyway, accepting pauses this long.
ACCEPT_PAUSE_SECONDS = 0.5


class Response:
    """A JSON answer with a status other than the default 200."""

    def __init__(self, status, value, headers=None):
        self.status = status
        self.value = value
        self.headers = dict(headers or {})


class ClientGone(Exception):
    """The caller closed the connection while the relay was still answering."""


class Request:
    """What a handler sees of a request: parameters, query, body, the signed-in user."""

    def __init__(self, app, raw, method, path, query, request_id):
        self.app = app
        self.raw = raw
        self.method = method
        self.path = path
        self.query = query
        self.headers = raw.headers
        self.client_ip = raw.remote or ""
        self.request_id = request_id
        self.body_bytes = b""
        self.params = {}
        self.user = None
        self.token_hash = None
        # The key's stored row when a gateway key is the credential, else None.
        self.gateway_key = None
        self.route = None
        self._parsed = False
        self._json = None

    @property
    def user_id(self):
        return self.user["id"]

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
        """The session token, or None; a token of anything but visible ASCII is no token."""
        header = self.headers.get("Authorization") or ""
        scheme, _, token = header.partition(" ")
        token = token.strip()
        if scheme.lower() != "bearer" or not token:
            return None
        if not token.isascii() or not token.isprintable():
            return ""
        return token

    async def run(self, function, *args):
        """Runs blocking work (the database, files) on the worker pool and waits for it."""
        return await self.app.workers.run(function, *args)


class EventStream:
    """A server-sent events answer: the live queue, and later answers streamed from providers.

    `open` sends the status and headers; `send` writes one or more whole events and
    raises ClientGone when the caller has left. The handler returns `response`.
    """

    def __init__(self, request):
        self._raw = request.raw
        self.response = web.StreamResponse(status=200, headers={
            "Content-Type": "text/event-stream; charset=utf-8",
            "Cache-Control": "no-store",
            "X-Accel-Buffering": "no",
            "X-Request-Id": request.request_id,
            "Server": SERVER_NAME,
        })

    async def open(self):
        # Remembered on the request so that the log shows the status the caller received.
        self._raw["event_stream"] = self.response
        await self.response.prepare(self._raw)
        return self

    async def send(self, data):
        try:
            await self.response.write(data)
        except ConnectionError as error:
            raise ClientGone() from error

    def direct_transport(self):
        """The connection itself, for writers of whole events that do not wait (the hub);
        what the answer wrote so far goes out first, so that nothing overtakes it. None
        once the caller has gone."""
        transport = self._raw.transport
        if isinstance(transport, CoalescingTransport):
            transport.flush()
            return transport.real
        return transport

    @property
    def chunked(self):
        """Whether the answer went out in chunks (HTTP/1.1) or as a plain byte stream."""
        return self._raw.writer.chunked


# Request ids only have to be unique and say nothing about anything: a random prefix per
# process and a counter, without a system call per request.
_REQUEST_PREFIX = "req_" + secrets.token_hex(4)
_request_numbers = itertools.count(1)


def new_request_id():
    return f"{_REQUEST_PREFIX}{next(_request_numbers):08x}"


def json_response(status, value, request_id, headers=None):
    response = web.Response(status=status, body=jsonio.dumps(value), headers={
        "Content-Type": "application/json; charset=utf-8",
        "X-Request-Id": request_id,
        "Cache-Control": "no-store",
        "Server": SERVER_NAME,
    })
    for name, text in (headers or {}).items():
        response.headers[name] = text
    return response


def split_target(raw_path):
    """The path and the query of an origin-form request target, decoded strictly."""
    if not raw_path.startswith("/") or not raw_path.isascii() or not raw_path.isprintable():
        raise ApiError(400, "the request target must be an ASCII path beginning with /")
    path, _, query_text = raw_path.partition("?")
    try:
        pairs = urllib.parse.parse_qsl(query_text, keep_blank_values=True, errors="strict",
                                       max_num_fields=MAX_QUERY_FIELDS)
    except UnicodeDecodeError:
        raise ApiError(400, "the query is not valid UTF-8") from None
    except ValueError:
        raise ApiError(400, "the query has too many fields") from None
    query = {}
    for name, value in pairs:
        query.setdefault(name, []).append(value)
    return path, query


class Dispatcher:
    """The one request handler aiohttp calls: the checks above, then the route's handler."""

    def __init__(self, app, host_rules):
        self.app = app
        self.rules = host_rules
        self.timings = app.settings.timings

    async def handle(self, raw):
        loop = asyncio.get_running_loop()
        started = loop.time()
        request_id = new_request_id()
        protocol = raw.protocol
        protocol.handler_task = asyncio.current_task()
        status = "gone"
        try:
            response = await self._answer(raw, request_id)
            status = response.status
            return response
        except asyncio.CancelledError:
            status = self._status_sent(raw)
            raise
        finally:
            protocol.handler_task = None
            protocol.guard.idle(protocol, loop.time())
            log.info("%s %s %s %.1fms id=%s", shown(raw.method), shown(raw.path), status,
                     (loop.time() - started) * 1000, request_id)

    @staticmethod
    def _status_sent(raw):
        """The status of an answer already under way (a stream), or "gone" if none was sent."""
        stream = raw.get("event_stream")
        return stream.status if stream is not None and stream.prepared else "gone"

    async def _answer(self, raw, request_id):
        request = None
        try:
            request = self._admit(raw, request_id)
            result = await self._run(raw, request)
        except ApiError as error:
            if self._status_sent(raw) != "gone":
                # A stream already under way cannot turn into an error answer: it just ends.
                log.info("stream ended early: %s id=%s", error.message, request_id)
                return raw["event_stream"]
            return self._error_response(raw, error, request_id, request)
        except (ClientGone, ConnectionError):
            raise asyncio.CancelledError() from None
        except Exception:
            where = request.path if request is not None else raw.path
            log.exception("unexpected failure on %s %s id=%s", shown(raw.method), shown(where), request_id)
            if self._status_sent(raw) != "gone":
                return raw["event_stream"]
            return self._error_response(raw, ApiError(500, "internal error"), request_id, request)
        if isinstance(result, web.StreamResponse):
            return result
        if isinstance(result, Response):
            return json_response(result.status, result.value, request_id, result.headers)
        return json_response(200, result, request_id)

    def _error_response(self, raw, error, request_id, request=None):
        shape = request.route.error_shape if request is not None and request.route is not None else None
        body = shape(error, request_id, request) if shape is not None else envelope(error.message, request_id)
        response = json_response(error.status, body, request_id, error.headers)
        # A body left unread, or framed in a way not to be trusted, means this connection cannot
        # carry another request.
        if error.close or (raw.body_exists and not raw.content.is_eof()):
            response.force_close()
            raw.protocol.close()
        return response

    def _admit(self, raw, request_id):
        """Step 1 and 2: the version, the trust rules, the target and the route."""
        if tuple(raw.version) not in SUPPORTED_VERSIONS:
            raise ApiError(505, "HTTP version not supported; use HTTP/1.1")
        headers = raw.headers
        if len(headers.getall("Host", ())) != 1 or not self.rules.host_allowed(headers.get("Host")):
            raise forbidden(HOST_REFUSED)
        origins = headers.getall("Origin", ())
        if len(origins) > 1 or not self.rules.origin_allowed(origins[0] if origins else None) \
                or not self.rules.fetch_site_allowed(headers.get("Sec-Fetch-Site")):
            raise forbidden(ORIGIN_REFUSED)
        path, query = split_target(raw.raw_path)
        request = Request(self.app, raw, raw.method, path, query, request_id)
        route, request.params = self.app.router.resolve(raw.method, path)
        request.route = route
        return request

    async def _run(self, raw, request):
        """Steps 3 to 5: the session, the body, the handler."""
        route = request.route
        protocol = raw.protocol
        if route.gateway and (route.gateway == "only" or request.bearer_token() is None
                              or self.app.gateway_keys.presents_key(request)):
            await request.run(self.app.gateway_keys.authenticate, request)
            protocol.guard.busy(protocol)
        elif route.auth:
            if not self.app.auth.authenticate_remembered(request):
                await request.run(self.app.auth.authenticate, request)
            protocol.guard.busy(protocol)
        await self._read_body(raw, request, route)
        if not route.auth:
            protocol.guard.busy(protocol)
        if route.is_async:
            return await route.handler(request)
        if self._runs_inline(request) and self.app.db.try_hold_writer():
            try:
                return route.handler(request)
            finally:
                self.app.db.release_writer()
        return await request.run(route.handler, request)

    def _runs_inline(self, request):
        """Whether a quick handler runs on the loop. Not with a large body (parsing it would hold
        every other connection up), nor for a user with many streams open: then the snapshot
        the change publishes is built and sent best while the loop goes on writing to them."""
        if not request.route.quick or len(request.body_bytes) > QUICK_BODY_BYTES:
            return False
        return request.user is None or self.app.hub.stream_count(request.user_id) <= QUICK_MAX_STREAMS

    async def _read_body(self, raw, request, route):
        if not raw.body_exists:
            _check_content_type(raw.headers, has_body=False)
            return
        if request.method not in BODY_METHODS:
            raise ApiError(400, f"a {request.method} request takes no body")
        _check_content_type(raw.headers, has_body=True)
        limit = route.body_limit
        length = content_length(raw.headers)
        if length is not None and length > limit:
            raise ApiError(413, f"request body is larger than {limit} bytes")
        if raw.headers.get("Expect", "").lower() == "100-continue":
            await raw.writer.write(b"HTTP/1.1 100 Continue\r\n\r\n")
        request.body_bytes = await self._receive(raw, limit)

    async def _receive(self, raw, limit):
        parts, total = [], 0
        try:
            async with asyncio.timeout(self.timings.body_timeout_seconds):
                while chunk := await raw.content.readany():
                    total += len(chunk)
                    if total > limit:
                        raise ApiError(413, f"request body is larger than {limit} bytes")
                    parts.append(chunk)
        except TimeoutError:
            raise ApiError(408, "the request body did not arrive in time") from None
        except (http_exceptions.HttpProcessingError, web.RequestPayloadError):
            raise ApiError(400, "malformed request body") from None
        return b"".join(parts)


def content_length(headers):
    """The declared body length, or None without one. aiohttp's parser refuses malformed lengths,
    but what reaches here is checked again rather than trusted: ASCII digits, one value."""
    values = headers.getall("Content-Length", ())
    if not values:
        return None
    text = values[0].strip()
    if len(values) > 1 or not text or len(text) > 18 or not text.isascii() or not text.isdigit():
        raise ApiError(400, "Content-Length must be a whole number", close=True)
    return int(text)


def _check_content_type(headers, has_body):
    """A body must say it is JSON; a request that says its body is anything else is refused."""
    encoding = headers.get("Content-Encoding", "identity").strip().lower()
    if encoding not in ("identity", ""):
        raise ApiError(415, "request bodies must not be compressed")
    content_type = headers.get("Content-Type")
    if content_type is None:
        if has_body:
            raise ApiError(415, "Content-Type must be application/json")
        return
    media, _, parameters = content_type.partition(";")
    charset = ""
    for parameter in parameters.split(";"):
        name, _, value = parameter.partition("=")
        if name.strip().lower() == "charset":
            charset = value.strip().strip('"').lower()
    if media.strip().lower() != "application/json" or charset not in ("", "utf-8"):
        raise ApiError(415, "Content-Type must be application/json")


# The relay's connections

class ConnectionGuard:
    """Counts every connection the relay holds, closes idle ones, and decides who may come in.

    A connection is busy while it is being answered for a signed-in caller (or, on the
    paths that need no session, once its body is in); otherwise it is idle: just
    opened, sending its request, or kept alive between requests. Idle connections are
    closed after `idle_seconds`. Counted are also the connections accepted but not yet
    set up and those told to close but not yet closed, so the count is the number of
    file descriptors that connections hold, and the listener never accepts beyond
    `limit`. Used on the event loop only.
    """

    def __init__(self, limit, idle_seconds, slack=1):
        self.limit = max(1, int(limit))
        # Connections told to close may hold their descriptors a little longer; up to this
        # many of them are allowed beyond the limit, so that a flood is worked off in batches.
        self.slack = max(1, int(slack))
        self.idle_seconds = idle_seconds
        # Idle connections by the time they became idle, oldest first.
        self._idle = {}
        self._busy = set()
        self._closing = set()
        self.pending = 0
        self.on_room = None
        self.evicted = 0
        self.refused = 0
        self.timed_out = 0

    @property
    def open_count(self):
        return len(self._idle) + len(self._busy) + len(self._closing) + self.pending

    def has_room(self):
        """Whether a connection may come in without pushing another one out."""
        return len(self._idle) + len(self._busy) + self.pending < self.limit

    def may_push_out(self):
        """Whether another idle connection may be told to close to make room."""
        return len(self._closing) < self.slack

    def opened(self, protocol, now):
        self._idle[protocol] = now

    def closed(self, protocol):
        self._idle.pop(protocol, None)
        self._busy.discard(protocol)
        self._closing.discard(protocol)
        if self.on_room is not None:
            self.on_room()

    def busy(self, protocol):
        if self._idle.pop(protocol, None) is not None:
            self._busy.add(protocol)

    def idle(self, protocol, now):
        """After each answer: the connection's idle time starts again."""
        if protocol in self._busy:
            self._busy.discard(protocol)
        elif self._idle.pop(protocol, None) is None:
            return
        self._idle[protocol] = now

    def evict_oldest_idle(self):
        """Starts closing the connection idle the longest; False when every one is busy."""
        if not self._idle:
            return False
        self.evicted += 1
        self._close(next(iter(self._idle)))
        return True

    def sweep(self, now):
        """Closes the connections idle for longer than allowed; oldest first, so it stops early."""
        while self._idle:
            protocol, since = next(iter(self._idle.items()))
            if now - since < self.idle_seconds:
                return
            self.timed_out += 1
            self._close(protocol)

    def _close(self, protocol):
        del self._idle[protocol]
        self._closing.add(protocol)
        protocol.force_close()


class Listener:
    """Accepts connections on the relay's sockets, never more than the guard has room for.

    At the limit it makes room by closing the connection idle the longest (a bounded
    number of closes may be under way at once; beyond, it waits for them); when every
    connection is busy it turns newcomers away at once. So a flood of half-open connections costs each of
    them its place in turn, "v1/health" still gets in, and the process never runs out
    of file descriptors (if it does anyway, accepting pauses instead of spinning).
    """

    def __init__(self, sockets, protocol_factory, guard):
        self._sockets = sockets
        self._factory = protocol_factory
        self._guard = guard
        self._loop = None
        self._paused = False
        self._closed = False
        guard.on_room = self._resume

    def start(self, loop):
        self._loop = loop
        for sock in self._sockets:
            loop.add_reader(sock.fileno(), self._accept, sock)

    def close(self):
        self._closed = True
        for sock in self._sockets:
            if not self._paused:
                self._loop.remove_reader(sock.fileno())
            sock.close()

    def _pause(self, seconds=None):
        if not self._paused:
            self._paused = True
            for sock in self._sockets:
                self._loop.remove_reader(sock.fileno())
        if seconds is not None:
            self._loop.call_later(seconds, self._resume)

    def _resume(self):
        if self._paused and not self._closed:
            self._paused = False
            for sock in self._sockets:
                self._loop.add_reader(sock.fileno(), self._accept, sock)

    def _accept(self, sock):
        guard = self._guard
        for _ in range(ACCEPT_BATCH):
            turn_away = False
            if not guard.has_room():
                if not guard.may_push_out():
                    # Enough connections are closing already; their descriptors free soon.
                    self._pause()
                    return
                turn_away = not guard.evict_oldest_idle()
            try:
                conn, _ = sock.accept()
            except (BlockingIOError, InterruptedError):
                return
            except OSError as error:
                if error.errno in (errno.EMFILE, errno.ENFILE, errno.ENOBUFS, errno.ENOMEM):
                    log.warning("out of file descriptors; accepting again in %g s", ACCEPT_PAUSE_SECONDS)
                    self._pause(ACCEPT_PAUSE_SECONDS)
                return
            if turn_away:
                # Every connection is in use: this one is turned away at once.
                guard.refused += 1
                conn.close()
                continue
            conn.setblocking(False)
            guard.pending += 1
            self._loop.create_task(self._connect(conn))

    async def _connect(self, conn):
        try:
            await self._loop.connect_accepted_socket(self._factory, conn)
        except OSError:
            conn.close()
        finally:
            self._guard.pending -= 1


def listening_sockets(host, port, backlog):
    """Bound, listening, non-blocking sockets for every address `host` stands for."""
    sockets = []
    try:
        for family, kind, proto, _, address in socket.getaddrinfo(host or None, port, type=socket.SOCK_STREAM,
                                                                  flags=socket.AI_PASSIVE):
            sock = socket.socket(family, kind, proto)
            sockets.append(sock)
            sock.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
            if family == socket.AF_INET6 and len(sockets) > 1:
                sock.setsockopt(socket.IPPROTO_IPV6, socket.IPV6_V6ONLY, 1)
            sock.bind(address)
            sock.listen(backlog)
            sock.setblocking(False)
            # With port 0 every address of the name must share the port chosen first.
            port = sock.getsockname()[1]
    except OSError:
        for sock in sockets:
            sock.close()
        raise
    return sockets


class CoalescingTransport:
    """A connection's transport whose writes within one step of the event loop leave in one send.

    aiohttp writes an answer's head and its body separately; on loopback every send is a
    system call that wakes the client, so joining them halves the cost of small answers.
    Everything but writing and closing is the real transport's.
    """

    __slots__ = ("_real", "_loop", "_pending")

    def __init__(self, real, loop):
        self._real = real
        self._loop = loop
        self._pending = []

    @property
    def real(self):
        return self._real

    def write(self, data):
        if not self._pending:
            self._loop.call_soon(self.flush)
        self._pending.append(data)

    def writelines(self, items):
        for data in items:
            self.write(data)

    def flush(self):
        if self._pending:
            data = b"".join(self._pending) if len(self._pending) > 1 else self._pending[0]
            self._pending.clear()
            if not self._real.is_closing():
                self._real.write(data)

    def get_write_buffer_size(self):
        return self._real.get_write_buffer_size() + sum(len(data) for data in self._pending)

    def close(self):
        self.flush()
        self._real.close()

    def abort(self):
        self._pending.clear()
        self._real.abort()

    def __getattr__(self, name):
        return getattr(self._real, name)


class RelayProtocol(RequestHandler):
    """aiohttp's connection handler with the guard, cancellation and JSON parse errors."""

    def __init__(self, manager, **kwargs):
        super().__init__(manager, **kwargs)
        self.guard = manager.guard
        self.handler_task = None

    def connection_made(self, transport):
        super().connection_made(CoalescingTransport(transport, self._loop))
        self.guard.opened(self, self._loop.time())

    def connection_lost(self, exc):
        self.guard.closed(self)
        task = self.handler_task
        if task is not None and not task.done():
            # Nobody will read the answer: stop waiting, streaming or calling a provider for it.
            task.cancel()
        super().connection_lost(exc)

    def data_received(self, data):
        try:
            super().data_received(data)
        except Exception:
            # aiohttp's parser refuses most malformed requests itself, but a few (a request
            # target with a broken host) escape it as other errors; answer them the same way.
            self._refuse_unparsed()

    def _refuse_unparsed(self):
        request_id = new_request_id()
        body = jsonio.dumps(envelope("malformed request line", request_id))
        head = (f"HTTP/1.1 400 Bad Request\r\nContent-Type: application/json; charset=utf-8\r\n"
                f"Content-Length: {len(body)}\r\nConnection: close\r\nX-Request-Id: {request_id}\r\n"
                f"Cache-Control: no-store\r\nServer: {SERVER_NAME}\r\n\r\n")
        if self.transport is not None:
            self.transport.write(head.encode("ascii") + body)
        log.info("refused a malformed request with 400 id=%s", request_id)
        self.force_close()

    def handle_error(self, request, status=500, exc=None, message=None):
        """Answers what aiohttp itself refused (a malformed request) with the envelope."""
        if request.writer.output_size > 0:
            raise ConnectionError("the answer was already under way")
        request_id = new_request_id()
        if status == 500:
            log.error("unexpected failure id=%s", request_id, exc_info=exc)
            status, text = 500, "internal error"
        else:
            status, text = parse_failure(exc)
            log.info("refused a malformed request with %d id=%s", status, request_id)
        response = json_response(status, envelope(text, request_id), request_id)
        response.force_close()
        return response


def parse_failure(exc):
    """The status and the message for a request aiohttp's parser refused; never the raw input."""
    reason = getattr(exc, "message", "") or ""
    if isinstance(exc, http_exceptions.LineTooLong) or "Too many headers" in reason:
        return 431, "the request line or its headers are too long"
    if isinstance(exc, http_exceptions.BadStatusLine):
        return 400, "malformed request line"
    if "Content-Length" in reason:
        return 400, "Content-Length must be a whole number"
    if isinstance(exc, http_exceptions.TransferEncodingError) or "chunk" in reason.lower():
        return 400, "malformed chunked body"
    if "Transfer-Encoding" in reason:
        return 400, "unsupported Transfer-Encoding"
    if isinstance(exc, http_exceptions.InvalidHeader) or "header" in reason.lower():
        return 400, "malformed header"
    return 400, "malformed request"


class RelayServer(web.Server):
    """aiohttp's low-level server, making RelayProtocol connections."""

    def __init__(self, handler, guard, **kwargs):
        super().__init__(handler, **kwargs)
        self.guard = guard

    def __call__(self):
        return RelayProtocol(self, loop=self._loop, **self._kwargs)

    def _make_request(self, message, payload, protocol, writer, task):
        if message.url.is_absolute():
            # Only a path is answered (the dispatcher refuses this one); an absolute target is
            # not even parsed, since its host may be bytes that no host name can be made of.
            message = message._replace(url=yarl.URL("/"))
        return super()._make_request(message, payload, protocol, writer, task)
