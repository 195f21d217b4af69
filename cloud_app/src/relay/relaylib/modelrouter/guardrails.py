"""Pure rules of gateway keys: which content-filter patterns are safe to run on every
request, and which data-retention group a lane belongs to.

A pattern runs over text that any holder of a key sends, so it must finish in time that
grows with the text's length and never explodes: Python's `re` backtracks, and a pattern
such as `(a+)+b` takes exponential time on a line of `a`s. Rather than time matches out
(a thread stuck in `re` cannot be stopped), patterns whose shape can backtrack without
bound are refused when the key is created.
"""

import dataclasses
import itertools
import re
import re._parser as sre_parse
from re._constants import (ASSERT, ASSERT_NOT, BRANCH, GROUPREF, GROUPREF_EXISTS, MAX_REPEAT, MAXREPEAT, MIN_REPEAT,
                           POSSESSIVE_REPEAT, SUBPATTERN, ATOMIC_GROUP)

from .conversation import texts_of

MAX_PATTERN_LENGTH = 1000
# Unbounded quantifiers in one pattern: each one side by side multiplies the work on a
# failing match by the text's length, so a handful is allowed, not an unlimited chain.
MAX_UNBOUNDED_REPEATS = 4
# A bounded quantifier with a high upper limit backtracks like an unbounded one.
UNBOUNDED_FROM = 100

ZDR_GROUPS = ("anthropic", "openai", "google", "xai", "other")
_GROUP_MARKERS = (("anthropic", ("anthropic", "claude")),
                  ("openai", ("openai", "gpt", "o1", "o3")),
                  ("google", ("google", "gemini", "vertex")),
                  ("xai", ("xai", "grok")))


class UnsafePattern(ValueError):
    """Why a pattern is refused, in a sentence that never quotes the pattern."""


def zdr_group(provider, lane_id):
    """The retention group of a lane: the first group whose marker appears in
    "provider/id" (lower case), else "other". The application previews eligibility with
    the same test, so both must agree."""
    text = f"{provider}/{lane_id}".lower()
    for group, markers in _GROUP_MARKERS:
        if any(marker in text for marker in markers):
            return group
    return "other"


def check_pattern(pattern):
    """Compile `pattern` if it is safe and cannot match empty text; raise UnsafePattern."""
    if len(pattern) > MAX_PATTERN_LENGTH:
        raise UnsafePattern(f"is longer than {MAX_PATTERN_LENGTH} characters")
    try:
        parsed = sre_parse.parse(pattern)
    except (re.error, RecursionError, OverflowError):
        raise UnsafePattern("is not a valid regular expression") from None
    unbounded = _walk(parsed.data, inside_repeat=False)
    if unbounded > MAX_UNBOUNDED_REPEATS:
        raise UnsafePattern(f"has more than {MAX_UNBOUNDED_REPEATS} unbounded quantifiers")
    if parsed.getwidth()[0] == 0:
        raise UnsafePattern("can match empty text")
    try:
        return re.compile(pattern)
    except (re.error, RecursionError, OverflowError):
        raise UnsafePattern("is not a valid regular expression") from None


def _walk(items, inside_repeat):
    """Refuse the unsafe constructs; return how many unbounded quantifiers there are."""
    count = 0
    for op, av in items:
        if op in (GROUPREF, GROUPREF_EXISTS):
            raise UnsafePattern("uses a backreference")
        if op in (ASSERT, ASSERT_NOT):
            raise UnsafePattern("uses a lookahead or lookbehind")
        if op in (MAX_REPEAT, MIN_REPEAT, POSSESSIVE_REPEAT):
            low, high, body = av
            repeats = high == MAXREPEAT or high >= UNBOUNDED_FROM
            if inside_repeat and (repeats or high > 1):
                raise UnsafePattern("nests one quantifier inside another")
            if repeats and _has_branch(body):
                raise UnsafePattern("repeats an alternation")
            count += (1 if repeats else 0) + _walk(body, inside_repeat or high > 1)
        elif op == SUBPATTERN:
            count += _walk(av[-1], inside_repeat)
        elif op == ATOMIC_GROUP:
            count += _walk(av, inside_repeat)
        elif op == BRANCH:
            for branch in av[1]:
                count += _walk(branch, inside_repeat)
    return count


def _has_branch(items):
    for op, av in items:
        if op == BRANCH:
            return True
        if op == SUBPATTERN and _has_branch(av[-1]):
            return True
        if op == ATOMIC_GROUP and _has_branch(av):
            return True
    return False


REDACTION = "[REDACTED]"


@dataclasses.dataclass
class FilterResult:
    instructions: str | None
    turns: list
    blocked_by: str | None = None  # the first blocking filter's name
    blocks: int = 0
    redactions: int = 0


def apply_filters(filters, instructions, turns):
    """Runs a key's content filters over a request's text (its tool calls' arguments and tool
    results included) before any provider sees it. Each filter that matches counts once; a
    blocking one stops the request, a redacting one replaces every match with REDACTION. What
    matched is not kept anywhere."""
    result = FilterResult(instructions, [_copy_turn(turn) for turn in turns])
    for item in filters:
        compiled = re.compile(item["pattern"])
        texts = itertools.chain([result.instructions] if result.instructions else [], texts_of(result.turns))
        if not any(compiled.search(text) for text in texts):
            continue
        if item["action"] == "block":
            result.blocks += 1
            result.blocked_by = result.blocked_by or item["name"]
            continue
        result.redactions += 1
        if result.instructions:
            result.instructions = compiled.sub(REDACTION, result.instructions)
        for turn in result.turns:
            turn["content"] = compiled.sub(REDACTION, turn["content"])
            for call in turn.get("tool_calls") or []:
                call["arguments"] = compiled.sub(REDACTION, call["arguments"])
    return result


def _copy_turn(turn):
    copy = dict(turn)
    if "tool_calls" in copy:
        copy["tool_calls"] = [dict(call) for call in copy["tool_calls"]]
    return copy
