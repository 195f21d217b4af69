"""The live queue: agents raise interrupts, people decide them, streams show the whole queue.

An interrupt is open until a verdict decides it or its deadline passes; either
way it leaves the queue. Each change publishes one whole snapshot to every
stream. A verdict is accepted once: the update only applies to an open
interrupt, so of two racing verdicts exactly one wins.
"""

import json
import logging
import threading
import time
import uuid

from . import clock
from .errors import bad_request, conflict, not_found
from .hub import CLOSED
from .web import Streamer

log = logging.getLogger("relay")

KINDS = ("approval", "question", "choice")
VERDICTS = ("approve", "reject", "reply")
OPTIONAL_STRINGS = ("detail", "action_toolkit", "action_slug", "target", "requester", "reason",
                    "proposed_action", "blast_radius", "reversibility", "timeout_behavior")
OPTIONAL_LISTS = ("affected_resources", "evidence")
# The order of keys on the wire, as the client's record lists its fields.
WIRE_ORDER = ("id", "run_id", "run_name", "kind", "prompt", "options", "raised_at", "detail",
              "action_toolkit", "action_slug", "target", "requester", "reason", "proposed_action",
              "affected_resources", "blast_radius", "reversibility", "evidence", "expires_at",
              "timeout_behavior")
SNAPSHOT_EXTRA_ORDER = ("usage", "open_suggestions")


def _compact(value):
    return json.dumps(value, separators=(",", ":"))


class Queue:
    def __init__(self, app):
        self.app = app
        self.db = app.db
        self.timings = app.settings.timings
        # Later areas add snapshot fields (usage, open suggestions) through these callables.
        self.snapshot_extras = []
        self._stop = threading.Event()
        self._sweeper = None

    def register(self, router):
        router.add("GET", "v1/stream", self.stream)
        router.add("POST", "v1/interrupts", self.raise_interrupt)
        router.add("GET", "v1/interrupts/{id}", self.get_interrupt)
        router.add("POST", "v1/interrupts/{id}/verdict", self.verdict)

    # Snapshot

    def build_snapshot(self):
        """The whole queue as the bytes of one JSON object; payloads are stored ready to send."""
        now = clock.now()
        with self.db.read() as conn:
            rows = conn.execute(
                "SELECT payload FROM interrupts WHERE status = 'open' AND (expires_at IS NULL OR expires_at > ?) "
                "ORDER BY raised_at, rowid", (now,)).fetchall()
            counts = dict(conn.execute("SELECT state, count(*) FROM runs GROUP BY state").fetchall())
            extras = {}
            for contribute in self.snapshot_extras:
                extras.update(contribute(conn) or {})
        parts = [f'{{"running":{int(counts.get("running", 0))},"done":{int(counts.get("done", 0))},"interrupts":[',
                 ",".join(row["payload"] for row in rows), "]"]
        for key in SNAPSHOT_EXTRA_ORDER:
            if extras.get(key) is not None:
                parts.append(f',"{key}":{_compact(extras[key])}')
        parts.append("}")
        return "".join(parts).encode("utf-8")

    def stream(self, request):
        subscription, first = self.app.hub.subscribe()
        keepalive = self.timings.keepalive_seconds

        def run(write):
            try:
                write(b"data: " + first + b"\n\n")
                while True:
                    item = subscription.get(keepalive)
                    if item is CLOSED:
                        return
                    write(b": keep-alive\n\n" if item is None else b"data: " + item + b"\n\n")
            finally:
                self.app.hub.unsubscribe(subscription)

        return Streamer(run)

    # Intake

    def raise_interrupt(self, request):
        payload, expires_at = self._read_interrupt(request.body())
        now = clock.now()
        interrupt_id = "int_" + uuid.uuid4().hex
        payload["id"] = interrupt_id
        payload["raised_at"] = clock.iso(now)
        wire = {key: payload[key] for key in WIRE_ORDER if key in payload}
        with self.db.write() as conn:
            conn.execute("INSERT INTO interrupts (id, status, payload, raised_at, expires_at) VALUES (?, 'open', ?, ?, ?)",
                         (interrupt_id, _compact(wire), now, expires_at))
        self.app.hub.publish()
        return {"id": interrupt_id, "status": "open", "interrupt": wire}

    def _read_interrupt(self, body):
        payload = {
            "run_id": body.string("run_id"),
            "run_name": body.string("run_name"),
            "kind": body.one_of("kind", KINDS),
            "prompt": body.string("prompt"),
            "options": body.string_list("options", required=False) or [],
        }
        for name in OPTIONAL_STRINGS:
            value = body.string(name, required=False)
            if value is not None:
                payload[name] = value
        for name in OPTIONAL_LISTS:
            value = body.string_list(name, required=False)
            if value is not None:
                payload[name] = value
        expires_at = body.date("expires_at", required=False)
        if expires_at is not None:
            payload["expires_at"] = clock.iso(expires_at)
        return payload, expires_at

    # State and verdicts

    def expire_due(self, conn):
        """Resolves as timed out every open interrupt past its deadline; returns how many."""
        now = clock.now()
        cursor = conn.execute(
            "UPDATE interrupts SET status = 'expired', resolved_at = ? "
            "WHERE status = 'open' AND expires_at IS NOT NULL AND expires_at <= ?", (now, now))
        return cursor.rowcount

    def _expire_and_announce(self):
        with self.db.write() as conn:
            expired = self.expire_due(conn)
        if expired:
            log.info("%d interrupt(s) timed out", expired)
            self.app.hub.publish()
            self.app.hub.notify_resolved()
        return expired

    def _state(self, interrupt_id):
        with self.db.read() as conn:
            row = conn.execute("SELECT * FROM interrupts WHERE id = ?", (interrupt_id,)).fetchone()
        if row is None:
            raise not_found("interrupt not found")
        if row["status"] == "open" and row["expires_at"] is not None and row["expires_at"] <= clock.now():
            self._expire_and_announce()
            return self._state(interrupt_id)
        return row

    def get_interrupt(self, request):
        wait = self._wait_seconds(request.query_value("wait"))
        hub = self.app.hub
        deadline = time.monotonic() + wait
        while True:
            with hub.resolutions:
                generation = hub.generation
            row = self._state(request.params["id"])
            remaining = deadline - time.monotonic()
            if row["status"] != "open" or remaining <= 0:
                return _state_json(row)
            with hub.resolutions:
                if hub.generation == generation:
                    hub.resolutions.wait(min(remaining, 5.0))

    def _wait_seconds(self, text):
        if text is None or text == "":
            return 0.0
        try:
            seconds = float(text)
        except ValueError:
            seconds = -1.0
        if not seconds >= 0 or seconds == float("inf"):
            raise bad_request(f"wait must be a number of seconds from 0 to {self.timings.max_wait_seconds:g}")
        return min(seconds, self.timings.max_wait_seconds)

    def verdict(self, request):
        verdict = self._read_verdict(request.body())
        interrupt_id = request.params["id"]
        now = clock.now()
        with self.db.write() as conn:
            expired = self.expire_due(conn)
            updated = conn.execute(
                "UPDATE interrupts SET status = 'decided', verdict = ?, resolved_at = ? WHERE id = ? AND status = 'open'",
                (_compact(verdict), now, interrupt_id)).rowcount
            exists = updated or conn.execute("SELECT 1 FROM interrupts WHERE id = ?", (interrupt_id,)).fetchone()
        if updated or expired:
            self.app.hub.publish()
            self.app.hub.notify_resolved()
        if not exists:
            raise not_found("interrupt not found")
        if not updated:
            raise conflict("interrupt already resolved")
        return {"id": interrupt_id, "status": "decided", "verdict": verdict}

    def _read_verdict(self, body):
        verdict = {"verdict": body.one_of("verdict", VERDICTS)}
        reply = body.string("reply", required=False)
        if reply is not None:
            verdict["reply"] = reply
        verdict["source"] = body.string("source", required=False) or "api"
        decided_at = body.date("decided_at", required=False)
        verdict["decided_at"] = clock.iso(clock.now() if decided_at is None else decided_at)
        return verdict

    # Deadline sweeper

    def start(self):
        self._sweeper = threading.Thread(target=self._sweep, name="interrupt-expiry", daemon=True)
        self._sweeper.start()

    def stop(self):
        self._stop.set()

    def _sweep(self):
        while not self._stop.wait(self.timings.expiry_sweep_seconds):
            try:
                self._expire_and_announce()
            except Exception:
                log.exception("expiry sweep failed")


def _state_json(row):
    answer = {"id": row["id"], "status": row["status"], "interrupt": json.loads(row["payload"])}
    if row["verdict"]:
        answer["verdict"] = json.loads(row["verdict"])
    if row["resolved_at"] is not None:
        answer["resolved_at"] = clock.iso(row["resolved_at"])
    return answer
