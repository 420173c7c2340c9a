"""What an attacker finds: how the programs are built, who is let onto the bus and owns what there, what lies where for
whom, and where the secret is."""

import fcntl
import json
import os
import re
import shlex
import socket
import stat
import time

import dbus
import pytest
from harness import clock, processes, staging
from harness.bus import ADDRESS, CONFIGURATION, SOCKET
from harness.gateway import PID_FILE, RUN, UP, Service
from harness.sandbox import REPOSITORY

NOBODY = 65534
SOMEBODY = 61234
BUS_DIRECTORY = os.path.dirname(SOCKET)
needs_other_users = pytest.mark.skipif(os.geteuid() != 0, reason="to become another user takes root")


# How the programs are built

def programs(root):
    """Every program of an installation that is no script."""
    for directory, _, names in os.walk(root):
        for name in names:
            path = os.path.join(directory, name)
            with open(path, "rb") as file:
                if file.read(4) == b"\x7fELF":
                    yield path


def readelf(*words):
    """What readelf shows."""
    shown = processes.run(["/usr/bin/readelf", "-W", *words], 20)
    assert shown.status == 0, str(shown.stderr)
    return str(shown.stdout)


def test_every_program_of_an_installation_is_hardened(installed):
    found = sorted(programs(installed.root))
    assert len(found) >= 12
    wrong = []
    for path in found:
        shown = readelf("--file-header", "--program-headers", "--dynamic", path)
        wrong += [f"{path}: {what}" for what, holds in {
            "is position independent": re.search(r"Type: +DYN \(Position-Independent Executable file\)", shown),
            "has a table that is read-only once relocated": "GNU_RELRO" in shown,
            "is relocated at once": re.search(r"\(FLAGS(_1)?\).*\bNOW\b", shown) or "(BIND_NOW)" in shown,
            "has no executable stack": re.search(r"GNU_STACK .* RW +0x", shown),
            "is told no library path": not re.search(r"\((RPATH|RUNPATH|TEXTREL)\)", shown),
        }.items() if not holds]
    assert wrong == []


@pytest.mark.skipif(staging.is_sanitized(), reason="a sanitizer brings its own checks")
def test_every_program_of_an_installation_guards_its_stack(installed):
    wrong = [path for path in programs(installed.root) if "__stack_chk_fail@" not in readelf("--dyn-syms", path)]
    assert wrong == []


@pytest.mark.skipif(staging.is_sanitized(), reason="a sanitizer brings its own checks")
def test_every_file_is_compiled_with_guarded_stacks_and_checked_buffers(installed):
    with open(os.path.join(staging.build_directory(), "compile_commands.json"), encoding="utf-8") as file:
        commands = json.load(file)
    # What is only ever preloaded into a daemon to break it is no part of anything.
    of_programs = [command for command in commands if "/chaos/preload/" not in command["file"]]
    assert len(of_programs) >= 80
    wrong = []
    for command in of_programs:
        words = shlex.split(command["command"])
        last = {key: ([word for word in words if word.startswith(key)] or [""])[-1]
                for key in ("-O", "-fstack-protector")}
        fortified = [word for word in words if re.match(r"-[DU]_FORTIFY_SOURCE", word)][-1:]
        if fortified != ["-D_FORTIFY_SOURCE=2"] or last["-O"] in ("", "-O0") or "-fno-stack-protector" in words \
                or last["-fstack-protector"] != "-fstack-protector-strong":
            wrong.append(command["file"])
    assert wrong == []
    # It was not for nothing.
    assert re.search(r"__(memcpy|read|snprintf|vsnprintf|readlink|strncat|memset)_chk@",
                     readelf("--dyn-syms", installed.program))


# Who is let onto the bus


def becomes(user):
    """What makes a process another user's."""
    def become():
        os.setgroups([])
        os.setgid(user)
        os.setuid(user)
    return become


def run_as(user, *words):
    """Run a program as that user."""
    return processes.run(list(words), 10, prepare=becomes(user))


def ask_for_name(user, name):
    """What somebody is told who asks for a name: `1` when he has it, else the error."""
    asked = run_as(user, "/usr/bin/dbus-send", f"--bus={ADDRESS}", "--print-reply=literal",
                   "--dest=org.freedesktop.DBus", "/", "org.freedesktop.DBus.RequestName", f"string:{name}", "uint32:0")
    return f"{asked.stdout}{asked.stderr}".strip().removeprefix("uint32 ")


CALLS = [["/usr/bin/busctl", f"--address={ADDRESS}", "list"],
         ["/usr/bin/dbus-send", f"--bus={ADDRESS}", "--print-reply", "--dest=iot.gateway.quorvaned",
          "/iot/gateway/quorvaned", "iot.gateway.quorvaned.get_le_status"],
         ["/usr/bin/dbus-send", f"--bus={ADDRESS}", "--type=signal", "--dest=iot.gateway.watchdog",
          "/iot/gateway/watchdog", "iot.gateway.watchdog.feedDog", "string:a", "string:b", "int32:1"]]


@needs_other_users
def test_another_user_is_not_let_onto_the_bus(installed):
    installed.keep_only("config-manager", "logging-service")
    installed.up()
    for words in CALLS:
        assert run_as(0, *words).status == 0
        refused = run_as(NOBODY, *words)
        assert (refused.status, "Permission denied" in str(refused.stderr)) == (1, True), str(refused.stderr)


@needs_other_users
def test_another_user_cannot_even_connect_to_the_bus(installed):
    installed.keep_only("config-manager")
    daemon = installed.up()

    def knock():
        read_end, write_end = os.pipe()
        pid = os.fork()
        if pid == 0:
            becomes(NOBODY)()
            with socket.socket(socket.AF_UNIX) as connection:
                os.write(write_end, str(connection.connect_ex(SOCKET)).encode())
            os._exit(0)
        os.close(write_end)
        os.waitpid(pid, 0)
        with os.fdopen(read_end) as file:
            return os.strerror(int(file.read()))
    assert knock() == "Permission denied"
    up = installed.log.find(UP)[-1]
    installed.bus().reboot()
    installed.log.wait_for(UP, 20, after=up)
    assert knock() == "Permission denied"
    assert daemon.alive()


@needs_other_users
def test_another_user_finds_no_moment_of_a_start_in_which_he_may_connect(gateway):
    told, tell = os.pipe()
    if os.fork() == 0:
        becomes(NOBODY)()
        tries = 0
        while True:
            with socket.socket(socket.AF_UNIX) as connection:
                if connection.connect_ex(SOCKET) == 0:
                    os.write(tell, b"connected;")
            tries += 1
            if tries == 100:
                os.write(tell, b"tries;")
            time.sleep(0.0002)
    assert os.read(told, 100) == b"tries;"
    gateway.up()
    for _ in range(5):
        up = gateway.log.find(UP)[-1]
        gateway.bus().reboot()
        gateway.log.wait_for(UP, 20, after=up)
    os.set_blocking(told, False)
    with pytest.raises(BlockingIOError):
        os.read(told, 100)


@needs_other_users
def test_the_bus_itself_refuses_another_user_whatever_the_mode_of_its_socket(installed):
    installed.keep_only("config-manager", "logging-service")
    installed.up()
    os.chmod(SOCKET, 0o777)
    for words in CALLS:
        refused = run_as(NOBODY, *words)
        assert refused.status == 1 and "Permission denied" not in str(refused.stderr), str(refused.stderr)
    assert "Failed to register on connection" in ask_for_name(NOBODY, "iot.test.mine")


OTHER_NAMES = ["org.example.mine", "iotx.mine", "com.iot.mine", "iot-gateway.mine"]


def test_who_is_on_the_bus_owns_names_of_the_gateway_and_no_others(gateway):
    gateway.up()
    client = gateway.bus()
    for name in ("iot.test.mine", "iot.gateway.free", "iot.a"):
        assert client.own(name) == dbus.bus.REQUEST_NAME_REPLY_PRIMARY_OWNER
    for name in OTHER_NAMES:
        with pytest.raises(dbus.exceptions.DBusException) as error:
            client.own(name)
        assert error.value.get_dbus_name() == "org.freedesktop.DBus.Error.AccessDenied"
    # What somebody has is not taken from him.
    assert gateway.bus().own("iot.test.mine") == dbus.bus.REQUEST_NAME_REPLY_IN_QUEUE
    assert gateway.bus().own("iot.gateway.quorvaned") == dbus.bus.REQUEST_NAME_REPLY_IN_QUEUE


@needs_other_users
def test_the_bus_of_an_ordinary_users_gateway_is_his_and_roots(gateway):
    os.chmod("/tmp", 0o1777)
    os.makedirs(RUN)
    os.chown(RUN, NOBODY, NOBODY)
    daemon = gateway.up(prepare=becomes(NOBODY))
    assert processes.status_field(daemon.pid, "Uid").split() == [str(NOBODY)] * 4
    for user in (NOBODY, 0):
        assert ask_for_name(user, "iot.test.mine") == "1"
        for name in OTHER_NAMES:
            assert "org.freedesktop.DBus.Error.AccessDenied" in ask_for_name(user, name)
    assert "Permission denied" in ask_for_name(SOMEBODY, "iot.test.mine")


# The pid file, which everybody may read


@needs_other_users
@pytest.mark.takes(20)
def test_a_read_lock_of_another_user_on_the_pid_file_does_not_make_two_daemons(gateway):
    gateway.catalogue(Service("svc", monitor=1))
    first = gateway.up()
    told, tell = os.pipe()
    holder = os.fork()
    if holder == 0:
        try:
            becomes(NOBODY)()
            with open(PID_FILE, "rb") as file:
                os.write(tell, b"waits")
                fcntl.lockf(file, fcntl.LOCK_SH)
                os.write(tell, b"holds")
                clock.until(lambda: False, 1000, "the end")
        finally:
            os._exit(1)
    os.read(told, 5)
    assert processes.lock_owner(PID_FILE) == first.pid
    first.signal(9)
    assert first.wait(10) == -9
    # He waited for it, and has it the moment that it is free.
    assert os.read(told, 5) == b"holds"
    assert processes.lock_owner(PID_FILE) == holder
    second = gateway.up()
    assert processes.lock_owner(PID_FILE) == second.pid
    assert gateway.log.find("check old quorvaned, count:%d old_pid:%d", pid=second.pid)[-1].values == (0, 0)
    third = gateway.up(within=30)
    assert second.wait(15) == 0
    assert processes.running("quorvaned") == [third.pid]
    assert processes.lock_owner(PID_FILE) == third.pid
    assert processes.alive(holder)


# What lies where


def table():
    """The rows of the page's tables: (a pattern of paths, whether it is of directories, the mode, whether it is there
    always)."""
    with open(os.path.join(REPOSITORY, "docs", "security.md"), encoding="utf-8") as file:
        section = file.read().partition("## What lies where")[2].partition("\n## ")[0]
    always, _, at_times = section.partition("At times there is more:")
    rows = [(*line.strip("|").split(" | ")[:2], part is always) for part in (always, at_times)
            for line in part.splitlines() if line.startswith("| `")]
    return [(re.escape(path.rstrip("/")).replace(r"\*", "[^/]+"), path.endswith("/"), int(mode, 8), is_always)
            for cell, mode, is_always in rows for path in re.findall(r"`(/[^`]*)`", cell)]


def places():
    """(path, whether it is a directory, mode) of everything that the gateway has made."""
    for top in (RUN, BUS_DIRECTORY):
        for directory, _, names in os.walk(top):
            for path in [directory, *(os.path.join(directory, name) for name in names)]:
                status = os.lstat(path)
                yield path, stat.S_ISDIR(status.st_mode), stat.S_IMODE(status.st_mode)


def own_place_of_the_web_server(gateway):
    """Let the web server listen where no other one does: tests share the machine's network, but not /tmp, where a path is
    short enough for a socket."""
    path = gateway.path("web/gateway/conf/nginx.conf")
    with open(path, encoding="utf-8") as file:
        text = file.read()
    assert text.count("listen 127.0.0.1:8180;") == 1
    with open(path, "w", encoding="utf-8") as file:
        file.write(text.replace("listen 127.0.0.1:8180;", "listen unix:/tmp/page;"))


@pytest.mark.takes(15)
def test_everything_has_the_mode_that_the_page_tells(installed):
    own_place_of_the_web_server(installed)
    installed.prepare_run_directory()
    assert installed.launch("pk", "dn", "the-secret-itself").wait(30) == 0
    rows = table()
    assert sum(row[3] for row in rows) >= 15
    matched = set()

    def look():
        matched.clear()
        wrong = []
        for path, is_directory, mode in places():
            row = next((row for row in rows if row[1] == is_directory and re.fullmatch(row[0], path)), None)
            matched.add(row)
            # A directory that the table does not have is an ordinary one; a file has to be there.
            if mode != (row[2] if row else 0o755 if is_directory else None):
                wrong.append(f"{mode:04o} {path}")
        return wrong

    def missing():
        return [row[0] for row in rows if row not in matched and row[3]]
    clock.until(lambda: look() == [] and not missing(), 20, lambda: f"wrong: {look()}; not there: {missing()}")


@needs_other_users
def test_another_user_can_read_no_secret_and_write_nothing(installed):
    installed.prepare_run_directory()
    installed.keep_only("config-manager", "logging-service", "RemoteTerminalDaemon")
    installed.up("pk", "dn", "the-secret-itself")
    clock.until(lambda: installed.log.has("set config gw_ha_service_switch=off"), 10, "the identity is written")
    assert "the-secret-itself" in installed.log.bytes().decode()
    read = run_as(NOBODY, "/bin/grep", "-rls", "the-secret-itself", RUN)
    assert str(read.stdout) == ""
    writable = run_as(NOBODY, "/usr/bin/find", RUN, BUS_DIRECTORY, installed.root, "-writable", "-not", "-type", "l",
                      "-print")
    assert str(writable.stdout) == ""


# Where the secret is


def places_with(text, *tops):
    """The files that have the text, and what /proc tells of processes that has it."""
    found = processes.run(["/bin/grep", "-rlasF", "-D", "skip", text, *tops], 20)
    return sorted(str(found.stdout).split()) + [f"/proc/{pid}/{name}" for pid in processes.everybody()
                                                for name in ("cmdline", "environ") if text in processes.proc(pid, name)]


@pytest.mark.takes(12)
def test_the_secret_is_in_the_start_up_log_when_it_was_an_argument_and_in_no_file_when_it_came_by_the_bus(installed):
    installed.prepare_run_directory()
    installed.keep_only("config-manager", "logging-service", "scene")
    assert installed.launch("pk", "dn", "the-first-secret").wait(30) == 0
    client = installed.bus()

    def device():
        return client.call(CONFIGURATION, "get_config", "s", "gw_system_devicename")[1]

    everywhere = (RUN, "/tmp/var", installed.root)
    clock.until(lambda: device() == "dn", 15, "the first identity")
    assert client.call(CONFIGURATION, "get_config", "s", "gw_system_devicesecret")[1] == "the-first-secret"
    assert places_with("the-first-secret", *everywhere) == [RUN + "/startup/quorvaned.log"]
    up = installed.log.find(UP)[-1]
    client.set_triple('{"productkey":"pk","devicename":"other","devicesecret":"the-second-secret"}')
    installed.log.wait_for(UP, 20, after=up)
    client = installed.bus()
    clock.until(lambda: device() == "other", 15, "the second identity")
    assert client.call(CONFIGURATION, "get_config", "s", "gw_system_devicesecret")[1] == "the-second-secret"
    assert places_with("the-second-secret", *everywhere) == []
