"""Gateway keys: the credentials other programs on the machine use to call the gateway,
each with its own limits and guardrails.

A key's secret is shown once, in the answer that creates it. The database keeps only its
SHA-256 (the secret is 256 random bits, so a fast hash is enough: nothing can be guessed
from it) and its first characters, which the list shows so a person can tell keys apart.
Revoking is immediate: the next request with the key finds it revoked.
"""

import hashlib
import json
import secrets

from .. import clock
from ..errors import ApiError, bad_request, not_found
from ..jsonio import Body
from . import ledger
from .guardrails import ZDR_GROUPS, UnsafePattern, check_pattern

SECRET_MARK = "qmk_"
SECRET_BYTES = 32
PREFIX_LENGTH = len(SECRET_MARK) + 8
MAX_NAME = 200
MAX_LIST = 100
MAX_FILTERS = 50
MAX_REQUESTS_PER_MINUTE = 1_000_000
MAX_TOKENS_PER_MINUTE = 1_000_000_000
MAX_EXPIRY_DAYS = 3650
SECONDS_PER_DAY = 86400
FILTER_ACTIONS = ("block", "redact")
# `last_used_at` is shown in whole seconds, so it is written at most once a second per key:
# a busy key would otherwise add a database write to every request.
LAST_USED_RESOLUTION_SECONDS = 1.0
ACTIVE, REVOKED, EXPIRED = "active", "revoked", "expired"


def secret_hash(secret):
    return hashlib.sha256(secret.encode("utf-8")).hexdigest()


def new_secret():
    return SECRET_MARK + secrets.token_urlsafe(SECRET_BYTES)


def _names(body, name):
    values = body.string_list(name)
    if len(values) > MAX_LIST or any(not value.strip() or len(value) > MAX_NAME for value in values):
        raise bad_request(f"{name} must hold at most {MAX_LIST} non-empty names of at most {MAX_NAME} characters")
    return [value.strip() for value in values]


def _filters(body):
    raw = body.array("content_filters")
    if len(raw) > MAX_FILTERS:
        raise bad_request(f"content_filters must hold at most {MAX_FILTERS} filters")
    filters, seen = [], set()
    for index, item in enumerate(raw):
        if not isinstance(item, dict):
            raise bad_request(f"content_filters[{index}] must be an object")
        one = Body(item, f"content_filters[{index}].")
        name = one.string("name", non_empty=True, max_length=MAX_NAME).strip()
        pattern = one.string("pattern", non_empty=True)
        action = one.one_of("action", FILTER_ACTIONS)
        if name.lower() in seen:
            raise bad_request(f"content_filters[{index}].name repeats the name of another filter")
        seen.add(name.lower())
        try:
            check_pattern(pattern)
        except UnsafePattern as error:
            # The message names the filter, never the pattern: it may hold what it guards.
            raise bad_request(f"content filter \"{name}\" is refused: its pattern {error}") from None
        filters.append({"name": name, "pattern": pattern, "action": action})
    return filters


def parse_create(body):
    """The key a create request describes, checked field by field in the order sent."""
    name = body.string("name", non_empty=True, max_length=MAX_NAME).strip()
    limit = body.number("limit_usd", required=False, minimum=0)
    if limit is not None and limit <= 0:
        raise bad_request("limit_usd must be above 0")
    return {
        "name": name, "limit_usd": limit,
        "reset_interval": body.one_of("reset_interval", ledger.PERIODS),
        "requests_per_minute": body.integer("requests_per_minute", required=False, minimum=1,
                                            maximum=MAX_REQUESTS_PER_MINUTE),
        "tokens_per_minute": body.integer("tokens_per_minute", required=False, minimum=1,
                                          maximum=MAX_TOKENS_PER_MINUTE),
        "allowed_models": _names(body, "allowed_models"),
        "allowed_providers": _names(body, "allowed_providers"),
        "content_filters": _filters(body),
        "enforce_zdr": {group: body.boolean(f"enforce_zdr_{group}") for group in ZDR_GROUPS},
        "expires_in_days": body.integer("expires_in_days", required=False, minimum=1, maximum=MAX_EXPIRY_DAYS),
    }


def create(conn, spec, now):
    """Store a new key; returns its record and the secret (which is stored nowhere)."""
    secret = new_secret()
    key_id = "gk_" + secrets.token_hex(12)
    expires = None if spec["expires_in_days"] is None else now + spec["expires_in_days"] * SECONDS_PER_DAY
    conn.execute(
        "INSERT INTO gateway_keys (user_id, id, name, prefix, secret_hash, limit_usd, reset_interval, "
        "requests_per_minute, tokens_per_minute, allowed_models, allowed_providers, content_filters, enforce_zdr, "
        "status, created_at, expires_at) VALUES (:user_id, :id, :name, :prefix, :hash, :limit, :reset, :rpm, :tpm, "
        ":models, :providers, :filters, :zdr, :status, :now, :expires)",
        {"id": key_id, "name": spec["name"], "prefix": secret[:PREFIX_LENGTH], "hash": secret_hash(secret),
         "limit": spec["limit_usd"], "reset": spec["reset_interval"], "rpm": spec["requests_per_minute"],
         "tpm": spec["tokens_per_minute"], "models": json.dumps(spec["allowed_models"]),
         "providers": json.dumps(spec["allowed_providers"]), "filters": json.dumps(spec["content_filters"]),
         "zdr": json.dumps(spec["enforce_zdr"]), "status": ACTIVE, "now": now, "expires": expires})
    return read(conn, key_id, now), secret


_COLUMNS = ("id, name, prefix, limit_usd, reset_interval, requests_per_minute, tokens_per_minute, allowed_models, "
            "allowed_providers, content_filters, enforce_zdr, block_events, redact_events, status, created_at, "
            "expires_at, last_used_at")


def status_of(row, now):
    if row["status"] == ACTIVE and row["expires_at"] is not None and row["expires_at"] <= now:
        return EXPIRED
    return row["status"]


def _record(conn, row, now):
    spent = ledger.key_spent(conn, row["id"], ledger.period_start(row["reset_interval"], now))
    lifetime = ledger.key_spent(conn, row["id"], 0.0)
    record = {"id": row["id"], "name": row["name"], "prefix": row["prefix"]}
    if row["limit_usd"] is not None:
        record["limit_usd"] = row["limit_usd"]
    record["reset_interval"] = row["reset_interval"]
    for name in ("requests_per_minute", "tokens_per_minute"):
        if row[name] is not None:
            record[name] = row[name]
    record["spent_usd"] = round(spent, 9)
    record["lifetime_spent_usd"] = round(lifetime, 9)
    if row["limit_usd"] is not None:
        record["remaining_usd"] = round(max(0.0, row["limit_usd"] - spent), 9)
    record["allowed_models"] = json.loads(row["allowed_models"])
    record["allowed_providers"] = json.loads(row["allowed_providers"])
    record["content_filters"] = json.loads(row["content_filters"])
    record["guardrail_events"] = {"block": row["block_events"], "redact": row["redact_events"]}
    zdr = json.loads(row["enforce_zdr"])
    for group in ZDR_GROUPS:
        record[f"enforce_zdr_{group}"] = bool(zdr.get(group))
    record["created_at"] = clock.iso(row["created_at"])
    # These two are seconds since 1970 on the wire, as the application reads them.
    if row["expires_at"] is not None:
        record["expires_at"] = int(row["expires_at"])
    if row["last_used_at"] is not None:
        record["last_used_at"] = int(row["last_used_at"])
    record["status"] = status_of(row, now)
    return record


def read(conn, key_id, now):
    row = conn.execute(f"SELECT {_COLUMNS} FROM gateway_keys WHERE user_id = :user_id AND id = :id",
                       {"id": key_id}).fetchone()
    if row is None:
        raise not_found("gateway key not found")
    return _record(conn, row, now)


def listing(conn, now):
    rows = conn.execute(f"SELECT {_COLUMNS} FROM gateway_keys WHERE user_id = :user_id "
                        "ORDER BY created_at DESC, id").fetchall()
    return [_record(conn, row, now) for row in rows]


def revoke(conn, key_id, now):
    """Revoke a key (again is harmless: the first revocation stands)."""
    cursor = conn.execute("UPDATE gateway_keys SET status = :revoked, revoked_at = COALESCE(revoked_at, :now) "
                          "WHERE user_id = :user_id AND id = :id", {"id": key_id, "revoked": REVOKED, "now": now})
    if cursor.rowcount == 0:
        raise not_found("gateway key not found")
    return read(conn, key_id, now)


def presented_secret(request):
    """The secret a caller sends, as an OpenAI client does (`Authorization: Bearer`) or an
    Anthropic one (`x-api-key`); None when neither header holds one."""
    value = (request.headers.get("x-api-key") or "").strip()
    if not value:
        value = request.bearer_token() or ""
    return value if value.isascii() and value.isprintable() and value else None


def invalid_key(message):
    return ApiError(401, message, {"WWW-Authenticate": 'Bearer realm="quillmere-gateway"'})


def count_guardrail_events(conn, key_id, blocks, redactions):
    conn.execute("UPDATE gateway_keys SET block_events = block_events + :blocks, "
                 "redact_events = redact_events + :redactions WHERE user_id = :user_id AND id = :id",
                 {"id": key_id, "blocks": blocks, "redactions": redactions})


class GatewayKeys:
    """The paths the application manages gateway keys by (with its session, never a key)."""

    def __init__(self, app):
        self.app = app
        self.db = app.db

    def register(self, router):
        router.add("GET", "v1/router/api-keys", self.list_keys)
        router.add("POST", "v1/router/api-keys", self.create_key)
        router.add("DELETE", "v1/router/api-keys/{id}", self.revoke_key, quick=True)

    @staticmethod
    def presents_key(request):
        """Whether the caller offers a gateway key rather than a session token."""
        secret = presented_secret(request)
        return secret is not None and (secret.startswith(SECRET_MARK) or "x-api-key" in request.headers)

    def authenticate(self, request):
        """Sets `request.user` and `request.gateway_key` from the key presented, or fails with 401,
        and marks the key as used just now. Nothing is cached, so a revocation holds from the
        next request on. Runs on a worker: it reads (and now and then writes) the database."""
        secret = presented_secret(request)
        if secret is None:
            raise invalid_key("a gateway key is required: send it as Authorization: Bearer or x-api-key")
        now = clock.now()
        with self.db.read() as conn:
            row = conn.execute("SELECT k.*, u.email FROM gateway_keys k JOIN users u ON u.id = k.user_id "
                               "WHERE k.secret_hash = ?", (secret_hash(secret),)).fetchone()
        if row is None:
            raise invalid_key("invalid gateway key")
        status = status_of(row, now)
        if status != ACTIVE:
            raise invalid_key(f"this gateway key is {status}")
        if row["last_used_at"] is None or now - row["last_used_at"] >= LAST_USED_RESOLUTION_SECONDS:
            with self.db.write_as(row["user_id"]) as conn:
                conn.execute("UPDATE gateway_keys SET last_used_at = :now WHERE user_id = :user_id AND id = :id",
                             {"id": row["id"], "now": now})
        request.user = {"id": row["user_id"], "email": row["email"]}
        request.gateway_key = dict(row)

    @staticmethod
    def limits(request):
        """The calling key's rules, or None for a session."""
        row = request.gateway_key
        if row is None:
            return None
        return {"id": row["id"], "allowed_models": json.loads(row["allowed_models"]),
                "allowed_providers": json.loads(row["allowed_providers"]),
                "content_filters": json.loads(row["content_filters"]), "enforce_zdr": json.loads(row["enforce_zdr"]),
                "limit_usd": row["limit_usd"], "reset_interval": row["reset_interval"],
                "requests_per_minute": row["requests_per_minute"], "tokens_per_minute": row["tokens_per_minute"]}

    def list_keys(self, request):
        with self.db.read_as(request.user_id) as conn:
            return listing(conn, clock.now())

    def create_key(self, request):
        spec = parse_create(request.body())
        with self.db.write_as(request.user_id) as conn:
            record, secret = create(conn, spec, clock.now())
        record["key"] = secret
        return record

    def revoke_key(self, request):
        with self.db.write_as(request.user_id) as conn:
            return revoke(conn, request.params["id"], clock.now())
