"""Runs one test in namespaces of its own.

The test function itself runs inside: /quorvane and /tmp are empty and private, process ids begin at 1,
and whatever the test leaves behind is killed by the kernel with the namespace. scripts/private-root
makes the namespaces; a fork of the test runner walks into them, so that a test costs no interpreter start.
"""

import ctypes
import os
import pickle
import select
import signal
import sys
import tempfile
import time

REPOSITORY = os.path.dirname(os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__)))))
PRIVATE_ROOT = os.path.join(REPOSITORY, "scripts", "private-root")

CLONE_NEWNS, CLONE_NEWUSER, CLONE_NEWPID = 0x00020000, 0x10000000, 0x20000000
PR_SET_PDEATHSIG, PR_SET_CHILD_SUBREAPER = 1, 36

# What the namespaces are made for: it does nothing and stays.
SLEEPER = ["/bin/sleep", "infinity"]
SLEEPER_ARGUMENTS = b"".join(word.encode() + b"\0" for word in SLEEPER)

libc = ctypes.CDLL(None, use_errno=True)


class Hangs(Exception):
    """The test ran past its limit."""


class Broken(Exception):
    """The namespaces could not be made, or the test's process died in them."""


def call(name, *args):
    """Call the libc function, raising OSError on -1."""
    if getattr(libc, name)(*args) == -1:
        err = ctypes.get_errno()
        raise OSError(err, f"{name}: {os.strerror(err)}")


def prctl(option, value):
    """prctl(2) with one argument."""
    call("prctl", option, ctypes.c_ulong(value), ctypes.c_ulong(0), ctypes.c_ulong(0), ctypes.c_ulong(0))


def run_inside(body, *, keep, limit, sizes=None):
    """Run body() in fresh namespaces and return what it returns (anything that can be pickled).

    keep: paths to show again inside, where they lie below /tmp. limit: seconds; body is interrupted by
    Hangs then, and killed when it does not end after that. sizes: {"/quorvane": "64k"}.
    """
    sys.stdout.flush()
    sys.stderr.flush()
    read_end, write_end = os.pipe()
    guard = os.fork()
    if guard == 0:
        status = 1
        try:
            os.close(read_end)
            prctl(PR_SET_PDEATHSIG, signal.SIGKILL)
            prctl(PR_SET_CHILD_SUBREAPER, 1)
            status = _guard(body, write_end, keep, limit, sizes or {})
        except BaseException as error:  # pylint: disable=broad-except
            os.write(write_end, pickle.dumps(("broken", f"{type(error).__name__}: {error}")))
        finally:
            os._exit(status)
    os.close(write_end)
    answer = b""
    while chunk := os.read(read_end, 1 << 16):
        answer += chunk
    os.close(read_end)
    _, status = os.waitpid(guard, 0)
    if not answer:
        raise Broken(f"the test's process died without a report (guard status {status})")
    try:
        kind, value = pickle.loads(answer)
    except (pickle.UnpicklingError, EOFError) as error:
        raise Broken(f"the test's process was killed while it reported: it did not end in time ({error})") from None
    if kind != "done":
        raise Broken(value)
    return value


def _guard(body, write_end, keep, limit, sizes):
    """Outside: make the namespaces, send a fork into them, clear up."""
    holder, inside = _make_namespaces(keep, sizes)
    try:
        runner = _enter(inside, lambda: _run(body, write_end, limit))
        os.close(write_end)
        _wait_for(runner, limit + 20)
    finally:
        # With process 1 everything else in the namespace dies, and the kernel reports process 1 as dead
        # only when all others are gone.
        for pid in (inside, holder):
            try:
                os.kill(pid, signal.SIGKILL)
            except ProcessLookupError:
                pass
        try:
            while True:
                os.waitpid(-1, 0)
        except ChildProcessError:
            pass
    return 0


def _make_namespaces(keep, sizes):
    """Start scripts/private-root around a process that only sleeps; give both pids."""
    with tempfile.TemporaryDirectory(prefix="quorvaned-test-") as directory:
        pid_file = os.path.join(directory, "pid")
        command = [PRIVATE_ROOT, "--pid", "--pid-file", pid_file]
        for path in keep:
            command += ["--keep", path]
        for path, size in sizes.items():
            command += ["--tmpfs-size", f"{path}={size}"]
        command += ["--", *SLEEPER]
        holder = os.fork()
        if holder == 0:
            try:
                prctl(PR_SET_PDEATHSIG, signal.SIGKILL)
                os.setsid()
                os.execv(command[0], command)
            finally:
                os._exit(127)
        deadline = time.monotonic() + 60
        while not os.path.exists(pid_file):
            ended, status = os.waitpid(holder, os.WNOHANG)
            if ended:
                raise Broken(f"scripts/private-root ended with status {status}")
            if time.monotonic() > deadline:
                raise Broken("scripts/private-root made no namespaces within 60 s")
            time.sleep(0.002)
        with open(pid_file, encoding="ascii") as file:
            return holder, int(file.read())


def _enter(inside, body):
    """Fork a process into the namespaces of the process `inside`; body() runs there. Gives its pid."""
    target = os.pidfd_open(inside)
    root = os.open(f"/proc/{inside}/root", os.O_PATH | os.O_DIRECTORY)
    flags = CLONE_NEWNS | CLONE_NEWPID
    if os.stat(f"/proc/{inside}/ns/user").st_ino != os.stat("/proc/self/ns/user").st_ino:
        flags |= CLONE_NEWUSER
    directory = os.getcwd()
    call("setns", target, flags)
    os.fchdir(root)
    os.chroot(".")
    try:
        os.chdir(directory)
    except OSError:
        os.chdir("/")
    os.close(target)
    os.close(root)
    runner = os.fork()
    if runner == 0:
        try:
            prctl(PR_SET_PDEATHSIG, signal.SIGKILL)
            # Orphans of the test become its children: it can tell how a daemon in the background ended.
            prctl(PR_SET_CHILD_SUBREAPER, 1)
            body()
        finally:
            os._exit(0)
    return runner


def _run(body, write_end, limit):
    """Inside: run the body and send back its result."""

    def interrupt(_number, _frame):
        raise Hangs(f"the test hangs: it did not end within {limit:g} s")

    signal.signal(signal.SIGALRM, interrupt)
    signal.setitimer(signal.ITIMER_REAL, limit)
    try:
        _wait_for_sleeper()
        answer = ("done", body())
    except BaseException as error:  # pylint: disable=broad-except
        answer = ("broken", f"{type(error).__name__}: {error}")
    signal.setitimer(signal.ITIMER_REAL, 0)
    view = memoryview(pickle.dumps(answer))
    while view:
        view = view[os.write(write_end, view):]


def _wait_for_sleeper():
    """Wait until the process that the namespaces were made for has become the sleeper that tests know it as."""
    while True:
        with open("/proc/1/task/1/children", encoding="ascii") as file:
            pids = file.read().split()
        for pid in pids:
            with open(f"/proc/{pid}/cmdline", "rb") as file:
                if file.read() == SLEEPER_ARGUMENTS:
                    return
        time.sleep(0.002)


def _wait_for(pid, seconds):
    """Wait for a child; kill it when it takes longer than that."""
    descriptor = os.pidfd_open(pid)
    if not select.select([descriptor], [], [], seconds)[0]:
        os.kill(pid, signal.SIGKILL)
    os.close(descriptor)
    os.waitpid(pid, 0)
