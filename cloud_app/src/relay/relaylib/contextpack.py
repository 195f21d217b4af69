"""Context packs: the items of a project that match a query, as one text within a budget.

Ranking is plain term matching. A query word matches a word of an item that begins
with it ("test" matches "testing"); words rare among the project's items weigh
more, a match in the title weighs more than one in the text. Items that match no
query word are left out, so a query that matches nothing gives an empty pack.
"""

import math
import re

WORD = re.compile(r"[^\W_]+")
# Words too common to say anything about relevance.
STOP_WORDS = frozenset("""
a an and are as at be by for from how i in is it its of on or our so that the this to
we what when where which who why will with you your
""".split())
SEPARATOR = "\n\n"
ELLIPSIS = "…"
TITLE_WEIGHT = 2.0


def query_terms(query):
    terms = []
    for word in WORD.findall(query.lower()):
        if len(word) >= 2 and word not in STOP_WORDS and word not in terms:
            terms.append(word)
    return terms


def _words(text):
    return WORD.findall(text.lower())


def _count(words, term):
    return sum(1 for word in words if word.startswith(term))


def rank(items, query):
    """The items that match the query, best first; each item is a dict with title, content, updated_at."""
    terms = query_terms(query)
    if not terms or not items:
        return []
    indexed = [(item, _words(item["title"]), _words(item["content"])) for item in items]
    weights = {}
    for term in terms:
        frequency = sum(1 for _, title, content in indexed if _count(title, term) or _count(content, term))
        weights[term] = math.log((len(items) + 1) / (frequency + 0.5))
    scored = []
    for item, title, content in indexed:
        score = 0.0
        for term in terms:
            in_title, in_content = _count(title, term), _count(content, term)
            if in_title or in_content:
                score += weights[term] * (1 + math.log1p(in_content) + TITLE_WEIGHT * bool(in_title))
        if score > 0:
            scored.append((score, item))
    scored.sort(key=lambda pair: (-pair[0], -pair[1]["updated_at"], pair[1]["title"]))
    return [item for _, item in scored]


def block(item):
    return f"## {item['title']}\n\n{item['content'].strip()}"


def assemble(ranked, budget):
    """Whole items in rank order while they fit; a best match larger than the budget is cut to fit.

    Returns the chosen items and the text, whose length never exceeds `budget`.
    """
    chosen, parts, used = [], [], 0
    for item in ranked:
        text = block(item)
        needed = len(text) + (len(SEPARATOR) if parts else 0)
        if used + needed <= budget:
            chosen.append(item)
            parts.append(text)
            used += needed
        elif not parts and budget > len(ELLIPSIS):
            chosen.append(item)
            parts.append(text[:budget - len(ELLIPSIS)] + ELLIPSIS)
            used = budget
    return chosen, SEPARATOR.join(parts)
