"""The relay assembled: settings, database, router, stream hub, provider client and the areas.

AREAS is the one place an area is added. Each is a class constructed with the app
that registers its routes in `register(router)`, and may have `async start()` and
`async stop()`. An area finds here everything it needs: the database (scoped to the
caller with `db.read_as` / `db.write_as`), the settings, the worker pool, the hub to
announce a change of a user's queue, the queue's snapshot extras, and `upstream`,
the one client for calls to model providers.
"""

import asyncio
import logging
import os
import resource
import signal
import sys
import traceback

from . import VERSION, contextindex
from .auth import Auth
from .cli_status import CliInspector
from .config import LISTEN_BACKLOG, MAX_HEADER_BYTES, MAX_HEADER_COUNT, MAX_REQUEST_LINE_BYTES, RESERVED_FILES, \
    LEDGER_THREADS, WORKER_THREADS, SettingsError, load_settings
from .db import Database
from .hub import Hub
from .improve.area import Improve
from .insights import Insights
from .integrations import Integrations
from .interrupts import Queue
from .mailer import Mailer
from .modelrouter import ModelRouter
from .modelrouter.classifiers import Classifiers
from .modelrouter.gateway import Gateway
from .modelrouter.gatewaykeys import GatewayKeys
from .presets import Presets
from .projects import Projects
from .routing import Router
from .runs import Runs
from .terminal import Terminal
from .trust import HostRules
from .upstream import Upstream
from .workers import WorkerPool
from .web import ConnectionGuard, Dispatcher, Listener, RelayServer, listening_sockets

log = logging.getLogger("relay")

AREAS = (Auth, Queue, Runs, Terminal, CliInspector, Projects, Presets, ModelRouter, GatewayKeys, Gateway,
         Classifiers, Integrations, Improve, Insights)
# How often idle connections are looked for, as a share of the idle time-out.
IDLE_SWEEPS_PER_TIMEOUT = 4
# How often committed changes are copied from the write-ahead log into the database.
CHECKPOINT_SECONDS = 1.0
# Everything the relay creates (database, outbox) is for its own user only.
PRIVATE_UMASK = 0o077


class App:
    def __init__(self, settings):
        self.settings = settings
        self.db = Database(settings.db_path, background_checkpoints=True)
        with self.db.read() as conn:
            stale = contextindex.orphaned(conn)
        if stale:
            with self.db.write() as conn:
                contextindex.drop_orphaned(conn)
        self.mailer = Mailer(settings)
        self.router = Router()
        self.workers = WorkerPool(WORKER_THREADS)
        self.ledger_workers = WorkerPool(LEDGER_THREADS, name="relay-ledger")
        self.upstream = Upstream(settings.timings)
        self.areas = {area: area(self) for area in AREAS}
        self.auth = self.areas[Auth]
        self.queue = self.areas[Queue]
        self.gateway_keys = self.areas[GatewayKeys]
        self.gateway = self.areas[Gateway]
        self.hub = Hub(self.queue.build_snapshot)
        self.router.add("GET", "v1/health", self.health, auth=False)
        for area in self.areas.values():
            area.register(self.router)
        self.guard = None
        self.address = None
        self._loop = None
        self._stop = None

    async def health(self, request):
        # Answered on the event loop, so that it answers even when every worker is busy.
        return {"status": "ok", "version": VERSION, "schema_version": self.db.schema_version}

    def request_stop(self):
        """Stops a running relay; safe from any thread."""
        if self._loop is not None:
            self._loop.call_soon_threadsafe(self._stop.set)

    async def run(self, on_listening=None, handle_signals=True):
        """Serves until stopped; returns the process exit code."""
        loop = self._loop = asyncio.get_running_loop()
        self._stop = asyncio.Event()
        timings = self.settings.timings
        self.hub.bind(loop)
        self.workers.start(loop)
        self.ledger_workers.start(loop)
        limit, reserve = connection_limit(timings.max_connections)
        self.guard = ConnectionGuard(limit, timings.idle_timeout_seconds, slack=reserve // 4)
        dispatcher = Dispatcher(self, None)
        server = RelayServer(dispatcher.handle, self.guard, keepalive_timeout=timings.idle_timeout_seconds,
                             access_log=None, max_line_size=MAX_REQUEST_LINE_BYTES, max_field_size=MAX_HEADER_BYTES,
                             max_headers=MAX_HEADER_COUNT, lingering_time=timings.linger_seconds,
                             auto_decompress=False)
        try:
            sockets = listening_sockets(self.settings.host, self.settings.port, LISTEN_BACKLOG)
        except OSError as error:
            log.error("cannot listen on %s:%s: %s", self.settings.host, self.settings.port,
                      error.strerror or error)
            self._close_resources()
            return 1
        host, port = sockets[0].getsockname()[:2]
        self.address = (host, port)
        dispatcher.rules = HostRules(self.settings.host, port, self.settings.public_hosts)
        listener = Listener(sockets, server, self.guard)
        listener.start(loop)
        await self.upstream.start()
        for area in self.areas.values():
            if hasattr(area, "start"):
                await area.start()
        sweeper = asyncio.create_task(self._sweep_idle())
        checkpoints = asyncio.create_task(self._checkpoint())
        if handle_signals:
            for number in (signal.SIGTERM, signal.SIGINT):
                loop.add_signal_handler(number, self._stop.set)
        log.info("database %s (schema %d), local sign-in %s, at most %d connections", self.settings.db_path,
                 self.db.schema_version, "on" if self.settings.local_auth else "off", self.guard.limit)
        if on_listening is not None:
            on_listening(host, port)
        await self._stop.wait()
        checkpoints.cancel()
        await self._shut_down(listener, server, sweeper)
        return 0

    async def _sweep_idle(self):
        interval = max(0.05, min(1.0, self.guard.idle_seconds / IDLE_SWEEPS_PER_TIMEOUT))
        while True:
            await asyncio.sleep(interval)
            self.guard.sweep(self._loop.time())

    async def _checkpoint(self):
        """Copies the write-ahead log into the database now and then, on a worker."""
        done = self.db.commits
        while True:
            await asyncio.sleep(CHECKPOINT_SECONDS)
            if self.db.commits != done:
                done = self.db.commits
                try:
                    await self.workers.run(self.db.checkpoint)
                except Exception:
                    log.exception("checkpoint failed")

    async def _shut_down(self, listener, server, sweeper):
        listener.close()
        sweeper.cancel()
        # Streams end first, so that the connections below have nothing left to wait for.
        self.hub.close()
        for area in self.areas.values():
            if hasattr(area, "stop"):
                await area.stop()
        await server.shutdown(self.settings.timings.shutdown_grace_seconds)
        await self.upstream.close()
        self._close_resources()
        log.info("relay stopped")

    def _close_resources(self):
        self.workers.shutdown()
        self.ledger_workers.shutdown()
        self.db.close()


def connection_limit(configured):
    """The connection cap and the descriptors held in reserve: the cap as configured, but always
    leaving files free under the process's open-file limit (raised to what the relay needs,
    where the hard limit allows) for the database, the log, mail, calls to providers and
    connections on their way out."""
    soft, hard = resource.getrlimit(resource.RLIMIT_NOFILE)
    wanted = configured + RESERVED_FILES
    if soft != resource.RLIM_INFINITY and soft < wanted:
        raised = wanted if hard == resource.RLIM_INFINITY else min(hard, wanted)
        if raised > soft:
            try:
                resource.setrlimit(resource.RLIMIT_NOFILE, (raised, hard))
                soft = raised
            except (ValueError, OSError):
                pass
    if soft == resource.RLIM_INFINITY:
        return configured, RESERVED_FILES
    reserve = min(RESERVED_FILES, soft // 2)
    return max(1, min(configured, soft - reserve)), reserve


class QuietFormatter(logging.Formatter):
    """Log lines with tracebacks that name each exception's type and where it was raised, never
    its message: a message can quote what a client sent (a header, a token)."""

    def formatException(self, exc_info):
        kind, error, trace = exc_info
        lines = ["Traceback (most recent call last):\n", *traceback.format_tb(trace)]
        causes = []
        while error is not None and (error.__cause__ or error.__context__) is not None:
            error = error.__cause__ or error.__context__
            causes.append(type(error).__name__)
        lines.append(f"{kind.__module__}.{kind.__qualname__}" + "".join(f" (after {name})" for name in causes))
        return "".join(lines)


def configure_logging(settings):
    level = getattr(logging, (settings.get("MERE_RELAY_LOG_LEVEL") or "INFO").upper(), logging.INFO)
    handler = logging.StreamHandler(sys.stderr)
    handler.setFormatter(QuietFormatter("%(asctime)s %(levelname)s %(message)s"))
    logging.basicConfig(level=level, handlers=[handler])
    # aiohttp's own loggers would print tracebacks for what the relay already answers.
    for name in ("aiohttp.server", "aiohttp.access", "aiohttp.web"):
        logging.getLogger(name).setLevel(logging.CRITICAL)


def serve(settings=None):
    """Runs the relay until SIGTERM or SIGINT; prints the address it listens on."""
    try:
        settings = settings or load_settings()
    except SettingsError as error:
        logging.basicConfig(stream=sys.stderr, format="%(asctime)s %(levelname)s %(message)s")
        log.error("%s", error)
        return 1
    configure_logging(settings)
    os.umask(PRIVATE_UMASK)
    app = App(settings)

    def listening(host, port):
        shown = f"[{host}]" if ":" in host else host
        print(f"Quillmere relay listening on http://{shown}:{port}/", flush=True)

    return asyncio.run(app.run(on_listening=listening))
