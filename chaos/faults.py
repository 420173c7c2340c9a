"""Every fault that can be thrown at a gateway beside others. Each is a generator: it throws, yields how many seconds
are to pass before it goes on, and at its end has undone what does not go away by itself."""

import errno
import itertools
import json
import mmap
import os
import resource
import shutil
import signal
import socket
import struct
import subprocess
import time

from harness import bus, clock, processes, staging
from harness.gateway import RUN, STARTUP
from harness.raw_bus import RETURN, SIGNATURE, RawBus, string, to

TERMINATING = (signal.SIGTERM, signal.SIGINT, signal.SIGUSR1)
OUTLIVING = ("fota", "RemoteTerminalDaemon")
YEAR = 365 * 86_400
LOGGER = RUN + "/logger"
FILLER = RUN + "/console/filler"  # a change of identity leaves it where it is
KINDS = {}


def kind(*needs):
    """Register a fault, and what only one fault at a time may have: two with the same need never overlap."""
    def register(body):
        KINDS[body.__name__] = (needs, body)
        return body
    return register


def stat(pid):
    """The fields of a process's stat, from the third on; empty when it is gone."""
    return processes.proc(pid, "stat").rpartition(")")[2].split()


def image(pid):
    """What is another one when the process has run exec: where its program and its stack lie."""
    return stat(pid)[23:26]


def started_at(pid):
    """Seconds since the machine's start."""
    words = stat(pid)
    return int(words[19]) / os.sysconf("SC_CLK_TCK") if words else 0.0


def up_time():
    """The same of this moment."""
    return time.clock_gettime(time.CLOCK_BOOTTIME)


ACCEPTED, REFUSED, UNANSWERED, UNSENT = "accepted", "refused", "unanswered", "unsent"


def ask(member, *texts):
    """Call a method of the daemon, waiting for a moment only; give what became of it, and the answer's text."""
    client, answer = None, None
    try:
        client = RawBus(within=0.5)
        fields = to(bus.DAEMON, member)
        if texts:
            fields[SIGNATURE] = "s"
        answer = client.ask(fields, b"".join(map(string, texts)))
    except (OSError, AssertionError, AttributeError):
        pass  # no bus, or it hangs
    if client is None:
        return UNSENT, None
    client.close()
    if answer is None:
        return UNANSWERED, None
    return (ACCEPTED if answer.kind == RETURN else REFUSED), answer.text


def triple(identity):
    """The text that hands an identity over."""
    return json.dumps(dict(zip(("productkey", "devicename", "devicesecret"), identity)))


class Faults:
    """What can be done to one gateway. The model is told."""

    def __init__(self, gateway, model, chance, environment):
        self.gateway, self.model, self.chance = gateway, model, chance
        self.environment = dict(os.environ, **environment)
        self.daemon = None
        self.wrong = []  # what was seen on the way that must not be
        self.handed_over = 0
        self._clock = self._map(environment["WALL_CLOCK"])

    @staticmethod
    def _map(path):
        with open(path, "wb") as file:
            file.write(bytes(8))
        with open(path, "r+b") as file:
            return mmap.mmap(file.fileno(), 8)

    def ahead(self):
        """By how many seconds the daemon's wall clock is ahead."""
        return struct.unpack("q", self._clock)[0]

    def start(self):
        """Start the daemon, as an operator does."""
        self.daemon = self.gateway.start(env=self.environment)
        self.model.daemon_started(self.daemon.pid)

    def processes(self):
        """Name -> pids of the programs of the installation that run."""
        found = {}
        for pid in processes.everybody():
            path = processes.link(pid, "exe").removesuffix(" (deleted)")
            if path.startswith(self.gateway.bin + "/"):
                found.setdefault(os.path.basename(path), []).append(pid)
        return found

    def _tell(self, text):
        """Note what must not be, with the end of the log."""
        lines = self.gateway.log.bytes().decode("utf-8", "backslashreplace").splitlines()[-8:]
        self.wrong.append(" | ".join([text, *lines]))

    def _signal(self, pid, number):
        """Send a signal, if somebody is there; tell whether."""
        try:
            os.kill(pid, number)
        except ProcessLookupError:
            return False
        return True

    def _bus_pid(self):
        """The bus daemon that is the daemon's child, 0 when there is none."""
        return next((pid for pid in self.daemon.services() if processes.program(pid) == "dbus-daemon"), 0)

    # Services

    @kind()
    def kill_services(self):
        """One or several are killed."""
        running = [(name, pid) for name, pids in self.processes().items() for pid in pids
                   if name in self.model.monitored + self.model.unmonitored]
        for name, pid in self.chance.sample(running, min(len(running), self.chance.choice((1, 1, 1, 3, 99)))):
            if self._signal(pid, signal.SIGKILL):
                self.model.service_killed(name)
        yield 0

    @kind("silent")
    def silence_a_service(self):
        """One that has armed a keep-alive is stopped for a while."""
        pids = [pid for name, pids in self.processes().items() if name.startswith("fed") for pid in pids]
        if not pids:
            return
        try:
            handle = os.pidfd_open(self.chance.choice(pids))
            signal.pidfd_send_signal(handle, signal.SIGSTOP)
        except ProcessLookupError:
            return
        yield self.chance.uniform(1, 12)
        try:
            signal.pidfd_send_signal(handle, signal.SIGCONT)
        except ProcessLookupError:
            pass  # it was killed
        os.close(handle)

    # The bus

    @kind("bus")
    def kill_the_bus(self):
        """The bus daemon is killed."""
        pid = self._bus_pid()
        if pid and self._signal(pid, signal.SIGKILL):
            self.model.stack_restarted()
        yield 0

    @kind("bus")
    def hang_the_bus(self):
        """The bus daemon is stopped for a while."""
        pid = self._bus_pid()
        if not pid:
            return
        try:
            handle = os.pidfd_open(pid)
            signal.pidfd_send_signal(handle, signal.SIGSTOP)
        except ProcessLookupError:
            return
        self.model.obstacle("bus")
        yield self.chance.uniform(0.5, 8)
        # Told to end meanwhile it would do so now, and take the socket of its successor away: see docs/reliability.md.
        told = int(processes.status_field(pid, "ShdPnd") or "0", 16) >> (signal.SIGTERM - 1) & 1
        try:
            signal.pidfd_send_signal(handle, signal.SIGKILL if told else signal.SIGCONT)
        except ProcessLookupError:
            pass  # a new image has ended it
        os.close(handle)
        self.model.obstacle_removed("bus")

    @kind("flood")
    def flood_with_keep_alives(self):
        """A client feeds a service as fast as the bus takes it, and leaves."""
        yield from self._program(self.chance.uniform(1, 4), "keep_alive_flood", "iot.test.fed0")

    @kind("flood")
    def send_hostile_messages(self):
        """A client sends what makes no sense."""
        yield from self._program(self.chance.uniform(1, 4), "hostile_messages", "20000",
                                 str(self.chance.randrange(1 << 30)))

    @staticmethod
    def _program(seconds, name, *words):
        """Let a program of chaos/programs run for a while."""
        path = os.path.join(staging.build_directory(), "chaos", "programs", name)
        client = processes.spawn([path, *words], output="/dev/null")
        yield seconds
        if client.alive():
            client.signal(signal.SIGKILL)

    @kind("connections")
    def flood_with_connections(self):
        """Many connect, every second one without a word, and stay for a while."""
        crowd = []
        for number in range(200):
            try:
                if number % 2:
                    crowd.append(RawBus(within=0.5))
                else:
                    quiet = socket.socket(socket.AF_UNIX)
                    quiet.settimeout(0.5)
                    quiet.connect(bus.SOCKET)
                    crowd.append(quiet)
            except (OSError, AssertionError, AttributeError):
                break  # nobody listens
        yield self.chance.uniform(0.5, 3)
        for connection in crowd:
            connection.close()

    # What the daemon is asked for

    @kind()
    def reboot(self):
        """A client asks for a restart of the stack; now and then several do at once."""
        for _ in range(self.chance.choice((1, 1, 1, 5))):
            outcome, _ = ask("reboot")
            if outcome in (ACCEPTED, UNANSWERED):
                self.model.stack_restarted(surely=outcome == ACCEPTED)
        yield 0

    @kind()
    def hand_over_an_identity(self):
        """A client hands over a new one."""
        self.handed_over += 1
        identity = tuple(f"{what}-{self.handed_over}" for what in ("product", "device", "secret"))
        outcome, answer = ask("set_gateway_triple", triple(identity))
        if outcome == ACCEPTED and json.loads(answer)["code"] != 0:
            self._tell(f"an identity was refused: {answer}")
        elif outcome in (ACCEPTED, UNANSWERED):
            self.model.identity_handed_over(identity, accepted=outcome == ACCEPTED)
        yield 0

    # The machine

    @kind("disk")
    def fill_the_disk(self):
        """Not a byte is free."""
        self.model.obstacle("disk")
        size = 1 << 16
        with open(FILLER, "wb", buffering=0) as file:
            while size:
                try:
                    file.write(bytes(size))
                except OSError:
                    size //= 16
        yield self.chance.uniform(1, 10)
        os.unlink(FILLER)
        self.model.obstacle_removed("disk")

    @kind("disk")
    def refuse_to_write(self):
        """The directories of the logs cannot be written to."""
        self.model.obstacle("disk")
        aside = self.gateway.path("aside")
        os.makedirs(aside, exist_ok=True)
        for path in (STARTUP, LOGGER):
            # Made aside and moved: nobody can open a file for writing through it before it is read-only.
            subprocess.run(["mount", "--bind", path, aside], check=True)
            subprocess.run(["mount", "-o", "remount,bind,ro", aside], check=True)
            subprocess.run(["mount", "--move", aside, path], check=True)
        yield self.chance.uniform(1, 10)
        for path in (STARTUP, LOGGER):
            subprocess.run(["umount", "--lazy", path], check=True)
        self.model.obstacle_removed("disk")

    @kind("disk")
    def remove_a_directory(self):
        """The directory of the logging library's logs is gone."""
        shutil.rmtree(LOGGER, ignore_errors=True)
        yield self.chance.uniform(1, 10)
        os.makedirs(LOGGER, exist_ok=True)

    @kind("daemon")
    def refuse_processes(self):
        """There is no process and no thread to be had."""
        flag = self.environment["FORK_FAILS_WHILE"]
        self.model.processes_refused()
        with open(flag, "w", encoding="ascii"):
            pass
        yield self.chance.uniform(1, 6)
        os.unlink(flag)
        self.model.processes_given()

    @kind("daemon")
    def refuse_descriptors(self):
        """The daemon has as many open as it may."""
        pid = self.daemon.pid
        try:
            used = {int(name) for name in os.listdir(f"/proc/{pid}/fd")}
            before = resource.prlimit(pid, resource.RLIMIT_NOFILE)
            free = min(set(range(len(used) + 1)) - used)
            resource.prlimit(pid, resource.RLIMIT_NOFILE, (free, before[1]))
        except OSError as error:
            if error.errno not in (errno.ESRCH, errno.ENOENT):
                raise
            return
        self.model.obstacle("descriptors")
        self.model.stack_restarted(surely=False)
        yield self.chance.uniform(1, 6)
        resource.prlimit(pid, resource.RLIMIT_NOFILE, before)
        self._raise_the_limit(free, before)
        self.model.obstacle_removed("descriptors")

    def _raise_the_limit(self, low, usual):
        """Whatever the daemon has started meanwhile has inherited its limit, and would keep it: a bus daemon that takes
        a handful of connections."""
        for pid in itertools.chain.from_iterable(self.processes().values()):
            try:
                if resource.prlimit(pid, resource.RLIMIT_NOFILE)[0] == low:
                    resource.prlimit(pid, resource.RLIMIT_NOFILE, usual)
            except ProcessLookupError:
                pass

    @kind("clock")
    def turn_the_clock(self):
        """The wall clock jumps, and stays where it is."""
        self._clock[:] = struct.pack("q", self.chance.choice((-YEAR, YEAR, self.chance.randint(-YEAR, YEAR))))
        yield 0

    # The daemon itself

    @kind("daemon")
    def kill_the_daemon(self):
        """It is killed, and started again."""
        self.daemon.signal(signal.SIGKILL)
        self.model.daemon_killed()
        yield from self._start_again({-signal.SIGKILL}, 5)

    @kind("daemon")
    def end_the_daemon(self):
        """It is asked to end, and started again."""
        self.daemon.signal(self.chance.choice(TERMINATING))
        yield from self._start_again({0}, 20)

    @kind("daemon")
    def replace_the_image(self):
        """SIGUSR2 without the request that is to come before it."""
        yield from self._follow([signal.SIGUSR2])

    @kind("daemon")
    def send_two_signals(self):
        """Two signals, one behind the other or both at once."""
        yield from self._follow(self.chance.choices((*TERMINATING, signal.SIGUSR2), k=2))

    @kind("daemon")
    def upgrade(self):
        """What an upgrade agent does: it asks, waits for the end of the stack, and sends SIGUSR2."""
        outcome, _ = ask("start_upgrade")
        if outcome in (REFUSED, UNSENT):
            return
        self.model.stack_restarted(surely=False)
        yield from self._wait(lambda: self._bus_pid() == 0, 15)
        yield from self._wait(lambda: not self._stack(), 5)
        yield from self._follow([signal.SIGUSR2])

    def _stack(self):
        """The daemon's children that an upgrade ends."""
        return [pid for pid in self.daemon.services() if processes.program(pid) not in OUTLIVING]

    @staticmethod
    def _wait(probe, within):
        """Let others go on until it is true, or for as long as that."""
        deadline = time.monotonic() + clock.stretched(within)
        while not probe() and time.monotonic() < deadline:
            yield 0.02

    def _start_again(self, statuses, within):
        """Wait for the end, and let an operator start it some time later."""
        yield from self._wait(lambda: self.daemon.status is not None, within)
        if self.daemon.status not in statuses:
            self._tell(f"the daemon's status is {self.daemon.status}, and not one of {statuses}")
        if self.daemon.status is None:
            return
        yield self.chance.uniform(0, 2)
        self.start()
        yield from self._wait(self._has_begun, 20)

    def _has_begun(self):
        """Whether it has its controller. Before that a signal may be nothing but its end, and so is the want of a
        thread."""
        tasks = f"/proc/{self.daemon.pid}/task"
        names = os.listdir(tasks) if self.daemon.alive() else []
        return any(processes.proc(self.daemon.pid, f"task/{name}/comm") == "start_up_thread\n" for name in names)

    def _follow(self, numbers):
        """Send signals, and see to what comes of them: an end, or a new image."""
        before, seen = image(self.daemon.pid), up_time()
        for number in numbers:
            self._signal(self.daemon.pid, number)
            if self.chance.random() < 0.5:
                yield self.chance.uniform(0, 0.05)
        replaced = 0.0
        patience = clock.stretched(12 if len(numbers) > 1 else 0)  # a new image may still be about to end
        deadline = time.monotonic() + clock.stretched(30)
        while self.daemon.status is None and time.monotonic() < deadline:
            moment, now = up_time(), image(self.daemon.pid)
            if now == before:
                seen = moment
            elif now:
                self._end_the_old_services(seen)
                before, replaced = now, time.monotonic()
            if replaced and time.monotonic() >= replaced + patience:
                break
            yield 0.002
        if self.daemon.status is not None:
            yield from self._start_again({0}, 0)
        elif not replaced:
            self._tell(f"nothing has come of {numbers}")
        else:
            yield from self._wait(self._has_begun, 20)

    def _end_the_old_services(self, last_seen):
        """What SIGUSR2 leaves alive of the old image, seen last at that moment, is nobody's any more. A busy machine
        may have let the new image start some already, which are ended as well."""
        self.model.image_replaced()
        for pid in self._stack():
            name, started = processes.program(pid), started_at(pid)
            if self._signal(pid, signal.SIGKILL) and started > last_seen and name in self.model.unmonitored:
                self.model.service_killed(name)
