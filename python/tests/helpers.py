"""Helpers shared by the tests."""

import os
import time
from pathlib import Path

REPO = Path(__file__).resolve().parents[2]
PYTHON_DIR = REPO / "python"


def child_environment():
    environment = dict(os.environ)
    environment["PYTHONPATH"] = os.pathsep.join(
        [str(PYTHON_DIR)] + [p for p in [environment.get("PYTHONPATH")] if p])
    return environment


def poll_until(predicate, deadline_s=10.0, interval_s=0.05):
    """Calls predicate until it returns a true value or the deadline passes; returns the last
    value."""
    end = time.monotonic() + deadline_s
    while True:
        value = predicate()
        if value or time.monotonic() >= end:
            return value
        time.sleep(interval_s)
