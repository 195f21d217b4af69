#!/usr/bin/env python3
"""Measures context packs: ranking a large project, and what a save costs the index.

    python3 cloud_app/scripts/bench_context.py [--items 10000] [--item-chars 2000]
                                                [--queries 300] [--saves 300] [--linear 3]

- a project of `--items` items of about `--item-chars` characters each (10,000 of 2,000
  make about 20 MB), words drawn from a Zipf-like vocabulary, is written through the
  relay's own database layer (migrations, triggers and all);
- pack: `contextpack.build` with the budget the application uses (24,000), p50 and p99
  over `--queries` queries of 1, 10, 100 and 400 words;
- save: one insert, one replacement (a guide saved again) and one delete, each in its own
  write transaction as the relay makes them, p50 and p99;
- the linear term matcher the index replaced, on the same items with a 10-word query, the
  median of `--linear` runs (it reads every word of every item, so a few runs are enough).

Everything runs in this process on this machine; other work on it only makes the
figures worse.
"""

import argparse
import math
import os
import random
import re
import shutil
import statistics
import sys
import tempfile
import time
import uuid

HERE = os.path.dirname(os.path.abspath(__file__))
sys.path.insert(0, os.path.normpath(os.path.join(HERE, "..", "src", "relay")))

from relaylib import contextindex, contextpack  # noqa: E402
from relaylib.db import Database  # noqa: E402

BUDGET = 24000
VOCABULARY = 40000
USER = "usr_" + "b" * 32
PROJECT = "prj_" + "0123456789abcdef" * 2


def percentile(values, fraction):
    ordered = sorted(values)
    return ordered[min(len(ordered) - 1, math.ceil(fraction * len(ordered)) - 1)]


def make_words(rng):
    letters = "abcdefghijklmnopqrstuvwxyz"
    words = set()
    while len(words) < VOCABULARY:
        words.add("".join(rng.choice(letters) for _ in range(rng.randint(3, 10))))
    words = sorted(words)
    rng.shuffle(words)
    # Cumulative weights of a Zipf-like law: the word of rank r is drawn in proportion to 1/r.
    weights, total = [], 0.0
    for rank in range(len(words)):
        total += 1.0 / (rank + 1)
        weights.append(total)
    return words, weights


def text_of(rng, words, weights, characters):
    chosen, size = [], 0
    while size < characters:
        batch = rng.choices(words, cum_weights=weights, k=64)
        for word in batch:
            chosen.append(word)
            size += len(word) + 1
            if size >= characters:
                break
    return " ".join(chosen)


# The matcher the full-text index replaced, kept here only to compare against.
LINEAR_WORD = re.compile(r"[^\W_]+")


def linear_rank(items, terms):
    indexed = [(item, LINEAR_WORD.findall(item["title"].lower()), LINEAR_WORD.findall(item["content"].lower()))
               for item in items]

    def count(words, term):
        return sum(1 for word in words if word.startswith(term))

    weights = {}
    for term in terms:
        frequency = sum(1 for _, title, content in indexed if count(title, term) or count(content, term))
        weights[term] = math.log((len(items) + 1) / (frequency + 0.5))
    scored = []
    for item, title, content in indexed:
        score = 0.0
        for term in terms:
            in_title, in_content = count(title, term), count(content, term)
            if in_title or in_content:
                score += weights[term] * (1 + math.log1p(in_content) + 2.0 * bool(in_title))
        if score > 0:
            scored.append((score, item))
    scored.sort(key=lambda pair: -pair[0])
    return [item for _, item in scored]


def insert(conn, rng, words, weights, characters, source=""):
    item_id = "ctx_" + uuid.uuid4().hex
    conn.execute("INSERT INTO context_items (id, user_id, project_id, title, content, source, created_at, "
                 "updated_at) VALUES (:id, :user_id, :project, :title, :content, :source, :now, :now)",
                 {"id": item_id, "project": PROJECT, "title": text_of(rng, words, weights, 30),
                  "content": text_of(rng, words, weights, characters), "source": source, "now": time.time()})
    contextindex.add(conn, item_id)
    return item_id


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--items", type=int, default=10000)
    parser.add_argument("--item-chars", type=int, default=2000)
    parser.add_argument("--queries", type=int, default=300)
    parser.add_argument("--saves", type=int, default=300)
    parser.add_argument("--linear", type=int, default=3)
    options = parser.parse_args()
    rng = random.Random(19)
    words, weights = make_words(rng)
    folder = tempfile.mkdtemp(prefix="bench-context-")
    db = Database(os.path.join(folder, "relay.db"))
    try:
        with db.write() as conn:
            conn.execute("INSERT INTO users VALUES (?, 'bench@example.com', '2026', NULL, NULL)", (USER,))
            conn.execute("INSERT INTO projects (id, user_id, name, root_path, created_at, updated_at) "
                         "VALUES (?, ?, 'bench', '/bench', 0, 0)", (PROJECT, USER))
            contextindex.build_all(conn)
        started = time.perf_counter()
        for first in range(0, options.items, 500):
            with db.write_as(USER) as conn:
                for _ in range(min(500, options.items - first)):
                    insert(conn, rng, words, weights, options.item_chars)
        loaded = time.perf_counter() - started
        with db.read() as conn:
            total = conn.execute("SELECT sum(length(content)) FROM context_items").fetchone()[0]
        size = os.path.getsize(db.path) + os.path.getsize(db.path + "-wal") if os.path.exists(db.path + "-wal") \
            else os.path.getsize(db.path)
        print(f"project: {options.items} items, {total / 1e6:.1f} M characters; written in {loaded:.1f} s; "
              f"database {size / 1e6:.1f} MB")

        for length in (1, 10, 100, 400):
            times, matched = [], []
            for _ in range(options.queries):
                query = " ".join(rng.choices(words, cum_weights=weights, k=length))
                began = time.perf_counter()
                with db.read_as(USER) as conn:
                    answer = contextpack.build(conn, PROJECT, query, BUDGET)
                times.append((time.perf_counter() - began) * 1000)
                matched.append(answer["matched_count"])
            print(f"pack, {length:3d}-word query: p50 {percentile(times, 0.5):7.2f} ms  "
                  f"p99 {percentile(times, 0.99):7.2f} ms  (median matches {statistics.median(matched):.0f}, "
                  f"{options.queries} queries, budget {BUDGET})")

        inserts, replaces, deletes = [], [], []
        with db.write_as(USER) as conn:
            guide = insert(conn, rng, words, weights, options.item_chars, source="file:AGENTS.md")
        for _ in range(options.saves):
            began = time.perf_counter()
            with db.write_as(USER) as conn:
                added = insert(conn, rng, words, weights, options.item_chars)
            inserts.append((time.perf_counter() - began) * 1000)
            content = text_of(rng, words, weights, options.item_chars)
            began = time.perf_counter()
            with db.write_as(USER) as conn:
                contextindex.remove(conn, guide)
                conn.execute("UPDATE context_items SET content = :content, updated_at = :now "
                             "WHERE id = :id AND user_id = :user_id", {"id": guide, "content": content,
                                                                      "now": time.time()})
                contextindex.add(conn, guide)
            replaces.append((time.perf_counter() - began) * 1000)
            began = time.perf_counter()
            with db.write_as(USER) as conn:
                contextindex.remove(conn, added)
                conn.execute("DELETE FROM context_items WHERE id = :id AND user_id = :user_id", {"id": added})
            deletes.append((time.perf_counter() - began) * 1000)
        for name, times in (("insert", inserts), ("replace", replaces), ("delete", deletes)):
            print(f"save ({name} of a {options.item_chars}-character item, with its index update): "
                  f"p50 {percentile(times, 0.5):.2f} ms  p99 {percentile(times, 0.99):.2f} ms")

        if options.linear:
            with db.read_as(USER) as conn:
                items = [dict(row) for row in conn.execute(
                    "SELECT title, content FROM context_items WHERE user_id = :user_id")]
            times = []
            for _ in range(options.linear):
                terms = contextpack.query_terms(" ".join(rng.choices(words, cum_weights=weights, k=10)))
                began = time.perf_counter()
                linear_rank(items, terms)
                times.append((time.perf_counter() - began) * 1000)
            print(f"linear matcher (replaced), 10-word query: median {statistics.median(times):.0f} ms "
                  f"over {options.linear} runs")
    finally:
        db.close()
        shutil.rmtree(folder, ignore_errors=True)


if __name__ == "__main__":
    main()
