"""The rows, in the order of the table, whatever they import from each other."""

from row import ROWS

from . import (bus, clocks, cycles, deaths, ends, everything, files, floods, forks, hangs, hostile, leaks, memory,
               operators, races, signals)

ORDER = (deaths, ends, cycles, signals, bus, forks, hangs, operators, leaks, hostile, memory, files, floods, clocks,
         races, everything)

for name in sorted(ROWS, key=lambda name: [module.__name__ for module in ORDER].index(ROWS[name].body.__module__)):
    ROWS[name] = ROWS.pop(name)
