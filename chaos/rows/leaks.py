"""What a cycle of the stack leaves behind in the daemon."""

import itertools
import os
import re
import shutil
import signal
import statistics
import subprocess

import steady
from harness import processes
from harness.gateway import UP, Daemon, Service
from harness.sandbox import REPOSITORY
from pages import Pages
from row import at_most, none, row

THREADS = 6  # that a daemon has, with main
LOST_RECORD = re.compile(r"([\d,]+) bytes in (\d+) blocks are possibly lost in loss record [^\n]*\n"
                         r"((?:==\d+==  [^\n]*\n)+)")  # size, blocks, stack
SANITIZED = os.path.join(REPOSITORY, "build-leaks")


@row("leaks", "the stack brought down and up again",
     "\"reboot\", by a daemon whose threads wait a tenth of their time and have no caches of free memory; then, in "
     "the long form, 50 cycles under valgrind and 50 with the leak sanitizer; of what valgrind calls possibly lost the "
     "thread-local stores of the threads that run are taken off. What the first half has used for the first time is not "
     "counted: the slope is the median of those between any two of 100 moments of the second half, and what was gained "
     "is between the least of its first and of its last twentieth, since memory goes up and down by a page or two",
     short=60, long=2000, seconds=(90, 1200))
def leaks(run):
    """A cycle leaves nothing behind."""
    found = rounds(run)
    half = found[len(found) // 2:]
    figures = [none(f"descriptors gained in {len(half)} cycles", half[-1][1] - half[0][1], half[-1][1]),
               none(f"threads gained in {len(half)} cycles", half[-1][2] - half[0][2], half[-1][2]),
               # The first cycles use everything for the first time.
               at_most("slope of resident memory, for 1,000 cycles",
                       abs(slope([memory for memory, _, __ in half])) * 1000, 4 if run.is_long else 640, "KiB"),
               at_most(f"resident memory gained in {len(half)} cycles", gained([memory for memory, _, __ in half]),
                       4 if run.is_long else 256, "KiB")]
    if run.is_long:
        lost, errors = under_valgrind(run.gateway(), 50)
        figures += [none("bytes lost in 50 cycles, by valgrind", lost, None),
                    none("errors in 50 cycles, by valgrind", errors, None),
                    none("leaks in 50 cycles, by the leak sanitizer", under_leak_sanitizer(run, 50), None)]
    return figures


def prepare(gateway):
    """A small catalogue: what is counted is the daemon's."""
    gateway.catalogue(Service("a", monitor=1, program="exec sleep infinity"),
                      Service("named", bus="iot.test.named", monitor=1))


def reboot(gateway, pages, within):
    """One cycle."""
    pages.turn()
    gateway.bus(within).reboot()
    assert pages.wait_for(UP, within), "the stack did not come up"


def rounds(run):
    """(memory in KiB, descriptors, threads) after each cycle."""
    gateway = run.gateway()
    prepare(gateway)
    daemon = gateway.up(env=steady.environment(LD_PRELOAD=run.preload("short_waits")))
    pages = Pages(gateway)
    found = []
    for number in range(run.amount):
        reboot(gateway, pages, 30)
        found.append(usage(daemon.pid))
        run.progress(number)
    return found


def memory_of(pid):
    """Its resident memory in KiB, to the page: what its status tells is rounded."""
    with open(f"/proc/{pid}/smaps_rollup", encoding="ascii") as file:
        return int(re.search(r"^Rss: +(\d+) kB", file.read(), re.MULTILINE)[1])


def usage(pid):
    """What it uses."""
    return memory_of(pid), len(os.listdir(f"/proc/{pid}/fd")), int(processes.status_field(pid, "Threads"))


def slope(values):
    """The median of the slopes between any two of at most 100 values: a step here or there does not matter."""
    places = range(0, len(values), max(1, len(values) // 100))
    return statistics.median((values[later] - values[earlier]) / (later - earlier)
                             for earlier, later in itertools.combinations(places, 2))


def gained(values):
    """By how much the least of the last twentieth is above that of the first."""
    looks = max(1, len(values) // 20)
    return max(0, min(values[-looks:]) - min(values[:looks]))


def cycles_of(gateway, words, amount, env=None):
    """Start the daemon by these words, let it go through its cycles, and end it."""
    prepare(gateway)
    process = processes.spawn([*words, gateway.program, "--nofork"], env=env, output=gateway.path("terminal"))
    daemon = Daemon(process.pid, process.argv, process.stdout, process.stderr)
    gateway.log.wait_for(UP, 60, pid=daemon.pid)
    pages = Pages(gateway)
    for _ in range(amount):
        reboot(gateway, pages, 60)
    daemon.signal(signal.SIGTERM)
    daemon.wait(60)


def under_valgrind(gateway, amount):
    """(bytes that nothing points to in the end, or only into their midst; errors of other kinds)"""
    report = gateway.path("valgrind")
    valgrind = shutil.which("valgrind")
    assert valgrind, "valgrind is not installed"
    cycles_of(gateway, [valgrind, "--leak-check=full", "--child-silent-after-fork=yes", f"--log-file={report}"], amount)
    with open(report, encoding="utf-8") as file:
        text = file.read()
    assert "HEAP SUMMARY" in text, "valgrind did not look"
    lost = re.findall(r"(?:definitely|indirectly|possibly) lost: ([\d,]+)", text)
    # A thread that runs points into the midst of its thread-local store.
    running = [size for size, blocks, stack in LOST_RECORD.findall(text)
               if "allocate_tls" in stack and int(blocks) < THREADS]
    errors = re.findall(r"ERROR SUMMARY: ([\d,]+)", text)
    losses = len(re.findall(r"are (?:definitely|possibly) lost in", text))  # each is an error as well
    return added(lost) - added(running), added(errors) - losses


def added(numbers):
    """What they come to, of the form 1,234."""
    return sum(int(number.replace(",", "")) for number in numbers)


def under_leak_sanitizer(run, amount):
    """1 when memory was lost, else 0; of a build of its own."""
    for words in (["-S", REPOSITORY, "-B", SANITIZED, "-G", "Ninja", "-DQUORVANED_SANITIZE=address",
                   "--log-level=WARNING", "-DQUORVANED_TESTS=OFF", "-DQUORVANED_GATEWAY=OFF"],
                  ["--build", SANITIZED, "--target", "quorvaned"]):
        subprocess.run(["cmake", *words], check=True, stdout=subprocess.DEVNULL)
    library = subprocess.run(["g++", "-print-file-name=libasan.so"], check=True, stdout=subprocess.PIPE, text=True)
    gateway = run.gateway()
    os.unlink(gateway.program)
    shutil.copy(os.path.join(SANITIZED, "service", "quorvaned"), gateway.program)
    result = gateway.path("leaks")
    cycles_of(gateway, [], amount, dict(
        os.environ, LD_PRELOAD=f"{library.stdout.strip()} {run.preload('leak_check')}", LEAK_CHECK_RESULT=result,
        ASAN_OPTIONS=f"leak_check_at_exit=0:log_path={gateway.path('sanitizer')}"))
    with open(result, encoding="ascii") as file:
        return int(file.read())
