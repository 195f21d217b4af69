"""Projects by normalised folder, their context items, and context packs."""

import re
import unittest

import support  # noqa: F401
from relaylib import contextpack
from support import RelayTestCase

ISO_SECONDS = re.compile(r"^\d{4}-\d\d-\d\dT\d\d:\d\d:\d\dZ$")
PROJECT_KEYS = ["id", "name", "root_path", "created_at", "updated_at"]
ITEM_KEYS = ["id", "title", "content", "source", "updated_at"]


class ProjectsTest(RelayTestCase):
    def upsert(self, name, root_path):
        status, answer, _ = self.call("POST", "v1/projects", {"name": name, "root_path": root_path})
        self.assertEqual(status, 200, answer)
        self.assertEqual(list(answer), PROJECT_KEYS)
        return answer

    def test_upsert_finds_by_normalised_root(self):
        first = self.upsert("quillmere", "/home/dev/quillmere")
        self.assertRegex(first["created_at"], ISO_SECONDS)
        again = self.upsert("other name", "/home/dev/./tmp/../quillmere/")
        self.assertEqual(again, first)
        other = self.upsert("beta", "//home//dev/beta")
        self.assertEqual(other["root_path"], "/home/dev/beta")
        self.assertNotEqual(other["id"], first["id"])

    def test_list_is_a_top_level_array_sorted_by_name(self):
        self.upsert("Zeta", "/srv/zeta")
        self.upsert("alpha", "/srv/alpha")
        status, projects, _ = self.call("GET", "v1/projects")
        self.assertEqual(status, 200)
        self.assertIsInstance(projects, list)
        names = [project["name"] for project in projects]
        self.assertEqual(names, sorted(names, key=str.lower))
        self.assertTrue(all(list(project) == PROJECT_KEYS for project in projects))

    def test_project_without_a_folder(self):
        first = self.upsert("notes", "")
        self.assertEqual(first["root_path"], "")
        self.assertEqual(self.upsert("notes", "")["id"], first["id"])
        self.assertNotEqual(self.upsert("other notes", "")["id"], first["id"])

    def test_empty_name_takes_the_folder_name(self):
        self.assertEqual(self.upsert("  ", "/work/gamma")["name"], "gamma")

    def test_validation(self):
        for body, message in [({"name": "x", "root_path": "relative"}, "root_path must be an absolute path"),
                              ({"name": "x"}, "root_path is required"),
                              ({"name": 1, "root_path": "/a"}, "name must be a string, not a number"),
                              ({"name": "", "root_path": ""}, "name must not be empty")]:
            status, answer, _ = self.call("POST", "v1/projects", body)
            self.assertError(answer, status, 400, message)


class ContextTest(RelayTestCase):
    def setUp(self):
        answer = self.call("POST", "v1/projects", {"name": "ctx", "root_path": f"/work/{self.id()}"})[1]
        self.project = answer["id"]

    def save(self, title, content, source=""):
        status, answer, _ = self.call("POST", f"v1/projects/{self.project}/context",
                                      {"title": title, "content": content, "source": source})
        self.assertEqual(status, 200, answer)
        self.assertEqual(list(answer), ITEM_KEYS)
        return answer

    def items(self):
        status, answer, _ = self.call("GET", f"v1/projects/{self.project}/context")
        self.assertEqual(status, 200)
        return answer

    def pack(self, query, budget=24000):
        status, answer, _ = self.call("POST", f"v1/projects/{self.project}/context/pack",
                                      {"query": query, "character_budget": budget})
        self.assertEqual(status, 200, answer)
        self.assertLessEqual({"items", "content", "character_count", "matched_count", "left_out_count",
                              "left_out"}, set(answer))
        self.assertLessEqual(set(answer), {"items", "content", "character_count", "matched_count",
                                           "left_out_count", "left_out", "cut"})
        self.assertEqual(answer["character_count"], len(answer["content"]))
        self.assertLessEqual(answer["character_count"], budget)
        self.assertEqual(answer["matched_count"], len(answer["items"]) + answer["left_out_count"])
        return answer

    def titles(self, answer):
        return [item["title"] for item in answer["items"]]

    def test_note_has_an_empty_source(self):
        item = self.save("Testing convention", "Tests live beside the code.")
        self.assertEqual(item["source"], "")
        self.assertEqual(self.items(), [item])

    def test_a_file_source_replaces_the_older_item(self):
        first = self.save("AGENTS.md", "Old guide", "file:AGENTS.md")
        self.save("a note", "kept", "")
        second = self.save("AGENTS.md", "New guide", "file:AGENTS.md")
        self.assertEqual(second["id"], first["id"])
        contents = sorted(item["content"] for item in self.items())
        self.assertEqual(contents, ["New guide", "kept"])
        self.save("same title, another note", "Old guide")
        self.save("same title, another note", "Old guide")
        self.assertEqual(len(self.items()), 4)

    def test_delete(self):
        item = self.save("gone", "soon")
        status, answer, _ = self.call("DELETE", f"v1/projects/{self.project}/context/{item['id']}")
        self.assertEqual((status, answer), (200, {"deleted": True, "id": item["id"]}))
        self.assertEqual(self.items(), [])
        status, answer, _ = self.call("DELETE", f"v1/projects/{self.project}/context/{item['id']}")
        self.assertError(answer, status, 404, "context item not found")

    def test_pack_ranks_and_respects_the_budget(self):
        self.save("Testing convention", "Run the unit tests with ctest before every commit.")
        self.save("Release process", "Tag the release and write the changelog.")
        self.save("AGENTS.md", "This project keeps the relay in Python; tests use unittest.", "file:AGENTS.md")
        answer = self.pack("how do we run the tests?")
        titles = [item["title"] for item in answer["items"]]
        self.assertEqual(titles[0], "Testing convention")
        self.assertNotIn("Release process", titles)
        self.assertIn("## Testing convention", answer["content"])
        for budget in (0, 10, 40, 80, 120):
            self.assertLessEqual(self.pack("tests", budget)["character_count"], budget)

    def test_default_query_matches_a_project_guide(self):
        self.save("README.md", "Quillmere is a control panel. Current work: the relay.", "file:README.md")
        self.assertNotEqual(self.pack("current project work")["content"], "")

    def test_nothing_matches_gives_empty_content(self):
        self.save("Style", "Four spaces.")
        answer = self.pack("kubernetes deployment")
        self.assertEqual(answer, {"items": [], "content": "", "character_count": 0, "matched_count": 0,
                                  "left_out_count": 0, "left_out": []})

    def test_the_index_follows_saves_replacements_and_deletes(self):
        guide = self.save("AGENTS.md", "Deployment goes through the staging cluster.", "file:AGENTS.md")
        self.assertEqual(self.titles(self.pack("staging")), ["AGENTS.md"])
        self.save("AGENTS.md", "Releases are tagged by the maintainer.", "file:AGENTS.md")
        self.assertEqual(self.pack("staging")["items"], [])
        self.assertEqual(self.titles(self.pack("maintainer")), ["AGENTS.md"])
        self.call("DELETE", f"v1/projects/{self.project}/context/{guide['id']}")
        self.assertEqual(self.pack("maintainer")["items"], [])
        self.assertEqual(self.pack("releases tagged")["matched_count"], 0)

    def test_words_are_stemmed_and_titles_weigh_more(self):
        self.save("Deploying", "Notes about shipping.")
        self.save("Shipping", "We deploy on Fridays and never on holidays.")
        self.save("Unrelated", "Nothing here.")
        self.assertEqual(self.titles(self.pack("deployment deploys")), ["Deploying", "Shipping"])

    def test_another_projects_items_never_enter_the_pack(self):
        other = self.call("POST", "v1/projects", {"name": "other", "root_path": f"/work/{self.id()}-other"})[1]
        self.call("POST", f"v1/projects/{other['id']}/context", {"title": "Secret plan", "content": "zeppelin"})
        self.save("Mine", "A zeppelin is mentioned here too.")
        answer = self.pack("zeppelin plan")
        self.assertEqual(self.titles(answer), ["Mine"])
        self.assertNotIn("Secret", answer["content"])

    def test_ranking_counts_only_this_projects_items(self):
        self.save("Alpha", "alpha alpha alpha")
        self.save("Beta", "beta beta beta")
        self.assertEqual(self.titles(self.pack("alpha beta")), ["Beta", "Alpha"])
        other = self.call("POST", "v1/projects", {"name": "other", "root_path": f"/work/{self.id()}-other"})[1]
        for n in range(30):
            self.call("POST", f"v1/projects/{other['id']}/context", {"title": f"O{n}", "content": "beta"})
        self.assertEqual(self.titles(self.pack("alpha beta")), ["Beta", "Alpha"])
        # Within the project, a rarer word weighs more: now "beta" is the common one.
        for n in range(3):
            self.save(f"Also beta {n}", "beta and other words")
        self.assertEqual(self.titles(self.pack("alpha beta"))[0], "Alpha")

    def test_a_shorter_item_with_the_same_hits_ranks_first(self):
        self.save("Short", "The parser reads tokens.")
        # Longer than a one-byte size record, and newer, which would win a tie.
        self.save("Long", "The parser " + " ".join(f"word{n}" for n in range(300)))
        self.assertEqual(self.titles(self.pack("parser")), ["Short", "Long"])

    def test_best_first_then_the_next_is_cut_at_a_word_with_a_mark(self):
        self.save("Parser guide", "parser " * 10 + "tokens and grammar.")
        long_text = " ".join(f"filler{n}" for n in range(400))
        self.save("Long notes", "Some words about the parser: " + long_text)
        for n in range(3):
            self.save(f"Minor {n}", f"Mentions the parser once among many other words number {n}. " * 20)
        first = "## Parser guide\n\n" + ("parser " * 10 + "tokens and grammar.").strip()
        budget = len(first) + 2 + 400
        answer = self.pack("parser", budget)
        self.assertEqual(answer["items"][0]["title"], "Parser guide")
        self.assertTrue(answer["content"].startswith(first + "\n\n## "))
        self.assertTrue(answer["content"].endswith(contextpack.CUT_MARK))
        kept = answer["content"][len(first) + 2:-len(contextpack.CUT_MARK)]
        cut = answer["cut"]
        self.assertEqual(cut["id"], answer["items"][1]["id"])
        full = answer["items"][1]["content"]
        body = kept.split("\n\n", 1)[1]
        self.assertEqual(cut["kept_characters"], len(body))
        self.assertEqual(cut["characters"], len(full))
        # The cut falls between two words: the kept text ends a word and the text goes on after a space.
        self.assertTrue(full.startswith(body))
        self.assertTrue(full[len(body)].isspace())
        self.assertEqual(answer["matched_count"], 5)
        self.assertEqual(answer["left_out_count"], 3)
        every = {"Parser guide", "Long notes", "Minor 0", "Minor 1", "Minor 2"}
        self.assertEqual({item["title"] for item in answer["left_out"]}, every - set(self.titles(answer)))
        self.assertTrue(all(item["characters"] > 0 for item in answer["left_out"]))

    def test_in_a_large_project_a_word_in_most_items_is_left_out_unless_nothing_else_is_asked(self):
        for n in range(contextpack.COMMON_MIN_ITEMS):
            self.save(f"Item {n}", "common words everywhere" + (" rare zebra" if n == 7 else ""))
        answer = self.pack("common zebra")
        self.assertEqual((self.titles(answer), answer["matched_count"]), (["Item 7"], 1))
        self.assertEqual(self.pack("common everywhere", 100)["matched_count"], contextpack.COMMON_MIN_ITEMS)

    def test_a_budget_too_small_for_anything_leaves_every_match_out(self):
        self.save("Parser guide", "parser " * 50)
        answer = self.pack("parser", 20)
        self.assertEqual((answer["content"], answer["items"], answer["left_out_count"]), ("", [], 1))
        self.assertEqual(answer["left_out"][0]["title"], "Parser guide")

    def test_query_syntax_of_the_index_is_taken_as_plain_words(self):
        self.save("Near and far", "The column title: NEAR the end, with an asterisk*.")
        for query in ['NEAR(a b)', 'title: near', '"unbalanced', 'a* OR -b AND (c', '^title', '{title}: x']:
            status, answer, _ = self.call("POST", f"v1/projects/{self.project}/context/pack",
                                          {"query": query, "character_budget": 1000})
            self.assertEqual(status, 200, (query, answer))
        self.assertEqual(self.titles(self.pack("title: near")), ["Near and far"])

    def test_unknown_project_is_404(self):
        for method, path, body in [("GET", "v1/projects/prj_none/context", None),
                                   ("POST", "v1/projects/prj_none/context", {"title": "t", "content": "c"}),
                                   ("DELETE", "v1/projects/prj_none/context/ctx_none", None),
                                   ("POST", "v1/projects/prj_none/context/pack",
                                    {"query": "x", "character_budget": 10})]:
            status, answer, _ = self.call(method, path, body)
            self.assertError(answer, status, 404, "project not found")

    def test_validation(self):
        path = f"v1/projects/{self.project}/context"
        for body, message in [({"title": "", "content": "c"}, "title must not be empty"),
                              ({"title": "t", "content": "  "}, "content must not be empty"),
                              ({"title": "t", "content": "c", "source": 4}, "source must be a string, not a number")]:
            status, answer, _ = self.call("POST", path, body)
            self.assertError(answer, status, 400, message)
        for body, message in [({"query": "x", "character_budget": -1}, "character_budget must be an integer from 0"),
                              ({"query": "x", "character_budget": 10.0}, "character_budget must be an integer, not"),
                              ({"query": "x", "character_budget": 10**30}, "character_budget must be an integer from"),
                              ({"character_budget": 10}, "query is required")]:
            status, answer, _ = self.call("POST", path + "/pack", body)
            self.assertError(answer, status, 400, contains=message)
        status, answer, _ = self.call("GET", path + "/pack")
        self.assertError(answer, status, 405, "method GET is not allowed here; use DELETE, POST")


if __name__ == "__main__":
    unittest.main()
