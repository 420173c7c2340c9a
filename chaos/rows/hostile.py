"""What comes from outside and is not what it should be: text, and messages of the bus."""

import os
import re
import subprocess

from harness import staging
from harness.sandbox import REPOSITORY
from row import at_least, none, row

CORPUS = os.path.join(REPOSITORY, "tests", "fuzz", "corpus")


@row("hostile-text", "hostile text",
     "the fuzz targets (the catalogue, bodies and frames of requests, pid files and /proc, argument lists, log lines): "
     "changed copies of the corpus; in the long form libFuzzer with the sanitizers, 140 s each", short=28_000,
     long=5_000_000, seconds=(90, 1300))
def hostile_text(run):
    """No input makes a parser crash, or break one of its promises."""
    names = sorted(os.listdir(CORPUS))
    fed, broken, reached = (fuzz if run.is_long else replay)(run, names)
    figures = [at_least("inputs", fed, run.amount), none("parsers that an input has broken", broken, len(names))]
    return figures + ([at_least("per cent of the parsers' regions that the corpus reaches", reached, 95)]
                      if run.is_long else [])


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
    return fed, broken, None


def fuzz(run, names):
    """Look for new inputs, with another build; what is found is kept in the corpus."""
    done = subprocess.run([os.path.join(REPOSITORY, "scripts", "fuzz"), "140", *names], stdout=subprocess.PIPE, text=True,
                          check=False)
    fed = sum(map(int, re.findall(r"(\d+) inputs, ", done.stdout)))
    reached = re.search(r"([\d.]+) %$", done.stdout, re.MULTILINE)
    run.progress(fed)
    return fed, int(done.returncode != 0), float(reached[1]) if reached else 0
