"""The gateway: the OpenAI- and Anthropic-compatible paths that programs holding a gateway
key call, each answering and failing in its own protocol's shape.

A gateway key reaches these paths only; every other path of the relay wants a session. The
application's own session may call them too (then no key's limits or guardrails apply).
"""

import functools

from .. import clock, presets
from ..errors import ApiError, bad_request
from ..web import EventStream
from . import caller_answers, caller_requests, conversation
from .area import BYTES_PER_TOKEN_ESTIMATE, AppliedRoute, ModelRouter, key_allows, new_generation_id
from .conversation import prompt_bytes
from .gatewaykeys import count_guardrail_events
from .guardrails import apply_filters
from .ratelimit import KeyRateLimiter
from .replaycache import ReplayCache

GATEWAY_TASK = "chat"
METADATA_HEADER = "X-OpenRouter-Metadata"
# Where the metadata goes in an answer: a key no protocol's client reads.
METADATA_KEY = "quillmere_metadata"

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
        self.limiter = KeyRateLimiter(app.settings.timings.gateway_rate_window_seconds)
        self.cache = ReplayCache()

    @property
    def router(self):
        return self.app.areas[ModelRouter]

    def register(self, router):
        router.add("GET", "v1/models", self.list_models, gateway="also", error_shape=either_error)
        router.add("POST", "v1/chat/completions", self.chat_completions, gateway="also", error_shape=openai_error)
        router.add("POST", "v1/responses", self.responses, gateway="also", error_shape=openai_error)
        # Anthropic's clients add "/v1/messages" to their base URL themselves; given the gateway's
        # base URL (which ends in "/v1", as OpenAI's clients want) they ask for "/v1/v1/messages".
        for path in ("v1/messages", "v1/v1/messages"):
            router.add("POST", path, self.messages, gateway="also", error_shape=anthropic_error)

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

    # Completions in the callers' protocols.

    async def guard(self, request, instructions, turns):
        """A key's guardrails before routing: its content filters, then its rate limits.
        Returns (the key's rules or None for a session, instructions, turns) as they may be sent."""
        key = self.app.gateway_keys.limits(request)
        stages = request.guardrail_stages = []
        if key is None:
            return None, instructions, turns
        stages.append({"stage": "allowlists", "models": len(key["allowed_models"]),
                       "providers": len(key["allowed_providers"]),
                       "zdr_groups": sorted(group for group, on in key["enforce_zdr"].items() if on)})
        if key["content_filters"]:
            filtered = await request.run(self._filter, request.user_id, key, instructions, turns)
            stages.append({"stage": "content_filters", "filters": len(key["content_filters"]),
                           "blocked": filtered.blocks, "redacted": filtered.redactions})
            if filtered.blocked_by is not None:
                raise bad_request(f"the request was blocked by the content filter \"{filtered.blocked_by}\"")
            instructions, turns = filtered.instructions, filtered.turns
        size = prompt_bytes(turns) + len((instructions or "").encode("utf-8"))
        self.limiter.admit(key["id"], key["requests_per_minute"], key["tokens_per_minute"],
                           max(1, size // BYTES_PER_TOKEN_ESTIMATE))
        stages.append({"stage": "rate_limits", "passed": True})
        return key, instructions, turns

    def used(self, key, completion):
        """Counts what an answered request used against its key's tokens per minute."""
        if key is not None:
            self.limiter.count_tokens(key["id"], completion["usage"]["input_tokens"]
                                      + completion["usage"]["output_tokens"])

    async def _serve(self, request, asked, whole, writer, error_shape):
        """Guards, routes and answers one caller's request: `whole(completion, outcome)` is the
        answer in the caller's protocol; `writer(answer id, model)` makes its stream writer."""
        model, instructions, tools, applied = await self._preset_applied(request, asked)
        key, instructions, turns = await self.guard(request, instructions, asked.turns)
        cached = self.cache.options(request, key)
        hit = None
        if cached is not None:
            hit = self.cache.get(request, cached[0])
            request.guardrail_stages.append({"stage": "cache", "hit": hit is not None})
        live = _LiveAnswer(request, writer, error_shape) if asked.stream else None
        if hit is not None:
            completion, outcome = hit
        else:
            generation_id = new_generation_id()
            try:
                completion, outcome = await self.router.run_completion(
                    request, GATEWAY_TASK, turns, instructions, None, model, asked.max_output, tools,
                    gateway_key=key, on_delta=live and functools.partial(live.deltas, generation_id),
                    generation_id=generation_id, applied=applied)
            except ApiError as error:
                if live is None or not live.opened:
                    raise
                # The caller has part of the answer already: the stream ends with the error.
                await live.fail(error)
                return live.response
            self.used(key, completion)
            if cached is not None:
                self.cache.put(cached[0], cached[1], completion, outcome)
        if live is None:
            answer = whole(completion, outcome)
            metadata = self.metadata(request, completion)
            if metadata is not None:
                answer[METADATA_KEY] = metadata
            return answer
        await live.finish(completion, outcome)
        return live.response

    async def _preset_applied(self, request, asked):
        """(model, instructions, tools, AppliedRoute) for a caller that names "@preset/<slug>" as
        its model: the designated version's models, instructions before the caller's own, tools
        when the caller declares none, and what it sets beside the model. Otherwise the request's."""
        if presets.preset_reference(asked.model) is None:
            return asked.model, asked.instructions, asked.tools, None
        chosen = await request.run(self.router.preset_of, request.user_id, None, asked.model)
        return (chosen.models or "auto", presets.joined_instructions(chosen.instructions, asked.instructions),
                asked.tools or chosen.tools,
                AppliedRoute.of(chosen))

    def _filter(self, user_id, key, instructions, turns):
        filtered = apply_filters(key["content_filters"], instructions, turns)
        if filtered.blocks or filtered.redactions:
            with self.db.write_as(user_id) as conn:
                count_guardrail_events(conn, key["id"], filtered.blocks, filtered.redactions)
        return filtered

    @staticmethod
    def metadata(request, completion):
        """The content-free account of how a request was served, for callers that ask for it
        with `X-OpenRouter-Metadata: enabled`: the route, the attempts, the candidates and the
        guardrail stages. None otherwise."""
        if (request.headers.get(METADATA_HEADER) or "").strip().lower() != "enabled":
            return None
        return {"route": {"route_decision_id": completion["route_decision_id"],
                          "routed_because": completion["routed_because"], "model": completion["model"],
                          "provider": completion["provider"], "fell_back": completion["fell_back"]},
                "attempts": completion["attempts"],
                "candidates": list(getattr(request, "route_candidates", [])),
                "guardrails": list(getattr(request, "guardrail_stages", []))}

    async def chat_completions(self, request):
        request.body()
        asked = caller_requests.openai_chat(request.json())
        return await self._serve(request, asked, caller_answers.chat_whole,
                                 lambda answer_id, model: caller_answers.ChatStream(answer_id, model,
                                                                                    asked.include_usage),
                                 openai_error)

    async def responses(self, request):
        request.body()
        asked = caller_requests.openai_responses(request.json())
        shape = caller_answers.ResponsesAnswer(asked.instructions, asked.max_output)
        tools = conversation.responses_tools(asked.tools) if asked.tools else []
        return await self._serve(request, asked,
                                 lambda completion, outcome: caller_answers.responses_whole(completion, outcome,
                                                                                            shape, tools),
                                 lambda answer_id, model: caller_answers.ResponsesStream(answer_id, model, shape,
                                                                                         tools),
                                 openai_error)

    async def messages(self, request):
        request.body()
        asked = caller_requests.anthropic_messages(request.json())
        estimate = max(1, (prompt_bytes(asked.turns) + len((asked.instructions or "").encode("utf-8")))
                       // BYTES_PER_TOKEN_ESTIMATE)
        return await self._serve(request, asked, caller_answers.messages_whole,
                                 lambda answer_id, model: caller_answers.MessagesStream(answer_id, model, estimate),
                                 anthropic_error)


class _LiveAnswer:
    """A streamed answer to a caller: opened when the provider's first output arrives (or when
    a whole answer is ready), so that a failure before then is still an error status."""

    def __init__(self, request, make_writer, error_shape):
        self.request = request
        self.make_writer = make_writer
        self.error_shape = error_shape
        self.writer = None
        self.events = None

    @property
    def opened(self):
        return self.events is not None

    @property
    def response(self):
        return self.events.response

    async def _open(self, answer_id, model):
        self.writer = self.make_writer(answer_id, model)
        self.events = await EventStream(self.request).open()
        await self.events.send(self.writer.start())

    async def deltas(self, answer_id, lane, deltas):
        if self.writer is None:
            await self._open(answer_id, lane.id)
        await self.events.send(self.writer.deltas(deltas))

    async def finish(self, completion, outcome):
        if self.writer is None:
            await self._open(completion["id"], completion["model"])
        await self.events.send(self.writer.finish(completion, outcome))

    async def fail(self, error):
        await self.events.send(self.writer.fail(self.error_shape(error, self.request.request_id)))
