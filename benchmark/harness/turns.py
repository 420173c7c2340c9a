"""How measurements are repeated."""

import time


def repetitions(least, most, budget_s):
    """Count from 0 up to `most`, fewer (but `least`) when the time is used up."""
    begin = time.monotonic()
    for number in range(most):
        if number >= least and time.monotonic() - begin > budget_s:
            return
        yield number


def sides(number, names=("ours", "floor")):
    """A B C, C B A, A B C, ...: so that what drifts falls on all."""
    return names if number % 2 == 0 else tuple(reversed(names))
