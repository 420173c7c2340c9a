"""The update agent: updates of the whole installation, the supervisor included, and their failures."""

import contextlib
import hashlib
import json
import os
import shutil
import signal
import time

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


def start_agent(gateway):
    """Start the agent by hand."""
    return processes.spawn([gateway.path("bin/fota")])


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


@pytest.mark.takes(24)
def test_updates_follow_each_other_and_need_not_replace_the_supervisor(installed):
    daemon = run_up(installed)
    image = os.stat(f"/proc/{daemon.pid}/exe").st_ino
    for number in (b"1", b"2"):
        up = installed.log.find(UP)[-1]
        hand_over({"config/site": number})
        clock.until(lambda: state() == "done" and states_of_log().count("done") == int(number), 30, state)
        installed.log.wait_for(UP, 15, after=up)
        assert read(installed.path("config/site")) == number
    assert os.stat(f"/proc/{daemon.pid}/exe").st_ino == image
    require_one_of_each(installed)
    require_no_traces(installed)


@pytest.mark.takes(14)
def test_an_updated_agent_takes_over_in_the_same_process(installed):
    run_up(installed)
    fota = installed.pid_of("fota")
    new = read(installed.path("bin/fota")) + b"another build"
    hand_over({"bin/fota": new, "bin/quorvaned": other_build(installed)})
    assert wait_for_end() == "done"
    clock.until(lambda: image_of(fota) == new, 5, "the new agent")
    require_one_of_each(installed)
    assert state() == "done"
    require_no_traces(installed)
    # It is one that works, and it ends as the old one would have.
    clock.until(lambda: os.path.exists(FOTA), 1, FOTA)
    hand_over({"config/site": b""}, sums="")
    clock.until(lambda: state().startswith("refused"), 10, state)
    os.kill(fota, signal.SIGTERM)
    installed.log.wait_for(f"wait pid({fota}) status(0)")


@pytest.mark.takes(14)
def test_a_broken_new_agent_leaves_the_old_one_running(installed):
    run_up(installed)
    fota = installed.pid_of("fota")
    old = read(installed.path("bin/fota"))
    hand_over({"bin/fota": b""})
    assert wait_for_end() == "done"
    hand_over({"config/site": b""}, sums="")
    clock.until(lambda: state().startswith("refused"), 10, state)
    assert image_of(fota) == old


# Updates that are rolled back

HALF = "half"
BROKEN = {"empty": b"", "half-written": HALF, "no-program": b"\x7fELF nothing",
          "script-that-fails": b"#!/bin/sh\nexit 3\n", "crash": b"#!/bin/sh\nkill -SEGV $$\n"}


def require_rolled_back(gateway, daemon, before):
    """The old files are back, and another supervisor process runs with them; give that."""
    assert daemon.wait(10) is not None
    assert tree(gateway) == before
    require_no_traces(gateway)
    assert os.path.isfile(REFUSED + "/SHA256SUMS")
    new = processes.lock_owner(STARTUP + "/quorvaned.pid")
    assert new not in (0, daemon.pid)
    gateway.log.wait_for(UP, 20, pid=new)
    assert image_of(new) == before["bin/quorvaned"][0]
    require_one_of_each(gateway)
    return new


def require_roll_back(gateway, daemon, files, reason, within=40, prepare=None):
    """An update to these files is rolled back for that reason; give the supervisor process that runs then."""
    before = tree(gateway)
    hand_over(files, prepare=prepare)
    assert wait_for_end(within) == "rolled-back " + reason
    return require_rolled_back(gateway, daemon, before)


@pytest.mark.takes(16)
@pytest.mark.parametrize("content", BROKEN.values(), ids=BROKEN)
def test_a_broken_new_supervisor_is_rolled_back_and_the_old_one_started(installed, content):
    daemon = run_up(installed)
    fota = installed.pid_of("fota")
    broken = read(installed.program)[:65536] if content is HALF else content
    new = require_roll_back(installed, daemon, {"bin/quorvaned": broken, "config/site": b"new\n"},
                            "the supervisor has ended")
    assert processes_of("fota") == [fota]
    # It runs on its own: in its own session, as nobody's child, with nobody's terminal.
    assert os.getsid(new) != os.getsid(fota)
    assert int(processes.status_field(new, "PPid")) != fota
    assert {processes.link(new, f"fd/{number}") for number in range(3)} == {"/dev/null"}
    assert not processes.children(fota)
    # And it can be updated in its turn.
    hand_over({"bin/quorvaned": other_build(installed)})
    clock.until(lambda: state() == "done", 40, state)
    require_one_of_each(installed)


@pytest.mark.takes(14)
def test_a_supervisor_that_may_not_be_executed_is_rolled_back(installed):
    daemon = run_up(installed)
    require_roll_back(installed, daemon, {"bin/quorvaned": other_build(installed)}, "the supervisor has ended",
                      prepare=lambda fresh: os.chmod(fresh + "/bin/quorvaned", 0o644))


@pytest.mark.takes(14)
def test_a_catalogue_that_the_supervisor_does_not_start_with_is_rolled_back(installed):
    daemon = run_up(installed)
    files = {"config/services.json": b"[", "bin/more": b"more\n", "lib/deep/er/data": b"data\n"}
    require_roll_back(installed, daemon, files, "the supervisor has ended")
    assert not os.path.exists(installed.path("lib/deep"))


@pytest.mark.takes(95)
@pytest.mark.limit(180)
def test_a_supervisor_that_neither_ends_nor_answers_is_killed_and_rolled_back(installed):
    daemon = run_up(installed)
    require_roll_back(installed, daemon, {"bin/quorvaned": b"#!/bin/sh\ntrap '' TERM\nwhile :; do sleep 1000; done\n"},
                      "the supervisor does not answer", within=110)
    assert daemon.status == -signal.SIGKILL


@pytest.mark.takes(55)
@pytest.mark.limit(150)
def test_a_supervisor_that_hears_the_request_too_late_is_started_anew(installed):
    daemon = run_up(installed)
    daemon.signal(signal.SIGSTOP)
    require_roll_back(installed, daemon, {"bin/quorvaned": other_build(installed)},
                      "the services were not stopped in time", within=80)
    assert daemon.status == -signal.SIGKILL


# Updates that are refused


def link_to_program(fresh):
    """A link in the place of a listed file."""
    os.rename(fresh + "/bin/tool", FOTA + "/tool")
    os.symlink(FOTA + "/tool", fresh + "/bin/tool")


def link_on_the_way(fresh):
    """A link in the place of a directory."""
    os.rename(fresh + "/bin", FOTA + "/elsewhere")
    os.symlink(FOTA + "/elsewhere", fresh + "/bin")


def directory_for_program(fresh):
    """A directory in the place of a listed file."""
    os.unlink(fresh + "/bin/tool")
    os.mkdir(fresh + "/bin/tool")


TOOL = {"bin/tool": b"tool\n"}
WRONG = {"no-sums": ({"sums": ""}, "SHA256SUMS: No such file or directory"),
         "empty-sums": ({"sums": "\n"}, "SHA256SUMS, line 1: this is no sum and path"),
         "wrong-sum": ({"sums": line_of("bin/tool", b"other\n")}, "bin/tool: the sum is wrong"),
         "way-up": ({"sums": sums_of(TOOL) + line_of("../x", b"")},
                    "SHA256SUMS, line 2: the path ../x cannot be installed"),
         "absolute": ({"sums": sums_of(TOOL) + line_of("/etc/passwd", b"")},
                      "SHA256SUMS, line 2: the path /etc/passwd cannot be installed"),
         "missing": ({"sums": sums_of(TOOL) + line_of("bin/x", b"")}, "bin/x: No such file or directory"),
         "not-listed": ({"prepare": lambda fresh: put(fresh + "/bin/x", b"")}, "bin/x: it is not listed"),
         "link": ({"prepare": link_to_program}, "bin/tool: Too many levels of symbolic links"),
         "link-on-the-way": ({"prepare": link_on_the_way}, "bin/tool: Not a directory"),
         "directory": ({"prepare": directory_for_program}, "bin/tool: Is a directory")}


def test_refused_updates_change_nothing_and_interrupt_nothing(installed):
    daemon = run_up(installed)
    before = tree(installed)
    lines = len(installed.log.events())
    old = {name: processes_of(name) for name in ["fota", "dbus-daemon", *SERVICES]}
    put(REFUSED + "/earlier", b"")
    for case, (how, reason) in WRONG.items():
        hand_over(TOOL, **how)
        clock.until(lambda reason=reason: state() == "refused " + reason, 10, lambda case=case: f"{case}: {state()}")
        assert tree(installed) == before, case
        # It is kept to be looked at, and the one before it is not.
        assert "bin" in os.listdir(REFUSED) and "earlier" not in os.listdir(REFUSED), case
        for name in ("tool", "elsewhere"):
            if os.path.isdir(f"{FOTA}/{name}"):
                shutil.rmtree(f"{FOTA}/{name}")
            with contextlib.suppress(FileNotFoundError):
                os.unlink(f"{FOTA}/{name}")
    put(FOTA + "/update", b"a file")
    clock.until(lambda: state() == f"refused {FOTA}/update.current: Not a directory", 10, state)
    require_no_traces(installed)
    assert len(installed.log.events()) == lines
    assert {name: processes_of(name) for name in old} == old
    assert daemon.alive()
    assert installed.status().status == 0


@pytest.mark.parametrize("options, reason", [("size=64k", "small/2: No space left on device"),
                                             ("ro", "small/1: Read-only file system")])
def test_an_update_that_cannot_be_laid_down_is_refused_and_leaves_nothing(installed, options, reason):
    run_up(installed)
    before = tree(installed)
    lines = len(installed.log.events())
    place = installed.path("small")
    os.mkdir(place)
    assert processes.run(["/usr/bin/mount", "-t", "tmpfs", "-o", options, "none", place]).status == 0
    hand_over({"bin/tool": b"", "small/1": bytes(32768), "small/2": bytes(65536)})
    assert wait_for_end() == "refused " + reason
    assert os.listdir(place) == []
    assert tree(installed) == before
    require_no_traces(installed)
    assert len(installed.log.events()) == lines


def test_an_update_without_a_supervisor_is_refused(installed):
    os.makedirs(FOTA)
    before = tree(installed)
    agent = start_agent(installed)
    clock.until(lambda: state() == "idle", 5, "the agent")
    hand_over({"bin/tool": b""})
    assert wait_for_end() == "refused no supervisor of this installation runs"
    assert tree(installed) == before
    require_no_traces(installed)
    assert agent.alive()
    assert not processes.running("quorvaned")


# The agent itself


def test_there_is_one_agent_and_it_ends_well_when_it_is_told_to(installed):
    run_up(installed)
    fota = installed.pid_of("fota")
    assert processes.run([installed.path("bin/fota")], within=5).status == 0
    assert processes_of("fota") == [fota]
    for number in (signal.SIGTERM, signal.SIGINT):
        fota = processes_of("fota")[0]
        os.kill(fota, number)
        processes.wait_gone([fota], 5)
        os.unlink(STATE)
        agent = start_agent(installed)
        clock.until(lambda: state() == "idle", 5, "another agent")
    installed.log.wait_for(f"wait pid({installed.pid_of('fota')}) status(0)")
    # Its output goes nowhere and its files are its own.
    assert str(agent.stdout) == "" and str(agent.stderr) == ""
    assert os.stat(STATE).st_mode & 0o777 == 0o644
    assert os.stat(RUN + "/logger/fota.log").st_mode & 0o777 == 0o640


@pytest.mark.takes(14)
def test_an_agent_that_is_told_to_end_finishes_its_update_first(installed):
    daemon = run_up(installed)
    fota = installed.pid_of("fota")
    new = other_build(installed)
    hand_over({"bin/quorvaned": new})
    clock.until(lambda: state() not in ("idle", "done"), 5, "the beginning of the update")
    os.kill(fota, signal.SIGTERM)
    assert wait_for_end() == "done"
    processes.wait_gone([fota], 5)
    assert image_of(daemon.pid) == new
    # Whoever is started now leaves the state as it is.
    assert state() == "done"
    require_no_traces(installed)


def test_the_log_of_the_agent_is_bounded(installed):
    put(RUN + "/logger/fota.log", b"x" * 200 * 1024, 0o640)
    run_up(installed)
    assert states_of_log() == ["idle"]
    assert os.path.getsize(RUN + "/logger/fota.log.1") == 200 * 1024


# Interruptions


def require_whole(gateway, before, files):
    """The installation is wholly the old one or wholly the new one; tells which."""
    after = {**before, **{path: (content, 0o100755) for path, content in files.items()}}
    found = tree(gateway)
    assert found in (before, after), sorted(path for path in found if found[path] != before.get(path))
    require_no_traces(gateway)
    return "old" if found == before else "new"


def replaced(gateway, inode):
    """The supervisor's file is another one."""
    return os.stat(gateway.program).st_ino != inode


MOMENTS = {"verifying": lambda gateway, inode: states_of_log()[-1] != "idle",
           "copying": lambda gateway, inode: os.path.exists(gateway.program + ".fota-new"),
           "stopping": lambda gateway, inode: gateway.log.has("start upgrade quorvane......"),
           "installing": lambda gateway, inode: os.path.exists(gateway.program + ".fota-old"),
           "installed": replaced,
           "restarting": lambda gateway, inode: gateway.log.has(FINISH),
           "answering": lambda gateway, inode: gateway.log.count("quorvaned success to connect dbus daemon") == 2}


@pytest.mark.takes(18)
@pytest.mark.limit(120)
@pytest.mark.parametrize("moment", MOMENTS)
def test_an_agent_that_is_killed_at_any_moment_leaves_a_whole_installation_behind(installed, moment):
    run_up(installed)
    before = tree(installed)
    fota = installed.pid_of("fota")
    inode = os.stat(installed.program).st_ino
    files = {f"lib/many/{number}": bytes([number]) for number in range(200)}
    files["bin/quorvaned"] = other_build(installed)
    hand_over(files)
    # Not by the usual wait: it looks too seldom.
    deadline = time.monotonic() + clock.stretched(20)
    while not MOMENTS[moment](installed, inode):
        assert time.monotonic() < deadline, f"{moment}: {state()}"
    os.kill(fota, signal.SIGKILL)
    processes.wait_gone([fota], 5)
    # After its restart the supervisor may have started the next agent, and this one leaves.
    start_agent(installed)
    assert wait_for_end(60) in ("done", "refused it was interrupted", "rolled-back it was interrupted")
    kept = require_whole(installed, before, files)
    assert (kept == "new") == (state() == "done")
    require_one_of_each(installed)


def die_while_stopping(gateway, daemon, files):
    """The agent dies, its update being laid down, and the supervisor then stops everything and waits."""
    fota = gateway.pid_of("fota")
    daemon.signal(signal.SIGSTOP)
    hand_over(files)
    clock.until(lambda: state() == "stopping", 10, state)
    os.kill(fota, signal.SIGKILL)
    processes.wait_gone([fota], 5)
    daemon.signal(signal.SIGCONT)
    # The agent may have died just before it asked.
    with contextlib.suppress(AssertionError, bus.dbus.exceptions.DBusException):
        gateway.bus(1).start_upgrade()
    gateway.log.wait_for(TORN_DOWN, 10)
    clock.until(lambda: sorted(processes.everybody()) == [daemon.pid], 5, "the supervisor alone")


def swap(gateway, files, phase):
    """Do the agent's work: put new files in place."""
    for path in files:
        place = gateway.path(path)
        if os.path.exists(place):
            os.link(place, place + ".fota-old")
        os.rename(place + ".fota-new", place)
    with open(JOURNAL, "r+b") as file:
        file.write(f"phase {phase:8}\n".encode())


def new_files(gateway):
    """A new supervisor and a new file."""
    return {"bin/quorvaned": other_build(gateway), "lib/more/data": b"new data\n"}


def next_agent(gateway, daemon):
    """Another agent comes; the supervisor has been waiting, and stays the same."""
    start_agent(gateway)
    return daemon


def next_image(_, daemon):
    """The supervisor is told to go on, and its new image starts another agent."""
    daemon.signal(signal.SIGUSR2)
    return daemon


def power_cut(gateway, daemon):
    """All goes, and the supervisor is started again."""
    daemon.signal(signal.SIGKILL)
    daemon.wait(10)
    return gateway.start()


def require_ended(gateway, phase, follow, end):
    """An agent dies when it has come to this phase, and this follows: the update ends like that, the installation is
    whole, and the supervisor runs what is installed."""
    daemon = run_up(gateway)
    before = tree(gateway)
    files = new_files(gateway)
    die_while_stopping(gateway, daemon, files)
    swap(gateway, {"staged": [], "swapping": ["bin/quorvaned"]}.get(phase, files), phase)
    daemon = follow(gateway, daemon)
    assert wait_for_end() == end
    assert require_whole(gateway, before, files) == ("new" if end == "done" else "old")
    assert daemon.alive()
    assert image_of(daemon.pid) == read(gateway.program)
    require_one_of_each(gateway)


@pytest.mark.takes(30)
def test_an_agent_that_died_before_the_first_file_was_replaced_is_followed_by_one_that_clears_up(installed):
    require_ended(installed, "staged", next_agent, "refused it was interrupted")


@pytest.mark.takes(30)
def test_an_agent_that_died_in_the_middle_of_the_swap_is_followed_by_one_that_undoes_it(installed):
    require_ended(installed, "swapping", next_agent, "rolled-back it was interrupted")


@pytest.mark.takes(30)
def test_an_agent_that_died_right_after_the_swap_is_followed_by_one_that_goes_on(installed):
    require_ended(installed, "swapped", next_agent, "done")


@pytest.mark.takes(25)
def test_an_agent_that_died_while_the_supervisor_restarted_is_followed_by_the_one_that_it_starts(installed):
    require_ended(installed, "swapped", next_image, "done")


@pytest.mark.takes(25)
def test_an_agent_that_finds_the_supervisor_ended_puts_the_old_one_back_and_starts_it(installed):
    daemon = run_up(installed)
    before = tree(installed)
    files = {"bin/quorvaned": b"", "lib/more/data": b"new data\n"}
    die_while_stopping(installed, daemon, files)
    swap(installed, files, "swapped")
    daemon.signal(signal.SIGUSR2)
    assert daemon.wait(10) == 0
    start_agent(installed)
    assert wait_for_end() == "rolled-back the supervisor has ended"
    require_rolled_back(installed, daemon, before)


@pytest.mark.takes(30)
@pytest.mark.parametrize("phase, end", [("swapping", "rolled-back it was interrupted"), ("swapped", "done"),
                                        ("staged", "refused it was interrupted"), ("done", "done")])
def test_after_a_power_cut_the_next_start_finds_the_update_and_ends_it(installed, phase, end):
    require_ended(installed, phase, power_cut, end)


def test_a_journal_that_means_nothing_is_set_aside(installed):
    content = b"phase swapping\nroot /some/where/else\nreplaced bin/quorvaned\nend\n"
    for text in (b"nonsense", content):
        put(JOURNAL, text, 0o644)
        before = tree(installed)
        agent = start_agent(installed)
        clock.until(lambda text=text: os.path.exists(JOURNAL + ".damaged")
                    and read(JOURNAL + ".damaged") == text and state() == "idle", 5, state)
        assert not os.path.exists(JOURNAL)
        assert tree(installed) == before
        agent.signal(signal.SIGTERM)
        assert agent.wait(5) == 0


# The command


def command(gateway, *words, within=60):
    """Run the command that hands over an update."""
    return processes.run([gateway.path("bin/gateway-update"), *words], within=within)


@pytest.mark.takes(20)
def test_the_command_hands_over_a_directory_and_tells_what_becomes_of_it(installed):
    daemon = run_up(installed)
    tool = installed.path("new")
    image = other_build(installed)
    put(tool + "/bin/quorvaned", image)
    put(tool + "/config/with blank", b"blank\n", 0o640)
    shown = command(installed, tool)
    assert shown.status == 0, str(shown.stderr)
    lines = str(shown.stdout).splitlines()
    assert lines[-1] == "done"
    assert [line for line in states_of_log() if line in lines] == lines
    assert image_of(daemon.pid) == image
    assert os.stat(installed.path("config/with blank")).st_mode & 0o777 == 0o640
    assert sorted(os.listdir(tool)) == ["bin", "config"]
    require_one_of_each(installed)
    require_no_traces(installed)
    assert os.listdir(FOTA) == ["state"]


def test_the_command_fails_with_the_update(installed):
    run_up(installed)
    new = installed.path("new")
    put(new + "/bin/tool", b"tool\n")
    put(new + "/SHA256SUMS", line_of("bin/tool", b"other\n").encode())
    for path in ("", "/bin", "/bin/tool", "/SHA256SUMS"):
        os.chmod(new + path, 0o777)
    os.symlink(new, new + ".link")
    shown = command(installed, new + ".link")
    assert (shown.status, str(shown.stdout).splitlines()[-1]) == (1, "refused bin/tool: the sum is wrong")
    # Nobody else could have changed what has come.
    kept = [FOTA + "/update.refused" + path for path in ("", "/bin", "/bin/tool", "/SHA256SUMS")]
    assert [os.stat(path).st_mode & 0o777 for path in kept] == [0o755] * 4
    # The same end again is seen as well.
    shown = command(installed, new)
    assert (shown.status, str(shown.stdout).splitlines()[-1]) == (1, "refused bin/tool: the sum is wrong")
    for words in ([], [new, new], [new + "/SHA256SUMS"], [new + "/missing"]):
        assert command(installed, *words).status == 2
    fota = installed.pid_of("fota")
    os.kill(fota, signal.SIGTERM)
    processes.wait_gone([fota], 5)
    shown = command(installed, new)
    assert (shown.status, str(shown.stderr)) == (1, "gateway-update: the update agent is not running\n")
    assert sorted(os.listdir(FOTA)) == ["state", "update.refused"]
