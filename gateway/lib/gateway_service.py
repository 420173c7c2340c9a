"""What every Python service of the gateway needs: a clean start and end, and its place on the gateway's bus."""

import os
import signal

import dbus
import dbus.bus
import dbus.lowlevel
import dbus.mainloop.glib
import dbus.service
from gi.repository import GLib

BUS_ADDRESS = "unix:path=/tmp/var/run/mbusd/mbusd_socket"
WATCHDOG = "iot.gateway.watchdog"


class GatewayService(dbus.service.Object):
    """A service with a name on the gateway's bus, at the object path that follows from the name.

    A subclass exports its methods with @dbus.service.method(BUS_NAME, ...) and calls `every` for what it does by
    itself. `run` returns when the service is told to stop; it ends the process when the bus is gone, since the
    supervisor then starts everything again.
    """

    def __init__(self, bus_name):
        # Services are started with no umask at all.
        os.umask(0o022)
        dbus.mainloop.glib.DBusGMainLoop(set_as_default=True)
        self.bus_name = bus_name
        self.loop = GLib.MainLoop()
        self.bus = dbus.bus.BusConnection(BUS_ADDRESS)
        self.bus.set_exit_on_disconnect(False)
        self.stopping = False
        # When all is stopped the bus may be gone first: that is no failure then.
        self.bus.call_on_disconnection(lambda _connection: os._exit(0 if self.stopping else 1))
        super().__init__(self.bus, "/" + bus_name.replace(".", "/"))
        for number in (signal.SIGTERM, signal.SIGINT):
            signal.signal(number, self.stop)

    def stop(self, _number, _frame):
        """Leave `run`. Stuck elsewhere, the process is killed by the alarm: the supervisor asks only once."""
        signal.alarm(3)
        self.stopping = True
        self.loop.quit()

    def run(self):
        """Take the name, which tells the supervisor that this service is up, and serve until told to stop."""
        # Queued for the name, if need be: after a restart the process before this one may be about to end only now.
        self.bus.request_name(self.bus_name)
        self.loop.run()

    def every(self, seconds, action):
        """Call the action now and every so many seconds, for as long as it returns true."""
        if action():
            GLib.timeout_add_seconds(seconds, action)

    def feed_dog(self, item, seconds):
        """Tell the watchdog that this service is well, and must be told so again within so many seconds."""
        message = dbus.lowlevel.SignalMessage("/" + WATCHDOG.replace(".", "/"), WATCHDOG, "feedDog")
        message.set_destination(WATCHDOG)
        message.append(self.bus_name, item, seconds, signature="ssi")
        self.bus.send_message(message)
