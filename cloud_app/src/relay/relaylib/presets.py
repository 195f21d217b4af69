"""Agent presets: versioned defaults for model calls behind one stable name, `@preset/<slug>`.

A preset belongs to one user. Every save (a "capture": a body shaped like a chat completion
request, posted to `v1/presets/<slug>/chat/completions`) appends a new numbered version and
designates it; designating an older version is the rollback, and makes no new version. A
version, once written, never changes, and the designated one is read together with its
preset in one statement, so a caller sees one whole version even while another designates.

What a capture keeps: the model and its fallbacks (`model`, `models`), `service_tier`,
`provider.sort`, `max_tokens`, `temperature`, `top_p`, `plugins`, `response_format`,
function `tools`, and the text of its system (or developer) messages as the instructions.
Other messages are the request's own conversation and are not kept. An edit names the
version it starts from (`quillmere_base_version`): the parameters it leaves out are taken
from that version unless listed in `quillmere_clear_fields`. The model chain, the tier and
the instructions are never inherited: the form always sends them whole, and leaving them out
is how a person removes fallbacks, goes back to the default tier or blanks the instructions.
"""

import dataclasses
import json
import re
import uuid

from . import clock
from .errors import bad_request, not_found
from .jsonio import Body
from .modelrouter.caller_requests import (anthropic_request_tools, chat_tools, responses_request_tools,
                                          text_of)

SLUG = re.compile(r"^[a-z0-9][a-z0-9_-]{0,63}$")
REFERENCE_PREFIX = "@preset/"
SERVICE_TIERS = ("default", "flex", "priority")
SORTS = ("balanced", "price", "latency", "throughput")
PLUGINS = ("context-compression", "response-healing")
RESPONSE_FORMATS = ("text", "json_object", "json_schema")
# The parameters an edit inherits from its base version unless it clears them.
CLEARABLE = ("max_output_tokens", "temperature", "top_p", "provider.sort", "response_format", "plugins")
INHERITED = CLEARABLE + ("tools",)
INSTRUCTION_ROLES = ("system", "developer")
MAX_MODEL_NAME = 200
MAX_MODELS = 11
MAX_MESSAGES = 256
MAX_INSTRUCTIONS = 200_000
MAX_OUTPUT_TOKENS = 1_000_000
MAX_TEMPERATURE = 2.0
MAX_VERSION = 1_000_000_000
NEW_STATUS = "active"


@dataclasses.dataclass(frozen=True)
class AppliedPreset:
    """The designated version of a preset, as a call applies it. Request fields win over these."""
    slug: str
    version: int
    models: tuple  # primary first, then the fallbacks in order; empty when the preset names none
    service_tier: str | None
    provider_sort: str | None
    instructions: str
    max_output_tokens: int | None
    temperature: float | None
    top_p: float | None
    response_format: dict | None
    plugins: tuple
    tools: list | None

    def parameters(self):
        """The sampling and format parameters a provider request carries, only those set."""
        chosen = {"temperature": self.temperature, "top_p": self.top_p, "response_format": self.response_format}
        return {key: value for key, value in chosen.items() if value is not None}


def preset_reference(model):
    """The slug of a model reference "@preset/<slug>", or None for any other model name."""
    if model is None or not model.startswith(REFERENCE_PREFIX):
        return None
    return model[len(REFERENCE_PREFIX):]


def check_slug(slug):
    if not SLUG.match(slug):
        raise bad_request("slug must use lowercase letters, numbers, _ or -, start with a letter or number, "
                          "and be at most 64 characters")
    return slug


def resolve_preset(conn, slug):
    """The designated version of the caller's preset `slug`, on a connection scoped to the caller.

    One statement reads the preset and its designated version together, so a designation made
    meanwhile gives the old version or the new one, never a mixture. Raises a 404 when the
    caller has no such preset.
    """
    row = conn.execute(
        "SELECT p.slug, v.version, v.system_prompt, v.config FROM presets AS p "
        "JOIN preset_versions AS v ON v.user_id = p.user_id AND v.id = p.designated_version_id "
        "WHERE p.user_id = :user_id AND p.slug = :slug", {"slug": slug}).fetchone()
    if row is None:
        raise not_found(f"preset {slug} not found")
    config = json.loads(row["config"])
    sort = config.get("provider", {}).get("sort")
    return AppliedPreset(
        slug=row["slug"], version=row["version"], models=tuple(config.get("models") or
                                                            ([config["model"]] if "model" in config else [])),
        service_tier=config.get("service_tier"), provider_sort=sort, instructions=row["system_prompt"],
        max_output_tokens=config.get("max_output_tokens"), temperature=config.get("temperature"),
        top_p=config.get("top_p"), response_format=config.get("response_format"),
        plugins=tuple(plugin["id"] for plugin in config.get("plugins", []) if plugin.get("enabled", True)),
        tools=config.get("tools"))


def joined_instructions(preset_instructions, request_instructions):
    """The preset's instructions first, then the request's own, which are added, not replaced."""
    parts = [text for text in (preset_instructions, request_instructions) if text and text.strip()]
    return "\n\n".join(parts) or None


# Captures.

def _sort_of(provider):
    """A provider sort given as a plain string, or as an object whose "by" is the value; an
    object without it is the default, "balanced"."""
    if not provider.has("sort"):
        return None
    if isinstance(provider.raw()["sort"], dict):
        return provider.child("sort").one_of("by", SORTS, required=False) or "balanced"
    return provider.one_of("sort", SORTS)


def _message_text(message, index):
    content = message.get("content")
    if content is None or isinstance(content, str):
        return content or ""
    if not isinstance(content, list):
        raise bad_request(f"messages[{index}].content must be a string or an array of text parts")
    texts = []
    for number, part in enumerate(content):
        texts.append(Body(part, f"messages[{index}].content[{number}].").string("text", required=False) or "")
    return "".join(texts)


def parse_capture(body):
    """(config, instructions, base version or None, fields to clear) of a capture body."""
    model = body.string("model", non_empty=True, max_length=MAX_MODEL_NAME).strip()
    chain = [model]
    for index, name in enumerate(body.string_list("models", required=False) or []):
        name = name.strip()
        if not name or len(name) > MAX_MODEL_NAME:
            raise bad_request(f"models[{index}] must be a model name of 1 to {MAX_MODEL_NAME} characters")
        if name not in chain:
            chain.append(name)
    if len(chain) > MAX_MODELS:
        raise bad_request(f"models must name at most {MAX_MODELS} models")
    config = {"model": model}
    if len(chain) > 1:
        config["models"] = chain
    tier = body.one_of("service_tier", SERVICE_TIERS, required=False)
    if tier not in (None, "default"):
        config["service_tier"] = tier
    tokens = body.integer("max_tokens", required=False, minimum=1, maximum=MAX_OUTPUT_TOKENS)
    if tokens is None:
        tokens = body.integer("max_completion_tokens", required=False, minimum=1, maximum=MAX_OUTPUT_TOKENS)
    if tokens is not None:
        config["max_output_tokens"] = tokens
    for name, highest in (("temperature", MAX_TEMPERATURE), ("top_p", 1.0)):
        value = body.number(name, required=False, minimum=0)
        if value is not None and value > highest:
            raise bad_request(f"{name} must be a number from 0 to {highest:g}")
        if value is not None:
            config[name] = value
    provider = body.child("provider", required=False)
    if provider is not None:
        sort = _sort_of(provider)
        if sort not in (None, "balanced"):
            config["provider"] = {"sort": sort}
    plugins = []
    for index, plugin in enumerate(body.array("plugins", required=False) or []):
        item = Body(plugin, f"plugins[{index}].")
        entry = {"id": item.one_of("id", PLUGINS)}
        enabled = item.boolean("enabled", required=False)
        if enabled is not None:
            entry["enabled"] = enabled
        if all(known["id"] != entry["id"] for known in plugins):
            plugins.append(entry)
    if plugins:
        config["plugins"] = plugins
    response_format = body.child("response_format", required=False)
    if response_format is not None:
        kind = response_format.one_of("type", RESPONSE_FORMATS)
        if kind != "text":
            config["response_format"] = {"type": kind}
            if kind == "json_schema":
                config["response_format"]["json_schema"] = response_format.child("json_schema").raw()
    tools = chat_tools(body)
    if tools:
        config["tools"] = tools
    messages = body.array("messages", required=False) or []
    if len(messages) > MAX_MESSAGES:
        raise bad_request(f"messages must hold at most {MAX_MESSAGES} messages")
    instructions = []
    for index, message in enumerate(messages):
        role = Body(message, f"messages[{index}].").string("role", non_empty=True, max_length=50)
        text = _message_text(message, index)
        if role in INSTRUCTION_ROLES and text.strip():
            instructions.append(text.strip())
    system_prompt = "\n\n".join(instructions)
    if len(system_prompt) > MAX_INSTRUCTIONS:
        raise bad_request(f"the system messages must hold at most {MAX_INSTRUCTIONS} characters")
    base = body.integer("quillmere_base_version", required=False, minimum=1, maximum=MAX_VERSION)
    clear = body.string_list("quillmere_clear_fields", required=False) or []
    for index, name in enumerate(clear):
        if name not in CLEARABLE:
            raise bad_request(f"quillmere_clear_fields[{index}] must be one of {', '.join(CLEARABLE)}")
    return config, system_prompt, base, clear


# What a capture takes from any protocol's body as it stands; the rest is translated.
_CAPTURED_AS_IS = ("model", "models", "provider", "plugins", "service_tier", "temperature", "top_p",
                   "quillmere_base_version", "quillmere_clear_fields")


def chat_shape_of_messages(raw):
    """An Anthropic Messages request body as the chat-completions body a capture reads: its
    `system` as a system message, `max_tokens`, and its custom tools."""
    body = {name: raw[name] for name in _CAPTURED_AS_IS + ("max_tokens",) if isinstance(raw, dict) and name in raw}
    if isinstance(raw, dict) and raw.get("system") is not None:
        body["messages"] = [{"role": "system", "content": text_of(raw["system"], "system")}]
    tools = anthropic_request_tools((raw.get("tools") if isinstance(raw, dict) else None) or [])
    if tools:
        body["tools"] = tools
    return body


def chat_shape_of_responses(raw):
    """An OpenAI Responses request body as the chat-completions body a capture reads: its
    `instructions`, `max_output_tokens`, function tools and `text.format`."""
    body = {name: raw[name] for name in _CAPTURED_AS_IS if isinstance(raw, dict) and name in raw}
    if not isinstance(raw, dict):
        return body
    if raw.get("max_output_tokens") is not None:
        body["max_tokens"] = raw["max_output_tokens"]
    if raw.get("instructions") is not None:
        body["messages"] = [{"role": "system", "content": text_of(raw["instructions"], "instructions")}]
    tools = responses_request_tools(raw.get("tools") or [])
    if tools:
        body["tools"] = tools
    shape = (raw.get("text") or {}).get("format") if isinstance(raw.get("text"), dict) else None
    if isinstance(shape, dict) and shape.get("type"):
        response_format = {"type": shape["type"]}
        if shape["type"] == "json_schema":
            response_format["json_schema"] = {key: value for key, value in shape.items() if key != "type"}
        body["response_format"] = response_format
    return body


def _read(config, name):
    if name == "provider.sort":
        return config.get("provider", {}).get("sort")
    return config.get(name)


def _write(config, name, value):
    if name == "provider.sort":
        config["provider"] = {"sort": value}
    else:
        config[name] = value


def inherit(config, base_config, clear):
    """`config` with the parameters it leaves out taken from `base_config`, except those cleared."""
    merged = dict(config)
    for name in INHERITED:
        if name in clear or _read(config, name) is not None:
            continue
        value = _read(base_config, name)
        if value is not None:
            _write(merged, name, value)
    return merged


# Records.

def _version_json(row):
    return {"id": row["id"], "version": row["version"], "system_prompt": row["system_prompt"],
            "config": json.loads(row["config"]), "created_at": clock.iso(row["created_at"]),
            "updated_at": clock.iso(row["updated_at"])}


def _preset_json(row, versions):
    designated = next(version for version in versions if version["id"] == row["designated_version_id"])
    return {"id": row["id"], "name": row["name"], "slug": row["slug"], "status": row["status"],
            "designated_version_id": row["designated_version_id"], "created_at": clock.iso(row["created_at"]),
            "updated_at": clock.iso(row["updated_at"]), "designated_version": designated, "versions": versions}


def _presets(conn, slug=None):
    where = " AND slug = :slug" if slug is not None else ""
    rows = conn.execute(f"SELECT * FROM presets WHERE user_id = :user_id{where} ORDER BY slug",
                        {"slug": slug}).fetchall()
    if not rows:
        return []
    versions = {}
    ids = {row["id"] for row in rows}
    for version in conn.execute("SELECT * FROM preset_versions WHERE user_id = :user_id "
                                "ORDER BY preset_id, version").fetchall():
        if version["preset_id"] in ids:
            versions.setdefault(version["preset_id"], []).append(_version_json(version))
    return [_preset_json(row, versions[row["id"]]) for row in rows]


def _one(conn, slug):
    found = _presets(conn, slug)
    if not found:
        raise not_found(f"preset {slug} not found")
    return found[0]


class Presets:
    def __init__(self, app):
        self.db = app.db

    def register(self, router):
        router.add("GET", "v1/presets", self.list_presets)
        router.add("GET", "v1/presets/{slug}", self.read_preset)
        router.add("POST", "v1/presets/{slug}/chat/completions", self.capture)
        # The same capture from the other protocols' request bodies.
        router.add("POST", "v1/presets/{slug}/messages", self.capture_messages)
        router.add("POST", "v1/presets/{slug}/responses", self.capture_responses)
        router.add("POST", "v1/presets/{slug}/versions/{version}/designate", self.designate, quick=True)
        router.add("DELETE", "v1/presets/{slug}", self.delete, quick=True)

    def list_presets(self, request):
        with self.db.read_as(request.user_id) as conn:
            return {"data": _presets(conn)}

    def read_preset(self, request):
        slug = check_slug(request.params["slug"])
        with self.db.read_as(request.user_id) as conn:
            return {"data": _one(conn, slug)}

    def capture_messages(self, request):
        # The conversation itself is not part of a preset, but it must still be one.
        request.body().array("messages", required=False)
        return self._capture(request, Body(chat_shape_of_messages(request.json())))

    def capture_responses(self, request):
        given = request.body()
        if given.has("input") and not isinstance(request.json()["input"], (str, list)):
            raise bad_request("input must be a string or an array of input items")
        return self._capture(request, Body(chat_shape_of_responses(request.json())))

    def capture(self, request):
        return self._capture(request, request.body())

    def _capture(self, request, body):
        slug = check_slug(request.params["slug"])
        config, system_prompt, base, clear = parse_capture(body)
        now = clock.now()
        with self.db.write_as(request.user_id) as conn:
            preset = conn.execute("SELECT * FROM presets WHERE user_id = :user_id AND slug = :slug",
                                  {"slug": slug}).fetchone()
            if preset is None and base is not None:
                raise not_found(f"preset {slug} not found")
            if preset is None:
                preset_id = "pst_" + uuid.uuid4().hex
                number = 1
            else:
                preset_id = preset["id"]
                number = conn.execute("SELECT max(version) AS n FROM preset_versions WHERE user_id = :user_id "
                                      "AND preset_id = :preset", {"preset": preset_id}).fetchone()["n"] + 1
            if base is not None:
                start = conn.execute("SELECT config FROM preset_versions WHERE user_id = :user_id "
                                     "AND preset_id = :preset AND version = :version",
                                     {"preset": preset_id, "version": base}).fetchone()
                if start is None:
                    raise not_found(f"version {base} of preset {slug} not found")
                config = inherit(config, json.loads(start["config"]), clear)
            version_id = "psv_" + uuid.uuid4().hex
            conn.execute("INSERT INTO preset_versions (user_id, id, preset_id, version, system_prompt, config, "
                         "created_at, updated_at) VALUES (:user_id, :id, :preset, :version, :prompt, :config, "
                         ":now, :now)", {"id": version_id, "preset": preset_id, "version": number,
                                         "prompt": system_prompt, "config": json.dumps(config), "now": now})
            if preset is None:
                conn.execute("INSERT INTO presets (user_id, id, slug, name, status, designated_version_id, "
                             "created_at, updated_at) VALUES (:user_id, :id, :slug, :slug, :status, :version, "
                             ":now, :now)", {"id": preset_id, "slug": slug, "status": NEW_STATUS,
                                             "version": version_id, "now": now})
            else:
                conn.execute("UPDATE presets SET designated_version_id = :version, updated_at = :now "
                             "WHERE user_id = :user_id AND id = :id", {"id": preset_id, "version": version_id,
                                                                       "now": now})
            return {"data": _one(conn, slug)}

    def designate(self, request):
        slug = check_slug(request.params["slug"])
        text = request.params["version"]
        if not (text.isascii() and text.isdigit()) or not 1 <= int(text) <= MAX_VERSION:
            raise bad_request(f"version must be a version number from 1 to {MAX_VERSION}")
        request.body(allow_empty=True)
        with self.db.write_as(request.user_id) as conn:
            preset = conn.execute("SELECT id FROM presets WHERE user_id = :user_id AND slug = :slug",
                                  {"slug": slug}).fetchone()
            if preset is None:
                raise not_found(f"preset {slug} not found")
            version = conn.execute("SELECT id FROM preset_versions WHERE user_id = :user_id "
                                   "AND preset_id = :preset AND version = :version",
                                   {"preset": preset["id"], "version": int(text)}).fetchone()
            if version is None:
                raise not_found(f"version {text} of preset {slug} not found")
            conn.execute("UPDATE presets SET designated_version_id = :version, updated_at = :now "
                         "WHERE user_id = :user_id AND id = :id",
                         {"id": preset["id"], "version": version["id"], "now": clock.now()})
            return {"data": _one(conn, slug)}

    def delete(self, request):
        slug = check_slug(request.params["slug"])
        with self.db.write_as(request.user_id) as conn:
            preset = conn.execute("SELECT id FROM presets WHERE user_id = :user_id AND slug = :slug",
                                  {"slug": slug}).fetchone()
            if preset is None:
                raise not_found(f"preset {slug} not found")
            conn.execute("DELETE FROM preset_versions WHERE user_id = :user_id AND preset_id = :id",
                         {"id": preset["id"]})
            conn.execute("DELETE FROM presets WHERE user_id = :user_id AND id = :id", {"id": preset["id"]})
        return {"deleted": True, "slug": slug}
