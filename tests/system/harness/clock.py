"""Waiting: always for an event, always with a deadline."""

import os
import time

# Slow builds (sanitizers, emulation) stretch every upper bound; lower bounds are facts and stay.
FACTOR = float(os.environ.get("QUORVANED_TIME_FACTOR", "1"))


class Late(AssertionError):
    """What a test waited for did not come in time."""


def stretched(seconds):
    """An upper bound, made longer for slow builds."""
    return seconds * FACTOR


def until(probe, within, what):
    """Call probe until it gives something true, and return that; raise Late after `within` seconds.

    What is looked at lives in files and in /proc, which tell nobody when they change; looking is cheap.
    """
    deadline = time.monotonic() + stretched(within)
    pause = 0.002
    while True:
        found = probe()
        if found:
            return found
        if time.monotonic() >= deadline:
            raise Late(f"not within {stretched(within):g} s: {what() if callable(what) else what}")
        time.sleep(pause)
        pause = min(pause * 1.5, 0.02)


def stays(probe, seconds, what):
    """Require probe to stay true for that long: for what must not happen there is no event to wait for."""
    deadline = time.monotonic() + seconds
    while time.monotonic() < deadline:
        assert probe(), f"no longer true: {what}"
        time.sleep(0.02)
    assert probe(), f"no longer true: {what}"
