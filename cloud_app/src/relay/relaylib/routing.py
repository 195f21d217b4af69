"""One router for every area: a method and a path pattern lead to one handler.

Patterns are written as in the client, without a leading slash, with `{name}` for
a path segment the handler receives ("v1/interrupts/{id}/verdict"). A path that
matches some pattern but not for this method answers 405 with the allowed methods.
"""

import dataclasses
import urllib.parse

from .errors import ApiError


@dataclasses.dataclass
class Route:
    method: str
    segments: tuple
    handler: object
    auth: bool

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

    def add(self, method, pattern, handler, auth=True):
        """Registers a handler; `auth` says whether it needs a session token."""
        segments = tuple(pattern.strip("/").split("/"))
        self._routes.append(Route(method, segments, handler, auth))

    def resolve(self, method, path):
        """The route and its parameters, or an ApiError 404 or 405."""
        parts = [urllib.parse.unquote(part) for part in path.lstrip("/").split("/")]
        matches = []
        for route in self._routes:
            params = route.match(parts)
            if params is not None:
                matches.append((route, params))
        if not matches:
            raise ApiError(404, "no such path: " + path.lstrip("/")[:200])
        for route, params in sorted(matches, key=lambda item: -item[0].literal_count):
            if route.method == method:
                return route, params
        allowed = ", ".join(sorted({route.method for route, _ in matches}))
        raise ApiError(405, f"method {method} is not allowed here; use {allowed}", {"Allow": allowed})
