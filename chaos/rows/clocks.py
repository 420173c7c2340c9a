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
WRAP = 2 ** 31  # seconds of uptime, from which on a signed number of 32 bits is negative


@row("clocks", "clocks that jump, and long uptimes",
     "the wall clock a year ahead or back, at random moments (a library stands between the daemon and its clock); "
     "beside it a gateway in a time namespace, whose uptime passes 2^31 s half-way. In the short form waits are "
     "held against fifty times the goal", short=34, long=600, seconds=(90, 1000))
def clocks(run):
    """Waits take as long as they are to, and only what is to be restarted is."""
    ways = [jumping, long_up]
    answers = side_by_side(run, len(ways), lambda gateway, chance, number: ways[number](run, gateway, chance),
                           limit=run.amount + 50)
    waits = [wait for answer in answers for wait in answer["waits"]]
    late = max(abs(taken - wanted) for wanted, taken in waits) / 1000
    return [at_least("waits that were measured", len(waits), run.amount * 4),
            at_most("the wait that was furthest off", late, 20 if run.is_long else clock.stretched(1000), "ms"),
            at_least("jumps", answers[0]["jumps"], run.amount // 4),
            none("false restarts", sum(answer["false"] for answer in answers), None),
            none("restarts that were due and did not come", sum(answer["missed"] for answer in answers), 3)]


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
    return {**supervised(run, gateway, jump, silent=True), "jumps": jumps}


def long_up(run, gateway, _chance):
    """A gateway on a machine that has been up for so long that its seconds need 32 bits."""
    prepare(gateway)
    ahead = str(WRAP - run.amount // 2 - int(time.clock_gettime(time.CLOCK_BOOTTIME)))
    holder = processes.spawn([shutil.which("unshare"), "--time", "--monotonic", ahead, "--boottime", ahead, "--fork",
                              "--kill-child", gateway.program, "--nofork"], output=gateway.path("terminal"),
                             env=preloaded(run, gateway))
    gateway.log.wait_for(UP, 20)
    daemon = Daemon.adopt(processes.children(holder.pid)[0])
    # Deadlines are kept in 31 bits, so a service that falls silent is not noticed beyond them: one that dies is.
    told = supervised(run, gateway, lambda passed: None, silent=False)
    assert daemon.alive(), "the daemon has ended"
    return told


def preloaded(run, gateway, *libraries, **variables):
    """The environment that lets the daemon write down its waits."""
    names = " ".join(run.preload(name) for name in (*libraries, "wait_times"))
    return dict(os.environ, LD_PRELOAD=names, WAIT_TIMES=gateway.path("waits"), **variables)


def prepare(gateway):
    """One that is fed, one that dies, and one that falls silent."""
    gateway.catalogue(*[Service(name, bus=f"iot.test.{name}", monitor=1) for name in ("fed", "killed", "silent")])


def supervised(run, gateway, each_turn, silent):
    """Let the time pass; give the waits, and the restarts that were false or missing."""
    client = gateway.bus()
    due = {"killed"}
    os.kill(gateway.pid_of("killed"), signal.SIGKILL)
    if silent:
        due.add("silent")
        client.send(WATCHDOG, "feedDog", "ssi", "iot.test.silent", "main", 5)
    begin = time.monotonic()
    fed = 0
    while (passed := time.monotonic() - begin) < run.amount:
        if passed >= fed:
            client.send(WATCHDOG, "feedDog", "ssi", "iot.test.fed", "main", 20)
            fed += 1
        each_turn(passed)
        run.progress(int(passed))
        time.sleep(0.1)
    came(lambda: {event.values[0] for event in gateway.log.find(RESTART)} >= due, 5)
    restarted = [event.values[0] for event in gateway.log.find(RESTART)]
    return {"waits": waits_of(gateway), "false": sum(name not in due for name in restarted) + len(restarted) - len(
        set(restarted)), "missed": len(due - set(restarted))}


def waits_of(gateway):
    """(asked for, taken) in microseconds, of the waits of a tenth of a second and more."""
    with open(gateway.path("waits"), encoding="ascii") as file:
        told = [(int(wanted), int(taken)) for _, wanted, taken, _ in map(str.split, file)]
    return [wait for wait in told if wait[0] >= 100_000]
