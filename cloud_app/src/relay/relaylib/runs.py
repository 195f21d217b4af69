"""Agent runs as their events tell them, and the health of each provider, per user.

A run counts as running from its first "started" or "progress" event until a
"finished" or "failed" one; the queue's `running` and `done` are these counts for
the caller's runs. Provider health is the mean success of the caller's latest
reports, from 0 to 1: one user's failing credentials say nothing about another's.
"""

from . import clock
from .config import HEALTH_WINDOW

EVENT_TYPES = ("started", "progress", "finished", "failed")
STATE_OF_TYPE = {"started": "running", "progress": "running", "finished": "done", "failed": "done"}
MAX_TEXT = 10000


class Runs:
    def __init__(self, app):
        self.app = app
        self.db = app.db

    def register(self, router):
        router.add("POST", "v1/events", self.record_event, quick=True)
        router.add("POST", "v1/router/health", self.record_health, quick=True)

    def record_event(self, request):
        body = request.body()
        event = {
            "run_id": body.string("run_id", non_empty=True, max_length=200),
            "name": body.string("name", max_length=MAX_TEXT),
            "type": body.one_of("type", EVENT_TYPES),
            "tokens": body.integer("tokens", required=False, minimum=0) or 0,
            "cost": body.number("cost_usd", required=False, minimum=0) or 0.0,
            "detail": body.string("detail", required=False, max_length=MAX_TEXT) or "",
            "now": clock.now(),
        }
        event["state"] = STATE_OF_TYPE[event["type"]]
        with self.db.write_as(request.user_id) as conn:
            conn.execute("INSERT INTO run_events (user_id, run_id, name, type, tokens, cost_usd, detail, created_at) "
                         "VALUES (:user_id, :run_id, :name, :type, :tokens, :cost, :detail, :now)", event)
            before = conn.execute("SELECT state FROM runs WHERE user_id = :user_id AND run_id = :run_id",
                                  event).fetchone()
            conn.execute(
                "INSERT INTO runs (user_id, run_id, name, state, last_type, tokens, cost_usd, first_seen, last_seen) "
                "VALUES (:user_id, :run_id, :name, :state, :type, :tokens, :cost, :now, :now) "
                "ON CONFLICT (user_id, run_id) DO UPDATE SET name = excluded.name, "
                "state = excluded.state, last_type = excluded.last_type, tokens = tokens + excluded.tokens, "
                "cost_usd = cost_usd + excluded.cost_usd, last_seen = excluded.last_seen", event)
        if before is None or before["state"] != event["state"]:
            self.app.hub.publish(request.user_id)
        return {"accepted": True}

    def record_health(self, request):
        body = request.body()
        report = {"provider": body.string("provider", non_empty=True, max_length=200),
                  "success": int(body.boolean("success")),
                  "latency": body.integer("latency_ms", minimum=0),
                  "now": clock.now()}
        with self.db.write_as(request.user_id) as conn:
            conn.execute("INSERT INTO provider_health (user_id, provider, success, latency_ms, created_at) "
                         "VALUES (:user_id, :provider, :success, :latency, :now)", report)
            health = provider_health(conn, report["provider"])
        return {"provider": report["provider"], "health": health}


def provider_health(conn, provider, window=HEALTH_WINDOW):
    """The share of successes among the user's latest `window` reports; 1.0 with no reports."""
    rows = conn.execute("SELECT success FROM provider_health WHERE user_id = :user_id AND provider = :provider "
                        "ORDER BY id DESC LIMIT :window", {"provider": provider, "window": window}).fetchall()
    if not rows:
        return 1.0
    return sum(row[0] for row in rows) / len(rows)
