"""What a preset's plugins do to a prompt and to an answer: middle-out context compression and
JSON response healing, as pure functions."""

import json
import unittest

import support  # noqa: F401  (puts the relay on the path)
from relaylib.modelrouter import conversation, json_healing, middle_out


def turn(role, content, **fields):
    return dict(fields, role=role, content=content)


class MiddleOutTest(unittest.TestCase):
    def test_a_text_keeps_its_start_and_end_around_a_mark_that_counts_what_went(self):
        text = "A" * 500 + "B" * 500
        cut = middle_out.fit(text, 200)
        self.assertLessEqual(len(cut.encode("utf-8")), 200)
        head, _, tail = cut.partition("\n[…")
        self.assertTrue(head and set(head) == {"A"} and tail.endswith("B"))
        left_out = int(cut.split("[… ")[1].split(" ")[0])
        kept = len(head) + len(tail.rsplit("\n", 1)[1])
        self.assertEqual(left_out + kept, len(text))
        self.assertEqual(middle_out.fit(text, 1000), text)
        self.assertEqual(middle_out.fit(text, 10), "")

    def test_multibyte_text_is_never_cut_inside_a_character(self):
        text = "é日本" * 300
        for limit in range(90, 130):
            cut = middle_out.fit(text, limit)
            self.assertLessEqual(len(cut.encode("utf-8")), limit)
            self.assertNotIn("\ufffd", cut)

    def test_a_conversation_keeps_its_first_turn_and_its_latest_turns(self):
        turns = [turn("user", "the original task")] + [turn("user" if n % 2 else "assistant", f"step {n} " * 20)
                                                        for n in range(1, 20)] + [turn("user", "the latest ask")]
        fitted = middle_out.fit(turns, 600)
        self.assertLessEqual(conversation.prompt_bytes(fitted), 600)
        self.assertEqual(fitted[0], turns[0])
        self.assertEqual(fitted[-1], turns[-1])
        self.assertEqual(fitted[1:], turns[len(turns) - len(fitted) + 1:])
        self.assertGreater(len(fitted), 2)

    def test_a_tool_call_and_its_results_go_or_stay_together(self):
        call = turn("assistant", "", tool_calls=[{"id": "c1", "name": "read", "arguments": "{}"},
                                                  {"id": "c2", "name": "read", "arguments": "{}"}])
        turns = [turn("user", "task"), turn("user", "old " * 100), call,
                 turn("tool", "result one " * 10, tool_call_id="c1"), turn("tool", "result two " * 10, tool_call_id="c2"),
                 turn("user", "go on")]
        whole = conversation.prompt_bytes(turns[2:])
        for limit in range(conversation.prompt_bytes([turns[0], turns[-1]]) + 1, whole + 10, 7):
            fitted = middle_out.fit(turns, limit)
            tool_ids = [t["tool_call_id"] for t in fitted if t["role"] == "tool"]
            calls = [c["id"] for t in fitted for c in t.get("tool_calls", [])]
            self.assertEqual(sorted(tool_ids), sorted(calls), limit)

    def test_first_and_last_turns_too_large_are_cut_in_their_middles(self):
        turns = [turn("user", "S" * 2000), turn("assistant", "x"), turn("user", "E" * 2000)]
        fitted = middle_out.fit(turns, 1000)
        self.assertLessEqual(conversation.prompt_bytes(fitted), 1000)
        self.assertEqual([t["role"] for t in fitted], ["user", "user"])
        self.assertTrue(fitted[0]["content"].startswith("S") and fitted[1]["content"].endswith("E"))
        self.assertEqual(turns[0]["content"], "S" * 2000)  # the caller's conversation is not changed

    def test_room_leaves_the_answer_and_the_instructions_theirs(self):
        class Lane:
            context_window = 1000
        self.assertEqual(middle_out.room(Lane, None, 100, None), 900 * middle_out.BYTES_PER_TOKEN)
        self.assertEqual(middle_out.room(Lane, "x" * 30, 100, None), 890 * middle_out.BYTES_PER_TOKEN)
        self.assertEqual(middle_out.room(Lane, None, 1000, None), 0)


class JsonHealingTest(unittest.TestCase):
    def healed(self, text):
        result = json_healing.heal(text)
        json.loads(result)
        return json.loads(result)

    def test_valid_json_is_returned_as_it_came(self):
        for text in ['{"a": 1}', '  [1, 2]  ', '"just a string"', "3"]:
            self.assertEqual(json_healing.heal(text), text)

    def test_what_models_get_wrong_is_repaired(self):
        cases = {
            '```json\n{"a": 1}\n```': {"a": 1},
            '```\n[1, 2]\n```': [1, 2],
            'Sure! Here is the JSON: {"a": 1} Let me know.': {"a": 1},
            '{"a": [1, 2,], "b": {"c": 3,},}': {"a": [1, 2], "b": {"c": 3}},
            "{'a': 'it\\'s', 'b': \"say \\\"hi\\\"\"}": {"a": "it's", "b": 'say "hi"'},
            '{a: 1, b_2: "x"}': {"a": 1, "b_2": "x"},
            '{"t": True, "f": False, "n": None}': {"t": True, "f": False, "n": None},
            '{"a": 1, // a note\n "b": /* inline */ 2}': {"a": 1, "b": 2},
            '{"a": "line one\nline two"}': {"a": "line one\nline two"},
            '{"items": [{"x": 1}, {"x": 2': {"items": [{"x": 1}, {"x": 2}]},
            '{"a": "cut off': {"a": "cut off"},
            '{"a": 1, "b":': {"a": 1, "b": None},
            '{"a": 1, "b': {"a": 1, "b": None},
            '[1, 2,': [1, 2],
            '{"url": "http://x.y/z"}  trailing words': {"url": "http://x.y/z"},
        }
        for text, value in cases.items():
            with self.subTest(text=text):
                self.assertEqual(self.healed(text), value)

    def test_what_cannot_be_repaired_is_left_alone(self):
        for text in ["no JSON at all", "", '{"a": 1 "b": 2}']:
            self.assertEqual(json_healing.heal(text), text)

    def test_it_applies_only_to_whole_json_answers_with_the_plugin(self):
        plugins, json_format = ("response-healing",), {"response_format": {"type": "json_object"}}
        self.assertTrue(json_healing.applies(plugins, json_format, streamed=False))
        self.assertTrue(json_healing.applies(plugins, {"response_format": {"type": "json_schema"}}, streamed=False))
        self.assertFalse(json_healing.applies(plugins, json_format, streamed=True))
        self.assertFalse(json_healing.applies((), json_format, streamed=False))
        self.assertFalse(json_healing.applies(plugins, {"response_format": {"type": "text"}}, streamed=False))
        self.assertFalse(json_healing.applies(plugins, {}, streamed=False))


if __name__ == "__main__":
    unittest.main()
