"""One gateway under test: an install root, its catalogue, its daemon."""

import json
import os
import shutil
import signal
import subprocess
import time

from . import clock, processes
from .bus import Bus
from .startup_log import StartupLog

RUN = "/quorvane/run"
STARTUP = RUN + "/startup"
PID_FILE = STARTUP + "/quorvaned.pid"
KEY_CHAIN_LOG = STARTUP + "/deploy_sst.log"
KEY_CHAIN_LINE = f"init key-chain, cmd:./deploy_sst >{KEY_CHAIN_LOG} 2>&1"
LOGGER_LOG = RUN + "/logger/quorvaned.log"

PROBE = "probe"  # a service that is the probe
MISSING = None  # a service whose program is not there

UP = "quorvaned startup success"
NOT_RUNNING = "\nQuorvane is \033[0;31mnot running\033[0m\n"
STARTING_UP = "\nQuorvane is \033[0;31mstarting up\033[0m\n"


class Service:
    """A catalogue entry together with the program behind it."""

    def __init__(self, name, *args, bus=None, monitor=None, delay=None, program=PROBE, **more):
        self.name = name
        self.program = program
        self.entry = {"exec": name}
        words = list(args)
        if bus is not None:
            self.entry["dbus_name"] = bus
            if not any(str(word).startswith("--name=") for word in words):
                words.append(f"--name={bus}")
        if words:
            self.entry["args"] = words
        if monitor is not None:
            self.entry["monitor"] = monitor
        if delay is not None:
            self.entry["delay"] = delay
        self.entry.update(more)


class Daemon(processes.Process):
    """The supervisor itself."""

    @classmethod
    def adopt(cls, pid):
        """The daemon that a launcher has left in the background."""
        daemon = cls(pid, processes.arguments(pid))
        return daemon

    def services(self):
        """The pids of its living children."""
        return [pid for pid in processes.children(self.pid) if processes.alive(pid)]


class Gateway:
    """What a test holds in its hands."""

    def __init__(self, stage, root):
        self.stage = stage
        self.root = root
        self.bin = os.path.join(root, "bin")
        self.probe = os.path.join(root, "probe")
        self.program = os.path.join(self.bin, "quorvaned")
        self.log = StartupLog(STARTUP + "/quorvaned.log")
        self.outputs = []
        for directory in (self.bin, self.probe, os.path.join(root, "config")):
            os.makedirs(directory)
        self.link("quorvaned", "quorvaned")
        self.link("dbus-daemon", "dbus-daemon")
        self.link("mbusd.conf", "mbusd.conf")
        self.script("deploy_sst", "echo the key chain is ready")
        self.catalogue()

    # The install root

    def path(self, name):
        """A path below the install root."""
        return os.path.join(self.root, name)

    def link(self, staged, name):
        """Put a program of the stage into bin under a name."""
        target = os.path.join(self.bin, name)
        os.makedirs(os.path.dirname(target), exist_ok=True)
        if os.path.lexists(target):
            os.unlink(target)
        os.link(os.path.join(self.stage, staged), target)

    def script(self, name, body, shebang="#!/bin/sh\n", mode=0o755):
        """Put a script into bin."""
        target = os.path.join(self.bin, name)
        os.makedirs(os.path.dirname(target), exist_ok=True)
        if os.path.lexists(target):
            os.unlink(target)
        with open(target, "w", encoding="utf-8") as file:
            file.write(shebang + body + "\n")
        os.chmod(target, mode)

    def catalogue(self, *services):
        """Write the catalogue and put the services' programs in place."""
        for service in services:
            if service.program is PROBE:
                self.link("probe_service", service.name)
            elif service.program is not MISSING:
                self.script(service.name, service.program)
        self.raw_catalogue(json.dumps([service.entry for service in services], indent=1))

    def raw_catalogue(self, content):
        """Write the catalogue as it is: text or bytes."""
        with open(self.path("config/services.json"), "wb") as file:
            file.write(content if isinstance(content, bytes) else content.encode())

    def install(self, build):
        """Replace what is here by an installation of the daemon and the reference gateway from a build directory."""
        for directory in ("bin", "config"):
            shutil.rmtree(self.path(directory))
        for component in ("daemon", "gateway"):
            subprocess.run(["cmake", "--install", build, "--component", component, "--prefix", self.root], check=True,
                           stdout=subprocess.DEVNULL)

    def keep_only(self, *names):
        """Leave only these services in an installed catalogue, in its order."""
        with open(self.path("config/services.json"), encoding="utf-8") as file:
            entries = json.load(file)
        kept = [entry for entry in entries if entry["exec"] in names]
        assert len(kept) == len(names), f"the catalogue does not have all of {names}"
        self.raw_catalogue(json.dumps(kept, indent=1))

    # Running things

    def prepare_run_directory(self):
        """Make the start-up directory, so that the first lines of the log find a place."""
        os.makedirs(STARTUP, exist_ok=True)

    def command(self, *args, within=10, **how):
        """Run the program with these arguments, to its end."""
        process = processes.run([self.program, *args], within=within, **how)
        self.outputs.append(process)
        return process

    def start(self, *args, **how):
        """Start the daemon in the foreground, with --nofork as its last argument."""
        how.setdefault("output", self.path("terminal"))
        process = processes.spawn([self.program, *args, "--nofork"], **how)
        return Daemon(process.pid, process.argv, process.stdout, process.stderr)

    def launch(self, *args, **how):
        """Start the launcher; it ends when the daemon is up."""
        process = processes.spawn([self.program, *args], **how)
        self.outputs.append(process)
        return process

    def up(self, *args, within=20, **how):
        """Start the daemon in the foreground and wait until everything is up."""
        daemon = self.start(*args, **how)
        self.log.wait_for(UP, within, pid=daemon.pid)
        return daemon

    def daemon_of(self, launcher, within=10):
        """The daemon that a launcher has started: its child, later the owner of the pid file."""
        def look():
            found = processes.children(launcher.pid)
            return found[0] if found else os.path.isfile(PID_FILE) and processes.lock_owner(PID_FILE)
        return Daemon.adopt(clock.until(look, within, "the daemon"))

    def bus(self, within=10):
        """A connection to the gateway's bus."""
        return Bus(within)

    def status(self, within=20):
        """Run the status command."""
        return self.command("status", within=within)

    # What the services tell

    def events(self, name, kind=None):
        """What a service has recorded: dictionaries, of one kind of event."""
        try:
            with open(os.path.join(self.probe, name + ".jsonl"), encoding="ascii") as file:
                found = [json.loads(line) for line in file.read().splitlines()]
        except FileNotFoundError:
            return []
        return [event for event in found if kind is None or event["event"] == kind]

    def wait_event(self, name, kind, within=10, count=1, **fields):
        """Wait for the count-th event of that kind with those fields."""
        def look():
            found = [event for event in self.events(name, kind)
                     if all(event.get(key) == value for key, value in fields.items())]
            return found[count - 1] if len(found) >= count else None
        return clock.until(look, within, lambda: f"{count} x {kind} {fields or ''} of {name}: {self.events(name)}")

    def started(self, name, within=10, count=1):
        """Wait until the service has started for the count-th time; give its start event."""
        return self.wait_event(name, "start", within, count)

    def signals(self, name, pid=None):
        """The numbers of the signals that the service was sent, in order."""
        return [event["signal"] for event in self.events(name, "signal") if pid is None or event["pid"] == pid]

    def pid_of(self, name):
        """The pid of the service's last start, by the start-up log."""
        lines = self.log.find(f"run {os.path.basename(name)} pid %d")
        return lines[-1].values[0] if lines else 0

    # Sanitizers

    def collect_sanitizer_reports(self):
        """Send the reports of instrumented programs to files: the daemon in the background has no terminal.

        The daemon's handlers run on its main thread, and only while that waits, so what they call need not be
        safe at any moment; and the process ends with its threads running, on purpose. Both would be reported.
        """
        for name in ("TSAN_OPTIONS", "ASAN_OPTIONS", "UBSAN_OPTIONS"):
            own = "report_signal_unsafe=0:report_thread_leaks=0:" if name == "TSAN_OPTIONS" else ""
            os.environ[name] = own + os.environ.get(name, "") + f":log_path={self.path('sanitizer')}"

    def sanitizer_reports(self):
        """What they found; empty when all is well."""
        texts = []
        for name in sorted(os.listdir(self.root)):
            if name.startswith("sanitizer."):
                with open(self.path(name), encoding="utf-8", errors="backslashreplace") as file:
                    texts.append(file.read())
        return "\n".join(texts)[:50000]

    # After a failure

    def report(self):
        """(title, text) of everything worth reading."""
        def tail(text, lines=400):
            kept = text.splitlines()[-lines:]
            return "\n".join(kept)

        yield "start-up log", tail(self.log.bytes().decode("utf-8", "backslashreplace"))
        yield "processes", processes.tree()
        for process in processes.Process.started:
            if process.stdout is not None:
                text = f"status {process.status}\n{process.stdout}{process.stderr}"
                yield f"output of {process!r}"[:200], tail(text, 60)
        for title, path in (("logging library's log", LOGGER_LOG), ("key-chain tool's log", KEY_CHAIN_LOG),
                            ("terminal of --nofork", self.path("terminal"))):
            if os.path.isfile(path):
                with open(path, encoding="utf-8", errors="backslashreplace") as file:
                    text = file.read()
                if text:
                    yield title, tail(text, 100)
        for name in sorted(os.listdir(self.probe))[:30]:
            with open(os.path.join(self.probe, name), encoding="utf-8", errors="backslashreplace") as file:
                yield f"events of {name}", tail(file.read(), 30)

    def keep_for_inspection(self):
        """Save the private run-time files beside the install root, which outlives a failed test."""
        shutil.copytree(RUN, self.path("failed"), dirs_exist_ok=True, ignore_dangling_symlinks=True)

    def __str__(self):
        return self.root


def term(daemon, number=signal.SIGTERM):
    """End the daemon and give (exit status, seconds that it took)."""
    begin = time.monotonic()
    daemon.signal(number)
    status = daemon.wait(15)
    return status, time.monotonic() - begin
