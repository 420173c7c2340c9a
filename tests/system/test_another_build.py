"""Upgrades to another build of the supervisor, whose version tells which one runs."""

import os
import re
import signal
import time

import pytest
from harness import clock, processes, staging
from harness.gateway import PID_FILE, STARTUP, UP, Service

FINISH = "finsh upgrade quorvane!"
LOG_LIMIT = 262144
LONGEST_LINE = 4096

# These two go on over an upgrade; the one that is started after it finds that there is one already.
ONLY_ONE = "exec 9>>" + STARTUP + "/${0##*/}.lock; flock -n 9 || exit 0; exec sleep infinity"
SPARED = ("fota", "RemoteTerminalDaemon")
CATALOGUE = [Service("svc", monitor=1), *[Service(name, program=ONLY_ONE) for name in SPARED],
             Service("named", bus="iot.test.named", monitor=1)]


def version_of(path):
    """What readelf shows of a program, which may be that of a running process."""
    shown = processes.run(["/usr/bin/readelf", "--notes", path])
    assert shown.status == 0, str(shown.stderr)
    return re.search(r'Packaging Metadata: {.*"name":"quorvaned","version":"([^"]*)"}', str(shown.stdout)).group(1)


def install(gateway, staged):
    """Put a build in the place of the installed one, in one step."""
    fresh = os.path.join(gateway.bin, "quorvaned.new")
    os.link(os.path.join(gateway.stage, staged), fresh)
    os.rename(fresh, gateway.program)


def begin_upgrade(gateway):
    """Ask for an upgrade and wait until the stack is down."""
    assert gateway.bus().start_upgrade() is None
    clock.until(lambda: not processes.running("dbus-daemon"), 15, "the end of the stack")


def finish_upgrade(gateway, daemon):
    """Let the installed build take over, and wait until it is up."""
    daemon.signal(signal.SIGUSR2)
    clock.until(lambda: os.path.samefile(f"/proc/{daemon.pid}/exe", gateway.program), 5, "the new image")
    # The log restarts at its limit: what stands before the image's first line may be gone.
    clock.until(lambda: UP in gateway.log.bytes().decode().rpartition(FINISH)[2], 20, "the new image is up")


def state_of(daemon):
    """What an upgrade must not let grow."""
    descriptors = [processes.link(daemon.pid, f"fd/{number}") for number in os.listdir(f"/proc/{daemon.pid}/fd")]
    return {"descriptors": sorted(re.sub(r"\d+", "N", target) for target in descriptors),
            "threads": processes.status_field(daemon.pid, "Threads"),
            "children": sorted("".join(processes.arguments(pid)[:1]) for pid in daemon.services()),
            "lock": processes.lock_owner(PID_FILE)}


def settled_state(daemon):
    """The same once what ends by itself has ended, and nothing is open for a moment only."""
    clock.until(lambda: len(daemon.services()) == len(CATALOGUE) + 1, 10, processes.tree)

    def look():
        state = state_of(daemon)
        deadline = time.monotonic() + 0.5
        while state_of(daemon) == state and time.monotonic() < deadline:
            time.sleep(0.02)
        return state if time.monotonic() >= deadline else None

    return clock.until(look, 20, lambda: str(state_of(daemon)))


def memory_of(daemon):
    """Its resident memory, in KiB."""
    return int(processes.status_field(daemon.pid, "VmRSS").split()[0])


@pytest.mark.takes(12)
def test_an_upgrade_brings_the_other_build_into_the_same_process(gateway):
    gateway.catalogue(*CATALOGUE)
    daemon = gateway.up()
    old_version, new_version = (version_of(os.path.join(gateway.stage, name)) for name in ("quorvaned", "quorvaned_next"))
    assert old_version != new_version
    exe = f"/proc/{daemon.pid}/exe"
    spared = {name: gateway.pid_of(name) for name in SPARED}
    old = {name: gateway.pid_of(name) for name in ("svc", "named", "dbus-daemon")}
    assert version_of(exe) == old_version
    begin_upgrade(gateway)
    install(gateway, "quorvaned_next")
    assert version_of(exe) == old_version
    finish_upgrade(gateway, daemon)
    assert version_of(exe) == new_version
    assert processes.arguments(daemon.pid) == [gateway.program, "--nofork"]
    assert processes.lock_owner(PID_FILE) == daemon.pid
    assert all(processes.alive(pid) for pid in spared.values())
    assert not any(processes.alive(pid) for pid in old.values())
    children = settled_state(daemon)["children"]
    assert children == sorted(["dbus-daemon", "named", "svc", "sleep", "sleep"])
    assert [processes.alive(pid) for pid in spared.values()] == [True, True]
    assert gateway.status().status == 0


@pytest.mark.takes(6)
def test_sigusr2_alone_brings_the_other_build_and_touches_no_service(gateway):
    gateway.catalogue(*CATALOGUE)
    daemon = gateway.up()
    old = {name: gateway.pid_of(name) for name in ("svc", "named", "dbus-daemon", *SPARED)}
    install(gateway, "quorvaned_next")
    finish_upgrade(gateway, daemon)
    assert version_of(f"/proc/{daemon.pid}/exe") == version_of(os.path.join(gateway.stage, "quorvaned_next"))
    assert all(processes.alive(pid) for pid in old.values())
    assert gateway.signals("svc", old["svc"]) == gateway.signals("named", old["named"]) == []
    assert not gateway.log.has("kill -%d %s(%d)")


@pytest.mark.takes(120)
@pytest.mark.limit(600)
def test_two_hundred_upgrades_in_a_row_lose_nothing(gateway):
    gateway.catalogue(*CATALOGUE)
    daemon = gateway.up()
    spared = {name: gateway.pid_of(name) for name in SPARED}
    first = None
    least_memory = most_memory = 0
    for number in range(200):
        begin_upgrade(gateway)
        install(gateway, ("quorvaned_next", "quorvaned")[number % 2])
        finish_upgrade(gateway, daemon)
        assert all(processes.alive(pid) for pid in spared.values())
        first = first or settled_state(daemon)
        clock.until(lambda: state_of(daemon) == first, 10, lambda: f"{state_of(daemon)} instead of {first}")
        memory = memory_of(daemon)
        least_memory, most_memory = min(least_memory or memory, memory), max(most_memory, memory)
        # Every line is whole, whenever one looks.
        assert all(event.well_formed for event in gateway.log.events())
        assert len(gateway.log.bytes()) <= LOG_LIMIT + LONGEST_LINE
    # Each image begins with fresh memory; what it needs is the same to within what the kernel counts in batches, and what
    # a sanitizer keeps beside it.
    assert most_memory - least_memory < (16 * 1024 if staging.is_sanitized() else 1024)
    assert first["lock"] == daemon.pid
    assert gateway.status().status == 0


CUT = "a file of which only the beginning was written"


@pytest.mark.takes(10)
@pytest.mark.parametrize("what", ["nothing", "an empty file", CUT, "a directory", "not executable"])
@pytest.mark.parametrize("announced", [True, False], ids=["announced", "alone"])
def test_what_cannot_be_run_ends_the_daemon_and_spares_two_services(gateway, what, announced):
    gateway.catalogue(*CATALOGUE)
    daemon = gateway.up()
    spared = sorted(gateway.pid_of(name) for name in SPARED)
    if announced:
        begin_upgrade(gateway)
    os.unlink(gateway.program)
    if what == "a directory":
        os.mkdir(gateway.program)
    elif what != "nothing":
        with open(os.path.join(gateway.stage, "quorvaned"), "rb") as source, open(gateway.program, "wb") as target:
            content = source.read()
            target.write({CUT: content[:65536], "not executable": content}.get(what, b""))
        os.chmod(gateway.program, 0o644 if what == "not executable" else 0o755)
    daemon.signal(signal.SIGUSR2)
    status = daemon.wait(5)
    # A part of a program may get as far as being started: it is then the kernel that ends it.
    assert status == 0 or (what == CUT and status in (-signal.SIGSEGV, -signal.SIGBUS, -signal.SIGKILL))
    assert gateway.log.events()[-1].text == FINISH
    clock.until(lambda: sorted(processes.everybody()) == spared, 2, processes.tree)
