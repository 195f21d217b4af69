"""Fan-out of queue snapshots to every open stream, one queue per user, on the event loop.

Each stream has its own small queue of frames. A change publishes one snapshot of
that user's queue, built once (in the worker thread that made the change, after it
committed) and handed to each of that user's streams on the event loop, so every
stream sees every change in order and a stream costs no thread while it waits.
Building and handing over happen under one lock, and the loop runs handed-over
work in order, so the last snapshot a stream receives always shows the latest
state. A stream that falls far behind loses its oldest snapshots, never the newest:
each snapshot is the whole queue, so nothing is lost but intermediate states.

A stream that has caught up takes new snapshots straight onto its connection (no
task wakes for it); the snapshots published during one step of the event loop go
out together, one write per stream, however many changes there were. A stream
whose client reads slowly gets its snapshots queued instead, and its own task
writes them as the connection drains.

Waiters for a verdict (a held GET on an interrupt) sleep on a generation counter
that any resolution bumps; they look again after each bump.
"""

import asyncio
import collections
import threading

# A stream this many snapshots behind drops the oldest ones it has not read.
MAX_BACKLOG = 256
# A snapshot goes straight onto a stream's connection while less than this is still
# waiting to be sent on it; beyond, the client is slow and snapshots queue.
DIRECT_WRITE_LIMIT = 256 * 1024

CLOSED = object()


def frame(snapshot):
    """One server-sent event: the snapshot on a single "data:" line, then a blank line."""
    return b"data: " + snapshot + b"\n\n"


def chunked(data):
    """`data` as one chunk of an HTTP/1.1 chunked answer."""
    return b"%x\r\n" % len(data) + data + b"\r\n"


def _settle(waiter):
    if not waiter.done():
        waiter.set_result(None)


class Subscription:
    """The frames waiting for one stream, and the stream's connection once it is open; used
    on the event loop only."""

    __slots__ = ("user_id", "_items", "_waiter", "_closed", "_transport", "_chunked", "last_sent")

    def __init__(self, user_id):
        self.user_id = user_id
        self._items = collections.deque()
        self._waiter = None
        self._closed = False
        self._transport = None
        self._chunked = False
        self.last_sent = 0.0

    def attach(self, transport, is_chunked, now):
        """From now on frames go onto `transport` (as chunks or not, as the answer's headers
        said); everything written before must already be on it."""
        self._transport = transport
        self._chunked = is_chunked
        self.last_sent = now

    @property
    def connection_lost(self):
        transport = self._transport
        return transport is None or transport.is_closing()

    def can_write(self):
        """Whether the connection takes more now: open, and the client keeping up."""
        transport = self._transport
        return (transport is not None and not transport.is_closing()
                and transport.get_write_buffer_size() < DIRECT_WRITE_LIMIT)

    def write(self, data, encoded=None, now=0.0):
        """Puts whole frames onto the connection; `encoded` is `data` as one chunk, if built."""
        if self._chunked:
            data = encoded if encoded is not None else chunked(data)
        self._transport.write(data)
        self.last_sent = now

    def offer(self, data, encoded=None, now=0.0):
        """Sends frames at once if the stream has caught up, else queues them in order."""
        if not self._items and self.can_write():
            self.write(data, encoded, now)
            return
        if len(self._items) >= MAX_BACKLOG:
            self._items.popleft()
        self._items.append(data)
        self._wake()

    def close(self):
        self._closed = True
        self._wake()

    def _wake(self):
        if self._waiter is not None and not self._waiter.done():
            self._waiter.set_result(None)

    async def get(self, timeout):
        """The next frame; None when `timeout` passes first; CLOSED when the hub shuts down."""
        if not self._items and not self._closed:
            # A timer rather than asyncio.wait_for: wait_for can swallow a cancellation that
            # arrives together with a frame, and a stream whose caller left must end.
            loop = asyncio.get_running_loop()
            waiter = self._waiter = loop.create_future()
            timer = loop.call_later(timeout, _settle, waiter)
            try:
                await waiter
            finally:
                timer.cancel()
                self._waiter = None
        if self._items:
            return self._items.popleft()
        return CLOSED if self._closed else None


class Hub:
    def __init__(self, build_snapshot):
        """`build_snapshot(user_id)` returns that user's snapshot as the bytes of one JSON object."""
        self._build = build_snapshot
        self._loop = None
        self._loop_thread = None
        self._lock = threading.Lock()
        # Guarded by the lock: how many streams each user has, as the publishing threads see it.
        self._counts = collections.Counter()
        self._closed = False
        # Used on the event loop only.
        self._streams = collections.defaultdict(set)
        # Frames published during this step of the loop, by user, sent together at its end.
        self._outgoing = {}
        self.generation = 0
        self._resolved = None

    def bind(self, loop):
        """Attaches the hub to the event loop that runs the streams; called once at start."""
        self._loop = loop
        self._loop_thread = threading.get_ident()
        self._resolved = loop.create_future()

    def _on_loop(self, callback, *args):
        """Runs `callback` on the loop after what is already scheduled there, from any thread
        (from the loop's own thread without the wake-up a thread-safe call costs)."""
        if threading.get_ident() == self._loop_thread:
            self._loop.call_soon(callback, *args)
        else:
            self._loop.call_soon_threadsafe(callback, *args)

    # Called from worker threads

    def subscribe(self, user_id):
        """A new subscription and the snapshot it starts from, with no change lost in between."""
        subscription = Subscription(user_id)
        with self._lock:
            first = self._build(user_id)
            if self._closed:
                subscription.close()
            else:
                self._counts[user_id] += 1
                self._on_loop(self._streams[user_id].add, subscription)
        return subscription, first

    def publish(self, user_id):
        """Announces a committed change of this user's queue to their streams."""
        with self._lock:
            if self._closed or not self._counts[user_id]:
                return
            data = frame(self._build(user_id))
            self._on_loop(self._deliver, user_id, data)

    def notify_resolved(self):
        """Wakes every waiter for a verdict to look again."""
        if self._loop is not None:
            self._on_loop(self._bump)

    # Called on the event loop

    def unsubscribe(self, subscription):
        streams = self._streams.get(subscription.user_id)
        if streams is not None and subscription in streams:
            streams.discard(subscription)
            if not streams:
                del self._streams[subscription.user_id]
            with self._lock:
                self._counts[subscription.user_id] -= 1
                if self._counts[subscription.user_id] <= 0:
                    del self._counts[subscription.user_id]

    def stream_count(self, user_id):
        """How many streams this user has open."""
        return len(self._streams.get(user_id, ()))

    @property
    def subscriber_count(self):
        return sum(len(streams) for streams in self._streams.values())

    def _deliver(self, user_id, data):
        if not self._outgoing:
            self._loop.call_soon(self._send_outgoing)
        self._outgoing.setdefault(user_id, []).append(data)

    def _send_outgoing(self):
        outgoing, self._outgoing = self._outgoing, {}
        now = self._loop.time()
        for user_id, frames in outgoing.items():
            streams = self._streams.get(user_id)
            if not streams:
                continue
            data = b"".join(frames)
            encoded = b"".join(chunked(one) for one in frames)
            for subscription in streams:
                subscription.offer(data, encoded, now)

    def _bump(self):
        self.generation += 1
        resolved, self._resolved = self._resolved, self._loop.create_future()
        resolved.set_result(None)

    async def wait_resolution(self, generation, timeout):
        """Returns after the next resolution following `generation`, or after `timeout`."""
        if self.generation != generation:
            return
        await asyncio.wait({self._resolved}, timeout=timeout)

    def close(self):
        """Ends every stream; called on the event loop while the relay stops."""
        with self._lock:
            self._closed = True
            self._counts.clear()
        for streams in self._streams.values():
            for subscription in streams:
                subscription.close()
        self._streams.clear()
        if self._loop is not None:
            self._bump()
