"""The gateway's identity, handed to the real configuration service: what is asked and written, in which order."""

import json
import os
import random
import signal
import time

import pytest
from harness import bus, clock, processes
from harness.bus import CONFIGURATION
from harness.bus_record import BusRecord, files_with
from harness.gateway import RUN, STARTUP, UP

MANAGER = "config-manager"
GATE = "iot.test.gate"
KEPT = {"config-manager", "startup", "logger", "console", ".sec_bak", ".security", ".sst"}

CHECK = "check current gw_system_productkey={} gw_system_devicename={}"
SET = "set config gw_system_productkey={} gw_system_devicename={}"
READS = ["get gw_system_productkey", "get gw_system_devicename"]
SWITCH_OFF = "set gw_ha_service_switch=off"
GONE = "get current gw_system_productkey fail"


def writes(identity):
    """The calls that write an identity."""
    return [f"set gw_system_productkey={identity[0]}", f"set gw_system_devicename={identity[1]}",
            f"set gw_system_devicesecret={identity[2]} protected", "flush"]


def triple(identity):
    """The request that hands an identity over."""
    return json.dumps(dict(zip(("productkey", "devicename", "devicesecret"), identity)))


@pytest.fixture(name="site")
def site_with_a_gate(installed):
    """The configuration service, and before it a service whose name the test takes when it is ready."""
    installed.prepare_run_directory()
    installed.script("gate", "exec sleep infinity")
    installed.raw_catalogue(json.dumps([{"exec": "gate", "dbus_name": GATE},
                                        {"exec": MANAGER, "monitor": 1, "dbus_name": CONFIGURATION[0]}]))
    return installed


class Watch:
    """The calls of one cycle of the stack, from before the configuration service is started."""

    # A holder of the gate's name that left would open the gate of the next cycle.
    holders = []

    def __init__(self, site, after=None):
        site.log.wait_for("run gate pid %d", 20, after=after)
        self.record = BusRecord()
        self.take_gate(site.bus())

    @classmethod
    def take_gate(cls, client):
        """Let the start of the stack go on."""
        client.own(GATE)
        cls.holders.append(client)

    def calls(self, count, within=10):
        """The calls, once there are that many."""
        clock.until(lambda: len(self.record.configuration_calls()) >= count, within,
                    lambda: str(self.record.configuration_calls()))
        return self.record.configuration_calls()

    def all_calls(self):
        """The calls up to that which ends a synchronisation, the switch's."""
        self.record.wait_for_call("set gw_ha_service_switch")
        return self.record.configuration_calls()


def value(site, key):
    """What the configuration service has."""
    code, text = site.bus().call(CONFIGURATION, "get_config", "s", key)
    return str(text) if code == 0 else None


def identity_of(site):
    """The identity that is stored."""
    return tuple(value(site, "gw_system_" + key) for key in ("productkey", "devicename", "devicesecret"))


def provision(site, identity):
    """Start the daemon with an identity and wait until that is written and the stack is up."""
    daemon = site.start(*identity)
    watch = Watch(site)
    watch.all_calls()
    site.log.wait_for(UP, 20)
    return daemon, watch


def lines(site, after=None):
    """The lines of the synchronisation."""
    return [text for text in site.log.texts(after=after)
            if text.startswith(("check current", "reset config", "clean business", "set config", "get current"))]


OLD = ("pk-old", "dn-old", "secret-of-the-old-one")
NEW = ("pk-new", "dn-new", "secret-of-the-new-one")


@pytest.mark.takes(5)
def test_a_first_identity_is_written_in_order_without_a_reset(site):
    _, watch = provision(site, OLD)
    assert watch.all_calls() == READS + writes(OLD) + [SWITCH_OFF]
    clock.until(lambda: len(watch.record.codes()) == 7, 5, lambda: str(watch.record.codes()))
    assert watch.record.codes() == [("get_config", 100100)] * 2 + [("set_config", 0)] * 3 + [("flush_config", 0),
                                                                                           ("set_config", 0)]
    assert lines(site) == [CHECK.format("", ""), SET.format(*OLD), "set config gw_ha_service_switch=off"]
    assert identity_of(site) == OLD
    # In clear it is where the command line is logged, and nowhere else.
    assert files_with(OLD[2], RUN) == [STARTUP + "/quorvaned.log"]


@pytest.mark.takes(5)
def test_the_three_groups_are_written_one_after_the_other(site):
    words = (*OLD, "as.example", "8883", "ca2", "cloud.example", "443", "tls")
    _, watch = provision(site, words)
    assert watch.all_calls() == [
        *READS, *writes(OLD), "set gw_system_as_host=as.example", "set gw_system_as_port=8883", "set gw_system_ver_ca=ca2",
        "set gw_remoteaccess_cloud_host=cloud.example", "set gw_remoteaccess_cloud_port=443",
        "set gw_remoteaccess_tls_type=tls", SWITCH_OFF]
    assert lines(site)[1:4] == [
        SET.format(*OLD), "set config gw_system_as_host=as.example gw_system_as_port=8883 gw_system_ver_ca=ca2",
        "set config gw_remoteaccess_cloud_host=cloud.example gw_remoteaccess_cloud_port=443 gw_remoteaccess_tls_type=tls"]
    assert value(site, "gw_remoteaccess_tls_type") == "tls"


@pytest.mark.takes(5)
def test_of_a_group_that_is_not_whole_nothing_is_written(site):
    _, watch = provision(site, ("pk", "", "secret", "host", "port", "", "", "443", "tls"))
    assert watch.all_calls() == [SWITCH_OFF]
    assert lines(site) == ["set config gw_ha_service_switch=off"]


@pytest.mark.takes(10)
def test_an_unchanged_identity_is_not_written_even_with_another_secret(site):
    provision(site, OLD)
    up = site.log.find(UP)[-1]
    assert json.loads(site.bus().set_triple(triple((*OLD[:2], "another secret")))) == {"code": 0, "message": "Success"}
    watch = Watch(site, after=up)
    assert watch.all_calls() == [*READS, SWITCH_OFF]
    site.log.wait_for(UP, 20, after=up)
    assert identity_of(site) == OLD
    # It is not kept: the next appearance asks nothing.
    up = site.log.find(UP)[-1]
    site.bus().reboot()
    assert Watch(site, after=up).all_calls() == [SWITCH_OFF]


@pytest.mark.takes(10)
def test_a_changed_identity_resets_cleans_and_is_written(site):
    daemon, _ = provision(site, OLD)
    assert site.bus().call(CONFIGURATION, "set_config", "ssb", "own.key", "own value", False) == 0
    for name in ("data/deep/deeper", ".hidden", *KEPT):
        os.makedirs(f"{RUN}/{name}", exist_ok=True)
    for name in ("file", "data/deep/file", "console/file", "startup2"):
        with open(f"{RUN}/{name}", "w", encoding="ascii") as file:
            file.write("x")
    os.symlink(f"{RUN}/console", f"{RUN}/link")
    up = site.log.find(UP)[-1]
    assert json.loads(site.bus().set_triple(triple(NEW))) == {"code": 0, "message": "Success"}
    watch = Watch(site, after=up)
    assert watch.all_calls() == [*READS, "reset", *writes(NEW), SWITCH_OFF]
    site.log.wait_for(UP, 20, after=up)
    assert lines(site, after=up) == [CHECK.format(*OLD), "reset config-manager", "clean business runtime data",
                                     SET.format(*NEW), "set config gw_ha_service_switch=off"]
    assert identity_of(site) == NEW
    assert value(site, "own.key") is None
    assert set(os.listdir(RUN)) == KEPT
    assert os.path.isfile(f"{RUN}/console/file")
    # Only the first one came by the command line.
    assert files_with(NEW[2], RUN) == []
    assert files_with(OLD[2], RUN) == [STARTUP + "/quorvaned.log"]
    assert daemon.alive()


@pytest.mark.takes(8)
def test_an_identity_is_still_there_after_everything_was_killed(site):
    daemon, _ = provision(site, OLD)
    os.kill(site.pid_of(MANAGER), signal.SIGKILL)
    daemon.signal(signal.SIGKILL)
    daemon.wait()
    clock.until(lambda: not processes.everybody(), 5, processes.tree)
    up = site.log.find(UP)[-1]
    site.start()
    Watch(site, after=up)
    site.log.wait_for(UP, 20, after=up)
    assert identity_of(site) == OLD


def settle(site, wanted):
    """Take the gate in every cycle, until the identity stands and the stack has come to rest."""
    def look():
        try:
            client = bus.Bus(0.5)
            if not client.owner(GATE):
                Watch.take_gate(client)
            code, key = client.call(CONFIGURATION, "get_config", "s", "gw_system_productkey", within=1)
            code2, secret = client.call(CONFIGURATION, "get_config", "s", "gw_system_devicesecret", within=1)
        except (AssertionError, bus.dbus.exceptions.DBusException):
            return False
        return (code, code2, str(key), str(secret)) == (0, 0, wanted[0], wanted[2])
    clock.until(look, 40, lambda: f"{wanted} in the end; {lines(site)}")


def kill_manager(site, _daemon):
    """The configuration service dies."""
    os.kill(site.pid_of(MANAGER), signal.SIGKILL)


def kill_bus(site, _daemon):
    """The bus dies."""
    os.kill(site.pid_of("dbus-daemon"), signal.SIGKILL)


def reboot(site, _daemon):
    """Somebody asks for a restart."""
    site.bus().connection.call_async(*bus.DAEMON, "reboot", "", (), None, None)


def freeze_manager(site, _daemon):
    """The configuration service hangs, for longer than a call waits."""
    pid = site.pid_of(MANAGER)
    os.kill(pid, signal.SIGSTOP)
    time.sleep(4)
    os.kill(pid, signal.SIGCONT)


@pytest.mark.takes(14)
@pytest.mark.parametrize("fault", [kill_manager, freeze_manager, kill_bus, reboot], ids=lambda fault: fault.__name__)
@pytest.mark.parametrize("moment", [*READS, "reset", *[call.split("=")[0] for call in writes(NEW)]])
def test_an_accepted_identity_is_written_whatever_comes_between(site, fault, moment):
    daemon, _ = provision(site, OLD)
    up = site.log.find(UP)[-1]
    assert json.loads(site.bus().set_triple(triple(NEW)))["code"] == 0
    watch = Watch(site, after=up)
    # About then: what is recorded has been said already.
    watch.record.wait_for_call(moment)
    try:
        fault(site, daemon)
    except bus.dbus.exceptions.DBusException:
        pass  # the bus has gone
    settle(site, NEW)
    assert daemon.alive()


@pytest.mark.takes(12)
def test_an_identity_that_arrives_while_one_is_written_follows_it(site):
    provision(site, OLD)
    last = ("pk-last", "dn-last", "secret-of-the-last-one")
    up = site.log.find(UP)[-1]
    assert json.loads(site.bus().set_triple(triple(NEW)))["code"] == 0
    watch = Watch(site, after=up)
    caller = site.bus()
    watch.record.wait_for_call("get")
    assert json.loads(caller.set_triple(triple(last)))["code"] == 0
    settle(site, last)
    assert identity_of(site) == last


@pytest.mark.takes(30)
def test_many_identities_in_quick_succession_end_with_the_last_one_accepted(site):
    daemon, _ = provision(site, OLD)
    chance = random.Random(4)
    accepted = OLD
    for number in range(12):
        identity = (f"pk{number}", f"dn{number}", f"secret{number}")
        try:
            client = bus.Bus(3)
            if not client.owner(GATE):
                Watch.take_gate(client)
            if json.loads(client.set_triple(triple(identity)))["code"] == 0:
                accepted = identity
        except (AssertionError, bus.dbus.exceptions.DBusException):
            continue
        time.sleep(chance.uniform(0, 2))
    settle(site, accepted)
    clock.until(lambda: identity_of(site) == accepted, 10, lambda: str(identity_of(site)))
    assert daemon.alive()


@pytest.mark.takes(12)
@pytest.mark.parametrize("deploy, switch, expected", [("", None, "on"), ("x", "0", "on"), ("x", "1", "off"), ("x", None, "off")])
def test_the_high_availability_switch_follows_what_is_stored(site, deploy, switch, expected):
    with open(site.path("config/services.json"), encoding="utf-8") as file:
        entries = json.load(file)
    site.script("high-availability", "exec sleep infinity")
    site.raw_catalogue(json.dumps([*entries, {"exec": "high-availability"}]))
    provision(site, ())
    client = site.bus()
    for key, text in (("gw_high_availability_deploy", deploy), ("gw_ha_switch", switch)):
        if text is not None:
            assert client.call(CONFIGURATION, "set_config", "ssb", key, text, False) == 0
    up = site.log.find(UP)[-1]
    client.reboot()
    calls = Watch(site, after=up).all_calls()
    assert calls[-1] == f"set gw_ha_service_switch={expected}"
    assert set(calls[:-1]) <= {"get gw_high_availability_deploy", "get gw_ha_switch"}
    site.log.wait_for(f"set config gw_ha_service_switch={expected}", after=up)
