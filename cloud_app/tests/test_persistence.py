"""Everything the relay stores survives a restart on the same database."""

import shutil
import sqlite3
import tempfile
import unittest

import support
from relaylib.migrations import MIGRATIONS


class RestartTest(unittest.TestCase):
    def setUp(self):
        self.folder = tempfile.mkdtemp(prefix="relay-restart-")
        self.relay = support.Relay(self.folder).start()

    def tearDown(self):
        self.relay.stop()
        shutil.rmtree(self.folder, ignore_errors=True)

    def call(self, method, path, body=None):
        status, answer, _ = self.relay.request(method, path, body, token=self.token)
        self.assertLess(status, 300, answer)
        return answer

    def populate(self):
        self.token = self.relay.local_token()
        base = {"run_id": "r", "run_name": "claude · plan only", "kind": "choice", "prompt": "Which?",
                "options": ["Billing", "Ingest"]}
        kept = self.call("POST", "v1/interrupts", base)["id"]
        decided = self.call("POST", "v1/interrupts", base)["id"]
        self.call("POST", f"v1/interrupts/{decided}/verdict", {"verdict": "reply", "reply": "Billing",
                                                                 "source": "desktop"})
        self.call("POST", "v1/events", {"run_id": "A", "name": "n", "type": "started"})
        self.call("POST", "v1/events", {"run_id": "B", "name": "n", "type": "finished"})
        session = self.call("POST", "v1/terminal/sessions", {"source": "desktop"})["id"]
        self.call("POST", f"v1/terminal/sessions/{session}/events",
                  {"chunks": [{"seq": 1, "stream": "input", "data": "ls\r", "ts": "2026-01-31T09:30:00Z"}]})
        project = self.call("POST", "v1/projects", {"name": "p", "root_path": "/p"})
        self.call("POST", f"v1/projects/{project['id']}/context", {"title": "Note", "content": "Kept."})
        self.call("POST", "v1/router/health", {"provider": "x", "success": False, "latency_ms": 1})
        return kept, decided, session, project

    def test_restart_keeps_sessions_queue_runs_terminal_and_projects(self):
        kept, decided, session, project = self.populate()
        self.assertEqual(self.relay.stop(), 0)
        self.relay.start()
        self.assertEqual(self.call("GET", "v1/me")["email"], "local@localhost")
        stream = self.relay.open_stream(self.token)
        try:
            snapshot = stream.next_snapshot()
        finally:
            stream.close()
        self.assertEqual([item["id"] for item in snapshot["interrupts"]], [kept])
        self.assertEqual((snapshot["running"], snapshot["done"]), (1, 1))
        self.assertEqual(self.call("GET", f"v1/interrupts/{decided}")["verdict"]["reply"], "Billing")
        self.assertEqual(self.call("GET", f"v1/terminal/sessions/{session}")["chunks"][0]["data"], "ls\r")
        self.assertEqual(self.call("GET", "v1/projects"), [project])
        self.assertEqual(self.call("GET", f"v1/projects/{project['id']}/context")[0]["content"], "Kept.")
        health = self.call("POST", "v1/router/health", {"provider": "x", "success": True, "latency_ms": 1})
        self.assertEqual(health["health"], 0.5)

    def test_migrations_are_applied_once(self):
        self.relay.stop()
        self.relay.start()
        self.relay.stop()
        with sqlite3.connect(self.relay.db_path) as conn:
            rows = conn.execute("SELECT version FROM schema_migrations").fetchall()
            mode = conn.execute("PRAGMA journal_mode").fetchone()[0]
        self.assertEqual(rows, [(version,) for version, _, _ in MIGRATIONS])
        self.assertEqual(mode, "wal")
        self.relay.start()


if __name__ == "__main__":
    unittest.main()
