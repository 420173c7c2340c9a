"""Several signals at the same moment, and faults: nothing that was sent may be lost."""

import os
import signal

import pytest
from harness import clock, processes
from harness.gateway import MISSING, Service

NAMES = {signal.SIGTERM: "Terminated", signal.SIGINT: "Interrupt", signal.SIGUSR1: "User defined signal 1",
         signal.SIGUSR2: "User defined signal 2"}


def caught(number):
    """The line of a signal."""
    return f"caught {NAMES[number]}({int(number)}) signal, exit"


def send_together(daemon, *numbers):
    """All of them are pending when the daemon goes on."""
    daemon.signal(signal.SIGSTOP)
    clock.until(lambda: processes.status_field(daemon.pid, "State")[0] == "T", 5, "the stop of the daemon")
    for number in numbers:
        daemon.signal(number)
    daemon.signal(signal.SIGCONT)


@pytest.mark.takes(8)
@pytest.mark.parametrize("numbers", [(signal.SIGTERM, signal.SIGINT), (signal.SIGUSR1, signal.SIGTERM, signal.SIGINT)])
def test_signals_that_are_pending_together_all_get_their_line(gateway, numbers):
    gateway.catalogue(Service("svc"))
    daemon = gateway.up()
    send_together(daemon, *numbers)
    for number in numbers:
        gateway.log.wait_for(caught(number), 3)
    assert daemon.wait(clock.stretched(7)) == 0
    assert gateway.log.count("quorvaned exit (force)") == 1


@pytest.mark.takes(8)
def test_an_upgrade_and_a_stop_that_are_pending_together_both_take_effect(gateway):
    gateway.catalogue(Service("svc"))
    daemon = gateway.up()
    send_together(daemon, signal.SIGTERM, signal.SIGUSR2)
    # The kernel lets the lower number in first; the other one waits for the new image.
    gateway.log.wait_for("finsh upgrade quorvane!", 4)
    gateway.log.sequence(caught(signal.SIGUSR2), "finsh upgrade quorvane!")
    gateway.log.wait_for(caught(signal.SIGTERM), 4)
    assert daemon.wait(clock.stretched(7)) == 0


@pytest.mark.takes(4)
def test_an_alarm_of_the_starter_does_not_end_the_daemon(gateway):
    gateway.catalogue(Service("svc"))
    daemon = gateway.up(prepare=lambda: signal.alarm(3))
    clock.stays(daemon.alive, 4, "the daemon")


def test_services_run_with_the_normal_policy_whatever_the_starter_had(gateway):
    gateway.catalogue(Service("svc"))

    def prepare():
        os.sched_setscheduler(0, os.SCHED_FIFO, os.sched_param(10))

    try:
        gateway.up(prepare=prepare)
    except PermissionError:
        pytest.skip("real-time policies are not permitted here")
    for name in ("svc", "dbus-daemon"):
        assert os.sched_getscheduler(gateway.pid_of(name)) == os.SCHED_OTHER


def test_the_stop_command_spares_itself_when_the_catalogue_names_it(gateway):
    gateway.catalogue(Service("quorvaned", program=MISSING), Service("svc"))
    gateway.prepare_run_directory()
    command = gateway.command("stop_all")
    assert command.status == 0
    assert bytes(command.stdout) == b"quorvaned: shutdown completed\n"
    assert gateway.log.count("kill -9 quorvaned(%d)") == 0


def test_progress_cannot_be_forged_by_a_name(gateway):
    gateway.catalogue(Service("svc\nquorvaned: start up completed"))
    launcher = gateway.launch()
    launcher.wait(15)
    lines = bytes(launcher.stdout).decode().splitlines()
    assert lines.count("quorvaned: start up completed") == 1
    assert lines[-1] == "quorvaned: start up completed"
