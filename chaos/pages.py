"""The start-up log, put aside page by page: it restarts empty at 256 KiB, and here no line may be lost."""

import datetime
import os
import time

from harness import clock
from harness.startup_log import StartupLog


class Pages:
    """The log of a gateway, of which each round of a row gets a page of its own. Every line is opened, written and
    closed for itself, so a page that was renamed a round ago is complete."""

    def __init__(self, gateway):
        self.log = gateway.log
        self._turned = 0
        self._last = None

    def turn(self):
        """Begin a page; give the events of the one before the last."""
        complete = self._read()
        self._turned += 1
        self._last = f"{self.log.path}.{self._turned}"
        try:
            os.rename(self.log.path, self._last)
        except FileNotFoundError:
            self._last = None
        return complete

    def _read(self):
        if self._last is None:
            return []
        events = StartupLog(self._last).events()
        os.unlink(self._last)
        return events

    def wait_for(self, text, within, count=1):
        """Wait until these words stand so often on the page; false when they do not come. Cheap: nothing is parsed."""
        words = text.encode()
        return came(lambda: self.log.bytes().count(words) >= count, within)


def came(probe, within):
    """Whether it became true in time."""
    deadline = time.monotonic() + clock.stretched(within)
    while not probe():
        if time.monotonic() >= deadline:
            return False
        time.sleep(0.008)
    return True


def pause(seconds):
    """Let a moment that chance has chosen come."""
    moment = time.monotonic() + seconds
    while (left := moment - time.monotonic()) > 0:
        time.sleep(left)


def ago(event):
    """Seconds since a line was written."""
    return (datetime.datetime.now() - event.time).total_seconds()
