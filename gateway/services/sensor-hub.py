#!/usr/bin/python3 -B
"""sensor-hub: reads the gateway's temperature sensor and tells it to whoever asks.

A service with a bus name and a keep-alive, that can be told to fail: `crash` ends it as a fault would, `fall_silent`
leaves it alive but feeding no more.
"""

import os
import sys

import dbus.service

sys.path.insert(0, os.path.join(sys.path[0], "..", "lib"))
from gateway_service import GatewayService  # noqa: E402  (the path comes first)

NAME = "iot.gateway.sensors"
SENSOR = "/sys/class/thermal/thermal_zone0/temp"


class SensorHub(GatewayService):
    """The service; its methods are those on the bus."""

    def __init__(self):
        super().__init__(NAME)
        self.silent = False
        self.every(3, self.keep_alive)
        self.every(5, self.publish)

    def keep_alive(self):
        """Feed the watchdog, unless told not to."""
        if not self.silent:
            self.feed_dog("sensors", 10)
        return True

    def publish(self):
        """Send the reading to all who listen."""
        self.reading(self.read())
        return True

    @dbus.service.signal(NAME, signature="d")
    def reading(self, celsius):
        """The temperature, every five seconds."""

    @dbus.service.method(NAME, out_signature="d")
    def read(self):
        """The temperature in degrees Celsius; 20 on a machine without a sensor."""
        try:
            with open(SENSOR, encoding="ascii") as file:
                return int(file.read()) / 1000
        except (OSError, ValueError):
            return 20.0

    @dbus.service.method(NAME)
    def crash(self):
        """End at once, as after a fault."""
        os.abort()

    @dbus.service.method(NAME)
    def fall_silent(self):
        """Go on, but feed the watchdog no more."""
        self.silent = True


SensorHub().run()
