"""Connected apps through Composio: which toolkits the account may connect, the connections
it has, and the link that starts a new one in the person's browser.

The relay talks to Composio's REST API (v3) with the key `COMPOSIO_API_KEY` from relay.env
or the environment; without one, the status says "not configured" and the other paths
answer 503. Each relay user is one Composio user, `quillmere-<user id>`, so two people on one
relay never see each other's connections. Composio's answers are read defensively: a field
it leaves out becomes an empty string, never a failure of the whole list.

The relay remembers, per user, each link it started and the last status it saw of each
toolkit's connection; the insights read those records, never Composio.
"""

import json
import urllib.parse

from . import clock
from .errors import ApiError, bad_request
from .upstream import UpstreamError

DEFAULT_BASE_URL = "https://backend.composio.dev/api/v3"
# A page of toolkits or connections: enough for any one account's screen.
PAGE_LIMIT = 200
MAX_SLUG = 100
UNCONFIGURED_STATUS = 503
UNCONFIGURED_MESSAGE = "connected apps are not configured on this relay (set COMPOSIO_API_KEY)"
# What a failing Composio call is told to the caller as: the screen shows its own text anyway.
FAILED_MESSAGE = "Composio could not be reached"
COMPOSIO_SECONDS = 15


def composio_user(user_id):
    return "quillmere-" + user_id


def _text(value):
    return value if isinstance(value, str) else ""


def _items(body):
    items = body.get("items") if isinstance(body, dict) else None
    return [item for item in items if isinstance(item, dict)] if isinstance(items, list) else []


def _toolkit(item):
    meta = item.get("meta") if isinstance(item.get("meta"), dict) else {}
    return {"slug": _text(item.get("slug")).lower(), "name": _text(item.get("name")),
            "description": _text(meta.get("description")) or _text(item.get("description"))}


def _connection(item):
    toolkit = item.get("toolkit") if isinstance(item.get("toolkit"), dict) else {}
    record = {"id": _text(item.get("id")), "toolkit": _text(toolkit.get("slug")).lower(),
              "status": _text(item.get("status")).upper()}
    if _text(item.get("created_at")):
        record["created_at"] = item["created_at"]
    return record


class Integrations:
    def __init__(self, app):
        self.app = app
        self.db = app.db

    def register(self, router):
        router.add("GET", "v1/composio/status", self.status)
        router.add("GET", "v1/composio/toolkits", self.toolkits)
        router.add("GET", "v1/composio/connections", self.connections)
        router.add("POST", "v1/composio/connections", self.connect)

    @property
    def key(self):
        return self.app.settings.get("COMPOSIO_API_KEY").strip()

    @property
    def base_url(self):
        return (self.app.settings.get("COMPOSIO_BASE_URL").strip() or DEFAULT_BASE_URL).rstrip("/")

    @property
    def offered(self):
        """The toolkits this relay offers (`COMPOSIO_TOOLKITS`, comma-separated slugs), or all."""
        text = self.app.settings.get("COMPOSIO_TOOLKITS")
        return [slug.strip().lower() for slug in text.split(",") if slug.strip()]

    def status(self, request):
        return {"configured": bool(self.key), "toolkits": self.offered if self.key else []}

    async def _call(self, method, path, query=None, body=None):
        if not self.key:
            raise ApiError(UNCONFIGURED_STATUS, UNCONFIGURED_MESSAGE)
        url = self.base_url + path + ("?" + urllib.parse.urlencode(query, doseq=True) if query else "")
        try:
            async with self.app.upstream.call(method, url, headers={"x-api-key": self.key}, json=body,
                                              total_seconds=COMPOSIO_SECONDS) as answer:
                if answer.status >= 400:
                    await answer.read(64 * 1024)
                    raise ApiError(502, f"{FAILED_MESSAGE}: it answered {answer.status}")
                return _json(await answer.read())
        except UpstreamError:
            raise ApiError(502, FAILED_MESSAGE) from None

    async def toolkits(self, request):
        body = await self._call("GET", "/toolkits", {"limit": PAGE_LIMIT})
        found = [_toolkit(item) for item in _items(body)]
        offered = self.offered
        if offered:
            by_slug = {toolkit["slug"]: toolkit for toolkit in found}
            return [by_slug[slug] for slug in offered if slug in by_slug]
        return [toolkit for toolkit in found if toolkit["slug"]]

    async def connections(self, request):
        body = await self._call("GET", "/connected_accounts",
                                {"user_ids": composio_user(request.user_id), "limit": PAGE_LIMIT})
        found = [_connection(item) for item in _items(body)]
        found = [connection for connection in found if connection["id"] and connection["toolkit"]]
        await request.run(self._remember_statuses, request.user_id, found)
        return found

    async def connect(self, request):
        slug = request.body().string("toolkit", non_empty=True, max_length=MAX_SLUG).strip().lower()
        if not slug.replace("_", "").replace("-", "").isalnum():
            raise bad_request("toolkit must be a toolkit's slug (letters, digits, - and _)")
        if self.offered and slug not in self.offered:
            raise bad_request(f"toolkit {slug} is not offered by this relay")
        auth_config = await self._auth_config(slug)
        body = await self._call("POST", "/connected_accounts/link",
                                body={"auth_config_id": auth_config, "user_id": composio_user(request.user_id)})
        redirect = _text(body.get("redirect_url")) if isinstance(body, dict) else ""
        if not redirect.startswith("https://") and not redirect.startswith("http://"):
            raise ApiError(502, f"{FAILED_MESSAGE}: it gave no link to open")
        link = {"redirect_url": redirect}
        if _text(body.get("connected_account_id")):
            link["connected_account_id"] = body["connected_account_id"]
        await request.run(self._remember_link, request.user_id, slug, link.get("connected_account_id"))
        return link

    async def _auth_config(self, slug):
        """The account's auth config for a toolkit: its first existing one, or a new one on
        Composio's managed authentication."""
        found = _items(await self._call("GET", "/auth_configs", {"toolkit_slug": slug, "limit": 1}))
        if found and _text(found[0].get("id")):
            return found[0]["id"]
        created = await self._call("POST", "/auth_configs", body={
            "toolkit": {"slug": slug}, "auth_config": {"type": "use_composio_managed_auth"}})
        config = created.get("auth_config") if isinstance(created, dict) else None
        config_id = _text(config.get("id")) if isinstance(config, dict) else ""
        if not config_id:
            raise ApiError(502, f"{FAILED_MESSAGE}: it made no auth config for {slug}")
        return config_id

    def _remember_link(self, user_id, slug, connected_account_id):
        with self.db.write_as(user_id) as conn:
            conn.execute("INSERT INTO integration_links (user_id, toolkit, connected_account_id, created_at) "
                         "VALUES (:user_id, :toolkit, :account, :now)",
                         {"toolkit": slug, "account": connected_account_id, "now": clock.now()})

    def _remember_statuses(self, user_id, connections):
        """The last status seen of each toolkit's connection (the first listed wins, as on the
        screen)."""
        seen = {}
        for connection in connections:
            seen.setdefault(connection["toolkit"], connection["status"])
        with self.db.write_as(user_id) as conn:
            conn.execute("DELETE FROM integration_statuses WHERE user_id = :user_id")
            for toolkit, status in seen.items():
                conn.execute("INSERT INTO integration_statuses (user_id, toolkit, status, seen_at) "
                             "VALUES (:user_id, :toolkit, :status, :now)",
                             {"toolkit": toolkit, "status": status, "now": clock.now()})


def _json(raw):
    try:
        return json.loads(raw)
    except ValueError:
        raise ApiError(502, f"{FAILED_MESSAGE}: its answer was not JSON") from None
