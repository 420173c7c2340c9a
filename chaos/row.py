"""What a row of the table is: a fault, how it is thrown, how often, and what was counted."""

import dataclasses
import os
import random
import sys
import time

from harness import processes, staging
from harness.gateway import Service

ROWS = {}


@dataclasses.dataclass
class Figure:
    """One count, with what it is out of and what it is to be."""

    what: str
    count: float
    of: float | None
    goal: str
    met: bool
    unit: str = ""

    def text(self):
        """As it stands in the table."""
        def number(value):
            return f"{value:,}" if isinstance(value, int) else f"{value:,.2f}".rstrip("0").rstrip(".")
        shown = number(self.count) + (f" {self.unit}" if self.unit else "")
        return f"{self.what}: {shown}" + (f" of {number(self.of)}" if self.of is not None else "")


@dataclasses.dataclass
class Row:
    """A fault and the function that throws it."""

    name: str
    fault: str
    how: str
    body: object
    short: int
    long: int
    limits: dict
    sizes: dict | None = None
    seeds: tuple = ()
    outside: bool = False


class Skipped(Exception):
    """What a row needs is not there; the text says what it is."""


def row(name, fault, how, *, short, long, seconds, **more):
    """Register a row: how much of it the short and the long form do, and how many seconds each may take. `sizes`: of
    the file systems of its private directories. `seeds`: its long form is run once for each. `outside`: it brings all
    its gateways up side by side, or by other programs, and needs no namespaces of its own."""
    def register(body):
        ROWS[name] = Row(name, fault, how, body, short, long, dict(zip(("short", "long"), seconds)), **more)
        return body
    return register


class Run:
    """What a row's function is given: how much to do, chance, and gateways to do it to."""

    def __init__(self, make_gateway, amount, seed, is_long, quiet=False):
        self.gateway = make_gateway
        self.amount = amount
        self.is_long = is_long
        self.seed = seed
        self.chance = random.Random(seed)
        self._quiet = quiet
        self._told = time.monotonic()

    @staticmethod
    def preload(name):
        """The path of a library of chaos/preload."""
        path = os.path.join(staging.build_directory(), "chaos", "preload", name + ".so")
        assert os.path.exists(path), f"{path} is missing: build chaos_preload"
        return path

    def progress(self, done, text=""):
        """Tell how far it is, now and then."""
        if not self._quiet and time.monotonic() - self._told >= 10:
            self._told = time.monotonic()
            print(f"    {done:,} of {self.amount:,} {text}", file=sys.stderr, flush=True)


def sleepers(count):
    """That many supervised services that do nothing but live: s0, s1, ..."""
    return [Service(f"s{number}", monitor=1, program="exec sleep infinity") for number in range(count)]


def none(what, count, of):
    """A count that must be zero."""
    return Figure(what, count, of, "0", count == 0)


def at_most(what, value, limit, unit):
    """A measure with an upper bound."""
    return Figure(what, value, None, f"at most {limit:g} {unit}", value <= limit, unit)


def at_least(what, count, of):
    """How much was done: the row is worth what it has done."""
    return Figure(what, count, None, f"at least {of:,}", count >= of)


class Usage:
    """What a daemon uses at a moment."""

    def __init__(self, daemon):
        self.memory = int(processes.status_field(daemon.pid, "VmRSS").split()[0])
        self.descriptors = len(os.listdir(f"/proc/{daemon.pid}/fd"))
        self.threads = int(processes.status_field(daemon.pid, "Threads"))

    def gained(self, daemon, slack=0):
        """The figures of what it has gained since; slack in KiB of memory."""
        now = Usage(daemon)
        return [at_most("resident memory gained", max(0, now.memory - self.memory), slack, "KiB"),
                none("descriptors gained", max(0, now.descriptors - self.descriptors), now.descriptors),
                none("threads gained", max(0, now.threads - self.threads), now.threads)]
