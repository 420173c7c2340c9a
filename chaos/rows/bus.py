"""The bus daemon: killed, and hung."""

import os
import signal
import time

from harness import clock, processes
from harness.gateway import UP, Service
from pages import Pages, came, pause
from row import at_least, at_most, none, row, sleepers
from side_by_side import shared_out

CONNECTED = "watchdog success to connect dbus daemon"
CATALOGUE = [*sleepers(4), Service("named", bus="iot.test.named", monitor=1),
             Service("slow", delay=0.3, monitor=1, program="exec sleep infinity")]


@row("bus-killed", "the bus daemon killed",
     "kill -9 when all is up, at random moments of the start that follows, and in the teardown of a reboot. A bus that "
     "dies before the first channel has reached it is given up after the 31 attempts of that cycle: 15.5 s that are "
     "not counted", short=8, long=500, seconds=(120, 1400))
def bus_killed(run):
    """The gateway comes back, and nothing but the order of a start takes its time."""
    gateway = run.gateway()
    gateway.prepare_run_directory()
    gateway.catalogue(*CATALOGUE)
    pages = Pages(gateway)
    daemon = gateway.up()
    waits, lost, kills, number = [], 0, 0, 0
    while kills < run.amount:
        pages.turn()
        number += 1
        phase = "early" if number % 60 == 59 else ("up", "start", "teardown")[number % 3]
        victim = gateway_bus(daemon)
        if phase == "teardown":
            gateway.bus().reboot()
        elif phase != "up":
            kill(victim)  # what leads to the start in which the next one is killed
            kills += 1
            pages.wait_for(CONNECTED if phase == "start" else "run dbus-daemon pid", 10)
            victim = gateway.pid_of("dbus-daemon")
        pause(run.chance.uniform(0, {"up": 0.3, "early": 0.001, "start": 0.5, "teardown": 0.1}[phase]))
        text = gateway.log.bytes()
        killed = time.time()
        kill(victim)
        kills += 1
        if came(lambda: is_back(gateway, 1 if phase in ("up", "teardown") else 2), 40):
            waits.append(beyond(gateway, killed, phase != "early" or CONNECTED.encode() in text))
        else:
            lost += 1
        run.progress(kills)
    return [at_least("kills", kills, run.amount), none("times that it did not come back", lost, number),
            none("daemons that ended", int(not daemon.alive()), 1),
            at_most("longest way back beyond the catalogue's delays", max(waits, default=99.0),
                    1.6 if run.is_long else clock.stretched(3), "s")]


def kill(pid):
    """Kill a bus daemon, unless its own end was faster."""
    try:
        os.kill(pid, signal.SIGKILL)
    except ProcessLookupError:
        pass


def gateway_bus(daemon):
    """The pid of its bus daemon."""
    return next((pid for pid in daemon.services() if processes.program(pid) == "dbus-daemon"), 0)


def is_back(gateway, teardowns):
    """Whether everything is up after so many teardowns."""
    text = gateway.log.bytes()
    down = b"stop monitor service"
    return text.count(down) >= teardowns and text.rfind(UP.encode()) > text.rfind(down)


# All the attempts that one cycle makes to reach its bus, half a second apart.
ATTEMPTS = 15.5


def beyond(gateway, killed, connected):
    """Seconds from the kill to the last line of the start, less what the catalogue and the attempts took."""
    events = gateway.log.events()
    up = next(event for event in reversed(events) if event.text == UP)
    before = [event for event in events if event.index < up.index]
    first = next(event for event in reversed(before) if event.text == "running named service")
    last = next(event for event in reversed(before) if event.text == "success to startup business service")
    attempts = 0 if connected else ATTEMPTS
    return max(0.0, up.time.timestamp() - killed - (last - first) - attempts)


@row("bus-hung", "the bus daemon hung",
     "SIGSTOP at random moments of a start, when all is up, and in the teardown of a reboot; then status, then "
     "SIGTERM. Side by side", short=6, long=300, seconds=(120, 1400))
def bus_hung(run):
    """Nothing waits for it longer than it must."""
    answers, _ = shared_out(run, Hangs, counts=(6, 20), limits=(100, 1300))
    tries, ends, states, wrong, back = ([value for answer in answers for value in answer[place]] for place in range(5))
    slack = 0 if run.is_long else clock.stretched(2)
    held_up = sum(one > 1 for one in tries)
    return [at_least("hangs", len(ends), run.amount),
            at_least("tries that the hang held up", held_up, 1 if run.is_long else 0),
            at_most("longest try of the controller", max(tries, default=0.0), 2.1 + slack, "s"),
            at_most("longest forced exit", max(ends), 5.3 + slack, "s"),
            at_most("longest status", max(states), 15, "s"),
            none("ends with another status than 0", sum(wrong), len(wrong)),
            none("teardowns that did not lead to a new start", sum(not one for one in back), len(back))]


class Hangs:
    """Runs of one gateway: start, stop the bus daemon in its tracks, ask, end."""

    PHASES = ("up", "start", "teardown")

    def __init__(self, gateway, chance):
        self.gateway, self.chance = gateway, chance
        self.pages = Pages(gateway)
        self.tries, self.ends, self.states, self.wrong, self.back = [], [], [], [], []
        gateway.prepare_run_directory()
        gateway.catalogue(*CATALOGUE)

    def work(self, number, times):
        """That many; give the times and what was wrong."""
        for turn in range(times):
            self.one(self.PHASES[(number + turn) % len(self.PHASES)])
        return self.tries, self.ends, self.states, self.wrong, self.back

    def one(self, phase):
        """One."""
        self.pages.turn()
        daemon = self.gateway.start()
        if phase == "start":
            self.pages.wait_for("run dbus-daemon pid", 20)
            pause(self.chance.choice((0.0, 0.02, 0.1, 0.5)) * self.chance.random())
        else:
            self.pages.wait_for(UP, 30)
        bus = self.gateway.pid_of("dbus-daemon")
        if phase == "teardown":
            self.gateway.bus().reboot()
            pause(self.chance.uniform(0, 0.003))
        try:
            os.kill(bus, signal.SIGSTOP)
        except ProcessLookupError:
            pass  # the teardown was faster
        if phase == "teardown":
            # A new cycle has a new bus daemon.
            self.back.append(self.pages.wait_for(UP, 30, count=2))
            bus = self.gateway.pid_of("dbus-daemon")
            os.kill(bus, signal.SIGSTOP)
        elif phase == "start":
            self.tries.append(longest_try(daemon, 6))
        begin = time.monotonic()
        self.gateway.status(within=30)
        self.states.append(time.monotonic() - begin)
        begin = daemon.signal(signal.SIGTERM)
        self.wrong.append(daemon.wait(20) != 0)
        self.ends.append(time.monotonic() - begin)


def longest_try(daemon, seconds):
    """Watch the controller's thread for that long: the longest time between two of its half-second pauses, which it
    makes in a futex, while it tries to reach the bus in poll."""
    thread = next((task for task in os.listdir(f"/proc/{daemon.pid}/task")
                   if processes.proc(daemon.pid, f"task/{task}/comm").strip() == "start_up_thread"), None)
    poll = {"7", "271"}  # poll, ppoll
    end = time.monotonic() + seconds
    longest, begin = 0.0, None
    while time.monotonic() < end:
        words = processes.proc(daemon.pid, f"task/{thread}/syscall").split()
        if words and words[0] in poll:
            begin = begin or time.monotonic()
            longest = max(longest, time.monotonic() - begin)
        else:
            begin = None
        time.sleep(0.01)
    return longest
