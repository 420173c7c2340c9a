"""A service dies: how soon the log tells it, how soon its replacement runs; beside a supervisor that does no more."""

import datetime
import json
import os
import random
import re
import signal
import time

from gateway import BIN, LOG, RECORDS, STAGE, WATCHDOG, Failed, Gateway, program, until
from registry import measurement
from table import Row, Spread, at_most, percentile, ratios
from turns import repetitions, sides

OURS, FLOOR = "mortal-", "floor-"  # what the services' names begin with
OUR_RECORD, FLOOR_RECORD, FLOOR_LOG = RECORDS + "/ours", RECORDS + "/floor", RECORDS + "/log"
FLOOD_RATE = 20000
MICROSECOND = 1e-6
PASS_S = 1.0  # from the end of one pass of the monitor to the beginning of the next
ABSOLUTE = "a time and no ratio: on a machine that is busy with other things the floor tells what it was capable of"
GRACE_S = 32  # a service may be started again when this time has passed since its start, in whole seconds


class Mortals(Gateway):
    """A gateway of services that record each of their starts and are to be killed; twenty more feed keep-alives."""

    def __init__(self, count, monitor):
        super().__init__(named=20)
        path = os.path.join(STAGE, "config", "services.json")
        with open(path, encoding="ascii") as file:
            catalogue = json.load(file)
        for number in range(count):
            name = f"{OURS}{number:04}"
            os.link(program("mortal"), os.path.join(BIN, name))
            catalogue.append({"exec": name, "monitor": monitor, "args": [OUR_RECORD, name]})
        with open(path, "w", encoding="ascii") as file:
            json.dump(catalogue, file)
        self.count = count
        self.monitor = monitor

    def start(self):
        super().start()
        floor = self.beside("bare_watcher", FLOOR_LOG, str(self.monitor), str(self.count), program("mortal"),
                            FLOOR_RECORD, FLOOR)
        if floor.stdout.readline() != "up\n":
            raise Failed("the bare supervisor does not start")
        for record in (OUR_RECORD, FLOOR_RECORD):
            until(lambda path=record: len(starts(path)) == self.count, 30, "all services")


def starts(path):
    """The starts that a record tells of: name to moments (in ns of the wall clock) and pids."""
    told = {}
    if os.path.exists(path):
        with open(path, encoding="ascii") as file:
            for line in file.read().splitlines():
                moment, name, pid = line.split()
                told.setdefault(name, []).append((int(moment), int(pid)))
    return told


def tail(path):
    """The last lines of a file."""
    try:
        with open(path, "rb") as file:
            file.seek(max(0, os.fstat(file.fileno()).st_size - 4096))
            return file.read().decode(errors="replace")
    except FileNotFoundError:
        return ""


def moment_of(stamp):
    """Seconds of the wall clock of a line's time: the daemon's local time, or seconds since 1970."""
    if stamp.count("-"):
        return datetime.datetime.strptime(stamp, "%Y-%m-%d %H:%M:%S.%f").timestamp()
    return float(stamp)


def line_moment(path, text):
    """When a line with that text was written, once it is there."""
    pattern = re.compile(r"^([-0-9]+ [0-9:.]+|[0-9.]+) .*" + re.escape(text) + "$", re.MULTILINE)
    found = until(lambda: pattern.findall(tail(path)), 10, text)
    return moment_of(found[-1])


def notice(name, pid):
    """Kill the service; gives the seconds until its supervisor has noted it."""
    path, text = (LOG, f"service({name}) is abnormal") if name.startswith(OURS) else (FLOOR_LOG, f"died {name}")
    begin = time.time_ns()
    os.kill(pid, signal.SIGKILL)
    time.sleep(0.002)  # nobody looks at the files meanwhile
    return line_moment(path, text) - begin / 1e9


def kill_in_turn(numbers):
    """Kill as many of both sides; gives the seconds until each was noticed."""
    pids = {name: told[-1][1] for record in (OUR_RECORD, FLOOR_RECORD) for name, told in starts(record).items()}
    noticed = {"ours": [], "floor": []}
    for number in numbers:
        for side in sides(number):
            name = f"{OURS if side == 'ours' else FLOOR}{number:04}"
            noticed[side].append(notice(name, pids[name]))
            time.sleep(random.uniform(0.001, 0.004))  # out of step with whatever happens regularly
    return noticed["ours"], noticed["floor"]


def show(values):
    """Median and 99th percentile."""
    return f"p50 {percentile(values, 50) * 1e3:.2f} p99 {percentile(values, 99) * 1e3:.2f} ms"


@measurement("death", "from the kill of a service to the line that tells it, quiet and under a flood",
             "a supervisor that waits for deaths only, and writes a line")
def death(quick):
    """Services are killed one after the other: quiet, then while 20,000 keep-alives a second pour in."""
    quiet, flooded = (60, 200) if quick else (300, 1000)
    with Mortals(quiet + flooded, monitor=0) as gateway:
        ours, floor = kill_in_turn(range(quiet))
        ratio = ratios(ours, floor)
        middle = Spread.of(ours).middle * 1e3
        yield Row("death of a service, to the log's line", Spread.of(ours).show(1e3, " ms"),
                  Spread.of(floor).show(1e3, " ms"), ratio.show(), *at_most(1.5, middle, " ms"),
                  note=ABSOLUTE)
        sender = gateway.beside("signal_sender", WATCHDOG, str(FLOOD_RATE * 120), str(FLOOD_RATE), *gateway.names)
        ours, floor = kill_in_turn(range(quiet, quiet + flooded))
        sender.terminate()
        sent, sent_ns, _ = map(int, sender.communicate(timeout=60)[0].split())
        p99 = percentile(ours, 99)
        goal, met = at_most(5, p99 * 1e3, " ms")
        yield Row(f"  under {sent / sent_ns * 1e6:.1f} k signals per second", show(ours), show(floor),
                  f"{p99 / percentile(floor, 99):.2f}", f"p99 {goal}", met, note=ABSOLUTE)


def replacement(name):
    """Of a service that was killed: when its supervisor said that it starts it again, and when the new one ran."""
    is_ours = name.startswith(OURS)
    record = OUR_RECORD if is_ours else FLOOR_RECORD
    first_ns = until(lambda: starts(record)[name][1:], 10, f"another {name}")[-1][0]
    path, text = (LOG, f"service({name}) status(1) is abnormal") if is_ours else (FLOOR_LOG, f"again {name}")
    return line_moment(path, text), first_ns / 1e9


def beyond_pass(before, line, first):
    """Seconds from the moment at which the pass was due to the replacement's first instructions; None if unknown.

    A pass is due a second after the last one's end. That end is not logged; it is not before the last replacement's
    line, so what this gives is a little too much rather than too little. It needs a restart in the pass before.
    """
    late = line - before - PASS_S
    return late + first - line if -MICROSECOND <= late < PASS_S / 2 else None


@measurement("replacement", "from the pass that finds a dead service to the first instructions of its replacement",
             "a supervisor that looks once a second and forks")
def replace(quick):
    """One service of each side is killed in each second, at no fixed time in it."""
    count = 10 if quick else 40
    lines = {OURS: 0.0, FLOOR: 0.0}
    from_line = {OURS: [], FLOOR: []}
    from_pass = {OURS: [], FLOOR: []}
    with Mortals(count, monitor=1):
        time.sleep(GRACE_S)
        for number in repetitions(count, count, 0):
            names = {side: f"{side}{number:04}" for side in (OURS, FLOOR)}
            records = {OURS: starts(OUR_RECORD), FLOOR: starts(FLOOR_RECORD)}
            time.sleep(random.uniform(0, 0.4))
            for side, name in names.items():
                os.kill(records[side][name][-1][1], signal.SIGKILL)
            for side, name in names.items():
                line, first = replacement(name)
                from_line[side].append(first - line)
                beyond = beyond_pass(lines[side], line, first)
                if beyond is not None:
                    from_pass[side].append(beyond)
                lines[side] = line
    if not from_pass[OURS] or not from_pass[FLOOR]:
        raise Failed("no two passes in a row had something to do")
    yield row_of("dead service: the line, to its replacement", from_line)
    yield row_of("dead service: the pass, to its replacement", from_pass)


def row_of(name, seconds):
    """The row of a time that is to be at most 3 ms."""
    least = min(map(len, seconds.values()))
    ours, floor = seconds[OURS][:least], seconds[FLOOR][:least]
    return Row(name, Spread.of(ours).show(1e3, " ms"), Spread.of(floor).show(1e3, " ms"), ratios(ours, floor, 8).show(),
               *at_most(3, Spread.of(ours).middle * 1e3, " ms"), note=ABSOLUTE)
