"""Results of long forms: kept in build-chaos, and worth something as long as what was tried is what would be tried."""

import ast
import glob
import hashlib
import inspect
import json
import os
import subprocess

from row import Figure

TOP = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
DIRECTORY = os.path.join(TOP, "build-chaos")
# What the daemon is made of, and what every row tries it with. Documents, other tests and the gateway's services may
# change without a new run.
SOURCES = ("service", "platform", "interfaces", "cmake", "CMakeLists.txt", "CMakePresets.json",
           "gateway/bus/mbusd.conf", "chaos/preload", "chaos/programs", "tests/system/services", "scripts/private-root")
# Where the modules lie that a row imports: those of chaos/ and the harness.
ROOTS = ("chaos", "tests/system")
# What a row runs beside its own file, what that imports, and the above. Not the corpus: fuzzing adds to it.
ALSO = {"hostile-text": ("scripts/fuzz", "tests/fuzz/*.*"),
        "everything": ("gateway",),
        "races": ("scripts/test", "tests/tsan.supp", "tests/unit", "tests/fuzz/*.*", "tests/system/*.py",
                  "tests/system/harness", "gateway", "chaos/*.py", "chaos/rows")}


def files_of(patterns):
    """The files that are meant by paths of files and directories, as paths of the repository."""
    found = set()
    for path in (path for pattern in patterns for path in glob.glob(pattern, root_dir=TOP)):
        if os.path.isfile(os.path.join(TOP, path)):
            found.add(path)
        for directory, _, names in os.walk(os.path.join(TOP, path)):
            if os.path.basename(directory) != "__pycache__":
                found.update(os.path.relpath(os.path.join(directory, name), TOP) for name in names)
    return found


def imported(path):
    """What a Python file imports, as paths of modules without their ending: what they would be if they were ours."""
    with open(os.path.join(TOP, path), encoding="utf-8") as file:
        tree = ast.parse(file.read())
    for node in ast.walk(tree):
        names = []
        if isinstance(node, ast.ImportFrom):
            module = node.module or ""
            names = [module, *(f"{module}.{alias.name}" for alias in node.names)]
        elif isinstance(node, ast.Import):
            names = [alias.name for alias in node.names]
        roots = (os.path.dirname(path),) if getattr(node, "level", 0) else ROOTS
        yield from (os.path.join(root, *name.split(".")) for root in roots for name in names)


def modules_of(path, found):
    """Add a Python file, and those of ours that it imports, to what was found."""
    if path in found:
        return found
    found.add(path)
    for module in imported(path):
        for file in (module + ".py", os.path.join(module, "__init__.py")):
            if os.path.isfile(os.path.join(TOP, file)):
                modules_of(file, found)
    return found


def git(*words):
    """What git says; nothing when it fails, as it does where there is no repository."""
    done = subprocess.run(["git", *words], cwd=TOP, stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, text=True,
                          errors="backslashreplace", check=False)
    return done.stdout.strip()


class Tried:
    """What is tried: the files as they are when they are first asked for, which is before the row runs."""

    def __init__(self):
        self._sources = {}
        self._sums = {}

    def _of(self, row):
        """The files that a row's result depends on."""
        if row.name not in self._sources:
            own = os.path.relpath(inspect.getsourcefile(row.body), TOP)
            self._sources[row.name] = sorted(files_of((*SOURCES, *ALSO.get(row.name, ()))) | modules_of(own, set()))
        return self._sources[row.name]

    def _sum(self, path):
        """What a file's content comes to."""
        if path not in self._sums:
            with open(os.path.join(TOP, path), "rb") as file:
                self._sums[path] = hashlib.sha256(file.read()).hexdigest()
        return self._sums[path]

    def commit(self, row):
        """The last commit to those files."""
        changes = git("status", "--porcelain", "--", *self._of(row))
        return ((git("log", "-1", "--format=%h", "--", *self._of(row)) or "unknown")
                + (" with changes" if changes else ""))

    def mark(self, row):
        """A text that is another one when any of those files is another one."""
        text = "\n".join(f"{path} {self._sum(path)}" for path in self._of(row))
        return hashlib.sha256(text.encode()).hexdigest()


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
    """Whether it tells about what would be tried now, and to the end."""
    return state(result, mark) in ("met", "not met")


def figures(result):
    """The figures of a result."""
    return [Figure(**entry) for entry in result["figures"]]


def state(result, mark):
    """How a row stands."""
    if result is None:
        return "not run"
    if result.get("mark") != mark:
        return "stale"
    if result.get("skipped"):
        return "skipped"
    if not result.get("finished"):
        return "not finished"
    return "met" if all(figure.met for figure in figures(result)) else "not met"
