"""The readers of the agents' logs and the detection of recurring instructions, without a relay."""

import json
import os
import shutil
import tempfile
import unittest

import support  # noqa: F401  (puts the relay's folder on the path)
from relaylib.improve import detect, logs

FIXTURES = os.path.join(support.DATA_DIR, "improve")


def fixture_logs(agent):
    root = os.path.join(FIXTURES, agent)
    return sorted(os.path.join(folder, name) for folder, _, names in os.walk(root) for name in names)


def write_log(test, name, lines):
    """A log of `lines` (objects, written as the CLIs write them) in a folder removed after `test`."""
    folder = tempfile.mkdtemp()
    test.addCleanup(shutil.rmtree, folder)
    path = os.path.join(folder, name)
    with open(path, "w", encoding="utf-8") as handle:
        handle.write("".join(json.dumps(line, separators=(",", ":")) + "\n" for line in lines))
    return path


def turn(text, session="s1", index=1, agent="claude", at=1000.0):
    return detect.Turn(session, index, agent, text, at)


class ReaderTest(unittest.TestCase):
    def test_claude_logs_give_the_persons_messages_only(self):
        found = []
        for path in fixture_logs("claude"):
            turns, offset, state = logs.read_log(path, logs.CLAUDE, 0, {})
            self.assertEqual(offset, os.path.getsize(path))
            self.assertEqual(state["turns"], len(turns))
            found.extend(turns)
        self.assertEqual(sorted(item.text for item in found), sorted([
            "Rename the helper in utils.py to parse_line.", "Don't use sed, use the edit tool instead.",
            "Always run the tests before you commit.", "Add a docstring to the parser.",
            "don't use sed for this \u2014 use the Edit tool instead!", "Prefer tabs over spaces in the Makefile."]))
        for item in found:
            # Claude names the log after its session.
            self.assertEqual(len(item.session_id), 36)
            self.assertEqual(item.agent, "claude")
            self.assertGreater(item.observed_at, 1.7e9)
        self.assertEqual(sorted(item.turn_index for item in found), [1, 1, 2, 2, 3, 3])

    def test_codex_logs_give_the_persons_messages_without_environment_or_instructions(self):
        found = []
        for path in fixture_logs("codex"):
            found.extend(logs.read_log(path, logs.CODEX, 0, {})[0])
        self.assertEqual([item.text for item in found], [
            "Fix the failing build in src/.", "Always run the tests before you commit.",
            "Update the changelog for the release.", "Please always run the tests before committing!!"])
        self.assertEqual(len({item.session_id for item in found}), 2)
        self.assertTrue(all(len(item.session_id) == 36 for item in found))

    def test_tool_results_meta_lines_sidechains_and_reminders_are_not_the_person(self):
        lines = [
            {"type": "user", "message": {"role": "user", "content": [{"type": "tool_result", "content": "never x"}]}},
            {"type": "user", "isMeta": True, "message": {"role": "user", "content": "Always meta."}},
            {"type": "user", "isSidechain": True, "message": {"role": "user", "content": "Never sidechain."}},
            {"type": "user", "message": {"role": "user", "content": "<system-reminder>Never.</system-reminder>"}},
            {"type": "assistant", "message": {"role": "assistant", "content": [{"type": "text", "text": "Never."}]}},
            {"type": "user", "message": {"role": "user", "content": [{"type": "text", "text": "Never do that."}]}},
        ]
        path = write_log(self, "abc.jsonl", lines)
        turns, _, _ = logs.read_log(path, logs.CLAUDE, 0, {})
        self.assertEqual([(item.text, item.session_id) for item in turns], [("Never do that.", "abc")])

    def test_older_codex_logs_holding_each_message_twice_count_it_once(self):
        lines = [{"type": "response_item", "payload": {"type": "message", "role": "user",
                                                        "content": [{"type": "input_text", "text": "Never guess."}]}},
                 {"type": "event_msg", "payload": {"type": "user_message", "message": "Never guess."}}]
        path = write_log(self, "rollout-2025-01-01T00-00-00-0199a1b2-0000-7000-8000-000000000001.jsonl", lines)
        turns, _, _ = logs.read_log(path, logs.CODEX, 0, {})
        self.assertEqual([(item.text, item.session_id) for item in turns],
                         [("Never guess.", "0199a1b2-0000-7000-8000-000000000001")])

    def test_a_grown_log_is_read_from_where_it_stopped_and_a_half_written_line_waits(self):
        path = fixture_logs("claude")[0]
        folder = tempfile.mkdtemp()
        self.addCleanup(shutil.rmtree, folder)
        copy = os.path.join(folder, os.path.basename(path))
        shutil.copyfile(path, copy)
        turns, offset, state = logs.read_log(copy, logs.CLAUDE, 0, {})
        line = json.dumps({"type": "user", "message": {"role": "user", "content": "Stop adding comments."}},
                          separators=(",", ":"))
        with open(copy, "a", encoding="utf-8") as handle:
            handle.write(line[:20])
        self.assertEqual(logs.read_log(copy, logs.CLAUDE, offset, state), ([], offset, state))
        with open(copy, "a", encoding="utf-8") as handle:
            handle.write(line[20:] + "\n")
        more, end, state = logs.read_log(copy, logs.CLAUDE, offset, state)
        self.assertEqual([(item.text, item.turn_index) for item in more], [("Stop adding comments.", len(turns) + 1)])
        self.assertEqual(end, os.path.getsize(copy))

    def test_a_read_stops_at_its_limit_on_a_whole_line_and_says_there_is_more(self):
        path = fixture_logs("codex")[0]
        size = os.path.getsize(path)
        turns, offset, state = logs.read_log(path, logs.CODEX, 0, {}, limit=size // 2)
        self.assertTrue(state["more"])
        self.assertLess(offset, size // 2 + 1)
        with open(path, "rb") as handle:
            self.assertEqual(handle.read()[offset - 1:offset], b"\n")
        rest, end, state = logs.read_log(path, logs.CODEX, offset, {"turns": state["turns"], "last": state["last"]})
        self.assertNotIn("more", state)
        self.assertEqual(end, size)
        self.assertEqual([item.turn_index for item in turns + rest], [1, 2])

    def test_a_line_longer_than_the_limit_is_stepped_over(self):
        folder = tempfile.mkdtemp()
        self.addCleanup(shutil.rmtree, folder)
        path = os.path.join(folder, "long.jsonl")
        line = json.dumps({"type": "user", "message": {"role": "user", "content": "Never skip this one."}},
                          separators=(",", ":"))
        with open(path, "w", encoding="utf-8") as handle:
            handle.write('{"type":"assistant","text":"' + "x" * 5000 + '"}\n' + line + "\n")
        turns, offset, state = logs.read_log(path, logs.CLAUDE, 0, {}, limit=1000)
        self.assertEqual((turns, offset, state["more"]), ([], 5031, True))
        turns, offset, state = logs.read_log(path, logs.CLAUDE, offset, state, limit=1000)
        self.assertEqual([item.text for item in turns], ["Never skip this one."])
        self.assertEqual(offset, os.path.getsize(path))

    def test_typed_lines_take_back_deleted_characters_and_drop_escape_sequences(self):
        lines, rest = logs.typed_lines("", "ab\x7fc\r\x1b[Ax\x15never do\x1b[200~ that\x1b[201~\rpart")
        self.assertEqual((lines, rest), (["ac", "never do that"], "part"))
        self.assertEqual(logs.typed_lines(rest, "ial\n"), (["partial"], ""))


class DetectionTest(unittest.TestCase):
    def test_corrections_and_steering_are_signals_and_tasks_are_not(self):
        cases = {
            "Don't use sed, use the edit tool instead.": ["negation", "instead", "imperative"],
            "do not touch the lockfile": ["negation", "imperative"],
            "Never push to main.": ["negation", "imperative"],
            "Stop adding emojis to commit messages": ["negation", "imperative"],
            "Always run the tests before you commit.": ["always", "imperative"],
            "Use pnpm rather than npm": ["instead", "imperative"],
            "I prefer early returns": ["preference"],
            "Add a docstring to the parser.": None,
            "What does this function do?": None,
            "Don't!": None,
            "Never mind, don't worry about it.": None,
            "Why don't you use the edit tool?": None,
            "It doesn't work, never did.": None,
            "I never saw that error before.": None,
            "I prefer tabs, never spaces.": ["negation", "preference"],
        }
        for text, kinds in cases.items():
            with self.subTest(text=text):
                found = detect.signals_of(turn(text))
                self.assertEqual(found[0].kinds if found else None, kinds)

    def test_frustration_marks_the_signals_of_its_message(self):
        found = detect.signals_of(turn("I told you already. Never use tabs!!"))
        self.assertEqual([(item.excerpt, item.kinds) for item in found],
                         [("Never use tabs!!", ["negation", "imperative", "frustration"])])

    def test_normalising_meets_case_punctuation_contractions_stop_words_and_endings(self):
        self.assertEqual(detect.normalise("Please ALWAYS run the tests before committing!!"),
                         detect.normalise("always run tests before you commit."))
        self.assertEqual(detect.normalise("don't use sed"), detect.normalise("Do NOT use sed."))
        self.assertEqual(detect.stem("running"), "run")
        self.assertEqual(detect.stem("tests"), "test")

    def test_one_instruction_in_two_conversations_is_one_recurring_cluster(self):
        signals = (detect.signals_of(turn("Don't use sed, use the edit tool instead.", "a"))
                   + detect.signals_of(turn("don't use sed for this - use the Edit tool instead!", "b"))
                   + detect.signals_of(turn("Never use sed here, the edit tool please", "b", 2))
                   + detect.signals_of(turn("Always run the tests first.", "a", 2)))
        clusters = detect.cluster(signals)
        recurring = detect.recurring(clusters)
        self.assertEqual(len(recurring), 1)
        self.assertEqual(recurring[0].sessions, {"a", "b"})
        self.assertEqual(len(recurring[0].signals), 2)

    def test_the_same_instruction_twice_in_one_conversation_is_not_a_pattern(self):
        signals = (detect.signals_of(turn("Never use sed.", "a", 1))
                   + detect.signals_of(turn("never use sed!", "a", 2)))
        self.assertEqual(detect.recurring(detect.cluster(signals)), [])

    def test_wording_a_rule_and_a_skill(self):
        signals = (detect.signals_of(turn("please always run the tests before you commit!!", "a", 1, "codex"))
                   + detect.signals_of(turn("PLEASE always run the tests before you commit!", "b", 1, "codex")))
        found = detect.word(detect.recurring(detect.cluster(signals))[0], "u1")
        self.assertEqual(found["body"], "- Always run the tests before you commit.")
        self.assertEqual(found["artifact"], "rule")
        self.assertEqual(found["section"], "## Rules")
        self.assertEqual(found["targets"], [{"agent": "codex", "path": "AGENTS.md", "artifact": "rule"}])
        self.assertEqual(found["id"], detect.word(detect.recurring(detect.cluster(signals))[0], "u1")["id"])
        self.assertNotEqual(found["id"], detect.word(detect.recurring(detect.cluster(signals))[0], "u2")["id"])
        steps = "Always release like this: first bump the version, then tag it, then push the tag, finally publish."
        signals = (detect.signals_of(turn(steps, "a", 1, "claude"))
                   + detect.signals_of(turn(steps.lower(), "b", 1, "claude")))
        skill = detect.word(detect.recurring(detect.cluster(signals))[0], "u1")
        self.assertEqual(skill["artifact"], "skill")
        self.assertEqual(skill["section"], "")
        slug = skill["slug"]
        self.assertEqual(skill["targets"], [{"agent": "claude", "path": f".claude/skills/{slug}/SKILL.md",
                                             "artifact": "skill"}])
        self.assertTrue(skill["body"].startswith(f"---\nname: {slug}\ndescription: "))

    def test_signals_added_one_by_one_join_the_clusters_built_before(self):
        said = [("Don't use sed, use the edit tool instead.", "a"), ("Always run the tests first.", "a"),
                ("don't use sed here - use the Edit tool instead!", "b"),
                ("never use sed, use the edit tool instead", "c"),
                ("Always run the tests first!", "c")]
        signals = [signal for text, session in said for signal in detect.signals_of(turn(text, session))]
        clustering = detect.Clustering()
        clustering.build(signals[:2])
        for signal in signals[2:]:
            clustering.add(signal)
        built = detect.cluster(signals)
        self.assertEqual(sorted(sorted(s.excerpt for s in c.signals) for c in clustering.clusters),
                         sorted(sorted(s.excerpt for s in c.signals) for c in built))
        self.assertEqual(sorted(len(c.sessions) for c in detect.recurring(clustering.clusters)), [2, 3])

    def test_the_fixed_times_and_limits(self):
        from relaylib.improve import area
        self.assertEqual((area.WINDOW_DAYS, area.DAY_SECONDS, area.HOUR_SECONDS, area.DEFAULT_CADENCE_HOURS,
                          area.AUTOMATIC_CHECK_SECONDS, area.DEFAULT_LIMIT), (30, 86400, 3600, 24, 60, 20))
        self.assertEqual((detect.SIMILARITY, detect.MIN_SESSIONS, detect.EXCERPT_CHARS), (0.6, 2, 280))

    def test_evidence_is_one_per_conversation_first_newest_first(self):
        signals = [detect.Signal("a", index, "claude", ["negation"], f"never x {index}", ["never", "x"], 100 + index)
                   for index in range(1, 6)]
        signals.append(detect.Signal("b", 1, "claude", ["negation"], "never x b", ["never", "x"], 50))
        chosen = detect.evidence_of(detect.cluster(signals)[0], limit=3)
        self.assertEqual([item.excerpt for item in chosen], ["never x 5", "never x b", "never x 4"])


if __name__ == "__main__":
    unittest.main()
