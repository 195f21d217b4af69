"""One router for every area: a method and a path pattern lead to one handler.

Patterns are written as in the client, without a leading slash, with `{name}` for
a path segment the handler receives ("v1/interrupts/{id}/verdict"). A path that
matches some pattern but not for this method answers 405 with the allowed methods.
Each route says whether it needs a session and how large a body it takes; the
paths that answer without a session take small bodies only.
"""

import dataclasses
import inspect
import urllib.parse

from .config import MAX_BODY_BYTES, SIGN_IN_BODY_BYTES
from .errors import ApiError, shown


@dataclasses.dataclass
class Route:
    method: str
    segments: tuple
    handler: object
    auth: bool
    body_limit: int
    is_async: bool
    quick: bool
    # Whether a gateway key is the credential: "" never, "only", or "also" (beside a session).
    gateway: str = ""
    # Builds the error body in the caller's protocol: (ApiError, request id, Request) -> JSON value.
    error_shape: object = None

    @property
    def literal_count(self):
        return sum(1 for segment in self.segments if not segment.startswith("{"))

    def match(self, parts):
        if len(parts) != len(self.segments):
            return None
        params = {}
        for pattern, part in zip(self.segments, parts):
            if pattern.startswith("{"):
                if not part:
                    return None
                params[pattern[1:-1]] = part
            elif pattern != part:
                return None
        return params


class Router:
    def __init__(self):
        self._routes = []
        # Routes by their number of segments: a path is only ever matched against these.
        self._by_length = {}

    def add(self, method, pattern, handler, auth=True, body_limit=None, quick=False, gateway="", error_shape=None):
        """Registers a handler; `auth` says whether it needs a session token.

        A plain function runs on the worker pool; an `async def` runs on the event loop
        (streams, held waits, calls to providers). A `quick` plain function (a few
        statements on the database and nothing else: no mail, files or large bodies) runs
        on the event loop itself when the database writer is free (and its caller has few
        streams open), which spares it two hand-overs between threads that cost more than
        the handler does.
        """
        if body_limit is None:
            body_limit = MAX_BODY_BYTES if auth else SIGN_IN_BODY_BYTES
        segments = tuple(pattern.strip("/").split("/"))
        is_async = inspect.iscoroutinefunction(handler)
        route = Route(method, segments, handler, auth or bool(gateway), body_limit, is_async, quick and not is_async,
                      gateway, error_shape)
        self._routes.append(route)
        self._by_length.setdefault(len(segments), []).append(route)

    @property
    def routes(self):
        return list(self._routes)

    def resolve(self, method, path):
        """The route and its parameters, or an ApiError 400, 404 or 405."""
        try:
            parts = [urllib.parse.unquote(part, errors="strict") if "%" in part else part
                     for part in path.lstrip("/").split("/")]
        except UnicodeDecodeError:
            raise ApiError(400, "the request path is not valid UTF-8") from None
        matches = []
        for route in self._by_length.get(len(parts), ()):
            params = route.match(parts)
            if params is not None:
                matches.append((route, params))
        if not matches:
            raise ApiError(404, "no such path: " + shown(path.lstrip("/")))
        for route, params in sorted(matches, key=lambda item: -item[0].literal_count):
            if route.method == method:
                return route, params
        allowed = ", ".join(sorted({route.method for route, _ in matches}))
        raise ApiError(405, f"method {shown(method)} is not allowed here; use {allowed}", {"Allow": allowed})
