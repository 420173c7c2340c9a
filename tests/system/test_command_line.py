"""What the arguments mean."""

import os

import pytest
from harness import clock, processes
from harness.gateway import LOGGER_LOG, PID_FILE, RUN, Service

ERROR = "input parameter error\n"


@pytest.mark.parametrize("word", ["STATUS", "Stop_All", "stop", "--help", "-h", "--NOFORK", "--nofork ", "x" * 5000,
                                  "%s%n%s", "\ud8ff", ""],
                         ids=["STATUS", "Stop_All", "stop", "help", "h", "NOFORK", "blank-at-the-end", "5000-bytes",
                              "format", "no-character", "empty"])
def test_a_single_unknown_word_is_refused_and_leaves_no_trace(gateway, word):
    gateway.prepare_run_directory()
    argument = word.encode("utf-8", "surrogatepass")
    process = processes.run([gateway.program, argument])
    assert process.status == 255
    assert str(process.stdout) == ERROR
    assert str(process.stderr) == ""
    assert gateway.log.bytes() == b""


@pytest.mark.parametrize("arguments, legal, nofork", [
    (["stop_all", "extra"], 2, False),
    (["status", "--nofork"], 1, True),
    (["stop_except_remotedebug", "stop_all", "status", "x"], 4, False),
    (["a", "b", "c", "d", "e"], 5, False),
    (list("abcdefg"), 7, False),
    (list("abcdefgh") + ["--nofork"], 8, True),
    (list("abcdefghij"), 10, False),
    (["--nofork", "--nofork", "a"], 2, True),
], ids=lambda value: "-".join(value) if isinstance(value, list) else None)
def test_a_wrong_count_of_arguments_is_logged_and_refused(gateway, arguments, legal, nofork):
    gateway.prepare_run_directory()
    process = gateway.command(*arguments)
    assert process.status == 255
    assert str(process.stdout) == ERROR
    assert str(process.stderr) == ""
    lines = gateway.log.exactly(
        [f"quorvaned start, argv[{number}]:{text}" for number, text in enumerate(arguments, 1)]
        + [f"quorvaned start, pid:%d legal_count:{legal} nofork:{'true' if nofork else 'false'}"])
    assert lines[-1].values == (process.pid,)
    assert {line.pid for line in lines} == {process.pid}
    assert {line.file for line in lines} == {"main.cpp"}


def test_a_refused_start_starts_nothing(gateway):
    gateway.catalogue(Service("svc"))
    gateway.prepare_run_directory()
    gateway.command("stop_all", "extra")
    assert os.listdir(RUN) == ["startup"]
    assert os.listdir(RUN + "/startup") == ["quorvaned.log"]
    assert not os.path.exists("/tmp/var")
    assert processes.everybody() == []


def test_without_the_run_directory_a_refused_start_logs_nothing_and_makes_nothing(gateway):
    process = gateway.command("a", "b")
    assert (process.status, str(process.stdout)) == (255, ERROR)
    assert os.listdir("/quorvane") == []


def test_nine_values_are_logged_in_clear_and_only_the_device_secret_is_masked_in_process_listings(gateway):
    gateway.prepare_run_directory()
    values = ["pk", "dn", "s3cr3t-value", "as.example", "8883", "ca-6", "cloud.example", "443", "tls-9"]
    daemon = gateway.up(*values)
    assert processes.arguments(daemon.pid)[1:] == [*values[:2], "*" * len("s3cr3t-value"), *values[3:], "--nofork"]
    gateway.log.sequence(*[f"quorvaned start, argv[{number}]:{value}" for number, value in enumerate(values, 1)],
                         "quorvaned start, argv[10]:--nofork",
                         f"quorvaned start, pid:{daemon.pid} legal_count:9 nofork:true")
    assert b"s3cr3t" not in open(LOGGER_LOG, "rb").read() if os.path.exists(LOGGER_LOG) else True


@pytest.mark.parametrize("count", [3, 6])
def test_a_group_of_three_is_enough(gateway, count):
    gateway.prepare_run_directory()
    values = ["pk", "dn", "secret", "host", "port", "ca"][:count]
    daemon = gateway.up(*values)
    assert gateway.log.has(f"quorvaned start, pid:{daemon.pid} legal_count:{count} nofork:true")
    assert processes.arguments(daemon.pid)[3] == "******"


def test_the_secret_is_masked_in_the_launcher_and_in_the_daemon(gateway):
    gateway.catalogue(Service("slow", delay=3))
    launcher = gateway.launch("pk", "dn", "secret")
    daemon = gateway.daemon_of(launcher)
    gateway.started("slow")
    assert launcher.status is None
    for pid in (launcher.pid, daemon.pid):
        assert processes.arguments(pid)[1:] == ["pk", "dn", "******"]


def test_nofork_in_front_takes_the_place_of_a_value(gateway):
    gateway.prepare_run_directory()
    daemon = processes.spawn([gateway.program, "--nofork", "second", "third", "last"])
    gateway.log.wait_for("quorvaned startup success", pid=daemon.pid)
    assert processes.arguments(daemon.pid)[1:] == ["--nofork", "second", "*****", "last"]
    gateway.log.sequence("quorvaned start, argv[1]:--nofork", "quorvaned start, argv[2]:second",
                         "quorvaned start, argv[3]:third", "quorvaned start, argv[4]:last",
                         f"quorvaned start, pid:{daemon.pid} legal_count:3 nofork:true")


def test_an_empty_secret_is_no_trouble(gateway):
    daemon = gateway.up("pk", "dn", "")
    assert processes.arguments(daemon.pid)[1:] == ["pk", "dn", "", "--nofork"]


def test_nofork_alone_starts_in_the_foreground(gateway):
    gateway.prepare_run_directory()
    daemon = gateway.up()
    assert gateway.log.texts()[:2] == ["quorvaned start, argv[1]:--nofork",
                                       f"quorvaned start, pid:{daemon.pid} legal_count:0 nofork:true"]
    assert processes.lock_owner(PID_FILE) == daemon.pid


def test_no_argument_starts_in_the_background(gateway):
    gateway.prepare_run_directory()
    launcher = gateway.launch()
    assert launcher.wait(10) == 0
    assert gateway.log.texts()[0] == f"quorvaned start, pid:{launcher.pid} legal_count:0 nofork:false"
    daemon = processes.lock_owner(PID_FILE)
    assert daemon not in (0, launcher.pid)
    assert processes.alive(daemon)


def test_hostile_arguments_neither_end_the_daemon_nor_forge_log_lines(gateway):
    gateway.prepare_run_directory()
    gateway.catalogue(Service("svc", monitor=1))
    forged = "x\n2025-01-01 00:00:00.000000 [pid=1] [main.cpp|1] forged line"
    daemon = processes.spawn([gateway.program, b"%s%n%d\xff\xfe", forged, "\033[2J%n\r\t", "--nofork"])
    gateway.log.wait_for("quorvaned startup success", pid=daemon.pid)
    assert all(event.well_formed for event in gateway.log.events())
    assert gateway.log.count("forged line") == 0
    assert gateway.log.count("quorvaned start, argv[%d]:%s") == 4
    assert gateway.status().status == 0
    clock.stays(daemon.alive, 0.3, "the daemon lives")
