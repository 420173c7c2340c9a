"""What else the machine does is not to be in the figures."""

import os


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
