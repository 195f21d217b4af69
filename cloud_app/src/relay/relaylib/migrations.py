"""Versioned schema of the relay's database.

Each entry is (version, name, script). A migration, once released, is never edited:
a change of schema is a new entry at the end, with the next version number. Areas
that arrive later (routing, presets, improve...) add their tables the same way.
"""

INITIAL = """
CREATE TABLE users (
    id TEXT PRIMARY KEY,
    email TEXT NOT NULL UNIQUE,
    created_at TEXT NOT NULL,
    totp_secret TEXT,
    totp_last_step INTEGER
);

-- Only the SHA-256 of a session token is kept, never the token.
CREATE TABLE sessions (
    token_hash TEXT PRIMARY KEY,
    user_id TEXT NOT NULL REFERENCES users(id) ON DELETE CASCADE,
    created_at REAL NOT NULL,
    expires_at REAL NOT NULL
);

CREATE TABLE login_codes (
    email TEXT PRIMARY KEY,
    code_hash TEXT NOT NULL,
    expires_at REAL NOT NULL,
    attempts INTEGER NOT NULL DEFAULT 0
);

CREATE TABLE mfa_tickets (
    ticket_hash TEXT PRIMARY KEY,
    user_id TEXT NOT NULL REFERENCES users(id) ON DELETE CASCADE,
    expires_at REAL NOT NULL,
    attempts INTEGER NOT NULL DEFAULT 0
);

CREATE TABLE recovery_codes (
    user_id TEXT NOT NULL REFERENCES users(id) ON DELETE CASCADE,
    code_hash TEXT NOT NULL,
    used_at REAL,
    PRIMARY KEY (user_id, code_hash)
);

-- payload holds the interrupt's wire fields; status is open, decided or expired.
CREATE TABLE interrupts (
    id TEXT PRIMARY KEY,
    status TEXT NOT NULL,
    payload TEXT NOT NULL,
    raised_at REAL NOT NULL,
    expires_at REAL,
    verdict TEXT,
    resolved_at REAL
);
CREATE INDEX interrupts_by_status ON interrupts (status, raised_at);

CREATE TABLE runs (
    run_id TEXT PRIMARY KEY,
    name TEXT NOT NULL,
    state TEXT NOT NULL,
    last_type TEXT NOT NULL,
    tokens INTEGER NOT NULL DEFAULT 0,
    cost_usd REAL NOT NULL DEFAULT 0,
    first_seen REAL NOT NULL,
    last_seen REAL NOT NULL
);
CREATE INDEX runs_by_state ON runs (state);

CREATE TABLE run_events (
    id INTEGER PRIMARY KEY AUTOINCREMENT,
    run_id TEXT NOT NULL,
    name TEXT NOT NULL,
    type TEXT NOT NULL,
    tokens INTEGER NOT NULL,
    cost_usd REAL NOT NULL,
    detail TEXT NOT NULL,
    created_at REAL NOT NULL
);
CREATE INDEX run_events_by_run ON run_events (run_id, id);

CREATE TABLE provider_health (
    id INTEGER PRIMARY KEY AUTOINCREMENT,
    provider TEXT NOT NULL,
    success INTEGER NOT NULL,
    latency_ms INTEGER NOT NULL,
    created_at REAL NOT NULL
);
CREATE INDEX provider_health_by_provider ON provider_health (provider, id);

CREATE TABLE terminal_sessions (
    id TEXT PRIMARY KEY,
    user_id TEXT,
    source TEXT NOT NULL,
    started_at REAL NOT NULL,
    ended_at REAL
);
CREATE INDEX terminal_sessions_by_start ON terminal_sessions (started_at);

-- The pair (session, seq) is the key, so a repeated batch is stored once.
CREATE TABLE terminal_chunks (
    session_id TEXT NOT NULL REFERENCES terminal_sessions(id) ON DELETE CASCADE,
    seq INTEGER NOT NULL,
    stream TEXT NOT NULL,
    data TEXT NOT NULL,
    ts TEXT NOT NULL,
    PRIMARY KEY (session_id, seq)
);

CREATE TABLE projects (
    id TEXT PRIMARY KEY,
    name TEXT NOT NULL,
    root_path TEXT NOT NULL,
    created_at REAL NOT NULL,
    updated_at REAL NOT NULL
);
CREATE UNIQUE INDEX projects_by_root ON projects (root_path) WHERE root_path != '';

CREATE TABLE context_items (
    id TEXT PRIMARY KEY,
    project_id TEXT NOT NULL REFERENCES projects(id) ON DELETE CASCADE,
    title TEXT NOT NULL,
    content TEXT NOT NULL,
    source TEXT NOT NULL,
    created_at REAL NOT NULL,
    updated_at REAL NOT NULL
);
CREATE INDEX context_items_by_project ON context_items (project_id, updated_at);
"""

MIGRATIONS = [
    (1, "initial schema", INITIAL),
]
