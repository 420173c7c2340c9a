"""The start-up log, as events."""

import datetime
import functools
import re

from . import clock

LINE = re.compile(r"(\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{6}) \[pid=(\d+)\] \[([^|\]]*)\|(\d+)\] (.*)", re.DOTALL)


@functools.lru_cache(maxsize=None)
def pattern(text):
    """The regular expression of a text in which %d stands for a number and %s for anything."""
    return re.compile("".join({"%d": r"(-?\d+)", "%s": "(.*)"}.get(part, re.escape(part))
                              for part in re.split("(%d|%s)", text)), re.DOTALL)


class Event:
    """One line."""

    def __init__(self, index, line):
        self.index = index
        self.raw = line
        match = LINE.fullmatch(line)
        self.well_formed = match is not None
        stamp, pid, self.file, number, self.text = match.groups() if match else ("", "0", "", "0", line)
        self.time = datetime.datetime.strptime(stamp, "%Y-%m-%d %H:%M:%S.%f") if match else None
        self.pid = int(pid)
        self.line = int(number)
        self.values = ()

    def __repr__(self):
        return f"<line {self.index} {self.raw!r}>"

    def __sub__(self, other):
        """Seconds between two lines."""
        return (self.time - other.time).total_seconds()

    def matches(self, text):
        """Whether its message is that text (%d: a number, %s: anything); keeps the numbers as `values`."""
        match = pattern(text).fullmatch(self.text)
        if match:
            self.values = tuple(int(part) if re.fullmatch(r"-?\d+", part) else part for part in match.groups())
        return match is not None


class StartupLog:
    """A log file that is being written."""

    def __init__(self, path):
        self.path = path

    def bytes(self):
        """The whole file; nothing when there is none."""
        try:
            with open(self.path, "rb") as file:
                return file.read()
        except (FileNotFoundError, NotADirectoryError):
            return b""

    def events(self, pid=None, after=None):
        """All complete lines, of one writer, behind an earlier event."""
        lines = self.bytes().decode("utf-8", "backslashreplace").split("\n")[:-1]
        start = 0 if after is None else after.index + 1
        found = [Event(index, line) for index, line in enumerate(lines[start:], start)]
        return [event for event in found if pid is None or event.pid == pid]

    def texts(self, pid=None, after=None):
        """The messages alone."""
        return [event.text for event in self.events(pid, after)]

    def find(self, text, *, pid=None, after=None):
        """All lines with that message."""
        return [event for event in self.events(pid, after) if event.matches(text)]

    def count(self, text, *, pid=None, after=None):
        """How many lines have that message."""
        return len(self.find(text, pid=pid, after=after))

    def has(self, text, *, pid=None, after=None):
        """Whether a line has that message."""
        return self.count(text, pid=pid, after=after) > 0

    def wait_for(self, text, within=10, *, pid=None, after=None, count=1):
        """Wait until that many lines have that message; give the last one of them."""
        def look():
            found = self.find(text, pid=pid, after=after)
            return found[count - 1] if len(found) >= count else None
        return clock.until(look, within, f"{count} x {text!r} in the start-up log")

    def sequence(self, *texts, pid=None, after=None):
        """Require the messages in this order, others may stand between them; give the lines."""
        found = []
        events = iter(self.events(pid, after))
        for text in texts:
            match = next((event for event in events if event.matches(text)), None)
            assert match is not None, (f"{text!r} does not follow "
                                       f"{texts[len(found) - 1]!r}" if found else f"no {text!r}")
            found.append(match)
        return found

    def exactly(self, texts, *, pid=None, after=None, before=None):
        """Require these messages, all of them and nothing else, in this order; give the lines."""
        events = self.events(pid, after)
        if before is not None:
            events = [event for event in events if event.index < before.index]
        for number, (event, text) in enumerate(zip(events, texts)):
            assert event.matches(text), f"line {number}: {event.text!r} instead of {text!r}"
        assert len(events) == len(texts), \
            f"{len(events)} lines instead of {len(texts)}: {[event.text for event in events[len(texts):]]}"
        return events
