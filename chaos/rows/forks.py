"""Processes: numbers that are given again at once, and none to be had."""

import contextlib
import os
import shutil
import signal
import tempfile
import time

import dbus.lowlevel
from harness import clock, processes
from harness.bus import DAEMON
from harness.gateway import MISSING, UP, Service
from pages import Pages, came, pause
from row import at_least, at_most, none, row
from side_by_side import shared_out
from watchers import Recycler

from .cycles import recorded

GRACE = 31.5
OUTAGE = 10.0


@row("recycled-pids", "process numbers that are given again at once",
     "one reboot after the other, and half of the services killed by the test in the midst of it, so that the daemon's "
     "own kills, which alone are counted, come late; beside strangers who come and go by the thousand. 0 to 1 ms of "
     "delay before each kill. The kernel is told a thousand times a second to look for the next free number from the "
     "beginning: so numbers come again sooner than with a small pid_max, under which starts would fail. Side by side",
     short=100, long=100_000, seconds=(90, 1200))
def recycled_pids(run):
    """No stranger ever gets a signal."""
    answers, _ = shared_out(run, lambda gateway, chance: Recycled(gateway, chance, run), counts=(1, 2),
                            limits=(80, 1150))
    starts, again, kills, failed, struck, passed = map(sum, zip(*answers))
    return [at_least("kills by the daemon", kills, run.amount),
            none("strangers that were sent a signal", struck, passed),
            at_least("starts with a number that had been another service's before", again, max(1, run.amount // 10)),
            none("reboots that did not come up", failed, None)]


class Recycled:
    """One gateway beside its strangers."""

    def __init__(self, gateway, chance, run):
        self.gateway, self.chance, self.run = gateway, chance, run
        self.starts = self.again = self.kills = 0
        self._seen = set()
        names = [f"s{number}" for number in range(300 if run.is_long else 40)]
        gateway.catalogue(*[Service(name, "infinity", program=MISSING) for name in names])
        shutil.copy2("/bin/sleep", gateway.path("bin/" + names[0]))
        for name in names[1:]:
            os.link(gateway.path("bin/" + names[0]), gateway.path("bin/" + name))
        os.link(os.path.join(gateway.stage, "probe_service"), gateway.path("strangers"))
        gateway.prepare_run_directory()

    def work(self, _number, amount):
        """So many kills by the daemon; give the counts."""
        gateway, pages, failed = self.gateway, Pages(self.gateway), 0
        strangers = processes.spawn([gateway.path("strangers"), "--ignore-term",
                                     f"--children={10 if self.run.is_long else 6}"])
        recycler = Recycler()
        daemon = gateway.up(within=30, env=dict(os.environ, LD_PRELOAD=self.run.preload("delay_before_kill"),
                                                DELAY_BEFORE_KILL_US="1000"))
        while self.kills < amount and failed < 3:
            self._take(pages.turn())
            self._reboot(daemon)
            failed += not pages.wait_for(UP, 60)
            self.run.progress(self.kills, "of one of them")
        for _ in range(2):
            self._take(pages.turn())
        recycler.stop()
        strangers.signal(signal.SIGKILL)
        # A signal in the first moment of a stranger's life is told by the one who made it.
        struck = recorded(gateway, "struck") + recorded(gateway, "signal")
        passed = max([0] + [event["ended"] for event in recorded(gateway, "children")])
        return self.starts, self.again, self.kills, failed, len(struck), passed

    def _take(self, events):
        for event in events:
            if event.matches("run %s pid %d"):
                self.starts += 1
                self.again += event.values[1] in self._seen
                self._seen.add(event.values[1])
            self.kills += event.matches("kill -%d %s(%d)")

    def _reboot(self, daemon):
        victims = open_children(daemon)
        self.chance.shuffle(victims)
        client = self.gateway.bus()
        # Not waited for: most of the deaths are to come while the daemon walks through its services and stops them.
        client.connection.send_message(dbus.lowlevel.MethodCallMessage(*DAEMON, "reboot"))
        client.connection.flush()
        strike(victims[:len(victims) // 2], self.chance.uniform(0, 0.001))
        for handle in victims:
            os.close(handle)


def open_children(daemon):
    """Handles of its services: unlike numbers they mean the same process for ever. The bus has to carry the reboot."""
    handles = {pid: os.pidfd_open(pid) for pid in daemon.services() if processes.program(pid) != "dbus-daemon"}
    still = set(processes.children(daemon.pid))
    for pid in set(handles) - still:
        os.close(handles.pop(pid))
    return list(handles.values())


def strike(handles, distance):
    """Kill them, with that many seconds between one and the next."""
    for handle in handles:
        pause(distance)
        try:
            signal.pidfd_send_signal(handle, signal.SIGKILL)
        except ProcessLookupError:
            pass


@row("fork-fails", "no process and no thread to be had",
     "for 10 s: in a reboot, between two services of a start and, in the long form, when all services die. By pids.max "
     "of a control group that the daemon alone is put into, with its children; where the machine lends none, by a "
     "library that refuses in the place of fork and pthread_create, and counts nothing. A service whose start failed "
     "stays away until a reboot", short=1, long=33, seconds=(90, 1200))
def fork_fails(run):
    """The daemon stays, and quiet; a reboot afterwards brings everything back."""
    gateway = run.gateway()
    names = [f"s{number}" for number in range(6)]
    gateway.catalogue(Service("first", monitor=1, delay=0.4, program="exec sleep infinity"),
                      *[Service(name, monitor=1, program="exec sleep infinity") for name in names],
                      Service("named", bus="iot.test.named", monitor=1))
    with shortage(run, gateway) as limit:
        daemon = gateway.up(env=limit.environment)
        limit.take(daemon)
        expected = len(names) + 3
        pages = Pages(gateway)
        usage, away, missed = [], 0, 0
        for number in range(run.amount):
            pages.turn()
            kind = ("reboot", "start", "deaths")[number % (3 if run.is_long else 2)]
            if kind == "deaths":
                pause(GRACE)
            elif kind == "start":
                gateway.bus().reboot()
                pages.wait_for("running first service", 20)
            usage.append(outage(limit, daemon, gateway if kind == "reboot" else None, kind == "deaths"))
            missed += not came(lambda: gateway.status().status == 0, 40)
            pages.turn()
            gateway.bus().reboot()
            back = pages.wait_for(UP, 30) and came(lambda: complete(gateway, daemon, expected), 5)
            away += not back
            run.progress(number)
        return [at_least("outages", len(usage), run.amount),
                *([at_least("starts that the kernel refused", limit.refused(), len(usage))] if limit.by_kernel else []),
                none("daemons that ended", int(not daemon.alive()), 1),
                none("outages after which no bus answered", missed, run.amount),
                none("outages after which a reboot did not bring everything back", away, run.amount),
                at_most("most processor time in an outage", 100 * max(usage),
                        0.5 if run.is_long else clock.stretched(2), "%")]


@contextlib.contextmanager
def shortage(run, gateway):
    """The best way that there is to let forks fail; nothing of it is left."""
    try:
        limit = ControlGroup()
    except OSError:
        limit = Library(run, gateway)
    try:
        yield limit
    finally:
        limit.remove()


class ControlGroup:
    """A control group of the daemon's own. Raises OSError when it cannot be made."""

    by_kernel = True
    environment = None

    def __init__(self):
        # Where the controllers lie apart, and where they are one tree.
        top = next((top for top in ("/sys/fs/cgroup/pids", "/sys/fs/cgroup") if os.path.isdir(top)), "")
        self._path = tempfile.mkdtemp(prefix="quorvaned-chaos-", dir=top)
        try:
            self._write("pids.max", "max")
        except OSError:
            self.remove()
            raise

    def _write(self, name, text):
        with open(os.path.join(self._path, name), "w", encoding="ascii") as file:
            file.write(text)

    def take(self, daemon):
        """Put a daemon into it; what it starts from now on is in it as well."""
        self._write("cgroup.procs", str(daemon.pid))

    def close(self):
        """Let nothing be started."""
        self._write("pids.max", "0")

    def open(self):
        """Let everything be started again."""
        self._write("pids.max", "max")

    def refused(self):
        """How often something was refused."""
        with open(os.path.join(self._path, "pids.events"), encoding="ascii") as file:
            return int(file.readline().split()[1])

    def remove(self):
        """Give who is still in it back to the others, and remove it."""
        with open(os.path.join(self._path, "cgroup.procs"), encoding="ascii") as file:
            for pid in file.read().split():
                with contextlib.suppress(OSError):  # it has ended meanwhile
                    self._write("../cgroup.procs", pid)
        came(self._gone, 10)

    def _gone(self):
        with contextlib.suppress(OSError):
            os.rmdir(self._path)
        return not os.path.exists(self._path)


class Library:
    """A library that refuses. It does not count what it has refused."""

    by_kernel = False

    def __init__(self, run, gateway):
        self._flag = gateway.path("no-processes")
        self.environment = dict(os.environ, LD_PRELOAD=run.preload("fork_fails"), FORK_FAILS_WHILE=self._flag)

    def take(self, _daemon):
        """It is in the daemon already."""

    def close(self):
        """Let nothing be started."""
        with open(self._flag, "w", encoding="ascii"):
            pass

    def open(self):
        """Let everything be started again."""
        os.unlink(self._flag)

    def remove(self):
        """It goes with the daemon."""


def outage(limit, daemon, rebooted, kill_all):
    """Let nothing be forked for a while; give the part of a processor that the daemon used meanwhile."""
    victims = daemon.services()
    client = rebooted.bus() if rebooted else None
    limit.close()
    before, begin = processor_time(daemon), time.monotonic()
    if client:
        client.reboot()
    if kill_all:
        for pid in victims:
            if processes.program(pid) != "dbus-daemon":
                os.kill(pid, signal.SIGKILL)
    pause(OUTAGE)
    used = (processor_time(daemon) - before) / (time.monotonic() - begin)
    limit.open()
    return used


def processor_time(daemon):
    """Seconds, of all threads that it ever had."""
    return time.clock_gettime((~daemon.pid << 3) | 2)


def complete(gateway, daemon, expected):
    """Whether every service and the bus daemon run, and are reported so."""
    report = gateway.bus().report()
    return len(daemon.services()) == expected and report.count("\033[32mactive") == expected - 1
