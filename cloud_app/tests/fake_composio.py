"""A fake of Composio's REST API (v3) on 127.0.0.1, as much of it as the relay calls: toolkits,
auth configs, connected accounts and their links. It keeps its accounts in memory and
records every request (without the key)."""

import argparse
import json
import secrets
import signal
import sys
import threading
import urllib.parse
from http.server import BaseHTTPRequestHandler, ThreadingHTTPServer

TOOLKITS = [{"slug": "github", "name": "GitHub", "meta": {"description": "Issues and pull requests."}},
            {"slug": "slack", "name": "Slack", "meta": {"description": "Channels and messages."}},
            {"slug": "linear", "name": "Linear", "meta": {}}]


class FakeComposio:
    def __init__(self):
        self.key = secrets.token_hex(16)
        self.requests = []  # (method, path, query, body)
        self.auth_configs = {}  # toolkit slug -> id
        self.accounts = []  # {id, user_id, toolkit, status, created_at}
        self.fail_with = None  # a status every call answers with
        self.lock = threading.Lock()
        fake = self

        class Handler(BaseHTTPRequestHandler):
            def log_message(self, *args):
                pass

            def do_GET(self):
                fake._handle(self, "GET")

            def do_POST(self):
                fake._handle(self, "POST")

        self.server = ThreadingHTTPServer(("127.0.0.1", 0), Handler)
        self.thread = threading.Thread(target=self.server.serve_forever, daemon=True)

    @property
    def url(self):
        return f"http://127.0.0.1:{self.server.server_address[1]}/api/v3"

    def start(self):
        self.thread.start()
        return self

    def stop(self):
        self.server.shutdown()
        self.server.server_close()

    def activate(self, account_id):
        with self.lock:
            for account in self.accounts:
                if account["id"] == account_id:
                    account["status"] = "ACTIVE"

    def _handle(self, handler, method):
        parsed = urllib.parse.urlsplit(handler.path)
        query = urllib.parse.parse_qs(parsed.query)
        length = int(handler.headers.get("Content-Length") or 0)
        body = json.loads(handler.rfile.read(length)) if length else None
        if (method, parsed.path) == ("POST", "/_fake/activate"):
            # A person finishing the flow in the browser, for tests that run this fake as a program.
            self.activate(body["id"])
            return self._answer(handler, 200, {})
        with self.lock:
            self.requests.append((method, parsed.path, query, body))
            if handler.headers.get("x-api-key") != self.key:
                return self._answer(handler, 401, {"error": {"message": "invalid api key"}})
            if self.fail_with:
                return self._answer(handler, self.fail_with, {"error": {"message": "failing on purpose"}})
            status, answer = self._route(method, parsed.path.removeprefix("/api/v3"), query, body)
        self._answer(handler, status, answer)

    def _route(self, method, path, query, body):
        if (method, path) == ("GET", "/toolkits"):
            return 200, {"items": TOOLKITS, "next_cursor": None}
        if (method, path) == ("GET", "/auth_configs"):
            slug = query.get("toolkit_slug", [""])[0]
            found = [{"id": self.auth_configs[slug]}] if slug in self.auth_configs else []
            return 200, {"items": found, "next_cursor": None}
        if (method, path) == ("POST", "/auth_configs"):
            slug = body["toolkit"]["slug"]
            self.auth_configs[slug] = "ac_" + secrets.token_hex(4)
            return 201, {"toolkit": {"slug": slug}, "auth_config": {"id": self.auth_configs[slug]}}
        if (method, path) == ("GET", "/connected_accounts"):
            users = query.get("user_ids", [])
            items = [{"id": account["id"], "status": account["status"], "toolkit": {"slug": account["toolkit"]},
                      "created_at": account["created_at"], "user_id": account["user_id"]}
                     for account in reversed(self.accounts) if account["user_id"] in users]
            return 200, {"items": items, "next_cursor": None}
        if (method, path) == ("POST", "/connected_accounts/link"):
            slug = next((slug for slug, config in self.auth_configs.items() if config == body["auth_config_id"]),
                        None)
            if slug is None:
                return 404, {"error": {"message": "no such auth config"}}
            account = {"id": "ca_" + secrets.token_hex(4), "user_id": body["user_id"], "toolkit": slug,
                       "status": "INITIATED", "created_at": "2026-11-24T02:00:00Z"}
            self.accounts.append(account)
            return 201, {"connected_account_id": account["id"], "link_token": "lt_x",
                         "redirect_url": f"https://connect.example.com/link/{account['id']}",
                         "expires_at": "2026-11-24T03:00:00Z"}
        return 404, {"error": {"message": "not found"}}

    @staticmethod
    def _answer(handler, status, value):
        data = json.dumps(value).encode()
        handler.send_response(status)
        handler.send_header("Content-Type", "application/json")
        handler.send_header("Content-Length", str(len(data)))
        handler.end_headers()
        handler.wfile.write(data)


def main(argv=None):
    parser = argparse.ArgumentParser(description="Serve a fake Composio API on 127.0.0.1.")
    parser.add_argument("--key", help="API key the relay must send (default: a random one)")
    args = parser.parse_args(argv)
    fake = FakeComposio()
    if args.key:
        fake.key = args.key
    fake.start()
    stopped = threading.Event()
    # Handlers first: whoever reads the address may stop the fake the moment it has read it.
    for number in (signal.SIGINT, signal.SIGTERM):
        signal.signal(number, lambda *_: stopped.set())
    print(fake.url, flush=True)
    stopped.wait()
    fake.stop()
    return 0


if __name__ == "__main__":
    sys.exit(main())
