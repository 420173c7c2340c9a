"""Processes: starting them, how they ended, what runs."""

import os
import signal
import struct
import threading
import time

from . import clock
from .sandbox import SLEEPER

# Wait statuses of everything that was reaped, by pid. Orphans end here as well.
_ended = {}


def reap():
    """Collect whatever ended."""
    while True:
        try:
            pid, status = os.waitpid(-1, os.WNOHANG)
        except ChildProcessError:
            return
        if pid == 0:
            return
        _ended[pid] = os.waitstatus_to_exitcode(status)


class Output:
    """One stream of a process, read as it comes: pieces with the time of their arrival."""

    def __init__(self, descriptor):
        self.pieces = []
        self.closed_at = None
        self._descriptor = descriptor
        threading.Thread(target=self._read, daemon=True).start()

    def _read(self):
        while piece := os.read(self._descriptor, 65536):
            self.pieces.append((time.monotonic(), piece))
        self.closed_at = time.monotonic()
        os.close(self._descriptor)

    def __bytes__(self):
        return b"".join(piece for _, piece in list(self.pieces))

    def __str__(self):
        return bytes(self).decode("utf-8", "backslashreplace")

    def wait_closed(self, within):
        """Wait until nobody holds the other end any more."""
        clock.until(lambda: self.closed_at is not None, within, "the end of the output")

    def wait_for(self, text, within):
        """Wait for a piece of text; give the time of its arrival."""
        clock.until(lambda: text in str(self), within, lambda: f"{text!r} in the output {str(self)!r}")
        seen = b""
        for at, piece in list(self.pieces):
            seen += piece
            if text.encode() in seen:
                return at
        raise AssertionError("unreachable")


class Process:
    """A process that the test looks at: one that it started, or an orphan that it inherited."""

    started = []  # everything that was started with spawn(), for the report of a failure

    def __init__(self, pid, argv=(), stdout=None, stderr=None, started_at=None):
        self.pid = pid
        self.argv = list(argv)
        self.stdout = stdout
        self.stderr = stderr
        # Never later than the true moment: what a test measures from here is at least as long as it was.
        self.started_at = started_at or time.monotonic()
        self.ended_at = None

    def __repr__(self):
        return f"<process {self.pid} {' '.join(map(str, self.argv))}>"

    @property
    def status(self):
        """None while it runs; else its exit status, or minus the number of the signal that killed it."""
        if self.pid not in _ended:
            reap()
        if self.pid in _ended and self.ended_at is None:
            self.ended_at = time.monotonic()
        return _ended.get(self.pid)

    def wait(self, within=10):
        """Wait for its end and give its status."""
        clock.until(lambda: self.status is not None, within, f"the end of {self!r}")
        # Its last words are on their way; others may hold the same output, so they are not insisted on.
        for stream in (self.stdout, self.stderr):
            deadline = time.monotonic() + 1
            while stream is not None and stream.closed_at is None and time.monotonic() < deadline:
                time.sleep(0.002)
        return self.status

    def signal(self, number):
        """Send it a signal; give the moment."""
        at = time.monotonic()
        os.kill(self.pid, number)
        return at

    def alive(self):
        """It exists and is no zombie."""
        return alive(self.pid)

    def proc(self, name):
        """The content of a file of its /proc directory."""
        return proc(self.pid, name)


def spawn(argv, *, stdin="/dev/null", output=True, stderr=None, cwd=None, env=None, umask=None, prepare=None):
    """Start a program.

    output: True reads its standard output and error; a path lets it write there; None closes both.
    stdin: a path, or None for a closed one. prepare: runs in the child just before exec.
    """
    if output is True:
        out_read, out_write = os.pipe()
        err_read, err_write = os.pipe()
    begin = time.monotonic()
    pid = os.fork()
    if pid == 0:
        try:
            signal.setitimer(signal.ITIMER_REAL, 0)
            for number in (signal.SIGALRM, signal.SIGPIPE, signal.SIGXFSZ, signal.SIGINT, signal.SIGHUP, signal.SIGTERM):
                signal.signal(number, signal.SIG_DFL)
            if cwd is not None:
                os.chdir(cwd)
            if umask is not None:
                os.umask(umask)
            if output is True:
                os.dup2(out_write, 1)
                os.dup2(err_write, 2)
            elif output is not None:
                file = os.open(output, os.O_WRONLY | os.O_CREAT | os.O_APPEND, 0o644)
                os.dup2(file, 1)
                os.dup2(file, 2)
            if stdin is not None:
                os.dup2(os.open(stdin, os.O_RDONLY), 0)
            if output is None:
                os.closerange(1, 3)
            if stdin is None:
                os.close(0)
            if prepare is not None:
                prepare()
            os.execve(argv[0], [os.fsencode(word) for word in argv], dict(os.environ if env is None else env))
        finally:
            os._exit(127)
    if output is True:
        os.close(out_write)
        os.close(err_write)
        process = Process(pid, argv, Output(out_read), Output(err_read), started_at=begin)
    else:
        process = Process(pid, argv, started_at=begin)
    Process.started.append(process)
    return process


def run(argv, within=10, **how):
    """Start a program and wait for its end."""
    process = spawn(argv, **how)
    process.wait(within)
    if process.stdout is not None:
        process.stdout.wait_closed(within)
        process.stderr.wait_closed(within)
    return process


def proc(pid, name):
    """The content of a file of a process's /proc directory; empty when the process is gone."""
    try:
        with open(f"/proc/{pid}/{name}", "rb") as file:
            return file.read().decode("utf-8", "backslashreplace")
    except OSError:
        return ""


def link(pid, name):
    """The target of a link of a process's /proc directory; empty when it cannot be read."""
    try:
        return os.readlink(f"/proc/{pid}/{name}")
    except OSError:
        return ""


def status_field(pid, name):
    """One field of /proc/PID/status; empty when there is none."""
    for line in proc(pid, "status").splitlines():
        key, _, value = line.partition(":")
        if key == name:
            return value.strip()
    return ""


def alive(pid):
    """The process exists and is no zombie."""
    return status_field(pid, "State")[:1] not in ("", "Z", "X")


def arguments(pid):
    """Its argument vector."""
    return proc(pid, "cmdline").split("\0")[:-1]


def program(pid):
    """The base name of its executable."""
    return os.path.basename(link(pid, "exe").removesuffix(" (deleted)"))


def children(pid):
    """The pids of its living children, of every thread."""
    found = []
    try:
        for task in os.listdir(f"/proc/{pid}/task"):
            found += map(int, proc(pid, f"task/{task}/children").split())
    except OSError:
        pass
    return found


def everybody():
    """The pids of all that live in this pid namespace but its process 1, the sleeper and this test."""
    own = os.getpid()
    pids = [int(name) for name in os.listdir("/proc") if name.isdigit()]
    return [pid for pid in pids
            if pid not in (1, own) and alive(pid) and arguments(pid) != SLEEPER]


def running(program_name):
    """The pids of all living processes of a program, by the base name of the executable, oldest first."""
    return sorted(pid for pid in everybody() if program(pid) == program_name)


def tree():
    """All processes, for reading."""
    lines = []
    for pid in sorted(int(name) for name in os.listdir("/proc") if name.isdigit()):
        words = " ".join(arguments(pid)) or "[" + proc(pid, "comm").strip() + "]"
        ppid, state = status_field(pid, "PPid"), status_field(pid, "State")
        if state:
            lines.append(f"{pid:6} parent {ppid:>5}  {state:14} {words}")
    return "\n".join(lines)


def lock_owner(path):
    """The pid that holds a write lock on the file, 0 when nobody does."""
    import fcntl
    with open(path, "rb") as file:
        request = struct.pack("hhqqi4x", fcntl.F_WRLCK, os.SEEK_SET, 0, 0, 0)
        kind, _, _, _, pid = struct.unpack("hhqqi4x", fcntl.fcntl(file, fcntl.F_GETLK, request))
    return 0 if kind == fcntl.F_UNLCK else pid


def wait_gone(pids, within, what="the end of the processes"):
    """Wait until none of the processes lives."""
    clock.until(lambda: not any(alive(pid) for pid in pids), within,
                lambda: f"{what}: {[pid for pid in pids if alive(pid)]}")
