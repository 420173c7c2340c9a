"""The tour of the demo, on an installation."""

import os
import re

import pytest
from harness import processes
from harness.sandbox import REPOSITORY


@pytest.mark.takes(60)
@pytest.mark.limit(240)
def test_the_tour_sees_everything_that_it_shows(installed):
    tour = processes.run([os.path.join(REPOSITORY, "scripts", "tour"), installed.root,
                          os.path.join(installed.stage, "quorvaned_next")], 200)
    assert tour.status == 0, str(tour.stdout) + str(tour.stderr)
    seen, of, _ = re.search(r"(\d+) of (\d+) seen, in (\d+) s\n$", str(tour.stdout)).groups()
    assert int(seen) == int(of) >= 15
    assert "NOT SEEN" not in str(tour.stdout)
    assert processes.running("quorvaned") == []
