"""How fast services are ended, beyond the waits that come before."""

import datetime
import os
import signal
import subprocess

from floor import Starter
from gateway import ADDRESS, DAEMON, LOG, RUN, Gateway, program, run, until
from registry import measurement
from table import compared
from turns import repetitions, sides

SERVICES = 100
GOAL = 1.2
WHY = ("each service has a line in the log before its signal and, in a teardown, two more for its death; at the end of "
       "the daemon the bus daemon is signalled first, and ends meanwhile on the same processors")
FLOOR_LOG = RUN + "/startup/floor.log"


class Watch:
    """Sees the services end."""

    def __init__(self, slots):
        self.process = subprocess.Popen([program("death_watch"), str(slots.count), slots.path],
                                        stdout=subprocess.PIPE, text=True)
        self.process.stdout.readline()

    def ends_ns(self):
        """When the first and the last ended, in ns since 1970."""
        first, last = self.process.communicate(timeout=60)[0].split()
        return int(first), int(last)


def logged_ns(text):
    """When the start-up log got the first line with that text, in ns since 1970 (to the microsecond). Or nothing."""
    with open(LOG, encoding="utf-8") as file:
        line = next((line for line in file if text in line and line.endswith("\n")), None)
    return line and int(datetime.datetime.strptime(line[:26], "%Y-%m-%d %H:%M:%S.%f").timestamp() * 1e6) * 1000


def reboot():
    """Have the daemon end its services and start them again."""
    run(["dbus-send", f"--bus={ADDRESS}", "--print-reply", f"--dest={DAEMON}", "/iot/gateway/quorvaned",
         f"{DAEMON}.reboot"], 10)


def ours_s(gateway, forced):
    """Seconds from the line before the stop of the services to the end of the last of them."""
    watch = Watch(gateway.slots)
    if forced:
        gateway.daemon.send_signal(signal.SIGTERM)
    else:
        reboot()
    _, end = watch.ends_ns()
    line = "quorvaned exit (force)" if forced else "stop business service"
    return (end - until(lambda: logged_ns(line), 10, line)) / 1e9


def floor_s(starter):
    """Seconds from the first signal to the end of the last service."""
    watch = Watch(starter.slots)
    begin = starter.end_all()
    return (watch.ends_ns()[1] - begin) / 1e9


def stopped(side, count, forced):
    """One stop."""
    if side == "ours":
        with Gateway(slots=count) as gateway:
            return ours_s(gateway, forced)
    log = FLOOR_LOG if side == "floor with lines" else None
    os.makedirs(os.path.dirname(FLOOR_LOG), exist_ok=True)
    with Starter(count, signal.SIGKILL if forced else signal.SIGTERM, log) as starter:
        return floor_s(starter)


@measurement("stop", "100 services, from the log's line about it to the last one's end", "a loop of kill and wait")
def stop(quick):
    """A teardown ends them with SIGTERM, the end of the daemon with SIGKILL."""
    for forced, name in ((False, "stop of 100 services, teardown"), (True, "stop of 100 services, end of the daemon")):
        times = {"ours": [], "floor": [], "floor with lines": []}
        for number in repetitions(2, 3 if quick else 25, 8 if quick else 100):
            for side in sides(number, tuple(times)):
                times[side].append(stopped(side, SERVICES, forced))
        yield compared(name, times["ours"], times["floor"], GOAL, 1e3, " ms", 2, WHY)
        yield compared("  beside a loop that writes these lines", times["ours"], times["floor with lines"], None, 1e3,
                       " ms", 2)
