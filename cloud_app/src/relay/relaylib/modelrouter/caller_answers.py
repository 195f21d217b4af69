"""The gateway's answers in each caller's protocol: whole, or as that protocol's server-sent
events, written as a provider's stream comes in (or at once from a finished answer).

A writer is made when the lane that answers is known. Its `deltas` takes what a provider's
stream carried (see protocols.StreamReader); `finish` closes the answer with the completion's
usage and finish reason; `fail` ends a stream that has begun with the protocol's error event.
Each returns the bytes to send.
"""

import json

from .. import clock
from . import conversation
from .protocols import ARGUMENTS_DELTA, TEXT_DELTA, TOOL_DELTA

# Why an answer ended, in words every protocol has one of.
STOPPED = "stop"
LENGTH = "length"
TOOLS = "tools"
_LENGTH_REASONS = frozenset({"max_tokens", "length", "incomplete", "max_output_tokens"})
_OPENAI_FINISH = {STOPPED: "stop", LENGTH: "length", TOOLS: "tool_calls"}
_ANTHROPIC_STOP = {STOPPED: "end_turn", LENGTH: "max_tokens", TOOLS: "tool_use"}


def ending(outcome):
    if outcome.finish_reason in _LENGTH_REASONS:
        return LENGTH
    return TOOLS if outcome.tool_calls else STOPPED


def compact(value):
    return json.dumps(value, separators=(",", ":"), ensure_ascii=False).encode("utf-8")


def outcome_deltas(outcome):
    """A finished answer as the deltas a stream of it would have carried."""
    deltas = [(TEXT_DELTA, outcome.text)] if outcome.text else []
    for ordinal, call in enumerate(outcome.tool_calls):
        deltas.append((TOOL_DELTA, ordinal, call.id, call.name))
        deltas.append((ARGUMENTS_DELTA, ordinal, conversation.arguments_text(call.arguments)))
    return deltas


class _Writer:
    def __init__(self, answer_id, model):
        self.answer_id = answer_id
        self.model = model
        self.carried = False  # whether any delta was written

    def deltas(self, deltas):
        out = []
        for delta in deltas:
            self.carried = True
            if delta[0] == TEXT_DELTA:
                out.append(self._text(delta[1]))
            elif delta[0] == TOOL_DELTA:
                out.append(self._tool(*delta[1:]))
            else:
                out.append(self._arguments(*delta[1:]))
        return b"".join(out)

    def finish(self, completion, outcome):
        """The rest of the answer: all of it when nothing was streamed (a lane that does not
        stream, or a replay), then its end."""
        head = b"" if self.carried else self.deltas(outcome_deltas(outcome))
        return head + self._end(completion, outcome)


# OpenAI Chat Completions.

def chat_usage(completion):
    usage = completion["usage"]
    return {"prompt_tokens": usage["input_tokens"], "completion_tokens": usage["output_tokens"],
            "total_tokens": usage["input_tokens"] + usage["output_tokens"]}


def chat_whole(completion, outcome):
    message = {"role": "assistant", "content": outcome.text if outcome.text or not outcome.tool_calls else None}
    if outcome.tool_calls:
        message["tool_calls"] = [{"id": call.id, "type": "function",
                                  "function": {"name": call.name,
                                               "arguments": conversation.arguments_text(call.arguments)}}
                                 for call in outcome.tool_calls]
    return {"id": "chatcmpl-" + completion["id"], "object": "chat.completion", "created": int(clock.now()),
            "model": completion["model"],
            "choices": [{"index": 0, "message": message, "logprobs": None,
                         "finish_reason": _OPENAI_FINISH[ending(outcome)]}],
            "usage": chat_usage(completion)}


class ChatStream(_Writer):
    def __init__(self, answer_id, model, include_usage):
        super().__init__("chatcmpl-" + answer_id, model)
        self.include_usage = include_usage
        self.created = int(clock.now())

    def _chunk(self, delta, finish=None, **extra):
        chunk = {"id": self.answer_id, "object": "chat.completion.chunk", "created": self.created,
                 "model": self.model, "choices": [{"index": 0, "delta": delta, "logprobs": None,
                                                   "finish_reason": finish}]}
        chunk.update(extra)
        return b"data: " + compact(chunk) + b"\n\n"

    def start(self):
        return self._chunk({"role": "assistant", "content": ""})

    def _text(self, piece):
        return self._chunk({"content": piece})

    def _tool(self, ordinal, call_id, name):
        return self._chunk({"tool_calls": [{"index": ordinal, "id": call_id, "type": "function",
                                            "function": {"name": name, "arguments": ""}}]})

    def _arguments(self, ordinal, piece):
        return self._chunk({"tool_calls": [{"index": ordinal, "function": {"arguments": piece}}]})

    def _end(self, completion, outcome):
        out = self._chunk({}, _OPENAI_FINISH[ending(outcome)])
        if self.include_usage:
            out += b"data: " + compact({"id": self.answer_id, "object": "chat.completion.chunk",
                                        "created": self.created, "model": self.model, "choices": [],
                                        "usage": chat_usage(completion)}) + b"\n\n"
        return out + b"data: [DONE]\n\n"

    def fail(self, body):
        return b"data: " + compact(body) + b"\n\n"


# Anthropic Messages.

def messages_usage(completion):
    return {"input_tokens": completion["usage"]["input_tokens"],
            "output_tokens": completion["usage"]["output_tokens"]}


def messages_whole(completion, outcome):
    content = [{"type": "text", "text": outcome.text}] if outcome.text or not outcome.tool_calls else []
    content += [{"type": "tool_use", "id": call.id, "name": call.name,
                 "input": conversation.arguments_object(call.arguments)} for call in outcome.tool_calls]
    return {"id": "msg_" + completion["id"], "type": "message", "role": "assistant", "model": completion["model"],
            "content": content, "stop_reason": _ANTHROPIC_STOP[ending(outcome)], "stop_sequence": None,
            "usage": messages_usage(completion)}


class MessagesStream(_Writer):
    def __init__(self, answer_id, model, input_tokens_estimate):
        super().__init__("msg_" + answer_id, model)
        self.input_tokens_estimate = input_tokens_estimate
        self.next_index = 0
        self.open_block = None  # (index, "text" or a tool's ordinal)
        self.tool_blocks = {}  # a tool call's ordinal -> its block's index

    @staticmethod
    def _event(name, value):
        return b"event: " + name.encode() + b"\ndata: " + compact(dict(type=name, **value)) + b"\n\n"

    def start(self):
        return self._event("message_start", {"message": {
            "id": self.answer_id, "type": "message", "role": "assistant", "model": self.model, "content": [],
            "stop_reason": None, "stop_sequence": None,
            "usage": {"input_tokens": self.input_tokens_estimate, "output_tokens": 0}}})

    def _open(self, block, key):
        out = self._close()
        index, self.next_index = self.next_index, self.next_index + 1
        self.open_block = (index, key)
        return out + self._event("content_block_start", {"index": index, "content_block": block})

    def _close(self):
        if self.open_block is None:
            return b""
        index, self.open_block = self.open_block[0], None
        return self._event("content_block_stop", {"index": index})

    def _text(self, piece):
        out = b""
        if self.open_block is None or self.open_block[1] != TEXT_DELTA:
            out = self._open({"type": "text", "text": ""}, TEXT_DELTA)
        return out + self._event("content_block_delta", {"index": self.open_block[0],
                                                         "delta": {"type": "text_delta", "text": piece}})

    def _tool(self, ordinal, call_id, name):
        out = self._open({"type": "tool_use", "id": call_id, "name": name, "input": {}}, ordinal)
        self.tool_blocks[ordinal] = self.open_block[0]
        return out

    def _arguments(self, ordinal, piece):
        return self._event("content_block_delta", {"index": self.tool_blocks[ordinal],
                                                   "delta": {"type": "input_json_delta", "partial_json": piece}})

    def _end(self, completion, outcome):
        out = b""
        if self.next_index == 0:
            out = self._open({"type": "text", "text": ""}, TEXT_DELTA)
        out += self._close()
        usage = messages_usage(completion)
        return out + self._event("message_delta", {
            "delta": {"stop_reason": _ANTHROPIC_STOP[ending(outcome)], "stop_sequence": None},
            "usage": usage}) + self._event("message_stop", {})

    def fail(self, body):
        return self._event("error", {"error": body["error"]})


# OpenAI Responses.

class ResponsesAnswer:
    """The fields a Responses answer repeats from its request."""

    def __init__(self, instructions, max_output):
        self.instructions = instructions
        self.max_output = max_output

    def response(self, answer_id, model, status, output, usage, tools):
        return {"id": "resp_" + answer_id, "object": "response", "created_at": int(clock.now()), "status": status,
                "model": model, "output": output, "error": None,
                "incomplete_details": {"reason": "max_output_tokens"} if status == "incomplete" else None,
                "instructions": self.instructions, "max_output_tokens": self.max_output,
                "parallel_tool_calls": False, "tools": tools, "tool_choice": "auto",
                "text": {"format": {"type": "text"}}, "usage": usage}


def responses_usage(completion):
    usage = completion["usage"]
    return {"input_tokens": usage["input_tokens"], "output_tokens": usage["output_tokens"],
            "total_tokens": usage["input_tokens"] + usage["output_tokens"],
            "input_tokens_details": {"cached_tokens": 0}, "output_tokens_details": {"reasoning_tokens": 0}}


def _message_item(item_id, text, status):
    return {"type": "message", "id": item_id, "status": status, "role": "assistant",
            "content": [{"type": "output_text", "text": text, "annotations": []}] if status == "completed" else []}


def _call_item(item_id, call_id, name, arguments, status):
    return {"type": "function_call", "id": item_id, "call_id": call_id, "name": name, "arguments": arguments,
            "status": status}


def responses_status(outcome):
    return "incomplete" if ending(outcome) == LENGTH else "completed"


def responses_whole(completion, outcome, shape, tools):
    output = [_message_item("msg_" + completion["id"], outcome.text, "completed")] \
        if outcome.text or not outcome.tool_calls else []
    output += [_call_item(f"fc_{completion['id']}_{ordinal}", call.id, call.name,
                          conversation.arguments_text(call.arguments), "completed")
               for ordinal, call in enumerate(outcome.tool_calls)]
    return shape.response(completion["id"], completion["model"], responses_status(outcome), output,
                          responses_usage(completion), tools)


class ResponsesStream(_Writer):
    def __init__(self, answer_id, model, shape, tools):
        super().__init__(answer_id, model)
        self.shape = shape
        self.tools = tools
        self.sequence = 0
        self.output = []  # the finished items
        self.open_item = None  # [kind, output index, item id, text or arguments, call id, name]
        self.tool_items = {}  # a tool call's ordinal -> the open item

    def _event(self, name, value):
        data = compact(dict(type=name, sequence_number=self.sequence, **value))
        self.sequence += 1
        return b"event: " + name.encode() + b"\ndata: " + data + b"\n\n"

    def start(self):
        pending = self.shape.response(self.answer_id, self.model, "in_progress", [], None, self.tools)
        return self._event("response.created", {"response": pending}) + \
            self._event("response.in_progress", {"response": pending})

    def _open(self, kind, item, call_id=None, name=None):
        out = self._close()
        self.open_item = [kind, len(self.output), item["id"], "", call_id, name]
        return out + self._event("response.output_item.added", {"output_index": self.open_item[1], "item": item})

    def _close(self):
        if self.open_item is None:
            return b""
        kind, index, item_id, content, call_id, name = self.open_item
        self.open_item = None
        if kind == TEXT_DELTA:
            part = {"type": "output_text", "text": content, "annotations": []}
            item = _message_item(item_id, content, "completed")
            out = self._event("response.output_text.done", {"item_id": item_id, "output_index": index,
                                                            "content_index": 0, "text": content}) + \
                self._event("response.content_part.done", {"item_id": item_id, "output_index": index,
                                                           "content_index": 0, "part": part})
        else:
            item = _call_item(item_id, call_id, name, content, "completed")
            out = self._event("response.function_call_arguments.done", {"item_id": item_id, "output_index": index,
                                                                        "arguments": content})
        self.output.append(item)
        return out + self._event("response.output_item.done", {"output_index": index, "item": item})

    def _text(self, piece):
        out = b""
        if self.open_item is None or self.open_item[0] != TEXT_DELTA:
            item_id = f"msg_{self.answer_id}_{len(self.output)}"
            out = self._open(TEXT_DELTA, _message_item(item_id, "", "in_progress"))
            out += self._event("response.content_part.added", {
                "item_id": item_id, "output_index": self.open_item[1], "content_index": 0,
                "part": {"type": "output_text", "text": "", "annotations": []}})
        self.open_item[3] += piece
        return out + self._event("response.output_text.delta", {"item_id": self.open_item[2],
                                                                "output_index": self.open_item[1],
                                                                "content_index": 0, "delta": piece})

    def _tool(self, ordinal, call_id, name):
        item_id = f"fc_{self.answer_id}_{ordinal}"
        out = self._open(TOOL_DELTA, _call_item(item_id, call_id, name, "", "in_progress"), call_id, name)
        self.tool_items[ordinal] = self.open_item
        return out

    def _arguments(self, ordinal, piece):
        item = self.tool_items[ordinal]
        item[3] += piece
        return self._event("response.function_call_arguments.delta", {"item_id": item[2], "output_index": item[1],
                                                                      "delta": piece})

    def _end(self, completion, outcome):
        # An empty answer is still one (empty) message, as a whole answer shows it.
        out = self._text("") if not self.output and self.open_item is None else b""
        out += self._close()
        status = responses_status(outcome)
        answer = self.shape.response(self.answer_id, self.model, status, self.output, responses_usage(completion),
                                     self.tools)
        return out + self._event("response.completed" if status == "completed" else "response.incomplete",
                                 {"response": answer})

    def fail(self, body):
        error = body["error"]
        return self._event("error", {"code": error.get("code"), "message": error.get("message"), "param": None})
