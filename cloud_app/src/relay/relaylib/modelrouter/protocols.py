"""The three provider protocols: the request each expects, and what is read from its answer,
whole or streamed. Pure functions and small accumulators; the calls themselves are in calls.py.

What is read from any answer is an `Outcome`: the text, the tool calls (name and arguments,
the arguments as the provider sent them), the token counts the provider reported, the
finish reason and the provider's id for the answer.
"""

import dataclasses
import json

from .lanes import ANTHROPIC_MESSAGES, OPENAI_CHAT, OPENAI_RESPONSES

ANTHROPIC_VERSION = "2023-06-01"

# Failure classes: how an attempt failed, which decides whether another lane is tried.
RATE_LIMITED = "rate_limited"
OVERLOADED = "overloaded"
SERVER_ERROR = "server_error"
TIMEOUT = "timeout"
UNREACHABLE = "unreachable"
REFUSED = "refused"
BAD_REQUEST = "bad_request"
EMPTY = "empty_completion"
# A request the provider called malformed would be malformed for every lane: no fallback.
NOT_RETRYABLE = frozenset({BAD_REQUEST})


def classify_status(status):
    """The failure class of an HTTP status a provider answered with."""
    if status == 429:
        return RATE_LIMITED
    if status in (503, 529):
        return OVERLOADED
    if status in (401, 403):
        return REFUSED
    if status == 408 or status == 504:
        return TIMEOUT
    if status >= 500:
        return SERVER_ERROR
    return BAD_REQUEST


def classify_error_type(kind):
    """The failure class of an error reported inside a stream, from the provider's error type."""
    kind = (kind or "").lower()
    if "rate" in kind:
        return RATE_LIMITED
    if "overload" in kind or "unavailable" in kind:
        return OVERLOADED
    if "auth" in kind or "permission" in kind:
        return REFUSED
    if "invalid" in kind:
        return BAD_REQUEST
    return SERVER_ERROR


@dataclasses.dataclass
class ToolCallOut:
    name: str
    arguments: object  # a JSON text (OpenAI) or an object (Anthropic)


@dataclasses.dataclass
class Outcome:
    text: str = ""
    tool_calls: list = dataclasses.field(default_factory=list)
    input_tokens: int = 0
    output_tokens: int = 0
    finish_reason: str | None = None
    upstream_id: str | None = None
    error: tuple | None = None  # (failure class, message) reported inside a stream


def _count(value):
    return value if isinstance(value, int) and not isinstance(value, bool) and value >= 0 else 0


def _take_usage(outcome, usage, input_key="input_tokens", output_key="output_tokens"):
    """Copies the token counts of a usage object (OpenAI Chat names them prompt and completion)."""
    usage = usage or {}
    outcome.input_tokens, outcome.output_tokens = _count(usage.get(input_key)), _count(usage.get(output_key))


# Requests.

def build_request(lane, key, text, instructions, max_output_tokens, tools, stream, parameters=None):
    """(headers, body) of one request to `lane` in its protocol. `parameters` may hold
    `temperature`, `top_p` and `response_format` ({"type": ...}), each sent in the protocol's
    own spelling; Anthropic Messages has no response format, so none is sent there."""
    protocol = lane.protocol_name
    if protocol == ANTHROPIC_MESSAGES:
        headers = {"x-api-key": key, "anthropic-version": ANTHROPIC_VERSION}
        body = {"model": lane.upstream_model, "max_tokens": max_output_tokens,
                "messages": [{"role": "user", "content": text}]}
        if instructions:
            body["system"] = instructions
        if tools:
            body["tools"] = [{"name": tool["function"]["name"], "input_schema": tool["function"]["parameters"]}
                             for tool in tools]
    elif protocol == OPENAI_CHAT:
        headers = {"Authorization": f"Bearer {key}"}
        messages = [{"role": "system", "content": instructions}] if instructions else []
        body = {"model": lane.upstream_model, "max_completion_tokens": max_output_tokens,
                "messages": messages + [{"role": "user", "content": text}]}
        if tools:
            body["tools"] = tools
        if stream:
            body["stream_options"] = {"include_usage": True}
    else:
        headers = {"Authorization": f"Bearer {key}"}
        body = {"model": lane.upstream_model, "max_output_tokens": max_output_tokens, "input": text}
        if instructions:
            body["instructions"] = instructions
        if tools:
            body["tools"] = [dict(tool["function"], type="function") for tool in tools]
    _add_parameters(protocol, body, parameters or {})
    if stream:
        body["stream"] = True
    return headers, body


def _add_parameters(protocol, body, parameters):
    for name in ("temperature", "top_p"):
        if name in parameters:
            body[name] = parameters[name]
    response_format = parameters.get("response_format")
    if response_format is None or protocol == ANTHROPIC_MESSAGES:
        return
    if protocol == OPENAI_CHAT:
        body["response_format"] = response_format
    else:
        shape = {"type": response_format["type"]}
        if "json_schema" in response_format:
            shape.update(response_format["json_schema"])
        body["text"] = {"format": shape}


# Whole answers.

def parse_whole(protocol, body):
    """The outcome of a whole (not streamed) answer; raises ValueError when it has not the shape."""
    if not isinstance(body, dict):
        raise ValueError("the answer is not a JSON object")
    if protocol == ANTHROPIC_MESSAGES:
        outcome = Outcome(upstream_id=body.get("id"), finish_reason=body.get("stop_reason"))
        for block in body.get("content") or []:
            if block.get("type") == "text":
                outcome.text += block.get("text") or ""
            elif block.get("type") == "tool_use":
                outcome.tool_calls.append(ToolCallOut(block.get("name") or "", block.get("input")))
        _take_usage(outcome, body.get("usage"))
        return outcome
    if protocol == OPENAI_CHAT:
        choices = body.get("choices")
        if not isinstance(choices, list) or not choices:
            raise ValueError("the answer has no choices")
        message = choices[0].get("message") or {}
        outcome = Outcome(text=message.get("content") or "", upstream_id=body.get("id"),
                          finish_reason=choices[0].get("finish_reason"))
        for call in message.get("tool_calls") or []:
            function = call.get("function") or {}
            outcome.tool_calls.append(ToolCallOut(function.get("name") or "", function.get("arguments")))
        _take_usage(outcome, body.get("usage"), "prompt_tokens", "completion_tokens")
        return outcome
    outcome = Outcome(upstream_id=body.get("id"), finish_reason=body.get("status"))
    for item in body.get("output") or []:
        if item.get("type") == "message":
            for part in item.get("content") or []:
                if part.get("type") == "output_text":
                    outcome.text += part.get("text") or ""
        elif item.get("type") == "function_call":
            outcome.tool_calls.append(ToolCallOut(item.get("name") or "", item.get("arguments")))
    _take_usage(outcome, body.get("usage"))
    return outcome


# Streamed answers.

class StreamReader:
    """Reads one protocol's server-sent events line by line into an Outcome."""

    def __init__(self, protocol):
        self.protocol = protocol
        self.outcome = Outcome()
        self.first_text_seen = False
        self.done = False
        self._event = None
        self._tools = {}  # index -> [name, argument text or object]

    def feed(self, line):
        """Takes one line (bytes, without its end); returns True when it carried output."""
        if line.startswith(b"event:"):
            self._event = line[6:].strip().decode("utf-8", "replace")
            return False
        if not line.startswith(b"data:"):
            return False
        data = line[5:].strip()
        if data == b"[DONE]":
            self.done = True
            return False
        try:
            event = json.loads(data)
        except ValueError:
            return False
        if not isinstance(event, dict):
            return False
        kind = event.get("type") or self._event
        if self.protocol == ANTHROPIC_MESSAGES:
            return self._anthropic(kind, event)
        if self.protocol == OPENAI_CHAT:
            return self._chat(event)
        return self._responses(kind, event)

    def _fail(self, error):
        error = error if isinstance(error, dict) else {}
        self.outcome.error = (classify_error_type(error.get("type") or error.get("code")),
                              "the provider reported an error in its stream")
        self.done = True
        return False

    def _anthropic(self, kind, event):
        outcome = self.outcome
        if kind == "message_start":
            message = event.get("message") or {}
            outcome.upstream_id = message.get("id")
            outcome.input_tokens = _count((message.get("usage") or {}).get("input_tokens"))
        elif kind == "content_block_start":
            block = event.get("content_block") or {}
            if block.get("type") == "tool_use":
                self._tools[event.get("index")] = [block.get("name") or "", ""]
        elif kind == "content_block_delta":
            delta = event.get("delta") or {}
            if delta.get("type") == "text_delta":
                outcome.text += delta.get("text") or ""
                return True
            if delta.get("type") == "input_json_delta" and event.get("index") in self._tools:
                self._tools[event.get("index")][1] += delta.get("partial_json") or ""
                return True
        elif kind == "message_delta":
            outcome.finish_reason = (event.get("delta") or {}).get("stop_reason")
            outcome.output_tokens = _count((event.get("usage") or {}).get("output_tokens"))
        elif kind == "message_stop":
            self._close_tools()
            self.done = True
        elif kind == "error":
            return self._fail(event.get("error"))
        return False

    def _chat(self, event):
        outcome = self.outcome
        if "error" in event and not event.get("choices"):
            return self._fail(event.get("error"))
        outcome.upstream_id = outcome.upstream_id or event.get("id")
        if isinstance(event.get("usage"), dict):
            _take_usage(outcome, event["usage"], "prompt_tokens", "completion_tokens")
        carried = False
        for choice in event.get("choices") or []:
            delta = choice.get("delta") or {}
            if delta.get("content"):
                outcome.text += delta["content"]
                carried = True
            for call in delta.get("tool_calls") or []:
                entry = self._tools.setdefault(call.get("index", 0), ["", ""])
                function = call.get("function") or {}
                entry[0] = entry[0] or function.get("name") or ""
                entry[1] += function.get("arguments") or ""
                carried = True
            if choice.get("finish_reason"):
                outcome.finish_reason = choice["finish_reason"]
                self._close_tools()
        return carried

    def _responses(self, kind, event):
        outcome = self.outcome
        if kind == "response.output_text.delta":
            outcome.text += event.get("delta") or ""
            return True
        if kind == "response.function_call_arguments.delta":
            return True
        if kind == "response.output_item.done":
            item = event.get("item") or {}
            if item.get("type") == "function_call":
                outcome.tool_calls.append(ToolCallOut(item.get("name") or "", item.get("arguments")))
        elif kind in ("response.created", "response.in_progress"):
            outcome.upstream_id = (event.get("response") or {}).get("id")
        elif kind in ("response.completed", "response.incomplete", "response.failed"):
            response = event.get("response") or {}
            _take_usage(outcome, response.get("usage"))
            outcome.finish_reason = response.get("status")
            self.done = True
            if kind == "response.failed":
                return self._fail(response.get("error"))
        elif kind == "error":
            return self._fail({"type": event.get("code")})
        return False

    def _close_tools(self):
        for index in sorted(self._tools, key=lambda key: (key is None, key)):
            name, arguments = self._tools[index]
            self.outcome.tool_calls.append(ToolCallOut(name, arguments))
        self._tools.clear()
