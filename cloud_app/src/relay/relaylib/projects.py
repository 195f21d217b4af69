"""Projects, identified by their normalised absolute folder, and their saved context.

Projects and their context items belong to the user who registered them; the same
folder registered by two users is two projects. A project is found by its root path
or created, so registering is safe to repeat.
Context items are explicit: a note, or a copy of a guide file whose source is
"file:" plus its relative path; saving a guide again replaces the older copy.
"""

import posixpath
import uuid

from . import clock, contextindex, contextpack
from .errors import bad_request, not_found

MAX_BUDGET = 10_000_000
MAX_TITLE = 500


def normalise_root(path):
    """An absolute path without '.', '..', doubled or trailing slashes; the empty path stays empty."""
    if path == "":
        return ""
    if not path.startswith("/"):
        raise bad_request("root_path must be an absolute path")
    if "\x00" in path:
        raise bad_request("root_path must not contain a NUL character")
    normal = posixpath.normpath(path)
    # normpath keeps a leading '//' as POSIX allows; one slash is meant here.
    return "/" + normal.lstrip("/")


def project_json(row):
    return {"id": row["id"], "name": row["name"], "root_path": row["root_path"],
            "created_at": clock.iso(row["created_at"]), "updated_at": clock.iso(row["updated_at"])}


def item_json(row):
    return {"id": row["id"], "title": row["title"], "content": row["content"], "source": row["source"],
            "updated_at": clock.iso(row["updated_at"])}


class Projects:
    def __init__(self, app):
        self.db = app.db

    def register(self, router):
        router.add("GET", "v1/projects", self.list_projects, quick=True)
        router.add("POST", "v1/projects", self.upsert, quick=True)
        router.add("GET", "v1/projects/{id}/context", self.list_items)
        router.add("POST", "v1/projects/{id}/context", self.save_item)
        router.add("DELETE", "v1/projects/{id}/context/{item}", self.delete_item, quick=True)
        router.add("POST", "v1/projects/{id}/context/pack", self.pack)

    def list_projects(self, request):
        with self.db.read_as(request.user_id) as conn:
            rows = conn.execute("SELECT * FROM projects WHERE user_id = :user_id "
                                "ORDER BY lower(name), root_path, created_at").fetchall()
        return [project_json(row) for row in rows]

    def upsert(self, request):
        body = request.body()
        name = body.string("name", max_length=MAX_TITLE).strip()
        root = normalise_root(body.string("root_path", max_length=4096))
        if not name:
            name = posixpath.basename(root) or root
        if not name:
            raise bad_request("name must not be empty")
        with self.db.write_as(request.user_id) as conn:
            if root:
                row = conn.execute("SELECT * FROM projects WHERE user_id = :user_id AND root_path = :root",
                                   {"root": root}).fetchone()
            else:
                row = conn.execute("SELECT * FROM projects WHERE user_id = :user_id AND root_path = '' "
                                   "AND name = :name", {"name": name}).fetchone()
            if row is None:
                now = clock.now()
                project_id = "prj_" + uuid.uuid4().hex
                conn.execute("INSERT INTO projects (id, user_id, name, root_path, created_at, updated_at) "
                             "VALUES (:id, :user_id, :name, :root, :now, :now)",
                             {"id": project_id, "name": name, "root": root, "now": now})
                contextindex.create(conn, project_id)
                row = self._project(conn, project_id)
        return project_json(row)

    @staticmethod
    def _project(conn, project_id):
        row = conn.execute("SELECT * FROM projects WHERE id = :id AND user_id = :user_id",
                           {"id": project_id}).fetchone()
        if row is None:
            raise not_found("project not found")
        return row

    @staticmethod
    def _items(conn, project_id):
        return conn.execute("SELECT * FROM context_items WHERE project_id = :project AND user_id = :user_id "
                            "ORDER BY updated_at DESC, seq DESC", {"project": project_id}).fetchall()

    def list_items(self, request):
        with self.db.read_as(request.user_id) as conn:
            self._project(conn, request.params["id"])
            return [item_json(row) for row in self._items(conn, request.params["id"])]

    def save_item(self, request):
        body = request.body()
        title = body.string("title", non_empty=True, max_length=MAX_TITLE)
        content = body.string("content", non_empty=True)
        source = body.string("source", required=False, max_length=4096) or ""
        project_id = request.params["id"]
        item = {"project": project_id, "title": title, "content": content, "source": source, "now": clock.now()}
        with self.db.write_as(request.user_id) as conn:
            self._project(conn, project_id)
            older = None
            if source.startswith("file:"):
                older = conn.execute("SELECT id FROM context_items WHERE project_id = :project "
                                     "AND user_id = :user_id AND source = :source", item).fetchone()
            if older is not None:
                item["id"] = older["id"]
                contextindex.remove(conn, item["id"])
                conn.execute("UPDATE context_items SET title = :title, content = :content, updated_at = :now "
                             "WHERE id = :id AND user_id = :user_id", item)
            else:
                item["id"] = "ctx_" + uuid.uuid4().hex
                conn.execute("INSERT INTO context_items (id, user_id, project_id, title, content, source, "
                             "created_at, updated_at) VALUES (:id, :user_id, :project, :title, :content, :source, "
                             ":now, :now)", item)
            contextindex.add(conn, item["id"])
            conn.execute("UPDATE projects SET updated_at = :now WHERE id = :project AND user_id = :user_id", item)
            row = conn.execute("SELECT * FROM context_items WHERE id = :id AND user_id = :user_id", item).fetchone()
        return item_json(row)

    def delete_item(self, request):
        project_id, item_id = request.params["id"], request.params["item"]
        keys = {"id": item_id, "project": project_id, "now": clock.now()}
        with self.db.write_as(request.user_id) as conn:
            self._project(conn, project_id)
            held = conn.execute("SELECT id FROM context_items WHERE id = :id AND project_id = :project "
                                "AND user_id = :user_id", keys).fetchone()
            if held is not None:
                contextindex.remove(conn, item_id)
            deleted = conn.execute("DELETE FROM context_items WHERE id = :id AND project_id = :project "
                                   "AND user_id = :user_id", keys).rowcount
            if deleted:
                conn.execute("UPDATE projects SET updated_at = :now WHERE id = :project AND user_id = :user_id",
                             keys)
        if not deleted:
            raise not_found("context item not found")
        return {"deleted": True, "id": item_id}

    def pack(self, request):
        body = request.body()
        query = body.string("query", max_length=10000)
        budget = body.integer("character_budget", minimum=0, maximum=MAX_BUDGET)
        with self.db.read_as(request.user_id) as conn:
            self._project(conn, request.params["id"])
            answer = contextpack.build(conn, request.params["id"], query, budget)
        answer["items"] = [item_json(item) for item in answer["items"]]
        return answer
