"""Files: the start-up log at its limit, and file systems that take nothing."""

import os
import re
import subprocess
import time

from harness import staging
from harness.gateway import STARTUP
from row import at_least, at_most, none, row

LIMIT = 262_144
LONGEST = 1_022
WHOLE = re.compile(rb"\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{6} \[pid=\d+\] \[log_writers\.cpp\|\d+\] line \d+ (\d+) (x*)")


@row("log-limit", "the start-up log at its limit",
     "five processes that write as fast as it takes lines, by the daemon's own function, and look at the size after "
     "each; every 0.1 s the file is moved away and read", short=200_000, long=10_000_000, seconds=(90, 1300))
def log_limit(run):
    """It stays within its limit and one line, and its lines whole."""
    run.gateway().prepare_run_directory()
    program = os.path.join(staging.build_directory(), "chaos", "programs", "log_writers")
    share = run.amount // 5
    writers = [subprocess.Popen([program, str(share), str(run.seed * 10 + number)], stdout=subprocess.PIPE, text=True)
               for number in range(5)]
    book = Book()
    while any(writer.poll() is None for writer in writers):
        book.turn()
        time.sleep(0.1)  # how long a page grows; whoever has it open has written to it by the next one
        run.progress(book.lines)
    book.turn()
    book.turn()
    beyond = [int(writer.stdout.read()) for writer in writers]
    return [at_least("lines written", sum(share for writer in writers if writer.returncode == 0), run.amount),
            at_most("the most that the log was beyond its limit", max(beyond), LONGEST, "bytes"),
            at_least("lines read again", book.lines, run.amount // 100),
            none("torn lines", book.torn, book.lines)]


class Book:
    """The pages that were moved away, and what they hold."""

    def __init__(self):
        self.lines = self.torn = 0
        self._path = STARTUP + "/quorvaned.log"
        self._page = self._path + ".page"

    def turn(self):
        """Read the page that was moved away before, and move the next one."""
        try:
            with open(self._page, "rb") as file:
                self._read(file.read())
            os.unlink(self._page)
        except FileNotFoundError:
            pass
        try:
            os.rename(self._path, self._page)
        except FileNotFoundError:
            pass

    def _read(self, text):
        *lines, rest = text.split(b"\n")
        for line in lines:
            match = WHOLE.fullmatch(line)
            self.lines += 1
            self.torn += match is None or int(match[1]) != len(match[2])
        self.torn += rest != b""
