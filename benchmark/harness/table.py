"""What was measured, as text."""

import dataclasses
import statistics
import typing

PEERS = ("runit", "s6", "daemontools", "supervisor", "monit")


@dataclasses.dataclass
class Row:
    """One comparison: a line of the table."""

    name: str
    ours: str
    floor: str = ""  # the least that can do the same
    ratio: str = ""  # ours to the floor, of neighbouring measurements
    goal: str = ""  # without a goal the row only tells
    met: typing.Optional[bool] = None
    peers: dict = dataclasses.field(default_factory=dict)  # by the names above
    note: str = ""  # why the goal is missed, told where it is
    remark: str = ""  # a reservation, told in any case


@dataclasses.dataclass
class Chart:
    """A picture: some series over the same axis."""

    name: str  # of the file
    title: str
    x: str
    y: str
    series: dict  # label: [[x, y], ...]
    both_logarithmic: bool = True


@dataclasses.dataclass
class Spread:
    """The median of repeated measurements, and what half of them lie within."""

    middle: float
    low: float
    high: float

    @classmethod
    def of(cls, values):
        """Of at least one value."""
        if len(values) < 2:
            return cls(values[0], values[0], values[0])
        low, _, high = statistics.quantiles(values, n=4, method="inclusive")
        return cls(statistics.median(values), low, high)

    def show(self, scale=1.0, unit="", digits=2):
        """median (low..high)"""
        low, high = self.low * scale, self.high * scale
        return f"{self.middle * scale:.{digits}f}{unit} ({low:.{digits}f}..{high:.{digits}f})"


def ratios(ours, floor, groups=20):
    """The ratio of the medians of each group of neighbouring measurements."""
    size = max(1, len(ours) // groups)
    pairs = [(ours[begin:begin + size], floor[begin:begin + size])
             for begin in range(0, len(ours) - size + 1, size)]
    return Spread.of([statistics.median(a) / statistics.median(b) for a, b in pairs])


def compared(name, ours, floor, limit, scale=1e6, unit=" us", digits=0, note="", remark=""):
    """The row of two times whose ratio has a limit; without a limit it only tells."""
    ratio = ratios(ours, floor)
    goal, met = at_most(limit, ratio.middle) if limit else ("", None)
    return Row(name, Spread.of(ours).show(scale, unit, digits), Spread.of(floor).show(scale, unit, digits),
               ratio.show(), goal, met, note=note, remark=remark)


def at_most(limit, value, unit=""):
    """A goal and whether it is met."""
    return f"<= {limit:g}{unit}", value <= limit


def at_least(limit, value, unit=""):
    """A goal and whether it is met."""
    return f">= {limit:g}{unit}", value >= limit


def beside(value, ours, scale=1.0, unit="", digits=2):
    """What a peer takes, and how many times ours that is."""
    times = value / ours if ours > 0 else float("inf")
    return f"{value * scale:.{digits}f}{unit} ({times:.{1 if times < 100 else 0}f} x)"


def percentile(values, percent):
    """The value that this many percent of them do not exceed."""
    ordered = sorted(values)
    return ordered[min(len(ordered) - 1, len(ordered) * percent // 100)]


TITLES = ("name", "ours", "floor", "ratio", "goal", "met", *PEERS)
VERDICTS = {None: "", True: "met", False: "NOT met"}


def cells(rows):
    """The texts of all lines, and the notes that they point to."""
    lines, notes = [], []
    for row in rows:
        told = [text for text in (row.remark, row.note if row.met is False else "") if text]
        notes += [text for text in told if text not in notes]
        mark = "".join(f" [{notes.index(text) + 1}]" for text in told)
        lines.append((row.name + mark, row.ours, row.floor, row.ratio, row.goal, VERDICTS[row.met],
                      *(row.peers.get(peer, "") for peer in PEERS)))
    return lines, notes


def used(lines):
    """The lines without the peers' columns that nobody fills."""
    kept = [place for place, title in enumerate(TITLES) if title not in PEERS or any(line[place] for line in lines)]
    return [tuple(line[place] for place in kept) for line in [TITLES, *lines]]


def plain(rows):
    """The table for a terminal."""
    lines, notes = cells(rows)
    lines = used(lines)
    widths = [max(len(line[column]) for line in lines) for column in range(len(lines[0]))]
    text = ["  ".join(text.ljust(width) for text, width in zip(line, widths)).rstrip() for line in lines]
    return "\n".join(text + [f"[{place}] {note}" for place, note in enumerate(notes, 1)])


def markdown(rows):
    """The table for a page."""
    lines, notes = cells(rows)
    head, *rest = used(lines)
    text = ["| " + " | ".join(text.strip() for text in line) + " |" for line in [head, ("---",) * len(head), *rest]]
    if notes:
        text += ["", *(f"[{place}] {note}  " for place, note in enumerate(notes, 1))]
    return "\n".join(text)
