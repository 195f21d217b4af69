"""What a usage classifier asks its model, and what is kept of the answer. Pure functions.

The model sees the generation's conversation (instructions, turns, the answer) with the tools
reduced to their names; that text lives in memory for the one call and is never stored.
Only the tags (a dimension's key to one of its values) or a failure's code are kept.
"""

import json

from . import conversation

# Failure codes an activity row may carry.
MODEL_UNAVAILABLE = "model_unavailable"
BUDGET_EXCEEDED = "budget_exceeded"
PROVIDER_FAILED = "provider_failed"
INVALID_JSON = "invalid_json"
MISSING_DIMENSION = "missing_dimension"
OUTSIDE_TAXONOMY = "value_outside_taxonomy"
INTERRUPTED = "interrupted"
OVERLOADED = "overloaded"

# The most of a conversation a classifier reads: its start and its end matter most, so a
# longer one is cut in the middle.
MAX_TRANSCRIPT_CHARACTERS = 24_000
CUT_MARK = "\n[... cut ...]\n"


def instructions(classifier):
    """The classifier's own prompt, then the taxonomy and the one form of answer accepted."""
    lines = [classifier["prompt"].strip(), "",
             "Tag the conversation the user sends. Answer with one JSON object and nothing else: "
             "one key per dimension below, each with exactly one of that dimension's values."]
    for dimension in classifier["dimensions"]:
        lines.append(f"- {dimension['key']} ({dimension['label']}): " + " | ".join(dimension["values"]))
    return "\n".join(line for line in lines if line is not None).strip()


def transcript(text, instructions_text, tools, answer):
    """The generation as one text: its instructions, turns and answer; tools by name only."""
    parts = []
    if instructions_text:
        parts.append("[instructions]\n" + instructions_text)
    for turn in ([{"role": "user", "content": text}] if isinstance(text, str) else text):
        parts.append(f"[{turn['role']}]\n{turn['content']}")
        for call in conversation.tool_calls_of(turn):
            parts.append(f"[tool call] {call['name']}")
    if tools:
        parts.append("[tools offered] " + ", ".join(tool["function"]["name"] for tool in tools))
    parts.append("[answer]\n" + answer.text)
    for call in answer.tool_calls:
        parts.append(f"[tool call] {call.name}")
    whole = "\n\n".join(parts)
    if len(whole) <= MAX_TRANSCRIPT_CHARACTERS:
        return whole
    half = (MAX_TRANSCRIPT_CHARACTERS - len(CUT_MARK)) // 2
    return whole[:half] + CUT_MARK + whole[-half:]


def read_tags(classifier, text):
    """(tags, None) from a model's answer, or (None, failure code). The answer's first JSON
    object is read; every dimension must have one of its own values, and nothing else is kept."""
    start, end = text.find("{"), text.rfind("}")
    if start < 0 or end < start:
        return None, INVALID_JSON
    try:
        value = json.loads(text[start:end + 1])
    except ValueError:
        return None, INVALID_JSON
    if not isinstance(value, dict):
        return None, INVALID_JSON
    tags = {}
    for dimension in classifier["dimensions"]:
        chosen = value.get(dimension["key"])
        if chosen is None:
            return None, MISSING_DIMENSION
        if not isinstance(chosen, str) or chosen.strip() not in dimension["values"]:
            return None, OUTSIDE_TAXONOMY
        tags[dimension["key"]] = chosen.strip()
    return tags, None
