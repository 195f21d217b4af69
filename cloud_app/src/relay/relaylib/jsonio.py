"""Strict JSON in, compact JSON out, and strict numbers in paths, queries and headers.

The client decodes strictly (an integer field rejects 1.5, a string field rejects a
number), so the relay checks what it is sent just as strictly and names the field
that is wrong. Numbers that SQLite cannot hold are refused rather than stored. Every
string must be Unicode scalar values: JSON can spell a lone surrogate ("\ud800"),
which neither SQLite, hashing nor a strict client can take, so it is refused here
once, for every field, instead of failing somewhere later.
"""

import json
import math
import re

from . import clock
from .errors import bad_request

INT64_MAX = 2**63 - 1
INT64_MIN = -(2**63)


def _reject_constant(name):
    raise ValueError(f"{name} is not allowed in JSON")


def _parse_float(text):
    value = float(text)
    if not math.isfinite(value):
        raise ValueError("number out of range")
    return value


_SURROGATE = re.compile("[\ud800-\udfff]")
# Whole numbers in paths, queries and headers: ASCII digits only (str.isdigit and int()
# also take other scripts' digits and superscripts).
_ASCII_WHOLE = re.compile(r"[0-9]+")
_ASCII_DECIMAL = re.compile(r"[0-9]+(?:\.[0-9]+)?")


def parse(raw):
    """Parses a request body; an empty body gives None."""
    if not raw or not raw.strip():
        return None
    try:
        text = raw.decode("utf-8")
    except UnicodeDecodeError:
        raise bad_request("request body is not valid UTF-8") from None
    try:
        value = json.loads(text, parse_constant=_reject_constant, parse_float=_parse_float)
    except RecursionError:
        raise bad_request("request body is nested too deeply") from None
    except ValueError as error:
        reason = getattr(error, "msg", None) or str(error)
        raise bad_request(f"malformed JSON: {reason}") from None
    check_text(value)
    return value


def has_surrogate(text):
    return not text.isascii() and _SURROGATE.search(text) is not None


def check_text(value):
    """Refuses a lone surrogate anywhere in a parsed body, naming the field that holds it.

    Walks with its own stack, since a body may nest as deeply as the JSON parser allows.
    """
    pending = [(value, "")]
    while pending:
        item, where = pending.pop()
        if isinstance(item, str):
            if has_surrogate(item):
                raise bad_request(f"{where or 'request body'} must be valid Unicode text, "
                                  "without a lone surrogate")
        elif isinstance(item, dict):
            for key, inner in item.items():
                if has_surrogate(key):
                    raise bad_request("request body has a key that is not valid Unicode text")
                pending.append((inner, f"{where}.{key}" if where else key))
        elif isinstance(item, list):
            pending.extend((inner, f"{where}[{index}]") for index, inner in enumerate(item))


def whole_number(text, name, maximum, minimum=0):
    """A whole number from `minimum` to `maximum` written in ASCII digits, or a 400 naming `name`."""
    if not isinstance(text, str) or len(text) > 18 or not _ASCII_WHOLE.fullmatch(text) \
            or not minimum <= int(text) <= maximum:
        raise bad_request(f"{name} must be a whole number from {minimum} to {maximum}")
    return int(text)


def decimal_number(text):
    """A non-negative decimal in ASCII digits ("2", "0.5"), or None."""
    if not isinstance(text, str) or len(text) > 32 or not _ASCII_DECIMAL.fullmatch(text):
        return None
    return float(text)


def dumps(value):
    return json.dumps(value, separators=(",", ":"), allow_nan=False).encode("utf-8")


def _kind_name(value):
    if value is None:
        return "null"
    if isinstance(value, bool):
        return "a boolean"
    if isinstance(value, (int, float)):
        return "a number"
    if isinstance(value, str):
        return "a string"
    if isinstance(value, list):
        return "an array"
    return "an object"


class Body:
    """Typed access to the fields of a JSON object, failing with a 400 that names the field."""

    def __init__(self, value, prefix=""):
        if not isinstance(value, dict):
            where = prefix.rstrip(".") or "request body"
            raise bad_request(f"{where} must be a JSON object")
        self._value = value
        self._prefix = prefix

    @classmethod
    def of(cls, parsed, allow_empty=False):
        if parsed is None and allow_empty:
            return cls({})
        return cls(parsed)

    def has(self, name):
        return self._value.get(name) is not None

    def _take(self, name, required):
        value = self._value.get(name)
        if value is None and required:
            raise bad_request(f"{self._prefix}{name} is required")
        return value

    def _wrong(self, name, wanted, value):
        return bad_request(f"{self._prefix}{name} must be {wanted}, not {_kind_name(value)}")

    def string(self, name, required=True, non_empty=False, max_length=None):
        value = self._take(name, required)
        if value is None:
            return None
        if not isinstance(value, str):
            raise self._wrong(name, "a string", value)
        if non_empty and not value.strip():
            raise bad_request(f"{self._prefix}{name} must not be empty")
        if max_length is not None and len(value) > max_length:
            raise bad_request(f"{self._prefix}{name} must be at most {max_length} characters")
        return value

    def integer(self, name, required=True, minimum=INT64_MIN, maximum=INT64_MAX):
        value = self._take(name, required)
        if value is None:
            return None
        if type(value) is not int:
            raise self._wrong(name, "an integer", value)
        if value < minimum or value > maximum:
            raise bad_request(f"{self._prefix}{name} must be an integer from {minimum} to {maximum}")
        return value

    def number(self, name, required=True, minimum=None):
        value = self._take(name, required)
        if value is None:
            return None
        if isinstance(value, bool) or not isinstance(value, (int, float)):
            raise self._wrong(name, "a number", value)
        if abs(value) > 1e15 or (minimum is not None and value < minimum):
            low = "" if minimum is None else f" of at least {minimum}"
            raise bad_request(f"{self._prefix}{name} must be a number{low} within range")
        return float(value)

    def boolean(self, name, required=True):
        value = self._take(name, required)
        if value is None:
            return None
        if not isinstance(value, bool):
            raise self._wrong(name, "a boolean", value)
        return value

    def string_list(self, name, required=True):
        value = self._take(name, required)
        if value is None:
            return None
        if not isinstance(value, list):
            raise self._wrong(name, "an array of strings", value)
        for index, item in enumerate(value):
            if not isinstance(item, str):
                raise bad_request(f"{self._prefix}{name}[{index}] must be a string, not {_kind_name(item)}")
        return list(value)

    def date(self, name, required=True):
        """An ISO 8601 date with a time zone, as seconds since the epoch."""
        value = self.string(name, required)
        if value is None:
            return None
        seconds = clock.parse_iso(value)
        if seconds is None:
            raise bad_request(f"{self._prefix}{name} must be an ISO 8601 date with a time zone")
        return seconds

    def array(self, name, required=True):
        value = self._take(name, required)
        if value is None:
            return None
        if not isinstance(value, list):
            raise self._wrong(name, "an array", value)
        return value

    def child(self, name, required=True):
        """A nested object as a Body whose errors name it as `name.field`."""
        value = self._take(name, required)
        if value is None:
            return None
        if not isinstance(value, dict):
            raise self._wrong(name, "an object", value)
        return Body(value, f"{self._prefix}{name}.")

    def raw(self):
        """The object itself, for values kept as they were given (a JSON schema)."""
        return self._value

    def one_of(self, name, choices, required=True):
        value = self.string(name, required)
        if value is None:
            return None
        if value not in choices:
            raise bad_request(f"{self._prefix}{name} must be one of {', '.join(choices)}")
        return value
