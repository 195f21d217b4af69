"""The router's paths: catalog, policy, preview, budgets, usage, generations, and completions.

A completion is routed by the same `scoring.decide` as a preview, then tried lane by lane:
before each attempt its worst case (the whole request body counted at one token per byte,
plus the whole `max_output_tokens`, at the lane's prices) is reserved against every budget that
applies, in one write transaction; after it, the reservation is replaced by what the
provider reported. So any number of completions at once can never spend past a budget.
"""

import asyncio
import functools
import dataclasses
import json
import math
import secrets
import threading
import time

from .. import clock, presets
from ..cli_status import CliInspector
from ..config import HEALTH_WINDOW
from ..errors import ApiError, bad_request, not_found
from ..jsonio import Body
from . import conversation, json_healing, ledger, middle_out, protocols, scoring
from .calls import attempt
from .caller_requests import MAX_INPUT_CHARACTERS, MAX_NAME, MAX_OUTPUT_TOKENS, chat_tools
from .guardrails import zdr_group
from .lanes import INVENTORY_VARIABLE, Catalog, adapter_record, model_record
from .toolcheck import check_answer

# Policy limits.
MAX_FALLBACKS = 10
MAX_ALLOWED_PROVIDERS = 100
# A token estimate for scoring only: about four bytes of text per token.
BYTES_PER_TOKEN_ESTIMATE = 4
# A probe asks for the least a provider can answer: one token of output.
PROBE_INPUT = "Reply with the word OK."
PROBE_OUTPUT_TOKENS = 1
PROBE_TASK = "chat"
NO_LANE_STATUS = 422
BUDGET_STATUS = 402
ALL_FAILED_STATUS = 502


@dataclasses.dataclass(frozen=True)
class AppliedRoute:
    """What a preset sets beside the model: the provider sort, the service tier, the sampling
    and format parameters sent to the provider, and the plugins that transform the prompt or the
    answer (`middle_out`, `json_healing`)."""
    sort_by: str | None = None
    tier: str | None = None
    parameters: dict = dataclasses.field(default_factory=dict)
    plugins: tuple = ()

    @classmethod
    def of(cls, preset):
        return cls(preset.provider_sort, preset.service_tier, preset.parameters(), preset.plugins)


def _new_id(prefix):
    return prefix + secrets.token_hex(12)


def new_generation_id():
    return _new_id("gen_")


class ModelRouter:
    def __init__(self, app):
        self.app = app
        self.db = app.db
        self.timings = app.settings.timings
        self.catalog = Catalog(app.settings.get(INVENTORY_VARIABLE), app.settings.get, self._cli_status)
        self._cli_lock = threading.Lock()
        self._cli_cached = None
        self._cli_read_at = -math.inf
        self._signals_lock = threading.Lock()
        self._signals_cache = {}  # user id -> (read at, health, performance, tool quality)
        # Called with (user id, generation id, prompt, instructions, tools, outcome) for each
        # completed generation; each returns at once.
        self.generation_listeners = []

    def register(self, router):
        router.add("GET", "v1/router/catalog", self.read_catalog)
        router.add("POST", "v1/router/policy", self.save_policy, quick=True)
        router.add("POST", "v1/router/preview", self.preview)
        router.add("GET", "v1/router/usage", self.read_usage)
        router.add("GET", "v1/router/budgets", self.read_budgets)
        router.add("POST", "v1/router/budgets", self.save_budget, quick=True)
        router.add("GET", "v1/router/generations", self.read_generations)
        # Programs holding a gateway key may call it too, under their key's rules.
        router.add("POST", "v1/complete", self.complete, gateway="also")
        router.add("POST", "v1/router/probe", self.probe)

    async def start(self):
        # Nothing is in flight when the relay starts: reservations left by a stopped relay go.
        await self.app.workers.run(ledger.clear_reservations, self.db)

    def _cli_status(self):
        """The CLIs' status, read at most once per `cli_status_cache_seconds`."""
        with self._cli_lock:
            now = time.monotonic()
            if self._cli_cached is None or now - self._cli_read_at >= self.timings.cli_status_cache_seconds:
                self._cli_cached = self.app.areas[CliInspector].status()
                self._cli_read_at = now
            return self._cli_cached

    # Reads.

    def _signals(self, conn, user_id, project_id=None):
        """What routing weighs: health, speed and tool-call quality (read at most once per
        `router_signals_seconds` per user, since every request would otherwise scan the
        recent ledger), and the budget's headroom (always read afresh)."""
        now = time.monotonic()
        with self._signals_lock:
            cached = self._signals_cache.get(user_id)
        if cached is None or now - cached[0] >= self.timings.router_signals_seconds:
            cached = (now, *_observed(conn))
            with self._signals_lock:
                self._signals_cache[user_id] = cached
        return scoring.Signals(health=cached[1], performance=cached[2], tool_quality=cached[3],
                               budget_remaining=ledger.headroom(conn, project_id))

    def read_catalog(self, request):
        readiness = self.catalog.readiness()
        with self.db.read_as(request.user_id) as conn:
            policy = ledger.read_policy(conn)
            health, performance, quality = _observed(conn)
        return {"models": [model_record(lane, readiness[lane.id] is None) for lane in self.catalog.lanes],
                "policy": ledger.policy_record(policy), "provider_health": health,
                "model_performance": performance, "tool_call_quality": quality,
                "adapters": [adapter_record(lane, readiness[lane.id] is None) for lane in self.catalog.lanes]}

    def read_usage(self, request):
        with self.db.read_as(request.user_id) as conn:
            return ledger.usage(conn)

    def read_budgets(self, request):
        with self.db.read_as(request.user_id) as conn:
            return ledger.budgets(conn)

    def read_generations(self, request):
        with self.db.read_as(request.user_id) as conn:
            return ledger.generations(conn)

    # Writes.

    def save_policy(self, request):
        body = request.body()
        cap = body.number("max_cost_per_request", required=False, minimum=0)
        providers = body.string_list("allowed_providers")
        if len(providers) > MAX_ALLOWED_PROVIDERS or any(len(name) > MAX_NAME or not name.strip() for name in providers):
            raise bad_request(f"allowed_providers must hold at most {MAX_ALLOWED_PROVIDERS} non-empty names "
                              f"of at most {MAX_NAME} characters")
        policy = {"strategy": body.one_of("strategy", scoring.STRATEGIES), "max_cost_per_request": cap,
                  "fallback_enabled": body.boolean("fallback_enabled"),
                  "max_fallbacks": body.integer("max_fallbacks", minimum=0, maximum=MAX_FALLBACKS),
                  "allowed_providers": providers}
        with self.db.write_as(request.user_id) as conn:
            ledger.write_policy(conn, policy)
        return ledger.policy_record(policy)

    def save_budget(self, request):
        body = request.body()
        period = body.one_of("period", ledger.PERIODS)
        limit = body.number("limit_usd", minimum=0)
        if limit <= 0:
            raise bad_request("limit_usd must be above 0")
        project_id = body.string("project_id", required=False, non_empty=True, max_length=MAX_NAME)
        with self.db.write_as(request.user_id) as conn:
            if project_id is not None:
                self._check_project(conn, project_id)
            ledger.set_budget(conn, period, limit, project_id or ledger.ACCOUNT)
            for budget in ledger.budgets(conn):
                if budget["period"] == period and budget.get("project_id") == project_id:
                    return budget
        raise ApiError(500, "internal error")

    @staticmethod
    def _check_project(conn, project_id):
        if conn.execute("SELECT 1 FROM projects WHERE user_id = :user_id AND id = :id",
                        {"id": project_id}).fetchone() is None:
            raise not_found("project not found")

    # Preview.

    def preview(self, request):
        body = request.body()
        tokens_in = body.integer("input_tokens", minimum=0, maximum=MAX_OUTPUT_TOKENS * 100)
        tokens_out = body.integer("estimated_output_tokens", minimum=0, maximum=MAX_OUTPUT_TOKENS * 100)
        route = scoring.RouteRequest(
            task=body.one_of("task", scoring.TASKS), input_tokens=tokens_in, output_tokens=tokens_out,
            channel=body.one_of("channel", scoring.CHANNELS),
            latency_budget_ms=body.integer("latency_budget_ms", required=False, minimum=0),
            max_cost_usd=body.number("max_cost_usd", required=False, minimum=0),
            tools=chat_tools(body))
        if body.has("provider"):
            raw = request.json()["provider"]
            provider = Body(raw, "provider.")
            if provider.has("sort"):
                sort = Body(raw["sort"], "provider.sort.")
                route.sort_by = sort.one_of("by", scoring.SORTS)
                route.partition = sort.one_of("partition", scoring.PARTITIONS)
            route.preferred_max_latency_s = provider.number("preferred_max_latency", required=False, minimum=0)
            route.preferred_min_throughput = provider.number("preferred_min_throughput", required=False, minimum=0)
        readiness = self.catalog.readiness()
        with self.db.read_as(request.user_id) as conn:
            policy = ledger.read_policy(conn)
            signals = self._signals(conn, request.user_id)
        try:
            decision = scoring.decide(self.catalog.lanes, readiness, route, policy, signals)
        except scoring.NoLane as error:
            raise ApiError(NO_LANE_STATUS, error.message) from None
        record = decision_record(_new_id("rd_"), clock.now_iso(), decision, readiness)
        with self.db.write_as(request.user_id) as conn:
            ledger.store_decision(conn, record["id"], "preview", route.task, record)
        return record

    # Completions.

    async def complete(self, request):
        body = request.body()
        task = body.one_of("task", scoring.TASKS)
        text = body.string("input", non_empty=True, max_length=MAX_INPUT_CHARACTERS)
        instructions = body.string("instructions", required=False, max_length=MAX_INPUT_CHARACTERS)
        project_id = body.string("project_id", required=False, non_empty=True, max_length=MAX_NAME)
        model = body.string("model", required=False, non_empty=True, max_length=MAX_NAME) or "auto"
        preset = body.string("preset", required=False, non_empty=True, max_length=MAX_NAME)
        max_output = body.integer("max_output_tokens", required=False, minimum=1, maximum=MAX_OUTPUT_TOKENS)
        tools = chat_tools(body)
        if request.gateway_key is not None and project_id is not None:
            # A key reaches no project data, not even to charge a project's budget.
            raise not_found("project not found")
        chosen = await request.run(self.preset_of, request.user_id, preset, model)
        applied = AppliedRoute()
        if chosen is not None:
            # The designated version gives defaults; the request's own fields win, and its
            # instructions are added after the preset's.
            if model == "auto" or presets.preset_reference(model) is not None:
                model = chosen.models or "auto"
            instructions = presets.joined_instructions(chosen.instructions, instructions)
            max_output = max_output or chosen.max_output_tokens
            tools = tools or chosen.tools
            applied = AppliedRoute.of(chosen)
        if max_output is None:
            raise bad_request("max_output_tokens is required")
        key, instructions, turns = await self.app.gateway.guard(request, instructions, protocols.turns_of(text))
        prompt = text if key is None else turns
        completion, _ = await self.run_completion(request, task, prompt, instructions, project_id, model, max_output,
                                                  tools, gateway_key=key, applied=applied)
        self.app.gateway.used(key, completion)
        return completion

    async def run_completion(self, request, task, text, instructions, project_id, model, max_output, tools,
                             gateway_key=None, on_delta=None, generation_id=None, classify=True,
                             applied=None):
        """Routes one completion and tries its lanes in turn; returns (the `GatewayCompletion`
        record, the served attempt's outcome). `text` is a prompt or a conversation; `model` is
        "auto", a model, or a preset's chain of models (a tuple, primary first); `gateway_key` is
        a gateway key's rules, which narrow the lanes and are recorded with the generation;
        `applied` is what a preset sets beside the model (`AppliedRoute`). `on_delta` is awaited
        with (the lane, deltas) as a streamed answer comes (see calls.attempt); once it has
        received part of one, no other lane is tried. `generation_id` names the generation when
        the caller needs its id before the answer (a stream's first event carries it). A completed
        generation is offered to `generation_listeners` (usage classifiers) unless `classify` is
        false (a classifier's own call)."""
        applied = applied or AppliedRoute()
        size = conversation.prompt_bytes(text) + len((instructions or "").encode("utf-8"))
        compress = middle_out.PLUGIN in applied.plugins
        route = scoring.RouteRequest(task=task, input_tokens=max(1, size // BYTES_PER_TOKEN_ESTIMATE),
                                     output_tokens=max_output, channel="api", tools=tools, project_id=project_id,
                                     sort_by=applied.sort_by if applied.sort_by in scoring.SORTS else None,
                                     compressible=compress)
        started = time.monotonic()
        user_id = request.user_id
        on_ledger = self.app.ledger_workers.run
        generation_id = generation_id or new_generation_id()

        fitted = {}

        def prompt_for(lane):
            """The prompt as this lane gets it: compressed to its window when the preset asks, once
            per lane (its budget reservation and its attempt both need it)."""
            if not compress:
                return text
            if lane.id not in fitted:
                fitted[lane.id] = middle_out.fit(text, middle_out.room(lane, instructions, max_output, tools))
            return fitted[lane.id]

        def worst(lane):
            return lane.cost(worst_case_input(lane, prompt_for(lane), instructions, max_output, tools), max_output)

        decision, record, reservation = await on_ledger(self._route_completion, user_id, route, model, worst, gateway_key,
                                                        applied.tier)
        candidates = [decision.primary] + decision.fallbacks
        # Kept for the gateway's content-free metadata of the route.
        request.route_candidates = [candidate.lane.id for candidate in candidates]
        deadline = started + self.timings.complete_deadline_seconds
        attempts, answer, last_failure, refused_for_budget, written = [], None, None, False, None
        lane = None

        def generation(status=None):
            row = _generation_row(generation_id, record, route, answer, attempts, started, request.request_id, status)
            row["gateway_key_id"] = gateway_key["id"] if gateway_key else None
            return row

        try:
            for seq, candidate in enumerate(candidates, start=1):
                lane = candidate.lane
                key = self.catalog.key(lane)
                remaining = deadline - time.monotonic()
                if key is None or remaining <= 0:
                    if reservation is not None:
                        await on_ledger(self._release, user_id, reservation)
                        reservation = None
                    continue
                if reservation is None and seq > 1:
                    reservation = await on_ledger(self._reserve, user_id, worst(lane), project_id, gateway_key)
                if reservation is None:
                    refused_for_budget = True
                    attempts.append(_attempt_row(generation_id, seq, lane, project_id, "refused", "budget_exceeded", 0))
                    continue
                forward = None if on_delta is None else functools.partial(on_delta, lane)
                result = await attempt(self.app.upstream, lane, key, prompt_for(lane), instructions, max_output, tools,
                                       remaining, on_delta=forward, parameters=applied.parameters)
                if result.outcome is not None and json_healing.applies(applied.plugins, applied.parameters,
                                                                       streamed=on_delta is not None):
                    healed = json_healing.heal(result.outcome.text)
                    result = dataclasses.replace(result, outcome=dataclasses.replace(result.outcome, text=healed))
                row = _result_row(generation_id, seq, lane, project_id, result, tools)
                attempts.append(row)
                final = row["status"] == "succeeded" or result.failure in protocols.NOT_RETRYABLE \
                    or result.forwarded or seq == len(candidates)
                if row["status"] == "succeeded":
                    answer = (candidate, result)
                else:
                    last_failure = result
                written = generation() if final else None
                held, reservation = reservation, None
                # Settling runs to its end even if the caller leaves meanwhile.
                await asyncio.shield(on_ledger(self._settle, user_id, held, row, written))
                if final:
                    break
        except BaseException as error:
            # The caller went away (or a bug): free what is held, and keep a record.
            status = "cancelled" if isinstance(error, asyncio.CancelledError) else "failed"
            if reservation is not None:
                ended = _attempt_row(generation_id, len(attempts) + 1, lane, project_id, status, status,
                                     int((time.monotonic() - started) * 1000))
                attempts.append(ended)
                await asyncio.shield(on_ledger(self._settle, user_id, reservation, ended, generation(status)))
            elif written is None:
                await asyncio.shield(on_ledger(self._write_generation, user_id, generation(status)))
            raise
        if written is None:
            written = generation()
            await on_ledger(self._write_generation, user_id, written)
        if answer is None:
            if last_failure is None and refused_for_budget:
                raise ApiError(BUDGET_STATUS, "budget exceeded: the worst-case cost of this request is more than "
                                              "the budget has left")
            if last_failure is None:
                raise ApiError(ALL_FAILED_STATUS, "no lane could be tried before the deadline")
            raise ApiError(ALL_FAILED_STATUS, f"every lane failed; last: {last_failure.message} "
                                              f"({last_failure.failure})")
        candidate, result = answer
        lane = candidate.lane
        if classify:
            for listener in self.generation_listeners:
                listener(user_id, generation_id, text, instructions, tools, result.outcome)
        completion = {"id": generation_id, "output": result.outcome.text, "model": lane.id,
                      "provider": lane.provider, "upstream_model": lane.upstream_model}
        if result.outcome.finish_reason:
            completion["finish_reason"] = result.outcome.finish_reason
        completion.update({
            "usage": {"input_tokens": written["input_tokens"], "output_tokens": written["output_tokens"],
                      "cost_usd": written["cost_usd"]},
            "latency_ms": written["latency_ms"], "fell_back": bool(written["fell_back"]),
            "attempts": [ledger.attempt_record(row) for row in attempts], "route_decision_id": record["id"],
            "routed_because": decision.routed_because, "request_id": request.request_id})
        return completion, result.outcome

    # Probes.

    async def probe(self, request):
        """One real minimal request to one lane, recorded as a generation. A provider that does
        not answer correctly is a failure status, never a 2xx with `ok` false: the application
        shows any 2xx as connected."""
        model_id = request.body().string("model_id", non_empty=True, max_length=MAX_NAME)
        lane = next((lane for lane in self.catalog.lanes if lane.id == model_id), None)
        if lane is None:
            raise not_found(f"model {model_id} is not in the catalog")
        if lane.channel != "api":
            raise ApiError(NO_LANE_STATUS, f"{model_id} is a CLI lane; the application runs it, not the relay")
        key = self.catalog.key(lane)
        # An API lane's readiness does not depend on the CLIs' status.
        reason = self.catalog.unavailable_reason(lane, cli={})
        if key is None or reason is not None:
            raise ApiError(NO_LANE_STATUS, f"{model_id} cannot be probed: {reason or 'its key is not set'}")
        generation_id = new_generation_id()
        started = time.monotonic()
        result = await attempt(self.app.upstream, lane, key, PROBE_INPUT, None, PROBE_OUTPUT_TOKENS, None,
                               self.timings.complete_deadline_seconds)
        row = _attempt_row(generation_id, 1, lane, None, "failed", result.failure, result.latency_ms)
        if result.outcome is not None:
            # A probe asks for one token, so an answer without text still shows the lane works.
            outcome = result.outcome
            row.update(status="succeeded", error_code=None, upstream_id=outcome.upstream_id,
                       input_tokens=outcome.input_tokens, output_tokens=outcome.output_tokens,
                       cost_usd=lane.cost(outcome.input_tokens, outcome.output_tokens))
        generation = {"id": generation_id, "project_id": None, "route_decision_id": "probe", "task": PROBE_TASK,
                      "model_id": lane.id, "provider": lane.provider, "service_tier": lane.service_tier,
                      "status": row["status"], "input_tokens": row["input_tokens"],
                      "output_tokens": row["output_tokens"], "cost_usd": row["cost_usd"],
                      "latency_ms": max(0, int((time.monotonic() - started) * 1000)), "fell_back": 0,
                      "zero_completion_insured": 0, "error_code": row["error_code"],
                      "request_id": request.request_id, "tools_declared": 0, "created_at": clock.now()}
        await asyncio.shield(self.app.ledger_workers.run(self._settle_probe, request.user_id, row, generation))
        if result.outcome is None:
            raise ApiError(ALL_FAILED_STATUS, f"probe failed: {result.message} ({result.failure})")
        return {"ok": True, "generation_id": generation_id, "model": lane.id, "provider": lane.provider,
                "latency_ms": result.latency_ms, "cost_usd": row["cost_usd"]}

    def _settle_probe(self, user_id, row, generation):
        with self.db.write_as(user_id) as conn:
            ledger.add_attempt(conn, row)
            ledger.add_generation(conn, generation)

    def preset_of(self, user_id, preset, model):
        """The preset a completion names (by `preset` or as the model "@preset/<slug>"), or None."""
        named = [slug for slug in (preset, presets.preset_reference(model)) if slug is not None]
        if not named:
            return None
        if len(set(named)) > 1:
            raise bad_request("preset and model name two different presets")
        with self.db.read_as(user_id) as conn:
            return presets.resolve_preset(conn, named[0])

    def _route_completion(self, user_id, route, model, worst, key=None, tier=None):
        """Decides, stores the decision and reserves the primary lane's worst case, in one write.

        `model` is "auto", one model, or a preset's chain of models (a tuple, primary first):
        then only the chain's lanes qualify and they are tried in the chain's order."""
        readiness = self.catalog.readiness()
        lanes = self.catalog.lanes
        if key is not None:
            # A key's allowlists intersect the request's own choice of model.
            lanes = [lane for lane in lanes if lane.channel != "api" or key_allows(key, lane)]
        chain = model if isinstance(model, tuple) else None
        if chain is not None:
            lanes = [lane for lane in lanes if lane.id in chain or lane.routing_model in chain]
            if not lanes:
                raise not_found(f"none of the preset's models ({', '.join(chain)}) is in the catalog")
        elif model != "auto":
            lanes = [lane for lane in lanes if model in (lane.id, lane.routing_model)]
            if not lanes:
                raise not_found(f"model {model} is not in the catalog")
        if tier is not None:
            lanes = [lane for lane in lanes if lane.service_tier == tier]
            if not lanes:
                raise ApiError(NO_LANE_STATUS, f"no lane of the chosen models serves the service tier {tier}")
        with self.db.read_as(user_id) as conn:
            if route.project_id is not None:
                self._check_project(conn, route.project_id)
            policy = ledger.read_policy(conn)
            signals = self._signals(conn, user_id, route.project_id)
        if chain is not None:
            # A preset's chain is its fallback order, whatever the account's fallback settings.
            policy = dict(policy, fallback_enabled=True, max_fallbacks=len(lanes))
        try:
            decision = scoring.decide(lanes, readiness, route, policy, signals)
            if chain is not None:
                decision = _in_chain_order(decision, chain)
        except scoring.NoLane as error:
            if error.over_budget:
                raise ApiError(BUDGET_STATUS, "budget exceeded: " + error.message) from None
            raise ApiError(NO_LANE_STATUS, error.message) from None
        record = decision_record(_new_id("rd_"), clock.now_iso(), decision, readiness)
        with self.db.write_as(user_id) as conn:
            ledger.store_decision(conn, record["id"], "complete", route.task, record)
            reservation = ledger.reserve(conn, worst(decision.primary.lane), route.project_id, key)
        return decision, record, reservation

    def _reserve(self, user_id, amount, project_id, gateway_key=None):
        with self.db.write_as(user_id) as conn:
            return ledger.reserve(conn, amount, project_id, gateway_key)

    def _release(self, user_id, reservation):
        with self.db.write_as(user_id) as conn:
            ledger.release(conn, reservation)

    def _settle(self, user_id, reservation, row, generation):
        """Replaces a reservation by what the attempt cost, and writes the generation when it is
        the last attempt, in one transaction."""
        with self.db.write_as(user_id) as conn:
            ledger.release(conn, reservation)
            ledger.add_attempt(conn, row)
            if generation is not None:
                ledger.add_generation(conn, generation)

    def _write_generation(self, user_id, generation):
        with self.db.write_as(user_id) as conn:
            ledger.add_generation(conn, generation)


def _in_chain_order(decision, chain):
    """The decision's candidates reordered by the chain (a model's lanes in the decision's own
    order among themselves)."""
    def place(candidate):
        lane = candidate.lane
        return min(chain.index(name) for name in (lane.id, lane.routing_model) if name in chain)

    ordered = sorted([decision.primary] + decision.fallbacks, key=place)
    return dataclasses.replace(decision, primary=ordered[0], fallbacks=ordered[1:],
                               routed_because="Preset model chain, tried in its order. " + decision.routed_because)


def _observed(conn):
    """What the ledger has seen of the lanes: provider health, performance, tool-call quality."""
    return ledger.provider_health(conn, HEALTH_WINDOW), ledger.performance(conn), ledger.tool_quality(conn)


def _generation_row(generation_id, record, route, answer, attempts, started, request_id, status):
    served = answer[0].lane if answer else None
    last = attempts[-1] if attempts else None
    primary = record["primary"]["model"]
    return {"id": generation_id, "project_id": route.project_id, "route_decision_id": record["id"],
            "task": route.task, "model_id": served.id if served else None,
            "provider": served.provider if served else None,
            "service_tier": served.service_tier if served else primary["service_tier"],
            "status": status or ("succeeded" if answer else "failed"),
            "input_tokens": sum(row["input_tokens"] for row in attempts),
            "output_tokens": sum(row["output_tokens"] for row in attempts),
            "cost_usd": sum(row["cost_usd"] for row in attempts),
            "latency_ms": max(0, int((time.monotonic() - started) * 1000)),
            "fell_back": int(served is not None and served.id != primary["id"]),
            "zero_completion_insured": int(any(row["insured"] for row in attempts)),
            "error_code": None if answer else (last["error_code"] if last else "no_lane_tried"),
            "request_id": request_id, "tools_declared": int(bool(route.tools)), "created_at": clock.now()}


def key_allows(key, lane):
    """Whether a gateway key's allowlists and retention rules let it reach `lane`."""
    models = key["allowed_models"]
    if models and lane.id not in models and lane.routing_model not in models:
        return False
    providers = key["allowed_providers"]
    if providers and lane.provider not in providers and lane.endpoint_slug not in providers:
        return False
    if key["enforce_zdr"].get(zdr_group(lane.provider, lane.id)) and lane.data_policy != "zdr":
        return False
    return True


def worst_case_input(lane, text, instructions, max_output, tools):
    """The most input tokens a request can be charged for: one per byte of the whole request body
    sent to the provider (no tokenizer in use makes more tokens than bytes)."""
    _, body = protocols.build_request(lane, "", text, instructions, max_output, tools, lane.streams)
    return len(json.dumps(body).encode("utf-8"))


def _attempt_row(generation_id, seq, lane, project_id, status, error_code, latency_ms):
    return {"generation_id": generation_id, "seq": seq, "provider": lane.provider, "model_id": lane.id,
            "project_id": project_id, "status": status, "error_code": error_code, "latency_ms": latency_ms,
            "upstream_id": None, "input_tokens": 0, "output_tokens": 0, "cost_usd": 0.0, "throughput_tps": None,
            "tool_valid": None, "tool_error": None, "created_at": clock.now(), "insured": False}


def _result_row(generation_id, seq, lane, project_id, result, tools):
    outcome = result.outcome
    if outcome is not None and not outcome.text and not outcome.tool_calls:
        # An empty completion: nothing to show for it, so nothing is charged, and the next lane is tried.
        row = _attempt_row(generation_id, seq, lane, project_id, "failed", protocols.EMPTY, result.latency_ms)
        row.update(upstream_id=outcome.upstream_id, insured=True)
        result.failure, result.message = protocols.EMPTY, f"{lane.display_name} returned an empty answer"
        return row
    if outcome is None:
        row = _attempt_row(generation_id, seq, lane, project_id, "failed", result.failure, result.latency_ms)
        row["insured"] = result.broke_off
        return row
    row = _attempt_row(generation_id, seq, lane, project_id, "succeeded", None, result.latency_ms)
    row.update(upstream_id=outcome.upstream_id, input_tokens=outcome.input_tokens,
               output_tokens=outcome.output_tokens, cost_usd=lane.cost(outcome.input_tokens, outcome.output_tokens),
               throughput_tps=result.throughput_tps)
    if tools:
        valid, problem = check_answer(outcome.tool_calls, tools)
        if valid is not None:
            row.update(tool_valid=int(valid), tool_error=problem)
    return row


def _candidate_record(candidate, readiness):
    return {"model": model_record(candidate.lane, readiness.get(candidate.lane.id) is None),
            "score": round(candidate.score, 3), "estimated_cost_usd": candidate.cost, "reasons": candidate.reasons}


def decision_record(decision_id, created_at, decision, readiness):
    return {"id": decision_id, "created_at": created_at, "task": decision.task,
            "required_capabilities": decision.required_capabilities,
            "primary": _candidate_record(decision.primary, readiness),
            "fallbacks": [_candidate_record(item, readiness) for item in decision.fallbacks],
            "rejected": [{"model_id": lane_id, "reason": reason} for lane_id, reason in decision.rejected],
            "routed_because": decision.routed_because}
