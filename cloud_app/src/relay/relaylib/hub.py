"""Fan-out of queue snapshots to every open stream, one queue per user, on the event loop.

Each stream has its own small queue of frames. A change publishes one snapshot of
that user's queue, built once (in the worker thread that made the change, after it
committed) and handed to each of that user's streams on the event loop, so every
stream sees every change in order and a stream costs no thread while it waits.
Building and handing over happen under one lock, and the loop runs handed-over
work in order, so the last snapshot a stream receives always shows the latest
state. A stream that falls far behind loses its oldest snapshots, never the newest:
each snapshot is the whole queue, so nothing is lost but intermediate states.

Waiters for a verdict (a held GET on an interrupt) sleep on a generation counter
that any resolution bumps; they look again after each bump.
"""

import asyncio
import collections
import threading

# A stream this many snapshots behind drops the oldest ones it has not read.
MAX_BACKLOG = 256

CLOSED = object()


def frame(snapshot):
    """One server-sent event: the snapshot on a single "data:" line, then a blank line."""
    return b"data: " + snapshot + b"\n\n"


class Subscription:
    """The frames waiting for one stream; used on the event loop only."""

    __slots__ = ("user_id", "_items", "_waiter", "_closed")

    def __init__(self, user_id):
        self.user_id = user_id
        self._items = collections.deque()
        self._waiter = None
        self._closed = False

    def offer(self, data):
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
            self._waiter = asyncio.get_running_loop().create_future()
            try:
                await asyncio.wait_for(self._waiter, timeout)
            except asyncio.TimeoutError:
                pass
            finally:
                self._waiter = None
        if self._items:
            return self._items.popleft()
        return CLOSED if self._closed else None


class Hub:
    def __init__(self, build_snapshot):
        """`build_snapshot(user_id)` returns that user's snapshot as the bytes of one JSON object."""
        self._build = build_snapshot
        self._loop = None
        self._lock = threading.Lock()
        # Guarded by the lock: how many streams each user has, as the publishing threads see it.
        self._counts = collections.Counter()
        self._closed = False
        # Used on the event loop only.
        self._streams = collections.defaultdict(set)
        self.generation = 0
        self._resolved = None

    def bind(self, loop):
        """Attaches the hub to the event loop that runs the streams; called once at start."""
        self._loop = loop
        self._resolved = loop.create_future()

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
                self._loop.call_soon_threadsafe(self._streams[user_id].add, subscription)
        return subscription, first

    def publish(self, user_id):
        """Announces a committed change of this user's queue to their streams."""
        with self._lock:
            if self._closed or not self._counts[user_id]:
                return
            data = frame(self._build(user_id))
            self._loop.call_soon_threadsafe(self._deliver, user_id, data)

    def notify_resolved(self):
        """Wakes every waiter for a verdict to look again."""
        if self._loop is not None:
            self._loop.call_soon_threadsafe(self._bump)

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

    @property
    def subscriber_count(self):
        return sum(len(streams) for streams in self._streams.values())

    def _deliver(self, user_id, data):
        for subscription in self._streams.get(user_id, ()):
            subscription.offer(data)

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
