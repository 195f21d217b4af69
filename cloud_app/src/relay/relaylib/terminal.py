"""Terminal sessions: what went into and came out of a terminal, in order, per session.

A session belongs to the user who opened it; another user's session answers 404,
as if it did not exist. A client that did not hear the answer to a batch sends it
again with the next one, so chunks are keyed by (session, seq) and a chunk already
stored is kept as it was: a repeated batch is accepted and stored once.
"""

import uuid

from . import clock, jsonio
from .errors import ApiError, not_found
from .jsonio import Body

STREAMS = ("input", "output")
DEFAULT_LIST_LIMIT = 100
MAX_LIST_LIMIT = 1000


class Terminal:
    def __init__(self, app):
        self.db = app.db

    def register(self, router):
        router.add("POST", "v1/terminal/sessions", self.create, quick=True)
        router.add("GET", "v1/terminal/sessions", self.list_sessions)
        router.add("GET", "v1/terminal/sessions/{id}", self.transcript)
        router.add("POST", "v1/terminal/sessions/{id}/events", self.append)
        router.add("POST", "v1/terminal/sessions/{id}/end", self.end, quick=True)

    def create(self, request):
        source = request.body().string("source", max_length=200)
        session_id = "ts_" + uuid.uuid4().hex
        now = clock.now()
        with self.db.write_as(request.user_id) as conn:
            conn.execute("INSERT INTO terminal_sessions (id, user_id, source, started_at) "
                         "VALUES (:id, :user_id, :source, :now)", {"id": session_id, "source": source, "now": now})
        return {"id": session_id, "started_at": clock.iso(now)}

    def append(self, request):
        chunks = [self._chunk(item, index) for index, item in enumerate(request.body().array("chunks"))]
        session_id = request.params["id"]
        with self.db.write_as(request.user_id) as conn:
            session = self._session(conn, session_id)
            ended = session["ended_at"] is not None
            if not ended:
                before = conn.total_changes
                # The session was found as this user's above; the statement says so again.
                conn.executemany(
                    "INSERT OR IGNORE INTO terminal_chunks (session_id, seq, stream, data, ts) "
                    "SELECT :id, :seq, :stream, :data, :ts WHERE EXISTS "
                    "(SELECT 1 FROM terminal_sessions WHERE id = :id AND user_id = :user_id)",
                    [dict(chunk, id=session_id) for chunk in chunks])
                stored = conn.total_changes - before
        if ended:
            raise ApiError(409, "terminal session has ended")
        return {"accepted": len(chunks), "stored": stored}

    def _chunk(self, item, index):
        body = Body(item, prefix=f"chunks[{index}].")
        return {"seq": body.integer("seq", minimum=1),
                "stream": body.one_of("stream", STREAMS),
                "data": body.string("data"),
                "ts": body.string("ts", max_length=64)}

    def end(self, request):
        session_id = request.params["id"]
        with self.db.write_as(request.user_id) as conn:
            self._session(conn, session_id)
            conn.execute("UPDATE terminal_sessions SET ended_at = :now "
                         "WHERE id = :id AND user_id = :user_id AND ended_at IS NULL",
                         {"now": clock.now(), "id": session_id})
            row = self._session(conn, session_id)
        return {"id": session_id, "ended_at": clock.iso(row["ended_at"])}

    @staticmethod
    def _session(conn, session_id):
        row = conn.execute("SELECT * FROM terminal_sessions WHERE id = :id AND user_id = :user_id",
                           {"id": session_id}).fetchone()
        if row is None:
            raise not_found("terminal session not found")
        return row

    def list_sessions(self, request):
        limit = _limit(request.query_value("limit"))
        with self.db.read_as(request.user_id) as conn:
            rows = conn.execute(
                "SELECT s.*, (SELECT count(*) FROM terminal_chunks c WHERE c.session_id = s.id) AS chunk_count "
                "FROM terminal_sessions s WHERE s.user_id = :user_id "
                "ORDER BY s.started_at DESC, s.rowid DESC LIMIT :limit", {"limit": limit}).fetchall()
        return [dict(_session_json(row), chunk_count=row["chunk_count"]) for row in rows]

    def transcript(self, request):
        with self.db.read_as(request.user_id) as conn:
            session = self._session(conn, request.params["id"])
            chunks = conn.execute(
                "SELECT c.seq, c.stream, c.data, c.ts FROM terminal_chunks c "
                "JOIN terminal_sessions s ON s.id = c.session_id "
                "WHERE c.session_id = :id AND s.user_id = :user_id ORDER BY c.seq", {"id": session["id"]}).fetchall()
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
    return jsonio.whole_number(text, "limit", MAX_LIST_LIMIT, minimum=1)
