"""The gateway's page: the web server as the supervisor runs it, the data behind the page, and the page in a browser.

All tests share the machine's network. Each lets its web server listen on a loopback address and a port of its own,
which are drawn at random and were free: of the 127.0.0.0/8 addresses hardly ever two are the same, and the ports lie
below those that the system hands out for outgoing connections.
"""

import fcntl
import http.client
import itertools
import json
import os
import random
import re
import select
import shutil
import signal
import socket
import time

import pytest
from harness import clock, processes
from harness.gateway import MISSING, RUN, UP, Service

LISTEN = "listen 127.0.0.1:8180;"
SERVICES = ["web-state.py", "nginx"]
STATE_FILE = RUN + "/web/state.json"
LOG_FILE = RUN + "/logger/nginx.log"
TYPES = {"/": "text/html; charset=utf-8", "/index.html": "text/html; charset=utf-8",
         "/page.css": "text/css; charset=utf-8", "/page.js": "text/javascript; charset=utf-8",
         "/icon.svg": "image/svg+xml", "/state.json": "application/json; charset=utf-8"}
GRACE = 30
CONFIGURATION = "iot.dmp.configmanager"
COLLECTOR_NAME = "iot.gateway.web"


# The web server


def free_place():
    """A loopback address and a port on which nobody listens."""
    draw = random.SystemRandom()
    while True:
        address = f"127.{draw.randint(1, 254)}.{draw.randint(0, 255)}.{draw.randint(1, 254)}"
        place = (address, draw.randint(10000, 30000))
        with socket.socket() as one:
            try:
                one.bind(place)
            except OSError:
                continue
        return place


class Site:
    """The web server of an installation, at a place of its own."""

    def __init__(self, gateway):
        self.gateway = gateway
        self.place = free_place()
        path = gateway.path("web/gateway/conf/nginx.conf")
        with open(path, encoding="utf-8") as file:
            text = file.read()
        assert text.count(LISTEN) == 1 and len(re.findall(r"\blisten\b", text)) == 1
        with open(path, "w", encoding="utf-8") as file:
            file.write(text.replace(LISTEN, f"listen {self.place[0]}:{self.place[1]};"))

    @property
    def url(self):
        """The page's address."""
        return f"http://{self.place[0]}:{self.place[1]}/"

    def ask(self, path="/", method="GET", body=None, **headers):
        """(status, headers, body) of a request."""
        connection = http.client.HTTPConnection(*self.place, timeout=clock.stretched(10))
        try:
            connection.request(method, path, body, headers)
            answer = connection.getresponse()
            return answer.status, answer.headers, answer.read()
        finally:
            connection.close()

    def answers(self):
        """Whether the page is served."""
        try:
            return self.ask()[0] == 200
        except OSError:
            return False

    def refuses(self):
        """Whether nobody listens."""
        with socket.socket() as one:
            return one.connect_ex(self.place) != 0

    def state(self):
        """The page's data; None when there is none."""
        status, _, body = self.ask("/state.json")
        return json.loads(body) if status == 200 else None

    def wait_for_state(self, condition, within=10):
        """Wait until the page's data are so, and give them."""
        def look():
            state = self.state()
            return state if state is not None and condition(state) else None
        return clock.until(look, within, lambda: f"this in the page's data: {self.state()}")

    def wait_for_reading(self):
        """Wait until the page's data hold a reading, and give them."""
        return self.wait_for_state(lambda state: state["reading"] is not None)


def put_in_front(gateway, *services):
    """Put the tests' services in front of those of an installed catalogue."""
    with open(gateway.path("config/services.json"), encoding="utf-8") as file:
        installed = json.load(file)
    gateway.catalogue(*services)
    gateway.raw_catalogue(json.dumps([service.entry for service in services] + installed))


@pytest.fixture(name="web")
def installed_web(installed):
    """The installation with the page's two services in its catalogue, and its web server at a place of its own."""
    installed.keep_only(*SERVICES)
    return Site(installed)


def append(path, text):
    """Write at the end of a file."""
    with open(path, "a", encoding="utf-8") as file:
        file.write(text)


def listeners(pid):
    """(address in hexadecimal, port) of everything that the process listens on."""
    links = {processes.link(pid, f"fd/{number}") for number in os.listdir(f"/proc/{pid}/fd")}
    found = []
    for line in (processes.proc(pid, "net/tcp") + processes.proc(pid, "net/tcp6")).splitlines():
        words = line.split()
        if len(words) > 9 and words[3] == "0A" and f"socket:[{words[9]}]" in links:
            address, port = words[1].split(":")
            found.append((address, int(port, 16)))
    return found


def test_the_page_and_its_parts_are_served_with_headers_that_confine_them(web):
    web.gateway.up()
    web.wait_for_reading()
    for path, kind in TYPES.items():
        status, headers, body = web.ask(path)
        assert (status, headers["Content-Type"]) == (200, kind)
        assert body
        assert web.ask(path, "HEAD")[2] == b""
        assert headers["Cache-Control"] == ("no-store" if path == "/state.json" else "no-cache")
    for path in ("/", "/state.json", "/nothing"):
        _, headers, _ = web.ask(path)
        policy = dict(part.strip().split(" ", 1) for part in headers["Content-Security-Policy"].split(";"))
        assert policy["default-src"] == policy["frame-ancestors"] == policy["base-uri"] == "'none'"
        assert policy["script-src"] == policy["style-src"] == policy["connect-src"] == "'self'"
        assert headers["X-Content-Type-Options"] == "nosniff"
        assert headers["Referrer-Policy"] == "no-referrer"
        assert headers["X-Frame-Options"] == "DENY"
        assert headers["Cross-Origin-Resource-Policy"] == "same-origin"
        assert headers["Server"] == "nginx"
    assert web.ask("/state.json")[1]["ETag"] is None


def test_only_the_page_is_served_and_only_to_be_read(web):
    html = web.gateway.path("web/gateway/html")
    os.makedirs(html + "/own/empty")
    for name in ("own/index.html", ".index.html.swp"):
        append(f"{html}/{name}", "a page of my own")
    web.gateway.up()
    assert web.ask("/own/")[2] == b"a page of my own"
    assert {path: web.ask(path)[0] for path in ("/own/empty/", "/nothing", "/.index.html.swp")} \
        == {"/own/empty/": 403, "/nothing": 404, "/.index.html.swp": 404}
    for path in ("/../conf/nginx.conf", "/%2e%2e/conf/nginx.conf", "/state.json/../../../run/startup/quorvaned.log",
                 "/state.json../startup/quorvaned.log", "/conf/nginx.conf"):
        assert web.ask(path)[0] in (400, 404), path
    for method in ("POST", "PUT", "DELETE", "PATCH", "OPTIONS", "TRACE", "PROPFIND", "MKCOL"):
        for path in ("/", "/own/empty/", "/nothing"):
            status, headers, _ = web.ask(path, method, b"x" * 10)
            assert (status, headers["Allow"]) == (405, "GET, HEAD"), (method, path)
    assert web.ask("/", "GET", b"x" * 2000)[0] == 413
    for name, status in (("localhost", 200), ("localhost:8180", 200), ("127.0.0.1", 200), ("example.org", 421),
                         ("127.0.0.1.example.org", 421), ("localhost.example.org", 421)):
        assert web.ask("/state.json" if status == 421 else "/", Host=name)[0] == status, name
    # Whatever was asked for, the log has not grown.
    assert os.path.getsize(LOG_FILE) == 0


def test_the_web_server_is_one_process_in_its_place_and_listens_there_alone(web):
    os.environ["LD_LIBRARY_PATH"] = "/somewhere/else"
    web.gateway.up(umask=0)
    clock.until(web.answers, 10, "the page")
    root = web.gateway.root
    pid = web.gateway.pid_of("nginx")
    assert processes.running("nginx") == [pid]
    assert processes.link(pid, "exe") == f"{root}/openresty/nginx/sbin/nginx"
    assert processes.link(pid, "cwd") == f"{root}/web/gateway"
    assert processes.arguments(pid) == ["nginx", "-p", "./", "-c", "conf/nginx.conf", "-e", LOG_FILE]
    environment = processes.proc(pid, "environ").split("\0")
    assert [entry for entry in environment if entry.startswith("LD_LIBRARY_PATH=")] \
        == [f"LD_LIBRARY_PATH=/somewhere/else:{root}/lib"]
    address = socket.inet_aton(web.place[0])[::-1].hex().upper()
    assert listeners(pid) == [(address, web.place[1])]
    files = {processes.link(pid, f"fd/{number}") for number in os.listdir(f"/proc/{pid}/fd")}
    assert {file for file in files if file.startswith("/")} == {"/dev/null", LOG_FILE}
    web.wait_for_reading()
    for path, mode in ((STATE_FILE, 0o644), (os.path.dirname(STATE_FILE), 0o755), (LOG_FILE, 0o644),
                       (RUN + "/nginx", 0o700), (RUN + "/nginx/nginx.pid", 0o644)):
        assert os.stat(path).st_mode & 0o777 == mode, path


@pytest.mark.takes(12)
def test_when_the_stack_is_restarted_one_web_server_serves_the_page_at_the_same_place(web):
    daemon = web.gateway.up()
    up = web.gateway.log.find(UP)[0]
    clock.until(web.answers, 10, "the page")
    old = web.gateway.pid_of("nginx")
    web.gateway.bus().reboot()
    web.gateway.log.wait_for(UP, 20, after=up)
    clock.until(web.answers, 10, "the page")
    assert processes.running("nginx") == [web.gateway.pid_of("nginx")] != [old]
    web.gateway.log.wait_for(f"wait pid({old}) status(0)")
    web.wait_for_state(lambda state: [one["pid"] for one in state["services"]]
                       == [web.gateway.pid_of(name) for name in SERVICES])
    assert daemon.alive()


@pytest.mark.takes(40)
@pytest.mark.limit(120)
def test_a_web_server_that_was_killed_comes_back_after_the_grace(web):
    web.gateway.up()
    clock.until(web.answers, 10, "the page")
    os.kill(web.gateway.pid_of("nginx"), signal.SIGKILL)
    clock.until(web.refuses, 5, "the end of the web server")
    again = web.gateway.log.wait_for("run nginx pid %d", GRACE + 15, count=2)
    assert again - web.gateway.log.find("run nginx pid %d")[0] >= GRACE
    clock.until(web.answers, 10, "the page")
    assert processes.running("nginx") == [again.values[0]]


@pytest.mark.takes(10)
@pytest.mark.parametrize("number, status", [(signal.SIGTERM, 0), (signal.SIGKILL, -signal.SIGKILL)])
def test_nobody_listens_any_more_when_the_daemon_has_ended(web, number, status):
    daemon = web.gateway.up()
    clock.until(web.answers, 10, "the page")
    daemon.signal(number)
    assert daemon.wait(15) == status
    clock.until(web.refuses, 5, "the end of the web server")
    processes.wait_gone(processes.running("nginx"), 5)


def test_the_stop_command_finds_a_web_server_that_is_left_over(web):
    # As a daemon leaves it that was killed while its web server could not take the signal.
    daemon = web.gateway.up()
    clock.until(web.answers, 10, "the page")
    left = web.gateway.pid_of("nginx")
    os.kill(left, signal.SIGSTOP)
    daemon.signal(signal.SIGKILL)
    daemon.wait()
    assert processes.alive(left)
    assert web.gateway.command("stop_all").status == 0
    processes.wait_gone([left], 5)
    assert web.refuses()


# The data


def test_the_data_tell_what_the_supervisor_tells_whatever_the_names_are(web):
    names = ["a<b>&c", "two\nlines", "quote\"d \\ name", "gr\u00fc\u00df \U0001f680",
             "is \033[32mactive\033[0m, pid is 5", "l" * 980, "after"]
    for name in names:
        if len(name) < 255:
            web.gateway.script(name, "exec sleep 1000")
    put_in_front(web.gateway, *[Service(name, monitor=1, program=MISSING) for name in names],
                 Service("gone", monitor=1, program=MISSING), Service("unseen", monitor=0))
    web.gateway.up()
    # Not by the log: there the line of the long name is cut before its end, and whichever comes next goes on behind it.
    [server] = processes.running("nginx")
    nginx = {"name": "nginx", "active": True, "pid": server}
    gone = {"name": "gone", "active": False, "pid": None}
    state = web.wait_for_state(lambda state: nginx in state["services"] and gone in state["services"])
    # Too long for a file, so it has ended at once; and too long for a line of the report, so it is cut behind its name.
    long = state["services"][5]["name"]
    assert long == names[5] + "…"
    pids = processes.running("sleep")
    pids.insert(5, None)
    expected = [{"name": name, "active": pid is not None, "pid": pid}
                for name, pid in zip([*names[:5], long, *names[6:]], pids, strict=True)]
    collector = {"name": "web-state.py", "active": True, "pid": web.gateway.bus().pid_of(COLLECTOR_NAME)}
    assert state["services"] == expected + [gone, collector, nginx]
    assert state["device"] is None
    assert 0 <= time.time() - state["reading"] < clock.stretched(10)


def test_the_data_are_renewed_in_one_step(web):
    web.gateway.up()
    first = web.wait_for_reading()
    inode = os.stat(STATE_FILE).st_ino
    with open(STATE_FILE, encoding="ascii") as earlier:
        web.wait_for_state(lambda state: state["reading"] > first["reading"] and state["written"] > first["written"])
        assert os.stat(STATE_FILE).st_ino != inode
        json.load(earlier)


@pytest.mark.takes(40)
@pytest.mark.limit(120)
def test_a_collector_that_is_stuck_is_replaced_and_the_data_go_on(web):
    web.gateway.up()
    web.wait_for_reading()
    old = web.gateway.pid_of("web-state.py")
    os.kill(old, signal.SIGSTOP)
    again = web.gateway.log.wait_for("run web-state.py pid %d", GRACE + 15, count=2)
    assert web.gateway.log.has("threadProc, service(web-state.py) status(0) is abnormal")
    web.wait_for_state(lambda state: {"name": "web-state.py", "active": True, "pid": again.values[0]}
                       in state["services"])
    os.kill(old, signal.SIGCONT)
    processes.wait_gone([old], 5)


@pytest.mark.takes(16)
def test_after_a_new_identity_has_emptied_the_run_time_root_the_page_is_back_and_names_the_device(web):
    put_in_front(web.gateway, Service("config-manager", "--config=gw_system_productkey=pk",
                                      "--config=gw_system_devicename=old <name>", bus=CONFIGURATION))
    web.gateway.up()
    up = web.gateway.log.find(UP)[0]
    web.wait_for_state(lambda state: state["device"] == "old <name>", 15)
    for directory in ("nginx", "web"):
        append(f"{RUN}/{directory}/mark", "")
    triple = {"productkey": "pk", "devicename": "new name", "devicesecret": "the secret"}
    assert json.loads(web.gateway.bus().set_triple(json.dumps(triple)))["code"] == 0
    web.gateway.log.wait_for(UP, 20, after=up)
    web.gateway.log.wait_for("clean business runtime data")
    clock.until(web.answers, 10, "the page")
    web.wait_for_state(lambda state: state["device"] == "new name", 15)
    assert not any(os.path.exists(f"{RUN}/{directory}/mark") for directory in ("nginx", "web"))
    assert processes.running("nginx") == [web.gateway.pid_of("nginx")]
    assert b"the secret" not in web.ask("/state.json")[2]


def test_the_data_come_back_when_their_directory_was_removed_while_all_runs(web):
    web.gateway.up()
    web.wait_for_reading()
    shutil.rmtree(os.path.dirname(STATE_FILE))
    shutil.rmtree(RUN + "/nginx")
    web.wait_for_reading()
    assert web.answers()


def test_the_web_servers_log_is_kept_small(web):
    web.gateway.up()
    clock.until(web.answers, 10, "the page")
    append(LOG_FILE, "a line\n" * 50000)
    clock.until(lambda: os.path.getsize(LOG_FILE) == 0, 10, "the log to be emptied")
    assert os.path.getsize(LOG_FILE + ".1") == 7 * 50000
    assert LOG_FILE in {processes.link(web.gateway.pid_of("nginx"), f"fd/{number}") for number in range(20)}


# The page in a browser


class Browser:
    """A headless browser with one page, spoken to through a pipe."""

    FLAGS = ["--headless", "--no-sandbox", "--disable-gpu", "--disable-quic", "--no-first-run", "--no-proxy-server",
             "--disable-background-networking", "--disable-component-update", "--disable-sync",
             "--remote-debugging-pipe"]
    HOME = "/tmp/browser"
    NO_PAGE = -32000

    def __init__(self):
        os.makedirs(self.HOME)
        commands_read, commands_write = self._pipe()
        answers_read, answers_write = self._pipe()

        def prepare():
            # The numbers are the browser's choice. What dup2 makes is inherited.
            os.dup2(commands_read, 3)
            os.dup2(answers_write, 4)

        processes.spawn(["/usr/bin/chromium", *self.FLAGS, f"--user-data-dir={self.HOME}/profile", "about:blank"],
                        env={**os.environ, "HOME": self.HOME}, prepare=prepare)
        os.close(commands_read)
        os.close(answers_write)
        self._commands, self._answers, self._read = commands_write, answers_read, b""
        self._numbers = itertools.count(1)
        self._session = None
        self.command("Browser.getVersion")  # once it answers, it has started

    def open(self, url):
        """Open the page."""
        target = self.command("Target.createTarget", url=url)["targetId"]
        self._session = self.command("Target.attachToTarget", targetId=target, flatten=True)["sessionId"]

    @staticmethod
    def _pipe():
        """A pipe whose ends are not in the way of the browser's numbers."""
        ends = os.pipe()
        moved = [fcntl.fcntl(end, fcntl.F_DUPFD_CLOEXEC, 10) for end in ends]
        for end in ends:
            os.close(end)
        return moved

    def command(self, method, within=60, **params):
        """Give the browser a command, and return the result."""
        answer = self._answer(method, params, within)
        assert "error" not in answer, answer
        return answer["result"]

    def _answer(self, method, params, within=60):
        """Give the browser a command, and return its answer."""
        number = next(self._numbers)
        message = {"id": number, "method": method, "params": params}
        if self._session:
            message["sessionId"] = self._session
        os.write(self._commands, json.dumps(message).encode() + b"\0")
        deadline = time.monotonic() + clock.stretched(within)
        while True:
            answer = self._next(deadline)
            if answer.get("id") == number:
                return answer

    def _next(self, deadline):
        """The browser's next message."""
        while b"\0" not in self._read:
            if not select.select([self._answers], [], [], max(0, deadline - time.monotonic()))[0]:
                raise clock.Late("the browser did not answer")
            piece = os.read(self._answers, 65536)
            assert piece, "the browser has ended"
            self._read += piece
        message, _, self._read = self._read.partition(b"\0")
        return json.loads(message)

    def value(self, expression):
        """The value of a JavaScript expression in the page; None while there is no page yet."""
        answer = self._answer("Runtime.evaluate", {"expression": expression, "returnByValue": True})
        if answer.get("error", {}).get("code") == self.NO_PAGE:
            return None
        result = answer["result"]
        assert "exceptionDetails" not in result, result
        return result["result"].get("value")

    def rows(self):
        """The texts of the table's rows."""
        return self.value("[...document.querySelectorAll('#services tr')]"
                          ".map(row => [...row.children].map(cell => cell.textContent))")

    def text(self, selector):
        """The text of a visible element; empty when it is hidden."""
        return self.value(f"(one => one === null || one.hidden ? '' : one.textContent)"
                          f"(document.querySelector({json.dumps(selector)}))")

    def wait_for_row(self, *cells, within=15):
        """Wait until the table has that row."""
        clock.until(lambda: list(cells) in (self.rows() or []), within, lambda: f"the row {cells} in {self.rows()}")

    def wait_for_notice(self, pattern, within=30):
        """Wait until the notice reads like that; empty: until there is none."""
        clock.until(lambda: re.fullmatch(pattern, self.text("#notice") or ""), within,
                    lambda: f"the notice {pattern!r}; it is {self.text('#notice')!r}")


@pytest.mark.takes(40)
@pytest.mark.limit(180)
def test_a_browser_shows_the_true_names_states_and_process_numbers_and_follows_them(web):
    marked = "<img src=x onerror=document.title=1>&amp;<b>"
    put_in_front(web.gateway,
                 Service("config-manager", "--config=gw_system_devicename=<i>box</i>", bus=CONFIGURATION, monitor=1),
                 Service("victim", program="exec sleep 1000", monitor=1),
                 Service(marked, program="exec sleep 1000", monitor=1),
                 Service("gone", program=MISSING, monitor=1))
    web.gateway.up()
    clock.until(web.answers, 10, "the page")
    browser = Browser()
    browser.open(web.url)
    for name in ("config-manager", "victim", marked, *SERVICES):
        browser.wait_for_row(name, "active", str(web.gateway.pid_of(name)))
    browser.wait_for_row("gone", "inactive", "–")
    assert [row[0] for row in browser.rows()] == ["config-manager", "victim", marked, "gone", *SERVICES]
    assert browser.text("#summary") == "5 of 6 active"
    clock.until(lambda: browser.text("#device") == "<i>box</i>", 15, "the device name")
    assert browser.value("document.title") == "<i>box</i> – Gateway"
    assert browser.value("document.querySelectorAll('main img, main b, header i').length") == 0
    assert browser.value("document.querySelectorAll('th[scope=col]').length") == 3
    assert browser.value("document.querySelectorAll('tbody th[scope=row]').length") == 6
    reading = browser.value("Date.parse(document.querySelector('#reading').dateTime)") / 1000
    assert 0 <= time.time() - reading < clock.stretched(15)
    assert browser.text("#notice") == ""
    # Killed, and ending at once whenever it is started again.
    web.gateway.script("victim", "exit 1")
    os.kill(web.gateway.pid_of("victim"), signal.SIGKILL)
    browser.wait_for_row("victim", "inactive", "–")
    assert browser.text("#summary") == "4 of 6 active"


@pytest.mark.takes(60)
@pytest.mark.limit(240)
def test_a_browser_is_told_when_the_data_are_old_or_missing_and_recovers(web):
    browser = Browser()  # it may take longer to start than the supervisor leaves a stopped collector alone
    daemon = web.gateway.up()
    clock.until(web.answers, 10, "the page")
    collector = web.gateway.pid_of("web-state.py")
    os.kill(collector, signal.SIGSTOP)
    if os.path.exists(STATE_FILE):
        os.unlink(STATE_FILE)
    browser.open(web.url)
    browser.wait_for_notice("The gateway has no reading yet.")
    os.kill(collector, signal.SIGCONT)
    browser.wait_for_notice("")
    browser.wait_for_row("nginx", "active", str(web.gateway.pid_of("nginx")))

    # Its data go on being written, without a new reading.
    daemon.signal(signal.SIGSTOP)
    browser.wait_for_notice(r"The supervisor has not answered since .+\.")
    assert len(browser.rows()) == 2
    daemon.signal(signal.SIGCONT)
    browser.wait_for_notice("")

    # The supervisor is held too, so that it does not replace the collector.
    daemon.signal(signal.SIGSTOP)
    os.kill(web.gateway.pid_of("web-state.py"), signal.SIGSTOP)
    browser.wait_for_notice(r"This data is old: it was last renewed at .+\.")
    os.kill(web.gateway.pid_of("web-state.py"), signal.SIGCONT)
    daemon.signal(signal.SIGCONT)
    browser.wait_for_notice("")

    # While the stack is restarted the page waits for it, and needs no help.
    up = web.gateway.log.find(UP)[-1]
    old = web.gateway.pid_of("nginx")
    os.kill(old, signal.SIGSTOP)
    browser.wait_for_notice(r"The gateway does not answer\.")
    os.kill(old, signal.SIGCONT)
    web.gateway.bus().reboot()
    web.gateway.log.wait_for(UP, 20, after=up)
    browser.wait_for_row("nginx", "active", str(web.gateway.pid_of("nginx")))
    browser.wait_for_notice("")
    assert web.gateway.pid_of("nginx") != old
