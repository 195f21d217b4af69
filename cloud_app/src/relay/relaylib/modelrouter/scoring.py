"""How a request is routed: hard filters, then a score, then the provider sort. Pure functions.

`decide` is the one routine behind both a route preview and every real completion. It
takes the lanes, why each is not ready, the request, the policy and what has been
observed (provider health, latency and throughput percentiles, tool-call quality, the
budget's headroom), and returns the chosen lane, its fallbacks and every rejected lane
with its reason, or raises `NoLane` naming why nothing qualified.
"""

import dataclasses
import math

TASKS = ("chat", "summarise", "classify", "extract", "code", "reason", "vision", "transcribe")
CHANNELS = ("any", "api", "cli")
STRATEGIES = ("balanced", "quality", "cost", "latency")
SORTS = ("price", "latency", "throughput")
PARTITIONS = ("model", "none")
# What a task needs a lane to be able to do; declaring tools adds "tools".
TASK_CAPABILITIES = {"reason": ("reasoning",), "vision": ("vision",), "transcribe": ("audio",)}
TOOLS_CAPABILITY = "tools"
# A provider whose recent health is below this is not tried at all.
MIN_HEALTH = 0.25
# Observed percentiles count once a lane has this many samples in the window.
MIN_PERFORMANCE_SAMPLES = 3
# Tool-call quality counts once a lane has this many tool requests in its window.
MIN_TOOL_SAMPLES = 5
# Points taken from a lane's score for each soft preference it misses.
PREFERENCE_PENALTY = 15.0
# How much of the score each measure makes, by strategy: quality, price, latency, throughput.
WEIGHTS = {
    "balanced": (0.4, 0.3, 0.2, 0.1),
    "quality": (0.7, 0.1, 0.1, 0.1),
    "cost": (0.2, 0.6, 0.1, 0.1),
    "latency": (0.2, 0.1, 0.5, 0.2),
}
# Throughput score of a lane never measured: the middle, so it is neither favoured nor buried.
UNKNOWN_THROUGHPUT_SCORE = 50.0


# A budget rejection is known by its reason's ending, so both come from one place.
BUDGET_REASON_END = "left in the budget"
BUDGET_REASON = "estimated ${cost:.4f} exceeds the ${left:.4f} " + BUDGET_REASON_END


class NoLane(Exception):
    """No lane qualifies; the message says why, and `rejected` holds each lane's reason.
    `over_budget` is true when some lane passed every other filter but the budget."""

    def __init__(self, message, rejected, over_budget=False):
        super().__init__(message)
        self.message = message
        self.rejected = rejected
        self.over_budget = over_budget


@dataclasses.dataclass
class RouteRequest:
    task: str
    input_tokens: int
    output_tokens: int
    channel: str = "any"
    latency_budget_ms: int | None = None
    max_cost_usd: float | None = None
    sort_by: str | None = None
    partition: str = "model"
    preferred_max_latency_s: float | None = None
    preferred_min_throughput: float | None = None
    tools: list | None = None
    project_id: str | None = None
    # The prompt is cut to each lane's window (context compression): only the answer must fit.
    compressible: bool = False


@dataclasses.dataclass
class Signals:
    health: dict  # provider -> 0..1
    performance: dict  # lane id -> {"sample_count", "latency_ms": {...}, "throughput_tps": {...}}
    tool_quality: dict  # lane id -> {"sample_count", "valid_rate", "routing_score"}
    # The smallest amount left in any budget that applies, or None when none applies.
    budget_remaining: float | None = None


@dataclasses.dataclass
class Candidate:
    lane: object
    score: float
    cost: float
    reasons: list
    latency_ms: float
    throughput: float | None


@dataclasses.dataclass
class Decision:
    task: str
    required_capabilities: list
    primary: Candidate
    fallbacks: list
    rejected: list  # [(lane id, reason)]
    routed_because: str


def required_capabilities(request):
    needed = list(TASK_CAPABILITIES.get(request.task, ()))
    if request.tools:
        needed.append(TOOLS_CAPABILITY)
    return needed


def _p50(stats, key):
    if not stats or stats.get("sample_count", 0) < MIN_PERFORMANCE_SAMPLES:
        return None
    return (stats.get(key) or {}).get("p50")


def effective_latency(lane, performance):
    """Observed p50 latency when measured enough, else the declared one."""
    observed = _p50(performance.get(lane.id), "latency_ms")
    return observed if observed is not None else float(lane.latency_ms)


def _rejection(lane, request, policy, signals, readiness, needed, cost_cap):
    """The hard filters, in order; the first that a lane fails is its reason."""
    if request.channel != "any" and lane.channel != request.channel:
        return f"channel is {lane.channel}, the request asks for {request.channel}"
    missing = [name for name in needed if name not in lane.capabilities]
    if missing:
        return "lacks " + ", ".join(missing)
    if request.compressible:
        too_small = request.output_tokens >= lane.context_window
    else:
        too_small = request.input_tokens + request.output_tokens > lane.context_window
    if too_small:
        return f"context window of {lane.context_window} tokens is too small"
    if readiness.get(lane.id):
        return "not ready: " + readiness[lane.id]
    if request.latency_budget_ms is not None:
        latency = effective_latency(lane, signals.performance)
        if latency > request.latency_budget_ms:
            return f"latency {latency:.0f} ms exceeds the budget of {request.latency_budget_ms} ms"
    cost = lane.cost(request.input_tokens, request.output_tokens)
    if cost_cap is not None and cost > cost_cap:
        return f"estimated ${cost:.4f} exceeds the cap of ${cost_cap:.4f}"
    allowed = policy.get("allowed_providers") or []
    if allowed and lane.provider not in allowed:
        return f"provider {lane.provider} is not allowed by the policy"
    if signals.budget_remaining is not None and cost > signals.budget_remaining:
        return BUDGET_REASON.format(cost=cost, left=max(0.0, signals.budget_remaining))
    return None


def _health_rejection(lane, signals):
    health = signals.health.get(lane.provider, 1.0)
    if health < MIN_HEALTH:
        return f"provider health {health * 100:.0f}% is below {MIN_HEALTH * 100:.0f}%"
    return None


def _relative(value, best, higher_is_better):
    """0 to 100 against the best value among the candidates."""
    if higher_is_better:
        return 100.0 * value / best if best > 0 else 100.0
    return 100.0 * (best + 1e-9) / (value + 1e-9)


def decide(lanes, readiness, request, policy, signals):
    needed = required_capabilities(request)
    caps = [cap for cap in (request.max_cost_usd, policy.get("max_cost_per_request")) if cap is not None]
    cost_cap = min(caps) if caps else None
    qualified, rejected, over_budget = [], [], False
    for lane in lanes:
        reason = _rejection(lane, request, policy, signals, readiness, needed, cost_cap)
        if reason is None:
            qualified.append(lane)
        else:
            rejected.append((lane.id, reason))
            over_budget = over_budget or reason.endswith(BUDGET_REASON_END)
    # Health filters only while a healthy lane remains: when every provider is failing, the
    # lanes are still tried (worst health last), or a provider could never show it recovered.
    health = {lane.id: _health_rejection(lane, signals) for lane in qualified}
    healthy = [lane for lane in qualified if health[lane.id] is None]
    if healthy and len(healthy) < len(qualified):
        rejected.extend((lane.id, health[lane.id]) for lane in qualified if health[lane.id] is not None)
        qualified = healthy
    if not qualified:
        raise NoLane(_nothing_qualifies(request, rejected), rejected, over_budget)
    candidates = _score(qualified, request, policy, signals)
    candidates = _sort(candidates, request, signals)
    fallbacks = candidates[1:1 + policy.get("max_fallbacks", 0)] if policy.get("fallback_enabled") else []
    primary = candidates[0]
    for candidate in [primary] + fallbacks:
        _explain(candidate, signals)
    return Decision(task=request.task, required_capabilities=needed, primary=primary, fallbacks=fallbacks,
                    rejected=rejected, routed_because=_because(primary, request, policy, len(qualified), rejected))


def _score(lanes, request, policy, signals):
    weights = WEIGHTS.get(policy.get("strategy"), WEIGHTS["balanced"])
    costs = {lane.id: lane.cost(request.input_tokens, request.output_tokens) for lane in lanes}
    latencies = {lane.id: effective_latency(lane, signals.performance) for lane in lanes}
    throughputs = {lane.id: _p50(signals.performance.get(lane.id), "throughput_tps") for lane in lanes}
    cheapest = min(costs.values())
    fastest = min(latencies.values())
    known = [value for value in throughputs.values() if value]
    best_throughput = max(known) if known else 0.0
    candidates = []
    for lane in lanes:
        cost, latency, throughput = costs[lane.id], latencies[lane.id], throughputs[lane.id]
        parts = (
            float(lane.quality),
            _relative(cost, cheapest, False),
            _relative(latency, fastest, False),
            _relative(throughput, best_throughput, True) if throughput else UNKNOWN_THROUGHPUT_SCORE,
        )
        score = sum(weight * part for weight, part in zip(weights, parts))
        health = signals.health.get(lane.provider, 1.0)
        score *= 0.5 + 0.5 * health
        notes = []
        if request.preferred_max_latency_s is not None and latency > request.preferred_max_latency_s * 1000:
            score -= PREFERENCE_PENALTY
            notes.append("slower than the preferred latency")
        if request.preferred_min_throughput is not None and throughput is not None \
                and throughput < request.preferred_min_throughput:
            score -= PREFERENCE_PENALTY
            notes.append("below the preferred throughput")
        if request.tools and request.sort_by != "price":
            quality = signals.tool_quality.get(lane.id)
            if quality and quality.get("sample_count", 0) >= MIN_TOOL_SAMPLES:
                # Valid tool calls matter as much as a quarter of the score: a lane that breaks
                # schemas fails the agent that called it.
                score = 0.75 * score + 0.25 * quality["routing_score"]
                notes.append(f"tool calls {quality['valid_rate'] * 100:.0f}% valid")
        # The reasons are written out only for the lanes a decision shows (see _explain).
        candidates.append(Candidate(lane, max(0.0, score), cost, notes, latency, throughput))
    candidates.sort(key=lambda item: (-item.score, item.cost, item.lane.id))
    return candidates


def _explain(candidate, signals):
    """Puts the plain reasons in front of the notes the score left."""
    lane = candidate.lane
    observed = _p50(signals.performance.get(lane.id), "latency_ms") is not None
    reasons = [f"quality {lane.quality}", f"est. ${candidate.cost:.4f}",
               f"{'p50' if observed else 'declared'} {candidate.latency_ms:.0f} ms"]
    if candidate.throughput:
        reasons.append(f"p50 {candidate.throughput:.1f} tok/s")
    health = signals.health.get(lane.provider, 1.0)
    if health < 1.0:
        reasons.append(f"health {health * 100:.0f}%")
    candidate.reasons = reasons + candidate.reasons


def _metric(candidate, by):
    if by == "price":
        return candidate.cost
    if by == "latency":
        return candidate.latency_ms
    return -(candidate.throughput or 0.0)


def _sort(candidates, request, signals):
    """An explicit provider sort reorders by its measure: across all lanes (partition "none") or
    among the lanes serving one model, whose groups keep their order by score ("model"). With
    tools declared and no price sort, lanes serving the same model are reordered by the
    validity of their recent tool calls, then by throughput."""
    if request.sort_by in SORTS:
        if request.partition == "none":
            return sorted(candidates, key=lambda item: (_metric(item, request.sort_by), -item.score))
        return _within_models(candidates, lambda item: (_metric(item, request.sort_by), -item.score))
    if request.tools:
        def tool_order(item):
            quality = signals.tool_quality.get(item.lane.id) or {}
            usable = quality.get("sample_count", 0) >= MIN_TOOL_SAMPLES
            return (-(quality.get("routing_score", 0.0) if usable else 0.0), -(item.throughput or 0.0), -item.score)
        return _within_models(candidates, tool_order)
    return candidates


def _within_models(candidates, key):
    groups, order = {}, []
    for item in candidates:
        if item.lane.routing_model not in groups:
            groups[item.lane.routing_model] = []
            order.append(item.lane.routing_model)
        groups[item.lane.routing_model].append(item)
    result = []
    for model in order:
        result.extend(sorted(groups[model], key=key))
    return result


def _because(primary, request, policy, qualified, rejected):
    lane = primary.lane
    text = (f"{lane.display_name} ({lane.provider}) was chosen for the {request.task} task by the "
            f"{policy.get('strategy', 'balanced')} strategy: {', '.join(primary.reasons)}.")
    if request.sort_by in SORTS:
        text += f" Sorted by {request.sort_by}."
    text += f" {qualified} lane{'s' if qualified != 1 else ''} qualified"
    if rejected:
        text += f", {len(rejected)} rejected"
    return text + "."


def _nothing_qualifies(request, rejected):
    if not rejected:
        return "no lane qualifies: the catalog is empty"
    reasons = "; ".join(f"{lane_id}: {reason}" for lane_id, reason in rejected[:6])
    more = f" (and {len(rejected) - 6} more)" if len(rejected) > 6 else ""
    return f"no lane qualifies for this {request.task} request — {reasons}{more}"


def percentiles(values):
    """p50, p75, p90 and p99 by nearest rank; absent keys when there are no values."""
    if not values:
        return {}
    ordered = sorted(values)
    count = len(ordered)
    result = {}
    for name, share in (("p50", 0.5), ("p75", 0.75), ("p90", 0.9), ("p99", 0.99)):
        rank = max(1, math.ceil(share * count))
        result[name] = float(ordered[rank - 1])
    return result
