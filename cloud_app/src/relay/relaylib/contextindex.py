"""Each project's own full-text index of its context items.

A project's items are indexed in an FTS5 table of their own, `context_search_<hex of the
project id>`, so that BM25's statistics (item count, average length, how many items hold a
word) are the project's: a pack ranks the same whatever other projects or other users hold, and
one person's notes can neither reorder another's packs nor be guessed from them. The tables
hold no text of their own: they index `context_items` (external content), by its `seq`.

A project gets its table when it is made; the relay's writes keep it in step with every save,
replacement and delete, in the same transaction as the item. A table whose project is gone
(removed by hand, or with its user) is dropped at the relay's start.
"""

import re

# How the index splits and stems words: Porter stemming over Unicode words, diacritics folded.
TOKENIZER = "porter unicode61 remove_diacritics 2"
PREFIX = "context_search_"
_PROJECT_ID = re.compile(r"prj_([0-9a-f]{32})")
# A project's index table; its shadow tables (`_data`, `_idx`...) have longer names.
_TABLE = re.compile(PREFIX + "[0-9a-f]{32}")


def table(project_id):
    """The index table's name for a project id; refuses anything not of the relay's own form, so
    that the name is safe to place in SQL."""
    match = _PROJECT_ID.fullmatch(project_id)
    if match is None:
        raise ValueError(f"not a project id: {project_id!r}")
    return PREFIX + match.group(1)


def is_project_id(project_id):
    return _PROJECT_ID.fullmatch(project_id) is not None


def _definition(project_id):
    return (f"CREATE VIRTUAL TABLE IF NOT EXISTS {table(project_id)} USING fts5("
            f"title, content, content='context_items', content_rowid='seq', tokenize='{TOKENIZER}')")


def create(conn, project_id):
    """Makes a project's index, on a write connection scoped to the project's owner."""
    conn.define(_definition(project_id))


def add(conn, item_id):
    """Indexes a saved item, as it now stands."""
    name = table_of_item(conn, item_id)
    conn.execute(f"INSERT INTO {name} (rowid, title, content) SELECT seq, title, content FROM context_items "
                 "WHERE id = :id AND user_id = :user_id", {"id": item_id})


def remove(conn, item_id):
    """Takes an item out of its index, before the item is changed or deleted: the index finds
    its entries from the text it indexed."""
    name = table_of_item(conn, item_id)
    conn.execute(f"INSERT INTO {name} ({name}, rowid, title, content) SELECT 'delete', seq, title, content "
                 "FROM context_items WHERE id = :id AND user_id = :user_id", {"id": item_id})


def table_of_item(conn, item_id):
    row = conn.execute("SELECT project_id FROM context_items WHERE id = :id AND user_id = :user_id",
                       {"id": item_id}).fetchone()
    return table(row["project_id"])


def build_all(conn):
    """Gives every project its index, filled with the items it has (the writer's own
    connection, in a migration)."""
    for (project_id,) in conn.execute("SELECT id FROM projects").fetchall():
        if not is_project_id(project_id):
            continue
        conn.execute(_definition(project_id))
        conn.execute(f"INSERT INTO {table(project_id)} (rowid, title, content) "
                     "SELECT seq, title, content FROM context_items WHERE project_id = ?", (project_id,))


def orphaned(conn):
    """The index tables whose project no longer exists (a read: most starts find none)."""
    names = [row[0] for row in conn.execute("SELECT name FROM sqlite_master WHERE type = 'table'")]
    live = {table(row[0]) for row in conn.execute("SELECT id FROM projects") if is_project_id(row[0])}
    return [name for name in names if _TABLE.fullmatch(name) and name not in live]


def drop_orphaned(conn):
    """Drops the index of every project that no longer exists; returns how many."""
    names = orphaned(conn)
    for name in names:
        conn.execute(f"DROP TABLE {name}")
    return len(names)
