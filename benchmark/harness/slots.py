"""The files in which a supervisor and its services tell when they began (programs/begin.c, programs/slots.h)."""

import struct
import time

FORM = struct.Struct("=qii")
MOMENT = struct.Struct("=q")


class Slots:
    """So many services of one supervisor."""

    def __init__(self, count, owner):
        self.count = count
        self.path = f"/tmp/slots-{owner}"
        self.begun = f"/tmp/begun-{owner}"  # what the supervisor is started with `begin` for

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

    def whole_s(self, told):
        """Seconds from the execution of the supervisor to the last service's first instructions."""
        with open(self.begun, "rb") as file:
            return (max(told)[0] - MOMENT.unpack(file.read())[0]) / 1e9


def span_s(told):
    """Seconds from the first one's start to the last one's: without what a supervisor does before the first."""
    return (max(told)[0] - min(told)[0]) / 1e9
