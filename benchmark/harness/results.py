"""What was measured is kept, so that a run can be resumed and the page be written from several runs."""

import dataclasses
import datetime
import json
import os
import platform
import subprocess

from gateway import REPOSITORY
from table import Chart, Row

FOLDER = os.path.join(REPOSITORY, "build-bench-results")
# What makes every result stale when it changes, beside the measurement's own module. What the measurements share in
# this folder does not: whoever changes it measures anew.
SOURCES = ("platform", "service", "gateway/bus", "benchmark/programs", "cmake", "CMakeLists.txt")


@dataclasses.dataclass
class Result:
    """One measurement's rows and charts, with what they depend on."""

    name: str
    commit: str
    quick: bool
    date: str
    load: str
    rows: list
    charts: list


def output(*arguments):
    """What a program says; nothing when it fails."""
    ended = subprocess.run(arguments, stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, text=True, check=False,
                           cwd=REPOSITORY)
    return ended.stdout.strip()


def commit(measurement):
    """The last commit that changed what is measured, or what measures it."""
    sources = (*SOURCES, f"benchmark/harness/{measurement.run.__module__}.py")
    git = ("git", "-c", f"safe.directory={REPOSITORY}")
    name = output(*git, "log", "-1", "--format=%h", "--", *sources) or "unknown"
    return name + (" with changes" if output(*git, "status", "--porcelain", "--", *sources) else "")


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


def measure(measurement, quick):
    """Measure, and keep the result."""
    load_before = os.getloadavg()[0]
    commit_before = commit(measurement)  # what was built, whatever is committed meanwhile
    made = list(measurement.run(quick))
    result = Result(measurement.name, commit_before, quick,
                    datetime.datetime.now(datetime.timezone.utc).strftime("%Y-%m-%d %H:%M UTC"),
                    f"{load_before:.1f} before, {os.getloadavg()[0]:.1f} after",
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


def is_fresh(result, measurement):
    """The result is of the sources as they are."""
    return result is not None and result.commit == commit(measurement) and "changes" not in result.commit
