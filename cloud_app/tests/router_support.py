"""Inventories for router tests: API lanes in the format the application hands the relay."""

import json

FAKE_KEY = "sk-router-test"


def lane(lane_id, url, protocol="openai_chat", key_env="ROUTER_TEST_KEY", **fields):
    """One inventory record for a lane served at `url` (a fake provider's base)."""
    record = {
        "id": lane_id, "routing_model": fields.pop("routing_model", lane_id), "provider": fields.pop("provider", "fake"),
        "display_name": fields.pop("display_name", lane_id.replace("-", " ").title()),
        "capabilities": fields.pop("capabilities", ["reasoning", "long_context", "tools"]),
        "context_window": fields.pop("context_window", 128000), "latency_ms": fields.pop("latency_ms", 800),
        "input_cost_per_million": fields.pop("input_cost_per_million", 1.0),
        "output_cost_per_million": fields.pop("output_cost_per_million", 4.0),
        "quality": fields.pop("quality", 80), "protocol_name": protocol, "endpoint": url,
        "api_key_env": key_env, "upstream_model": fields.pop("upstream_model", "fake-model"),
        "data_policy": fields.pop("data_policy", "standard"),
        "supported_parameters": fields.pop("supported_parameters", ["max_tokens"]),
        "available": fields.pop("available", True),
    }
    record.update(fields)
    return record


def inventory_env(lanes, keys=None):
    env = {"ROUTER_MODELS_JSON": json.dumps(lanes)}
    env.update(keys if keys is not None else {"ROUTER_TEST_KEY": FAKE_KEY})
    return env
