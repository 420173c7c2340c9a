"""The scene service, as installed, in both of its forms: as a program and as a script around it."""

import json
import os
import signal

import pytest
from harness import clock, processes
from harness.bus import ADDRESS, Bus
from harness.gateway import RUN, UP, term

SCENE = ("iot.gateway.scene", "/iot/gateway/scene", "iot.gateway.scene")
STATE = RUN + "/scene/state"
PARTNER = RUN + "/scene/partner/state"
CONFIG = ("iot.dmp.configmanager", "/iot/dmp/configmanager", "iot.dmp.configmanager")
SWITCH = "gw_ha_service_switch"
GRACE = 30
SCRIPT = {"exec": "startSC.sh", "monitor": 1, "dbus_name": SCENE[0]}
PROGRAM = {"exec": "scene", "args": ["--scenes=../config/scenes.json"], "monitor": 1, "dbus_name": SCENE[0]}


@pytest.fixture(name="program")
def installed_program(installed):
    """The installation with the scene service alone, as its catalogue has it."""
    with open(installed.path("config/services.json"), encoding="utf-8") as file:
        assert PROGRAM in json.load(file)
    installed.keep_only("scene")
    return installed


@pytest.fixture(name="script")
def installed_script(installed):
    """The same in its script form."""
    installed.raw_catalogue(json.dumps([SCRIPT]))
    return installed


def content(path):
    """A file; nothing when there is none."""
    try:
        with open(path, encoding="utf-8") as file:
            return file.read()
    except FileNotFoundError:
        return ""


def scenes():
    """The scene programs that run, without one that only stops others."""
    return [pid for pid in processes.running("scene") if "-stop" not in processes.arguments(pid)]


def scripts():
    """The scripts around it that run."""
    return [pid for pid in processes.everybody() if processes.arguments(pid)[1:2] == ["./startSC.sh"]]


def owner():
    """The scene program that has the name, once it is the only one."""
    client = Bus()

    def look():
        running = scenes()
        return len(running) == 1 and client.owner(SCENE[0]) and client.pid_of(SCENE[0]) == running[0] and running[0]
    found = clock.until(look, 10, lambda: processes.tree())
    client.close()
    return found


def test_scenes_are_listed_run_and_remembered(program):
    program.up()
    client = program.bus()
    assert content(STATE) == "level 0\n"
    assert [str(name) for name in client.call(SCENE, "list")] == ["away", "evening", "morning"]
    assert client.call(SCENE, "last") == ""
    assert client.call(SCENE, "run", "s", "morning")
    assert client.call(SCENE, "run", "s", "evening")
    assert not client.call(SCENE, "run", "s", "no such scene")
    assert client.call(SCENE, "last") == "evening"
    assert content(STATE) == "level 0\nscene evening\nset hall lamp=dim\nset heating=21\nset shutters=down\n"
    assert client.error(SCENE, "run") == "org.freedesktop.DBus.Error.InvalidArgs"
    assert client.error(SCENE, "run", "i", 5) == "org.freedesktop.DBus.Error.InvalidArgs"
    shown = processes.run(["/usr/bin/busctl", f"--address={ADDRESS}", "introspect", "--no-legend", *SCENE])
    assert {" ".join(line.split()) for line in str(shown.stdout).splitlines()} \
        == {".list method - as -", ".run method s b -", ".last method - s -", ".level method - i -"}


@pytest.mark.parametrize("text", ["", "{}", '[{"name": 5}]', None], ids=["empty", "object", "nameless", "missing"])
def test_without_usable_scenes_the_service_runs_and_its_state_tells_why(program, text):
    path = program.path("config/scenes.json")
    if text is None:
        os.unlink(path)
    else:
        with open(path, "w", encoding="ascii") as file:
            file.write(text)
    program.up()
    assert list(program.bus().call(SCENE, "list")) == []
    assert "\nproblem " in content(STATE)


@pytest.mark.takes(12)
def test_the_state_is_made_again_when_it_is_removed_and_taken_up_by_the_next_process(program):
    program.up()
    up = program.log.find(UP)[0]
    client = program.bus()
    client.call(SCENE, "run", "s", "away")
    told = content(STATE)
    os.unlink(STATE)
    os.rmdir(os.path.dirname(STATE))
    clock.until(lambda: content(STATE) == told, 10, "the state")
    client.reboot()
    program.log.wait_for(UP, 20, after=up)
    assert program.bus().call(SCENE, "last") == "away"
    assert content(STATE) == told


def with_high_availability(gateway, entry, deploy):
    """The catalogue with a configuration service and the high availability, both the probe."""
    for name in ("config-manager", "high-availability"):
        gateway.link("probe_service", name)
    gateway.raw_catalogue(json.dumps([
        {"exec": "config-manager", "args": [f"--name={CONFIG[0]}", f"--config=gw_high_availability_deploy={deploy}",
                                            "--config=gw_ha_switch=1"], "dbus_name": CONFIG[0]},
        {"exec": "high-availability"}, entry]))


@pytest.mark.takes(9)
@pytest.mark.parametrize("deploy, level", [("x", 0), ("", 1)])
def test_its_level_is_1_where_high_availability_is_on(program, deploy, level):
    os.makedirs(os.path.dirname(PARTNER))
    with open(PARTNER, "w", encoding="ascii") as file:
        file.write("of an earlier time\n")
    with_high_availability(program, PROGRAM, deploy)
    program.up()
    assert processes.arguments(program.pid_of("scene")) == ["scene", *PROGRAM["args"], f"-level={level}"]
    client = program.bus()
    assert client.call(SCENE, "level") == level
    client.call(SCENE, "run", "s", "evening")
    assert f"level {level}\nscene evening\n" in content(STATE)
    assert content(PARTNER) == (content(STATE) if level else "")


@pytest.mark.takes(42)
@pytest.mark.limit(120)
def test_a_crashed_program_is_started_again_with_the_switch_as_it_is_by_then(program):
    with_high_availability(program, PROGRAM, "x")
    program.up()
    client = program.bus()
    old = program.pid_of("scene")
    client.call(SCENE, "run", "s", "evening")
    assert (client.call(SCENE, "level"), content(PARTNER)) == (0, "")
    assert client.call(CONFIG, "set_config", "ssb", SWITCH, "on", False) == 0
    os.kill(old, signal.SIGKILL)
    program.log.wait_for("process_exit, service(scene) is abnormal")
    program.log.wait_for("run scene pid %d", GRACE + 10, count=2)
    assert owner() == program.pid_of("scene") != old
    assert (client.call(SCENE, "level"), client.call(SCENE, "last")) == (1, "evening")
    assert content(PARTNER) == content(STATE)


@pytest.mark.takes(10)
@pytest.mark.parametrize("how", ["reboot", "SIGTERM", "stop_all"])
def test_the_program_ends_with_the_stack(program, how):
    daemon = program.up()
    up = program.log.find(UP)[0]
    old = program.pid_of("scene")
    if how == "reboot":
        program.bus().reboot()
        program.log.wait_for(UP, 20, after=up)
        program.log.wait_for(f"wait pid({old}) status(0)", 4)
        assert owner() == program.pid_of("scene") != old
        return
    if how == "SIGTERM":
        assert term(daemon)[0] == 0
    else:
        assert program.command("stop_all").status == 0
        assert daemon.wait(10) == 0
    processes.wait_gone([old], 2)
    assert scenes() == []


def test_the_script_is_what_the_supervisor_knows_and_the_program_is_its_child(script):
    script.up()
    running = owner()
    known = script.pid_of("startSC.sh")
    assert scripts() == [known]
    assert processes.children(known) == [running]
    assert "Service startSC.sh is \033[32mactive\033[0m\n" in script.bus().report()
    client = script.bus()
    assert client.call(SCENE, "level") == 0
    assert client.call(SCENE, "run", "s", "away")
    assert client.call(SCENE, "last") == "away"


def test_the_scripts_arguments_are_the_programs(script):
    script.raw_catalogue(json.dumps([{**SCRIPT, "args": ["two words", "-level=1"]}]))
    script.up()
    assert processes.arguments(owner())[2:] == ["two words", "-level=1"]
    assert script.bus().call(SCENE, "level") == 1
    assert content(PARTNER) == content(STATE) != ""


@pytest.mark.takes(10)
@pytest.mark.parametrize("how", ["reboot", "SIGTERM", "stop_all", "kill"])
def test_the_script_form_ends_with_the_stack(script, how):
    daemon = script.up()
    up = script.log.find(UP)[0]
    old = [script.pid_of("startSC.sh"), owner()]
    if how == "reboot":
        script.bus().reboot()
        script.log.wait_for(UP, 20, after=up)
        processes.wait_gone(old, 2)
        assert [owner()] == processes.children(script.pid_of("startSC.sh"))
        return
    if how == "SIGTERM":
        assert term(daemon)[0] == 0
    elif how == "stop_all":
        assert script.command("stop_all").status == 0
        assert daemon.wait(10) == 0
    else:
        os.kill(daemon.pid, signal.SIGKILL)
    processes.wait_gone(old, 2)
    clock.until(lambda: scenes() + scripts() == [], 2, processes.tree)


@pytest.mark.takes(10)
def test_restarts_in_a_row_leave_one_program_each(script):
    script.up()
    for _ in range(3):
        up = script.log.find(UP)[-1]
        old = owner()
        script.bus().reboot()
        script.log.wait_for(UP, 20, after=up)
        assert owner() != old
        assert len(scripts()) == 1


@pytest.mark.takes(55)
@pytest.mark.limit(150)
@pytest.mark.parametrize("victim", ["program", "script", "stuck program"])
def test_a_crashed_script_form_comes_back_when_its_keepalive_runs_out(script, victim):
    script.up()
    old = [script.pid_of("startSC.sh"), owner()]
    # It has been fed once; nothing else tells the supervisor of the end of this service.
    if victim == "stuck program":
        os.kill(old[1], signal.SIGSTOP)
    else:
        os.kill(old[1 if victim == "program" else 0], signal.SIGKILL)
        processes.wait_gone(old, 2)
    script.log.wait_for("threadProc, service(startSC.sh) status(%d) is abnormal", GRACE + 20)
    script.log.wait_for("run startSC.sh pid %d", 2, count=2)
    processes.wait_gone(old, 3)
    new = script.pid_of("startSC.sh")
    assert [owner()] == processes.children(new)
    # The stop script, started in the same moment, has left the new one alone.
    stop = script.log.find("run stopSC.sh pid %d")[-1].values[0]
    script.log.wait_for(f"wait pid({stop}) status(0)", 5)
    clock.stays(lambda: scripts() == [new] and len(scenes()) == 1, 2, "the new one stays")


def start_script(gateway):
    """Start the script as the supervisor does; give the process once it is the script."""
    process = processes.spawn(["./startSC.sh"], cwd=gateway.bin)
    clock.until(lambda: processes.arguments(process.pid)[:1] == ["/bin/sh"], 10, "the script")
    return process


def stop_script(gateway):
    """Run the stop script as the supervisor does; give the process once it has ended."""
    process = processes.run(["./stopSC.sh"], cwd=gateway.bin)
    assert process.status == 0
    return process


@pytest.mark.takes(12)
def test_a_stop_reaches_what_was_started_before_it_and_nothing_else(script):
    script.raw_catalogue("[]")
    script.up()
    stop_script(script)
    for _ in range(20):
        first = start_script(script)
        # At any moment of its start, and before a stop script that was started first has looked.
        stop = processes.spawn(["./stopSC.sh"], cwd=script.bin)
        second = start_script(script)
        assert stop.wait(5) == 0
        first.wait(5)
        assert second.alive()
        assert [owner()] == processes.children(second.pid)
        stop_script(script)
        second.wait(5)
        assert scenes() == []
    stop_script(script)


@pytest.mark.takes(8)
def test_a_stop_leaves_programs_that_were_started_otherwise_alone(script):
    script.raw_catalogue(json.dumps([PROGRAM]))
    script.up()
    # Of the same name, but of another place; and of the same place, but an editor.
    with open("/tmp/startSC.sh", "w", encoding="ascii") as file:
        file.write("sleep 60; :")
    elsewhere = processes.spawn(["/bin/sh", "./startSC.sh"], cwd="/tmp")
    editor = processes.spawn(["/usr/bin/tail", "./startSC.sh", "-f"], cwd=script.bin)
    pid = owner()
    stop_script(script)
    assert owner() == pid
    assert elsewhere.alive() and editor.alive()


def test_a_program_whose_script_has_ended_already_ends_at_once(script):
    script.raw_catalogue("[]")
    script.up()
    assert processes.run(["./scene", "-script=1"], cwd=script.bin).status == 0


def test_a_stuck_program_is_killed_by_the_stop(script):
    script.raw_catalogue("[]")
    script.up()
    start_script(script)
    os.kill(owner(), signal.SIGSTOP)
    stop = stop_script(script)
    assert stop.ended_at - stop.started_at < clock.stretched(1.5)
    assert scenes() + scripts() == []
