"""Fan-out of queue snapshots to every open stream.

Each stream has its own small queue. A change publishes one snapshot, built once
and handed to every queue, so every stream sees every change in order. Publishing
is serialised and builds the snapshot after the change has committed, so the
last snapshot a stream receives always shows the latest state. A stream that
falls far behind loses its oldest snapshots, never the newest: each snapshot is
the whole queue, so nothing is lost but intermediate states.
"""

import collections
import threading

# A stream this many snapshots behind drops the oldest ones it has not read.
MAX_BACKLOG = 256

CLOSED = object()


class Subscription:
    def __init__(self):
        self._items = collections.deque()
        self._ready = threading.Condition()
        self._closed = False

    def offer(self, data):
        with self._ready:
            if len(self._items) >= MAX_BACKLOG:
                self._items.popleft()
            self._items.append(data)
            self._ready.notify()

    def close(self):
        with self._ready:
            self._closed = True
            self._ready.notify()

    def get(self, timeout):
        """The next snapshot; None when `timeout` passes first; CLOSED when the hub shuts down."""
        with self._ready:
            if not self._items and not self._closed:
                self._ready.wait(timeout)
            if self._items:
                return self._items.popleft()
            return CLOSED if self._closed else None


class Hub:
    def __init__(self, build_snapshot):
        """`build_snapshot` returns the current snapshot as the bytes of one JSON object."""
        self._build = build_snapshot
        self._publish_lock = threading.Lock()
        self._subscribers = set()
        self._closed = False
        # Waiters for a verdict sleep on this; any resolution bumps the generation and
        # wakes them to look again, so a resolution between a look and a sleep is not missed.
        self.resolutions = threading.Condition()
        self.generation = 0

    def subscribe(self):
        """A new subscription and the snapshot it starts from, with no change lost in between."""
        subscription = Subscription()
        with self._publish_lock:
            first = self._build()
            if self._closed:
                subscription.close()
            else:
                self._subscribers.add(subscription)
        return subscription, first

    def unsubscribe(self, subscription):
        with self._publish_lock:
            self._subscribers.discard(subscription)

    @property
    def subscriber_count(self):
        with self._publish_lock:
            return len(self._subscribers)

    def publish(self):
        with self._publish_lock:
            if not self._subscribers:
                return
            data = self._build()
            for subscription in self._subscribers:
                subscription.offer(data)

    def notify_resolved(self):
        with self.resolutions:
            self.generation += 1
            self.resolutions.notify_all()

    def close(self):
        with self._publish_lock:
            self._closed = True
            for subscription in self._subscribers:
                subscription.close()
            self._subscribers.clear()
        self.notify_resolved()
