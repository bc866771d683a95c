"""Waiting for a condition with a deadline."""

import time

from gi.repository import GLib

# How often a condition is checked when no message arrives, in milliseconds.
INTERVAL = 10


def wait_until(condition, deadline=10, what=None):
    """Returns the first true value of `condition()`. Fails after `deadline` seconds.

    Bus signals and replies are delivered only while this function runs.
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
                raise AssertionError(f"{deadline} s passed before {what or condition}")
            context.iteration(True)
    finally:
        GLib.source_remove(ticker)
