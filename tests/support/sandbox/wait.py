"""Waiting for a condition, never for a guessed time."""

import time

from gi.repository import GLib

# How often a condition that nothing wakes us for is looked at, in milliseconds.
INTERVAL = 10


def wait_until(condition, deadline=10, what=None):
    """Returns the first true value of `condition()`; AssertionError after `deadline` seconds.

    Bus signals and replies are delivered meanwhile, and only then.
    """
    context = GLib.MainContext.default()
    end = time.monotonic() + deadline
    ticker = GLib.timeout_add(INTERVAL, lambda: GLib.SOURCE_CONTINUE)
    try:
        while True:
            value = condition()
            if value:
                return value
            if time.monotonic() >= end:
                raise AssertionError(f"after {deadline} s still not: {what or condition}")
            context.iteration(True)
    finally:
        GLib.source_remove(ticker)
