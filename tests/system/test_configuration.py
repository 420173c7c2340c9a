"""The configuration service as the daemon meets it: the high-availability switch, and a service that hangs."""

import time

import pytest
from harness import clock
from harness.gateway import UP, Service

NAME = "iot.dmp.configmanager"
LINE = "set config gw_ha_service_switch=%s"


def manager(*words):
    """The catalogue entry of a configuration service with these settings."""
    return Service("config-manager", "--config=any=thing", *words, bus=NAME)


@pytest.mark.takes(4)
@pytest.mark.parametrize("deploy, switch, present, expected", [
    ("x", "1", True, "off"),
    ("x", "0", True, "on"),
    ("", "1", True, "on"),
    ("", None, True, "on"),
    ("x", None, True, "off"),
    ("x", "", True, "off"),
    ("x", "00", True, "off"),
    ("", "0", False, "off"),
    ("x", "0", False, "off"),
])
def test_the_switch_is_decided_by_the_catalogue_and_two_settings(gateway, deploy, switch, present, expected):
    words = [f"--config=gw_high_availability_deploy={deploy}"]
    words += [f"--config=gw_ha_switch={switch}"] if switch is not None else []
    gateway.catalogue(manager(*words), *[Service("high-availability")] * present)
    gateway.up()
    assert gateway.log.wait_for(LINE).text == f"set config gw_ha_service_switch={expected}"
    told = gateway.wait_event("config-manager", "config", member="set_config")
    assert (told["key"], told["value"], told["protected"]) == ("gw_ha_service_switch", expected, 0)


@pytest.mark.takes(4)
def test_a_configuration_that_cannot_be_read_switches_off(gateway):
    gateway.catalogue(manager("--config-code=7", "--config=gw_high_availability_deploy="), Service("high-availability"))
    gateway.up()
    assert gateway.log.wait_for(LINE).text == "set config gw_ha_service_switch=off"
    keys = [event["key"] for event in gateway.events("config-manager", "config") if event["member"] == "get_config"]
    assert keys == ["gw_high_availability_deploy", "gw_ha_switch"]


@pytest.mark.takes(9)
def test_a_configuration_service_that_refuses_to_be_read_restarts_the_stack_and_is_asked_again(gateway):
    gateway.catalogue(manager("--config-code=7"), Service("svc"))
    daemon = gateway.start("pk", "dn", "secret")
    fail = "get current gw_system_productkey fail"
    gateway.log.wait_for(fail, 20, count=2)
    lines = gateway.log.sequence(fail, "stop monitor service", "stop dbus daemon", "running dbus daemon", fail)
    assert lines[3] - lines[2] >= 1
    gateway.log.sequence(fail, "set config gw_ha_service_switch=off")
    written = {event["key"] for event in gateway.events("config-manager", "config") if event["member"] == "set_config"}
    assert written <= {"gw_ha_service_switch"}
    assert daemon.alive()


@pytest.mark.takes(6)
def test_of_an_identity_that_is_no_text_nothing_is_written_and_the_daemon_goes_on(gateway):
    gateway.catalogue(manager("--config=gw_system_productkey=old", "--config=gw_system_devicename=old"),
                      Service("svc", monitor=1))
    daemon = gateway.up("pk\udcff", "dn", "secret", "host", "port", "ca")  # a byte that no text has
    written = [event.get("key", event["member"]) for event in gateway.events("config-manager", "config")]
    assert written == ["gw_system_as_host", "gw_system_as_port", "gw_system_ver_ca", "gw_ha_service_switch"]
    assert daemon.alive() and gateway.status().status == 0


@pytest.mark.takes(4)
def test_the_next_service_is_started_when_the_identity_has_been_handed_over(gateway):
    gateway.catalogue(manager(), Service("next"))
    gateway.up("pk", "dn", "secret", "host", "port", "ca", "cloud", "443", "tls")
    gateway.log.sequence("run config-manager pid %d", "check current gw_system_productkey=%s gw_system_devicename=%s",
                         "set config gw_ha_service_switch=off", "running next service")


@pytest.mark.takes(5)
def test_the_switch_is_written_when_the_service_comes_and_when_it_goes(gateway):
    gateway.catalogue(Service("svc", monitor=1))
    gateway.up()
    client = gateway.bus()
    client.own(NAME)
    gateway.log.wait_for(LINE)
    client.close()
    gateway.log.wait_for(LINE, count=2)
    assert gateway.bus().report().count("active") == 1


@pytest.mark.takes(15)
def test_a_configuration_service_that_never_answers_does_not_hold_a_restart(gateway):
    gateway.catalogue(manager("--config-silent"), Service("high-availability"), Service("svc", monitor=1))
    daemon = gateway.up()
    up = gateway.log.find(UP)[0]
    gateway.wait_event("config-manager", "config", member="get_config")
    gateway.bus().reboot()
    begin = time.monotonic()
    gateway.log.wait_for("stop dbus-daemon, kill -15 %d", 5, after=up)
    assert time.monotonic() - begin < clock.stretched(3)
    again = gateway.log.wait_for(UP, 20, after=up)
    # Nothing of the first cycle reaches into the second.
    clock.stays(lambda: not gateway.log.has("stop monitor service", after=again), 4, "the second cycle stands")
    assert daemon.alive()
    assert gateway.status().status == 0


@pytest.mark.takes(9)
def test_a_configuration_service_that_never_answers_does_not_hold_the_end(gateway):
    gateway.catalogue(manager("--config-silent"), Service("high-availability"))
    daemon = gateway.up()
    gateway.wait_event("config-manager", "config", member="get_config")
    begin = daemon.signal(15)
    assert daemon.wait(10) == 0
    assert 5 <= time.monotonic() - begin <= 5.5 + clock.stretched(4)
