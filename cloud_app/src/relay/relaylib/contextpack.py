"""Context packs: the items of a project that match a query, best first, as one text within a budget.

Items are ranked by BM25 over the project's own full-text index (`contextindex`), a match in the
title weighing more than one in the text. Words are stemmed, so "test" finds "testing". BM25's
statistics (item count, average length, how many items hold a word) are thus the project's
own: no other project's or user's text changes a pack's order.

What a query costs is bounded: only its first `MAX_QUERY_TERMS` distinct words that are not
stop words are looked up, and in a project of at least `COMMON_MIN_ITEMS` items a word found
in more than `COMMON_FRACTION` of them is left out as a stop word would be (it says little
about relevance and would have nearly every item scored), unless the query has no other word.

The pack takes whole items in rank order while they fit. The first item that does not fit
is cut at a word boundary to the room that is left, with `CUT_MARK` at the cut, and the pack
ends there. The answer counts the matching items it left out, names the first of them, and
says which item it cut.
"""

import re

from . import contextindex

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
# Ranked items are read this many at a time, so a pack reads only the rows it uses.
PAGE = 48
TITLE_WEIGHT = 2.0
TEXT_WEIGHT = 1.0

# Searches of a project's index (its table's name is put in by `_search`). Each one checks that
# the project is the caller's, as the database layer asks; the check is one lookup per search,
# not one per item found.
OWNED = "EXISTS (SELECT 1 FROM projects WHERE id = :project AND user_id = :user_id)"
RANKED = f"""
SELECT rowid AS seq FROM {{index}} WHERE {{index}} MATCH :words AND {OWNED}
ORDER BY bm25({{index}}, {TITLE_WEIGHT}, {TEXT_WEIGHT}), rowid DESC LIMIT :limit OFFSET :offset
"""
COUNT = f"SELECT count(*) AS n FROM {{index}} WHERE {{index}} MATCH :words AND {OWNED}"
PROJECT_COUNT = "SELECT count(*) AS n FROM context_items WHERE user_id = :user_id AND project_id = :project"
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


def _search(sql, project_id):
    return sql.format(index=contextindex.table(project_id))


def useful_terms(conn, project_id, terms):
    """The terms without those found in more than `COMMON_FRACTION` of a large project's items;
    all of them if every one is that common."""
    items = conn.execute(PROJECT_COUNT, {"project": project_id}).fetchone()["n"]
    if items < COMMON_MIN_ITEMS:
        return terms
    count = _search(COUNT, project_id)
    kept = [term for term in terms
            if conn.execute(count, {"words": match_expression([term]), "project": project_id}).fetchone()["n"]
            <= items * COMMON_FRACTION]
    return kept or terms


def build(conn, project_id, query, budget):
    """The pack's answer for a project, on a connection scoped to the project's owner."""
    terms = query_terms(query)
    if terms:
        terms = useful_terms(conn, project_id, terms)
    keys = {"words": match_expression(terms), "project": project_id}
    matched = conn.execute(_search(COUNT, project_id), keys).fetchone()["n"] if terms else 0
    ranked = _search(RANKED, project_id)

    def seqs():
        offset = 0
        while offset < matched:
            page = conn.execute(ranked, dict(keys, limit=PAGE, offset=offset)).fetchall()
            if not page:
                return
            for row in page:
                yield row["seq"]
            offset += len(page)

    order = seqs()
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
