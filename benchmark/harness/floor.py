"""The least that starts and ends services, and the least that is on the bus."""

import os
import shutil
import signal
import subprocess

from gateway import BIN, SOCKET, STAGE, Failed, Gateway, program, until
from slots import Slots

BUS = os.path.dirname(SOCKET)


class Starter:
    """A program that starts services as fast as they can be started. Use as a context."""

    def __init__(self, count, signal_number=signal.SIGTERM):
        self.slots = Slots(count, "floor")
        self.signal_number = signal_number
        self.process = None
        self.told = []

    def __enter__(self):
        self.slots.clear()
        words = [str(self.slots.count), program("slot_service"), self.slots.path, str(int(self.signal_number))]
        self.process = subprocess.Popen([program("bare_starter"), *words], stdin=subprocess.PIPE,
                                        stdout=subprocess.PIPE, text=True)
        self.told = self.slots.wait(60)
        if self.told is None:
            raise Failed("the floor has not started its services")
        return self

    def end_all(self):
        """End the services; gives when the first was sent its signal, in ns since 1970."""
        return int(self.process.communicate("\n", timeout=60)[0].split()[0])

    def __exit__(self, *_):
        for _, pid in self.told or []:
            try:
                os.kill(pid, signal.SIGKILL)
            except ProcessLookupError:
                pass
        self.process.kill()
        self.process.wait()


class Member:
    """A program of the daemon's libraries on a bus of its own. Use as a context."""

    def __init__(self, services):
        Gateway(slots=services)  # for its files
        self.processes = []

    def __enter__(self):
        bus = os.path.join(BIN, "dbus-daemon")
        shutil.rmtree(BUS, ignore_errors=True)  # a bus that was killed leaves its files
        os.makedirs(BUS)
        self.processes = [subprocess.Popen([bus, "--nofork", f"--config-file={BIN}/mbusd.conf"],
                                           stderr=subprocess.DEVNULL)]  # as below the daemon
        until(lambda: os.path.exists(SOCKET), 10, "a bus")
        catalogue = os.path.join(STAGE, "config", "services.json")
        self.processes.append(subprocess.Popen([program("bare_member"), catalogue]))
        until(lambda: Gateway.is_owned("iot.gateway.member"), 10, "the bare member on the bus")
        return self

    @property
    def pid(self):
        """The program's."""
        return self.processes[1].pid

    def __exit__(self, *_):
        for process in reversed(self.processes):
            process.kill()
            process.wait()
