"""The pattern later areas call model providers with: one shared client session, answers streamed
to the caller as they come, time-outs, and the provider let go when the caller goes away.

A fake provider (a real aiohttp server on 127.0.0.1) answers a relay in this process, to which the
test adds one route that pipes the provider's streamed answer to its caller, as a gateway will.
"""

import asyncio
import shutil
import socket
import tempfile
import threading
import time
import unittest

from aiohttp import web as aioweb

import support
from relaylib.web import EventStream


class FakeProvider:
    """A provider on its own thread and event loop, recording the connections it served."""

    def __init__(self):
        self.gate = threading.Event()
        self.gone = threading.Event()
        # The connection of each answer of /short, kept so that ids are never reused.
        self.short_transports = []
        self.lines_sent = 0
        self._ready = threading.Event()
        self._thread = threading.Thread(target=lambda: asyncio.run(self._serve()), daemon=True)
        self._thread.start()
        self._ready.wait(10)

    async def _serve(self):
        self._loop = asyncio.get_running_loop()
        self._stop = asyncio.Event()
        app = aioweb.Application()
        app.router.add_get("/gated", self.gated)
        app.router.add_get("/endless", self.endless)
        app.router.add_get("/silent", self.silent)
        app.router.add_get("/stalls", self.stalls)
        app.router.add_get("/short", self.short)
        app.router.add_get("/quiet", self.quiet)
        runner = aioweb.AppRunner(app, access_log=None)
        await runner.setup()
        site = aioweb.TCPSite(runner, "127.0.0.1", 0)
        await site.start()
        self.port = site._server.sockets[0].getsockname()[1]
        self._ready.set()
        await self._stop.wait()
        await runner.cleanup()

    def stop(self):
        self._loop.call_soon_threadsafe(self._stop.set)
        self._thread.join(10)

    def url(self, path):
        return f"http://127.0.0.1:{self.port}/{path}"

    async def _open(self, request):
        response = aioweb.StreamResponse(headers={"Content-Type": "text/event-stream"})
        await response.prepare(request)
        return response

    async def gated(self, request):
        response = await self._open(request)
        await response.write(b"data: first\n\n")
        await asyncio.get_running_loop().run_in_executor(None, self.gate.wait, 10)
        await response.write(b"data: second\n\ndata: [DONE]\n\n")
        return response

    async def endless(self, request):
        response = await self._open(request)
        try:
            while True:
                await response.write(b"data: tick\n\n")
                self.lines_sent += 1
                await asyncio.sleep(0.05)
        except (ConnectionError, RuntimeError):
            self.gone.set()
        except asyncio.CancelledError:
            self.gone.set()
            raise
        return response

    async def silent(self, request):
        await asyncio.sleep(30)
        return aioweb.Response(text="too late")

    async def stalls(self, request):
        response = await self._open(request)
        await response.write(b"data: one\n\n")
        await asyncio.sleep(30)
        return response

    async def quiet(self, request):
        """One line, then nothing for a long time, watching for the relay to hang up."""
        response = await self._open(request)
        await response.write(b"data: one\n\n")
        for _ in range(600):
            if request.transport is None or request.transport.is_closing():
                self.gone.set()
                break
            await asyncio.sleep(0.05)
        return response

    async def short(self, request):
        self.short_transports.append(request.transport)
        return aioweb.Response(text="data: whole\n\n", headers={"Content-Type": "text/event-stream"})


def add_pipe(app):
    """The route a gateway area would have: the provider's lines, relayed as they arrive."""

    async def pipe(request):
        async with app.upstream.call("GET", request.query_value("url")) as answer:
            events = await EventStream(request).open()
            async for line in answer.lines():
                await events.send(line + b"\n")
        return events.response

    app.router.add("GET", "v1/test/pipe", pipe)


class UpstreamTestCase(unittest.TestCase):
    """A fake provider and an in-process relay with the pipe route, for each test class."""

    relay_env = {}

    @classmethod
    def setUpClass(cls):
        cls.provider = FakeProvider()
        cls.folder = tempfile.mkdtemp(prefix="relay-upstream-")
        cls.relay = support.InProcessRelay(cls.folder, cls.relay_env, setup=add_pipe).start()
        cls.token = cls.relay.local_token()

    @classmethod
    def tearDownClass(cls):
        cls.relay.stop()
        cls.provider.stop()
        shutil.rmtree(cls.folder, ignore_errors=True)

    def open_pipe(self, path):
        conn = self.relay.connection(timeout=10)
        conn.request("GET", "/v1/test/pipe?url=" + self.provider.url(path),
                     headers={"Authorization": "Bearer " + self.token})
        return conn, conn.getresponse()


class UpstreamTest(UpstreamTestCase):
    relay_env = {"MERE_RELAY_UPSTREAM_READ_SECONDS": "0.5"}

    def test_lines_reach_the_caller_as_the_provider_sends_them(self):
        self.provider.gate.clear()
        conn, response = self.open_pipe("gated")
        try:
            self.assertEqual(response.status, 200)
            self.assertTrue(response.getheader("Content-Type").startswith("text/event-stream"))
            # The first line arrives while the provider still holds back the rest.
            self.assertEqual(response.readline(), b"data: first\n")
            self.provider.gate.set()
            rest = response.read()
        finally:
            conn.close()
        self.assertEqual(rest, b"\ndata: second\n\ndata: [DONE]\n\n")

    def test_the_provider_is_let_go_when_the_caller_goes_away(self):
        self.provider.gone.clear()
        conn, response = self.open_pipe("endless")
        self.assertEqual(response.readline(), b"data: tick\n")
        response.readline()
        conn.sock.shutdown(socket.SHUT_RDWR)
        response.close()
        conn.close()
        self.assertTrue(self.provider.gone.wait(3), "the provider kept sending to no one")
        sent = self.provider.lines_sent
        time.sleep(0.3)
        self.assertLessEqual(self.provider.lines_sent - sent, 1)
        support.wait_for(lambda: "GET /v1/test/pipe 200" in self.relay.log())
        self.assertEqual(self.relay.tracebacks(), [])

    def test_a_provider_that_does_not_answer_is_a_504(self):
        started = time.monotonic()
        status, answer, _ = self.relay.request("GET", "v1/test/pipe?url=" + self.provider.url("silent"),
                                               token=self.token)
        self.assertEqual((status, answer["error"]["message"]), (504, "the provider did not answer in time"))
        self.assertLess(time.monotonic() - started, 5)

    def test_a_provider_that_stalls_mid_answer_ends_the_stream(self):
        conn, response = self.open_pipe("stalls")
        try:
            self.assertEqual(response.status, 200)
            self.assertEqual(response.read(), b"data: one\n\n")
        finally:
            conn.close()
        support.wait_for(lambda: "stream ended early: the provider stopped answering" in self.relay.log())

    def test_an_unreachable_provider_is_a_502(self):
        with socket.socket() as probe:
            probe.bind(("127.0.0.1", 0))
            closed_port = probe.getsockname()[1]
        status, answer, _ = self.relay.request("GET", f"v1/test/pipe?url=http://127.0.0.1:{closed_port}/x",
                                               token=self.token)
        self.assertEqual((status, answer["error"]["message"]), (502, "the provider could not be reached"))

    def test_one_client_session_serves_every_call(self):
        session = self.relay.app.upstream.session
        self.provider.short_transports.clear()
        for _ in range(3):
            conn, response = self.open_pipe("short")
            self.assertEqual(response.read(), b"data: whole\n\n")
            conn.close()
        # Calls read to the end give their connection back: three calls, one connection.
        self.assertEqual(len(self.provider.short_transports), 3)
        self.assertEqual(len({id(transport) for transport in self.provider.short_transports}), 1)
        self.assertIs(self.relay.app.upstream.session, session)
        self.assertFalse(session.closed)


class CallerGoneTest(UpstreamTestCase):
    """With the relay waiting on a quiet provider (nothing to write that could fail), only the
    caller's leaving can end the call."""

    relay_env = {"MERE_RELAY_UPSTREAM_READ_SECONDS": "60"}

    def test_a_caller_leaving_during_a_quiet_spell_ends_the_provider_call(self):
        self.provider.gone.clear()
        conn, response = self.open_pipe("quiet")
        self.assertEqual(response.readline(), b"data: one\n")
        conn.sock.shutdown(socket.SHUT_RDWR)
        response.close()
        conn.close()
        self.assertTrue(self.provider.gone.wait(3), "the relay kept the provider's connection open")
        support.wait_for(lambda: "GET /v1/test/pipe 200" in self.relay.log())
        self.assertEqual(self.relay.tracebacks(), [])


if __name__ == "__main__":
    unittest.main()
