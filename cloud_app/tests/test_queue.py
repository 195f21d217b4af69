"""The live queue: agent intake, the snapshot stream, verdicts, waiting and deadlines."""

import re
import threading
import time
import unittest

import support
from relaylib import clock
from support import RelayTestCase

ISO_SECONDS = re.compile(r"^\d{4}-\d\d-\d\dT\d\d:\d\d:\d\dZ$")
MINIMAL = {"run_id": "run-1", "run_name": "claude · workspace edits", "kind": "question", "prompt": "Which one?"}
FULL = dict(MINIMAL, kind="approval", options=["Approve", "Reject"], detail='{\n  "command": "rm -rf build"\n}',
            action_toolkit="github", action_slug="create_issue", target="octo/repo", requester="deploy bot",
            reason="needs a person", proposed_action="open an issue", affected_resources=["repo", "board"],
            blast_radius="one repository", reversibility="can be closed", evidence=["log line"],
            expires_at="2099-01-31T09:30:00.750Z", timeout_behavior="the run stops")
WIRE_ORDER = ["id", "run_id", "run_name", "kind", "prompt", "options", "raised_at", "detail", "action_toolkit",
              "action_slug", "target", "requester", "reason", "proposed_action", "affected_resources",
              "blast_radius", "reversibility", "evidence", "expires_at", "timeout_behavior"]


class QueueTestCase(RelayTestCase):
    def raise_interrupt(self, **fields):
        status, answer, _ = self.call("POST", "v1/interrupts", dict(MINIMAL, **fields))
        self.assertEqual(status, 200, answer)
        return answer["id"]

    def decide(self, interrupt_id, verdict="approve", **extra):
        body = dict({"verdict": verdict, "source": "desktop", "decided_at": "2026-01-31T09:30:00Z"}, **extra)
        return self.call("POST", f"v1/interrupts/{interrupt_id}/verdict", body)

    def open_ids(self):
        stream = self.relay.open_stream(self.token)
        try:
            return [item["id"] for item in stream.next_snapshot()["interrupts"]]
        finally:
            stream.close()


class IntakeTest(QueueTestCase):
    def test_minimal_interrupt(self):
        status, answer, _ = self.call("POST", "v1/interrupts", MINIMAL)
        self.assertEqual(status, 200)
        self.assertEqual(set(answer), {"id", "status", "interrupt", "watchers"})
        self.assertEqual(answer["watchers"], 0)
        self.assertEqual(answer["status"], "open")
        interrupt = answer["interrupt"]
        self.assertEqual(list(interrupt), ["id", "run_id", "run_name", "kind", "prompt", "options", "raised_at"])
        self.assertEqual(interrupt["id"], answer["id"])
        self.assertEqual(interrupt["options"], [])
        self.assertRegex(interrupt["raised_at"], ISO_SECONDS)

    def test_every_field_kept_in_wire_order_and_dates_without_fractions(self):
        answer = self.call("POST", "v1/interrupts", dict(FULL, id="mine", raised_at="2000-01-01T00:00:00Z"))[1]
        interrupt = answer["interrupt"]
        self.assertEqual(list(interrupt), WIRE_ORDER)
        self.assertNotEqual(interrupt["id"], "mine")
        self.assertNotEqual(interrupt["raised_at"], "2000-01-01T00:00:00Z")
        self.assertEqual(interrupt["expires_at"], "2099-01-31T09:30:00Z")
        for key in FULL:
            if key != "expires_at":
                self.assertEqual(interrupt[key], FULL[key], key)

    def test_unknown_keys_are_ignored_and_null_optionals_left_out(self):
        interrupt = self.call("POST", "v1/interrupts", dict(MINIMAL, colour="red", detail=None))[1]["interrupt"]
        self.assertNotIn("colour", interrupt)
        self.assertNotIn("detail", interrupt)

    def test_validation_names_the_field(self):
        cases = [({"kind": None}, "kind is required"),
                 ({"kind": "urgent"}, "kind must be one of approval, question, choice"),
                 ({"prompt": 5}, "prompt must be a string, not a number"),
                 ({"run_id": None}, "run_id is required"),
                 ({"options": "Approve"}, "options must be an array of strings, not a string"),
                 ({"options": ["a", 2]}, "options[1] must be a string, not a number"),
                 ({"evidence": [True]}, "evidence[0] must be a string, not a boolean"),
                 ({"detail": {}}, "detail must be a string, not an object"),
                 ({"expires_at": "tomorrow"}, "expires_at must be an ISO 8601 date with a time zone"),
                 ({"expires_at": "2026-01-31T09:30:00"}, "expires_at must be an ISO 8601 date with a time zone")]
        for change, message in cases:
            status, answer, _ = self.call("POST", "v1/interrupts", dict(MINIMAL, **change))
            self.assertError(answer, status, 400, message)

    def test_intake_needs_a_token(self):
        status, answer, _ = self.call("POST", "v1/interrupts", MINIMAL, token=None)
        self.assertError(answer, status, 401, "missing session token")


class StreamTest(QueueTestCase):
    def test_stream_needs_a_token(self):
        stream = self.relay.open_stream("wrong")
        self.assertEqual(stream.status, 401)
        stream.close()

    def test_snapshot_on_connect_and_after_each_change(self):
        stream = self.relay.open_stream(self.token)
        try:
            self.assertTrue(stream.headers["Content-Type"].startswith("text/event-stream"))
            first = stream.next_snapshot()
            self.assertEqual(list(first), ["running", "done", "interrupts", "open_suggestions"])
            interrupt_id = self.raise_interrupt(prompt="streamed?")
            second = stream.next_snapshot()
            self.assertEqual(second["interrupts"][-1]["id"], interrupt_id)
            self.assertEqual(len(second["interrupts"]), len(first["interrupts"]) + 1)
            self.decide(interrupt_id)
            third = stream.next_snapshot()
            self.assertNotIn(interrupt_id, [item["id"] for item in third["interrupts"]])
        finally:
            stream.close()

    def test_each_snapshot_is_one_data_line_then_a_blank_line(self):
        self.raise_interrupt(detail="line one\nline two")
        stream = self.relay.open_stream(self.token)
        try:
            line = stream.next_line()
            self.assertTrue(line.startswith("data: {"))
            self.assertTrue(line.endswith("}\n"))
            self.assertEqual(stream.next_line(), "\n")
        finally:
            stream.close()

    def test_quiet_stream_sends_keep_alive_comments(self):
        stream = self.relay.open_stream(self.token)
        try:
            stream.next_snapshot()
            lines = [stream.next_line(timeout=5) for _ in range(5)]
            self.assertEqual(lines, ["\n", ": keep-alive\n", "\n", ": keep-alive\n", "\n"])
        finally:
            stream.close()

    def test_snapshot_dates_have_no_fractions(self):
        self.raise_interrupt(expires_at="2099-05-01T10:00:00.999+02:00")
        stream = self.relay.open_stream(self.token)
        try:
            for item in stream.next_snapshot()["interrupts"]:
                self.assertRegex(item["raised_at"], ISO_SECONDS)
                if "expires_at" in item:
                    self.assertRegex(item["expires_at"], ISO_SECONDS)
        finally:
            stream.close()


class VerdictTest(QueueTestCase):
    def test_verdict_is_accepted_once(self):
        interrupt_id = self.raise_interrupt()
        status, answer, _ = self.decide(interrupt_id, "reply", reply="Billing")
        self.assertEqual(status, 200)
        self.assertEqual(answer, {"id": interrupt_id, "status": "decided",
                                  "verdict": {"verdict": "reply", "reply": "Billing", "source": "desktop",
                                              "decided_at": "2026-01-31T09:30:00Z"}})
        status, answer, _ = self.decide(interrupt_id)
        self.assertError(answer, status, 409, "interrupt already resolved")

    def test_unknown_interrupt_is_404(self):
        status, answer, _ = self.decide("int_nothing")
        self.assertError(answer, status, 404, "interrupt not found")

    def test_bad_verdict_is_400(self):
        interrupt_id = self.raise_interrupt()
        for body, message in [({"verdict": "maybe"}, "verdict must be one of approve, reject, reply"),
                              ({}, "verdict is required"),
                              ({"verdict": "approve", "reply": 3}, "reply must be a string, not a number"),
                              ({"verdict": "approve", "decided_at": "now"},
                               "decided_at must be an ISO 8601 date with a time zone")]:
            status, answer, _ = self.call("POST", f"v1/interrupts/{interrupt_id}/verdict", body)
            self.assertError(answer, status, 400, message)
        self.assertEqual(self.decide(interrupt_id)[0], 200)

    def test_verdict_without_reply_has_no_reply_key(self):
        interrupt_id = self.raise_interrupt()
        self.decide(interrupt_id)
        status, answer, _ = self.call("GET", f"v1/interrupts/{interrupt_id}")
        self.assertEqual(status, 200)
        self.assertEqual(answer["status"], "decided")
        self.assertEqual(answer["verdict"], {"verdict": "approve", "source": "desktop",
                                             "decided_at": "2026-01-31T09:30:00Z"})
        self.assertRegex(answer["resolved_at"], ISO_SECONDS)


class WaitTest(QueueTestCase):
    relay_env = {"MERE_RELAY_MAX_WAIT_SECONDS": "1.0"}

    def test_open_interrupt_state(self):
        interrupt_id = self.raise_interrupt()
        status, answer, _ = self.call("GET", f"v1/interrupts/{interrupt_id}")
        self.assertEqual(status, 200)
        self.assertEqual(answer["status"], "open")
        self.assertNotIn("verdict", answer)
        self.assertEqual(answer["interrupt"]["prompt"], MINIMAL["prompt"])

    def test_wait_returns_as_soon_as_a_verdict_arrives(self):
        interrupt_id = self.raise_interrupt()
        threading.Timer(0.3, self.decide, (interrupt_id, "reject")).start()
        started = time.monotonic()
        status, answer, _ = self.call("GET", f"v1/interrupts/{interrupt_id}?wait=0.9")
        self.assertEqual((status, answer["status"], answer["verdict"]["verdict"]), (200, "decided", "reject"))
        self.assertLess(time.monotonic() - started, 0.85)

    def test_wait_is_capped(self):
        interrupt_id = self.raise_interrupt()
        started = time.monotonic()
        status, answer, _ = self.call("GET", f"v1/interrupts/{interrupt_id}?wait=1000")
        elapsed = time.monotonic() - started
        self.assertEqual((status, answer["status"]), (200, "open"))
        self.assertGreaterEqual(elapsed, 0.9)
        self.assertLess(elapsed, 3)

    def test_bad_wait_is_400(self):
        interrupt_id = self.raise_interrupt()
        for value in ["abc", "-1", "nan", "inf"]:
            status, answer, _ = self.call("GET", f"v1/interrupts/{interrupt_id}?wait={value}")
            self.assertError(answer, status, 400, "wait must be a number of seconds from 0 to 1")

    def test_unknown_interrupt_is_404(self):
        status, answer, _ = self.call("GET", "v1/interrupts/int_none?wait=0.2")
        self.assertError(answer, status, 404, "interrupt not found")


class DeadlineTest(QueueTestCase):
    def test_interrupt_past_its_deadline_times_out_and_leaves_the_queue(self):
        stream = self.relay.open_stream(self.token)
        try:
            stream.next_snapshot()
            deadline = clock.iso(time.time() + 1.5)
            interrupt_id = self.raise_interrupt(expires_at=deadline)
            self.assertIn(interrupt_id, [item["id"] for item in stream.next_snapshot()["interrupts"]])
            snapshot = stream.next_snapshot(timeout=5)
            self.assertNotIn(interrupt_id, [item["id"] for item in snapshot["interrupts"]])
        finally:
            stream.close()
        status, answer, _ = self.call("GET", f"v1/interrupts/{interrupt_id}")
        self.assertEqual((status, answer["status"]), (200, "expired"))
        self.assertNotIn("verdict", answer)
        status, answer, _ = self.decide(interrupt_id)
        self.assertError(answer, status, 409, "interrupt already resolved")

    def test_deadline_in_the_past_never_shows(self):
        interrupt_id = self.raise_interrupt(expires_at="2001-01-01T00:00:00Z")
        self.assertNotIn(interrupt_id, self.open_ids())
        self.assertEqual(self.call("GET", f"v1/interrupts/{interrupt_id}")[1]["status"], "expired")

    def test_waiting_hook_learns_of_the_timeout(self):
        interrupt_id = self.raise_interrupt(expires_at=clock.iso(time.time() + 1))
        status, answer, _ = self.call("GET", f"v1/interrupts/{interrupt_id}?wait=10")
        self.assertEqual((status, answer["status"]), (200, "expired"))


class WithdrawTest(QueueTestCase):
    relay_env = {"MERE_RELAY_UNPOLLED_SECONDS": "0.5", "MERE_RELAY_EXPIRY_SWEEP_SECONDS": "0.1"}

    def withdraw(self, interrupt_id, body=None, token=True):
        return self.call("POST", f"v1/interrupts/{interrupt_id}/withdraw", body, token=token)

    def test_withdrawn_interrupt_leaves_the_queue_and_a_late_verdict_is_told_why(self):
        interrupt_id = self.raise_interrupt()
        status, answer, _ = self.withdraw(interrupt_id)
        self.assertEqual((status, answer), (200, {"id": interrupt_id, "status": "withdrawn"}))
        self.assertNotIn(interrupt_id, self.open_ids())
        self.assertEqual(self.call("GET", f"v1/interrupts/{interrupt_id}")[1]["status"], "withdrawn")
        status, answer, _ = self.decide(interrupt_id)
        self.assertError(answer, status, 409, "interrupt was withdrawn: the agent stopped waiting for it")

    def test_answered_elsewhere_is_a_status_of_its_own_and_withdrawing_again_keeps_it(self):
        interrupt_id = self.raise_interrupt()
        for _ in range(2):
            status, answer, _ = self.withdraw(interrupt_id, {"reason": "answered_elsewhere"})
            self.assertEqual((status, answer["status"]), (200, "answered_elsewhere"))
        # A second call with another reason changes nothing either.
        self.assertEqual(self.withdraw(interrupt_id)[1]["status"], "answered_elsewhere")
        status, answer, _ = self.decide(interrupt_id, "reject")
        self.assertError(answer, status, 409, contains="answered elsewhere")

    def test_a_waiting_hook_learns_of_the_withdrawal(self):
        interrupt_id = self.raise_interrupt()
        threading.Timer(0.3, self.withdraw, (interrupt_id,)).start()
        started = time.monotonic()
        status, answer, _ = self.call("GET", f"v1/interrupts/{interrupt_id}?wait=10")
        self.assertEqual((status, answer["status"]), (200, "withdrawn"))
        self.assertLess(time.monotonic() - started, 5)

    def test_only_the_raising_session_can_withdraw(self):
        interrupt_id = self.raise_interrupt()
        desktop = self.relay.local_token()
        status, answer, _ = self.withdraw(interrupt_id, token=desktop)
        self.assertError(answer, status, 403, "only the session that raised an interrupt can withdraw it")
        self.assertIn(interrupt_id, self.open_ids())
        status, answer, _ = self.withdraw("int_missing")
        self.assertError(answer, status, 404, "interrupt not found")
        status, answer, _ = self.withdraw(interrupt_id, {"reason": "vanished"})
        self.assertEqual(status, 400, answer)

    def test_a_decided_interrupt_cannot_be_withdrawn(self):
        interrupt_id = self.raise_interrupt()
        self.assertEqual(self.decide(interrupt_id)[0], 200)
        status, answer, _ = self.withdraw(interrupt_id)
        self.assertError(answer, status, 409, "interrupt already resolved")
        self.assertEqual(self.call("GET", f"v1/interrupts/{interrupt_id}")[1]["status"], "decided")

    def test_an_interrupt_nobody_polls_is_withdrawn_by_the_relay(self):
        polled = self.raise_interrupt(withdraw_when_unpolled=True)
        plain = self.raise_interrupt()
        # Held polls one after another keep it open well past the interval.
        for _ in range(3):
            self.assertEqual(self.call("GET", f"v1/interrupts/{polled}?wait=0.4")[1]["status"], "open")
        support.wait_for(lambda: self.call("GET", f"v1/interrupts/{plain}")[1]["status"] == "open"
                         and polled not in self.open_ids(), timeout=5)
        self.assertEqual(self.call("GET", f"v1/interrupts/{polled}")[1]["status"], "withdrawn")
        self.assertIn(plain, self.open_ids())

    def test_a_poller_that_goes_away_starts_the_interval(self):
        polled = self.raise_interrupt(withdraw_when_unpolled=True)
        poller = self.relay.connection(timeout=5)
        poller.request("GET", f"/v1/interrupts/{polled}?wait=30", headers={"Authorization": f"Bearer {self.token}"})
        time.sleep(1.0)
        # Held for longer than the interval: still open while the poll is under way.
        self.assertIn(polled, self.open_ids())
        poller.close()
        support.wait_for(lambda: polled not in self.open_ids(), timeout=5)
        self.assertEqual(self.call("GET", f"v1/interrupts/{polled}")[1]["status"], "withdrawn")

    def test_watchers_counts_the_users_open_streams(self):
        self.assertEqual(self.call("POST", "v1/interrupts", MINIMAL)[1]["watchers"], 0)
        stream = self.relay.open_stream(self.token)
        try:
            stream.next_snapshot()
            self.assertEqual(self.call("POST", "v1/interrupts", MINIMAL)[1]["watchers"], 1)
        finally:
            stream.close()
        support.wait_for(lambda: self.call("POST", "v1/interrupts", MINIMAL)[1]["watchers"] == 0)


class RunCountTest(QueueTestCase):
    def event(self, run_id, kind):
        body = {"run_id": run_id, "name": "claude · plan only", "type": kind, "tokens": 0, "cost_usd": 0,
                "detail": "Started from the Quillmere orchestrator"}
        status, answer, _ = self.call("POST", "v1/events", body)
        self.assertEqual((status, answer), (200, {"accepted": True}))

    def test_running_and_done_follow_the_run_events(self):
        stream = self.relay.open_stream(self.token)
        try:
            self.assertEqual(self.counts(stream), (0, 0))
            self.event("A", "started")
            self.assertEqual(self.counts(stream), (1, 0))
            self.event("B", "started")
            self.assertEqual(self.counts(stream), (2, 0))
            self.event("A", "progress")
            self.event("A", "finished")
            self.assertEqual(self.counts(stream), (1, 1))
            self.event("B", "failed")
            self.assertEqual(self.counts(stream), (0, 2))
        finally:
            stream.close()

    def counts(self, stream):
        snapshot = stream.next_snapshot()
        return snapshot["running"], snapshot["done"]


if __name__ == "__main__":
    unittest.main()
