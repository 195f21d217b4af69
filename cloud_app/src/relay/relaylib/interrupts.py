"""The live queue: agents raise interrupts, people decide them, streams show the whole queue.

Each user has a queue of their own: the interrupts raised with their session (a
hook acts as the user whose token it holds), decided by them only. An interrupt is
open until a verdict decides it or its deadline passes; either way it leaves the
queue. Each change publishes one whole snapshot to every stream of that user. A
verdict is accepted once: the update only applies to an open interrupt, so of two
racing verdicts exactly one wins.

The run that raised an interrupt can take it back: when the person answered in the
agent's own terminal (`answered_elsewhere`) or the agent stopped waiting
(`withdrawn`). Only the session that raised it may, so a desktop or another hook of
the same person cannot make a prompt vanish. An interrupt raised with
`withdraw_when_unpolled` belongs to a hook that holds a poll on it; when nobody has
polled it for `unpolled_withdraw_seconds` (the hook was killed without a word), the
relay withdraws it itself. A verdict that arrives after either gets 409 saying so.
"""

import asyncio
import collections
import hmac
import json
import logging
import uuid

from . import clock, jsonio
from .errors import bad_request, conflict, forbidden, not_found
from .hub import CLOSED, frame
from .web import ClientGone, EventStream

log = logging.getLogger("relay")

KINDS = ("approval", "question", "choice")
VERDICTS = ("approve", "reject", "reply")
# How an interrupt's raiser can take it back, each a status of its own.
WITHDRAW_REASONS = ("withdrawn", "answered_elsewhere")
# What a late verdict is told, by the status that resolved the interrupt.
LATE_VERDICT_MESSAGES = {
    "withdrawn": "interrupt was withdrawn: the agent stopped waiting for it",
    "answered_elsewhere": "interrupt was answered elsewhere: the agent's own prompt was answered first",
}
OPTIONAL_STRINGS = ("detail", "action_toolkit", "action_slug", "target", "requester", "reason",
                    "proposed_action", "blast_radius", "reversibility", "timeout_behavior")
OPTIONAL_LISTS = ("affected_resources", "evidence")
# The order of keys on the wire, as the client's record lists its fields.
WIRE_ORDER = ("id", "run_id", "run_name", "kind", "prompt", "options", "raised_at", "detail",
              "action_toolkit", "action_slug", "target", "requester", "reason", "proposed_action",
              "affected_resources", "blast_radius", "reversibility", "evidence", "expires_at",
              "timeout_behavior")
SNAPSHOT_EXTRA_ORDER = ("usage", "open_suggestions")
# A held wait looks at the interrupt again at least this often, whatever wakes it.
WAIT_RECHECK_SECONDS = 5.0
KEEPALIVE_FRAME = b": keep-alive\n\n"
# How often a stream whose client reads slowly looks whether it can send again.
DRAIN_POLL_SECONDS = 0.05


def _compact(value):
    return json.dumps(value, separators=(",", ":"))


class Queue:
    def __init__(self, app):
        self.app = app
        self.db = app.db
        self.timings = app.settings.timings
        # Later areas add snapshot fields (usage, open suggestions) through these callables,
        # each given the user's scoped connection.
        self.snapshot_extras = []
        self._sweeper = None
        # Used on the event loop only: held polls under way and when each interrupt was last
        # polled (wall clock), for withdrawing interrupts whose hook went away.
        self._polling = collections.Counter()
        self._last_polled = {}
        self._started_at = clock.now()

    def register(self, router):
        router.add("GET", "v1/stream", self.stream)
        router.add("POST", "v1/interrupts", self.raise_interrupt, quick=True)
        router.add("GET", "v1/interrupts/{id}", self.get_interrupt)
        router.add("POST", "v1/interrupts/{id}/verdict", self.verdict, quick=True)
        router.add("POST", "v1/interrupts/{id}/withdraw", self.withdraw, quick=True)

    # Snapshot

    def build_snapshot(self, user_id):
        """One user's queue as the bytes of one JSON object; payloads are stored ready to send."""
        with self.db.read_as(user_id) as conn:
            rows = conn.execute(
                "SELECT payload FROM interrupts WHERE user_id = :user_id AND status = 'open' "
                "AND (expires_at IS NULL OR expires_at > :now) ORDER BY raised_at, rowid",
                {"now": clock.now()}).fetchall()
            counts = dict(conn.execute("SELECT state, count(*) FROM runs WHERE user_id = :user_id "
                                       "GROUP BY state").fetchall())
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

    async def stream(self, request):
        """Server-sent events: the snapshot on connect and after every change, a comment when quiet."""
        hub = self.app.hub
        subscribing = asyncio.ensure_future(request.run(hub.subscribe, request.user_id))
        try:
            subscription, first = await asyncio.shield(subscribing)
        except asyncio.CancelledError:
            # The caller left while the worker was subscribing: let go of it once it is done.
            subscribing.add_done_callback(_release(hub))
            raise
        loop = asyncio.get_running_loop()
        keepalive = self.timings.keepalive_seconds
        try:
            events = await EventStream(request).open()
            await events.send(frame(first))
            # Snapshots now go straight onto the connection; this task sends what queued up
            # while the client was slow, and a comment when the stream has been quiet.
            transport = events.direct_transport()
            if transport is None:
                raise ClientGone()
            subscription.attach(transport, events.chunked, loop.time())
            while True:
                quiet = loop.time() - subscription.last_sent
                item = await subscription.get(keepalive - quiet) if quiet < keepalive else None
                if item is CLOSED:
                    return events.response
                if item is None and loop.time() - subscription.last_sent < keepalive:
                    continue
                while not subscription.can_write():
                    if subscription.connection_lost:
                        raise ClientGone()
                    await asyncio.sleep(DRAIN_POLL_SECONDS)
                subscription.write(KEEPALIVE_FRAME if item is None else item, now=loop.time())
        finally:
            hub.unsubscribe(subscription)

    # Intake

    def raise_interrupt(self, request):
        body = request.body()
        payload, expires_at = self._read_interrupt(body)
        polled = bool(body.boolean("withdraw_when_unpolled", required=False))
        now = clock.now()
        interrupt_id = "int_" + uuid.uuid4().hex
        payload["id"] = interrupt_id
        payload["raised_at"] = clock.iso(now)
        wire = {key: payload[key] for key in WIRE_ORDER if key in payload}
        with self.db.write_as(request.user_id) as conn:
            conn.execute("INSERT INTO interrupts (id, user_id, status, payload, raised_at, expires_at, raised_by, "
                         "polled) VALUES (:id, :user_id, 'open', :payload, :raised_at, :expires_at, :raised_by, "
                         ":polled)",
                         {"id": interrupt_id, "payload": _compact(wire), "raised_at": now, "expires_at": expires_at,
                          "raised_by": request.token_hash, "polled": int(polled)})
        self.app.hub.publish(request.user_id)
        # `watchers` tells a hook whether anyone sees the queue now: with no desktop stream open,
        # waiting for a verdict only keeps the agent's own prompt from showing.
        return {"id": interrupt_id, "status": "open", "interrupt": wire,
                "watchers": self.app.hub.watchers(request.user_id)}

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

    @staticmethod
    def expire_due(conn):
        """Resolves as timed out every open interrupt past its deadline, of every user; returns
        the users whose queue changed. Used by the sweeper, which looks after all queues."""
        now = clock.now()
        rows = conn.execute(
            "UPDATE interrupts SET status = 'expired', resolved_at = ? "
            "WHERE status = 'open' AND expires_at IS NOT NULL AND expires_at <= ? RETURNING user_id",
            (now, now)).fetchall()
        return {row[0] for row in rows}

    def expire_and_announce(self):
        with self.db.write() as conn:
            users = self.expire_due(conn)
        if users:
            log.info("interrupts timed out in %d queue(s)", len(users))
            self._announce_resolved(users)
        return users

    def _state(self, user_id, interrupt_id):
        with self.db.read_as(user_id) as conn:
            row = conn.execute("SELECT * FROM interrupts WHERE id = :id AND user_id = :user_id",
                               {"id": interrupt_id}).fetchone()
        if row is None:
            raise not_found("interrupt not found")
        if row["status"] == "open" and row["expires_at"] is not None and row["expires_at"] <= clock.now():
            self.expire_and_announce()
            return self._state(user_id, interrupt_id)
        return row

    async def get_interrupt(self, request):
        """The interrupt's state; `wait` holds the answer on the event loop, not on a thread."""
        wait = self._wait_seconds(request.query_value("wait"))
        hub = self.app.hub
        loop = asyncio.get_running_loop()
        deadline = loop.time() + wait
        interrupt_id = request.params["id"]
        generation = hub.generation
        row = await request.run(self._state, request.user_id, interrupt_id)
        # Only the raiser's own polls keep an interrupt alive: a desktop looking at it says
        # nothing about whether the hook is still there.
        raiser = _raised_by(row, request)
        if raiser:
            self._polling[interrupt_id] += 1
        try:
            while True:
                remaining = deadline - loop.time()
                if row["status"] != "open" or remaining <= 0:
                    return _state_json(row)
                await hub.wait_resolution(generation, min(remaining, WAIT_RECHECK_SECONDS))
                generation = hub.generation
                row = await request.run(self._state, request.user_id, interrupt_id)
        finally:
            if raiser:
                # Also when the poller went away: its handler is cancelled, and the interval starts now.
                self._polling[interrupt_id] -= 1
                if self._polling[interrupt_id] <= 0:
                    del self._polling[interrupt_id]
                self._last_polled[interrupt_id] = clock.now()

    def _wait_seconds(self, text):
        if text is None or text == "":
            return 0.0
        seconds = jsonio.decimal_number(text)
        if seconds is None:
            raise bad_request(f"wait must be a number of seconds from 0 to {self.timings.max_wait_seconds:g}")
        return min(seconds, self.timings.max_wait_seconds)

    def verdict(self, request):
        verdict = self._read_verdict(request.body())
        interrupt_id = request.params["id"]
        now = clock.now()
        with self.db.write_as(request.user_id) as conn:
            updated = conn.execute(
                "UPDATE interrupts SET status = 'decided', verdict = :verdict, resolved_at = :now "
                "WHERE id = :id AND user_id = :user_id AND status = 'open' "
                "AND (expires_at IS NULL OR expires_at > :now)",
                {"verdict": _compact(verdict), "now": now, "id": interrupt_id}).rowcount
            row = None if updated else conn.execute(
                "SELECT status, expires_at FROM interrupts WHERE id = :id AND user_id = :user_id",
                {"id": interrupt_id}).fetchone()
        if updated:
            self._announce_resolved((request.user_id,))
        if row is None and not updated:
            raise not_found("interrupt not found")
        if not updated:
            if row["status"] == "open":
                # Past its deadline but not yet swept: time it out now, for everyone waiting.
                self.expire_and_announce()
            raise conflict(LATE_VERDICT_MESSAGES.get(row["status"], "interrupt already resolved"))
        return {"id": interrupt_id, "status": "decided", "verdict": verdict}

    def withdraw(self, request):
        """Takes an open interrupt out of the queue, for the session that raised it only.

        Withdrawing again answers the status it already has, so a hook that is not sure
        its first call arrived can simply call again."""
        reason = request.body(allow_empty=True).one_of("reason", WITHDRAW_REASONS, required=False) or "withdrawn"
        interrupt_id = request.params["id"]
        now = clock.now()
        with self.db.write_as(request.user_id) as conn:
            row = conn.execute("SELECT status, raised_by FROM interrupts WHERE id = :id AND user_id = :user_id",
                               {"id": interrupt_id}).fetchone()
            if row is None:
                raise not_found("interrupt not found")
            if not _raised_by(row, request):
                raise forbidden("only the session that raised an interrupt can withdraw it")
            updated = conn.execute(
                "UPDATE interrupts SET status = :status, resolved_at = :now "
                "WHERE id = :id AND user_id = :user_id AND status = 'open'",
                {"status": reason, "now": now, "id": interrupt_id}).rowcount
        if updated:
            self._announce_resolved((request.user_id,))
            return {"id": interrupt_id, "status": reason}
        if row["status"] in WITHDRAW_REASONS:
            return {"id": interrupt_id, "status": row["status"]}
        raise conflict("interrupt already resolved")

    def _announce_resolved(self, user_ids):
        """After a commit that resolved interrupts: the new queue to these users' streams, and
        every held wait for a verdict looks again."""
        for user_id in user_ids:
            self.app.hub.publish(user_id)
        self.app.hub.notify_resolved()

    # Interrupts whose hook went away

    def withdraw_unpolled(self, polling, last_polled):
        """Withdraws every open interrupt raised to be polled that nobody polls now and nobody
        polled for the interval; returns the ids still open and polled. `polling` and
        `last_polled` are the loop's records, copied."""
        now = clock.now()
        limit = self.timings.unpolled_withdraw_seconds
        # Runs every sweep: it reads, and takes the writer only when there is something to withdraw
        # (the update applies to an interrupt still open, whatever happened since the read).
        with self.db.read() as conn:
            rows = conn.execute("SELECT id, user_id, raised_at FROM interrupts "
                                "WHERE status = 'open' AND polled = 1").fetchall()
        stale = [row for row in rows if row["id"] not in polling
                 and now - max(row["raised_at"], last_polled.get(row["id"], self._started_at)) > limit]
        if stale:
            with self.db.write() as conn:
                conn.executemany("UPDATE interrupts SET status = 'withdrawn', resolved_at = ? "
                                 "WHERE id = ? AND status = 'open'", [(now, row["id"]) for row in stale])
            log.info("withdrew %d interrupt(s) nobody polled any more", len(stale))
            self._announce_resolved({row["user_id"] for row in stale})
        gone = {row["id"] for row in stale}
        return {row["id"] for row in rows} - gone

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

    async def start(self):
        self._sweeper = asyncio.create_task(self._sweep())

    async def stop(self):
        if self._sweeper is not None:
            self._sweeper.cancel()

    async def _sweep(self):
        while True:
            await asyncio.sleep(self.timings.expiry_sweep_seconds)
            try:
                await self.app.workers.run(self.expire_and_announce)
                last_polled = dict(self._last_polled)
                still_open = await self.app.workers.run(self.withdraw_unpolled, set(self._polling), last_polled)
                for interrupt_id in set(last_polled) - still_open:
                    self._last_polled.pop(interrupt_id, None)
            except Exception:
                log.exception("expiry sweep failed")


def _release(hub):
    def release(subscribing):
        if not subscribing.cancelled() and subscribing.exception() is None:
            hub.unsubscribe(subscribing.result()[0])
    return release


def _raised_by(row, request):
    """Whether the request comes with the session that raised the interrupt in `row`."""
    return row["raised_by"] is not None and hmac.compare_digest(row["raised_by"], request.token_hash or "")


def _state_json(row):
    answer = {"id": row["id"], "status": row["status"], "interrupt": json.loads(row["payload"])}
    if row["verdict"]:
        answer["verdict"] = json.loads(row["verdict"])
    if row["resolved_at"] is not None:
        answer["resolved_at"] = clock.iso(row["resolved_at"])
    return answer
