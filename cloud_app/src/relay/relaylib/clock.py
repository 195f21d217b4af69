"""Time in one place: the epoch seconds the relay stores, and the ISO 8601 text it sends.

Dates leave the relay in whole seconds with the zone letter Z, because the queue
client refuses a date with fractional seconds.
"""

import datetime
import time


def now():
    """Seconds since the epoch; tests replace this module attribute to move time."""
    return time.time()


# Dates outside these bounds are refused on the way in, so every stored date can be written out.
EARLIEST = 0
LATEST = 253402300799  # 9999-12-31T23:59:59Z


def iso(seconds):
    moment = datetime.datetime.fromtimestamp(int(seconds), tz=datetime.timezone.utc)
    return (f"{moment.year:04d}-{moment.month:02d}-{moment.day:02d}"
            f"T{moment.hour:02d}:{moment.minute:02d}:{moment.second:02d}Z")


def now_iso():
    return iso(now())


def parse_iso(text):
    """Seconds since the epoch for an ISO 8601 date with a zone, or None."""
    if not isinstance(text, str) or len(text) < 20 or len(text) > 40:
        return None
    candidate = text[:-1] + "+00:00" if text[-1] in "zZ" else text
    try:
        moment = datetime.datetime.fromisoformat(candidate)
    except ValueError:
        return None
    if moment.tzinfo is None or "T" not in candidate.upper():
        return None
    try:
        seconds = moment.timestamp()
    except (OverflowError, OSError, ValueError):
        return None
    return seconds if EARLIEST <= seconds <= LATEST else None
