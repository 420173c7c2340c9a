"""The start-up log line, the log file and the look at other processes."""

import datetime
import os
import re
import stat

import pytest
from harness import processes
from harness.gateway import RUN, STARTUP, Service
from harness.startup_log import LINE

LOG = STARTUP + "/quorvaned.log"


def fill(size):
    """Make the log a file of that many bytes."""
    with open(LOG, "wb") as file:
        file.write(b"old " * (size // 4) + b"\n" * (size % 4))
    assert os.path.getsize(LOG) == size


def test_every_line_has_time_pid_source_and_line_number(gateway):
    gateway.catalogue(Service("svc"), Service("gone", program=None))
    gateway.prepare_run_directory()
    before = datetime.datetime.now()
    daemon = gateway.up("pk", "dn", "secret")
    daemon.signal(15)
    daemon.wait(10)
    after = datetime.datetime.now()
    events = gateway.log.events()
    assert len(events) > 20
    for event in events:
        assert LINE.fullmatch(event.raw), event
        assert event.pid == daemon.pid
        assert event.line > 0
        assert before <= event.time <= after
    assert {event.file for event in events} == {"main.cpp", "service_control.cpp", "service_manager.cpp",
                                                "start_up.cpp"}


@pytest.mark.parametrize("text, file", [
    ("quorvaned start, pid:%d legal_count:0 nofork:true", "main.cpp"),
    ("wait pid(%d) status(%d)", "main.cpp"),
    ("caught Terminated(15) signal, exit", "main.cpp"),
    ("run svc pid %d", "service_control.cpp"),
    ("kill -9 svc(%d)", "service_control.cpp"),
    ("stop dbus-daemon, kill -15 %d", "service_control.cpp"),
    ("running svc service", "service_manager.cpp"),
    ("process_exit, service(gone) is abnormal", "service_manager.cpp"),
    ("success to startup dbus daemon", "start_up.cpp"),
    ("quorvaned startup success", "start_up.cpp"),
    ("quorvaned exit (force)", "start_up.cpp"),
])
def test_the_source_file_of_a_line_is_the_one_with_that_role(gateway, text, file):
    gateway.catalogue(Service("svc"), Service("gone", program=None))
    gateway.prepare_run_directory()
    daemon = gateway.up()
    gateway.log.wait_for("process_exit, service(gone) is abnormal")
    daemon.signal(15)
    daemon.wait(10)
    assert {event.file for event in gateway.log.find(text)} == {file}


def test_lines_tell_local_time(gateway):
    gateway.prepare_run_directory()
    process = gateway.command("a", "b", env={**os.environ, "TZ": "TST-05:45"})
    now = datetime.datetime.now(datetime.timezone(datetime.timedelta(hours=5, minutes=45))).replace(tzinfo=None)
    assert process.status == 255
    for event in gateway.log.events():
        assert abs((now - event.time).total_seconds()) < 5


def test_signal_lines_tell_local_time_too(gateway):
    daemon = gateway.up(env={**os.environ, "TZ": "TST+03:30"})
    daemon.signal(15)
    caught = gateway.log.wait_for("caught Terminated(15) signal, exit")
    now = datetime.datetime.now(datetime.timezone(datetime.timedelta(hours=-3, minutes=-30))).replace(tzinfo=None)
    assert abs((now - caught.time).total_seconds()) < 5


def test_a_log_of_262144_bytes_is_appended_to(gateway):
    gateway.prepare_run_directory()
    fill(262144)
    gateway.command("first", "second")
    # The first line still went to the old file, which was over the limit after it.
    gateway.log.exactly(["quorvaned start, argv[2]:second", "quorvaned start, pid:%d legal_count:2 nofork:false"])


def test_a_log_of_262145_bytes_is_emptied_before_the_next_line(gateway):
    gateway.prepare_run_directory()
    fill(262145)
    gateway.command("first", "second")
    gateway.log.exactly(["quorvaned start, argv[1]:first", "quorvaned start, argv[2]:second",
                         "quorvaned start, pid:%d legal_count:2 nofork:false"])


def test_a_smaller_log_keeps_what_it_holds(gateway):
    gateway.prepare_run_directory()
    fill(1000)
    gateway.command("first", "second")
    assert gateway.log.bytes().startswith(b"old " * 250)
    assert os.path.getsize(LOG) > 1000


@pytest.mark.takes(4)
@pytest.mark.parametrize("move", [os.unlink, lambda path: os.rename(path, path + ".1")], ids=["removed", "moved"])
def test_a_log_that_was_removed_or_moved_begins_anew_with_the_next_line(gateway, move):
    gateway.up()
    move(LOG)
    gateway.bus().reboot()
    gateway.log.wait_for("stop monitor service")
    assert gateway.log.events()[0].index == 0 and gateway.log.texts()[0] == "stop monitor service"


def test_a_long_line_is_cut_to_1022_characters_and_loses_its_newline(gateway):
    gateway.prepare_run_directory()
    gateway.command("x" * 3000, "b")
    content = gateway.log.bytes()
    second = re.search(rb"\d{4}-\d\d-\d\d [0-9:.]+ \[pid=\d+\] \[main\.cpp\|\d+\] quorvaned start, argv\[2\]:b\n", content)
    assert second is not None
    assert second.start() == 1022
    assert re.fullmatch(rb"[^\n]*argv\[1\]:x+", content[:1022])


def test_a_line_of_exactly_1022_characters_is_whole(gateway):
    gateway.prepare_run_directory()
    gateway.command("x", "b")
    # The two pids have the same number of digits: a fresh pid namespace has used few numbers yet.
    prefix = gateway.log.bytes().index(b"x\n")
    os.unlink(LOG)
    gateway.command("y" * (1021 - prefix), "b")
    assert gateway.log.bytes().index(b"\n") == 1021
    assert gateway.log.texts()[1] == "quorvaned start, argv[2]:b"


@pytest.mark.parametrize("umask", [0o000, 0o022, 0o077, 0o777])
def test_the_log_is_not_readable_by_others_whatever_the_umask(gateway, umask):
    gateway.prepare_run_directory()
    gateway.command("a", "b", umask=umask)
    mode = stat.S_IMODE(os.stat(LOG).st_mode)
    assert mode & ~0o640 == 0
    assert mode & 0o600 == 0o600 or umask & 0o600


def test_a_symbolic_link_in_the_place_of_the_log_is_not_followed(gateway):
    gateway.prepare_run_directory()
    os.symlink("/tmp/target", LOG)
    process = gateway.command("a", "b")
    assert process.status == 255
    assert not os.path.exists("/tmp/target")


def test_lines_of_many_threads_are_never_torn(gateway):
    gateway.catalogue(*[Service(f"gone{number}", program=None) for number in range(150)])
    gateway.up()
    gateway.log.wait_for("process_exit, service(%s) is abnormal", count=150)
    assert all(event.well_formed for event in gateway.log.events())


def test_lines_are_whole_where_the_log_begins_anew(gateway):
    gateway.prepare_run_directory()
    fill(262144 - 262144 % 4 - 3000)
    gateway.catalogue(*[Service(f"gone{number}", program=None) for number in range(150)])
    gateway.up()
    gateway.log.wait_for("process_exit, service(gone149) is abnormal")
    assert os.path.getsize(LOG) < 200000
    assert all(event.well_formed for event in gateway.log.events())


# The search for the processes of a program shows in the stop command when no daemon runs.

def run_elsewhere(gateway, directory, name="svc"):
    """Start a copy of a program from another directory."""
    os.makedirs(directory)
    target = os.path.join(directory, name)
    with open(gateway.path("bin/" + name), "rb") as source, open(target, "wb") as copy:
        copy.write(source.read())
    os.chmod(target, 0o755)
    return processes.spawn([target])


def test_a_program_of_the_same_name_outside_the_install_root_is_never_found(gateway):
    gateway.catalogue(Service("svc"))
    own = processes.spawn([gateway.path("bin/svc")])
    stranger = run_elsewhere(gateway, "/tmp/elsewhere/bin")
    gateway.started("svc")
    gateway.prepare_run_directory()
    assert gateway.command("stop_all").status == 0
    assert own.wait() == -9
    assert stranger.alive()
    assert gateway.log.count("kill -9 svc(%d)") == 1


def test_a_program_that_was_replaced_on_disk_is_still_found(gateway):
    gateway.catalogue(Service("svc"))
    own = processes.spawn([gateway.path("bin/svc")])
    gateway.started("svc")
    os.unlink(gateway.path("bin/svc"))
    assert processes.link(own.pid, "exe").endswith(" (deleted)")
    gateway.prepare_run_directory()
    gateway.command("stop_all")
    assert own.wait() == -9
    assert gateway.log.has(f"kill -9 svc({own.pid})")


def test_a_program_in_another_mount_namespace_is_left_alone(gateway):
    gateway.catalogue(Service("svc"))
    inside = processes.spawn([gateway.path("bin/svc")])
    outside = processes.spawn(["/usr/bin/unshare", "-m", gateway.path("bin/svc")])
    gateway.started("svc", count=2)
    gateway.prepare_run_directory()
    gateway.command("stop_all")
    assert inside.wait() == -9
    assert outside.alive()
    assert gateway.log.count("kill -9 svc(%d)") == 1


def test_the_stop_command_never_signals_itself(gateway):
    gateway.prepare_run_directory()
    process = gateway.command("stop_all")
    assert process.status == 0
    assert str(process.stdout) == "quorvaned: shutdown completed\n"
    gateway.log.exactly(["stop, can't find quorvaned"])
    assert os.listdir(RUN) == ["startup"]
