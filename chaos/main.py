"""Runs rows of the table and writes what came out. Called by scripts/chaos.

usage: scripts/chaos [--long] [--again] [--seed N] [--amount N] [--record] [ROW...]
       scripts/chaos --list

  --long    the long form, at most twenty minutes a row and seed; what has been done to its end on this state of the
            daemon's sources and of the row is not done again
  --again   ... but now it is
  --seed N  begin all chance with this number; else with the time, or with each of the row's own seeds in the long form
  --amount N  do so much instead; such a result is not kept
  --record  write the results of the long form that are kept into docs/reliability.md
  --list    name the rows, and tell how their long forms stand: met, not met, stale (of other sources), not finished,
            skipped, not run

Exit status: 0 when every goal was met and, with --record, every row has a result of these sources; else 1.
"""

import datetime
import os
import platform
import sys
import time

TOP = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
sys.path[:0] = [os.path.join(TOP, "tests", "system"), os.path.dirname(os.path.abspath(__file__))]

from harness import clock, sandbox, staging  # noqa: E402  (the paths come first)
from harness.gateway import Gateway  # noqa: E402
from row import ROWS, Figure, Run, Skipped  # noqa: E402
import kept  # noqa: E402
import rows  # noqa: E402,F401  (it fills ROWS)

PAGE = os.path.join(TOP, "docs", "reliability.md")
BEGIN = "<!-- written by scripts/chaos --record from here -->"
END = "<!-- to here -->"


def machine():
    """What it runs on."""
    with open("/proc/cpuinfo", encoding="utf-8") as file:
        model = next((line.partition(":")[2].strip() for line in file if line.startswith("model name")), "unknown")
    return f"{os.cpu_count()} x {model}, Linux {platform.release()}"


def run(row, form, amount, seed, stage, tried):
    """Throw a row's fault; give what is to be kept."""
    def body():
        count = 0

        def make_gateway():
            nonlocal count
            count += 1
            return Gateway(stage, os.path.join(stage, f"{row.name}.{count}"))
        try:
            figures = row.body(Run(make_gateway, amount or getattr(row, form), seed, form == "long"))
        except Skipped as reason:
            return [], str(reason)
        return [vars(figure) for figure in figures], None

    limit = clock.stretched(row.limits["long" if amount else form])
    begin, mark, commit, finished = time.monotonic(), tried.mark(row), tried.commit(row), True
    try:
        figures, skipped = body() if row.outside else sandbox.run_inside(body, keep=[stage], limit=limit,
                                                                         sizes=row.sizes)
    except (sandbox.Broken, AssertionError) as error:
        figures, skipped = [vars(Figure(f"not finished: {error}", 0, None, "finished", False))], None
        finished = False
    return {"figures": figures, "skipped": skipped, "finished": finished, "seconds": round(time.monotonic() - begin),
            "seed": seed, "commit": commit, "mark": mark, "machine": machine(),
            "date": datetime.datetime.now(datetime.timezone.utc).strftime("%Y-%m-%d %H:%M UTC")}


def show(row, result):
    """Tell what came out."""
    print(f"{row.name}: {row.fault}")
    if result.get("skipped"):
        print(f"  skipped: {result['skipped']}")
    for figure in kept.figures(result):
        print(f"  {'met    ' if figure.met else 'NOT MET'}  {figure.text()}  (goal: {figure.goal})")
    print(f"  {result['seconds']} s, seed {result['seed']}, commit {result['commit']}", flush=True)
    return all(figure.met for figure in kept.figures(result))


def listed():
    """The rows, and how their long forms stand."""
    tried = kept.Tried()
    return "\n".join(f"{label:20} {kept.state(kept.load(label), tried.mark(row)):12} {row.fault}"
                     for row in ROWS.values() for label in kept.labels(row))


def cell(text):
    """A text that may come from anywhere, within a cell of the table."""
    return " ".join(text.split()).replace("|", "\\|")


def line(row, label, result, state):
    """A line of the page's table."""
    fault = row.fault + (f" ({label.removeprefix(row.name + '-')})" if row.seeds else "")
    if result is None:
        return f"| {fault} | {row.how} | not run yet | | | |"
    figures = kept.figures(result)
    shown = [cell(figure.text()) for figure in figures] or [cell(f"skipped: {result['skipped']}")]
    old = f"**stale**, of commit {result['commit']}<br>" if state == "stale" else ""
    return (f"| {fault} | {row.how} | {old}{'<br>'.join(shown)} | "
            f"{'<br>'.join(figure.goal for figure in figures)} | "
            f"{'<br>'.join('yes' if figure.met else '**no**' for figure in figures)} | "
            f"{result['date']}, {result['seconds']} s, seed {result['seed']}, commit {result['commit']}, "
            f"{result['machine']} |")


def record():
    """Write the kept results into the page; give whether every row has one of these sources."""
    tried = kept.Tried()
    lines, states = ["| fault | how | result | goal | met | run |", "|---|---|---|---|---|---|"], {}
    for row in ROWS.values():
        for label in kept.labels(row):
            result = kept.load(label)
            states[label] = kept.state(result, tried.mark(row))
            lines.append(line(row, label, result, states[label]))
    with open(PAGE, encoding="utf-8") as file:
        text = file.read()
    head, _, rest = text.partition(BEGIN)
    with open(PAGE, "w", encoding="utf-8") as file:
        file.write(f"{head}{BEGIN}\n\n" + "\n".join(lines) + f"\n\n{END}{rest.partition(END)[2]}")
    missing = {label: state for label, state in states.items() if state not in ("met", "not met")}
    for label, state in missing.items():
        print(f"{label}: {state}", file=sys.stderr)
    return not missing


def run_all(names, form, amount, again, seed):
    """Run the rows; give whether every goal was met."""
    tried = kept.Tried()
    keeps = form == "long" and not amount
    stage = staging.make_stage()
    met = True
    try:
        for row in (ROWS[name] for name in names or ROWS):
            for one in [seed] if seed or form == "short" or not row.seeds else row.seeds:
                label = kept.label(row, one)
                result = kept.load(label) if keeps and not again else None
                if not kept.is_fresh(result, tried.mark(row)) or seed not in (0, result["seed"]):
                    print(f"{label} ...", file=sys.stderr, flush=True)
                    result = run(row, form, amount, one or int(time.time()), stage, tried)
                    if keeps:
                        kept.save(label, result)
                met = show(row, result) and met
    finally:
        staging.clear_stage(stage)
    return met


def main():
    """Do what was asked for."""
    words = sys.argv[1:]
    numbers = {"--seed": 0, "--amount": 0}
    for option in numbers:
        if option in words:
            place = words.index(option)
            numbers[option] = int(words[place + 1])
            del words[place:place + 2]
    options = {word for word in words if word.startswith("--")}
    names = [word for word in words if not word.startswith("--")]
    if options - {"--long", "--again", "--record", "--list"} or set(names) - set(ROWS):
        print(__doc__.strip(), file=sys.stderr)
        return 2
    if "--list" in options:
        print(listed())
        return 0
    met = True
    if options != {"--record"} or names:
        met = run_all(names, "long" if "--long" in options else "short", numbers["--amount"], "--again" in options,
                      numbers["--seed"])
    if "--record" in options:
        met = record() and met
    return 0 if met else 1


sys.exit(main())
