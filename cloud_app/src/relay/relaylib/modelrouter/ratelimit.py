"""Requests and tokens per minute for each gateway key, over a rolling window.

Counted in the relay's memory: the window is a minute long, so what a restart forgets is at
most one minute's worth, and a check must cost nothing next to a provider call. One lock
makes the check and the count of a request one step, so any number of requests arriving
at once are admitted exactly up to the limit.
"""

import collections
import math
import threading
import time

from ..errors import ApiError

RATE_LIMITED_STATUS = 429


class RateLimited(ApiError):
    def __init__(self, message, retry_after):
        super().__init__(RATE_LIMITED_STATUS, message, {"Retry-After": str(max(1, math.ceil(retry_after)))})


class KeyRateLimiter:
    def __init__(self, window_seconds, clock=time.monotonic):
        self.window = window_seconds
        self.clock = clock
        self._lock = threading.Lock()
        self._requests = collections.defaultdict(collections.deque)  # key id -> admission times
        self._tokens = collections.defaultdict(collections.deque)  # key id -> (time, tokens)

    def _forget(self, key_id, now):
        since = now - self.window
        requests, tokens = self._requests[key_id], self._tokens[key_id]
        while requests and requests[0] <= since:
            requests.popleft()
        while tokens and tokens[0][0] <= since:
            tokens.popleft()
        return requests, tokens

    def admit(self, key_id, requests_per_minute, tokens_per_minute, input_tokens):
        """Counts one request of `key_id`, or raises RateLimited with when to try again. A
        request is refused for tokens when those of the window plus its own input would pass
        the limit."""
        with self._lock:
            now = self.clock()
            requests, tokens = self._forget(key_id, now)
            if requests_per_minute is not None and len(requests) >= requests_per_minute:
                raise RateLimited(f"rate limit: this gateway key allows {requests_per_minute} requests per minute",
                                  requests[0] + self.window - now)
            if tokens_per_minute is not None:
                used = sum(count for _, count in tokens)
                if used + input_tokens > tokens_per_minute:
                    retry = tokens[0][0] + self.window - now if tokens else self.window
                    raise RateLimited(f"rate limit: this gateway key allows {tokens_per_minute} tokens per minute",
                                      retry)
            requests.append(now)

    def count_tokens(self, key_id, tokens):
        """Adds the tokens a request used, once its answer is known."""
        if tokens <= 0:
            return
        with self._lock:
            self._tokens[key_id].append((self.clock(), tokens))
