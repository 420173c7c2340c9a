"""How fast services are started.

What a supervisor does once, before its first service (the daemon: its bus and the key-chain tool), is left out by
measuring from the first service's first instruction to the last one's; the row of the whole start has it in.
"""

from floor import Starter
from gateway import Gateway
from peers import PEERS
from registry import measurement
from slots import span_s
from table import Chart, Row, Spread, at_most, beside, ratios
from turns import repetitions, sides

GOAL = 1.15
# Seconds for all repetitions, and how often each of the slow peers takes part.
BUDGETS = {10: 40, 100: 90, 500: 100}
SELDOM = {"supervisor": 3, "monit": 2}
WHY = "each service has two lines in the log, and its child drops the daemon's signals and descriptors first"


def whole_s(supervisor):
    """Seconds from the execution of a supervisor to the last service's start."""
    return (max(supervisor.told)[0] - supervisor.begun_ns) / 1e9


def started(side, count):
    """(seconds from the first to the last service, seconds in all) of one start."""
    if side == "ours":
        with Gateway(slots=count) as gateway:
            return span_s(gateway.told), whole_s(gateway)
    if side == "floor":
        with Starter(count) as starter:
            return span_s(starter.told), 0.0
    with side(count) as running:
        running.told = running.started(120)
        return span_s(running.told), whole_s(running)


def rounds(count, quick):
    """(seconds from the first to the last, seconds in all) of everybody by name, measured in turn."""
    able = [peer for peer in PEERS if count <= peer.most]
    spans, wholes = {}, {}
    for number in repetitions(2, 3 if quick else 15, 8 if quick else BUDGETS[count]):
        peers = [peer for peer in able if number < (1 if quick and peer.name in SELDOM else SELDOM.get(peer.name, 99))]
        for side in sides(number, ("ours", "floor", *peers)):
            name = side if isinstance(side, str) else side.name
            span, whole = started(side, count)
            spans.setdefault(name, []).append(span)
            wholes.setdefault(name, []).append(whole)
    return spans, wholes


def others(times):
    """The cells of the peers."""
    ours = Spread.of(times["ours"]).middle
    return {name: beside(Spread.of(values).middle, ours, 1e3, " ms", 1) for name, values in times.items()
            if name not in ("ours", "floor")}


def rows(count, spans, wholes):
    """The lines of one number of services."""
    ours, floor, ratio = Spread.of(spans["ours"]), Spread.of(spans["floor"]), ratios(spans["ours"], spans["floor"])
    yield Row(f"start of {count} services", ours.show(1e3, " ms", 1), floor.show(1e3, " ms", 1), ratio.show(),
              *at_most(GOAL, ratio.middle), others(spans), WHY)
    fastest = min((name for name in spans if name not in ("ours", "floor")),
                  key=lambda name: Spread.of(spans[name]).middle)
    ahead = ratios(spans["ours"][:len(spans[fastest])], spans[fastest])
    yield Row(f"  beside the fastest peer, {fastest}", ours.show(1e3, " ms", 1),
              Spread.of(spans[fastest]).show(1e3, " ms", 1), ahead.show(), "< 1", ahead.middle < 1)
    yield Row("  with all that comes before the first", Spread.of(wholes["ours"]).show(1e3, " ms", 1),
              peers=others(wholes))


@measurement("start", "10, 100 and 500 services, from the first one's first instruction to the last one's",
             "a program that only forks and executes them")
def start(quick):
    """Everybody in turn."""
    lines = {}
    for count in (10, 100) if quick else (10, 100, 500):
        spans, wholes = rounds(count, quick)
        yield from rows(count, spans, wholes)
        for name, values in spans.items():
            lines.setdefault(name, []).append([count, Spread.of(values).middle * 1e3])
    yield Chart("start", "From the first service's start to the last one's", "services", "ms", lines)
