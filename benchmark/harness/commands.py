"""How long the command that shows the state takes, from start to end."""

import os

from gateway import ADDRESS, BIN, DAEMON, Failed, Gateway, program, run
from peers import PEERS
from registry import measurement
from table import Row, Spread, at_most, beside, ratios

SERVICES = 20
GOAL = 1.3
S6 = f"s6's command shows one service: a shell runs it {SERVICES} times"
OURS = [os.path.join(BIN, "quorvaned"), "status"]


def timed(pairs, first, second, environment=None):
    """Seconds that both commands take, in turn."""
    ours, other = [], []
    words = [program("command_timer"), str(pairs), *first, "--", *second]
    for line in run(words, 120, environment).splitlines():
        a_ns, b_ns, a_status, b_status = map(int, line.split())
        if a_status != 0 or b_status != 0:
            raise Failed(f"{first[0]} ended with {a_status}, {second[0]} with {b_status}")
        ours.append(a_ns / 1e9)
        other.append(b_ns / 1e9)
    return ours, other


def peer_times(quick):
    """Of each peer: (seconds of our command, seconds of its own), in turn beside each other."""
    times = {}
    for peer in PEERS:
        with peer(SERVICES) as running:
            running.started(60)
            ours, theirs = timed(5 if quick else 40, OURS, running.status(), running.environment)
            times[peer.name] = Spread.of(ours).middle, Spread.of(theirs).middle
    return times


@measurement("command", "the whole status command, 20 services", "dbus-send making the same call")
def command(quick):
    """Beside a general tool, then beside the peers' own commands."""
    tool = ["/usr/bin/dbus-send", "--print-reply", f"--bus={ADDRESS}", f"--dest={DAEMON}", "/iot/gateway/quorvaned",
            f"{DAEMON}.get_le_status"]
    with Gateway(slots=SERVICES):
        ours, floor = timed(80 if quick else 500, OURS, tool)
        peers = {name: beside(theirs, mine, 1e3, " ms") for name, (mine, theirs) in peer_times(quick).items()}
    ratio = ratios(ours, floor)
    yield Row("status command, whole", Spread.of(ours).show(1e3, " ms"), Spread.of(floor).show(1e3, " ms"),
              ratio.show(), *at_most(GOAL, ratio.middle), peers, remark=S6)
