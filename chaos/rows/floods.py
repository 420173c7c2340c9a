"""Floods: of keep-alives, and of connections."""

import os
import resource
import signal
import socket
import subprocess
import time

import steady
from harness import clock, staging
from harness.bus import SOCKET, WATCHDOG
from harness.gateway import Service
from harness.raw_bus import RawBus
from rows.leaks import memory_of
from log_tail import LogTail
from row import at_least, at_most, none, row

RESTART = "threadProc, service(%s) status(%d) is abnormal"
SECOND_US = 1_000_000


def program(name, *words):
    """Start a program of chaos/programs."""
    path = os.path.join(staging.build_directory(), "chaos", "programs", name)
    return subprocess.Popen([path, *words], stdout=subprocess.PIPE, text=True)


def percentile(values, part):
    """The value that this part of them does not exceed."""
    return sorted(values)[min(len(values) - 1, int(len(values) * part))]


def asked(client):
    """How long the report took, in ms."""
    begin = time.monotonic()
    client.report()
    return (time.monotonic() - begin) * 1000


def on_a_quiet_machine(run, limit):
    """The goal of the long form; beside other tests a machine keeps everybody waiting."""
    return limit if run.is_long else clock.stretched(limit * 50)


@row("keep-alive-flood", "a flood of keep-alives",
     "one client, as fast as the bus takes them, of 50 items; a second one feeds a deadline of 3 s (15 s in the short "
     "form) each second and asks for the report. Memory is that of the second half, without the threads' caches of "
     "free memory. In the short form, which other tests run beside, the times are held against fifty times the goal, "
     "the rate against a tenth, and memory, in which messages may wait, against 2 MiB",
     short=8, long=600, seconds=(90, 1000))
def keep_alive_flood(run):
    """The monitor keeps its pace, callers are served, and nothing is restarted."""
    gateway = run.gateway()
    gateway.catalogue(Service("named", bus="iot.test.named", monitor=1),
                      Service("other", bus="iot.test.other", monitor=1))
    waits = gateway.path("waits")
    daemon = gateway.up(env=steady.environment(LD_PRELOAD=run.preload("wait_times"), WAIT_TIMES=waits))
    tail = LogTail()
    client = gateway.bus()
    flood = program("keep_alive_flood", "iot.test.named")
    begin = time.monotonic()
    answers, restarts, before, fed = [], 0, None, 0
    deadline = 3 if run.is_long else 15
    while (passed := time.monotonic() - begin) < run.amount:
        if passed >= fed:
            client.send(WATCHDOG, "feedDog", "ssi", "iot.test.other", "main", deadline)
            fed += 1
        answers.append(asked(client))
        if staging.is_sanitized():
            catch_up(flood, client)
        if before is None and passed >= run.amount / 2:
            before = memory_of(daemon.pid)
        restarts += sum(event.matches(RESTART) for event in tail.take())
        run.progress(int(passed))
        time.sleep(0.02)
    gained = memory_of(daemon.pid) - before
    flood.send_signal(signal.SIGTERM)
    sent = int(flood.communicate(timeout=clock.stretched(30))[0])
    client.feed("iot.test.other", "main", deadline)  # it is answered behind all that was sent before
    tail.stop()
    restarts += sum(event.matches(RESTART) for event in tail.take())
    return [at_least("keep-alives", sent, (1_000 if run.is_long else 100) * run.amount),
            at_most("the monitor's pass off its second", pace(waits), on_a_quiet_machine(run, 50), "ms"),
            at_most("get_le_status, 99 of 100", percentile(answers, 0.99), on_a_quiet_machine(run, 20), "ms"),
            at_most("resident memory gained", max(0, gained), 0 if run.is_long else 2048, "KiB"),
            none("false restarts", restarts, fed)]


def catch_up(flood, client):
    """Hold the flood back until the daemon has taken all of it: a sanitizer makes it slower than the bus."""
    flood.send_signal(signal.SIGSTOP)
    client.settle()
    flood.send_signal(signal.SIGCONT)


def pace(waits):
    """How far, in ms, two passes of the monitor were at most from being a second apart."""
    with open(waits, encoding="ascii") as file:
        ends = [int(end) for name, wanted, _, end in map(str.split, file)
                if name.startswith("sevice_manager") and abs(int(wanted) - SECOND_US) < 1000]
    assert len(ends) > 3, "the monitor's passes were not seen"
    return max(abs(later - earlier - SECOND_US) for earlier, later in zip(ends, ends[1:])) / 1000


@row("connection-floods", "a flood of connections",
     "a fifth of them, the last, without a word, the others authenticated and then silent; ten times in the long form. "
     "New clients come while the crowd does, and when it stands. In the short form the times are held against fifty "
     "times the goal",
     short=1000, long=2500, seconds=(90, 1000))
def connection_floods(run):
    """Those who are served stay served, and whoever comes new is let in."""
    gateway = run.gateway()
    gateway.catalogue(Service("named", bus="iot.test.named", monitor=1))
    most = resource.getrlimit(resource.RLIMIT_NOFILE)[1]
    resource.setrlimit(resource.RLIMIT_NOFILE, (most, most))
    daemon = gateway.up()
    client = gateway.bus()
    answers, entries, refused, times = [], [], 0, 10 if run.is_long else 1
    quiet = run.amount
    for number in range(times):
        silent, others, lost = crowd(run.amount, answers, client, lambda: entries.append(entered(gateway)))
        refused += lost
        quiet = min(quiet, sum(map(is_open, silent)))
        for _ in range(100):
            answers.append(asked(client))
            time.sleep(0.01)
            if len(answers) % 10 == 0:
                entries.append(entered(gateway))
        for connection in silent + others:
            connection.close()
        run.progress(number)
    return [at_least("connections at a time", len(silent) + len(others), run.amount),
            at_least("silent ones among them that the bus had not closed", quiet, run.amount // 5),
            none("connections that were refused", refused, run.amount * times),
            at_most("get_le_status of a caller who was there, 99 of 100", percentile(answers, 0.99),
                    on_a_quiet_machine(run, 20), "ms"),
            at_most("a new client, until it has its answer", max(entries), 1000 if run.is_long else 10_000, "ms"),
            none("ends of the daemon", int(not daemon.alive()), None)]


def is_open(connection):
    """Whether the other end, which says nothing, is there."""
    connection.setblocking(False)
    try:
        return connection.recv(1) != b""
    except BlockingIOError:
        return True
    except OSError:
        return False


def crowd(amount, answers, client, newcomer):
    """(silent sockets, authenticated connections, how many were refused); a caller is served meanwhile, and newcomers
    are let in."""
    silent, others, refused = [], [], 0
    for number in range(amount):
        if number >= amount * 4 // 5:  # last: the bus closes what has not said a word for a while
            quiet = socket.socket(socket.AF_UNIX)
            quiet.settimeout(clock.stretched(10))
            quiet.connect(SOCKET)
            silent.append(quiet)
        else:
            try:
                others.append(RawBus())
            except (OSError, AssertionError, AttributeError):
                refused += 1
        if number % 10 == 0:
            answers.append(asked(client))
        if number % 100 == 50:
            newcomer()
    return silent, others, refused


def entered(gateway):
    """How long, in ms, a new client takes to be let in and served."""
    begin = time.monotonic()
    newcomer = gateway.bus()
    newcomer.report()
    passed = (time.monotonic() - begin) * 1000
    newcomer.close()
    return passed
