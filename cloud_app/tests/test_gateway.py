"""The gateway through the relay: programs holding a gateway key, authenticated as OpenAI and
Anthropic clients authenticate, reaching only the gateway's paths and only the lanes their key
allows, with errors in their own protocol's shape."""

import copy
import sqlite3
import time
import unittest

from support import GATEWAY_KEY, ROUTES
from test_router import RouterTestCase

ANTHROPIC = {"anthropic-version": "2023-06-01"}


class GatewayTestCase(RouterTestCase):
    def new_key(self, **changes):
        body = copy.deepcopy(GATEWAY_KEY)
        body.update(changes)
        status, created, _ = self.call("POST", "v1/router/api-keys", body)
        self.assertEqual(status, 200, created)
        return created

    def as_key(self, method, path, secret, body=None, header="bearer", headers=None):
        sent = dict(headers or {})
        if header == "bearer":
            return self.call(method, path, body, token=secret, headers=sent)
        sent["x-api-key"] = secret
        return self.call(method, path, body, token=None, headers=sent)


class KeyAuthenticationTest(GatewayTestCase):
    def test_models_lists_the_ready_lanes_for_a_bearer_key_and_an_x_api_key(self):
        secret = self.new_key()["key"]
        for header, extra in (("bearer", {}), ("x-api-key", ANTHROPIC)):
            with self.subTest(header=header):
                status, answer, _ = self.as_key("GET", "v1/models", secret, header=header, headers=extra)
                self.assertEqual(status, 200, answer)
                ids = [model["id"] for model in answer["data"]]
                self.assertEqual(ids[0], "auto")
                self.assertEqual(sorted(ids[1:]), sorted(["chat", "chat-stream", "responses", "responses-stream",
                                                          "messages", "messages-stream"]))
                self.assertEqual((answer["object"], answer["has_more"]), ("list", False))
                self.assertEqual((answer["first_id"], answer["last_id"]), (ids[0], ids[-1]))
                for model in answer["data"]:
                    self.assertEqual((model["object"], model["type"]), ("model", "model"))

    def test_allowlists_and_retention_narrow_the_models_a_key_reaches(self):
        only_chat = self.new_key(allowed_models=["chat", "messages"])["key"]
        ids = [model["id"] for model in self.as_key("GET", "v1/models", only_chat)[1]["data"]]
        self.assertEqual(ids, ["auto", "chat", "messages"])
        other_provider = self.new_key(allowed_providers=["someone-else"])["key"]
        self.assertEqual([model["id"] for model in self.as_key("GET", "v1/models", other_provider)[1]["data"]],
                         ["auto"])
        by_slug = self.new_key(allowed_providers=["fake/127.0.0.1:%d" % self.fake.port])["key"]
        self.assertEqual(len(self.as_key("GET", "v1/models", by_slug)[1]["data"]), 7)
        # The fake provider's lanes are in the "other" group and keep data: enforcing it leaves none.
        zdr = self.new_key(enforce_zdr_other=True)["key"]
        self.assertEqual([model["id"] for model in self.as_key("GET", "v1/models", zdr)[1]["data"]], ["auto"])

    def test_a_missing_wrong_revoked_or_expired_key_is_refused_in_the_callers_shape(self):
        created = self.new_key()
        status, answer, _ = self.call("GET", "v1/models", token=None)
        self.assertEqual(status, 401)
        self.assertEqual(answer["error"]["type"], "authentication_error")
        status, answer, _ = self.as_key("GET", "v1/models", "qmk_not-a-key")
        self.assertEqual((status, answer["error"]["message"]), (401, "invalid gateway key"))
        self.assertEqual(answer["error"]["code"], "authentication_error")
        status, answer, _ = self.as_key("GET", "v1/models", "wrong", header="x-api-key", headers=ANTHROPIC)
        self.assertEqual((status, answer["type"], answer["error"]["type"]), (401, "error", "authentication_error"))
        self.assertEqual(self.as_key("GET", "v1/models", created["key"])[0], 200)
        self.assertEqual(self.call("DELETE", f"v1/router/api-keys/{created['id']}")[0], 200)
        status, answer, _ = self.as_key("GET", "v1/models", created["key"], header="x-api-key", headers=ANTHROPIC)
        self.assertEqual((status, answer["error"]["type"]), (401, "authentication_error"))
        self.assertEqual(answer["error"]["message"], "this gateway key is revoked")
        expiring = self.new_key(expires_in_days=30)
        with sqlite3.connect(self.relay.db_path) as conn:
            conn.execute("UPDATE gateway_keys SET expires_at = ? WHERE id = ?", (time.time() - 1, expiring["id"]))
        status, answer, _ = self.as_key("GET", "v1/models", expiring["key"])
        self.assertEqual((status, answer["error"]["message"]), (401, "this gateway key is expired"))

    def test_a_session_token_is_not_a_gateway_key(self):
        status, answer, _ = self.call("GET", "v1/models")
        self.assertEqual((status, answer["error"]["message"]), (401, "invalid gateway key"))

    def test_a_gateway_key_reaches_no_other_path_of_the_relay(self):
        secret = self.new_key()["key"]
        gateway_paths = {"v1/models", "v1/chat/completions", "v1/responses", "v1/messages", "v1/complete"}
        checked = 0
        for method, pattern, auth, body in ROUTES:
            if not auth or pattern in gateway_paths:
                continue
            path = pattern.replace("{id}", "x").replace("{item}", "x")
            for header in ("bearer", "x-api-key"):
                status, answer, _ = self.as_key(method, path, secret, body, header=header)
                self.assertEqual(status, 401, (method, pattern, header, answer))
            checked += 1
        self.assertGreater(checked, 30)

    def test_use_is_shown_as_last_used_at(self):
        created = self.new_key()
        self.assertNotIn("last_used_at", created)
        before = int(time.time())
        self.as_key("GET", "v1/models", created["key"])
        listed = {key["id"]: key for key in self.call("GET", "v1/router/api-keys")[1]}
        self.assertGreaterEqual(listed[created["id"]]["last_used_at"], before)


if __name__ == "__main__":
    unittest.main()
