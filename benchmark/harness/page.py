"""Writes the results into docs/performance.md, with their charts."""

import os
import subprocess

import results
from gateway import REPOSITORY
from table import markdown

PAGE = os.path.join(REPOSITORY, "docs", "performance.md")
PICTURES = os.path.join(REPOSITORY, "docs", "performance")
BEGIN = "<!-- written by scripts/bench --record from here -->"
END = "<!-- to here -->"


def facts(made):
    """Where and when: what the figures depend on."""
    lines = {}
    for result in made:
        lines.setdefault(f"{result.commit} ({result.date[:10]})", []).append(f"{result.name} ({result.busy})")
    told = {f"measured at {key}, and how busy the processors were just before": ", ".join(names)
            for key, names in lines.items()}
    return {**results.machine(), **told}


def quoted(text):
    """A string of gnuplot's."""
    return '"' + text.replace("\\", "\\\\").replace('"', '\\"') + '"'


def draw(chart):
    """Make the picture of a chart."""
    os.makedirs(PICTURES, exist_ok=True)
    lines = [
        "set terminal svg size 720,520 font 'sans-serif,13' background '#ffffff'",
        f"set output {quoted(os.path.join(PICTURES, chart.name + '.svg'))}",
        f"set title {quoted(chart.title)} noenhanced",
        f"set xlabel {quoted(chart.x)} noenhanced",
        f"set ylabel {quoted(chart.y)} noenhanced",
        "set grid",
        "set key below maxcols 2 Left reverse noenhanced",
    ]
    if chart.both_logarithmic:
        lines.append("set logscale xy")
    for place, points in enumerate(chart.series.values()):
        lines += [f"$data{place} << EOD", *(f"{x} {y}" for x, y in points), "EOD"]
    lines.append("plot " + ", ".join(f"$data{place} with linespoints lw 2 title {quoted(label)}"
                                     for place, label in enumerate(chart.series)))
    subprocess.run(["gnuplot", "-"], input="\n".join(lines) + "\n", text=True, check=True)


def record(made):
    """Put the results in their place on the page."""
    charts = [chart for result in made for chart in result.charts]
    for chart in charts:
        draw(chart)
    with open(PAGE, encoding="utf-8") as file:
        text = file.read()
    head, _, rest = text.partition(BEGIN)
    _, _, tail = rest.partition(END)
    parts = [markdown([row for result in made for row in result.rows]),
             "\n".join(f"- {key}: {value}" for key, value in facts(made).items()),
             *(f"![{chart.title}](performance/{chart.name}.svg)" for chart in charts)]
    with open(PAGE, "w", encoding="utf-8") as file:
        file.write(f"{head}{BEGIN}\n\n" + "\n\n".join(parts) + f"\n\n{END}{tail}")
