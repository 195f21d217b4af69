"""Context packs: the items of a project that match a query, best first, as one text within a budget.

Items are ranked by BM25 over the full-text index `context_search` (kept in step with the
items by triggers), a match in the title weighing more than one in the text. Words are
stemmed, so "test" finds "testing". Every search names the project and its owner in its
match, so only that project's items are ever scored or returned.

What a query costs is bounded: only its first `MAX_QUERY_TERMS` distinct words that are not
stop words are looked up, and in a project of at least `COMMON_MIN_ITEMS` items a word found
in more than `COMMON_FRACTION` of them is left out as a stop word would be (it says little
about relevance and would have nearly every item scored), unless the query has no other word.

The pack takes whole items in rank order while they fit. The first item that does not fit
is cut at a word boundary to the room that is left, with `CUT_MARK` at the cut, and the pack
ends there. The answer counts the matching items it left out, names the first of them, and
says which item it cut.

BM25's statistics (item count, average length, how many items hold a word) are the
project's own, so a project ranks the same whatever other projects or other users hold: the
index's own `bm25()` would count every item of the relay, letting one person's notes reorder
another's packs. The relay scores instead from the hits of each query term in the project's
items (`context_search_terms`) and their lengths in tokens (the index's own size records).
"""

import json
import re
import sqlite3
import threading

from . import migrations

WORD = re.compile(r"[^\W_]+")
# Words too common to say anything about relevance.
STOP_WORDS = frozenset("""
a an and are as at be by for from how i in is it its of on or our so that the this to
we what when where which who why will with you your
""".split())
MAX_QUERY_TERMS = 16
COMMON_FRACTION = 0.5
COMMON_MIN_ITEMS = 200
SEPARATOR = "\n\n"
CUT_MARK = "\n[… cut here to fit the context budget]"
# A cut item keeps at least this many characters of its text, or it is left out instead.
MIN_CUT_TEXT = 80
# How many of the left-out items the answer names; `left_out_count` counts them all.
LEFT_OUT_LISTED = 20
TITLE_WEIGHT = 2.0
TEXT_WEIGHT = 1.0

# How the index splits and stems words; the same as the index's, so that a query word is
# looked up in the form the index stored it.
TOKENIZER = "porter unicode61 remove_diacritics 2"
# BM25's term-frequency saturation and length normalisation.
K1 = 1.2
B = 0.75

# The match of a search: the words in a title or text, within one project of one owner. Ids
# are a prefix, "_" and hex digits; the index splits them at the "_", and the hex part alone is
# one token, a far cheaper match than the phrase of both. The owner is bound here rather than
# in Python so that every statement names `:user_id`, as the database layer asks.
OWNER_TOKEN = "substr(:user_id, instr(:user_id, '_') + 1)"
SCOPED_MATCH = (f"""printf('{{title content}} : (%s) AND project_id : "%s" AND user_id : "%s"', """
                f""":words, :project, {OWNER_TOKEN})""")
PROJECT_MATCH = f"""printf('project_id : "%s" AND user_id : "%s"', :project, {OWNER_TOKEN})"""
MATCHED = f"SELECT rowid AS seq FROM context_search WHERE context_search MATCH {SCOPED_MATCH}"
COUNT = f"SELECT count(*) AS n FROM context_search WHERE context_search MATCH {SCOPED_MATCH}"
PROJECT_COUNT = f"SELECT count(*) AS n FROM context_search WHERE context_search MATCH {PROJECT_MATCH}"
PROJECT_SEQS = "SELECT seq FROM context_items WHERE user_id = :user_id AND project_id = :project_id"
PROJECT_STATS = ("SELECT count(*) AS items, sum(tokens) AS tokens FROM context_items "
                 "WHERE user_id = :user_id AND project_id = :project_id")
# A term's hits in the project's titles and texts, one row per item holding it, with the
# column weights applied to its frequency.
TERM_HITS = f"""
SELECT term, doc, sum(CASE col WHEN 'title' THEN {TITLE_WEIGHT} ELSE {TEXT_WEIGHT} END) AS f
FROM context_search_terms
WHERE term IN (SELECT value FROM json_each(:terms)) AND col IN ('title', 'content') AND doc IN ({PROJECT_SEQS})
GROUP BY term, doc
"""
# BM25 of every item holding a term: a term's weight (its inverse document frequency, in the
# form that stays positive so that a word most of a small project holds still counts) from how
# many of the project's items hold it, its frequency saturated and normalised by the item's
# length against the project's average.
SCORED = f"""
WITH hits AS ({TERM_HITS}),
weighted AS (
    SELECT doc, f, ln(1.0 + (:items - count(*) OVER holding + 0.5) / (count(*) OVER holding + 0.5)) AS idf
    FROM hits WINDOW holding AS (PARTITION BY term))
SELECT w.doc AS seq, sum(w.idf * w.f * ({K1} + 1.0) / (w.f + {K1} * (1.0 - {B} + {B} * i.tokens / :average))) AS score
FROM weighted w JOIN context_items i ON i.seq = w.doc
WHERE i.user_id = :user_id AND i.project_id = :project_id
GROUP BY w.doc ORDER BY score DESC, w.doc DESC
"""
ITEM = "SELECT seq, id, title, content, source, updated_at FROM context_items WHERE seq = :seq AND user_id = :user_id"
ITEM_HEAD = ("SELECT seq, id, title, length(content) AS characters FROM context_items "
             "WHERE seq = :seq AND user_id = :user_id")


def query_terms(query):
    terms = []
    for word in WORD.findall(query.lower()):
        if len(word) >= 2 and word not in STOP_WORDS and word not in terms:
            terms.append(word)
            if len(terms) == MAX_QUERY_TERMS:
                break
    return terms


def match_expression(terms):
    """An FTS5 query matching any of the terms. Terms are runs of letters and digits, so quoting
    each one is enough to keep FTS5's own syntax (AND, NEAR, column filters) out of a query."""
    return " OR ".join(f'"{term}"' for term in terms)


_stemmers = threading.local()


def index_terms(words):
    """The distinct terms the index stores for these words (folded and stemmed by the index's
    own tokenizer, on a private in-memory table, so the two never disagree)."""
    conn = getattr(_stemmers, "conn", None)
    if conn is None:
        conn = sqlite3.connect(":memory:", check_same_thread=True)
        conn.execute(f"CREATE VIRTUAL TABLE words USING fts5(word, tokenize='{TOKENIZER}')")
        conn.execute("CREATE VIRTUAL TABLE word_terms USING fts5vocab(words, instance)")
        _stemmers.conn = conn
    with conn:
        conn.executemany("INSERT INTO words (rowid, word) VALUES (?, ?)", enumerate(words, 1))
        rows = conn.execute("SELECT term FROM word_terms ORDER BY doc, offset").fetchall()
        conn.execute("DELETE FROM words")
    terms = []
    for (term,) in rows:
        if term not in terms:
            terms.append(term)
    return terms


def record_length(conn, item_id):
    """Keeps an item's length in tokens, read from the index's size record, after a save."""
    sizes = conn.execute("SELECT d.sz FROM context_search_docsize d JOIN context_items i ON i.seq = d.id "
                         "WHERE i.id = :id AND i.user_id = :user_id", {"id": item_id}).fetchone()["sz"]
    conn.execute("UPDATE context_items SET tokens = :tokens WHERE id = :id AND user_id = :user_id",
                 {"id": item_id, "tokens": sum(migrations.sqlite_varints(sizes, 2))})


def bm25_order(conn, project_id, words):
    """The seqs of the project's items holding any of the words, best first by BM25 with the
    project's own statistics; ties go to the newer item. The sums run in SQLite: a common word
    in a large project has tens of thousands of hits."""
    terms = index_terms(words)
    if not terms:
        return []
    keys = {"project_id": project_id, "terms": json.dumps(terms)}
    stats = conn.execute(PROJECT_STATS, keys).fetchone()
    average = (stats["tokens"] or 1) / max(stats["items"], 1)
    ranked = conn.execute(SCORED, dict(keys, items=stats["items"], average=average))
    return [row["seq"] for row in ranked]


def block(title, content):
    return f"## {title}\n\n{content.strip()}"


def cut_at_word(text, room):
    """The longest start of `text` of at most `room` characters that ends at a word boundary,
    without trailing white space; a text with no boundary in reach is cut where the room ends."""
    if len(text) <= room:
        return text
    head = text[:room]
    if not text[room].isspace():
        boundary = max(head.rfind(" "), head.rfind("\n"), head.rfind("\t"))
        if boundary > 0:
            head = head[:boundary]
    return head.rstrip()


def assemble(ranked, budget):
    """Whole items in rank order while they fit, then the next one cut to the room left.

    `ranked` is an iterator of dicts with `title` and `content`, consumed only as far as the
    pack goes. Returns (chosen items, the text, the cut: None or (item, kept characters of its
    stripped text), the first item left out or None). The text never exceeds `budget`.
    """
    chosen, parts, used = [], [], 0
    for item in ranked:
        text = block(item["title"], item["content"])
        gap = len(SEPARATOR) if parts else 0
        if used + gap + len(text) <= budget:
            chosen.append(item)
            parts.append(text)
            used += gap + len(text)
            continue
        head = block(item["title"], "")
        room = budget - used - gap - len(head) - len(CUT_MARK)
        kept = cut_at_word(item["content"].strip(), room) if room >= MIN_CUT_TEXT else ""
        if not kept:
            return chosen, SEPARATOR.join(parts), None, item
        chosen.append(item)
        parts.append(head + kept + CUT_MARK)
        return chosen, SEPARATOR.join(parts), (item, len(kept)), None
    return chosen, SEPARATOR.join(parts), None, None


def _scope(project_id):
    """The token of a project id, or an id of no project's form, which then matches nothing."""
    token = project_id.partition("_")[2]
    return token if re.fullmatch(r"[0-9a-f]+", token) else "0"


def useful_terms(conn, project_id, terms):
    """The terms without those found in more than `COMMON_FRACTION` of a large project's items;
    all of them if every one is that common."""
    project = _scope(project_id)
    items = conn.execute(PROJECT_COUNT, {"project": project}).fetchone()["n"]
    if items < COMMON_MIN_ITEMS:
        return terms
    kept = [term for term in terms
            if conn.execute(COUNT, {"words": match_expression([term]), "project": project}).fetchone()["n"]
            <= items * COMMON_FRACTION]
    return kept or terms


def build(conn, project_id, query, budget):
    """The pack's answer for a project, on a connection scoped to the project's owner."""
    terms = query_terms(query)
    if terms:
        terms = useful_terms(conn, project_id, terms)
    keys = {"words": match_expression(terms), "project": _scope(project_id)}
    found = {row["seq"] for row in conn.execute(MATCHED, keys)} if terms else set()
    matched = len(found)
    # The index's match decides what matched; the ranking only orders it.
    ranked = [seq for seq in bm25_order(conn, project_id, terms) if seq in found] if found else []
    order = iter(ranked + sorted(found.difference(ranked), reverse=True))
    items = (dict(conn.execute(ITEM, {"seq": seq}).fetchone()) for seq in order)
    chosen, content, cut, first_left = assemble(items, budget)
    listed = []
    if first_left is not None:
        listed.append({"id": first_left["id"], "title": first_left["title"],
                       "characters": len(first_left["content"])})
    for seq in order:
        if len(listed) == LEFT_OUT_LISTED:
            break
        row = conn.execute(ITEM_HEAD, {"seq": seq}).fetchone()
        listed.append({"id": row["id"], "title": row["title"], "characters": row["characters"]})
    answer = {"items": chosen, "content": content, "character_count": len(content), "matched_count": matched,
              "left_out_count": matched - len(chosen), "left_out": listed}
    if cut is not None:
        item, kept = cut
        answer["cut"] = {"id": item["id"], "title": item["title"], "kept_characters": kept,
                         "characters": len(item["content"])}
    return answer
