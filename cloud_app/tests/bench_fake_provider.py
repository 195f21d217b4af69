#!/usr/bin/env python3
"""Measures how many requests a second the fake provider answers, per protocol, streamed and not.

The fake runs as its own process pinned to one core (as a benchmark would start
it); the load comes from aiohttp clients in this process, over keep-alive
connections. Two figures per case: the rate this client reached (bounded by the
client and whatever else runs on the machine), and the fake's own CPU time per
request, read from /proc, with the rate one core would give at that cost. A
benchmark, not a test: it prints figures and never fails on them.

    python3 bench_fake_provider.py [--requests 4000] [--concurrency 16]
"""

import argparse
import asyncio
import json
import os
import subprocess
import sys
import time

from fake_provider import web  # noqa: F401  (makes Debian's aiohttp importable, as the fake does)
import aiohttp

HERE = os.path.dirname(os.path.abspath(__file__))
KEY = "sk-bench"
# How long the fake gets to exit once told to.
STOP_SECONDS = 10
# (label, path, body, headers)
CASES = [
    ("openai_chat", "/v1/chat/completions", {"model": "m", "messages": [{"role": "user", "content": "hi"}]},
     {"Authorization": f"Bearer {KEY}"}),
    ("openai_responses", "/v1/responses", {"model": "m", "input": "hi"}, {"Authorization": f"Bearer {KEY}"}),
    ("anthropic_messages", "/v1/messages", {"model": "m", "max_tokens": 16,
                                            "messages": [{"role": "user", "content": "hi"}]}, {"x-api-key": KEY}),
]


async def load(url, path, body, headers, total, concurrency):
    payload = json.dumps(body)
    remaining = [total]

    async def worker(session):
        while remaining[0] > 0:
            remaining[0] -= 1
            async with session.post(url + path, data=payload, headers=headers) as response:
                await response.read()
                if response.status != 200:
                    raise RuntimeError(f"{path} answered {response.status}")

    connector = aiohttp.TCPConnector(limit=concurrency)
    async with aiohttp.ClientSession(connector=connector) as session:
        await worker(session)  # warm the connections and the fake's code paths
        remaining[0] = total
        started = time.perf_counter()
        await asyncio.gather(*(worker(session) for _ in range(concurrency)))
        return total / (time.perf_counter() - started)


def cpu_seconds(pid):
    """User plus system CPU time of a process so far."""
    with open(f"/proc/{pid}/stat", encoding="ascii") as handle:
        fields = handle.read().rsplit(")", 1)[1].split()
    return (int(fields[11]) + int(fields[12])) / os.sysconf("SC_CLK_TCK")


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--requests", type=int, default=4000, help="requests per case")
    parser.add_argument("--concurrency", type=int, default=16, help="connections kept open at once")
    args = parser.parse_args()
    command = [sys.executable, os.path.join(HERE, "fake_provider.py"), "--port", "0", "--key", KEY,
               "--record-limit", "1000"]
    if os.cpu_count() and os.cpu_count() > 1:
        command = ["taskset", "-c", "0", *command]
    server = subprocess.Popen(command, stdout=subprocess.PIPE, text=True)
    try:
        url = server.stdout.readline().strip()
        print(f"fake provider at {url}, {args.requests} requests per case, {args.concurrency} connections")
        for label, path, body, headers in CASES:
            for stream in (False, True):
                before = cpu_seconds(server.pid)
                rate = asyncio.run(load(url, path, dict(body, stream=stream), headers, args.requests,
                                        args.concurrency))
                # The warm-up pass answers as many requests again as the timed one.
                cost = (cpu_seconds(server.pid) - before) / (2 * args.requests)
                print(f"{label:20s} {'stream' if stream else 'whole':6s} {rate:7.0f} requests/s reached, "
                      f"{cost * 1e6:5.0f} us CPU each in the fake = {1 / cost:6.0f} requests/s per core")
    finally:
        server.terminate()
        server.wait(timeout=STOP_SECONDS)
        server.stdout.close()
    return 0


if __name__ == "__main__":
    sys.exit(main())
