"""usage: scripts/bench [--quick] [--resume | --kept] [--record] [NAME...]

Builds the daemon as it is installed and measures it, in turn, beside the least that can do the same and beside other
supervisors. Without a name: everything, which takes half an hour. Names:

{names}

  --quick   seconds instead of minutes for each; fewer repetitions, so wider spreads
  --resume  do not measure again what was measured of the same sources: results are kept in build-bench-results/
  --kept    measure nothing: show what is kept; what is of other sources is marked as stale
  --record  write all results that are kept, of thorough runs, into docs/performance.md; refused, and nothing written,
            when one is missing, stale, or of sources that were not committed
  --list    only the names, one on a line

Exit status: 0 when everything was measured, whatever came out; 1 when something could not be, or not recorded; 2 for
wrong usage, and when --record would be refused for changes that are not committed.
"""

import dataclasses
import sys
import textwrap

import page
import registry
import results
import sources
from gateway import Failed
from priority import come_first
from table import plain

OPTIONS = ("--quick", "--resume", "--kept", "--record", "--list", "--help", "-h", "--check")


def explain(measurements):
    """The usage."""
    indent = " " * 14
    names = "\n".join(textwrap.fill(f"{each.what}; against {each.against}", 110, initial_indent=f"  {each.name:<12}",
                                    subsequent_indent=indent) for each in measurements.values())
    return __doc__.format(names=names).strip()


def measure(measurements, names, quick, resume):
    """Measure what was asked for; gives the results, and whether something failed."""
    made, failed = [], False
    come_first()
    # Of what has just been built, whatever is changed or committed meanwhile.
    built = {name: (sources.mark(measurements[name]), sources.commit(measurements[name])) for name in names}
    for name in names:
        result = results.kept(name, quick) if resume else None
        if results.defect(result, built[name][0]):
            print(f"{name} ...", file=sys.stderr, flush=True)
            try:
                result = results.measure(measurements[name], quick, *built[name])
            except Failed as error:
                print(f"{name}: {error}", file=sys.stderr)
                failed = True
                continue
        made.append(result)
    return made, failed


def record(measurements):
    """Write the page; gives whether it was refused."""
    kept = {name: results.kept(name) for name in measurements}
    defects = {name: defect for name, result in kept.items()
               if (defect := results.defect(result, sources.mark(measurements[name])))}
    for name, defect in defects.items():
        print(f"nothing is recorded, since {name} is {defect}", file=sys.stderr)
    if not defects:
        page.record(list(kept.values()))
    return bool(defects)


def rows_of(result, measurement):
    """A result's rows, marked when they are of other sources."""
    is_stale = result.mark != sources.mark(measurement)
    return [dataclasses.replace(row, name=f"{row.name} (stale)") if is_stale else row for row in result.rows]


def main():
    """Do what the command line asks for."""
    measurements = registry.load()
    options = [word for word in sys.argv[1:] if word.startswith("-")]
    names = list(dict.fromkeys(word for word in sys.argv[1:] if not word.startswith("-"))) or list(measurements)
    if "--help" in options or "-h" in options:
        print(explain(measurements))
        return 0
    if any(word not in OPTIONS for word in options) or any(name not in measurements for name in names):
        print(explain(measurements), file=sys.stderr)
        return 2
    if "--list" in options:
        print("\n".join(measurements))
        return 0
    if "--check" in options:
        changed = "--record" in options and [name for name in names if sources.has_changes(measurements[name])]
        if changed:
            print(f"not committed, so that it could not be recorded: the sources of {', '.join(changed)}",
                  file=sys.stderr)
        return 2 if changed else 0
    if "--kept" in options:
        made, failed = [result for name in names if (result := results.kept(name, "--quick" in options))], False
    else:
        made, failed = measure(measurements, names, "--quick" in options, "--resume" in options)
    print(plain([row for result in made for row in rows_of(result, measurements[result.name])]))
    print()
    for key, value in page.facts(made).items():
        print(f"{key}: {value}")
    if "--record" in options:
        failed = record(measurements) or failed
    return 1 if failed else 0


if __name__ == "__main__":
    sys.exit(main())
