"""The one access layer to SQLite, safe for handlers on a pool of worker threads.

Writes go through a single connection behind a lock, each in an immediate
transaction, so two writers never race for the database lock and a failed
handler rolls back completely. Reads use a small pool of connections; in WAL
mode they never block the writer and always see the last committed state.

Every record of a user is read and written through `read_as(user_id)` and
`write_as(user_id)`, which refuse a statement that does not name `:user_id`, so a
query that forgets its owner fails in the first test instead of leaking another
user's data.

The database holds transcripts, context and second-factor secrets: its folder is
made private to the relay's user (0700) and the database with its side files 0600.
"""

import contextlib
import logging
import os
import sqlite3
import stat
import threading

from . import clock
from .migrations import MIGRATIONS

log = logging.getLogger("relay")

BUSY_TIMEOUT_MS = 10000
FOLDER_MODE = 0o700
FILE_MODE = 0o600
SIDE_FILES = ("-wal", "-shm", "-journal")


def _connect(path):
    conn = sqlite3.connect(path, isolation_level=None, check_same_thread=False, timeout=BUSY_TIMEOUT_MS / 1000)
    conn.row_factory = sqlite3.Row
    conn.execute(f"PRAGMA busy_timeout = {BUSY_TIMEOUT_MS}")
    conn.execute("PRAGMA foreign_keys = ON")
    conn.execute("PRAGMA synchronous = NORMAL")
    return conn


def make_private_folder(folder):
    """Creates the data folder as 0700, or narrows an existing one the relay's user owns.

    A shared folder (sticky, like /tmp) or one of another user is left as it is, with a
    warning, since changing it would break others.
    """
    os.makedirs(folder, mode=FOLDER_MODE, exist_ok=True)
    info = os.stat(folder)
    if stat.S_IMODE(info.st_mode) & 0o077 == 0:
        return
    if info.st_uid == os.geteuid() and not info.st_mode & stat.S_ISVTX:
        os.chmod(folder, FOLDER_MODE)
    else:
        log.warning("the data folder %s can be entered by other users; keep the database in a private folder",
                    folder)


def make_private_file(path):
    """Narrows an existing file to 0600; a missing one is left to be created under the umask."""
    try:
        info = os.stat(path)
    except FileNotFoundError:
        return
    if stat.S_IMODE(info.st_mode) != FILE_MODE and info.st_uid == os.geteuid():
        os.chmod(path, FILE_MODE)


class Scoped:
    """A connection as one user sees it: every statement must use the named parameter
    `:user_id`, which is always bound to that user."""

    __slots__ = ("_conn", "user_id")

    def __init__(self, conn, user_id):
        if not isinstance(user_id, str) or not user_id:
            raise ValueError("a scoped connection needs a user id")
        self._conn = conn
        self.user_id = user_id

    def _bound(self, sql, params):
        if ":user_id" not in sql:
            raise ValueError("a query of a user's records must name :user_id: " + sql[:80])
        bound = dict(params or {})
        bound["user_id"] = self.user_id
        return bound

    def execute(self, sql, params=None):
        return self._conn.execute(sql, self._bound(sql, params))

    def executemany(self, sql, rows):
        return self._conn.executemany(sql, [self._bound(sql, row) for row in rows])

    def define(self, sql):
        """A schema statement that a user's records need (such as a project's own index): it
        reads and writes no records and takes no parameters, so it names no owner."""
        if not sql.lstrip().upper().startswith("CREATE "):
            raise ValueError("only CREATE statements define a schema: " + sql[:80])
        return self._conn.execute(sql)

    @property
    def total_changes(self):
        return self._conn.total_changes


class Database:
    def __init__(self, path, migrations=MIGRATIONS, background_checkpoints=False):
        """`background_checkpoints`: commits never copy the log into the database themselves;
        the owner calls `checkpoint` from a worker instead, so that a commit made on the event
        loop never waits for a disk flush."""
        self.path = path
        # Committed transactions that changed rows; the owner checkpoints when this moves.
        self.commits = 0
        make_private_folder(os.path.dirname(os.path.abspath(path)))
        if not os.path.exists(path):
            os.close(os.open(path, os.O_WRONLY | os.O_CREAT, FILE_MODE))
        self._protect_files()
        self._write_lock = threading.RLock()
        self._writer = _connect(path)
        self._writer.execute("PRAGMA journal_mode = WAL")
        if background_checkpoints:
            self._writer.execute("PRAGMA wal_autocheckpoint = 0")
        # SQLite gives the side files the database's own mode; older ones may predate that.
        self._protect_files()
        self._pool = []
        self._pool_lock = threading.Lock()
        self.schema_version = self._migrate(migrations)

    def _protect_files(self):
        for suffix in ("",) + SIDE_FILES:
            make_private_file(self.path + suffix)

    def _migrate(self, migrations):
        """Applies, in order and each in its own transaction, the migrations not yet applied.

        A migration is SQL text, or a function given the writer connection for what SQL
        alone cannot do.
        """
        with self.write() as conn:
            conn.execute(
                "CREATE TABLE IF NOT EXISTS schema_migrations "
                "(version INTEGER PRIMARY KEY, name TEXT NOT NULL, applied_at TEXT NOT NULL)")
            done = {row[0] for row in conn.execute("SELECT version FROM schema_migrations")}
        for version, name, script in sorted(migrations, key=lambda entry: entry[0]):
            if version in done:
                continue
            with self.write() as conn:
                if callable(script):
                    script(conn)
                else:
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
            changes = conn.total_changes
            try:
                yield conn
            except BaseException:
                conn.execute("ROLLBACK")
                raise
            conn.execute("COMMIT")
            # Only a transaction that changed rows leaves anything in the write-ahead log to
            # checkpoint; the sweepers' transactions that find nothing to do are not counted.
            if conn.total_changes != changes:
                self.commits += 1

    def try_hold_writer(self):
        """Takes the writer if no other thread has it, without waiting; True if taken. The
        holder's own transactions then start at once; `release_writer` gives it back."""
        return self._write_lock.acquire(blocking=False)

    def release_writer(self):
        self._write_lock.release()

    def checkpoint(self):
        """Copies committed pages from the write-ahead log into the database (without waiting
        for readers), so the log stops growing; for a worker, never the event loop."""
        with self.read() as conn:
            conn.execute("PRAGMA wal_checkpoint(PASSIVE)")

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

    @contextlib.contextmanager
    def write_as(self, user_id):
        """A write transaction in which every statement is scoped to `user_id`."""
        with self.write() as conn:
            yield Scoped(conn, user_id)

    @contextlib.contextmanager
    def read_as(self, user_id):
        """A read in which every statement is scoped to `user_id`; the statements share one
        snapshot of the database."""
        with self.read() as conn:
            conn.execute("BEGIN")
            yield Scoped(conn, user_id)

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
