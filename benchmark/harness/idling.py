"""What supervision costs while nothing happens: processor time, wake-ups, memory."""

import contextlib
import statistics
import subprocess
import time

from floor import Member
from gateway import Gateway, program
from peers import PEERS
from registry import measurement
from table import Chart, Row, at_most, beside
from usage import Usage

MOST_WAKEUPS = 2.2
MOST_CPU_MS = {20: 5, 500: 15}  # in a minute
MOST_GAINED_KIB = 0
MOST_PSS = 1.25
MOST_PER_SERVICE_KIB = 4
WHY_AWAKE = "each thread that looks around once a second is a wake-up a second"
WHY_WARM = "to wake an idle processor takes most of it, as the floor shows"
WHY_LARGE = "two bus connections and five threads against one of each, the log library, twice as much code"


def sampled(supervisors, seconds):
    """What each uses in so many seconds, all of them at the same time: {name: (before, after)}."""
    before = {name: Usage.of(pids()) for name, pids in supervisors.items()}
    begin = time.monotonic()
    time.sleep(seconds)
    after = {name: Usage.of(pids()) for name, pids in supervisors.items()}
    return {name: (before[name], after[name]) for name in supervisors}, time.monotonic() - begin


@measurement("idle", "a minute with 20 and with 500 services in which nothing happens",
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
            samples, seconds = sampled(supervisors, 10 if quick else 60)
        yield from idle_rows(count, samples, seconds)


def idle_rows(count, samples, seconds):
    """The rows of one number of services."""
    wakeups = {name: (after.wakeups - before.wakeups) / seconds for name, (before, after) in samples.items()}
    cpu = {name: (after.cpu_ns - before.cpu_ns) / 1e6 * 60 / seconds for name, (before, after) in samples.items()}

    def others(values, unit, digits):
        return {name: beside(value, values["ours"], 1, unit, digits) for name, value in values.items()
                if name not in ("ours", "floor")}

    yield Row(f"idle, {count} services: wake-ups a second", f"{wakeups['ours']:.2f}", f"{wakeups['floor']:.2f}", "",
              *at_most(MOST_WAKEUPS, wakeups["ours"]), others(wakeups, "", 2), WHY_AWAKE)
    yield Row(f"idle, {count} services: CPU in a minute", f"{cpu['ours']:.2f} ms", f"{cpu['floor']:.2f} ms",
              f"{cpu['ours'] / cpu['floor']:.2f}", *at_most(MOST_CPU_MS[count], cpu["ours"], " ms"),
              others(cpu, " ms", 2), WHY_WARM)
    before, after = samples["ours"]
    gained = after.anonymous_kib - before.anonymous_kib
    descriptors = after.descriptors - before.descriptors
    yield Row(f"idle, {count} services: gained", f"{gained} KiB, {descriptors} descriptors", "", "", "nothing",
              gained <= MOST_GAINED_KIB and descriptors <= 0)


def ours_kib(count):
    """The daemon's share of memory."""
    with Gateway(slots=count) as gateway:
        return Usage.of([gateway.daemon.pid]).pss_kib


def floor_kib(count):
    """That of a bare member of the bus."""
    with Member(count) as member:
        return Usage.of([member.pid]).pss_kib


def peer_kib(peer, count):
    """That of all processes of a peer."""
    with peer(count) as running:
        running.started(60)
        time.sleep(1)  # for its own processes to have come to rest
        return Usage.of(running.pids()).pss_kib


@measurement("memory", "the daemon's share of memory (PSS) with 20 services, and for each further one",
             "a program of the same libraries that has read the catalogue and is on the bus")
def memory(quick):
    """Each by itself: what two that run together share would count half for both."""
    rounds = 2 if quick else 5
    ours, floor = [], []
    for _ in range(rounds):
        ours.append(ours_kib(20))
        floor.append(floor_kib(20))
    many = statistics.median(ours_kib(500) for _ in range(rounds))
    few, least = statistics.median(ours), statistics.median(floor)
    peers_few = {peer.name: peer_kib(peer, 20) for peer in PEERS}
    peers_many = {peer.name: peer_kib(peer, 500) for peer in PEERS if peer.most >= 500}
    yield Row("memory, 20 services", f"{few:.0f} KiB", f"{least:.0f} KiB", f"{few / least:.2f}",
              *at_most(MOST_PSS, few / least),
              {name: beside(value, few, 1, " KiB", 0) for name, value in peers_few.items()}, WHY_LARGE)
    each = (many - few) / 480
    yield Row("memory, each further service", f"{each:.2f} KiB", "", "", *at_most(MOST_PER_SERVICE_KIB, each, " KiB"),
              {name: beside((value - peers_few[name]) / 480, each, 1, " KiB", 1)
               for name, value in peers_many.items()})
    lines = {"ours": [[20, few], [500, many]]}
    lines.update({name: [[20, peers_few[name]], [500, value]] for name, value in peers_many.items()})
    yield Chart("memory", "Memory of the supervisor, with one process for each service where it has such", "services",
                "PSS, KiB", lines)
