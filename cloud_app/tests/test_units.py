"""The relay's parts in process: constants, settings, JSON rules, routing, trust, the hub, the database."""

import asyncio
import os
import sqlite3
import stat
import tempfile
import types
import unittest

import support  # noqa: F401  (puts the relay on the import path)
from relaylib import clock, config, contextindex, contextpack, hub, jsonio, routing, totp, trust
from relaylib.auth import Auth, is_loopback, RateLimiter
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
        self.assertEqual(permission_hook.POLL_SECONDS, 10.0)
        self.assertEqual(config.UNPOLLED_WITHDRAW_SECONDS, 5.0)

    def test_input_and_connection_limits_have_their_defaults(self):
        self.assertEqual(config.SIGN_IN_BODY_BYTES, 16 * 1024)
        self.assertEqual(config.MAX_REQUEST_LINE_BYTES, 8190)
        self.assertEqual(config.MAX_HEADER_BYTES, 8190)
        self.assertEqual(config.MAX_HEADER_COUNT, 100)
        self.assertEqual(config.IDLE_TIMEOUT_SECONDS, 10.0)
        self.assertEqual(config.BODY_TIMEOUT_SECONDS, 30.0)
        self.assertEqual(config.LINGER_SECONDS, 2.0)
        self.assertEqual(config.MAX_CONNECTIONS, 4096)
        self.assertEqual(config.RESERVED_FILES, 256)
        self.assertEqual(config.WORKER_THREADS, 16)
        self.assertEqual(config.UPSTREAM_CONNECT_SECONDS, 10.0)
        self.assertEqual(config.UPSTREAM_READ_SECONDS, 60.0)
        self.assertEqual(config.UPSTREAM_TOTAL_SECONDS, 600.0)

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

    def test_env_file_others_can_write_is_refused(self):
        with tempfile.TemporaryDirectory() as folder:
            path = os.path.join(folder, "relay.env")
            with open(path, "w") as handle:
                handle.write("MERE_SMTP_HOST=mail.example\n")
            for mode in (0o666, 0o620, 0o602):
                os.chmod(path, mode)
                with self.assertRaises(config.SettingsError) as caught:
                    config.read_env_file(path)
                self.assertIn("can be written by other users", str(caught.exception))
                self.assertIn(f"chmod 600 {path}", str(caught.exception))
            for mode in (0o600, 0o644, 0o400):
                os.chmod(path, mode)
                self.assertEqual(config.read_env_file(path), {"MERE_SMTP_HOST": "mail.example"})

    def test_env_file_of_another_user_is_refused(self):
        info = os.stat_result((stat.S_IFREG | 0o600, 0, 0, 1, 4242, 4242, 0, 0, 0, 0))
        with self.assertRaises(config.SettingsError):
            config.check_env_file_owner("relay.env", info, uid=1000)
        config.check_env_file_owner("relay.env", info, uid=4242)

    def test_public_hosts_and_a_strict_port(self):
        settings = config.load_settings({"MERE_RELAY_PUBLIC_HOST": " Relay.Example.com , ,other.example:8443",
                                         "MERE_RELAY_PORT": "\u0668\u0667\u0668\u0667"})
        self.assertEqual(settings.public_hosts, ("relay.example.com", "other.example:8443"))
        self.assertEqual(settings.port, config.DEFAULT_PORT)

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

    def test_a_lone_surrogate_is_refused_naming_the_field(self):
        for raw, message in [(b'{"prompt": "a\\ud800"}', "prompt must be valid Unicode text"),
                             (b'{"chunks": [{"data": "x"}, {"data": "\\udc00"}]}', "chunks[1].data must be valid"),
                             (b'{"options": ["\\udfff"]}', "options[0] must be valid"),
                             (b'{"\\ud800": 1}', "key that is not valid Unicode"),
                             (b'"\\ud800"', "request body must be valid")]:
            with self.assertRaises(ApiError) as caught:
                jsonio.parse(raw)
            self.assertEqual(caught.exception.status, 400)
            self.assertIn(message, caught.exception.message)
        self.assertEqual(jsonio.parse(b'{"emoji": "\\ud83d\\ude00"}'), {"emoji": "\U0001F600"})

    def test_numbers_in_queries_are_ascii_digits(self):
        self.assertEqual(jsonio.whole_number("42", "limit", 1000), 42)
        for text in ["\u00b2", "\u0663", "4\u0662", "-1", "+1", " 1", "1_0", "1001", "", "9" * 40]:
            with self.assertRaises(ApiError):
                jsonio.whole_number(text, "limit", 1000)
        self.assertEqual(jsonio.whole_number("1", "limit", 1000, minimum=1), 1)
        with self.assertRaises(ApiError) as caught:
            jsonio.whole_number("0", "limit", 1000, minimum=1)
        self.assertEqual(caught.exception.message, "limit must be a whole number from 1 to 1000")
        self.assertEqual(jsonio.decimal_number("0.5"), 0.5)
        for text in ["\u0663", "nan", "inf", "1e3", ".5", "-1", "1_0", ""]:
            self.assertIsNone(jsonio.decimal_number(text), text)

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


class SessionMemoryTest(unittest.TestCase):
    """Sessions checked once are remembered; a sign-out is never undone by a check that read
    the session just before it."""

    class Caller:
        def __init__(self, token):
            self.token = token
            self.user = self.token_hash = None

        def bearer_token(self):
            return self.token

    def setUp(self):
        self.folder = tempfile.TemporaryDirectory()
        self.addCleanup(self.folder.cleanup)
        settings = config.load_settings({"MERE_RELAY_DB_PATH": os.path.join(self.folder.name, "relay.db")})
        self.db = Database(settings.db_path)
        self.addCleanup(self.db.close)
        self.auth = Auth(types.SimpleNamespace(db=self.db, settings=settings, mailer=None))
        with self.db.write() as conn:
            conn.execute("INSERT INTO users (id, email, created_at) VALUES ('u1', 'a@example.com', 'now')")
            self.token = self.auth.issue_session(conn, "u1")

    def test_a_checked_session_is_remembered_until_its_sign_out(self):
        caller = self.Caller(self.token)
        self.assertFalse(self.auth.authenticate_remembered(caller))
        self.auth.authenticate(caller)
        self.assertEqual(caller.user["id"], "u1")
        again = self.Caller(self.token)
        self.assertTrue(self.auth.authenticate_remembered(again))
        self.auth.logout(again)
        self.assertFalse(self.auth.authenticate_remembered(self.Caller(self.token)))
        with self.assertRaises(ApiError) as refused:
            self.auth.authenticate(self.Caller(self.token))
        self.assertEqual(refused.exception.status, 401)

    def test_a_session_read_before_a_sign_out_is_not_remembered_after_it(self):
        caller = self.Caller(self.token)
        self.auth.authenticate(caller)
        self.auth.logout(caller)
        # A check on another thread that read the session before the sign-out committed
        # finishes only now, with what it counted then.
        self.auth._remember(caller.token_hash, caller.user, clock.now() + 3600, 0)
        self.assertFalse(self.auth.authenticate_remembered(self.Caller(self.token)))


class ProjectPathTest(unittest.TestCase):
    def test_normalised_absolute_path(self):
        self.assertEqual(normalise_root("/home/a/../b/./c/"), "/home/b/c")
        self.assertEqual(normalise_root("//srv//x"), "/srv/x")
        self.assertEqual(normalise_root("/"), "/")
        self.assertEqual(normalise_root(""), "")
        with self.assertRaises(ApiError):
            normalise_root("relative/path")


class ContextPackTest(unittest.TestCase):
    def item(self, seq, title, content):
        return {"seq": seq, "id": f"ctx_{seq}", "title": title, "content": content}

    def assemble(self, items, budget):
        return contextpack.assemble(iter(items), budget)

    def test_query_terms_drop_stop_words_and_repeats_and_stop_at_the_cap(self):
        self.assertEqual(contextpack.query_terms("How do WE test the tests, test?"), ["do", "test", "tests"])
        self.assertEqual(contextpack.query_terms("the and of a"), [])
        many = " ".join(f"w{n}" for n in range(400))
        self.assertEqual(contextpack.query_terms(many), [f"w{n}" for n in range(contextpack.MAX_QUERY_TERMS)])
        self.assertEqual(contextpack.match_expression(["a1", "b"]), '"a1" OR "b"')

    def test_cut_at_word(self):
        self.assertEqual(contextpack.cut_at_word("alpha beta gamma", 100), "alpha beta gamma")
        self.assertEqual(contextpack.cut_at_word("alpha beta gamma", 12), "alpha beta")
        self.assertEqual(contextpack.cut_at_word("alpha beta gamma", 10), "alpha beta")
        self.assertEqual(contextpack.cut_at_word("alpha beta  gamma", 11), "alpha beta")
        self.assertEqual(contextpack.cut_at_word("x" * 50, 10), "x" * 10)

    def test_budget_is_never_exceeded(self):
        items = [self.item(1, "alpha", "x" * 50), self.item(2, "alpha two", "alpha " * 300),
                 self.item(3, "alpha 3", "y")]
        for budget in range(0, 2000, 7):
            chosen, content, cut, first_left = self.assemble(items, budget)
            self.assertLessEqual(len(content), budget)
            if not chosen:
                self.assertEqual(content, "")
            if cut is not None:
                self.assertTrue(content.endswith(contextpack.CUT_MARK))
                self.assertIs(cut[0], chosen[-1])
                self.assertIsNone(first_left)
            elif len(chosen) < len(items):
                self.assertIs(first_left, items[len(chosen)])

    def test_reads_only_what_goes_in(self):
        items = [self.item(n, f"t{n}", "word " * 100) for n in range(50)]
        ranked = iter(items)
        chosen, _, cut, _ = contextpack.assemble(ranked, 1200)
        self.assertEqual(len(chosen), 3)
        self.assertIsNotNone(cut)
        self.assertIs(next(ranked), items[3])

    def test_items_saved_before_the_index_existed_are_indexed_by_the_migration(self):
        from relaylib.migrations import MIGRATIONS
        folder = tempfile.mkdtemp(prefix="relay-fts-")
        path = os.path.join(folder, "relay.db")
        before = [entry for entry in MIGRATIONS if entry[0] < 7]
        old = Database(path, migrations=before)
        with old.write() as conn:
            conn.execute("INSERT INTO users VALUES ('usr_00aa', 'a@example.com', '2026', NULL, NULL)")
            conn.execute("INSERT INTO projects (id, user_id, name, root_path, created_at, updated_at) "
                         "VALUES ('prj_11bb11bb11bb11bb11bb11bb11bb11bb', 'usr_00aa', 'p', '/p', 0, 0)")
            conn.execute("INSERT INTO context_items (id, user_id, project_id, title, content, source, created_at, "
                         "updated_at) VALUES ('c1', 'usr_00aa', 'prj_11bb11bb11bb11bb11bb11bb11bb11bb', 'Old note', 'Written before the index.', '', 0, 0)")
        old.close()
        new = Database(path)
        try:
            with new.read_as("usr_00aa") as conn:
                answer = contextpack.build(conn, "prj_11bb11bb11bb11bb11bb11bb11bb11bb", "index", 1000)
            self.assertEqual([item["id"] for item in answer["items"]], ["c1"])
            with new.write_as("usr_00aa") as conn:
                conn.execute("DELETE FROM projects WHERE id = 'prj_11bb11bb11bb11bb11bb11bb11bb11bb' AND user_id = :user_id")
            with new.write() as conn:
                self.assertEqual(contextindex.drop_orphaned(conn), 1)
        finally:
            new.close()

    def test_each_project_gets_its_own_index_from_the_one_before(self):
        from relaylib.migrations import MIGRATIONS
        folder = tempfile.mkdtemp(prefix="relay-split-")
        path = os.path.join(folder, "relay.db")
        old = Database(path, migrations=[entry for entry in MIGRATIONS if entry[0] < 12])
        first, second = "prj_" + "1" * 32, "prj_" + "2" * 32
        with old.write() as conn:
            conn.execute("INSERT INTO users VALUES ('usr_00aa', 'a@example.com', '2026', NULL, NULL)")
            for project in (first, second):
                conn.execute("INSERT INTO projects (id, user_id, name, root_path, created_at, updated_at) "
                             "VALUES (?, 'usr_00aa', 'p', ?, 0, 0)", (project, "/" + project))
            for item, project, title in [("c1", first, "Parser notes"), ("c2", second, "Parser too")]:
                conn.execute("INSERT INTO context_items (id, user_id, project_id, title, content, source, "
                             "created_at, updated_at) VALUES (?, 'usr_00aa', ?, ?, 'About the parser.', '', 0, 0)",
                             (item, project, title))
        old.close()
        new = Database(path)
        try:
            with new.read_as("usr_00aa") as conn:
                for project, item in ((first, "c1"), (second, "c2")):
                    answer = contextpack.build(conn, project, "parser", 1000)
                    self.assertEqual([found["id"] for found in answer["items"]], [item])
            with new.read() as conn:
                tables = {row[0] for row in conn.execute("SELECT name FROM sqlite_master WHERE type = 'table'")}
            self.assertNotIn("context_search", tables)
            self.assertLessEqual({contextindex.table(first), contextindex.table(second)}, tables)
            # A project removed by hand loses its index at the next start.
            with new.write() as conn:
                conn.execute("DELETE FROM projects WHERE id = ?", (second,))
                self.assertEqual(contextindex.drop_orphaned(conn), 1)
                self.assertEqual(contextindex.drop_orphaned(conn), 0)
                names = {row[0] for row in conn.execute("SELECT name FROM sqlite_master WHERE type = 'table'")}
            self.assertNotIn(contextindex.table(second), names)
            self.assertIn(contextindex.table(first), names)
        finally:
            new.close()

    def test_index_names_come_only_from_the_relays_own_project_ids(self):
        self.assertEqual(contextindex.table("prj_" + "ab" * 16), "context_search_" + "ab" * 16)
        for hostile in ["prj_x; DROP TABLE users", "prj_" + "A" * 32, "prj_" + "a" * 31, "ctx_" + "a" * 32, ""]:
            with self.assertRaises(ValueError):
                contextindex.table(hostile)


class HubTest(unittest.TestCase):
    """The hub on a real event loop, with publishing from worker threads as the relay does."""

    def run_hub(self, scenario, build):
        async def main():
            loop = asyncio.get_running_loop()
            the_hub = hub.Hub(build)
            the_hub.bind(loop)

            async def in_thread(function, *args):
                return await loop.run_in_executor(None, function, *args)

            return await scenario(the_hub, in_thread)

        return asyncio.run(main())

    def test_every_stream_of_a_user_gets_every_snapshot_in_order_and_no_one_else_does(self):
        state = {"alice": 0, "bob": 0}

        async def scenario(the_hub, in_thread):
            alice = [await in_thread(the_hub.subscribe, "alice") for _ in range(3)]
            bob, bob_first = await in_thread(the_hub.subscribe, "bob")
            self.assertEqual([first for _, first in alice], [b"alice 0"] * 3)
            for number in range(1, 4):
                state["alice"] = number
                await in_thread(the_hub.publish, "alice")
            for subscription, _ in alice:
                self.assertEqual([await subscription.get(1) for _ in range(3)],
                                 [hub.frame(f"alice {n}".encode()) for n in (1, 2, 3)])
                self.assertIsNone(await subscription.get(0.01))
            self.assertIsNone(await bob.get(0.01))
            the_hub.unsubscribe(alice[0][0])
            self.assertEqual(the_hub.subscriber_count, 3)
            the_hub.close()
            self.assertIs(await bob.get(1), hub.CLOSED)

        self.run_hub(scenario, lambda user: f"{user} {state[user]}".encode())

    def test_a_slow_subscriber_keeps_the_newest(self):
        counter = iter(range(10000))

        async def scenario(the_hub, in_thread):
            subscription, _ = await in_thread(the_hub.subscribe, "u")
            for _ in range(hub.MAX_BACKLOG + 10):
                await in_thread(the_hub.publish, "u")
            items = []
            while (item := await subscription.get(0)) is not None:
                items.append(item)
            self.assertEqual(len(items), hub.MAX_BACKLOG)
            self.assertEqual(items[-1], hub.frame(str(hub.MAX_BACKLOG + 10).encode()))

        self.run_hub(scenario, lambda user: str(next(counter)).encode())

    def test_nothing_is_built_for_a_user_without_streams(self):
        built = []

        async def scenario(the_hub, in_thread):
            await in_thread(the_hub.publish, "nobody")
            self.assertEqual(built, [])

        self.run_hub(scenario, lambda user: built.append(user) or b"{}")

    def test_a_waiter_wakes_at_the_next_resolution(self):
        async def scenario(the_hub, in_thread):
            loop = asyncio.get_running_loop()
            generation = the_hub.generation
            started = loop.time()
            loop.call_later(0.05, the_hub.notify_resolved)
            await the_hub.wait_resolution(generation, 5)
            self.assertLess(loop.time() - started, 2)
            self.assertEqual(the_hub.generation, generation + 1)
            # A resolution that came before the wait began is not waited for.
            started = loop.time()
            await the_hub.wait_resolution(generation, 5)
            self.assertLess(loop.time() - started, 0.5)

        self.run_hub(scenario, lambda user: b"{}")


class HttpPartsTest(unittest.TestCase):
    def test_a_declared_length_is_ascii_digits_once(self):
        from multidict import CIMultiDict
        from relaylib.web import content_length
        self.assertIsNone(content_length(CIMultiDict()))
        self.assertEqual(content_length(CIMultiDict({"Content-Length": " 42 "})), 42)
        for values in [["\u00b2"], ["-1"], ["+5"], ["5, 5"], ["Authorization: Bearer x"], ["\udcea"], [""],
                       ["9" * 40], ["5", "5"]]:
            headers = CIMultiDict([("Content-Length", value) for value in values])
            with self.assertRaises(ApiError) as caught:
                content_length(headers)
            self.assertEqual((caught.exception.status, caught.exception.close), (400, True))

    def test_a_logged_traceback_never_repeats_an_exceptions_message(self):
        import logging
        from relaylib.app import QuietFormatter
        secret = "-".join(["secret", "token", "value"])
        try:
            try:
                int("Authorization: Bearer " + secret)
            except ValueError as inner:
                raise KeyError(secret) from inner
        except KeyError:
            import sys
            record = logging.LogRecord("relay", logging.ERROR, __file__, 1, "unexpected failure", None,
                                       sys.exc_info())
        text = QuietFormatter("%(message)s").format(record)
        self.assertNotIn("secret-token-value", text)
        self.assertIn("Traceback (most recent call last):", text)
        self.assertIn("test_a_logged_traceback_never_repeats_an_exceptions_message", text)
        self.assertIn("builtins.KeyError (after ValueError)", text)


class TrustTest(unittest.TestCase):
    def test_host_must_name_the_relay(self):
        rules = trust.HostRules("127.0.0.1", 8787)
        for host in ["127.0.0.1:8787", "localhost:8787", "LOCALHOST:8787", "[::1]:8787"]:
            self.assertTrue(rules.host_allowed(host), host)
        for host in [None, "", "127.0.0.1", "127.0.0.1:8788", "evil.example:8787", "evil.example",
                     "127.0.0.1:8787.evil.example", "0.0.0.0:8787", "127.0.0.2:8787", "localhost:8787 x",
                     "l\u00f6calhost:8787"]:
            self.assertFalse(rules.host_allowed(host), host)

    def test_a_hosted_relay_answers_to_its_public_name_and_bound_address(self):
        rules = trust.HostRules("0.0.0.0", 8787, ("relay.example.com", "other.example:8443"))
        for host in ["relay.example.com", "relay.example.com:8787", "other.example:8443", "127.0.0.1:8787"]:
            self.assertTrue(rules.host_allowed(host), host)
        for host in ["other.example", "0.0.0.0:8787", "relay.example.com:9999"]:
            self.assertFalse(rules.host_allowed(host), host)
        self.assertTrue(trust.HostRules("192.168.1.5", 8787).host_allowed("192.168.1.5:8787"))
        self.assertTrue(trust.HostRules("::1", 8787).host_allowed("[::1]:8787"))

    def test_only_the_relays_own_origin(self):
        rules = trust.HostRules("127.0.0.1", 8787, ("relay.example.com",))
        for origin in [None, "http://127.0.0.1:8787", "http://localhost:8787", "https://relay.example.com"]:
            self.assertTrue(rules.origin_allowed(origin), origin)
        for origin in ["null", "", "http://evil.example", "http://evil.example:8787", "http://127.0.0.1:8788",
                       "file://", "http://127.0.0.1:8787/path", "chrome-extension://abc", "http://[::1]:9"]:
            self.assertFalse(rules.origin_allowed(origin), origin)
        for site in [None, "same-origin", "none"]:
            self.assertTrue(rules.fetch_site_allowed(site))
        for site in ["cross-site", "same-site"]:
            self.assertFalse(rules.fetch_site_allowed(site))


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

    def test_only_a_write_that_changed_rows_counts_as_a_commit_to_checkpoint(self):
        with tempfile.TemporaryDirectory() as folder:
            db = Database(os.path.join(folder, "relay.db"), [(1, "table", "CREATE TABLE t (a TEXT);")])
            before = db.commits
            with db.write() as conn:
                conn.execute("UPDATE t SET a = 'y' WHERE a = 'nothing'")
            self.assertEqual(db.commits, before)
            with db.write() as conn:
                conn.execute("INSERT INTO t (a) VALUES ('x')")
            self.assertEqual(db.commits, before + 1)
            with self.assertRaises(RuntimeError):
                with db.write() as conn:
                    conn.execute("INSERT INTO t (a) VALUES ('z')")
                    raise RuntimeError("handler failed")
            self.assertEqual(db.commits, before + 1)
            db.close()

    def test_a_migration_may_be_a_function(self):
        with tempfile.TemporaryDirectory() as folder:
            def fill(conn):
                conn.execute("INSERT INTO t VALUES ('filled')")
            db = Database(os.path.join(folder, "relay.db"), [(1, "table", "CREATE TABLE t (a TEXT);"), (2, "fill", fill)])
            with db.read() as conn:
                self.assertEqual(conn.execute("SELECT a FROM t").fetchall()[0][0], "filled")
            db.close()

    def test_folder_and_files_are_private(self):
        with tempfile.TemporaryDirectory() as folder:
            data = os.path.join(folder, "data")
            os.makedirs(data, mode=0o755)
            os.chmod(data, 0o755)
            path = os.path.join(data, "relay.db")
            with open(path + "-shm", "w"):
                pass
            os.chmod(path + "-shm", 0o644)
            db = Database(path)
            with db.write() as conn:
                conn.execute("INSERT INTO users (id, email, created_at) VALUES ('u', 'u@x', 'now')")
            self.assertEqual(stat.S_IMODE(os.stat(data).st_mode), 0o700)
            for suffix in ("", "-wal", "-shm"):
                self.assertEqual(stat.S_IMODE(os.stat(path + suffix).st_mode), 0o600, suffix)
            db.close()
            fresh = os.path.join(folder, "new", "deeper", "relay.db")
            Database(fresh).close()
            self.assertEqual(stat.S_IMODE(os.stat(os.path.dirname(fresh)).st_mode), 0o700)

    def test_a_shared_folder_is_left_alone(self):
        with tempfile.TemporaryDirectory() as folder:
            os.chmod(folder, 0o1777)
            with self.assertLogs("relay", "WARNING"):
                Database(os.path.join(folder, "relay.db")).close()
            self.assertEqual(stat.S_IMODE(os.stat(folder).st_mode), 0o1777)
            self.assertEqual(stat.S_IMODE(os.stat(os.path.join(folder, "relay.db")).st_mode), 0o600)

    def test_scoped_statements_must_name_the_user(self):
        with tempfile.TemporaryDirectory() as folder:
            db = Database(os.path.join(folder, "relay.db"), [(1, "t", "CREATE TABLE t (user_id TEXT, a TEXT);")])
            with db.write_as("alice") as conn:
                conn.execute("INSERT INTO t VALUES (:user_id, :a)", {"a": "mine"})
            with db.write_as("bob") as conn:
                conn.execute("INSERT INTO t VALUES (:user_id, :a)", {"a": "his"})
            with db.read_as("alice") as conn:
                self.assertEqual([row["a"] for row in conn.execute("SELECT a FROM t WHERE user_id = :user_id")],
                                 ["mine"])
                with self.assertRaises(ValueError):
                    conn.execute("SELECT a FROM t")
                # The caller cannot bind the user to someone else.
                rows = conn.execute("SELECT a FROM t WHERE user_id = :user_id", {"user_id": "bob"}).fetchall()
                self.assertEqual([row["a"] for row in rows], ["mine"])
            with self.assertRaises(ValueError), db.read_as(""):
                pass
            db.close()

    def test_records_from_before_owners_go_to_the_first_user(self):
        from relaylib.migrations import MIGRATIONS
        with tempfile.TemporaryDirectory() as folder:
            path = os.path.join(folder, "relay.db")
            Database(path, MIGRATIONS[:1]).close()
            with sqlite3.connect(path) as conn:
                conn.execute("INSERT INTO users (id, email, created_at) VALUES ('usr_first', 'a@x', '2026-01-01')")
                conn.execute("INSERT INTO users (id, email, created_at) VALUES ('usr_later', 'b@x', '2026-02-01')")
                conn.execute("INSERT INTO interrupts (id, status, payload, raised_at) "
                             "VALUES ('int_1', 'open', '{\"prompt\":\"bad \\ud800 text\"}', 1)")
                conn.execute("INSERT INTO runs VALUES ('run', 'n', 'running', 'started', 0, 0, 1, 1)")
                conn.execute("INSERT INTO projects VALUES ('prj_1', 'p', '/p', 1, 1)")
                conn.execute("INSERT INTO context_items VALUES ('ctx_1', 'prj_1', 't', 'c', '', 1, 1)")
                conn.execute("INSERT INTO terminal_sessions VALUES ('ts_1', NULL, 'desktop', 1, NULL)")
                conn.execute("INSERT INTO terminal_chunks VALUES ('ts_1', 1, 'input', 'ls', 't')")
            db = Database(path)
            with db.read() as conn:
                for table in ("interrupts", "runs", "projects", "context_items", "terminal_sessions"):
                    owners = {row[0] for row in conn.execute(f"SELECT user_id FROM {table}")}
                    self.assertEqual(owners, {"usr_first"}, table)
                self.assertEqual(conn.execute("SELECT count(*) FROM terminal_chunks").fetchone()[0], 1)
                payload = conn.execute("SELECT payload FROM interrupts").fetchone()[0]
            self.assertEqual(jsonio.parse(payload.encode())["prompt"], "bad \ufffd text")
            self.assertTrue(db.integrity_ok())
            db.close()


if __name__ == "__main__":
    unittest.main()
