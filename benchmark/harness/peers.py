"""Other supervisors, on the same services. They are unpacked beside the sources and run in private directories only."""

import ctypes
import os
import shutil
import signal
import subprocess

from gateway import BUILD, REPOSITORY, Failed, program, until
from slots import Slots

UNPACKED = os.path.join(REPOSITORY, "build-packages")
PROGRAMS = os.path.join(UNPACKED, "usr", "bin")
LIBRARIES = os.path.join(UNPACKED, "usr", "lib", "x86_64-linux-gnu")
PLACE = "/tmp/peer"
CLONE_NEWNS, MS_REC, MS_PRIVATE = 0x00020000, 0x4000, 0x40000


def path_of(name):
    """One of the unpacked programs."""
    return os.path.join(PROGRAMS, name)


def show_at_home():
    """In a process that is to execute: the unpacked programs are seen in /usr/bin, among the machine's own."""
    libc = ctypes.CDLL(None, use_errno=True)
    layers = f"lowerdir={PROGRAMS}:/usr/bin".encode()
    if libc.unshare(CLONE_NEWNS) or libc.mount(b"", b"/", b"", ctypes.c_ulong(MS_REC | MS_PRIVATE), None) or \
            libc.mount(b"overlay", b"/usr/bin", b"overlay", ctypes.c_ulong(0), layers):
        raise OSError(ctypes.get_errno(), "no layers over /usr/bin")


def children_of():
    """The children of every process."""
    children = {}
    for entry in os.listdir("/proc"):
        if entry.isdigit():
            try:
                with open(f"/proc/{entry}/stat", encoding="utf-8", errors="replace") as file:
                    parent = int(file.read().rpartition(")")[2].split()[1])
            except OSError:
                continue
            children.setdefault(parent, []).append(int(entry))
    return children


def is_service(pid):
    """The process is one of the supervised services."""
    try:
        return os.readlink(f"/proc/{pid}/exe") == program("slot_service")
    except OSError:
        return False


class Peer:
    """Use as a context: it has been started inside, and is gone with its services afterwards."""

    name = ""
    most = 500  # services that it is asked to start
    before = None  # run in its process before it is executed

    def __init__(self, count):
        self.count = count
        self.slots = Slots(count, self.name)
        self.top = None
        self.place = f"{PLACE}-{self.name}"
        self.environment = {"PATH": f"{PROGRAMS}:/usr/bin:/bin", "SLOTS": self.slots.path}
        self.libraries = {}  # the environment that its own programs want besides

    def prepare(self):
        """Write what it reads; gives its command."""
        raise NotImplementedError

    def status(self):
        """The command that shows the state of all services."""
        raise NotImplementedError

    def __enter__(self):
        shutil.rmtree(self.place, ignore_errors=True)
        os.makedirs(self.place, mode=0o700)
        command = self.prepare()
        self.slots.clear()
        with open(f"{self.place}/output", "wb") as output:
            try:
                self.top = subprocess.Popen([program("begin"), self.slots.begun, *command],
                                            env={**self.environment, **self.libraries}, stdin=subprocess.DEVNULL,
                                            stdout=output, stderr=output, cwd=self.place, preexec_fn=self.before)
            except subprocess.SubprocessError:
                raise Failed(f"{self.name} cannot be run here") from None
        return self

    def started(self, within):
        """Wait until all services have started; gives what they told."""
        told = self.slots.wait(within)
        if told is None:
            raise Failed(f"{self.name} has not started {self.count} services within {within} s: {self.said()}")
        return told

    def said(self):
        """The end of what it has put out."""
        with open(f"{self.place}/output", encoding="utf-8", errors="replace") as file:
            return file.read()[-500:].strip()

    def pids(self):
        """All its processes, without the services."""
        children = children_of()
        found, rest = [], [self.top.pid]
        while rest:
            pid = rest.pop()
            if not is_service(pid):
                found.append(pid)
                rest += children.get(pid, [])
        return found

    def __exit__(self, *_):
        # From the top, or the ones below would be started again.
        for _ in range(3):
            for pid in self.pids():
                try:
                    os.kill(pid, signal.SIGKILL)
                except ProcessLookupError:
                    pass
        self.top.wait()
        until(self.is_gone, 20, f"the end of {self.name}")

    @staticmethod
    def is_gone():
        """Nothing of it is left: what is still found is killed."""
        left = [int(pid) for pid in os.listdir("/proc") if pid.isdigit() and is_of_peer(pid)]
        for pid in left:
            try:
                os.kill(pid, signal.SIGKILL)
            except ProcessLookupError:
                pass
        return not left


def is_of_peer(pid):
    """The process, not yet a zombie, is a supervisor or a service that one has started."""
    try:
        path = os.readlink(f"/proc/{pid}/exe")
    except OSError:
        return False
    return path.startswith(UNPACKED + "/") or path.startswith(os.path.join(BUILD, "benchmark", "slot_service"))


class ByDirectories(Peer):
    """A supervisor that wants a directory for each service, with its program in it."""

    def directories(self):
        """The services' directories."""
        return [f"{self.place}/services/{number}" for number in range(self.count)]

    def prepare(self):
        for directory in self.directories():
            os.makedirs(directory)
            # The program itself in the place of a script: no shell's time is charged to the supervisor.
            os.symlink(program("slot_service"), f"{directory}/run")
        return self.command(f"{self.place}/services")

    def command(self, directory):
        """What is started on the directory of directories."""
        raise NotImplementedError


class Runit(ByDirectories):
    """runit"""

    name = "runit"

    def command(self, directory):
        return [path_of("runsvdir"), directory]

    def status(self):
        return [path_of("sv"), "status", *self.directories()]


class S6(ByDirectories):
    """s6"""

    name = "s6"
    before = staticmethod(show_at_home)  # it looks for its own programs at fixed places

    def command(self, directory):
        self.libraries["LD_LIBRARY_PATH"] = LIBRARIES
        return [path_of("s6-svscan"), directory]

    def status(self):
        # Its command shows one service at a time. Our own command, beside it, is not to look for libraries there.
        words = " ".join(self.directories())
        return ["/bin/sh", "-c", f"export LD_LIBRARY_PATH={LIBRARIES}; "
                f"for each in {words}; do {path_of('s6-svstat')} $each || exit 1; done"]


class Daemontools(ByDirectories):
    """daemontools"""

    name = "daemontools"

    def command(self, directory):
        return [path_of("svscan"), directory]

    def status(self):
        return [path_of("svstat"), *self.directories()]


class Supervisor(Peer):
    """supervisor"""

    name = "supervisor"

    def prepare(self):
        self.environment["PYTHONPATH"] = os.path.join(UNPACKED, "usr", "lib", "python3", "dist-packages")
        lines = ["[unix_http_server]", f"file={self.place}/socket", "[supervisord]", f"logfile={self.place}/log",
                 f"pidfile={self.place}/pid", f"childlogdir={self.place}", "minfds=8192", "nodaemon=true",
                 "[rpcinterface:supervisor]",
                 "supervisor.rpcinterface_factory=supervisor.rpcinterface:make_main_rpcinterface",
                 "[supervisorctl]", f"serverurl=unix://{self.place}/socket"]
        for number in range(self.count):
            lines += [f"[program:slot{number:04}]", f"command={program('slot_service')} {self.slots.path} {number}",
                      "stdout_logfile=NONE", "stderr_logfile=NONE", "startsecs=0"]
        with open(f"{self.place}/conf", "w", encoding="ascii") as file:
            file.write("\n".join(lines) + "\n")
        return ["/usr/bin/python3", path_of("supervisord"), "-n", "-c", file.name]

    def status(self):
        return ["/usr/bin/python3", path_of("supervisorctl"), "-c", f"{self.place}/conf", "status"]


class Monit(Peer):
    """monit"""

    name = "monit"
    most = 100  # it starts them one by one and looks for each every so often

    def prepare(self):
        lines = ["set daemon 1", f"set pidfile {self.place}/pid", f"set statefile {self.place}/state",
                 f"set idfile {self.place}/id", f"set httpd unixsocket {self.place}/socket allow user:word"]
        for number in range(self.count):
            pid_file = f"{self.place}/pid-{number}"
            lines += [f"check process slot{number:04} with pidfile {pid_file}",
                      f'  start program = "{program("slot_service")} {self.slots.path} {number} {pid_file}"']
        with open(f"{self.place}/conf", "w", encoding="ascii") as file:
            file.write("\n".join(lines) + "\n")
        os.chmod(file.name, 0o600)
        return [path_of("monit"), "-I", "-c", file.name]

    def status(self):
        return [path_of("monit"), "-c", f"{self.place}/conf", "summary"]


PEERS = (Runit, S6, Daemontools, Supervisor, Monit)
