"""Ends of the daemon: by kill -9 at any moment."""

import signal
import time

from harness import processes
from harness.gateway import STARTUP, UP, Service
from row import at_least, none, row

ONLY_ONE = "exec 9>>" + STARTUP + "/${0##*/}.lock; flock -n 9 || exit 0; exec sleep infinity"
SPARED = ("fota", "RemoteTerminalDaemon")
EXPECTED = {"quorvaned": 1, "dbus-daemon": 1, "sleep": 8, "named": 1, "spared": 2}


@row("daemon-killed", "the daemon itself killed with -9", "at random moments of start and life, then started again", short=20,
     long=1000, seconds=(120, 1200))
def daemon_killed(run):
    """Nothing is left but the two spared services, and the next start gives one of each."""
    gateway = run.gateway()
    gateway.catalogue(*[Service(f"s{number}", monitor=1, program="exec sleep infinity") for number in range(8)],
                      *[Service(name, program=ONLY_ONE) for name in SPARED], Service("named", bus="iot.test.named"))
    left = wrong = checked = 0
    for number in range(run.amount):
        daemon = gateway.start()
        if number % 4 == 3:
            gateway.log.wait_for(UP, 30, pid=daemon.pid)
            checked += 1
            deadline = time.monotonic() + 5
            while (same := counted() == EXPECTED) is False and time.monotonic() < deadline:
                time.sleep(0.02)
            wrong += not same
        else:
            moment = time.monotonic() + run.chance.uniform(0, 0.9)
            while time.monotonic() < moment:
                time.sleep(0.001)
        daemon.signal(signal.SIGKILL)
        deadline = time.monotonic() + 0.1
        while (others := strangers()) and time.monotonic() < deadline:
            time.sleep(0.005)
        left += bool(others)
        daemon.wait()
        run.progress(number)
    return [at_least("kills", run.amount, run.amount),
            none("kills after which something lived 100 ms later", left, run.amount),
            none("starts without exactly one of each", wrong, checked)]


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
