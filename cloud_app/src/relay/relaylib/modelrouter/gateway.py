"""The gateway: the OpenAI- and Anthropic-compatible paths that programs holding a gateway
key call, each answering and failing in its own protocol's shape.

A gateway key reaches these paths only; every other path of the relay wants a session.
"""

from .. import clock
from .area import ModelRouter, key_allows

# The error `type` each protocol names a status by.
_OPENAI_TYPES = {400: "invalid_request_error", 401: "authentication_error", 402: "insufficient_quota",
                 403: "permission_error", 404: "not_found_error", 413: "invalid_request_error",
                 415: "invalid_request_error", 422: "invalid_request_error", 429: "rate_limit_exceeded"}
_ANTHROPIC_TYPES = {400: "invalid_request_error", 401: "authentication_error", 402: "billing_error",
                    403: "permission_error", 404: "not_found_error", 413: "request_too_large",
                    415: "invalid_request_error", 422: "invalid_request_error", 429: "rate_limit_error",
                    529: "overloaded_error"}


def openai_error(error, request_id, request=None):
    kind = _OPENAI_TYPES.get(error.status, "server_error" if error.status >= 500 else "invalid_request_error")
    return {"error": {"message": error.message, "type": kind, "param": None, "code": kind},
            "request_id": request_id}


def anthropic_error(error, request_id, request=None):
    kind = _ANTHROPIC_TYPES.get(error.status, "api_error" if error.status >= 500 else "invalid_request_error")
    return {"type": "error", "error": {"type": kind, "message": error.message}, "request_id": request_id}


def either_error(error, request_id, request=None):
    """For paths both kinds of client call: an Anthropic client says which version it speaks."""
    if request is not None and "anthropic-version" in request.headers:
        return anthropic_error(error, request_id)
    return openai_error(error, request_id)


class Gateway:
    def __init__(self, app):
        self.app = app
        self.db = app.db

    @property
    def router(self):
        return self.app.areas[ModelRouter]

    def register(self, router):
        router.add("GET", "v1/models", self.list_models, gateway="only", error_shape=either_error)

    def list_models(self, request):
        """The lanes this key may reach now, in a list both OpenAI and Anthropic clients read."""
        key = self.app.gateway_keys.limits(request)
        readiness = self.router.catalog.readiness()
        lanes = [lane for lane in self.router.catalog.lanes
                 if lane.channel == "api" and readiness[lane.id] is None and (key is None or key_allows(key, lane))]
        created = int(clock.now())
        created_iso = clock.iso(created)
        data = [{"id": "auto", "object": "model", "type": "model", "created": created, "created_at": created_iso,
                 "owned_by": "quillmere", "display_name": "Auto (routed)"}]
        for lane in lanes:
            data.append({"id": lane.id, "object": "model", "type": "model", "created": created,
                         "created_at": created_iso, "owned_by": lane.provider, "display_name": lane.display_name})
        return {"object": "list", "data": data, "has_more": False, "first_id": data[0]["id"],
                "last_id": data[-1]["id"]}
