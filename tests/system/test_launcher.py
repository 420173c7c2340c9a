"""The launcher and the detached daemon."""

import os
import shutil
import signal
import stat

import pytest
from harness import clock, processes
from harness.gateway import PID_FILE, STARTUP, UP, Service


def test_the_relayed_progress_is_byte_exact(gateway):
    gateway.catalogue(Service("svc"), Service("lib/deep", bus="iot.test.deep"), Service("gone", program=None),
                      Service("waits", delay=0.3))
    launcher = gateway.launch()
    assert launcher.wait(20) == 0
    launcher.stdout.wait_closed(2)
    assert bytes(launcher.stdout) == (b"quorvaned: initialize the running environment\n"
                                      b"quorvaned: running dbus daemon\n"
                                      b"quorvaned: running svc service\n"
                                      b"quorvaned: running lib/deep service\n"
                                      b"quorvaned: running gone service\n"
                                      b"quorvaned: running waits service\n"
                                      b"quorvaned: start up completed\n")
    assert bytes(launcher.stderr) == b""
    gateway.log.wait_for(UP)


def test_the_launcher_relays_each_line_as_it_comes_and_ends_with_the_start_up(gateway):
    gateway.catalogue(Service("first", delay=1.5), Service("second", delay=1.5))
    launcher = gateway.launch()
    first = launcher.stdout.wait_for("quorvaned: running first service\n", 10)
    second = launcher.stdout.wait_for("quorvaned: running second service\n", 10)
    assert launcher.wait(10) == 0
    done = launcher.stdout.wait_for("quorvaned: start up completed\n", 1)
    assert second - first >= 1.4
    assert done - second >= 1.4
    # The text on the terminal and the line in the log are written by one call.
    lines = gateway.log.sequence("running first service", "running second service", "begin to monitor business service")
    assert lines[1] - lines[0] >= 1.5


def test_the_output_is_released_when_the_launcher_ends(gateway):
    launcher = gateway.launch()
    launcher.wait(10)
    launcher.stdout.wait_closed(1)
    launcher.stderr.wait_closed(1)
    assert processes.alive(processes.lock_owner(PID_FILE))


def test_a_whole_start_is_logged_line_by_line(gateway):
    gateway.catalogue(Service("svc"), Service("named", bus="iot.test.named"))
    gateway.prepare_run_directory()
    launcher = gateway.launch()
    launcher.wait(10)
    gateway.log.wait_for(UP)
    daemon = processes.lock_owner(PID_FILE)
    lines = gateway.log.exactly([
        f"quorvaned start, pid:{launcher.pid} legal_count:0 nofork:false",
        "initialize the running environment",
        f"quorvaned pid:{daemon}, ppid:{launcher.pid}",
        "mkdirs /quorvane/run/console",
        "mkdirs /quorvane/run/logger",
        "check old quorvaned, count:0 old_pid:0",
        "init key-chain, cmd:./deploy_sst >/quorvane/run/startup/deploy_sst.log 2>&1",
        "running dbus daemon",
        "run dbus-daemon pid %d",
        "success to startup dbus daemon",
        "watchdog success to connect dbus daemon",
        "quorvaned success to connect dbus daemon",
        "running svc service",
        "run svc pid %d",
        "running named service",
        "run named pid %d",
        "success to startup business service",
        "begin to monitor business service",
        "quorvaned startup success",
    ])
    assert {line.pid for line in lines[1:]} == {daemon}


def test_the_daemon_is_detached(gateway):
    gateway.catalogue(Service("svc"))
    with open("/tmp/input", "w", encoding="ascii"):
        pass
    launcher = gateway.launch(stdin="/tmp/input", umask=0o027, cwd="/var")
    launcher.wait(10)
    daemon = processes.lock_owner(PID_FILE)
    assert os.getsid(daemon) == daemon
    assert os.getpgid(daemon) == daemon
    assert processes.status_field(daemon, "Umask") == "0000"
    assert processes.link(daemon, "cwd") == gateway.bin
    assert processes.link(daemon, "fd/0") == "/tmp/input"
    assert processes.link(daemon, "fd/1") == "/dev/null"
    assert processes.link(daemon, "fd/2") == "/dev/null"


def test_with_nofork_the_daemon_keeps_its_terminal_and_session(gateway):
    daemon = gateway.start(umask=0o027, output=gateway.path("terminal"))
    gateway.log.wait_for(UP)
    assert os.getsid(daemon.pid) == os.getsid(0)
    assert processes.link(daemon.pid, "fd/1") == gateway.path("terminal")
    assert processes.link(daemon.pid, "fd/2") == gateway.path("terminal")
    assert processes.link(daemon.pid, "cwd") == gateway.bin
    assert processes.status_field(daemon.pid, "Umask") == "0027"


def test_with_nofork_no_progress_is_printed(gateway):
    gateway.catalogue(Service("svc"))
    daemon = gateway.up(output=True)
    daemon.signal(signal.SIGTERM)
    daemon.wait(10)
    assert bytes(daemon.stdout) == b""
    assert bytes(daemon.stderr) == b""


@pytest.mark.takes(40)
def test_after_30_seconds_of_silence_the_launcher_ends_and_the_start_goes_on(gateway):
    gateway.catalogue(Service("quick"), Service("slow", delay=34), Service("last"))
    launcher = gateway.launch()
    silent = launcher.stdout.wait_for("quorvaned: running slow service\n", 10)
    assert launcher.wait(35) == 0
    completed = launcher.stdout.wait_for("quorvaned: start up completed\n", 1)
    assert 29.9 <= completed - silent <= 30 + clock.stretched(2)
    assert "running last" not in str(launcher.stdout)
    # The next progress line finds nobody who reads it: that must not end the daemon.
    daemon = processes.lock_owner(PID_FILE)
    gateway.log.wait_for("running last service", 15)
    gateway.log.wait_for(UP, 10)
    assert processes.alive(daemon)


@pytest.mark.takes(6)
@pytest.mark.parametrize("number", [signal.SIGKILL, signal.SIGINT, signal.SIGHUP])
def test_a_launcher_that_is_killed_leaves_the_start_alone(gateway, number):
    gateway.catalogue(Service("slow", delay=5), Service("last"))
    launcher = gateway.launch()
    daemon = gateway.daemon_of(launcher)
    launcher.stdout.wait_for("running slow service", 10)
    launcher.signal(number)
    assert launcher.wait() == -number
    gateway.log.wait_for(UP)
    assert daemon.alive()


def test_a_launcher_that_is_stopped_does_not_hold_up_the_start(gateway):
    # More than its pipe holds.
    long_names = [Service("x" * 800 + str(number), program=None) for number in range(120)]
    gateway.catalogue(Service("slow", delay=1), *long_names, Service("last"))
    launcher = gateway.launch()
    launcher.stdout.wait_for("running slow service", 10)
    launcher.signal(signal.SIGSTOP)
    gateway.log.wait_for(UP, 20)
    launcher.signal(signal.SIGCONT)
    assert launcher.wait(10) == 0
    assert str(launcher.stdout).endswith("quorvaned: start up completed\n")


def test_a_launcher_that_inherits_more_than_a_thousand_descriptors_relays_all_the_same(gateway):
    import resource

    def open_many():
        most = resource.getrlimit(resource.RLIMIT_NOFILE)[1]
        resource.setrlimit(resource.RLIMIT_NOFILE, (min(most, 4096), most))
        for number in range(3, 1200):
            os.dup2(0, number)

    gateway.catalogue(Service("svc"))
    launcher = gateway.launch(prepare=open_many)
    assert launcher.wait(10) == 0
    assert "quorvaned: running svc service\nquorvaned: start up completed\n" in str(launcher.stdout)
    assert [one.split("=")[0] for one in gateway.started("svc")["fds"]] == ["0", "1", "2"]


def no_pipe():
    """One more descriptor for the log, and none for a pipe."""
    import resource
    resource.setrlimit(resource.RLIMIT_NOFILE, (4, 4))


def no_process():
    """A user who runs nothing else and may run nothing else."""
    import resource
    os.setgroups([])
    os.setgid(61234)
    os.setuid(61234)
    resource.setrlimit(resource.RLIMIT_NPROC, (1, 1))


@pytest.mark.parametrize("prepare", [no_pipe, no_process])
def test_a_launcher_that_gets_no_pipe_or_no_process_ends_with_255_before_anything_runs(gateway, prepare):
    # In a place that every user can reach.
    program = "/tmp/installed/bin/quorvaned"
    os.makedirs(os.path.dirname(program))
    shutil.copy2(gateway.program, program)
    gateway.prepare_run_directory()
    os.chmod(STARTUP, 0o777)
    launcher = processes.run([program], prepare=prepare)
    assert (launcher.status, bytes(launcher.stdout), bytes(launcher.stderr)) == (255, b"", b"")
    gateway.log.exactly([f"quorvaned start, pid:{launcher.pid} legal_count:0 nofork:false"])
    assert processes.everybody() == []


def test_the_launcher_says_completed_and_ends_with_0_when_the_start_fails(gateway):
    gateway.raw_catalogue("{}")
    gateway.prepare_run_directory()
    launcher = gateway.launch()
    assert launcher.wait(10) == 0
    assert bytes(launcher.stdout) == (b"quorvaned: initialize the running environment\n"
                                      b"quorvaned: start up completed\n")
    gateway.log.wait_for("fail to init service environment")
    clock.until(lambda: not processes.everybody(), 5, "the end of the daemon")


def test_a_background_process_of_the_key_chain_tool_does_not_hold_the_launcher(gateway):
    gateway.script("deploy_sst", "sleep 1000 &")
    launcher = gateway.launch()
    assert launcher.wait(10) == 0
    launcher.stdout.wait_closed(1)
    launcher.stderr.wait_closed(1)


def test_closed_standard_streams_do_no_harm(gateway):
    gateway.catalogue(Service("svc", monitor=1), Service("named", bus="iot.test.named"))
    launcher = gateway.launch(stdin=None, output=None)
    assert launcher.wait(10) == 0
    gateway.log.wait_for(UP)
    daemon = processes.lock_owner(PID_FILE)
    for number in (0, 1, 2):
        assert processes.link(daemon, f"fd/{number}") == "/dev/null"
    start = gateway.started("svc")
    assert [one.split("=")[0] for one in start["fds"]] == ["0", "1", "2"]
    assert gateway.status().status == 0


def test_closed_standard_streams_do_no_harm_with_nofork(gateway):
    gateway.catalogue(Service("named", bus="iot.test.named", monitor=1))
    daemon = gateway.up(stdin=None, output=None)
    assert [processes.link(daemon.pid, f"fd/{number}") for number in (0, 1, 2)] == ["/dev/null"] * 3
    assert gateway.status().status == 0


def test_ignored_and_blocked_signals_of_the_starter_are_not_kept(gateway):
    gateway.catalogue(Service("dies", "--exit-after=300", "--exit-status=3"), Service("svc"))

    def prepare():
        signal.signal(signal.SIGCHLD, signal.SIG_IGN)
        for number in (signal.SIGTERM, signal.SIGINT, signal.SIGUSR1, signal.SIGUSR2):
            signal.signal(number, signal.SIG_IGN)
        signal.pthread_sigmask(signal.SIG_BLOCK, signal.valid_signals())

    daemon = gateway.up(prepare=prepare)
    gateway.log.wait_for("process_exit, service(dies) is abnormal")
    assert gateway.log.has("wait pid(%d) status(768)")
    start = gateway.started("svc")
    assert int(start["SigBlk"], 16) == 0
    daemon.signal(signal.SIGTERM)
    assert daemon.wait(10) == 0


def test_deaths_are_noticed_when_the_starter_ignored_them(gateway):
    gateway.catalogue(Service("gone", program=None))
    launcher = gateway.launch(prepare=lambda: signal.signal(signal.SIGCHLD, signal.SIG_IGN))
    assert launcher.wait(10) == 0
    gateway.log.wait_for("process_exit, service(gone) is abnormal")


def test_the_daemon_starts_with_a_full_limit_of_descriptors(gateway):
    import resource
    hard = resource.getrlimit(resource.RLIMIT_NOFILE)[1]
    gateway.catalogue(Service("svc"))
    gateway.up(prepare=lambda: resource.setrlimit(resource.RLIMIT_NOFILE, (hard, hard)))
    lines = gateway.log.sequence("running svc service", "run svc pid %d")
    assert lines[1] - lines[0] < clock.stretched(1)


@pytest.mark.parametrize("umask", [0o000, 0o022, 0o077])
@pytest.mark.parametrize("nofork", [False, True], ids=["launched", "nofork"])
def test_files_and_directories_have_fixed_modes_whatever_the_umask(gateway, umask, nofork):
    gateway.catalogue(Service("svc", bus="iot.test.svc"))
    if nofork:
        gateway.up(umask=umask)
    else:
        gateway.launch(umask=umask).wait(10)
        gateway.log.wait_for(UP)
    gateway.status()

    def mode(path):
        return stat.S_IMODE(os.lstat(path).st_mode)

    assert mode(PID_FILE) == 0o644
    for path in ("/quorvane/run", "/quorvane/run/console", "/quorvane/run/logger", "/quorvane/run/startup",
                 "/tmp/var", "/tmp/var/run", "/tmp/var/run/mbusd"):
        assert mode(path) == 0o755, path
    assert mode("/quorvane/run/startup/quorvaned.log") & ~0o640 == 0
    if os.path.exists("/quorvane/run/logger/quorvaned.log"):
        assert mode("/quorvane/run/logger/quorvaned.log") & ~0o640 == 0
    for directory, _, files in os.walk("/quorvane"):
        for name in files:
            assert mode(os.path.join(directory, name)) & 0o002 == 0, name


@pytest.mark.parametrize("umask, expected", [(0o027, "0027"), (0o000, "0000")])
def test_services_inherit_the_umask_as_it_is(gateway, umask, expected):
    gateway.catalogue(Service("svc"))
    gateway.up(umask=umask)
    assert gateway.started("svc")["Umask"] == expected
