"""A conversation in the relay's own neutral form, and the shape each provider protocol wants
it in. Pure functions.

A conversation is a list of turns, oldest first:
  {"role": "user", "content": text}
  {"role": "assistant", "content": text, "tool_calls": [{"id", "name", "arguments"}]}
  {"role": "tool", "tool_call_id": id, "content": text, "is_error": bool}
where `tool_calls` and `is_error` may be absent, and a tool call's `arguments` is a JSON text.
Declared tools are kept in OpenAI Chat's form: {"type": "function", "function": {"name",
"description", "parameters"}}.
"""

import json


def arguments_text(arguments):
    """A tool call's arguments as a JSON text, whether a provider sent text or an object."""
    if isinstance(arguments, str):
        return arguments if arguments.strip() else "{}"
    return json.dumps(arguments if arguments is not None else {}, separators=(",", ":"), ensure_ascii=False)


def arguments_object(arguments):
    """A tool call's arguments as an object, for protocols that carry them so. Arguments that are
    not a JSON object (a provider's malformed call) become an empty object: the caller's own
    validation then reports the missing fields, instead of the whole answer failing here."""
    if isinstance(arguments, dict):
        return arguments
    try:
        value = json.loads(arguments) if isinstance(arguments, str) and arguments.strip() else {}
    except ValueError:
        return {}
    return value if isinstance(value, dict) else {}


def tool_calls_of(turn):
    return turn.get("tool_calls") or []


def texts_of(turns):
    """Every text of a conversation a person or a tool wrote, in order: what content filters and
    size estimates read."""
    for turn in turns:
        yield turn["content"]
        for call in tool_calls_of(turn):
            yield call["arguments"]


def prompt_bytes(text):
    """The size in bytes of a prompt, or of a conversation's texts (tool calls' arguments
    included)."""
    if isinstance(text, str):
        return len(text.encode("utf-8"))
    return sum(len(piece.encode("utf-8")) for piece in texts_of(text))


# To providers.

def anthropic_messages(turns):
    """Messages turns: tool calls become tool_use blocks; tool results become tool_result blocks
    of the next user message, which is where the protocol wants them. A plain conversation keeps
    plain string contents."""
    messages = []
    for turn in turns:
        role = turn["role"]
        if role == "assistant" and tool_calls_of(turn):
            blocks = [{"type": "text", "text": turn["content"]}] if turn["content"] else []
            blocks += [{"type": "tool_use", "id": call["id"], "name": call["name"],
                        "input": arguments_object(call["arguments"])} for call in tool_calls_of(turn)]
            messages.append({"role": "assistant", "content": blocks})
            continue
        if role == "tool":
            block = {"type": "tool_result", "tool_use_id": turn["tool_call_id"], "content": turn["content"]}
            if turn.get("is_error"):
                block["is_error"] = True
            _append_user_block(messages, block)
            continue
        if role == "user" and messages and messages[-1]["role"] == "user" and isinstance(messages[-1]["content"],
                                                                                     list):
            # Text that follows tool results joins their message.
            _append_user_block(messages, {"type": "text", "text": turn["content"]})
            continue
        messages.append({"role": role, "content": turn["content"]})
    return messages


def _append_user_block(messages, block):
    if messages and messages[-1]["role"] == "user":
        last = messages[-1]
        if isinstance(last["content"], str):
            last["content"] = [{"type": "text", "text": last["content"]}] if last["content"] else []
        last["content"].append(block)
    else:
        messages.append({"role": "user", "content": [block]})


def openai_chat_messages(turns):
    messages = []
    for turn in turns:
        if turn["role"] == "tool":
            messages.append({"role": "tool", "tool_call_id": turn["tool_call_id"], "content": turn["content"]})
        elif turn["role"] == "assistant" and tool_calls_of(turn):
            messages.append({"role": "assistant", "content": turn["content"] or None, "tool_calls": [
                {"id": call["id"], "type": "function",
                 "function": {"name": call["name"], "arguments": call["arguments"]}}
                for call in tool_calls_of(turn)]})
        else:
            messages.append({"role": turn["role"], "content": turn["content"]})
    return messages


def responses_input(turns):
    items = []
    for turn in turns:
        if turn["role"] == "tool":
            items.append({"type": "function_call_output", "call_id": turn["tool_call_id"], "output": turn["content"]})
            continue
        if turn["content"] or not tool_calls_of(turn):
            items.append({"role": turn["role"], "content": turn["content"]})
        items += [{"type": "function_call", "call_id": call["id"], "name": call["name"],
                   "arguments": call["arguments"]} for call in tool_calls_of(turn)]
    return items


def anthropic_tools(tools):
    declared = []
    for tool in tools:
        function = tool["function"]
        item = {"name": function["name"], "input_schema": function.get("parameters") or {"type": "object"}}
        if function.get("description"):
            item["description"] = function["description"]
        declared.append(item)
    return declared


def responses_tools(tools):
    return [dict(tool["function"], type="function") for tool in tools]
