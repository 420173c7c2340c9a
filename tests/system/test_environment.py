"""The running environment: directories, pid file, an older instance, the key-chain tool."""

import fcntl
import os
import random
import shutil
import signal
import stat
import time

import pytest
from harness import clock, processes
from harness.facts import Facts
from harness.gateway import KEY_CHAIN_LINE, KEY_CHAIN_LOG, PID_FILE, RUN, STARTUP, UP, Service, term

FREE = "check old quorvaned, count:0 old_pid:0"


def test_an_empty_machine_gets_the_run_directories(gateway):
    daemon = gateway.up()
    for name in ("", "/console", "/logger", "/startup"):
        assert stat.S_IMODE(os.stat(RUN + name).st_mode) == 0o755
    # The lines of the first three are lost: there was no directory for the log yet.
    assert gateway.log.texts()[:2] == ["mkdirs /quorvane/run/startup", FREE]
    assert gateway.log.count("mkdirs %s", pid=daemon.pid) == 1


def test_existing_directories_are_left_as_they_are(gateway):
    for name in ("", "/console", "/logger", "/startup"):
        os.makedirs(RUN + name, exist_ok=True)
        os.chmod(RUN + name, 0o750)
    with open(RUN + "/console/kept", "w", encoding="ascii"):
        pass
    gateway.up()
    assert gateway.log.count("mkdirs %s") == 0
    for name in ("", "/console", "/logger", "/startup"):
        assert stat.S_IMODE(os.stat(RUN + name).st_mode) == 0o750
    assert os.path.exists(RUN + "/console/kept")


def test_a_free_pid_file_is_taken_for_life(gateway):
    daemon = gateway.up()
    with open(PID_FILE, "rb") as file:
        assert file.read() == str(daemon.pid).encode()
    assert processes.lock_owner(PID_FILE) == daemon.pid
    gateway.log.sequence(FREE, KEY_CHAIN_LINE)
    assert gateway.log.count("check old quorvaned, count:%d old_pid:%d") == 1
    assert gateway.log.count("stop old quorvaned, kill -%d %d") == 0


@pytest.mark.parametrize("content", ["{innocent}", "1", "0", "-1", "", "99999999999999999999", "not a number",
                                     "{innocent}\n and more than fifteen bytes"])
def test_a_pid_file_whose_lock_is_free_belongs_to_nobody(gateway, content):
    gateway.link("probe_service", "innocent")
    innocent = processes.spawn([gateway.path("bin/innocent")])
    gateway.started("innocent")
    gateway.prepare_run_directory()
    with open(PID_FILE, "w", encoding="ascii") as file:
        file.write(content.format(innocent=innocent.pid))
    daemon = gateway.up()
    assert gateway.log.find("check old quorvaned, count:%d old_pid:%d")[-1].text == FREE
    assert gateway.signals("innocent") == []
    with open(PID_FILE, "rb") as file:
        assert file.read() == str(daemon.pid).encode()


@pytest.mark.takes(15)
def test_an_old_instance_is_asked_once_and_replaced(gateway):
    gateway.catalogue(Service("svc", monitor=1), Service("fota"), Service("RemoteTerminalDaemon"))
    old = gateway.up()
    spared = [gateway.pid_of("fota"), gateway.pid_of("RemoteTerminalDaemon")]
    svc = gateway.pid_of("svc")
    new = gateway.start()
    assert old.wait(15) == 0
    gateway.log.wait_for(UP, 15, pid=new.pid)
    with Facts() as fact:
        lines = gateway.log.find("check old quorvaned, count:%d old_pid:%d", pid=new.pid)
        fact("the rechecks count up", [line.values[0] for line in lines] == list(range(len(lines))), lines)
        fact("all but the last see the old pid", {line.values[1] for line in lines[:-1]} == {old.pid}, lines)
        fact("the last sees a free lock", lines[-1].values[1] == 0, lines)
        fact("about five seconds pass", 5 <= len(lines) - 1 <= 8, lines)
        fact("the rechecks are a second apart",
             all(second - first >= 0.99 for first, second in zip(lines, lines[1:])), lines)
        asked = gateway.log.find("stop old quorvaned, kill -%d %d")
        fact("the old one is asked once", [line.values for line in asked] == [(10, old.pid)], asked)
        fact("after the first check", [asked[0].index] == [lines[0].index + 1], asked)
        caught = gateway.log.find("caught %s(%d) signal, exit")
        fact("the old one caught it once",
             [(line.pid, line.text) for line in caught]
             == [(old.pid, "caught User defined signal 1(10) signal, exit")], caught)
        fact("the old one's services are gone", not processes.alive(svc))
        fact("the two spared services live on", all(map(processes.alive, spared)))
        fact("one daemon remains", new.alive() and old.status == 0)
        fact("it owns the pid file", processes.lock_owner(PID_FILE) == new.pid)
        fact("it has its own bus", len(processes.running("dbus-daemon")) == 1)
        fact("its pid is in the file", open(PID_FILE, encoding="ascii").read() == str(new.pid))
    assert gateway.status().status == 0


def hold_pid_file(content, ignore=True):
    """A process that holds the lock of the pid file, with that content, and tells of SIGUSR1 by ending."""
    os.makedirs(STARTUP, exist_ok=True)
    ready, tell = os.pipe()
    pid = os.fork()
    if pid == 0:
        try:
            signal.signal(signal.SIGUSR1, signal.SIG_IGN if ignore else signal.SIG_DFL)
            file = os.open(PID_FILE, os.O_RDWR | os.O_CREAT, 0o644)
            fcntl.lockf(file, fcntl.LOCK_EX)
            os.ftruncate(file, 0)
            os.write(file, content(os.getpid()).encode())
            os.write(tell, b"x")
            signal.setitimer(signal.ITIMER_REAL, 0)
            while True:
                signal.pause()
        finally:
            os._exit(0)
    os.close(tell)
    os.read(ready, 1)
    os.close(ready)
    return processes.Process(pid, ["holder"])


@pytest.mark.takes(20)
def test_an_old_instance_that_never_lets_go_costs_ten_rechecks(gateway):
    holder = hold_pid_file(str)
    daemon = gateway.start()
    gateway.log.wait_for(UP, 25)
    gateway.log.sequence(f"check old quorvaned, count:0 old_pid:{holder.pid}",
                         f"stop old quorvaned, kill -10 {holder.pid}",
                         *[f"check old quorvaned, count:{count} old_pid:{holder.pid}" for count in range(1, 11)],
                         KEY_CHAIN_LINE)
    checks = gateway.log.find("check old quorvaned, count:%d old_pid:%d")
    assert len(checks) == 11
    assert checks[-1] - checks[0] >= 10
    assert gateway.log.count("stop old quorvaned, kill -%d %d") == 1
    assert daemon.alive() and holder.alive()
    assert processes.lock_owner(PID_FILE) == holder.pid


@pytest.mark.takes(20)
@pytest.mark.parametrize("content", ["", "not a number", "0", "-5"])
def test_an_owner_that_left_no_pid_is_not_signalled_through_a_wrong_number(gateway, content):
    holder = hold_pid_file(lambda _: content, ignore=False)
    daemon = gateway.start()
    gateway.log.wait_for(UP, 25)
    assert daemon.alive()
    asked = gateway.log.find("stop old quorvaned, kill -%d %d")
    # Whoever is asked can only be the one that holds the lock.
    assert {line.values[1] for line in asked} <= {holder.pid}


@pytest.mark.takes(20)
def test_a_stranger_named_in_a_locked_pid_file_is_not_signalled(gateway):
    gateway.link("probe_service", "innocent")
    innocent = processes.spawn([gateway.path("bin/innocent")])
    gateway.started("innocent")
    hold_pid_file(lambda _: str(innocent.pid), ignore=True)
    gateway.start()
    gateway.log.wait_for(UP, 25)
    assert gateway.signals("innocent") == []


@pytest.mark.takes(20)
def test_a_pid_file_that_cannot_be_opened_costs_ten_seconds_and_signals_nobody(gateway):
    os.makedirs(PID_FILE)
    daemon = gateway.start()
    gateway.log.wait_for(UP, 25)
    checks = gateway.log.find("check old quorvaned, count:%d old_pid:%d")
    assert [line.values for line in checks] == [(count, -1) for count in range(11)]
    assert checks[-1] - checks[0] >= 10
    assert gateway.log.count("stop old quorvaned, kill -%d %d") == 0
    assert daemon.alive()


@pytest.mark.takes(18)
@pytest.mark.parametrize("run", range(10))
def test_two_starts_at_once_leave_one_daemon_and_touch_no_stranger(gateway, run):
    gateway.catalogue(Service("svc", monitor=1))
    gateway.link("probe_service", "innocent")
    innocent = processes.spawn([gateway.path("bin/innocent")])
    gateway.started("innocent")
    first = gateway.start()
    time.sleep(random.Random(run).random() * 0.03 * (run % 3))
    second = gateway.start()
    both = [first, second]
    clock.until(lambda: any(one.status is not None for one in both), 20, "the end of one of the two")
    remaining, = [one for one in both if one.status is None]
    ended, = [one for one in both if one.status is not None]
    assert ended.status == 0
    gateway.log.wait_for(UP, 20, pid=remaining.pid)
    assert processes.lock_owner(PID_FILE) == remaining.pid
    # A service counts as its program once it has become it.
    clock.until(lambda: processes.running("quorvaned") == [remaining.pid] and len(processes.running("svc")) == 1, 5,
                "one daemon with one service")
    assert gateway.signals("innocent") == []
    signalled = [line.values[1] for line in gateway.log.find("stop old quorvaned, kill -%d %d")]
    assert signalled == [ended.pid]
    assert gateway.status().status == 0


def test_the_key_chain_tool_runs_to_its_end_before_anything_else(gateway):
    gateway.script("deploy_sst", "sleep 1.2; pwd; echo to standard error >&2; exit 7")
    gateway.prepare_run_directory()
    with open(KEY_CHAIN_LOG, "w", encoding="ascii") as file:
        file.write("from an earlier run\n")
    gateway.up()
    lines = gateway.log.sequence(FREE, KEY_CHAIN_LINE, "running dbus daemon")
    assert lines[1] - lines[0] >= 1.2
    with open(KEY_CHAIN_LOG, encoding="ascii") as file:
        assert file.read() == f"{gateway.bin}\nto standard error\n"


def test_a_missing_key_chain_tool_is_told_by_the_shell_alone(gateway):
    os.unlink(gateway.path("bin/deploy_sst"))
    gateway.up()
    gateway.log.sequence(KEY_CHAIN_LINE, "running dbus daemon")
    with open(KEY_CHAIN_LOG, encoding="utf-8") as file:
        assert "./deploy_sst" in file.read()


def test_the_key_chain_tool_starts_with_a_clean_state(gateway):
    os.unlink(gateway.path("bin/deploy_sst"))
    gateway.link("probe_service", "deploy_sst")
    gateway.start()
    start = gateway.started("deploy_sst")
    os.kill(start["pid"], signal.SIGTERM)
    gateway.log.wait_for(UP)
    assert int(start["SigBlk"], 16) == 0
    for number in (signal.SIGINT, signal.SIGQUIT, signal.SIGTERM, signal.SIGCHLD):
        assert not int(start["SigIgn"], 16) >> (number - 1) & 1
    assert start["fds"][1:] == [f"1={KEY_CHAIN_LOG}", f"2={KEY_CHAIN_LOG}"]
    assert start["policy"] == 0


@pytest.mark.takes(9)
@pytest.mark.parametrize("number", [signal.SIGTERM, signal.SIGINT, signal.SIGQUIT, signal.SIGUSR1])
def test_a_key_chain_tool_that_hangs_does_not_keep_the_daemon_from_ending(gateway, number):
    gateway.script("deploy_sst", "echo begin; exec sleep 1000")
    gateway.prepare_run_directory()
    daemon = gateway.start()
    clock.until(lambda: os.path.exists(KEY_CHAIN_LOG) and os.path.getsize(KEY_CHAIN_LOG), 10, "the tool's start")
    begin = daemon.signal(number)
    gateway.log.wait_for(f"caught %s({int(number)}) signal, exit", 1, pid=daemon.pid)
    assert daemon.wait(10) == 0
    assert 5.0 <= time.monotonic() - begin <= 5.5 + clock.stretched(4)
    gateway.log.sequence("caught %s(%d) signal, exit", "quorvaned exit (force)")


# Where the installation is

def test_the_installation_lies_above_the_directory_of_the_executable(gateway):
    gateway.catalogue(Service("svc"))
    gateway.link("quorvaned", "../sbin/quorvaned")
    os.makedirs("/tmp/elsewhere/bin")
    os.symlink(gateway.path("sbin/quorvaned"), "/tmp/elsewhere/bin/quorvaned")
    daemon = processes.spawn(["/tmp/elsewhere/bin/quorvaned", "--nofork"], cwd="/")
    gateway.log.wait_for(UP, pid=daemon.pid)
    assert processes.link(daemon.pid, "cwd") == gateway.bin
    assert gateway.started("svc")["exe"] == gateway.path("bin/svc")


@pytest.mark.takes(9)
def test_without_proc_the_installation_is_looked_for_in_its_usual_place_and_nobody_is_found(gateway):
    usual = "/quorvane/gateway/build"
    gateway.catalogue(Service("svc", monitor=1))
    for name in ("bin", "config"):
        shutil.copytree(gateway.path(name), f"{usual}/{name}")

    def without_proc(*args):
        command = " ".join([gateway.program, *args])
        return ["/usr/bin/unshare", "-m", "/bin/sh", "-c", f"mount -t tmpfs none /proc; exec {command}"]

    daemon = processes.spawn(without_proc("--nofork"), cwd="/")
    gateway.log.wait_for(UP, pid=daemon.pid)
    svc = gateway.pid_of("svc")
    clock.until(lambda: processes.link(svc, "exe") == f"{usual}/bin/svc", 5, "the service of the usual place")
    assert processes.link(daemon.pid, "cwd") == f"{usual}/bin"
    assert gateway.status().status == 0
    command = processes.run(without_proc("stop_all"))
    assert (command.status, bytes(command.stdout)) == (0, b"quorvaned: shutdown completed\n")
    gateway.log.exactly(["stop, can't find quorvaned"], pid=command.pid)
    assert daemon.alive() and processes.alive(svc)


# A catalogue that is not there

def test_a_missing_catalogue_prevents_everything_else(gateway):
    os.unlink(gateway.path("config/services.json"))
    gateway.script("deploy_sst", f"touch {gateway.path('key-chain-ran')}")
    daemon = gateway.start()
    assert daemon.wait(10) == 255
    assert os.listdir("/quorvane") == []
    assert not os.path.exists("/tmp/var")
    assert not os.path.exists(gateway.path("key-chain-ran"))


def test_a_missing_catalogue_is_said_where_the_log_can_be_written(gateway):
    os.unlink(gateway.path("config/services.json"))
    gateway.prepare_run_directory()
    daemon = gateway.start()
    assert daemon.wait(10) == 255
    gateway.log.exactly(["quorvaned start, argv[1]:--nofork",
                         "quorvaned start, pid:%d legal_count:0 nofork:true",
                         "initialize the running environment",
                         "can not load service.json",
                         "fail to init service environment"])
    assert sorted(os.listdir(RUN)) == ["startup"]
    assert os.listdir(STARTUP) == ["quorvaned.log"]


# A machine that is in a bad state

@pytest.mark.private({"/quorvane": "16k"})
def test_a_full_disk_does_not_keep_the_gateway_from_coming_up(gateway):
    gateway.catalogue(Service("svc", monitor=1), Service("named", bus="iot.test.named"))
    with open("/quorvane/filler", "wb", buffering=0) as file:
        try:
            while file.write(b"x" * 4096):
                pass
        except OSError:
            pass
    launcher = gateway.launch()
    assert launcher.wait(30) == 0
    assert "quorvaned: running named service\nquorvaned: start up completed\n" in str(launcher.stdout)
    clock.until(lambda: gateway.status().status == 0, 10, "status 0")
    assert len(processes.running("svc")) == 1
    daemon, = processes.running("quorvaned")
    os.unlink("/quorvane/filler")
    # With room again the log goes on.
    os.kill(processes.running("svc")[0], signal.SIGKILL)
    if os.path.isdir(STARTUP):
        gateway.log.wait_for("process_exit, service(svc) is abnormal")
    os.kill(daemon, signal.SIGTERM)
    assert processes.Process(daemon).wait(10) == 0


@pytest.mark.private({"/quorvane": "64k"})
def test_a_disk_that_fills_while_the_gateway_runs_does_no_harm(gateway):
    gateway.catalogue(Service("svc", monitor=1), Service("named", bus="iot.test.named"))
    daemon = gateway.up()
    with open("/quorvane/filler", "wb", buffering=0) as file:
        try:
            while file.write(b"x" * 512):
                pass
        except OSError:
            pass
    os.kill(processes.running("svc")[0], signal.SIGKILL)
    gateway.bus().set_triple("{}")
    clock.until(lambda: "svc is \033[0;31minactive" in gateway.bus().report(), 5, "the death to be seen")
    os.unlink("/quorvane/filler")
    status, seconds = term(daemon)
    assert status == 0
    assert seconds >= 5
    assert gateway.log.has("quorvaned exit (force)")


def remount_read_only(path):
    """Make a private directory read-only."""
    assert processes.run(["/bin/mount", "-o", "remount,ro", path]).status == 0


@pytest.mark.takes(20)
def test_a_read_only_run_directory_does_not_keep_the_gateway_from_coming_up(gateway):
    gateway.catalogue(Service("svc", monitor=1), Service("named", bus="iot.test.named"))
    remount_read_only("/quorvane")
    launcher = gateway.launch()
    assert launcher.wait(40) == 0
    assert "quorvaned: running named service\nquorvaned: start up completed\n" in str(launcher.stdout)
    clock.until(lambda: gateway.status().status == 0, 10, "status 0")
    assert os.listdir("/quorvane") == []


@pytest.mark.takes(25)
def test_a_bus_directory_that_cannot_be_made_is_tried_again_until_it_can(gateway):
    gateway.catalogue(Service("svc"))
    remount_read_only("/tmp")
    gateway.start()
    fail = gateway.log.wait_for("watchdog fail to connect dbus daemon", 25)
    assert gateway.log.count(UP) == 0
    assert processes.run(["/bin/mount", "-o", "remount,rw", "/tmp"]).status == 0
    gateway.log.wait_for(UP, 20, after=fail)


def test_a_run_directory_that_disappears_silences_the_log_only(gateway):
    gateway.catalogue(Service("svc", monitor=1))
    daemon = gateway.up()
    assert processes.run(["/bin/rm", "-rf", "/quorvane/run"]).status == 0
    os.kill(processes.running("svc")[0], signal.SIGKILL)
    clock.until(lambda: "svc is \033[0;31minactive" in gateway.bus().report(), 5, "the death to be seen")
    assert not os.path.exists("/quorvane/run/startup")
    assert gateway.status().status == 0
    assert term(daemon)[0] == 0
