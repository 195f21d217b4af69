#!/usr/bin/env python3
"""Measures the model router: the cost of a routing decision, and what routing adds to a call.

    python3 cloud_app/scripts/bench_router.py [--lanes 200] [--decisions 2000]
                                               [--calls 2000] [--concurrency 1,50]

- decision cost: a relay with `--lanes` API lanes (all with keys, several protocols and
  prices) answers `v1/router/preview` `--decisions` times on one kept-alive connection;
  the relay's own time per request (from its request log, which times the handler and
  the answer) and the round trip seen by the client, p50 and p99;
- routing overhead: the fake provider (its own process) answers OpenAI chat completions;
  the same number of calls go to it directly and through the relay's `v1/complete` with
  one lane on it, at each concurrency; p50 and p99 latency, requests per second, and
  what the relay adds (p50 and p99 of the relay minus direct).

Both sides run on this machine, so the figures are a floor, not a ceiling, and other
work on the machine only makes them worse.
"""

import argparse
import asyncio
import http.client
import json
import os
import re
import shutil
import subprocess
import sys
import tempfile
import time

HERE = os.path.dirname(os.path.abspath(__file__))
TESTS = os.path.normpath(os.path.join(HERE, "..", "tests"))
sys.path.insert(0, TESTS)

import aiohttp  # noqa: E402

import support  # noqa: E402
from router_support import FAKE_KEY, inventory_env, lane  # noqa: E402

PROTOCOLS = ("openai_chat", "openai_responses", "anthropic_messages")
REQUEST_LOG = re.compile(r"POST /v1/router/preview 200 ([0-9.]+)ms")
PREVIEW = {"task": "code", "input_tokens": 8000, "estimated_output_tokens": 2000, "channel": "any",
           "provider": {"preferred_max_latency": 2.0}}


def percentile(values, share):
    ordered = sorted(values)
    return ordered[max(0, min(len(ordered) - 1, int(round(share * len(ordered) + 0.5)) - 1))]


def summary(values):
    return f"p50 {percentile(values, 0.5):.2f} ms, p99 {percentile(values, 0.99):.2f} ms"


def start_relay(env):
    folder = tempfile.mkdtemp(prefix="bench-router-")
    os.makedirs(os.path.join(folder, "bin"))
    relay = support.Relay(folder, env).start()
    return relay, folder


def decision_cost(lanes, count):
    records = [lane(f"lane-{n:03d}", "https://api.example.com/v1", PROTOCOLS[n % 3], quality=40 + n % 60,
                    provider=f"provider-{n % 12}", routing_model=f"model-{n % 50}",
                    input_cost_per_million=0.1 + (n % 17), output_cost_per_million=0.4 + (n % 23),
                    latency_ms=200 + 37 * (n % 40)) for n in range(lanes)]
    relay, folder = start_relay(inventory_env(records))
    try:
        token = relay.local_token()
        connection = http.client.HTTPConnection("127.0.0.1", relay.port)
        headers = {"Authorization": f"Bearer {token}", "Content-Type": "application/json"}
        body = json.dumps(PREVIEW)
        round_trips = []
        for _ in range(count):
            started = time.perf_counter()
            connection.request("POST", "/v1/router/preview", body, headers)
            answer = connection.getresponse()
            answer.read()
            round_trips.append((time.perf_counter() - started) * 1000)
            assert answer.status == 200, answer.status
        connection.close()
        time.sleep(0.2)
        handled = [float(match) for match in REQUEST_LOG.findall(relay.log())]
        return handled, round_trips
    finally:
        relay.stop()
        shutil.rmtree(folder, ignore_errors=True)


def start_fake():
    process = subprocess.Popen([sys.executable, os.path.join(TESTS, "fake_provider.py"), "--port", "0",
                                "--key", FAKE_KEY, "--text", "A short answer from the fake provider."],
                               stdout=subprocess.PIPE, stderr=subprocess.DEVNULL)
    url = process.stdout.readline().decode().strip()
    return process, url


async def measure(session, url, headers, body, calls, concurrency):
    latencies = []
    queue = iter(range(calls))

    async def worker():
        for _ in queue:
            started = time.perf_counter()
            async with session.post(url, headers=headers, json=body) as answer:
                await answer.read()
                assert answer.status == 200, answer.status
            latencies.append((time.perf_counter() - started) * 1000)

    started = time.perf_counter()
    await asyncio.gather(*(worker() for _ in range(concurrency)))
    return latencies, calls / (time.perf_counter() - started)


async def overhead(calls, levels):
    fake, url = start_fake()
    relay, folder = start_relay(inventory_env([lane("fake-chat", url + "/v1")]))
    try:
        token = relay.local_token()
        direct = (f"{url}/v1/chat/completions", {"Authorization": f"Bearer {FAKE_KEY}"},
                  {"model": "fake-model", "max_completion_tokens": 64,
                   "messages": [{"role": "user", "content": "Plan the change."}]})
        routed = (f"http://127.0.0.1:{relay.port}/v1/complete", {"Authorization": f"Bearer {token}"},
                  {"task": "reason", "input": "Plan the change.", "model": "auto", "max_output_tokens": 64})
        results = []
        connector = aiohttp.TCPConnector(limit=200)
        async with aiohttp.ClientSession(connector=connector) as session:
            for target in (direct, routed):  # warm both paths
                await measure(session, *target, 50, 5)
            for concurrency in levels:
                row = {}
                for name, target in (("direct", direct), ("relay", routed)):
                    row[name] = await measure(session, *target, calls, concurrency)
                results.append((concurrency, row))
        return results
    finally:
        relay.stop()
        shutil.rmtree(folder, ignore_errors=True)
        fake.terminate()
        fake.wait(10)


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n")[0])
    parser.add_argument("--lanes", type=int, default=200)
    parser.add_argument("--decisions", type=int, default=2000)
    parser.add_argument("--calls", type=int, default=2000)
    parser.add_argument("--concurrency", default="1,50")
    args = parser.parse_args()

    handled, round_trips = decision_cost(args.lanes, args.decisions)
    print(f"decision cost, {args.lanes} lanes, {args.decisions} previews:")
    print(f"  at the relay (handler and answer): {summary(handled)}")
    print(f"  round trip at the client:          {summary(round_trips)}")

    levels = [int(level) for level in args.concurrency.split(",")]
    print(f"routing overhead, {args.calls} non-streamed completions per row:")
    for concurrency, row in asyncio.run(overhead(args.calls, levels)):
        direct, relay = row["direct"], row["relay"]
        print(f"  {concurrency:>3} callers  direct: {summary(direct[0])}, {direct[1]:.0f} req/s")
        print(f"  {concurrency:>3} callers  relay:  {summary(relay[0])}, {relay[1]:.0f} req/s")
        added50 = percentile(relay[0], 0.5) - percentile(direct[0], 0.5)
        added99 = percentile(relay[0], 0.99) - percentile(direct[0], 0.99)
        print(f"  {concurrency:>3} callers  added:  p50 {added50:.2f} ms, p99 {added99:.2f} ms")


if __name__ == "__main__":
    main()
