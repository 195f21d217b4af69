"""What the router keeps per user: the policy, budgets with reservations, every decision, every
generation with its attempts, and the figures drawn from them. Each function takes the user's
scoped connection (`db.read_as` / `db.write_as`), so every statement names `:user_id`.

Prompts and outputs are never stored: a generation is its lane, tokens, cost, timing and
outcome.
"""

import datetime
import json

from .. import clock
from .scoring import percentiles

PERIODS = ("daily", "weekly", "monthly", "lifetime")
DEFAULT_POLICY = {"strategy": "balanced", "max_cost_per_request": None, "fallback_enabled": True,
                  "max_fallbacks": 2, "allowed_providers": []}
# Observed latency and throughput cover this window.
PERFORMANCE_WINDOW_SECONDS = 300
# Tool-call quality covers this window.
TOOL_QUALITY_WINDOW_SECONDS = 32 * 24 * 3600
# Newest generations listed.
GENERATIONS_LIMIT = 100
# Days of the daily usage series.
USAGE_DAYS = 30
ACCOUNT = ""


# Policy.

def read_policy(conn):
    row = conn.execute("SELECT * FROM router_policy WHERE user_id = :user_id").fetchone()
    if row is None:
        return dict(DEFAULT_POLICY)
    return {"strategy": row["strategy"], "max_cost_per_request": row["max_cost_per_request"],
            "fallback_enabled": bool(row["fallback_enabled"]), "max_fallbacks": row["max_fallbacks"],
            "allowed_providers": json.loads(row["allowed_providers"])}


def write_policy(conn, policy):
    conn.execute(
        "INSERT INTO router_policy (user_id, strategy, max_cost_per_request, fallback_enabled, max_fallbacks, "
        "allowed_providers, updated_at) VALUES (:user_id, :strategy, :max_cost, :fallback, :max_fallbacks, "
        ":allowed, :now) ON CONFLICT (user_id) DO UPDATE SET strategy = excluded.strategy, "
        "max_cost_per_request = excluded.max_cost_per_request, fallback_enabled = excluded.fallback_enabled, "
        "max_fallbacks = excluded.max_fallbacks, allowed_providers = excluded.allowed_providers, "
        "updated_at = excluded.updated_at",
        {"strategy": policy["strategy"], "max_cost": policy["max_cost_per_request"],
         "fallback": int(policy["fallback_enabled"]), "max_fallbacks": policy["max_fallbacks"],
         "allowed": json.dumps(policy["allowed_providers"]), "now": clock.now()})


def policy_record(policy):
    record = {"strategy": policy["strategy"], "fallback_enabled": policy["fallback_enabled"],
              "max_fallbacks": policy["max_fallbacks"], "allowed_providers": list(policy["allowed_providers"])}
    if policy["max_cost_per_request"] is not None:
        record["max_cost_per_request"] = policy["max_cost_per_request"]
    return record


# Budgets.

def period_start(period, now):
    """When the current period began (UTC): today, this ISO week (Monday), this month, or ever."""
    if period == "lifetime":
        return 0.0
    day = datetime.datetime.fromtimestamp(now, tz=datetime.timezone.utc).date()
    if period == "weekly":
        day -= datetime.timedelta(days=day.weekday())
    elif period == "monthly":
        day = day.replace(day=1)
    return datetime.datetime.combine(day, datetime.time(), tzinfo=datetime.timezone.utc).timestamp()


def _spent(conn, since, project_id):
    sql = "SELECT COALESCE(SUM(cost_usd), 0) FROM router_attempts WHERE user_id = :user_id AND created_at >= :since"
    if project_id:
        sql += " AND project_id = :project"
    return conn.execute(sql, {"since": since, "project": project_id}).fetchone()[0]


def _reserved(conn, project_id):
    sql = "SELECT COALESCE(SUM(amount_usd), 0) FROM router_reservations WHERE user_id = :user_id"
    if project_id:
        sql += " AND project_id = :project"
    return conn.execute(sql, {"project": project_id}).fetchone()[0]


def budgets(conn, now=None):
    """Every budget of the user with what its period has spent (settled attempts only)."""
    now = clock.now() if now is None else now
    rows = conn.execute("SELECT * FROM router_budgets WHERE user_id = :user_id "
                        "ORDER BY project_id, CASE period WHEN 'daily' THEN 0 WHEN 'weekly' THEN 1 "
                        "WHEN 'monthly' THEN 2 ELSE 3 END").fetchall()
    result = []
    for row in rows:
        spent = _spent(conn, period_start(row["period"], now), row["project_id"])
        limit = row["limit_usd"]
        record = {"period": row["period"], "limit_usd": limit, "spent_usd": spent,
                  "remaining_usd": max(0.0, limit - spent), "utilization": spent / limit if limit > 0 else 0.0,
                  "updated_at": clock.iso(row["updated_at"])}
        if row["project_id"]:
            record = {"project_id": row["project_id"], **record}
        result.append(record)
    return result


def set_budget(conn, period, limit_usd, project_id=ACCOUNT):
    """One budget per period and owner (the account or a project); setting it again replaces the limit."""
    conn.execute("INSERT INTO router_budgets (user_id, project_id, period, limit_usd, updated_at) "
                 "VALUES (:user_id, :project, :period, :limit, :now) ON CONFLICT (user_id, project_id, period) "
                 "DO UPDATE SET limit_usd = excluded.limit_usd, updated_at = excluded.updated_at",
                 {"project": project_id or ACCOUNT, "period": period, "limit": limit_usd, "now": clock.now()})


def headroom(conn, project_id=None, now=None):
    """The least left in any budget that applies to a request (the account's, and its project's),
    counting what requests in flight have reserved; None when no budget applies."""
    now = clock.now() if now is None else now
    rows = conn.execute("SELECT project_id, period, limit_usd FROM router_budgets WHERE user_id = :user_id "
                        "AND project_id IN ('', :project)", {"project": project_id or ""}).fetchall()
    least, reserved = None, {}
    for row in rows:
        owner = row["project_id"]
        if owner not in reserved:
            # The same for each period of one owner's budgets.
            reserved[owner] = _reserved(conn, owner)
        left = row["limit_usd"] - _spent(conn, period_start(row["period"], now), owner) - reserved[owner]
        least = left if least is None else min(least, left)
    return least


def key_spent(conn, key_id, since):
    """What a gateway key's generations cost since `since`."""
    return conn.execute("SELECT COALESCE(SUM(cost_usd), 0) FROM router_generations WHERE user_id = :user_id "
                        "AND gateway_key_id = :key AND created_at >= :since",
                        {"key": key_id, "since": since}).fetchone()[0]


def key_headroom(conn, key, now=None):
    """What a gateway key's spend limit has left in its period, counting its requests in flight;
    None without a limit."""
    if key is None or key.get("limit_usd") is None:
        return None
    now = clock.now() if now is None else now
    reserved = conn.execute("SELECT COALESCE(SUM(amount_usd), 0) FROM router_reservations WHERE user_id = :user_id "
                            "AND gateway_key_id = :key", {"key": key["id"]}).fetchone()[0]
    return key["limit_usd"] - key_spent(conn, key["id"], period_start(key["reset_interval"], now)) - reserved


def reserve(conn, amount, project_id=None, key=None):
    """Holds `amount` against every budget that applies (and the spend limit of the gateway key
    `key`, when given), if each has that much left; returns the reservation's id, or None when
    one has not. Run inside one write transaction, so that two requests can never both take the
    last of a budget."""
    for left in (headroom(conn, project_id), key_headroom(conn, key)):
        if left is not None and amount > left + 1e-12:
            return None
    cursor = conn.execute("INSERT INTO router_reservations (user_id, project_id, amount_usd, created_at, "
                          "gateway_key_id) VALUES (:user_id, :project, :amount, :now, :key)",
                          {"project": project_id, "amount": amount, "now": clock.now(),
                           "key": key["id"] if key else None})
    return cursor.lastrowid


def release(conn, reservation_id):
    conn.execute("DELETE FROM router_reservations WHERE user_id = :user_id AND id = :id", {"id": reservation_id})


def clear_reservations(db):
    """At start no request is in flight, so a reservation left by a stopped relay holds nothing."""
    with db.write() as conn:
        conn.execute("DELETE FROM router_reservations")


# Decisions, generations, attempts.

def store_decision(conn, decision_id, source, task, record):
    conn.execute("INSERT INTO router_decisions (user_id, id, source, task, decision, created_at) "
                 "VALUES (:user_id, :id, :source, :task, :decision, :now)",
                 {"id": decision_id, "source": source, "task": task,
                  "decision": json.dumps(record, separators=(",", ":")), "now": clock.now()})


def add_attempt(conn, attempt):
    conn.execute(
        "INSERT INTO router_attempts (user_id, generation_id, seq, provider, model_id, project_id, status, "
        "error_code, latency_ms, upstream_id, input_tokens, output_tokens, cost_usd, throughput_tps, tool_valid, "
        "tool_error, created_at) VALUES (:user_id, :generation_id, :seq, :provider, :model_id, :project_id, "
        ":status, :error_code, :latency_ms, :upstream_id, :input_tokens, :output_tokens, :cost_usd, "
        ":throughput_tps, :tool_valid, :tool_error, :created_at)", attempt)
    conn.execute("INSERT INTO provider_health (user_id, provider, success, latency_ms, created_at) "
                 "VALUES (:user_id, :provider, :success, :latency_ms, :created_at)",
                 {"provider": attempt["provider"], "success": int(attempt["status"] == "succeeded"),
                  "latency_ms": attempt["latency_ms"], "created_at": attempt["created_at"]})


def add_generation(conn, generation):
    conn.execute(
        "INSERT INTO router_generations (user_id, id, project_id, route_decision_id, task, model_id, provider, "
        "service_tier, status, input_tokens, output_tokens, cost_usd, latency_ms, fell_back, cache_hit, "
        "zero_completion_insured, error_code, request_id, tools_declared, created_at, gateway_key_id) VALUES "
        "(:user_id, :id, :project_id, :route_decision_id, :task, :model_id, :provider, :service_tier, :status, "
        ":input_tokens, :output_tokens, :cost_usd, :latency_ms, :fell_back, 0, :zero_completion_insured, "
        ":error_code, :request_id, :tools_declared, :created_at, :gateway_key_id)",
        dict(generation, gateway_key_id=generation.get("gateway_key_id")))


def attempt_record(row):
    record = {"provider": row["provider"], "model_id": row["model_id"], "status": row["status"],
              "latency_ms": row["latency_ms"]}
    if row["error_code"]:
        record["error_code"] = row["error_code"]
    if row["upstream_id"]:
        record["upstream_id"] = row["upstream_id"]
    return record


def generations(conn, limit=GENERATIONS_LIMIT):
    rows = conn.execute("SELECT * FROM router_generations WHERE user_id = :user_id "
                        "ORDER BY created_at DESC, rowid DESC LIMIT :limit", {"limit": limit}).fetchall()
    attempts = {}
    if rows:
        ids = {f"g{index}": row["id"] for index, row in enumerate(rows)}
        names = ", ".join(f":{name}" for name in ids)
        for row in conn.execute(f"SELECT * FROM router_attempts WHERE user_id = :user_id AND generation_id IN "
                                f"({names}) ORDER BY generation_id, seq", ids):
            attempts.setdefault(row["generation_id"], []).append(attempt_record(row))
    result = []
    for row in rows:
        record = {"id": row["id"]}
        if row["project_id"]:
            record["project_id"] = row["project_id"]
        record.update({"route_decision_id": row["route_decision_id"], "task": row["task"]})
        if row["model_id"]:
            record["model_id"] = row["model_id"]
        if row["provider"]:
            record["provider"] = row["provider"]
        record.update({"status": row["status"], "input_tokens": row["input_tokens"],
                       "output_tokens": row["output_tokens"], "cost_usd": row["cost_usd"],
                       "latency_ms": row["latency_ms"], "fell_back": bool(row["fell_back"]),
                       "cache_hit": bool(row["cache_hit"]),
                       "zero_completion_insured": bool(row["zero_completion_insured"]),
                       "service_tier": row["service_tier"], "attempts": attempts.get(row["id"], [])})
        if row["error_code"]:
            record["error_code"] = row["error_code"]
        record.update({"request_id": row["request_id"], "created_at": clock.iso(row["created_at"])})
        result.append(record)
    return result


def usage(conn, now=None):
    """Totals over all of the user's generations, by lane, and by day for the last 30 days."""
    now = clock.now() if now is None else now
    total = conn.execute(
        "SELECT COUNT(*) AS requests, COALESCE(SUM(status = 'succeeded'), 0) AS succeeded, "
        "COALESCE(SUM(cost_usd), 0) AS spend, COALESCE(SUM(input_tokens), 0) AS input_tokens, "
        "COALESCE(SUM(output_tokens), 0) AS output_tokens, COALESCE(SUM(fell_back), 0) AS fallbacks, "
        "COALESCE(SUM(cache_hit), 0) AS cache_hits, COALESCE(SUM(zero_completion_insured), 0) AS insured "
        "FROM router_generations WHERE user_id = :user_id").fetchone()
    requests = total["requests"]
    by_model = [
        {"model_id": row["model_id"], "provider": row["provider"] or "", "service_tier": row["service_tier"],
         "requests": row["requests"], "spend": row["spend"], "average_latency_ms": float(row["latency"])}
        for row in conn.execute(
            "SELECT model_id, provider, service_tier, COUNT(*) AS requests, SUM(cost_usd) AS spend, "
            "AVG(latency_ms) AS latency FROM router_generations WHERE user_id = :user_id AND model_id IS NOT NULL "
            "GROUP BY model_id, provider, service_tier ORDER BY requests DESC, model_id")]
    since = period_start("daily", now) - (USAGE_DAYS - 1) * 86400
    daily = [{"day": row["day"], "requests": row["requests"], "spend": row["spend"]}
             for row in conn.execute(
                 "SELECT date(created_at, 'unixepoch') AS day, COUNT(*) AS requests, SUM(cost_usd) AS spend "
                 "FROM router_generations WHERE user_id = :user_id AND created_at >= :since "
                 "GROUP BY day ORDER BY day", {"since": since})]
    return {"requests": requests, "succeeded": total["succeeded"], "failed": requests - total["succeeded"],
            "spend_usd": total["spend"], "input_tokens": total["input_tokens"],
            "output_tokens": total["output_tokens"], "fallbacks": total["fallbacks"],
            "fallback_rate": total["fallbacks"] / requests if requests else 0.0,
            "cache_hits": total["cache_hits"], "cache_hit_rate": total["cache_hits"] / requests if requests else 0.0,
            "insured_requests": total["insured"], "by_model": by_model, "daily": daily}


def performance(conn, now=None):
    """Lane id to its latency and throughput percentiles over successful attempts in the window."""
    now = clock.now() if now is None else now
    latencies, throughputs = {}, {}
    for row in conn.execute("SELECT model_id, latency_ms, throughput_tps FROM router_attempts "
                            "WHERE user_id = :user_id AND created_at >= :since AND status = 'succeeded'",
                            {"since": now - PERFORMANCE_WINDOW_SECONDS}):
        latencies.setdefault(row["model_id"], []).append(row["latency_ms"])
        if row["throughput_tps"] is not None:
            throughputs.setdefault(row["model_id"], []).append(row["throughput_tps"])
    return {lane: {"sample_count": len(values), "window_seconds": PERFORMANCE_WINDOW_SECONDS,
                   "latency_ms": percentiles(values), "throughput_tps": percentiles(throughputs.get(lane, []))}
            for lane, values in latencies.items()}


def tool_quality(conn, now=None):
    """Lane id to the validity of its answers to requests that declared tools, in the window."""
    now = clock.now() if now is None else now
    stats = {}
    for row in conn.execute("SELECT model_id, tool_valid, tool_error FROM router_attempts WHERE user_id = :user_id "
                            "AND created_at >= :since AND tool_valid IS NOT NULL",
                            {"since": now - TOOL_QUALITY_WINDOW_SECONDS}):
        entry = stats.setdefault(row["model_id"], {"valid": 0, "invalid": 0, "errors": {}})
        if row["tool_valid"]:
            entry["valid"] += 1
        else:
            entry["invalid"] += 1
            category = row["tool_error"] or "invalid"
            entry["errors"][category] = entry["errors"].get(category, 0) + 1
    result = {}
    for lane, entry in stats.items():
        samples = entry["valid"] + entry["invalid"]
        record = {"sample_count": samples, "valid_count": entry["valid"], "invalid_count": entry["invalid"],
                  # Counted as if one valid and one invalid call had been seen too, so a lane with
                  # few samples sits near the middle rather than at either end.
                  "routing_score": 100.0 * (entry["valid"] + 1) / (samples + 2),
                  "error_categories": entry["errors"], "window_seconds": TOOL_QUALITY_WINDOW_SECONDS}
        if samples:
            record["valid_rate"] = entry["valid"] / samples
        result[lane] = record
    return result


def provider_health(conn, window):
    """Provider to the mean success of its latest `window` reports (runs, probes and attempts)."""
    health = {}
    for row in conn.execute(
            "SELECT provider, AVG(success) AS health FROM (SELECT provider, success, ROW_NUMBER() OVER "
            "(PARTITION BY provider ORDER BY id DESC) AS n FROM provider_health WHERE user_id = :user_id) "
            "WHERE n <= :window GROUP BY provider", {"window": window}):
        health[row["provider"]] = row["health"]
    return health
