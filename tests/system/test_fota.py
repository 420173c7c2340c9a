"""The update agent: updates of the whole installation, the supervisor included, and their failures."""

import contextlib
import hashlib
import json
import os
import shutil
import signal
import struct

import pytest
from harness import bus, clock, processes
from harness.gateway import RUN, STARTUP, UP

FOTA = RUN + "/fota"
STATE = FOTA + "/state"
REFUSED = FOTA + "/update.refused"
JOURNAL = STARTUP + "/fota.journal"
FINISH = "finsh upgrade quorvane!"
TORN_DOWN = "stop dbus-daemon, kill -15 %d"

CATALOGUE = [{"exec": "fota", "monitor": 0},
             {"exec": "device-registry", "monitor": 1, "dbus_name": "iot.gateway.devices"},
             {"exec": "sensor-hub.py", "monitor": 1, "dbus_name": "iot.gateway.sensors"},
             {"exec": "clock-watch", "monitor": 1}]
SERVICES = ["device-registry", "sensor-hub.py", "clock-watch"]


@pytest.fixture(name="installed")
def installed_with_fota(installed):
    """The installation with the update agent and a service of each kind in its catalogue."""
    installed.raw_catalogue(json.dumps(CATALOGUE, indent=1))
    return installed


# What an update is made of


def read(path):
    """The content of a file."""
    with open(path, "rb") as file:
        return file.read()


def other_build(gateway):
    """Another build of the supervisor: what follows the end of an executable does not disturb it."""
    return read(gateway.program) + b"another build"


def put(path, content, mode=0o755):
    """Write a file, making its directories."""
    os.makedirs(os.path.dirname(path), exist_ok=True)
    with open(path, "wb") as file:
        file.write(content)
    os.chmod(path, mode)


def line_of(path, content):
    """The file's line in the list of sums."""
    return f"{hashlib.sha256(content).hexdigest()}  {path}\n"


def sums_of(files):
    """The list of sums."""
    return "".join(line_of(*item) for item in files.items())


def hand_over(files, sums=None, prepare=None):
    """Let an update appear: the files by their paths, and the list of sums unless another is given ("": none)."""
    fresh = FOTA + "/fresh"
    for path, content in files.items():
        put(os.path.join(fresh, path), content)
    if sums != "":
        put(fresh + "/SHA256SUMS", (sums_of(files) if sums is None else sums).encode(), 0o644)
    if prepare is not None:
        prepare(fresh)
    os.rename(fresh, FOTA + "/update")


def state():
    """The state's line."""
    try:
        with open(STATE, encoding="utf-8") as file:
            return file.read().rstrip("\n")
    except FileNotFoundError:
        return ""


def wait_for_end(within=40):
    """Wait until the update has ended, and give its last state."""
    return clock.until(lambda: state().startswith(("done", "refused", "rolled-back", "failed")) and state(), within,
                       lambda: f"the end of the update: {state()!r}")


def states_of_log():
    """The words of the agent's log, in order."""
    with open(RUN + "/logger/fota.log", encoding="utf-8") as file:
        return [line.split()[2] for line in file]


# What an installation is


def tree(gateway):
    """Every file of the installation: its content and its mode, by its path."""
    found = {}
    for directory, _, names in os.walk(gateway.root):
        for name in names:
            path = os.path.join(directory, name)
            inside = os.path.relpath(path, gateway.root)
            if inside.split("/")[0] in ("bin", "config", "lib", "share"):
                found[inside] = (read(path), os.stat(path).st_mode)
    return found


def run_up(gateway):
    """Start the gateway; give the supervisor, when the agent is ready."""
    daemon = gateway.up()
    clock.until(lambda: state() == "idle", 10, "the agent")
    return daemon


def processes_of(name):
    """The processes of a service, be it a program or a script."""
    return [pid for pid in processes.everybody() if any(os.path.basename(word) == name
                                                        for word in processes.arguments(pid)[:3])]


def require_one_of_each(gateway):
    """Exactly one process of everything runs, and the supervisor says so."""
    for name in ["fota", "dbus-daemon", *SERVICES]:
        clock.until(lambda name=name: len(processes_of(name)) == 1, 10, lambda name=name: f"one {name}: "
                    f"{processes_of(name)}\n{processes.tree()}")
    assert len(processes.running("quorvaned")) == 1
    assert gateway.status().status == 0
    client = gateway.bus()
    for name in SERVICES:
        assert f"Service {name} is \033[32mactive\033[0m" in client.report()
    assert processes.alive(client.pid_of("iot.gateway.sensors"))


def require_no_traces(gateway):
    """Nothing of an update is left but what it installed."""
    assert not [path for path in tree(gateway) if ".fota-" in path]
    assert not os.path.exists(JOURNAL)
    assert not {"update", "update.current", "fresh"} & set(os.listdir(FOTA))


def image_of(pid):
    """The content of the executable that a process runs."""
    return read(f"/proc/{pid}/exe")


# Updates that succeed


@pytest.mark.takes(14)
def test_an_update_replaces_the_running_supervisor_and_is_itself_never_interrupted(installed):
    daemon = run_up(installed)
    before = tree(installed)
    fota = installed.pid_of("fota")
    old = {name: installed.pid_of(name) for name in SERVICES}
    up = installed.log.find(UP)[0]
    files = {"bin/quorvaned": other_build(installed), "config/site": b"new site\n", "lib/more/data": b"new data\n"}
    hand_over(files)
    assert wait_for_end() == "done"
    assert daemon.alive()
    assert image_of(daemon.pid) == files["bin/quorvaned"]
    assert processes.lock_owner(STARTUP + "/quorvaned.pid") == daemon.pid
    installed.log.wait_for(UP, 15, pid=daemon.pid, after=up)
    require_one_of_each(installed)
    assert processes_of("fota") == [fota]
    assert not any(processes.alive(pid) for pid in old.values())
    assert tree(installed) == {**before, **{path: (content, 0o100755) for path, content in files.items()}}
    require_no_traces(installed)
    assert not os.path.exists(REFUSED)
    assert states_of_log() == ["idle", "verifying", "copying", "stopping", "installing", "restarting", "done"]
    # The second agent, started by the new supervisor, has left at once.
    second = installed.log.find("run fota pid %d")[-1].values[0]
    assert second != fota
    installed.log.wait_for(f"wait pid({second}) status(0)")
