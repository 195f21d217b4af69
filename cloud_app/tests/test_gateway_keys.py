"""Gateway keys: which content-filter patterns are accepted, the retention groups, and
creating, listing and revoking keys through the relay (the secret shown once, stored only
as a hash)."""

import copy
import glob
import hashlib
import sqlite3
import time
import unittest

import support  # noqa: F401  (puts the relay on the path)
from relaylib.modelrouter import guardrails
from support import GATEWAY_KEY, RelayTestCase

DAY = 86400


class PatternTest(unittest.TestCase):
    def refused(self, pattern, because):
        with self.assertRaises(guardrails.UnsafePattern) as caught:
            guardrails.check_pattern(pattern)
        self.assertIn(because, str(caught.exception))
        # The reason never quotes the pattern itself.
        self.assertNotIn(pattern, str(caught.exception))

    def test_patterns_that_can_backtrack_without_bound_are_refused(self):
        self.refused("(a+)+b", "nests one quantifier")
        self.refused("(x{2,5})+y", "nests one quantifier")
        self.refused("(?:\\w*\\s)*end", "nests one quantifier")
        self.refused("(a|aa)*b", "repeats an alternation")
        self.refused("(?:cat|dog){1,500}s", "repeats an alternation")
        self.refused("a*b*c*d*e*f", "more than 4 unbounded quantifiers")

    def test_backreferences_and_lookaround_are_refused(self):
        self.refused("(\\w+)-\\1", "backreference")
        self.refused("(?P<q>['\"]).+(?P=q)", "backreference")
        self.refused("(a)?(?(1)b|c)", "backreference")
        self.refused("secret(?=:)", "lookahead or lookbehind")
        self.refused("(?<!x)token", "lookahead or lookbehind")
        self.refused("pass(?!word)", "lookahead or lookbehind")

    def test_patterns_that_can_match_empty_text_are_refused(self):
        for pattern in ("a*", "^", "$", "\\b", "(?:x)?", "a{0,3}", "(?i)", "x|"):
            self.refused(pattern, "can match empty text")

    def test_invalid_and_overlong_patterns_are_refused(self):
        self.refused("(unclosed", "not a valid regular expression")
        self.refused("[z-a]", "not a valid regular expression")
        self.refused("x" * (guardrails.MAX_PATTERN_LENGTH + 1), "longer than")

    def test_ordinary_patterns_are_accepted_and_compiled(self):
        for pattern, text in (("sk-[A-Za-z0-9]{20,}", "key sk-" + "A" * 24),
                              ("\\d{3}-\\d{2}-\\d{4}", "ssn 123-45-6789"),
                              ("(?i)password", "my PASSWORD"),
                              ("[\\w.]+@[\\w-]+\\.com", "mail a.b@example.com"),
                              ("(?:cat|dog)s?", "two dogs"),
                              ("(ab|cd){3}", "abcdab")):
            self.assertIsNotNone(guardrails.check_pattern(pattern).search(text), pattern)

    def test_a_vetted_pattern_finishes_quickly_on_hostile_text(self):
        # The shapes allowed stay polynomial: a long failing text is scanned at once.
        compiled = guardrails.check_pattern("[a-z]+@[a-z]+\\.com")
        started = time.monotonic()
        self.assertIsNone(compiled.search("a" * 20000 + "@" + "b" * 20000))
        self.assertLess(time.monotonic() - started, 30)


class RetentionGroupTest(unittest.TestCase):
    def test_groups_follow_the_first_marker_found_in_provider_and_id(self):
        cases = {("anthropic", "sonnet"): "anthropic", ("bedrock", "claude-haiku"): "anthropic",
                 ("openai", "fast"): "openai", ("azure", "gpt-5"): "openai", ("x", "o3-mini"): "openai",
                 ("google", "flash"): "google", ("acme", "gemini-pro"): "google", ("vertex", "m"): "google",
                 ("xai", "m"): "xai", ("acme", "grok-4"): "xai", ("mistral", "large"): "other",
                 # "claude" comes before "gpt" in the order of groups.
                 ("claude", "gpt-proxy"): "anthropic", ("ACME", "GROK"): "xai"}
        for (provider, lane_id), group in cases.items():
            self.assertEqual(guardrails.zdr_group(provider, lane_id), group, (provider, lane_id))


class GatewayKeysTest(RelayTestCase):
    def create(self, **changes):
        body = copy.deepcopy(GATEWAY_KEY)
        for name, value in changes.items():
            if value is None:
                body.pop(name, None)
            else:
                body[name] = value
        return self.call("POST", "v1/router/api-keys", body)

    def test_created_key_shows_its_secret_once_and_every_field(self):
        before = time.time()
        status, created, _ = self.create(name="  Scripts  ")
        self.assertEqual(status, 200, created)
        secret = created.pop("key")
        self.assertTrue(secret.startswith(created["prefix"]))
        self.assertGreater(len(secret), 40)
        self.assertEqual(created["name"], "Scripts")
        self.assertEqual(created["status"], "active")
        self.assertEqual((created["limit_usd"], created["reset_interval"]), (5.0, "monthly"))
        self.assertEqual((created["requests_per_minute"], created["tokens_per_minute"]), (60, 100000))
        self.assertEqual((created["spent_usd"], created["lifetime_spent_usd"], created["remaining_usd"]), (0, 0, 5))
        self.assertEqual(created["content_filters"], GATEWAY_KEY["content_filters"])
        self.assertEqual(created["guardrail_events"], {"block": 0, "redact": 0})
        self.assertIsInstance(created["created_at"], str)
        self.assertIsInstance(created["expires_at"], int)
        self.assertAlmostEqual(created["expires_at"], before + 90 * DAY, delta=5)
        self.assertNotIn("last_used_at", created)
        listed = {key["id"]: key for key in self.call("GET", "v1/router/api-keys")[1]}
        self.assertEqual(listed[created["id"]], created)
        self.assertNotIn(secret, str(listed))

    def test_the_secret_is_stored_only_as_its_hash(self):
        status, created, _ = self.create(name="Hashed")
        self.assertEqual(status, 200, created)
        secret = created["key"]
        with sqlite3.connect(self.relay.db_path) as conn:
            conn.execute("PRAGMA wal_checkpoint(FULL)")
        for path in glob.glob(self.relay.db_path + "*"):
            with open(path, "rb") as stored:
                self.assertNotIn(secret.encode(), stored.read(), path)
        with sqlite3.connect(self.relay.db_path) as conn:
            row = conn.execute("SELECT prefix, secret_hash FROM gateway_keys WHERE id = ?", (created["id"],)).fetchone()
        self.assertEqual(row, (created["prefix"], hashlib.sha256(secret.encode()).hexdigest()))
        self.assertNotIn(secret, self.relay.log())

    def test_two_keys_never_share_a_secret(self):
        first, second = self.create()[1]["key"], self.create()[1]["key"]
        self.assertNotEqual(first, second)

    def test_optional_limits_and_expiry_may_be_left_out(self):
        status, created, _ = self.create(limit_usd=None, requests_per_minute=None, tokens_per_minute=None,
                                         expires_in_days=None, reset_interval="lifetime")
        self.assertEqual(status, 200, created)
        for name in ("limit_usd", "remaining_usd", "requests_per_minute", "tokens_per_minute", "expires_at"):
            self.assertNotIn(name, created)
        self.assertEqual(created["reset_interval"], "lifetime")

    def test_revoking_keeps_the_key_listed_as_revoked(self):
        created = self.create(name="Short-lived")[1]
        status, answer, _ = self.call("DELETE", f"v1/router/api-keys/{created['id']}")
        self.assertEqual((status, answer["status"]), (200, "revoked"))
        listed = {key["id"]: key["status"] for key in self.call("GET", "v1/router/api-keys")[1]}
        self.assertEqual(listed[created["id"]], "revoked")
        # Again is harmless; an unknown id is not found.
        self.assertEqual(self.call("DELETE", f"v1/router/api-keys/{created['id']}")[0], 200)
        status, answer, _ = self.call("DELETE", "v1/router/api-keys/gk_unknown")
        self.assertError(answer, status, 404, "gateway key not found")

    def test_a_key_past_its_expiry_is_listed_as_expired(self):
        created = self.create(expires_in_days=30)[1]
        with sqlite3.connect(self.relay.db_path) as conn:
            conn.execute("UPDATE gateway_keys SET expires_at = ? WHERE id = ?", (time.time() - 1, created["id"]))
        listed = {key["id"]: key["status"] for key in self.call("GET", "v1/router/api-keys")[1]}
        self.assertEqual(listed[created["id"]], "expired")

    def test_unsafe_and_empty_match_patterns_are_refused_by_name(self):
        for pattern, reason in (("(a+)+$", "nests one quantifier"), ("x*", "can match empty text"),
                                ("(\\d)\\1", "backreference"), ("(?=a)a", "lookahead")):
            status, answer, _ = self.create(content_filters=[{"name": "Guard", "pattern": pattern,
                                                              "action": "block"}])
            self.assertError(answer, status, 400, contains='content filter "Guard" is refused: its pattern')
            self.assertIn(reason, answer["error"]["message"])
            self.assertNotIn(pattern, answer["error"]["message"])

    def test_invalid_fields_are_refused_with_the_field_named(self):
        filter_ = {"name": "A", "pattern": "abc", "action": "block"}
        cases = [({"name": "  "}, "name must not be empty"),
                 ({"limit_usd": 0}, "limit_usd must be above 0"),
                 ({"limit_usd": -1}, "limit_usd must be a number of at least 0"),
                 ({"reset_interval": "hourly"}, "reset_interval must be one of"),
                 ({"requests_per_minute": 0}, "requests_per_minute must be an integer from 1 to 1000000"),
                 ({"tokens_per_minute": 1_000_000_001}, "tokens_per_minute must be an integer from 1 to 1000000000"),
                 ({"allowed_models": [" "]}, "allowed_models must hold"),
                 ({"allowed_providers": [3]}, "allowed_providers[0] must be a string"),
                 ({"content_filters": [filter_, dict(filter_, name=" a ")]}, "repeats the name of another filter"),
                 ({"content_filters": [dict(filter_, action="warn")]}, "content_filters[0].action must be one of"),
                 ({"content_filters": [dict(filter_, pattern=" ")]}, "content_filters[0].pattern must not be empty"),
                 ({"enforce_zdr_xai": None}, "enforce_zdr_xai is required"),
                 ({"expires_in_days": 0}, "expires_in_days must be an integer from 1 to 3650")]
        count = len(self.call("GET", "v1/router/api-keys")[1])
        for changes, message in cases:
            status, answer, _ = self.create(**changes)
            self.assertError(answer, status, 400, contains=message)
        # A refused request stores nothing.
        self.assertEqual(len(self.call("GET", "v1/router/api-keys")[1]), count)

    def test_a_gateway_key_is_not_a_session(self):
        secret = self.create()[1]["key"]
        for method, path in (("GET", "v1/router/api-keys"), ("GET", "v1/me"), ("GET", "v1/projects"),
                             ("GET", "v1/router/catalog")):
            status, answer, _ = self.call(method, path, token=secret)
            self.assertEqual(status, 401, (path, answer))


if __name__ == "__main__":
    unittest.main()
