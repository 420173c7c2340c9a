"""Several gateways at the same time: what a row waits for, the others wait for as well."""

import os
import pickle
import random

from harness import clock, sandbox
from harness.gateway import Gateway


def side_by_side(run, count, body, limit):
    """Call body(gateway, chance, number) in `count` processes, each in namespaces of its own, for at most `limit`
    seconds, and give what they return. Raises sandbox.Broken when one of them fails."""
    home = run.gateway()
    ends = [_begin(home, f"{run.seed}.{number}", number, body, limit) for number in range(count)]
    answers = []
    for end in ends:
        with os.fdopen(end, "rb") as file:
            text = file.read()
        answers.append(pickle.loads(text) if text else sandbox.Broken("it died without a report"))
    for _ in ends:
        os.wait()
    for answer in answers:
        if isinstance(answer, BaseException):
            raise answer
    return answers


def shared_out(run, worker, counts, limits):
    """Share the row's amount out among gateways side by side: counts and limits are how many, and for how many seconds
    at most, in the short form and in the long one. Each calls worker(gateway, chance).work(number, share); give what
    they return, and how much is done in all."""
    count = counts[run.is_long]
    share = -(-run.amount // count)
    answers = side_by_side(run, count, lambda gateway, chance, number: worker(gateway, chance).work(number, share),
                           limits[run.is_long])
    return answers, share * count


def told(answers):
    """The faults among the answers; the first of them are shown."""
    faults = [fault for answer in answers for fault in answer["faults"]]
    for fault in faults[:6]:
        print("    " + fault, flush=True)
    return faults


def by_kind(faults, kinds):
    """How many faults there are of each kind, which is what a fault begins with."""
    return {kind: sum(fault.startswith(kind) for fault in faults) for kind in kinds}


def _begin(home, seed, number, body, limit):
    """Start one; give where its answer comes from."""
    read_end, write_end = os.pipe()
    if os.fork() != 0:
        os.close(write_end)
        return read_end
    try:
        os.close(read_end)

        def inside():
            gateway = Gateway(home.stage, os.path.join(home.root, f"beside.{number}"))
            return body(gateway, random.Random(seed), number)
        try:
            answer = sandbox.run_inside(inside, keep=[home.stage], limit=clock.stretched(limit))
        except Exception as error:  # pylint: disable=broad-except
            answer = sandbox.Broken(f"number {number}: {error}")
        with os.fdopen(write_end, "wb") as file:
            pickle.dump(answer, file)
    finally:
        os._exit(0)
