"""Signals to the daemon at any moment."""

import os
import select
import signal
import time

from harness import clock, processes
from harness.gateway import UP, Service
from pages import Pages, came, pause
from row import at_least, at_most, none, row, sleepers
from side_by_side import by_kind, shared_out, told

from .ends import ONLY_ONE, SPARED, strangers

CAUGHT = {signal.SIGTERM: "caught Terminated(15) signal, exit", signal.SIGINT: "caught Interrupt(2) signal, exit",
          signal.SIGUSR1: "caught User defined signal 1(10) signal, exit",
          signal.SIGUSR2: "caught User defined signal 2(12) signal, exit"}
FORCED = "quorvaned exit (force)"
NORMAL = "quorvaned exit (normal)"
KEY_CHAIN = ": >../begun; exec sleep 0.1"
# What the signal meets, and up to how many seconds after that begins.
PHASES = {"key-chain tool": 0.1, "start": 0.9, "up": 0.3, "reboot": 1.8, "upgrade": 0.2, "end": 4.5}


@row("signals-any-moment", "signals at random moments",
     "SIGTERM, SIGINT, SIGUSR1, SIGUSR2, one or two of them, in the key-chain tool's time, the start, the life, a "
     "reboot, an upgrade and the five seconds of an end; in the long form 48 gateways side by side. A signal that "
     "meets the teardown of a reboot, or finds nothing started yet, leads to the normal end, 3 s later. After the "
     "request of an upgrade the first signal ends the process at once, and the second one may find nobody",
     short=12, long=5000, seconds=(120, 1200))
def signals_any_moment(run):
    """Every signal gets its line, and the daemon ends as it should and takes everything along."""
    answers, done = shared_out(run, Shots, counts=(6, 48), limits=(100, 1190))
    waits = [wait for answer in answers for wait in answer["waits"]]
    kinds = by_kind(told(answers), ("line", "status", "image", "left"))
    return [none("signals without their line", kinds["line"], sum(answer["signals"] for answer in answers)),
            none("ends with another status", kinds["status"], done),
            none("new images that did not come up", kinds["image"], sum(answer["images"] for answer in answers)),
            none("ends that left something but the spared", kinds["left"], done),
            at_least("forced exits", len(waits), run.amount // (2 if run.is_long else 6)),
            at_most("shortest forced exit below 5 s by", max([0.0] + [5.0 - wait for wait in waits]), 0, "s"),
            at_most("longest forced exit", max(waits, default=0.0),
                    5.3 if run.is_long else 5 + clock.stretched(1.5), "s")]


class Shots:
    """Runs of one gateway: start, signal, end."""

    def __init__(self, gateway, chance):
        self.gateway, self.chance = gateway, chance
        self.pages = Pages(gateway)
        self.faults, self.waits = [], []
        self.signals = self.images = 0
        gateway.prepare_run_directory()
        gateway.script("deploy_sst", KEY_CHAIN)
        gateway.catalogue(*sleepers(4), *[Service(name, program=ONLY_ONE) for name in SPARED],
                          Service("named", bus="iot.test.named", monitor=1))

    def work(self, _, times):
        """That many runs; give what came of them. Not in step with the others, which begin at the same time."""
        pause(self.chance.uniform(0, 2))
        for _ in range(times):
            self.run(self.chance.choice(list(PHASES)))
        return {"faults": self.faults, "waits": self.waits, "signals": self.signals, "images": self.images}

    def run(self, phase):
        """One."""
        self.pages.turn()
        begun = self.gateway.path("begun")
        if os.path.exists(begun):
            os.unlink(begun)
        daemon = self.gateway.start()
        self.bring_to(phase, begun, daemon)
        pause(self.chance.uniform(0, PHASES[phase]))
        numbers = self.chance.choices(list(CAUGHT), k=self.chance.choice((1, 2)))
        for place, number in enumerate(numbers):
            if place and self.chance.random() < 0.5:
                pause(self.chance.uniform(0, 0.02))
            daemon.signal(number)  # nobody has waited for it, so there is somebody to signal, if only a zombie
        self.follow(f"{phase} {[int(number) for number in numbers]}", phase, daemon, numbers)

    def bring_to(self, phase, begun, daemon):
        """Let the daemon come to where the phase begins."""
        if phase == "key-chain tool":
            came(lambda: os.path.exists(begun), 20)
            return
        if phase == "start":
            self.pages.wait_for("initialize the running environment", 20)
            return
        self.pages.wait_for(UP, 30)
        if phase == "reboot":
            self.gateway.bus().reboot()
        elif phase == "upgrade":
            self.gateway.bus().start_upgrade()
        elif phase == "end":
            daemon.signal(signal.SIGTERM)
            self.pages.wait_for(CAUGHT[signal.SIGTERM], 5)

    def follow(self, what, phase, daemon, numbers):
        """See to what the last signal that was caught leads."""
        handle = os.pidfd_open(daemon.pid)
        if not came(lambda: self.are_caught(phase, set(numbers)), 4):
            self.faults.append(f"line: {what}: {self.text()[-600:]}")
        self.signals += len(self.caught(set(numbers)) if phase == "upgrade" else set(numbers))
        if self.last_caught() == CAUGHT[signal.SIGUSR2] and came(self.is_up_again, 30):
            self.images += 1
            phase = "up"
            daemon.signal(signal.SIGTERM)
        ended = bool(select.select([handle], [], [], 20)[0])
        end = time.time()
        os.close(handle)
        if not ended or daemon.wait() != 0:
            self.faults.append(f"{'status' if ended else 'image'}: {what}: {daemon.status}: {self.text()[-600:]}")
            if not ended:
                daemon.signal(signal.SIGKILL)
                daemon.wait()
        if not came(lambda: not strangers(), 1):
            self.faults.append(f"left: {what}: {[processes.arguments(pid) for pid in strangers()]}")
        if phase != "upgrade":
            self.measure(what, phase, end)

    def are_caught(self, phase, numbers):
        """Whether each has its line. After the request of an upgrade the first one ends the process, unless that is
        SIGUSR2: its new image catches the other. The end has begun with a signal of its own."""
        text = self.gateway.log.bytes()
        if phase == "upgrade":
            lines = self.caught(numbers)
            return lines and (lines[0] != signal.SIGUSR2 or len(lines) == len(numbers))
        own = {signal.SIGTERM} if phase == "end" else set()
        return all(text.count(CAUGHT[number].encode()) > (number in own) for number in numbers)

    def caught(self, numbers):
        """Those that have their line, in the order of the lines."""
        text = self.gateway.log.bytes()
        found = {number: text.find(CAUGHT[number].encode()) for number in numbers}
        return sorted((number for number in numbers if found[number] >= 0), key=found.get)

    def text(self):
        """The page."""
        return self.gateway.log.bytes().decode("utf-8", "backslashreplace")

    def last_caught(self):
        """The message of the last signal."""
        lines = [event.text for event in self.gateway.log.find("caught %s(%d) signal, exit")]
        return lines[-1] if lines else ""

    def is_up_again(self):
        """Whether the image that followed the last SIGUSR2 is up."""
        text = self.gateway.log.bytes()
        return text.rfind(UP.encode()) > text.rfind(CAUGHT[signal.SIGUSR2].encode())

    def measure(self, what, phase, end):
        """How long the end took from the first signal of the last image on."""
        events = self.gateway.log.events()
        images = [event.index for event in events if event.text == CAUGHT[signal.SIGUSR2]]
        first = next((event for event in events if event.text in CAUGHT.values()
                      and event.index > (images[-1] if images else -1)), None)
        if first is None or events[-1].text not in (FORCED, NORMAL) and FORCED not in [one.text for one in events]:
            self.faults.append(f"status: {what}: no orderly exit: {self.text()[-600:]}")
            return
        image = [event.text for event in events if (images[-1] if images else -1) < event.index < first.index]
        if events[-1].text != NORMAL:
            self.waits.append(end - first.time.timestamp())
        elif phase != "reboot" and "running dbus daemon" in image:
            self.faults.append(f"status: {what}: not forced: {self.text()[-600:]}")
