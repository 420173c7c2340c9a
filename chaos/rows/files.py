"""Files: the start-up log at its limit, and file systems that take nothing."""

import os
import re
import resource
import shutil
import signal
import subprocess
import time

from harness import clock, staging
from harness.gateway import RUN, STARTUP, Service
from pages import came
from row import at_least, at_most, none, row
from side_by_side import side_by_side

LIMIT = 262_144
LONGEST = 1_022
WHOLE = re.compile(rb"\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{6} \[pid=\d+\] \[log_writers\.cpp\|\d+\] line \d+ (\d+) (x*)")


@row("log-limit", "the start-up log at its limit",
     "five processes that write as fast as it takes lines, by the daemon's own function, and look at the size after "
     "each; every 0.1 s the file is moved away and read: most lines are gone by then, since the log restarts with "
     "each 256 KiB", short=200_000, long=10_000_000, seconds=(90, 1200))
def log_limit(run):
    """It stays within its limit and one line, and its lines whole."""
    run.gateway().prepare_run_directory()
    program = os.path.join(staging.build_directory(), "chaos", "programs", "log_writers")
    share = run.amount // 5
    writers = [subprocess.Popen([program, str(share), str(run.seed * 10 + number)], stdout=subprocess.PIPE, text=True)
               for number in range(5)]
    book = Book()
    while any(writer.poll() is None for writer in writers):
        book.turn()
        time.sleep(0.1)  # how long a page grows; whoever has it open has written to it by the next one
        run.progress(book.lines)
    book.turn()
    book.turn()
    beyond = [int(writer.stdout.read()) for writer in writers]
    return [at_least("lines written", sum(share for writer in writers if writer.returncode == 0), run.amount),
            at_most("the most that the log was beyond its limit", max(beyond), LONGEST, "bytes"),
            at_least("lines read again", book.lines, run.amount // 100),
            none("torn lines", book.torn, book.lines)]


class Book:
    """The pages that were moved away, and what they hold."""

    def __init__(self):
        self.lines = self.torn = 0
        self._path = STARTUP + "/quorvaned.log"
        self._page = self._path + ".page"

    def turn(self):
        """Read the page that was moved away before, and move the next one."""
        try:
            with open(self._page, "rb") as file:
                self._read(file.read())
            os.unlink(self._page)
        except FileNotFoundError:
            pass
        try:
            os.rename(self._path, self._page)
        except FileNotFoundError:
            pass

    def _read(self, text):
        *lines, rest = text.split(b"\n")
        for line in lines:
            match = WHOLE.fullmatch(line)
            self.lines += 1
            self.torn += match is None or int(match[1]) != len(match[2])
        self.torn += rest != b""


NAMES = [f"s{number}" for number in range(16)]


@row("disk", "nothing can be written, or opened",
     "a full disk, a file system that cannot be written to, directories that are gone, and a daemon without a free "
     "descriptor, each on a gateway of its own and for half a minute or a minute at a time, while services are killed; "
     "one more is killed right after it", short=1, long=10, seconds=(160, 1200))
def disk(run):
    """What is killed meanwhile is restarted, and afterwards the log is whole."""
    kinds = [Full, ReadOnly, Missing, NoDescriptors]
    answers = side_by_side(
        run, len(kinds), lambda gateway, chance, number: rounds(gateway, chance, kinds[number], run.amount),
        limit=run.amount * 130 + 20)
    killed, missed, lines, torn, silent, _ = map(sum, zip(*answers))
    return [at_least("seconds under the fault that lasted least", round(min(answer[-1] for answer in answers)),
                     300 if run.is_long else 10),
            none("restarts missed", missed, killed),
            none("torn lines", torn, lines),
            none("first lines afterwards that are not in the log", silent, run.amount * len(kinds))]


def rounds(gateway, chance, kind, amount):
    """(killed, not restarted, lines, torn lines, rounds after which the first lines were not there, seconds under the
    fault)"""
    os.makedirs(RUN)
    subprocess.run(["mount", "-t", "tmpfs", "-o", "size=8m", "tmpfs", RUN], check=True)
    gateway.catalogue(*[Service(name, monitor=1, program="exec sleep infinity") for name in NAMES])
    daemon = gateway.up()
    client = gateway.bus()
    killed = missed = lines = torn = silent = 0
    seconds = 0.0
    before, victims = active(client), []
    for _ in range(amount):
        begin = time.monotonic()
        fault = kind(daemon)
        missed += len(not_restarted(client, before, victims))  # the one that told of the fault before
        before = active(client)
        victims = chance.sample(sorted(before), chance.randint(8, len(before)))
        for name in victims:
            os.kill(before[name], signal.SIGKILL)
        killed += len(victims) + 1
        missed += len(not_restarted(client, before, victims))
        fault.lift()
        seconds += time.monotonic() - begin
        before = active(client)
        victims = [chance.choice(sorted(before))]
        silent += not tells(gateway, *victims, before[victims[0]])
        events = gateway.log.events()
        lines += len(events)
        torn += sum(not event.well_formed for event in events) + (gateway.log.bytes()[-1:] != b"\n")
    missed += len(not_restarted(client, before, victims))
    return killed, missed + len(set(NAMES) - set(active(client))), lines, torn, silent, seconds


def active(client):
    """The pid of each service that is active, as the daemon reports it."""
    return {name: int(pid) for name, pid in
            re.findall(r"Service (\S+) is \033\[32mactive\033\[0m, pid is (\d+)", client.report())}


def not_restarted(client, before, victims):
    """Those that are not active with another pid in time. The log, which would tell at once, cannot."""
    deadline = time.monotonic() + clock.stretched(40)
    while True:
        now = active(client)
        left = [name for name in victims if now.get(name, before[name]) == before[name]]
        if not left or time.monotonic() > deadline:
            return left
        time.sleep(0.2)


def tells(gateway, name, pid):
    """Whether the very next lines are in the log: a service dies."""
    os.kill(pid, signal.SIGKILL)
    lines = (f"wait pid({pid}) status(9)", f"process_exit, pid:{pid}", f"process_exit, service({name}) is abnormal")
    return came(lambda: all(any(event.text == line for event in gateway.log.events()) for line in lines), 5)


class Full:
    """Not a byte is free."""

    def __init__(self, _daemon):
        self._path = RUN + "/filler"
        with open(self._path, "wb", buffering=0) as file:
            try:
                while True:
                    file.write(bytes(1024))
            except OSError:
                pass

    def lift(self):
        """There is room again."""
        os.unlink(self._path)


class ReadOnly:
    """The file system of the run-time data cannot be written to."""

    def __init__(self, _daemon):
        # A mount of its own: that of the file system has a file that is open for writing, the pid file.
        subprocess.run(["mount", "--bind", RUN, RUN], check=True)
        subprocess.run(["mount", "-o", "remount,bind,ro", RUN], check=True)

    def lift(self):
        """It can. A service that was started meanwhile may have something open there."""
        subprocess.run(["umount", "--lazy", RUN], check=True)


class Missing:
    """The directories of the logs are gone."""

    def __init__(self, _daemon):
        self._paths = (STARTUP, RUN + "/logger")
        for path in self._paths:
            shutil.rmtree(path)

    def lift(self):
        """They are there again, and empty."""
        for path in self._paths:
            os.mkdir(path)


class NoDescriptors:
    """The daemon has as many open as it may."""

    def __init__(self, daemon):
        self._pid = daemon.pid
        used = {int(name) for name in os.listdir(f"/proc/{self._pid}/fd")}
        self._before = resource.prlimit(self._pid, resource.RLIMIT_NOFILE)
        free = min(set(range(len(used) + 1)) - used)
        resource.prlimit(self._pid, resource.RLIMIT_NOFILE, (free, self._before[1]))

    def lift(self):
        """It may have more."""
        resource.prlimit(self._pid, resource.RLIMIT_NOFILE, self._before)
