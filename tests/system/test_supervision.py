"""Start order, restarts after the grace, keep-alives, the remote-debug service."""

import os
import signal
import time

import pytest
from harness import clock, processes
from harness.bus import WATCHDOG, DRIVER
from harness.facts import Facts
from harness.gateway import LOGGER_LOG, MISSING, UP, Service

GRACE = 30
ACTIVE = "[  \033[32m+\033[0m  ]  Service {} is \033[32mactive\033[0m, pid is {}\n"


def after_start(gateway, seconds, anchor="quorvaned startup success"):
    """Wait until that many seconds have passed since a line was written."""
    line = gateway.log.wait_for(anchor)
    moment = time.monotonic() - (time.time() - line.time.timestamp())
    clock.until(lambda: time.monotonic() - moment >= seconds, seconds + 5, f"{seconds} s after {anchor!r}")


# The order of the start

def test_a_service_is_waited_for_by_its_bus_name_and_not_by_its_delay(gateway):
    gateway.catalogue(Service("named", "--name-delay=1200", bus="iot.test.named", delay=9), Service("next"))
    gateway.up()
    lines = gateway.log.sequence("run named pid %d", "running next service")
    assert 1.1 <= lines[1] - lines[0] <= 1.2 + clock.stretched(1.5)
    name = gateway.events("named", "name")[0]
    # The service tells of its name when it has been answered, the daemon hears of it at the same time.
    assert abs(lines[1].time.timestamp() - name["wall"]) <= clock.stretched(0.5)


@pytest.mark.takes(10)
def test_a_name_that_is_never_taken_costs_five_seconds_and_no_word(gateway):
    gateway.catalogue(Service("mute", "--name=", bus="iot.test.mute"), Service("next"))
    gateway.up()
    lines = gateway.log.sequence("run mute pid %d", "running next service")
    assert 5.0 <= lines[1] - lines[0] <= 5.5 + clock.stretched(4)
    assert lines[1].index == lines[0].index + 1
    assert processes.alive(gateway.pid_of("mute"))


@pytest.mark.takes(10)
def test_a_dead_service_is_waited_for_all_the_same(gateway):
    gateway.catalogue(Service("gone", bus="iot.test.gone", program=MISSING), Service("next"))
    gateway.up()
    lines = gateway.log.sequence("run gone pid %d", "running next service")
    assert 5.0 <= lines[1] - lines[0] <= 5.5 + clock.stretched(4)


@pytest.mark.takes(10)
def test_a_forged_name_owner_change_does_not_release_the_start(gateway):
    gateway.catalogue(Service("mute", "--name=", bus="iot.test.mute"), Service("next"))
    gateway.start()
    client = gateway.bus()
    gateway.log.wait_for("run mute pid %d")
    for broadcast in (False, True):
        for path in ("/org/freedesktop/DBus", "/iot/gateway/watchdog"):
            for interface in ("org.freedesktop.DBus", "iot.gateway.watchdog"):
                client.send((WATCHDOG[0], path, interface), "NameOwnerChanged", "sss", "iot.test.mute", "", ":1.99",
                            broadcast=broadcast)
    client.settle()
    gateway.log.wait_for(UP, 15)
    lines = gateway.log.sequence("run mute pid %d", "running next service")
    assert lines[1] - lines[0] >= 5.0


@pytest.mark.takes(8)
def test_whoever_takes_the_name_releases_the_start(gateway):
    gateway.catalogue(Service("mute", "--name=", bus="iot.test.mute"), Service("next"))
    gateway.start()
    client = gateway.bus()
    gateway.log.wait_for("run mute pid %d")
    client.own("iot.test.mute")
    gateway.log.wait_for(UP, 15)
    lines = gateway.log.sequence("run mute pid %d", "running next service")
    assert lines[1] - lines[0] < 4.5


@pytest.mark.takes(20)
def test_a_name_that_comes_late_stays_counted_for_the_next_cycle(gateway):
    gateway.catalogue(Service("late", "--name-delay=6500", bus="iot.test.late"), Service("next"))
    gateway.up()
    up = gateway.log.find(UP)[0]
    gateway.wait_event("late", "name")
    client = gateway.bus()
    client.settle()
    client.reboot()
    again = gateway.log.wait_for(UP, 20, after=up)
    lines = gateway.log.sequence("run late pid %d", "running next service", after=up)
    assert lines[1] - lines[0] < clock.stretched(1)
    assert again.index > lines[1].index


# Restarts

@pytest.mark.takes(75)
def test_dead_services_come_back_after_the_grace_and_not_earlier(gateway):
    gateway.catalogue(Service("killed", monitor=1), Service("unwatched"), Service("gone", program=MISSING, monitor=1),
                      Service("fails", "--exit-after=10", "--exit-status=1", monitor=1), Service("well", monitor=1),
                      Service("named", bus="iot.test.named", monitor=1))
    daemon = gateway.up()
    first = {name: gateway.pid_of(name) for name in ("killed", "unwatched", "gone", "fails", "well", "named")}
    after_start(gateway, 2)
    os.kill(first["killed"], signal.SIGKILL)
    os.kill(first["unwatched"], signal.SIGKILL)
    os.kill(first["named"], signal.SIGTERM)
    gateway.log.wait_for("process_exit, service(unwatched) is abnormal")
    gateway.log.wait_for("process_exit, service(named) is abnormal")
    gateway.log.wait_for("run gone pid %d", 80, count=3)
    gateway.log.wait_for("run fails pid %d", 5, count=3)
    with Facts() as fact:
        for name in ("killed", "gone", "fails", "named"):
            starts = gateway.log.find(f"run {name} pid %d")
            told = gateway.log.find(f"threadProc, service({name}) status(1) is abnormal")
            fact(f"{name} is told abnormal before each restart",
                 len(told) == len(starts) - 1
                 and all(early.index < one.index < late.index for early, one, late in zip(starts, told, starts[1:])),
                 (told, starts))
            for early, late in zip(starts, starts[1:]):
                fact(f"{name} is not restarted before the grace is over", late - early >= GRACE, late - early)
                fact(f"{name} is restarted soon after it", late - early <= GRACE + 2.2 + clock.stretched(5), late - early)
        fact("what was dead is not signalled", not gateway.log.has("kill -%d %s(%d)"))
        fact("the healthy one keeps its pid", gateway.pid_of("well") == first["well"])
        fact("the unwatched one stays away", gateway.log.count("run unwatched pid %d") == 1)
        fact("a program that keeps failing is tried again and again", gateway.log.count("run fails pid %d") >= 3)
    client = gateway.bus()
    report = client.report()
    assert ACTIVE.format("killed", gateway.pid_of("killed")) in report
    assert "unwatched" not in report
    # What another thread asked to be started is a service like any other: it is asked to end, not killed.
    restarted = {name: gateway.pid_of(name) for name in ("killed", "named")}
    client.reboot()
    for name, pid in restarted.items():
        gateway.wait_event(name, "signal", 10, signal=15, pid=pid, **{"from": daemon.pid})
        assert [event["pdeathsig"] for event in gateway.events(name, "start")] == [9, 9]


@pytest.mark.takes(75)
def test_keepalives_of_every_kind_have_their_effect(gateway):
    """One gateway, one service for each kind of keep-alive; all are told after the start, by a client."""
    names = ["expires", "told-off", "negative", "two-keys", "huge", "default", "text-for-a-number", "other-interface",
             "broadcast", "fed-again", "no-key", "wrong-types", "replaced"]
    gateway.catalogue(Service("nameless", monitor=1),
                      *[Service(name, bus="iot.test." + name.replace("-", "_"), monitor=1) for name in names],
                      Service("unwatched", bus="iot.test.unwatched"),
                      Service("itself", "--feed=own:4:0", bus="iot.test.itself", monitor=1),
                      Service("falls-silent", "--feed=own:6:500", bus="iot.test.falls_silent", monitor=1),
                      Service("stubborn", "--ignore-term", "--feed=own:4:0", bus="iot.test.stubborn", monitor=1))
    daemon = gateway.up()
    begin = time.monotonic()
    first = {name: gateway.pid_of(name) for name in [*names, "nameless", "unwatched", "itself", "falls-silent", "stubborn"]}
    client = gateway.bus()

    def bus_name(name):
        return "iot.test." + name.replace("-", "_")

    def feed(name, *args, signature="ssi", **how):
        client.send(WATCHDOG, "feedDog", signature, bus_name(name), *args, **how)

    feed("expires", "key", 4)
    feed("told-off", "key", 4)
    feed("told-off", "key", 0)
    feed("negative", "key", 4)
    feed("negative", "key", -2147483648)
    feed("two-keys", "a", 1000)
    feed("two-keys", "b", 4)
    feed("two-keys", "c", 0)
    feed("huge", "key", 2147483647)
    feed("default", "key", signature="ss")
    feed("text-for-a-number", "key", "4", signature="sss")
    client.send((WATCHDOG[0], WATCHDOG[1], "iot.test.other"), "feedDog", "ssi", bus_name("other-interface"), "key", 4,
                broadcast=True)
    feed("broadcast", "key", 4, broadcast=True)
    feed("fed-again", "key", 4)
    feed("no-key", signature="s")
    feed("unwatched", "key", 4)
    # A wrongly typed argument is not taken for one of another type, and does no harm.
    client.send(WATCHDOG, "feedDog")
    client.send(WATCHDOG, "feedDog", "i", 4)
    client.send(WATCHDOG, "feedDog", "ssi", "", "key", 4)
    client.send(WATCHDOG, "feedDog", "ssi", "iot.test.nobody", "key", 4)
    client.send(WATCHDOG, "feedDog", "iss", 4, bus_name("wrong-types"), "key")
    client.send(WATCHDOG, "feedDog", "a{sv}as", {"x": 1}, ["y"])
    client.send(WATCHDOG, "feedDog", "ssx", bus_name("wrong-types"), "%s%n\n", 4)
    client.settle()
    fed = time.monotonic()
    while time.monotonic() < fed + 40:
        feed("fed-again", "key", 4)
        client.settle()
        time.sleep(1)  # the beat of a service that feeds, not a wait
        if gateway.log.has("threadProc, service(expires) status(0) is abnormal") and time.monotonic() > begin + 35:
            break
    with Facts() as fact:
        for name in ("expires", "two-keys", "broadcast", "itself", "stubborn"):
            told = gateway.log.find(f"threadProc, service({name}) status(0) is abnormal")
            fact(f"{name}: restarted once", len(told) == 1 and gateway.log.count(f"run {name} pid %d") == 2, told)
            fact(f"{name}: stopped before it is started again",
                 gateway.log.has(f"kill -15 {name}({first[name]})"))
            if told:
                starts = gateway.log.find(f"run {name} pid %d")
                fact(f"{name}: not within the grace", starts[1] - starts[0] >= GRACE, starts)
                gateway.log.sequence(f"threadProc, service({name}) status(0) is abnormal",
                                     f"kill -15 {name}({first[name]})", f"run {name} pid %d")
        for name in ("told-off", "negative", "huge", "default", "text-for-a-number", "other-interface", "fed-again",
                     "no-key", "wrong-types", "replaced", "nameless", "unwatched", "falls-silent"):
            fact(f"{name}: left alone", gateway.log.count(f"run {name} pid %d") == 1,
                 gateway.log.find(f"threadProc, service({name}) %s"))
        log = open(LOGGER_LOG, encoding="utf-8").read() if os.path.exists(LOGGER_LOG) else ""
        fact("the reason is in the logging library's log", "check_keepalive, services:expires keepalive timeout" in log)
        fact("what was told off is not in it", "services:told-off keepalive" not in log)
        fact("who was stopped without dying lives on", processes.alive(first["stubborn"]))
        fact("the daemon lives", daemon.alive())
    # Beyond the grace the deadline alone decides, to the second.
    moment = time.monotonic()
    client.feed(bus_name("replaced"), "key", 5)
    os.kill(first["falls-silent"], signal.SIGUSR1)
    gateway.wait_event("falls-silent", "signal", signal=10)
    gateway.log.wait_for("run replaced pid %d", 12, count=2)
    assert 5.0 <= time.monotonic() - moment <= 5 + 2.2 + clock.stretched(4)
    gateway.log.wait_for("threadProc, service(falls-silent) status(0) is abnormal", 12)
    # Sixty seconds are the default.
    gateway.log.wait_for("threadProc, service(default) status(0) is abnormal", 40)
    assert 60 <= time.monotonic() - fed + 1 <= 62.2 + clock.stretched(6)
    gateway.log.wait_for("threadProc, service(text-for-a-number) status(0) is abnormal", 10)
    gateway.log.wait_for("threadProc, service(no-key) status(0) is abnormal", 10)
    with Facts() as fact:
        # A restarted service is not watched until it feeds again.
        for name in ("expires", "two-keys", "broadcast"):
            fact(f"{name}: restarted once only", gateway.log.count(f"run {name} pid %d") == 2)
        fact("the huge one is still left alone", gateway.log.count("run huge pid %d") == 1)
        fact("the nameless one is still left alone", gateway.log.count("run nameless pid %d") == 1)


@pytest.mark.takes(45)
def test_keepalives_in_a_flood_are_no_trouble(gateway):
    gateway.catalogue(Service("svc", bus="iot.test.svc", monitor=1))
    daemon = gateway.up()
    client = gateway.bus()
    for number in range(3000):
        client.send(WATCHDOG, "feedDog", "ssi", "iot.test.svc", f"key{number % 500}", 1000)
    client.settle()
    assert gateway.status().status == 0
    os.kill(gateway.pid_of("svc"), signal.SIGKILL)
    gateway.log.wait_for("run svc pid %d", 36, count=2)
    assert daemon.alive()


# The remote-debug service

def test_the_remote_debug_service_is_adopted_when_another_process_of_it_runs(gateway):
    gateway.catalogue(Service("RemoteTerminalDaemon", monitor=1))
    other = processes.spawn([gateway.path("bin/RemoteTerminalDaemon")])
    gateway.started("RemoteTerminalDaemon")
    daemon = gateway.up()
    first = gateway.pid_of("RemoteTerminalDaemon")
    gateway.started("RemoteTerminalDaemon", count=2)
    os.kill(first, signal.SIGKILL)
    gateway.log.wait_for(f"process_exit, service(RemoteTerminalDaemon) old pid({other.pid})")
    assert not gateway.log.has("process_exit, service(RemoteTerminalDaemon) is abnormal")
    assert gateway.bus().report() == ACTIVE.format("RemoteTerminalDaemon", other.pid)
    up = gateway.log.find(UP)[0]
    # Adopted, it is stopped like the service that it stands for.
    gateway.bus().reboot()
    assert other.wait(10) == 0
    assert gateway.log.has(f"kill -15 RemoteTerminalDaemon({other.pid})")
    gateway.log.wait_for(UP, 15, after=up)
    assert daemon.alive()


def test_without_another_process_the_remote_debug_service_is_abnormal(gateway):
    gateway.catalogue(Service("RemoteTerminalDaemon", monitor=1))
    os.makedirs("/tmp/elsewhere")
    with open(gateway.path("bin/RemoteTerminalDaemon"), "rb") as source:
        with open("/tmp/elsewhere/RemoteTerminalDaemon", "wb") as copy:
            copy.write(source.read())
    os.chmod("/tmp/elsewhere/RemoteTerminalDaemon", 0o755)
    stranger = processes.spawn(["/tmp/elsewhere/RemoteTerminalDaemon"])
    clock.until(lambda: processes.program(stranger.pid) == "RemoteTerminalDaemon", 5, "the stranger")
    gateway.up()
    os.kill(gateway.pid_of("RemoteTerminalDaemon"), signal.SIGKILL)
    gateway.log.wait_for("process_exit, service(RemoteTerminalDaemon) is abnormal")
    assert "Service RemoteTerminalDaemon is \033[0;31minactive" in gateway.bus().report()
    assert stranger.alive()


@pytest.mark.takes(12)
def test_an_adopted_process_that_ended_is_no_reason_to_signal_its_number(gateway):
    gateway.catalogue(Service("RemoteTerminalDaemon", monitor=1))
    other = processes.spawn([gateway.path("bin/RemoteTerminalDaemon")])
    gateway.started("RemoteTerminalDaemon")
    gateway.up()
    os.kill(gateway.pid_of("RemoteTerminalDaemon"), signal.SIGKILL)
    gateway.log.wait_for(f"process_exit, service(RemoteTerminalDaemon) old pid({other.pid})")
    other.signal(signal.SIGKILL)
    other.wait()
    up = gateway.log.find(UP)[0]
    gateway.bus().reboot()
    gateway.log.wait_for(UP, 15, after=up)
    gateway.log.sequence("running RemoteTerminalDaemon service", "run RemoteTerminalDaemon pid %d", after=up)


def test_name_owner_changes_are_traced_with_all_three_values(gateway):
    gateway.catalogue(Service("svc", bus="iot.test.svc"))
    gateway.up()
    client = gateway.bus()
    client.own("iot.test.traced")
    client.settle()
    owner = client.owner("iot.test.traced")

    def traced():
        with open(LOGGER_LOG, encoding="utf-8") as file:
            return f"NameOwnerChanged, name:iot.test.traced, old_owner:, new_owner:{owner}" in file.read()

    clock.until(lambda: os.path.exists(LOGGER_LOG) and traced(), 5, "the trace")
    assert client.owner(DRIVER[0]) == DRIVER[0]
