"""What can be measured, by name.

A measurement is a generator in any module of this folder. It makes itself known, makes both sides do the same in turn,
and gives rows of the table, and charts where a picture tells more:

    from registry import measurement
    from table import Row, Spread, at_most, ratios

    @measurement("scan", "a look through /proc with 2,000 processes", "the same calls in a bare loop")
    def scan(quick):
        ours, floor = [...], [...]  # seconds, in turn
        ratio = ratios(ours, floor)
        yield Row("/proc scan, 2,000 processes", Spread.of(ours).show(1e3, " ms"), Spread.of(floor).show(1e3, " ms"),
                  ratio.show(), *at_most(1.2, ratio.middle))

`quick` asks for seconds instead of minutes. What cannot be measured raises gateway.Failed. Modules are found by
themselves: nothing else has to be changed for a new one.
"""

import dataclasses
import importlib
import os
import typing


@dataclasses.dataclass
class Measurement:
    """One measurement, as the command line knows it."""

    name: str
    what: str
    against: str
    run: typing.Callable


MEASUREMENTS = {}
# The order of the table; what is not named here comes behind it, by module and place.
ORDER = ("start", "process", "names", "death", "replacement", "stop", "idle", "memory", "feed", "report", "command",
         "executable", "line", "scan", "growth")


def measurement(name, what, against):
    """Make a generator known under a name of one word: what it measures, and against what."""

    def keep(function):
        if name in MEASUREMENTS:
            raise ValueError(f"two measurements are called {name}")
        MEASUREMENTS[name] = Measurement(name, what, against, function)
        return function

    return keep


def load():
    """Read the modules of this folder; gives all measurements in the order of the table."""
    folder = os.path.dirname(os.path.abspath(__file__))
    for file in sorted(os.listdir(folder)):
        module, extension = os.path.splitext(file)
        if extension == ".py" and module != "main":
            importlib.import_module(module)
    order = {name: place for place, name in enumerate(ORDER)}
    return dict(sorted(MEASUREMENTS.items(), key=lambda item: order.get(item[0], len(order))))
