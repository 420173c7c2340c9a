"""Memory that is refused: single allocations of the daemon that fail."""

import mmap
import os
import struct
import time

import dbus
from harness import processes
from harness.bus import DAEMON, Bus
from harness.gateway import UP, Service
from pages import came
from row import Run, at_least, none, row, sleepers
from side_by_side import shared_out, told

from .ends import ONLY_ONE, SPARED, strangers

SERVICES = 4
HEALTHY_WITHIN = 25
END_WITHIN = 12


class Page:
    """What the test shares with the library in the daemon."""

    def __init__(self, path):
        with open(path, "wb") as file:
            file.write(bytes(4096))
        with open(path, "r+b") as file:
            self._map = mmap.mmap(file.fileno(), 4096)

    def _get(self, place):
        return struct.unpack_from("=Q", self._map, 8 * place)[0]

    def count(self):
        """Allocations so far."""
        return self._get(0)

    def failed(self):
        """How many have failed since it was armed."""
        return self._get(3)

    def reset(self):
        """Count from the beginning."""
        struct.pack_into("=QQQQ", self._map, 0, 0, 0, 0, 0)

    def arm(self, first, many):
        """Let that many fail from that one on."""
        struct.pack_into("=QQ", self._map, 16, many, 0)
        struct.pack_into("=Q", self._map, 8, first)

    def disarm(self):
        """No more."""
        struct.pack_into("=Q", self._map, 8, 0)


@row("memory", "allocation fails",
     "the n-th allocation and up to four more of the daemon are refused: in the start, and while it is asked for its "
     "report, fed, given identities good and bad, restarted, looked at, told of names and of deaths; gateways side by "
     "side", short=24, long=4000, seconds=(150, 1300))
def memory(run):
    """The daemon goes on as if nothing had been, or ends and takes everything along."""
    answers, _ = shared_out(run, Refusals, counts=(4, 10), limits=(140, 1200))
    faults = told(answers)
    total = {key: sum(answer[key] for answer in answers) for key in ("tries", "refused", "ended")}
    return [at_least("tries in which an allocation was refused", total["refused"], run.amount // 2),
            none(f"tries after which it hung, or something was left or lost ({total['ended']} ended it in order)",
                 len(faults), total["tries"])]


class Refusals:
    """One gateway, to which it happens again and again."""

    def __init__(self, gateway, chance):
        self.gateway, self.chance = gateway, chance
        self.page = Page(gateway.path("page"))
        self.tries = self.refused = self.ended = 0
        self.faults = []
        self.daemon = None
        gateway.catalogue(*sleepers(SERVICES), *[Service(name, program=ONLY_ONE) for name in SPARED],
                          Service("named", bus="iot.test.named", monitor=1))

    def work(self, _, share):
        """So many tries."""
        while self.tries < share:
            if self.daemon is None:
                self.start()
                continue
            deed = self.chance.choice([self.report, self.feed, self.bad_triple, self.good_triple, self.reboot,
                                       self.look, self.names, self.death])
            self.attempt(deed.__name__, self.page.count() + self.chance.randint(1, 60), deed)
        return {"tries": self.tries, "refused": self.refused, "ended": self.ended, "faults": self.faults}

    def start(self):
        """A new daemon; an allocation of its start fails."""
        self.page.reset()

        def deed():
            self.daemon = self.gateway.start(env=dict(os.environ, LD_PRELOAD=self.library(),
                                                      FAIL_MALLOC_PAGE=self.gateway.path("page")))
            came(lambda: not self.daemon.alive() or self.is_up(), 5)
        self.attempt("start", self.chance.randint(1, 1500), deed)

    @staticmethod
    def library():
        """What is preloaded."""
        return Run.preload("fail_malloc")

    def attempt(self, what, first, deed):
        """Arm, act, and see to what it leads."""
        many = self.chance.randint(1, 5)
        self.tries += 1
        self.page.arm(first, many)
        try:
            deed()
            came(lambda: self.page.failed() or self.page.count() > first, 0.2)
        except (dbus.exceptions.DBusException, AssertionError, OSError):
            pass  # whoever asks may be refused
        self.page.disarm()
        if not self.page.failed():
            what += ", nothing refused"
        self.refused += self.page.failed() > 0
        self.judge(f"{what}, allocation {first} and {many - 1} more")

    def judge(self, what):
        """It is well again, or gone with all that belongs to it."""
        decided = came(lambda: self.daemon.status is not None or self.is_well(), HEALTHY_WITHIN)
        if decided and self.daemon.status is None:
            return
        if self.daemon.status is None and not came(lambda: self.daemon.status is not None, END_WITHIN):
            self.faults.append(f"{what}: it is neither well nor gone: {self.gateway.log.texts()[-6:]}")
            self.daemon.signal(9)
            self.daemon.wait()
        else:
            self.ended += 1
        if not came(lambda: not strangers(), 1):
            self.faults.append(f"{what}: left behind: {[processes.arguments(pid) for pid in strangers()]}")
            for pid in strangers():
                os.kill(pid, 9)
        self.daemon = None

    def is_up(self):
        """The stack is up, by the log."""
        return UP in self.gateway.log.texts(pid=self.daemon.pid)

    def is_well(self):
        """Everything that is supervised runs, or does after a restart of the stack; nothing is there twice."""
        try:
            client = Bus(0.3)
            report = client.report()
            if report.count("\033[32mactive") == SERVICES + 1:
                return len(processes.children(self.daemon.pid)) <= SERVICES + 4
            if report:
                client.reboot()
                time.sleep(1.5)
        except (dbus.exceptions.DBusException, AssertionError):
            pass
        return False

    # What is done to it

    def report(self):
        """Ask for the report."""
        Bus(1).report()

    def feed(self):
        """Feed a keep-alive that was not there before."""
        Bus(1).feed("iot.test.named", f"item {self.tries}", 600)

    def bad_triple(self):
        """An identity that is none."""
        Bus(1).set_triple('{"productkey": ["' + "x" * 500 + '"]')

    def good_triple(self):
        """An identity."""
        Bus(1).set_triple('{"productkey":"p","devicename":"d","devicesecret":"s"}')

    def reboot(self):
        """A restart of the stack."""
        Bus(1).reboot()
        came(lambda: self.page.failed() > 0, 2.5)

    def look(self):
        """Look at its interface."""
        Bus(1).call((*DAEMON[:2], "org.freedesktop.DBus.Introspectable"), "Introspect")

    def names(self):
        """Names that come and go."""
        client = Bus(1)
        client.own("iot.test.other")
        client.close()

    def death(self):
        """A service dies."""
        os.kill(self.gateway.pid_of(f"s{self.chance.randrange(SERVICES)}"), 9)
        came(lambda: self.page.failed() > 0, 0.3)
