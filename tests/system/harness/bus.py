"""The gateway's bus, as a client sees it."""

import os

import dbus
import dbus.bus
import dbus.lowlevel

from . import clock

SOCKET = "/tmp/var/run/mbusd/mbusd_socket"
ADDRESS = "unix:path=" + SOCKET
DAEMON = ("iot.gateway.quorvaned", "/iot/gateway/quorvaned", "iot.gateway.quorvaned")
WATCHDOG = ("iot.gateway.watchdog", "/iot/gateway/watchdog", "iot.gateway.watchdog")
CONFIGURATION = ("iot.dmp.configmanager", "/iot/dmp/configmanager", "iot.dmp.configmanager")
DRIVER = ("org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus")


class Bus:
    """One private connection."""

    def __init__(self, within=10):
        self.connection = clock.until(self._connect, within, f"a bus at {ADDRESS}")
        self.connection.set_exit_on_disconnect(False)

    @staticmethod
    def _connect():
        if not os.path.exists(SOCKET):
            return None
        try:
            return dbus.bus.BusConnection(ADDRESS)
        except dbus.exceptions.DBusException:
            return None

    def call(self, target, member, signature="", *args, within=10):
        """Call a method; give its only result, a tuple of several, or None. Raises DBusException."""
        name, path, interface = target
        return self.connection.call_blocking(name, path, interface, member, signature, args,
                                             timeout=clock.stretched(within))

    def error(self, target, member, signature="", *args, within=10):
        """Call a method that must fail; give the error's name."""
        try:
            answer = self.call(target, member, signature, *args, within=within)
        except dbus.exceptions.DBusException as error:
            return error.get_dbus_name()
        raise AssertionError(f"{member} did not fail but gave {answer!r}")

    def send(self, target, member, signature="", *args, broadcast=False):
        """Send a signal, to the target's name or to everybody who listens."""
        name, path, interface = target
        message = dbus.lowlevel.SignalMessage(path, interface, member)
        if not broadcast:
            message.set_destination(name)
        message.append(*args, signature=signature)
        self.connection.send_message(message)
        self.connection.flush()

    def feed(self, name, key, seconds, **how):
        """Send a keep-alive, and wait until the daemon has taken it."""
        self.send(WATCHDOG, "feedDog", "ssi", name, key, seconds, **how)
        self.settle()

    def settle(self, target=WATCHDOG):
        """A round trip: whatever was sent before has been handled after it."""
        self.call((target[0], target[1], "org.freedesktop.DBus.Peer"), "Ping")

    def owner(self, name):
        """The unique name that owns the name; empty when nobody does."""
        try:
            return str(self.call(DRIVER, "GetNameOwner", "s", name))
        except dbus.exceptions.DBusException:
            return ""

    def pid_of(self, name):
        """The process that owns the name."""
        return int(self.call(DRIVER, "GetConnectionUnixProcessID", "s", name))

    def report(self):
        """The status report."""
        return str(self.call(DAEMON, "get_le_status"))

    def reboot(self):
        """Ask for a restart of the stack."""
        return self.call(DAEMON, "reboot")

    def start_upgrade(self):
        """Ask for an upgrade."""
        return self.call(DAEMON, "start_upgrade")

    def set_triple(self, text):
        """Hand over a new identity; give the answer's text."""
        return str(self.call(DAEMON, "set_gateway_triple", "s", text))

    def own(self, name):
        """Take a name."""
        return self.connection.request_name(name)

    def close(self):
        """Leave the bus."""
        self.connection.close()
