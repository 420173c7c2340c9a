"""Results of long forms: kept in build-chaos, and worth something as long as what was tried is what would be tried."""

import glob
import hashlib
import inspect
import json
import os
import subprocess

from row import Figure

TOP = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
DIRECTORY = os.path.join(TOP, "build-chaos")
# What the daemon is made of. Documents, tests and the gateway's services may change without a new run.
SOURCES = ("service", "platform", "interfaces", "cmake", "CMakeLists.txt")


def git(*words):
    """What git says of the sources; nothing when it fails, as it does where there is no repository."""
    done = subprocess.run(["git", *words, "--", *SOURCES], cwd=TOP, stdout=subprocess.PIPE, stderr=subprocess.DEVNULL,
                          text=True, errors="backslashreplace", check=False)
    return done.stdout.strip()


class Tried:
    """What is tried: the sources as they are when this is made, which is before the rows run."""

    def __init__(self):
        changes = git("status", "--porcelain")
        self.commit = (git("log", "-1", "--format=%h") or "unknown") + (" with changes" if changes else "")
        self._state = "\n".join((self.commit, changes, git("diff", "HEAD")))

    def mark(self, row):
        """A text that is another one when the sources or the row's own file have changed."""
        with open(inspect.getsourcefile(row.body), "rb") as file:
            return hashlib.sha256(self._state.encode() + b"\0" + file.read()).hexdigest()


def label(row, seed):
    """What a result is kept as. Of a row that is run for several seeds there is one result for each of them."""
    return f"{row.name}-{seed}" if row.seeds else row.name


def labels(row):
    """What results of a row are kept as: those that its long form is to have, and others that there are."""
    if not row.seeds:
        return [row.name]
    found = glob.glob(os.path.join(DIRECTORY, f"{row.name}-*.json"))
    wanted = [label(row, seed) for seed in row.seeds]
    return wanted + sorted({os.path.basename(path).removesuffix(".json") for path in found} - set(wanted))


def load(name):
    """A kept result, or none."""
    try:
        with open(os.path.join(DIRECTORY, name + ".json"), encoding="utf-8") as file:
            return json.load(file)
    except (FileNotFoundError, ValueError):
        return None


def save(name, result):
    """Keep it."""
    os.makedirs(DIRECTORY, exist_ok=True)
    with open(os.path.join(DIRECTORY, name + ".json"), "w", encoding="utf-8") as file:
        json.dump(result, file, indent=1)


def is_fresh(result, mark):
    """Whether it tells about what would be tried now."""
    return result is not None and result.get("mark") == mark


def figures(result):
    """The figures of a result."""
    return [Figure(**entry) for entry in result["figures"]]


def state(result, mark):
    """How a row stands."""
    if result is None:
        return "not run"
    if not is_fresh(result, mark):
        return "stale"
    return "met" if all(figure.met for figure in figures(result)) else "not met"
