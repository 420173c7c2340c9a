"""The rows, in the order of the table."""

from . import deaths, ends, cycles, signals, bus, forks, hostile  # noqa: F401
