"""Usage classifiers: a person's taxonomies, and the tagging of a sample of completed API
generations by a small structured-output model, after the fact and off the caller's path.

A completed generation is offered to `after_generation`; each active classifier of its user
samples it at its `sampling_rate`. A sampled one gets a "pending" activity row at once and is
tagged by a background task, which leaves the row "succeeded" with its tags or "failed" with a
code (see tagging.py). The classifier's own call is routed to its model like any API
completion (recorded, charged against the budgets), and is never itself classified.
"""

import asyncio
import json
import logging
import random
import secrets

from .. import clock
from ..errors import bad_request, not_found
from ..jsonio import Body
from . import tagging
from .area import BUDGET_STATUS, ModelRouter

MAX_NAME = 200
MAX_MODEL = 200
MAX_PROMPT = 10_000
MAX_DIMENSIONS = 8
MAX_KEY = 64
MAX_LABEL = 100
MAX_VALUES = 32
MAX_VALUE = 100
# The activity the screen shows: the newest rows.
ACTIVITY_LIMIT = 200
# Tagging calls in flight at once per relay; more sampled generations wait their turn.
TAGGING_CONCURRENCY = 4
# Sampled generations waiting beyond this are not queued but recorded as failed ("overloaded"):
# a burst must not grow the relay's memory without bound.
MAX_WAITING = 1000
CLASSIFY_TASK = "classify"
CLASSIFY_OUTPUT_TOKENS = 256
CAPABILITY = "structured_output"
STATUSES = ("pending", "succeeded", "failed")

log = logging.getLogger("relay")


def _new_id(prefix):
    return prefix + secrets.token_hex(12)


class _Caller:
    """Who a tagging call is made for: the generation's user, with no request of their own."""

    gateway_key = None

    def __init__(self, user_id):
        self.user_id = user_id
        self.request_id = _new_id("cls_")


def parse_input(body):
    """A `ClassifierInput`, checked; the relay trims and lower-cases as the screen does, so a
    program calling the relay directly gets the same rules."""
    name = body.string("name").strip()
    if not name or len(name) > MAX_NAME:
        raise bad_request(f"name must be 1 to {MAX_NAME} characters")
    model = body.string("model", max_length=MAX_MODEL).strip()
    rate = body.number("sampling_rate")
    if not 0 <= rate <= 1:
        raise bad_request("sampling_rate must be a fraction from 0 to 1")
    prompt = body.string("prompt", max_length=MAX_PROMPT).strip()
    active = body.boolean("active")
    dimensions = body.array("dimensions")
    if not 1 <= len(dimensions) <= MAX_DIMENSIONS:
        raise bad_request(f"dimensions must hold 1 to {MAX_DIMENSIONS} dimensions")
    read, keys = [], set()
    for index, item in enumerate(dimensions):
        where = f"dimensions[{index}]."
        dimension = Body(item, where)
        key = dimension.string("key", max_length=MAX_KEY).strip().lower()
        label = dimension.string("label", max_length=MAX_LABEL).strip()
        if not key or not label:
            raise bad_request(f"{where}key and {where}label must not be empty")
        if key in keys:
            raise bad_request(f"{where}key {key} is used twice")
        keys.add(key)
        values = []
        for value in dimension.string_list("values"):
            value = value.strip()
            if value and value not in values:
                if len(value) > MAX_VALUE:
                    raise bad_request(f"{where}values must be at most {MAX_VALUE} characters each")
                values.append(value)
        if not 2 <= len(values) <= MAX_VALUES:
            raise bad_request(f"{where}values must hold 2 to {MAX_VALUES} different values")
        read.append({"key": key, "label": label, "values": values})
    return {"name": name, "model": model, "sampling_rate": rate, "prompt": prompt, "dimensions": read,
            "active": active}


def _record(row, coverage):
    return {"id": row["id"], "name": row["name"], "model": row["model"], "sampling_rate": row["sampling_rate"],
            "prompt": row["prompt"], "dimensions": json.loads(row["dimensions"]), "active": bool(row["active"]),
            "coverage": {status: coverage.get(status, 0) for status in STATUSES},
            "created_at": clock.iso(row["created_at"]), "updated_at": clock.iso(row["updated_at"])}


def _activity(row):
    record = {"id": row["id"], "generation_id": row["generation_id"], "classifier_id": row["classifier_id"],
              "classifier_name": row["classifier_name"], "status": row["status"], "tags": json.loads(row["tags"]),
              "created_at": clock.iso(row["created_at"])}
    for field in ("error_code", "model_id", "provider"):
        if row[field] is not None:
            record[field] = row[field]
    return record


class Classifiers:
    def __init__(self, app):
        self.app = app
        self.db = app.db
        seed = app.settings.get("MERE_RELAY_CLASSIFIER_SEED")
        # A seed makes the sample repeatable (for tests); otherwise every relay samples afresh.
        self.random = random.Random(int(seed)) if seed.strip().isdigit() else random.Random()
        self.slots = None
        self.tasks = set()
        # Users with an active classifier: a generation of anyone else costs nothing more.
        self.active_users = set()

    @property
    def router(self):
        return self.app.areas[ModelRouter]

    def register(self, router):
        router.add("GET", "v1/classifiers", self.list_classifiers)
        router.add("POST", "v1/classifiers", self.create)
        router.add("GET", "v1/classifiers/activity", self.list_activity)
        router.add("PUT", "v1/classifiers/{id}", self.update)
        router.add("DELETE", "v1/classifiers/{id}", self.delete, quick=True)

    async def start(self):
        self.slots = asyncio.Semaphore(TAGGING_CONCURRENCY)
        # Rows a stopped (or crashed) relay left pending will never be tagged now.
        await self.app.workers.run(self._fail_pending)
        self.active_users = await self.app.workers.run(self._read_active_users)
        self.router.generation_listeners.append(self.after_generation)

    def _read_active_users(self):
        with self.db.read() as conn:
            return {row[0] for row in conn.execute("SELECT DISTINCT user_id FROM classifiers WHERE active = 1")}

    def _note_active(self, conn, user_id):
        """Keeps `active_users` in step after a change of the user's classifiers (in the write)."""
        if conn.execute("SELECT 1 FROM classifiers WHERE user_id = :user_id AND active = 1 LIMIT 1").fetchone():
            self.active_users.add(user_id)
        else:
            self.active_users.discard(user_id)

    async def stop(self):
        for task in list(self.tasks):
            task.cancel()
        if self.tasks:
            await asyncio.gather(*self.tasks, return_exceptions=True)
        await self.app.workers.run(self._fail_pending)

    def _fail_pending(self):
        with self.db.write() as conn:
            conn.execute("UPDATE classification_activity SET status = 'failed', error_code = ? "
                         "WHERE status = 'pending'", (tagging.INTERRUPTED,))

    # The paths.

    def list_classifiers(self, request):
        with self.db.read_as(request.user_id) as conn:
            rows = conn.execute("SELECT * FROM classifiers WHERE user_id = :user_id ORDER BY created_at, id").fetchall()
            coverage = self._coverage(conn)
        return {"data": [_record(row, coverage.get(row["id"], {})) for row in rows]}

    @staticmethod
    def _coverage(conn):
        counts = {}
        for row in conn.execute("SELECT classifier_id, status, COUNT(*) AS n FROM classification_activity "
                                "WHERE user_id = :user_id GROUP BY classifier_id, status"):
            counts.setdefault(row["classifier_id"], {})[row["status"]] = row["n"]
        return counts

    def list_activity(self, request):
        with self.db.read_as(request.user_id) as conn:
            rows = conn.execute("SELECT * FROM classification_activity WHERE user_id = :user_id "
                                "ORDER BY created_at DESC, rowid DESC LIMIT :limit",
                                {"limit": ACTIVITY_LIMIT}).fetchall()
        return [_activity(row) for row in rows]

    def create(self, request):
        spec = parse_input(request.body())
        now = clock.now()
        classifier_id = _new_id("cls_")
        with self.db.write_as(request.user_id) as conn:
            conn.execute("INSERT INTO classifiers (user_id, id, name, model, sampling_rate, prompt, dimensions, "
                         "active, created_at, updated_at) VALUES (:user_id, :id, :name, :model, :rate, :prompt, "
                         ":dimensions, :active, :now, :now)",
                         {"id": classifier_id, "name": spec["name"], "model": spec["model"],
                          "rate": spec["sampling_rate"], "prompt": spec["prompt"],
                          "dimensions": json.dumps(spec["dimensions"]), "active": int(spec["active"]), "now": now})
            self._note_active(conn, request.user_id)
            return {"data": self._one(conn, classifier_id)}

    def update(self, request):
        spec = parse_input(request.body())
        classifier_id = request.params["id"]
        with self.db.write_as(request.user_id) as conn:
            changed = conn.execute(
                "UPDATE classifiers SET name = :name, model = :model, sampling_rate = :rate, prompt = :prompt, "
                "dimensions = :dimensions, active = :active, updated_at = :now WHERE user_id = :user_id AND id = :id",
                {"id": classifier_id, "name": spec["name"], "model": spec["model"], "rate": spec["sampling_rate"],
                 "prompt": spec["prompt"], "dimensions": json.dumps(spec["dimensions"]),
                 "active": int(spec["active"]), "now": clock.now()}).rowcount
            if not changed:
                raise not_found("classifier not found")
            self._note_active(conn, request.user_id)
            return {"data": self._one(conn, classifier_id)}

    def _one(self, conn, classifier_id):
        row = conn.execute("SELECT * FROM classifiers WHERE user_id = :user_id AND id = :id",
                           {"id": classifier_id}).fetchone()
        coverage = self._coverage(conn).get(classifier_id, {})
        return _record(row, coverage)

    def delete(self, request):
        with self.db.write_as(request.user_id) as conn:
            gone = conn.execute("DELETE FROM classifiers WHERE user_id = :user_id AND id = :id",
                                {"id": request.params["id"]}).rowcount
            if not gone:
                raise not_found("classifier not found")
            conn.execute("DELETE FROM classification_activity WHERE user_id = :user_id AND classifier_id = :id",
                         {"id": request.params["id"]})
            self._note_active(conn, request.user_id)
        return {}

    # Tagging.

    def after_generation(self, user_id, generation_id, text, instructions, tools, outcome):
        """Offers a completed API generation to the user's active classifiers. Returns at once:
        sampling, recording and tagging happen in a task of their own, off the caller's path."""
        if user_id not in self.active_users:
            return
        # The text is read now, while the generation is at hand; it lives only in the task.
        said = tagging.transcript(text, instructions, tools, outcome)
        self._spawn(self._offer(user_id, generation_id, said))

    def _spawn(self, coroutine):
        task = asyncio.get_running_loop().create_task(coroutine)
        self.tasks.add(task)
        task.add_done_callback(self.tasks.discard)

    async def _offer(self, user_id, generation_id, said):
        try:
            sampled = await self.app.ledger_workers.run(self._sample, user_id, generation_id)
        except Exception:  # noqa: BLE001  (tagging is never the caller's business)
            log.exception("classifier sampling failed")
            return
        for classifier, activity_id in sampled:
            self._spawn(self._tag(user_id, classifier, activity_id, said))

    def _sample(self, user_id, generation_id):
        with self.db.read_as(user_id) as conn:
            rows = conn.execute("SELECT * FROM classifiers WHERE user_id = :user_id AND active = 1 "
                                "ORDER BY created_at, id").fetchall()
        chosen = [row for row in rows if self.random.random() < row["sampling_rate"]]
        if not chosen:
            return []
        now = clock.now()
        sampled = []
        with self.db.write_as(user_id) as conn:
            for row in chosen:
                activity_id = _new_id("act_")
                crowded = len(self.tasks) + len(sampled) >= MAX_WAITING
                conn.execute("INSERT INTO classification_activity (user_id, id, generation_id, classifier_id, "
                             "classifier_name, status, tags, error_code, model_id, created_at) VALUES (:user_id, "
                             ":id, :generation, :classifier, :name, :status, '{}', :error, :model, :now)",
                             {"id": activity_id, "generation": generation_id, "classifier": row["id"],
                              "name": row["name"], "status": "failed" if crowded else "pending",
                              "error": tagging.OVERLOADED if crowded else None, "model": row["model"] or None,
                              "now": now})
                if not crowded:
                    sampled.append(({"id": row["id"], "model": row["model"], "prompt": row["prompt"],
                                     "dimensions": json.loads(row["dimensions"])}, activity_id))
        return sampled

    async def _tag(self, user_id, classifier, activity_id, said):
        async with self.slots:
            tags, failure, provider = None, None, None
            lane = self._lane(classifier["model"])
            if lane is None:
                failure = tagging.MODEL_UNAVAILABLE
            else:
                try:
                    completion, outcome = await self.router.run_completion(
                        _Caller(user_id), CLASSIFY_TASK, said, tagging.instructions(classifier), None,
                        lane.id, CLASSIFY_OUTPUT_TOKENS, None, classify=False)
                except Exception as error:  # noqa: BLE001  (every failure becomes the row's code)
                    status = getattr(error, "status", None)
                    failure = tagging.BUDGET_EXCEEDED if status == BUDGET_STATUS else tagging.PROVIDER_FAILED
                    if status is None:
                        log.warning("classifier tagging failed: %s", type(error).__name__)
                else:
                    provider = completion["provider"]
                    tags, failure = tagging.read_tags(classifier, outcome.text)
            await self.app.ledger_workers.run(self._finish, user_id, activity_id, tags, failure, provider)

    def _lane(self, model):
        """The ready API lane with structured output a classifier names, or None."""
        if not model:
            return None
        readiness = self.router.catalog.readiness()
        for lane in self.router.catalog.lanes:
            if lane.id == model and lane.channel == "api" and CAPABILITY in lane.capabilities \
                    and readiness.get(lane.id) is None:
                return lane
        return None

    def _finish(self, user_id, activity_id, tags, failure, provider):
        with self.db.write_as(user_id) as conn:
            conn.execute("UPDATE classification_activity SET status = :status, tags = :tags, error_code = :error, "
                         "provider = :provider WHERE user_id = :user_id AND id = :id",
                         {"id": activity_id, "status": "failed" if failure else "succeeded",
                          "tags": json.dumps(tags or {}), "error": failure, "provider": provider})
