"""Context compression, "middle-out": a prompt or a conversation too large for a lane's context
window keeps its beginning and its latest end and loses the middle, sized for each lane the
router tries, so a fallback with a larger window gets more of it.

A prompt text keeps its first and last bytes around a visible mark that says how much was left
out. A conversation keeps its first turn and as many of its latest turns as fit; an assistant
turn that calls tools goes or stays with the results of those calls, so no lane ever sees a
tool result without its call. When even the first and the last turn do not fit, their texts are
cut in the middle in the same way. Pure functions.
"""

import json

from . import conversation

PLUGIN = "context-compression"
# Fewer bytes per token than the router's estimate, so that a compressed prompt still fits a
# tokenizer that packs text more densely than the average one.
BYTES_PER_TOKEN = 3
MARK = "\n[… {count} characters left out here to fit the model's context window]\n"


def room(lane, instructions, max_output_tokens, tools):
    """The bytes of prompt a lane's context window leaves once the answer, the instructions and
    the declared tools have theirs."""
    fixed = len((instructions or "").encode("utf-8")) + (len(json.dumps(tools).encode("utf-8")) if tools else 0)
    tokens = lane.context_window - max_output_tokens - -(-fixed // BYTES_PER_TOKEN)
    return max(0, tokens * BYTES_PER_TOKEN)


def fit(text, limit):
    """`text` (a prompt or a conversation) itself when it fits in `limit` bytes, else its
    middle-out compression."""
    if conversation.prompt_bytes(text) <= limit:
        return text
    if isinstance(text, str):
        return cut_middle(text, limit)
    return _fit_turns(text, limit)


def cut_middle(text, limit):
    """The start and the end of `text` around the mark, in at most `limit` bytes (never a
    broken character)."""
    data = text.encode("utf-8")
    if len(data) <= limit:
        return text
    # The mark's own size depends on the count it states; the longest count is the whole text.
    mark_bytes = len(MARK.format(count=len(text)).encode("utf-8"))
    keep = max(0, limit - mark_bytes)
    head = data[:keep - keep // 2].decode("utf-8", errors="ignore")
    tail = data[len(data) - keep // 2:].decode("utf-8", errors="ignore") if keep // 2 else ""
    left_out = len(text) - len(head) - len(tail)
    if keep == 0:
        return ""
    return head + MARK.format(count=left_out) + tail


def _units(turns):
    """The conversation in pieces that are kept or dropped whole: a turn, or an assistant turn
    with the tool results that answer its calls."""
    units = []
    for turn in turns:
        if turn["role"] == "tool" and units and any(
                call["id"] == turn.get("tool_call_id") for t in units[-1] for call in conversation.tool_calls_of(t)):
            units[-1].append(turn)
        else:
            units.append([turn])
    return units


def _fit_turns(turns, limit):
    units = _units(turns)
    first, rest = units[0], units[1:]
    used = conversation.prompt_bytes(first)
    kept = []
    for unit in reversed(rest):
        if used + conversation.prompt_bytes(unit) > limit:
            break
        kept.insert(0, unit)
        used += conversation.prompt_bytes(unit)
    if not kept and rest:
        kept = [rest[-1]]
    chosen = [turn for unit in [first] + kept for turn in unit]
    return _cut_turns(chosen, limit)


def _cut_turns(turns, limit):
    """Cuts the longest texts in their middles, each to one common cap (the largest that makes
    the conversation fit), so a long first turn and a long last turn both keep their ends."""
    turns = [dict(turn) for turn in turns]
    sizes = [len(turn["content"].encode("utf-8")) for turn in turns]
    budget = limit - (conversation.prompt_bytes(turns) - sum(sizes))  # tool call arguments are never cut
    if sum(sizes) <= budget:
        return turns
    cap, remaining, left = 0, max(0, budget), len(sizes)
    for length in sorted(sizes):
        share = remaining // left
        if length > share:
            cap = share
            break
        remaining -= length
        left -= 1
    for turn, length in zip(turns, sizes):
        if length > cap:
            turn["content"] = cut_middle(turn["content"], cap)
    return turns
