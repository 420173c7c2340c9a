"""Memory that is refused: single allocations of the daemon that fail."""

import itertools
import mmap
import os
import re
import signal
import struct
import time

import dbus
from harness import clock, processes
from harness.bus import DAEMON, Bus
from harness.gateway import UP, Service
from pages import Pages
from row import Run, at_least, none, row, sleepers
from side_by_side import by_kind, side_by_side, told

from .cycles import FINISH, kill
from .ends import ONLY_ONE, counted, spared, strangers

SERVICES = 4
EXPECTED = {"quorvaned": 1, "dbus-daemon": 1, "sleep": SERVICES, "named": 1, "spared": 1}
THREADS = {"start_up_thread", "sevice_manager_", "bus-watchdog", "bus-quorvaned"}
DEEDS = ("start", "reboot", "report", "feed", "bad_identity", "identity", "look", "names", "the_bus_dies",
         "upgrade", "new_image", "a_service_dies", "end")
DEED_WITHIN = 20
WELL_WITHIN = 45  # one that died right after its start is left alone for 30 s
END_WITHIN = 12
AGE = 32  # from which on a service is restarted at once
FAILED_START = 255
ABORTED = b"caught Aborted(6) signal, exit"


class Page:
    """What the test shares with the library in the daemon."""

    def __init__(self, path):
        with open(path, "wb") as file:
            file.write(bytes(4096))
        with open(path, "r+b") as file:
            self._map = mmap.mmap(file.fileno(), 4096)

    def _get(self, place):
        return struct.unpack_from("=Q", self._map, 8 * place)[0]

    def failed(self):
        """How many have failed since it was armed."""
        return self._get(3)

    def arm(self, first, many):
        """Let that many fail from that one on, counted from now."""
        struct.pack_into("=Q", self._map, 8, 0)
        struct.pack_into("=QQ", self._map, 16, many, 0)
        struct.pack_into("=Q", self._map, 8, self._get(0) + first)

    def disarm(self):
        """No more."""
        struct.pack_into("=Q", self._map, 8, 0)


def wait_for(probe, within):
    """Whether it became true in time. Many do this at the same time: it looks less often than others."""
    deadline = time.monotonic() + clock.stretched(within)
    while not probe():
        if time.monotonic() >= deadline:
            return False
        time.sleep(0.03)
    return True


def age(pid):
    """For how many seconds a process has lived."""
    words = processes.proc(pid, "stat").rpartition(")")[2].split()
    return time.clock_gettime(time.CLOCK_BOOTTIME) - int(words[19]) / os.sysconf("SC_CLK_TCK") if words else 0.0


def threads(pid):
    """The names of a process's threads."""
    try:
        return {processes.proc(pid, f"task/{task}/comm").strip() for task in os.listdir(f"/proc/{pid}/task")}
    except OSError:
        return set()


@row("memory", "allocation fails",
     "the n-th allocation of the daemon and up to four more are refused, for every n until nothing is left to refuse: "
     "in a start, and from each request, keep-alive, look at the interface, name that comes, death of a service, death "
     "of the bus, upgrade, SIGUSR2 alone and SIGTERM on, to the end of what follows of it, such as a whole cycle. The "
     "daemon's threads wait a tenth of their time; gateways side by side. It goes on, or ends: with status 0, or with "
     "255 where an image fails, and says so, before it has started anything. Every site is tried, half of "
     "them twice; in the short form one of a hundred",
     short=1, long=150, seconds=(200, 1200))
def memory(run):
    """The daemon goes on as if nothing had been, or ends and takes everything along. The amount is how many tries there
    are for every hundred sites."""
    count = 64 if run.is_long else 4
    answers = side_by_side(run, count, lambda gateway, chance, number: Refusals(gateway, chance).sweep(
        run, number, count), limit=1190 if run.is_long else 190)
    kinds = by_kind(told(answers), ("hung", "lost", "status", "alarm", "left"))
    refused, ended = sum(len(answer["hit"]) for answer in answers), sum(answer["ended"] for answer in answers)
    tried, there = swept(answers)
    share = min(run.amount, 100) / 100 * 0.95 if run.is_long else 0.001  # some are of one try only
    return [at_least(f"sites of {there:,} that were tried", tried, int(there * share)),
            none("tries after which it hung", kinds["hung"], refused),
            none("tries after which something stayed away until a \"reboot\"", kinds["lost"], refused),
            none("ends with a wrong status", kinds["status"], ended),
            none("ends by the alarm that bounds a forced exit", kinds["alarm"], ended),
            none("ends that left something but the spared", kinds["left"], ended)]


def swept(answers):
    """(how many sites were tried, how many there are): those of a deed end where the first tries but for a few find
    nothing to refuse"""
    tried = there = 0
    for deed in DEEDS:
        idle = sorted(site for answer in answers for name, site in answer["idle"] if name == deed)
        end = idle[len(idle) // 10] - 1 if idle else 0
        there += end
        tried += len({site for answer in answers for name, site in answer["idle"] + answer["hit"]
                      if name == deed and site <= end})
    return tried, there


class Refusals:
    """One gateway, to which it happens again and again."""

    def __init__(self, gateway, chance):
        self.gateway, self.chance = gateway, chance
        self.page = Page(gateway.path("page"))
        self.pages = Pages(gateway)
        self.ended = 0
        self.hit, self.idle, self.faults = [], [], []
        self.daemon = self.client = None
        gateway.prepare_run_directory()
        gateway.catalogue(*sleepers(SERVICES), Service("fota", program=ONLY_ONE),
                          Service("named", bus="iot.test.named", monitor=1))

    def sweep(self, run, number, count):
        """All sites, of which the others take theirs; in the short form some sites of some deeds."""
        turn = number % len(DEEDS)
        mine = DEEDS[turn:] + DEEDS[:turn] if run.is_long else DEEDS[number::count]
        for deed in mine:
            places = itertools.count(number, count) if run.is_long else itertools.count()
            idle = 0
            while idle < (2 if run.is_long else 1):
                first = 1 + int((next(places) + self.chance.random()) * 100 / run.amount)
                idle = 0 if self.attempt(deed, first) else idle + 1
        self.comes_back()
        return {"hit": self.hit, "idle": self.idle, "ended": self.ended, "faults": self.faults}

    def attempt(self, deed, first):
        """Arm, act, and see to what it leads; give whether something was refused."""
        if deed == "start":
            self.end_daemon()
        elif self.daemon is None:
            self.launch()
            assert wait_for(self.is_well, WELL_WITHIN), self.gateway.log.texts()
        act, many = getattr(self, deed), self.chance.randint(1, 5)
        if deed == "a_service_dies":
            wait_for(lambda: age(self.oldest()) > AGE, AGE + 5)
        self.connect(deed)
        self.pages.turn()
        self.page.arm(first, many)
        try:
            finished = act()
        except (dbus.exceptions.DBusException, AssertionError, OSError):
            finished = lambda: True  # noqa: E731  (whoever asks may be refused)
        wait_for(lambda: self.daemon.status is not None or self.page.failed() >= many or finished(), DEED_WITHIN)
        self.page.disarm()
        failed = self.page.failed()
        if failed:
            self.hit.append((deed, first))
        else:
            self.idle.append((deed, first))
        self.judge(f"{deed}, allocation {first} and {many - 1} more, {failed} refused")
        return failed > 0

    def connect(self, deed):
        """A client of the bus, whose coming is not a part of what is refused."""
        if self.client is not None:
            self.client.close()
            self.client = None
        if deed != "start":
            self.client = Bus(10)
            self.client.settle()

    def judge(self, what):
        """It is well again, or gone with all that belongs to it."""
        decided = wait_for(lambda: self.daemon.status is not None or self.is_well_for_long(), WELL_WITHIN)
        if decided and self.daemon.status is None:
            return
        if self.daemon.status is None:
            seen = f"{processes.tree()} {self.gateway.log.texts()[-60:]}"
            self.faults.append(f"{'lost' if self.helps() else 'hung'}: {what}: {seen}")
            self.end_daemon()
            return
        self.ended += 1
        if self.daemon.status == -signal.SIGALRM:
            self.faults.append(f"alarm: {what}: {self.gateway.log.texts()[-6:]}")
        elif not self.is_right():
            self.faults.append(f"status: {what}: {self.daemon.status} {self.gateway.log.texts()[-6:]}")
        if not wait_for(lambda: not strangers(), 3):
            self.faults.append(f"left: {what}: {[processes.arguments(pid) for pid in strangers()]}")
        self.end_daemon()

    def is_right(self):
        """Whether its status is that of a forced exit, or of an image that fails before it has started anything, and
        says so."""
        text = self.gateway.log.bytes()
        image = text[text.rfind(b"quorvaned start, pid:"):]
        return self.daemon.status == 0 or self.daemon.status == FAILED_START and (
            b"fail to init service environment" in image
            or b"fail to create start up thread" in image
            or ABORTED in image and b"initialize the running environment" not in image)

    def helps(self):
        """Whether a restart of the stack brings all back."""
        try:
            self.pages.turn()
            Bus(1).reboot()
        except (dbus.exceptions.DBusException, AssertionError):
            return False
        return wait_for(self.is_well, WELL_WITHIN)

    def end_daemon(self):
        """Nothing is left, however it comes."""
        if self.daemon is not None and self.daemon.status is None:
            self.daemon.signal(signal.SIGKILL)
            self.daemon.wait()
        for pid in strangers():
            os.kill(pid, signal.SIGKILL)
        self.daemon = None

    def launch(self):
        """A new daemon."""
        libraries = f"{Run.preload('fail_malloc')} {Run.preload('short_waits')}"
        self.daemon = self.gateway.start(env=dict(os.environ, LD_PRELOAD=libraries,
                                                  FAIL_MALLOC_PAGE=self.gateway.path("page")))

    def is_up(self):
        """Whether the last cycle of the page is up; the end of the one before may stand on it."""
        text = self.gateway.log.bytes()
        up = text.rfind(UP.encode())
        return up > text.rfind(b"stop monitor service") and up > text.rfind(FINISH.encode())

    def is_well(self):
        """Each program runs once and those that are supervised are reported, each thread lives, nothing is going on."""
        if counted() != EXPECTED or not THREADS <= threads(self.daemon.pid):
            return False
        text = self.gateway.log.bytes()
        if text.rfind(UP.encode()) < text.rfind(b"stop monitor service"):
            return False
        try:
            client = Bus(0.3)
            active = re.findall(r"\033\[32mactive\033\[0m, pid is (\d+)", client.report())
            client.close()
        except (dbus.exceptions.DBusException, AssertionError):
            return False
        return len(active) == SERVICES + 1 and set(map(int, active)) <= set(self.daemon.services())

    def is_well_for_long(self):
        """Whether it is, and still is when it has had the time to begin something."""
        if not self.is_well():
            return False
        time.sleep(0.1)
        return self.is_well()

    def comes_back(self):
        """In the end the monitor still does its work."""
        if self.daemon is None:
            return
        victim = self.oldest()
        os.kill(victim, signal.SIGKILL)
        if not wait_for(lambda: not processes.alive(victim) and self.is_well(), WELL_WITHIN):
            self.faults.append(f"lost: in the end a service that was killed: {self.gateway.log.texts()[-60:]}")

    def oldest(self):
        """The pid of the supervised service that runs longest."""
        return max((pid for pid in self.daemon.services() if processes.arguments(pid)[:1] == ["sleep"]
                    and not spared(pid)), key=age)

    # What is done to it: each gives what tells when all of it is done

    def start(self):
        """A start."""
        self.launch()
        return self.is_up

    def reboot(self):
        """A restart of the stack."""
        self.client.reboot()
        return self.is_up

    def report(self):
        """Ask for the report."""
        self.client.call(DAEMON, "get_le_status", within=3)
        return lambda: True

    def feed(self):
        """Feed a keep-alive that was not there before."""
        self.client.feed("iot.test.named", f"item {len(self.hit)}", 600)
        return lambda: True

    def bad_identity(self):
        """An identity that is none."""
        self.client.call(DAEMON, "set_gateway_triple", "s", '{"productkey": ["' + "x" * 500 + '"]', within=3)
        return lambda: True

    def identity(self):
        """An identity, which leads to a restart of the stack."""
        self.client.call(DAEMON, "set_gateway_triple", "s",
                         '{"productkey":"p","devicename":"d","devicesecret":"s"}', within=3)
        return self.is_up

    def look(self):
        """Look at its interface."""
        self.client.call((*DAEMON[:2], "org.freedesktop.DBus.Introspectable"), "Introspect", within=3)
        return lambda: True

    def names(self):
        """A name that comes."""
        self.client.own("iot.test.other")
        self.client.settle()
        return lambda: True

    def the_bus_dies(self):
        """The bus daemon is killed."""
        os.kill(next(pid for pid in self.daemon.services() if processes.program(pid) == "dbus-daemon"), signal.SIGKILL)
        return self.is_up

    def upgrade(self):
        """What an upgrade agent does, whether it gets its answer or not."""
        try:
            self.client.call(DAEMON, "start_upgrade", within=3)
        except dbus.exceptions.DBusException:
            pass
        wait_for(lambda: self.daemon.status is not None or not [
            pid for pid in self.daemon.services() if not spared(pid)], 5)
        return self.new_image()

    def new_image(self):
        """The image is replaced. What that leaves of the old one's services is ended, but for what is to outlive it."""
        old = [pid for pid in self.daemon.services() if not spared(pid)]
        self.daemon.signal(signal.SIGUSR2)
        wait_for(lambda: self.daemon.status is not None or self.gateway.log.has(FINISH), 5)
        kill(old)
        return self.is_up

    def a_service_dies(self):
        """A service dies, and is started again by the monitor."""
        victim = self.oldest()
        os.kill(victim, signal.SIGKILL)
        return lambda: not processes.alive(victim) and counted() == EXPECTED

    def end(self):
        """It is asked to end."""
        self.daemon.signal(signal.SIGTERM)
        return lambda: False
