"""Delivery of sign-in codes: by SMTP when relay.env configures it, else to a local outbox.

Without mail settings the relay is a local one, and the person reads the code from
the outbox file beside the database, readable by the relay's user only. That file is
the only place a code is ever written: the log says that a code was written, never
the code, since anyone who can read a log could otherwise sign in as anyone.
"""

import email.message
import logging
import os
import smtplib
import ssl

from . import clock

log = logging.getLogger("relay")

SMTP_TIMEOUT_SECONDS = 15
DEFAULT_SMTP_PORT = 587


class DeliveryError(Exception):
    pass


class Mailer:
    def __init__(self, settings):
        self._settings = settings

    @property
    def uses_smtp(self):
        return bool(self._settings.get("MERE_SMTP_HOST"))

    def send_code(self, address, code):
        if self.uses_smtp:
            self._send_smtp(address, code)
            log.info("sign-in code sent by mail")
        else:
            self._write_outbox(address, code)

    def _write_outbox(self, address, code):
        path = self._settings.outbox_path
        line = f"{clock.now_iso()} to={address} code={code}\n"
        try:
            descriptor = os.open(path, os.O_WRONLY | os.O_CREAT | os.O_APPEND, 0o600)
            # An outbox left from an older version may be readable by others.
            os.fchmod(descriptor, 0o600)
            with os.fdopen(descriptor, "a", encoding="utf-8") as handle:
                handle.write(line)
        except OSError as error:
            log.warning("could not write the outbox file: %s", error.strerror)
            raise DeliveryError() from error
        log.info("a sign-in code was written to the outbox file %s", path)

    def _send_smtp(self, address, code):
        settings = self._settings
        message = email.message.EmailMessage()
        message["From"] = settings.get("MERE_SMTP_FROM") or settings.get("MERE_SMTP_USER") or "quillmere@localhost"
        message["To"] = address
        message["Subject"] = "Your Quillmere sign-in code"
        message.set_content(f"Your Quillmere sign-in code is {code}.\nIt expires in ten minutes.\n")
        host = settings.get("MERE_SMTP_HOST")
        try:
            port = int(settings.get("MERE_SMTP_PORT") or DEFAULT_SMTP_PORT)
        except ValueError:
            port = DEFAULT_SMTP_PORT
        security = (settings.get("MERE_SMTP_SECURITY") or "starttls").lower()
        try:
            self._deliver(host, port, security, message)
        except (OSError, smtplib.SMTPException) as error:
            log.warning("mail delivery failed: %s", type(error).__name__)
            raise DeliveryError() from error

    def _deliver(self, host, port, security, message):
        settings = self._settings
        if security == "ssl":
            client = smtplib.SMTP_SSL(host, port, timeout=SMTP_TIMEOUT_SECONDS, context=ssl.create_default_context())
        else:
            client = smtplib.SMTP(host, port, timeout=SMTP_TIMEOUT_SECONDS)
        with client:
            if security == "starttls":
                client.starttls(context=ssl.create_default_context())
            user = settings.get("MERE_SMTP_USER")
            if user:
                client.login(user, settings.get("MERE_SMTP_PASSWORD"))
            client.send_message(message)
