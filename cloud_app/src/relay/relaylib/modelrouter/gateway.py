"""The gateway: the OpenAI- and Anthropic-compatible paths that programs holding a gateway
key call, each answering and failing in its own protocol's shape.

A gateway key reaches these paths only; every other path of the relay wants a session. The
application's own session may call them too (then no key's limits or guardrails apply).
"""

import json

from .. import clock
from ..errors import bad_request
from ..web import EventStream
from ..jsonio import Body
from .area import (BYTES_PER_TOKEN_ESTIMATE, MAX_INPUT_CHARACTERS, MAX_NAME, MAX_OUTPUT_TOKENS, ModelRouter,
                   key_allows)
from .gatewaykeys import count_guardrail_events
from .guardrails import apply_filters
from .ratelimit import KeyRateLimiter
from .replaycache import ReplayCache

# What a caller gets when it names no output limit (OpenAI's chat clients need not).
DEFAULT_MAX_OUTPUT_TOKENS = 4096
GATEWAY_TASK = "chat"
METADATA_HEADER = "X-OpenRouter-Metadata"
# Where the metadata goes in an answer: a key no protocol's client reads.
METADATA_KEY = "quillmere_metadata"
MAX_MESSAGES = 10_000
# Providers' reasons an answer ended, in each protocol's words.
_OPENAI_FINISH = {"end_turn": "stop", "stop_sequence": "stop", "max_tokens": "length", "tool_use": "tool_calls",
                  "completed": "stop", "incomplete": "length"}
_ANTHROPIC_STOP = {"stop": "end_turn", "length": "max_tokens", "tool_calls": "tool_use", "completed": "end_turn",
                   "incomplete": "max_tokens"}

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
        key = await request.run(self.app.gateway_keys.limits, request)
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
        prompt_bytes = sum(len(turn["content"].encode("utf-8")) for turn in turns) + \
            len((instructions or "").encode("utf-8"))
        self.limiter.admit(key["id"], key["requests_per_minute"], key["tokens_per_minute"],
                           max(1, prompt_bytes // BYTES_PER_TOKEN_ESTIMATE))
        stages.append({"stage": "rate_limits", "passed": True})
        return key, instructions, turns

    def used(self, key, completion):
        """Counts what an answered request used against its key's tokens per minute."""
        if key is not None:
            self.limiter.count_tokens(key["id"], completion["usage"]["input_tokens"]
                                      + completion["usage"]["output_tokens"])

    async def _complete(self, request, model, instructions, turns, max_output):
        key, instructions, turns = await self.guard(request, instructions, turns)
        cached = self.cache.options(request, key)
        if cached is not None:
            hit = self.cache.get(request, cached[0])
            request.guardrail_stages.append({"stage": "cache", "hit": hit is not None})
            if hit is not None:
                return hit
        completion, outcome = await self.router.run_completion(
            request, GATEWAY_TASK, turns, instructions, None, model, max_output, None, gateway_key=key)
        self.used(key, completion)
        if cached is not None:
            self.cache.put(cached[0], cached[1], completion, outcome)
        return completion, outcome

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
        body = request.body()
        model = body.string("model", non_empty=True, max_length=MAX_NAME)
        messages = body.array("messages")
        stream = body.boolean("stream", required=False)
        include_usage = False
        if body.has("stream_options"):
            include_usage = bool(Body(request.json()["stream_options"], "stream_options.").boolean(
                "include_usage", required=False))
        if body.has("tools"):
            raise bad_request("tools are not supported by this relay yet")
        max_output = body.integer("max_completion_tokens", required=False, minimum=1, maximum=MAX_OUTPUT_TOKENS)
        if max_output is None:
            max_output = body.integer("max_tokens", required=False, minimum=1, maximum=MAX_OUTPUT_TOKENS)
        instructions, turns = _openai_turns(messages)
        completion, outcome = await self._complete(request, model, instructions, turns,
                                                   max_output or DEFAULT_MAX_OUTPUT_TOKENS)
        usage = completion["usage"]
        reason = outcome.finish_reason or "stop"
        finish = _OPENAI_FINISH.get(reason, reason)
        usage = {"prompt_tokens": usage["input_tokens"], "completion_tokens": usage["output_tokens"],
                 "total_tokens": usage["input_tokens"] + usage["output_tokens"]}
        head = {"id": "chatcmpl-" + completion["id"], "created": int(clock.now()), "model": completion["model"]}
        if not stream:
            return _with_metadata(dict(head, object="chat.completion",
                                       choices=[{"index": 0, "message": {"role": "assistant", "content": outcome.text},
                                                 "logprobs": None, "finish_reason": finish}], usage=usage),
                                  self.metadata(request, completion))
        chunk = dict(head, object="chat.completion.chunk")
        events = [dict(chunk, choices=[{"index": 0, "delta": {"role": "assistant", "content": ""},
                                        "logprobs": None, "finish_reason": None}])]
        if outcome.text:
            events.append(dict(chunk, choices=[{"index": 0, "delta": {"content": outcome.text}, "logprobs": None,
                                                "finish_reason": None}]))
        events.append(dict(chunk, choices=[{"index": 0, "delta": {}, "logprobs": None, "finish_reason": finish}]))
        if include_usage:
            events.append(dict(chunk, choices=[], usage=usage))
        data = b"".join(b"data: " + _compact(event) + b"\n\n" for event in events) + b"data: [DONE]\n\n"
        return await _send_events(request, data)

    async def responses(self, request):
        body = request.body()
        model = body.string("model", non_empty=True, max_length=MAX_NAME)
        stream = body.boolean("stream", required=False)
        if body.has("tools"):
            raise bad_request("tools are not supported by this relay yet")
        max_output = body.integer("max_output_tokens", required=False, minimum=1, maximum=MAX_OUTPUT_TOKENS)
        instructions = body.string("instructions", required=False, max_length=MAX_INPUT_CHARACTERS)
        raw = request.json().get("input")
        if isinstance(raw, str):
            turns = [{"role": "user", "content": _text_of(raw, "input")}]
            extra = []
        else:
            extra, turns = _openai_turns(body.array("input"), "input")
            extra = [extra] if extra else []
        instructions = "\n\n".join(([instructions] if instructions else []) + extra) or None
        if not turns or not any(turn["content"] for turn in turns):
            raise bad_request("input must not be empty")
        completion, outcome = await self._complete(request, model, instructions, turns,
                                                   max_output or DEFAULT_MAX_OUTPUT_TOKENS)
        usage = completion["usage"]
        message_id = "msg_" + completion["id"]
        text_part = {"type": "output_text", "text": outcome.text, "annotations": []}
        item = {"type": "message", "id": message_id, "status": "completed", "role": "assistant",
                "content": [text_part]}
        finished = outcome.finish_reason in (None, "stop", "end_turn", "completed")
        answer = {"id": "resp_" + completion["id"], "object": "response", "created_at": int(clock.now()),
                  "status": "completed" if finished else "incomplete", "model": completion["model"],
                  "output": [item], "error": None,
                  "incomplete_details": None if finished else {"reason": "max_output_tokens"},
                  "instructions": instructions, "max_output_tokens": max_output, "parallel_tool_calls": False,
                  "tools": [], "tool_choice": "auto", "text": {"format": {"type": "text"}},
                  "usage": {"input_tokens": usage["input_tokens"], "output_tokens": usage["output_tokens"],
                            "total_tokens": usage["input_tokens"] + usage["output_tokens"],
                            "input_tokens_details": {"cached_tokens": 0},
                            "output_tokens_details": {"reasoning_tokens": 0}}}
        if not stream:
            return _with_metadata(answer, self.metadata(request, completion))
        pending = dict(answer, status="in_progress", output=[], usage=None)
        empty_part = dict(text_part, text="")
        sequence = [
            ("response.created", {"response": pending}),
            ("response.in_progress", {"response": pending}),
            ("response.output_item.added", {"output_index": 0, "item": dict(item, status="in_progress",
                                                                             content=[])}),
            ("response.content_part.added", {"item_id": message_id, "output_index": 0, "content_index": 0,
                                             "part": empty_part}),
            ("response.output_text.delta", {"item_id": message_id, "output_index": 0, "content_index": 0,
                                            "delta": outcome.text}),
            ("response.output_text.done", {"item_id": message_id, "output_index": 0, "content_index": 0,
                                           "text": outcome.text}),
            ("response.content_part.done", {"item_id": message_id, "output_index": 0, "content_index": 0,
                                            "part": text_part}),
            ("response.output_item.done", {"output_index": 0, "item": item}),
            ("response.completed" if finished else "response.incomplete", {"response": answer})]
        data = b"".join(b"event: " + name.encode() + b"\ndata: " + _compact(dict(type=name, sequence_number=number,
                                                                                  **fields)) + b"\n\n"
                        for number, (name, fields) in enumerate(sequence))
        return await _send_events(request, data)

    async def messages(self, request):
        body = request.body()
        model = body.string("model", non_empty=True, max_length=MAX_NAME)
        max_output = body.integer("max_tokens", minimum=1, maximum=MAX_OUTPUT_TOKENS)
        messages = body.array("messages")
        stream = body.boolean("stream", required=False)
        if body.has("tools"):
            raise bad_request("tools are not supported by this relay yet")
        system = request.json().get("system")
        instructions = None if system is None else _text_of(system, "system")
        turns = [_turn(item, f"messages[{index}]", ("user", "assistant")) for index, item in enumerate(messages)]
        if not turns:
            raise bad_request("messages must hold at least one message")
        completion, outcome = await self._complete(request, model, instructions, turns, max_output)
        reason = outcome.finish_reason or "end_turn"
        stop = _ANTHROPIC_STOP.get(reason, reason)
        usage = {"input_tokens": completion["usage"]["input_tokens"],
                 "output_tokens": completion["usage"]["output_tokens"]}
        message = {"id": "msg_" + completion["id"], "type": "message", "role": "assistant",
                   "model": completion["model"], "content": [{"type": "text", "text": outcome.text}],
                   "stop_reason": stop, "stop_sequence": None, "usage": usage}
        if not stream:
            return _with_metadata(message, self.metadata(request, completion))
        events = [("message_start", {"type": "message_start", "message": dict(
                      message, content=[], stop_reason=None, usage=dict(usage, output_tokens=0))}),
                  ("content_block_start", {"type": "content_block_start", "index": 0,
                                           "content_block": {"type": "text", "text": ""}})]
        if outcome.text:
            events.append(("content_block_delta", {"type": "content_block_delta", "index": 0,
                                                   "delta": {"type": "text_delta", "text": outcome.text}}))
        events += [("content_block_stop", {"type": "content_block_stop", "index": 0}),
                   ("message_delta", {"type": "message_delta", "delta": {"stop_reason": stop, "stop_sequence": None},
                                      "usage": {"output_tokens": usage["output_tokens"]}}),
                   ("message_stop", {"type": "message_stop"})]
        data = b"".join(b"event: " + name.encode() + b"\ndata: " + _compact(event) + b"\n\n"
                        for name, event in events)
        return await _send_events(request, data)


def _with_metadata(answer, metadata):
    if metadata is not None:
        answer[METADATA_KEY] = metadata
    return answer


def _compact(value):
    return json.dumps(value, separators=(",", ":"), ensure_ascii=False).encode("utf-8")


async def _send_events(request, data):
    """Server-sent events in the caller's protocol. The answer is sent once the provider's is
    complete: a failure can then still be an error status rather than a broken stream."""
    events = await EventStream(request).open()
    await events.send(data)
    return events.response


def _text_of(content, where):
    """Text content: a string, or a list of text parts (`{type: "text", text}`) joined."""
    if isinstance(content, str):
        text = content
    elif isinstance(content, list):
        parts = []
        for index, part in enumerate(content):
            item = Body(part, f"{where}[{index}].")
            kind = item.string("type")
            if kind not in ("text", "input_text", "output_text"):
                raise bad_request(f"{where}[{index}].type {kind} is not supported by this relay yet; send text")
            parts.append(item.string("text"))
        text = "\n".join(parts)
    else:
        raise bad_request(f"{where} must be a string or an array of text parts")
    if len(text) > MAX_INPUT_CHARACTERS:
        raise bad_request(f"{where} must be at most {MAX_INPUT_CHARACTERS} characters")
    return text


def _turn(item, where, roles):
    message = Body(item, where + ".")
    role = message.one_of("role", roles)
    return {"role": role, "content": _text_of(item.get("content"), where + ".content")}


def _openai_turns(messages, field="messages"):
    """(instructions, turns) of an OpenAI conversation: system and developer messages are the
    instructions."""
    if len(messages) > MAX_MESSAGES:
        raise bad_request(f"{field} must hold at most {MAX_MESSAGES} messages")
    instructions, turns = [], []
    for index, item in enumerate(messages):
        where = f"{field}[{index}]"
        role = Body(item, where + ".").one_of("role", ("system", "developer", "user", "assistant"))
        if role in ("system", "developer"):
            instructions.append(_text_of(item.get("content"), where + ".content"))
        else:
            turns.append(_turn(item, where, ("user", "assistant")))
    if not turns:
        raise bad_request(f"{field} must hold at least one user message")
    return ("\n\n".join(instructions) or None), turns
