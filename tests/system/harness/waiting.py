"""Waiting for a condition."""

import time

# Longer than anything takes on a busy machine: only a failing test waits to the end.
SECONDS = 30


def wait_until(condition, what):
    """Waits until condition() is true; the test fails with @a what if it does not become true."""
    deadline = time.monotonic() + SECONDS
    while not condition():
        assert time.monotonic() < deadline, f"not within {SECONDS} s: {what}"
        time.sleep(0.005)
