"""Processes: numbers that are given again at once, and none to be had."""

import os
import shutil
import signal
import time

import dbus.lowlevel
from harness import clock, processes
from harness.bus import DAEMON
from harness.gateway import MISSING, UP, Service
from pages import Pages, came, pause
from row import at_least, at_most, none, row
from watchers import Recycler

from .cycles import recorded

GRACE = 31.5
OUTAGE = 10.0


@row("recycled-pids", "process numbers that are given again at once",
     "kills by the daemon (one reboot after the other) and by the test in the midst of them, beside strangers who come "
     "and go by the thousand and take every number as soon as it is free; 0 to 1 ms of delay before each kill",
     short=160, long=100_000, seconds=(90, 1400))
def recycled_pids(run):
    """No stranger ever gets a signal."""
    gateway = run.gateway()
    names = [f"s{number}" for number in range(300 if run.is_long else 40)]
    gateway.catalogue(*[Service(name, "infinity", program=MISSING) for name in names])
    shutil.copy2("/bin/sleep", gateway.path("bin/" + names[0]))
    for name in names[1:]:
        os.link(gateway.path("bin/" + names[0]), gateway.path("bin/" + name))
    os.link(os.path.join(gateway.stage, "probe_service"), gateway.path("strangers"))
    strangers = processes.spawn([gateway.path("strangers"), "--ignore-term",
                                 f"--children={20 if run.is_long else 6}"])
    recycler = Recycler()
    gateway.prepare_run_directory()
    pages = Pages(gateway)
    daemon = gateway.up(within=30, env=dict(os.environ, LD_PRELOAD=run.preload("delay_before_kill"),
                                            DELAY_BEFORE_KILL_US="1000"))
    seen, again, kills, failed = set(), 0, 0, 0

    def take(events):
        nonlocal again, kills
        for event in events:
            if event.matches("run %s pid %d"):
                again += event.values[1] in seen
                seen.add(event.values[1])
            kills += event.matches("kill -%d %s(%d)")

    while kills < run.amount:
        take(pages.turn())
        victims = open_children(daemon)
        run.chance.shuffle(victims)
        half = len(victims) // 2
        client = gateway.bus()
        # Not waited for: most of the deaths are to come while the daemon walks through its services and stops them.
        client.connection.send_message(dbus.lowlevel.MethodCallMessage(*DAEMON, "reboot"))
        client.connection.flush()
        kills += strike(victims[:half], run.chance.uniform(0, 0.001))
        for handle in victims:
            os.close(handle)
        failed += not pages.wait_for(UP, 60)
        run.progress(kills)
    for _ in range(2):
        take(pages.turn())
    recycler.stop()
    strangers.signal(signal.SIGKILL)
    # A signal in the first moment of a stranger's life is told by the one who made it.
    struck = recorded(gateway, "struck") + recorded(gateway, "signal")
    passed = max([0] + [event["ended"] for event in recorded(gateway, "children")])
    return [at_least("kills", kills, run.amount), none("strangers that were sent a signal", len(struck), passed),
            at_least("numbers of services that had been a service's before", again, 1),
            none("reboots that did not come up", failed, None)]


def open_children(daemon):
    """Handles of its services: unlike numbers they mean the same process for ever. The bus has to carry the reboot."""
    handles = {pid: os.pidfd_open(pid) for pid in daemon.services() if processes.program(pid) != "dbus-daemon"}
    still = set(processes.children(daemon.pid))
    for pid in set(handles) - still:
        os.close(handles.pop(pid))
    return list(handles.values())


def strike(handles, distance):
    """Kill them, with that many seconds between one and the next; give how many there were to kill."""
    count = 0
    for handle in handles:
        pause(distance)
        try:
            signal.pidfd_send_signal(handle, signal.SIGKILL)
            count += 1
        except ProcessLookupError:
            pass
    return count


@row("fork-fails", "no process and no thread to be had",
     "fork and pthread_create fail for 10 s: in a reboot, between two services of a start and, in the long form, when "
     "all services die. A service whose start failed stays away until a reboot", short=1, long=33, seconds=(90, 1400))
def fork_fails(run):
    """The daemon stays, and quiet; a reboot afterwards brings everything back."""
    gateway = run.gateway()
    flag = gateway.path("no-processes")
    names = [f"s{number}" for number in range(6)]
    gateway.catalogue(Service("first", monitor=1, delay=0.4, program="exec sleep infinity"),
                      *[Service(name, monitor=1, program="exec sleep infinity") for name in names],
                      Service("named", bus="iot.test.named", monitor=1))
    daemon = gateway.up(env=dict(os.environ, LD_PRELOAD=run.preload("fork_fails"), FORK_FAILS_WHILE=flag))
    expected = len(names) + 3
    pages = Pages(gateway)
    usage, away, missed = [], 0, 0
    for number in range(run.amount):
        pages.turn()
        kind = ("reboot", "start", "deaths")[number % (3 if run.is_long else 2)]
        if kind == "deaths":
            pause(GRACE)
        elif kind == "start":
            gateway.bus().reboot()
            pages.wait_for("running first service", 20)
        usage.append(outage(flag, daemon, gateway if kind == "reboot" else None, kind == "deaths"))
        missed += not came(lambda: gateway.status().status == 0, 40)
        pages.turn()
        gateway.bus().reboot()
        back = pages.wait_for(UP, 30) and came(lambda: complete(gateway, daemon, expected), 5)
        away += not back
        run.progress(number)
    return [at_least("outages", run.amount, run.amount), none("daemons that ended", int(not daemon.alive()), 1),
            none("outages after which no bus answered", missed, run.amount),
            none("outages after which a reboot did not bring everything back", away, run.amount),
            at_most("most processor time in an outage", 100 * max(usage), clock.stretched(0.5), "%")]


def outage(flag, daemon, rebooted, kill_all):
    """Let nothing be forked for a while; give the part of a processor that the daemon used meanwhile."""
    victims = daemon.services()
    client = rebooted.bus() if rebooted else None
    with open(flag, "w", encoding="ascii"):
        pass
    before, begin = processor_time(daemon), time.monotonic()
    if client:
        client.reboot()
    if kill_all:
        for pid in victims:
            if processes.program(pid) != "dbus-daemon":
                os.kill(pid, signal.SIGKILL)
    pause(OUTAGE)
    used = (processor_time(daemon) - before) / (time.monotonic() - begin)
    os.unlink(flag)
    return used


def processor_time(daemon):
    """Seconds, of all threads that it ever had."""
    return time.clock_gettime((~daemon.pid << 3) | 2)


def complete(gateway, daemon, expected):
    """Whether every service and the bus daemon run, and are reported so."""
    report = gateway.bus().report()
    return len(daemon.services()) == expected and report.count("\033[32mactive") == expected - 1
