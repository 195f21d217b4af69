"""The bounded pool of threads that runs the blocking work of handlers (the database, files, mail).

A handler on the pool costs two hand-overs between threads. The way back is the
expensive one: asyncio wakes its loop through a socket, one send per result. This
pool instead collects finished work and wakes the loop once for all of it, through
an eventfd (a counter in the kernel, cheaper to signal than a socket), so that under
load many results share one wake-up.
"""

import collections
import os
import queue
import threading


class WorkerPool:
    def __init__(self, size, name="relay-worker"):
        self._size = size
        self._name = name
        self._jobs = queue.SimpleQueue()
        self._threads = []
        self._done = collections.deque()
        self._lock = threading.Lock()
        self._signalled = False
        self._loop = None
        self._eventfd = None

    def start(self, loop):
        """Starts the threads; results are delivered on `loop`."""
        self._loop = loop
        if hasattr(os, "eventfd"):
            self._eventfd = os.eventfd(0, os.EFD_NONBLOCK | os.EFD_CLOEXEC)
            loop.add_reader(self._eventfd, self._woken)
        for number in range(self._size):
            thread = threading.Thread(target=self._work, name=f"{self._name}-{number}", daemon=True)
            thread.start()
            self._threads.append(thread)

    async def run(self, function, *args):
        """Runs `function(*args)` on a worker and returns its result (or raises its exception).

        A caller cancelled meanwhile stops waiting; the work itself still finishes."""
        future = self._loop.create_future()
        self._jobs.put((future, function, args))
        return await future

    def submit(self, function, *args):
        """Runs `function(*args)` on a worker without waiting for it (nor for its failure)."""
        self._jobs.put((None, function, args))

    def _work(self):
        while True:
            job = self._jobs.get()
            if job is None:
                return
            future, function, args = job
            try:
                outcome = (True, function(*args))
            except Exception as error:
                outcome = (False, error)
            if future is not None:
                self._finished(future, outcome)

    def _finished(self, future, outcome):
        with self._lock:
            self._done.append((future, outcome))
            if self._signalled:
                return
            self._signalled = True
        try:
            if self._eventfd is not None:
                os.eventfd_write(self._eventfd, 1)
            else:
                self._loop.call_soon_threadsafe(self._deliver)
        except (OSError, RuntimeError):
            # The loop is gone: the relay is stopping and nobody waits for this any more.
            pass

    def _woken(self):
        try:
            os.eventfd_read(self._eventfd)
        except BlockingIOError:
            pass
        self._deliver()

    def _deliver(self):
        with self._lock:
            done, self._done = self._done, collections.deque()
            self._signalled = False
        for future, (succeeded, value) in done:
            if future.cancelled():
                continue
            if succeeded:
                future.set_result(value)
            else:
                future.set_exception(value)

    def shutdown(self):
        """Lets the work under way finish and stops the threads."""
        for _ in self._threads:
            self._jobs.put(None)
        for thread in self._threads:
            thread.join()
        self._threads.clear()
        if self._eventfd is not None:
            if self._loop is not None and not self._loop.is_closed():
                self._loop.remove_reader(self._eventfd)
            os.close(self._eventfd)
            self._eventfd = None
