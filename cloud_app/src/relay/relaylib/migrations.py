"""Versioned schema of the relay's database.

Each entry is (version, name, script), the script being SQL text or a function of
the writer connection. A migration, once released, is never edited: a change of
schema is a new entry at the end, with the next version number. Areas that arrive
later (routing, presets, improve...) add their tables the same way, each table with
a `user_id` column that names its owner.
"""

import json
import re

from . import contextindex

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

# Every record gets an owner. Records written before there were owners belong to the
# first user that signed in: the local user on the relay the application starts, since
# nothing could be written without a session. Run ids and project folders become unique
# per user, not across the relay.
OWNERS = """
ALTER TABLE interrupts ADD COLUMN user_id TEXT REFERENCES users(id) ON DELETE CASCADE;
ALTER TABLE run_events ADD COLUMN user_id TEXT REFERENCES users(id) ON DELETE CASCADE;
ALTER TABLE provider_health ADD COLUMN user_id TEXT REFERENCES users(id) ON DELETE CASCADE;
ALTER TABLE projects ADD COLUMN user_id TEXT REFERENCES users(id) ON DELETE CASCADE;
ALTER TABLE context_items ADD COLUMN user_id TEXT REFERENCES users(id) ON DELETE CASCADE;

CREATE TEMP TABLE first_user AS SELECT id FROM users ORDER BY created_at, rowid LIMIT 1;
UPDATE interrupts SET user_id = (SELECT id FROM first_user);
UPDATE run_events SET user_id = (SELECT id FROM first_user);
UPDATE provider_health SET user_id = (SELECT id FROM first_user);
UPDATE projects SET user_id = (SELECT id FROM first_user);
UPDATE context_items SET user_id = (SELECT user_id FROM projects WHERE projects.id = context_items.project_id);
UPDATE terminal_sessions SET user_id = (SELECT id FROM first_user) WHERE user_id IS NULL;

CREATE TABLE runs_owned (
    user_id TEXT NOT NULL REFERENCES users(id) ON DELETE CASCADE,
    run_id TEXT NOT NULL,
    name TEXT NOT NULL,
    state TEXT NOT NULL,
    last_type TEXT NOT NULL,
    tokens INTEGER NOT NULL DEFAULT 0,
    cost_usd REAL NOT NULL DEFAULT 0,
    first_seen REAL NOT NULL,
    last_seen REAL NOT NULL,
    PRIMARY KEY (user_id, run_id)
);
INSERT INTO runs_owned SELECT (SELECT id FROM first_user), run_id, name, state, last_type, tokens, cost_usd,
    first_seen, last_seen FROM runs WHERE (SELECT id FROM first_user) IS NOT NULL;
DROP TABLE runs;
ALTER TABLE runs_owned RENAME TO runs;
CREATE INDEX runs_by_state ON runs (user_id, state);
DROP TABLE first_user;

DROP INDEX interrupts_by_status;
CREATE INDEX interrupts_by_status ON interrupts (user_id, status, raised_at);
CREATE INDEX interrupts_open_deadlines ON interrupts (expires_at) WHERE status = 'open';
DROP INDEX run_events_by_run;
CREATE INDEX run_events_by_run ON run_events (user_id, run_id, id);
DROP INDEX provider_health_by_provider;
CREATE INDEX provider_health_by_provider ON provider_health (user_id, provider, id);
DROP INDEX terminal_sessions_by_start;
CREATE INDEX terminal_sessions_by_start ON terminal_sessions (user_id, started_at);
DROP INDEX projects_by_root;
CREATE UNIQUE INDEX projects_by_root ON projects (user_id, root_path) WHERE root_path != '';
CREATE INDEX projects_by_user ON projects (user_id, name);
DROP INDEX context_items_by_project;
CREATE INDEX context_items_by_project ON context_items (user_id, project_id, updated_at);
"""

_LONE_SURROGATE = re.compile("[\ud800-\udfff]")


def _without_lone_surrogates(value):
    if isinstance(value, str):
        return _LONE_SURROGATE.sub("\ufffd", value)
    if isinstance(value, list):
        return [_without_lone_surrogates(item) for item in value]
    if isinstance(value, dict):
        return {_without_lone_surrogates(key): _without_lone_surrogates(item) for key, item in value.items()}
    return value


def repair_stored_text(conn):
    """Replaces lone surrogates that earlier versions let into interrupts with U+FFFD.

    Such a text was stored as a JSON escape and then went out in every snapshot, which a
    strict client refuses whole.
    """
    for column in ("payload", "verdict"):
        rows = conn.execute(f"SELECT id, {column} FROM interrupts WHERE {column} LIKE '%\\u%'").fetchall()
        for row in rows:
            value = json.loads(row[1])
            repaired = _without_lone_surrogates(value)
            if repaired != value:
                conn.execute(f"UPDATE interrupts SET {column} = ? WHERE id = ?",
                             (json.dumps(repaired, separators=(",", ":")), row[0]))


# raised_by is the SHA-256 of the session token that raised the interrupt (only that session may
# withdraw it); polled marks an interrupt to withdraw once its raiser stops polling it.
WITHDRAWALS = """
ALTER TABLE interrupts ADD COLUMN raised_by TEXT;
ALTER TABLE interrupts ADD COLUMN polled INTEGER NOT NULL DEFAULT 0;
CREATE INDEX interrupts_open_polled ON interrupts (user_id) WHERE status = 'open' AND polled = 1;
"""


ROUTER = """
CREATE TABLE router_policy (
    user_id TEXT PRIMARY KEY REFERENCES users(id) ON DELETE CASCADE,
    strategy TEXT NOT NULL,
    max_cost_per_request REAL,
    fallback_enabled INTEGER NOT NULL,
    max_fallbacks INTEGER NOT NULL,
    allowed_providers TEXT NOT NULL,
    updated_at REAL NOT NULL
);
CREATE TABLE router_budgets (
    user_id TEXT NOT NULL REFERENCES users(id) ON DELETE CASCADE,
    project_id TEXT NOT NULL,
    period TEXT NOT NULL,
    limit_usd REAL NOT NULL,
    updated_at REAL NOT NULL,
    PRIMARY KEY (user_id, project_id, period)
);
CREATE TABLE router_decisions (
    user_id TEXT NOT NULL REFERENCES users(id) ON DELETE CASCADE,
    id TEXT NOT NULL,
    source TEXT NOT NULL,
    task TEXT NOT NULL,
    decision TEXT NOT NULL,
    created_at REAL NOT NULL,
    PRIMARY KEY (user_id, id)
);
CREATE INDEX router_decisions_by_time ON router_decisions (user_id, created_at);
CREATE TABLE router_generations (
    user_id TEXT NOT NULL REFERENCES users(id) ON DELETE CASCADE,
    id TEXT NOT NULL,
    project_id TEXT,
    route_decision_id TEXT NOT NULL,
    task TEXT NOT NULL,
    model_id TEXT,
    provider TEXT,
    service_tier TEXT NOT NULL,
    status TEXT NOT NULL,
    input_tokens INTEGER NOT NULL,
    output_tokens INTEGER NOT NULL,
    cost_usd REAL NOT NULL,
    latency_ms INTEGER NOT NULL,
    fell_back INTEGER NOT NULL,
    cache_hit INTEGER NOT NULL,
    zero_completion_insured INTEGER NOT NULL,
    error_code TEXT,
    request_id TEXT NOT NULL,
    tools_declared INTEGER NOT NULL,
    created_at REAL NOT NULL,
    PRIMARY KEY (user_id, id)
);
CREATE INDEX router_generations_by_time ON router_generations (user_id, created_at);
CREATE TABLE router_attempts (
    id INTEGER PRIMARY KEY,
    user_id TEXT NOT NULL REFERENCES users(id) ON DELETE CASCADE,
    generation_id TEXT NOT NULL,
    seq INTEGER NOT NULL,
    provider TEXT NOT NULL,
    model_id TEXT NOT NULL,
    project_id TEXT,
    status TEXT NOT NULL,
    error_code TEXT,
    latency_ms INTEGER NOT NULL,
    upstream_id TEXT,
    input_tokens INTEGER NOT NULL,
    output_tokens INTEGER NOT NULL,
    cost_usd REAL NOT NULL,
    throughput_tps REAL,
    tool_valid INTEGER,
    tool_error TEXT,
    created_at REAL NOT NULL
);
CREATE INDEX router_attempts_by_generation ON router_attempts (user_id, generation_id, seq);
CREATE INDEX router_attempts_by_time ON router_attempts (user_id, created_at);
CREATE INDEX router_attempts_by_model ON router_attempts (user_id, model_id, created_at);
CREATE TABLE router_reservations (
    id INTEGER PRIMARY KEY,
    user_id TEXT NOT NULL REFERENCES users(id) ON DELETE CASCADE,
    project_id TEXT,
    amount_usd REAL NOT NULL,
    created_at REAL NOT NULL
);
CREATE INDEX router_reservations_by_user ON router_reservations (user_id);
"""

GATEWAY = """
CREATE TABLE gateway_keys (
    user_id TEXT NOT NULL REFERENCES users(id) ON DELETE CASCADE,
    id TEXT NOT NULL,
    name TEXT NOT NULL,
    prefix TEXT NOT NULL,
    secret_hash TEXT NOT NULL UNIQUE,
    limit_usd REAL,
    reset_interval TEXT NOT NULL,
    requests_per_minute INTEGER,
    tokens_per_minute INTEGER,
    allowed_models TEXT NOT NULL,
    allowed_providers TEXT NOT NULL,
    content_filters TEXT NOT NULL,
    enforce_zdr TEXT NOT NULL,
    block_events INTEGER NOT NULL DEFAULT 0,
    redact_events INTEGER NOT NULL DEFAULT 0,
    status TEXT NOT NULL,
    created_at REAL NOT NULL,
    expires_at REAL,
    last_used_at REAL,
    revoked_at REAL,
    PRIMARY KEY (user_id, id)
);
CREATE INDEX gateway_keys_by_time ON gateway_keys (user_id, created_at);
ALTER TABLE router_generations ADD COLUMN gateway_key_id TEXT;
CREATE INDEX router_generations_by_key ON router_generations (user_id, gateway_key_id, created_at);
ALTER TABLE router_reservations ADD COLUMN gateway_key_id TEXT;
"""


CLASSIFIERS = """
CREATE TABLE classifiers (
    user_id TEXT NOT NULL REFERENCES users(id) ON DELETE CASCADE,
    id TEXT NOT NULL,
    name TEXT NOT NULL,
    model TEXT NOT NULL,
    sampling_rate REAL NOT NULL,
    prompt TEXT NOT NULL,
    dimensions TEXT NOT NULL,
    active INTEGER NOT NULL,
    created_at REAL NOT NULL,
    updated_at REAL NOT NULL,
    PRIMARY KEY (user_id, id)
);
CREATE INDEX classifiers_active ON classifiers (active, user_id);
CREATE TABLE classification_activity (
    user_id TEXT NOT NULL REFERENCES users(id) ON DELETE CASCADE,
    id TEXT NOT NULL,
    generation_id TEXT NOT NULL,
    classifier_id TEXT NOT NULL,
    classifier_name TEXT NOT NULL,
    status TEXT NOT NULL,
    tags TEXT NOT NULL,
    error_code TEXT,
    model_id TEXT,
    provider TEXT,
    created_at REAL NOT NULL,
    PRIMARY KEY (user_id, id)
);
CREATE INDEX classification_activity_by_time ON classification_activity (user_id, created_at);
CREATE INDEX classification_activity_by_classifier ON classification_activity (user_id, classifier_id, status);
CREATE INDEX classification_activity_pending ON classification_activity (status);
"""

INTEGRATIONS = """
CREATE TABLE integration_links (
    id INTEGER PRIMARY KEY,
    user_id TEXT NOT NULL REFERENCES users(id) ON DELETE CASCADE,
    toolkit TEXT NOT NULL,
    connected_account_id TEXT,
    created_at REAL NOT NULL
);
CREATE INDEX integration_links_by_time ON integration_links (user_id, created_at);
CREATE TABLE integration_statuses (
    user_id TEXT NOT NULL REFERENCES users(id) ON DELETE CASCADE,
    toolkit TEXT NOT NULL,
    status TEXT NOT NULL,
    seen_at REAL NOT NULL,
    PRIMARY KEY (user_id, toolkit)
);
"""

IMPROVE = """
CREATE TABLE improve_sources (
    user_id TEXT NOT NULL REFERENCES users(id) ON DELETE CASCADE,
    source TEXT NOT NULL,
    agent TEXT NOT NULL,
    session_id TEXT NOT NULL,
    size INTEGER NOT NULL,
    mtime REAL NOT NULL,
    offset INTEGER NOT NULL,
    state TEXT NOT NULL,
    read_at REAL NOT NULL,
    PRIMARY KEY (user_id, source)
);
CREATE TABLE improve_signals (
    id INTEGER PRIMARY KEY,
    user_id TEXT NOT NULL REFERENCES users(id) ON DELETE CASCADE,
    session_key TEXT NOT NULL,
    session_id TEXT NOT NULL,
    turn_index INTEGER NOT NULL,
    agent TEXT NOT NULL,
    kinds TEXT NOT NULL,
    excerpt TEXT NOT NULL,
    terms TEXT NOT NULL,
    observed_at REAL NOT NULL
);
CREATE INDEX improve_signals_by_time ON improve_signals (user_id, observed_at);
CREATE TABLE improve_suggestions (
    user_id TEXT NOT NULL REFERENCES users(id) ON DELETE CASCADE,
    id TEXT NOT NULL,
    signature TEXT NOT NULL,
    kind TEXT NOT NULL,
    artifact TEXT NOT NULL,
    title TEXT NOT NULL,
    detail TEXT NOT NULL,
    body TEXT NOT NULL,
    slug TEXT NOT NULL,
    terms TEXT NOT NULL,
    patterns TEXT NOT NULL,
    agents TEXT NOT NULL,
    targets TEXT NOT NULL,
    section TEXT NOT NULL,
    evidence TEXT NOT NULL,
    turn_count INTEGER NOT NULL,
    session_count INTEGER NOT NULL,
    status TEXT NOT NULL,
    snoozed_until REAL,
    reopened_at REAL,
    created_at REAL NOT NULL,
    updated_at REAL NOT NULL,
    last_seen_at REAL NOT NULL,
    PRIMARY KEY (user_id, id)
);
CREATE TABLE improve_applications (
    user_id TEXT NOT NULL REFERENCES users(id) ON DELETE CASCADE,
    id TEXT NOT NULL,
    suggestion_id TEXT NOT NULL,
    agent TEXT NOT NULL,
    artifact TEXT NOT NULL,
    path TEXT NOT NULL,
    resolved_path TEXT NOT NULL,
    inserted_text TEXT NOT NULL,
    content_sha256 TEXT NOT NULL,
    created_file INTEGER NOT NULL,
    applied_at REAL NOT NULL,
    undone_at REAL,
    PRIMARY KEY (user_id, id)
);
CREATE INDEX improve_applications_by_suggestion ON improve_applications (user_id, suggestion_id);
CREATE TABLE improve_settings (
    user_id TEXT PRIMARY KEY REFERENCES users(id) ON DELETE CASCADE,
    automatic INTEGER NOT NULL,
    cadence_hours INTEGER NOT NULL,
    last_run_at REAL,
    next_run_at REAL,
    turns_observed INTEGER NOT NULL,
    signals_found INTEGER NOT NULL
);
"""

# Context items get a stable integer key (a rowid alias, which VACUUM keeps) so that a full-text
# index can point at them without storing the text twice. Triggers keep the index in step with
# every insert, update and delete, including the deletes of a project's cascade. Words are
# folded to their stems, so "tests" finds "testing". The owner and the project are indexed too,
# so that a search names them in its match and scores only that project's items.
CONTEXT_SEARCH = """
CREATE TABLE context_items_keyed (
    seq INTEGER PRIMARY KEY,
    id TEXT NOT NULL UNIQUE,
    user_id TEXT REFERENCES users(id) ON DELETE CASCADE,
    project_id TEXT NOT NULL REFERENCES projects(id) ON DELETE CASCADE,
    title TEXT NOT NULL,
    content TEXT NOT NULL,
    source TEXT NOT NULL,
    created_at REAL NOT NULL,
    updated_at REAL NOT NULL
);
INSERT INTO context_items_keyed (id, user_id, project_id, title, content, source, created_at, updated_at)
    SELECT id, user_id, project_id, title, content, source, created_at, updated_at FROM context_items
    ORDER BY rowid;
DROP TABLE context_items;
ALTER TABLE context_items_keyed RENAME TO context_items;
CREATE INDEX context_items_by_project ON context_items (user_id, project_id, updated_at);
CREATE INDEX context_items_by_source ON context_items (user_id, project_id, source);

CREATE VIRTUAL TABLE context_search USING fts5(
    title, content, project_id, user_id, content='context_items', content_rowid='seq',
    tokenize='porter unicode61 remove_diacritics 2');
CREATE TRIGGER context_search_insert AFTER INSERT ON context_items BEGIN
    INSERT INTO context_search (rowid, title, content, project_id, user_id)
        VALUES (new.seq, new.title, new.content, new.project_id, new.user_id);
END;
CREATE TRIGGER context_search_delete AFTER DELETE ON context_items BEGIN
    INSERT INTO context_search (context_search, rowid, title, content, project_id, user_id)
        VALUES ('delete', old.seq, old.title, old.content, old.project_id, old.user_id);
END;
CREATE TRIGGER context_search_update AFTER UPDATE OF title, content, project_id, user_id ON context_items BEGIN
    INSERT INTO context_search (context_search, rowid, title, content, project_id, user_id)
        VALUES ('delete', old.seq, old.title, old.content, old.project_id, old.user_id);
    INSERT INTO context_search (rowid, title, content, project_id, user_id)
        VALUES (new.seq, new.title, new.content, new.project_id, new.user_id);
END;
INSERT INTO context_search (context_search) VALUES ('rebuild');
"""

# A preset's versions are never changed once written; the preset points at its designated one.
PRESETS = """
CREATE TABLE presets (
    user_id TEXT NOT NULL REFERENCES users(id) ON DELETE CASCADE,
    id TEXT NOT NULL,
    slug TEXT NOT NULL,
    name TEXT NOT NULL,
    status TEXT NOT NULL,
    designated_version_id TEXT NOT NULL,
    created_at REAL NOT NULL,
    updated_at REAL NOT NULL,
    PRIMARY KEY (user_id, id),
    UNIQUE (user_id, slug)
);
CREATE TABLE preset_versions (
    user_id TEXT NOT NULL REFERENCES users(id) ON DELETE CASCADE,
    id TEXT NOT NULL,
    preset_id TEXT NOT NULL,
    version INTEGER NOT NULL,
    system_prompt TEXT NOT NULL,
    config TEXT NOT NULL,
    created_at REAL NOT NULL,
    updated_at REAL NOT NULL,
    PRIMARY KEY (user_id, id),
    UNIQUE (user_id, preset_id, version)
);
"""


def context_index_per_project(conn):
    """Moves context items from the one index of every project into each project's own, so
    that a project's ranking counts its own items only."""
    contextindex.build_all(conn)
    for trigger in ("context_search_insert", "context_search_delete", "context_search_update"):
        conn.execute(f"DROP TRIGGER IF EXISTS {trigger}")
    conn.execute("DROP TABLE IF EXISTS context_search")


MIGRATIONS = [
    (1, "initial schema", INITIAL),
    (2, "every record belongs to a user", OWNERS),
    (3, "no lone surrogates in stored interrupts", repair_stored_text),
    (4, "interrupts withdrawn by their raiser", WITHDRAWALS),
    (5, "model router: policy, budgets, decisions, generations, attempts, reservations", ROUTER),
    (6, "gateway keys and their guardrails", GATEWAY),
    (7, "full-text index of context items", CONTEXT_SEARCH),
    (8, "versioned agent presets", PRESETS),
    (9, "usage classifiers and their activity", CLASSIFIERS),
    (10, "connected apps: links started and statuses seen", INTEGRATIONS),
    (11, "improve: sources read, signals, suggestions, applications, settings", IMPROVE),
    (12, "each project's own full-text index of its context items", context_index_per_project),
]
