"""The same process over and over: reboots and upgrades."""

import json
import os
import signal

from harness import processes
from harness.gateway import PID_FILE, UP, Service
from pages import Pages, came, pause
from row import at_least, none, row
from watchers import Load, LockWatch

FINISH = "finsh upgrade quorvane!"
NAMES = [f"s{number}" for number in range(6)]


def kill(pids):
    """Kill those that still live."""
    for pid in pids:
        try:
            os.kill(pid, signal.SIGKILL)
        except ProcessLookupError:
            pass  # the death of the bus daemon has ended it, or was faster


def end(pids):
    """Kill those that still live, and wait for it."""
    kill(pids)
    came(lambda: not any(processes.alive(pid) for pid in pids), 10)


def open_descriptors(daemon):
    """How many it has."""
    return len(os.listdir(f"/proc/{daemon.pid}/fd"))


def is_up(gateway):
    """Whether the last image of the page's images is up."""
    text = gateway.log.bytes()
    return text.rfind(UP.encode()) > text.rfind(FINISH.encode())


def recorded(gateway, kind):
    """What the services have recorded, of one kind of event; other lines are not read."""
    found = []
    for name in sorted(os.listdir(gateway.probe)):
        with open(os.path.join(gateway.probe, name), encoding="ascii") as file:
            found += [json.loads(line) for line in file if f'"event": "{kind}"' in line]
    return found


@row("upgrades", "upgrades in a row",
     "SIGUSR2; every second one inside a storm of service deaths, half of them sent twice within 10 ms: twice it is to "
     "take effect when the line of the first one stood before the second was sent; else both may be one. SIGUSR2 "
     "leaves the services of the old image alive: the test ends them. Somebody waits for the lock and would get it "
     "when it is free for longer than a scheduling turn; shorter moments are not seen", short=12, long=1000,
     seconds=(90, 1200))
def upgrades(run):
    """Each takes effect, in the same process, which never lets go of its lock and hands nothing down."""
    gateway = run.gateway()
    gateway.catalogue(*[Service(name, monitor=1, program="exec sleep infinity") for name in NAMES],
                      Service("probe", monitor=1), Service("named", bus="iot.test.named", monitor=1))
    daemon = gateway.up()
    lock = LockWatch(PID_FILE)
    pages = Pages(gateway)
    descriptors = None
    failed = twice = 0
    for number in range(run.amount):
        pages.turn()
        wanted = 1
        old = daemon.services()
        run.chance.shuffle(old)
        if number % 2:  # a part of them before the signal, a part after it
            kill(old[:run.chance.randrange(len(old))])
        daemon.signal(signal.SIGUSR2)
        if number % 4 > 1:
            pause(run.chance.uniform(0, 0.01))
            wanted += gateway.log.has(FINISH)  # else the first one may still be pending, and the two are one
            twice += wanted == 2
            daemon.signal(signal.SIGUSR2)
        if number % 2 == 0:
            pages.wait_for(UP, 20)
        end(old)
        up = pages.wait_for(FINISH, 20, count=wanted) and came(lambda: is_up(gateway), 30)
        times = gateway.log.count(FINISH)
        failed += not (up and daemon.alive() and wanted <= times <= (2 if number % 4 > 1 else 1))
        descriptors = descriptors or open_descriptors(daemon)
        run.progress(number)
    came(lambda: open_descriptors(daemon) <= descriptors, 3)
    starts = recorded(gateway, "start")
    gone = lock.was_free()
    lock.stop()
    return [at_least("upgrades sent twice, the second behind the first one's line", twice, run.amount // 20),
            none("upgrades without effect, or not up after it in the same process", failed, run.amount),
            none("times that whoever waits for the lock got it", int(gone), None),
            none("services started with a blocked signal",
                 sum(int(start["SigBlk"], 16) != 0 for start in starts), len(starts)),
            none("descriptors gained", max(0, open_descriptors(daemon) - descriptors), descriptors)]


@row("cycles", "restarts, cycles and upgrades",
     "\"reboot\" (every third time) or SIGUSR2 under load; the services record their signals. What SIGUSR2 leaves "
     "alive of the old image the test ends, after the new one is up", short=9, long=1000, seconds=(90, 1200))
def cycles(run):
    """No service gets a signal, or ends by one, that no line announces."""
    gateway = run.gateway()
    gateway.catalogue(*[Service(name, monitor=1) for name in NAMES], Service("named", bus="iot.test.named", monitor=1))
    daemon = gateway.up()
    load = Load()
    pages = Pages(gateway)
    account = Account()
    failed = 0
    for number in range(run.amount):
        account.take(pages.turn())
        if number % 3 == 0:
            gateway.bus().reboot()
            failed += not pages.wait_for(UP, 30)
        else:
            old = daemon.services()
            daemon.signal(signal.SIGUSR2)
            failed += not pages.wait_for(UP, 30)
            # Those that are dead by now have not been ended here: the lines must tell by whom.
            old = [pid for pid in old if processes.alive(pid)]
            account.announced |= {(pid, signal.SIGKILL) for pid in old}
            end(old)
        run.progress(number)
    load.stop()
    came(lambda: len(daemon.services()) == len(NAMES) + 2, 10)
    left = abs(len(daemon.services()) - len(NAMES) - 2)
    for _ in range(2):
        account.take(pages.turn())
    told = [(event["pid"], event["signal"]) for event in recorded(gateway, "signal")]
    return [none("cycles that did not come up", failed, run.amount),
            none("signals that no log line announces", len(account.unannounced(told)), len(told) + len(account.deaths)),
            none("services too many or too few at the end", left, len(NAMES) + 2)]


class Account:
    """Which process was to be sent which signal, and which one ended by which."""

    def __init__(self):
        self.announced, self.deaths = set(), set()

    def take(self, events):
        """Follow the log."""
        for event in events:
            if event.matches("kill -%d %s(%d)"):
                self.announced.add((event.values[2], event.values[0]))
            elif event.matches("stop dbus-daemon, kill -%d %d") or event.matches("start dbus-daemon, kill -%d %d"):
                self.announced.add((event.values[1], event.values[0]))
            elif event.matches("wait pid(%d) status(%d)") and event.values[1] & 0x7f:
                self.deaths.add((event.values[0], event.values[1] & 0x7f))

    def unannounced(self, told):
        """The signals that were told of by their receivers, or ended a process, and stand nowhere."""
        return (self.deaths | set(told)) - self.announced
