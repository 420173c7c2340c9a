"""The least that starts and ends services, what a start does once, and the least that is on the bus."""

import os
import shutil
import signal
import subprocess

from gateway import BIN, RUN, SOCKET, STAGE, Failed, Gateway, program, run, until
from slots import Slots

BUS = os.path.dirname(SOCKET)
BUS_COMMAND = [os.path.join(BIN, "dbus-daemon"), "--nofork", f"--config-file={BIN}/mbusd.conf"]


class Starter:
    """A program that starts services as fast as they can be started. Use as a context."""

    def __init__(self, count, signal_number=signal.SIGTERM, log=None):
        self.slots = Slots(count, "floor")
        self.signal_number = signal_number
        self.log = [log] if log else []
        self.process = None
        self.told = []

    def __enter__(self):
        self.slots.clear()
        words = [str(self.slots.count), program("slot_service"), self.slots.path, str(int(self.signal_number)),
                 *self.log]
        self.process = subprocess.Popen([program("begin"), self.slots.begun, program("bare_starter"), *words],
                                        stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True)
        self.told = self.slots.wait(60)
        if self.told is None:
            raise Failed("the floor has not started its services")
        return self

    def end_all(self):
        """End the services; gives when the first was sent its signal, in ns since 1970."""
        return int(self.process.communicate("\n", timeout=60)[0])

    def __exit__(self, *_):
        for _, pid in self.told or []:
            try:
                os.kill(pid, signal.SIGKILL)
            except ProcessLookupError:
                pass
        self.process.kill()
        self.process.wait()


def clear_bus():
    """A place for a bus: one that was killed leaves its files."""
    shutil.rmtree(BUS, ignore_errors=True)
    os.makedirs(BUS)


def fixed_s():
    """Seconds that the key-chain tool and the bus daemon take, which every start of a gateway waits for."""
    Gateway()  # for its files
    clear_bus()
    output = f"{RUN}/startup/deploy_sst.log"
    os.makedirs(os.path.dirname(output), exist_ok=True)
    words = [program("fixed_start"), f"{BIN}/deploy_sst >{output} 2>&1", *BUS_COMMAND, "--print-address"]
    key_chain_ns, bus_ns = run(words, 30).split()
    return int(key_chain_ns) / 1e9, int(bus_ns) / 1e9


class Bus:
    """A bus without the daemon, made of a Gateway's files, and a program on it. Use as a context."""

    def __init__(self, command, owns=None):
        self.command = command
        self.owns = owns
        self.bus = self.program = None

    def __enter__(self):
        clear_bus()
        self.bus = subprocess.Popen(BUS_COMMAND, stderr=subprocess.DEVNULL)  # as below the daemon
        until(lambda: os.path.exists(SOCKET), 10, "a bus")
        self.program = subprocess.Popen(self.command, stdout=subprocess.PIPE, text=True)
        if self.owns:
            until(lambda: Gateway.is_owned(self.owns), 10, f"{self.owns} on the bus")
        return self

    def __exit__(self, *_):
        for process in (self.program, self.bus):
            process.kill()
            process.wait()
        # Services end with their bus, a little later.
        until(Gateway.is_gone, 20, "the end of the services")


def bare_member(services):
    """A program of the daemon's libraries that knows of so many services, on a bus of its own."""
    Gateway(slots=services)  # for its files
    return Bus([program("bare_member"), os.path.join(STAGE, "config", "services.json")], "iot.gateway.member")
