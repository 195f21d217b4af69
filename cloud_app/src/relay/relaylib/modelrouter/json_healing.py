"""Response healing: an answer that was asked to be JSON and is not quite JSON is repaired, its
syntax only (never its meaning against a schema).

It runs only for answers that come whole, not streamed (a stream's pieces have reached the
caller already), and only when the request set `response_format` to "json_object" or
"json_schema". What it repairs, in the order a model gets it wrong: a Markdown code fence
around the JSON, prose before or after it, comments, single-quoted strings, unquoted keys,
Python's True, False and None, trailing commas, and a value cut off before its end (an open
string, a key without its value, brackets never closed). An answer that is valid already, or
that still is not JSON after repair, is returned as it came. Pure functions.
"""

import json
import re

PLUGIN = "response-healing"
FORMATS = ("json_object", "json_schema")

FENCE = re.compile(r"^\s*```[A-Za-z0-9_-]*[ \t]*\n(.*?)\n?[ \t]*(?:```\s*)?$", re.DOTALL)
WORD = re.compile(r"[A-Za-z_$][A-Za-z0-9_$]*")
LITERALS = {"true": "true", "false": "false", "null": "null", "True": "true", "False": "false", "None": "null"}
CLOSERS = {"{": "}", "[": "]"}


def applies(plugins, parameters, streamed):
    response_format = (parameters or {}).get("response_format") or {}
    return PLUGIN in plugins and not streamed and response_format.get("type") in FORMATS


def is_json(text):
    try:
        json.loads(text)
    except ValueError:
        return False
    return True


def heal(text):
    """The repaired JSON text, or `text` itself when it is valid already or cannot be repaired."""
    if is_json(text):
        return text
    body = text
    fenced = FENCE.match(body)
    if fenced:
        body = fenced.group(1)
    starts = [index for index in (body.find("{"), body.find("[")) if index >= 0]
    if not starts:
        return text
    repaired = _rewrite(body[min(starts):])
    return repaired if is_json(repaired) else text


def _rewrite(body):
    """One pass over the text from its first bracket, out of strings fixing what JSON's grammar
    refuses, ending where the first value closes or, cut off, closing what is still open."""
    out, stack, at, n = [], [], 0, len(body)
    while at < n:
        char = body[at]
        if char in "\"'":
            string, at, closed = _string(body, at)
            out.append(string)
            if not closed:
                break
            continue
        if body.startswith("//", at):
            end = body.find("\n", at)
            at = n if end < 0 else end
            continue
        if body.startswith("/*", at):
            end = body.find("*/", at + 2)
            at = n if end < 0 else end + 2
            continue
        if char in "{[":
            stack.append(char)
            out.append(char)
        elif char in "}]":
            _drop_trailing_comma(out)
            if stack:
                stack.pop()
            out.append(char)
            if not stack:
                break
        elif char == ",":
            out.append(char)
        elif WORD.match(body, at):
            word = WORD.match(body, at).group(0)
            follows = body[at + len(word):].lstrip()
            if word in LITERALS and not follows.startswith(":"):
                out.append(LITERALS[word])
            else:
                # An unquoted key, or a bare word as a value: either is kept, as a string.
                out.append(json.dumps(word))
            at += len(word)
            continue
        else:
            out.append(char)
        at += 1
    _close(out, stack)
    return "".join(out)


def _string(body, at):
    """The string starting at `at` as a JSON string (single quotes become double ones), the
    index after it, and whether it was closed."""
    quote, parts, index = body[at], ['"'], at + 1
    while index < len(body):
        char = body[index]
        if char == "\\" and index + 1 < len(body):
            escaped = body[index + 1]
            parts.append("'" if escaped == "'" else "\\" + escaped)
            index += 2
            continue
        if char == quote:
            parts.append('"')
            return "".join(parts), index + 1, True
        if char == '"':
            parts.append('\\"')
        elif char == "\n":
            parts.append("\\n")
        elif char == "\t":
            parts.append("\\t")
        else:
            parts.append(char)
        index += 1
    parts.append('"')
    return "".join(parts), index, False


def _drop_trailing_comma(out):
    while out and out[-1].isspace():
        out.pop()
    if out and out[-1] == ",":
        out.pop()


def _close(out, stack):
    """Ends a value cut off in its middle: no dangling comma, a key gets null, brackets close."""
    if not stack:
        return
    _drop_trailing_comma(out)
    if out and out[-1] == ":":
        out.append("null")
    elif stack[-1] == "{" and out and out[-1].startswith('"'):
        before = [token for token in out[:-1] if not token.isspace()]
        if before and before[-1] in ("{", ","):
            out.append(":null")  # a key cut off before its value
    for opener in reversed(stack):
        _drop_trailing_comma(out)
        out.append(CLOSERS[opener])
