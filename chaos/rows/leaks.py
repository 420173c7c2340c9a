"""What a cycle of the stack leaves behind in the daemon."""

import os
import re
import shutil
import signal
import subprocess

from harness import processes
from harness.gateway import UP, Daemon, Service
from harness.sandbox import REPOSITORY
from pages import Pages
from row import at_least, at_most, none, row
from side_by_side import side_by_side

SETTLED = 10  # cycles after which everything has been used once
SANITIZED = os.path.join(REPOSITORY, "build-leaks")


@row("leaks", "the stack brought down and up again",
     "\"reboot\"; several gateways side by side in the long form, where valgrind and the leak sanitizer watch 50 cycles "
     "more each. Memory is fitted by a line from the tenth cycle on (in the short form from the second)", short=8,
     long=1000, seconds=(90, 1300))
def leaks(run):
    """A cycle leaves nothing behind."""
    count = 4 if run.is_long else 1
    answers = side_by_side(run, count, lambda gateway, _, __: rounds(gateway, run.amount // count),
                           limit=1000)
    cycles = sum(len(answer) for answer in answers)
    ends = [(answer[SETTLED if run.is_long else 1], answer[-1]) for answer in answers]
    figures = [at_least("cycles", cycles, run.amount),
               none("descriptors gained", sum(last[1] - first[1] for first, last in ends), None),
               none("threads gained", sum(last[2] - first[2] for first, last in ends), None)]
    settled = [[memory for memory, _, __ in answer[SETTLED if run.is_long else 1:]] for answer in answers]
    figures.append(at_most("steepest line of resident memory, over its cycles",
                           max(abs(slope(memory)) * len(memory) for memory in settled), 4 if run.is_long else 32, "KiB"))
    if run.is_long:
        figures += [none("bytes lost in 50 cycles, by valgrind", under_valgrind(run.gateway(), 50), None),
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


def rounds(gateway, amount):
    """(memory in KiB, descriptors, threads) after each cycle."""
    prepare(gateway)
    daemon = gateway.up()
    pages = Pages(gateway)
    found = []
    for _ in range(amount):
        reboot(gateway, pages, 30)
        found.append(usage(daemon.pid))
    return found


def memory_of(pid):
    """Its resident memory in KiB, to the page: what its status tells is rounded."""
    with open(f"/proc/{pid}/smaps_rollup", encoding="ascii") as file:
        return int(re.search(r"^Rss: +(\d+) kB", file.read(), re.MULTILINE)[1])


def usage(pid):
    """What it uses."""
    return memory_of(pid), len(os.listdir(f"/proc/{pid}/fd")), int(processes.status_field(pid, "Threads"))


def slope(values):
    """The slope of the line that fits best, for each step."""
    count = len(values)
    middle = (count - 1) / 2
    mean = sum(values) / count
    return (sum((number - middle) * (value - mean) for number, value in enumerate(values)) /
            sum((number - middle) ** 2 for number in range(count)))


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
    """The bytes that nothing points to in the end."""
    report = gateway.path("valgrind")
    valgrind = shutil.which("valgrind")
    assert valgrind, "valgrind is not installed"
    cycles_of(gateway, [valgrind, "--leak-check=full", "--child-silent-after-fork=yes", f"--log-file={report}"], amount)
    with open(report, encoding="utf-8") as file:
        text = file.read()
    assert "HEAP SUMMARY" in text, "valgrind did not look"
    return sum(int(number.replace(",", "")) for number in re.findall(r"(?:definitely|indirectly) lost: ([\d,]+)", text))


def under_leak_sanitizer(run, amount):
    """1 when memory was lost, else 0; of a build of its own."""
    for words in (["-S", REPOSITORY, "-B", SANITIZED, "-G", "Ninja", "-DQUORVANED_SANITIZE=address", "--log-level=WARNING",
                   "-DQUORVANED_TESTS=OFF", "-DQUORVANED_GATEWAY=OFF"], ["--build", SANITIZED, "--target", "quorvaned"]):
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
