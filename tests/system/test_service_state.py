"""What the daemon gives to each process that it starts, whoever has started it, and however often."""

import json
import os
import re
import resource
import signal

import pytest
from harness import clock, processes
from harness.facts import Facts
from harness.gateway import KEY_CHAIN_LOG, MISSING, PID_FILE, UP, Daemon, Service

NONE = "0" * 16
NICE = 5
ENVIRONMENT = {"PATH": "/usr/bin:/bin", "OWN": "a value", "LD_LIBRARY_PATH": "/of/the/starter"}
SERVICES = ("config", "plain", "nginx", "scene", "startSC.sh", "fota", "RemoteTerminalDaemon")
# Taken by the probe before it changes any of it.
FIRST_SEEN = ("Umask", "SigBlk", "SigIgn", "SigPnd", "pdeathsig", "policy", "cwd", "argv", "fds", "ppid", "pgid", "sid")
# These tell by a script what they were given, since they have to be, or to end as, something else.
TOLD = ("dbus-daemon", "deploy_sst", "stopSC.sh")
DEATH_SIGNALS = {"nginx": signal.SIGTERM, "fota": 0, "RemoteTerminalDaemon": 0}

# It asks nobody else, and changes nothing of itself before it has looked. The interpreter itself ignores two signals.
TELL = """
import ctypes, json, os, sys
def read(name):
    with open("/proc/self/" + name) as file:
        return file.read()
death_signal = ctypes.c_int()
ctypes.CDLL(None).prctl(2, ctypes.byref(death_signal))
numbers = [number for number in os.listdir("/proc/self/fd") if os.path.exists("/proc/self/fd/" + number)]
told = {name: read(name) for name in ("status", "stat", "limits", "environ")}
told.update(cwd=os.getcwd(), pid=os.getpid(), pdeathsig=death_signal.value,
            fds=sorted(number + "=" + os.readlink("/proc/self/fd/" + number) for number in numbers))
with open("%(told)s", "a") as file:
    file.write(json.dumps(told) + chr(10))
%(then)s
"""
IGNORED_BY_THE_INTERPRETER = 1 << (signal.SIGPIPE - 1) | 1 << (signal.SIGXFSZ - 1)
SET_BY_THE_SHELL = ("PWD", "OLDPWD", "SHLVL", "_")


def be_hostile():
    """Leave nothing as a service may expect it to be."""
    os.dup2(os.open("/etc/passwd", os.O_RDONLY), 7)
    signal.signal(signal.SIGCHLD, signal.SIG_IGN)
    signal.signal(signal.SIGINT, signal.SIG_IGN)
    signal.pthread_sigmask(signal.SIG_BLOCK, [signal.SIGTERM, signal.SIGHUP])
    resource.setrlimit(resource.RLIMIT_NOFILE, (400, 500))
    os.sched_setscheduler(0, os.SCHED_BATCH, os.sched_param(0))
    os.nice(NICE)


def inherited(read):
    """What a process has of its starter, by a function that reads files of its /proc directory."""
    status = dict(line.split(":", 1) for line in read("status").splitlines())
    numbers = read("stat").rpartition(")")[2].split()
    of_user = ("Uid", "Gid", "Groups", "NoNewPrivs", "Seccomp", "CapInh", "CapPrm", "CapEff", "CapBnd", "CapAmb")
    return {**{name: status[name].strip() for name in ("Umask", *of_user)}, "limits": read("limits"),
            "nice": int(numbers[16]), "policy": int(numbers[38]), "ppid": int(numbers[1]), "pgid": int(numbers[2]), "sid": int(numbers[3])}


def environment(text):
    """The environment as a dictionary; what stands there twice is an error."""
    entries = [entry.partition("=")[::2] for entry in text.split("\0") if entry]
    assert len(dict(entries)) == len(entries), entries
    return dict(entries)


class Stack:
    """A gateway with everything that the daemon starts in a way of its own."""

    def __init__(self, gateway):
        self.gateway = gateway
        self.seen = {name: set() for name in SERVICES + TOLD}
        os.makedirs(gateway.path("web/gateway"))
        gateway.link("probe_service", "../openresty/nginx/sbin/nginx")
        gateway.link("dbus-daemon", "../real/dbus-daemon")
        for name in TOLD:
            then = f'os.execv("{gateway.path("real/dbus-daemon")}", sys.argv)' if name == "dbus-daemon" else ""
            gateway.script(name, TELL % {"told": self.told(name), "then": then}, shebang="#!/usr/bin/python3 -ISB\n")
        gateway.catalogue(
            Service("config", "--config=any=value", bus="iot.dmp.configmanager", monitor=1),
            Service("plain", "word", bus="iot.test.plain", monitor=1),
            Service("nginx", "-p", "../web/gateway", monitor=1, program=MISSING),
            Service("scene", monitor=1), Service("startSC.sh", bus="iot.test.script", monitor=1),
            Service("fota", monitor=1), Service("RemoteTerminalDaemon", monitor=1))

    def started_services(self, name):
        """(pid, what it was given) of all starts of a service; None where the process has gone since."""
        for event in self.gateway.events(name, "start"):
            pid = event["pid"]
            try:
                given = inherited(lambda file, pid=pid: processes.proc(pid, file))
            except (KeyError, IndexError, ValueError):
                continue
            given.update({field: event[field] for field in FIRST_SEEN})
            given["environment"] = environment(processes.proc(pid, "environ"))
            yield pid, given

    def told(self, name):
        """Where a program tells what it was given."""
        return self.gateway.path(name + ".told")

    def told_programs(self, name):
        """The same of the programs that tell it themselves."""
        path = self.told(name)
        for told in [json.loads(line) for line in open(path, encoding="utf-8")] if os.path.exists(path) else []:
            status = dict(line.split(":", 1) for line in told["status"].splitlines())
            given = {**inherited(told.get), **{field: told[field] for field in ("cwd", "pdeathsig", "fds")},
                     **{field: status[field].strip() for field in ("SigBlk", "SigPnd")},
                     "SigIgn": f"{int(status['SigIgn'], 16) & ~IGNORED_BY_THE_INTERPRETER:016x}",
                     "environment": environment(told["environ"])}
            if name == "deploy_sst":  # started by a shell of the daemon's
                given["environment"] = {key: value for key, value in given["environment"].items()
                                        if key not in SET_BY_THE_SHELL}
                del given["ppid"], given["pdeathsig"]
            yield told["pid"], given

    def given(self, name, within):
        """Wait for processes of that name that were not seen yet; give what they were given, by their pids."""
        find = self.told_programs if name in TOLD else self.started_services
        fresh = clock.until(lambda: {pid: given for pid, given in find(name) if pid not in self.seen[name]}, within,
                            f"a new process of {name}")
        self.seen[name].update(fresh)
        return fresh

    def look(self, names, within=20):
        """What the new processes of these names were given."""
        return {name: self.given(name, within) for name in names}


def expected(stack, name, daemon, umask):
    """What a process of that name has to be given."""
    gateway = stack.gateway
    own = inherited(daemon.proc)
    wanted = {**own, "ppid": daemon.pid, "nice": os.nice(0) + NICE, "policy": os.SCHED_OTHER, "cwd": gateway.bin,
              "Umask": f"{umask | (0o27 if name == 'deploy_sst' else 0):04o}", "environment": dict(ENVIRONMENT),
              "SigBlk": NONE, "SigIgn": NONE, "SigPnd": NONE,
              "fds": ["0=/dev/zero", "1=/dev/null", "2=/dev/null"]}
    wanted["pdeathsig"] = DEATH_SIGNALS.get(name, signal.SIGKILL)
    if name == "deploy_sst":
        wanted["fds"] = ["0=/dev/zero", f"1={KEY_CHAIN_LOG}", f"2={KEY_CHAIN_LOG}"]
    if name in SERVICES:
        wanted["argv"] = [name, *{"config": ["--config=any=value", "--name=iot.dmp.configmanager"],
                                  "plain": ["word", "--name=iot.test.plain"], "nginx": ["-p", "./"],
                                  "scene": ["-level=0"], "startSC.sh": ["--name=iot.test.script"]}.get(name, [])]
    if name == "nginx":
        wanted["cwd"] = gateway.path("web/gateway")
        wanted["environment"]["LD_LIBRARY_PATH"] += f":{gateway.root}/lib"
    return wanted


@pytest.mark.takes(60)
@pytest.mark.limit(240)
@pytest.mark.parametrize("background", [False, True], ids=["in the foreground", "in the background"])
def test_whoever_starts_it_and_however_often_each_process_is_given_the_same(gateway, background):
    stack = Stack(gateway)
    how = {"env": dict(ENVIRONMENT), "umask": 0o27, "prepare": be_hostile, "stdin": "/dev/zero"}
    if background:
        gateway.launch(**how).wait(30)
        gateway.log.wait_for(UP)
        daemon = Daemon.adopt(processes.lock_owner(PID_FILE))
    else:
        daemon = gateway.up(**how)
    umask = 0 if background else 0o27
    wanted = {name: expected(stack, name, daemon, umask) for name in SERVICES + TOLD}
    own = inherited(daemon.proc)
    with Facts() as fact:
        fact("the session is the starter's, or one of its own",
             own["sid"] == (daemon.pid if background else os.getsid(0)), own["sid"])
        fact("the limits are the starter's", re.search(r"^Max open files +400 +500 ", own["limits"], re.MULTILINE))

        def hold(phase, given):
            for name, fields in ((name, fields) for name, all_of in given.items() for fields in all_of.values()):
                wrong = {field: (value, wanted[name][field]) for field, value in fields.items()
                         if value != wanted[name][field]}
                fact(f"{name} is given what it should after {phase}", not wrong, wrong)

        def up_again(deed):
            up = gateway.log.find(UP)[-1]
            deed()
            gateway.log.wait_for(UP, 30, after=up)

        given = stack.look((*SERVICES, "dbus-daemon", "deploy_sst"))
        hold("the start", given)
        for pid in (pid for name in SERVICES for pid in given[name]):
            os.kill(pid, signal.SIGKILL)
        # The end of a script is not noticed by itself.
        gateway.bus().feed("iot.test.script", "main", 1)
        hold("a restart", stack.look(SERVICES, 50))
        up_again(gateway.bus().reboot)
        hold("a reboot", stack.look((*SERVICES, "dbus-daemon", "stopSC.sh")))
        gateway.bus().start_upgrade()
        clock.until(lambda: not processes.running("dbus-daemon"), 10, "the teardown")
        up_again(lambda: daemon.signal(signal.SIGUSR2))
        hold("an upgrade", stack.look(SERVICES + TOLD))
        up_again(lambda: daemon.signal(signal.SIGUSR2))
        hold("another image of the daemon", stack.look((*SERVICES, "dbus-daemon", "deploy_sst")))
    assert daemon.alive()
