#!/usr/bin/python3 -B
"""web-state: asks the supervisor which services run and writes the answer down for the gateway's page.

The page's data is /quorvane/run/web/state.json, which the web server hands out. It is replaced in one step every two
seconds. Its times are seconds of the wall clock:

    {"written": when this file was made, "reading": when the supervisor last answered (null: never yet),
     "device": the gateway's device name (null: not known),
     "services": [{"name": text, "active": true or false, "pid": number or null}, ...], of the last answer}

The service also keeps the web server's log small, which the server itself cannot do.
"""

import json
import os
import re
import shutil
import sys
import time

sys.path.insert(0, os.path.join(sys.path[0], "..", "lib"))
from gateway_service import GatewayService  # noqa: E402  (the path comes first)

NAME = "iot.gateway.web"
SUPERVISOR = ("iot.gateway.quorvaned", "/iot/gateway/quorvaned", "iot.gateway.quorvaned")
CONFIGURATION = ("iot.dmp.configmanager", "/iot/dmp/configmanager", "iot.dmp.configmanager")
DEVICE_KEY = "gw_system_devicename"
STATE = "/quorvane/run/web/state.json"
LOG = "/quorvane/run/logger/nginx.log"
LOG_LIMIT = 256 * 1024
PERIOD = 2
CALL_TIMEOUT = 5

LINE_BEGIN = re.compile("\\[  \033\\[(32m\\+|0;31m-)\033\\[0m  \\]  Service ")
LINE_END = re.compile(" is \033\\[(?:32mactive|0;31minactive)\033\\[0m(?:, pid is (\\d+))?\n\\Z")


def parse_report(report):
    """The services of the supervisor's report.

    Names are any text, line ends included, and a long line is cut, its own line end included: so it is where a line
    begins that tells them apart, and the sign there that tells the state.
    """
    begins = list(LINE_BEGIN.finditer(report))
    ends = [begin.start() for begin in begins[1:]] + [len(report)]
    services = []
    for begin, end in zip(begins, ends):
        rest = report[begin.end():end]
        tail = LINE_END.search(rest)
        name = rest[:tail.start()] if tail else rest.partition(" is \033")[0] + "…"
        pid = int(tail[1]) if tail and tail[1] else None
        services.append({"name": name, "active": begin[1].startswith("32m"), "pid": pid or None})
    return services


def replace(path, text):
    """Write the file in one step; its directory is made anew when it has been removed."""
    os.makedirs(os.path.dirname(path), exist_ok=True)
    with open(path + ".new", "w", encoding="ascii") as file:
        file.write(text)
    os.replace(path + ".new", path)


def trim(path, limit):
    """Empty a file that is above the limit; what it held stays beside it. Its writer has it open, so it stays too."""
    if os.path.getsize(path) > limit:
        shutil.copyfile(path, path + ".1")
        os.truncate(path, 0)


class WebState(GatewayService):
    """The service."""

    def __init__(self):
        super().__init__(NAME)
        self.reading = None
        self.services = []
        self.device = None
        self.asking = set()
        self.every(PERIOD, self.turn)
        self.every(10, self.ask_device)

    def turn(self):
        """Ask anew, write down what is known, feed the watchdog."""
        self.ask(SUPERVISOR, "get_le_status", "", (), self.take_report)
        self.write()
        try:
            trim(LOG, LOG_LIMIT)
        except OSError:
            pass  # there is none yet
        self.feed_dog("state", 15)
        return True

    def ask_device(self):
        """Ask for the device name, which can change."""
        self.ask(CONFIGURATION, "get_config", "s", (DEVICE_KEY,), self.take_device)
        return True

    def ask(self, target, member, signature, arguments, take):
        """Call the method without waiting, unless the last answer is still waited for. Errors leave all as it is."""
        if member in self.asking:
            return
        self.asking.add(member)

        def answered(*results):
            self.asking.discard(member)
            take(*results)

        self.bus.call_async(*target, member, signature, arguments, answered, lambda _error: self.asking.discard(member),
                            timeout=CALL_TIMEOUT)

    def take_report(self, report=""):
        """The supervisor's answer. It is written down at once, so that the page is never a turn behind."""
        self.services = parse_report(str(report))
        self.reading = int(time.time())
        self.write()

    def take_device(self, code=-1, value=""):
        """The configuration service's answer."""
        self.device = str(value) if code == 0 and value else None

    def write(self):
        """Write down what is known. On a full disk the page keeps the old state, and tells its age."""
        state = {"written": int(time.time()), "reading": self.reading, "device": self.device,
                 "services": self.services}
        try:
            replace(STATE, json.dumps(state))
        except OSError:
            pass


if __name__ == "__main__":
    WebState().run()
