"""Ends of the daemon: by kill -9 at any moment."""

import signal

from harness import processes
from harness.gateway import STARTUP, UP, Service
from pages import came, pause
from row import none, row, sleepers
from side_by_side import shared_out

ONLY_ONE = "exec 9>>" + STARTUP + "/${0##*/}.lock; flock -n 9 || exit 0; exec sleep infinity"
SPARED = ("fota", "RemoteTerminalDaemon")
EXPECTED = {"quorvaned": 1, "dbus-daemon": 1, "sleep": 8, "named": 1, "spared": 2}


@row("daemon-killed", "the daemon itself killed with -9",
     "at random moments of the start, and when all is up, in turns; each start that is not killed itself is looked at. "
     "Two gateways side by side. In the short form there are two seconds instead of the 100 ms",
     short=20, long=1000, seconds=(120, 1200))
def daemon_killed(run):
    """Nothing is left but the two spared services, and the next start gives one of each."""
    def kills(gateway, chance):
        return Kills(gateway, chance, 0.1 if run.is_long else 2)
    answers, done = shared_out(run, kills, counts=(2, 2), limits=(110, 1190))
    left, wrong, checked = map(sum, zip(*answers))
    within = "100 ms" if run.is_long else "2 s"
    return [none(f"kills after which something lived {within} later", left, done),
            none("starts without exactly one of each", wrong, checked)]


class Kills:
    """Kills of one gateway's daemon."""

    def __init__(self, gateway, chance, within):
        self.gateway, self.chance, self.within = gateway, chance, within
        gateway.catalogue(*sleepers(8), *[Service(name, program=ONLY_ONE) for name in SPARED],
                          Service("named", bus="iot.test.named"))

    def work(self, _, times):
        """(kills after which something was left, wrong starts, starts that were looked at) of so many kills"""
        left = wrong = 0
        for number in range(times):
            daemon = self.gateway.start()
            if number % 2:
                self.gateway.log.wait_for(UP, 30, pid=daemon.pid)
                wrong += not came(lambda: counted() == EXPECTED, 5)
            else:
                pause(self.chance.uniform(0, 0.9))
            daemon.signal(signal.SIGKILL)
            left += not came(lambda: not strangers(), self.within)
            daemon.wait()
        return left, wrong, times // 2


def strangers():
    """What lives and is not spared."""
    return [pid for pid in processes.everybody() if not spared(pid)]


def spared(pid):
    """Whether it holds the lock that the spared services hold."""
    return processes.link(pid, "fd/9").endswith(tuple(name + ".lock" for name in SPARED))


def counted():
    """How many processes of each kind run."""
    kinds = {}
    for pid in processes.everybody():
        words = processes.arguments(pid)
        kind = "spared" if spared(pid) else words[0].rpartition("/")[2] if words else ""
        kinds[kind] = kinds.get(kind, 0) + 1
    return kinds
