"""What the fake model provider says, in each protocol's own words: bodies, stream events, errors.

Builders take an `Answer` (the facts of one reply that every protocol spells its
own way) and return the whole JSON body, or the list of server-sent events, as
the official SDKs and the agent CLIs parse them.
"""

import itertools
import json
import re

OPENAI_RESPONSES = "openai_responses"
OPENAI_CHAT = "openai_chat"
ANTHROPIC_MESSAGES = "anthropic_messages"

DEFAULT_MODEL = "fake-model"
# Anthropic answers an overloaded service with this status; the OpenAI protocols answer 503.
OVERLOADED = 529
# Streamed text goes out a word at a time, the way real providers cut their deltas.
WORD_PATTERN = re.compile(r"\S+\s*|\s+")


# One compact encoder for every body and event: json.dumps with options builds a new encoder per call,
# which a streamed answer of a dozen events pays a dozen times.
_ENCODER = json.JSONEncoder(separators=(",", ":"))


def dumps(value):
    return _ENCODER.encode(value)


def estimate_tokens(size):
    """A cheap token count for a body of `size` bytes or characters: about four to a token."""
    return size // 4 + 1


# ---------------------------------------------------------------------------
# Error bodies, one shape per protocol, as the official SDKs read them.

_OPENAI_ERRORS = {
    400: ("invalid_request_error", None, "Invalid request."),
    401: ("invalid_request_error", "invalid_api_key", "Incorrect API key provided."),
    403: ("permission_denied", None, "Permission denied."),
    404: ("invalid_request_error", "not_found", "Not found."),
    429: ("requests", "rate_limit_exceeded", "Rate limit reached for requests."),
    500: ("server_error", None, "The server had an error while processing your request."),
    503: ("server_error", "service_unavailable", "The service is temporarily unavailable."),
    OVERLOADED: ("server_error", "overloaded", "The engine is currently overloaded, please try again later."),
}
_ANTHROPIC_ERRORS = {
    400: ("invalid_request_error", "Invalid request."),
    401: ("authentication_error", "invalid x-api-key"),
    403: ("permission_error", "Permission denied."),
    404: ("not_found_error", "Not found."),
    413: ("request_too_large", "Request exceeds the maximum allowed number of bytes."),
    429: ("rate_limit_error", "Number of requests has exceeded your rate limit."),
    500: ("api_error", "Internal server error"),
    503: ("api_error", "Service unavailable"),
    OVERLOADED: ("overloaded_error", "Overloaded"),
}


def error_status(protocol, status):
    """The HTTP status the fake sends for a scripted one: OpenAI says 503 where Anthropic says 529."""
    if status == OVERLOADED and protocol != ANTHROPIC_MESSAGES:
        return 503
    return status


def error_body(protocol, status, message="", request_id=""):
    """The protocol's JSON error object for `status`."""
    if protocol == ANTHROPIC_MESSAGES:
        kind, default = _ANTHROPIC_ERRORS.get(status, ("api_error", "Error"))
        return {"type": "error", "error": {"type": kind, "message": message or default}, "request_id": request_id}
    kind, code, default = _OPENAI_ERRORS.get(status, ("server_error", None, "Error"))
    return {"error": {"message": message or default, "type": kind, "param": None, "code": code}}


# ---------------------------------------------------------------------------
# Answers. Each builder returns the complete JSON (not streamed) or the list of
# server-sent events (streamed); `chunks` are the text pieces of the stream.

class Answer:
    """The facts of one answer that all three protocols spell in their own way."""

    __slots__ = ("reply", "model", "serial", "input_tokens", "output_tokens", "calls")

    def __init__(self, reply, model, serial, request_size):
        self.reply = reply
        self.model = reply.model or model or DEFAULT_MODEL
        self.serial = serial
        self.calls = [(call, json.dumps(call.arguments)) for call in reply.tool_calls]
        self.input_tokens = reply.input_tokens if reply.input_tokens is not None else estimate_tokens(request_size)
        if reply.output_tokens is not None:
            self.output_tokens = reply.output_tokens
        else:
            self.output_tokens = estimate_tokens(len(reply.text) + sum(len(args) for _, args in self.calls))

    def call_id(self, call, index, prefix):
        return call.call_id or f"{prefix}{self.serial}_{index}"

    def chunks(self):
        return WORD_PATTERN.findall(self.reply.text)


def _sse(event, data):
    return f"event: {event}\ndata: {dumps(data)}\n\n".encode()


def _data_line(data):
    return f"data: {dumps(data)}\n\n".encode()


# Anthropic Messages.

def anthropic_message(answer):
    content = []
    if answer.reply.text:
        content.append({"type": "text", "text": answer.reply.text})
    for index, (call, _) in enumerate(answer.calls):
        content.append({"type": "tool_use", "id": answer.call_id(call, index, "toolu_fake"),
                        "name": call.name, "input": call.arguments})
    return {
        "id": f"msg_fake{answer.serial}", "type": "message", "role": "assistant", "model": answer.model,
        "content": content, "stop_reason": "tool_use" if answer.calls else "end_turn", "stop_sequence": None,
        "usage": {"input_tokens": answer.input_tokens, "output_tokens": answer.output_tokens,
                  "cache_creation_input_tokens": 0, "cache_read_input_tokens": 0},
    }


def anthropic_events(answer):
    message = anthropic_message(answer)
    start = dict(message, content=[], stop_reason=None,
                 usage=dict(message["usage"], output_tokens=1))
    events = [_sse("message_start", {"type": "message_start", "message": start})]
    index = 0
    if answer.reply.text:
        events.append(_sse("content_block_start", {"type": "content_block_start", "index": 0,
                                                   "content_block": {"type": "text", "text": ""}}))
        for piece in answer.chunks():
            events.append(_sse("content_block_delta", {"type": "content_block_delta", "index": 0,
                                                       "delta": {"type": "text_delta", "text": piece}}))
        events.append(_sse("content_block_stop", {"type": "content_block_stop", "index": 0}))
        index = 1
    for block in message["content"][index:]:
        events.append(_sse("content_block_start", {"type": "content_block_start", "index": index,
                                                   "content_block": dict(block, input={})}))
        events.append(_sse("content_block_delta", {"type": "content_block_delta", "index": index, "delta": {
            "type": "input_json_delta", "partial_json": json.dumps(block["input"])}}))
        events.append(_sse("content_block_stop", {"type": "content_block_stop", "index": index}))
        index += 1
    events.append(_sse("message_delta", {"type": "message_delta",
                                         "delta": {"stop_reason": message["stop_reason"], "stop_sequence": None},
                                         "usage": {"output_tokens": answer.output_tokens}}))
    events.append(_sse("message_stop", {"type": "message_stop"}))
    return events


def anthropic_stream_error(status, message):
    return _sse("error", error_body(ANTHROPIC_MESSAGES, status, message))


# OpenAI Chat Completions.

def chat_completion(answer, created):
    message = {"role": "assistant", "content": answer.reply.text or None, "refusal": None}
    if answer.calls:
        message["tool_calls"] = [
            {"id": answer.call_id(call, index, "call_fake"), "type": "function",
             "function": {"name": call.name, "arguments": arguments}}
            for index, (call, arguments) in enumerate(answer.calls)]
    return {
        "id": f"chatcmpl-fake{answer.serial}", "object": "chat.completion", "created": created,
        "model": answer.model, "system_fingerprint": None,
        "choices": [{"index": 0, "message": message, "logprobs": None,
                     "finish_reason": "tool_calls" if answer.calls else "stop"}],
        "usage": _chat_usage(answer),
    }


def _chat_usage(answer):
    return {"prompt_tokens": answer.input_tokens, "completion_tokens": answer.output_tokens,
            "total_tokens": answer.input_tokens + answer.output_tokens}


def chat_events(answer, created, include_usage):
    head = {"id": f"chatcmpl-fake{answer.serial}", "object": "chat.completion.chunk", "created": created,
            "model": answer.model, "system_fingerprint": None}

    def chunk(delta, finish_reason=None):
        return _data_line(dict(head, choices=[{"index": 0, "delta": delta, "logprobs": None,
                                               "finish_reason": finish_reason}]))

    events = [chunk({"role": "assistant", "content": ""})]
    events.extend(chunk({"content": piece}) for piece in answer.chunks())
    for index, (call, arguments) in enumerate(answer.calls):
        events.append(chunk({"tool_calls": [{"index": index, "id": answer.call_id(call, index, "call_fake"),
                                             "type": "function",
                                             "function": {"name": call.name, "arguments": ""}}]}))
        events.append(chunk({"tool_calls": [{"index": index, "function": {"arguments": arguments}}]}))
    events.append(chunk({}, "tool_calls" if answer.calls else "stop"))
    if include_usage:
        events.append(_data_line(dict(head, choices=[], usage=_chat_usage(answer))))
    events.append(b"data: [DONE]\n\n")
    return events


def chat_stream_error(status, message):
    return _data_line(error_body(OPENAI_CHAT, status, message))


# OpenAI Responses.

def _responses_items(answer):
    items = []
    if answer.reply.text:
        items.append({"type": "message", "id": f"msg_fake{answer.serial}", "status": "completed",
                      "role": "assistant",
                      "content": [{"type": "output_text", "text": answer.reply.text, "annotations": []}]})
    for index, (call, arguments) in enumerate(answer.calls):
        items.append({"type": "function_call", "id": f"fc_fake{answer.serial}_{index}",
                      "call_id": answer.call_id(call, index, "call_fake"), "name": call.name,
                      "arguments": arguments, "status": "completed"})
    return items


def responses_object(answer, created, status="completed", output=None):
    return {
        "id": f"resp_fake{answer.serial}", "object": "response", "created_at": created, "status": status,
        "model": answer.model, "output": _responses_items(answer) if output is None else output,
        "error": None, "incomplete_details": None, "instructions": None, "metadata": {},
        "parallel_tool_calls": True, "temperature": None, "tool_choice": "auto", "tools": [], "top_p": None,
        "usage": None if status != "completed" else {
            "input_tokens": answer.input_tokens, "input_tokens_details": {"cached_tokens": 0},
            "output_tokens": answer.output_tokens, "output_tokens_details": {"reasoning_tokens": 0},
            "total_tokens": answer.input_tokens + answer.output_tokens},
    }


def responses_events(answer, created):
    sequence = itertools.count()

    def event(kind, **data):
        return _sse(kind, dict(type=kind, sequence_number=next(sequence), **data))

    events = [event("response.created", response=responses_object(answer, created, "in_progress", [])),
              event("response.in_progress", response=responses_object(answer, created, "in_progress", []))]
    for index, item in enumerate(_responses_items(answer)):
        if item["type"] == "message":
            part = item["content"][0]
            events.append(event("response.output_item.added", output_index=index,
                                item=dict(item, status="in_progress", content=[])))
            events.append(event("response.content_part.added", item_id=item["id"], output_index=index,
                                content_index=0, part=dict(part, text="")))
            events.extend(event("response.output_text.delta", item_id=item["id"], output_index=index,
                                content_index=0, delta=piece, logprobs=[]) for piece in answer.chunks())
            events.append(event("response.output_text.done", item_id=item["id"], output_index=index,
                                content_index=0, text=part["text"], logprobs=[]))
            events.append(event("response.content_part.done", item_id=item["id"], output_index=index,
                                content_index=0, part=part))
        else:
            events.append(event("response.output_item.added", output_index=index,
                                item=dict(item, status="in_progress", arguments="")))
            events.append(event("response.function_call_arguments.delta", item_id=item["id"],
                                output_index=index, delta=item["arguments"]))
            events.append(event("response.function_call_arguments.done", item_id=item["id"],
                                output_index=index, arguments=item["arguments"]))
        events.append(event("response.output_item.done", output_index=index, item=item))
    events.append(event("response.completed", response=responses_object(answer, created)))
    return events


def responses_stream_error(status, message):
    body = error_body(OPENAI_RESPONSES, status, message)["error"]
    return _sse("error", {"type": "error", "code": body["code"] or body["type"], "message": body["message"],
                          "param": None, "sequence_number": 0})


STREAM_ERRORS = {
    ANTHROPIC_MESSAGES: anthropic_stream_error,
    OPENAI_CHAT: chat_stream_error,
    OPENAI_RESPONSES: responses_stream_error,
}
