"""Connected apps through the relay, against a fake of Composio's REST API on loopback."""

import unittest

from fake_composio import FakeComposio
from support import RelayTestCase

UNCONFIGURED = "connected apps are not configured on this relay (set COMPOSIO_API_KEY)"


class UnconfiguredTest(RelayTestCase):
    def test_without_a_key_the_status_says_so_and_the_other_paths_refuse_plainly(self):
        status, answer, _ = self.call("GET", "v1/composio/status")
        self.assertEqual((status, answer), (200, {"configured": False, "toolkits": []}))
        for method, path, body in (("GET", "v1/composio/toolkits", None), ("GET", "v1/composio/connections", None),
                                   ("POST", "v1/composio/connections", {"toolkit": "github"})):
            with self.subTest(path=path, method=method):
                status, answer, _ = self.call(method, path, body)
                self.assertError(answer, status, 503, message=UNCONFIGURED)


class ComposioTestCase(RelayTestCase):
    offered = ""

    @classmethod
    def setUpClass(cls):
        cls.composio = FakeComposio().start()
        cls.relay_env = {"COMPOSIO_API_KEY": cls.composio.key, "COMPOSIO_BASE_URL": cls.composio.url,
                         "COMPOSIO_TOOLKITS": cls.offered}
        super().setUpClass()
        cls.bob, _ = cls.relay.code_token("bob@example.com")

    @classmethod
    def tearDownClass(cls):
        super().tearDownClass()
        cls.composio.stop()

    def setUp(self):
        self.composio.fail_with = None


class ConnectedAppsTest(ComposioTestCase):
    def test_toolkits_are_listed_in_composios_order_with_their_descriptions(self):
        status, answer, _ = self.call("GET", "v1/composio/status")
        self.assertEqual((status, answer), (200, {"configured": True, "toolkits": []}))
        status, toolkits, _ = self.call("GET", "v1/composio/toolkits")
        self.assertEqual(status, 200, toolkits)
        self.assertEqual(toolkits, [
            {"slug": "github", "name": "GitHub", "description": "Issues and pull requests."},
            {"slug": "slack", "name": "Slack", "description": "Channels and messages."},
            {"slug": "linear", "name": "Linear", "description": ""}])

    def test_a_connection_starts_with_a_link_and_shows_its_status_to_its_own_user_only(self):
        status, link, _ = self.call("POST", "v1/composio/connections", {"toolkit": "GitHub"})
        self.assertEqual(status, 200, link)
        self.assertTrue(link["redirect_url"].startswith("https://connect.example.com/link/"))
        account = link["connected_account_id"]
        status, connections, _ = self.call("GET", "v1/composio/connections")
        self.assertEqual(status, 200, connections)
        self.assertEqual([(item["id"], item["toolkit"], item["status"]) for item in connections],
                         [(account, "github", "INITIATED")])
        self.composio.activate(account)
        self.assertEqual(self.call("GET", "v1/composio/connections")[1][0]["status"], "ACTIVE")
        # A second connection reuses the toolkit's auth config; Bob has none of Alice's.
        self.assertEqual(self.call("POST", "v1/composio/connections", {"toolkit": "github"}, token=self.bob)[0], 200)
        created = [request for request in self.composio.requests if request[:2] == ("POST", "/api/v3/auth_configs")]
        self.assertEqual(len(created), 1)
        bobs = self.call("GET", "v1/composio/connections", token=self.bob)[1]
        self.assertEqual([item["status"] for item in bobs], ["INITIATED"])
        self.assertNotIn(account, [item["id"] for item in bobs])
        users = {request[3]["user_id"] for request in self.composio.requests
                 if request[:2] == ("POST", "/api/v3/connected_accounts/link")}
        self.assertEqual(len(users), 2)

    def test_bad_slugs_and_a_failing_composio_are_refused_without_the_key_showing(self):
        for body, message in (({"toolkit": "git hub"}, "toolkit must be a toolkit's slug (letters, digits, - and _)"),
                              ({"toolkit": ""}, "toolkit must not be empty"), ({}, "toolkit is required")):
            with self.subTest(body=body):
                status, answer, _ = self.call("POST", "v1/composio/connections", body)
                self.assertError(answer, status, 400, message=message)
        self.composio.fail_with = 500
        for method, path, body in (("GET", "v1/composio/toolkits", None), ("GET", "v1/composio/connections", None),
                                   ("POST", "v1/composio/connections", {"toolkit": "slack"})):
            with self.subTest(path=path, method=method):
                status, answer, _ = self.call(method, path, body)
                self.assertError(answer, status, 502, message="Composio could not be reached: it answered 500")
        self.assertNotIn(self.composio.key, self.relay.log())
        self.assertRelayIntact()


class OfferedToolkitsTest(ComposioTestCase):
    offered = "slack, github"

    def test_a_relay_that_offers_some_toolkits_lists_and_connects_only_those(self):
        self.assertEqual(self.call("GET", "v1/composio/status")[1], {"configured": True,
                                                                     "toolkits": ["slack", "github"]})
        self.assertEqual([item["slug"] for item in self.call("GET", "v1/composio/toolkits")[1]], ["slack", "github"])
        status, answer, _ = self.call("POST", "v1/composio/connections", {"toolkit": "linear"})
        self.assertError(answer, status, 400, message="toolkit linear is not offered by this relay")


if __name__ == "__main__":
    unittest.main()
