"""The three provider protocols: the request each expects, and what is read from its answer,
whole or streamed. Pure functions and small accumulators; the calls themselves are in calls.py.

What is read from any answer is an `Outcome`: the text, the tool calls (name and arguments,
the arguments as the provider sent them), the token counts the provider reported, the
finish reason and the provider's id for the answer.
"""

import dataclasses
import itertools
import json

from . import conversation
from .lanes import ANTHROPIC_MESSAGES, OPENAI_CHAT

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


_call_serial = itertools.count(1)


def _call_id(value):
    """A provider's id for a tool call, or one of ours when it sent none: the caller needs one
    to answer the call with its result."""
    return value if isinstance(value, str) and value else f"call_{next(_call_serial)}"


@dataclasses.dataclass
class ToolCallOut:
    name: str
    arguments: object  # a JSON text (OpenAI) or an object (Anthropic)
    id: str = dataclasses.field(default_factory=lambda: _call_id(None))


@dataclasses.dataclass
class Outcome:
    text: str = ""
    tool_calls: list = dataclasses.field(default_factory=list)
    input_tokens: int = 0
    output_tokens: int = 0
    finish_reason: str | None = None
    upstream_id: str | None = None
    error: tuple | None = None  # (failure class, message) reported inside a stream


# What a stream carried since it was last asked, in the order it came: `("text", piece)`,
# `("tool", ordinal, id, name)` when a tool call begins, `("arguments", ordinal, piece)`.
TEXT_DELTA = "text"
TOOL_DELTA = "tool"
ARGUMENTS_DELTA = "arguments"


def _count(value):
    return value if isinstance(value, int) and not isinstance(value, bool) and value >= 0 else 0


def _take_usage(outcome, usage, input_key="input_tokens", output_key="output_tokens"):
    """Copies the token counts of a usage object (OpenAI Chat names them prompt and completion)."""
    usage = usage or {}
    outcome.input_tokens, outcome.output_tokens = _count(usage.get(input_key)), _count(usage.get(output_key))


# Requests.

def turns_of(text):
    """A prompt as turns: a plain text is one user turn; a conversation is already turns
    (`{role: "user"|"assistant", content: text}`, oldest first)."""
    return [{"role": "user", "content": text}] if isinstance(text, str) else list(text)


def build_request(lane, key, text, instructions, max_output_tokens, tools, stream, parameters=None):
    """(headers, body) of one request to `lane` in its protocol; `text` is a prompt or a
    conversation (see `turns_of` and conversation.py). `parameters` may hold `temperature`,
    `top_p` and `response_format` ({"type": ...}), each sent in the protocol's own spelling;
    Anthropic Messages has no response format, so none is sent there."""
    protocol = lane.protocol_name
    turns = turns_of(text)
    if protocol == ANTHROPIC_MESSAGES:
        headers = {"x-api-key": key, "anthropic-version": ANTHROPIC_VERSION}
        body = {"model": lane.upstream_model, "max_tokens": max_output_tokens,
                "messages": conversation.anthropic_messages(turns)}
        if instructions:
            body["system"] = instructions
        if tools:
            body["tools"] = conversation.anthropic_tools(tools)
    elif protocol == OPENAI_CHAT:
        headers = {"Authorization": f"Bearer {key}"}
        messages = [{"role": "system", "content": instructions}] if instructions else []
        body = {"model": lane.upstream_model, "max_completion_tokens": max_output_tokens,
                "messages": messages + conversation.openai_chat_messages(turns)}
        if tools:
            body["tools"] = tools
        if stream:
            body["stream_options"] = {"include_usage": True}
    else:
        headers = {"Authorization": f"Bearer {key}"}
        body = {"model": lane.upstream_model, "max_output_tokens": max_output_tokens,
                "input": text if isinstance(text, str) else conversation.responses_input(turns)}
        if instructions:
            body["instructions"] = instructions
        if tools:
            body["tools"] = conversation.responses_tools(tools)
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
                outcome.tool_calls.append(ToolCallOut(block.get("name") or "", block.get("input"),
                                                      _call_id(block.get("id"))))
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
            outcome.tool_calls.append(ToolCallOut(function.get("name") or "", function.get("arguments"),
                                                  _call_id(call.get("id"))))
        _take_usage(outcome, body.get("usage"), "prompt_tokens", "completion_tokens")
        return outcome
    outcome = Outcome(upstream_id=body.get("id"), finish_reason=body.get("status"))
    for item in body.get("output") or []:
        if item.get("type") == "message":
            for part in item.get("content") or []:
                if part.get("type") == "output_text":
                    outcome.text += part.get("text") or ""
        elif item.get("type") == "function_call":
            outcome.tool_calls.append(ToolCallOut(item.get("name") or "", item.get("arguments"),
                                                  _call_id(item.get("call_id"))))
    _take_usage(outcome, body.get("usage"))
    return outcome


# Streamed answers.

class StreamReader:
    """Reads one protocol's server-sent events line by line into an Outcome, and keeps what
    each line carried (`deltas`) for a caller that passes the answer on as it comes."""

    def __init__(self, protocol):
        self.protocol = protocol
        self.outcome = Outcome()
        self.done = False
        self.deltas = []
        self._event = None
        self._tools = {}  # the provider's index for a call -> [ordinal, id, name, argument text]

    def take_deltas(self):
        deltas, self.deltas = self.deltas, []
        return deltas

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

    def _text(self, piece):
        if not piece:
            return False
        self.outcome.text += piece
        self.deltas.append((TEXT_DELTA, piece))
        return True

    def _begin_tool(self, index, call_id, name):
        entry = self._tools.get(index)
        if entry is None:
            entry = self._tools[index] = [len(self._tools), _call_id(call_id), name or "", ""]
            self.deltas.append((TOOL_DELTA, entry[0], entry[1], entry[2]))
        return entry

    def _arguments(self, index, piece):
        entry = self._tools.get(index)
        if entry is None or not piece:
            return False
        entry[3] += piece
        self.deltas.append((ARGUMENTS_DELTA, entry[0], piece))
        return True

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
                self._begin_tool(event.get("index"), block.get("id"), block.get("name"))
                return True
        elif kind == "content_block_delta":
            delta = event.get("delta") or {}
            if delta.get("type") == "text_delta":
                return self._text(delta.get("text"))
            if delta.get("type") == "input_json_delta":
                return self._arguments(event.get("index"), delta.get("partial_json"))
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
            carried = self._text(delta.get("content")) or carried
            for call in delta.get("tool_calls") or []:
                function = call.get("function") or {}
                index = call.get("index", 0)
                if index not in self._tools:
                    self._begin_tool(index, call.get("id"), function.get("name"))
                    carried = True
                carried = self._arguments(index, function.get("arguments")) or carried
            if choice.get("finish_reason"):
                outcome.finish_reason = choice["finish_reason"]
                self._close_tools()
        return carried

    def _responses(self, kind, event):
        outcome = self.outcome
        if kind == "response.output_text.delta":
            return self._text(event.get("delta"))
        if kind == "response.output_item.added":
            item = event.get("item") or {}
            if item.get("type") == "function_call":
                self._begin_tool(event.get("output_index"), item.get("call_id"), item.get("name"))
                return True
        elif kind == "response.function_call_arguments.delta":
            return self._arguments(event.get("output_index"), event.get("delta"))
        elif kind == "response.output_item.done":
            item = event.get("item") or {}
            if item.get("type") == "function_call":
                entry = self._tools.pop(event.get("output_index"), None)
                call_id = entry[1] if entry is not None else _call_id(item.get("call_id"))
                outcome.tool_calls.append(ToolCallOut(item.get("name") or "", item.get("arguments"), call_id))
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
        for _, call_id, name, arguments in sorted(self._tools.values()):
            self.outcome.tool_calls.append(ToolCallOut(name, arguments, call_id))
        self._tools.clear()
