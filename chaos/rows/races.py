"""Races between the daemon's threads: everything under the thread sanitizer."""

import os
import re
import shutil
import subprocess
import sys

from harness import staging
from harness.sandbox import REPOSITORY
from row import ROWS, Figure, Run, Skipped, at_least, none, row
from side_by_side import side_by_side

BUILD = os.path.join(REPOSITORY, "build-tsan")
KEPT = os.path.join(REPOSITORY, "build-chaos")
REPORT = "WARNING: ThreadSanitizer"
SUPPRESSIONS = "suppressions=" + os.path.join(REPOSITORY, "tests", "tsan.supp")
# How much of the rows is done beside the suite, which does their short forms; and how much in a minute.
MUCH = {"kill-storm": 200, "signals-any-moment": 60, "keep-alive-flood": 90}
LITTLE = {"signals-any-moment": 6, "keep-alive-flood": 5}


@row("races", "races between threads",
     "the thread sanitizer: unit tests, system tests, and the rows kill-storm, signals-any-moment and keep-alive-flood "
     "with 200 restarts, 60 runs and 90 s. What only libdbus does, which is built without the sanitizer, is not "
     "judged, nor that threads run when the process ends, nor what a handler calls: the daemon's run while its main "
     "thread waits. In the short form a part of two of the rows, where the build that is tried has the sanitizer",
     short=1, long=1, seconds=(110, 1200), outside=True)
def races(run):
    """The sanitizer has nothing to report."""
    return suite_and_rows() if run.is_long else part(run)


def part(run):
    """What fits in a minute, with the build that is tried."""
    with open(os.path.join(staging.build_directory(), "service", "quorvaned"), "rb") as file:
        if b"__tsan_init" not in file.read():
            raise Skipped("the build that is tried has no thread sanitizer (scripts/test tsan has)")

    def body(gateway, _chance, number):
        if "suppressions=" not in os.environ.get("TSAN_OPTIONS", ""):
            os.environ["TSAN_OPTIONS"] = SUPPRESSIONS
        gateway.collect_sanitizer_reports()
        name = list(LITTLE)[number]
        ROWS[name].body(Run(lambda: gateway, LITTLE[name], run.seed, False, quiet=True))
        return gateway.sanitizer_reports()

    reports = "\n".join(side_by_side(run, len(LITTLE), body, limit=100))
    return [told(reports)]


def told(reports):
    """The figure of the reports; they are printed."""
    if reports:
        print(reports[:20000], flush=True)
    return none("reports", reports.count(REPORT), None)


def suite_and_rows():
    """All of it: the suite by the script that is there for it, then the rows."""
    os.makedirs(KEPT, exist_ok=True)
    log = os.path.join(KEPT, "races.log")
    print(f"    scripts/test tsan; see {log}", file=sys.stderr, flush=True)
    with open(log, "w", encoding="utf-8") as file:
        status = subprocess.run([os.path.join(REPOSITORY, "scripts", "test"), "tsan"], stdout=file, stderr=file,
                                check=False).returncode
    with open(log, encoding="utf-8", errors="backslashreplace") as file:
        text = file.read()
    units = sum(map(int, re.findall(r"tests passed, \d+ tests failed out of (\d+)", text)))
    tests = re.findall(r"^=+ (?:\d+ failed, )?(\d+) passed", text, re.MULTILINE)
    unfinished, reports = rows_beside_each_other()
    skipped = sum(map(int, re.findall(r"^SKIPPED \[(\d+)\]", text, re.MULTILINE)))
    return [at_least("unit tests", units, 700),
            at_least("system tests that passed", int(tests[0]) if tests else 0, 700),
            Figure("system tests that were skipped", skipped, None, "at most 10", skipped <= 10),
            none("suites that failed", int(status != 0), 1),
            none("rows that did not finish", len(unfinished), len(MUCH)),
            told((text if REPORT in text else "") + reports)]


def rows_beside_each_other():
    """Run the rows with the same build; give those that did not finish, and the reports. Their goals are not asked for:
    a sanitizer takes time and memory of its own."""
    found = os.path.join(BUILD, "reports-of-rows")
    shutil.rmtree(found, ignore_errors=True)
    os.makedirs(found)
    options = f"{SUPPRESSIONS}:report_signal_unsafe=0:report_thread_leaks=0:log_path={found}/report"
    environment = dict(os.environ, QUORVANED_BUILD=BUILD, QUORVANED_TIME_FACTOR="3", TSAN_OPTIONS=options)
    program = [sys.executable, "-B", os.path.join(REPOSITORY, "chaos", "main.py")]
    running = {name: subprocess.Popen([*program, "--amount", str(amount), name], env=environment,
                                      stdout=subprocess.PIPE, text=True) for name, amount in MUCH.items()}
    outputs = {name: process.communicate()[0] for name, process in running.items()}
    unfinished = [name for name, output in outputs.items() if "met  " not in output or "not finished" in output]
    for name in unfinished:
        print(outputs[name], flush=True)
    reports = []
    for name in sorted(os.listdir(found)):
        with open(os.path.join(found, name), encoding="utf-8", errors="backslashreplace") as file:
            reports.append(file.read())
    return unfinished, "\n".join(reports)
