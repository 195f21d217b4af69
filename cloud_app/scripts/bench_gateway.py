#!/usr/bin/env python3
"""Measures what the gateway adds to a provider call, beside a peer gateway (Portkey's).

    python3 cloud_app/scripts/bench_gateway.py [--calls 1000] [--concurrency 1,50] [--streams 200]

The fake provider (its own process) answers OpenAI chat completions. The same calls go to
it directly, through the relay's gateway (`v1/chat/completions` with a gateway key, one
lane on the fake) and through the pinned Portkey gateway (`x-portkey-provider: openai`,
`x-portkey-custom-host` the fake), at each concurrency: p50 and p99 latency, requests per
second, and what each gateway adds (its p50 and p99 minus the direct call's). Streamed
requests (one at a time) give the time to the first byte of the answer's body.

Everything runs on this machine, so the figures are a floor, and other work on the
machine only makes them worse.
"""

import argparse
import asyncio
import os
import shutil
import socket
import subprocess
import sys
import time

HERE = os.path.dirname(os.path.abspath(__file__))
sys.path.insert(0, HERE)

import aiohttp  # noqa: E402

import bench_router  # noqa: E402  (also puts the tests on the path)
import npm_peers  # noqa: E402
from bench_router import measure, percentile, start_fake, start_relay, summary  # noqa: E402
from router_support import FAKE_KEY, inventory_env, lane  # noqa: E402
from support import GATEWAY_KEY  # noqa: E402

GATEWAY_START_SECONDS = 30
BODY = {"model": "fake-model", "max_completion_tokens": 64, "messages": [{"role": "user", "content": "Plan it."}]}


def free_port():
    with socket.socket() as probe:
        probe.bind(("127.0.0.1", 0))
        return probe.getsockname()[1]


def start_portkey(peers):
    port = free_port()
    process = subprocess.Popen(peers.gateway_command(port), stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL,
                               env={**os.environ, **npm_peers.GATEWAY_ENV})
    deadline = time.monotonic() + GATEWAY_START_SECONDS
    while True:
        try:
            socket.create_connection(("127.0.0.1", port), timeout=1).close()
            return process, port
        except OSError:
            if time.monotonic() > deadline or process.poll() is not None:
                process.terminate()
                raise SystemExit("the Portkey gateway did not start")
            time.sleep(0.1)


async def first_byte(session, url, headers, body, count):
    """Time to the first byte of a streamed answer's body, one request at a time."""
    times = []
    for _ in range(count):
        started = time.perf_counter()
        async with session.post(url, headers=headers, json=dict(body, stream=True)) as answer:
            assert answer.status == 200, (url, answer.status, await answer.text())
            await answer.content.readany()
            times.append((time.perf_counter() - started) * 1000)
            await answer.read()
    return times


async def run(calls, levels, streams):
    peers = npm_peers.ensure_installed()
    fake, url = start_fake()
    relay, folder = start_relay(inventory_env([lane("fake-chat", url + "/v1", supported_parameters=["stream"])]))
    portkey, portkey_port = start_portkey(peers)
    try:
        token = relay.local_token()
        key = dict(GATEWAY_KEY, requests_per_minute=None, tokens_per_minute=None, limit_usd=None,
                   content_filters=[])
        key = {name: value for name, value in key.items() if value is not None}
        status, created, _ = relay.request("POST", "v1/router/api-keys", key, token=token)
        assert status == 200, created
        targets = {
            "direct": (f"{url}/v1/chat/completions", {"Authorization": f"Bearer {FAKE_KEY}"}, BODY),
            "quillmere": (f"http://127.0.0.1:{relay.port}/v1/chat/completions",
                          {"Authorization": f"Bearer {created['key']}"}, dict(BODY, model="fake-chat")),
            "portkey": (f"http://127.0.0.1:{portkey_port}/v1/chat/completions",
                        {"Authorization": f"Bearer {FAKE_KEY}", "x-portkey-provider": "openai",
                         "x-portkey-custom-host": url + "/v1"}, BODY),
        }
        results, ttft = [], {}
        async with aiohttp.ClientSession(connector=aiohttp.TCPConnector(limit=200)) as session:
            for target in targets.values():  # warm every path
                await measure(session, *target, 50, 5)
            for concurrency in levels:
                results.append((concurrency, {name: await measure(session, *target, calls, concurrency)
                                              for name, target in targets.items()}))
            for name, target in targets.items():
                try:
                    ttft[name] = await first_byte(session, *target, streams)
                except AssertionError as error:
                    ttft[name] = f"failed: {error}"
        return results, ttft
    finally:
        portkey.terminate()
        portkey.wait(10)
        relay.stop()
        shutil.rmtree(folder, ignore_errors=True)
        fake.terminate()
        fake.wait(10)


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n")[0])
    parser.add_argument("--calls", type=int, default=1000)
    parser.add_argument("--concurrency", default="1,50")
    parser.add_argument("--streams", type=int, default=200)
    args = parser.parse_args()
    levels = [int(level) for level in args.concurrency.split(",")]
    results, ttft = asyncio.run(run(args.calls, levels, args.streams))
    print(f"{args.calls} non-streamed chat completions per row:")
    for concurrency, row in results:
        direct = row["direct"][0]
        for name, (latencies, rate) in row.items():
            line = f"  {concurrency:>3} callers  {name:<9} {summary(latencies)}, {rate:.0f} req/s"
            if name != "direct":
                line += (f"; added p50 {percentile(latencies, 0.5) - percentile(direct, 0.5):.2f} ms, "
                         f"p99 {percentile(latencies, 0.99) - percentile(direct, 0.99):.2f} ms")
            print(line)
    print(f"time to the first byte of a streamed answer, {args.streams} one at a time:")
    for name, times in ttft.items():
        print(f"  {name:<9} {times if isinstance(times, str) else summary(times)}")


if __name__ == "__main__":
    main()
