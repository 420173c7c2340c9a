"""What is said on the gateway's bus, by whom: a monitor in the background."""

import json
import os

from . import clock, processes
from .bus import ADDRESS, CONFIGURATION


class BusRecord:
    """A record of all messages from the moment it exists until the bus ends."""

    def __init__(self):
        # Line by line, also into a pipe.
        self._monitor = processes.spawn(["/usr/bin/stdbuf", "-oL", "/usr/bin/busctl", f"--address={ADDRESS}", "monitor",
                                         "--json=short"])
        clock.until(lambda: "Monitoring bus message stream." in str(self._monitor.stderr), 10,
                    lambda: str(self._monitor.stderr))

    def messages(self):
        """All messages, as dictionaries."""
        text = str(self._monitor.stdout)
        return [json.loads(line) for line in text[:text.rfind("\n") + 1].splitlines()]

    def configuration_calls(self, sender=None):
        """The calls to the configuration service, as short texts, in order; of one unique name."""
        found = []
        for message in self.messages():
            if message["type"] == "method_call" and message.get("interface") == CONFIGURATION[2] \
                    and sender in (None, message["sender"]):
                data = message["payload"]["data"]
                words = [message["member"].removesuffix("_config"), "=".join(data[:2])]
                words += ["protected"] if data[2:] == [True] else []
                found.append(" ".join(word for word in words if word))
        return found

    def wait_for_call(self, text, within=10):
        """Wait until a call whose short text begins like this has been made."""
        clock.until(lambda: any(call.startswith(text) for call in self.configuration_calls()), within,
                    lambda: f"{text} among {self.configuration_calls()}")

    def codes(self):
        """(member, code) of every answered call to the configuration service, in the order of the answers."""
        asked = {}
        found = []
        for message in self.messages():
            if message["type"] == "method_call" and message.get("interface") == CONFIGURATION[2]:
                asked[message["sender"], message["cookie"]] = message["member"]
            elif message["type"] == "method_return":
                member = asked.pop((message["destination"], message["reply_cookie"]), None)
                if member is not None:
                    found.append((member, message["payload"]["data"][0]))
        return found


def files_with(text, top):
    """The files below a directory that hold the text."""
    found = []
    for directory, _, names in os.walk(top):
        for name in names:
            path = os.path.join(directory, name)
            if os.path.isfile(path) and not os.path.islink(path):
                with open(path, "rb") as file:
                    if text.encode() in file.read():
                        found.append(path)
    return sorted(found)
