"""Services that die: at once, in numbers, in a storm."""

import os
import signal
import time

from harness import clock
from harness.gateway import MISSING, UP, Service
from log_tail import LogTail
from row import Usage, at_least, at_most, none, row

GRACE = 31.0


@row("early-deaths", "a service dies before its pid is stored",
     "missing and instantly exiting programs, 0 to 5 ms of delay after each fork", short=600, long=100_000,
     seconds=(90, 1200))
def early_deaths(run):
    """Every death is noticed: nothing that has ended counts as active."""
    gateway = run.gateway()
    size = min(run.amount, 600)
    gateway.catalogue(*[Service(f"s{number}", monitor=1, program=MISSING if number % 2 else "exit 0")
                        for number in range(size)])
    gateway.start(env=dict(os.environ, LD_PRELOAD=run.preload("delay_after_fork"), DELAY_AFTER_FORK_US="5000"))
    deaths = lost = 0
    while deaths < run.amount:
        if deaths:
            gateway.bus().reboot()
            clock.until(lambda: gateway.status().status != 0, 10, "the teardown")
        clock.until(lambda: gateway.status().status == 0, 60, "the stack is up")
        clock.until(lambda: UP in gateway.log.bytes().decode(), 60, "the last service has been started")
        client = gateway.bus()
        deadline = time.monotonic() + 5
        while (active := client.report().count("\033[32mactive")) and time.monotonic() < deadline:
            pass
        deaths += size
        lost += active
        run.progress(deaths)
    return [at_least("deaths", deaths, run.amount), none("deaths that were lost", lost, deaths)]


@row("kill-storm", "kill -9 storm",
     "200 services (600 in the long form, since each is left alone for 30 s after a start), 50 random kills a second",
     short=60, long=20_000, seconds=(120, 1300))
def kill_storm(run):
    """Every killed service comes back, once, and in time."""
    gateway = run.gateway()
    names = [f"s{number}" for number in range(600 if run.is_long else 60)]
    gateway.catalogue(*[Service(name, monitor=1, program="exec sleep infinity") for name in names])
    tail = LogTail()
    daemon = gateway.up(within=60)
    storm = Storm(names)
    usage = None
    next_kill = time.monotonic()
    while storm.restarts < run.amount:
        storm.take(tail.take())
        if time.monotonic() >= next_kill:
            next_kill += 0.02
            storm.kill(run.chance)
        if usage is None and storm.restarts >= 1000:
            usage = Usage(daemon)
        run.progress(storm.restarts)
        time.sleep(0.002)
    clock.until(lambda: len(daemon.services()) == len(names) + 1, 45, lambda: f"{len(daemon.services())} children")
    report = gateway.bus().report()
    tail.stop()
    figures = [at_least("restarts", storm.restarts, run.amount),
               none("services lost", len(names) - report.count("\033[32mactive"), len(names)),
               none("services started beside their living process", storm.doubled, storm.restarts)]
    if storm.waits:
        figures.append(at_most("longest wait of a service older than 31 s", max(storm.waits), 1.05, "s"))
    if usage is not None:
        figures += usage.gained(daemon)
    return figures


class Storm:
    """Kills, and what the log tells of them."""

    def __init__(self, names):
        self.names = set(names)
        self.restarts = self.doubled = 0
        self.waits = []
        self._pids, self._started, self._died = {}, {}, {}

    def take(self, events):
        """Follow the log."""
        for event in events:
            if event.matches("process_exit, service(%s) is abnormal"):
                name = event.values[0]
                if name in self._started:
                    self._died[name] = event.time, (event.time - self._started[name]).total_seconds()
            elif event.matches("run %s pid %d") and event.values[0] in self.names:
                name, pid = event.values
                if name in self._pids:
                    self.restarts += 1
                    self.doubled += name not in self._died
                died, age = self._died.pop(name, (event.time, 0))
                if age > GRACE:
                    self.waits.append((event.time - died).total_seconds())
                self._pids[name], self._started[name] = pid, event.time

    def kill(self, chance):
        """Kill one that lives, if there is one."""
        living = [name for name in self._pids if name not in self._died]
        if living:
            try:
                os.kill(self._pids[chance.choice(living)], signal.SIGKILL)
            except ProcessLookupError:
                pass  # killed before, and not told yet
