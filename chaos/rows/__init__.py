"""The rows, in the order of the table."""

from . import deaths, ends, cycles, signals, bus, forks, hangs, operators, hostile, memory, leaks, files, floods, clocks, \
    races, everything  # noqa: F401
