"""A daemon whose memory is what it has in use.

The C library keeps some freed blocks of each size for each thread. These caches have a bound, but under messages of all
sizes they take hours to fill, and until then their growth cannot be told from that of something that is lost.
"""

import os


def environment(**more):
    """The environment of a daemon without these caches; with further variables."""
    return dict(os.environ, GLIBC_TUNABLES="glibc.malloc.tcache_count=0", **more)
