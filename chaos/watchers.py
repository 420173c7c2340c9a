"""Processes of a row's own that look on, or that keep a gateway busy. They end with the row."""

import fcntl
import math
import mmap
import os
import signal
import struct
import time

import dbus
from harness import processes
from harness.bus import WATCHDOG, Bus
from harness.sandbox import PR_SET_PDEATHSIG, prctl


def _beside(body):
    """Run it in a child; give the pid."""
    pid = os.fork()
    if pid == 0:
        try:
            signal.setitimer(signal.ITIMER_REAL, 0)
            signal.signal(signal.SIGALRM, signal.SIG_DFL)
            prctl(PR_SET_PDEATHSIG, signal.SIGKILL)
            body()
        finally:
            os._exit(0)
    return pid


def end(pid):
    """End one of them."""
    processes.reap()
    if processes.alive(pid):
        os.kill(pid, signal.SIGKILL)


class LockWatch:
    """Waits for a lock that is never to be free: the kernel gives it away at the very moment when nobody holds it."""

    def __init__(self, path):
        self._pid = _beside(lambda: fcntl.lockf(os.open(path, os.O_RDWR), fcntl.LOCK_EX))

    def was_free(self):
        """Whether it has been free, if only for an instant."""
        return not processes.alive(self._pid)

    def stop(self):
        """Wait no more."""
        end(self._pid)


class Load:
    """A client that feeds keep-alives and asks for the report, two hundred times a second, and comes back whenever its
    bus has gone."""

    def __init__(self):
        self.pid = _beside(self._work)

    @staticmethod
    def _work():
        while True:
            try:
                client = Bus(within=600)
                for number in range(1 << 30):
                    client.send(WATCHDOG, "feedDog", "ssi", "iot.test.named", f"load{number % 50}", 600)
                    if number % 4 == 0:
                        client.report()
                    time.sleep(0.005)
            except (dbus.exceptions.DBusException, OSError):
                time.sleep(0.02)

    def stop(self):
        """No more."""
        end(self.pid)


class Recycler:
    """Lets the kernel look for the next free process number from the beginning, a thousand times a second."""

    def __init__(self):
        self._pid = _beside(self._work)

    @staticmethod
    def _work():
        file = os.open("/proc/sys/kernel/ns_last_pid", os.O_WRONLY)
        while True:
            os.pwrite(file, b"2", 0)
            time.sleep(0.001)

    def stop(self):
        """No more."""
        end(self._pid)


class Feeder:
    """A client that feeds many keep-alives of one second of a service, one after the other and each again after `every`
    seconds. It knows when it was too late itself: a feed counts as in time when it has been handled before the second
    after the deadline of the one before it."""

    LAYOUT = "qqd"

    def __init__(self, name, keys, every):
        self._shared = mmap.mmap(-1, mmap.PAGESIZE)
        self._pid = _beside(lambda: self._work(name, keys, every))

    def _work(self, name, keys, every):
        client = Bus()
        earlier = [math.inf] * keys  # the earliest moment at which the daemon can have taken it
        feeds = late = 0
        late_at = 0.0
        due = time.monotonic()
        while True:
            time.sleep(max(0.0, due - time.monotonic()))
            due += every / keys
            begin = time.monotonic()
            client.feed(name, f"key{feeds % keys}", 1)  # it has been handled when this returns
            last = earlier[feeds % keys]
            if last != math.inf and time.monotonic() >= math.floor(last) + 2:
                late, late_at = late + 1, time.time()
            earlier[feeds % keys] = begin
            feeds += 1
            struct.pack_into(self.LAYOUT, self._shared, 0, feeds, late, late_at)

    def _value(self, place):
        return struct.unpack_from(self.LAYOUT, self._shared)[place]

    @property
    def feeds(self):
        """How many it has sent."""
        return self._value(0)

    @property
    def late(self):
        """How many of them too late."""
        return self._value(1)

    @property
    def late_at(self):
        """When it was late for the last time."""
        return self._value(2)

    def stop(self):
        """No more."""
        end(self._pid)
