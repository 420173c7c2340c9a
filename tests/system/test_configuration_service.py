"""The configuration service as installed: its answers, what survives, what nobody can read, and its command line."""

import contextlib
import json
import os
import random
import re
import shutil
import signal
import sqlite3
import stat

import pytest
from harness import clock, processes
from harness.bus import ADDRESS
from harness.facts import Facts
from harness.gateway import RUN, UP

NAME = "iot.dmp.configmanager"
TARGET = (NAME, "/iot/dmp/configmanager", NAME)
DIRECTORY = RUN + "/config-manager"
DATABASE = DIRECTORY + "/config.db"
ENTRY = {"exec": "config-manager", "monitor": 1, "dbus_name": NAME}
LOGGER = "iot.gateway.logger"

SUCCESS, NO_VALUE, BAD_KEY, STORAGE, UNSEALABLE, NO_KEY_CHAIN, TOO_LONG, NEWER = 0, *range(100100, 100107)
SECRET = "the-secret-that-nobody-may-read"


class Client:
    """The service's methods."""

    def __init__(self, gateway):
        self.bus = gateway.bus()

    def get(self, key):
        """(code, value)"""
        code, value = self.bus.call(TARGET, "get_config", "s", key)
        return int(code), str(value)

    def set(self, key, value, protected=False):
        """Code."""
        return int(self.bus.call(TARGET, "set_config", "ssb", key, value, protected))

    def reset(self):
        """Code."""
        return int(self.bus.call(TARGET, "reset_config"))

    def flush(self):
        """Code."""
        return int(self.bus.call(TARGET, "flush_config"))


@pytest.fixture(name="installed")
def installed_alone(installed):
    """The installation with the configuration service alone in its catalogue."""
    with open(installed.path("config/services.json"), encoding="utf-8") as file:
        assert json.load(file)[0] == ENTRY  # first: others may want their configuration
    installed.keep_only("config-manager")
    return installed


def up(installed, *words):
    """Start the daemon; give a client of the service."""
    installed.up(*words)
    return Client(installed)


class ByHand:
    """The service without a supervisor, on a bus of its own: it can be killed and started as often as one likes."""

    def __init__(self, installed):
        self.installed = installed
        os.makedirs("/tmp/var/run/mbusd", exist_ok=True)
        assert processes.run([installed.path("bin/deploy_sst")]).status == 0
        processes.spawn([installed.path("bin/dbus-daemon"), f"--config-file={installed.path('bin/mbusd.conf')}"])
        self.client = Client(installed)
        self.process = None
        self.start()

    def start(self):
        """Start the service and wait for its name."""
        self.process = processes.spawn([self.installed.path("bin/config-manager")], cwd=self.installed.bin, umask=0)
        clock.until(lambda: self.client.bus.owner(NAME) and self.client.bus.pid_of(NAME) == self.process.pid, 10,
                    "the name of the service")

    def stop(self):
        """Ask it to end."""
        self.process.signal(signal.SIGTERM)
        assert self.process.wait(5) == 0

    def kill(self):
        """Kill it, and wait until its name is free."""
        self.process.signal(signal.SIGKILL)
        self.process.wait(5)
        clock.until(lambda: not self.client.bus.owner(NAME), 5, "the end of the name")

    def state(self):
        """What it has written down for a person."""
        with open(DIRECTORY + "/state", encoding="utf-8") as file:
            return file.read()


@pytest.fixture(name="by_hand")
def started_by_hand(installed):
    """The service by hand."""
    return ByHand(installed)


def tool(installed, *words, text=None, within=15):
    """Run gateway-config; give (status, output, complaint)."""
    stdin = "/dev/null"
    if text is not None:
        stdin = installed.path("input")
        with open(stdin, "wb") as file:
            file.write(text if isinstance(text, bytes) else text.encode())
    done = processes.run([installed.path("bin/gateway-config"), *words], within=within, stdin=stdin)
    return done.status, str(done.stdout), str(done.stderr)


def files_with(text, top=RUN):
    """The files below a directory that hold the text."""
    found = []
    for directory, _, names in os.walk(top):
        for name in names:
            path = os.path.join(directory, name)
            if os.path.isfile(path):
                with open(path, "rb") as file:
                    if text.encode() in file.read():
                        found.append(path)
    return found


def mode(path):
    """Its permissions."""
    return stat.S_IMODE(os.stat(path).st_mode)


def fill_disk(path="/quorvane/filler"):
    """Leave no room."""
    with open(path, "wb", buffering=0) as file:
        for size in (65536, 4096, 512):
            with contextlib.suppress(OSError):
                while file.write(b"x" * size):
                    pass


def remount(how):
    """Make the run-time root writable or not."""
    assert processes.run(["/bin/mount", "-o", "remount," + how, "/quorvane"]).status == 0


# Answers

def test_values_are_set_read_replaced_and_reset(installed):
    client = up(installed)
    with Facts() as fact:
        fact("no value yet", client.get("a") == (NO_VALUE, ""))
        fact("it is set", client.set("a", "1") == SUCCESS and client.get("a") == (SUCCESS, "1"))
        fact("it is replaced", client.set("a", "zwei \u00e4\n\u20ac") == SUCCESS
             and client.get("a") == (SUCCESS, "zwei \u00e4\n\u20ac"))
        fact("it is sealed", client.set("a", SECRET, True) == SUCCESS and client.get("a") == (SUCCESS, SECRET))
        fact("an empty value is a value", client.set("a", "") == SUCCESS and client.get("a") == (SUCCESS, ""))
        fact("there is nothing to flush", client.flush() == SUCCESS)
        long = "v" * 65536
        fact("a long value", client.set("k" * 255, long) == SUCCESS and client.get("k" * 255) == (SUCCESS, long))
        fact("a value that is too long", client.set("a", long + "v") == TOO_LONG and client.get("a") == (SUCCESS, ""))
        fact("bad keys", [client.set(key, "1") for key in ("", "k" * 256, "a\tb")] == [BAD_KEY] * 3)
        fact("bad keys in reading", [client.get(key) for key in ("", "k" * 256, "a\tb")] == [(BAD_KEY, "")] * 3)
        fact("a reset removes all", client.reset() == SUCCESS and client.get("k" * 255) == (NO_VALUE, ""))


def test_wrong_calls_get_the_standard_errors_and_harm_nothing(installed):
    client = up(installed)
    client.set("a", "1")
    wrong = "org.freedesktop.DBus.Error.InvalidArgs"
    assert client.bus.error(TARGET, "get_config") == wrong
    assert client.bus.error(TARGET, "get_config", "i", 1) == wrong
    assert client.bus.error(TARGET, "set_config", "ss", "a", "2") == wrong
    assert client.bus.error(TARGET, "set_config", "ssi", "a", "2", 1) == wrong
    assert client.bus.error(TARGET, "list_config") == "org.freedesktop.DBus.Error.UnknownMethod"
    assert client.get("a") == (SUCCESS, "1")
    shown = processes.run(["/usr/bin/busctl", f"--address={ADDRESS}", "introspect", "--no-legend", *TARGET])
    assert {" ".join(line.split()) for line in str(shown.stdout).splitlines()} \
        == {".get_config method s is -", ".set_config method ssb i -", ".reset_config method - i -",
            ".flush_config method - i -"}


def test_the_supervisor_hands_its_identity_to_the_service_which_keeps_it_over_a_restart(installed):
    client = up(installed, "pk", "dn", SECRET, "host", "443", "2")
    installed.log.wait_for("set config gw_ha_service_switch=%s")
    expected = {"gw_system_productkey": "pk", "gw_system_devicename": "dn", "gw_system_devicesecret": SECRET,
                "gw_system_as_host": "host", "gw_system_as_port": "443", "gw_system_ver_ca": "2",
                "gw_ha_service_switch": "off"}
    assert {key: client.get(key) for key in expected} == {key: (SUCCESS, value) for key, value in expected.items()}
    up_once = installed.log.find(UP)[0]
    client.bus.reboot()
    again = installed.log.wait_for(UP, 20, after=up_once)
    client = Client(installed)
    assert {key: client.get(key) for key in expected} == {key: (SUCCESS, value) for key, value in expected.items()}
    # The same identity without the secret's knowledge: nothing is reset.
    assert not installed.log.has("reset config-manager", after=up_once)
    assert json.loads(client.bus.set_triple(
        json.dumps({"productkey": "pk", "devicename": "other", "devicesecret": "new"})))["code"] == 0
    installed.log.wait_for("reset config-manager", 20, after=again)
    installed.log.wait_for(UP, 20, after=again)
    client = Client(installed)
    clock.until(lambda: client.get("gw_system_devicesecret") == (SUCCESS, "new"), 5, "the new identity")
    assert client.get("gw_system_devicename") == (SUCCESS, "other")
    assert client.get("gw_system_as_host") == (NO_VALUE, "")


def test_the_service_feeds_its_keepalive_and_ends_at_once_when_it_is_told_to(installed):
    daemon = installed.start()
    installed.log.wait_for(UP)
    client = Client(installed)
    monitor = processes.spawn(["/usr/bin/busctl", f"--address={ADDRESS}", "monitor", "iot.gateway.watchdog"])
    clock.until(lambda: re.search(rf'STRING "{NAME}";\s+STRING "store";\s+INT32 30;', str(monitor.stdout)), 15,
                "a keep-alive")
    client.set("a", "1")
    pid = installed.pid_of("config-manager")
    os.kill(pid, signal.SIGTERM)
    assert os.waitstatus_to_exitcode(installed.log.wait_for(f"wait pid({pid}) status(%d)", 3).values[0]) == 0
    # What was written is in the database alone.
    assert not os.path.exists(DATABASE + "-wal")
    with contextlib.closing(sqlite3.connect(f"file:{DATABASE}?immutable=1", uri=True)) as database:
        assert database.execute("SELECT value FROM config WHERE key = 'a'").fetchall() == [(b"1",)]
    assert daemon.alive()


def test_the_service_ends_when_the_bus_goes_away_and_queues_for_its_name(by_hand):
    second = processes.spawn([by_hand.installed.path("bin/config-manager")])
    clock.until(lambda: len(by_hand.client.bus.call(("org.freedesktop.DBus", "/", "org.freedesktop.DBus"),
                                                    "ListQueuedOwners", "s", NAME)) == 2, 10, "the second in the queue")
    by_hand.client.set("a", "1")
    by_hand.stop()
    clock.until(lambda: by_hand.client.bus.owner(NAME) and by_hand.client.bus.pid_of(NAME) == second.pid, 5, "the name")
    assert by_hand.client.get("a") == (SUCCESS, "1")
    bus, = processes.running("dbus-daemon")
    os.kill(bus, signal.SIGKILL)
    assert second.wait(5) == 1


# What survives

@pytest.mark.takes(12)
def test_a_kill_between_any_two_calls_loses_no_accepted_write(by_hand):
    client = by_hand.client
    expected = {}
    choose = random.Random(5)
    for number in range(20):
        key = f"key{choose.randrange(6)}"
        value = choose.choice(["", f"value {number}", f"long {number} " * 500])
        assert client.set(key, value, choose.random() < 0.5) == SUCCESS
        expected[key] = value
        if choose.random() < 0.4:
            assert client.flush() == SUCCESS
        if number == 12:
            assert client.reset() == SUCCESS
            expected = {}
        by_hand.kill()
        by_hand.start()
        assert {key: client.get(key)[1] for key in expected} == expected
    assert by_hand.state() == "store open\n"


@pytest.mark.takes(35)
@pytest.mark.limit(120)
def test_the_supervisor_brings_a_killed_service_back_with_all_it_had(installed):
    client = up(installed)
    assert client.set("flushed", "1", True) == SUCCESS
    assert client.flush() == SUCCESS
    assert client.set("unflushed", "2") == SUCCESS
    old = installed.pid_of("config-manager")
    os.kill(old, signal.SIGKILL)
    installed.log.wait_for("run config-manager pid %d", 40, count=2)
    clock.until(lambda: client.bus.owner(NAME), 10, "the name")
    assert client.bus.pid_of(NAME) == installed.pid_of("config-manager") != old
    assert client.get("flushed") == (SUCCESS, "1")
    assert client.get("unflushed") == (SUCCESS, "2")


def test_after_a_flush_the_database_file_alone_has_everything(by_hand):
    for number in range(5):
        by_hand.client.set("count", str(number))
        assert by_hand.client.flush() == SUCCESS
        assert os.path.getsize(DATABASE + "-wal") == 0
        shutil.copyfile(DATABASE, DIRECTORY + "/copy")
        with contextlib.closing(sqlite3.connect(DIRECTORY + "/copy")) as database:
            assert database.execute("SELECT value FROM config").fetchall() == [(str(number).encode(),)]


@pytest.mark.takes(10)
def test_what_nobody_flushes_is_flushed_soon(by_hand):
    # Its turn may come in the very moment between the write and the look.
    clock.until(lambda: by_hand.client.set("a", "1") == SUCCESS and os.path.getsize(DATABASE + "-wal") > 0, 2,
                "a write in the log")
    clock.until(lambda: os.path.getsize(DATABASE + "-wal") == 0, 10, "the log to be emptied")


@pytest.mark.skipif(not os.path.exists("/usr/bin/strace"), reason="strace shows what is asked of the kernel")
def test_a_flush_has_the_kernel_sync_the_log_before_the_database_and_that_before_it_answers(by_hand):
    client = by_hand.client
    client.flush()
    tracer = processes.spawn(["/usr/bin/strace", "-y", "-s", "2", "-e", "trace=fsync,fdatasync,ftruncate,sendmsg",
                              "-p", str(by_hand.process.pid)])
    clock.until(lambda: "attached" in str(tracer.stderr), 10, lambda: str(tracer.stderr))

    def steps():
        # A message of the type 2 is an answer; keep-alives are of the type 4.
        found = re.findall(r'^(?:(fdatasync|ftruncate)\(\d+<[^>]*/([^>/]*)>|sendmsg\(.*?"l(\\2)")', str(tracer.stderr),
                           re.MULTILINE)
        return ["answer" if answer else f"{call} {name}" for call, name, answer in found]

    assert client.set("a", "1") == SUCCESS
    assert client.flush() == SUCCESS
    clock.until(lambda: steps().count("answer") == 2, 5, lambda: str(tracer.stderr))
    # The first write in an empty log has it synced as well: what counts comes after its answer.
    rest = steps()[steps().index("answer") + 1:]
    needed = ["fdatasync config.db-wal", "fdatasync config.db", "ftruncate config.db-wal", "answer"]
    left = iter(rest)
    assert all(step in left for step in needed), steps()  # in this order
    assert rest.index("answer") > rest.index("ftruncate config.db-wal"), steps()


# What nobody can read

@pytest.mark.takes(10)
def test_a_protected_value_is_in_clear_in_no_file_of_the_run_time_root_and_in_no_process_listing(installed):
    client = up(installed)
    assert client.set("first", SECRET, True) == SUCCESS
    assert tool(installed, "set", "--protected", "second", "-", text=SECRET) == (0, "", "")
    assert tool(installed, "get", "second") == (0, SECRET + "\n", "")
    pid = installed.pid_of("config-manager")
    for _ in range(2):
        assert files_with(SECRET) == []
        for process in processes.everybody():
            assert SECRET not in processes.proc(process, "cmdline") + processes.proc(process, "environ")
        assert client.flush() == SUCCESS
    assert "Max core file size        1 " in processes.proc(pid, "limits")
    os.kill(pid, signal.SIGABRT)
    installed.log.wait_for(f"wait pid({pid}) status(%d)")
    assert files_with(SECRET) == []
    assert files_with(SECRET, installed.bin) == []


def test_directory_and_files_are_for_the_owner_alone(by_hand):
    by_hand.client.set("a", "1")
    assert mode(DIRECTORY) == 0o700
    clock.until(lambda: os.path.exists(DIRECTORY + "/state"), 5, "the state file")
    assert {name: mode(os.path.join(DIRECTORY, name)) for name in os.listdir(DIRECTORY)} \
        == {"config.db": 0o600, "config.db-wal": 0o600, "state": 0o600}


def test_a_reset_leaves_no_trace_of_any_value(by_hand):
    client = by_hand.client
    for number in range(40):
        assert client.set(f"key{number % 15}", f"<trace {number}>" * (1 + 50 * (number % 7)), False) == SUCCESS
    assert files_with("<trace") != []
    assert client.reset() == SUCCESS
    assert files_with("<trace") == []
    by_hand.kill()
    assert files_with("<trace") == []


def test_protected_values_need_the_key_chain_and_the_others_do_not(by_hand):
    client = by_hand.client
    assert client.set("sealed", SECRET, True) == SUCCESS
    chain, copy = RUN + "/.security/keychain", RUN + "/.sec_bak/keychain"
    os.rename(chain, chain + ".away")
    assert client.get("sealed") == (SUCCESS, SECRET)  # by the copy
    os.rename(copy, copy + ".away")
    with Facts() as fact:
        fact("no reading", client.get("sealed") == (NO_KEY_CHAIN, ""))
        fact("no writing", client.set("more", SECRET, True) == NO_KEY_CHAIN)
        fact("others are written", client.set("plain", "1") == SUCCESS)
        fact("others are read", client.get("plain") == (SUCCESS, "1"))
        assert processes.run([by_hand.installed.path("bin/deploy_sst")]).status == 0  # another one
        fact("another key chain does not unseal it", client.get("sealed") == (UNSEALABLE, ""))
        fact("but seals new ones", client.set("more", "new", True) == SUCCESS
             and client.get("more") == (SUCCESS, "new"))
        os.rename(chain + ".away", chain)
        fact("it was kept for its own", client.get("sealed") == (SUCCESS, SECRET))
    by_hand.stop()
    assert files_with(SECRET) == []


# Damage

def scribble(place, count):
    """Overwrite a part of the database."""
    with open(DATABASE, "r+b") as file:
        file.seek(place)
        file.write(b"\xee" * count)


def replace_by_directory():
    """Put a directory in its place."""
    os.unlink(DATABASE)
    os.mkdir(DATABASE)


DAMAGES = {
    "a_bad_header": (lambda: scribble(0, 100), 0),
    "a_damaged_page": (lambda: scribble(os.path.getsize(DATABASE) // 2 // 4096 * 4096, 4096), 30),
    "a_changed_value": (lambda: scribble(open(DATABASE, "rb").read().find(b"value 33 ") + 20, 3), 59),
    "a_cut_off_end": (lambda: os.truncate(DATABASE, os.path.getsize(DATABASE) - 4096), 30),
    "an_empty_file": (lambda: os.truncate(DATABASE, 0), 0),
    "other_text": (lambda: shutil.copyfile("/etc/passwd", DATABASE), 0),
    "a_directory": (replace_by_directory, 0),
}


@pytest.mark.parametrize("damage", DAMAGES)
def test_a_database_is_set_aside_and_reported_and_what_is_readable_recovered_after(by_hand, damage):
    client = by_hand.client
    values = {f"key{number}": f"value {number} " * 40 for number in range(60)}
    for key, value in values.items():
        assert client.set(key, value) == SUCCESS
    by_hand.stop()
    harm, at_least = DAMAGES[damage]
    harm()
    damaged = os.stat(DATABASE)
    by_hand.start()
    found = {key: client.get(key) for key in values}
    there = {key for key, answer in found.items() if answer == (SUCCESS, values[key])}
    with Facts() as fact:
        fact("no value is wrong", all(found[key] == (NO_VALUE, "") for key in values if key not in there), found)
        fact("what is readable is there", at_least <= len(there) < 60, len(there))
        fact("the damaged one is kept", os.stat(DATABASE + ".damaged-1").st_ino == damaged.st_ino)
        fact("the service works", client.set("key0", "new") == SUCCESS and client.flush() == SUCCESS)
    report = clock.until(lambda: re.search(r"config\.db was damaged \(.+\) and is now config\.db\.damaged-1; "
                                           r"(\d+) values were recovered\n", by_hand.state()), 5, by_hand.state)
    assert int(report[1]) == len(there)
    with open(DATABASE + ".damaged-1.txt", encoding="utf-8") as file:
        assert report[0] in file.read()


@pytest.mark.takes(12)
def test_damage_is_told_to_the_logging_service_as_soon_as_there_is_one(by_hand):
    by_hand.client.set("a", "1")
    by_hand.stop()
    os.truncate(DATABASE, 0)
    monitor = processes.spawn(["/usr/bin/dbus-monitor", "--address", ADDRESS, f"destination='{LOGGER}'"])
    clock.until(lambda: "NameAcquired" in str(monitor.stdout) or "NameLost" in str(monitor.stdout), 10,
                lambda: str(monitor.stdout) + str(monitor.stderr))
    by_hand.start()
    clock.until(lambda: os.path.exists(DIRECTORY + "/state"), 5, "the state file")
    by_hand.client.bus.own(LOGGER)
    clock.until(lambda: re.search(r'path=/iot/gateway/logger; interface=iot.gateway.logger; member=log\s+'
                                  r'string "config-manager"\s+int32 2\s+string "store"\s+string ".*was damaged \(it is '
                                  r'empty\)', str(monitor.stdout)), 15, lambda: str(monitor.stdout))


def test_a_database_of_a_newer_version_is_refused_and_left_alone(by_hand):
    client = by_hand.client
    client.set("a", "1")
    by_hand.stop()
    with contextlib.closing(sqlite3.connect(DATABASE)) as database:
        database.execute("PRAGMA user_version = 2")
    with open(DATABASE, "rb") as file:
        before = file.read()
    by_hand.start()
    assert client.get("a") == (NEWER, "")
    assert [client.set("a", "2"), client.reset(), client.flush()] == [NEWER] * 3
    clock.until(lambda: "store closed: it was written by a newer version (schema 2, this one knows 1)"
                in by_hand.state(), 10, by_hand.state)
    by_hand.stop()
    with open(DATABASE, "rb") as file:
        assert file.read() == before


@pytest.mark.private({"/quorvane": "4m"})
def test_a_full_disk_fails_the_write_and_loses_nothing(by_hand):
    client = by_hand.client
    values = {f"key{number}": f"value {number} " * 40 for number in range(40)}
    for key, value in values.items():
        assert client.set(key, value) == SUCCESS
    assert client.flush() == SUCCESS
    fill_disk()
    answers = [client.set(f"more{number}", "x" * 30000) for number in range(3)]
    assert answers == [STORAGE] * 3
    assert client.get("more0") == (NO_VALUE, "")
    assert {key: client.get(key) for key in values} == {key: (SUCCESS, value) for key, value in values.items()}
    by_hand.kill()
    by_hand.start()
    assert {key: client.get(key) for key in values} == {key: (SUCCESS, value) for key, value in values.items()}
    os.unlink("/quorvane/filler")
    assert client.set("more0", "x" * 30000) == SUCCESS
    assert client.flush() == SUCCESS


@pytest.mark.private({"/quorvane": "4m"})
def test_a_full_disk_at_the_first_start_is_a_failure_until_there_is_room(by_hand):
    by_hand.stop()
    shutil.rmtree(DIRECTORY)
    fill_disk()
    by_hand.start()
    assert by_hand.client.set("a", "1") == STORAGE
    os.unlink("/quorvane/filler")
    assert by_hand.client.set("a", "1") == SUCCESS
    assert by_hand.client.get("a") == (SUCCESS, "1")


def test_on_a_read_only_disk_values_are_read_and_none_is_written(by_hand):
    client = by_hand.client
    assert client.set("a", "1") == SUCCESS
    assert client.set("b", SECRET, True) == SUCCESS
    by_hand.stop()
    remount("ro")
    by_hand.start()
    with Facts() as fact:
        fact("it is read", client.get("a") == (SUCCESS, "1") and client.get("b") == (SUCCESS, SECRET))
        fact("it is not written", client.set("a", "2") == STORAGE)
        fact("nor removed", client.set("a", "") == STORAGE and client.reset() == STORAGE)
        fact("it is still read", client.get("a") == (SUCCESS, "1"))
    remount("rw")
    assert client.set("a", "3") == SUCCESS
    assert client.flush() == SUCCESS
    assert client.get("a") == (SUCCESS, "3")


# The command line

@pytest.mark.takes(10)
def test_the_command_line_gets_sets_flushes_and_resets(installed):
    client = up(installed)
    with Facts() as fact:
        fact("no value is status 3", tool(installed, "get", "a") == (3, "", "gateway-config: the key has no value\n"))
        fact("it sets", tool(installed, "set", "a", "1") == (0, "", "") and client.get("a") == (SUCCESS, "1"))
        fact("it has flushed", os.path.getsize(DATABASE + "-wal") == 0)
        fact("it gets", tool(installed, "get", "a") == (0, "1\n", ""))
        fact("a value like an option", tool(installed, "set", "a", "--protected") == (0, "", "")
             and client.get("a") == (SUCCESS, "--protected"))
        fact("from standard input", tool(installed, "set", "--protected", "b", "-", text="two\nlines\n") == (0, "", "")
             and client.get("b") == (SUCCESS, "two\nlines"))
        fact("an empty value", tool(installed, "set", "b", "") == (0, "", "") and client.get("b") == (SUCCESS, ""))
        fact("the longest value", tool(installed, "set", "b", "-", text="x" * 65536 + "\n") == (0, "", "")
             and client.get("b") == (SUCCESS, "x" * 65536))
        fact("a longer one", tool(installed, "set", "b", "-", text="x" * 65537)
             == (1, "", "gateway-config: the value is too long\n"))
        fact("without a flush", tool(installed, "set", "--no-flush", "c", "1") == (0, "", ""))
        fact("a flush", tool(installed, "flush") == (0, "", ""))
        fact("a refusal is status 1", tool(installed, "set", "k" * 256, "1")[0] == 1)
        fact("a reset wants to be meant", tool(installed, "reset")[0] == 2 and client.get("a")[0] == SUCCESS)
        fact("a reset", tool(installed, "reset", "--yes") == (0, "", "") and client.get("a")[0] == NO_VALUE)
    for words in ([], ["get"], ["get", "a", "b"], ["set", "a"], ["set", "--secret", "a", "b"], ["flush", "now"],
                  ["list"]):
        status, output, complaint = tool(installed, *words)
        assert (status, output) == (2, "") and "usage: gateway-config get KEY" in complaint
    for words in (["get", b"\xff"], ["set", b"\xff", "1"], ["set", "a", b"\xff"]):
        assert tool(installed, *words)[0] == 2
    assert tool(installed, "set", "a", "-", text=b"nul\0byte")[0] == 2
    assert tool(installed, "--help")[0] == 0


def test_a_protected_value_given_as_an_argument_is_not_left_in_the_process_listing(installed):
    client = up(installed)
    pid = installed.pid_of("config-manager")
    os.kill(pid, signal.SIGSTOP)
    waiting = processes.spawn([installed.path("bin/gateway-config"), "set", "--protected", "a", SECRET])
    clock.until(lambda: processes.program(waiting.pid) == "gateway-config"
                and processes.arguments(waiting.pid)[-1:] == ["*" * len(SECRET)], 3,
                lambda: str(processes.arguments(waiting.pid)))
    os.kill(pid, signal.SIGCONT)
    assert waiting.wait(10) == 0
    assert client.get("a") == (SUCCESS, SECRET)


@pytest.mark.takes(12)
def test_the_command_line_does_not_wait_for_ever(installed):
    status, _, complaint = tool(installed, "get", "a")
    assert status == 1 and "does not answer" in complaint
    client = up(installed)
    pid = installed.pid_of("config-manager")
    os.kill(pid, signal.SIGSTOP)
    stuck = processes.spawn([installed.path("bin/gateway-config"), "get", "a"])
    assert stuck.wait(5) == 1
    assert 3 <= stuck.ended_at - stuck.started_at
    os.kill(pid, signal.SIGCONT)
    assert client.get("a") == (NO_VALUE, "")
    bus, = processes.running("dbus-daemon")
    os.kill(bus, signal.SIGSTOP)
    stuck = processes.spawn([installed.path("bin/gateway-config"), "get", "a"])
    assert stuck.wait(6) == 1
    assert str(stuck.stderr) == "gateway-config: the bus does not answer\n"
    os.kill(bus, signal.SIGCONT)
