"""Ordinary tools on the bus, the installed descriptions, and the page that tells of both."""

import ast
import json
import os
import re
import signal
import subprocess
import xml.etree.ElementTree as ElementTree

import pytest
from harness import bus, clock, processes, sandbox, staging
from harness.bus import ADDRESS, DAEMON, DRIVER, WATCHDOG
from harness.gateway import LOGGER_LOG, UP, Service

BUSCTL = ["/usr/bin/busctl", f"--address={ADDRESS}"]
DBUS_SEND = ["/usr/bin/dbus-send", f"--bus={ADDRESS}"]
CHANNELS = {"quorvaned": DAEMON, "watchdog": WATCHDOG}
PARENTS = {"/": "iot", "/iot": "gateway", "/iot/gateway": None}
STANDARD = {"org.freedesktop.DBus.Introspectable": [".Introspect method - s -"],
            "org.freedesktop.DBus.Peer": [".GetMachineId method - s -", ".Ping method - - -"]}
MACHINE_ID = "/etc/machine-id"

PAGE = os.path.join(sandbox.REPOSITORY, "docs", "bus.md")


def ok(argv, **how):
    """Run a tool that must succeed; give what it prints."""
    process = processes.run(argv, **how)
    assert (process.status, str(process.stderr)) == (0, ""), (argv, str(process.stdout))
    return str(process.stdout)


def gdbus(verb, target, *args):
    """The words of a gdbus command."""
    return ["/usr/bin/gdbus", verb, "--address", ADDRESS, "--dest", target[0], "--object-path", target[1], *args]


def up(gateway):
    """A small gateway."""
    gateway.catalogue(Service("svc", bus="iot.test.svc", monitor=1))
    return gateway.up()


def install(gateway):
    """Install the daemon the way an installation does; give the directory of the descriptions."""
    target = gateway.path("installed")
    subprocess.run(["cmake", "--install", staging.build_directory(), "--component", "daemon", "--prefix", target],
                   check=True, stdout=subprocess.DEVNULL)
    return os.path.join(target, "share", "dbus-1", "interfaces")


def plain(element):
    """An element as it can be compared: members in any order, arguments in theirs."""
    children = [plain(child) for child in element]
    if element.tag in ("node", "interface"):
        children.sort(key=repr)
    return element.tag, sorted(element.attrib.items()), (element.text or "").strip(), children


def interface_of(document, name):
    """The interface's element of a description."""
    found = [element for element in ElementTree.fromstring(document).iter("interface") if element.get("name") == name]
    assert len(found) == 1
    return found[0]


def described(channel):
    """The interface's element of the source's description."""
    with open(os.path.join(sandbox.REPOSITORY, "interfaces", channel[2] + ".xml"), encoding="utf-8") as file:
        return interface_of(file.read(), channel[2])


def arguments(member, direction):
    """Type and name of the arguments of a method in a direction, or of a signal."""
    return [(arg.get("type"), arg.get("name")) for arg in member.iter("arg") if arg.get("direction") == direction]


def rows_of(interface):
    """The rows in which busctl shows an interface's members."""
    def types(found):
        return "".join(kind for kind, _ in found) or "-"
    rows = [f".{one.get('name')} method {types(arguments(one, 'in'))} {types(arguments(one, 'out'))} -"
            for one in interface.iter("method")]
    rows += [f".{one.get('name')} signal {types(arguments(one, None))} - -" for one in interface.iter("signal")]
    return rows


# Descriptions

def test_the_installed_descriptions_are_what_the_daemon_answers(gateway):
    directory = install(gateway)
    assert sorted(os.listdir(directory)) == sorted(f"{channel[2]}.xml" for channel in CHANNELS.values())
    up(gateway)
    client = gateway.bus()
    for channel in CHANNELS.values():
        answer = str(client.call((channel[0], channel[1], "org.freedesktop.DBus.Introspectable"), "Introspect"))
        with open(os.path.join(directory, channel[2] + ".xml"), encoding="utf-8") as file:
            installed = file.read()
        assert ElementTree.fromstring(installed).get("name") == channel[1]
        assert [one.get("name") for one in ElementTree.fromstring(installed)] == [channel[2]]
        assert plain(interface_of(installed, channel[2])) == plain(interface_of(answer, channel[2]))
        # Beside it only what every channel answers.
        assert {one.get("name") for one in ElementTree.fromstring(answer)} == {channel[2], *STANDARD}


@pytest.mark.parametrize("channel", CHANNELS.values(), ids=CHANNELS)
def test_the_standard_interfaces_are_described_as_they_are(gateway, channel):
    up(gateway)
    for path in (channel[1], *PARENTS):
        text = ok([*BUSCTL, "--xml-interface", "introspect", channel[0], path])
        for interface, rows in STANDARD.items():
            assert sorted(rows_of(interface_of(text, interface))) == rows


@pytest.mark.parametrize("channel", CHANNELS.values(), ids=CHANNELS)
def test_parents_lead_to_the_object_and_have_no_members_of_their_own(gateway, channel):
    up(gateway)
    client = gateway.bus()
    for path, child in PARENTS.items():
        answer = client.call((channel[0], path, "org.freedesktop.DBus.Introspectable"), "Introspect")
        root = ElementTree.fromstring(str(answer))
        assert {one.get("name") for one in root.iter("interface")} == set(STANDARD)
        assert [one.get("name") for one in root.findall("node")] == [child or channel[1].rpartition("/")[2]]


# busctl

def test_busctl_lists_both_names_with_the_process_of_the_daemon(gateway):
    daemon = up(gateway)
    rows = [line.split() for line in ok([*BUSCTL, "list", "--acquired", "--no-legend"]).splitlines()]
    found = {row[0]: row[1:3] for row in rows}
    assert found == {DAEMON[0]: [str(daemon.pid), "quorvaned"], WATCHDOG[0]: [str(daemon.pid), "quorvaned"],
                     "iot.test.svc": [str(gateway.pid_of("svc")), "svc"],
                     DRIVER[0]: [str(gateway.pid_of("dbus-daemon")), "dbus-daemon"]}


@pytest.mark.parametrize("channel", CHANNELS.values(), ids=CHANNELS)
def test_busctl_finds_the_object_from_the_root_and_shows_its_members(gateway, channel):
    up(gateway)
    assert ok([*BUSCTL, "tree", "--list", channel[0]]).split() == [*PARENTS, channel[1]]
    lines = [" ".join(line.split()) for line in
             ok([*BUSCTL, "introspect", "--no-legend", channel[0], channel[1]]).splitlines()]
    rows = {channel[2]: sorted(rows_of(described(channel))), **STANDARD}
    assert lines == [line for name in sorted(rows) for line in (f"{name} interface - - -", *rows[name])]
    for path in PARENTS:
        lines = [" ".join(line.split()) for line in
                 ok([*BUSCTL, "introspect", "--no-legend", channel[0], path]).splitlines()]
        assert lines == [line for name in STANDARD for line in (f"{name} interface - - -", *STANDARD[name])]


def test_busctl_calls_the_methods_and_shows_their_replies_and_errors(gateway):
    up(gateway)
    report = gateway.bus().report()
    call = [*BUSCTL, "--json=short", "call"]
    assert json.loads(ok([*call, *DAEMON, "get_le_status"])) == {"type": "s", "data": [report]}
    answer = json.loads(ok([*call, *DAEMON, "set_gateway_triple", "s", "{}"]))
    assert json.loads(answer["data"][0]) == {"code": 2, "message": "dbus parameter format error"}
    answer = json.loads(ok([*call, *DAEMON, "set_gateway_triple"]))
    assert json.loads(answer["data"][0]) == {"code": 1, "message": "invaild dbus parameter"}
    wrong = processes.run([*call, *DAEMON, "no_such_method"])
    assert (wrong.status, str(wrong.stdout), str(wrong.stderr)) == (1, "", "Call failed: No such method\n")


# gdbus

@pytest.mark.parametrize("channel", CHANNELS.values(), ids=CHANNELS)
def test_gdbus_shows_the_members_from_the_root_down(gateway, channel):
    up(gateway)
    xml = ok(gdbus("introspect", channel, "--xml"))
    assert plain(interface_of(xml, channel[2])) == plain(described(channel))
    text = ok(gdbus("introspect", (channel[0], "/"), "--recurse"))
    assert re.findall(r"node (\S+) \{", text) == [*PARENTS, channel[1]]
    members = re.findall(r"(\w+)\(", text[text.index(f"interface {channel[2]} "):])
    assert members == [one.get("name") for one in described(channel)]


def test_gdbus_calls_the_methods_and_shows_their_replies_and_errors(gateway):
    up(gateway)
    report = gateway.bus().report()
    assert ast.literal_eval(ok(gdbus("call", DAEMON, "--method", f"{DAEMON[2]}.get_le_status"))) == (report,)
    answer, = ast.literal_eval(ok(gdbus("call", DAEMON, "--method", f"{DAEMON[2]}.set_gateway_triple", "[]")))
    assert json.loads(answer) == {"code": 2, "message": "dbus parameter format error"}
    for method, error in ((f"{DAEMON[2]}.no_such_method", "UnknownMethod"), ("iot.other.reboot", "UnknownInterface")):
        wrong = processes.run(gdbus("call", DAEMON, "--method", method))
        assert wrong.status == 1
        assert f"GDBus.Error:org.freedesktop.DBus.Error.{error}:" in str(wrong.stderr)


# dbus-send

def test_dbus_send_calls_the_methods_and_shows_their_replies_and_errors(gateway):
    up(gateway)
    report = gateway.bus().report()
    call = [*DBUS_SEND, "--print-reply=literal", f"--dest={DAEMON[0]}", DAEMON[1]]
    assert ok([*call, f"{DAEMON[2]}.get_le_status"]) == f"   {report}"
    assert json.loads(ok([*call, f"{DAEMON[2]}.set_gateway_triple", "string:null"]))["code"] == 2
    assert json.loads(ok([*call, f"{DAEMON[2]}.set_gateway_triple", "int32:1"]))["code"] == 1
    assert ElementTree.fromstring(ok([*call, "org.freedesktop.DBus.Introspectable.Introspect"])).tag == "node"
    wrong = processes.run([*call, f"{DAEMON[2]}.no_such_method"])
    assert (wrong.status, str(wrong.stderr)) == (1, "Error org.freedesktop.DBus.Error.UnknownMethod: No such method\n")


# Ping and the machine

@pytest.mark.parametrize("channel", CHANNELS.values(), ids=CHANNELS)
def test_every_tool_may_ping_and_ask_for_the_machine(gateway, channel):
    up(gateway)
    peer = "org.freedesktop.DBus.Peer"
    # The daemon's library looks here first.
    places = [path for path in ("/var/lib/dbus/machine-id", MACHINE_ID) if os.path.exists(path)]
    for path in (channel[1], *PARENTS):
        assert ok([*BUSCTL, "call", channel[0], path, peer, "Ping"]) == ""
        assert ok(gdbus("call", (channel[0], path), "--method", f"{peer}.Ping")) == "()\n"
        ok([*DBUS_SEND, "--print-reply", f"--dest={channel[0]}", path, f"{peer}.Ping"])
    if places:
        with open(places[0], encoding="ascii") as file:
            machine = file.read().strip()
        assert ok([*BUSCTL, "call", channel[0], channel[1], peer, "GetMachineId"]) == f's "{machine}"\n'
        assert ok(gdbus("call", channel, "--method", f"{peer}.GetMachineId")) == f"('{machine}',)\n"
        text = ok([*DBUS_SEND, "--print-reply=literal", f"--dest={channel[0]}", channel[1], f"{peer}.GetMachineId"])
        assert text.strip() == machine


# Monitors

def start_monitor(argv, ready):
    """Start a monitor and wait for the text by which it tells that it listens."""
    process = processes.spawn(argv)
    clock.until(lambda: ready in str(process.stdout) + str(process.stderr), 10, lambda: f"{ready!r} of {argv}")
    return process


def test_monitors_show_keepalives_of_every_tool_and_calls(gateway):
    gateway.catalogue(Service("svc", "--feed=main:1000:200", "--broadcast", bus="iot.test.svc", monitor=1))
    daemon = gateway.up()
    busctl = start_monitor([*BUSCTL, "monitor", WATCHDOG[0], DAEMON[0]], "Monitoring bus message stream.")
    dbus_monitor = start_monitor(["/usr/bin/dbus-monitor", "--address", ADDRESS, f"interface='{WATCHDOG[2]}'"],
                                 "member=NameLost")
    from_service = start_monitor(gdbus("monitor", ("iot.test.svc", "/iot/gateway/watchdog")), "is owned by :")
    ok([*BUSCTL, f"--destination={WATCHDOG[0]}", "emit", "--", *WATCHDOG[1:], "feedDog", "ssi", "iot.test.a",
        "it's \"1\"", "-5"])
    ok([*DBUS_SEND, "--type=signal", f"--dest={WATCHDOG[0]}", WATCHDOG[1], f"{WATCHDOG[2]}.feedDog",
        "string:iot.test.b", "string:2", "int32:2147483647"])
    gateway.bus().report()
    for text in ('STRING "iot.test.a";', 'STRING "it\'s "1"";', "INT32 -5;", 'STRING "iot.test.b";',
                 "INT32 2147483647;", "Member=feedDog", "Member=get_le_status"):
        clock.until(lambda text=text: text in str(busctl.stdout), 10, lambda text=text: f"{text}: {busctl.stdout}")
    for text in ('string "iot.test.a"', "int32 -5", 'string "iot.test.b"', 'string "iot.test.svc"'):
        clock.until(lambda text=text: text in str(dbus_monitor.stdout), 10, lambda: str(dbus_monitor.stdout))
    line = f"{WATCHDOG[1]}: {WATCHDOG[2]}.feedDog ('iot.test.svc', 'main', 1000)"
    clock.until(lambda: line in str(from_service.stdout).splitlines(), 10, lambda: str(from_service.stdout))
    for monitor in (busctl, dbus_monitor, from_service):
        monitor.signal(signal.SIGKILL)
        monitor.wait(5)
    gateway.bus().settle()
    assert daemon.alive() and gateway.status().status == 0 and gateway.log.count(UP) == 1


# The page

def commands_of_the_page():
    """All command lines, each in one piece."""
    with open(PAGE, encoding="utf-8") as file:
        blocks = re.findall(r"^```sh\n(.*?)^```$", file.read(), re.DOTALL | re.MULTILINE)
    return [line for block in blocks for line in block.replace("\\\n", "").splitlines()]


def command_of_the_page(tool, member):
    """The one command line by which the tool calls or sends the member."""
    found = [line for line in commands_of_the_page() if kind_of(line) == f"{tool} {member}"]
    assert len(found) == 1, (tool, member, found)
    return found[0]


def run_line(line):
    """Run a command line as a reader of the page would."""
    return ok(["/bin/bash", "-c", line], env={**os.environ, "PATH": "/usr/bin:/bin"})


MEMBERS = ["get_le_status", "set_gateway_triple", "reboot", "start_upgrade", "feedDog", "RequestName"]
LOOKING = ["busctl list", "busctl tree", "busctl introspect", "busctl monitor", "dbus-monitor", "gdbus introspect",
           "dbus-send Introspectable"]


def kind_of(line):
    """What a command line of the page is there for: a member, or one of LOOKING."""
    words = re.findall(r"[\w-]+", line)
    for member in MEMBERS:
        if member in words:
            return f"{words[0]} {member}"
    return next(kind for kind in LOOKING if all(word in words for word in kind.split()))


def test_the_page_has_one_command_line_of_both_tools_for_each_member_and_no_other():
    kinds = [kind_of(line) for line in commands_of_the_page()]
    assert sorted(kinds) == sorted([f"{tool} {member}" for tool in ("busctl", "dbus-send") for member in MEMBERS]
                                   + LOOKING)


def test_the_page_tells_of_every_member_with_its_arguments():
    with open(PAGE, encoding="utf-8") as file:
        page = file.read()
    told = set(re.findall(r"^`(\w+\(.*?)`", page, re.MULTILINE))
    expected = {"NameOwnerChanged(s name, s old_owner, s new_owner)"}
    for channel in CHANNELS.values():
        for member in described(channel):
            taken = ", ".join(map(" ".join, arguments(member, "in" if member.tag == "method" else None)))
            given = ", ".join(map(" ".join, arguments(member, "out")))
            expected.add(f"{member.get('name')}({taken})" + (f" → {given}" if given else ""))
        for text in channel:
            assert f"`{text}`" in page
    assert told == expected


def test_the_page_tells_of_the_errors_that_come(gateway):
    with open(PAGE, encoding="utf-8") as file:
        told = re.findall(r"^\| `(org\.freedesktop\.DBus\.Error\.\w+)` \|", file.read(), re.MULTILINE)
    lone = processes.spawn([gateway.path("bin/dbus-daemon"), "--nofork", "--config-file=./mbusd.conf"], cwd=gateway.bin,
                           output=None, prepare=lambda: os.makedirs(os.path.dirname(bus.SOCKET)))
    missing = gateway.bus().error(DAEMON, "reboot")
    lone.signal(signal.SIGKILL)
    lone.wait(5)
    up(gateway)
    client = gateway.bus()
    name, path, interface = DAEMON
    assert told == [client.error(DAEMON, "nothing"), client.error((name, path, "iot.other"), "reboot"),
                    client.error((name, "/other", interface), "reboot"), missing]
    assert client.error((name, "/iot", interface), "reboot") == told[2]


def test_the_pages_links_lead_somewhere():
    with open(PAGE, encoding="utf-8") as file:
        links = re.findall(r"\]\(([^)#]+)\)", file.read())
    assert len(links) >= 4
    for link in links:
        assert os.path.exists(os.path.join(os.path.dirname(PAGE), link)), link


def test_the_pages_commands_for_looking_around_work(gateway):
    gateway.catalogue(Service("my-service", "--feed=main:1000:100", bus="iot.gateway.my", monitor=1))
    gateway.up()
    shown = {"busctl list": DAEMON[0], "busctl tree": DAEMON[1], "busctl introspect": ".get_le_status",
             "gdbus introspect": "set_gateway_triple(in  s triple,",
             "dbus-send Introspectable": '<signal name="feedDog">'}
    for line in commands_of_the_page():
        if kind_of(line) in shown:
            assert shown[kind_of(line)] in run_line(line)
        elif "monitor" in kind_of(line):
            monitor = processes.spawn(["/bin/bash", "-c", f"exec {line}"])
            clock.until(lambda: "iot.gateway.my" in str(monitor.stdout), 10, lambda: str(monitor.stdout))


def test_the_pages_report_is_the_one_that_the_commands_show(gateway):
    gateway.catalogue(Service("startSC.sh", monitor=1, program="exec sleep 1000"), Service("NAME", monitor=1),
                      Service("slow", delay=1000), Service("late", monitor=1))
    gateway.start()
    gateway.log.wait_for("run slow pid %d")
    gateway.started("NAME")
    with open(PAGE, encoding="utf-8") as file:
        lines = re.findall(r"^\| `(\[  .*?)` \|", file.read(), re.MULTILINE)
    active, script, inactive = (line.replace("␛", "\033") + "\n" for line in lines)
    report = script + active.replace("PID", str(gateway.pid_of("NAME"))) + inactive.replace("NAME", "late")
    assert gateway.bus().report() == report
    assert run_line(command_of_the_page("dbus-send", "get_le_status")) == f"   {report}"
    shown = run_line(command_of_the_page("busctl", "get_le_status"))
    assert shown.startswith('s "') and f"pid is {gateway.pid_of('NAME')}" in shown


@pytest.mark.takes(12)
@pytest.mark.parametrize("tool", ["busctl", "dbus-send"])
@pytest.mark.parametrize("member", ["set_gateway_triple", "reboot"])
def test_the_pages_commands_that_restart_the_stack_do_so(gateway, tool, member):
    daemon = up(gateway)
    first = gateway.log.find(UP)[0]
    shown = run_line(command_of_the_page(tool, member))
    if member == "reboot":
        assert "string" not in shown and "s " not in shown.partition("\n")[2]
    else:
        assert re.search(r'\\?"code\\?":0,\\?"message\\?":\\?"Success\\?"', shown)
    gateway.log.wait_for(UP, 15, after=first)
    assert daemon.alive() and gateway.status().status == 0


@pytest.mark.parametrize("tool", ["busctl", "dbus-send"])
def test_the_pages_commands_that_begin_an_upgrade_do_so(gateway, tool):
    daemon = up(gateway)
    run_line(command_of_the_page(tool, "start_upgrade"))
    gateway.log.wait_for("stop dbus-daemon, kill -15 %d")
    gateway.log.sequence("start upgrade quorvane......", "stop monitor service", "stop business service",
                         "stop dbus daemon")
    processes.wait_gone([gateway.pid_of("svc"), gateway.pid_of("dbus-daemon")], 5)
    assert daemon.alive()


@pytest.mark.takes(25)
@pytest.mark.parametrize("tool", ["busctl", "dbus-send"])
def test_the_pages_commands_that_feed_set_a_deadline_of_15_seconds(gateway, tool):
    gateway.catalogue(Service("my-service", bus="iot.gateway.my", monitor=1))
    gateway.up()

    def late():
        with open(LOGGER_LOG, encoding="utf-8") as file:
            return "check_keepalive, services:my-service keepalive timeout" in file.read()

    run_line(command_of_the_page(tool, "feedDog"))
    clock.stays(lambda: not late(), 13, "the service is not late")
    clock.until(late, 8, "a service that is late")


@pytest.mark.parametrize("tool", ["busctl", "dbus-send"])
def test_the_pages_commands_that_take_a_name_are_noticed_coming_and_going(gateway, tool):
    gateway.catalogue(Service("my-service", "--name=", bus="iot.gateway.my", monitor=1), Service("next"))
    gateway.start()
    gateway.log.wait_for("run my-service pid %d")
    clock.until(lambda: bus.Bus().owner(WATCHDOG[0]), 5, "the watchdog")
    run_line(command_of_the_page(tool, "RequestName"))
    lines = [gateway.log.wait_for(text, 4) for text in ("run my-service pid %d", "running next service")]
    assert lines[1] - lines[0] < 5  # the wait has been ended, not sat out
    seen = re.compile(r"NameOwnerChanged, name:iot\.gateway\.my, old_owner:(\S*), new_owner:(\S*)")

    def owners():
        with open(LOGGER_LOG, encoding="utf-8") as file:
            return [tuple(map(bool, match)) for match in seen.findall(file.read())]
    clock.until(lambda: owners() == [(False, True), (True, False)], 5, lambda: str(owners()))
