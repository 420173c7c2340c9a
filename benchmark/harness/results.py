"""What was measured is kept, so that a run can be resumed and the page be written from several runs."""

import dataclasses
import datetime
import json
import os
import platform

from gateway import REPOSITORY
from priority import wait_until_quiet
from table import Chart, Row

FOLDER = os.path.join(REPOSITORY, "build-bench-results")


@dataclasses.dataclass
class Result:
    """One measurement's rows and charts, with what they depend on."""

    name: str
    mark: str  # of the sources, as they were
    commit: str
    quick: bool
    date: str
    busy: str  # the share of the processors' time that others had just before
    rows: list
    charts: list


def field(path, name, separator):
    """A value of a file of lines."""
    with open(path, encoding="utf-8") as file:
        for line in file:
            key, _, value = line.partition(separator)
            if key.strip() == name:
                return value.strip().strip('"')
    return "unknown"


def machine():
    """What the figures themselves depend on."""
    memory = int(field("/proc/meminfo", "MemTotal", ":").split()[0]) / 1024 / 1024
    return {
        "machine": f"{os.cpu_count()} x {field('/proc/cpuinfo', 'model name', ':')}, {memory:.0f} GiB",
        "system": f"{field('/etc/os-release', 'PRETTY_NAME', '=')}, Linux {platform.release()}",
    }


def measure(measurement, quick, mark, commit):
    """Measure, and keep the result, as one of those sources."""
    busy = wait_until_quiet(1, 1) if quick else wait_until_quiet(10, 60)
    made = list(measurement.run(quick))
    result = Result(measurement.name, mark, commit, quick,
                    datetime.datetime.now(datetime.timezone.utc).strftime("%Y-%m-%d %H:%M UTC"), f"{busy:.0%}",
                    [item for item in made if isinstance(item, Row)],
                    [item for item in made if isinstance(item, Chart)])
    os.makedirs(FOLDER, exist_ok=True)
    path = path_of(measurement.name, quick)
    with open(path + ".new", "w", encoding="utf-8") as file:
        json.dump(dataclasses.asdict(result), file, indent=1)
    os.rename(path + ".new", path)
    return result


def path_of(name, quick):
    """Where a result is kept: a quick one is not to take the place of a thorough one."""
    return os.path.join(FOLDER, f"{name}.quick.json" if quick else f"{name}.json")


def kept(name, quick=False):
    """The kept result of that name; None without one."""
    try:
        with open(path_of(name, quick), encoding="utf-8") as file:
            fields = json.load(file)
        fields["rows"] = [Row(**row) for row in fields["rows"]]
        fields["charts"] = [Chart(**chart) for chart in fields["charts"]]
        return Result(**fields)
    except (OSError, ValueError, TypeError, KeyError):
        return None  # of no use, or of an earlier form: it is measured again


def defect(result, mark):
    """Why a result is not one of the sources with that mark, as they are in a commit; nothing when it is."""
    if result is None:
        return "not measured"
    if result.mark != mark:
        return "stale"
    return "measured with changes that are not committed" if "changes" in result.commit else ""
