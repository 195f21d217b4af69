"""The improve scan told by the kernel which logs changed: the watch on its own, and a relay's
rescans against real files in temporary folders, with real inotify. A log rewritten in place
at the same size and time is the one change only the watch can tell, so the tests use it to
show that a rescan went by the watch, and that without one it went by looking at every log."""

import json
import os
import shutil
import tempfile
import time
import unittest

import support
from relaylib.improve import logs, watch
from test_improve import ImproveTestCase

SED = "Never use sed for edits here."
TASK = "Look at the failing CI."
GREP = "Don't use grep, use rg instead."


def user_line(agent, text):
    """One message of the person, as each CLI writes it: compact JSON, one object a line."""
    now = time.strftime("%Y-%m-%dT%H:%M:%S.000Z", time.gmtime())
    if agent == logs.CLAUDE:
        record = {"type": "user", "message": {"role": "user", "content": text}, "timestamp": now}
    else:
        record = {"timestamp": now, "type": "response_item",
                  "payload": {"type": "message", "role": "user", "content": [{"type": "input_text", "text": text}]}}
    return json.dumps(record, separators=(",", ":")) + "\n"


def write(path, text, mode="w"):
    os.makedirs(os.path.dirname(path), exist_ok=True)
    with open(path, mode, encoding="utf-8") as handle:
        handle.write(text)
    return path


def rewrite_in_place(path, text):
    """Writes `text` over the file's bytes (the same length) and puts its modification time back:
    to a reader of sizes and times, nothing happened."""
    before = os.stat(path)
    data = text.encode("utf-8")
    assert len(data) == before.st_size, (len(data), before.st_size)
    with open(path, "r+b") as handle:
        handle.write(data)
    os.utime(path, ns=(before.st_atime_ns, before.st_mtime_ns))
    after = os.stat(path)
    assert (after.st_size, after.st_mtime_ns) == (before.st_size, before.st_mtime_ns)


def fill_kernel_queue(first, second):
    """Writes blank lines to two logs, more times than the kernel queues events for a watcher.
    The two take turns, since the kernel merges an event with an identical one just before it."""
    with open("/proc/sys/fs/inotify/max_queued_events", encoding="ascii") as handle:
        queue = int(handle.read())
    files = [os.open(path, os.O_WRONLY | os.O_APPEND) for path in (first, second)]
    try:
        for index in range(queue + 10):
            os.write(files[index % 2], b"\n")
    finally:
        for handle in files:
            os.close(handle)


class LogWatchTest(unittest.TestCase):
    """The watch alone, over real folders."""

    def setUp(self):
        self.root = tempfile.mkdtemp(prefix="improve-watch-")
        self.addCleanup(shutil.rmtree, self.root, ignore_errors=True)
        self.claude = os.path.join(self.root, "claude")
        self.codex = os.path.join(self.root, "codex")
        os.makedirs(os.path.join(self.claude, "-home-p"))
        self.first = write(os.path.join(self.claude, "-home-p", "a.jsonl"), user_line(logs.CLAUDE, SED))
        self.watch = self.make()

    def make(self, **options):
        made = watch.LogWatch(((self.claude, logs.CLAUDE), (self.codex, logs.CODEX)), **options)
        self.addCleanup(made.close)
        return made

    def test_nothing_is_known_before_a_walk_and_a_walk_lists_what_the_reader_lists(self):
        self.assertIsNone(self.watch.changed_since("u", 0))
        listing, generation = self.watch.walk("u")
        self.assertEqual(listing, logs.find_logs(self.claude, self.codex))
        self.assertEqual(generation, 0)
        self.assertEqual(self.watch.changed_since("u", generation), set())

    def test_written_created_deleted_and_renamed_logs_are_named_and_nothing_else(self):
        _, generation = self.watch.walk("u")
        write(self.first, user_line(logs.CLAUDE, GREP), "a")
        second = write(os.path.join(self.claude, "-home-p", "b.jsonl"), "")
        write(os.path.join(self.claude, "-home-p", "notes.txt"), "not a log")
        self.assertEqual(self.watch.changed_since("u", generation),
                         {(self.first, logs.CLAUDE), (second, logs.CLAUDE)})
        os.remove(second)
        replacement = write(os.path.join(self.claude, "-home-p", "c.tmp"), user_line(logs.CLAUDE, TASK))
        os.replace(replacement, self.first)
        self.assertEqual(self.watch.changed_since("u", generation),
                         {(self.first, logs.CLAUDE), (second, logs.CLAUDE)})
        self.assertEqual(self.watch.changed_since("u", generation), set())

    def test_folders_made_after_the_walk_are_watched_with_the_logs_already_in_them(self):
        _, generation = self.watch.walk("u")
        # Codex's folder did not exist at the walk; its year, month and day come at once.
        day = os.path.join(self.codex, "2026", "12", "01")
        early = write(os.path.join(day, "rollout-2026-12-01T10-00-00-x.jsonl"), user_line(logs.CODEX, SED))
        project = write(os.path.join(self.claude, "-home-q", "d.jsonl"), user_line(logs.CLAUDE, SED))
        self.assertEqual(self.watch.changed_since("u", generation),
                         {(early, logs.CODEX), (project, logs.CLAUDE)})
        write(early, user_line(logs.CODEX, GREP), "a")
        later = write(os.path.join(self.codex, "2026", "12", "02", "rollout-2026-12-02T10-00-00-y.jsonl"), "")
        self.assertEqual(self.watch.changed_since("u", generation), {(early, logs.CODEX), (later, logs.CODEX)})

    def test_each_reader_has_its_own_changes(self):
        _, first = self.watch.walk("u")
        write(self.first, user_line(logs.CLAUDE, GREP), "a")
        _, second = self.watch.walk("v")
        self.assertEqual(self.watch.changed_since("v", second), set())
        self.assertEqual(self.watch.changed_since("u", first), {(self.first, logs.CLAUDE)})
        write(self.first, user_line(logs.CLAUDE, TASK), "a")
        self.assertEqual(self.watch.changed_since("v", second), {(self.first, logs.CLAUDE)})
        self.assertEqual(self.watch.changed_since("u", first), {(self.first, logs.CLAUDE)})

    def test_a_folder_moved_away_makes_every_reader_walk_again(self):
        _, generation = self.watch.walk("u")
        os.rename(os.path.join(self.claude, "-home-p"), os.path.join(self.root, "elsewhere"))
        self.assertIsNone(self.watch.changed_since("u", generation))
        listing, generation = self.watch.walk("u")
        self.assertEqual(listing, [])
        # The moved folder's old watch is gone: a write there is no log of ours.
        write(os.path.join(self.root, "elsewhere", "a.jsonl"), user_line(logs.CLAUDE, GREP), "a")
        self.assertEqual(self.watch.changed_since("u", generation), set())

    def test_a_full_kernel_queue_makes_every_reader_walk_again(self):
        _, generation = self.watch.walk("u")
        fill_kernel_queue(self.first, write(os.path.join(self.claude, "-home-p", "b.jsonl"), ""))
        self.assertIsNone(self.watch.changed_since("u", generation))
        _, again = self.watch.walk("u")
        self.assertNotEqual(again, generation)
        self.assertEqual(self.watch.changed_since("u", again), set())

    def test_a_pipe_named_as_a_log_is_not_one(self):
        _, generation = self.watch.walk("u")
        pipe = os.path.join(self.claude, "-home-p", "p.jsonl")
        os.mkfifo(pipe)
        listing, _ = self.watch.walk("v")
        self.assertEqual([item[0] for item in listing], [self.first])
        # The watch tells of the name; the scan looks and leaves it alone.
        self.assertEqual(self.watch.changed_since("u", generation), {(pipe, logs.CLAUDE)})

    def test_past_its_cap_on_folders_the_watch_sends_every_scan_to_a_walk(self):
        capped = self.make(max_folders=1)
        listing, generation = capped.walk("u")
        self.assertEqual([item[0] for item in listing], [self.first])
        self.assertIsNone(generation)
        self.assertIsNone(capped.changed_since("u", generation))

    def test_a_reader_walks_again_when_a_folder_could_not_be_watched_since_its_walk(self):
        capped = self.make(max_folders=2)
        _, generation = capped.walk("u")
        self.assertIsNotNone(generation)
        extra = os.path.join(self.claude, "-home-q")
        write(os.path.join(extra, "x.jsonl"), user_line(logs.CLAUDE, SED))
        self.assertIsNone(capped.walk("v")[1])
        shutil.rmtree(extra)
        _, again = capped.walk("v")
        self.assertEqual(capped.changed_since("v", again), set())
        # Its changes went untold while the folder was not watched.
        self.assertIsNone(capped.changed_since("u", generation))

    def test_without_inotify_a_walk_still_lists_and_nothing_else_is_known(self):
        unavailable = self.make(opener=lambda: None)
        listing, generation = unavailable.walk("u")
        self.assertEqual([item[0] for item in listing], [self.first])
        self.assertIsNone(generation)
        self.assertIsNone(unavailable.changed_since("u", 0))


class TailTest(unittest.TestCase):
    """The reader tells a grown log from another text in its place by the bytes before its offset."""

    def setUp(self):
        self.folder = tempfile.mkdtemp(prefix="improve-tail-")
        self.addCleanup(shutil.rmtree, self.folder, ignore_errors=True)
        self.path = write(os.path.join(self.folder, "s.jsonl"), user_line(logs.CLAUDE, SED))
        self.turns, self.offset, self.state = logs.read_log(self.path, logs.CLAUDE, 0, {})

    def test_another_text_of_the_same_size_is_read_from_its_start(self):
        rewrite_in_place(self.path, user_line(logs.CLAUDE, TASK.ljust(len(SED))))
        turns, offset, state = logs.read_log(self.path, logs.CLAUDE, self.offset, self.state)
        self.assertEqual([(item.text, item.turn_index) for item in turns], [(TASK, 1)])
        self.assertEqual((offset, state["restarted"]), (self.offset, True))

    def test_the_same_text_grown_in_a_new_file_is_read_on_from_the_offset(self):
        replacement = write(os.path.join(self.folder, "s.tmp"),
                            user_line(logs.CLAUDE, SED) + user_line(logs.CLAUDE, GREP))
        os.replace(replacement, self.path)
        turns, offset, state = logs.read_log(self.path, logs.CLAUDE, self.offset, self.state)
        self.assertEqual([(item.text, item.turn_index) for item in turns], [(GREP, 2)])
        self.assertNotIn("restarted", state)
        self.assertEqual(offset, os.path.getsize(self.path))

    def test_a_shorter_file_is_another_text(self):
        write(self.path, user_line(logs.CLAUDE, "Stop."))
        turns, _, state = logs.read_log(self.path, logs.CLAUDE, self.offset, self.state)
        self.assertEqual([item.text for item in turns], ["Stop."])
        self.assertTrue(state["restarted"])


class RescanTestCase(ImproveTestCase):
    """A relay reading logs that the test writes."""

    def conversation(self, agent, name, *texts):
        folder = self.claude_dir if agent == logs.CLAUDE else self.codex_dir
        return write(os.path.join(folder, name), "".join(user_line(agent, text) for text in texts))

    def suggestion_bodies(self):
        return sorted(item["body"] for item in self.listed()["suggestions"])


class WatchedRescanTest(RescanTestCase):
    """A relay's rescans, told by the watch which logs changed."""

    def test_a_log_rewritten_in_the_same_second_at_the_same_size_is_read_again(self):
        self.conversation(logs.CLAUDE, "-home-p/a.jsonl", SED)
        other = self.conversation(logs.CLAUDE, "-home-p/b.jsonl", TASK.ljust(len(SED)))
        self.assertEqual(self.scan()["suggestions_found"], 0)
        rewrite_in_place(other, user_line(logs.CLAUDE, SED))
        result = self.scan()
        self.assertEqual((result["sessions_scanned"], result["turns_observed"], result["suggestions_found"]),
                         (1, 1, 1))
        self.assertEqual(self.suggestion_bodies(), ["- " + SED])
        # Told of a write that left the same bytes, the scan keeps nothing anew.
        rewrite_in_place(other, user_line(logs.CLAUDE, SED))
        self.assertEqual(self.scan()["sessions_scanned"], 0)

    def test_a_log_replaced_by_a_rename_is_read_from_its_start_unless_it_is_the_same_text_grown(self):
        self.conversation(logs.CLAUDE, "-home-p/a.jsonl", SED)
        other = self.conversation(logs.CLAUDE, "-home-p/b.jsonl", TASK)
        self.scan()
        # Longer than the old text, so reading on from the old offset would start mid-line.
        replacement = write(other + ".tmp", user_line(logs.CLAUDE, SED + " Really.") + user_line(logs.CLAUDE, TASK))
        os.replace(replacement, other)
        result = self.scan()
        self.assertEqual((result["sessions_scanned"], result["turns_observed"], result["suggestions_found"]),
                         (1, 2, 1))
        evidence = self.listed()["suggestions"][0]["evidence"]
        self.assertEqual(sorted((item["session_id"], item["turn_index"]) for item in evidence), [("a", 1), ("b", 1)])
        # As a syncing tool writes a grown log: the same text and one line more, renamed over it.
        with open(other, encoding="utf-8") as handle:
            grown = handle.read() + user_line(logs.CLAUDE, GREP)
        os.replace(write(other + ".tmp", grown), other)
        result = self.scan()
        self.assertEqual((result["sessions_scanned"], result["turns_observed"]), (1, 1))

    def test_a_deleted_log_is_forgotten_and_one_made_again_at_its_path_is_read_from_its_start(self):
        self.conversation(logs.CLAUDE, "-home-p/a.jsonl", SED)
        other = self.conversation(logs.CLAUDE, "-home-p/b.jsonl", SED)
        self.assertEqual(self.scan()["processing"]["sessions"], 2)
        os.remove(other)
        result = self.scan()
        self.assertEqual(result["sessions_scanned"], 0)
        processing = result["processing"]
        self.assertEqual((processing["sessions"], processing["sessions_processed"], processing["sessions_pending"]),
                         (1, 1, 0))
        self.assertEqual(self.listed()["processing"]["sessions"], 1)
        # What the person said there is still theirs: the suggestion stays.
        self.assertEqual(self.suggestion_bodies(), ["- " + SED])
        self.conversation(logs.CLAUDE, "-home-p/b.jsonl", GREP)
        result = self.scan()
        self.assertEqual((result["sessions_scanned"], result["turns_observed"]), (1, 1))
        self.assertEqual(result["processing"]["sessions"], 2)

    def test_folders_made_after_the_first_scan_are_watched(self):
        shutil.rmtree(self.codex_dir)
        self.conversation(logs.CLAUDE, "-home-p/a.jsonl", SED)
        self.scan()
        # A new project, and Codex used for the first time: its sessions folder, year, month, day.
        project = self.conversation(logs.CLAUDE, "-home-q/c.jsonl", TASK.ljust(len(SED)))
        rollout = self.conversation(logs.CODEX, "2026/12/01/rollout-2026-12-01T10-00-00-x.jsonl", GREP)
        result = self.scan()
        self.assertEqual((result["sessions_scanned"], result["turns_observed"]), (2, 2))
        self.assertEqual(result["processing"]["sessions"], 3)
        # Rewritten at the same size and time, only a watch on the new folders can tell.
        rewrite_in_place(project, user_line(logs.CLAUDE, SED))
        write(rollout, user_line(logs.CODEX, SED), "a")
        result = self.scan()
        self.assertEqual((result["sessions_scanned"], result["turns_observed"], result["suggestions_found"]),
                         (2, 2, 1))
        self.assertEqual(self.listed()["suggestions"][0]["session_count"], 3)

    def test_the_list_counts_new_grown_and_deleted_logs_as_a_scan_would_find_them(self):
        first = self.conversation(logs.CLAUDE, "-home-p/a.jsonl", SED)
        second = self.conversation(logs.CLAUDE, "-home-p/b.jsonl", TASK)
        self.scan()

        def counts():
            processing = self.listed()["processing"]
            return processing["sessions"], processing["sessions_processed"], processing["sessions_pending"]

        self.assertEqual(counts(), (2, 2, 0))
        self.conversation(logs.CODEX, "2026/12/01/rollout-2026-12-01T10-00-00-x.jsonl", GREP)
        self.assertEqual(counts(), (3, 2, 1))
        write(first, user_line(logs.CLAUDE, GREP), "a")
        self.assertEqual(counts(), (3, 1, 2))
        os.remove(second)
        self.assertEqual(counts(), (2, 0, 2))
        # Asking for the list leaves the changes for the scan.
        result = self.scan()
        self.assertEqual((result["sessions_scanned"], result["turns_observed"]), (2, 2))
        self.assertEqual(counts(), (2, 2, 0))

    def test_a_pipe_named_as_a_log_is_neither_opened_nor_counted(self):
        self.conversation(logs.CLAUDE, "-home-p/a.jsonl", SED)
        self.scan()
        os.mkfifo(os.path.join(self.claude_dir, "-home-p", "p.jsonl"))
        told = self.scan()
        self.assertEqual((told["sessions_scanned"], told["processing"]["sessions"]), (0, 1))
        walked = self.scan(force=True)
        self.assertEqual((walked["sessions_scanned"], walked["processing"]["sessions"]), (1, 1))

    def test_a_full_kernel_queue_sends_the_next_scan_to_every_log(self):
        first = self.conversation(logs.CLAUDE, "-home-p/a.jsonl", SED)
        second = self.conversation(logs.CLAUDE, "-home-p/b.jsonl", TASK)
        self.scan()
        fill_kernel_queue(first, second)
        # Made after the queue filled: the kernel dropped its event, only a walk finds it.
        self.conversation(logs.CLAUDE, "-home-q/c.jsonl", SED)
        result = self.scan()
        self.assertEqual((result["sessions_scanned"], result["turns_observed"], result["suggestions_found"]),
                         (3, 1, 1))


class UnwatchedRescanTest(RescanTestCase):
    """With no watch (inotify unavailable, or turned off with 0 folders), every scan looks at
    every log: all but an in-place rewrite at the same size and time is still found."""

    extra_env = {"MERE_RELAY_IMPROVE_WATCHED_FOLDERS": "0"}

    def test_every_change_but_a_same_size_rewrite_is_found_by_looking_at_every_log(self):
        self.conversation(logs.CLAUDE, "-home-p/a.jsonl", SED)
        other = self.conversation(logs.CLAUDE, "-home-p/b.jsonl", TASK.ljust(len(SED)))
        self.scan()
        rewrite_in_place(other, user_line(logs.CLAUDE, SED))
        self.assertEqual(self.scan()["sessions_scanned"], 0)
        self.conversation(logs.CODEX, "2026/12/01/rollout-2026-12-01T10-00-00-x.jsonl", SED)
        write(other, user_line(logs.CLAUDE, GREP), "a")
        # Grown now, the rewritten log is found, and seen to be another text: read from its start.
        result = self.scan()
        self.assertEqual((result["sessions_scanned"], result["turns_observed"], result["suggestions_found"]),
                         (2, 3, 1))
        os.remove(other)
        self.assertEqual(self.scan()["processing"]["sessions"], 2)


class CappedRescanTest(UnwatchedRescanTest):
    """Past the cap on watched folders (as when the kernel's watch limit is reached), the same."""

    extra_env = {"MERE_RELAY_IMPROVE_WATCHED_FOLDERS": "1"}


class ChangedFoldersTest(unittest.TestCase):
    """The folders to read changed while the relay runs: the next scan looks at every log there."""

    def setUp(self):
        self.folder = tempfile.mkdtemp(prefix="improve-folders-")
        self.addCleanup(shutil.rmtree, self.folder, ignore_errors=True)
        self.old = os.path.join(self.folder, "old")
        self.new = os.path.join(self.folder, "new")
        os.makedirs(os.path.join(self.folder, "relay", "bin"))
        self.relay = support.InProcessRelay(os.path.join(self.folder, "relay"), {
            "MERE_RELAY_CLAUDE_PROJECTS_DIR": self.old,
            "MERE_RELAY_CODEX_SESSIONS_DIR": os.path.join(self.folder, "codex")}).start()
        self.addCleanup(self.relay.stop)
        self.token = self.relay.local_token()

    def scan(self):
        status, answer, _ = self.relay.request("POST", "v1/improve/scan", {}, token=self.token)
        self.assertEqual(status, 200, answer)
        return answer

    def test_new_folders_are_walked_and_then_watched_and_the_old_ones_forgotten(self):
        from relaylib.improve.area import Improve
        write(os.path.join(self.old, "-home-p", "a.jsonl"), user_line(logs.CLAUDE, SED))
        moved = write(os.path.join(self.new, "-home-p", "b.jsonl"), user_line(logs.CLAUDE, TASK.ljust(len(SED))))
        write(os.path.join(self.new, "-home-q", "c.jsonl"), user_line(logs.CLAUDE, SED))
        self.assertEqual(self.scan()["sessions_scanned"], 1)
        self.relay.app.areas[Improve].claude_dir = self.new
        result = self.scan()
        self.assertEqual((result["sessions_scanned"], result["processing"]["sessions"]), (2, 2))
        rewrite_in_place(moved, user_line(logs.CLAUDE, SED))
        result = self.scan()
        self.assertEqual((result["sessions_scanned"], result["suggestions_found"]), (1, 1))
        self.assertNotIn("Traceback", self.relay.log())


if __name__ == "__main__":
    unittest.main()
