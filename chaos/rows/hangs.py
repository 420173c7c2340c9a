"""Services that fall silent, and services that are just in time."""

import json
import os
import signal
import time

from harness import clock
from harness.gateway import Service
from pages import Pages, came
from row import Figure, at_least, at_most, none, row
from watchers import Feeder

SECONDS = 3
GRACE = 31.0
IN_TIME = 2.1  # seconds after a deadline


@row("hanging-service", "a hanging service",
     "SIGSTOP at random moments while a keep-alive of 3 s is armed; beside it a service with many keep-alives of 1 s, "
     "each fed just before its second is over. Feeds count when the service is older than its 31 s of grace, and "
     "unless the test itself was too late. SIGTERM does not end a stopped process: the test lets the old one go on, "
     "and so end",
     short=8, long=1500, seconds=(110, 1200))
def hanging_service(run):
    """It is replaced in time, and nobody else is."""
    gateway = run.gateway()
    names = [f"h{number}" for number in range(90 if run.is_long else 8)]
    feed = f"--feed=key:{SECONDS}:400"
    gateway.catalogue(*[Service(name, feed, bus=f"iot.test.{name}", monitor=1) for name in names],
                      Service("edge", bus="iot.test.edge", monitor=1))
    gateway.prepare_run_directory()
    pages = Pages(gateway)
    gateway.up(within=60)
    edge = Edge(Feeder("iot.test.edge", keys=150 if run.is_long else 30, every=0.95 if run.is_long else 0.7))
    hangs = Hangs(gateway, run, names)
    feeds = run.amount * (67 if run.is_long else 15)
    while (hangs.restarts < run.amount or edge.counted < feeds) and len(hangs.edge_restarts) < 20:
        hangs.take(pages.turn())
        edge.take(hangs.edge_restarts)
        hangs.stop_due()
        run.progress(hangs.restarts)
        came(lambda: False, 0.3)
    for _ in range(2):
        hangs.take(pages.turn())
    edge.judge(hangs.edge_restarts)
    edge.feeder.stop()
    in_time = IN_TIME if run.is_long else clock.stretched(9)
    forgotten = hangs.older_than(in_time)
    return [at_least("hangs that led to a restart", hangs.restarts, run.amount),
            none("hangs that led to none in time", forgotten, hangs.restarts + forgotten),
            at_most("longest time from the deadline, or the end of the grace, to the restart", max(hangs.waits),
                    in_time, "s"),
            none("restarts before the deadline", hangs.early, hangs.restarts),
            at_least("feeds at the edge", edge.counted, feeds),
            none("restarts of the service that was fed", edge.false, edge.counted),
            Figure("feeds that the test sent too late", edge.late, edge.late + edge.counted, "at most 0.5 %",
                   edge.late * 200 <= edge.late + edge.counted or not run.is_long),
            Figure("restarts of that service that followed these", edge.explained, edge.late, "at most 5",
                   edge.explained <= 5 or not run.is_long),
            none("restarts of other services that did not hang", hangs.false, hangs.restarts)]


class Edge:
    """The service that is fed just in time: which feeds count, and which of its restarts the test itself has caused."""

    def __init__(self, feeder):
        self.feeder = feeder
        self.counted = self.late = self.false = self.explained = 0
        self._seen = self._seen_late = 0
        self._old_at = time.time() + GRACE
        self._late_at = []  # from when to when a feed was too late

    def take(self, restarts):
        """Count what has been fed since the last call; restarts: the moments of all."""
        moment = time.time()
        late = self.feeder.late
        fed = self.feeder.feeds
        if late > self._seen_late:
            self._late_at.append(self.feeder.late_at)
        if moment > self._old_at:
            self.counted += fed - self._seen - (late - self._seen_late)
            self.late += late - self._seen_late
        self._seen, self._seen_late = fed, late
        if restarts:
            self._old_at = max(self._old_at, restarts[-1] + GRACE)

    def judge(self, restarts):
        """Tell at the end which of its restarts were false."""
        for moment in restarts:
            if any(abs(moment - late_at) < 4 for late_at in self._late_at):
                self.explained += 1
            else:
                self.false += 1


class Hangs:
    """Who is to hang when, who does, and what became of it."""

    def __init__(self, gateway, run, names):
        self.gateway, self.run, self.names = gateway, run, set(names)
        self.restarts = self.early = self.false = 0
        self.waits, self.edge_restarts = [], []
        self._asked = {}  # name -> moment of the line before the start, which may be held up
        self._running = {}  # name -> pid, moment of the start, moment when it is to hang
        self._hanging = {}  # name -> pid, moment of the start, moment of the last feed

    def take(self, events):
        """Follow the log."""
        for event in events:
            if event.matches("threadProc, service(%s) status(%d) is abnormal"):
                self._abnormal(event.values[0], event.time.timestamp())
            elif event.matches("running %s service"):
                self._asked[event.values[0]] = event.time.timestamp()
            elif event.matches("run %s pid %d") and event.values[0] in self.names:
                name, pid = event.values
                self._running[name] = pid, self._asked[name], self._asked[name] + self._life()

    def _life(self):
        """How long a service lives before it hangs: well within the grace, or so long that its deadline lies beyond."""
        if self.run.chance.random() < 0.5:
            return self.run.chance.uniform(0.5, 26)
        return self.run.chance.uniform(28.5, 42 if self.run.is_long else 30)

    def _abnormal(self, name, moment):
        self._asked[name] = moment
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

    def older_than(self, seconds):
        """How many hang that should have been restarted longer ago than that."""
        return sum(time.time() > max(fed + SECONDS, started + GRACE) + seconds
                   for _, started, fed in self._hanging.values())

    def _last_feed(self, name, pid):
        """When the process fed last; nothing when it never did."""
        with open(os.path.join(self.gateway.probe, name + ".jsonl"), "rb") as file:
            file.seek(max(0, os.fstat(file.fileno()).st_size - 2000))
            lines = file.read().split(b"\n")[:-1]
        feeds = [event["wall"] for event in map(json.loads, lines[1:])
                 if event["event"] == "feed" and event["pid"] == pid]
        return feeds[-1] if feeds else None
