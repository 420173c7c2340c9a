"""How fast services are started.

What a supervisor does once, before its first service (the daemon: its bus and the key-chain tool), is left out by
measuring from the first service's first instruction to the last one's; the row of the whole start has it in.
"""

from floor import Starter
from gateway import Failed, Gateway
from peers import PEERS
from registry import measurement
from slots import span_s
from table import Row, Spread, at_most, beside, ratios
from turns import repetitions, sides

GOAL = 1.15


def whole_s(supervisor):
    """Seconds from the execution of a supervisor to the last service's start."""
    return (max(supervisor.told)[0] - supervisor.begun_ns) / 1e9


def started(side, count):
    """(seconds from the first to the last service, seconds in all) of one start."""
    if side == "ours":
        with Gateway(slots=count) as gateway:
            return span_s(gateway.told), whole_s(gateway)
    with Starter(count) as starter:
        return span_s(starter.told), 0.0


def peers_started(count, quick):
    """The same of all peers, in turn; those that cannot start so many are left out."""
    spans, wholes = {}, {}
    able = [peer for peer in PEERS if count <= peer.most]
    for number in repetitions(1, 1 if quick else 5, 8 if quick else 40):
        for peer in sides(number, able):
            with peer(count) as running:
                running.told = running.started(60)
                spans.setdefault(peer.name, []).append(span_s(running.told))
                wholes.setdefault(peer.name, []).append(whole_s(running))
    return spans, wholes


def medians(times, ours):
    """The cells of the peers."""
    return {name: beside(Spread.of(values).middle, ours, 1e3, " ms", 1) for name, values in times.items()}


@measurement("start", "10, 100 and 500 services, from the first one's first instruction to the last one's",
             "a program that only forks and executes them")
def start(quick):
    """Both sides in turn, then the peers."""
    for count in (10, 100) if quick else (10, 100, 500):
        spans = {"ours": [], "floor": []}
        wholes = []
        for number in repetitions(2, 3 if quick else 15, 6 if quick else 45):
            for side in sides(number):
                span, whole = started(side, count)
                spans[side].append(span)
                if side == "ours":
                    wholes.append(whole)
        peer_spans, peer_wholes = peers_started(count, quick)
        ours, floor, ratio = Spread.of(spans["ours"]), Spread.of(spans["floor"]), ratios(spans["ours"], spans["floor"])
        yield Row(f"start of {count} services", ours.show(1e3, " ms", 1), floor.show(1e3, " ms", 1), ratio.show(),
                  *at_most(GOAL, ratio.middle), medians(peer_spans, ours.middle))
        first = min((Spread.of(values).middle for values in peer_spans.values()), default=float("inf"))
        if first == float("inf"):
            raise Failed("no peer has started")
        yield Row("  beside the fastest peer", ours.show(1e3, " ms", 1), f"{first * 1e3:.1f} ms",
                  f"{ours.middle / first:.2f}", "< 1", ours.middle < first)
        whole = Spread.of(wholes)
        yield Row("  with all that comes before the first", whole.show(1e3, " ms", 1),
                  peers=medians(peer_wholes, whole.middle))
