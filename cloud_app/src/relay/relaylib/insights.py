"""Insights: a summary of what the relay has recorded for the caller, with a few suggestions
that follow from it. Read from the relay's own records only, in one snapshot.

Windows: API use and connection attempts count the last INSIGHT_WINDOW_DAYS; "signals"
(what agents raised or reported without the person asking: interrupts and run events) the
last SIGNAL_WINDOW_DAYS.
"""

import json

from . import clock
from .modelrouter import ledger

INSIGHT_WINDOW_DAYS = 30
SIGNAL_WINDOW_DAYS = 7
DAY_SECONDS = 86_400
# A budget this far used is worth a warning.
BUDGET_WARNING_SHARE = 0.8
# API generations in the window after which untagged traffic is worth a classifier.
TAGGING_SUGGESTION_GENERATIONS = 20
# Samples a classifier must have before its failures are judged.
CLASSIFIER_FAILURE_MINIMUM = 5

WARNING = "warning"
INFO = "info"


def _count(conn, sql, **params):
    return conn.execute(sql, params).fetchone()[0] or 0


def gather(conn, now, composio_configured):
    """The `Insights` record of the user `conn` is scoped to."""
    since = now - INSIGHT_WINDOW_DAYS * DAY_SECONDS
    signals_since = now - SIGNAL_WINDOW_DAYS * DAY_SECONDS
    record = {
        "terminal_sessions": _count(conn, "SELECT COUNT(*) FROM terminal_sessions WHERE user_id = :user_id"),
        "terminal_events": _count(conn, "SELECT COUNT(*) FROM terminal_chunks c JOIN terminal_sessions s "
                                        "ON s.id = c.session_id WHERE s.user_id = :user_id"),
        "connected_apps": [row[0] for row in conn.execute(
            "SELECT toolkit FROM integration_statuses WHERE user_id = :user_id AND status = 'ACTIVE' "
            "ORDER BY toolkit")],
        "integration_activity": {row[0]: row[1] for row in conn.execute(
            "SELECT toolkit, COUNT(*) FROM integration_links WHERE user_id = :user_id AND created_at >= :since "
            "GROUP BY toolkit ORDER BY toolkit", {"since": since})},
        "recent_external_activity":
            _count(conn, "SELECT COUNT(*) FROM interrupts WHERE user_id = :user_id AND raised_at >= :since",
                   since=signals_since)
            + _count(conn, "SELECT COUNT(*) FROM run_events WHERE user_id = :user_id AND created_at >= :since",
                     since=signals_since),
        "project_count": _count(conn, "SELECT COUNT(*) FROM projects WHERE user_id = :user_id"),
        "context_items": _count(conn, "SELECT COUNT(*) FROM context_items WHERE user_id = :user_id"),
        "preset_count": _count(conn, "SELECT COUNT(*) FROM presets WHERE user_id = :user_id"),
        "classifier_count": _count(conn, "SELECT COUNT(*) FROM classifiers WHERE user_id = :user_id"),
        "classification_status": {row[0]: row[1] for row in conn.execute(
            "SELECT status, COUNT(*) FROM classification_activity WHERE user_id = :user_id GROUP BY status "
            "ORDER BY status")},
        "classification_tags": _tag_counts(conn),
    }
    requests, spend = conn.execute(
        "SELECT COUNT(*), COALESCE(SUM(cost_usd), 0) FROM router_generations WHERE user_id = :user_id "
        "AND created_at >= :since", {"since": since}).fetchone()
    record["gateway_requests"] = requests
    record["gateway_spend_usd"] = round(spend, 6)
    record["suggestions"] = _suggestions(conn, record, now, composio_configured)
    record["summary"] = _summary(record)
    return record


def _tag_counts(conn):
    """Dimension key to value to how many tagged samples carry it."""
    counts = {}
    for (tags,) in conn.execute("SELECT tags FROM classification_activity WHERE user_id = :user_id "
                                "AND status = 'succeeded'"):
        for key, value in json.loads(tags).items():
            per_value = counts.setdefault(key, {})
            per_value[value] = per_value.get(value, 0) + 1
    return counts


def _suggestions(conn, record, now, composio_configured):
    found = []
    for budget in ledger.budgets(conn, now):
        if budget["limit_usd"] > 0 and budget["utilization"] >= BUDGET_WARNING_SHARE:
            scope = f"project {budget['project_id']}" if "project_id" in budget else "account"
            found.append({"id": f"budget-{budget.get('project_id', 'account')}-{budget['period']}",
                          "priority": WARNING, "title": "A budget is nearly used",
                          "detail": f"The {budget['period']} {scope} budget has ${budget['spent_usd']:.4f} of "
                                    f"${budget['limit_usd']:.2f} spent; requests past it are refused.",
                          "action": "Review budgets"})
    failed = record["classification_status"].get("failed", 0)
    sampled = failed + record["classification_status"].get("succeeded", 0)
    if sampled >= CLASSIFIER_FAILURE_MINIMUM and failed * 2 > sampled:
        found.append({"id": "classifiers-failing", "priority": WARNING, "title": "Classifiers mostly fail",
                      "detail": f"{failed} of {sampled} sampled generations could not be tagged.",
                      "action": "Check the classifier's model"})
    if record["project_count"] and not record["context_items"]:
        found.append({"id": "context-empty", "priority": INFO, "title": "No shared project context yet",
                      "detail": "Agents start every run without your project's guide.",
                      "action": "Save a guide as context"})
    active = _count(conn, "SELECT COUNT(*) FROM classifiers WHERE user_id = :user_id AND active = 1")
    if record["gateway_requests"] >= TAGGING_SUGGESTION_GENERATIONS and not active:
        found.append({"id": "tag-traffic", "priority": INFO, "title": "API traffic is untagged",
                      "detail": f"{record['gateway_requests']} API runs in the last {INSIGHT_WINDOW_DAYS} days "
                                f"have no taxonomy.",
                      "action": "Create a classifier"})
    if composio_configured and not record["connected_apps"]:
        found.append({"id": "connect-apps", "priority": INFO, "title": "No connected apps",
                      "detail": "Connected apps let agents act on your tools through this relay.",
                      "action": "Connect an app"})
    return found


def _summary(record):
    apps = len(record["connected_apps"])
    return (f"Last {INSIGHT_WINDOW_DAYS} days: {record['gateway_requests']} API "
            f"{'run' if record['gateway_requests'] == 1 else 'runs'} for ${record['gateway_spend_usd']:.4f}. "
            f"{record['project_count']} {'project' if record['project_count'] == 1 else 'projects'} with "
            f"{record['context_items']} context {'item' if record['context_items'] == 1 else 'items'}, "
            f"{apps} connected {'app' if apps == 1 else 'apps'}.")


class Insights:
    def __init__(self, app):
        self.app = app
        self.db = app.db

    def register(self, router):
        router.add("GET", "v1/insights", self.read)

    def read(self, request):
        configured = bool(self.app.settings.get("COMPOSIO_API_KEY").strip())
        with self.db.read_as(request.user_id) as conn:
            return gather(conn, clock.now(), configured)
