"""Agent runs as their events tell them, and the health of each provider.

A run counts as running from its first "started" or "progress" event until a
"finished" or "failed" one; the queue's `running` and `done` are these counts.
Provider health is the mean success of the latest reports, from 0 to 1.
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
        router.add("POST", "v1/events", self.record_event)
        router.add("POST", "v1/router/health", self.record_health)

    def record_event(self, request):
        body = request.body()
        run_id = body.string("run_id", non_empty=True, max_length=200)
        name = body.string("name", max_length=MAX_TEXT)
        kind = body.one_of("type", EVENT_TYPES)
        tokens = body.integer("tokens", required=False, minimum=0)
        cost = body.number("cost_usd", required=False, minimum=0)
        detail = body.string("detail", required=False, max_length=MAX_TEXT)
        tokens, cost, detail = tokens or 0, cost or 0.0, detail or ""
        now = clock.now()
        state = STATE_OF_TYPE[kind]
        with self.db.write() as conn:
            conn.execute("INSERT INTO run_events (run_id, name, type, tokens, cost_usd, detail, created_at) "
                         "VALUES (?, ?, ?, ?, ?, ?, ?)", (run_id, name, kind, tokens, cost, detail, now))
            before = conn.execute("SELECT state FROM runs WHERE run_id = ?", (run_id,)).fetchone()
            conn.execute(
                "INSERT INTO runs (run_id, name, state, last_type, tokens, cost_usd, first_seen, last_seen) "
                "VALUES (?, ?, ?, ?, ?, ?, ?, ?) ON CONFLICT (run_id) DO UPDATE SET name = excluded.name, "
                "state = excluded.state, last_type = excluded.last_type, tokens = tokens + excluded.tokens, "
                "cost_usd = cost_usd + excluded.cost_usd, last_seen = excluded.last_seen",
                (run_id, name, state, kind, tokens, cost, now, now))
        if before is None or before["state"] != state:
            self.app.hub.publish()
        return {"accepted": True}

    def record_health(self, request):
        body = request.body()
        provider = body.string("provider", non_empty=True, max_length=200)
        success = body.boolean("success")
        latency = body.integer("latency_ms", minimum=0)
        with self.db.write() as conn:
            conn.execute("INSERT INTO provider_health (provider, success, latency_ms, created_at) VALUES (?, ?, ?, ?)",
                         (provider, int(success), latency, clock.now()))
            health = provider_health(conn, provider)
        return {"provider": provider, "health": health}


def provider_health(conn, provider, window=HEALTH_WINDOW):
    """The share of successes among the latest `window` reports; 1.0 with no reports."""
    rows = conn.execute("SELECT success FROM provider_health WHERE provider = ? ORDER BY id DESC LIMIT ?",
                        (provider, window)).fetchall()
    if not rows:
        return 1.0
    return sum(row[0] for row in rows) / len(rows)
