"""Settings of the relay: launch variables, the relay.env file, and every fixed time.

The process environment wins over relay.env, so that the application's launch
variables always hold; relay.env carries what an administrator sets by hand
(mail delivery, the local user's address). Each fixed time is a named constant
here and can be overridden by an environment variable so tests run fast.
"""

import dataclasses
import os
import stat

DEFAULT_HOST = "127.0.0.1"
DEFAULT_PORT = 8787
# An agent run's output chunk can hold 2,000,000 characters; escaped as JSON that
# stays well under this limit.
MAX_BODY_BYTES = 16 * 1024 * 1024
# Paths that answer without a session (sign-in) read at most this much, since anyone
# who can reach the relay may send it.
SIGN_IN_BODY_BYTES = 16 * 1024
# The request line, each header line and the number of headers are capped, so a header
# block can never grow without end.
MAX_REQUEST_LINE_BYTES = 8190
MAX_HEADER_BYTES = 8190
MAX_HEADER_COUNT = 100
# A connection that is not in the middle of an answer is closed after this long: a half
# sent request, or a kept-alive connection with nothing more to ask.
IDLE_TIMEOUT_SECONDS = 10.0
# A request body must have arrived whole within this long of its headers.
BODY_TIMEOUT_SECONDS = 30.0
# After refusing a request whose body was left unread, the relay drains (and drops) the
# rest for at most this long, so the client sees the answer instead of a reset.
LINGER_SECONDS = 2.0
# Open connections are capped (and lowered to fit the open-file limit) so that a flood of
# connections can neither exhaust file descriptors nor keep "v1/health" from answering.
MAX_CONNECTIONS = 4096
# File descriptors kept free of connections: the database (three for each of up to one
# connection per worker), the log, mail, the listener, and calls to providers; under a
# low open-file limit, half of it.
RESERVED_FILES = 256
# Connections the kernel holds for the relay before it accepts them.
LISTEN_BACKLOG = 512
# Handlers are synchronous and run on this many threads beside the event loop; the
# database has one writer whatever this number is.
WORKER_THREADS = 16
# The router's ledger writes (a route's reservation, an attempt's settlement) queue on their
# own few threads: handed in order to one writer, they do not crowd the handlers' threads
# around the database's one write lock, which under load costs more than the writes.
LEDGER_THREADS = 2
# How long a stopping relay waits for answers in progress before it cuts them off.
SHUTDOWN_GRACE_SECONDS = 2.0
# Calls to model providers: the time to connect, the longest silence while reading an
# answer, and the longest call altogether.
UPSTREAM_CONNECT_SECONDS = 10.0
UPSTREAM_READ_SECONDS = 60.0
UPSTREAM_TOTAL_SECONDS = 600.0
# A completion (every attempt and fallback together) ends within this long: the application
# gives up on a request after 60 seconds.
COMPLETE_DEADLINE_SECONDS = 55.0
# The CLIs' status is read at most this often for routing decisions (it reads files).
CLI_STATUS_CACHE_SECONDS = 5.0
# Provider health, observed speed and tool-call quality are read from the ledger at most
# this often per user when routing (a preview or a completion).
ROUTER_SIGNALS_SECONDS = 1.0
# A gateway key's requests and tokens per minute are counted over a rolling window this long.
GATEWAY_RATE_WINDOW_SECONDS = 60.0
# At most this many provider connections open at once, over all callers.
UPSTREAM_CONNECTIONS = 100
# A quiet stream sends a comment this often so the client does not take it for dead
# (the client gives up on a request after 60 silent seconds).
KEEPALIVE_SECONDS = 15.0
# How often the relay looks for interrupts past their deadline.
EXPIRY_SWEEP_SECONDS = 1.0
# The longest a GET on an interrupt may be held open waiting for its verdict.
MAX_WAIT_SECONDS = 60.0
# An interrupt raised to be withdrawn when unpolled is withdrawn once nobody has polled it for this
# long: its hook was killed (a hook between two polls asks again within milliseconds).
UNPOLLED_WITHDRAW_SECONDS = 5.0
# Sign-in codes: six digits, valid ten minutes, five tries.
CODE_TTL_SECONDS = 600.0
CODE_MAX_ATTEMPTS = 5
# At most this many codes per e-mail address, and per client address, in the window.
CODE_RATE_LIMIT_PER_EMAIL = 5
CODE_RATE_LIMIT_PER_IP = 20
CODE_RATE_WINDOW_SECONDS = 600.0
# A second-factor ticket lives as long as a code and allows as many tries.
MFA_TICKET_TTL_SECONDS = 600.0
MFA_MAX_ATTEMPTS = 5
# Sessions last thirty days; the client signs in again after a 401 on "v1/me".
SESSION_TTL_SECONDS = 30 * 24 * 3600.0
# Provider health is the mean success of this many latest reports.
HEALTH_WINDOW = 20
# The address of the one user that a local (loopback) session signs in.
DEFAULT_LOCAL_EMAIL = "local@localhost"


def parse_env_file(text):
    """Reads KEY=VALUE lines; blank lines, comments and an `export ` prefix are allowed."""
    values = {}
    for raw in text.splitlines():
        line = raw.strip()
        if not line or line.startswith("#"):
            continue
        if line.startswith("export "):
            line = line[len("export "):].lstrip()
        key, sep, value = line.partition("=")
        key = key.strip()
        if not sep or not key:
            continue
        value = value.strip()
        if len(value) >= 2 and value[0] == value[-1] and value[0] in "'\"":
            value = value[1:-1]
        values[key] = value
    return values


class SettingsError(Exception):
    """Settings the relay refuses to start with; the message tells the person what to do."""


def check_env_file_owner(path, info, uid=None):
    """Refuses a settings file that someone other than its owner (or the owner if that is
    another user) could have written: it holds the mail password and decides where codes go."""
    uid = os.geteuid() if uid is None else uid
    if info.st_mode & (stat.S_IWGRP | stat.S_IWOTH):
        raise SettingsError(f"{path} can be written by other users, so the relay will not read it; "
                            f"make it private with: chmod 600 {path}")
    if info.st_uid not in (uid, 0):
        raise SettingsError(f"{path} belongs to another user, so the relay will not read it")


def read_env_file(path):
    """A missing or unreadable file gives no settings; one that others can write is refused."""
    if not path:
        return {}
    try:
        with open(path, encoding="utf-8") as handle:
            check_env_file_owner(path, os.fstat(handle.fileno()))
            return parse_env_file(handle.read())
    except (OSError, UnicodeDecodeError):
        return {}


def default_data_dir(environ):
    home = environ.get("HOME") or os.path.expanduser("~")
    base = environ.get("XDG_DATA_HOME") or os.path.join(home, ".local", "share")
    return os.path.join(base, "Quillmere")


@dataclasses.dataclass
class Timings:
    """Every fixed time and limit the relay acts on, injectable for tests."""
    keepalive_seconds: float = KEEPALIVE_SECONDS
    expiry_sweep_seconds: float = EXPIRY_SWEEP_SECONDS
    max_wait_seconds: float = MAX_WAIT_SECONDS
    unpolled_withdraw_seconds: float = UNPOLLED_WITHDRAW_SECONDS
    code_ttl_seconds: float = CODE_TTL_SECONDS
    code_max_attempts: int = CODE_MAX_ATTEMPTS
    code_rate_limit_per_email: int = CODE_RATE_LIMIT_PER_EMAIL
    code_rate_limit_per_ip: int = CODE_RATE_LIMIT_PER_IP
    code_rate_window_seconds: float = CODE_RATE_WINDOW_SECONDS
    mfa_ticket_ttl_seconds: float = MFA_TICKET_TTL_SECONDS
    mfa_max_attempts: int = MFA_MAX_ATTEMPTS
    session_ttl_seconds: float = SESSION_TTL_SECONDS
    idle_timeout_seconds: float = IDLE_TIMEOUT_SECONDS
    body_timeout_seconds: float = BODY_TIMEOUT_SECONDS
    linger_seconds: float = LINGER_SECONDS
    max_connections: int = MAX_CONNECTIONS
    shutdown_grace_seconds: float = SHUTDOWN_GRACE_SECONDS
    upstream_connect_seconds: float = UPSTREAM_CONNECT_SECONDS
    upstream_read_seconds: float = UPSTREAM_READ_SECONDS
    upstream_total_seconds: float = UPSTREAM_TOTAL_SECONDS
    complete_deadline_seconds: float = COMPLETE_DEADLINE_SECONDS
    cli_status_cache_seconds: float = CLI_STATUS_CACHE_SECONDS
    router_signals_seconds: float = ROUTER_SIGNALS_SECONDS
    gateway_rate_window_seconds: float = GATEWAY_RATE_WINDOW_SECONDS


# Environment variables that override a timing, with the field they set.
TIMING_VARIABLES = {
    "MERE_RELAY_KEEPALIVE_SECONDS": "keepalive_seconds",
    "MERE_RELAY_EXPIRY_SWEEP_SECONDS": "expiry_sweep_seconds",
    "MERE_RELAY_MAX_WAIT_SECONDS": "max_wait_seconds",
    "MERE_RELAY_UNPOLLED_SECONDS": "unpolled_withdraw_seconds",
    "MERE_RELAY_CODE_TTL_SECONDS": "code_ttl_seconds",
    "MERE_RELAY_CODE_MAX_ATTEMPTS": "code_max_attempts",
    "MERE_RELAY_CODE_RATE_LIMIT_PER_EMAIL": "code_rate_limit_per_email",
    "MERE_RELAY_CODE_RATE_LIMIT_PER_IP": "code_rate_limit_per_ip",
    "MERE_RELAY_CODE_RATE_WINDOW_SECONDS": "code_rate_window_seconds",
    "MERE_RELAY_MFA_TICKET_TTL_SECONDS": "mfa_ticket_ttl_seconds",
    "MERE_RELAY_SESSION_TTL_SECONDS": "session_ttl_seconds",
    "MERE_RELAY_IDLE_TIMEOUT_SECONDS": "idle_timeout_seconds",
    "MERE_RELAY_BODY_TIMEOUT_SECONDS": "body_timeout_seconds",
    "MERE_RELAY_LINGER_SECONDS": "linger_seconds",
    "MERE_RELAY_MAX_CONNECTIONS": "max_connections",
    "MERE_RELAY_SHUTDOWN_GRACE_SECONDS": "shutdown_grace_seconds",
    "MERE_RELAY_UPSTREAM_CONNECT_SECONDS": "upstream_connect_seconds",
    "MERE_RELAY_UPSTREAM_READ_SECONDS": "upstream_read_seconds",
    "MERE_RELAY_UPSTREAM_TOTAL_SECONDS": "upstream_total_seconds",
    "MERE_RELAY_COMPLETE_DEADLINE_SECONDS": "complete_deadline_seconds",
    "MERE_RELAY_CLI_STATUS_CACHE_SECONDS": "cli_status_cache_seconds",
    "MERE_RELAY_ROUTER_SIGNALS_SECONDS": "router_signals_seconds",
    "MERE_RELAY_GATEWAY_RATE_WINDOW_SECONDS": "gateway_rate_window_seconds",
}


def timings_from(lookup):
    timings = Timings()
    for variable, field in TIMING_VARIABLES.items():
        text = lookup(variable)
        if not text:
            continue
        kind = type(getattr(timings, field))
        try:
            value = kind(float(text)) if kind is int else float(text)
        except ValueError:
            continue
        if value >= 0:
            setattr(timings, field, value)
    return timings


@dataclasses.dataclass
class Settings:
    host: str
    port: int
    db_path: str
    env_path: str
    local_auth: bool
    values: dict
    timings: Timings
    # Host names (optionally with a port) a hosted relay is reached by, besides loopback.
    public_hosts: tuple = ()

    def get(self, key, default=""):
        """A setting from the environment, then relay.env."""
        return self.values.get(key, default)

    @property
    def outbox_path(self):
        return os.path.join(os.path.dirname(os.path.abspath(self.db_path)), "relay-outbox.txt")

    @property
    def local_email(self):
        return self.get("MERE_RELAY_LOCAL_EMAIL") or DEFAULT_LOCAL_EMAIL


def load_settings(environ=None):
    environ = dict(os.environ if environ is None else environ)
    data_dir = default_data_dir(environ)
    db_path = environ.get("MERE_RELAY_DB_PATH") or os.path.join(data_dir, "relay.db")
    env_path = environ.get("MERE_RELAY_ENV_PATH") or os.path.join(os.path.dirname(os.path.abspath(db_path)), "relay.env")
    values = read_env_file(env_path)
    values.update(environ)
    port_text = environ.get("MERE_RELAY_PORT", "").strip()
    port = int(port_text) if port_text.isascii() and port_text.isdigit() and int(port_text) <= 65535 else DEFAULT_PORT
    return Settings(
        host=environ.get("MERE_RELAY_HOST") or DEFAULT_HOST,
        port=port,
        db_path=db_path,
        env_path=env_path,
        local_auth=environ.get("MERE_RELAY_LOCAL_AUTH") == "1",
        values=values,
        timings=timings_from(values.get),
        public_hosts=parse_public_hosts(values.get("MERE_RELAY_PUBLIC_HOST", "")),
    )


def parse_public_hosts(text):
    """The comma-separated names of MERE_RELAY_PUBLIC_HOST, lower-case, blanks dropped."""
    return tuple(name.strip().lower() for name in text.split(",") if name.strip())
