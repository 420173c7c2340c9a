"""Single parts of the daemon, linked into small programs beside the least that can do the same; and its executable."""

import os
import re
import resource
import shutil
import signal
import time

from gateway import BUILD, LOG, RUN, Failed, program, run
from registry import measurement
from table import Row, at_most, compared
from turns import repetitions

DAEMON = os.path.join(BUILD, "service", "quorvaned")


def pairs(text):
    """The first two columns of a program's output, in seconds."""
    return columns(text)[:2]


def columns(text):
    """The columns of a program's output, in seconds."""
    lines = [[int(word) / 1e9 for word in line.split()] for line in text.splitlines()]
    if not lines:
        raise Failed("nothing was measured")
    return list(map(list, zip(*lines)))


# --- the start of a process -----------------------------------------------------------------------------------------

FEW_DESCRIPTORS = 1024


def most_descriptors():
    """The highest limit of open files that can be had here, and the kernel's, which takes a privilege."""
    soft, hard = resource.getrlimit(resource.RLIMIT_NOFILE)
    with open("/proc/sys/fs/nr_open", encoding="ascii") as file:
        kernels = int(file.read())
    try:
        resource.setrlimit(resource.RLIMIT_NOFILE, (soft, kernels))
    except ValueError:
        return hard, kernels
    return kernels, kernels


def starts(most):
    """What is measured: name to the number of services, the limit of open files, and on which thread."""
    return {
        "1 service": (1, FEW_DESCRIPTORS, "direct"),
        f"1 service, limit of {most:,} descriptors": (1, most, "direct"),
        "100 services": (100, FEW_DESCRIPTORS, "direct"),
        "2,000 services": (2000, FEW_DESCRIPTORS, "direct"),
        "1 service, asked for by another thread": (1, FEW_DESCRIPTORS, "asked"),
    }


@measurement("process", "from the request to start a service to its first instructions",
             "fork and exec in the same process, and vfork and exec")
def process(quick):
    """The process host beside a bare fork and exec, with few and many services and open files."""
    most, kernels = most_descriptors()
    variants = starts(most)
    ours = {name: [] for name in variants}
    floor = {name: [] for name in variants}
    borrowing = {name: [] for name in variants}
    for _ in repetitions(2, 2 if quick else 10, 60):
        for name, (services, descriptors, how) in variants.items():
            text = run([program("start_timer"), "40" if quick else "100", str(services), str(descriptors), how,
                        program("idle_service"), program("report_start")], 60)
            for times, more in zip((ours, floor, borrowing), columns(text)):
                times[name] += more
    for name, (_, descriptors, _) in variants.items():
        refused = descriptors == most < kernels
        yield compared(f"start of a process, {name}", ours[name], floor[name], 1.2,
                       remark=f"the kernel's maximum, {kernels:,}, may not be set here" if refused else "")
        yield compared("  beside vfork", ours[name], borrowing[name], None)


# --- the scan of /proc ----------------------------------------------------------------------------------------------

SCANNED = 2000
SCAN_ROOT = "/tmp/scan"
WANTED = "wanted-program"


class Crowd:
    """Use as a context: so many idle processes of one installation, one of them of the program that is looked for."""

    def __init__(self, count):
        self.count = count
        self.pids = []

    def __enter__(self):
        shutil.rmtree(SCAN_ROOT, ignore_errors=True)
        os.makedirs(SCAN_ROOT + "/bin")
        for name, of in (("idle", "idle_service"), (WANTED, "idle_service"), ("scan_timer", "scan_timer")):
            shutil.copy(program(of), f"{SCAN_ROOT}/bin/{name}")
        for number in range(self.count):
            path = f"{SCAN_ROOT}/bin/{WANTED if number == self.count // 2 else 'idle'}"
            self.pids.append(os.posix_spawn(path, [path], os.environ))
        time.sleep(0.5)  # the last ones have become what they are to be
        return self

    def __exit__(self, *_):
        for pid in self.pids:
            os.kill(pid, signal.SIGKILL)
        for pid in self.pids:
            os.waitpid(pid, 0)


def commands(count, ours, theirs):
    """Seconds of both commands, each from start to end, in turn."""
    text = run([program("command_timer"), str(count), *ours, "--", *theirs], 120)
    for line in text.splitlines():
        if line.split()[2:] != ["0", "0"]:
            raise Failed(f"{ours[0]} or {theirs[0]} has found nothing")
    return pairs(text)


@measurement("scan", "the look through /proc for a program, with 2,000 processes of the installation",
             "a loop in C; and the whole of pgrep and pidof beside a command that scans")
def scan(quick):
    """In one process against the bare loop; and as a command against the general tools."""
    with Crowd(SCANNED):
        ours = f"{SCAN_ROOT}/bin/scan_timer"
        text = run([ours, "30" if quick else "200", WANTED], 120)
        if any(line.split()[2:] != ["1", "1"] for line in text.splitlines()):
            raise Failed("a scan did not find the one process")
        yield compared(f"/proc scan, {SCANNED:,} processes", *pairs(text), 1.2, 1e3, " ms", 2)
        for tool in (["/usr/bin/pgrep", "-x", WANTED], ["/usr/bin/pidof", WANTED]):
            one, other = commands(5 if quick else 30, [ours, WANTED], tool)
            yield compared(f"  as a command, beside {os.path.basename(tool[0])}", one, other, 1.0, 1e3, " ms", 1)


# --- the start-up log -----------------------------------------------------------------------------------------------

THREADS = 5
CROWDED = 250_000  # bytes; the log begins anew at 262,144
LINE = re.compile(r"\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{6} \[pid=\d+\] \[line_timer\.cpp\|\d+\] "
                  r"run thread-(\d)-line-(\d{6}) pid \d+")


TURNS = "writers take turns, or they would write beyond the limit together; and the text has to be made"


@measurement("line", "one line of the start-up log", "open, fstat, write and close")
def line(quick):
    """One thread, with a short and with a long log, then five at once, whose lines are looked at one by one."""
    os.makedirs(os.path.dirname(LOG), exist_ok=True)

    def timed(rounds, batch, threads, size, floor="free"):
        return pairs(run([program("line_timer"), *map(str, (rounds, batch, threads, size)), RUN + "/startup/floor.log",
                          floor], 300))

    # Few lines at a time, so that most rounds are not interrupted on a busy machine either.
    yield compared("line of the start-up log", *timed(300 if quick else 3000, 50, 1, 0), 1.3, 1e6, " us", 2, TURNS)
    yield compared("  beside a floor that takes turns too", *timed(300 if quick else 3000, 50, 1, 0, "in-turn"), None,
                   1e6, " us", 2)
    yield compared("  close to its limit", *timed(300 if quick else 3000, 50, 1, CROWDED), None, 1e6, " us", 2)
    each = 400
    together = timed(20 if quick else 100, each, THREADS, 0)
    look_at_lines(each)
    yield compared(f"  {THREADS} threads at once, none torn", *together, None, 1e6, " us", 1)


def look_at_lines(each):
    """Every line of the last round is there, once, and whole."""
    with open(LOG, encoding="utf-8", newline="\n") as file:
        lines = file.read().split("\n")
    told = set()
    for text in lines[:-1]:
        found = LINE.fullmatch(text)
        if not found:
            raise Failed(f"a torn line in the log: {text!r}")
        told.add(found.groups())
    if lines[-1] or len(told) != len(lines) - 1 or len(told) != THREADS * each:
        raise Failed(f"{len(told)} of {THREADS * each} lines are in the log, and {len(lines) - 1} in all")


# --- the executable -------------------------------------------------------------------------------------------------

MOST_KIB = 600


def libraries(path):
    """The shared libraries that a program names."""
    return set(re.findall(r"\(NEEDED\).*\[(.*)\]", run(["readelf", "--dynamic", "--wide", path], 10)))


@measurement("executable", "the executable's size, and its start to an end with a wrong argument",
             "a program that does nothing, linked to the same libraries")
def executable(quick):
    """Stripped as it may be installed; and the shortest of its commands."""
    stripped = "/tmp/quorvaned-stripped"
    run(["strip", "-o", stripped, DAEMON], 10)
    size = os.path.getsize(stripped) / 1024
    yield Row("executable, stripped", f"{size:.0f} KiB", f"{os.path.getsize(program('bare_true')) / 1024:.0f} KiB", "",
              *at_most(MOST_KIB, size, " KiB"))
    if libraries(DAEMON) != libraries(program("bare_true")):
        raise Failed(f"other libraries: {sorted(libraries(DAEMON) ^ libraries(program('bare_true')))}")
    text = run([program("command_timer"), "100" if quick else "1000", DAEMON, "x", "--", program("bare_true")], 120)
    if any(words.split()[2:] != ["255", "0"] for words in text.splitlines()):
        raise Failed("a command has ended otherwise than it should")
    yield compared("command with a wrong argument", *pairs(text), 1.3, 1e3, " ms", 2)
