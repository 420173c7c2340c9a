"""Operators who do everything at once, and a machine on which somebody has laid traps."""

import contextlib
import os
import shutil
import signal

from harness import processes
from harness.gateway import PID_FILE, STARTUP, UP, Service
from pages import came
from row import none, row, sleepers
from side_by_side import by_kind, shared_out, told

VICTIM_FILE, VICTIM_DIRECTORY = "/tmp/victim/file", "/tmp/victim/directory"
SOMEBODY = 1234
BYSTANDERS = ("quorvaned", "dbus-daemon", "s0")
WAYS = ("/tmp/var", "/tmp/var/run", "/tmp/var/run/mbusd")
LOG = STARTUP + "/quorvaned.log"


@row("operators", "operators in parallel, planted links",
     "two starts, a start and a stop, a start over a running daemon, two stops, each at the same moment and with "
     "status commands among them; links and foreign directories planted on the way to the bus and in the place of the "
     "log; bystanders of the same names outside of the installation. A stop signals every process of the program, "
     "commands and starts among them, which then end by it. Side by side", short=12, long=500, seconds=(150, 1200))
def operators(run):
    """There is one daemon in the end, nothing is written elsewhere, and nobody else is signalled."""
    answers, done = shared_out(run, Operators, counts=(6, 25), limits=(140, 1190))
    kinds = by_kind(told(answers), ("count", "status", "write"))
    return [none("rounds with another number of daemons in the end", kinds["count"], done),
            none("commands with a wrong exit status", kinds["status"], sum(answer["commands"] for answer in answers)),
            none("writes through a link or into a foreign directory", kinds["write"],
                 sum(answer["plants"] for answer in answers)),
            none("signals to bystanders", sum(answer["signals"] for answer in answers), None)]


class Operators:
    """Rounds on one gateway."""

    ROUNDS = ("two starts", "start and stop", "start over", "two stops")

    def __init__(self, gateway, chance):
        self.gateway, self.chance = gateway, chance
        self.faults = []
        self.commands = self.plants = 0
        gateway.prepare_run_directory()
        gateway.catalogue(*sleepers(1), Service("s1", monitor=1), Service("named", bus="iot.test.named", monitor=1))
        self.elsewhere = gateway.root + ".elsewhere"
        os.makedirs(self.elsewhere + "/probe")
        self.bystanders = []
        for name in BYSTANDERS:
            os.link(os.path.join(gateway.stage, "probe_service"), f"{self.elsewhere}/{name}")
            self.bystanders.append(processes.spawn([f"{self.elsewhere}/{name}"], output=None))

    def work(self, number, times):
        """That many rounds."""
        for turn in range(times):
            self.round(self.ROUNDS[(number + turn) % len(self.ROUNDS)])
        signals = sum(not process.alive() for process in self.bystanders)
        for name in BYSTANDERS:
            with open(f"{self.elsewhere}/probe/{name}.jsonl", encoding="ascii") as file:
                signals += sum('"event": "signal"' in line for line in file)
        return {"faults": self.faults, "signals": signals, "commands": self.commands, "plants": self.plants}

    def round(self, kind):
        """One."""
        planted = self.plant()
        if kind in ("start over", "two stops"):
            self.gateway.start()
            self.settled(1)
        words = {"two starts": [(), ()], "start and stop": [(), ("stop_all",)], "start over": [()],
                 "two stops": [("stop_all",), ("stop_except_remotedebug",)]}[kind]
        words += [("status",)] * self.chance.randrange(1, 3)
        self.chance.shuffle(words)
        stopped = any(word and word[0].startswith("stop") for word in words)
        commands = [(word, processes.spawn([self.gateway.program, *word], output=self.gateway.path("terminal")))
                    for word in words]
        for word, process in commands:
            self.check(kind, word, process.wait(45), stopped)
        ends = {"two starts": (1,), "start over": (1,), "two stops": (0,), "start and stop": (0, 1)}[kind]
        if not self.settled(*ends):
            self.faults.append(f"count: {kind}: {len(self.daemons())} daemons: {processes.tree()}")
        self.check_plants(kind, planted)
        self.clear()

    def check(self, kind, word, status, stopped):
        """Whether a command ended as it may. A stop signals every process of the program, other commands among them."""
        self.commands += 1
        allowed = {0, 100, 101} if word == ("status",) else {0}
        if stopped:
            allowed |= {-signal.SIGTERM, -signal.SIGUSR1}
        if status not in allowed:
            self.faults.append(f"status: {kind}: {word} {status}")

    def daemons(self):
        """The processes of the program that are no commands."""
        return [pid for pid in processes.running("quorvaned")
                if processes.link(pid, "exe").startswith(self.gateway.bin + "/")
                and processes.arguments(pid)[1:2] not in (["status"], ["stop_all"], ["stop_except_remotedebug"])]

    def settled(self, *counts):
        """Wait until there is one of these numbers of daemons, and the one is up and holds the lock; without one there
        is nothing else either."""
        def look():
            found = self.daemons()
            if not found or len(found) not in counts:
                return not found and 0 in counts and not self.strangers()
            if not os.path.islink(LOG) and UP.encode() not in self.gateway.log.bytes():
                return False  # asking for the status costs a process
            return os.path.exists(PID_FILE) and processes.lock_owner(PID_FILE) == found[0] and self.is_running()
        return came(look, 25)

    def is_running(self):
        """What status says, at most a few times a second."""
        came(lambda: False, 0.2)
        status = processes.run([self.gateway.program, "status"], within=20, output=self.gateway.path("terminal"))
        return status.status == 0

    def strangers(self):
        """The pids of all that live, but for the bystanders."""
        return set(processes.everybody()) - {process.pid for process in self.bystanders}

    def clear(self):
        """End everything but the bystanders, and remove what the round has left on the way to the bus."""
        for pid in self.strangers():
            with contextlib.suppress(ProcessLookupError):
                os.kill(pid, signal.SIGKILL)
        came(lambda: not self.strangers(), 5)
        processes.reap()
        for path in (LOG, PID_FILE):
            if os.path.lexists(path):
                os.unlink(path)
        for name in os.listdir("/tmp"):
            if name.startswith("var"):  # moved aside: the name has grown
                if os.path.islink(f"/tmp/{name}"):
                    os.unlink(f"/tmp/{name}")
                else:
                    shutil.rmtree(f"/tmp/{name}")

    # The traps

    def plant(self):
        """Lay some; give what the victims look like."""
        shutil.rmtree("/tmp/victim", ignore_errors=True)
        os.makedirs(VICTIM_DIRECTORY)
        for path in (VICTIM_FILE, VICTIM_DIRECTORY + "/mbusd.pid", VICTIM_DIRECTORY + "/kept"):
            with open(path, "w", encoding="ascii") as file:
                file.write("untouched\n")
            os.chown(path, SOMEBODY, SOMEBODY)
        os.chown(VICTIM_DIRECTORY, SOMEBODY, SOMEBODY)
        way = self.chance.choice(WAYS)
        os.makedirs(os.path.dirname(way), exist_ok=True)
        kind = self.chance.choice(("nothing", "link", "foreign", "open"))
        if kind == "link":
            os.symlink(VICTIM_DIRECTORY, way)
            os.lchown(way, SOMEBODY, SOMEBODY)
        elif kind != "nothing":
            os.makedirs(way)
            for name in ("mbusd.pid", "mbusd_socket", "run", "mbusd"):
                os.symlink(VICTIM_DIRECTORY if name in ("run", "mbusd") else VICTIM_FILE, f"{way}/{name}")
            if kind == "foreign":
                os.chown(way, SOMEBODY, SOMEBODY)
            else:
                os.chmod(way, 0o777)
        in_log = self.chance.random() < 0.3
        if in_log:
            os.symlink(VICTIM_FILE, LOG)
        self.plants += in_log + (kind != "nothing")
        return self.look()

    @staticmethod
    def look():
        """Everything that a write would change."""
        seen = []
        for path, directories, files in os.walk("/tmp/victim"):
            for name in [""] + directories + files:
                state = os.lstat(os.path.join(path, name))
                seen.append((path, name, state.st_ino, state.st_size, state.st_mtime_ns, state.st_uid, state.st_mode))
        return sorted(seen)

    def check_plants(self, kind, planted):
        """Whether nothing has."""
        if self.look() != planted:
            self.faults.append(f"write: {kind}: {set(self.look()) ^ set(planted)}")
