"""One attempt at one lane: the request in its protocol, through the relay's one provider
client, read whole or streamed, timed, and classified when it fails."""

import asyncio
import dataclasses
import json
import time

from ..upstream import UpstreamError
from . import protocols

# Streamed answers: throughput is measured only over this long a stretch after the first
# token, shorter stretches say more about the clock than the provider.
MIN_THROUGHPUT_SECONDS = 0.001


@dataclasses.dataclass
class AttemptResult:
    outcome: protocols.Outcome | None
    failure: str | None  # a failure class of protocols, or None on success
    message: str
    latency_ms: int
    throughput_tps: float | None = None
    # A stream that had started to answer and then reported an error: whatever it had produced
    # is not charged.
    broke_off: bool = False
    # Part of the answer was passed on to the caller already: no other lane may answer instead.
    forwarded: bool = False


async def attempt(upstream, lane, key, text, instructions, max_output_tokens, tools, total_seconds,
                  clock=time.monotonic, on_delta=None, parameters=None):
    """Calls `lane` once and reads its answer; never raises for the provider's failures (only for
    the caller's cancellation, or `on_delta`'s own errors). `on_delta`, when given, is awaited with
    each stretch of a streamed answer's deltas (see protocols.StreamReader) as it arrives.
    `parameters`: sampling and format settings (a preset's)."""
    stream = lane.streams
    headers, body = protocols.build_request(lane, key, text, instructions, max_output_tokens, tools, stream,
                                            parameters)
    started = clock()

    def result(outcome, failure, message, first=None):
        ended = clock()
        latency_ms = max(0, int((ended - started) * 1000))
        throughput = None
        if outcome is not None and failure is None and outcome.output_tokens:
            span = ended - (first if first is not None else started)
            throughput = outcome.output_tokens / max(span, MIN_THROUGHPUT_SECONDS)
        return AttemptResult(outcome, failure, message, latency_ms, throughput)

    forwarded = False
    try:
        async with upstream.call("POST", lane.url, headers=headers, json=body,
                                 total_seconds=max(0.001, total_seconds)) as answer:
            if answer.status >= 400:
                await _drain(answer)
                return result(None, protocols.classify_status(answer.status),
                              f"{lane.display_name} answered {answer.status}")
            if not stream:
                try:
                    outcome = protocols.parse_whole(lane.protocol_name, json.loads(await answer.read()))
                except ValueError:
                    return result(None, protocols.SERVER_ERROR, f"{lane.display_name} sent an answer it could not read")
                return result(outcome, None, "")
            reader, first = protocols.StreamReader(lane.protocol_name), None
            async for line in answer.lines():
                # Read to the end even after the last event, so the connection goes back to the pool.
                if reader.feed(line):
                    if first is None:
                        first = clock()
                    deltas = reader.take_deltas()
                    if on_delta is not None and deltas:
                        forwarded = True
                        await on_delta(deltas)
            outcome = reader.outcome
            if outcome.error is not None:
                failed = result(None, outcome.error[0], f"{lane.display_name}: {outcome.error[1]}")
                failed.broke_off, failed.forwarded = first is not None, forwarded
                return failed
            if not reader.done:
                ended = result(None, protocols.SERVER_ERROR, f"{lane.display_name}'s answer ended early")
                ended.forwarded = forwarded
                return ended
            return result(outcome, None, "", first)
    except UpstreamError as error:
        failure = protocols.TIMEOUT if error.status == 504 else protocols.UNREACHABLE
        failed = result(None, failure, f"{lane.display_name}: {error.message}")
    except asyncio.TimeoutError:
        failed = result(None, protocols.TIMEOUT, f"{lane.display_name}: the provider did not answer in time")
    failed.forwarded = forwarded
    return failed


async def _drain(answer):
    try:
        await answer.read(64 * 1024)
    except UpstreamError:
        pass
