"""The relay's pure parts, in process: constants, settings, JSON rules, routing, TOTP, packs."""

import os
import tempfile
import unittest

import support  # noqa: F401  (puts the relay on the import path)
from relaylib import clock, config, contextpack, hub, jsonio, routing, totp
from relaylib.auth import is_loopback, RateLimiter
from relaylib.db import Database
from relaylib.errors import ApiError
from relaylib.projects import normalise_root
import permission_hook


class DefaultsTest(unittest.TestCase):
    def test_fixed_times_and_limits_have_their_defaults(self):
        self.assertEqual(config.DEFAULT_PORT, 8787)
        self.assertEqual(config.DEFAULT_HOST, "127.0.0.1")
        self.assertEqual(config.KEEPALIVE_SECONDS, 15.0)
        self.assertEqual(config.MAX_WAIT_SECONDS, 60.0)
        self.assertEqual(config.CODE_TTL_SECONDS, 600.0)
        self.assertEqual(config.CODE_MAX_ATTEMPTS, 5)
        self.assertEqual(config.MAX_BODY_BYTES, 16 * 1024 * 1024)
        self.assertEqual(totp.STEP_SECONDS, 30)
        self.assertEqual(totp.DRIFT_STEPS, 1)
        self.assertEqual(totp.DIGITS, 6)
        self.assertEqual(config.EXPIRY_SWEEP_SECONDS, 1.0)
        self.assertEqual(config.CODE_RATE_LIMIT_PER_EMAIL, 5)
        self.assertEqual(config.CODE_RATE_LIMIT_PER_IP, 20)
        self.assertEqual(config.CODE_RATE_WINDOW_SECONDS, 600.0)
        self.assertEqual(config.MFA_TICKET_TTL_SECONDS, 600.0)
        self.assertEqual(config.MFA_MAX_ATTEMPTS, 5)
        self.assertEqual(config.SESSION_TTL_SECONDS, 30 * 24 * 3600.0)
        self.assertEqual(config.HEALTH_WINDOW, 20)
        self.assertEqual(hub.MAX_BACKLOG, 256)
        self.assertEqual(permission_hook.WAIT_SECONDS, 300.0)
        self.assertEqual(permission_hook.POLL_SECONDS, 60.0)

    def test_timings_start_from_the_constants(self):
        timings = config.load_settings({"MERE_RELAY_DB_PATH": "/tmp/x/relay.db"}).timings
        self.assertEqual(timings, config.Timings())
        self.assertEqual(timings.keepalive_seconds, config.KEEPALIVE_SECONDS)
        self.assertEqual(timings.code_ttl_seconds, config.CODE_TTL_SECONDS)

    def test_environment_overrides_a_timing(self):
        settings = config.load_settings({"MERE_RELAY_DB_PATH": "/tmp/x/relay.db",
                                         "MERE_RELAY_KEEPALIVE_SECONDS": "0.5",
                                         "MERE_RELAY_CODE_MAX_ATTEMPTS": "3",
                                         "MERE_RELAY_CODE_TTL_SECONDS": "nonsense"})
        self.assertEqual(settings.timings.keepalive_seconds, 0.5)
        self.assertEqual(settings.timings.code_max_attempts, 3)
        self.assertEqual(settings.timings.code_ttl_seconds, config.CODE_TTL_SECONDS)


class SettingsTest(unittest.TestCase):
    def test_env_file_lines(self):
        text = "# comment\n\nexport A=1\nB = two words \nC='quoted'\nD=\"x=y\"\nbroken line\n=nokey\n"
        self.assertEqual(config.parse_env_file(text), {"A": "1", "B": "two words", "C": "quoted", "D": "x=y"})

    def test_missing_env_file_is_fine(self):
        self.assertEqual(config.read_env_file("/nonexistent/relay.env"), {})

    def test_environment_wins_over_the_file(self):
        with tempfile.TemporaryDirectory() as folder:
            env_path = os.path.join(folder, "relay.env")
            with open(env_path, "w") as handle:
                handle.write("MERE_SMTP_HOST=file.example\nMERE_RELAY_LOCAL_EMAIL=me@example.com\n")
            settings = config.load_settings({"MERE_RELAY_ENV_PATH": env_path, "MERE_SMTP_HOST": "env.example",
                                             "MERE_RELAY_DB_PATH": os.path.join(folder, "relay.db")})
            self.assertEqual(settings.get("MERE_SMTP_HOST"), "env.example")
            self.assertEqual(settings.local_email, "me@example.com")
            self.assertEqual(settings.outbox_path, os.path.join(folder, "relay-outbox.txt"))

    def test_launch_variables(self):
        settings = config.load_settings({"MERE_RELAY_PORT": "9999", "MERE_RELAY_LOCAL_AUTH": "1",
                                         "MERE_RELAY_HOST": "0.0.0.0", "HOME": "/home/someone"})
        self.assertEqual((settings.host, settings.port, settings.local_auth), ("0.0.0.0", 9999, True))
        self.assertEqual(settings.db_path, "/home/someone/.local/share/Quillmere/relay.db")
        self.assertFalse(config.load_settings({"MERE_RELAY_LOCAL_AUTH": "yes"}).local_auth)


class JsonTest(unittest.TestCase):
    def test_parse_refuses_what_a_strict_client_would(self):
        for raw, fragment in [(b"{", "malformed JSON"), (b"\xff\xfe", "UTF-8"), (b"NaN", "malformed"),
                              (b"[" * 100000, "nested"), (b"1e999", "malformed"), (b"9" * 5000, "malformed")]:
            with self.assertRaises(ApiError) as caught:
                jsonio.parse(raw)
            self.assertEqual(caught.exception.status, 400)
            self.assertIn(fragment, caught.exception.message)
        self.assertIsNone(jsonio.parse(b"  "))

    def test_fields_name_the_wrong_field(self):
        body = jsonio.Body({"n": 1.5, "b": 1, "s": 3, "big": 2**70, "list": ["a", 2], "d": "2026-01-31"})
        cases = [(lambda: body.integer("n"), "n must be an integer, not a number"),
                 (lambda: body.boolean("b"), "b must be a boolean, not a number"),
                 (lambda: body.string("s"), "s must be a string, not a number"),
                 (lambda: body.integer("big"), "big must be an integer from"),
                 (lambda: body.string_list("list"), "list[1] must be a string"),
                 (lambda: body.date("d"), "d must be an ISO 8601 date"),
                 (lambda: body.string("missing"), "missing is required")]
        for action, message in cases:
            with self.assertRaises(ApiError) as caught:
                action()
            self.assertIn(message, caught.exception.message)

    def test_a_boolean_is_not_an_integer(self):
        with self.assertRaises(ApiError):
            jsonio.Body({"n": True}).integer("n")

    def test_optional_null_is_absent(self):
        self.assertIsNone(jsonio.Body({"x": None}).string("x", required=False))


class ClockTest(unittest.TestCase):
    def test_iso_has_no_fractional_seconds(self):
        self.assertEqual(clock.iso(1769851800.75), "2026-01-31T09:30:00Z")

    def test_parse_iso(self):
        self.assertEqual(clock.parse_iso("2026-01-31T09:30:00Z"), 1769851800)
        self.assertEqual(clock.parse_iso("2026-01-31T10:30:00.250+01:00"), 1769851800.25)
        for bad in ["2026-01-31T09:30:00", "2026-01-31", "yesterday", 5, "2026-13-01T00:00:00Z",
                    "0001-01-01T00:00:00+01:00", "9999-12-31T23:59:59-05:00", "1969-12-31T23:59:59Z"]:
            self.assertIsNone(clock.parse_iso(bad), bad)

    def test_the_extreme_dates_accepted_can_be_written_out(self):
        self.assertEqual(clock.iso(clock.parse_iso("9999-12-31T23:59:59Z")), "9999-12-31T23:59:59Z")
        self.assertEqual(clock.iso(clock.parse_iso("1970-01-01T00:00:00.5Z")), "1970-01-01T00:00:00Z")


class RoutingTest(unittest.TestCase):
    def setUp(self):
        self.router = routing.Router()
        self.router.add("POST", "v1/projects/{id}/context/pack", "pack")
        self.router.add("DELETE", "v1/projects/{id}/context/{item}", "delete")
        self.router.add("GET", "v1/health", "health", auth=False)

    def test_literal_segment_and_parameters(self):
        route, params = self.router.resolve("POST", "/v1/projects/p1/context/pack")
        self.assertEqual((route.handler, params), ("pack", {"id": "p1"}))
        route, params = self.router.resolve("DELETE", "/v1/projects/p1/context/pack")
        self.assertEqual((route.handler, params), ("delete", {"id": "p1", "item": "pack"}))

    def test_unknown_path_and_wrong_method(self):
        with self.assertRaises(ApiError) as caught:
            self.router.resolve("GET", "/v1/health/")
        self.assertEqual(caught.exception.status, 404)
        with self.assertRaises(ApiError) as caught:
            self.router.resolve("GET", "/v1/projects/p1/context/pack")
        self.assertEqual(caught.exception.status, 405)
        self.assertEqual(caught.exception.headers["Allow"], "DELETE, POST")


class TotpTest(unittest.TestCase):
    # The SHA-1 test secret of RFC 6238, "12345678901234567890", in base32.
    SECRET = "GEZDGNBVGY3TQOJQGEZDGNBVGY3TQOJQ"

    def test_reference_values(self):
        for seconds, code in [(59, "287082"), (1111111109, "081804"), (1234567890, "005924"),
                              (2000000000, "279037")]:
            self.assertEqual(totp.code_at(self.SECRET, seconds), code)

    def test_one_step_of_drift_either_way(self):
        now = 1234567890
        for offset in (-30, 0, 30):
            self.assertIsNotNone(totp.match_step(self.SECRET, totp.code_at(self.SECRET, now + offset), now))
        for offset in (-60, 60):
            self.assertIsNone(totp.match_step(self.SECRET, totp.code_at(self.SECRET, now + offset), now))

    def test_a_code_is_used_once(self):
        now = 1234567890
        code = totp.code_at(self.SECRET, now)
        step = totp.match_step(self.SECRET, code, now)
        self.assertIsNone(totp.match_step(self.SECRET, code, now, last_step=step))

    def test_malformed_codes(self):
        for code in ["", "12345", "abcdef", "1234567", None]:
            self.assertIsNone(totp.match_step(self.SECRET, code, 59))

    def test_new_secret_and_recovery_codes(self):
        self.assertEqual(len(totp.new_secret()), 32)
        codes = totp.new_recovery_codes()
        self.assertEqual(len(set(codes)), totp.RECOVERY_CODE_COUNT)
        self.assertEqual(totp.normalise_recovery_code(" ABCD-efgh-2345 "), "abcdefgh2345")
        self.assertTrue(totp.provisioning_uri("ABC", "a@b.c").startswith("otpauth://totp/Quillmere%3Aa%40b.c?"))


class AuthPartsTest(unittest.TestCase):
    def test_loopback(self):
        for address in ["127.0.0.1", "127.0.0.2", "::1", "::ffff:127.0.0.1"]:
            self.assertTrue(is_loopback(address), address)
        for address in ["10.0.0.1", "192.168.1.2", "::ffff:10.0.0.1", "", "garbage"]:
            self.assertFalse(is_loopback(address), address)

    def test_rate_limiter_window(self):
        limiter = RateLimiter(2, 10)
        self.assertTrue(limiter.allow("a", 0))
        self.assertTrue(limiter.allow("a", 1))
        self.assertFalse(limiter.allow("a", 2))
        self.assertTrue(limiter.allow("b", 2))
        self.assertTrue(limiter.allow("a", 10.5))


class ProjectPathTest(unittest.TestCase):
    def test_normalised_absolute_path(self):
        self.assertEqual(normalise_root("/home/a/../b/./c/"), "/home/b/c")
        self.assertEqual(normalise_root("//srv//x"), "/srv/x")
        self.assertEqual(normalise_root("/"), "/")
        self.assertEqual(normalise_root(""), "")
        with self.assertRaises(ApiError):
            normalise_root("relative/path")


class ContextPackTest(unittest.TestCase):
    def item(self, title, content, updated_at=0):
        return {"id": title, "title": title, "content": content, "source": "", "updated_at": updated_at}

    def test_ranking_prefers_title_and_rare_words(self):
        items = [self.item("Deploy notes", "We deploy with a script."),
                 self.item("Testing convention", "Run the tests with ctest. Testing is done in CI."),
                 self.item("Style", "Tests are named after the unit.")]
        ranked = contextpack.rank(items, "how do we test?")
        self.assertEqual([item["title"] for item in ranked], ["Testing convention", "Style"])

    def test_stop_words_alone_match_nothing(self):
        self.assertEqual(contextpack.rank([self.item("The", "the and of")], "the and of"), [])
        self.assertEqual(contextpack.rank([self.item("A", "b")], ""), [])

    def test_budget_is_never_exceeded(self):
        items = [self.item("alpha", "x" * 50), self.item("alpha two", "alpha " * 30), self.item("alpha 3", "y")]
        ranked = contextpack.rank(items, "alpha")
        for budget in range(0, 400, 7):
            chosen, content = contextpack.assemble(ranked, budget)
            self.assertLessEqual(len(content), budget)
            if not chosen:
                self.assertEqual(content, "")

    def test_a_best_match_larger_than_the_budget_is_cut(self):
        chosen, content = contextpack.assemble([self.item("big", "word " * 1000)], 100)
        self.assertEqual(len(content), 100)
        self.assertTrue(content.startswith("## big\n\nword"))
        self.assertTrue(content.endswith(contextpack.ELLIPSIS))
        self.assertEqual(len(chosen), 1)


class HubTest(unittest.TestCase):
    def test_every_subscriber_gets_every_snapshot_in_order(self):
        state = {"n": 0}
        the_hub = hub.Hub(lambda: str(state["n"]).encode())
        subscribers = [the_hub.subscribe() for _ in range(3)]
        self.assertEqual([first for _, first in subscribers], [b"0"] * 3)
        for number in range(1, 4):
            state["n"] = number
            the_hub.publish()
        for subscription, _ in subscribers:
            self.assertEqual([subscription.get(0) for _ in range(3)], [b"1", b"2", b"3"])
            self.assertIsNone(subscription.get(0.01))
        the_hub.close()
        self.assertIs(subscribers[0][0].get(1), hub.CLOSED)

    def test_a_slow_subscriber_keeps_the_newest(self):
        counter = iter(range(1, 10000))
        the_hub = hub.Hub(lambda: str(next(counter)).encode())
        subscription, _ = the_hub.subscribe()
        for _ in range(hub.MAX_BACKLOG + 10):
            the_hub.publish()
        items = []
        while (item := subscription.get(0)) is not None:
            items.append(int(item))
        self.assertEqual(len(items), hub.MAX_BACKLOG)
        self.assertEqual(items[-1], hub.MAX_BACKLOG + 11)


class DatabaseTest(unittest.TestCase):
    def test_migrations_apply_once_in_order_and_a_failed_write_rolls_back(self):
        with tempfile.TemporaryDirectory() as folder:
            path = os.path.join(folder, "sub", "relay.db")
            migrations = [(2, "second", "ALTER TABLE t ADD COLUMN b TEXT;"), (1, "first", "CREATE TABLE t (a TEXT);")]
            db = Database(path, migrations)
            self.assertEqual(db.schema_version, 2)
            db.close()
            db = Database(path, migrations + [(3, "third", "CREATE INDEX t_a ON t (a);")])
            with db.read() as conn:
                versions = [row[0] for row in conn.execute("SELECT version FROM schema_migrations ORDER BY version")]
                mode = conn.execute("PRAGMA journal_mode").fetchone()[0]
            self.assertEqual(versions, [1, 2, 3])
            self.assertEqual(mode, "wal")
            with self.assertRaises(RuntimeError):
                with db.write() as conn:
                    conn.execute("INSERT INTO t (a) VALUES ('x')")
                    raise RuntimeError("handler failed")
            with db.read() as conn:
                self.assertEqual(conn.execute("SELECT count(*) FROM t").fetchone()[0], 0)
            self.assertTrue(db.integrity_ok())
            db.close()


if __name__ == "__main__":
    unittest.main()
