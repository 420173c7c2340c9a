"""The remote terminal, as installed: a shell that outlives what the supervisor does, and who may have it."""

import os
import signal
import socket
import stat
import subprocess

import pytest
from harness import clock, processes
from harness.gateway import RUN, UP, term

DAEMON = "RemoteTerminalDaemon"
SOCKET = RUN + "/console/terminal.socket"
LOCK = RUN + "/console/terminal.lock"
SESSIONS = 4
NOBODY = 65534


@pytest.fixture(name="installed")
def installed_terminal(installed):
    """The installation with the terminal and one other service."""
    installed.keep_only(DAEMON, "device-registry")
    return installed


class Terminal:
    """A session."""

    def __init__(self):
        self.connection = clock.until(self._connect, 10, "a connection to the terminal")
        self.connection.settimeout(clock.stretched(10))
        self.said = ""
        self.asked = 0

    @staticmethod
    def _connect():
        connection = socket.socket(socket.AF_UNIX)
        try:
            connection.connect(SOCKET)
        except (FileNotFoundError, ConnectionRefusedError):
            connection.close()
            return None
        return connection

    def ask(self, command):
        """Have the shell run a command; give what it said."""
        if not self.asked:
            # From then on there is nothing but answers. The mark is put together by the shell, and not in its echo.
            self.connection.sendall(b"stty -echo; PS1=; echo answered''0.\n")
            self._read_answer()
        self.asked += 1
        self.connection.sendall(f"{command}; echo answered{self.asked}.\n".encode())
        return self._read_answer()

    def _read_answer(self):
        mark = f"answered{self.asked}.\r\n"
        while mark not in self.said:
            piece = self.connection.recv(4096)
            assert piece, f"the session has ended: {self.said!r}"
            self.said += piece.decode("utf-8", "backslashreplace")
        answer, self.said = self.said.split(mark, 1)
        return answer

    def shell(self):
        """The shell's process."""
        return int(self.ask("echo $$").split()[0])

    def read_to_the_end(self):
        """Everything until the session ends."""
        text = b""
        try:
            while piece := self.connection.recv(4096):
                text += piece
        except ConnectionResetError:
            pass
        return text.decode("utf-8", "backslashreplace")


def daemons():
    """The processes of the terminal, without shells that are just being started."""
    return processes.running(DAEMON)


def wait_for_second_instance(installed, after):
    """Wait until the supervisor has started another one, which has left at once with 0."""
    line = installed.log.wait_for(f"run {DAEMON} pid %d", 20, after=after)
    installed.log.wait_for(f"wait pid({line.values[0]}) status(0)", 5)


def test_a_connection_is_a_shell_on_a_terminal_of_its_own(installed):
    # With no umask at all, as in the background.
    installed.up(umask=0)
    one, two = Terminal(), Terminal()
    assert one.ask("echo $((6 * 7))") == "42\r\n"
    assert one.ask("tty").startswith("/dev/pts/")
    assert one.ask("tty") != two.ask("tty")
    assert one.ask("pwd; umask") == "/\r\n0022\r\n"
    assert one.ask("which quorvaned").strip() == installed.program
    assert "active" in one.ask("quorvaned status")
    assert one.shell() != two.shell()
    assert stat.S_IMODE(os.stat(SOCKET).st_mode) == 0o600
    assert stat.S_IMODE(os.stat(LOCK).st_mode) == 0o600
    # Nothing of the daemon reaches a shell but its own terminal.
    terminal = two.ask("tty").strip()
    assert {os.path.realpath(f"/proc/{two.shell()}/fd/{number}") for number in os.listdir(f"/proc/{two.shell()}/fd")} \
        <= {terminal, "/dev/tty"}


def test_a_session_ends_with_its_shell_or_its_client_and_nothing_is_left(installed):
    installed.up()
    one, two = Terminal(), Terminal()
    shells = [one.shell(), two.shell()]
    one.connection.sendall(b"exit\n")
    one.read_to_the_end()
    two.connection.sendall(b"sleep 1000\n")
    job = clock.until(lambda: processes.running("sleep"), 5, "the command")
    two.connection.close()
    processes.wait_gone(shells + job, 5)
    clock.until(lambda: processes.children(installed.pid_of(DAEMON)) == [], 5, "nobody left to be collected")
    assert daemons() == [installed.pid_of(DAEMON)]


@pytest.mark.takes(15)
def test_a_session_outlives_an_upgrade(installed):
    daemon = installed.up()
    up = installed.log.find(UP)[0]
    session = Terminal()
    shell = session.shell()
    pid = installed.pid_of(DAEMON)
    installed.bus().start_upgrade()
    installed.log.wait_for("stop dbus-daemon, kill -15 %d", 10)
    assert session.shell() == shell
    daemon.signal(signal.SIGUSR2)
    installed.log.wait_for(UP, 20, after=up)
    wait_for_second_instance(installed, up)
    assert session.shell() == shell
    # From then on the supervisor knows the first one again.
    installed.log.wait_for(f"process_exit, service({DAEMON}) old pid({pid})", 5)
    assert daemons() == [pid]
    assert Terminal().ask("echo new") == "new\r\n"


@pytest.mark.takes(20)
@pytest.mark.parametrize("number", [signal.SIGUSR1, signal.SIGTERM, signal.SIGKILL])
def test_a_session_outlives_the_supervisor_and_a_new_one_takes_it_on(installed, number):
    daemon = installed.up()
    up = installed.log.find(UP)[0]
    session = Terminal()
    shell = session.shell()
    pid = installed.pid_of(DAEMON)
    other = installed.pid_of("device-registry")
    if number == signal.SIGKILL:
        os.kill(daemon.pid, number)
        daemon.wait()
    else:
        assert term(daemon, number)[0] == 0
    processes.wait_gone([other], 5)
    assert session.shell() == shell
    installed.up()
    wait_for_second_instance(installed, up)
    assert session.shell() == shell
    assert daemons() == [pid]
    assert processes.alive(pid)


def test_a_session_outlives_the_terminal_that_the_supervisor_was_started_from(installed):
    installed.up()
    pid = installed.pid_of(DAEMON)
    session = Terminal()
    shell = session.shell()
    assert os.getsid(pid) == pid
    os.kill(pid, signal.SIGHUP)
    assert session.shell() == shell


@pytest.mark.takes(12)
def test_a_restart_of_the_stack_ends_the_sessions_and_a_new_terminal_comes(installed):
    installed.up()
    up = installed.log.find(UP)[0]
    session = Terminal()
    shell = session.shell()
    pid = installed.pid_of(DAEMON)
    installed.bus().reboot()
    installed.log.wait_for(f"wait pid({pid}) status(0)", 10)
    session.read_to_the_end()
    processes.wait_gone([pid, shell], 5)
    installed.log.wait_for(UP, 20, after=up)
    new = installed.pid_of(DAEMON)
    assert Terminal().ask("echo new") == "new\r\n"
    assert daemons() == [new] != [pid]


@pytest.mark.takes(10)
def test_a_killed_terminal_leaves_the_place_to_the_next(installed):
    installed.up()
    up = installed.log.find(UP)[0]
    session = Terminal()
    shell = session.shell()
    os.kill(installed.pid_of(DAEMON), signal.SIGKILL)
    processes.wait_gone([shell], 5)
    assert stat.S_ISSOCK(os.stat(SOCKET).st_mode)
    installed.bus().reboot()
    installed.log.wait_for(UP, 20, after=up)
    assert Terminal().ask("echo new") == "new\r\n"
    assert daemons() == [installed.pid_of(DAEMON)]


def test_a_second_one_ends_at_once_with_0_and_changes_nothing(installed):
    installed.up()
    session = Terminal()
    shell = session.shell()
    inode = os.stat(SOCKET).st_ino
    second = processes.run(["./" + DAEMON], cwd=installed.bin)
    assert second.status == 0
    assert second.ended_at - second.started_at < clock.stretched(1)
    assert os.stat(SOCKET).st_ino == inode
    assert session.shell() == shell
    assert Terminal().ask("echo new") == "new\r\n"


def as_stranger(body):
    """Run body() as another user; give what it returned, or why it could not."""
    read_end, write_end = os.pipe()
    pid = os.fork()
    if pid == 0:
        try:
            os.close(read_end)
            os.setgroups([])
            os.setgid(NOBODY)
            os.setuid(NOBODY)
            answer = body()
        except OSError as error:
            answer = type(error).__name__
        os.write(write_end, answer.encode())
        os._exit(0)
    os.close(write_end)
    with os.fdopen(read_end) as file:
        answer = file.read()
    os.waitpid(pid, 0)
    return answer


def test_strangers_are_refused_by_the_mode_of_the_socket_and_by_who_they_are(installed):
    if as_stranger(lambda: "became one") != "became one":
        pytest.skip("there is nobody else in this user namespace")
    installed.up()
    Terminal().ask("true")

    def knock():
        with socket.socket(socket.AF_UNIX) as connection:
            connection.settimeout(clock.stretched(10))
            connection.connect(SOCKET)
            return f"said {connection.recv(100)!r}"

    assert as_stranger(knock) == "PermissionError"
    os.chmod(SOCKET, 0o666)
    assert as_stranger(knock) == "said b''"
    assert processes.children(installed.pid_of(DAEMON)) == []


def test_there_are_four_sessions_at_most_and_a_place_becomes_free_again(installed):
    installed.up()
    sessions = [Terminal() for _ in range(SESSIONS)]
    for session in sessions:
        session.ask("true")
    assert Terminal().read_to_the_end() == "All sessions of this terminal are in use.\r\n"
    assert [session.ask("echo on") for session in sessions] == ["on\r\n"] * SESSIONS
    shell = sessions[0].shell()
    sessions[0].connection.close()
    processes.wait_gone([shell], 5)
    assert Terminal().ask("echo new") == "new\r\n"


def test_a_client_that_does_not_read_holds_only_its_own_session_and_no_memory(installed):
    installed.up()
    deaf, other = Terminal(), Terminal()
    deaf.ask("true")
    pid = installed.pid_of(DAEMON)
    before = int(processes.status_field(pid, "VmRSS").split()[0])
    deaf.connection.sendall(b"yes | head -c 20000000; echo theend\n")
    assert other.ask("echo on") == "on\r\n"
    # It stands still: the shell waits, and the daemon does not spin.
    ticks = [0]

    def stands():
        now = sum(map(int, processes.proc(pid, "stat").rsplit(")", 1)[1].split()[11:13]))
        ticks.append(now)
        return len(ticks) > 30 and ticks[-30] == now
    clock.until(stands, 10, lambda: str(ticks[-40:]))
    assert int(processes.status_field(pid, "VmRSS").split()[0]) < before + 1024
    while "theend" not in deaf.said[-100:]:
        deaf.said = deaf.said[-100:] + deaf.connection.recv(1 << 20).decode()


def test_the_command_for_it_runs_what_it_is_piped(installed):
    installed.up()
    Terminal().ask("true")
    client = subprocess.run([installed.path("bin/remote-terminal")], input="echo $((6 * 7))\nsleep 0.3\necho l''ast",
                            capture_output=True, text=True, timeout=clock.stretched(10), check=False)
    assert client.returncode == 0
    # Behind the prompts, if they come so late.
    for answer in ("42", "last"):
        assert any(line.endswith(answer) for line in client.stdout.splitlines()), client.stdout


def test_the_command_for_it_says_what_is_wrong(installed):
    client = subprocess.run([installed.path("bin/remote-terminal")], stdin=subprocess.DEVNULL, capture_output=True,
                            text=True, timeout=clock.stretched(10), check=False)
    assert client.returncode == 1
    assert client.stderr == f"remote-terminal: {SOCKET}: No such file or directory\n"


def test_the_command_for_it_hands_a_terminal_through_and_gives_it_back(installed):
    import pty
    import termios
    installed.up()
    Terminal().ask("true")
    master, slave = pty.openpty()
    termios.tcsetwinsize(slave, (33, 99))
    before = termios.tcgetattr(slave)
    client = subprocess.Popen([installed.path("bin/remote-terminal")], stdin=slave, stdout=slave, stderr=slave)
    output = processes.Output(os.dup(master))
    # What comes from the shell comes to a terminal that has been made ready.
    output.wait_for("columns 99\r\n", 10)
    os.write(master, b"stty size\r")
    output.wait_for("33 99\r\n", 10)
    # Control-C reaches the shell's command, not the client.
    os.write(master, b"sleep 1000\r")
    clock.until(lambda: processes.running("sleep"), 5, "the command")
    os.write(master, b"\x03")
    clock.until(lambda: not processes.running("sleep"), 5, "its end")
    os.write(master, b"exit\r")
    assert client.wait(clock.stretched(10)) == 0
    assert termios.tcgetattr(slave) == before
