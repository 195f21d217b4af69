"""Time-based one-time passwords (RFC 6238 over RFC 4226), and recovery codes."""

import base64
import hashlib
import hmac
import secrets
import struct
import urllib.parse

STEP_SECONDS = 30
DIGITS = 6
# A code from one step before or after the present one is still accepted, for clock drift.
DRIFT_STEPS = 1
SECRET_BYTES = 20
RECOVERY_CODE_COUNT = 10


def new_secret():
    return base64.b32encode(secrets.token_bytes(SECRET_BYTES)).decode("ascii").rstrip("=")


def _key(secret):
    text = secret.strip().replace(" ", "").upper()
    return base64.b32decode(text + "=" * (-len(text) % 8))


def hotp(key, counter, digits=DIGITS, digest=hashlib.sha1):
    mac = hmac.new(key, struct.pack(">Q", counter), digest).digest()
    offset = mac[-1] & 0x0F
    number = struct.unpack(">I", mac[offset:offset + 4])[0] & 0x7FFFFFFF
    return str(number % 10**digits).zfill(digits)


def step_at(seconds, step=STEP_SECONDS):
    return int(seconds // step)


def code_at(secret, seconds, step=STEP_SECONDS, digits=DIGITS):
    return hotp(_key(secret), step_at(seconds, step), digits)


def match_step(secret, code, seconds, last_step=None, drift=DRIFT_STEPS, step=STEP_SECONDS):
    """The step whose code equals `code`, within the drift, later than `last_step`; else None.

    Refusing a step at or before the last accepted one makes each code single-use.
    """
    code = (code or "").strip().replace(" ", "")
    if len(code) != DIGITS or not code.isdigit():
        return None
    key = _key(secret)
    now_step = step_at(seconds, step)
    found = None
    for candidate in range(now_step - drift, now_step + drift + 1):
        if hmac.compare_digest(hotp(key, candidate), code):
            found = candidate
    if found is None or (last_step is not None and found <= last_step):
        return None
    return found


def provisioning_uri(secret, email, issuer="Quillmere"):
    label = urllib.parse.quote(f"{issuer}:{email}")
    query = urllib.parse.urlencode({"secret": secret, "issuer": issuer, "digits": DIGITS, "period": STEP_SECONDS})
    return f"otpauth://totp/{label}?{query}"


def new_recovery_codes(count=RECOVERY_CODE_COUNT):
    """Codes of the form abcd-efgh-ijkl, easy to read out and type."""
    alphabet = "abcdefghjkmnpqrstuvwxyz23456789"
    codes = []
    for _ in range(count):
        raw = "".join(secrets.choice(alphabet) for _ in range(12))
        codes.append(f"{raw[0:4]}-{raw[4:8]}-{raw[8:12]}")
    return codes


def normalise_recovery_code(code):
    return (code or "").strip().lower().replace("-", "").replace(" ", "")
