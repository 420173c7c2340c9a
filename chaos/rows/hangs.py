"""Services that fall silent, and services that are just in time."""

import json
import os
import signal
import time

from harness import clock
from harness.gateway import Service
from pages import Pages, came
from row import at_least, at_most, none, row
from watchers import Feeder

SECONDS = 3
GRACE = 31.0


@row("hanging-service", "a hanging service",
     "SIGSTOP at random moments while a keep-alive of 3 s is armed; beside it a service with many keep-alives of 1 s, "
     "each fed just before its second is over. What the test itself fed too late is not counted. SIGTERM does not end "
     "a stopped process: the test lets the old one go on, and so end", short=8, long=1500, seconds=(100, 1500))
def hanging_service(run):
    """It is replaced in time, and nobody else is."""
    gateway = run.gateway()
    names = [f"h{number}" for number in range(60 if run.is_long else 8)]
    feed = f"--feed=key:{SECONDS}:400"
    gateway.catalogue(*[Service(name, feed, bus=f"iot.test.{name}", monitor=1) for name in names],
                      Service("edge", bus="iot.test.edge", monitor=1))
    gateway.prepare_run_directory()
    pages = Pages(gateway)
    gateway.up(within=60)
    feeder = Feeder("iot.test.edge", keys=90 if run.is_long else 30, every=0.95 if run.is_long else 0.7)
    hangs = Hangs(gateway, run, names)
    feeds = run.amount * (67 if run.is_long else 30)
    while hangs.restarts < run.amount or feeder.feeds < feeds:
        hangs.take(pages.turn())
        hangs.stop_due()
        run.progress(hangs.restarts)
        came(lambda: False, 0.3)
    feeder.stop()
    excused = sum(abs(moment - feeder.late_at) < 4 for moment in hangs.edge_restarts) if feeder.late else 0
    return [at_least("hangs", hangs.restarts, run.amount),
            at_most("longest time from the deadline, or the end of the grace, to the restart", max(hangs.waits),
                    2.1 if run.is_long else clock.stretched(3.5), "s"),
            none("restarts before the deadline", hangs.early, hangs.restarts),
            at_least("feeds at the edge", feeder.feeds, feeds),
            none("restarts of the service that was fed", len(hangs.edge_restarts) - excused, feeder.feeds),
            none("restarts of other services that did not hang", hangs.false, hangs.restarts)]


class Hangs:
    """Who is to hang when, who does, and what became of it."""

    def __init__(self, gateway, run, names):
        self.gateway, self.run, self.names = gateway, run, set(names)
        self.restarts = self.early = self.false = 0
        self.waits, self.edge_restarts = [], []
        self._running = {}  # name -> pid, moment of the start, moment when it is to hang
        self._hanging = {}  # name -> pid, moment of the start, moment of the last feed

    def take(self, events):
        """Follow the log."""
        for event in events:
            if event.matches("threadProc, service(%s) status(%d) is abnormal"):
                self._abnormal(event.values[0], event.time.timestamp())
            elif event.matches("run %s pid %d") and event.values[0] in self.names:
                moment = event.time.timestamp()
                self._running[event.values[0]] = (event.values[1], moment,
                                                  moment + self._life())

    def _life(self):
        """How long a service lives before it hangs: well within the grace, or so long that its deadline lies beyond."""
        if self.run.chance.random() < 0.5:
            return self.run.chance.uniform(0.5, 26)
        return self.run.chance.uniform(28.5, 42 if self.run.is_long else 30)

    def _abnormal(self, name, moment):
        if name == "edge":
            self.edge_restarts.append(moment)
        elif name not in self._hanging:
            self.false += 1
        else:
            pid, started, fed = self._hanging.pop(name)
            os.kill(pid, signal.SIGCONT)  # it has been sent SIGTERM
            self.restarts += 1
            self.early += moment <= max(fed + SECONDS, started + GRACE - 1)
            self.waits.append(moment - max(fed + SECONDS, started + GRACE))

    def stop_due(self):
        """Stop those whose moment has come, if they have armed a keep-alive."""
        for name, (pid, started, due) in list(self._running.items()):
            if time.time() >= due and name not in self._hanging and self._last_feed(name, pid):
                os.kill(pid, signal.SIGSTOP)
                self._hanging[name] = (pid, started, self._last_feed(name, pid))
                del self._running[name]

    def _last_feed(self, name, pid):
        """When the process fed last; nothing when it never did."""
        with open(os.path.join(self.gateway.probe, name + ".jsonl"), "rb") as file:
            file.seek(max(0, os.fstat(file.fileno()).st_size - 2000))
            lines = file.read().split(b"\n")[:-1]
        feeds = [event["wall"] for event in map(json.loads, lines[1:])
                 if event["event"] == "feed" and event["pid"] == pid]
        return feeds[-1] if feeds else None
