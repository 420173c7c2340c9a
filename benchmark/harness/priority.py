"""What else the machine does is not to be in the figures."""

import os
import time


QUIET = 0.05  # of the processors' time


def times():
    """(idle, all) of all processors so far."""
    with open("/proc/stat", encoding="ascii") as file:
        spent = [int(word) for word in file.readline().split()[1:9]]
    return spent[3] + spent[4], sum(spent)


def wait_until_quiet(window_s, limit_s):
    """Wait until hardly anything has run for so many seconds, up to a limit; gives the share of those that was used.

    What went before, such as the end of thousands of processes, is then not in what comes next.
    """
    seen = [times()]
    while True:
        time.sleep(1)
        seen.append(times())
        (idle, total), (idle_now, total_now) = seen[-window_s - 1] if len(seen) > window_s else seen[0], seen[-1]
        busy = 1 - (idle_now - idle) / max(1, total_now - total)
        if len(seen) > limit_s or (len(seen) > window_s and busy < QUIET):
            return busy


def come_first():
    """Put this process, and what it starts from now on, before everything else; where that is not permitted, nothing.

    The kernel may share the processors out by sessions first, so that a priority counts within one session only. So
    this process gets a session of its own, and the session the priority.
    """
    try:
        if os.getsid(0) != os.getpid():
            os.setsid()
        with open("/proc/self/autogroup", "w", encoding="ascii") as file:
            file.write("-20")
    except OSError:
        pass  # as fair a share as everybody's: the tails are longer
