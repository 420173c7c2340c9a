"""Methods and signals on the bus."""

import os
import re
import signal
import time

import dbus
import pytest
from harness import bus, clock, processes
from harness.bus import DAEMON, WATCHDOG
from harness.gateway import LOGGER_LOG, UP, Service, term

SUCCESS = '{"code":0,"message":"Success"}'
NO_ARGUMENT = '{"code":1,"message":"invaild dbus parameter"}'
WRONG = '{"code":2,"message":"dbus parameter format error"}'

UNKNOWN_METHOD = "org.freedesktop.DBus.Error.UnknownMethod"
UNKNOWN_INTERFACE = ("org.freedesktop.DBus.Error.UnknownInterface", UNKNOWN_METHOD)
UNKNOWN_OBJECT = ("org.freedesktop.DBus.Error.UnknownObject", UNKNOWN_METHOD)


def squeezed(text):
    """JSON without the blanks that mean nothing."""
    import json
    return json.dumps(json.loads(text), separators=(",", ":"), sort_keys=True)


def logger_log():
    """The logging library's log."""
    with open(LOGGER_LOG, encoding="utf-8", errors="backslashreplace") as file:
        return file.read()


@pytest.mark.takes(12)
def test_reboot_answers_with_nothing_and_restarts_the_whole_stack(gateway):
    gateway.catalogue(Service("svc", monitor=1), Service("RemoteTerminalDaemon"), Service("named", bus="iot.test.named"))
    daemon = gateway.up()
    up = gateway.log.find(UP)[0]
    client = gateway.bus()
    old = [gateway.pid_of(name) for name in ("svc", "RemoteTerminalDaemon", "named", "dbus-daemon")]
    begin = time.monotonic()
    assert client.reboot() is None
    assert time.monotonic() - begin < clock.stretched(1)
    gateway.log.wait_for(UP, 15, after=up)
    lines = gateway.log.sequence("stop monitor service", "stop business service", "close quorvaned dbus channel",
                                 "close watchdog dbus channel", "stop dbus daemon", "running dbus daemon",
                                 "success to startup dbus daemon", "watchdog success to connect dbus daemon",
                                 "quorvaned success to connect dbus daemon", "running svc service",
                                 "success to startup business service", "begin to monitor business service", UP, after=up)
    assert 1.0 <= lines[5] - lines[4] <= 1 + clock.stretched(1)
    processes.wait_gone(old, 3)
    assert daemon.alive()
    assert gateway.status().status == 0
    assert 'reboot_member_handler, result:' in logger_log()


@pytest.mark.takes(15)
def test_forty_reboots_at_once_do_not_burn_the_connection_attempts(gateway):
    gateway.catalogue(Service("svc", monitor=1))
    daemon = gateway.up()
    up = gateway.log.find(UP)[0]
    client = gateway.bus()
    for _ in range(40):
        client.connection.send_message(bus.dbus.lowlevel.MethodCallMessage(*DAEMON, "reboot"))
    client.connection.flush()
    gateway.log.wait_for(UP, 20, after=up)
    clock.until(lambda: gateway.status().status == 0, 20, "status 0")
    assert not gateway.log.has("watchdog fail to connect dbus daemon")
    assert not gateway.log.has("quorvaned fail to connect dbus daemon")
    assert daemon.alive()


@pytest.mark.takes(15)
def test_every_reboot_is_answered(gateway):
    gateway.catalogue(Service("svc", monitor=1))
    gateway.up()
    for _ in range(4):
        last = gateway.log.find(UP)[-1]
        assert gateway.bus().reboot() is None
        gateway.log.wait_for(UP, 15, after=last)


def test_the_status_report_lists_supervised_services_in_order(gateway):
    gateway.catalogue(Service("b", monitor=1), Service("hidden"), Service("a", monitor=1))
    gateway.up()
    report = gateway.bus().report()
    assert report == "".join(f"[  \033[32m+\033[0m  ]  Service {name} is \033[32mactive\033[0m, pid is "
                             f"{gateway.pid_of(name)}\n" for name in ("b", "a"))
    answer = gateway.status()
    assert answer.status == 0
    dashes = "-" * 58
    assert str(answer.stdout) == (f"\n{dashes}\n{' ' * 17}Quorvane Service Status{' ' * 13}\n{dashes}\n\n{report}\n")


def test_status_without_a_bus_says_not_running(gateway):
    answer = gateway.status()
    assert answer.status == 100
    assert str(answer.stdout) == "\nQuorvane is \033[0;31mnot running\033[0m\n"


WRONG_TRIPLES = {
    "empty-object": "{}",
    "empty-text": "",
    "no-json": "productkey=a",
    "array": "[]",
    "array-of-objects": '[{"productkey":"a"}]',
    "number": "5",
    "null": "null",
    "text": '"productkey"',
    "two-of-three": '{"productkey":"a","devicename":"b"}',
    "an-empty-one": '{"productkey":"a","devicename":"","devicesecret":"c"}',
    "wrong-types": '{"productkey":1,"devicename":["b"],"devicesecret":{"c":1}}',
    "deep": "[" * 100000 + "]" * 100000,
    "deep-1001": "[" * 1001 + "]" * 1001,
    "deep-value": '{"productkey":' + "[" * 5000 + "]" * 5000 + ',"devicename":"b","devicesecret":"c"}',
    "huge-number": '{"productkey":' + "9" * 5000 + ',"devicename":"b","devicesecret":"c"}',
    "long": '{"productkey":"' + "x" * 1000000 + '"}',
}


@pytest.mark.takes(10)
def test_wrong_identities_are_refused_and_change_nothing(gateway):
    gateway.catalogue(Service("svc", monitor=1))
    daemon = gateway.up()
    up = gateway.log.find(UP)[0]
    client = gateway.bus()
    assert squeezed(client.call(DAEMON, "set_gateway_triple")) == NO_ARGUMENT
    assert squeezed(client.call(DAEMON, "set_gateway_triple", "i", 5)) == NO_ARGUMENT
    assert squeezed(client.call(DAEMON, "set_gateway_triple", "as", ["{}"])) == NO_ARGUMENT
    for name, text in WRONG_TRIPLES.items():
        assert squeezed(client.set_triple(text)) == WRONG, name
    assert "gateway_tripe_change_member_handler, get dbus parameter fail" in logger_log()
    assert "gateway_tripe_change_member_handler, json to string fail" in logger_log()
    assert "gateway_tripe_change_member_handler, get pk/dn/ds fail" in logger_log()
    assert gateway.status().status == 0
    gateway.log.exactly([], after=up)
    assert daemon.alive()


@pytest.mark.takes(10)
def test_a_complete_identity_restarts_the_stack_and_its_secret_is_never_logged(gateway):
    gateway.catalogue(Service("svc", monitor=1), Service("RemoteTerminalDaemon"))
    gateway.up()
    up = gateway.log.find(UP)[0]
    pid = gateway.pid_of("RemoteTerminalDaemon")
    answer = gateway.bus().set_triple('{"productkey":"pk%s%n\\n2025 forged","devicename":"dn\\u001b[2J",'
                                      '"devicesecret":"s3cr3t-value"}')
    assert squeezed(answer) == SUCCESS
    gateway.log.wait_for(UP, 15, after=up)
    assert gateway.log.has(f"kill -15 RemoteTerminalDaemon({pid})", after=up)
    log = logger_log()
    assert "gateway_tripe_change_member_handler, pk:pk%s%n" in log
    assert not [line for line in log.splitlines() if line.startswith("2025 forged")]
    assert "s3cr3t" not in log
    assert b"s3cr3t" not in gateway.log.bytes()
    assert all(event.well_formed for event in gateway.log.events())


def test_the_handlers_lines_tell_their_level_place_and_function(gateway):
    gateway.up()
    client = gateway.bus()
    client.own("iot.test.traced")
    client.set_triple("{}")
    handler = "gateway_tripe_change_member_handler"
    place = r"tag \[start_up\.cpp\|\d+\]"
    for line in (rf"trace {place} name_owner_changed_signal_hander: NameOwnerChanged, name:iot\.test\.traced, .*",
                 rf"failure {place} {handler}: {handler}, get pk/dn/ds fail",
                 rf'info {place} {handler}: {handler}, result:{{"code":2,"message":"dbus parameter format error"}}'):
        clock.until(lambda line=line: re.search(rf"^\d{{4}}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{{3}} {line}$", logger_log(),
                                                re.MULTILINE), 5, logger_log)


@pytest.mark.takes(10)
@pytest.mark.parametrize("how", ["reboot", "kill", "start_upgrade"])
def test_what_ends_a_cycle_also_ends_it_while_services_are_being_started(gateway, how):
    gateway.catalogue(Service("first"), Service("slow", delay=60), Service("last"))
    daemon = gateway.start()
    slow = gateway.log.wait_for("run slow pid %d")
    if how == "kill":
        os.kill(gateway.pid_of("dbus-daemon"), signal.SIGKILL)
    else:
        gateway.bus().call(DAEMON, how)
    down = gateway.log.wait_for("stop dbus-daemon, kill -15 %d", after=slow)
    gateway.log.sequence("success to startup business service", "stop monitor service", "stop business service",
                         f"kill -15 slow({slow.values[0]})", "kill -15 first(%d)", "stop dbus daemon", after=slow)
    assert gateway.log.count("begin to monitor business service") == gateway.log.count("running last service") == 0
    if how == "start_upgrade":
        clock.stays(lambda: not gateway.log.has("running dbus daemon", after=down), 2.5, "no further cycle")
    else:
        gateway.log.wait_for("run slow pid %d", after=down)
    assert daemon.alive()


def test_unknown_members_interfaces_and_paths_get_their_error_at_once(gateway):
    gateway.up()
    client = gateway.bus()
    name, path, interface = DAEMON
    begin = time.monotonic()
    assert client.error(DAEMON, "no_such_method") == UNKNOWN_METHOD
    assert client.error(DAEMON, "Get_LE_status") == UNKNOWN_METHOD
    assert client.error((name, path, "iot.gateway.other"), "reboot") in UNKNOWN_INTERFACE
    assert client.error((name, "/iot/gateway/other", interface), "reboot") in UNKNOWN_OBJECT
    assert client.error((name, "/", interface), "reboot") in UNKNOWN_OBJECT
    assert client.error(WATCHDOG, "get_le_status") == UNKNOWN_METHOD
    assert client.error(WATCHDOG, "feedDog", "ssi", "a", "b", 5) == UNKNOWN_METHOD
    assert time.monotonic() - begin < clock.stretched(2)
    assert gateway.log.count(UP) == 1


def test_a_call_without_an_interface_is_dispatched_by_its_member(gateway):
    gateway.catalogue(Service("svc", monitor=1))
    gateway.up()
    client = gateway.bus()
    assert "Service svc is" in client.call((DAEMON[0], DAEMON[1], None), "get_le_status")
    assert client.error((DAEMON[0], DAEMON[1], None), "no_such_method") == UNKNOWN_METHOD


@pytest.mark.parametrize("target, members", [
    (DAEMON, ["get_le_status", "set_gateway_triple", "reboot", "start_upgrade"]),
    (WATCHDOG, ["feedDog"]),
])
def test_channels_tell_what_they_offer(gateway, target, members):
    gateway.up()
    client = gateway.bus()
    text = client.call((target[0], target[1], "org.freedesktop.DBus.Introspectable"), "Introspect")
    assert f'<interface name="{target[2]}">' in text
    for member in members:
        assert f'name="{member}"' in text
    client.settle(target)


def test_ordinary_tools_work_on_the_channels(gateway):
    gateway.catalogue(Service("svc", monitor=1))
    gateway.up()
    command = ["/usr/bin/busctl", f"--address={bus.ADDRESS}"]
    if not os.path.exists(command[0]):
        pytest.skip("busctl is not installed")
    tree = processes.run([*command, "introspect", "--list", DAEMON[0], DAEMON[1]])
    assert "get_le_status" in str(tree.stdout)
    answer = processes.run([*command, "call", *DAEMON, "get_le_status"])
    assert answer.status == 0
    assert "Service svc is" in str(answer.stdout)


def test_messages_of_any_shape_do_not_end_the_daemon(gateway):
    gateway.catalogue(Service("svc", bus="iot.test.svc", monitor=1))
    daemon = gateway.up()
    client = gateway.bus()
    shapes = [("", ()), ("i", (-1,)), ("s", ("x" * 1_000_000,)), ("s", ("%s%n%n\n\033[2J",)), ("as", ([],)),
              ("a{sv}", ({"a": dbus.Int32(1)},)), ("ay", (b"\0\xff" * 1000,)), ("v", (dbus.String("x"),)),
              ("ssi", ("", "", 0)), ("ssi", ("iot.test.svc", "x" * 100_000, 2147483647)),
              ("ssi", ("iot.test.svc", "\n%s", -2147483648)), ("sssss", ("a",) * 5), ("d", (float("nan"),)),
              ("(si)", (("a", 1),)), ("o", ("/iot",)), ("g", ("a{sv}",)), ("b", (True,)), ("t", (2**64 - 1,))]
    for signature, values in shapes:
        for member in ("feedDog", "NameOwnerChanged", "NameAcquired", "reboot", "unknown"):
            client.send(WATCHDOG, member, signature, *values)
            client.send(WATCHDOG, member, signature, *values, broadcast=True)
            client.send(DAEMON, member, signature, *values)
        client.error(DAEMON, "unknown", signature, *values)
        client.call(DAEMON, "get_le_status", signature, *values)
    client.settle()
    client.settle(DAEMON)
    assert daemon.alive()
    assert gateway.log.count(UP) == 1
    assert not gateway.log.has("stop monitor service")
    assert gateway.status().status == 0
    assert all(event.well_formed for event in gateway.log.events())


@pytest.mark.takes(15)
def test_no_call_waits_while_the_stack_is_torn_down(gateway):
    gateway.catalogue(*[Service(f"svc{number}", monitor=1) for number in range(5)])
    gateway.up()
    longest = 0.0
    for _ in range(3):
        client = gateway.bus()
        last = gateway.log.find(UP)[-1]
        client.reboot()
        deadline = time.monotonic() + 15
        while time.monotonic() < deadline and not gateway.log.has("stop dbus-daemon, kill -15 %d", after=last):
            begin = time.monotonic()
            try:
                client.report()
            except dbus.exceptions.DBusException as error:
                assert error.get_dbus_name() != "org.freedesktop.DBus.Error.NoReply" or "time" not in str(error)
            longest = max(longest, time.monotonic() - begin)
        gateway.log.wait_for(UP, 15, after=last)
    assert longest < clock.stretched(1)


@pytest.mark.takes(15)
def test_calls_of_several_clients_beside_a_stream_of_signals_are_all_answered(gateway):
    gateway.catalogue(Service("svc", bus="iot.test.svc", monitor=1))
    daemon = gateway.up()
    gateway.script("../client", """
import sys, time
sys.path.insert(0, sys.argv[1])
from harness.bus import Bus, WATCHDOG
client, slow = Bus(), []
for number in range(400):
    begin = time.monotonic()
    assert "Service svc is" in client.report()
    slow.append(time.monotonic() - begin)
    for key in range(5):
        client.send(WATCHDOG, "feedDog", "ssi", "iot.test.svc", f"key{key}", 1000 + number)
print(sorted(slow)[int(len(slow) * 0.99)])
""", shebang="#!/usr/bin/python3\n")
    here = os.path.dirname(os.path.abspath(__file__))
    clients = [processes.spawn([gateway.path("client"), here]) for _ in range(4)]
    for one in clients:
        assert one.wait(40) == 0, str(one.stderr)
        one.stdout.wait_closed(1)
        # Mostly the clients' own work on a busy machine; a lost wake-up would show as a time-out.
        assert float(str(one.stdout)) < clock.stretched(0.5)
    assert daemon.alive()
    assert gateway.status().status == 0


def test_the_daemon_owns_both_names_with_connections_of_its_own(gateway):
    daemon = gateway.up()
    client = gateway.bus()
    owners = {name: client.owner(name) for name in (DAEMON[0], WATCHDOG[0])}
    assert len(set(owners.values())) == 2
    assert {client.pid_of(name) for name in owners} == {daemon.pid}


@pytest.mark.takes(10)
def test_a_second_status_command_at_the_same_instant_says_not_running(gateway):
    gateway.catalogue(Service("svc", monitor=1))
    gateway.up()
    client = gateway.bus()
    client.own("iot.gateway.quorvanedtools")
    assert gateway.status().status == 100
    client.close()
    clock.until(lambda: gateway.status().status == 0, 5, "status 0")


@pytest.mark.takes(15)
def test_stop_all_ends_a_running_daemon_in_the_forced_way(gateway):
    gateway.catalogue(Service("svc"), Service("fota"))
    daemon = gateway.up()
    pid = gateway.pid_of("svc")
    answer = gateway.command("stop_all")
    assert (answer.status, str(answer.stdout)) == (0, "quorvaned: shutdown completed\n")
    assert daemon.wait(10) == 0
    gateway.log.sequence(f"stop, kill -15 {daemon.pid}", "caught Terminated(15) signal, exit", "quorvaned exit (force)",
                         f"kill -9 svc({pid})")


@pytest.mark.takes(15)
def test_stop_except_remotedebug_sends_sigusr1(gateway):
    gateway.catalogue(Service("svc"), Service("RemoteTerminalDaemon"))
    daemon = gateway.up()
    answer = gateway.command("stop_except_remotedebug")
    assert answer.status == 0
    assert str(answer.stdout) == ("quorvaned: all services except\033[31m RemoteDebugDaemon \033[0mis stopped\n"
                                  "IF you want to stop all services, please run "
                                  "\033[32miot_gateway_stop.sh all\033[0m\n")
    assert daemon.wait(10) == 0
    gateway.log.sequence(f"stop, kill -10 {daemon.pid}", "caught User defined signal 1(10) signal, exit")
    assert processes.alive(gateway.pid_of("RemoteTerminalDaemon"))


@pytest.mark.takes(9)
def test_a_client_that_floods_the_daemon_does_not_delay_its_end(gateway):
    gateway.catalogue(Service("svc", monitor=1))
    daemon = gateway.up()
    client = gateway.bus()
    for number in range(5000):
        client.connection.send_message(bus.dbus.lowlevel.MethodCallMessage(*DAEMON, "get_le_status"))
        if number % 500 == 0:
            client.connection.flush()
    status, seconds = term(daemon)
    assert status == 0
    assert 5 <= seconds <= 5.5 + clock.stretched(4)
