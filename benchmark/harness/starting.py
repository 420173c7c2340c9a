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


def beside_fastest(name, ours, times, place, why):
    """The row of ours, by rounds, and of the fastest peer by one of the two figures, in the rounds that it was in."""
    fastest = min((peer for peer in times if peer not in ("ours", "floor", "fixed")),
                  key=lambda peer: median(times[peer], place))
    mine, theirs = zip(*((ours[number], pair[place]) for number, pair in times[fastest].items()))
    ahead = ratios(mine, theirs)
    return Row(f"{name}, {fastest}", show(mine), show(theirs), ahead.show(), "< 1", ahead.middle < 1, note=why)


def reasons(beyond, spans, wholes):
    """Why the whole takes longer than the floor's: what has the larger share of the difference, or both."""
    def more(ours, floor):
        return Spread.of(ours).middle - Spread.of(floor).middle

    each = more(spans["ours"], spans["floor"])
    once = more(beyond, wholes["floor"]) - each
    return "; ".join(([WHY_WHOLE] if once >= each / 2 else []) + ([WHY] if each >= once / 2 else []))


def show(values):
    """Milliseconds."""
    return Spread.of(values).show(1e3, " ms", 1)


def rows(count, times):
    """The lines of one number of services."""
    spans = {name: column(times[name], 0) for name in ("ours", "floor")}
    wholes = {name: column(times[name], 1) for name in ("ours", "floor")}

    beyond_of = {number: ours[1] - sum(times["fixed"][number]) for number, ours in times["ours"].items()}
    beyond = list(beyond_of.values())
    ratio = ratios(beyond, wholes["floor"])
    yield Row(f"start of {count} services, beyond bus and key-chain tool", show(beyond), show(wholes["floor"]),
              ratio.show(), *at_most(GOAL, ratio.middle), note=reasons(beyond, spans, wholes))
    yield beside_fastest("  beyond bus and key-chain tool, beside the fastest peer's whole", beyond_of, times, 1,
                         WHY_WHOLE)
    yield Row("  the whole", show(wholes["ours"]), peers=others(times, 1))
    yield Row("  key-chain tool and bus, alone",
              f"{show(column(times['fixed'], 0))} and {show(column(times['fixed'], 1))}")
    ratio = ratios(spans["ours"], spans["floor"])
    yield Row("  from the first service to the last", show(spans["ours"]), show(spans["floor"]), ratio.show(),
              *at_most(GOAL, ratio.middle), others(times, 0), WHY)
    span_of = {number: ours[0] for number, ours in times["ours"].items()}
    yield beside_fastest("  the same beside the fastest peer", span_of, times, 0, WHY)


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
