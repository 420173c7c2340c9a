"""The bus daemon: killed, and hung."""

import os
import signal
import threading
import time

import dbus.lowlevel
from harness import clock, processes
from harness.bus import DAEMON, SOCKET
from harness.gateway import UP, Service
from pages import Pages, came, pause
from row import at_least, at_most, none, row, sleepers
from side_by_side import shared_out

from .deaths import in_memory

CONNECTED = "watchdog success to connect dbus daemon"
DOWN = "stop monitor service"
GIVEN_UP = b"fail to connect dbus daemon"
DELAY = 0.3  # seconds that the catalogue itself asks for
CATALOGUE = [*sleepers(4), Service("named", bus="iot.test.named", monitor=1),
             Service("slow", delay=DELAY, monitor=1, program="exec sleep infinity")]


@row("bus-killed", "the bus daemon killed",
     "kill -9 when all is up, at random moments of the start that follows, and in the teardown of a reboot; a kill "
     "counts when it met a living bus daemon. Times are from the kill to the end of the start, less the 0.3 s of delay "
     "in the catalogue. The death of the bus daemon before the first channel has reached it is not looked at, on "
     "purpose: whether a bus is there shows when a channel connects. All 31 attempts of that cycle, half a second "
     "apart, are made first, so that way back is longer than the goal, and has a figure of its own. The programs lie "
     "on a file system in memory, since a start waits for the disk. Side by side",
     short=8, long=500, seconds=(120, 1200))
def bus_killed(run):
    """The gateway comes back, and nothing but the order of a start takes its time."""
    answers, _ = shared_out(run, lambda gateway, chance: Kills(gateway, chance, run), counts=(1, 3),
                            limits=(110, 1150))
    kills = {phase: sum(answer["kills"][phase] for answer in answers) for phase in Kills.PHASES}
    waits, early = ([wait for answer in answers for wait in answer[key]] for key in ("waits", "early"))
    goal = 1.6 if run.is_long else clock.stretched(12)
    figures = [at_least("kills", sum(kills.values()), run.amount),
               none("times that it did not come back", sum(answer["lost"] for answer in answers),
                    sum(answer["rounds"] for answer in answers)),
               none("daemons that ended", sum(answer["ended"] for answer in answers), len(answers)),
               at_most("longest way back beyond the catalogue's delays", max(waits, default=99.0), goal, "s")]
    if run.is_long:
        figures += [at_least(f"kills, {Kills.PHASES[phase]}", kills[phase], run.amount // 20)
                    for phase in ("up", "start", "teardown")]
        figures += [at_least(f"kills, {Kills.PHASES['early']}", len(early), 1),
                    at_most("longest way back after one of these", max(early, default=99.0), goal, "s")]
    return figures


class Kills:
    """Rounds of one gateway."""

    PHASES = {"up": "when all is up", "start": "in a start", "teardown": "in a teardown",
              "early": "before the first channel has reached the bus"}

    def __init__(self, gateway, chance, run):
        self.gateway, self.chance, self.run = in_memory(gateway), chance, run
        self.pages = Pages(self.gateway)
        self.kills = dict.fromkeys(self.PHASES, 0)
        self.waits, self.early, self.lost = [], [], 0
        self.gateway.prepare_run_directory()
        self.gateway.catalogue(*CATALOGUE)

    def work(self, _number, times):
        """Rounds until that many kills have met their victim; give the times and what was wrong."""
        daemon = self.gateway.up()
        rounds = 0
        while sum(self.kills.values()) < times and daemon.alive():
            rounds += 1
            phase = "early" if self.run.is_long and rounds % 30 == 10 else ("up", "start", "teardown")[rounds % 3]
            self._one(daemon, phase)
            self.run.progress(sum(self.kills.values()), "by one of them")
        return {"kills": self.kills, "waits": self.waits, "early": self.early, "lost": self.lost, "rounds": rounds,
                "ended": int(not daemon.alive())}

    def _one(self, daemon, phase):
        self.pages.turn()
        victim = gateway_bus(daemon)
        if phase == "teardown":
            ask_for_reboot(self.gateway)
        elif phase != "up":
            self.kills["up"] += kill(victim)  # what leads to the start in which the next one is killed
            self.pages.wait_for(CONNECTED if phase == "start" else "run dbus-daemon pid", 10)
            victim = self.gateway.pid_of("dbus-daemon")
        pause(self.chance.uniform(0, {"up": 0.3, "early": 0.0, "start": 0.5, "teardown": 0.0015}[phase]))
        killed = time.time()
        hit = kill(victim)
        back = came(lambda: is_back(self.gateway, 1 if phase in ("up", "teardown") else 2), 40)
        if phase == "early" and GIVEN_UP not in self.gateway.log.bytes():
            phase = "start"  # the channel was faster
        if not back:
            self.lost += 1
        elif phase == "early":
            self.early.append(way_back(self.gateway, killed))
        elif hit:
            self.waits.append(way_back(self.gateway, killed))
        if phase == "teardown" and self.gateway.log.find(DOWN)[0].time.timestamp() > killed:
            phase = "up"  # it had not begun yet
        self.kills[phase] += hit


def ask_for_reboot(gateway):
    """Send the call and wait for nothing: the teardown is over a few milliseconds after it has begun."""
    client = gateway.bus()
    client.connection.send_message(dbus.lowlevel.MethodCallMessage(*DAEMON, "reboot"))
    client.connection.flush()


def kill(pid):
    """Kill a bus daemon; whether it was still one, and alive. Its own end may have been faster."""
    try:
        handle = os.pidfd_open(pid)
    except OSError:  # pid 0 stands for none
        return False
    try:
        if processes.program(pid) != "dbus-daemon" or not processes.alive(pid):
            return False
        signal.pidfd_send_signal(handle, signal.SIGKILL)
        return True
    except ProcessLookupError:
        return False
    finally:
        os.close(handle)


def gateway_bus(daemon):
    """The pid of its bus daemon."""
    return next((pid for pid in daemon.services() if processes.program(pid) == "dbus-daemon"), 0)


def is_back(gateway, teardowns):
    """Whether everything is up after so many teardowns."""
    text = gateway.log.bytes()
    return text.count(DOWN.encode()) >= teardowns and text.rfind(UP.encode()) > text.rfind(DOWN.encode())


def way_back(gateway, killed):
    """Seconds from the kill to the last line of the start, less what the catalogue asks for."""
    return gateway.log.find(UP)[-1].time.timestamp() - killed - DELAY


@row("bus-hung", "the bus daemon hung",
     "SIGSTOP at random moments of a start, when all is up, and in the teardown of a reboot; then status, then "
     "SIGTERM. A hang counts when it met a living bus daemon. A try of the controller is all that lies between two of "
     "its pauses, wherever it stands; of the other threads the longest stay in one wait is told, but for waits that "
     "are to end with an event alone. Side by side", short=6, long=300, seconds=(120, 1200))
def bus_hung(run):
    """Nothing waits for it longer than it must."""
    answers, _ = shared_out(run, lambda gateway, chance: Hangs(gateway, chance, run), counts=(6, 15),
                            limits=(110, 1150))
    tries, stays, ends, states, wrong, back, hangs = ([value for answer in answers for value in answer[place]]
                                                      for place in range(7))
    slack = 0 if run.is_long else clock.stretched(6)
    figures = [at_least("hangs", len(hangs), run.amount),
               *[at_least(f"hangs, {Hangs.PHASES[phase]}", hangs.count(phase), run.amount // 6)
                 for phase in Hangs.PHASES]]
    if run.is_long:
        figures.append(at_least("tries that a hang held up for more than a second", sum(one > 1 for one in tries),
                                run.amount // 20))
    return [*figures, at_most("longest try of the controller", max(tries, default=99.0), 2 + slack, "s"),
            at_most("longest stay of another thread in one wait", max(stays, default=99.0), 2 + slack, "s"),
            at_most("longest forced exit", max(ends, default=99.0), 5.3 + slack, "s"),
            at_most("longest status", max(states, default=99.0), 15 + slack, "s"),
            none("ends with another status than 0", sum(wrong), len(wrong)),
            none("teardowns that did not lead to a new start", sum(not one for one in back), len(back))]


class Hangs:
    """Runs of one gateway: start, stop the bus daemon in its tracks, ask, end."""

    PHASES = {"up": "when all is up", "start": "in a start", "teardown": "in a teardown"}

    def __init__(self, gateway, chance, run):
        self.gateway, self.chance, self.run = gateway, chance, run
        self.pages = Pages(gateway)
        self.tries, self.stays, self.ends, self.states, self.wrong, self.back, self.hangs = ([] for _ in range(7))
        gateway.prepare_run_directory()
        gateway.catalogue(*CATALOGUE)

    def work(self, number, times):
        """That many that met a living bus daemon; give the times and what was wrong."""
        phases = list(self.PHASES)
        while len(self.hangs) < times:
            self.one(phases[(number + len(self.hangs)) % len(phases)])
            self.run.progress(len(self.hangs), "of one of them")
        return self.tries, self.stays, self.ends, self.states, self.wrong, self.back, self.hangs

    def one(self, phase):
        """One."""
        self.pages.turn()
        waits = self.gateway.path("waits")
        with open(waits, "wb"):
            pass
        daemon = self.gateway.start(env=dict(os.environ, LD_PRELOAD=self.run.preload("wait_times"), WAIT_TIMES=waits))
        if phase == "start":
            self.pages.wait_for("run dbus-daemon pid", 20)
            # Where it listens already, and has answered nobody yet, it holds up the controller's next try for sure.
            if not self.run.is_long or self.chance.random() < 0.5:
                came(lambda: os.path.exists(SOCKET), 5)
                pause(self.chance.uniform(0, 0.02))
            else:
                pause(self.chance.choice((0.0, 0.02, 0.1, 0.5)) * self.chance.random())
        else:
            self.pages.wait_for(UP, 30)
        bus = self.gateway.pid_of("dbus-daemon")
        if phase == "teardown":
            self.gateway.bus().reboot()
            pause(self.chance.uniform(0, 0.003))
        watch = Watch(daemon, waits)
        hit = stop(bus)
        if phase == "teardown":
            back = self.pages.wait_for(UP, 30, count=2)
            # A new cycle has a new bus daemon.
            stop(self.gateway.pid_of("dbus-daemon"))
            if hit:
                self.back.append(back)
        if hit:
            self.hangs.append(phase)
        self._measure(daemon, watch)

    def _measure(self, daemon, watch):
        begin = time.monotonic()
        self.gateway.status(within=30)
        self.states.append(time.monotonic() - begin)
        longest_try, longest_stay = watch.end(least=6)
        self.tries.append(longest_try)
        self.stays.append(longest_stay)
        begin = daemon.signal(signal.SIGTERM)
        self.wrong.append(daemon.wait(30) != 0)
        self.ends.append(time.monotonic() - begin)


def stop(pid):
    """Let a bus daemon hang; whether it was alive, and stands."""
    try:
        os.kill(pid, signal.SIGSTOP)
    except ProcessLookupError:
        return False
    stands = came(lambda: processes.status_field(pid, "State")[:1] in ("T", "", "Z", "X"), 1)
    return stands and processes.status_field(pid, "State")[:1] == "T"


class Watch:
    """Looks on where the threads of a daemon stand, in a thread of its own, and reads what its controller has noted."""

    EVERY = 0.05
    CONTROLLER = "start_up_thread"
    FUTEX, POLL, PPOLL = "202", "7", "271"

    def __init__(self, daemon, waits):
        self._daemon, self._waits = daemon, waits
        self._begin = now()
        self._longest = 0.0
        self._standing = {}  # task -> its count of voluntary switches, since when
        self._done = threading.Event()
        self._thread = threading.Thread(target=self._look, daemon=True)
        self._thread.start()

    def end(self, least):
        """Look for that many seconds at least, and then until the controller has ended a pause, if it ever does; give
        the longest time between two of its pauses, and the longest stay of another thread in one wait."""
        came(lambda: now() - self._begin >= least, least)
        enough = now()
        came(lambda: self._pauses() and self._pauses()[-1][1] >= enough, 10)
        self._done.set()
        self._thread.join()
        tries, free_since = [], self._begin
        for begin, end in self._pauses():
            tries.append(begin - free_since)
            free_since = max(free_since, end)
        return max([*tries, now() - free_since]), self._longest

    def _pauses(self):
        """(begin, end) of the controller's pauses that have ended since the watch began."""
        with open(self._waits, encoding="ascii") as file:
            lines = [line.split() for line in file if line.endswith("\n")]
        spans = [((int(end) - int(taken)) / 1e6, int(end) / 1e6) for name, _, taken, end in lines
                 if name == self.CONTROLLER]
        return [span for span in spans if span[1] > self._begin]

    def _look(self):
        while not self._done.wait(self.EVERY):
            try:
                tasks = os.listdir(f"/proc/{self._daemon.pid}/task")
            except FileNotFoundError:
                return
            for task in tasks:
                self._look_at(task)

    def _look_at(self, task):
        place = f"task/{task}/"
        name = processes.proc(self._daemon.pid, place + "comm").strip()
        words = processes.proc(self._daemon.pid, place + "syscall").split()
        switches = processes.proc(self._daemon.pid, place + "status").partition("\nvoluntary_ctxt_switches:")[2].split()
        if name == self.CONTROLLER or not words or not switches or self._is_idle(name, words):
            self._standing.pop(task, None)
            return
        before, since = self._standing.get(task, (None, 0.0))
        if before != switches[0]:
            since = now()
            self._standing[task] = switches[0], since
        self._longest = max(self._longest, now() - since)

    def _is_idle(self, name, words):
        """Whether it waits for nothing but an event: main and the channels in poll, the log's sender for a line."""
        if words[0] == self.POLL:
            return int(words[3], 16) & 0xffffffff == 0xffffffff
        if words[0] == self.PPOLL:
            return name == "quorvaned" or words[3] == "0x0"
        return words[0] == self.FUTEX and name == "log_thread"


def now():
    """The moment, by the clock of the daemon's notes."""
    return time.clock_gettime(time.CLOCK_MONOTONIC_RAW)
