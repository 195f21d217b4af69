"""The relay assembled: settings, database, router, the stream hub and the areas.

Each area is a class with `register(router)`; areas that come later (routing,
gateway, presets, classifiers, improve, integrations) are added to AREAS and
find here everything they need: the database, the settings, the hub to announce
a change of the queue, and the queue's snapshot extras.
"""

import logging
import signal
import sys
import threading

from . import VERSION
from .auth import Auth
from .cli_status import CliInspector
from .config import load_settings
from .db import Database
from .hub import Hub
from .interrupts import Queue
from .mailer import Mailer
from .projects import Projects
from .routing import Router
from .runs import Runs
from .terminal import Terminal
from .web import RelayServer

log = logging.getLogger("relay")


class App:
    def __init__(self, settings):
        self.settings = settings
        self.db = Database(settings.db_path)
        self.mailer = Mailer(settings)
        self.router = Router()
        self.auth = Auth(self)
        self.queue = Queue(self)
        self.hub = Hub(self.queue.build_snapshot)
        self.areas = [self.auth, self.queue, Runs(self), Terminal(self), CliInspector(), Projects(self)]
        self.router.add("GET", "v1/health", self.health, auth=False)
        for area in self.areas:
            area.register(self.router)

    def authenticate(self, request):
        self.auth.authenticate(request)

    def health(self, request):
        return {"status": "ok", "version": VERSION, "schema_version": self.db.schema_version}

    def start(self):
        self.queue.start()

    def stop(self):
        self.queue.stop()
        self.hub.close()


def configure_logging(settings):
    level = getattr(logging, (settings.get("MERE_RELAY_LOG_LEVEL") or "INFO").upper(), logging.INFO)
    logging.basicConfig(level=level, stream=sys.stderr, format="%(asctime)s %(levelname)s %(message)s")


def serve(settings=None):
    """Runs the relay until SIGTERM or SIGINT; prints the address it listens on."""
    settings = settings or load_settings()
    configure_logging(settings)
    app = App(settings)
    try:
        server = RelayServer((settings.host, settings.port), app)
    except OSError as error:
        log.error("cannot listen on %s:%s: %s", settings.host, settings.port, error.strerror)
        return 1
    host, port = server.server_address[:2]
    app.start()
    stopping = threading.Event()

    def stop(signum, frame):
        if not stopping.is_set():
            stopping.set()
            threading.Thread(target=server.shutdown, daemon=True).start()

    signal.signal(signal.SIGTERM, stop)
    signal.signal(signal.SIGINT, stop)
    shown = f"[{host}]" if ":" in host else host
    print(f"Quillmere relay listening on http://{shown}:{port}/", flush=True)
    log.info("database %s (schema %d), local sign-in %s", settings.db_path, app.db.schema_version,
             "on" if settings.local_auth else "off")
    try:
        server.serve_forever(poll_interval=0.25)
    finally:
        app.stop()
        server.server_close()
        app.db.close()
        log.info("relay stopped")
    return 0
