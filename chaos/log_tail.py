"""The start-up log as it is written, over its restarts at the limit: it keeps the last 256 KiB only."""

import os
import threading

from harness.gateway import STARTUP
from harness.startup_log import Event


class LogTail:
    """Reads every few milliseconds, in a thread of its own. What is written between its last look and a restart of the
    file is missed; `restarts` tells how often that could have been."""

    def __init__(self, every=0.004):
        self.events = []
        self.restarts = 0
        self._path = STARTUP + "/quorvaned.log"
        self._every = every
        self._offset = 0
        self._rest = b""
        self._lock = threading.Lock()
        self._done = threading.Event()
        self._thread = threading.Thread(target=self._read, daemon=True)
        self._thread.start()

    def _read(self):
        while not self._done.wait(self._every):
            self.look()

    def look(self):
        """Take what has been added."""
        with self._lock:
            try:
                with open(self._path, "rb") as file:
                    if os.fstat(file.fileno()).st_size < self._offset:
                        self._offset, self._rest = 0, b""
                        self.restarts += 1
                    file.seek(self._offset)
                    new = file.read()
            except FileNotFoundError:
                return
            self._offset += len(new)
            *lines, self._rest = (self._rest + new).split(b"\n")
            self.events += [Event(len(self.events) + number, line.decode("utf-8", "backslashreplace"))
                            for number, line in enumerate(lines)]

    def take(self):
        """The events since the last call."""
        self.look()
        with self._lock:
            taken, self.events = self.events, []
        return taken

    def stop(self):
        """Read no more."""
        self._done.set()
        self._thread.join()
