"""Clocks: a wall clock that jumps, and a machine that has been up for very long."""

import mmap
import os
import shutil
import signal
import struct
import time

from harness import clock, processes
from harness.bus import WATCHDOG
from harness.gateway import UP, Daemon, Service
from pages import came
from row import at_least, at_most, none, row
from side_by_side import side_by_side

YEAR = 365 * 86_400
RESTART = "threadProc, service(%s) status(%d) is abnormal"
SERVICES = ("fed", "killed", "killed_late", "silent")
WRAP = 2 ** 31  # seconds of uptime, from which on a signed number of 32 bits is negative
LOOK = 60_000_000  # microseconds after which the daemon's main thread looks around when nothing has called it


@row("clocks", "clocks that jump, and long uptimes",
     "the wall clock a year ahead or back, at random moments (a library stands between the daemon and its clock); "
     "beside it a gateway in a time namespace, whose uptime passes 2^31 s half-way. Services are killed at the "
     "beginning and at three quarters. Beyond 2^31 s the deadline of a keep-alive, a signed number of 32 bits, is "
     "never reached: a service that falls silent there is not noticed, which the long form shows. The kernel lets a "
     "poll end a thousandth later than asked, up to 0.1 s. For the main thread's look around, each minute when nothing "
     "else has called it, that is more than the goal: nothing depends on that look, so it stays as it is and has a "
     "figure of its own. In the short form waits are held against fifty times the goal",
     short=40, long=600, seconds=(100, 1000))
def clocks(run):
    """Waits take as long as they are to, and only what is to be restarted is."""
    ways = [jumping, long_up]
    answers = side_by_side(run, len(ways), lambda gateway, chance, number: ways[number](run, gateway, chance),
                           limit=run.amount + 50)
    waits = [wait for answer in answers for wait in answer["waits"]]
    looks = [wait for wait in waits if wait[0] >= LOOK]
    others = [wait for wait in waits if wait[0] < LOOK]
    figures = [at_least("waits that were measured", len(waits), run.amount * 3),
               at_most("the wait that was furthest off", furthest_off(others),
                       20 if run.is_long else clock.stretched(1000), "ms"),
               none("waits that went on for longer than they were to", sum(answer["longer"] for answer in answers),
                    sum(answer["begun"] for answer in answers)),
               at_least("jumps", answers[0]["jumps"], run.amount // 4),
               none("false restarts", sum(answer["false"] for answer in answers), None),
               none("restarts that were due and did not come", sum(answer["missed"] for answer in answers),
                    sum(answer["due"] for answer in answers))]
    if run.is_long:
        figures += [at_most("the main thread's look around that was furthest off", furthest_off(looks), 20, "ms"),
                    at_least("services that fell silent beyond 2^31 s and were restarted",
                             sum(answer["silent"] for answer in answers), 1)]
    return figures


def furthest_off(waits):
    """By how many ms at most a wait took another time than was asked for."""
    return max(abs(taken - wanted) for wanted, taken in waits) / 1000


def jumping(run, gateway, chance):
    """A gateway whose wall clock jumps."""
    shift = gateway.path("wall-clock")
    with open(shift, "wb") as file:
        file.write(bytes(8))
    with open(shift, "r+b") as file:
        offset = mmap.mmap(file.fileno(), 8)
    prepare(gateway)
    daemon = gateway.start(env=preloaded(run, gateway, "wall_clock", WALL_CLOCK=shift))
    gateway.log.wait_for(UP, 20, pid=daemon.pid)
    jumps = 0

    def jump(passed):
        nonlocal jumps
        if passed >= jumps * 2:
            offset[:] = struct.pack("q", chance.choice((-YEAR, YEAR, chance.randint(-YEAR, YEAR))))
            jumps += 1
    return {**supervised(run, gateway, jump, "silent_early"), "jumps": jumps}


def long_up(run, gateway, _chance):
    """A gateway on a machine that has been up for so long that its seconds need 32 bits."""
    prepare(gateway)
    ahead = str(WRAP - run.amount // 2 - int(time.clock_gettime(time.CLOCK_BOOTTIME)))
    holder = processes.spawn([shutil.which("unshare"), "--time", "--monotonic", ahead, "--boottime", ahead, "--fork",
                              "--kill-child", gateway.program, "--nofork"], output=gateway.path("terminal"),
                             env=preloaded(run, gateway))
    gateway.log.wait_for(UP, 20)
    daemon = Daemon.adopt(processes.children(holder.pid)[0])
    told = supervised(run, gateway, lambda passed: None, "silent_late")
    assert daemon.alive(), "the daemon has ended"
    return told


def preloaded(run, gateway, *libraries, **variables):
    """The environment that lets the daemon write down its waits."""
    names = " ".join(run.preload(name) for name in (*libraries, "wait_times"))
    return dict(os.environ, LD_PRELOAD=names, WAIT_ENDS=gateway.path("waits"), **variables)


def prepare(gateway):
    """One that is fed, two that die, and one that falls silent."""
    gateway.catalogue(*[Service(name, bus=f"iot.test.{name}", monitor=1) for name in SERVICES])


def supervised(run, gateway, each_turn, silent):
    """Let the time pass; give the waits, and the restarts that were false or missing."""
    client = gateway.bus()
    due = {"killed"}
    os.kill(gateway.pid_of("killed"), signal.SIGKILL)
    if silent == "silent_early":
        due.add("silent")
        client.send(WATCHDOG, "feedDog", "ssi", "iot.test.silent", "main", 5)
    begin = time.monotonic()
    fed = 0
    while (passed := time.monotonic() - begin) < run.amount:
        if passed >= fed:
            client.send(WATCHDOG, "feedDog", "ssi", "iot.test.fed", "main", 20)
            fed += 1
        if passed >= run.amount * 3 / 4 and "killed_late" not in due:
            due.add("killed_late")
            os.kill(gateway.pid_of("killed_late"), signal.SIGKILL)
            if silent == "silent_late":
                client.send(WATCHDOG, "feedDog", "ssi", "iot.test.silent", "main", 5)
        each_turn(passed)
        run.progress(int(passed))
        time.sleep(0.1)
    came(lambda: {event.values[0] for event in gateway.log.find(RESTART)} >= due, 10)
    restarted = [event.values[0] for event in gateway.log.find(RESTART)]
    waits, begun, longer = waits_of(gateway, 20_000 if run.is_long else clock.stretched(1_000_000))
    wanted = due | ({"silent"} if silent == "silent_late" else set())
    return {"waits": waits, "begun": begun, "longer": longer, "due": len(due), "missed": len(due - set(restarted)),
            "false": sum(name not in wanted for name in restarted) + len(restarted) - len(set(restarted)),
            "silent": silent == "silent_late" and "silent" in restarted}


def waits_of(gateway, slack):
    """((asked for, taken) in microseconds of the waits of a tenth of a second and more that came to their end, how many
    have begun, how many of these took longer by so many microseconds, or have not ended and should have)"""
    now = time.clock_gettime(time.CLOCK_MONOTONIC_RAW) * 1_000_000
    waits, open_ones, begun, longer = [], {}, 0, 0
    with open(gateway.path("waits"), encoding="ascii") as file:
        for kind, thread, value, moment in map(str.split, file):
            if kind == "begin":
                open_ones[thread] = (int(value), int(moment))
                begun += 1
                continue
            wanted, begin = open_ones.pop(thread)
            longer += int(moment) - begin > longest(wanted, slack)
            if int(value) and wanted >= 100_000:
                waits.append((wanted, int(moment) - begin))
    return waits, begun, longer + sum(now - begin > longest(wanted, slack) for wanted, begin in open_ones.values())


def longest(wanted, slack):
    """What a wait may take in microseconds; a look around, as long as the kernel lets it."""
    return max(0, wanted) + slack + (wanted // 1000 if wanted >= LOOK else 0)
