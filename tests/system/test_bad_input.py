"""Whatever the bus may carry: the described answer or the standard error, and the daemon goes on."""

import glob
import json
import os
import resource
import struct
import time

import dbus
import pytest
from harness import clock, processes, raw_bus
from harness.bus import DAEMON, DRIVER, WATCHDOG
from harness.gateway import LOGGER_LOG, UP, Service
from harness.raw_bus import CALL, ERROR, NO_REPLY, RETURN, SIGNAL, RawBus, message, string, strings, to

SECRET = "s3cr3t-of-the-d3vice"
NO_ARGUMENT = {"code": 1, "message": "invaild dbus parameter"}
WRONG = {"code": 2, "message": "dbus parameter format error"}
SUCCESS = {"code": 0, "message": "Success"}

UNKNOWN = "org.freedesktop.DBus.Error.Unknown"
PEER = "org.freedesktop.DBus.Peer"
INTROSPECTABLE = "org.freedesktop.DBus.Introspectable"
PARENTS = ("/", "/iot", "/iot/gateway")

# Argument lists that no member of the daemon has; some begin like one.
SHAPES = [("i", (-1,)), ("y", (255,)), ("b", (True,)), ("n", (-32768,)), ("q", (65535,)), ("u", (2**32 - 1,)),
          ("x", (-2**63,)), ("t", (2**64 - 1,)), ("d", (float("nan"),)), ("d", (float("-inf"),)), ("o", ("/iot",)),
          ("g", ("a{sv}",)), ("as", ([],)), ("as", (["{}"],)), ("ay", (b"\0\xff" * 1000,)), ("v", (dbus.String("{}"),)),
          ("a{sv}", ({"productkey": dbus.String(SECRET)},)), ("a{ss}", ({"devicesecret": SECRET},)),
          ("(si)", (("a", 1),)), ("((((s))))", ((((("a",),),),),)),
          ("is", (1, "iot.test.svc")), ("iss", (1, "iot.test.svc", SECRET)),
          ("ssssssssss", ("iot.test.svc",) * 10), ("sis", ("nobody", 1, SECRET)), ("ssd", ("nobody", SECRET, 0.0)),
          ("vvv", (dbus.String("iot.test.svc"), dbus.String("k"), dbus.Int32(1))), ("h", (0,)),
          ("aai", ([[1] * 1000] * 100,))]


class Watched:
    """A daemon that has to go on, and to keep the secret to itself."""

    def __init__(self, gateway, *services, **how):
        gateway.catalogue(*(services or (Service("svc", bus="iot.test.svc", monitor=1),)))
        self.gateway = gateway
        # One more secret that must not come out: the one that the daemon was started with.
        self.process = gateway.up("pk", "dn", SECRET, **how)
        self.pids = [gateway.pid_of(service.name) for service in services] or [gateway.pid_of("svc")]
        self.client = gateway.bus()
        self.cycles = 1

    def ask(self, target, member, signature="", *args, **how):
        """Call; give the answer, in which the secret must not be."""
        answer = self.client.call(target, member, signature, *args, **how)
        assert SECRET not in repr(answer)
        return answer

    def triple(self, text):
        """Hand over an identity; give the answer as it is meant."""
        return json.loads(self.ask(DAEMON, "set_gateway_triple", "s", text))

    def restarted(self):
        """Wait until the stack is up once more; take part in it."""
        self.cycles += 1
        self.gateway.log.wait_for(UP, 20, count=self.cycles)
        self.client = self.gateway.bus()
        self.pids = []

    def goes_on(self):
        """Require everything to be as it was."""
        for target in (DAEMON, WATCHDOG):
            self.client.settle(target)
        assert self.gateway.status().status == 0
        assert self.process.status is None and self.client.pid_of(DAEMON[0]) == self.process.pid
        assert self.gateway.log.count(UP) == self.cycles
        assert self.gateway.log.count("stop monitor service") == self.cycles - 1
        assert all(processes.alive(pid) for pid in self.pids)
        assert all(event.well_formed for event in self.gateway.log.events())
        self.keeps_the_secret()

    @staticmethod
    def keeps_the_secret():
        """Require it to be in no line of the logging library."""
        logs = glob.glob(LOGGER_LOG + "*")
        assert logs
        for path in logs:
            with open(path, "rb") as file:
                assert SECRET.encode() not in file.read(), path


# Arguments

def test_methods_that_read_no_argument_take_any(gateway):
    daemon = Watched(gateway)
    report = daemon.client.report()
    for signature, values in (*SHAPES, ("s", ("x" * 1_000_000,)), ("s", ("%s%n\n\033[2J",))):
        assert daemon.ask(DAEMON, "get_le_status", signature, *values) == report, signature
    daemon.goes_on()


def test_an_identity_that_is_no_string_is_refused_with_code_1(gateway):
    daemon = Watched(gateway)
    assert json.loads(daemon.ask(DAEMON, "set_gateway_triple")) == NO_ARGUMENT
    for signature, values in SHAPES:
        answer = json.loads(daemon.ask(DAEMON, "set_gateway_triple", signature, *values))
        assert answer == (WRONG if signature.startswith("s") else NO_ARGUMENT), signature
    daemon.goes_on()


@pytest.mark.takes(14)
def test_a_reboot_with_arguments_is_a_reboot(gateway):
    daemon = Watched(gateway)
    for signature, values in (("i", (5,)), ("a{ss}", ({"devicesecret": SECRET},)), ("s", ("x" * 1_000_000,))):
        assert daemon.ask(DAEMON, "reboot", signature, *values) is None
        daemon.restarted()
    daemon.goes_on()


def test_a_start_upgrade_with_arguments_is_one(gateway):
    daemon = Watched(gateway)
    assert daemon.ask(DAEMON, "start_upgrade", "a{ss}", {"devicesecret": SECRET}) is None
    gateway.log.wait_for("stop dbus-daemon, kill -15 %d")
    assert daemon.process.status is None


def test_signals_with_wrong_arguments_do_nothing(gateway):
    daemon = Watched(gateway)
    last = gateway.log.events()[-1]
    for signature, values in (*SHAPES, ("", ()), ("s", ("x" * 1_000_000,)), ("s", ("iot.test.svc",)),
                              ("ss", ("iot.test.svc", "x" * 1_000_000)), ("ssi", ("", "", 1)),
                              ("ssi", ("nobody", "", 1)),
                              ("ssi", (f"\n2025-01-01 {SECRET}%n", "%s\n", 1)), ("ssi", ("iot..test", ".", 1)),
                              ("ssi", ("x." * 1000, ":1.1", -2**31)), ("ssi", ("iot.test.svc", "k", 2**31 - 1))):
        for target in (WATCHDOG, DAEMON):
            for member in ("feedDog", "NameOwnerChanged", "NameAcquired", "NameLost", "reboot", "get_le_status"):
                daemon.client.send(target, member, signature, *values)
                daemon.client.send(target, member, signature, *values, broadcast=True)
        daemon.client.settle()
    gateway.log.exactly([], after=last)
    daemon.goes_on()


# Bodies

def triple(**changed):
    """A complete identity, but for these keys."""
    return json.dumps({"productkey": "pk", "devicename": "dn", "devicesecret": SECRET, **changed})


BODIES = {
    "empty": "", "blank": " \n\t", "word": SECRET, "quoted": f'"{SECRET}"', "number": "1", "huge": "9" * 400,
    "true": "true", "null": "null", "nan": "NaN", "array": f'["pk", "dn", "{SECRET}"]',
    "array-of-it": f"[{triple()}]", "inside": f'{{"triple": {triple()}}}', "none": "{}",
    "number-key": triple(productkey=5), "null-key": triple(devicename=None), "array-key": triple(devicesecret=[SECRET]),
    "object-key": triple(devicesecret={"value": SECRET}), "true-key": triple(devicename=True),
    "huge-key": triple(productkey=10**300), "float-key": triple(devicename=1.5),
    "empty-key": triple(productkey=""), "empty-secret": triple(devicesecret=""), "empty-name": triple(devicename=""),
    "other-case": f'{{"ProductKey": "pk", "DEVICENAME": "dn", "deviceSecret": "{SECRET}"}}',
    "no-name": f'{{"productkey": "pk", "devicesecret": "{SECRET}"}}', "zero-key": '{"productkey\\u0000": "pk"}',
    "last-counts": triple()[:-1] + ', "devicename": ""}', "cut": triple()[:-1], "cut-in-secret": triple()[:-8],
    "single-quotes": triple().replace('"', "'"), "no-commas": triple().replace(",", " "),
    "no-colons": triple().replace(":", " "),
    "bad-escape": triple(devicename="X").replace("X", "\\q"),
    "bad-unicode": triple(devicename="X").replace("X", "\\u12"),
    "format": "%s%n%d{}", "control": "\x01\x1b[2J\x7f", "lines": f"\n2025-01-01 00:00 {SECRET}\n", "text": "ü€😀",
    "deep-array": "[" * 5000, "deep-object": '{"a":' * 5000, "deep-closed": "[" * 100_000 + "]" * 100_000,
    "deep-value": triple(productkey="X").replace('"X"', "[" * 2000 + "]" * 2000),
    "1-mb-text": SECRET * 50_000, "1-mb-brackets": "[" * 1_000_000, "1-mb-braces": "{" * 1_000_000,
    "1-mb-digits": "1" * 1_000_000, "1-mb-zeros": "[" + "0," * 500_000 + "0]", "1-mb-blanks": " " * 1_000_000,
    "1-mb-string": '"' + "x" * 1_000_000 + '"', "1-mb-value": triple(productkey=["x" * 1_000_000]),
    "1-mb-keys": json.dumps({f"{SECRET}{number}": number for number in range(30_000)}),
    "1-mb-key": '{"' + "k" * 1_000_000 + f'": "{SECRET}"}}', "1-mb-escapes": '"' + "\\u00e9" * 170_000 + '"',
    "1-mb-incomplete": triple(productkey="x" * 1_000_000, devicename=""),
    "1-mb-cut": triple(productkey="x" * 1_000_000)[:-2],
}


@pytest.mark.takes(10)
def test_json_of_every_wrong_shape_is_refused_with_code_2(gateway):
    daemon = Watched(gateway)
    last = gateway.log.events()[-1]
    for name, text in BODIES.items():
        begin = time.monotonic()
        assert daemon.triple(text) == WRONG, name
        assert time.monotonic() - begin < clock.stretched(5), name
    gateway.log.exactly([], after=last)
    daemon.goes_on()


@pytest.mark.takes(25)
def test_an_identity_of_any_text_is_taken_and_the_daemon_goes_on(gateway):
    daemon = Watched(gateway, Service("svc", monitor=1),
                     Service("config", "--config=gw_system_productkey=old", "--config=gw_system_devicename=old",
                             bus="iot.dmp.configmanager"))
    # No character, a zero: they could not be handed on. More than a mebibyte: nobody's identity.
    for value in ("\\udc00", "a\\u0000b", "x" * 600_000):
        assert daemon.triple(triple(productkey="X", devicename="X").replace("X", value)) == WRONG
    # Control characters, more than a line of the log, formats.
    for value in ("\\u001b[2J\\n2025-01-01 00:00:00.000000 [pid=1] [main.cpp|1] forged",
                  "x" * 400_000, "%s%n%d"):
        assert daemon.triple(triple(productkey="X", devicename="X").replace("X", value)) == SUCCESS
        daemon.restarted()
        # The last step of the hand-over.
        gateway.wait_event("config", "config", key="gw_ha_service_switch", count=daemon.cycles)
    told = [event["value"] for event in gateway.events("config", "config") if event.get("key") == "gw_system_productkey"
            and event["member"] == "set_config"]
    assert told[-1] == "%s%n%d"
    log = gateway.log.bytes()
    assert b"\n2025-01-01" not in log
    assert [line for line in log.split(b"\n") if SECRET.encode() in line and b" argv[3]:" not in line] == []
    # A line that is too long loses its end, so the log is not looked at line by line here.
    daemon.keeps_the_secret()
    assert gateway.status().status == 0
    assert daemon.process.status is None


# Calls to what is not there

CALLS = {
    "no-interface": ((DAEMON[0], DAEMON[1], None), "get_le_status", None),
    "no-interface-introspect": ((DAEMON[0], DAEMON[1], None), "Introspect", None),
    "no-interface-parent": ((DAEMON[0], "/iot", None), "Introspect", None),
    "no-interface-unknown": ((DAEMON[0], DAEMON[1], None), "nothing", "Method"),
    "no-interface-at-parent": ((DAEMON[0], "/iot/gateway", None), "reboot", "Object"),
    "no-interface-elsewhere": ((DAEMON[0], "/elsewhere", None), "reboot", "Object"),
    "member": (DAEMON, "nothing", "Method"), "case": (DAEMON, "REBOOT", "Method"),
    "longer": (DAEMON, "reboot_", "Method"),
    "longest": (DAEMON, "x" * 255, "Method"),
    "interface": ((DAEMON[0], DAEMON[1], "iot.gateway.other"), "reboot", "Interface"),
    "watchdogs-interface": ((DAEMON[0], DAEMON[1], WATCHDOG[2]), "reboot", "Interface"),
    "properties": ((DAEMON[0], DAEMON[1], "org.freedesktop.DBus.Properties"), "GetAll", "Interface"),
    "managed": ((DAEMON[0], "/", "org.freedesktop.DBus.ObjectManager"), "GetManagedObjects", "Interface"),
    "drivers-interface": ((DAEMON[0], DAEMON[1], DRIVER[2]), "Hello", "Interface"),
    "path": ((DAEMON[0], "/iot/gateway/other", DAEMON[2]), "reboot", "Object"),
    "child-path": ((DAEMON[0], DAEMON[1] + "/x", DAEMON[2]), "reboot", "Object"),
    "begin-of-path": ((DAEMON[0], "/iot/gateway/quorvane", DAEMON[2]), "reboot", "Object"),
    "watchdogs-path": ((DAEMON[0], WATCHDOG[1], DAEMON[2]), "reboot", "Object"),
    "begin-of-parent": ((DAEMON[0], "/io", INTROSPECTABLE), "Introspect", "Object"),
    "child-introspect": ((DAEMON[0], DAEMON[1] + "/x", INTROSPECTABLE), "Introspect", "Object"),
    **{f"parent-{path}": ((DAEMON[0], path, DAEMON[2]), "reboot", "Object") for path in PARENTS},
    "introspectable": ((DAEMON[0], DAEMON[1], INTROSPECTABLE), "nothing", "Method"),
    "introspectable-reboot": ((DAEMON[0], DAEMON[1], INTROSPECTABLE), "reboot", "Method"),
    "peer": ((DAEMON[0], DAEMON[1], PEER), "nothing", "Method"),
    "watchdog-method": (WATCHDOG, "reboot", "Method"), "watchdog-signal": (WATCHDOG, "feedDog", "Method"),
    "watchdog-other": (WATCHDOG, "NameOwnerChanged", "Method"),
}


def test_calls_to_what_is_not_there_get_the_standard_error_at_once(gateway):
    daemon = Watched(gateway)
    begin = time.monotonic()
    for name, (target, member, error) in CALLS.items():
        if error is None:
            assert daemon.ask(target, member), name
            continue
        for signature, values in (("", ()), ("s", (SECRET,)), ("ssi", (SECRET, "item", 1))):
            with pytest.raises(dbus.exceptions.DBusException) as caught:
                daemon.ask(target, member, signature, *values)
            assert caught.value.get_dbus_name() == f"{UNKNOWN}{error}", name
            assert SECRET not in str(caught.value)
    assert time.monotonic() - begin < clock.stretched(5)
    daemon.goes_on()


def test_who_wants_no_reply_gets_none_and_no_error_either(gateway):
    daemon = Watched(gateway)
    raw = RawBus()
    for target in (DAEMON, WATCHDOG, (DAEMON[0], "/elsewhere", None), (DAEMON[0], DAEMON[1], INTROSPECTABLE)):
        for member in ("get_le_status", "set_gateway_triple", "nothing", "Introspect"):
            raw.send(CALL, to(target, member), flags=NO_REPLY)
    last = raw.send(CALL, to(DAEMON, "nothing"))
    answers = []
    while not answers or answers[-1].fields.get(raw_bus.REPLY_SERIAL) != last:
        answers.append(raw.receive())
    assert [one.kind for one in answers if one.kind != SIGNAL] == [ERROR]
    daemon.goes_on()


# Bytes

def test_a_call_of_the_other_byte_order_is_answered(gateway):
    daemon = Watched(gateway)
    raw = RawBus()
    assert raw.ask(to(DAEMON, "get_le_status"), order=">").text == daemon.client.report()
    body = string("{}", ">")
    answer = raw.ask({**to(DAEMON, "set_gateway_triple"), raw_bus.SIGNATURE: "s"}, body, order=">")
    assert json.loads(answer.text) == WRONG
    daemon.goes_on()


WIRE_TEXTS = {"stray-byte": b"\xff\xfe", "cut-character": b"a\xc3", "overlong": b"\xc0\xaf",
              "surrogate": b"\xed\xb0\x80",
              "too-high": b"\xf4\x90\x80\x80", "zero": b"a\0b",
              "in-json": triple(productkey="X").encode().replace(b"X", b"\xff")}


def test_text_that_is_no_utf8_never_reaches_the_daemon_and_ends_the_senders_connection(gateway):
    daemon = Watched(gateway)
    fields = {**to(DAEMON, "set_gateway_triple"), raw_bus.SIGNATURE: "s"}
    feed = {**to(WATCHDOG, "feedDog"), raw_bus.SIGNATURE: "ssi"}
    for name, text in WIRE_TEXTS.items():
        assert RawBus().ask(fields, string(text)) is None, name
        body = raw_bus.padded(strings(text, text), 4) + struct.pack("<i", 1)
        raw = RawBus()
        raw.send(SIGNAL, feed, body)
        while raw.receive() is not None:
            pass
    # What is a character, if a strange one, is a text like any other.
    for text in ("\ufffe", "\U0010ffff", "\x7f\x01", "\u202e"):
        assert json.loads(RawBus().ask(fields, string(text)).text) == WRONG
    daemon.goes_on()


def wrong_messages():
    """Messages that break the rules, each a whole one or the beginning of one."""
    good = to(DAEMON, "get_le_status")
    for member in ("", "no-member", "1", "a b", "x" * 256, b"\xff", "a.b", "a\0b"):
        yield message(CALL, {**good, raw_bus.MEMBER: member})
    for path in ("", "iot", "/iot/", "//", "/iot/a-b", "/\xff", "/a\0"):
        yield message(CALL, {**good, raw_bus.PATH: path})
    for name in ("", "iot", ".iot", "iot..gateway", "iot.1-", "x" * 300, "iot.gateway.\xfc"):
        yield message(CALL, {**good, raw_bus.INTERFACE: name})
        if name:
            yield message(CALL, {**good, raw_bus.DESTINATION: name})
    for signature in ("a", "(", "s" * 256, "!", "a{vs}", "(" * 40 + ")" * 40):
        yield message(CALL, {**good, raw_bus.SIGNATURE: signature[:255]}, b"\0" * 8)
    yield message(CALL, good, serial=0)
    yield message(0, good)
    yield message(CALL, good, version=2)
    yield message(CALL, good, version=0)
    yield message(CALL, {key: value for key, value in good.items() if key != raw_bus.PATH})
    yield message(CALL, {key: value for key, value in good.items() if key != raw_bus.MEMBER})
    yield message(SIGNAL, {key: value for key, value in good.items() if key != raw_bus.INTERFACE})
    yield message(CALL, good, b"\0" * 4)
    yield message(CALL, {**good, raw_bus.SIGNATURE: "s"}, struct.pack("<I", 1000) + b"short\0")
    yield message(CALL, {**good, raw_bus.SIGNATURE: "b"}, struct.pack("<I", 2))
    yield message(CALL, {**good, raw_bus.SIGNATURE: "ai"}, struct.pack("<I", 2**27))
    yield message(CALL, good, body_length=2**31)
    yield message(RETURN, {raw_bus.DESTINATION: DAEMON[0]})
    yield message(ERROR, {raw_bus.DESTINATION: DAEMON[0], raw_bus.REPLY_SERIAL: 1})
    yield b"x" * 1000
    yield b"\0" * 1000
    yield os.urandom(4096)


def test_messages_that_break_the_rules_never_reach_the_daemon(gateway):
    daemon = Watched(gateway)
    for data in wrong_messages():
        raw = RawBus()
        raw.socket.sendall(data)
        # The bus closes, or answers with an error of its own; what it waits for more of is left alone.
        raw.socket.settimeout(0.05)
        try:
            answer = raw.receive()
        except TimeoutError:
            answer = None
        while answer is not None and answer.kind == SIGNAL:
            try:
                answer = raw.receive()
            except TimeoutError:
                answer = None
        assert answer is None or answer.kind == ERROR, data
        raw.close()
    daemon.goes_on()


def test_messages_that_stop_in_the_middle_hold_nobody_up(gateway):
    daemon = Watched(gateway)
    whole = message(CALL, {**to(DAEMON, "set_gateway_triple"), raw_bus.SIGNATURE: "s"}, string("x" * 1000), serial=5)
    held = []
    for length in (1, 8, 15, 16, 100, len(whole) - 1):
        raw = RawBus()
        raw.socket.sendall(whole[:length])
        held.append((raw, length))
        begin = time.monotonic()
        assert daemon.client.report()
        assert time.monotonic() - begin < clock.stretched(1)
    for raw, length in held:
        raw.socket.sendall(whole[length:])
        assert json.loads(raw.answer_to(5).text) == WRONG
    daemon.goes_on()


# Strangers

def test_signals_that_only_the_bus_may_send_are_ignored_from_everybody_else(gateway):
    daemon = Watched(gateway, Service("svc", bus="iot.test.svc", monitor=1), Service("logger"))
    last = gateway.log.events()[-1]
    names = ("iot.dmp.configmanager", "iot.gateway.logger", "iot.test.svc")
    with open(LOGGER_LOG, encoding="utf-8") as file:
        before = file.read()
    raw = RawBus()
    for name in names:
        body = strings(name, "", ":1.99")
        for path, interface in (DRIVER[1:], WATCHDOG[1:], (DRIVER[1], WATCHDOG[2]), (WATCHDOG[1], DRIVER[2])):
            for destination in ({}, {raw_bus.DESTINATION: WATCHDOG[0]}, {raw_bus.DESTINATION: DAEMON[0]},
                                {raw_bus.DESTINATION: daemon.client.owner(WATCHDOG[0])}):
                for sender in ({}, {raw_bus.SENDER: DRIVER[0]}, {raw_bus.SENDER: ":1.0"}):
                    raw.send(SIGNAL, {raw_bus.PATH: path, raw_bus.INTERFACE: interface,
                                      raw_bus.MEMBER: "NameOwnerChanged", raw_bus.SIGNATURE: "sss", **destination,
                                      **sender}, body)
    assert raw.ask(to((WATCHDOG[0], WATCHDOG[1], PEER), "Ping")).kind == RETURN
    gateway.log.exactly([], after=last)
    with open(LOGGER_LOG, encoding="utf-8") as file:
        added = file.read().removeprefix(before)
    assert not [line for line in added.splitlines() if any(f"name:{name}," in line for name in names)]
    daemon.goes_on()


def test_a_forged_end_of_the_connection_is_none(gateway):
    daemon = Watched(gateway)
    for path, interface in (("/org/freedesktop/DBus/Local", "org.freedesktop.DBus.Local"),
                            (WATCHDOG[1], "org.freedesktop.DBus.Local"), ("/org/freedesktop/DBus/Local", WATCHDOG[2])):
        for destination in (WATCHDOG[0], DAEMON[0]):
            raw = RawBus()
            raw.send(SIGNAL, {raw_bus.PATH: path, raw_bus.INTERFACE: interface, raw_bus.MEMBER: "Disconnected",
                              raw_bus.DESTINATION: destination})
            raw.ask({**raw_bus.DRIVER, raw_bus.MEMBER: "GetId"})
    daemon.goes_on()


def test_answers_that_nobody_asked_for_are_nothing(gateway):
    daemon = Watched(gateway)
    raw = RawBus()
    for serial in range(1, 200):
        for target in (DAEMON, WATCHDOG):
            fields = {raw_bus.DESTINATION: target[0], raw_bus.REPLY_SERIAL: serial, raw_bus.SIGNATURE: "s"}
            raw.send(RETURN, fields, string(SECRET))
            raw.send(ERROR, {**fields, raw_bus.ERROR_NAME: "iot.test.Error"}, string(SECRET))
    assert raw.ask(to(DAEMON, "get_le_status")).text == daemon.client.report()
    daemon.goes_on()


def test_nobody_takes_the_daemons_names_from_it(gateway):
    daemon = Watched(gateway)
    for name in (DAEMON[0], WATCHDOG[0]):
        owner = daemon.client.owner(name)
        for flags in range(8):
            answer = gateway.bus().call(DRIVER, "RequestName", "su", name, flags)
            assert int(answer) in (2, 3)  # queued, or refused
        assert daemon.client.owner(name) == owner
    daemon.goes_on()


# Much of it

def most_descriptors():
    """Let this process, and the gateway that it starts, have as many descriptors as it may."""
    _, hard = resource.getrlimit(resource.RLIMIT_NOFILE)
    resource.setrlimit(resource.RLIMIT_NOFILE, (hard, hard))


@pytest.mark.takes(12)
def test_a_caller_that_never_reads_holds_up_nobody(gateway):
    services = [Service(f"svc{number}", monitor=1) for number in range(20)]
    daemon = Watched(gateway, *services)
    before = int(processes.status_field(daemon.process.pid, "VmRSS").split()[0])
    raws = [RawBus() for _ in range(3)]
    calls = {
        raws[0]: b"".join(message(CALL, to(DAEMON, "get_le_status"), serial=serial) for serial in range(2, 5_000)),
        raws[1]: b"".join(message(CALL, to((DAEMON[0], "/", INTROSPECTABLE), "Introspect"), serial=serial)
                          for serial in range(2, 2_000)),
        raws[2]: b"".join(message(CALL, to(DAEMON, "nothing"), serial=serial) for serial in range(2, 2_000)),
    }
    for raw, data in calls.items():
        raw.pour(data, clock.stretched(2))
        # Calls are handled in their order, so this one waits for those before it, and for no reader.
        assert daemon.ask(DAEMON, "get_le_status", within=30).count("\n") == len(services)
    begin = time.monotonic()
    daemon.client.settle(DAEMON)
    assert daemon.client.report().count("\n") == len(services)
    assert time.monotonic() - begin < clock.stretched(1)
    # Answers wait on the bus, not in the daemon.
    assert int(processes.status_field(daemon.process.pid, "VmRSS").split()[0]) - before < 100_000
    daemon.goes_on()
    for raw in raws:
        raw.close()
    daemon.goes_on()


@pytest.mark.takes(20)
@pytest.mark.limit(90)
def test_two_thousand_connections_are_no_trouble(gateway):
    most_descriptors()
    daemon = Watched(gateway)
    report = daemon.client.report()
    before = len(os.listdir(f"/proc/{daemon.process.pid}/fd"))
    raws = []
    for number in range(2000):
        raws.append(RawBus())
        # Their answers stay unread.
        raws[-1].send(CALL, to(DAEMON, "get_le_status" if number % 2 else "nothing"))
    assert daemon.client.report() == report
    assert gateway.status().status == 0
    assert raws[0].answer_to(2).kind == ERROR and raws[1999].answer_to(2).text == report
    for raw in raws:
        raw.close()
    assert len(os.listdir(f"/proc/{daemon.process.pid}/fd")) == before
    daemon.goes_on()
    clock.until(lambda: len(str(daemon.ask(DRIVER, "ListNames")).split(",")) < 100, 20, "an empty bus")
    daemon.goes_on()


@pytest.mark.takes(12)
def test_more_connections_than_the_bus_has_descriptors_for_hold_up_only_those_that_come_last(gateway):
    few = 200

    def allow_few():
        resource.setrlimit(resource.RLIMIT_NOFILE, (few, few))

    daemon = Watched(gateway, prepare=allow_few)
    report = daemon.client.report()
    raws = []
    with pytest.raises(TimeoutError):
        while len(raws) < few:
            raws.append(RawBus(within=1))
    assert len(raws) > few / 2
    # Whoever is in is served; the bus may have closed the last one again.
    for raw in raws[:-1]:
        assert raw.ask(to(DAEMON, "get_le_status")).text == report
    daemon.client.feed("iot.test.svc", "item", 1000)
    assert gateway.status().status == 100
    for raw in raws:
        raw.close()
    clock.until(lambda: gateway.status().status == 0, 10, "status 0")
    daemon.goes_on()


@pytest.mark.takes(15)
def test_ten_thousand_items_of_one_service_are_watched_and_forgotten(gateway):
    daemon = Watched(gateway)
    raw = RawBus()
    feed = {**to(WATCHDOG, "feedDog"), raw_bus.SIGNATURE: "ssi"}

    def feed_all(seconds):
        for number in range(10_000):
            body = raw_bus.padded(strings("iot.test.svc", f"item {number}"), 4) + struct.pack("<i", seconds)
            raw.send(SIGNAL, feed, body)
        assert raw.ask(to((WATCHDOG[0], WATCHDOG[1], PEER), "Ping")).kind == RETURN

    def late():
        with open(LOGGER_LOG, encoding="utf-8") as file:
            return "check_keepalive, services:svc keepalive timeout" in file.read()

    feed_all(1000)
    daemon.goes_on()
    clock.stays(lambda: not late(), 2.5, "nothing is late")
    # One of them is enough, and can be called off like the others.
    daemon.client.feed("iot.test.svc", "item 5000", 1)
    clock.until(late, 6, "one that is late")
    feed_all(0)
    daemon.goes_on()
    for number in range(100):
        daemon.client.send(WATCHDOG, "feedDog", "ssi", "iot.test.svc", f"{number}" + "x" * 100_000, 1000)
    daemon.goes_on()
