"""What was measured, as text."""

import dataclasses
import statistics


@dataclasses.dataclass
class Row:
    """One comparison."""

    name: str
    ours: str
    baseline: str
    ratio: str
    goal: str
    met: bool


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


def ratios(ours, baseline, groups=20):
    """The ratio of the medians of each group of neighbouring measurements."""
    size = max(1, len(ours) // groups)
    pairs = [(ours[begin:begin + size], baseline[begin:begin + size])
             for begin in range(0, len(ours) - size + 1, size)]
    return Spread.of([statistics.median(a) / statistics.median(b) for a, b in pairs])


def percentile(values, percent):
    """The value that this many percent of them do not exceed."""
    ordered = sorted(values)
    return ordered[min(len(ordered) - 1, len(ordered) * percent // 100)]


TITLES = ("name", "ours", "baseline", "ratio", "goal", "met")


def cells(row):
    """The texts of one line."""
    return row.name, row.ours, row.baseline, row.ratio, row.goal, "met" if row.met else "NOT met"


def plain(rows):
    """The table for a terminal."""
    lines = [TITLES, *map(cells, rows)]
    widths = [max(len(line[column]) for line in lines) for column in range(len(TITLES))]
    return "\n".join("  ".join(text.ljust(width) for text, width in zip(line, widths)).rstrip() for line in lines)


def markdown(rows):
    """The table for a page."""
    lines = [TITLES, ("---",) * len(TITLES), *map(cells, rows)]
    return "\n".join("| " + " | ".join(text.strip() for text in line) + " |" for line in lines)
