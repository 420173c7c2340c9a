"""The reference gateway's own services, as installed: their names, keep-alives, methods, failures and ends."""

import os
import re
import signal
import stat
import subprocess

import pytest
from harness import clock, processes
from harness.bus import ADDRESS, WATCHDOG
from harness.gateway import RUN, UP

ACTIVE = "[  \033[32m+\033[0m  ]  Service {} is \033[32mactive\033[0m, pid is {}\n"
GRACE = 30

# The samples, in the order of the example catalogue.
SERVICES = ["device-registry", "sensor-hub.py", "clock-watch", "modem-watch.sh", "display.sh", "housekeeping.sh"]
MONITORED = SERVICES[:-1]
DEVICES = ("iot.gateway.devices", "/iot/gateway/devices", "iot.gateway.devices")
SENSORS = ("iot.gateway.sensors", "/iot/gateway/sensors", "iot.gateway.sensors")
DISPLAY = "iot.gateway.display"
HOLDER = "hold-name"  # holds the name of a shell service
NAMED = {DEVICES[0]: "device-registry", SENSORS[0]: "sensor-hub.py", DISPLAY: "display.sh"}
# Item and seconds of each.
FEEDS = {DEVICES[0]: ("registry", 15), SENSORS[0]: ("sensors", 10), DISPLAY: ("main", 20)}
STATES = {"clock-watch": r"steps \d+\nlast_ms -?\d+\n", "modem-watch": r"(online|offline)\n",
          "display": r"temperature -?\d+\.\d C\n", "housekeeping": r"load [\d.]+\nused \d+%\n"}


@pytest.fixture(name="installed")
def installed_samples(installed):
    """The installation with the samples alone in its catalogue."""
    installed.keep_only(*SERVICES)
    return installed


def pids(gateway):
    """The process of each service."""
    return {name: gateway.pid_of(name) for name in SERVICES}


def service_of(client, name):
    """The process of the service that has the name, be it by a holder; 0 when nobody has it."""
    pid = client.owner(name) and client.pid_of(name)
    return int((processes.status_field(pid, "PPid") if processes.program(pid) == HOLDER else pid) or 0)


def names_of(client):
    """The process of each service that has a name, by the name."""
    return {name: service_of(client, name) for name in NAMED}


def report_of(running):
    """The report while all of these run."""
    return "".join(ACTIVE.format(name, running[name]) for name in MONITORED)


def state(name):
    """What a service has written down."""
    try:
        with open(f"{RUN}/{name}/state", encoding="utf-8") as file:
            return file.read()
    except FileNotFoundError:
        return ""


def wait_for_first_states():
    """Wait until the services without a name have done their work once: before it they cannot end well."""
    for name in STATES:
        clock.until(lambda name=name: state(name), 15, lambda name=name: f"the state of {name}")


def settled(gateway):
    """Bring everything up, until each service has done its work; give the processes and a client of the bus."""
    gateway.up()
    wait_for_first_states()
    return pids(gateway), gateway.bus()


def wait_for_restart(gateway, name, within):
    """Wait until the service has been started again, which is not before the grace is over; give the log's line."""
    again = gateway.log.wait_for(f"run {name} pid %d", within, count=2)
    assert again - gateway.log.find(f"run {name} pid %d")[0] >= GRACE
    return again


def wait_for_name(gateway, client, bus_name, within):
    """Wait until the service's present process has its bus name."""
    clock.until(lambda: service_of(client, bus_name) == gateway.pid_of(NAMED[bus_name]), within,
                f"the name {bus_name} of the new process")


def feed_of(bus_name):
    """The keep-alive of that service."""
    return (bus_name, *FEEDS[bus_name])


def feeds(monitor):
    """The keep-alives that a monitor has shown: bus name, item, seconds."""
    found = re.findall(r'Member=feedDog\n.*\n  MESSAGE "ssi" \{\n +STRING "(.*)";\n +STRING "(.*)";\n +INT32 (-?\d+);',
                       str(monitor.stdout))
    return [(name, item, int(seconds)) for name, item, seconds in found]


def watch_feeds():
    """Start a monitor of the keep-alives, and wait until it listens."""
    monitor = processes.spawn(["/usr/bin/busctl", f"--address={ADDRESS}", "monitor", WATCHDOG[0]])
    clock.until(lambda: "Monitoring bus message stream." in str(monitor.stderr), 10, lambda: str(monitor.stderr))
    return monitor


def test_the_launcher_brings_up_every_service_of_the_example_catalogue_in_its_order(installed):
    launcher = installed.launch()
    daemon = installed.daemon_of(launcher)
    assert launcher.wait(20) == 0
    steps = ["initialize the running environment", "running dbus daemon",
             *[f"running {name} service" for name in SERVICES], "start up completed"]
    assert str(launcher.stdout) == "".join(f"quorvaned: {step}\n" for step in steps)
    installed.log.wait_for(UP)
    running = pids(installed)
    answer = installed.status()
    assert answer.status == 0
    assert str(answer.stdout).endswith("\n\n" + report_of(running) + "\n")
    assert all(processes.alive(pid) for pid in running.values())
    assert {name: processes.status_field(pid, "PPid") for name, pid in running.items()} \
        == dict.fromkeys(SERVICES, str(daemon.pid))


def test_the_services_take_their_names_before_the_next_one_is_started(installed):
    installed.up()
    client = installed.bus()
    assert names_of(client) == {name: installed.pid_of(exec_name) for name, exec_name in NAMED.items()}
    for exec_name, after in (("device-registry", "sensor-hub.py"), ("sensor-hub.py", "clock-watch"),
                             ("display.sh", "housekeeping.sh")):
        lines = installed.log.sequence(f"run {exec_name} pid %d", f"running {after} service")
        assert lines[1] - lines[0] < 5  # it was not sat out


@pytest.mark.takes(10)
def test_the_services_write_their_state_where_others_may_read_but_not_write(installed):
    # With no umask at all, as in the background.
    installed.up(umask=0)
    for name, pattern in STATES.items():
        clock.until(lambda name=name, pattern=pattern: re.fullmatch(pattern, state(name)), 15,
                    lambda name=name: f"the state of {name}: {state(name)!r}")
        assert stat.S_IMODE(os.stat(f"{RUN}/{name}/state").st_mode) == 0o644
        assert stat.S_IMODE(os.stat(f"{RUN}/{name}").st_mode) == 0o755


@pytest.mark.takes(16)
def test_the_named_services_feed_their_keepalive_well_before_each_deadline(installed):
    installed.up()
    monitor = watch_feeds()
    shown = {name: feed_of(name) for name in FEEDS}
    for name, feed in shown.items():
        # Twice within one deadline.
        clock.until(lambda feed=feed: feeds(monitor).count(feed) >= 2, feed[2], lambda: str(feeds(monitor)))
    assert set(feeds(monitor)) == set(shown.values())
    assert installed.status().status == 0


def test_the_device_registry_keeps_its_list_and_its_limit(installed):
    installed.up()
    client = installed.bus()
    assert list(client.call(DEVICES, "list")) == []
    assert [bool(client.call(DEVICES, member, "s", "b")) for member in ("add", "add", "remove", "remove")] \
        == [True, False, True, False]
    for number in range(256):
        assert client.call(DEVICES, "add", "s", f"device{number:03}")
    assert not client.call(DEVICES, "add", "s", "one too many")
    assert [str(name) for name in client.call(DEVICES, "list")] == [f"device{number:03}" for number in range(256)]
    assert client.error(DEVICES, "add") == "org.freedesktop.DBus.Error.InvalidArgs"
    assert client.error(DEVICES, "add", "i", 5) == "org.freedesktop.DBus.Error.InvalidArgs"
    assert client.error(DEVICES, "nothing") == "org.freedesktop.DBus.Error.UnknownMethod"
    assert client.pid_of(DEVICES[0]) == installed.pid_of("device-registry")


def test_ordinary_tools_work_on_the_services(installed):
    installed.up()
    busctl = ["/usr/bin/busctl", f"--address={ADDRESS}"]
    for target, rows in ((DEVICES, {".add method s b -", ".remove method s b -", ".list method - as -",
                                    ".crash method - - -", ".fall_silent method - - -"}),
                         (SENSORS, {".read method - d -", ".crash method - - -", ".fall_silent method - - -",
                                    ".reading signal d - -"})):
        shown = processes.run([*busctl, "introspect", "--no-legend", target[0], target[1], target[2]])
        assert shown.status == 0, str(shown.stderr)
        assert {" ".join(line.split()) for line in str(shown.stdout).splitlines()} == rows
    assert re.fullmatch(r"d -?[\d.]+\n", str(processes.run([*busctl, "call", *SENSORS, "read"]).stdout))
    shown = processes.spawn(["/usr/bin/gdbus", "monitor", "--address", ADDRESS, "--dest", SENSORS[0]])
    clock.until(lambda: re.search(r"^/iot/gateway/sensors: iot\.gateway\.sensors\.reading \(-?[\d.]+,\)$",
                                  str(shown.stdout), re.MULTILINE), 10, lambda: str(shown.stdout))


@pytest.mark.takes(9)
def test_every_service_ends_with_status_0_when_it_is_told_to(installed):
    running, client = settled(installed)
    for pid in running.values():
        os.kill(pid, signal.SIGTERM)
    for name, pid in running.items():
        # The shell services finish the command that they wait for, at most.
        installed.log.wait_for(f"wait pid({pid}) status(0)", 4)
        installed.log.wait_for(f"process_exit, service({name}) is abnormal")
    processes.wait_gone(processes.running(HOLDER), 2)
    clock.until(lambda: not any(client.owner(name) for name in NAMED), 2, "the end of the names")
    assert client.report().count("inactive") == len(MONITORED)


@pytest.mark.takes(14)
def test_when_the_stack_is_restarted_every_service_ends_well_and_comes_back(installed):
    daemon = installed.up()
    up = installed.log.find(UP)[0]
    wait_for_first_states()
    old = pids(installed)
    installed.bus().reboot()
    installed.log.wait_for(UP, 20, after=up)
    for name, pid in old.items():
        installed.log.wait_for(f"wait pid({pid}) status(0)", 4)
        assert installed.pid_of(name) != pid
    assert installed.bus().report() == report_of(pids(installed))
    assert names_of(installed.bus()) == {name: installed.pid_of(exec_name) for name, exec_name in NAMED.items()}
    assert len(processes.running(HOLDER)) == 1
    assert daemon.alive()


@pytest.mark.takes(9)
def test_a_name_is_given_back_when_its_shell_service_is_killed_in_the_middle_of_a_command(installed):
    installed.up()
    client = installed.bus()
    holder = client.pid_of(DISPLAY)
    assert processes.running(HOLDER) == [holder]
    # The service asks it and waits, in a subshell. Its first question has been answered by then.
    wait_for_first_states()
    os.kill(installed.pid_of("sensor-hub.py"), signal.SIGSTOP)
    asking = clock.until(lambda: processes.running("dbus-send"), 10, "the question to the sensor service")
    os.kill(installed.pid_of("display.sh"), signal.SIGKILL)
    processes.wait_gone([holder], 1)
    assert any(processes.alive(pid) for pid in asking)
    clock.until(lambda: not client.owner(DISPLAY), 1, "the end of the name")


def test_a_shell_service_ends_when_nobody_holds_its_name(installed):
    running, client = settled(installed)
    os.kill(client.pid_of(DISPLAY), signal.SIGKILL)
    line = installed.log.wait_for(f"wait pid({running['display.sh']}) status(%d)")
    assert os.waitstatus_to_exitcode(line.values[0]) == 1


def test_the_holder_of_a_name_feeds_what_it_is_told_and_ends_with_its_input(installed):
    installed.up()
    client = installed.bus()
    monitor = watch_feeds()
    program = installed.path("lib/" + HOLDER)
    lines = ["some item 7", "no-number", "no-number x", "too-many 99999999999", "", "wrong-text-\xff 5", "last 0"]
    with subprocess.Popen([program, "iot.test.held"], stdin=subprocess.PIPE) as holder:
        clock.until(lambda: client.owner("iot.test.held"), 5, "the name")
        holder.stdin.write("\n".join(lines + ["cut off"]).encode("latin-1"))
        holder.stdin.flush()
        clock.until(lambda: ("iot.test.held", "last", 0) in feeds(monitor), 5, lambda: str(feeds(monitor)))
        assert [feed for feed in feeds(monitor) if feed[0] == "iot.test.held"] \
            == [("iot.test.held", "some item", 7), ("iot.test.held", "last", 0)]
        holder.stdin.close()
        assert holder.wait(5) == 0
    assert client.owner("iot.test.held") == ""
    with subprocess.Popen([program, "iot.test.held"], stdin=subprocess.PIPE) as holder:
        clock.until(lambda: client.owner("iot.test.held"), 5, "the name")
        holder.terminate()
        assert holder.wait(5) == 0
    for words in ([], ["no name"], ["iot.one", "iot.two"]):
        assert subprocess.run([program, *words], stdin=subprocess.DEVNULL, check=False).returncode == 1


@pytest.mark.takes(45)
@pytest.mark.limit(120)
def test_services_that_crash_when_they_are_told_to_come_back_after_the_grace(installed):
    old, client = settled(installed)
    crashed = ("sensor-hub.py", "modem-watch.sh", "device-registry", "display.sh")
    for target in (SENSORS, DEVICES):
        assert client.error(target, "crash") == "org.freedesktop.DBus.Error.NoReply"
    for name in ("modem-watch.sh", "display.sh"):
        os.kill(old[name], signal.SIGUSR1)
    # Housekeeping is not monitored: it stays away.
    os.kill(old["housekeeping.sh"], signal.SIGKILL)
    for name in crashed:
        line = installed.log.wait_for(f"wait pid({old[name]}) status(%d)")
        assert os.WTERMSIG(line.values[0]) == signal.SIGABRT
        installed.log.wait_for(f"process_exit, service({name}) is abnormal")
        assert f"Service {name} is \033[0;31minactive\033[0m\n" in client.report()
    assert client.owner(SENSORS[0]) == ""
    for name in crashed:
        wait_for_restart(installed, name, GRACE + 10)
        assert installed.log.has(f"threadProc, service({name}) status(1) is abnormal")
    wait_for_name(installed, client, SENSORS[0], 10)
    monitor = watch_feeds()
    clock.until(lambda: feed_of(SENSORS[0]) in feeds(monitor), 10, lambda: str(feeds(monitor)))
    assert client.report() == report_of(pids(installed))
    assert installed.log.count("run housekeeping.sh pid %d") == 1
    assert installed.pid_of("clock-watch") == old["clock-watch"]


@pytest.mark.takes(50)
@pytest.mark.limit(120)
def test_services_that_fall_silent_or_are_stuck_are_replaced(installed):
    installed.up()
    old = pids(installed)
    client = installed.bus()
    monitor = watch_feeds()
    client.call(SENSORS, "fall_silent")
    for name in ("device-registry", "display.sh"):
        os.kill(old[name], signal.SIGSTOP)
    before = feeds(monitor).count(feed_of(SENSORS[0]))
    for name in ("device-registry", "sensor-hub.py", "display.sh"):
        again = wait_for_restart(installed, name, GRACE + 15)
        installed.log.sequence(f"threadProc, service({name}) status(0) is abnormal", f"kill -15 {name}({old[name]})",
                               f"run {name} pid {again.values[0]}")
    # It lived and answered all the time, but did not feed.
    installed.log.wait_for(f"wait pid({old['sensor-hub.py']}) status(0)")
    wait_for_name(installed, client, SENSORS[0], 10)
    clock.until(lambda: feeds(monitor).count(feed_of(SENSORS[0])) > before, 10, "keep-alives again")
    # The new processes wait for the names that the stuck ones hold, and get them when those come to.
    for bus_name, name in ((DEVICES[0], "device-registry"), (DISPLAY, "display.sh")):
        assert service_of(client, bus_name) == old[name]
        os.kill(old[name], signal.SIGCONT)
        installed.log.wait_for(f"wait pid({old[name]}) status(0)", 5)
        wait_for_name(installed, client, bus_name, 5)
    assert list(client.call(DEVICES, "list")) == []
    assert client.report() == report_of(pids(installed))


@pytest.mark.takes(50)
@pytest.mark.limit(120)
def test_services_that_are_told_to_fall_silent_go_on_and_are_replaced(installed):
    old, client = settled(installed)
    monitor = watch_feeds()
    client.call(DEVICES, "fall_silent")
    os.kill(old["display.sh"], signal.SIGUSR2)
    fed = feeds(monitor)
    # They work on.
    assert client.call(DEVICES, "add", "s", "device")
    for name in ("device-registry", "display.sh"):
        installed.log.wait_for(f"threadProc, service({name}) status(0) is abnormal", GRACE + 25)
        installed.log.wait_for(f"wait pid({old[name]}) status(0)", 5)
        installed.log.wait_for(f"run {name} pid %d", count=2)
    # One more that was on its way, at most.
    for name in (DEVICES[0], DISPLAY):
        feed = feed_of(name)
        assert feeds(monitor).count(feed) - fed.count(feed) <= 2
        clock.until(lambda feed=feed: feeds(monitor).count(feed) > fed.count(feed), 10, lambda: str(feeds(monitor)))
