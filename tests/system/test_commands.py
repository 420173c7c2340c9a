"""The commands: what status says, and what the stop commands do with and without a daemon."""

import json
import os
import shutil
import signal
import time

import pytest
from harness import bus, clock, processes, sandbox
from harness.gateway import MISSING, NOT_RUNNING, PID_FILE, STARTING_UP, UP, Service

RULE = "-" * 58
BANNER = f"\n{RULE}\n{' ' * 17}Quorvane Service Status{' ' * 13}\n{RULE}\n\n"
ACTIVE = "[  \033[32m+\033[0m  ]  Service {} is \033[32mactive\033[0m, pid is {}\n"
ACTIVE_SCRIPT = "[  \033[32m+\033[0m  ]  Service {} is \033[32mactive\033[0m\n"
INACTIVE = "[  \033[0;31m-\033[0m  ]  Service {} is \033[0;31minactive\033[0m\n"

STOPPED = b"quorvaned: shutdown completed\n"
STOPPED_BUT_REMOTE = (b"quorvaned: all services except\x1b[31m RemoteDebugDaemon \x1b[0mis stopped\n"
                      b"IF you want to stop all services, please run \x1b[32miot_gateway_stop.sh all\x1b[0m\n")
WORDS = {"stop_all": (signal.SIGTERM, STOPPED), "stop_except_remotedebug": (signal.SIGUSR1, STOPPED_BUT_REMOTE)}

PAUSE = 3.0  # of the stop commands
REPLY_WAIT = 10.0  # of the status command
NO_DAEMON = "stop, can't find quorvaned"

CLONE_NEWNS = 0x00020000


def seconds_of(process):
    """How long it ran, as far as this test could see."""
    return process.ended_at - process.started_at


def stand_in(gateway, name, *args, **how):
    """A process of the installation that no daemon has started."""
    gateway.link("probe_service", name)
    started = gateway.events(os.path.basename(name), "start")
    process = processes.spawn([os.path.join(gateway.bin, name), *args], cwd=gateway.bin, output=None, **how)
    gateway.started(os.path.basename(name), count=len(started) + 1)
    return process


def lone_bus(gateway):
    """The bus as such, without a daemon."""
    os.makedirs(os.path.dirname(bus.SOCKET))
    process = processes.spawn([gateway.path("bin/dbus-daemon"), "--nofork", "--config-file=./mbusd.conf"],
                              cwd=gateway.bin, output=None)
    gateway.bus().close()
    return process


def said(process):
    """Exit status and output, byte for byte."""
    assert bytes(process.stderr) == b""
    return process.status, bytes(process.stdout)


def not_running(process):
    """Whether it found no daemon."""
    return said(process) == (100, NOT_RUNNING.encode())


# status: what it says

@pytest.mark.takes(9)
def test_the_report_has_one_line_for_each_supervised_service_in_catalogue_order(gateway):
    gateway.catalogue(Service("alive", monitor=1), Service("hidden"), Service("hidden-too", monitor=0),
                      Service("startSC.sh", monitor=1, program="exec sleep 1000"), Service("killed", monitor=2),
                      Service("sub/deep", monitor=1), Service("gone", monitor=-1, program=MISSING),
                      Service("slow", delay=1000), Service("last", monitor=1))
    gateway.start()
    gateway.log.wait_for("run slow pid %d")
    for name in ("alive", "killed", "deep"):
        gateway.started(name)
    os.kill(gateway.pid_of("killed"), signal.SIGKILL)
    for name in ("killed", "gone"):
        gateway.log.wait_for(f"process_exit, service({name}) is abnormal")
    # "last" waits for its turn.
    report = (ACTIVE.format("alive", gateway.pid_of("alive")) + ACTIVE_SCRIPT.format("startSC.sh")
              + INACTIVE.format("killed") + ACTIVE.format("sub/deep", gateway.pid_of("deep"))
              + INACTIVE.format("gone") + INACTIVE.format("last"))
    assert gateway.bus().report() == report
    assert said(gateway.status()) == (0, (BANNER + report + "\n").encode())


@pytest.mark.takes(50)
def test_a_dead_service_is_inactive_until_it_is_started_again(gateway):
    gateway.catalogue(Service("svc", monitor=1))
    gateway.up()
    old = gateway.pid_of("svc")
    assert said(gateway.status()) == (0, (BANNER + ACTIVE.format("svc", old) + "\n").encode())
    os.kill(old, signal.SIGKILL)
    gateway.log.wait_for("process_exit, service(svc) is abnormal")
    assert said(gateway.status()) == (0, (BANNER + INACTIVE.format("svc") + "\n").encode())
    gateway.log.wait_for("run svc pid %d", 40, count=2)
    assert gateway.pid_of("svc") != old
    assert said(gateway.status()) == (0, (BANNER + ACTIVE.format("svc", gateway.pid_of("svc")) + "\n").encode())


def test_a_report_line_is_cut_at_1022_bytes_and_stays_text(gateway):
    # The cut goes through a character, which becomes one that says so.
    name = "x" + "é" * 600
    gateway.raw_catalogue(json.dumps([{"exec": name, "monitor": 1}, {"exec": "last", "monitor": 1}]))
    daemon = gateway.up()
    client = gateway.bus()
    clock.until(lambda: client.report().count("[0;31m-") == 2, 10, "two inactive services")
    line = INACTIVE.format(name).encode()[:1022]
    assert line.decode(errors="ignore").encode() != line
    answer = gateway.status()
    assert answer.status == 0
    text = bytes(answer.stdout).decode()
    assert text.startswith(BANNER + line.decode(errors="ignore"))
    assert text.endswith(INACTIVE.format("last") + "\n")
    assert len(text.encode()) - len(BANNER + INACTIVE.format("last") + "\n") <= 1022 + 4
    assert daemon.alive()


def test_without_supervised_services_the_daemon_is_starting_up(gateway):
    gateway.catalogue(Service("svc", monitor=0))
    gateway.up()
    assert gateway.bus().report() == ""
    assert said(gateway.status()) == (101, STARTING_UP.encode())


@pytest.mark.takes(12)
def test_while_the_stack_goes_down_and_comes_back_status_is_never_without_an_answer(gateway):
    gateway.catalogue(Service("svc", "--term-delay=1500", monitor=1))
    gateway.up()
    up = gateway.log.find(UP)[0]
    gateway.bus().reboot()
    seen = set()
    while not gateway.log.has(UP, after=up):
        answer = gateway.status()
        assert seconds_of(answer) < clock.stretched(8)
        seen.add(answer.status)
        if answer.status == 100:
            assert not_running(answer)
        elif answer.status == 101:
            assert said(answer) == (101, STARTING_UP.encode())
    assert seen <= {0, 100, 101} and 100 in seen
    clock.until(lambda: gateway.status().status == 0, 5, "status 0")


def leave_nothing(_gateway):
    """No socket."""


def leave_a_dead_socket(_gateway):
    """A socket that nobody listens on."""
    import socket
    os.makedirs(os.path.dirname(bus.SOCKET))
    with socket.socket(socket.AF_UNIX) as one:
        one.bind(bus.SOCKET)


def leave_a_file(_gateway):
    """A plain file in its place."""
    os.makedirs(os.path.dirname(bus.SOCKET))
    with open(bus.SOCKET, "w", encoding="ascii"):
        pass


@pytest.mark.parametrize("left", [leave_nothing, leave_a_dead_socket, leave_a_file, lone_bus])
def test_without_a_daemon_on_a_bus_status_says_not_running_at_once(gateway, left):
    left(gateway)
    answer = gateway.status()
    assert not_running(answer)
    assert seconds_of(answer) < clock.stretched(6)
    assert gateway.log.bytes() == b""


OTHER_DAEMON = """
import json, sys
import dbus.bus, dbus.lowlevel, dbus.mainloop.glib
from gi.repository import GLib
dbus.mainloop.glib.DBusGMainLoop(set_as_default=True)
answers = json.load(open(sys.argv[2]))
bus = dbus.bus.BusConnection(sys.argv[1])
def handle(connection, call):
    if call.get_member() != "get_le_status":
        return dbus.lowlevel.HANDLER_RESULT_NOT_YET_HANDLED
    assert (call.get_path(), call.get_interface()) == ("/iot/gateway/quorvaned", "iot.gateway.quorvaned")
    assert call.get_signature() == ""
    assert bus.get_name_owner("iot.gateway.quorvanedtools") == call.get_sender()
    signature, values = answers.pop(0)
    if signature == "error":
        reply = dbus.lowlevel.ErrorMessage(call, "iot.test.Error", "%s%n")
    else:
        reply = dbus.lowlevel.MethodReturnMessage(call)
        reply.append(*values, signature=signature)
    connection.send_message(reply)
    return dbus.lowlevel.HANDLER_RESULT_HANDLED
bus.add_message_filter(handle)
bus.request_name("iot.gateway.quorvaned")
GLib.MainLoop().run()
"""

LONG = "x" * 1_000_000


@pytest.mark.takes(10)
def test_status_prints_whatever_text_it_is_given_and_takes_nothing_else(gateway):
    answers = {
        "text": ("s", ["%s%n\033[2J ü"], (0, BANNER + "%s%n\033[2J ü\n")),
        "empty": ("s", [""], (101, STARTING_UP)),
        "number": ("i", [5], (100, NOT_RUNNING)),
        "nothing": ("", [], (100, NOT_RUNNING)),
        "list": ("as", [["a"]], (100, NOT_RUNNING)),
        "error": ("error", [], (100, NOT_RUNNING)),
        "more": ("ss", ["a", "b"], (0, BANNER + "a\n")),
        "long": ("s", [LONG], (0, BANNER + LONG + "\n")),
    }
    lone_bus(gateway)
    gateway.script("../other", OTHER_DAEMON, shebang="#!/usr/bin/python3\n")
    with open(gateway.path("answers"), "w", encoding="ascii") as file:
        json.dump([(signature, values) for signature, values, _ in answers.values()], file)
    processes.spawn([gateway.path("other"), bus.ADDRESS, gateway.path("answers")])
    client = gateway.bus()
    clock.until(lambda: client.owner(bus.DAEMON[0]), 10, "another daemon")
    for name, (_, _, (status, text)) in answers.items():
        assert said(gateway.status()) == (status, text.encode()), name
    # The name is given back each time.
    assert client.owner("iot.gateway.quorvanedtools") == ""


# status: when something hangs

def start_asking(gateway, client):
    """Start a status command and wait until it has its name on the bus."""
    def named_or_ended(command):
        return client.owner("iot.gateway.quorvanedtools") or command.status is not None

    # A machine that is too busy may keep it from the bus for longer than it tries: then once more.
    for _ in range(3):
        command = processes.spawn([gateway.program, "status"])
        clock.until(lambda command=command: named_or_ended(command), 15, "a status command on the bus")
        if command.status is None:
            return command
    raise AssertionError("no status command came to the bus")


@pytest.mark.takes(14)
def test_a_daemon_that_hangs_costs_ten_seconds_and_is_not_running(gateway):
    gateway.catalogue(Service("svc", monitor=1))
    daemon = gateway.up()
    client = gateway.bus()
    daemon.signal(signal.SIGSTOP)
    command = start_asking(gateway, client)
    assert command.wait(15) == 100
    daemon.signal(signal.SIGCONT)
    assert not_running(command)
    assert REPLY_WAIT <= seconds_of(command) <= REPLY_WAIT + clock.stretched(8)
    clock.until(lambda: gateway.status().status == 0, 5, "status 0")


@pytest.mark.takes(12)
def test_of_two_status_commands_at_once_the_second_says_not_running_and_the_first_is_answered(gateway):
    gateway.catalogue(Service("svc", monitor=1))
    daemon = gateway.up()
    client = gateway.bus()
    daemon.signal(signal.SIGSTOP)
    first = start_asking(gateway, client)
    second = gateway.status()
    assert not_running(second)
    assert seconds_of(second) < clock.stretched(6)
    daemon.signal(signal.SIGCONT)
    assert first.wait(5) == 0
    assert said(first) == (0, (BANNER + ACTIVE.format("svc", gateway.pid_of("svc")) + "\n").encode())


@pytest.mark.takes(16)
@pytest.mark.parametrize("moment", ["before", "during"])
def test_a_bus_that_hangs_is_given_up_within_15_seconds(gateway, moment):
    gateway.catalogue(Service("svc", monitor=1))
    daemon = gateway.up()
    client = gateway.bus()
    if moment == "during":
        daemon.signal(signal.SIGSTOP)
        command = start_asking(gateway, client)
        os.kill(gateway.pid_of("dbus-daemon"), signal.SIGSTOP)
    else:
        os.kill(gateway.pid_of("dbus-daemon"), signal.SIGSTOP)
        command = processes.spawn([gateway.program, "status"])
    assert command.wait(15) == 100
    assert not_running(command)
    assert seconds_of(command) <= 15
    os.kill(gateway.pid_of("dbus-daemon"), signal.SIGCONT)
    daemon.signal(signal.SIGCONT)
    clock.until(lambda: gateway.status().status == 0, 15, "status 0")
    assert gateway.log.count(UP) == 1


def test_status_survives_a_reader_that_leaves(gateway):
    gateway.catalogue(*[Service(f"svc{number}", monitor=1, program=MISSING) for number in range(300)])
    gateway.up()
    read_end, write_end = os.pipe()
    os.close(read_end)
    command = processes.spawn([gateway.program, "status"], output=None, prepare=lambda: os.dup2(write_end, 1))
    os.close(write_end)
    assert command.wait(10) in (0, -signal.SIGPIPE)
    clock.until(lambda: gateway.status().status == 0, 5, "status 0")


# The stop commands with a daemon

@pytest.mark.takes(11)
@pytest.mark.parametrize("word", WORDS)
def test_a_stop_command_only_signals_the_daemon_and_pauses_three_seconds(gateway, word):
    number, text = WORDS[word]
    gateway.catalogue(Service("svc", monitor=1), Service("fota"), Service("RemoteTerminalDaemon"))
    daemon = gateway.up()
    pids = {name: gateway.pid_of(name) for name in ("svc", "fota", "RemoteTerminalDaemon", "dbus-daemon")}
    daemon.signal(signal.SIGSTOP)  # whoever waited for it would wait for ever
    command = gateway.command(word, within=20)
    assert said(command) == (0, text)
    assert PAUSE <= seconds_of(command)
    lines = gateway.log.exactly([f"stop, kill -{int(number)} {daemon.pid}"], pid=command.pid)
    assert lines[0].file == "main.cpp"
    assert daemon.alive() and all(processes.alive(pid) for pid in pids.values())
    daemon.signal(signal.SIGCONT)
    assert daemon.wait(10) == 0
    processes.wait_gone([pids["svc"], pids["dbus-daemon"]], 3)
    assert processes.alive(pids["fota"]) and processes.alive(pids["RemoteTerminalDaemon"])
    assert [gateway.signals(name) for name in ("fota", "RemoteTerminalDaemon")] == [[], []]


@pytest.mark.takes(12)
@pytest.mark.parametrize("word", WORDS)
def test_two_daemons_of_the_installation_are_both_signalled_and_others_are_not(gateway, word):
    number, text = WORDS[word]
    daemon = gateway.up()
    second = stand_in(gateway, "spare/quorvaned")
    elsewhere = "/tmp/elsewhere/bin/quorvaned"
    os.makedirs(os.path.dirname(elsewhere))
    shutil.copy2(os.path.join(gateway.stage, "probe_service"), elsewhere)
    stranger = processes.spawn([elsewhere], output=None)
    hidden = stand_in(gateway, "hidden/quorvaned", prepare=lambda: sandbox.call("unshare", CLONE_NEWNS))
    command = gateway.command(word)
    assert said(command) == (0, text)
    gateway.log.exactly([f"stop, kill -{int(number)} {pid}" for pid in sorted((daemon.pid, second.pid))],
                        pid=command.pid)
    assert gateway.signals("quorvaned", second.pid) == [number]
    assert gateway.signals("quorvaned", hidden.pid) == []
    assert stranger.alive() and hidden.alive()
    assert daemon.wait(10) == 0


@pytest.mark.takes(12)
def test_two_stop_commands_at_once_end_the_daemon_once_and_in_time(gateway):
    gateway.catalogue(Service("svc", monitor=1))
    daemon = gateway.up()
    pid = gateway.pid_of("svc")
    begin = time.monotonic()
    commands = [processes.spawn([gateway.program, "stop_all"]) for _ in range(2)]
    # Each finds the other under the daemon's name, so that one may end the other.
    for command in commands:
        assert command.wait(8) in (0, -signal.SIGTERM)
        assert bytes(command.stdout) == (STOPPED if command.status == 0 else b"")
    assert daemon.wait(10) == 0
    assert 5.0 <= daemon.ended_at - begin <= 5.5 + clock.stretched(4)
    assert gateway.log.count("quorvaned exit (force)") == 1
    processes.wait_gone([pid], 3)


@pytest.mark.takes(11)
def test_a_stopped_daemon_is_signalled_all_the_same_and_ends_when_it_goes_on(gateway):
    gateway.catalogue(Service("svc", monitor=1))
    daemon = gateway.up()
    pid = gateway.pid_of("svc")
    daemon.signal(signal.SIGSTOP)
    command = gateway.command("stop_all")
    assert said(command) == (0, STOPPED)
    assert PAUSE <= seconds_of(command) <= PAUSE + clock.stretched(6)
    assert processes.alive(pid)
    daemon.signal(signal.SIGCONT)
    assert daemon.wait(10) == 0
    processes.wait_gone([pid], 3)


def test_with_a_directory_in_the_place_of_the_pid_file_no_daemon_is_found(gateway):
    os.makedirs(PID_FILE)
    running = stand_in(gateway, "spare/quorvaned")
    assert said(gateway.command("stop_all")) == (0, STOPPED)
    gateway.log.exactly([NO_DAEMON])
    assert gateway.signals("quorvaned", running.pid) == []
    assert running.alive()


# The stop commands without a daemon

@pytest.mark.takes(9)
@pytest.mark.parametrize("word", WORDS)
def test_without_a_daemon_the_services_are_killed_in_catalogue_order_and_the_bus_last(gateway, word):
    gateway.prepare_run_directory()
    script = Service("script.sh", program="exec 9<>fifo; read -r line <&9")
    gateway.catalogue(Service("twice"), Service("absent"), script, Service("linked", program=MISSING),
                      Service("sub/deep"), Service("fota"), Service("replaced"), Service("RemoteTerminalDaemon"),
                      Service("unshared"), Service("first"))
    os.mkfifo(gateway.path("bin/fifo"))
    elsewhere = "/tmp/elsewhere/bin/first"
    os.makedirs(os.path.dirname(elsewhere))
    shutil.copy2(os.path.join(gateway.stage, "probe_service"), elsewhere)
    os.symlink(elsewhere, gateway.path("bin/linked"))

    spared = {
        "elsewhere": processes.spawn([elsewhere], output=None),
        "linked": processes.spawn([gateway.path("bin/linked")], output=None),
        "script.sh": processes.spawn([gateway.path("bin/script.sh")], cwd=gateway.bin, output=None),
        "unlisted": stand_in(gateway, "unlisted"),
        "unshared": stand_in(gateway, "unshared", prepare=lambda: sandbox.call("unshare", CLONE_NEWNS)),
    }
    bus_daemon = lone_bus(gateway)
    killed = [stand_in(gateway, name)
              for name in ("first", "RemoteTerminalDaemon", "replaced", "fota", "sub/deep", "twice", "twice")]
    first, remote, replaced, fota, deep, one, two = killed
    os.unlink(gateway.path("bin/replaced"))
    expected = [f"kill -9 twice({one.pid})", f"kill -9 twice({two.pid})", f"kill -9 sub/deep({deep.pid})",
                f"kill -9 fota({fota.pid})", f"kill -9 replaced({replaced.pid})",
                f"kill -9 RemoteTerminalDaemon({remote.pid})", f"kill -9 first({first.pid})"]
    if word == "stop_except_remotedebug":
        for process in (fota, remote):
            expected.remove(f"kill -9 {processes.program(process.pid)}({process.pid})")
            spared[processes.program(process.pid)] = process
            killed.remove(process)

    command = gateway.command(word)
    assert said(command) == (0, WORDS[word][1])
    assert PAUSE <= seconds_of(command) <= PAUSE + clock.stretched(6)
    lines = gateway.log.exactly([NO_DAEMON, *expected, f"kill -9 dbus-daemon({bus_daemon.pid})"])
    # The own process is found under the daemon's name too.
    assert {(line.file, line.pid) for line in lines} == {("main.cpp", command.pid)}
    assert [process.status for process in (*killed, bus_daemon)] == [-signal.SIGKILL] * (len(killed) + 1)
    assert {name: process.status for name, process in spared.items()} == dict.fromkeys(spared)
    assert all(gateway.signals(name) == [] for name in ("unlisted", "unshared", "first"))


@pytest.mark.takes(12)
@pytest.mark.parametrize("word", WORDS)
def test_what_a_killed_daemon_left_is_stopped_by_the_command(gateway, word):
    gateway.catalogue(Service("svc", monitor=1), Service("fota"),
                      Service("RemoteTerminalDaemon", bus="iot.test.remote"))
    daemon = gateway.up()
    left = [gateway.pid_of(name) for name in ("fota", "RemoteTerminalDaemon")]
    others = [gateway.pid_of(name) for name in ("svc", "dbus-daemon")]
    daemon.signal(signal.SIGKILL)
    daemon.wait(5)
    processes.wait_gone(others, 3)
    last = gateway.log.events()[-1]
    command = gateway.command(word)
    assert said(command) == (0, WORDS[word][1])
    if word == "stop_all":
        gateway.log.exactly([NO_DAEMON, f"kill -9 fota({left[0]})", f"kill -9 RemoteTerminalDaemon({left[1]})"],
                            after=last)
        processes.wait_gone(left, 3)
    else:
        gateway.log.exactly([NO_DAEMON], after=last)
        assert all(processes.alive(pid) for pid in left)


BROKEN = {
    "no-json": b"no json",
    "cut": b'[{"exec": "svc"}',
    "object": b'{"exec": "svc"}',
    "text": b'"svc"',
    "null": b"null",
    "empty": b"",
    "deep": b"[" * 2000 + b'{"exec": "svc"}' + b"]" * 2000,
    "zeros": b"\0" * 100,
}


def stop_with_catalogue(gateway, expected):
    """Run the command beside one service and a bus, and require these lines for them."""
    gateway.prepare_run_directory()
    service, bus_daemon = stand_in(gateway, "svc"), lone_bus(gateway)
    command = gateway.command("stop_all")
    assert said(command) == (0, STOPPED)
    assert PAUSE <= seconds_of(command) <= PAUSE + clock.stretched(6)
    gateway.log.exactly([NO_DAEMON, *[line.format(service.pid) for line in expected],
                         f"kill -9 dbus-daemon({bus_daemon.pid})"])
    assert bus_daemon.status == -signal.SIGKILL
    assert service.status == (-signal.SIGKILL if expected else None)


@pytest.mark.parametrize("content", BROKEN.values(), ids=BROKEN)
def test_with_a_broken_catalogue_only_the_bus_is_killed(gateway, content):
    gateway.raw_catalogue(content)
    stop_with_catalogue(gateway, [])


def remove(path):
    """No catalogue."""
    os.unlink(path)


def make_directory(path):
    """A directory in its place."""
    os.unlink(path)
    os.mkdir(path)


@pytest.mark.parametrize("change", [remove, make_directory])
def test_without_a_catalogue_only_the_bus_is_killed(gateway, change):
    change(gateway.path("config/services.json"))
    stop_with_catalogue(gateway, [])


def test_what_is_no_service_in_the_catalogue_is_passed_over(gateway):
    gateway.raw_catalogue('[5, null, "svc", ["svc"], [{"exec": "svc"}], {}, {"exec": 5}, {"exec": ["svc"]}, '
                          '{"exec": ""}, {"exec": "/"}, {"EXEC": "svc"}, {"exec": "%s%n"}, {"exec": "svc "}, '
                          '{"exec": "sv"}, {"exec": "svc\\u0000"}, {"args": ["svc"], "exec": "elsewhere/svc"}]')
    stop_with_catalogue(gateway, ["kill -9 elsewhere/svc({})"])


@pytest.mark.parametrize("word", WORDS)
def test_with_nothing_to_stop_a_stop_command_says_the_same(gateway, word):
    command = gateway.command(word)
    assert said(command) == (0, WORDS[word][1])
    assert PAUSE <= seconds_of(command) <= PAUSE + clock.stretched(6)
    # It makes no directory for its line.
    assert os.listdir("/quorvane") == []


def test_a_stop_command_makes_no_pid_file_and_takes_no_bus(gateway):
    gateway.prepare_run_directory()
    gateway.command("stop_all")
    assert os.listdir("/quorvane/run") == ["startup"]
    assert os.listdir("/quorvane/run/startup") == ["quorvaned.log"]
    assert not os.path.exists("/tmp/var")
    gateway.log.exactly([NO_DAEMON])
