"""Starting and stopping one service process."""

import os
import signal
import time

import pytest
from harness import clock, processes
from harness.facts import Facts
from harness.gateway import MISSING, UP, Service, term

HANDLED = (signal.SIGTERM, signal.SIGINT, signal.SIGSEGV, signal.SIGQUIT, signal.SIGILL, signal.SIGABRT,
           signal.SIGUSR1, signal.SIGUSR2, signal.SIGCHLD)


def test_a_program_below_bin_runs_under_its_base_name(gateway):
    gateway.catalogue(Service("deep/er/svc", "-a", "b"))
    daemon = gateway.up()
    start = gateway.started("svc")
    assert start["argv"] == ["svc", "-a", "b"]
    assert start["exe"] == gateway.path("bin/deep/er/svc")
    assert gateway.log.has(f"run svc pid {start['pid']}")
    term(daemon)
    assert gateway.log.has(f"kill -9 deep/er/svc({start['pid']})")


def test_an_argument_is_cut_at_255_characters(gateway):
    gateway.catalogue(Service("svc", "a" * 300, "b" * 255, "c" * 256, "", "%s%n", "with blank"))
    gateway.up()
    assert gateway.started("svc")["argv"] == ["svc", "a" * 255, "b" * 255, "c" * 255, "", "%s%n", "with blank"]


def test_the_search_path_is_never_consulted(gateway):
    gateway.catalogue(Service("sleep", "1000", program=MISSING), Service("sbin/svc", program=MISSING))
    gateway.up(env={**os.environ, "PATH": "/bin:/usr/bin"})
    gateway.log.wait_for("process_exit, service(sleep) is abnormal")
    gateway.log.wait_for("process_exit, service(sbin/svc) is abnormal")


def test_a_service_starts_in_a_clean_state(gateway):
    gateway.catalogue(Service("svc"), Service("named", bus="iot.test.named"))
    with open("/tmp/input", "w", encoding="ascii"):
        pass
    daemon = gateway.up(stdin="/tmp/input")
    with Facts() as fact:
        for name in ("svc", "named"):
            start = gateway.started(name)
            fact("no signal is blocked", int(start["SigBlk"], 16) == 0, start["SigBlk"])
            fact("none is pending", int(start["SigPnd"], 16) == 0, start["SigPnd"])
            ignored = [number for number in HANDLED if int(start["SigIgn"], 16) >> (number - 1) & 1]
            fact("what the daemon handles is not ignored", not ignored, ignored)
            fact("the input is inherited, output and errors go nowhere, nothing else is open",
                 start["fds"] == ["0=/tmp/input", "1=/dev/null", "2=/dev/null"], start["fds"])
            fact("it is a child of the daemon", start["ppid"] == daemon.pid, start["ppid"])
            fact("it runs in bin", start["cwd"] == gateway.bin, start["cwd"])
            fact("its policy is the normal one", start["policy"] == 0, start["policy"])
            fact("it dies with the daemon", start["pdeathsig"] == signal.SIGKILL, start["pdeathsig"])


def test_only_fota_and_the_remote_debug_service_outlive_the_daemon(gateway):
    names = ["svc", "fota", "x/fota", "RemoteTerminalDaemon", "y/RemoteTerminalDaemon", "fota2", "Fota"]
    gateway.catalogue(*[Service(name) for name in names])
    daemon = gateway.up()
    pids = dict(zip(["dbus-daemon", *names], [line.values[1] for line in gateway.log.find("run %s pid %d")]))
    for name in names:
        event = clock.until(lambda: next((one for one in gateway.events(os.path.basename(name), "start")
                                          if one["pid"] == pids[name]), None), 5, f"the start of {name}")
        spared = os.path.basename(name) in ("fota", "RemoteTerminalDaemon")
        assert event["pdeathsig"] == (0 if spared else 9), name
    daemon.signal(signal.SIGKILL)
    assert daemon.wait() == -9
    spared = ["fota", "x/fota", "RemoteTerminalDaemon", "y/RemoteTerminalDaemon"]
    processes.wait_gone([pids[name] for name in pids if name not in spared], 1)
    assert sorted(processes.everybody()) == sorted(pids[name] for name in spared)


@pytest.mark.takes(4)
@pytest.mark.parametrize("moment", range(12))
def test_nothing_but_the_two_spared_services_outlives_a_kill_at_any_moment(gateway, moment):
    gateway.catalogue(*[Service(f"svc{number}") for number in range(8)], Service("fota"),
                      Service("named", bus="iot.test.named"), Service("RemoteTerminalDaemon"),
                      Service("dies", "--exit-after=20"), *[Service(f"more{number}", delay=0.1) for number in range(5)])
    daemon = gateway.start()
    clock.until(lambda: processes.running("dbus-daemon") or moment < 2, 10, "the bus daemon")
    time.sleep(moment * 0.04)
    daemon.signal(signal.SIGKILL)
    daemon.wait()

    def only_spared():
        return {processes.program(pid) for pid in processes.everybody()} <= {"fota", "RemoteTerminalDaemon"}

    clock.until(only_spared, 1, "the end of all but the two")


def test_a_missing_program_ends_with_status_0_and_is_noticed(gateway):
    gateway.catalogue(Service("gone", program=MISSING))
    gateway.up()
    gateway.log.wait_for("process_exit, service(gone) is abnormal")
    pid = gateway.pid_of("gone")
    gateway.log.sequence(f"wait pid({pid}) status(0)", f"process_exit, pid:{pid}",
                         "process_exit, service(gone) is abnormal")
    gateway.log.sequence("running gone service", f"run gone pid {pid}")


def test_a_script_without_an_interpreter_line_runs(gateway):
    gateway.catalogue(Service("plain", "x"))
    gateway.script("plain", 'echo "$0 $1" > ../ran; sleep 1000', shebang="")
    gateway.up()
    clock.until(lambda: os.path.exists(gateway.path("ran")) and os.path.getsize(gateway.path("ran")), 5, "the script")
    with open(gateway.path("ran"), encoding="ascii") as file:
        assert file.read() == "./plain x\n"


@pytest.mark.takes(12)
def test_400_starts_of_missing_programs_give_400_noticed_deaths(gateway):
    count = 400
    gateway.catalogue(*[Service(f"gone{number}", program=MISSING, monitor=1) for number in range(count)])
    gateway.up(within=40)
    gateway.log.wait_for("process_exit, service(%s) is abnormal", 20, count=count)
    names = {line.values[0] for line in gateway.log.find("process_exit, service(%s) is abnormal")}
    assert names == {f"gone{number}" for number in range(count)}
    report = gateway.bus().report()
    assert report.count("inactive") == count
    assert report.count("active") == count
    pids = {line.values[0] for line in gateway.log.find("wait pid(%d) status(0)")}
    assert {line.values[1] for line in gateway.log.find("run %s pid %d") if line.values[0] != "dbus-daemon"} <= pids


@pytest.mark.takes(10)
def test_no_death_is_lost_in_a_burst(gateway):
    count = 300
    gateway.catalogue(*[Service(f"svc{number}", "1000", program=MISSING) for number in range(count)])
    # A small program: three hundred of them shall be there at once.
    for number in range(count):
        os.symlink("/bin/sleep", gateway.path(f"bin/svc{number}"))
    daemon = gateway.up(within=40)
    victims = [line.values[1] for line in gateway.log.find("run %s pid %d") if line.values[0] != "dbus-daemon"]
    clock.until(lambda: all(processes.program(pid) == "sleep" for pid in victims), 20, "all services")
    # One after the other, while the daemon collects them: the end of one can meet that of the next.
    os.kill(daemon.pid, signal.SIGSTOP)
    for pid in victims:
        os.kill(pid, signal.SIGKILL)
    os.kill(daemon.pid, signal.SIGCONT)
    gateway.log.wait_for("process_exit, service(%s) is abnormal", 20, count=count)
    assert gateway.log.count("wait pid(%d) status(9)") == count


def test_starting_takes_no_time_while_all_children_live(gateway):
    gateway.catalogue(*[Service(f"svc{number}") for number in range(25)])
    gateway.up()
    for number in range(25):
        lines = gateway.log.sequence(f"running svc{number} service", f"run svc{number} pid %d")
        assert lines[1] - lines[0] < clock.stretched(0.5)
    lines = gateway.log.sequence("running svc0 service", "success to startup business service")
    assert lines[1] - lines[0] < clock.stretched(2.5)


@pytest.mark.takes(12)
def test_a_stop_right_after_a_start_ends_only_that_child(gateway):
    count = 60
    gateway.catalogue(*[Service(f"witness{number}") for number in range(5)],
                      *[Service(f"victim{number}", "1000", program=MISSING, delay=0.1) for number in range(count)])
    for number in range(count):
        os.symlink("/bin/sleep", gateway.path(f"bin/victim{number}"))
    daemon = gateway.start()
    for number in range(5):
        gateway.started(f"witness{number}")
    witnesses = [gateway.pid_of(f"witness{number}") for number in range(5)]
    spared = {*witnesses, gateway.pid_of("dbus-daemon")}
    struck = set()
    path = f"/proc/{daemon.pid}/task/{daemon.pid}/children"
    deadline = time.monotonic() + 40
    before_exec = 0
    # The moment between the start of a process and that of its program is short: be there.
    os.nice(-10 if os.geteuid() == 0 else 0)
    with open(path, encoding="ascii") as children:
        while not gateway_is_up(gateway) and time.monotonic() < deadline:
            for _ in range(200):
                children.seek(0)
                for pid in map(int, children.read().split()):
                    if pid not in struck and pid not in spared:
                        before_exec += processes.program(pid) == "quorvaned"
                        os.kill(pid, signal.SIGTERM)
                        struck.add(pid)
    gateway.log.wait_for(UP, 20)
    gateway.log.wait_for("wait pid(%d) status(15)", 10, count=len(struck))
    # Only the daemon ever writes: a child that ran one of its handlers would say so.
    assert {event.pid for event in gateway.log.events()} == {daemon.pid}
    assert gateway.log.count("caught %s(%d) signal, exit") == 0
    assert all(map(processes.alive, witnesses))
    assert [gateway.signals(f"witness{number}") for number in range(5)] == [[]] * 5
    assert daemon.alive()
    assert len(struck) >= count // 2, f"{len(struck)} struck, {before_exec} before their program ran"


def gateway_is_up(gateway):
    """A cheap look at the log, for busy loops."""
    return UP.encode() in gateway.log.bytes()


@pytest.mark.takes(10)
def test_an_end_of_everything_is_done_with_kill_in_reverse_order(gateway):
    gateway.catalogue(Service("one"), Service("lib/two", "--ignore-term"), Service("gone", program=MISSING),
                      Service("fota"), Service("three", monitor=1), Service("RemoteTerminalDaemon"), Service("four"))
    daemon = gateway.up()
    gateway.log.wait_for("process_exit, service(gone) is abnormal")
    pids = {name: gateway.pid_of(name) for name in ("one", "two", "fota", "three", "RemoteTerminalDaemon", "four",
                                                    "dbus-daemon")}
    status, seconds = term(daemon)
    assert status == 0
    assert seconds >= 5
    force, = gateway.log.find("quorvaned exit (force)")
    kills = [event for event in gateway.log.events(after=force) if "kill -" in event.text]
    assert [event.text for event in kills] == [f"stop dbus-daemon, kill -15 {pids['dbus-daemon']}",
                                               f"kill -9 four({pids['four']})", f"kill -9 three({pids['three']})",
                                               f"kill -9 lib/two({pids['two']})", f"kill -9 one({pids['one']})"]
    processes.wait_gone([pids[name] for name in ("one", "two", "three", "four", "dbus-daemon")], 2)
    assert processes.alive(pids["fota"]) and processes.alive(pids["RemoteTerminalDaemon"])
    assert gateway.signals("fota") == gateway.signals("RemoteTerminalDaemon") == []


@pytest.mark.takes(10)
def test_a_restart_of_the_stack_stops_with_sigterm_in_reverse_order(gateway):
    gateway.catalogue(Service("one"), Service("two", "--ignore-term"), Service("gone", program=MISSING),
                      Service("fota"), Service("RemoteTerminalDaemon"), Service("four"))
    gateway.up()
    gateway.log.wait_for("process_exit, service(gone) is abnormal")
    first = gateway.log.find(UP)[0]
    pids = {name: gateway.pid_of(name) for name in ("one", "two", "fota", "RemoteTerminalDaemon", "four", "dbus-daemon")}
    for name in ("one", "two", "fota", "RemoteTerminalDaemon", "four"):
        gateway.started(name)  # a signal that comes before its program listens is not recorded
    gateway.bus().reboot()
    gateway.log.wait_for(UP, 15, after=first)
    kills = [event.text for event in gateway.log.events(after=first) if "kill -" in event.text]
    assert kills == [f"kill -15 four({pids['four']})", f"kill -15 RemoteTerminalDaemon({pids['RemoteTerminalDaemon']})",
                     f"kill -15 two({pids['two']})", f"kill -15 one({pids['one']})",
                     f"stop dbus-daemon, kill -15 {pids['dbus-daemon']}"]
    assert processes.alive(pids["fota"])
    assert gateway.signals("fota") == []
    # There is no escalation: who does not listen stays, and the new one runs beside it.
    gateway.wait_event("one", "signal", pid=pids["one"])
    gateway.wait_event("two", "signal", pid=pids["two"])
    assert processes.alive(pids["two"])
    assert gateway.signals("two", pids["two"]) == [15]
    assert gateway.signals("one", pids["one"]) == [15]


@pytest.mark.takes(9)
def test_the_script_driven_scene_service_is_stopped_by_its_script(gateway):
    gateway.catalogue(Service("svc"), Service("startSC.sh", program="exec sleep 1000"))
    gateway.script("stopSC.sh", "echo $# > ../stopped")
    gateway.up()
    first = gateway.log.find(UP)[0]
    pid = gateway.pid_of("startSC.sh")
    gateway.bus().reboot()
    gateway.log.wait_for(UP, 15, after=first)
    gateway.log.sequence("stop business service", "run stopSC.sh pid %d", "kill -15 svc(%d)", after=first)
    assert gateway.log.count("kill -15 startSC.sh(%d)") == 0
    clock.until(lambda: os.path.exists(gateway.path("stopped")), 5, "the stop script")
    assert processes.alive(pid)


@pytest.mark.takes(9)
def test_a_stop_script_that_the_end_has_started_is_given_time_to_work(gateway):
    gateway.catalogue(Service("startSC.sh", program="exec sleep 1000"), Service("svc"))
    gateway.script("stopSC.sh", "sleep 0.5; echo done > ../stopped")
    daemon = gateway.up()
    status, seconds = term(daemon)
    assert status == 0
    assert 5.0 <= seconds <= 6.5 + clock.stretched(1.5)
    gateway.log.sequence("quorvaned exit (force)", "kill -9 svc(%d)", "run stopSC.sh pid %d")
    assert os.path.exists(gateway.path("stopped"))


@pytest.mark.takes(9)
def test_a_stop_script_that_hangs_does_not_hold_the_end_for_long(gateway):
    gateway.catalogue(Service("startSC.sh", program="exec sleep 1000"))
    gateway.script("stopSC.sh", "exec sleep 1000")
    daemon = gateway.up()
    status, seconds = term(daemon)
    assert status == 0
    assert 5.0 <= seconds <= 6.5 + clock.stretched(1.5)


def test_the_end_of_the_scene_script_is_no_accident(gateway):
    gateway.catalogue(Service("startSC.sh", program="exit 0", monitor=1), Service("svc", monitor=1))
    gateway.up()
    pid = gateway.pid_of("startSC.sh")
    gateway.log.wait_for(f"process_exit, pid:{pid}")
    gateway.bus().settle()
    assert not gateway.log.has("process_exit, service(startSC.sh) is abnormal")
    assert "[  \033[32m+\033[0m  ]  Service startSC.sh is \033[32mactive\033[0m\n" in gateway.bus().report()


@pytest.mark.takes(25)
@pytest.mark.limit(90)
def test_no_stranger_is_signalled_where_process_numbers_come_round_quickly(gateway):
    # The limit belongs to the pid namespace on kernels that have it so; elsewhere it would be the machine's.
    if not _lower_pid_max(400):
        pytest.skip("this kernel has one pid_max for all pid namespaces")
    gateway.link("probe_service", "crowd")
    crowd = [processes.spawn([gateway.path("bin/crowd"), "--children=20"]) for _ in range(2)]
    gateway.catalogue(*[Service(f"dies{number}", f"--exit-after={50 * number}", monitor=1) for number in range(12)],
                      *[Service(f"gone{number}", program=MISSING, monitor=1) for number in range(6)],
                      Service("named", bus="iot.test.named"))
    daemon = gateway.up(within=40)
    for _ in range(4):
        last = gateway.log.find(UP)[-1]
        gateway.bus().reboot()
        gateway.log.wait_for(UP, 30, after=last)
    gateway.wait_event("crowd", "children", 30)
    term(daemon)
    assert gateway.events("crowd", "struck") == []
    assert gateway.signals("crowd") == []
    assert all(one.alive() for one in crowd)


def _lower_pid_max(value):
    """Set the number at which pids come round, if that concerns this namespace alone."""
    release = tuple(int(part) for part in os.uname().release.split("-")[0].split(".")[:2])
    if release < (6, 14):
        return False
    with open("/proc/sys/kernel/pid_max", "w", encoding="ascii") as file:
        file.write(str(value))
    return True


def test_a_service_may_leave_children_that_are_nobodys_business(gateway):
    gateway.catalogue(Service("svc", program="sleep 1000 & exit 3", monitor=1))
    gateway.up()
    gateway.log.wait_for("process_exit, service(svc) is abnormal")
    assert gateway.log.has("wait pid(%d) status(768)")
    orphan, = processes.running("sleep")
    assert processes.alive(orphan)


def test_wait_statuses_are_logged_raw(gateway):
    gateway.catalogue(Service("three", "--exit-after=100", "--exit-status=3"), Service("abort", "--exit-after=100",
                      "--exit-signal=6"), Service("kill", "--exit-after=100", "--exit-signal=9"), Service("zero",
                      "--exit-after=100"))
    gateway.up(prepare=no_core)
    for name, status in (("three", 768), ("abort", 6), ("kill", 9), ("zero", 0)):
        gateway.log.wait_for(f"process_exit, service({name}) is abnormal")
        pid = gateway.pid_of(name)
        gateway.log.sequence(f"wait pid({pid}) status({status})", f"process_exit, pid:{pid}",
                             f"process_exit, service({name}) is abnormal")


def no_core():
    """No core files: they would add a bit to the status."""
    import resource
    resource.setrlimit(resource.RLIMIT_CORE, (0, 0))


def test_threads_of_the_daemon_have_their_names_and_policy(gateway):
    gateway.catalogue(Service("svc"))
    daemon = gateway.up()
    names = {}

    def named():
        for task in os.listdir(f"/proc/{daemon.pid}/task"):
            names[processes.proc(daemon.pid, f"task/{task}/comm").strip()] = int(task)
        # The kernel keeps 15 characters of "sevice_manager_thread".
        return {"start_up_thread", "sevice_manager_"} <= names.keys()

    clock.until(named, 2, lambda: f"both threads' names, not only {sorted(names)}")
    for name in ("start_up_thread", "sevice_manager_"):
        policy = os.sched_getscheduler(names[name])
        assert policy & ~os.SCHED_RESET_ON_FORK in (os.SCHED_FIFO, os.SCHED_OTHER)
        if policy & ~os.SCHED_RESET_ON_FORK == os.SCHED_FIFO:
            assert policy & os.SCHED_RESET_ON_FORK
            assert os.sched_getparam(names[name]).sched_priority == 64


def test_without_the_right_to_real_time_the_daemon_runs_all_the_same(gateway):
    gateway.catalogue(Service("svc", bus="iot.test.svc", monitor=1))
    command = ["/usr/bin/setpriv", "--bounding-set", "-sys_nice", "--inh-caps", "-sys_nice",
               gateway.program, "--nofork"]
    daemon = processes.spawn(command, prepare=_no_real_time)
    gateway.log.wait_for(UP)
    for task in os.listdir(f"/proc/{daemon.pid}/task"):
        assert os.sched_getscheduler(int(task)) == os.SCHED_OTHER
    assert gateway.status().status == 0


def _no_real_time():
    import resource
    resource.setrlimit(resource.RLIMIT_RTPRIO, (0, 0))


@pytest.mark.takes(9)
def test_services_run_on_during_the_five_seconds_of_the_end(gateway):
    gateway.catalogue(Service("svc", "--feed=key:1000:200", bus="iot.test.svc"), Service("other"))
    daemon = gateway.up()
    gateway.wait_event("svc", "feed")
    begin = daemon.signal(signal.SIGTERM)
    clock.until(lambda: time.monotonic() >= begin + 4.7, 6, "4.7 seconds")
    assert processes.alive(gateway.pid_of("svc")) and processes.alive(gateway.pid_of("other"))
    assert processes.alive(gateway.pid_of("dbus-daemon"))
    assert gateway.events("svc", "feed")[-1]["time"] > begin + 4
    assert daemon.wait(10) == 0
    assert gateway.signals("svc") == gateway.signals("other") == []

