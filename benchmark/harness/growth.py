"""How each cost grows with the number of services."""

import math
import statistics
import time

from floor import Starter
from gateway import DAEMON, Gateway, program, run
from registry import measurement
from slots import span_s
from stopping import Watch, reboot
from table import Chart, Row, Spread
from turns import repetitions, sides
from usage import Usage

COUNTS = (10, 100, 500, 1000, 2000)
COSTS = {
    "start": "start of one, us",
    "start_floor": "start of one, floor, us",
    "stop": "stop of one, us",
    "stop_floor": "stop of one, floor, us",
    "status": "get_le_status, us",
    "cpu": "idle CPU, ms in a minute",
    "memory": "memory, KiB",
}


def stop_us(slots, stop):
    """Microseconds from one end to the next; not from the log, which begins anew under so many lines."""
    watch = Watch(slots)
    stop()
    first, last = watch.ends_ns()
    return (last - first) / 1e3 / (slots.count - 1)


def ours_of(count, quick):
    """All costs of the daemon with so many services."""
    with Gateway(slots=count) as gateway:
        time.sleep(2)  # for what follows a start
        before = Usage.of([gateway.daemon.pid])
        begin = time.monotonic()
        time.sleep(5 if quick else 10)
        after, seconds = Usage.of([gateway.daemon.pid]), time.monotonic() - begin
        words = [program("caller"), "50" if quick else "300", "0", DAEMON, DAEMON]
        trips = [int(line.split()[0]) / 1e3 for line in run(words, 60).splitlines()]
        return {"start": span_s(gateway.told) / (count - 1) * 1e6, "status": statistics.median(trips),
                "cpu": (after.cpu_ns - before.cpu_ns) / 1e6 * 60 / seconds, "memory": after.pss_kib,
                "stop": stop_us(gateway.slots, reboot)}


def floor_of(count, _quick):
    """Those that the floor has."""
    with Starter(count) as starter:
        return {"start_floor": span_s(starter.told) / (count - 1) * 1e6,
                "stop_floor": stop_us(starter.slots, starter.end_all)}


def exponent(points):
    """The slope in a picture of two logarithmic axes: 0 does not grow, 1 grows like the number."""
    logs = [(math.log(x), math.log(max(y, 1e-9))) for x, y in points]
    slope, _ = statistics.linear_regression(*zip(*logs))
    return slope


@measurement("growth", "each cost with 10 to 2,000 services", "itself with fewer")
def growth(quick):
    """One picture, and a line for each cost."""
    counts = COUNTS[:3] if quick else COUNTS
    costs = {cost: {count: [] for count in counts} for cost in COSTS}
    for number in repetitions(1, 1 if quick else 5, 300):
        for count in sides(number, counts):
            for measure in sides(number, (ours_of, floor_of)):
                for cost, value in measure(count, quick).items():
                    costs[cost][count].append(value)
    exponents = {cost: Spread.of([exponent(list(zip(counts, values))) for values in zip(*of_count.values())])
                 for cost, of_count in costs.items()}

    def ends(cost):
        return " to ".join(Spread.of(costs[cost][count]).show(1, "", 1) for count in (counts[0], counts[-1]))

    for cost, label in COSTS.items():
        if not cost.endswith("_floor"):
            yield Row(f"{label}, {counts[0]} to {counts[-1]:,} services", ends(cost),
                      ends(cost + "_floor") if cost + "_floor" in COSTS else "", "n^" + exponents[cost].show())
    yield Chart("growth", "Costs against the number of services", "services", "see the legend",
                {f"{label}: n^{exponents[cost].middle:.2f}":
                 [[count, Spread.of(values).middle] for count, values in costs[cost].items()]
                 for cost, label in COSTS.items()})
