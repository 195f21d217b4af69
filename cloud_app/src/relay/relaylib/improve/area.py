"""Improve: the relay reads the person's past agent conversations, finds the instructions they
gave in two different conversations, and offers each as a rule or a skill to write down.

Sources, all on the relay's machine: Claude Code's logs (`MERE_RELAY_CLAUDE_PROJECTS_DIR`,
default `~/.claude/projects`), Codex's (`MERE_RELAY_CODEX_SESSIONS_DIR`, default
`~/.codex/sessions`), and what the person typed into the drawer's terminals (terminal chunks
of stream "input"). Each source is read once: a log is remembered by its size and modification
time and a grown one is read on from where the last read stopped; a terminal session by the
last chunk read. What was found is kept as signals (the person's sentence, its terms, when and
where), and the suggestions are worked out again from all signals after each scan.

The files the suggestions name are written by the application, on the person's machine; the
relay keeps the record of each write (`ImproveApplication`) so that it can be undone later.
"""

import asyncio
import json
import logging
import os
import re
import secrets
import threading
from stat import S_ISREG

from .. import clock
from ..errors import ApiError, bad_request, not_found
from ..jsonio import whole_number
from . import detect, logs, watch

log = logging.getLogger("relay")

# Evidence newer than this keeps a suggestion alive; with none, it is stale and shows dismissed.
WINDOW_DAYS = 30
DAY_SECONDS = 86400
HOUR_SECONDS = 3600
DEFAULT_CADENCE_HOURS = 24
MAX_CADENCE_HOURS = 24 * 7
MAX_SNOOZE_DAYS = 365
DEFAULT_LIMIT = 20
MAX_LIMIT = 200
# How often the background reader looks whose automatic scan is due.
AUTOMATIC_CHECK_SECONDS = 60
MAX_PATH = 4096
MAX_INSERTED = 1_000_000
MAX_AGENT = 100
DRAFT_OUTPUT_TOKENS = 300
DRAFT_TASK = "summarise"
NO_MODEL_STATUS = 503
NO_MODEL_MESSAGE = ("No model is available to reword this suggestion: add an API model with its key in the "
                    "router's settings, or apply the wording as it is.")
ALREADY_UNDONE_MESSAGE = "this application was already undone"
_SHA256 = re.compile(r"[0-9a-f]{64}")
STATUSES = ("open", "snoozed", "dismissed")
# How a drawer terminal's session is named among the sources, beside the logs' paths.
TERMINAL_PREFIX = "terminal:"

DRAFT_INSTRUCTIONS = (
    "You reword one rule for a coding agent's guide file. The person gave this instruction in "
    "several conversations; write it as one short, clear, imperative sentence that keeps its exact "
    "meaning. Answer with the sentence only: no list mark, no quotes, no explanation.")


def _new_id(prefix):
    return prefix + secrets.token_hex(12)


def _setting_number(settings, name, default, parse):
    text = settings.get(name).strip()
    try:
        return parse(text) if text else default
    except ValueError:
        return default


def _setting_count(settings, name, default):
    value = _setting_number(settings, name, default, int)
    return value if value >= 0 else default


def _setting_seconds(settings, name, default):
    value = _setting_number(settings, name, default, float)
    return value if value > 0 else default


class _Caller:
    """Who a rewording is made for: the user of the request, with a request id of its own."""

    gateway_key = None

    def __init__(self, user_id, request_id):
        self.user_id = user_id
        self.request_id = request_id


class _Memory:
    """What one user's scans have read (source to size, time, offset, state) and found."""

    def __init__(self):
        self.known = {}
        self.clustering = detect.Clustering()
        self.fresh = True
        # The watch's generation at this user's last walk; None until one (a walk is due).
        self.generation = None
        # Logs to look at again without being told: read up to the limit, or not readable.
        self.unfinished = {}


class Improve:
    def __init__(self, app):
        self.app = app
        self.db = app.db
        settings = app.settings
        home = os.path.expanduser("~")
        self.claude_dir = settings.get("MERE_RELAY_CLAUDE_PROJECTS_DIR") or os.path.join(home, ".claude", "projects")
        self.codex_dir = settings.get("MERE_RELAY_CODEX_SESSIONS_DIR") or os.path.join(home, ".codex", "sessions")
        self.day_seconds = _setting_seconds(settings, "MERE_RELAY_IMPROVE_DAY_SECONDS", DAY_SECONDS)
        self.hour_seconds = _setting_seconds(settings, "MERE_RELAY_IMPROVE_HOUR_SECONDS", HOUR_SECONDS)
        self.check_seconds = _setting_seconds(settings, "MERE_RELAY_IMPROVE_CHECK_SECONDS", AUTOMATIC_CHECK_SECONDS)
        self.max_watched_folders = _setting_count(settings, "MERE_RELAY_IMPROVE_WATCHED_FOLDERS",
                                                  watch.MAX_WATCHED_FOLDERS)
        # Told by the kernel which logs changed, so that a rescan does not look at every log.
        self._watch = None
        # One scan at a time per user: two would read the same new bytes twice.
        self._scan_locks = {}
        self._locks_guard = threading.Lock()
        self._task = None
        # Each user's sources and clusters, read from the database once and kept in step by the
        # scans, so that a rescan that finds one new line reads nothing else again.
        self._memory = {}

    @property
    def window_seconds(self):
        return WINDOW_DAYS * self.day_seconds

    def register(self, router):
        self.app.queue.snapshot_extras.append(self._snapshot_extra)
        router.add("POST", "v1/improve/scan", self.scan)
        router.add("GET", "v1/improve/suggestions", self.suggestions)
        router.add("POST", "v1/improve/suggestions/{id}/dismiss", self.dismiss)
        router.add("POST", "v1/improve/suggestions/{id}/snooze", self.snooze)
        router.add("POST", "v1/improve/suggestions/{id}/reopen", self.reopen)
        router.add("POST", "v1/improve/suggestions/{id}/draft", self.draft)
        router.add("POST", "v1/improve/suggestions/{id}/apply", self.apply)
        router.add("POST", "v1/improve/applications/{id}/undo", self.undo)
        router.add("GET", "v1/improve/settings", self.get_settings)
        router.add("POST", "v1/improve/settings", self.set_settings)

    async def start(self):
        self._task = asyncio.create_task(self._automatic())

    async def stop(self):
        if self._task is not None:
            self._task.cancel()
            await asyncio.gather(self._task, return_exceptions=True)
        with self._locks_guard:
            if self._watch is not None:
                self._watch.close()
                self._watch = None

    # Automatic reading.

    async def _automatic(self):
        while True:
            await asyncio.sleep(self.check_seconds)
            try:
                due = await self.app.workers.run(self._due_users)
                for user_id in due:
                    await self.app.workers.run(self.run_scan, user_id, False)
            except asyncio.CancelledError:
                raise
            except Exception:
                log.exception("automatic improve scan failed")

    def _due_users(self):
        with self.db.read() as conn:
            return [row[0] for row in conn.execute(
                "SELECT user_id FROM improve_settings WHERE automatic = 1 AND next_run_at IS NOT NULL "
                "AND next_run_at <= ?", (clock.now(),))]

    # Scanning.

    def _lock_for(self, user_id):
        with self._locks_guard:
            return self._scan_locks.setdefault(user_id, threading.Lock())

    def run_scan(self, user_id, force):
        """Reads what is new (everything with `force`) and works the suggestions out again."""
        with self._lock_for(user_id):
            return self._scan_locked(user_id, force)

    def _load(self, user_id):
        memory = _Memory()
        with self.db.read_as(user_id) as conn:
            for row in conn.execute("SELECT source, size, mtime, offset, state FROM improve_sources "
                                    "WHERE user_id = :user_id"):
                memory.known[row["source"]] = (row["size"], row["mtime"], row["offset"], row["state"])
            memory.clustering.build([
                detect.Signal(row["session_key"], row["turn_index"], row["agent"], json.loads(row["kinds"]),
                              row["excerpt"], json.loads(row["terms"]), row["observed_at"])
                for row in conn.execute("SELECT * FROM improve_signals WHERE user_id = :user_id ORDER BY id")])
        return memory

    def _scan_locked(self, user_id, force):
        now = clock.now()
        if force:
            self._memory.pop(user_id, None)
            with self.db.write_as(user_id) as conn:
                conn.execute("DELETE FROM improve_sources WHERE user_id = :user_id")
                conn.execute("DELETE FROM improve_signals WHERE user_id = :user_id")
        memory = self._memory.get(user_id) or self._load(user_id)
        # Taken out while this scan changes it, so a failed write leaves nothing half-kept (and
        # the next scan, loading it again, looks at every log).
        self._memory.pop(user_id, None)
        candidates, flagged, gone = self._candidates(user_id, memory)
        scanned, turns_seen, new_signals = 0, 0, []
        changes = []
        for path, agent, size, mtime in candidates:
            held = memory.known.get(path)
            moved = held is None or held[0] != size or held[1] != mtime
            if not moved and path not in flagged:
                continue
            offset, state = (held[2], json.loads(held[3])) if held is not None else (0, {})
            try:
                turns, offset, state = logs.read_log(path, agent, offset, state)
            except OSError:
                memory.unfinished[path] = agent
                continue
            restarted = state.pop("restarted", False)
            more = state.pop("more", False)
            if more:
                memory.unfinished[path] = agent
            else:
                memory.unfinished.pop(path, None)
            if not (moved or restarted or turns or (held is not None and offset != held[2])):
                # Told of a change that changed no text (a write of the same bytes): nothing to keep.
                continue
            scanned += 1
            turns_seen += len(turns)
            for turn in turns:
                new_signals.extend(detect.signals_of(turn))
            # A log read only up to the limit is remembered at the size read, so it still looks
            # changed to the next scan, which reads on from there.
            seen = offset if more else size
            changes.append((path, agent, logs.session_of(path, agent), seen, mtime, offset, state))
        terminal_changes, terminal_turns = self._read_terminals(user_id)
        scanned += len(terminal_changes)
        turns_seen += len(terminal_turns)
        for turn in terminal_turns:
            new_signals.extend(detect.signals_of(turn))
        found = self._store(user_id, now, memory, changes + terminal_changes, new_signals, turns_seen, gone)
        for path, _, _, size, mtime, offset, state in changes + terminal_changes:
            memory.known[path] = (size, mtime, offset, json.dumps(state))
        for path in gone:
            memory.known.pop(path, None)
            memory.unfinished.pop(path, None)
        self._memory[user_id] = memory
        self.app.hub.publish(user_id)
        processing = self._processing(user_id, counts=self._log_counts(memory))
        return {"sessions_scanned": scanned, "turns_observed": turns_seen, "signals_found": len(new_signals),
                "suggestions_found": found, "scanned_at": clock.iso(now), "processing": processing}

    def _candidates(self, user_id, memory):
        """The logs this scan looks at, (path, agent, size, mtime) by path; those the watch said
        changed (read even when their size and time look the same); and the logs gone. Only
        the changed logs are looked at when the watch can tell them, every log otherwise."""
        watcher = self._log_watch()
        changed = None
        if watcher is not None and memory.generation is not None:
            changed = watcher.changed_since(user_id, memory.generation)
        if changed is None:
            if watcher is not None:
                listing, memory.generation = watcher.walk(user_id)
            else:
                listing = logs.find_logs(self.claude_dir, self.codex_dir)
            present = {item[0] for item in listing}
            gone = sorted(path for path in set(memory.known) | set(memory.unfinished)
                          if not path.startswith(TERMINAL_PREFIX) and path not in present)
            return listing, frozenset(), gone
        # Logs read only in part last time are looked at again without being told.
        changed |= set(memory.unfinished.items())
        candidates, gone = [], []
        for path, agent in changed:
            try:
                stat = os.stat(path)
            except OSError:
                if path in memory.known or path in memory.unfinished:
                    gone.append(path)
                continue
            if not S_ISREG(stat.st_mode):
                continue
            candidates.append((path, agent, stat.st_size, stat.st_mtime))
        candidates.sort()
        return candidates, frozenset(path for path, _ in changed), gone

    def _roots(self):
        return (self.claude_dir, logs.CLAUDE), (self.codex_dir, logs.CODEX)

    def _log_watch(self):
        """The watch on the log folders this scan reads; a new one when they were changed."""
        roots = self._roots()
        with self._locks_guard:
            if self._watch is not None and self._watch.roots != roots:
                self._watch.close()
                self._watch = None
            if self._watch is None and self.max_watched_folders > 0:
                self._watch = watch.LogWatch(roots, self.max_watched_folders)
            return self._watch

    def _watched_counts(self, user_id):
        """The logs' (count, read to their end) from what this user's scans read and what the
        watch has told since, without listing the folders: the list is asked for after each
        scan, and listing thousands of logs would cost it what the scan saved. None when that
        is not known; then the folders are listed."""
        lock = self._lock_for(user_id)
        if not lock.acquire(blocking=False):
            # A scan is changing what was read: the folders are listed rather than waiting for it.
            return None
        try:
            memory, watcher = self._memory.get(user_id), self._watch
            if memory is None or memory.generation is None or watcher is None or watcher.roots != self._roots():
                return None
            pending = watcher.pending(user_id, memory.generation)
            if pending is None:
                return None
            sessions, processed = self._log_counts(memory)
            for path in {path for path, _ in pending}:
                change = _count_change(path, memory.known.get(path), path in memory.unfinished)
                sessions += change[0]
                processed += change[1]
            return sessions, processed
        finally:
            lock.release()

    @staticmethod
    def _log_counts(memory):
        """(logs, logs read to their end) as this user's memory has them after a scan."""
        logs_known = [path for path in memory.known if not path.startswith(TERMINAL_PREFIX)]
        unread = sum(1 for path in memory.unfinished if path not in memory.known)
        return len(logs_known) + unread, len(logs_known) - len(memory.unfinished) + unread

    def _store(self, user_id, now, memory, changes, new_signals, turns_seen, gone):
        """Remembers what was read and found, and works out again the suggestions it changed.
        A log gone from disk is forgotten; what the person said in it stays found."""
        with self.db.write_as(user_id) as conn:
            conn.executemany("DELETE FROM improve_sources WHERE user_id = :user_id AND source = :source",
                             [{"source": path} for path in gone])
            for path, agent, session, size, mtime, offset, state in changes:
                conn.execute(
                    "INSERT INTO improve_sources (user_id, source, agent, session_id, size, mtime, offset, state, "
                    "read_at) VALUES (:user_id, :source, :agent, :session, :size, :mtime, :offset, :state, :now) "
                    "ON CONFLICT (user_id, source) DO UPDATE SET size = excluded.size, mtime = excluded.mtime, "
                    "offset = excluded.offset, state = excluded.state, read_at = excluded.read_at",
                    {"source": path, "agent": agent, "session": session, "size": size, "mtime": mtime,
                     "offset": offset, "state": json.dumps(state), "now": now})
            conn.executemany(
                "INSERT INTO improve_signals (user_id, session_key, session_id, turn_index, agent, kinds, excerpt, "
                "terms, observed_at) VALUES (:user_id, :key, :session, :turn, :agent, :kinds, :excerpt, :terms, "
                ":observed)",
                [{"key": signal.agent + ":" + signal.session_id, "session": signal.session_id,
                  "turn": signal.turn_index, "agent": signal.agent, "kinds": json.dumps(signal.kinds),
                  "excerpt": signal.excerpt, "terms": json.dumps(signal.terms), "observed": signal.observed_at}
                 for signal in new_signals])
            clustering = memory.clustering
            # Freshly loaded, every cluster is worked out once; afterwards only those that grew.
            changed = set(map(id, clustering.clusters)) if memory.fresh else set()
            memory.fresh = False
            for signal in new_signals:
                kept = detect.Signal(signal.agent + ":" + signal.session_id, signal.turn_index, signal.agent,
                                     signal.kinds, signal.excerpt, signal.terms, signal.observed_at)
                changed.add(id(clustering.add(kept)))
            recurring = detect.recurring(clustering.clusters)
            stored = None
            for cluster in recurring:
                if id(cluster) not in changed:
                    continue
                suggestion = detect.word(cluster, user_id)
                if stored is None:
                    stored = {row[0]: frozenset(row[1].split()) for row in conn.execute(
                        "SELECT id, signature FROM improve_suggestions WHERE user_id = :user_id")}
                if suggestion["id"] not in stored:
                    # Clustered afresh (a forced scan), an instruction may be named by another of its
                    # forms: it is still the suggestion the person has already seen and decided on.
                    alike = [(detect.similarity(terms, cluster.terms), known) for known, terms in stored.items()]
                    best = max(alike, default=(0.0, None))
                    if best[0] >= detect.SIMILARITY:
                        suggestion["id"] = best[1]
                self._upsert(conn, suggestion, now)
            conn.execute(
                "INSERT INTO improve_settings (user_id, automatic, cadence_hours, last_run_at, next_run_at, "
                "turns_observed, signals_found) VALUES (:user_id, 0, :cadence, :now, NULL, :turns, :signals) "
                "ON CONFLICT (user_id) DO UPDATE SET last_run_at = :now, turns_observed = turns_observed + :turns, "
                "signals_found = signals_found + :signals, next_run_at = CASE WHEN automatic = 1 "
                "THEN :now + cadence_hours * :hour ELSE NULL END",
                {"cadence": DEFAULT_CADENCE_HOURS, "now": now, "turns": turns_seen, "signals": len(new_signals),
                 "hour": self.hour_seconds})
        return len(recurring)

    def _read_terminals(self, user_id):
        """The lines typed into this user's drawer terminals since the last scan."""
        with self.db.read_as(user_id) as conn:
            sessions = conn.execute(
                "SELECT s.id, s.started_at, COALESCE(MAX(c.seq), 0) AS last_seq, r.offset, r.state "
                "FROM terminal_sessions s JOIN terminal_chunks c ON c.session_id = s.id "
                "LEFT JOIN improve_sources r ON r.user_id = s.user_id AND r.source = 'terminal:' || s.id "
                "WHERE s.user_id = :user_id AND c.stream = 'input' GROUP BY s.id").fetchall()
            changes, turns = [], []
            for row in sessions:
                offset = row["offset"] or 0
                if row["last_seq"] <= offset:
                    continue
                state = json.loads(row["state"]) if row["state"] else {}
                pending, count = state.get("pending", ""), int(state.get("turns", 0))
                chunks = conn.execute(
                    "SELECT c.seq, c.data, c.ts FROM terminal_chunks c JOIN terminal_sessions s ON s.id = c.session_id "
                    "WHERE s.user_id = :user_id AND c.session_id = :id AND c.stream = 'input' AND c.seq > :offset "
                    "ORDER BY c.seq", {"id": row["id"], "offset": offset}).fetchall()
                for chunk in chunks:
                    lines, pending = logs.typed_lines(pending, chunk["data"])
                    observed = clock.parse_iso(chunk["ts"]) or row["started_at"]
                    for line in lines:
                        count += 1
                        turns.append(detect.Turn(row["id"], count, logs.TERMINAL, line, float(int(observed))))
                changes.append((TERMINAL_PREFIX + row["id"], logs.TERMINAL, row["id"], row["last_seq"], 0.0,
                                row["last_seq"], {"turns": count, "pending": pending}))
        return changes, turns

    @staticmethod
    def _upsert(conn, suggestion, now):
        """Stores a suggestion's wording, counts and evidence; its state (status, snooze) stays."""
        evidence = [{"session_id": signal.session_id.split(":", 1)[1], "turn_index": signal.turn_index,
                     "agent": signal.agent, "kinds": signal.kinds, "excerpt": signal.excerpt,
                     "observed_at": clock.iso(signal.observed_at)} for signal in suggestion["evidence"]]
        fields = {"id": suggestion["id"], "signature": suggestion["signature"], "kind": suggestion["kind"],
                  "artifact": suggestion["artifact"], "title": suggestion["title"],
                  "detail": suggestion["detail"], "body": suggestion["body"], "slug": suggestion["slug"],
                  "terms": json.dumps(suggestion["terms"]), "patterns": json.dumps(suggestion["patterns"]),
                  "agents": json.dumps(suggestion["agents"]), "targets": json.dumps(suggestion["targets"]),
                  "section": suggestion["section"], "evidence": json.dumps(evidence),
                  "turn_count": suggestion["turn_count"], "session_count": suggestion["session_count"],
                  "last_seen": suggestion["last_seen"], "now": now}
        conn.execute(
            "INSERT INTO improve_suggestions (user_id, id, signature, kind, artifact, title, detail, body, slug, "
            "terms, patterns, agents, targets, section, evidence, turn_count, session_count, status, "
            "snoozed_until, reopened_at, created_at, updated_at, last_seen_at) VALUES (:user_id, :id, "
            ":signature, :kind, :artifact, :title, :detail, :body, :slug, :terms, :patterns, :agents, :targets, "
            ":section, :evidence, :turn_count, :session_count, 'open', NULL, NULL, :now, :now, :last_seen) "
            "ON CONFLICT (user_id, id) DO UPDATE SET kind = excluded.kind, title = excluded.title, "
            "detail = excluded.detail, body = excluded.body, slug = excluded.slug, terms = excluded.terms, "
            "patterns = excluded.patterns, agents = excluded.agents, targets = excluded.targets, "
            "section = excluded.section, evidence = excluded.evidence, turn_count = excluded.turn_count, "
            "session_count = excluded.session_count, last_seen_at = excluded.last_seen_at, "
            "updated_at = CASE WHEN improve_suggestions.evidence = excluded.evidence "
            "THEN improve_suggestions.updated_at ELSE excluded.updated_at END", fields)

    # Records.

    def _effective(self, row, now):
        """(status, stale) after ageing: a snooze past its end is open again, and a suggestion with
        no evidence within the window (nor a reopening within it) is dismissed as stale."""
        fresh_since = max(row["last_seen_at"], row["reopened_at"] or 0)
        stale = fresh_since < now - self.window_seconds
        status = row["status"]
        if status == "snoozed" and row["snoozed_until"] is not None and row["snoozed_until"] <= now:
            status = "open"
        if stale and status != "dismissed":
            status = "dismissed"
        return status, stale

    def _suggestion(self, row, applications, now):
        status, stale = self._effective(row, now)
        record = {"id": row["id"], "kind": row["kind"], "artifact": row["artifact"], "title": row["title"],
                  "detail": row["detail"], "body": row["body"], "slug": row["slug"],
                  "terms": json.loads(row["terms"]), "patterns": json.loads(row["patterns"]),
                  "agents": json.loads(row["agents"]), "targets": json.loads(row["targets"]),
                  "evidence": json.loads(row["evidence"]), "turn_count": row["turn_count"],
                  "session_count": row["session_count"], "status": status, "stored_status": row["status"],
                  "stale": stale, "section": row["section"],
                  "applications": [_application(item) for item in applications],
                  "applied": any(item["undone_at"] is None for item in applications),
                  "created_at": clock.iso(row["created_at"]), "updated_at": clock.iso(row["updated_at"]),
                  "last_seen_at": clock.iso(row["last_seen_at"])}
        if row["status"] == "snoozed" and row["snoozed_until"] is not None and status == "snoozed":
            record["snoozed_until"] = clock.iso(row["snoozed_until"])
        return record

    def _applications(self, conn, suggestion_id=None):
        query = "SELECT * FROM improve_applications WHERE user_id = :user_id"
        params = {}
        if suggestion_id is not None:
            query += " AND suggestion_id = :suggestion"
            params["suggestion"] = suggestion_id
        by_suggestion = {}
        for row in conn.execute(query + " ORDER BY applied_at, rowid", params):
            by_suggestion.setdefault(row["suggestion_id"], []).append(row)
        return by_suggestion

    def _one(self, conn, suggestion_id):
        row = conn.execute("SELECT * FROM improve_suggestions WHERE user_id = :user_id AND id = :id",
                           {"id": suggestion_id}).fetchone()
        if row is None:
            raise not_found("suggestion not found")
        return row

    def _answer(self, user_id, suggestion_id):
        with self.db.read_as(user_id) as conn:
            row = self._one(conn, suggestion_id)
            applications = self._applications(conn, suggestion_id).get(suggestion_id, [])
        return self._suggestion(row, applications, clock.now())

    # Paths.

    def scan(self, request):
        body = request.body(allow_empty=True)
        force = body.boolean("force", required=False) or False
        return self.run_scan(request.user_id, force)

    def suggestions(self, request):
        include = request.query_value("include_dismissed")
        if include not in (None, "true", "false"):
            raise bad_request("include_dismissed must be true or false")
        text = request.query_value("limit")
        limit = DEFAULT_LIMIT if text is None else whole_number(text, "limit", MAX_LIMIT, minimum=1)
        now = clock.now()
        with self.db.read_as(request.user_id) as conn:
            rows = conn.execute("SELECT * FROM improve_suggestions WHERE user_id = :user_id").fetchall()
            applications = self._applications(conn)
        records = [self._suggestion(row, applications.get(row["id"], []), now) for row in rows]
        counts = {status: 0 for status in STATUSES}
        for record in records:
            counts[record["status"]] += 1
        shown = [record for record in records if include == "true" or record["status"] != "dismissed"]
        rank = {row["id"]: (row["session_count"], row["turn_count"], row["last_seen_at"]) for row in rows}
        order = {"open": 0, "snoozed": 1, "dismissed": 2}
        shown.sort(key=lambda record: (order[record["status"]], -rank[record["id"]][0], -rank[record["id"]][1],
                                       -rank[record["id"]][2], record["id"]))
        return {"suggestions": shown[:limit], "counts": counts, "total": len(shown), "window_days": WINDOW_DAYS,
                "processing": self._processing(request.user_id, counts=self._watched_counts(request.user_id))}

    def _set_status(self, request, status, snoozed_until=None, reopened=False):
        suggestion_id = request.params["id"]
        now = clock.now()
        with self.db.write_as(request.user_id) as conn:
            self._one(conn, suggestion_id)
            conn.execute("UPDATE improve_suggestions SET status = :status, snoozed_until = :until, "
                         "reopened_at = CASE WHEN :reopened THEN :now ELSE reopened_at END, updated_at = :now "
                         "WHERE user_id = :user_id AND id = :id",
                         {"status": status, "until": snoozed_until, "reopened": 1 if reopened else 0, "now": now,
                          "id": suggestion_id})
        self.app.hub.publish(request.user_id)
        return self._answer(request.user_id, suggestion_id)

    def dismiss(self, request):
        return self._set_status(request, "dismissed")

    def snooze(self, request):
        days = request.body().integer("days", minimum=1, maximum=MAX_SNOOZE_DAYS)
        return self._set_status(request, "snoozed", clock.now() + days * self.day_seconds)

    def reopen(self, request):
        return self._set_status(request, "open", reopened=True)

    async def draft(self, request):
        suggestion = await request.run(self._answer, request.user_id, request.params["id"])
        if suggestion["artifact"] != "rule":
            raise ApiError(409, "a skill is written as it stands and is never reworded")
        router = self._model_router()
        if router is None or not self._api_lane_ready(router):
            raise ApiError(NO_MODEL_STATUS, NO_MODEL_MESSAGE)
        said = "\n".join("- " + item["excerpt"] for item in suggestion["evidence"])
        prompt = (f"The rule as it stands: {suggestion['body'].lstrip('- ').strip()}\n\n"
                  f"What the person said, in their own words:\n{said}\n")
        completion, _ = await router.run_completion(_Caller(request.user_id, request.request_id), DRAFT_TASK, prompt,
                                                    DRAFT_INSTRUCTIONS, None, "auto", DRAFT_OUTPUT_TOKENS, None)
        # Models wrap a sentence in quotes or a list mark whatever they are told: take both off.
        text = " ".join((completion.get("output") or "").split())
        while text and (text[0] in "-*\"'“" or text[-1] in "\"'”"):
            text = text.strip("\"'“”").lstrip("-* ").strip()
        if not text:
            raise ApiError(502, "the model gave no wording")
        sentence = detect.clip(text, 400)
        return {"suggestion_id": suggestion["id"], "title": detect.clip(sentence, 80), "body": "- " + sentence,
                "section": suggestion["section"], "model": completion["model"]}

    def _model_router(self):
        from ..modelrouter import ModelRouter
        return self.app.areas.get(ModelRouter)

    @staticmethod
    def _api_lane_ready(router):
        readiness = router.catalog.readiness()
        return any(lane.channel == "api" and readiness.get(lane.id) is None for lane in router.catalog.lanes)

    def apply(self, request):
        suggestion_id = request.params["id"]
        body = request.body()
        agent = body.string("agent", non_empty=True, max_length=MAX_AGENT)
        path = body.string("path", non_empty=True, max_length=MAX_PATH)
        resolved = body.string("resolved_path", non_empty=True, max_length=MAX_PATH)
        inserted = body.string("inserted_text", non_empty=True, max_length=MAX_INSERTED)
        digest = body.string("content_sha256")
        created = body.boolean("created_file")
        if not _SHA256.fullmatch(digest):
            raise bad_request("content_sha256 must be 64 lower-case hexadecimal characters")
        if os.path.isabs(path) or path.startswith("~"):
            raise bad_request("path must be relative to the project")
        now = clock.now()
        application_id = _new_id("app_")
        with self.db.write_as(request.user_id) as conn:
            row = self._one(conn, suggestion_id)
            artifact = next((target["artifact"] for target in json.loads(row["targets"]) if target["path"] == path),
                            row["artifact"])
            conn.execute("INSERT INTO improve_applications (user_id, id, suggestion_id, agent, artifact, path, "
                         "resolved_path, inserted_text, content_sha256, created_file, applied_at, undone_at) VALUES "
                         "(:user_id, :id, :suggestion, :agent, :artifact, :path, :resolved, :inserted, :digest, "
                         ":created, :now, NULL)",
                         {"id": application_id, "suggestion": suggestion_id, "agent": agent, "artifact": artifact,
                          "path": path, "resolved": resolved, "inserted": inserted, "digest": digest,
                          "created": 1 if created else 0, "now": now})
            conn.execute("UPDATE improve_suggestions SET updated_at = :now WHERE user_id = :user_id AND id = :id",
                         {"now": now, "id": suggestion_id})
            written = conn.execute("SELECT * FROM improve_applications WHERE user_id = :user_id AND id = :id",
                                   {"id": application_id}).fetchone()
        return _application(written)

    def undo(self, request):
        application_id = request.params["id"]
        now = clock.now()
        with self.db.write_as(request.user_id) as conn:
            row = conn.execute("SELECT * FROM improve_applications WHERE user_id = :user_id AND id = :id",
                               {"id": application_id}).fetchone()
            if row is None:
                raise not_found("application not found")
            if row["undone_at"] is not None:
                raise ApiError(409, ALREADY_UNDONE_MESSAGE)
            conn.execute("UPDATE improve_applications SET undone_at = :now WHERE user_id = :user_id AND id = :id",
                         {"now": now, "id": application_id})
            row = conn.execute("SELECT * FROM improve_applications WHERE user_id = :user_id AND id = :id",
                               {"id": application_id}).fetchone()
        return _application(row)

    # Settings and processing.

    @staticmethod
    def _settings_row(conn):
        return conn.execute("SELECT * FROM improve_settings WHERE user_id = :user_id").fetchone()

    def _settings(self, conn, now):
        row = self._settings_row(conn)
        record = {"automatic": bool(row["automatic"]) if row else False,
                  "cadence_hours": row["cadence_hours"] if row else DEFAULT_CADENCE_HOURS}
        if row is not None and row["last_run_at"] is not None:
            record["last_run_at"] = clock.iso(row["last_run_at"])
        if row is not None and row["automatic"] and row["next_run_at"] is not None:
            record["next_run_at"] = clock.iso(row["next_run_at"])
        record["open_suggestions"] = self._open_count(conn, now)
        return record

    def get_settings(self, request):
        with self.db.read_as(request.user_id) as conn:
            return self._settings(conn, clock.now())

    def set_settings(self, request):
        body = request.body(allow_empty=True)
        automatic = body.boolean("automatic", required=False)
        cadence = body.integer("cadence_hours", required=False, minimum=1, maximum=MAX_CADENCE_HOURS)
        now = clock.now()
        with self.db.write_as(request.user_id) as conn:
            row = self._settings_row(conn)
            on = bool(row["automatic"]) if row else False
            hours = row["cadence_hours"] if row else DEFAULT_CADENCE_HOURS
            last = row["last_run_at"] if row else None
            on = on if automatic is None else automatic
            hours = hours if cadence is None else cadence
            # Turned on with nothing read yet, the first reading is due at once; otherwise a
            # cadence after the last one.
            following = (now if last is None else last + hours * self.hour_seconds) if on else None
            conn.execute("INSERT INTO improve_settings (user_id, automatic, cadence_hours, last_run_at, next_run_at, "
                         "turns_observed, signals_found) VALUES (:user_id, :on, :hours, NULL, :next, 0, 0) "
                         "ON CONFLICT (user_id) DO UPDATE SET automatic = :on, cadence_hours = :hours, "
                         "next_run_at = :next", {"on": 1 if on else 0, "hours": hours, "next": following})
            return self._settings(conn, now)

    def _processing(self, user_id, counts=None):
        """How far the reading has come: the conversations on disk and in the terminals, and how
        many of them have something not read yet. A scan hands in the logs' (count, read) it has
        just established; otherwise the logs on disk are listed and compared with what was read."""
        with self.db.read_as(user_id) as conn:
            known = None
            if counts is None:
                memory = self._memory.get(user_id)
                known = memory.known if memory is not None else {row[0]: tuple(row[1:]) for row in conn.execute(
                    "SELECT source, size, mtime FROM improve_sources WHERE user_id = :user_id")}
            terminals = conn.execute(
                "SELECT s.id, MAX(c.seq) AS last_seq, r.offset FROM terminal_sessions s "
                "JOIN terminal_chunks c ON c.session_id = s.id LEFT JOIN improve_sources r "
                "ON r.user_id = s.user_id AND r.source = 'terminal:' || s.id "
                "WHERE s.user_id = :user_id AND c.stream = 'input' GROUP BY s.id").fetchall()
            settings = self._settings_row(conn)
        sessions, processed = counts if counts is not None else self._listed_counts(known)
        for row in terminals:
            sessions += 1
            if row["offset"] is not None and row["offset"] >= row["last_seq"]:
                processed += 1
        record = {"sessions": sessions, "sessions_processed": processed, "sessions_pending": sessions - processed,
                  "turns_observed": settings["turns_observed"] if settings else 0,
                  "signals_found": settings["signals_found"] if settings else 0,
                  "automatic": bool(settings["automatic"]) if settings else False,
                  "cadence_hours": settings["cadence_hours"] if settings else DEFAULT_CADENCE_HOURS}
        if settings is not None and settings["last_run_at"] is not None:
            record["last_scan_at"] = clock.iso(settings["last_run_at"])
        if settings is not None and settings["automatic"] and settings["next_run_at"] is not None:
            record["next_run_at"] = clock.iso(settings["next_run_at"])
        return record

    def _listed_counts(self, known):
        sessions = processed = 0
        for path, _, size, mtime in logs.find_logs(self.claude_dir, self.codex_dir):
            sessions += 1
            held = known.get(path)
            if held is not None and held[0] == size and held[1] == mtime:
                processed += 1
        return sessions, processed

    def _open_count(self, conn, now):
        """Suggestions that show as open: stored open or snoozed past its end, and not stale."""
        return conn.execute(
            "SELECT COUNT(*) FROM improve_suggestions WHERE user_id = :user_id AND (status = 'open' OR "
            "(status = 'snoozed' AND snoozed_until <= :now)) AND MAX(last_seen_at, COALESCE(reopened_at, 0)) "
            ">= :fresh", {"now": now, "fresh": now - self.window_seconds}).fetchone()[0]

    def _snapshot_extra(self, conn):
        return {"open_suggestions": self._open_count(conn, clock.now())}


def _count_change(path, held, unfinished):
    """How a log the watch told of changes the (count, read) worked out from what was read:
    gone from disk, new, or grown since its last read, as a listing would find it."""
    try:
        stat = os.stat(path)
    except OSError:
        stat = None
    if stat is None or not S_ISREG(stat.st_mode):
        return (-1 if held is not None or unfinished else 0), (-1 if held is not None and not unfinished else 0)
    if held is None:
        return (0 if unfinished else 1), 0
    return 0, (-1 if not unfinished and (held[0], held[1]) != (stat.st_size, stat.st_mtime) else 0)


def _application(row):
    record = {"id": row["id"], "suggestion_id": row["suggestion_id"], "agent": row["agent"],
              "artifact": row["artifact"], "path": row["path"], "resolved_path": row["resolved_path"],
              "inserted_text": row["inserted_text"], "content_sha256": row["content_sha256"],
              "created_file": bool(row["created_file"]), "applied_at": clock.iso(row["applied_at"])}
    if row["undone_at"] is not None:
        record["undone_at"] = clock.iso(row["undone_at"])
    return record
