"""What the results of scripts/chaos are worth: as much as the files that they depend on are still what they were."""

import os
import sys
import types

import pytest
from harness.sandbox import REPOSITORY

sys.path.insert(0, os.path.join(REPOSITORY, "chaos"))
import kept  # noqa: E402  (the path comes first)
from row import Figure  # noqa: E402

ROW = "chaos/rows/one.py"
FILES = {ROW: "from watchers import Load\nfrom .other import help\ndef body(): pass\n", "chaos/rows/other.py": "",
         "chaos/rows/__init__.py": "from . import one, other, third\n", "chaos/rows/third.py": "",
         "chaos/watchers.py": "import pages\nfrom harness import bus\n", "chaos/pages.py": "", "chaos/faults.py": "",
         "service/main.cpp": "", "gateway/bus/mbusd.conf": "", "gateway/lib/service.cpp": "", "docs/bus.md": "",
         "chaos/preload/wall_clock.c": "", "tests/system/harness/bus.py": "from . import clock\n",
         "tests/system/harness/clock.py": "", "tests/system/harness/raw_bus.py": "from . import bus\n",
         "tests/system/test_tour.py": "", "tests/fuzz/text.cpp": "", "tests/fuzz/corpus/text/empty": "",
         "scripts/fuzz": ""}


def write(path, text):
    """Write a file of the tree that is looked at."""
    os.makedirs(os.path.dirname(os.path.join(kept.TOP, path)), exist_ok=True)
    with open(os.path.join(kept.TOP, path), "w", encoding="utf-8") as file:
        file.write(text)


@pytest.fixture
def row(monkeypatch):
    """A row in a small tree of its own, whose name may be changed."""
    monkeypatch.setattr(kept, "TOP", "/tmp/tree")  # every test has a /tmp of its own
    for path, text in FILES.items():
        write(path, text)
    module = types.ModuleType("one")
    exec(compile("def body(): pass", os.path.join(kept.TOP, ROW), "exec"), module.__dict__)
    return types.SimpleNamespace(name="one", body=module.body, seeds=())


def changes(row, path):
    """Whether a change to that file makes another mark."""
    before = kept.Tried().mark(row)
    with open(os.path.join(kept.TOP, path), "a", encoding="utf-8") as file:
        file.write("# changed\n")
    return kept.Tried().mark(row) != before


def test_a_result_is_stale_when_a_file_changes_that_it_depends_on_and_only_then(row):
    depends = {path for path in FILES if changes(row, path)}
    assert depends == {ROW, "chaos/rows/other.py", "chaos/watchers.py", "chaos/pages.py", "service/main.cpp",
                       "gateway/bus/mbusd.conf", "chaos/preload/wall_clock.c", "tests/system/harness/bus.py",
                       "tests/system/harness/clock.py"}
    assert changes(row, "service/new.cpp")
    row.name = "hostile-text"
    assert [path for path in ("scripts/fuzz", "tests/fuzz/text.cpp", "tests/fuzz/corpus/text/empty")
            if changes(row, path)] == ["scripts/fuzz", "tests/fuzz/text.cpp"]


def test_only_a_result_of_these_files_that_came_to_its_end_is_worth_keeping():
    met, missed = vars(Figure("a", 0, 1, "0", True)), vars(Figure("a", 1, 1, "0", False))
    whole = {"mark": "now", "finished": True, "skipped": None, "figures": [met]}
    states = {"met": whole, "not met": {**whole, "figures": [met, missed]}, "stale": {**whole, "mark": "then"},
              "not finished": {**whole, "finished": False}, "skipped": {**whole, "skipped": "why"}, "not run": None}
    assert {name: kept.state(result, "now") for name, result in states.items()} == {name: name for name in states}
    assert [name for name, result in states.items() if kept.is_fresh(result, "now")] == ["met", "not met"]
