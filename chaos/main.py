"""Runs rows of the table and writes what came out. Called by scripts/chaos.

usage: scripts/chaos [--long] [--again] [--seed N] [--amount N] [--record] [ROW...]
       scripts/chaos --list

  --long    the long form, at most twenty minutes a row; what has been done on this commit is not done again
  --again   ... but now it is
  --seed N  begin all chance with this number; else with the time
  --amount N  do so much instead; such a result is not kept
  --record  write the results of the long form that are kept into docs/reliability.md
  --list    name the rows

Exit status: 0 when every goal was met, else 1.
"""

import datetime
import json
import os
import platform
import subprocess
import sys
import time

TOP = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
sys.path[:0] = [os.path.join(TOP, "tests", "system"), os.path.dirname(os.path.abspath(__file__))]

from harness import sandbox, staging  # noqa: E402  (the paths come first)
from harness.gateway import Gateway  # noqa: E402
from row import ROWS, Figure, Run  # noqa: E402
import rows  # noqa: E402,F401  (it fills ROWS)

PAGE = os.path.join(TOP, "docs", "reliability.md")
KEPT = os.path.join(TOP, "build-chaos")
BEGIN = "<!-- written by scripts/chaos --record from here -->"
END = "<!-- to here -->"


def output(*words):
    """What a program says; nothing when it fails."""
    done = subprocess.run(words, cwd=TOP, stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, text=True, check=False)
    return done.stdout.strip()


def commit():
    """The commit that is tried."""
    name = output("git", "rev-parse", "--short", "HEAD") or "unknown"
    return name + (" with changes" if output("git", "status", "--porcelain", "--", "platform", "service") else "")


def machine():
    """What it runs on."""
    with open("/proc/cpuinfo", encoding="utf-8") as file:
        model = next((line.partition(":")[2].strip() for line in file if line.startswith("model name")), "unknown")
    return f"{os.cpu_count()} x {model}, Linux {platform.release()}"


def kept_path(name):
    """Where the long form's result of a row is kept."""
    return os.path.join(KEPT, name + ".json")


def kept(name):
    """The kept result of a row, or none."""
    try:
        with open(kept_path(name), encoding="utf-8") as file:
            return json.load(file)
    except (FileNotFoundError, ValueError):
        return None


def run(row, form, amount, seed, stage):
    """Throw a row's fault; give what is to be kept."""
    def body():
        count = 0

        def make_gateway():
            nonlocal count
            count += 1
            return Gateway(stage, os.path.join(stage, f"{row.name}.{count}"))
        figures = row.body(Run(make_gateway, amount or getattr(row, form), seed, form == "long"))
        return [vars(figure) for figure in figures]

    begin = time.monotonic()
    try:
        figures = sandbox.run_inside(body, keep=[stage], limit=row.limits[form], sizes=row.sizes)
    except sandbox.Broken as error:
        figures = [vars(Figure(f"not finished: {error}", 0, None, "finished", False))]
    return {"figures": figures, "seconds": round(time.monotonic() - begin), "seed": seed, "commit": commit(),
            "machine": machine(), "date": datetime.datetime.now(datetime.timezone.utc).strftime("%Y-%m-%d %H:%M UTC")}


def show(row, result):
    """Tell what came out."""
    print(f"{row.name}: {row.fault}")
    for entry in result["figures"]:
        figure = Figure(**entry)
        print(f"  {'met    ' if figure.met else 'NOT MET'}  {figure.text()}  (goal: {figure.goal})")
    print(f"  {result['seconds']} s, seed {result['seed']}, commit {result['commit']}", flush=True)
    return all(entry["met"] for entry in result["figures"])


def record():
    """Write the kept results into the page."""
    lines = ["| fault | how | result | goal | met | run |", "|---|---|---|---|---|---|"]
    for row in ROWS.values():
        result = kept(row.name)
        if result is None:
            lines.append(f"| {row.fault} | {row.how} | not run yet | | | |")
            continue
        figures = [Figure(**entry) for entry in result["figures"]]
        run_text = f"{result['date']}, {result['seconds']} s, seed {result['seed']}, commit {result['commit']}"
        lines.append(f"| {row.fault} | {row.how} | {'<br>'.join(figure.text() for figure in figures)} | "
                     f"{'<br>'.join(figure.goal for figure in figures)} | "
                     f"{'<br>'.join('yes' if figure.met else '**no**' for figure in figures)} | {run_text} |")
    machines = sorted({result["machine"] for result in map(kept, ROWS) if result})
    lines += ["", "Machine: " + "; ".join(machines)] if machines else []
    with open(PAGE, encoding="utf-8") as file:
        text = file.read()
    head, _, rest = text.partition(BEGIN)
    with open(PAGE, "w", encoding="utf-8") as file:
        file.write(f"{head}{BEGIN}\n\n" + "\n".join(lines) + f"\n\n{END}{rest.partition(END)[2]}")


def main():
    """Do what was asked for."""
    words = sys.argv[1:]
    numbers = {"--seed": int(time.time()), "--amount": 0}
    for option in numbers:
        if option in words:
            place = words.index(option)
            numbers[option] = int(words[place + 1])
            del words[place:place + 2]
    seed, amount = numbers.values()
    options = {word for word in words if word.startswith("--")}
    names = [word for word in words if not word.startswith("--")]
    if options - {"--long", "--again", "--record", "--list"} or set(names) - set(ROWS):
        print(__doc__.strip(), file=sys.stderr)
        return 2
    if "--list" in options:
        print("\n".join(f"{row.name:20} {row.fault}" for row in ROWS.values()))
        return 0
    if options == {"--record"} and not names:
        record()
        return 0
    form = "long" if "--long" in options else "short"
    os.makedirs(KEPT, exist_ok=True)
    stage = staging.make_stage()
    met = True
    try:
        for name in names or ROWS:
            result = kept(name) if form == "long" and "--again" not in options and not amount else None
            if result is None or result["commit"] != commit():
                print(f"{name} ...", file=sys.stderr, flush=True)
                result = run(ROWS[name], form, amount, seed, stage)
                if form == "long" and not amount:
                    with open(kept_path(name), "w", encoding="utf-8") as file:
                        json.dump(result, file, indent=1)
            met = show(ROWS[name], result) and met
    finally:
        staging.clear_stage(stage)
    if "--record" in options:
        record()
    return 0 if met else 1


sys.exit(main())
