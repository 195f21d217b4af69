"""Sign-in: local sessions, e-mailed codes, the second factor, sessions and sign-out."""

import os
import re
import socket
import stat
import subprocess
import sys
import time

import support
from fake_smtp import FakeSmtp
from relaylib import totp
from support import RelayTestCase


def outbox_code(relay, address):
    """The latest code written to the local outbox for this address."""
    with open(os.path.join(relay.folder, "relay-outbox.txt"), encoding="utf-8") as handle:
        lines = [line for line in handle if f" to={address} " in line]
    return lines[-1].rsplit("code=", 1)[1].strip()


def fresh_totp_code(secret):
    """The present code, taken away from the end of its step so that it is still valid when checked."""
    if totp.STEP_SECONDS - time.time() % totp.STEP_SECONDS < 2:
        time.sleep(2.1)
    return totp.code_at(secret, time.time())


class LocalSignInTest(RelayTestCase):
    def test_local_session_on_loopback(self):
        status, answer, _ = self.call("POST", "v1/auth/local", {}, token=None)
        self.assertEqual(status, 200)
        self.assertEqual(set(answer), {"token", "user"})
        self.assertEqual(answer["user"]["email"], "local@localhost")
        self.assertGreaterEqual(len(answer["token"]), 40)
        status, me, _ = self.call("GET", "v1/me", token=answer["token"])
        self.assertEqual((status, me), (200, answer["user"]))

    def test_every_local_session_has_its_own_token_for_the_same_user(self):
        first = self.call("POST", "v1/auth/local", token=None)[1]
        second = self.call("POST", "v1/auth/local", raw=b"", token=None)[1]
        self.assertNotEqual(first["token"], second["token"])
        self.assertEqual(first["user"], second["user"])

    def test_local_body_must_be_an_object(self):
        status, answer, _ = self.call("POST", "v1/auth/local", raw=b"[]", token=None)
        self.assertError(answer, status, 400, "request body must be a JSON object")

    def test_token_is_stored_only_as_a_hash(self):
        with open(self.relay.db_path, "rb") as handle:
            self.assertNotIn(self.token.encode(), handle.read())
        wal = self.relay.db_path + "-wal"
        if os.path.exists(wal):
            with open(wal, "rb") as handle:
                self.assertNotIn(self.token.encode(), handle.read())

    def test_logout_ends_the_session(self):
        token = self.relay.local_token()
        status, answer, _ = self.call("POST", "v1/auth/logout", token=token)
        self.assertEqual((status, answer), (200, {"signed_out": True}))
        status, answer, _ = self.call("GET", "v1/me", token=token)
        self.assertError(answer, status, 401, "invalid or expired session token")
        status, answer, _ = self.call("POST", "v1/auth/logout", token=None)
        self.assertError(answer, status, 401, "missing session token")


class LocalSignInDisabledTest(RelayTestCase):
    relay_env = {"MERE_RELAY_LOCAL_AUTH": "0"}
    needs_token = False

    def test_refused_with_the_message_the_client_recognises(self):
        status, answer, _ = self.call("POST", "v1/auth/local", {}, token=None)
        self.assertError(answer, status, 403, "local authentication is disabled")


class CodeSignInTest(RelayTestCase):
    relay_env = {"MERE_RELAY_CODE_RATE_LIMIT_PER_IP": "1000"}

    def request_code(self, address):
        return self.call("POST", "v1/auth/request-code", {"email": address}, token=None)

    def test_code_sign_in_creates_the_user_once(self):
        status, answer, _ = self.request_code("  Person@Example.COM ")
        self.assertEqual((status, answer), (200, {"sent": True}))
        code = outbox_code(self.relay, "person@example.com")
        self.assertRegex(code, r"^\d{6}$")
        status, answer, _ = self.call("POST", "v1/auth/verify-code",
                                      {"email": "person@example.com", "code": code}, token=None)
        self.assertEqual(status, 200, answer)
        self.assertEqual(set(answer), {"token", "user"})
        self.assertEqual(answer["user"]["email"], "person@example.com")
        user_id = answer["user"]["id"]
        self.request_code("person@example.com")
        code = outbox_code(self.relay, "person@example.com")
        answer = self.call("POST", "v1/auth/verify-code", {"email": "person@example.com", "code": code}, token=None)[1]
        self.assertEqual(answer["user"]["id"], user_id)

    def test_a_code_is_used_once(self):
        self.request_code("once@example.com")
        body = {"email": "once@example.com", "code": outbox_code(self.relay, "once@example.com")}
        self.assertEqual(self.call("POST", "v1/auth/verify-code", body, token=None)[0], 200)
        status, answer, _ = self.call("POST", "v1/auth/verify-code", body, token=None)
        self.assertError(answer, status, 401, "code expired or never requested; request a new code")

    def test_five_wrong_codes_spend_the_code(self):
        self.request_code("tries@example.com")
        code = outbox_code(self.relay, "tries@example.com")
        wrong = "000000" if code != "000000" else "111111"
        for attempt in range(1, 5):
            status, answer, _ = self.call("POST", "v1/auth/verify-code",
                                          {"email": "tries@example.com", "code": wrong}, token=None)
            self.assertError(answer, status, 401, "incorrect code")
        status, answer, _ = self.call("POST", "v1/auth/verify-code",
                                      {"email": "tries@example.com", "code": wrong}, token=None)
        self.assertError(answer, status, 401, "incorrect code; too many attempts, request a new code")
        status, answer, _ = self.call("POST", "v1/auth/verify-code",
                                      {"email": "tries@example.com", "code": code}, token=None)
        self.assertError(answer, status, 401, "code expired or never requested; request a new code")

    def test_a_new_request_replaces_the_old_code(self):
        self.request_code("again@example.com")
        old = outbox_code(self.relay, "again@example.com")
        self.request_code("again@example.com")
        new = outbox_code(self.relay, "again@example.com")
        if old != new:
            status, _, _ = self.call("POST", "v1/auth/verify-code", {"email": "again@example.com", "code": old},
                                     token=None)
            self.assertEqual(status, 401)
        status, _, _ = self.call("POST", "v1/auth/verify-code", {"email": "again@example.com", "code": new},
                                 token=None)
        self.assertEqual(status, 200)

    def test_rate_limit_per_address(self):
        for _ in range(5):
            self.assertEqual(self.request_code("busy@example.com")[0], 200)
        status, answer, _ = self.request_code("busy@example.com")
        self.assertError(answer, status, 429, "too many sign-in codes requested; try again later")

    def test_validation(self):
        status, answer, _ = self.call("POST", "v1/auth/request-code", {}, token=None)
        self.assertError(answer, status, 400, "email is required")
        status, answer, _ = self.request_code("not-an-address")
        self.assertError(answer, status, 400, "email must be an e-mail address")
        status, answer, _ = self.call("POST", "v1/auth/request-code", {"email": 5}, token=None)
        self.assertError(answer, status, 400, "email must be a string, not a number")
        status, answer, _ = self.call("POST", "v1/auth/verify-code", {"email": "a@b.c", "code": 123456}, token=None)
        self.assertError(answer, status, 400, "code must be a string, not a number")
        status, answer, _ = self.call("POST", "v1/auth/verify-code", {"email": "nobody@b.c", "code": "123456"},
                                      token=None)
        self.assertError(answer, status, 401, "code expired or never requested; request a new code")

    def test_code_goes_to_the_private_outbox_and_never_to_the_log(self):
        self.request_code("outbox@example.com")
        code = outbox_code(self.relay, "outbox@example.com")
        outbox = os.path.join(self.relay.folder, "relay-outbox.txt")
        self.assertEqual(stat.S_IMODE(os.stat(outbox).st_mode), 0o600)
        support.wait_for(lambda: "a sign-in code was written to the outbox file" in self.relay.log())
        self.assertNotIn(code, self.relay.log())
        self.assertNotIn("outbox@example.com", self.relay.log())
        with open(self.relay.db_path, "rb") as handle:
            self.assertNotIn(f"code={code}".encode(), handle.read())

    def test_an_outbox_left_readable_by_others_is_made_private(self):
        outbox = os.path.join(self.relay.folder, "relay-outbox.txt")
        self.request_code("first@example.com")
        os.chmod(outbox, 0o644)
        self.request_code("second@example.com")
        self.assertEqual(stat.S_IMODE(os.stat(outbox).st_mode), 0o600)
        self.assertRegex(outbox_code(self.relay, "second@example.com"), r"^\d{6}$")


class CodeExpiryTest(RelayTestCase):
    relay_env = {"MERE_RELAY_CODE_TTL_SECONDS": "0.4"}

    def test_code_expires(self):
        self.call("POST", "v1/auth/request-code", {"email": "late@example.com"}, token=None)
        code = outbox_code(self.relay, "late@example.com")
        time.sleep(0.6)
        status, answer, _ = self.call("POST", "v1/auth/verify-code", {"email": "late@example.com", "code": code},
                                      token=None)
        self.assertError(answer, status, 401, "code expired or never requested; request a new code")


class RateLimitPerClientTest(RelayTestCase):
    relay_env = {"MERE_RELAY_CODE_RATE_LIMIT_PER_IP": "3"}

    def test_rate_limit_per_client_address(self):
        for number in range(3):
            self.assertEqual(self.call("POST", "v1/auth/request-code", {"email": f"u{number}@example.com"},
                                       token=None)[0], 200)
        status, answer, _ = self.call("POST", "v1/auth/request-code", {"email": "u9@example.com"}, token=None)
        self.assertError(answer, status, 429, "too many sign-in codes requested; try again later")


class SecondFactorTest(RelayTestCase):
    relay_env = {"MERE_RELAY_CODE_RATE_LIMIT_PER_IP": "1000", "MERE_RELAY_CODE_RATE_LIMIT_PER_EMAIL": "1000"}

    @classmethod
    def setUpClass(cls):
        super().setUpClass()
        result = subprocess.run([sys.executable, support.SERVER, "totp-enable", "Two@Example.com",
                                 "--db", cls.relay.db_path], capture_output=True, text=True, check=True)
        cls.admin_output = result.stdout
        cls.secret = re.search(r"Secret \(.*\): ([A-Z2-7]+)", result.stdout).group(1)
        cls.recovery = re.findall(r"^  ([a-z0-9]{4}-[a-z0-9]{4}-[a-z0-9]{4})$", result.stdout, re.M)

    def ticket(self):
        self.call("POST", "v1/auth/request-code", {"email": "two@example.com"}, token=None)
        code = outbox_code(self.relay, "two@example.com")
        status, answer, _ = self.call("POST", "v1/auth/verify-code", {"email": "two@example.com", "code": code},
                                      token=None)
        self.assertEqual(status, 200)
        self.assertEqual(set(answer), {"mfa_required", "mfa_ticket", "methods"})
        self.assertIs(answer["mfa_required"], True)
        self.assertEqual(answer["methods"], ["totp"])
        return answer["mfa_ticket"]

    def verify(self, ticket, code):
        return self.call("POST", "v1/auth/mfa/verify", {"mfa_ticket": ticket, "code": code}, token=None)

    def test_admin_command_prints_secret_uri_and_ten_recovery_codes(self):
        self.assertIn("Two-factor sign-in is on for two@example.com.", self.admin_output)
        self.assertIn("otpauth://totp/", self.admin_output)
        self.assertEqual(len(self.recovery), 10)

    def test_authenticator_code_signs_in_once(self):
        code = fresh_totp_code(self.secret)
        status, answer, _ = self.verify(self.ticket(), code)
        self.assertEqual(status, 200, answer)
        self.assertEqual(answer["user"]["email"], "two@example.com")
        status, answer, _ = self.verify(self.ticket(), code)
        self.assertError(answer, status, 401, "incorrect code")

    def test_recovery_code_works_once(self):
        code = self.recovery[0].upper()
        status, answer, _ = self.verify(self.ticket(), code)
        self.assertEqual(status, 200, answer)
        status, answer, _ = self.verify(self.ticket(), code)
        self.assertError(answer, status, 401, "incorrect code")

    def test_ticket_is_single_use_and_dies_after_five_tries(self):
        ticket = self.ticket()
        self.assertEqual(self.verify(ticket, self.recovery[1])[0], 200)
        status, answer, _ = self.verify(ticket, self.recovery[2])
        self.assertError(answer, status, 401, "sign-in ticket expired or unknown; start over")
        ticket = self.ticket()
        for _ in range(4):
            status, answer, _ = self.verify(ticket, "nonsense")
            self.assertError(answer, status, 401, "incorrect code")
        status, answer, _ = self.verify(ticket, "nonsense")
        self.assertError(answer, status, 401, "incorrect code; too many attempts, start over")
        status, answer, _ = self.verify(ticket, self.recovery[3])
        self.assertError(answer, status, 401, "sign-in ticket expired or unknown; start over")

    def test_validation(self):
        status, answer, _ = self.call("POST", "v1/auth/mfa/verify", {"code": "1"}, token=None)
        self.assertError(answer, status, 400, "mfa_ticket is required")
        status, answer, _ = self.call("POST", "v1/auth/mfa/verify", {"mfa_ticket": "t", "code": 5}, token=None)
        self.assertError(answer, status, 400, "code must be a string, not a number")

    def test_secret_and_recovery_codes_never_reach_the_log(self):
        log = self.relay.log()
        self.assertNotIn(self.secret, log)
        for code in self.recovery:
            self.assertNotIn(code, log)

    def test_disable_command(self):
        result = subprocess.run([sys.executable, support.SERVER, "totp-disable", "nobody@example.com",
                                 "--db", self.relay.db_path], capture_output=True, text=True)
        self.assertEqual(result.returncode, 1)
        self.assertIn("No user with the address", result.stdout)


class MailDeliveryTest(RelayTestCase):
    @classmethod
    def setUpClass(cls):
        cls.smtp = FakeSmtp()
        cls.relay_env = {"MERE_SMTP_HOST": "127.0.0.1", "MERE_SMTP_PORT": str(cls.smtp.port),
                         "MERE_SMTP_SECURITY": "none", "MERE_SMTP_FROM": "relay@example.com"}
        super().setUpClass()

    @classmethod
    def tearDownClass(cls):
        super().tearDownClass()
        cls.smtp.close()

    def test_code_is_mailed_and_nowhere_else(self):
        status, answer, _ = self.call("POST", "v1/auth/request-code", {"email": "mail@example.com"}, token=None)
        self.assertEqual((status, answer), (200, {"sent": True}))
        recipients, message = self.smtp.messages[-1]
        self.assertEqual(recipients, ["mail@example.com"])
        code = re.search(r"sign-in code is (\d{6})", message).group(1)
        self.assertFalse(os.path.exists(os.path.join(self.relay.folder, "relay-outbox.txt")))
        support.wait_for(lambda: "sign-in code sent by mail" in self.relay.log())
        self.assertNotIn(code, self.relay.log())
        status, answer, _ = self.call("POST", "v1/auth/verify-code", {"email": "mail@example.com", "code": code},
                                      token=None)
        self.assertEqual(status, 200)


class MailFailureTest(RelayTestCase):
    @classmethod
    def setUpClass(cls):
        with socket.socket() as probe:
            probe.bind(("127.0.0.1", 0))
            closed_port = probe.getsockname()[1]
        cls.relay_env = {"MERE_SMTP_HOST": "127.0.0.1", "MERE_SMTP_PORT": str(closed_port),
                         "MERE_SMTP_SECURITY": "none"}
        super().setUpClass()

    def test_failed_delivery_is_502(self):
        status, answer, _ = self.call("POST", "v1/auth/request-code", {"email": "x@example.com"}, token=None)
        self.assertError(answer, status, 502, "could not send the sign-in code; try again later")


class SessionExpiryTest(RelayTestCase):
    relay_env = {"MERE_RELAY_SESSION_TTL_SECONDS": "0.5"}

    def test_session_expires(self):
        token = self.relay.local_token()
        self.assertEqual(self.call("GET", "v1/me", token=token)[0], 200)
        time.sleep(0.7)
        status, answer, _ = self.call("GET", "v1/me", token=token)
        self.assertError(answer, status, 401, "invalid or expired session token")


class TicketExpiryTest(RelayTestCase):
    relay_env = {"MERE_RELAY_MFA_TICKET_TTL_SECONDS": "0.4"}

    def test_second_factor_ticket_expires(self):
        result = subprocess.run([sys.executable, support.SERVER, "totp-enable", "slow@example.com",
                                 "--db", self.relay.db_path], capture_output=True, text=True, check=True)
        recovery = re.findall(r"^  (\S+)$", result.stdout, re.M)[0]
        self.call("POST", "v1/auth/request-code", {"email": "slow@example.com"}, token=None)
        code = outbox_code(self.relay, "slow@example.com")
        ticket = self.call("POST", "v1/auth/verify-code", {"email": "slow@example.com", "code": code},
                           token=None)[1]["mfa_ticket"]
        time.sleep(0.6)
        status, answer, _ = self.call("POST", "v1/auth/mfa/verify", {"mfa_ticket": ticket, "code": recovery},
                                      token=None)
        self.assertError(answer, status, 401, "sign-in ticket expired or unknown; start over")
