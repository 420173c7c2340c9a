"""What comes over the bus, and the start of services that take a name: beside programs of libdbus and nothing else."""

import os
import shutil
import statistics
import subprocess

from floor import Bus
from gateway import (BARE_ANSWERER, BARE_RECEIVER, DAEMON, RECORDS, WATCHDOG, Failed, Gateway, cpu_s,
                     program, run, until)
from registry import measurement
from table import Row, Spread, at_least, at_most, percentile, ratios
from turns import repetitions, sides

FLOOD_RATE = 20000


@measurement("feed", "how fast and at what cost keep-alive signals are taken in", "a receiver that counts them")
def feed(quick):
    """100,000 unicast keep-alives, to the daemon and to a receiver that only counts."""
    count = 20000 if quick else 100000
    rates = {"ours": [], "floor": []}
    costs = {"ours": [], "floor": []}
    with Gateway(named=20) as gateway:
        bare = gateway.beside("bare_receiver", BARE_RECEIVER, owns=BARE_RECEIVER)
        receivers = {"ours": (WATCHDOG, gateway.daemon.pid), "floor": (BARE_RECEIVER, bare.pid)}
        for number in repetitions(3, 4 if quick else 12, 10 if quick else 100):
            for side in sides(number):
                name, pid = receivers[side]
                before = cpu_s(pid)
                sent, _, total_ns = map(int, run([program("signal_sender"), name, str(count), "0", *gateway.names],
                                                 120).split())
                costs[side].append((cpu_s(pid) - before) / sent)
                rates[side].append(sent / total_ns * 1e9)
    rate, cost = ratios(rates["ours"], rates["floor"]), ratios(costs["ours"], costs["floor"])

    def show(values, scale, unit):
        return Spread.of(values).show(scale, unit, 1)

    yield Row("feedDog: signals per second", show(rates["ours"], 1e-3, " k"), show(rates["floor"], 1e-3, " k"),
              rate.show(), *at_least(0.9, rate.middle))
    yield Row("feedDog: CPU per signal", show(costs["ours"], 1e6, " us"), show(costs["floor"], 1e6, " us"),
              cost.show(), *at_most(1.5, cost.middle))


def round_trips(gateway, pairs, pause_us, within):
    """Round trips in seconds, of the daemon and of the service that answers with a constant."""
    ours, bare = [], []
    arguments = [program("caller"), str(pairs), str(pause_us), DAEMON, BARE_ANSWERER]
    for line in run(arguments, within).splitlines():
        a_ns, b_ns, a_length, b_length = map(int, line.split())
        if a_length != b_length:
            raise Failed("the answers differ in length: a service has come or gone")
        ours.append(a_ns / 1e9)
        bare.append(b_ns / 1e9)
    return ours, bare


@measurement("report", "the round trip of get_le_status, quiet and under a flood",
             "a service that answers with a constant")
def report(quick):
    """get_le_status, quiet and under a flood of keep-alives."""
    yield from report_of(20, quick)
    yield from report_of(1000, quick)


def report_of(services, quick):
    """The same with so many services."""
    with Gateway(idle=services - 20, named=20) as gateway:
        text = gateway.report()
        if text.count("\n") != services:
            raise Failed(f"{text.count(chr(10))} services instead of {services}")
        with open("/tmp/report", "w", encoding="utf-8") as file:
            file.write(text)
        gateway.beside("bare_answerer", BARE_ANSWERER, "/tmp/report", owns=BARE_ANSWERER)
        ours, bare = round_trips(gateway, 400 if quick else 3000, 0, 60)
        ratio = ratios(ours, bare)
        name = f"get_le_status, {services:,} services"
        yield Row(name, Spread.of(ours).show(1e6, " us", 0), Spread.of(bare).show(1e6, " us", 0), ratio.show(),
                  *at_most(1.3, ratio.middle))
        yield flood(gateway, name, quick)


def flood(gateway, name, quick):
    """The round trips while keep-alives pour into the daemon."""
    seconds = 20 if quick else 60
    sender = gateway.beside("signal_sender", WATCHDOG, str(FLOOD_RATE * seconds), str(FLOOD_RATE), *gateway.names)
    ours, bare = round_trips(gateway, 400 if quick else 2000, 1000, seconds)
    sender.terminate()
    try:
        sent, sent_ns, _ = map(int, sender.communicate(timeout=60)[0].split())
    except (ValueError, subprocess.TimeoutExpired):
        raise Failed("the flood was not taken") from None
    rate = sent / sent_ns * 1e6

    def show(values):
        return f"p50 {statistics.median(values) * 1e3:.2f} p99 {percentile(values, 99) * 1e3:.2f} ms"

    p99 = percentile(ours, 99)
    return Row(f"  under {rate:.1f} k signals per second", show(ours), show(bare),
               f"{p99 / percentile(bare, 99):.2f}", "p99 < 20 ms", p99 < 0.020)


def gaps(directory, count):
    """Seconds from each service's asking for its bus name to the first instructions of the next service.

    The name is on the bus a little after the question and before the answer: this takes the worse end.
    """
    records = []
    for number in range(count):
        path = f"{directory}/{number}"
        # A service writes it after it has its name, so the last ones may still be on their way.
        until(lambda file=path: os.path.exists(file) and os.path.getsize(file) > 0, 10, "the services' records")
        with open(path, encoding="ascii") as file:
            records.append([int(word) for word in file.read().split()])
    return [(after[0] - before[1]) / 1e9 for before, after in zip(records, records[1:])]


def bare_supervisor(services):
    """On a bus of its own, so that the daemon has no part in it."""
    Gateway()  # for its files
    shutil.rmtree(RECORDS, ignore_errors=True)
    os.makedirs(RECORDS)
    return Bus([program("bare_supervisor"), str(services), program("stamp"), program("named_service"), RECORDS,
                "iot.bench.service"])


@measurement("names", "from a bus name to the next service's start", "a bare supervisor that waits for names")
def names(quick):
    """The daemon's start of many services, beside a supervisor that does nothing else."""
    services = 40
    ours, bare = [], []
    for number in repetitions(2, 2 if quick else 8, 12 if quick else 60):
        for side in sides(number):
            if side == "ours":
                with Gateway(stamped=services):
                    ours += gaps(RECORDS, services)
                continue
            with bare_supervisor(services) as floor:
                if floor.program.stdout.readline() != "done\n":
                    raise Failed("the bare supervisor stopped")
                bare += gaps(RECORDS, services)
    middle = statistics.median(ours)
    ratio = ratios(ours, bare, groups=8)
    yield Row("bus name, to the next start", Spread.of(ours).show(1e3, " ms"), Spread.of(bare).show(1e3, " ms"),
              ratio.show(), "< 2 ms", middle < 0.002)
