"""Terminal sessions: what went into and came out of a terminal, in order, per session.

A client that did not hear the answer to a batch sends it again with the next
one, so chunks are keyed by (session, seq) and a chunk already stored is kept as
it was: a repeated batch is accepted and stored once.
"""

import uuid

from . import clock
from .errors import ApiError, bad_request, not_found
from .jsonio import Body

STREAMS = ("input", "output")
DEFAULT_LIST_LIMIT = 100
MAX_LIST_LIMIT = 1000


class Terminal:
    def __init__(self, app):
        self.db = app.db

    def register(self, router):
        router.add("POST", "v1/terminal/sessions", self.create)
        router.add("GET", "v1/terminal/sessions", self.list_sessions)
        router.add("GET", "v1/terminal/sessions/{id}", self.transcript)
        router.add("POST", "v1/terminal/sessions/{id}/events", self.append)
        router.add("POST", "v1/terminal/sessions/{id}/end", self.end)

    def create(self, request):
        source = request.body().string("source", max_length=200)
        session_id = "ts_" + uuid.uuid4().hex
        now = clock.now()
        with self.db.write() as conn:
            conn.execute("INSERT INTO terminal_sessions (id, user_id, source, started_at) VALUES (?, ?, ?, ?)",
                         (session_id, request.user["id"], source, now))
        return {"id": session_id, "started_at": clock.iso(now)}

    def append(self, request):
        chunks = [self._chunk(item, index) for index, item in enumerate(request.body().array("chunks"))]
        session_id = request.params["id"]
        with self.db.write() as conn:
            session = self._session(conn, session_id)
            if session["ended_at"] is not None:
                ended = True
            else:
                ended = False
                before = conn.total_changes
                conn.executemany("INSERT OR IGNORE INTO terminal_chunks VALUES (?, ?, ?, ?, ?)",
                                 [(session_id, *chunk) for chunk in chunks])
                stored = conn.total_changes - before
        if ended:
            raise ApiError(409, "terminal session has ended")
        return {"accepted": len(chunks), "stored": stored}

    def _chunk(self, item, index):
        body = Body(item, prefix=f"chunks[{index}].")
        return (body.integer("seq", minimum=1),
                body.one_of("stream", STREAMS),
                body.string("data"),
                body.string("ts", max_length=64))

    def end(self, request):
        session_id = request.params["id"]
        with self.db.write() as conn:
            self._session(conn, session_id)
            conn.execute("UPDATE terminal_sessions SET ended_at = ? WHERE id = ? AND ended_at IS NULL",
                         (clock.now(), session_id))
            row = self._session(conn, session_id)
        return {"id": session_id, "ended_at": clock.iso(row["ended_at"])}

    def _session(self, conn, session_id):
        row = conn.execute("SELECT * FROM terminal_sessions WHERE id = ?", (session_id,)).fetchone()
        if row is None:
            raise not_found("terminal session not found")
        return row

    def list_sessions(self, request):
        limit = _limit(request.query_value("limit"))
        with self.db.read() as conn:
            rows = conn.execute(
                "SELECT s.*, (SELECT count(*) FROM terminal_chunks c WHERE c.session_id = s.id) AS chunk_count "
                "FROM terminal_sessions s ORDER BY s.started_at DESC, s.rowid DESC LIMIT ?", (limit,)).fetchall()
        return [dict(_session_json(row), chunk_count=row["chunk_count"]) for row in rows]

    def transcript(self, request):
        with self.db.read() as conn:
            session = self._session(conn, request.params["id"])
            chunks = conn.execute("SELECT seq, stream, data, ts FROM terminal_chunks WHERE session_id = ? ORDER BY seq",
                                  (session["id"],)).fetchall()
        answer = _session_json(session)
        answer["chunks"] = [{"seq": c["seq"], "stream": c["stream"], "data": c["data"], "ts": c["ts"]} for c in chunks]
        return answer


def _session_json(row):
    answer = {"id": row["id"], "source": row["source"], "started_at": clock.iso(row["started_at"])}
    if row["ended_at"] is not None:
        answer["ended_at"] = clock.iso(row["ended_at"])
    return answer


def _limit(text):
    if text is None or text == "":
        return DEFAULT_LIST_LIMIT
    if not text.isdigit() or len(text) > 6 or not 1 <= int(text) <= MAX_LIST_LIMIT:
        raise bad_request(f"limit must be a whole number from 1 to {MAX_LIST_LIMIT}")
    return int(text)
