"""Services that die: at once, in numbers, in a storm."""

import datetime
import os
import shutil
import signal
import tempfile
import time

import steady
from harness import clock, processes
from harness.gateway import MISSING, UP, Gateway, Service
from pages import Pages, came, pause
from row import at_least, at_most, none, row
from side_by_side import shared_out

from .leaks import usage

LATE = 1.05  # seconds after it was due that a start is to be seen within
GRACE = 31.0  # a restart is due in the first pass of the monitor that begins so many seconds after the last start
RESTARTING = "threadProc, service(%s) status(%d) is abnormal"
DEAD = "process_exit, service(%s) is abnormal"


@row("early-deaths", "a service dies before its pid is stored",
     "missing and instantly exiting programs, 0 to 5 ms of delay after each fork; a reboot as soon as nothing is "
     "reported active. Starts and deaths are counted by their lines in the log. Side by side", short=600, long=100_000,
     seconds=(90, 1200))
def early_deaths(run):
    """Every death is noticed: nothing that has ended counts as active."""
    answers, _ = shared_out(run, lambda gateway, chance: EarlyDeaths(gateway, run), counts=(1, 4), limits=(80, 1150))
    starts, deaths, active, reboots = map(sum, zip(*answers))
    return [at_least("deaths that were noticed", deaths, run.amount),
            none("starts that no death was noticed of", abs(starts - deaths), starts),
            none("services that stayed active after their end", active, starts),
            none("reboots that did not come up", reboots, None)]


class EarlyDeaths:
    """One gateway, none of whose services lives."""

    SIZE = 300

    def __init__(self, gateway, run):
        self.gateway, self.run = gateway, run
        self.pages = Pages(gateway)
        self.starts = self.deaths = 0
        gateway.prepare_run_directory()
        gateway.catalogue(*[Service(f"s{number}", monitor=1, program=MISSING if number % 2 else "exit 0")
                            for number in range(self.SIZE)])

    def work(self, _number, amount):
        """So many deaths; give what was started, noticed, and lost, and how often it did not come up."""
        self.gateway.start(env=dict(os.environ, LD_PRELOAD=self.run.preload("delay_after_fork"),
                                    DELAY_AFTER_FORK_US="5000"))
        active = failed = rounds = 0
        while self.deaths < amount and failed < 3:
            if rounds:
                self._take(self.pages.turn())
                self.gateway.bus().reboot()
            rounds += 1
            if self.pages.wait_for(UP, 60):
                active += self._left()
            else:
                failed += 1
            self.run.progress(self.deaths, "of one of them")
        for _ in range(2):
            self._take(self.pages.turn())
        return self.starts, self.deaths, active, failed

    def _left(self):
        """How many are still reported active a while after the last one has been started."""
        client = self.gateway.bus()
        came(lambda: "\033[32mactive" not in client.report(), 5)
        return client.report().count("\033[32mactive")

    def _take(self, events):
        for event in events:
            self.starts += event.matches("run %s pid %d") and event.values[0] != "dbus-daemon"
            self.deaths += event.matches(DEAD)


@row("kill-storm", "kill -9 storm",
     "four gateways side by side, since a service is left alone for 30 s after a start; each has 200 services, and "
     "fifty times a second one of them by chance is killed if it lives; a sixth of them is only killed when it has "
     "lived for 31 s. A wait begins with the death, or 31 s after the start if that is later. The programs lie on a "
     "file system in memory, since a start waits for the disk. What is used is the least of some looks, after 1,000 "
     "restarts and at the end, without the threads' caches of free memory",
     short=50, long=20_000, seconds=(120, 1200))
def kill_storm(run):
    """Every killed service comes back, once, and in time."""
    answers, _ = shared_out(run, lambda gateway, chance: Storm(gateway, chance, run), counts=(1, 4), limits=(110, 1150))
    services, restarts, lost, doubled, early, old = (sum(answer[what] for answer in answers) for what in
                                                     ("services", "restarts", "lost", "doubled", "early", "old"))
    return [at_least("restarts", restarts, run.amount),
            none("services lost", lost, services),
            none("services started beside their living process", doubled, restarts),
            none("restarts within 30 s of the last start", early, restarts),
            at_least("restarts of services older than 31 s", old, 500 if run.is_long else 5),
            at_most("longest wait", max(answer["wait"] for answer in answers),
                    LATE if run.is_long else clock.stretched(8), "s"),
            *(gained([answer["used"] for answer in answers]) if run.is_long else [])]


def in_memory(gateway):
    """Another one on the private file system. A program that was last started half a minute ago may have to come from
    the disk again, and a start waits for it."""
    stage = tempfile.mkdtemp(prefix="stage.")
    for entry in os.scandir(gateway.stage):
        if entry.is_file():
            shutil.copy2(entry, stage)
    return Gateway(stage, os.path.join(stage, "root"))


def number_from(first):
    """Let new processes have numbers from here on."""
    with open("/proc/sys/kernel/ns_last_pid", "w", encoding="ascii") as file:
        file.write(str(first))


def sleeping(daemon):
    """The pids of its services."""
    return [pid for pid in daemon.services() if processes.program(pid) == "sleep"]


def least_usage(daemon):
    """The least memory, descriptors and threads of a few looks: a line that is being written takes a descriptor."""
    looks = []
    for _ in range(20):
        looks.append(usage(daemon.pid))
        pause(0.02)
    return [min(values) for values in zip(*looks)]


def gained(looks):
    """The figures of what daemons use more than before; of each two looks."""
    memory, descriptors, threads = (sum(max(0, now[what] - before[what]) for before, now in looks) for what in range(3))
    return [at_most("resident memory gained", memory, 0, "KiB"),
            none("descriptors gained", descriptors, sum(now[1] for _, now in looks)),
            none("threads gained", threads, sum(now[2] for _, now in looks))]


class Storm:
    """One gateway: kills, and what its log tells of them."""

    EVERY = 0.02

    def __init__(self, gateway, chance, run):
        self.gateway, self.chance, self.run = in_memory(gateway), chance, run
        self.pages = Pages(self.gateway)
        self.names = [f"s{number}" for number in range(200 if run.is_long else 60)]
        self.patient = set(self.names[::6])
        self.old_enough = 125 if run.is_long else 5
        self.doubled = self.early = self.old = 0
        self.waits = []
        # A start counts from the line before it: what follows may be held up.
        self._pids, self._asked, self._started, self._died = {}, {}, {}, {}
        self._recent = []

    def work(self, _number, amount):
        """So many restarts; give what they came to."""
        # The delays spread the starts, of 200 over the 31 s from one restart to the next: else all would be due in the
        # same pass for ever.
        self.gateway.catalogue(*[Service(name, monitor=1, delay=0.15 if self.run.is_long else 0.03,
                                         program="exec sleep infinity") for name in self.names])
        self.gateway.prepare_run_directory()
        number_from(10_000)
        daemon = self.gateway.start(env=steady.environment())
        clock.until(lambda: UP.encode() in self.gateway.log.bytes(), 90, "the stack is up")
        self.gateway.bus().report()  # it is the longest text that the daemon makes, and now as long as at the end
        base = self._rage(amount, daemon)
        self._settle()
        living = len(sleeping(daemon))
        active = self.gateway.bus().report().count("\033[32mactive")
        return {"services": len(self.names), "restarts": len(self.waits), "lost": len(self.names) - min(active, living),
                "doubled": self.doubled + max(0, living - len(self.names)), "early": self.early, "old": self.old,
                "wait": max(self.waits), "used": (base, least_usage(daemon))}

    def _rage(self, amount, daemon):
        """Kill until enough has been restarted; give what the daemon used after the first thousand, or at the end."""
        base = None
        next_kill = next_look = time.monotonic()
        while len(self.waits) < amount or self.old < self.old_enough:
            if self.run.is_long and time.monotonic() - next_kill > 0.05:
                print(f"    {datetime.datetime.now()} the row itself is {time.monotonic() - next_kill:.2f} s late",
                      flush=True)
            if time.monotonic() >= next_look:
                next_look = time.monotonic() + 0.5
                self._follow()
                self.run.progress(len(self.waits), "of one of them")
            if base is None and len(self.waits) >= 1000:
                base = least_usage(daemon)
                next_kill = time.monotonic()
            self._kill(self.chance.choice(self.names))
            next_kill += self.EVERY
            pause(max(0.0, next_kill - time.monotonic()))
        return base or least_usage(daemon)

    def _settle(self):
        """Let those that are dead come back. Seldom looked at: the others are still timed."""
        deadline = time.monotonic() + clock.stretched(45)
        looks = 0
        while looks < 4 or (self._died and time.monotonic() < deadline):
            pause(0.5)
            self._follow()
            looks += 1

    def _follow(self):
        """Follow the log."""
        events = self.pages.turn()
        self._recent = self._recent[-1000:] + events
        for event in events:
            if event.matches(DEAD):
                self._died[event.values[0]] = event.time
            elif event.matches(RESTARTING) or event.matches("running %s service"):
                self._asked[event.values[0]] = event.time
            elif event.matches("run %s pid %d") and event.values[0] != "dbus-daemon":
                self._restarted(event.values[0], event.values[1], event.time)

    def _restarted(self, name, pid, moment):
        if name in self._pids:
            died = self._died.pop(name, None)
            self.doubled += died is None
            self.early += (self._asked[name] - self._started[name]).total_seconds() < 30
            age = (moment - self._started[name]).total_seconds()
            wait = 0.0 if died is None else (moment - died).total_seconds()
            self.old += age - wait > GRACE
            self.waits.append(min(wait, age - GRACE))
            if self.run.is_long and self.waits[-1] > LATE:
                self._tell(name, moment)
        self._pids[name], self._started[name] = pid, self._asked[name]

    def _tell(self, name, moment):
        """Show what the daemon did in the second before a late start."""
        print(f"    {name} came {self.waits[-1]:.3f} s after it was due", flush=True)
        for event in self._recent:
            if event.time is not None and 0 <= (moment - event.time).total_seconds() < self.waits[-1] + 0.1:
                print("      " + event.raw, flush=True)

    def _kill(self, name):
        if name not in self._pids or name in self._died:
            return
        if name in self.patient and time.time() - self._started[name].timestamp() < GRACE + 0.1:
            return
        try:
            os.kill(self._pids[name], signal.SIGKILL)
        except ProcessLookupError:
            pass  # killed before, and not told yet
