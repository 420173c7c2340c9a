"""How each cost grows with the number of services."""

import concurrent.futures
import math
import os
import statistics
import time

from floor import Starter
from gateway import DAEMON, LOG, Gateway, program, run, until
from registry import measurement
from slots import span_s
from stopping import Watch, logged_ns, reboot
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


# The unit of what is so large before the first service that the exponent alone would hide what each further one adds.
EACH = {"status": "us", "memory": "KiB"}
MORE_STOPS = {10: 5, 100: 3}  # short ones, which differ the most: of each round their median counts


def ours_stop_us(gateway):
    """Microseconds for each service from the line that announces the stop to the last one's end."""
    watch = Watch(gateway.slots)
    line = "stop business service"
    # The log begins anew under so many lines: its line is found only by one who looks from the moment of the request.
    os.truncate(LOG, 0)
    with concurrent.futures.ThreadPoolExecutor(1) as beside:
        announced = beside.submit(until, lambda: logged_ns(line), 10, line)
        reboot()
        begin = announced.result()
    return (watch.ends_ns()[1] - begin) / 1e3 / gateway.slots.count


def floor_stop_us(starter):
    """The same from the first signal."""
    watch = Watch(starter.slots)
    begin = starter.end_all()
    return (watch.ends_ns()[1] - begin) / 1e3 / starter.slots.count


def stop_us(side, count, first):
    """The median of that one and of the further stops with so many services."""
    values = [first]
    for _ in range(MORE_STOPS.get(count, 1) - 1):
        if side == "ours":
            with Gateway(slots=count) as gateway:
                values.append(ours_stop_us(gateway))
        else:
            with Starter(count) as starter:
                values.append(floor_stop_us(starter))
    return statistics.median(values)


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
        costs = {"start": span_s(gateway.told) / (count - 1) * 1e6, "status": statistics.median(trips),
                 "cpu": (after.cpu_ns - before.cpu_ns) / 1e6 * 60 / seconds, "memory": after.pss_kib,
                 "stop": ours_stop_us(gateway)}
    return {**costs, "stop": stop_us("ours", count, costs["stop"])}


def floor_of(count, _quick):
    """Those that the floor has."""
    with Starter(count) as starter:
        start, stop = span_s(starter.told) / (count - 1) * 1e6, floor_stop_us(starter)
    return {"start_floor": start, "stop_floor": stop_us("floor", count, stop)}


def exponent(points):
    """The slope in a picture of two logarithmic axes: 0 does not grow, 1 grows like the number."""
    logs = [(math.log(x), math.log(max(y, 1e-9))) for x, y in points]
    return slope(logs)


def slope(points):
    """By how much y grows with x, by least squares."""
    return statistics.linear_regression(*zip(*points)).slope


@measurement("growth", "each cost with 10 to 2,000 services", "itself with fewer")
def growth(quick):
    """One picture, and a line for each cost."""
    counts = COUNTS[:3] if quick else COUNTS
    costs = {cost: {count: [] for count in counts} for cost in COSTS}
    for number in repetitions(1, 1 if quick else 5, 450):
        for count in sides(number, counts):
            for measure in sides(number, (ours_of, floor_of)):
                for cost, value in measure(count, quick).items():
                    costs[cost][count].append(value)
    rounds = {cost: [list(zip(counts, values)) for values in zip(*of_count.values())]
              for cost, of_count in costs.items()}
    exponents = {cost: Spread.of([exponent(points) for points in of_round]) for cost, of_round in rounds.items()}
    each = {cost: Spread.of([slope(points) for points in rounds[cost]]) for cost in EACH}

    def grows(cost, whole):
        more = ""
        if cost in EACH:
            more = f", {each[cost].show() if whole else format(each[cost].middle, '.2f')} {EACH[cost]} each"
        return f"n^{exponents[cost].show() if whole else format(exponents[cost].middle, '.2f')}{more}"

    def ends(cost):
        return " to ".join(Spread.of(costs[cost][count]).show(1, "", 1) for count in (counts[0], counts[-1]))

    for cost, label in COSTS.items():
        if not cost.endswith("_floor"):
            yield Row(f"{label}, {counts[0]} to {counts[-1]:,} services", ends(cost),
                      ends(cost + "_floor") if cost + "_floor" in COSTS else "", grows(cost, True))
    yield Chart("growth", "Costs against the number of services", "services", "see the legend",
                {f"{label}: {grows(cost, False)}":
                 [[count, Spread.of(values).middle] for count, values in costs[cost].items()]
                 for cost, label in COSTS.items()})
