"""The one access layer to SQLite, safe under a threaded server.

Writes go through a single connection behind a lock, each in an immediate
transaction, so two writers never race for the database lock and a failed
handler rolls back completely. Reads use a small pool of connections; in WAL
mode they never block the writer and always see the last committed state.
"""

import contextlib
import os
import sqlite3
import threading

from . import clock
from .migrations import MIGRATIONS

BUSY_TIMEOUT_MS = 10000


def _connect(path):
    conn = sqlite3.connect(path, isolation_level=None, check_same_thread=False, timeout=BUSY_TIMEOUT_MS / 1000)
    conn.row_factory = sqlite3.Row
    conn.execute(f"PRAGMA busy_timeout = {BUSY_TIMEOUT_MS}")
    conn.execute("PRAGMA foreign_keys = ON")
    conn.execute("PRAGMA synchronous = NORMAL")
    return conn


class Database:
    def __init__(self, path, migrations=MIGRATIONS):
        self.path = path
        folder = os.path.dirname(os.path.abspath(path))
        os.makedirs(folder, exist_ok=True)
        self._write_lock = threading.RLock()
        self._writer = _connect(path)
        self._writer.execute("PRAGMA journal_mode = WAL")
        self._pool = []
        self._pool_lock = threading.Lock()
        self.schema_version = self._migrate(migrations)

    def _migrate(self, migrations):
        """Applies, in order and each in its own transaction, the migrations not yet applied."""
        with self.write() as conn:
            conn.execute(
                "CREATE TABLE IF NOT EXISTS schema_migrations "
                "(version INTEGER PRIMARY KEY, name TEXT NOT NULL, applied_at TEXT NOT NULL)")
            done = {row[0] for row in conn.execute("SELECT version FROM schema_migrations")}
        for version, name, script in sorted(migrations):
            if version in done:
                continue
            with self.write() as conn:
                for statement in _statements(script):
                    conn.execute(statement)
                conn.execute("INSERT INTO schema_migrations VALUES (?, ?, ?)", (version, name, clock.now_iso()))
        return max([version for version, _, _ in migrations] + [0])

    @contextlib.contextmanager
    def write(self):
        """One immediate transaction on the writer: committed on success, rolled back on any error."""
        with self._write_lock:
            conn = self._writer
            conn.execute("BEGIN IMMEDIATE")
            try:
                yield conn
            except BaseException:
                conn.execute("ROLLBACK")
                raise
            conn.execute("COMMIT")

    @contextlib.contextmanager
    def read(self):
        with self._pool_lock:
            conn = self._pool.pop() if self._pool else None
        if conn is None:
            conn = _connect(self.path)
        try:
            yield conn
        finally:
            if conn.in_transaction:
                conn.execute("ROLLBACK")
            with self._pool_lock:
                self._pool.append(conn)

    def integrity_ok(self):
        with self.read() as conn:
            return conn.execute("PRAGMA integrity_check").fetchone()[0] == "ok"

    def close(self):
        with self._write_lock, self._pool_lock:
            for conn in self._pool:
                conn.close()
            self._pool.clear()
            self._writer.close()


def _statements(script):
    """Splits a migration script at semicolons that end a complete statement."""
    statements, current = [], ""
    for line in script.splitlines(keepends=True):
        current += line
        if sqlite3.complete_statement(current):
            if current.strip():
                statements.append(current.strip())
            current = ""
    if current.strip():
        statements.append(current.strip())
    return statements
