"""Signals to the daemon, at every moment, and the end that they lead to."""

import os
import random
import signal
import time

import pytest
from harness import clock, processes, sandbox
from harness.bus import WATCHDOG
from harness.gateway import MISSING, UP, Service, term

NAMES = {signal.SIGTERM: "Terminated", signal.SIGINT: "Interrupt", signal.SIGQUIT: "Quit",
         signal.SIGILL: "Illegal instruction", signal.SIGABRT: "Aborted", signal.SIGUSR1: "User defined signal 1",
         signal.SIGUSR2: "User defined signal 2", signal.SIGSEGV: "Segmentation fault"}


def caught(number):
    """The line of a signal."""
    return f"caught {NAMES[number]}({int(number)}) signal, exit"


def in_time(seconds):
    """A forced exit's duration, seen from outside."""
    return 5.0 <= seconds <= 5.5 + clock.stretched(4)


@pytest.mark.takes(9)
@pytest.mark.parametrize("number", [signal.SIGTERM, signal.SIGINT, signal.SIGQUIT, signal.SIGILL, signal.SIGABRT,
                                    signal.SIGUSR1])
def test_a_terminating_signal_ends_everything_after_five_seconds_with_status_0(gateway, number):
    gateway.catalogue(Service("one"), Service("two", bus="iot.test.two"), Service("fota"),
                      Service("RemoteTerminalDaemon"))
    daemon = gateway.up()
    pids = {name: gateway.pid_of(name) for name in ("one", "two", "dbus-daemon", "fota", "RemoteTerminalDaemon")}
    up = gateway.log.find(UP)[0]
    status, seconds = term(daemon, number)
    assert status == 0
    assert in_time(seconds)
    # Nothing is torn down before the five seconds are over; then the bus daemon, then the services, last first.
    texts = gateway.log.texts(after=up)
    expected = [caught(number), "quorvaned exit (force)", f"stop dbus-daemon, kill -15 {pids['dbus-daemon']}",
                f"kill -9 two({pids['two']})", f"kill -9 one({pids['one']})"]
    # The channel may still see the bus go, and say so, before the process is gone as well.
    lost = [text for text in texts if text.startswith("dbus error callback, error:")]
    assert len(lost) <= 1
    assert [text for text in texts if text not in lost] == expected
    assert not lost or texts.index(lost[0]) > 2
    lines = gateway.log.sequence(caught(number), "quorvaned exit (force)")
    assert 5.0 <= lines[1] - lines[0] <= 5.5 + clock.stretched(4)
    processes.wait_gone([pids["one"], pids["two"], pids["dbus-daemon"]], 2)
    assert sorted(processes.everybody()) == sorted([pids["fota"], pids["RemoteTerminalDaemon"]])


@pytest.mark.takes(9)
def test_a_detached_daemon_ends_with_status_0_too(gateway):
    gateway.catalogue(Service("svc"))
    launcher = gateway.launch()
    daemon = gateway.daemon_of(launcher)
    launcher.wait(10)
    gateway.log.wait_for(UP)
    status, seconds = term(daemon)
    assert status == 0
    assert in_time(seconds)


@pytest.mark.takes(10)
@pytest.mark.parametrize("number", [signal.SIGTERM, signal.SIGINT, signal.SIGUSR1])
@pytest.mark.parametrize("run", range(2))
def test_the_status_is_0_under_bus_traffic(gateway, number, run):
    gateway.catalogue(*[Service(f"svc{count}", "--feed=key:1000:1", bus=f"iot.test.svc{count}", monitor=1)
                        for count in range(4)])
    daemon = gateway.up()
    client = gateway.bus()
    daemon.signal(number)
    begin = time.monotonic()
    rounds = 0
    while daemon.status is None and time.monotonic() < begin + clock.stretched(8):
        try:
            client.send(WATCHDOG, "feedDog", "ssi", "iot.test.svc0", f"key{rounds}", 100 + run)
            client.call(("iot.gateway.quorvaned", "/iot/gateway/quorvaned", "iot.gateway.quorvaned"), "get_le_status",
                        within=0.5)
        except Exception:  # pylint: disable=broad-except
            time.sleep(0.01)
        rounds += 1
    assert daemon.wait(5) == 0
    assert rounds > 100


def test_sigsegv_ends_at_once_with_255_and_one_line(gateway):
    gateway.catalogue(Service("svc"), Service("fota"))
    daemon = gateway.up()
    up = gateway.log.find(UP)[0]
    status, seconds = term(daemon, signal.SIGSEGV)
    assert status == 255
    assert seconds < clock.stretched(1)
    gateway.log.exactly([caught(signal.SIGSEGV)], after=up)
    # Nothing was stopped in order: what dies, dies with its parent.
    processes.wait_gone([gateway.pid_of("svc"), gateway.pid_of("dbus-daemon")], 1)
    assert processes.alive(gateway.pid_of("fota"))


def signal_thread(daemon, name, number):
    """Send a signal to one thread of the daemon."""
    def look():
        return [int(task) for task in os.listdir(f"/proc/{daemon.pid}/task")
                if processes.proc(daemon.pid, f"task/{task}/comm").strip() == name]

    thread, = clock.until(look, 5, f"the thread {name}")
    sandbox.call("tgkill", daemon.pid, thread, number)


@pytest.mark.takes(8)
@pytest.mark.parametrize("thread", ["start_up_thread", "sevice_manager_", "bus-watchdog"])
@pytest.mark.parametrize("number", [signal.SIGILL, signal.SIGSEGV])
def test_a_fault_signal_at_another_thread_is_told_and_ends_the_daemon_in_the_usual_way(gateway, thread, number):
    gateway.catalogue(Service("svc"))
    daemon = gateway.up()
    up = gateway.log.find(UP)[0]
    pids = [gateway.pid_of("svc"), gateway.pid_of("dbus-daemon")]
    begin = time.monotonic()
    signal_thread(daemon, thread, number)
    status = daemon.wait(10)
    seconds = time.monotonic() - begin
    if number == signal.SIGSEGV:
        assert status == 255
        assert seconds < clock.stretched(1)
        gateway.log.exactly([caught(number)], after=up)
    else:
        assert status == 0
        assert in_time(seconds)
        gateway.log.sequence(caught(number), "quorvaned exit (force)", f"kill -9 svc({pids[0]})", after=up)
        assert gateway.log.count("caught %s(%d) signal, exit") == 1
    processes.wait_gone(pids, 2)


def test_signals_that_are_ignored_change_nothing(gateway):
    gateway.catalogue(Service("svc", monitor=1))
    daemon = gateway.up()
    up = gateway.log.find(UP)[0]
    for number in (signal.SIGHUP, signal.SIGPIPE, signal.SIGTSTP, signal.SIGTTIN, signal.SIGTTOU):
        for _ in range(3):
            daemon.signal(number)
    assert gateway.status().status == 0
    assert processes.status_field(daemon.pid, "State")[0] in "SR"
    gateway.log.exactly([], after=up)
    ignored = int(processes.status_field(daemon.pid, "SigIgn"), 16)
    handled = int(processes.status_field(daemon.pid, "SigCgt"), 16)
    for number in (signal.SIGHUP, signal.SIGPIPE, signal.SIGTSTP, signal.SIGTTIN, signal.SIGTTOU):
        assert ignored >> (number - 1) & 1, number
    for number in NAMES:
        assert handled >> (number - 1) & 1, number


RANDOM = [(run, random.Random(run).choice(sorted(NAMES.keys() - {signal.SIGUSR2})), random.Random(run + 1000).random())
          for run in range(40)]


@pytest.mark.takes(7)
@pytest.mark.parametrize("run, number, moment", RANDOM,
                         ids=[f"{run}-{number.name}-{moment:.3f}" for run, number, moment in RANDOM])
def test_a_signal_at_any_moment_is_told_and_ends_the_daemon_in_time(gateway, run, number, moment):
    """From the first moment that the handlers stand: through the start, the services' starts, and while up."""
    gateway.catalogue(Service("one"), Service("gone", program=MISSING, monitor=1),
                      Service("two", bus="iot.test.two", monitor=1), Service("dies", "--exit-after=30", monitor=1),
                      *[Service(f"svc{count}", delay=0.1) for count in range(3)])
    gateway.script("deploy_sst", "sleep 0.1")
    gateway.prepare_run_directory()
    daemon = gateway.start() if run % 2 else None
    if daemon is None:
        launcher = gateway.launch()
        gateway.log.wait_for("initialize the running environment")
        daemon = gateway.daemon_of(launcher)
    gateway.log.wait_for("initialize the running environment", pid=daemon.pid)
    time.sleep(moment * (1.2 if run % 4 else 0.2))
    begin = daemon.signal(number)
    status = daemon.wait(15)
    seconds = time.monotonic() - begin
    told = gateway.log.find(caught(number), pid=daemon.pid)
    assert len(told) == 1
    assert gateway.log.count("caught %s(%d) signal, exit") == 1
    if number == signal.SIGSEGV:
        assert status == 255
        assert seconds < clock.stretched(1)
    else:
        assert status == 0
        assert not gateway.log.has("stop business service")
        if gateway.log.has("quorvaned exit (normal)"):
            # The controller was asked to end before its first cycle: it ends by itself.
            assert not gateway.log.has("running dbus daemon")
            assert 3.0 <= seconds <= 5.5 + clock.stretched(4)
        else:
            assert in_time(seconds), seconds
            assert gateway.log.has("quorvaned exit (force)", after=told[0])
    clock.until(lambda: not processes.running("dbus-daemon") and not processes.running("one"), 2, "an empty machine")


@pytest.mark.takes(9)
@pytest.mark.parametrize("first, second", [(signal.SIGTERM, signal.SIGUSR1), (signal.SIGUSR1, signal.SIGTERM),
                                           (signal.SIGTERM, signal.SIGTERM), (signal.SIGINT, signal.SIGQUIT)])
def test_a_second_signal_during_the_end_does_not_prolong_it(gateway, first, second):
    gateway.catalogue(Service("svc"))
    daemon = gateway.up()
    begin = daemon.signal(first)
    gateway.log.wait_for(caught(first))
    time.sleep(2)  # well into the five seconds
    daemon.signal(second)
    assert daemon.wait(10) == 0
    assert in_time(time.monotonic() - begin), time.monotonic() - begin
    assert gateway.log.count("quorvaned exit (force)") == 1


@pytest.mark.takes(9)
def test_a_storm_of_signals_ends_in_time_with_status_0(gateway):
    gateway.catalogue(Service("svc"))
    daemon = gateway.up()
    begin = daemon.signal(signal.SIGTERM)
    generator = random.Random(7)
    while daemon.status is None and time.monotonic() < begin + 10:
        daemon.signal(generator.choice([signal.SIGTERM, signal.SIGINT, signal.SIGQUIT, signal.SIGUSR1, signal.SIGABRT,
                                        signal.SIGHUP, signal.SIGPIPE, signal.SIGCHLD]))
        time.sleep(0.002)
    assert daemon.wait(5) == 0
    assert in_time(time.monotonic() - begin), time.monotonic() - begin


@pytest.mark.takes(9)
def test_a_segmentation_fault_during_the_end_ends_it_at_once(gateway):
    daemon = gateway.up()
    daemon.signal(signal.SIGTERM)
    gateway.log.wait_for(caught(signal.SIGTERM))
    status, seconds = term(daemon, signal.SIGSEGV)
    assert status == 255
    assert seconds < clock.stretched(1)


@pytest.mark.takes(10)
def test_a_signal_to_the_whole_process_group_ends_the_daemon_in_the_usual_way(gateway):
    """What the interrupt key does to a daemon that runs on a terminal."""
    gateway.catalogue(Service("svc", "--ignore-term"))
    daemon = gateway.up(prepare=lambda: os.setpgid(0, 0))
    gateway.started("svc")
    begin = time.monotonic()
    os.killpg(daemon.pid, signal.SIGINT)
    gateway.wait_event("svc", "signal", signal=2)
    assert daemon.wait(10) == 0
    # The bus daemon is of the group and ends as well: when that is noticed first, a teardown is under way already
    # and ends by itself.
    assert 3.0 <= time.monotonic() - begin <= 5.5 + clock.stretched(4)
    assert gateway.log.count("caught %s(%d) signal, exit") == 1


@pytest.mark.takes(12)
def test_a_stop_between_two_cycles_starts_nothing_again(gateway):
    gateway.catalogue(Service("svc"))
    daemon = gateway.up()
    up = gateway.log.find(UP)[0]
    gateway.bus().reboot()
    gateway.log.wait_for("stop dbus-daemon, kill -15 %d", after=up)
    begin = daemon.signal(signal.SIGTERM)
    assert daemon.wait(15) == 0
    assert 3.0 <= time.monotonic() - begin <= 5.5 + clock.stretched(4)
    assert gateway.log.count(UP) == 1
    assert not gateway.log.has("running dbus daemon", after=up)
    clock.until(lambda: not processes.everybody(), 2, "an empty machine")


@pytest.mark.takes(10)
@pytest.mark.parametrize("moment", [0.0, 0.05, 0.3, 0.7, 1.0, 1.1])
def test_a_stop_during_a_restart_of_the_stack_ends_in_time(gateway, moment):
    gateway.catalogue(Service("svc"), Service("named", bus="iot.test.named"))
    daemon = gateway.up()
    up = gateway.log.find(UP)[0]
    gateway.bus().reboot()
    time.sleep(moment)
    begin = daemon.signal(signal.SIGTERM)
    assert daemon.wait(15) == 0
    assert 3.0 <= time.monotonic() - begin <= 5.5 + clock.stretched(4)
    told, = gateway.log.find(caught(signal.SIGTERM))
    assert not gateway.log.has(UP, after=told)
    assert gateway.log.count(UP, after=up) <= 1
    clock.until(lambda: not processes.everybody(), 2, "an empty machine")


@pytest.mark.takes(9)
def test_after_the_end_nothing_is_left_and_a_new_start_works(gateway):
    gateway.catalogue(Service("svc", monitor=1))
    first = gateway.up()
    assert term(first)[0] == 0
    clock.until(lambda: not processes.everybody(), 2, "an empty machine")
    second = gateway.up()
    assert gateway.log.find("check old quorvaned, count:%d old_pid:%d", pid=second.pid)[-1].values == (0, 0)
    assert gateway.status().status == 0
