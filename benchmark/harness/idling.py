"""What supervision costs while nothing happens: processor time, wake-ups, memory."""

import contextlib
import subprocess
import time

from floor import bare_member
from gateway import Gateway, program
from peers import PEERS
from registry import measurement
from table import Chart, Row, Spread, at_most, beside, ratios
from turns import repetitions, sides
from usage import Usage

MINUTES = 3
FEW, MANY = 20, 500
SIDES = ("ours", "floor")
MOST_WAKEUPS = 2.2
MOST_CPU_MS = {20: 5, 500: 15}  # in a minute
MOST_GAINED_KIB = 0
MOST_PSS = 1.25
MOST_PER_SERVICE_KIB = 4
WHY_AWAKE = "each thread that looks around once a second is a wake-up a second"
WHY_WARM = "to wake an idle processor takes most of it: the floor, which only wakes up twice a second, takes as much"
WHY_LARGE = "two bus connections and five threads against one of each, the log library, more code"


def sampled(supervisors, minutes, seconds):
    """What each has used up to the beginning of each minute and to the end of the last, all of them at the same time.

    Gives {name: usages}, and the moments.
    """
    usages, moments = {name: [] for name in supervisors}, []
    for minute in range(minutes + 1):
        if minute > 0:
            time.sleep(moments[0] + minute * seconds - time.monotonic())
        moments.append(time.monotonic())
        for name, pids in supervisors.items():
            usages[name].append(Usage.of(pids()))
    return usages, moments


@measurement("idle", f"{MINUTES} minutes with 20 and with 500 services in which nothing happens",
             "two threads that wake up once a second and do nothing")
def idle(quick):
    """All at the same time, so that a busy machine is the same for all."""
    for count in (20, 500):
        with contextlib.ExitStack() as stack:
            gateway = stack.enter_context(Gateway(slots=count))
            sleeper = stack.enter_context(subprocess.Popen([program("bare_sleeper")]))
            stack.callback(sleeper.kill)
            supervisors = {"ours": lambda daemon=gateway.daemon: [daemon.pid], "floor": lambda: [sleeper.pid]}
            for peer in (each for each in PEERS if count <= each.most):
                running = stack.enter_context(peer(count))
                running.started(60)
                supervisors[peer.name] = running.pids
            time.sleep(3)  # for what follows a start
            usages, moments = sampled(supervisors, MINUTES, 5 if quick else 60)
        yield from idle_rows(count, usages, moments)


def each_minute(usages, moments, what):
    """By how much that grew in each of the minutes, per second."""
    counts = [getattr(usage, what) for usage in usages]
    return [(after - before) / (end - begin)
            for before, after, begin, end in zip(counts, counts[1:], moments, moments[1:])]


def idle_rows(count, usages, moments):
    """The rows of one number of services."""
    wakeups = {name: each_minute(each, moments, "wakeups") for name, each in usages.items()}
    cpu_ms = {name: [per_second * 60 / 1e6 for per_second in each_minute(each, moments, "cpu_ns")]
              for name, each in usages.items()}

    def others(values, unit):
        ours = Spread.of(values["ours"]).middle
        return {name: beside(Spread.of(each).middle, ours, 1, unit) for name, each in values.items()
                if name not in ("ours", "floor")}

    ours = Spread.of(wakeups["ours"])
    yield Row(f"idle, {count} services: wake-ups a second", ours.show(), Spread.of(wakeups["floor"]).show(),
              ratios(wakeups["ours"], wakeups["floor"]).show(), *at_most(MOST_WAKEUPS, ours.middle),
              others(wakeups, ""), WHY_AWAKE)
    ours, floor = Spread.of(cpu_ms["ours"]), Spread.of(cpu_ms["floor"])
    yield Row(f"idle, {count} services: CPU in a minute", ours.show(1, " ms"), floor.show(1, " ms"),
              ratios(cpu_ms["ours"], cpu_ms["floor"]).show(), *at_most(MOST_CPU_MS[count], ours.middle, " ms"),
              others(cpu_ms, " ms"), WHY_WARM)
    first, last = usages["ours"][0], usages["ours"][-1]
    gained = last.anonymous_kib - first.anonymous_kib
    descriptors = last.descriptors - first.descriptors
    yield Row(f"idle, {count} services: gained in {moments[-1] - moments[0]:.0f} s",
              f"{gained} KiB, {descriptors} descriptors", "", "", "nothing",
              gained <= MOST_GAINED_KIB and descriptors <= 0)


def pss_kib(side, count):
    """The share of memory of the daemon, of a bare member of the bus, or of all processes of a peer."""
    if side == "ours":
        with Gateway(slots=count) as gateway:
            return Usage.of([gateway.daemon.pid]).pss_kib
    if side == "floor":
        with bare_member(count) as member:
            return Usage.of([member.program.pid]).pss_kib
    with side(count) as running:
        running.started(60)
        time.sleep(1)  # for its own processes to have come to rest
        return Usage.of(running.pids()).pss_kib


@measurement("memory", "the daemon's share of memory (PSS) with 20 and 500 services, and for each further one",
             "a program of the same libraries that has read the catalogue and is on the bus")
def memory(quick):
    """Each by itself: what two that run together share would count half for both."""
    kib = {}
    for number in repetitions(2, 2 if quick else 5, 300):
        for side in sides(number, ("ours", "floor", *PEERS)):
            name = side if isinstance(side, str) else side.name
            for count in sides(number, (FEW, MANY)):
                if isinstance(side, str) or count <= side.most:
                    kib.setdefault((name, count), []).append(pss_kib(side, count))
    each = {name: [(many - few) / (MANY - FEW) for few, many in zip(kib[name, FEW], kib[name, MANY])]
            for name, count in kib if count == MANY}

    def others(values, unit, digits):
        return {name: beside(Spread.of(theirs).middle, Spread.of(values["ours"]).middle, 1, unit, digits)
                for name, theirs in values.items() if name not in ("ours", "floor")}

    for count in (FEW, MANY):
        of_count = {name: values for (name, number), values in kib.items() if number == count}
        ratio = ratios(of_count["ours"], of_count["floor"])
        goal, met = at_most(MOST_PSS, ratio.middle) if count == FEW else ("", None)
        yield Row(f"memory, {count} services", *(Spread.of(of_count[side]).show(1, " KiB", 0) for side in SIDES),
                  ratio.show(), goal, met, others(of_count, " KiB", 0), WHY_LARGE)
    yield Row("memory, each further service", *(Spread.of(each[side]).show(1, " KiB") for side in SIDES), "",
              *at_most(MOST_PER_SERVICE_KIB, Spread.of(each["ours"]).middle, " KiB"), others(each, " KiB", 1))
    yield Chart("memory", "Memory of the supervisor, with one process for each service where it has such", "services",
                "PSS, KiB", {name: [[count, Spread.of(kib[name, count]).middle] for count in (FEW, MANY)]
                             for name in each if name != "floor"})
