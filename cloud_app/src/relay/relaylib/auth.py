"""Sign-in and sessions: local sessions on loopback, e-mailed codes, a second factor.

Session tokens, codes, tickets and recovery codes are random and kept only as
SHA-256 hashes; a stored hash is compared in constant time. None of them is ever
logged: without mail, a code goes to the private outbox file only.
"""

import collections
import hashlib
import hmac
import ipaddress
import re
import secrets
import threading
import uuid

from . import clock, totp
from .errors import ApiError, bad_request, unauthorized
from .mailer import DeliveryError

EMAIL_PATTERN = re.compile(r"^[^@\s]+@[^@\s]+$")
MAX_EMAIL_LENGTH = 254
CODE_DIGITS = 6
LOCAL_AUTH_DISABLED = "local authentication is disabled"
# Sessions recently checked are remembered in memory, so that most requests are checked on
# the event loop without a database read; past this many the memory starts over.
SESSION_CACHE_SIZE = 10000


def sha256(text):
    return hashlib.sha256(text.encode("utf-8")).hexdigest()


def same_hash(left, right):
    return hmac.compare_digest(left.encode("ascii"), right.encode("ascii"))


def is_loopback(address):
    try:
        ip = ipaddress.ip_address(address.split("%")[0])
    except ValueError:
        return False
    mapped = getattr(ip, "ipv4_mapped", None)
    return (mapped or ip).is_loopback


def normalise_email(text):
    return text.strip().lower()


class RateLimiter:
    """At most `limit` events per key within a sliding window of `window` seconds."""

    def __init__(self, limit, window):
        self._limit = limit
        self._window = window
        self._events = collections.defaultdict(collections.deque)
        self._lock = threading.Lock()

    def allow(self, key, now):
        with self._lock:
            events = self._events[key]
            while events and events[0] <= now - self._window:
                events.popleft()
            if len(events) >= self._limit:
                return False
            events.append(now)
            return True


def ensure_user(conn, email_address):
    """The user with this address, created on first sign-in."""
    row = conn.execute("SELECT id, email, totp_secret FROM users WHERE email = ?", (email_address,)).fetchone()
    if row is not None:
        return row
    user_id = "usr_" + uuid.uuid4().hex
    conn.execute("INSERT INTO users (id, email, created_at) VALUES (?, ?, ?)", (user_id, email_address, clock.now_iso()))
    return conn.execute("SELECT id, email, totp_secret FROM users WHERE id = ?", (user_id,)).fetchone()


def user_json(row):
    return {"id": row["id"], "email": row["email"]}


class Auth:
    def __init__(self, app):
        self.db = app.db
        self.settings = app.settings
        self.mailer = app.mailer
        timings = app.settings.timings
        self.timings = timings
        self.per_email = RateLimiter(timings.code_rate_limit_per_email, timings.code_rate_window_seconds)
        self.per_ip = RateLimiter(timings.code_rate_limit_per_ip, timings.code_rate_window_seconds)
        # Token hash -> (user, expiry). Sessions end only here (sign-out, expiry), so this
        # process's memory is as current as its database.
        self._sessions = {}
        # Sign-outs so far, under the lock: a session read from the database before a sign-out
        # is not remembered after it, or it would outlive the sign-out in memory.
        self._sessions_lock = threading.Lock()
        self._sign_outs = 0

    def register(self, router):
        router.add("POST", "v1/auth/local", self.local, auth=False, quick=True)
        router.add("POST", "v1/auth/request-code", self.request_code, auth=False)
        router.add("POST", "v1/auth/verify-code", self.verify_code, auth=False)
        router.add("POST", "v1/auth/mfa/verify", self.mfa_verify, auth=False)
        router.add("GET", "v1/me", self.me, quick=True)
        router.add("POST", "v1/auth/logout", self.logout, quick=True)

    # Sessions

    @staticmethod
    def _token_hash(request):
        token = request.bearer_token()
        if token is None:
            raise unauthorized("missing session token")
        if not token:
            raise unauthorized("invalid or expired session token")
        return sha256(token)

    def authenticate_remembered(self, request):
        """Sets `request.user` from a session checked before; False when the database must
        be asked. Cheap enough for the event loop; a missing token fails here with 401."""
        token_hash = self._token_hash(request)
        entry = self._sessions.get(token_hash)
        if entry is None or entry[1] <= clock.now():
            return False
        request.user, request.token_hash = entry[0], token_hash
        return True

    def authenticate(self, request):
        """Sets `request.user` from the bearer token, or fails with 401."""
        token_hash = self._token_hash(request)
        now = clock.now()
        sign_outs = self._sign_outs
        with self.db.read() as conn:
            row = conn.execute(
                "SELECT s.token_hash, s.expires_at, u.id, u.email FROM sessions s "
                "JOIN users u ON u.id = s.user_id WHERE s.token_hash = ?", (token_hash,)).fetchone()
        if row is None or not same_hash(row["token_hash"], token_hash) or row["expires_at"] <= now:
            self._sessions.pop(token_hash, None)
            raise unauthorized("invalid or expired session token")
        request.user = user_json(row)
        request.token_hash = token_hash
        self._remember(token_hash, request.user, row["expires_at"], sign_outs)

    def _remember(self, token_hash, user, expires_at, sign_outs):
        """Remembers a session read from the database when `sign_outs` were counted, unless
        someone signed out since (that may have been this very session)."""
        with self._sessions_lock:
            if self._sign_outs != sign_outs:
                return
            if len(self._sessions) >= SESSION_CACHE_SIZE:
                self._sessions.clear()
            self._sessions[token_hash] = (user, expires_at)

    def issue_session(self, conn, user_id):
        token = secrets.token_urlsafe(32)
        now = clock.now()
        conn.execute("INSERT INTO sessions VALUES (?, ?, ?, ?)",
                     (sha256(token), user_id, now, now + self.timings.session_ttl_seconds))
        conn.execute("DELETE FROM sessions WHERE expires_at <= ?", (now,))
        return token

    def _signed_in(self, conn, user):
        return {"token": self.issue_session(conn, user["id"]), "user": user_json(user)}

    # Handlers

    def local(self, request):
        body = request.json()
        if body is not None and not isinstance(body, dict):
            raise bad_request("request body must be a JSON object")
        if not self.settings.local_auth or not is_loopback(request.client_ip):
            raise ApiError(403, LOCAL_AUTH_DISABLED)
        with self.db.write() as conn:
            user = ensure_user(conn, self.settings.local_email)
            return self._signed_in(conn, user)

    def request_code(self, request):
        address = self._email_field(request.body())
        now = clock.now()
        if not self.per_ip.allow(request.client_ip, now) or not self.per_email.allow(address, now):
            raise ApiError(429, "too many sign-in codes requested; try again later")
        code = str(secrets.randbelow(10**CODE_DIGITS)).zfill(CODE_DIGITS)
        with self.db.write() as conn:
            conn.execute("INSERT OR REPLACE INTO login_codes VALUES (?, ?, ?, 0)",
                         (address, sha256(f"{address}:{code}"), now + self.timings.code_ttl_seconds))
        try:
            self.mailer.send_code(address, code)
        except DeliveryError:
            with self.db.write() as conn:
                conn.execute("DELETE FROM login_codes WHERE email = ?", (address,))
            raise ApiError(502, "could not send the sign-in code; try again later") from None
        return {"sent": True}

    def _email_field(self, body):
        address = normalise_email(body.string("email", max_length=MAX_EMAIL_LENGTH))
        if not EMAIL_PATTERN.match(address):
            raise bad_request("email must be an e-mail address")
        return address

    def verify_code(self, request):
        body = request.body()
        address = self._email_field(body)
        code = body.string("code").strip().replace(" ", "")
        with self.db.write() as conn:
            failure = self._check_code(conn, address, code)
            if failure is None:
                user = ensure_user(conn, address)
                if user["totp_secret"]:
                    return self._second_factor(conn, user)
                return self._signed_in(conn, user)
        # Raised outside the transaction, so that the counted attempt is kept.
        raise unauthorized(failure)

    def _check_code(self, conn, address, code):
        """None when the code is right (and spent); otherwise the reason, with the attempt counted."""
        row = conn.execute("SELECT * FROM login_codes WHERE email = ?", (address,)).fetchone()
        if row is None or row["expires_at"] <= clock.now():
            conn.execute("DELETE FROM login_codes WHERE email = ?", (address,))
            return "code expired or never requested; request a new code"
        if same_hash(sha256(f"{address}:{code}"), row["code_hash"]):
            conn.execute("DELETE FROM login_codes WHERE email = ?", (address,))
            return None
        attempts = row["attempts"] + 1
        if attempts >= self.timings.code_max_attempts:
            conn.execute("DELETE FROM login_codes WHERE email = ?", (address,))
            return "incorrect code; too many attempts, request a new code"
        conn.execute("UPDATE login_codes SET attempts = ? WHERE email = ?", (attempts, address))
        return "incorrect code"

    def _second_factor(self, conn, user):
        ticket = secrets.token_urlsafe(32)
        conn.execute("INSERT INTO mfa_tickets VALUES (?, ?, ?, 0)",
                     (sha256(ticket), user["id"], clock.now() + self.timings.mfa_ticket_ttl_seconds))
        return {"mfa_required": True, "mfa_ticket": ticket, "methods": ["totp"]}

    def mfa_verify(self, request):
        body = request.body()
        ticket_hash = sha256(body.string("mfa_ticket"))
        code = body.string("code")
        with self.db.write() as conn:
            row = conn.execute("SELECT * FROM mfa_tickets WHERE ticket_hash = ?", (ticket_hash,)).fetchone()
            if row is None or row["expires_at"] <= clock.now():
                conn.execute("DELETE FROM mfa_tickets WHERE ticket_hash = ?", (ticket_hash,))
                failure = "sign-in ticket expired or unknown; start over"
            else:
                user = conn.execute("SELECT * FROM users WHERE id = ?", (row["user_id"],)).fetchone()
                if self._second_factor_ok(conn, user, code):
                    conn.execute("DELETE FROM mfa_tickets WHERE ticket_hash = ?", (ticket_hash,))
                    return self._signed_in(conn, user)
                failure = self._count_ticket_attempt(conn, row)
        raise unauthorized(failure)

    def _second_factor_ok(self, conn, user, code):
        """An authenticator code (each usable once) or an unused recovery code."""
        if user["totp_secret"]:
            step = totp.match_step(user["totp_secret"], code, clock.now(), user["totp_last_step"])
            if step is not None:
                conn.execute("UPDATE users SET totp_last_step = ? WHERE id = ?", (step, user["id"]))
                return True
        code_hash = recovery_hash(user["id"], code)
        used = conn.execute(
            "UPDATE recovery_codes SET used_at = ? WHERE user_id = ? AND code_hash = ? AND used_at IS NULL",
            (clock.now(), user["id"], code_hash))
        return used.rowcount == 1

    def _count_ticket_attempt(self, conn, row):
        attempts = row["attempts"] + 1
        if attempts >= self.timings.mfa_max_attempts:
            conn.execute("DELETE FROM mfa_tickets WHERE ticket_hash = ?", (row["ticket_hash"],))
            return "incorrect code; too many attempts, start over"
        conn.execute("UPDATE mfa_tickets SET attempts = ? WHERE ticket_hash = ?", (attempts, row["ticket_hash"]))
        return "incorrect code"

    def me(self, request):
        return request.user

    def logout(self, request):
        with self.db.write() as conn:
            conn.execute("DELETE FROM sessions WHERE token_hash = ?", (request.token_hash,))
        with self._sessions_lock:
            self._sign_outs += 1
            self._sessions.pop(request.token_hash, None)
        return {"signed_out": True}


def recovery_hash(user_id, code):
    return sha256(f"{user_id}:{totp.normalise_recovery_code(code)}")


def enable_totp(db, email_address):
    """Turns the second factor on for an address: a new secret and new recovery codes."""
    address = normalise_email(email_address)
    if not EMAIL_PATTERN.match(address):
        raise ValueError("not an e-mail address: " + email_address)
    secret = totp.new_secret()
    codes = totp.new_recovery_codes()
    with db.write() as conn:
        user = ensure_user(conn, address)
        conn.execute("UPDATE users SET totp_secret = ?, totp_last_step = NULL WHERE id = ?", (secret, user["id"]))
        conn.execute("DELETE FROM recovery_codes WHERE user_id = ?", (user["id"],))
        conn.executemany("INSERT INTO recovery_codes VALUES (?, ?, NULL)",
                         [(user["id"], recovery_hash(user["id"], code)) for code in codes])
    return address, secret, codes


def disable_totp(db, email_address):
    address = normalise_email(email_address)
    with db.write() as conn:
        row = conn.execute("SELECT id FROM users WHERE email = ?", (address,)).fetchone()
        if row is None:
            return False
        conn.execute("UPDATE users SET totp_secret = NULL, totp_last_step = NULL WHERE id = ?", (row["id"],))
        conn.execute("DELETE FROM recovery_codes WHERE user_id = ?", (row["id"],))
        conn.execute("DELETE FROM mfa_tickets WHERE user_id = ?", (row["id"],))
    return True
