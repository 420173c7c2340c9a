"""The documents against what is there: the tests that the page of behaviours names, and links between pages."""

import glob
import os
import re

from harness.sandbox import REPOSITORY

PAGE = "docs/behaviour.md"
SYSTEM_TEST = re.compile(r"(test_\w+\.py)::(test_\w+)")
UNIT_TEST = re.compile(r"(\w+)\.(\w+)")
DOCUMENTS = ("README.md", "CONTRIBUTING.md", "CHANGELOG.md", "docs/*.md", "tests/system/README.md")


def none_of(what, found):
    """Fail with the list of what should not be there."""
    assert not found, what + ":\n" + "\n".join(sorted(found))


def read(path):
    """A file of the repository."""
    with open(os.path.join(REPOSITORY, path), encoding="utf-8") as file:
        return file.read()


def files(*patterns):
    """The files of the repository that match, as paths in it."""
    return sorted(path for pattern in patterns
                  for path in glob.glob(pattern, root_dir=REPOSITORY, recursive=True))


def rows():
    """The cells of the page's rows: the behaviour, and what shows it."""
    lines = [line for line in read(PAGE).splitlines() if line.startswith("|")]
    cells = [[cell.strip() for cell in line.strip("|").split(" | ")] for line in lines]
    return [row for row in cells if row[0] not in ("behaviour", "---|---")]


def names_in(cell):
    """What stands between its backticks; the cell holds nothing else."""
    found = re.findall(r"`([^`]*)`", cell)
    assert ", ".join(f"`{name}`" for name in found) == cell != "", f"a list of tests: {cell!r}"
    return found


def named_tests():
    """Every test that the page names."""
    return {name for row in rows() for name in names_in(row[-1])}


def system_tests():
    """Every system test as the page names it."""
    return {f"{os.path.basename(path)}::{name}" for path in files("tests/system/test_*.py")
            for name in re.findall(r"^def (test_\w+)\(", read(path), re.MULTILINE)}


def unit_tests():
    """Every unit test as the page names it."""
    return {f"{suite}.{name}" for path in files("tests/unit/**/*.cpp", "gateway/**/*.cpp")
            for suite, name in re.findall(r"^TEST(?:_F|_P)?\(\s*(\w+),\s*(\w+)\s*\)", read(path), re.MULTILINE)}


def test_every_row_of_the_page_is_a_behaviour_and_its_tests():
    assert len(rows()) > 200
    behaviours = [row[0] for row in rows()]
    none_of("rows of another shape", [str(row) for row in rows() if len(row) != 2 or not row[0]])
    none_of("told twice", {one for one in behaviours if behaviours.count(one) > 1})
    none_of("no test's name", [name for name in named_tests()
                               if not (SYSTEM_TEST.fullmatch(name) or UNIT_TEST.fullmatch(name))])


def test_every_test_that_the_page_names_exists():
    none_of("tests that do not exist", named_tests() - system_tests() - unit_tests())


def test_the_page_leaves_out_no_file_of_system_tests_and_no_suite():
    named = named_tests()
    for all_tests, pattern in ((system_tests(), SYSTEM_TEST), (unit_tests(), UNIT_TEST)):
        groups = {pattern.fullmatch(name)[1] for name in all_tests}
        assert len(groups) > 15
        shown = {match[1] for match in map(pattern.fullmatch, named) if match}
        none_of("not on the page", groups - shown)


def anchors(path):
    """What a link may point to in a document: its headings, as they are made into anchors."""
    text = re.sub(r"^```.*?^```$", "", read(path), flags=re.DOTALL | re.MULTILINE)
    headings = re.findall(r"^#+ (.*)$", text, re.MULTILINE)
    return {re.sub(r"[^\w\- ]", "", heading.lower()).replace(" ", "-") for heading in headings}


def test_links_between_the_documents_lead_somewhere():
    documents = files(*DOCUMENTS)
    assert {"README.md", "CONTRIBUTING.md", PAGE} <= set(documents)
    broken = []
    links = 0
    for document in documents:
        for link in re.findall(r"\]\(([^)\s]+)\)", read(document)):
            if re.match(r"[a-z]+:", link):
                continue
            links += 1
            path, _, anchor = link.partition("#")
            target = os.path.normpath(os.path.join(os.path.dirname(document), path)) if path else document
            if not os.path.exists(os.path.join(REPOSITORY, target)) or anchor and anchor not in anchors(target):
                broken.append(f"{document}: {link}")
    assert links >= 10
    none_of("broken links", broken)
