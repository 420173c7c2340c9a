"""How fast services are started.

Two questions, two rows: what a start takes in all, without what it does once and others do not do (the bus and the
key-chain tool, each run alone in the same turns); and what the services themselves take, from the first one's first
instruction to the last one's.
"""

from floor import Starter, fixed_s
from gateway import Gateway
from peers import PEERS
from registry import measurement
from slots import span_s
from table import Chart, Row, Spread, at_most, beside, ratios
from turns import repetitions, sides

GOAL = 1.15
# For each number of services: the most rounds, and the seconds for all of them.
ROUNDS = {10: (60, 150), 100: (20, 180), 500: (16, 150)}
SELDOM = {"runit": 2, "supervisor": 2, "monit": 4}  # slow ones take part in every so manyth round
WHY = "each service has two lines in the log, and its child drops the daemon's signals and descriptors first"
WHY_WHOLE = ("the loader, the catalogue, the directories, the pid file, the threads and two connections to the bus "
             "come once, and count the more the fewer services there are")


def started(side, count):
    """(seconds from the first to the last service, seconds in all) of one start."""
    if side == "ours":
        with Gateway(slots=count) as gateway:
            return span_s(gateway.told), gateway.slots.whole_s(gateway.told)
    if side == "floor":
        with Starter(count) as starter:
            return span_s(starter.told), starter.slots.whole_s(starter.told)
    if side == "fixed":
        return fixed_s()
    with side(count) as running:
        told = running.started(120)
        return span_s(told), running.slots.whole_s(told)


def rounds(count, quick):
    """What `started` gives for everybody, measured in turn: {name: {round: ...}}."""
    able = [peer for peer in PEERS if count <= peer.most]
    times = {}
    for number in repetitions(2, *((3, 8) if quick else ROUNDS[count])):
        peers = [peer for peer in able if number % SELDOM.get(peer.name, 1) == 0]
        for side in sides(number, ("fixed", "ours", "floor", *peers)):
            name = side if isinstance(side, str) else side.name
            times.setdefault(name, {})[number] = started(side, count)
    return times


def others(times, place):
    """The cells of the peers."""
    ours = median(times["ours"], place)
    return {name: beside(median(values, place), ours, 1e3, " ms", 1) for name, values in times.items()
            if name not in ("ours", "floor", "fixed")}


def column(values, place):
    """One of the two figures of all rounds."""
    return [pair[place] for pair in values.values()]


def median(values, place):
    """The middle one of one of the two figures."""
    return Spread.of(column(values, place)).middle


def rows(count, times):
    """The lines of one number of services."""
    spans = {name: column(times[name], 0) for name in ("ours", "floor")}
    wholes = {name: column(times[name], 1) for name in ("ours", "floor")}

    def show(values):
        return Spread.of(values).show(1e3, " ms", 1)

    beyond = [whole - sum(fixed) for whole, fixed in zip(wholes["ours"], times["fixed"].values())]
    ratio = ratios(beyond, wholes["floor"])
    yield Row(f"start of {count} services, beyond bus and key-chain tool", show(beyond), show(wholes["floor"]),
              ratio.show(), *at_most(GOAL, ratio.middle), note=WHY_WHOLE)
    yield Row("  the whole", show(wholes["ours"]), peers=others(times, 1))
    yield Row("  key-chain tool and bus, alone",
              f"{show(column(times['fixed'], 0))} and {show(column(times['fixed'], 1))}")
    ratio = ratios(spans["ours"], spans["floor"])
    yield Row("  from the first service to the last", show(spans["ours"]), show(spans["floor"]), ratio.show(),
              *at_most(GOAL, ratio.middle), others(times, 0), WHY)
    fastest = min((name for name in times if name not in ("ours", "floor", "fixed")),
                  key=lambda name: median(times[name], 0))
    pairs = [(times["ours"][number][0], theirs[0]) for number, theirs in times[fastest].items()]
    ahead = ratios(*zip(*pairs))
    yield Row(f"  the same beside the fastest peer, {fastest}", show([ours for ours, _ in pairs]),
              show([theirs for _, theirs in pairs]), ahead.show(), "< 1", ahead.middle < 1)


@measurement("start", "10, 100 and 500 services: the whole start beyond the bus and the key-chain tool, and from the "
             "first service to the last", "a program that only forks (`vfork`) and executes them")
def start(quick):
    """Everybody in turn."""
    lines = {}
    for count in (10, 100) if quick else (10, 100, 500):
        times = rounds(count, quick)
        yield from rows(count, times)
        for name in times:
            if name != "fixed":
                lines.setdefault(name, []).append([count, median(times[name], 0) * 1e3])
    yield Chart("start", "From the first service's start to the last one's", "services", "ms", lines)
