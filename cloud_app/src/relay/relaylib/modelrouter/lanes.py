"""The lanes the relay can route to: the two subscription CLIs and the person's API lanes.

API lanes come from the inventory the application hands over at launch, the JSON array in
`ROUTER_MODELS_JSON`; each names the environment variable that carries its key. The key
is read from the relay's settings at the moment of a call and never leaves this module
except as a request header to the lane's own endpoint.
"""

import dataclasses
import json
import logging
import math
import re
import urllib.parse

log = logging.getLogger("relay")

OPENAI_RESPONSES = "openai_responses"
OPENAI_CHAT = "openai_chat"
ANTHROPIC_MESSAGES = "anthropic_messages"
PROTOCOLS = (OPENAI_RESPONSES, OPENAI_CHAT, ANTHROPIC_MESSAGES)
# The path each protocol answers on, below the API's version folder.
PROTOCOL_PATHS = {OPENAI_RESPONSES: "/responses", OPENAI_CHAT: "/chat/completions", ANTHROPIC_MESSAGES: "/messages"}
SERVICE_TIERS = ("default", "flex", "priority")
DATA_POLICIES = ("standard", "zdr")
LOOPBACK_HOSTS = ("127.0.0.1", "localhost", "::1")
KEY_VARIABLE = re.compile(r"^[A-Z][A-Z0-9_]{2,127}$")
INVENTORY_VARIABLE = "ROUTER_MODELS_JSON"
# A lane that lists this parameter is called with a streamed answer, which also measures its
# time to the first token; any other is asked for the whole answer at once.
STREAM_PARAMETER = "stream"


@dataclasses.dataclass(frozen=True)
class Lane:
    id: str
    routing_model: str
    service_tier: str
    endpoint_slug: str
    provider: str
    display_name: str
    capabilities: tuple
    context_window: int
    latency_ms: int
    input_cost_per_million: float
    output_cost_per_million: float
    quality: int
    channel: str
    protocol_name: str
    data_policy: str
    supported_parameters: tuple
    # API lanes only.
    endpoint: str = ""
    api_key_env: str = ""
    upstream_model: str = ""
    # Whether the inventory offers the lane at all; readiness also needs its credential.
    offered: bool = True

    def cost(self, input_tokens, output_tokens):
        return (input_tokens * self.input_cost_per_million + output_tokens * self.output_cost_per_million) / 1e6

    @property
    def url(self):
        return protocol_url(self.endpoint, self.protocol_name)

    @property
    def streams(self):
        return STREAM_PARAMETER in self.supported_parameters


CLI_LANES = (
    Lane(id="claude-subscription", routing_model="claude-code", service_tier="default",
         endpoint_slug="anthropic-subscription/cli", provider="anthropic-subscription",
         display_name="Claude Code (subscription)", capabilities=("reasoning", "long_context", "tools"),
         context_window=200000, latency_ms=6000, input_cost_per_million=0.0, output_cost_per_million=0.0,
         quality=92, channel="cli", protocol_name="claude_cli", data_policy="standard", supported_parameters=()),
    Lane(id="codex-subscription", routing_model="codex", service_tier="default",
         endpoint_slug="openai-subscription/cli", provider="openai-subscription",
         display_name="Codex (subscription)", capabilities=("reasoning", "long_context", "tools"),
         context_window=200000, latency_ms=6000, input_cost_per_million=0.0, output_cost_per_million=0.0,
         quality=90, channel="cli", protocol_name="codex_cli", data_policy="standard", supported_parameters=()),
)
CLI_OF_LANE = {"claude-subscription": "claude", "codex-subscription": "codex"}


def protocol_url(endpoint, protocol):
    """The URL a protocol's request goes to. An endpoint may be the full URL of that path, the
    API's version folder (`https://api.example.com/v1`) or the bare origin, which gets `/v1`."""
    path = PROTOCOL_PATHS[protocol]
    base = endpoint.rstrip("/")
    if base.endswith(path):
        return base
    if re.search(r"/v\d+$", base):
        return base + path
    return base + "/v1" + path


def endpoint_slug(provider, endpoint):
    """Names an endpoint without its secrets or path: provider and host (with a port if any)."""
    parts = urllib.parse.urlsplit(endpoint)
    host = parts.hostname or ""
    if parts.port:
        host = f"{host}:{parts.port}"
    return f"{provider.strip().lower()}/{host}"


class InventoryError(ValueError):
    pass


def _text(record, name, required=True):
    value = record.get(name)
    if value is None and not required:
        return None
    if not isinstance(value, str) or not value.strip():
        raise InventoryError(f"{name} must be a non-empty string")
    return value.strip()


def _number(record, name, integer=False):
    value = record.get(name)
    if isinstance(value, bool) or not isinstance(value, int if integer else (int, float)):
        raise InventoryError(f"{name} must be {'an integer' if integer else 'a number'}")
    if not integer and not math.isfinite(value):
        raise InventoryError(f"{name} must be finite")
    return value


def _strings(record, name):
    value = record.get(name)
    if not isinstance(value, list) or not all(isinstance(item, str) for item in value):
        raise InventoryError(f"{name} must be an array of strings")
    return tuple(value)


def lane_from_profile(record):
    """One API lane from an inventory record, checked by the rules the application saves it by."""
    if not isinstance(record, dict):
        raise InventoryError("a lane must be a JSON object")
    lane_id = _text(record, "id")
    routing_model = _text(record, "routing_model", required=False) or lane_id
    tier = record.get("service_tier") or "default"
    if tier not in SERVICE_TIERS:
        raise InventoryError("service_tier must be default, flex or priority")
    provider = _text(record, "provider")
    endpoint = _text(record, "endpoint")
    parts = urllib.parse.urlsplit(endpoint)
    if parts.scheme.lower() not in ("http", "https") or not parts.hostname:
        raise InventoryError("endpoint must be an absolute HTTP(S) URL")
    if parts.scheme.lower() != "https" and parts.hostname.lower() not in LOOPBACK_HOSTS:
        raise InventoryError("endpoint must use HTTPS unless it is loopback")
    key_env = _text(record, "api_key_env")
    if not KEY_VARIABLE.match(key_env):
        raise InventoryError("api_key_env is not a valid variable name")
    protocol = record.get("protocol_name")
    if protocol not in PROTOCOLS:
        raise InventoryError("protocol_name is not a known protocol")
    context_window = _number(record, "context_window", integer=True)
    latency = _number(record, "latency_ms", integer=True)
    if context_window < 1 or latency < 0:
        raise InventoryError("context_window must be positive and latency_ms not negative")
    prices = (_number(record, "input_cost_per_million"), _number(record, "output_cost_per_million"))
    if min(prices) < 0:
        raise InventoryError("prices must not be negative")
    quality = _number(record, "quality", integer=True)
    if not 0 <= quality <= 100:
        raise InventoryError("quality must be from 0 to 100")
    policy = record.get("data_policy")
    if policy not in DATA_POLICIES:
        raise InventoryError("data_policy must be standard or zdr")
    available = record.get("available")
    if not isinstance(available, bool):
        raise InventoryError("available must be a boolean")
    return Lane(id=lane_id, routing_model=routing_model, service_tier=tier,
                endpoint_slug=endpoint_slug(provider, endpoint), provider=provider,
                display_name=_text(record, "display_name"), capabilities=_strings(record, "capabilities"),
                context_window=context_window, latency_ms=latency, input_cost_per_million=float(prices[0]),
                output_cost_per_million=float(prices[1]), quality=quality, channel="api", protocol_name=protocol,
                data_policy=policy, supported_parameters=_strings(record, "supported_parameters"),
                endpoint=endpoint, api_key_env=key_env, upstream_model=_text(record, "upstream_model"),
                offered=available)


def read_inventory(text):
    """The API lanes of an inventory. A record that breaks the rules is left out with a log line
    naming its place and the rule (never its values); a lane id seen twice keeps the first."""
    if not text or not text.strip():
        return ()
    try:
        records = json.loads(text)
    except ValueError:
        log.warning("%s is not valid JSON; no API lanes are offered", INVENTORY_VARIABLE)
        return ()
    if not isinstance(records, list):
        log.warning("%s is not a JSON array; no API lanes are offered", INVENTORY_VARIABLE)
        return ()
    lanes, seen = [], {lane.id for lane in CLI_LANES}
    for index, record in enumerate(records):
        try:
            lane = lane_from_profile(record)
        except InventoryError as error:
            log.warning("inventory lane %d left out: %s", index, error)
            continue
        if lane.id in seen:
            log.warning("inventory lane %d left out: its id is taken", index)
            continue
        seen.add(lane.id)
        lanes.append(lane)
    return tuple(lanes)


class Catalog:
    """The lanes and what makes each ready: the CLIs' status, the inventory's flag, the keys."""

    def __init__(self, inventory_text, settings_lookup, cli_status):
        self.api_lanes = read_inventory(inventory_text)
        self.lanes = CLI_LANES + self.api_lanes
        self.by_id = {lane.id: lane for lane in self.lanes}
        self._lookup = settings_lookup
        self._cli_status = cli_status

    def key(self, lane):
        """The lane's credential, or None when its variable is not set."""
        value = self._lookup(lane.api_key_env) if lane.api_key_env else None
        return value.strip() if isinstance(value, str) and value.strip() else None

    def unavailable_reason(self, lane, cli):
        """Why a lane cannot execute now, or None when it can, given the CLIs' status `cli`."""
        if lane.channel == "cli":
            info = cli.get(CLI_OF_LANE[lane.id]) or {}
            if not info.get("installed"):
                return f"the {CLI_OF_LANE[lane.id]} CLI is not installed on the relay's machine"
            if not info.get("authenticated"):
                return f"the {CLI_OF_LANE[lane.id]} CLI is not signed in"
            return None
        if not lane.offered:
            return "the inventory marks this lane as not offered"
        if self.key(lane) is None:
            return f"its credential variable {lane.api_key_env} is not set on the relay"
        return None

    def readiness(self):
        """Lane id to the reason it is not ready (None when ready), with one CLI status read."""
        cli = self._cli_status()
        return {lane.id: self.unavailable_reason(lane, cli) for lane in self.lanes}


def model_record(lane, available):
    return {"id": lane.id, "routing_model": lane.routing_model, "service_tier": lane.service_tier,
            "endpoint_slug": lane.endpoint_slug, "provider": lane.provider, "display_name": lane.display_name,
            "capabilities": list(lane.capabilities), "context_window": lane.context_window,
            "latency_ms": lane.latency_ms, "input_cost_per_million": lane.input_cost_per_million,
            "output_cost_per_million": lane.output_cost_per_million, "quality": lane.quality,
            "channel": lane.channel, "available": available}


def adapter_record(lane, ready):
    return {"model_id": lane.id, "routing_model": lane.routing_model, "service_tier": lane.service_tier,
            "endpoint_slug": lane.endpoint_slug, "protocol_name": lane.protocol_name,
            "data_policy": lane.data_policy, "supported_parameters": list(lane.supported_parameters),
            "ready": ready}
