"""The daemon under measurement: an install root with many cheap services, started and killed as a whole."""

import json
import os
import shutil
import signal
import subprocess
import time

from slots import Slots

REPOSITORY = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
BUILD = os.path.join(REPOSITORY, "build-bench")
STAGE = os.path.join(BUILD, "stage")
BIN = os.path.join(STAGE, "bin")
RECORDS = "/tmp/records"
RUN = "/quorvane/run"
LOG = RUN + "/startup/quorvaned.log"
SOCKET = "/tmp/var/run/mbusd/mbusd_socket"
ADDRESS = "unix:path=" + SOCKET

WATCHDOG = "iot.gateway.watchdog"
DAEMON = "iot.gateway.quorvaned"
# Names of the other side: as long as the daemon's own, so that the messages are equally long.
BARE_RECEIVER = "iot.gateway.baseline"
BARE_ANSWERER = "iot.gateway.reference"


class Failed(Exception):
    """A measurement could not be made."""


def program(name):
    """A program of the benchmark."""
    return os.path.join(BUILD, "benchmark", name)


def until(probe, within, what):
    """Wait until probe gives something true, and give that."""
    deadline = time.monotonic() + within
    while not (found := probe()):
        if time.monotonic() > deadline:
            raise Failed(f"not within {within} s: {what}")
        time.sleep(0.005)
    return found


def run(arguments, within, environment=None):
    """Run a program to its end and give its standard output; the environment is this program's unless given."""
    try:
        ended = subprocess.run(arguments, stdout=subprocess.PIPE, timeout=within, check=True, text=True,
                               env=environment)
    except (subprocess.CalledProcessError, subprocess.TimeoutExpired) as error:
        raise Failed(str(error)) from None
    return ended.stdout


def cpu_s(pid):
    """Seconds of user and system time of a whole process so far, to the nanosecond (/proc knows hundredths only)."""
    # The number by which the kernel knows the process's own clock.
    return time.clock_gettime_ns((~pid << 3) | 2) / 1e9


class Gateway:
    """Use as a context: up inside, gone afterwards."""

    def __init__(self, *, idle=0, named=0, stamped=0, slots=0, up_within=60):
        self.slots = Slots(slots, "ours")
        self.told = []
        self.names = [f"iot.bench.service{number}" for number in range(max(named, stamped))]
        self.up_within = up_within
        self.daemon = None
        self.others = []
        shutil.rmtree(STAGE, ignore_errors=True)
        os.makedirs(BIN)
        os.makedirs(os.path.join(STAGE, "config"))
        os.link(os.path.join(BUILD, "service", "quorvaned"), os.path.join(BIN, "quorvaned"))
        shutil.copy("/usr/bin/dbus-daemon", BIN)
        shutil.copy(os.path.join(REPOSITORY, "gateway", "bus", "mbusd.conf"), BIN)
        with open(os.path.join(BIN, "deploy_sst"), "w", encoding="ascii") as file:
            file.write("#!/bin/sh\n")
        os.chmod(file.name, 0o755)
        entries = [self.entry("idle_service", number) for number in range(idle)]
        entries += [self.entry("slot_service", number, args=[self.slots.path, str(number)]) for number in range(slots)]
        for number, name in enumerate(self.names):
            how = {"args": [name]}
            if stamped:
                how = {"args": [program("named_service"), f"{RECORDS}/{number}", name]}
            entries.append(self.entry("stamp" if stamped else "named_service", number, dbus_name=name, **how))
        with open(os.path.join(STAGE, "config", "services.json"), "w", encoding="ascii") as file:
            json.dump(entries, file)

    @staticmethod
    def entry(what, number, **more):
        """A service that is that program, under a name of its own."""
        name = f"{what}-{number:04}"
        os.link(program(what), os.path.join(BIN, name))
        return {"exec": name, "monitor": 1, **more}

    def __enter__(self):
        try:
            self.start()
        except BaseException:
            self.__exit__()
            raise
        return self

    def start(self):
        """Start the daemon and wait until everything is up."""
        for directory in (RUN, RECORDS):
            shutil.rmtree(directory, ignore_errors=True)
        os.makedirs(RECORDS)
        self.slots.clear()
        self.daemon = subprocess.Popen([program("begin"), self.slots.begun, os.path.join(BIN, "quorvaned"), "--nofork"],
                                       stdin=subprocess.DEVNULL)
        # The log is looked at only afterwards: the start is measured.
        self.told = self.slots.wait(self.up_within)
        if self.told is None:
            raise Failed("the services have not started")
        until(self.is_up, self.up_within, "the daemon's start")

    @staticmethod
    def is_up():
        """The start-up log says so."""
        try:
            with open(LOG, encoding="utf-8") as file:
                return "quorvaned startup success" in file.read()
        except FileNotFoundError:
            return False

    def beside(self, name, *arguments, owns=None):
        """Start a program of the benchmark beside the daemon; with `owns` wait until it has that bus name."""
        other = subprocess.Popen([program(name), *arguments], stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                                 text=True)
        self.others.append(other)
        if owns:
            until(lambda: self.is_owned(owns), 10, f"{owns} on the bus")
        return other

    @staticmethod
    def is_owned(name):
        """Somebody has the bus name."""
        words = ["dbus-send", f"--bus={ADDRESS}", "--print-reply=literal", "--dest=org.freedesktop.DBus",
                 "/org/freedesktop/DBus", "org.freedesktop.DBus.NameHasOwner", f"string:{name}"]
        return "true" in run(words, 10)

    def report(self):
        """The daemon's status report."""
        return run([program("caller"), DAEMON], 30)

    def __exit__(self, *_):
        # The kernel kills the bus and the services with the daemon.
        processes = [*self.others, self.daemon] if self.daemon else self.others
        for process in processes:
            process.send_signal(signal.SIGKILL)
        for process in processes:
            process.wait()
        until(self.is_gone, 20, "the end of the gateway")

    @staticmethod
    def is_gone():
        """Nothing runs from the install root, nor any of the services."""
        return not any(is_of_gateway(pid) for pid in os.listdir("/proc") if pid.isdigit())


def is_of_gateway(pid):
    """The process, not yet a zombie, runs from the install root or is a service that was started from there."""
    try:
        path = os.readlink(f"/proc/{pid}/exe")
    except OSError:
        return False
    return path.startswith(BIN + "/") or path == program("named_service")
