"""What comes from outside and is not what it should be: text, and messages of the bus."""

import os
import re
import subprocess
import time

import steady
from harness import staging
from harness.gateway import UP, Service
from harness.sandbox import REPOSITORY
from log_tail import LogTail
from row import Figure, at_least, at_most, none, row
from rows.leaks import memory_of

CORPUS = os.path.join(REPOSITORY, "tests", "fuzz", "corpus")


@row("hostile-text", "hostile text",
     "the fuzz targets (the catalogue, bodies and frames of requests, pid files and /proc, argument lists, log lines): "
     "changed copies of the corpus; in the long form libFuzzer with the sanitizers, 110 s each", short=28_000,
     long=5_000_000, seconds=(90, 1200))
def hostile_text(run):
    """No input makes a parser crash, or break one of its promises."""
    names = sorted(os.listdir(CORPUS))
    fed, broken, reached = (fuzz if run.is_long else replay)(run, names)
    return [at_least("inputs", fed, run.amount), none("parsers that an input has broken", broken, len(names)), *reached]


def replay(run, names):
    """Feed changed copies of the corpus to the programs of the ordinary build."""
    count = str(run.amount // len(names))
    fed = broken = 0
    for name in names:
        program = os.path.join(staging.build_directory(), "tests", "unit", "fuzz", "fuzz_" + name)
        done = subprocess.run([program, os.path.join(CORPUS, name), count, str(run.seed)], stdout=subprocess.PIPE,
                              text=True, check=False)
        told = re.search(r"^(\d+) inputs$", done.stdout, re.MULTILINE)
        fed += int(told[1]) if told else 0
        broken += done.returncode != 0
        run.progress(fed)
    return fed, broken, []


def fuzz(run, names):
    """Look for new inputs, with another build; what is found is kept in the corpus."""
    done = subprocess.run([os.path.join(REPOSITORY, "scripts", "fuzz"), "110", *names],
                          stdout=subprocess.PIPE, text=True, check=False)
    fed = sum(map(int, re.findall(r"(\d+) inputs, ", done.stdout)))
    broken = set(re.findall(r"^broken by .*/(\w+)-[^/]*$", done.stdout, re.MULTILINE))
    told = re.search(r"^parsers: (\d+) of (\d+) regions", done.stdout, re.MULTILINE)
    reached, regions = (int(told[1]), int(told[2])) if told else (0, 1)
    run.progress(fed)
    return fed, max(len(broken), done.returncode != 0), [
        Figure("regions of the parsers that the corpus reaches", reached, regions, "at least 95 %",
               reached >= 0.95 * regions)]


@row("hostile-messages", "hostile messages",
     "messages that make no sense, and changed frames, from four clients as fast as the bus takes them. A changed "
     "frame is the last of its connection and hardly ever comes further than to the bus daemon; what is well formed "
     "comes to the daemon, one text in ten thousand of 1 MiB. Memory is that of the second half, without the threads' "
     "caches of free memory",
     short=100_000, long=10_000_000, seconds=(90, 1200))
def hostile_messages(run):
    """The daemon lives on, with what it had, and answers."""
    gateway = run.gateway()
    gateway.catalogue(Service("named", bus="iot.test.named", monitor=1))
    tail = LogTail()
    daemon = gateway.up(env=steady.environment())
    share = run.amount // 8 + 1
    warm_up = [send_hostile(share, run.seed * 10 + number) for number in range(4, 8)]
    sent = sum(told(sender)[0] for sender in warm_up)
    client = gateway.bus()
    client.report()
    before = memory_of(daemon.pid)
    senders = [send_hostile(share, run.seed * 10 + number) for number in range(4)]
    answered = 0
    while any(sender.poll() is None for sender in senders):
        client.report()
        answered += 1
        run.progress(answered, "(reports meanwhile)")
        time.sleep(0.05)
    totals = [told(sender) for sender in senders]
    client.report()
    gained = max(0, memory_of(daemon.pid) - before)
    tail.stop()
    cycles = sum(event.text == UP for event in tail.take())
    return [at_least("messages", sent + sum(number for number, _ in totals), run.amount),
            at_least("connections in the second half, most of them ended by a changed frame",
                     sum(number for _, number in totals), run.amount // 200),
            none("exits of the daemon", int(not daemon.alive()), None),
            none("restarts of the stack", cycles - 1, None),
            at_most("resident memory gained", gained, 0 if run.is_long else 512, "KiB")]


def send_hostile(count, seed):
    """Start one sender."""
    program = os.path.join(staging.build_directory(), "chaos", "programs", "hostile_messages")
    return subprocess.Popen([program, str(count), str(seed)], stdout=subprocess.PIPE, text=True)


def told(sender):
    """(messages, connections) of a sender; nothing of one that has failed."""
    text = sender.communicate()[0]
    return tuple(map(int, text.split())) if sender.returncode == 0 else (0, 0)
