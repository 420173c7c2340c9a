"""All faults at once, as chance has it, and a model that says what the gateway must be like afterwards."""

import heapq
import itertools
import json
import os
import re
import signal
import subprocess
import sys
import time

import dbus
from faults import KINDS, Faults, started_at, up_time
from harness import clock, processes, staging
from harness.bus import CONFIGURATION, DAEMON, WATCHDOG, Bus
from harness.gateway import PID_FILE, RUN, Service
from model import Model
from pages import came, pause
from row import at_least, at_most, none, row
from side_by_side import side_by_side

from .files import active

SETTLED = 35
ONCE = 0.01  # seconds in which one fault is thrown
NO_VALUE = 100100
IDENTITY = ("gw_system_productkey", "gw_system_devicename", "gw_system_devicesecret")
STEADY = tuple(f"steady{number}" for number in range(4))
FED = ("fed0", "fed1")
PLAIN = (*STEADY, "lone", *FED, "named")  # they block no signals of their own accord
UNMONITORED = ("fota", "RemoteTerminalDaemon", "lone")
NAMES = {"config-manager": CONFIGURATION[0], "logging-service": "iot.gateway.logger",
         "device-registry": "iot.gateway.devices", "scene": "iot.gateway.scene",
         **{name: f"iot.test.{name}" for name in (*FED, "named")}}
# One of these comes last and alone: after it nothing but the daemon itself brings back what it has taken away.
LAST = ("kill_services", "kill_services", "kill_the_bus", "hang_the_bus", "hand_over_an_identity", "replace_the_image",
        "upgrade", "refuse_processes")
BYSTANDERS = ("quorvaned", "dbus-daemon", "steady0")


def catalogue():
    """Services of the reference gateway, and of the tests' own."""
    own = [Service(name, "infinity", monitor=1) for name in STEADY] + [Service("lone", "infinity")]
    own += [Service(name, "--feed=main:3:600", bus=NAMES[name], monitor=1) for name in FED]
    own += [Service("named", bus=NAMES["named"], monitor=1)]
    first = [Service("config-manager", monitor=1), Service("logging-service", monitor=1), Service("fota"),
             Service("RemoteTerminalDaemon"), Service("device-registry", monitor=1),
             Service("clock-watch", monitor=1, delay=0.2)]
    last = [Service("scene", "--scenes=../config/scenes.json", monitor=1)]
    entries = [service.entry for service in first + own + last]
    for entry in entries:
        if entry["exec"] in NAMES:
            entry["dbus_name"] = NAMES[entry["exec"]]
    return entries


@row("everything", "everything at once",
     "kills, hangs, floods, hostile messages, restarts, identities, upgrades, ends, full and read-only disks, no "
     "processes, no descriptors, clocks that jump: for 20 to 90 s, each second or so another one, of all kinds or of "
     "some, and a last one alone. Then calm, and a model that was told of them says what must be true. What SIGUSR2 "
     "alone leaves of the old image is ended. Two gateways side by side, for 18 minutes and the rest of the last round",
     short=15, long=1080, seconds=(150, 1400), seeds=(1, 2, 3))
def everything(run):
    """Whatever happens, the gateway is soon what it must be."""
    if run.is_long:
        answers = side_by_side(run, 2, lambda gateway, chance, _: Rounds(gateway, chance, run).all(), 1380)
    else:
        answers = [Rounds(run.gateway(), run.chance, run).all()]
    for text in [text for answer in answers for text in answer["wrong"]][:20]:
        print("    " + text, flush=True)
    rounds, faults, missed, ends, signals = (
        sum(answer[key] for answer in answers) for key in ("rounds", "faults", "missed", "ends", "signals"))
    return [at_least("rounds", rounds, max(1, run.amount // 120 * len(answers))),
            at_least("faults", faults, run.amount // 4 * len(answers)),
            none("rounds after which the gateway was not what the model says, and had to be helped", missed, rounds),
            none("ends and signals with another outcome than theirs", ends, faults),
            none("signals to bystanders", signals, len(BYSTANDERS) * len(answers)),
            at_most("longest time from the last fault to calm", max(answer["longest"] for answer in answers),
                    clock.stretched(SETTLED), "s")]


class Rounds:
    """Rounds of faults and calm, of one gateway."""

    def __init__(self, gateway, chance, run):
        self.gateway, self.chance, self.run = gateway, chance, run
        self.model = Model([entry["exec"] for entry in catalogue() if entry.get("monitor")], UNMONITORED)
        self.wrong = []
        self.thrown = self.missed = 0
        self.longest = 0.0
        self.descriptors = None
        self.known = {"quorvaned", "dbus-daemon", *self.model.monitored, *UNMONITORED}
        self.prepare()
        names = " ".join(run.preload(name) for name in ("fork_fails", "wall_clock"))
        self.faults = Faults(gateway, self.model, chance, {
            "LD_PRELOAD": names, "FORK_FAILS_WHILE": gateway.path("no-processes"), "WALL_CLOCK": gateway.path("clock")})

    def prepare(self):
        """Install the gateway and the bystanders."""
        os.makedirs(RUN, exist_ok=True)
        subprocess.run(["mount", "-t", "tmpfs", "-o", "size=32m", "tmpfs", RUN], check=True)
        self.gateway.install(staging.build_directory())
        self.gateway.raw_catalogue(json.dumps(catalogue(), indent=1))
        for name in PLAIN:
            if name in FED or name == "named":
                self.gateway.link("probe_service", name)
            else:
                subprocess.run(["cp", "/bin/sleep", self.gateway.path("bin/" + name)], check=True)
        self.elsewhere = self.gateway.root + ".elsewhere"
        os.makedirs(self.elsewhere + "/probe")
        self.bystanders = []
        for name in BYSTANDERS:
            os.link(os.path.join(self.gateway.stage, "probe_service"), f"{self.elsewhere}/{name}")
            self.bystanders.append(processes.spawn([f"{self.elsewhere}/{name}"], output=None))

    def all(self):
        """As many as the time allows; give what was seen."""
        self.start()
        end, rounds = time.monotonic() + self.run.amount, 0
        while time.monotonic() < end:
            self.round(self.chance.uniform(20, 90) if self.run.is_long else self.run.amount)
            rounds += 1
            self.run.progress(int(time.monotonic() - end + self.run.amount), f"{self.thrown} faults, {rounds} rounds")
        signals = sum(not process.alive() for process in self.bystanders)
        for name in BYSTANDERS:
            with open(f"{self.elsewhere}/probe/{name}.jsonl", encoding="ascii") as file:
                signals += sum('"event": "signal"' in line for line in file)
        return {"rounds": rounds, "faults": self.thrown, "missed": self.missed,
                "ends": len(self.faults.wrong), "signals": signals, "longest": self.longest,
                "wrong": self.wrong + self.faults.wrong}

    def start(self):
        """Bring the gateway up, and see what it is like in the beginning."""
        self.faults.start()
        left = self.settled()
        assert not left, f"it does not start: {left}"
        self.descriptors = self.used()

    def used(self):
        """How many descriptors the daemon has, but for the one handle of a remote terminal that it has adopted: every
        start of the stack that spares the terminal starts another one, which leaves again. The handle stays until the
        next start, whatever becomes of the terminal: it is no child, whose death would be told."""
        pid = self.faults.daemon.pid
        files = [processes.link(pid, f"fd/{name}") for name in os.listdir(f"/proc/{pid}/fd")]
        return len(files) - min(1, files.count("anon_inode:[pidfd]"))

    def round(self, seconds):
        """One."""
        kinds = sorted(KINDS)
        if self.chance.random() < 0.5:
            kinds = self.chance.sample(kinds, self.chance.randint(2, len(kinds) // 2))
        told = self.throw(seconds, kinds) + self.throw(ONCE, [self.chance.choice(LAST)])
        begin = time.monotonic()
        left = self.settled()
        self.longest = max(self.longest, time.monotonic() - begin)
        if not left:  # now that nothing disturbs it, the model is sure of what becomes of an identity
            told = self.throw(ONCE, ["hand_over_an_identity"])
            left = self.settled()
        if left:
            self.missed += 1
            names = [f"{name} {moment - begin:+.1f}" for moment, name in told[-40:]]
            self.wrong.append(f"{'; '.join(left)} (after {', '.join(names)})")
            print("    " + "\n    ".join([self.wrong[-1], *self.seen()]), file=sys.stderr, flush=True)
            self.help()

    def seen(self):
        """Lines for whoever asks why: the processes, and the end of the log."""
        yield time.strftime("%F %T, by the daemon's clock", time.localtime(time.time() + self.faults.ahead()))
        for name, pids in self.faults.processes().items():
            yield f"{name}: " + ", ".join(f"{pid}, {up_time() - started_at(pid):.1f} s old" for pid in pids)
        yield from self.gateway.log.bytes().decode("utf-8", "backslashreplace").splitlines()[-200:]

    def throw(self, seconds, kinds):
        """Throw faults of these kinds for so long, and let the last ones end; give their moments and names."""
        end, due = time.monotonic() + seconds, time.monotonic()
        count, waiting, busy, told = itertools.count(), [], set(), []
        while (now := time.monotonic()) < end or waiting:
            if due <= now < end:
                due = now + self.chance.uniform(0.1, 2)
                free = [name for name in kinds if not busy & set(KINDS[name][0])]
                if free:
                    name = self.chance.choice(free)
                    told.append((now, name))
                    needs, body = KINDS[name]
                    busy |= set(needs)
                    heapq.heappush(waiting, (now, next(count), needs, body(self.faults)))
            while waiting and waiting[0][0] <= time.monotonic():
                _, number, needs, fault = heapq.heappop(waiting)
                try:
                    heapq.heappush(waiting, (time.monotonic() + next(fault), number, needs, fault))
                except StopIteration:
                    busy -= set(needs)
            moments = [moment for moment, *_ in waiting[:1]] + ([due] if now < end else [])
            pause(max(0.0, min(moments, default=now) - time.monotonic()))
        self.thrown += len(told)
        return told

    def settled(self):
        """Wait until it is what the model says, twice in a row; give in what it still differs at the end."""
        deadline = time.monotonic() + clock.stretched(SETTLED)
        agreed = False
        while True:
            look = Look(self)
            left = look.differences()
            if not left and agreed:
                status = self.gateway.status().status
                if status == 0:
                    self.model.found(look.counts(), look.identity, look.locked)
                    return []
                left = [f"the status command ends with {status}"]
            if time.monotonic() > deadline:
                return left or ["it changes"]
            agreed = not left
            pause(0.5)

    def help(self):
        """Start everything anew, so that the next round shows something again."""
        spared = {process.pid for process in self.bystanders}
        for pid in processes.everybody():
            if pid not in spared:
                os.kill(pid, signal.SIGKILL)
        came(lambda: not set(processes.everybody()) - spared, 5)
        if os.path.exists(self.gateway.log.path):
            os.unlink(self.gateway.log.path)
        self.faults.start()
        self.model.found({}, None, True)
        left = self.settled()
        assert not left, f"it does not start any more: {left}"


class Look:
    """A look at the gateway, and in what it differs from the model."""

    def __init__(self, rounds):
        self.rounds, self.model = rounds, rounds.model
        self.running = rounds.faults.processes()
        self.identity, self.locked = None, None
        self._wrong = []

    def counts(self):
        """How many processes each service has."""
        return {name: len(self.running.get(name, [])) for name in (*self.model.monitored, *UNMONITORED)}

    def differences(self):
        """All of them, as sentences."""
        self._processes()
        if not self._wrong:
            self._daemon()
            self._log()
            try:
                client = Bus(within=2)
            except clock.Late:
                return self._wrong + ["there is no bus"]
            try:
                self._on_the_bus(client)
            except dbus.exceptions.DBusException as error:
                self._wrong.append(f"the bus does not serve: {error}")
            client.close()
        return self._wrong

    def _is(self, what, found, wanted):
        """Require one of the values."""
        if found not in wanted:
            self._wrong.append(f"{what}: {found}, and not {' or '.join(map(str, wanted))}")

    def _processes(self):
        self._is("daemons", self.running.get("quorvaned"), ([self.model.pid],))
        self._is("bus daemons", len(self.running.get("dbus-daemon", [])), (1,))
        for name, count in self.counts().items():
            self._is(name, count, self.model.counts(name))
        self._is("other programs", sorted(set(self.running) - self.rounds.known), ([],))

    def _daemon(self):
        self.locked = os.path.exists(PID_FILE) and processes.lock_owner(PID_FILE) == self.model.pid
        self._is("holds the lock", self.locked, self.model.locks)
        if self.rounds.descriptors is not None:
            self._is("descriptors gained", max(0, self.rounds.used() - self.rounds.descriptors), (0,))
        for name in PLAIN:
            for pid in self.running.get(name, []):
                self._is(f"signals that {name} blocks", int(processes.status_field(pid, "SigBlk") or "0", 16), (0,))

    def _log(self):
        torn = [event.raw for event in self.rounds.gateway.log.events() if not event.well_formed
                and not self.model.killed & set(map(int, re.findall(r"^.{26} \[pid=(\d+)\]", event.raw)))]
        self._is("torn lines", torn[:3], ([],))
        self._is("the log's last byte", self.rounds.gateway.log.bytes()[-1:], (b"\n",))

    def _on_the_bus(self, client):
        listed = active(client)
        for name in self.model.monitored:
            pids = self.running.get(name, [])
            self._is(f"the pid that is reported of {name}", listed.get(name), pids or (0,))
        for target in (DAEMON, WATCHDOG):
            self._is(f"the owner of {target[0]}", client.pid_of(target[0]), (self.model.pid,))
        for name, bus_name in NAMES.items():
            if name in self.running:
                self._is(f"the owner of {bus_name}", client.pid_of(bus_name), self.running[name])
        if "config-manager" in self.running:
            answers = [client.call(CONFIGURATION, "get_config", "s", key) for key in IDENTITY]
            self._is("codes of reads", sorted({int(code) for code, _ in answers} - {NO_VALUE}), ([], [0]))
            self.identity = tuple(str(value) if code == 0 else None for code, value in answers)
            if not self.model.may_be_stored(self.identity):
                self._wrong.append(f"the identity is {self.identity}, and not of {self.model.identities()}")
