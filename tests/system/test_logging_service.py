"""The logging service, as installed: what it keeps, for whom, and what its answer is worth."""

import glob
import multiprocessing
import os
import re
import shutil
import signal
import stat
import threading

import dbus.exceptions
import dbus.lowlevel
import pytest
from harness import bus, clock, processes
from harness.gateway import RUN, UP
from harness.sandbox import REPOSITORY

LOGGER = ("iot.gateway.logger", "/iot/gateway/logger", "iot.gateway.logger")
DIRECTORY = RUN + "/logger/services"
OTHERS = "%others.log"
LINE = re.compile(r"\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{3} (trace|info|failure) \[([^\]]*)\] (.*)")
MODULES = 64
FILE_SIZE = 256 * 1024
GRACE = 30


@pytest.fixture(name="installed")
def installed_logger(installed):
    """The installation with the logging service alone in its catalogue."""
    installed.keep_only("logging-service")
    return installed


def log(client, module, text, level=1, tag="tag"):
    """Have a line written, and wait for the answer."""
    assert client.call(LOGGER, "log", "siss", module, level, tag, text) is None


def send(client, module, text, level=1, tag="tag"):
    """Send a line without wanting an answer."""
    message = dbus.lowlevel.MethodCallMessage(*LOGGER, "log")
    message.append(module, level, tag, text, signature="siss")
    message.set_no_reply(True)
    client.connection.send_message(message)


def settle(client):
    """Whatever this client has sent before has been handled after it."""
    client.connection.flush()
    client.settle(LOGGER)


def content(name):
    """A file of the service."""
    try:
        with open(os.path.join(DIRECTORY, name), encoding="utf-8", newline="\n") as file:
            return file.read()
    except FileNotFoundError:
        return ""


def lines(module):
    """All lines of a module that are kept, the old ones first."""
    found = [content(f"{module}.log.{number}") for number in (3, 2, 1)] + [content(f"{module}.log")]
    return "".join(found).split("\n")[:-1]


def texts(module):
    """The texts of these lines, each of which must be well formed."""
    matches = [LINE.fullmatch(line) for line in lines(module)]
    assert all(matches), [line for line, match in zip(lines(module), matches) if not match][:3]
    return [match[3] for match in matches]


def test_the_supervisors_own_lines_arrive(installed):
    installed.up()
    client = installed.bus()
    client.call(bus.DAEMON, "set_gateway_triple")
    clock.until(lambda: any("set_gateway" in text or "gateway_tripe_change" in text for text in texts("quorvaned")), 10,
                lambda: content("quorvaned.log"))
    assert {LINE.fullmatch(line)[2] for line in lines("quorvaned")} == {"tag"}
    client.own("iot.test.any")
    clock.until(lambda: any("NameOwnerChanged, name:iot.test.any, old_owner:, new_owner::" in text
                            for text in texts("quorvaned")), 10, lambda: content("quorvaned.log"))
    assert [line for line in lines("quorvaned") if " trace [tag] NameOwnerChanged" in line]
    assert [line for line in lines("quorvaned") if " failure [tag] gateway_tripe_change" in line]


def test_a_line_is_in_its_file_when_the_call_is_answered(installed):
    # With no umask at all, as in the background.
    installed.up(umask=0)
    client = installed.bus()
    log(client, "my-module", "first", 0, "one")
    log(client, "my-module", "second", 1, "two")
    log(client, "my-module", "third", 2)
    assert [LINE.fullmatch(line).groups() for line in lines("my-module")] \
        == [("trace", "one", "first"), ("info", "two", "second"), ("failure", "tag", "third")]
    assert stat.S_IMODE(os.stat(DIRECTORY + "/my-module.log").st_mode) == 0o640
    assert stat.S_IMODE(os.stat(DIRECTORY).st_mode) == 0o755


def test_wrong_calls_are_refused_and_change_nothing(installed):
    installed.up()
    client = installed.bus()
    for signature, *words in (("",), ("s", "m"), ("sis", "m", 1, "t"), ("ssss", "m", "1", "t", "x"), ("i", 5)):
        assert client.error(LOGGER, "log", signature, *words) == "org.freedesktop.DBus.Error.InvalidArgs"
    assert client.error(LOGGER, "nothing") == "org.freedesktop.DBus.Error.UnknownMethod"
    assert not [name for name in os.listdir(DIRECTORY) if not name.startswith("quorvaned")]
    shown = processes.run(["/usr/bin/busctl", f"--address={bus.ADDRESS}", "introspect", "--no-legend", *LOGGER])
    assert str(shown.stdout).split() == [".log", "method", "siss", "-", "-"]


def test_the_documented_commands_write_a_line(installed):
    installed.up()
    with open(os.path.join(REPOSITORY, "docs", "logging.md"), encoding="utf-8") as file:
        block = file.read().split("```sh\n")[1].split("```")[0]
    commands, shown = block.split("tail -f ")
    assert processes.run(["/bin/sh", "-ec", commands]).status == 0
    settle(installed.bus())
    assert shown.strip() == DIRECTORY + "/my-service.log"
    assert [LINE.fullmatch(line).groups() for line in lines("my-service")] == [("info", "main", "it works")] * 2


def flood(module, count):
    """A sender of its own process."""
    client = bus.Bus()
    for number in range(count):
        send(client, module, f"line {number:05}")
        if number % 500 == 499:
            settle(client)
    settle(client)
    client.close()


@pytest.mark.takes(20)
def test_lines_of_four_senders_at_a_time_are_all_kept_in_their_order(installed):
    installed.up()
    senders = [multiprocessing.Process(target=flood, args=(f"sender{number}", 5000)) for number in range(4)]
    for sender in senders:
        sender.start()
    for sender in senders:
        sender.join(clock.stretched(60))
        assert sender.exitcode == 0
    for number in range(4):
        assert texts(f"sender{number}") == [f"line {line:05}" for line in range(5000)]
    assert not installed.log.has("%sabnormal")


@pytest.mark.takes(25)
def test_a_keepalive_is_fed_while_lines_flood_in(installed):
    installed.up()
    monitor = processes.spawn(["/usr/bin/busctl", f"--address={bus.ADDRESS}", "monitor", bus.WATCHDOG[0]])
    clock.until(lambda: "Monitoring bus message stream." in str(monitor.stderr), 10, lambda: str(monitor.stderr))
    ended = threading.Event()

    def send_until_the_end():
        client = installed.bus()
        while not ended.is_set():
            for number in range(200):
                send(client, "flood", f"line {number}")
            settle(client)

    sender = threading.Thread(target=send_until_the_end)
    sender.start()
    try:
        clock.until(lambda: str(monitor.stdout).count('STRING "writer"') >= 2, 15, lambda: str(monitor.stdout))
    finally:
        ended.set()
        sender.join()
    assert 'STRING "iot.gateway.logger"' in str(monitor.stdout)
    assert "INT32 15" in str(monitor.stdout)


@pytest.mark.takes(12)
def test_a_modules_files_are_rotated_and_bounded(installed):
    installed.up()
    client = installed.bus()
    for number in range(400):
        send(client, "big", f"{number:04} " + "x" * 4000)
    settle(client)
    names = sorted(os.path.basename(name) for name in glob.glob(DIRECTORY + "/big.*"))
    assert names == ["big.log", "big.log.1", "big.log.2", "big.log.3"]
    assert all(FILE_SIZE // 2 < os.stat(os.path.join(DIRECTORY, name)).st_size <= FILE_SIZE for name in names[1:])
    assert os.stat(DIRECTORY + "/big.log").st_size <= FILE_SIZE
    numbers = [int(text[:4]) for text in texts("big")]
    assert numbers == list(range(numbers[0], 400))
    assert len(numbers) > 3 * FILE_SIZE // 4100
    assert all(stat.S_IMODE(os.stat(os.path.join(DIRECTORY, name)).st_mode) == 0o640 for name in names)


def test_hostile_modules_stay_in_the_directory_and_apart(installed):
    installed.up()
    client = installed.bus()
    modules = ["", ".", "..", "/", "../quorvaned", "../../../etc/x", "a/b", "a%2fb", "a", "a.log", "\n", "%others", "ä",
               "x" * 64, "x" * 65, "x" * 100000, "y" * 100000, " ", "-rf", "quorvaned.log"]
    before = {*os.listdir(RUN + "/logger"), os.path.basename(DIRECTORY)}
    for number, module in enumerate(modules):
        log(client, module, f"text {number}")
    names = [name for name in os.listdir(DIRECTORY) if name != "quorvaned.log"]
    assert len(names) == len(modules)
    found = sorted(content(name).split("] ", 1)[1] for name in names)
    assert found == sorted(f"text {number}\n" for number in range(len(modules)))
    assert set(os.listdir(RUN + "/logger")) == before
    assert not glob.glob(RUN + "/*.log")


def test_hostile_texts_stay_in_their_line_and_within_bounds(installed):
    installed.up()
    client = installed.bus()
    forged = "x\n2026-01-01 00:00:00.000 failure [tag] forged\r\x1b[2J\x07\u009b\u2028\u2029 ende ä"
    log(client, "m", forged, tag="t\n[1] ")
    log(client, "m", "z" * 1_000_000, level=2_000_000, tag="w" * 1000)
    log(client, "m", "", level=-5, tag="")
    assert len(lines("m")) == 3
    first, second, third = content("m.log").splitlines()
    assert first.split(" ", 3)[3] == ("[t\\n[1] ] x\\n2026-01-01 00:00:00.000 failure [tag] forged\\r\\x1b[2J\\x07"
                                      "\\u009b\\u2028\\u2029 ende ä")
    assert second.split(" ", 2)[2] == "failure [" + "w" * 64 + "[...]] " + "z" * 4096 + "[...]"
    assert third.split(" ", 2)[2] == "trace [] "


def test_modules_beyond_the_limit_share_one_file_and_the_total_is_bounded(installed):
    installed.up()
    client = installed.bus()
    for number in range(3 * MODULES):
        log(client, f"module{number:03}", f"text {number}")
    names = os.listdir(DIRECTORY)
    assert len(names) == MODULES + 1
    own = [number for number in range(3 * MODULES) if f"module{number:03}.log" in names]
    assert own == list(range(len(own)))
    shared = content(OTHERS).splitlines()
    assert [line.split(" ", 3)[3] for line in shared] \
        == [f"module{number:03} [tag] text {number}" for number in range(len(own), 3 * MODULES)]


@pytest.mark.takes(50)
@pytest.mark.limit(120)
def test_every_answered_line_outlives_a_kill_and_the_service_comes_back(installed):
    installed.up()
    old = installed.pid_of("logging-service")
    answered = []
    ended = threading.Event()

    def call_until_it_fails():
        client = installed.bus()
        try:
            while not ended.is_set():
                log(client, "victim", f"line {len(answered):05}")
                answered.append(len(answered))
        except dbus.exceptions.DBusException:
            pass

    caller = threading.Thread(target=call_until_it_fails)
    caller.start()
    try:
        clock.until(lambda: len(answered) > 300, 20, "answered calls")
        os.kill(old, signal.SIGKILL)
        caller.join(clock.stretched(20))
        assert not caller.is_alive()
    finally:
        ended.set()
    kept = texts("victim")
    # The last one may have been written and not yet answered.
    assert kept[:len(answered)] == [f"line {number:05}" for number in answered]
    assert len(kept) - len(answered) <= 1
    installed.log.wait_for("process_exit, service(logging-service) is abnormal")
    new = installed.log.wait_for("run logging-service pid %d", GRACE + 10, count=2).values[0]
    client = installed.bus()
    clock.until(lambda: client.owner(LOGGER[0]) and client.pid_of(LOGGER[0]) == new, 10, "the name of the new process")
    log(client, "victim", "again")
    assert texts("victim") == kept + ["again"]
    # The supervisor binds itself anew.
    count = len(lines("quorvaned"))
    client.own("iot.test.any")
    clock.until(lambda: len(lines("quorvaned")) > count, 10, "the supervisor's lines")


def test_a_torn_line_is_ended_before_the_next_one(installed):
    os.makedirs(DIRECTORY)
    with open(DIRECTORY + "/m.log", "w", encoding="ascii") as file:
        file.write("2026-01-01 00:00:00.000 info [tag] whole\n2026-01-01 00:00:0")
    installed.up()
    log(installed.bus(), "m", "new")
    first, second, third = content("m.log").splitlines()
    assert (first[-5:], second) == ("whole", "2026-01-01 00:00:0")
    assert LINE.fullmatch(third)[3] == "new"


@pytest.mark.takes(10)
def test_lines_that_cannot_be_written_are_counted_and_told_afterwards(installed):
    installed.up()
    client = installed.bus()
    log(client, "m", "before")
    pid = installed.pid_of("logging-service")
    # Removed: it comes back by itself, nothing is lost.
    shutil.rmtree(DIRECTORY)
    log(client, "m", "removed")
    assert texts("m") == ["removed"]
    # In the way: an error for who wants an answer, and a count.
    os.rename(DIRECTORY, DIRECTORY + ".aside")
    with open(DIRECTORY, "w", encoding="ascii"):
        pass
    for _ in range(5):
        send(client, "m", "lost")
    assert client.error(LOGGER, "log", "siss", "m", 1, "tag", "lost") == "org.freedesktop.DBus.Error.Failed"
    os.unlink(DIRECTORY)
    os.rename(DIRECTORY + ".aside", DIRECTORY)
    log(client, "m", "after")
    assert texts("m") == ["removed", "6 lines were lost", "after"]
    assert client.pid_of(LOGGER[0]) == pid


@pytest.mark.takes(10)
@pytest.mark.private({"/quorvane": "256k"})
def test_a_full_disk_costs_whole_lines_and_never_pieces_of_them(installed):
    installed.up()
    client = installed.bus()
    log(client, "m", "before")
    filler = RUN + "/filler"
    with open(filler, "wb") as file:
        try:
            while True:
                os.write(file.fileno(), bytes(4096))
        except OSError:
            pass
    refused = 0
    for number in range(200):
        try:
            log(client, "m", f"{number:03} " + "x" * 100)
        except dbus.exceptions.DBusException:
            refused += 1
    assert refused > 0
    os.unlink(filler)
    # The service tells by itself, at its next turn.
    clock.until(lambda: texts("m")[-1] == f"{refused} lines were lost", 15, lambda: str(texts("m")[-2:]))
    log(client, "m", "after")
    assert len(texts("m")) == 1 + (200 - refused) + 1 + 1
    assert client.pid_of(LOGGER[0]) == installed.pid_of("logging-service")


@pytest.mark.takes(12)
def test_it_ends_at_once_with_status_0_and_goes_on_with_the_same_files(installed):
    installed.up()
    up = installed.log.find(UP)[0]
    log(installed.bus(), "m", "first cycle")
    old = installed.pid_of("logging-service")
    installed.bus().reboot()
    installed.log.wait_for(UP, 20, after=up)
    installed.log.wait_for(f"wait pid({old}) status(0)", 4)
    log(installed.bus(), "m", "second cycle")
    assert texts("m") == ["first cycle", "second cycle"]
