"""The service catalogue: what it means, and what happens with one that means nothing."""

import json
import os
import time

import pytest
from harness import clock, processes
from harness.gateway import MISSING, PROBE, UP, Service

ACTIVE = "[  \033[32m+\033[0m  ]  Service {} is \033[32mactive\033[0m, pid is {}\n"
INACTIVE = "[  \033[0;31m-\033[0m  ]  Service {} is \033[0;31minactive\033[0m\n"


def test_services_start_in_the_order_of_the_file_with_their_own_arguments(gateway):
    gateway.catalogue(Service("bin-a", "-x", "1", monitor=1, delay=0.2), Service("b"), Service("a", bus="iot.test.a"),
                      Service("b"))
    gateway.up()
    gateway.log.sequence("running bin-a service", "run bin-a pid %d", "running b service", "run b pid %d",
                         "running a service", "run a pid %d", "running b service", "run b pid %d",
                         "success to startup business service")
    assert gateway.started("bin-a")["argv"] == ["bin-a", "-x", "1"]
    assert gateway.started("b", count=2)["argv"] == ["b"]
    # Only the supervised one is listed.
    assert gateway.bus().report() == ACTIVE.format("bin-a", gateway.pid_of("bin-a"))


def test_an_empty_catalogue_is_a_success(gateway):
    gateway.raw_catalogue("[]")
    launcher = gateway.launch()
    assert launcher.wait(10) == 0
    assert "service" not in str(launcher.stdout)
    gateway.log.wait_for(UP)
    # An empty report reads as "starting up".
    assert gateway.status().status == 101


UNREADABLE = {
    "empty": b"",
    "blanks": b" \n\t ",
    "object": b'{"services": [{"exec": "svc"}]}',
    "string": b'"svc"',
    "number": b"5",
    "huge-number": b"9" * 5000,
    "null": b"null",
    "true": b"true",
    "no-json": b"exec = svc\n",
    "cut-off": b'[{"exec": "svc"}, {"exec": ',
    "one-open-bracket": b"[",
    "nested-1001": b"[" * 1001 + b"]" * 1001,
    "nested-100000": b"[" * 100000 + b"]" * 100000,
    "nested-100000-open": b"[" * 100000,
    "nested-objects": b'{"a":' * 100000,
    "nul": b"\0" * 64,
    "nul-in-front": b'\0[{"exec": "svc"}]',
    "bare-bytes": b"\xff\xfe\x00\x01" * 100,
    "10-MB-of-nothing": b"x" * 10_000_000,
    "10-MB-of-brackets": b"[" * 10_000_000,
    "10-MB-of-quotes": b'"' * 9_999_999,
    "utf-16": '[{"exec": "svc"}]'.encode("utf-16"),
}


@pytest.mark.takes(4)
@pytest.mark.parametrize("content", UNREADABLE.values(), ids=UNREADABLE.keys())
def test_what_is_no_catalogue_ends_the_start_in_the_described_way(gateway, content):
    gateway.raw_catalogue(content)
    gateway.prepare_run_directory()
    daemon = gateway.start()
    assert daemon.wait(20) == 255
    assert gateway.log.texts()[-3:] == ["initialize the running environment", "can not load service.json",
                                        "fail to init service environment"]
    assert processes.everybody() == []
    assert not os.path.exists("/quorvane/run/startup/quorvaned.pid")


def test_a_directory_in_the_place_of_the_catalogue_is_no_catalogue(gateway):
    os.unlink(gateway.path("config/services.json"))
    os.mkdir(gateway.path("config/services.json"))
    gateway.prepare_run_directory()
    assert gateway.start().wait(10) == 255
    assert gateway.log.has("can not load service.json")


def test_a_missing_config_directory_is_no_catalogue(gateway):
    os.rename(gateway.path("config"), gateway.path("elsewhere"))
    gateway.prepare_run_directory()
    assert gateway.start().wait(10) == 255
    assert gateway.log.has("can not load service.json")


LAST = {"exec": "last", "monitor": 1}

ODD = {
    "non-objects": [1, None, "svc", True, 1.5, [], [[["x"]]], {}, LAST],
    "wrong-types": [{"exec": 5}, {"exec": None}, {"exec": ["a"]}, {"exec": {"a": 1}}, {"args": "x"},
                    {"args": {"a": 1}}, {"args": 5, "monitor": "1", "delay": "2", "dbus_name": 7}, LAST],
    "wrong-items-in-args": [{"exec": "svc", "args": [None, 1, 1.5, True, "x", ["skipped"], {"skipped": 1}, "y"]}, LAST],
    "huge-numbers": [{"exec": "svc", "monitor": 10**30, "delay": -1e300}, {"exec": "svc", "monitor": -(2**70)},
                     {"exec": "svc", "monitor": 2**31}, {"exec": "svc", "monitor": 1e300}, LAST],
    "negative-delay": [{"exec": "svc", "delay": -5}, {"exec": "svc", "delay": -0.0}, {"exec": "svc", "delay": 1e-300},
                       LAST],
    "strange-names": [{"exec": "%s%n%d"}, {"exec": "x" * 5000}, {"exec": "a\nb\rc\033[2J"}, {"exec": "../bin/svc"},
                      {"exec": "."}, {"exec": "/"}, {"exec": " "}, {"exec": "\u00e4\u4e2d\U0001f600"},
                      {"exec": "x" * 300 + "\u00e4" * 400, "monitor": 1}, LAST],
    "long-arguments": [{"exec": "svc", "args": ["a" * 100000, "b" * 256] * 3}, LAST],
    "a-thousand-arguments": [{"exec": "svc", "args": [str(number) for number in range(1000)]}, LAST],
    "unknown-keys": [{"exec": "svc", "Exec": "no", "user": {"deep": [1, 2, 3]}, "": 0}, LAST],
    "strange-bus-names": [{"exec": "svc", "dbus_name": ""}, {"exec": "svc", "dbus_name": 5}, LAST],
}


@pytest.mark.takes(5)
@pytest.mark.parametrize("entries", ODD.values(), ids=ODD.keys())
def test_odd_entries_become_records_of_defaults_and_the_rest_starts(gateway, entries):
    gateway.link("probe_service", "svc")
    gateway.link("probe_service", "last")
    gateway.raw_catalogue(json.dumps(entries))
    daemon = gateway.up()
    gateway.started("last")
    # Counted by their beginnings: a line that is too long has lost its end.
    assert gateway.log.bytes().count(b"] running ") - gateway.log.bytes().count(b"] running dbus daemon") == len(entries)
    assert daemon.alive()
    report = gateway.bus().report()
    # Its own word: the line of its start may stand behind one that has lost its end.
    assert ACTIVE.format("last", gateway.events("last", "start")[-1]["pid"]) in report
    assert gateway.status().status == 0


RAW = {
    "comments-and-a-trailing-comma": b'// gateway\n[ /* one */ {"exec": "last", "monitor": 1,}, ]\n',
    "text-behind-it": b'[{"exec": "last", "monitor": 1}] and so on',
    "duplicate-keys": b'[{"exec": "first", "exec": "last", "monitor": 0, "monitor": 1}]',
    "bytes-that-are-no-text": b'[{"exec": "bad\xff\xfe", "monitor": 1, "args": ["\xc3("]}, {"exec": "last", "monitor": 1}]',
    "half-a-surrogate-pair": b'[{"exec": "bad\\udc00", "monitor": 1}, {"exec": "last", "monitor": 1}]',
    "embedded-nul": b'[{"exec": "last\\u0000tail", "monitor": 1, "args": ["a\\u0000b"], "dbus_name": "x\\u0000y"},'
                    b' {"exec": "last", "monitor": 1}]',
    "raw-nul": b'[{"exec": "l\0l", "monitor": 1}, {"exec": "last", "monitor": 1}]',
    "nested-deep-in-an-unknown-key": b'[{"exec": "last", "monitor": 1, "x": ' + b"[" * 900 + b"]" * 900 + b"}]",
    "10-MB": b'[{"exec": "last", "monitor": 1, "note": "' + b"x" * 10_000_000 + b'"}]',
    "100000-empty-keys": b'[{"exec": "last", "monitor": 1, ' + b",".join(b'"k%d": 1' % n for n in range(100000)) + b"}]",
}


@pytest.mark.takes(6)
@pytest.mark.parametrize("content", RAW.values(), ids=RAW.keys())
def test_sloppy_json_is_read_and_never_ends_the_daemon(gateway, content):
    gateway.link("probe_service", "last")
    gateway.raw_catalogue(content)
    gateway.prepare_run_directory()
    daemon = gateway.start()
    clock.until(lambda: gateway.log.has(UP) or daemon.status is not None, 30, "a start or its refusal")
    if daemon.status is not None:
        # The parser may refuse bytes that are no text; then it is no catalogue.
        assert daemon.status == 255
        assert gateway.log.texts()[-2:] == ["can not load service.json", "fail to init service environment"]
        return
    gateway.started("last")
    assert "Service last is" in gateway.bus().report()
    assert gateway.status().status == 0
    assert daemon.alive()


@pytest.mark.parametrize("value, listed", [(1, True), (2, True), (-1, True), (1.0, True), (0, False), (0.0, False),
                                           (True, False), ("1", False), (None, False), ([1], False)])
@pytest.mark.takes(3)
def test_monitor_takes_whole_numbers_only(gateway, value, listed):
    gateway.catalogue(Service("svc", monitor=value), Service("other", monitor=1))
    if value is None:
        gateway.raw_catalogue('[{"exec": "svc", "monitor": null}, {"exec": "other", "monitor": 1}]')
    gateway.up()
    assert ("Service svc is" in gateway.bus().report()) == listed


@pytest.mark.takes(4)
@pytest.mark.parametrize("value, least, most", [(0.25, 0.2, 0.3), (1, 1.0, 1.1), (1.59, 1.5, 1.6), (0.09, 0, 0.1),
                                                ("1", 0, 0.1), (True, 0, 0.1)])
def test_delay_takes_any_number_in_steps_of_100_ms(gateway, value, least, most):
    gateway.catalogue(Service("svc", delay=value), Service("next"))
    gateway.up()
    lines = gateway.log.sequence("run svc pid %d", "running next service")
    assert least <= lines[1] - lines[0] <= most + clock.stretched(0.6)


def test_a_delay_beyond_all_bounds_is_a_long_delay(gateway):
    gateway.catalogue(Service("svc", delay=1e300), Service("next"))
    daemon = gateway.start()
    gateway.log.wait_for("run svc pid %d")
    clock.stays(lambda: not gateway.log.has("running next service"), 1.5, "the delay lasts")
    begin = daemon.signal(15)
    assert daemon.wait(10) == 0
    assert 5 <= time.monotonic() - begin <= 5.5 + clock.stretched(4)


def test_arguments_of_other_types_become_text_or_are_left_out(gateway):
    gateway.catalogue(Service("svc", program=PROBE))
    gateway.raw_catalogue('[{"exec": "svc", "args": ["a", 1, -2, true, false, null, ["no"], {"no": 1}, "b"]}]')
    gateway.up()
    assert gateway.started("svc")["argv"] == ["svc", "a", "1", "-2", "true", "false", "", "b"]


def test_args_that_are_no_array_are_ignored(gateway):
    gateway.catalogue(Service("svc"))
    gateway.raw_catalogue('[{"exec": "svc", "args": "-x -y"}]')
    gateway.up()
    assert gateway.started("svc")["argv"] == ["svc"]


def test_the_catalogue_is_read_once_in_the_life_of_the_daemon(gateway):
    gateway.catalogue(Service("svc"))
    gateway.up()
    gateway.raw_catalogue("[]")
    first = gateway.log.find(UP)[0]
    gateway.bus().reboot()
    gateway.log.wait_for(UP, 15, after=first)
    gateway.log.sequence("running svc service", "run svc pid %d", after=first)


def test_duplicate_entries_are_both_started_and_told_apart_by_their_pids(gateway):
    gateway.catalogue(Service("svc", "--ignore", monitor=1), Service("svc", monitor=1))
    gateway.up()
    gateway.started("svc", count=2)
    first, second = [line.values[0] for line in gateway.log.find("run svc pid %d")]
    os.kill(first, 9)
    gateway.log.wait_for("process_exit, service(svc) is abnormal")
    assert gateway.bus().report() == INACTIVE.format("svc") + ACTIVE.format("svc", second)


def test_a_program_that_is_missing_or_cannot_be_run_is_reported_inactive(gateway):
    gateway.catalogue(Service("gone", program=MISSING, monitor=1), Service("data", monitor=1, program="exit 0"),
                      Service("directory", program=MISSING, monitor=1), Service("svc", monitor=1))
    os.chmod(gateway.path("bin/data"), 0o644)
    os.mkdir(gateway.path("bin/directory"))
    gateway.up()
    for name in ("gone", "data", "directory"):
        gateway.log.wait_for(f"process_exit, service({name}) is abnormal")
        gateway.log.sequence(f"running {name} service", f"run {name} pid %d",
                             f"process_exit, service({name}) is abnormal")
        pid = gateway.pid_of(name)
        gateway.log.sequence(f"wait pid({pid}) status(0)", f"process_exit, pid:{pid}")
    assert gateway.bus().report() == (INACTIVE.format("gone") + INACTIVE.format("data") + INACTIVE.format("directory")
                                      + ACTIVE.format("svc", gateway.pid_of("svc")))
