"""The short form of every row of scripts/chaos."""

import os
import socket
import sys
import threading

import pytest
from harness import bus, staging
from harness.raw_bus import RawBus
from harness.sandbox import REPOSITORY

sys.path.insert(0, os.path.join(REPOSITORY, "chaos"))
from row import ROWS, Figure, Run, Skipped  # noqa: E402  (the path comes first)
import rows  # noqa: E402,F401  (it fills ROWS)


# What these count is the daemon's memory, or how fast it is, and a sanitizer takes time and memory of its own. The row
# "races" has the flood too, and does not ask for its goals.
OF_THE_PLAIN_DAEMON = {"hostile-messages", "keep-alive-flood", "leaks", "memory"}


@pytest.mark.parametrize("name", [
    pytest.param(name, marks=[pytest.mark.takes(row.limits["short"] // 2), pytest.mark.limit(row.limits["short"]),
                              pytest.mark.private(row.sizes)]) for name, row in ROWS.items()])
def test_what_the_gateway_survives(gateway, name):
    if name in OF_THE_PLAIN_DAEMON and staging.is_sanitized():
        pytest.skip("a sanitizer takes time and memory of its own")
    try:
        figures = ROWS[name].body(Run(lambda: gateway, ROWS[name].short, 1, False, quiet=True))
    except Skipped as reason:
        pytest.skip(str(reason))
    assert all(isinstance(figure, Figure) for figure in figures)
    missed = [f"{figure.text()}, and not {figure.goal}" for figure in figures if not figure.met]
    assert not missed, "; ".join(missed)


def test_a_client_of_the_faults_gives_up_on_a_bus_that_leaves_before_it_is_let_in():
    """As one does that is killed then. Waiting on, it would look for more without end."""
    os.makedirs(os.path.dirname(bus.SOCKET), exist_ok=True)
    with socket.socket(socket.AF_UNIX) as listener:
        listener.bind(bus.SOCKET)
        listener.listen()

        def leave():
            connection, _ = listener.accept()
            connection.recv(4096)  # unread it would be an error for the client, and not an end
            connection.close()
        bus_daemon = threading.Thread(target=leave)
        bus_daemon.start()
        with pytest.raises(ConnectionResetError):
            RawBus()
        bus_daemon.join()
