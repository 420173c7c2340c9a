"""A service dies: how soon the log tells it, how soon its replacement runs; beside a supervisor that does no more."""

import concurrent.futures
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
from turns import sides

OURS, FLOOR = "mortal-", "floor-"  # what the services' names begin with
OUR_RECORD, FLOOR_RECORD, FLOOR_LOG = RECORDS + "/ours", RECORDS + "/floor", RECORDS + "/log"
FLOOD_RATE = 20000
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
        most = FLOOD_RATE * 120
        sender = gateway.beside("signal_sender", WATCHDOG, str(most), str(FLOOD_RATE), *gateway.names)
        ours, floor = kill_in_turn(range(quiet, quiet + flooded))
        sender.terminate()
        sent, sent_ns, _ = map(int, sender.communicate(timeout=60)[0].split())
        if sent == most:
            raise Failed("the flood ended before the last kill")
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


def restarts(side, count):
    """Kill one service after the other, each in another pass of its supervisor.

    Gives the seconds from the line to the first instructions of each replacement; the seconds to there from the moment
    at which the pass was due; and of how many passes that is not known.

    A pass is due a second after the last one's end. That end is not logged; it is not before the last replacement's
    line, so what this gives is a little too much rather than too little. It needs a restart in the pass before.
    """
    from_line, from_pass, unknown, before = [], [], 0, None
    for number in range(count):
        name = f"{side}{number:04}"
        time.sleep(random.uniform(0, 0.4))
        os.kill(starts(OUR_RECORD if side == OURS else FLOOR_RECORD)[name][-1][1], signal.SIGKILL)
        line, first = replacement(name)
        from_line.append(first - line)
        if before is not None and line - before - PASS_S < PASS_S / 2:
            from_pass.append(first - before - PASS_S)
        elif before is not None:
            unknown += 1
        before = line
    return from_line, from_pass, unknown


@measurement("replacement", "from the pass that finds a dead service to the first instructions of its replacement",
             "a supervisor that looks once a second and forks")
def replace(quick):
    """One service of each side is killed in each pass of its own supervisor, at no fixed time before it."""
    count = 10 if quick else 100
    with Mortals(count, monitor=1), concurrent.futures.ThreadPoolExecutor() as both:
        time.sleep(GRACE_S)
        ours, floor = both.map(lambda side: restarts(side, count), (OURS, FLOOR))
    if not ours[1] or not floor[1]:
        raise Failed("no two passes in a row had something to do")
    yield row_of("dead service: the line, to its replacement", ours[0], floor[0])
    unknown = f"{ours[2]} of {count - 1} passes, and {floor[2]} of the floor's, came behind one with nothing to do"
    yield row_of("dead service: the pass, to its replacement", ours[1], floor[1],
                 unknown + ", and are not counted" if ours[2] + floor[2] > 0 else "")


def row_of(name, ours, floor, remark=""):
    """The row of a time that is to be at most 3 ms."""
    least = min(len(ours), len(floor))
    ours, floor = ours[:least], floor[:least]
    return Row(name, Spread.of(ours).show(1e3, " ms"), Spread.of(floor).show(1e3, " ms"), ratios(ours, floor).show(),
               *at_most(3, Spread.of(ours).middle * 1e3, " ms"), note=ABSOLUTE, remark=remark)
