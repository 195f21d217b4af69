"""Calls from the relay to model providers: one shared client session, time-outs, cancellation.

Every area that calls a provider goes through `app.upstream`, which owns the one
`aiohttp.ClientSession` of the process (its connection pool, keep-alive and limits
are shared by all callers) and opens one call at a time as an async context:

    async with self.app.upstream.call("POST", url, json=payload) as answer:
        events = await EventStream(request).open()
        async for line in answer.lines():
            await events.send(line + b"\\n")
    return events.response

Time-outs: connecting, each silence while reading, and the call as a whole are
bounded (settings `upstream_*`). A provider that fails or stalls raises
`UpstreamError`, an ApiError (502 or 504), so a handler that has not started its
answer yet lets it become the error envelope. When the caller goes away, the relay
cancels the handler; the cancellation arrives at the `await` inside the block, and
leaving the block closes the provider's connection, so nobody keeps paying for an
answer that no one reads.
"""

import asyncio
import contextlib
import logging

import aiohttp

from .config import UPSTREAM_CONNECTIONS
from .errors import ApiError

log = logging.getLogger("relay")

# A line of a provider's streamed answer longer than this is refused, not buffered.
MAX_LINE_BYTES = 1024 * 1024
# The whole of a provider's answer read at once (not streamed) is capped at this.
MAX_ANSWER_BYTES = 16 * 1024 * 1024


class UpstreamError(ApiError):
    """A provider that could not be reached (502), answered badly (502) or too slowly (504)."""


class Answer:
    """A provider's answer, read as it arrives."""

    def __init__(self, response):
        self.response = response
        self.status = response.status
        self.headers = response.headers

    async def lines(self):
        """Each line as bytes, without its line end, as soon as it is complete."""
        content = self.response.content
        pending = b""
        while chunk := await content.readany():
            pending += chunk
            *complete, pending = pending.split(b"\n")
            for line in complete:
                yield line.rstrip(b"\r")
            if len(pending) > MAX_LINE_BYTES:
                raise UpstreamError(502, "the provider sent a line that is too long")
        if pending:
            yield pending.rstrip(b"\r")

    async def read(self, limit=MAX_ANSWER_BYTES):
        """The whole answer, refused when larger than `limit`."""
        parts, total = [], 0
        while chunk := await self.response.content.readany():
            total += len(chunk)
            if total > limit:
                raise UpstreamError(502, "the provider's answer is too large")
            parts.append(chunk)
        return b"".join(parts)


class Upstream:
    def __init__(self, timings):
        self._timings = timings
        self._session = None

    @property
    def session(self):
        """The one client session; exists between `start` and `close`."""
        return self._session

    def _timeout(self, total_seconds=None):
        timings = self._timings
        return aiohttp.ClientTimeout(total=total_seconds or timings.upstream_total_seconds,
                                     sock_connect=timings.upstream_connect_seconds,
                                     sock_read=timings.upstream_read_seconds)

    async def start(self):
        connector = aiohttp.TCPConnector(limit=UPSTREAM_CONNECTIONS, enable_cleanup_closed=True)
        # trust_env stays off: the relay's environment carries provider credentials, not proxy
        # settings meant for it, and a provider call must not wander off to another host.
        self._session = aiohttp.ClientSession(connector=connector, timeout=self._timeout(),
                                              auto_decompress=True, trust_env=False)

    async def close(self):
        if self._session is not None:
            await self._session.close()
            self._session = None

    @contextlib.asynccontextmanager
    async def call(self, method, url, *, headers=None, json=None, data=None, total_seconds=None):
        """One call to a provider, yielding its `Answer`; see the module's description."""
        try:
            response = await self._session.request(method, url, headers=headers, json=json, data=data,
                                                   timeout=self._timeout(total_seconds))
        except asyncio.TimeoutError:
            raise UpstreamError(504, "the provider did not answer in time") from None
        except aiohttp.ClientError as error:
            log.info("provider call failed: %s", type(error).__name__)
            raise UpstreamError(502, "the provider could not be reached") from None
        finished = False
        try:
            yield Answer(response)
            finished = response.content.at_eof()
        except asyncio.TimeoutError:
            raise UpstreamError(504, "the provider stopped answering") from None
        except aiohttp.ClientError as error:
            log.info("provider answer broke off: %s", type(error).__name__)
            raise UpstreamError(502, "the provider's answer broke off") from None
        finally:
            if finished:
                # Read to the end: the connection goes back to the pool for the next call.
                response.release()
            else:
                # Left early (an error, or the caller went away): drop the connection so the
                # provider stops sending.
                response.close()
