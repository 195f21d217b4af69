"""Whether the tool calls of an answer fit the tools the request declared. Pure functions.

A call is valid when it names a declared tool and its arguments are a JSON object that has
every required property, no undeclared property where `additionalProperties` is false, and
values of the declared simple types. The first problem found is the call's error category.
"""

import json

VALID = None
NO_TOOL_CALL = "no_tool_call"
UNKNOWN_TOOL = "unknown_tool"
INVALID_JSON = "invalid_json"
MISSING_REQUIRED = "missing_required"
UNEXPECTED_PROPERTY = "unexpected_property"
WRONG_TYPE = "wrong_type"

_TYPES = {
    "string": lambda value: isinstance(value, str),
    "integer": lambda value: isinstance(value, int) and not isinstance(value, bool),
    "number": lambda value: isinstance(value, (int, float)) and not isinstance(value, bool),
    "boolean": lambda value: isinstance(value, bool),
    "array": lambda value: isinstance(value, list),
    "object": lambda value: isinstance(value, dict),
    "null": lambda value: value is None,
}


def check_call(call, schemas):
    """The error category of one call (name, arguments), or None when it is valid."""
    schema = schemas.get(call.name)
    if schema is None:
        return UNKNOWN_TOOL
    arguments = call.arguments
    if isinstance(arguments, str):
        try:
            arguments = json.loads(arguments) if arguments.strip() else {}
        except ValueError:
            return INVALID_JSON
    if not isinstance(arguments, dict):
        return INVALID_JSON
    properties = schema.get("properties") or {}
    for name in schema.get("required") or []:
        if name not in arguments:
            return MISSING_REQUIRED
    for name, value in arguments.items():
        declared = properties.get(name)
        if declared is None:
            if schema.get("additionalProperties") is False:
                return UNEXPECTED_PROPERTY
            continue
        check = _TYPES.get(declared.get("type")) if isinstance(declared, dict) else None
        if check is not None and not check(value):
            return WRONG_TYPE
    return VALID


def check_answer(tool_calls, tools):
    """(valid, error category) for an answer to a request that declared `tools`: valid when it
    made at least one call and every call is valid; an answer of text alone is not counted."""
    if not tool_calls:
        return None, NO_TOOL_CALL
    schemas = {tool["function"]["name"]: tool["function"].get("parameters") or {} for tool in tools}
    for call in tool_calls:
        problem = check_call(call, schemas)
        if problem is not None:
            return False, problem
    return True, None

