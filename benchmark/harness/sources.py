"""What a result depends on: it is worth something as long as what was measured is what would be measured now."""

import ast
import hashlib
import os
import subprocess

from gateway import REPOSITORY

# What is measured, what measures it, and how it is built and run. Of this folder a measurement depends on its own
# module and those that it imports, not on those that make the table's page of it.
SOURCES = ("platform", "service", "gateway/bus/mbusd.conf", "cmake", "CMakeLists.txt", "benchmark/programs",
           "benchmark/CMakeLists.txt", "scripts/bench", "scripts/private-root", "scripts/setup")
FOLDER = "benchmark/harness"
SHARED = ("priority", "results")


def files_of(path):
    """That file, or the files below that directory, as paths of the repository."""
    if os.path.isfile(os.path.join(REPOSITORY, path)):
        return {path}
    return {os.path.relpath(os.path.join(directory, name), REPOSITORY)
            for directory, _, names in os.walk(os.path.join(REPOSITORY, path)) for name in names
            if not name.endswith(".pyc")}


def modules_of(name, found):
    """Add that module of this folder, and those that it imports, to what was found."""
    path = f"{FOLDER}/{name}.py"
    if path in found or not os.path.isfile(os.path.join(REPOSITORY, path)):
        return found
    found.add(path)
    with open(os.path.join(REPOSITORY, path), encoding="utf-8") as file:
        tree = ast.parse(file.read())
    for node in ast.walk(tree):
        for imported in [node.module] if isinstance(node, ast.ImportFrom) else \
                [alias.name for alias in node.names] if isinstance(node, ast.Import) else []:
            modules_of(imported, found)
    return found


def sources_of(measurement):
    """All that a measurement's result depends on."""
    found = set().union(*map(files_of, SOURCES))
    for name in (measurement.run.__module__, *SHARED):
        modules_of(name, found)
    return sorted(found)


def mark(measurement):
    """A text that is another one when any of these files is another one."""
    total = hashlib.sha256()
    for path in sources_of(measurement):
        with open(os.path.join(REPOSITORY, path), "rb") as file:
            total.update(f"{path} {hashlib.sha256(file.read()).hexdigest()}\n".encode())
    return total.hexdigest()


def git(*words):
    """What git says; nothing when it fails, as it does where there is no repository."""
    ended = subprocess.run(["git", "-c", f"safe.directory={REPOSITORY}", *words], stdout=subprocess.PIPE,
                           stderr=subprocess.DEVNULL, text=True, check=False, cwd=REPOSITORY)
    return ended.stdout.strip()


def has_changes(measurement):
    """Whether these files differ from the commit that is checked out."""
    return git("status", "--porcelain", "--", *sources_of(measurement)) != ""


def commit(measurement):
    """The commit that is checked out, and whether these files are as they are in it."""
    return (git("rev-parse", "--short", "HEAD") or "unknown") + (" with changes" if has_changes(measurement) else "")
