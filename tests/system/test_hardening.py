"""What an attacker finds: how the programs are built, who is let onto the bus, and what a service is given."""

import os
import re
import signal

import pytest
from harness import clock, processes, staging
from harness.bus import ADDRESS
from harness.gateway import RUN, STARTUP, UP, Service

NOBODY = 65534


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
def test_the_daemon_guards_its_stack_and_checks_its_buffers(installed):
    symbols = readelf("--dyn-syms", installed.program)
    assert "__stack_chk_fail@" in symbols
    assert re.search(r"__(memcpy|read|snprintf|vsnprintf|readlink|strncat|memset)_chk@", symbols)


def as_nobody(*words):
    """Run a program as an ordinary user."""
    def become_nobody():
        os.setgroups([])
        os.setgid(NOBODY)
        os.setuid(NOBODY)
    return processes.run(list(words), 10, prepare=become_nobody)


@pytest.mark.skipif(os.geteuid() != 0, reason="to become another user takes root")
def test_another_user_is_not_let_onto_the_bus(installed):
    installed.keep_only("config-manager", "logging-service")
    installed.up()
    calls = [["/usr/bin/busctl", f"--address={ADDRESS}", "list"],
             ["/usr/bin/dbus-send", f"--bus={ADDRESS}", "--print-reply", "--dest=iot.gateway.quorvaned",
              "/iot/gateway/quorvaned", "iot.gateway.quorvaned.get_le_status"],
             ["/usr/bin/dbus-send", f"--bus={ADDRESS}", "--type=signal", "--dest=iot.gateway.watchdog",
              "/iot/gateway/watchdog", "iot.gateway.watchdog.feedDog", "string:a", "string:b", "int32:1"]]
    for words in calls:
        assert processes.run(words, 10).status == 0
        assert as_nobody(*words).status != 0


@pytest.mark.skipif(os.geteuid() != 0, reason="to become another user takes root")
def test_another_user_can_read_no_secret_and_write_nothing(installed):
    installed.prepare_run_directory()
    installed.keep_only("config-manager", "logging-service", "RemoteTerminalDaemon")
    installed.up("pk", "dn", "the-secret-itself")
    clock.until(lambda: installed.log.has("set config gw_ha_service_switch=off"), 10, "the identity is written")
    assert "the-secret-itself" in installed.log.bytes().decode()
    read = as_nobody("/bin/grep", "-rls", "the-secret-itself", RUN)
    assert str(read.stdout) == ""
    writable = as_nobody("/usr/bin/find", RUN, installed.root, "-writable", "-not", "-type", "l", "-print")
    assert str(writable.stdout) == ""


FIELDS = ("Umask", "Threads", "SigBlk", "SigIgn", "sid", "pgid", "ppid", "pdeathsig", "policy", "cwd", "exe", "argv", "fds",
          "ld_library_path")


@pytest.mark.takes(45)
@pytest.mark.limit(120)
def test_a_service_is_given_the_same_after_a_start_a_restart_a_reboot_and_an_upgrade(gateway):
    gateway.catalogue(Service("svc", "word", bus="iot.test.svc", monitor=1))
    environment = {"PATH": "/usr/bin:/bin", "OWN": "value"}
    daemon = gateway.up(env=dict(environment))
    seen, environments = [], []

    def look(count):
        start = gateway.started("svc", 40, count)
        seen.append({field: start[field] for field in FIELDS})
        environments.append(processes.proc(start["pid"], "environ"))
        return start["pid"]

    os.kill(look(1), signal.SIGKILL)
    look(2)
    up = gateway.log.find(UP)[-1]
    gateway.bus().reboot()
    gateway.log.wait_for(UP, 20, after=up)
    look(3)
    gateway.bus().start_upgrade()
    clock.until(lambda: not processes.running("dbus-daemon"), 10, "the teardown")
    up = gateway.log.find(UP)[-1]
    daemon.signal(signal.SIGUSR2)
    gateway.log.wait_for(UP, 20, after=up)
    look(4)
    assert seen[1:] == seen[:1] * 3
    assert environments[1:] == environments[:1] * 3
    assert {word.partition("=")[0] for word in environments[0].split("\0") if word} == set(environment)
    assert [one.split("=")[0] for one in seen[0]["fds"]] == ["0", "1", "2"]
    assert (int(seen[0]["SigBlk"], 16), int(seen[0]["SigIgn"], 16), seen[0]["policy"]) == (0, 0, 0)
    assert os.path.isdir(STARTUP)
