"""What a caller of the gateway asks, read from its own protocol's request body into the
relay's neutral conversation (see conversation.py): OpenAI Chat Completions, OpenAI Responses
and Anthropic Messages. Each fails with a 400 that names the field.

Parts of a request that change only how a provider samples (temperature, stop sequences, a
caller's metadata) are not forwarded: the route decides the lane, and lanes differ in what they
accept. Content that only one provider understands (images, documents, server-side tools, a
model's signed reasoning) is refused by name rather than dropped unseen, except reasoning that
the caller's earlier answers carried: it is the model's own scratch and no other lane can read it.
"""

import dataclasses
import json

from ..errors import bad_request
from ..jsonio import Body

MAX_NAME = 200
# Agent CLIs declare a few dozen tools, more with extensions; a provider refuses far more.
MAX_TOOLS = 128
MAX_MESSAGES = 10_000
MAX_INPUT_CHARACTERS = 4_000_000
# What a caller gets when it names no output limit (OpenAI's chat clients need not).
DEFAULT_MAX_OUTPUT_TOKENS = 4096
MAX_OUTPUT_TOKENS = 1_000_000

_TEXT_PARTS = ("text", "input_text", "output_text")
# Blocks of an earlier answer that only the model that wrote them can use.
_REASONING_BLOCKS = ("thinking", "redacted_thinking", "reasoning")


@dataclasses.dataclass
class CallerRequest:
    model: str
    instructions: str | None
    turns: list
    tools: list | None
    max_output: int
    stream: bool
    include_usage: bool = False  # OpenAI Chat streams: a last chunk with the usage


def text_of(content, where):
    """Text content: a string, or a list of text parts (`{type: "text", text}`) joined."""
    if isinstance(content, str):
        text = content
    elif isinstance(content, list):
        parts = []
        for index, part in enumerate(content):
            item = Body(part, f"{where}[{index}].")
            kind = item.string("type")
            if kind not in _TEXT_PARTS:
                raise bad_request(f"{where}[{index}].type {kind} is not supported by this relay yet; send text")
            parts.append(item.string("text"))
        text = "\n".join(parts)
    elif content is None:
        text = ""
    else:
        raise bad_request(f"{where} must be a string or an array of text parts")
    if len(text) > MAX_INPUT_CHARACTERS:
        raise bad_request(f"{where} must be at most {MAX_INPUT_CHARACTERS} characters")
    return text


def _tool(name, description, parameters, where):
    """One declared tool in the neutral (OpenAI Chat) form."""
    if parameters is None:
        parameters = {"type": "object", "properties": {}}
    elif not isinstance(parameters, dict):
        raise bad_request(f"{where}parameters must be a JSON object")
    function = {"name": name, "parameters": parameters}
    if description:
        function["description"] = description
    return {"type": "function", "function": function}


def _check_tool_count(tools):
    if len(tools) > MAX_TOOLS:
        raise bad_request(f"tools must hold at most {MAX_TOOLS} tools")


def chat_tools(body):
    """The tools of an OpenAI Chat request (`[{type: "function", function: {...}}]`), or None."""
    tools = body.array("tools", required=False)
    if not tools:
        return None
    _check_tool_count(tools)
    declared = []
    for index, tool in enumerate(tools):
        where = f"tools[{index}]."
        Body(tool, where).one_of("type", ("function",))
        function = Body(tool.get("function"), where + "function.")
        declared.append(_tool(function.string("name", non_empty=True, max_length=MAX_NAME),
                              function.string("description", required=False),
                              tool["function"].get("parameters"), where + "function."))
    return declared


def _only_automatic_tool_choice(body, automatic):
    """The relay lets the model choose among the tools; a caller that forces a choice is told so
    rather than served an answer that ignored what it asked."""
    choice = body.get("tool_choice")
    if choice is None or choice in automatic:
        return
    raise bad_request("tool_choice other than automatic is not supported by this relay yet")


def _max_output(body, *names):
    for name in names:
        value = body.integer(name, required=False, minimum=1, maximum=MAX_OUTPUT_TOKENS)
        if value is not None:
            return value
    return DEFAULT_MAX_OUTPUT_TOKENS


def _check_size(messages, field):
    if len(messages) > MAX_MESSAGES:
        raise bad_request(f"{field} must hold at most {MAX_MESSAGES} messages")


def _needs_user_turn(turns, field):
    if not any(turn["role"] in ("user", "tool") for turn in turns):
        raise bad_request(f"{field} must hold at least one user message")


# OpenAI Chat Completions.

def openai_chat(raw):
    body = Body(raw)
    model = body.string("model", non_empty=True, max_length=MAX_NAME)
    messages = body.array("messages")
    stream = bool(body.boolean("stream", required=False))
    include_usage = False
    if body.has("stream_options"):
        include_usage = bool(Body(raw["stream_options"], "stream_options.").boolean("include_usage",
                                                                                     required=False))
    tools = chat_tools(body)
    _only_automatic_tool_choice(raw, ("auto",))
    instructions, turns = chat_turns(messages)
    return CallerRequest(model, instructions, turns, tools, _max_output(body, "max_completion_tokens", "max_tokens"),
                         stream, include_usage)


def chat_turns(messages, field="messages"):
    """(instructions, turns) of an OpenAI Chat conversation: system and developer messages are
    the instructions."""
    _check_size(messages, field)
    instructions, turns = [], []
    for index, item in enumerate(messages):
        where = f"{field}[{index}]"
        message = Body(item, where + ".")
        role = message.one_of("role", ("system", "developer", "user", "assistant", "tool"))
        content = item.get("content")
        if role in ("system", "developer"):
            instructions.append(text_of(content, where + ".content"))
        elif role == "tool":
            turns.append({"role": "tool", "tool_call_id": message.string("tool_call_id", non_empty=True,
                                                                          max_length=MAX_NAME),
                          "content": text_of(content, where + ".content")})
        elif role == "assistant":
            turns.append(_assistant(text_of(content, where + ".content"),
                                    _chat_calls(message.array("tool_calls", required=False) or [], where)))
        else:
            turns.append({"role": "user", "content": text_of(content, where + ".content")})
    _needs_user_turn(turns, field)
    return ("\n\n".join(instructions) or None), turns


def _chat_calls(calls, where):
    read = []
    for index, call in enumerate(calls):
        item = Body(call, f"{where}.tool_calls[{index}].")
        function = Body(call.get("function"), f"{where}.tool_calls[{index}].function.")
        read.append({"id": item.string("id", non_empty=True, max_length=MAX_NAME),
                     "name": function.string("name", non_empty=True, max_length=MAX_NAME),
                     "arguments": function.string("arguments", required=False) or "{}"})
    return read


def _assistant(text, calls):
    turn = {"role": "assistant", "content": text}
    if calls:
        turn["tool_calls"] = calls
    return turn


# Anthropic Messages.

def anthropic_messages(raw):
    body = Body(raw)
    model = body.string("model", non_empty=True, max_length=MAX_NAME)
    max_output = body.integer("max_tokens", minimum=1, maximum=MAX_OUTPUT_TOKENS)
    messages = body.array("messages")
    stream = bool(body.boolean("stream", required=False))
    tools = anthropic_request_tools(body.array("tools", required=False) or [])
    _only_automatic_tool_choice(raw, ({"type": "auto"},))
    system = raw.get("system")
    instructions = [] if system is None else [text_of(system, "system")]
    _check_size(messages, "messages")
    turns = []
    for index, item in enumerate(messages):
        where = f"messages[{index}]"
        role = Body(item, where + ".").one_of("role", ("user", "assistant", "system"))
        if role == "system":
            # Agent CLIs put reminders between the turns; not every lane's protocol can, so they
            # join the instructions.
            instructions.append(text_of(item.get("content"), where + ".content"))
            continue
        turns += _anthropic_turns(role, item.get("content"), where + ".content")
    _needs_user_turn(turns, "messages")
    return CallerRequest(model, "\n\n".join(text for text in instructions if text) or None, turns, tools, max_output,
                         stream)


def anthropic_request_tools(tools):
    return _typed_tools(tools, (None, "custom"), "input_schema", "custom")


def _typed_tools(tools, accepted, schema_field, wanted):
    """Declared tools whose `type` is one of `accepted` (None: may be left out), each with
    its schema in `schema_field`; any other type is refused naming the kind wanted."""
    _check_tool_count(tools)
    declared = []
    for index, tool in enumerate(tools):
        where = f"tools[{index}]."
        item = Body(tool, where)
        kind = item.string("type", required=None not in accepted)
        if kind not in accepted:
            raise bad_request(f"{where}type {kind} is not supported by this relay yet; declare {wanted} tools")
        declared.append(_tool(item.string("name", non_empty=True, max_length=MAX_NAME),
                              item.string("description", required=False), tool.get(schema_field), where))
    return declared or None


def _anthropic_turns(role, content, where):
    """The neutral turns of one Messages message: a user message's tool results become tool
    turns (before its text, as the protocol orders them); an assistant's tool_use blocks become
    its tool calls."""
    if isinstance(content, str) or content is None:
        return [{"role": role, "content": text_of(content, where)}]
    if not isinstance(content, list):
        raise bad_request(f"{where} must be a string or an array of content blocks")
    texts, calls, results = [], [], []
    for index, block in enumerate(content):
        at = f"{where}[{index}]"
        item = Body(block, at + ".")
        kind = item.string("type")
        if kind == "text":
            texts.append(text_of(item.string("text"), at + ".text"))
        elif kind in _REASONING_BLOCKS and role == "assistant":
            continue
        elif kind == "tool_use" and role == "assistant":
            arguments = block.get("input")
            if not isinstance(arguments, dict):
                raise bad_request(f"{at}.input must be a JSON object")
            calls.append({"id": item.string("id", non_empty=True, max_length=MAX_NAME),
                          "name": item.string("name", non_empty=True, max_length=MAX_NAME),
                          "arguments": json.dumps(arguments, separators=(",", ":"), ensure_ascii=False)})
        elif kind == "tool_result" and role == "user":
            result = {"role": "tool", "tool_call_id": item.string("tool_use_id", non_empty=True, max_length=MAX_NAME),
                      "content": text_of(block.get("content"), at + ".content")}
            if item.boolean("is_error", required=False):
                result["is_error"] = True
            results.append(result)
        else:
            raise bad_request(f"{at}.type {kind} is not supported by this relay yet")
    text = "\n".join(texts)
    if role == "assistant":
        return [_assistant(text, calls)]
    return results + ([{"role": "user", "content": text}] if text or not results else [])


# OpenAI Responses.

def openai_responses(raw):
    body = Body(raw)
    model = body.string("model", non_empty=True, max_length=MAX_NAME)
    stream = bool(body.boolean("stream", required=False))
    tools = responses_request_tools(body.array("tools", required=False) or [])
    _only_automatic_tool_choice(raw, ("auto",))
    instructions = body.string("instructions", required=False, max_length=MAX_INPUT_CHARACTERS)
    given = raw.get("input")
    if isinstance(given, str):
        extra, turns = [], [{"role": "user", "content": text_of(given, "input")}]
    else:
        extra, turns = _responses_turns(body.array("input"))
    instructions = "\n\n".join(([instructions] if instructions else []) + extra) or None
    if not any(turn["content"] or turn["role"] == "tool" for turn in turns):
        raise bad_request("input must not be empty")
    return CallerRequest(model, instructions, turns, tools, _max_output(body, "max_output_tokens"), stream)


def responses_request_tools(tools):
    return _typed_tools(tools, ("function",), "parameters", "function")


def _responses_turns(items):
    """(instruction texts, turns) of a Responses input list: messages (system and developer ones
    are instructions), function calls (joined to the assistant turn before them) and their
    outputs."""
    _check_size(items, "input")
    instructions, turns = [], []
    for index, raw in enumerate(items):
        where = f"input[{index}]"
        item = Body(raw, where + ".")
        kind = item.string("type", required=False) or "message"
        if kind == "message":
            role = item.one_of("role", ("system", "developer", "user", "assistant"))
            text = text_of(raw.get("content"), where + ".content")
            if role in ("system", "developer"):
                instructions.append(text)
            else:
                turns.append({"role": role, "content": text})
        elif kind == "function_call":
            call = {"id": item.string("call_id", non_empty=True, max_length=MAX_NAME),
                    "name": item.string("name", non_empty=True, max_length=MAX_NAME),
                    "arguments": item.string("arguments", required=False) or "{}"}
            if not turns or turns[-1]["role"] != "assistant":
                turns.append({"role": "assistant", "content": ""})
            turns[-1].setdefault("tool_calls", []).append(call)
        elif kind == "function_call_output":
            output = raw.get("output")
            turns.append({"role": "tool", "tool_call_id": item.string("call_id", non_empty=True, max_length=MAX_NAME),
                          "content": output if isinstance(output, str) else text_of(output, where + ".output")})
        elif kind in _REASONING_BLOCKS:
            continue
        else:
            raise bad_request(f"{where}.type {kind} is not supported by this relay yet")
    return instructions, turns
