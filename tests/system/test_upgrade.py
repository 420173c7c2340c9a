"""SIGUSR2 and the self-upgrade: a new image in the same process."""

import os
import shutil
import signal
import time

import pytest
from harness import bus, clock, processes
from harness.gateway import PID_FILE, UP, Service, term

FINISH = "finsh upgrade quorvane!"
NEW_IMAGE = "quorvaned start, argv[1]:--nofork"
CAUGHT = "caught User defined signal 2(12) signal, exit"


def upgrade(gateway, daemon, within=20):
    """Send SIGUSR2 and wait until the new image is up; give its last line."""
    before = gateway.log.events()[-1]
    daemon.signal(signal.SIGUSR2)
    return gateway.log.wait_for(UP, within, pid=daemon.pid, after=before)


@pytest.mark.takes(10)
def test_sigusr2_alone_replaces_the_image_and_leaves_the_services_alone(gateway):
    gateway.catalogue(Service("one", monitor=1), Service("named", bus="iot.test.named", monitor=1), Service("fota"),
                      Service("RemoteTerminalDaemon"))
    daemon = gateway.up("pk", "dn", "secret")
    names = ("one", "named", "fota", "RemoteTerminalDaemon")
    old = {name: gateway.pid_of(name) for name in names}
    up = gateway.log.find(UP)[0]
    upgrade(gateway, daemon)
    lines = gateway.log.sequence(CAUGHT, FINISH, NEW_IMAGE, f"quorvaned start, pid:{daemon.pid} legal_count:0 nofork:true",
                                 "initialize the running environment", "check old quorvaned, count:0 old_pid:0",
                                 "running dbus daemon", "running one service", UP, after=up)
    assert {line.pid for line in lines} == {daemon.pid}
    assert processes.arguments(daemon.pid) == [gateway.program, "--nofork"]
    assert all(processes.alive(pid) for pid in old.values())
    assert [gateway.signals(name, old[name]) for name in names] == [[]] * 4
    for name in names:
        start = gateway.started(name, count=2)
        assert int(start["SigBlk"], 16) == 0
        assert start["pid"] != old[name]
        assert start["ppid"] == daemon.pid
    assert not gateway.log.has("kill -%d %s(%d)")


@pytest.mark.takes(45)
def test_after_sigusr2_alone_status_and_keepalives_work(gateway):
    gateway.catalogue(Service("svc", "--feed=key:4:0", bus="iot.test.svc", monitor=1), Service("other", monitor=1))
    daemon = gateway.up()
    upgrade(gateway, daemon)
    assert gateway.status().status == 0
    client = gateway.bus()
    assert client.pid_of("iot.gateway.watchdog") == daemon.pid
    assert client.pid_of("iot.gateway.quorvaned") == daemon.pid
    svc = gateway.pid_of("svc")
    assert client.pid_of("iot.test.svc") == svc
    # Its single keep-alive runs out, and the new image sees it.
    gateway.log.wait_for("threadProc, service(svc) status(0) is abnormal", 40)
    gateway.log.wait_for(f"kill -15 svc({svc})", 2)
    assert gateway.status().status == 0


@pytest.mark.takes(20)
def test_a_socket_of_an_older_bus_daemon_does_not_mislead_the_new_image(gateway):
    gateway.catalogue(Service("svc", bus="iot.test.svc", monitor=1))
    daemon = gateway.up()
    old = gateway.pid_of("dbus-daemon")
    upgrade(gateway, daemon)
    new = gateway.pid_of("dbus-daemon")
    assert new != old
    client = gateway.bus()
    assert client.pid_of("iot.gateway.watchdog") == daemon.pid
    assert client.owner("iot.test.svc")
    # The late end of the old one takes nothing with it, or what it takes comes back.
    up = gateway.log.find(UP)[-1]
    if processes.alive(old):
        os.kill(old, signal.SIGTERM)
        processes.wait_gone([old], 5)
    if not os.path.exists(bus.SOCKET):
        os.kill(new, signal.SIGTERM)
        gateway.log.wait_for(UP, 15, after=up)
    clock.until(lambda: gateway.status().status == 0, 10, "status 0")


@pytest.mark.takes(12)
def test_the_file_that_lies_in_bin_is_what_runs_next(gateway):
    daemon = gateway.up()
    inode = os.stat(f"/proc/{daemon.pid}/exe").st_ino
    shutil.copy2(gateway.program, gateway.program + ".new")
    os.rename(gateway.program + ".new", gateway.program)
    upgrade(gateway, daemon)
    assert os.stat(f"/proc/{daemon.pid}/exe").st_ino == os.stat(gateway.program).st_ino != inode
    assert processes.lock_owner(PID_FILE) == daemon.pid
    assert term(daemon)[0] == 0


def test_a_missing_new_program_ends_the_daemon_with_status_0(gateway):
    gateway.catalogue(Service("svc"))
    daemon = gateway.up()
    up = gateway.log.find(UP)[0]
    os.unlink(gateway.program)
    status, seconds = term(daemon, signal.SIGUSR2)
    assert status == 0
    assert seconds < clock.stretched(1)
    gateway.log.exactly([CAUGHT, FINISH], after=up)


def test_a_new_program_that_cannot_run_ends_the_daemon_with_status_0(gateway):
    daemon = gateway.up()
    os.unlink(gateway.program)
    with open(gateway.program, "wb") as file:
        file.write(b"\x7fELF nothing")
    os.chmod(gateway.program, 0o755)
    status, _ = term(daemon, signal.SIGUSR2)
    assert status == 0
    assert gateway.log.texts()[-1] == FINISH


@pytest.mark.takes(20)
def test_ten_upgrades_in_a_row_all_take_effect(gateway):
    gateway.catalogue(Service("svc", monitor=1))
    daemon = gateway.up()
    for number in range(10):
        before = gateway.log.events()[-1]
        daemon.signal(signal.SIGUSR2)
        gateway.log.wait_for(FINISH, 10, after=before)
        if number % 2:
            gateway.log.wait_for("initialize the running environment", 10, after=before)
        else:
            gateway.log.wait_for(UP, 15, after=before)
    gateway.log.wait_for(UP, 15, after=gateway.log.find(FINISH)[-1])
    assert gateway.log.count(FINISH) == 10
    assert gateway.log.count(NEW_IMAGE) >= 10
    assert int(gateway.events("svc", "start")[-1]["SigBlk"], 16) == 0
    assert gateway.status().status == 0
    assert processes.lock_owner(PID_FILE) == daemon.pid


@pytest.mark.takes(10)
@pytest.mark.parametrize("pause", [0, 0.001, 0.003, 0.006, 0.01, 0.03])
def test_two_sigusr2_within_milliseconds_are_no_trouble(gateway, pause):
    gateway.catalogue(Service("svc", monitor=1))
    daemon = gateway.up()
    up = gateway.log.find(UP)[0]
    daemon.signal(signal.SIGUSR2)
    deadline = time.monotonic() + pause
    while time.monotonic() < deadline:
        pass
    daemon.signal(signal.SIGUSR2)
    gateway.log.wait_for(UP, 20, after=up)
    # A second image may follow the first at any moment; wait until the last one is up.
    clock.until(lambda: gateway.log.texts()[-1] != FINISH and gateway.log.find(UP)[-1].index
                > gateway.log.find(FINISH)[-1].index and gateway.status().status == 0, 20, "the last image")
    assert daemon.alive()
    assert 1 <= gateway.log.count(FINISH) <= 2
    assert int(gateway.events("svc", "start")[-1]["SigBlk"], 16) == 0
    # Nothing is left blocked: a third one takes effect as well.
    upgrade(gateway, daemon)


@pytest.mark.takes(10)
@pytest.mark.parametrize("pause", [0, 0.001, 0.003, 0.005, 0.01, 0.02, 0.05, 0.3])
def test_sigusr2_and_then_sigterm_end_with_status_0(gateway, pause):
    gateway.catalogue(Service("svc"))
    daemon = gateway.up()
    daemon.signal(signal.SIGUSR2)
    deadline = time.monotonic() + pause
    while time.monotonic() < deadline:
        pass
    daemon.signal(signal.SIGTERM)
    assert daemon.wait(20) == 0
    clock.until(lambda: not processes.everybody(), 2, "an empty machine")


@pytest.mark.takes(10)
@pytest.mark.parametrize("launched", [False, True], ids=["nofork", "launched"])
@pytest.mark.parametrize("moment", ["key-chain", "services"])
def test_sigusr2_during_the_start_begins_it_anew(gateway, moment, launched):
    once = "[ -e ../begun ] || { : >../begun; exec sleep 1000; }"
    gateway.catalogue(Service("slow", delay=2 if moment == "services" else 0), Service("last", monitor=1))
    gateway.script("deploy_sst", once if moment == "key-chain" else ": >../begun")
    if launched:
        launcher = gateway.launch()
        daemon = gateway.daemon_of(launcher)
    else:
        daemon = gateway.start()
    clock.until(lambda: os.path.exists(gateway.path("begun")), 10, "the key-chain tool")
    if moment == "services":
        gateway.log.wait_for("run slow pid %d")
    upgrade(gateway, daemon)
    lines = gateway.log.sequence(CAUGHT, FINISH, NEW_IMAGE, "running dbus daemon", "running last service", UP)
    assert gateway.log.count("running last service") == 1
    assert {line.pid for line in lines} == {daemon.pid}
    assert processes.arguments(daemon.pid) == [gateway.program, "--nofork"]
    assert processes.lock_owner(PID_FILE) == daemon.pid
    assert gateway.status().status == 0
    if launched:
        assert launcher.wait(10) == 0
        assert str(launcher.stdout).endswith("quorvaned: start up completed\n")


@pytest.mark.takes(12)
def test_sigusr2_during_the_end_still_replaces_the_image(gateway):
    gateway.catalogue(Service("svc", monitor=1))
    daemon = gateway.up()
    up = gateway.log.find(UP)[0]
    daemon.signal(signal.SIGTERM)
    gateway.log.wait_for("caught Terminated(15) signal, exit")
    time.sleep(1)  # well into the five seconds
    daemon.signal(signal.SIGUSR2)
    gateway.log.wait_for(UP, 15, after=up)
    gateway.log.sequence("caught Terminated(15) signal, exit", CAUGHT, FINISH, NEW_IMAGE, UP, after=up)
    assert not gateway.log.has("quorvaned exit (force)")
    assert gateway.status().status == 0
    clock.stays(daemon.alive, 5, "the first end is forgotten")


def test_the_pid_file_stays_locked_over_the_replacement(gateway):
    gateway.catalogue(Service("svc"))
    daemon = gateway.up()
    up = gateway.log.find(UP)[0]
    daemon.signal(signal.SIGUSR2)
    owners = set()
    deadline = time.monotonic() + 20
    while not gateway.log.has(UP, after=up) and time.monotonic() < deadline:
        for _ in range(500):
            owners.add(processes.lock_owner(PID_FILE))
    gateway.log.wait_for(UP, 1, after=up)
    assert owners == {daemon.pid}
    with open(PID_FILE, encoding="ascii") as file:
        assert file.read() == str(daemon.pid)


@pytest.mark.takes(12)
def test_an_upgrade_tears_down_but_spares_two_services_and_the_process(gateway):
    gateway.catalogue(Service("one", monitor=1), Service("fota"), Service("RemoteTerminalDaemon"),
                      Service("two", bus="iot.test.two"))
    daemon = gateway.up()
    up = gateway.log.find(UP)[0]
    names = ("one", "fota", "RemoteTerminalDaemon", "two", "dbus-daemon")
    old = {name: gateway.pid_of(name) for name in names}
    assert gateway.bus().start_upgrade() is None
    gateway.log.wait_for("stop dbus-daemon, kill -15 %d", 10)
    processes.wait_gone([old["one"], old["two"], old["dbus-daemon"]], 5)
    texts = [text for text in gateway.log.texts(after=up) if not text.startswith(("wait pid", "process_exit"))]
    assert texts == ["start upgrade quorvane......", "stop monitor service", "stop business service",
                     f"kill -15 two({old['two']})", f"kill -15 one({old['one']})", "close quorvaned dbus channel",
                     "close watchdog dbus channel", "stop dbus daemon", f"stop dbus-daemon, kill -15 {old['dbus-daemon']}"]
    clock.stays(daemon.alive, 4.5, "the process stays")
    assert sorted(processes.everybody()) == sorted([daemon.pid, old["fota"], old["RemoteTerminalDaemon"]])
    assert not gateway.log.has("running dbus daemon", after=up)
    upgrade(gateway, daemon)
    for name in ("quorvaned", "one", "two", "dbus-daemon"):
        assert len(processes.running(name)) == 1, name
    assert processes.alive(old["fota"]) and processes.alive(old["RemoteTerminalDaemon"])
    assert gateway.status().status == 0
    assert gateway.log.find("quorvaned start, pid:%d legal_count:0 nofork:true")[-1].values == (daemon.pid,)


@pytest.mark.takes(8)
@pytest.mark.parametrize("number", [signal.SIGTERM, signal.SIGUSR1, signal.SIGINT])
@pytest.mark.parametrize("torn_down", [True, False], ids=["torn-down", "at-once"])
def test_a_terminating_signal_after_an_upgrade_request_ends_at_once(gateway, number, torn_down):
    gateway.catalogue(Service("svc"), Service("fota"), Service("RemoteTerminalDaemon"))
    daemon = gateway.up()
    gateway.bus().start_upgrade()
    if torn_down:
        gateway.log.wait_for("stop dbus-daemon, kill -15 %d")
        processes.wait_gone([gateway.pid_of("svc"), gateway.pid_of("dbus-daemon")], 5)
    status, seconds = term(daemon, number)
    assert status == 0
    assert seconds < clock.stretched(1)
    told, = gateway.log.find("caught %s(%d) signal, exit")
    assert not gateway.log.has("quorvaned exit (force)")
    if torn_down:
        assert [text for text in gateway.log.texts(after=told)] == []
    assert processes.alive(gateway.pid_of("fota")) and processes.alive(gateway.pid_of("RemoteTerminalDaemon"))


@pytest.mark.takes(10)
def test_a_reboot_during_the_teardown_of_an_upgrade_spares_the_remote_debug_service(gateway):
    gateway.catalogue(*[Service(f"svc{number}") for number in range(10)], Service("RemoteTerminalDaemon"))
    daemon = gateway.up()
    client = gateway.bus()
    pid = gateway.pid_of("RemoteTerminalDaemon")
    # Both are on their way before the first is answered.
    for member in ("start_upgrade", "reboot", "reboot"):
        message = bus.dbus.lowlevel.MethodCallMessage(*bus.DAEMON, member)
        client.connection.send_message(message)
    client.connection.flush()
    gateway.log.wait_for("stop dbus-daemon, kill -15 %d", 10)
    clock.stays(lambda: processes.alive(pid), 2.5, "the remote-debug service lives")
    assert not gateway.log.has("kill -15 RemoteTerminalDaemon(%d)")
    assert gateway.log.count("running dbus daemon") == 1
    assert daemon.alive()


@pytest.mark.takes(8)
def test_nothing_is_restarted_while_an_upgrade_is_awaited(gateway):
    gateway.catalogue(Service("svc", monitor=1), Service("RemoteTerminalDaemon", monitor=1))
    daemon = gateway.up()
    gateway.bus().start_upgrade()
    gateway.log.wait_for("stop dbus-daemon, kill -15 %d", 10)
    pid = gateway.pid_of("RemoteTerminalDaemon")
    os.kill(pid, signal.SIGKILL)
    # The main thread goes on collecting the dead.
    gateway.log.wait_for(f"wait pid({pid}) status(9)")
    assert gateway.status().status == 100
    assert term(daemon)[0] == 0
