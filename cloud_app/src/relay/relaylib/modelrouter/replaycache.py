"""The gateway's opt-in replay of identical requests.

A caller that sends `X-OpenRouter-Cache: true` gets, for a request identical to one this
same credential made within the entry's time to live, the same answer again without any
provider call, at no tokens and no cost. Entries live in the relay's memory only (they hold
an answer's text, which the relay never writes to disk), expire by themselves, are kept per
credential, and are never made for a key that enforces zero data retention anywhere.
"""

import collections
import copy
import hashlib
import json
import time

from ..errors import bad_request
from ..jsonio import whole_number

CACHE_HEADER = "X-OpenRouter-Cache"
TTL_HEADER = "X-OpenRouter-Cache-TTL"
CLEAR_HEADER = "X-OpenRouter-Cache-Clear"
STATUS_HEADER = "X-OpenRouter-Cache-Status"
DEFAULT_TTL_SECONDS = 300
MAX_TTL_SECONDS = 86400
MAX_ENTRIES = 1000


def _flag(request, name):
    return (request.headers.get(name) or "").strip().lower() == "true"


class ReplayCache:
    def __init__(self, clock=time.monotonic):
        self.clock = clock
        self._entries = collections.OrderedDict()  # digest -> (expires at, completion, outcome)

    def options(self, request, key):
        """(digest, ttl) when the caller asked for the cache and may have it, else None."""
        if not _flag(request, CACHE_HEADER):
            return None
        ttl = DEFAULT_TTL_SECONDS
        raw = request.headers.get(TTL_HEADER)
        if raw is not None:
            ttl = whole_number(raw.strip(), TTL_HEADER, MAX_TTL_SECONDS)
            if ttl < 1:
                raise bad_request(f"{TTL_HEADER} must be from 1 to {MAX_TTL_SECONDS} seconds")
        if key is not None and any(key["enforce_zdr"].values()):
            return None
        credential = ("key", key["id"]) if key is not None else ("session", request.user_id)
        text = json.dumps([credential, request.path, request.json()], sort_keys=True, separators=(",", ":"))
        return hashlib.sha256(text.encode("utf-8")).hexdigest(), ttl

    def get(self, request, digest):
        if _flag(request, CLEAR_HEADER):
            self._entries.pop(digest, None)
            return None
        entry = self._entries.get(digest)
        if entry is None or entry[0] <= self.clock():
            self._entries.pop(digest, None)
            return None
        completion = copy.deepcopy(entry[1])
        completion["usage"] = {"input_tokens": 0, "output_tokens": 0, "cost_usd": 0.0}
        return completion, entry[2]

    def put(self, digest, ttl, completion, outcome):
        self._entries[digest] = (self.clock() + ttl, copy.deepcopy(completion), outcome)
        self._entries.move_to_end(digest)
        while len(self._entries) > MAX_ENTRIES:
            self._entries.popitem(last=False)
