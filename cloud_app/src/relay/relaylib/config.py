"""Settings of the relay: launch variables, the relay.env file, and every fixed time.

The process environment wins over relay.env, so that the application's launch
variables always hold; relay.env carries what an administrator sets by hand
(mail delivery, the local user's address). Each fixed time is a named constant
here and can be overridden by an environment variable so tests run fast.
"""

import dataclasses
import os

DEFAULT_HOST = "127.0.0.1"
DEFAULT_PORT = 8787
# An agent run's output chunk can hold 2,000,000 characters; escaped as JSON that
# stays well under this limit.
MAX_BODY_BYTES = 16 * 1024 * 1024
# A quiet stream sends a comment this often so the client does not take it for dead
# (the client gives up on a request after 60 silent seconds).
KEEPALIVE_SECONDS = 15.0
# How often the relay looks for interrupts past their deadline.
EXPIRY_SWEEP_SECONDS = 1.0
# The longest a GET on an interrupt may be held open waiting for its verdict.
MAX_WAIT_SECONDS = 60.0
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


def read_env_file(path):
    """A missing or unreadable file gives no settings, never an error."""
    if not path:
        return {}
    try:
        with open(path, encoding="utf-8") as handle:
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
    code_ttl_seconds: float = CODE_TTL_SECONDS
    code_max_attempts: int = CODE_MAX_ATTEMPTS
    code_rate_limit_per_email: int = CODE_RATE_LIMIT_PER_EMAIL
    code_rate_limit_per_ip: int = CODE_RATE_LIMIT_PER_IP
    code_rate_window_seconds: float = CODE_RATE_WINDOW_SECONDS
    mfa_ticket_ttl_seconds: float = MFA_TICKET_TTL_SECONDS
    mfa_max_attempts: int = MFA_MAX_ATTEMPTS
    session_ttl_seconds: float = SESSION_TTL_SECONDS


# Environment variables that override a timing, with the field they set.
TIMING_VARIABLES = {
    "MERE_RELAY_KEEPALIVE_SECONDS": "keepalive_seconds",
    "MERE_RELAY_EXPIRY_SWEEP_SECONDS": "expiry_sweep_seconds",
    "MERE_RELAY_MAX_WAIT_SECONDS": "max_wait_seconds",
    "MERE_RELAY_CODE_TTL_SECONDS": "code_ttl_seconds",
    "MERE_RELAY_CODE_MAX_ATTEMPTS": "code_max_attempts",
    "MERE_RELAY_CODE_RATE_LIMIT_PER_EMAIL": "code_rate_limit_per_email",
    "MERE_RELAY_CODE_RATE_LIMIT_PER_IP": "code_rate_limit_per_ip",
    "MERE_RELAY_CODE_RATE_WINDOW_SECONDS": "code_rate_window_seconds",
    "MERE_RELAY_MFA_TICKET_TTL_SECONDS": "mfa_ticket_ttl_seconds",
    "MERE_RELAY_SESSION_TTL_SECONDS": "session_ttl_seconds",
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
    try:
        port = int(environ.get("MERE_RELAY_PORT", DEFAULT_PORT))
    except ValueError:
        port = DEFAULT_PORT
    return Settings(
        host=environ.get("MERE_RELAY_HOST") or DEFAULT_HOST,
        port=port,
        db_path=db_path,
        env_path=env_path,
        local_auth=environ.get("MERE_RELAY_LOCAL_AUTH") == "1",
        values=values,
        timings=timings_from(values.get),
    )
