"""The file in which services tell when they started (programs/slots.h)."""

import struct
import time

FORM = struct.Struct("=qii")


class Slots:
    """So many services of one supervisor."""

    def __init__(self, count, owner):
        self.count = count
        self.path = f"/tmp/slots-{owner}"

    def clear(self):
        """Nobody has started yet."""
        with open(self.path, "wb") as file:
            file.truncate(self.count * FORM.size)

    def read(self):
        """(moment in ns of the monotonic clock, pid) of each; 0, 0 of those that have not started."""
        with open(self.path, "rb") as file:
            return [(moment, pid) for moment, pid, _ in FORM.iter_unpack(file.read(self.count * FORM.size))]

    def wait(self, within):
        """Wait until all have started, and give what they told; None when they have not."""
        deadline = time.monotonic() + within
        while True:
            slots = self.read()
            if all(moment for moment, _ in slots):
                return slots
            if time.monotonic() > deadline:
                return None
            # Seldom enough to disturb nobody who is being measured.
            time.sleep(0.02)


def span_s(told):
    """Seconds from the first one's start to the last one's: what a supervisor takes before the first does not count."""
    return (max(told)[0] - min(told)[0]) / 1e9
