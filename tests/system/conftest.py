"""Every test runs in namespaces of its own; see README.md."""

import os

import pytest
from _pytest.runner import runtestprotocol
from harness import clock, gateway as gateway_module, sandbox, staging

STAGE = "QUORVANED_TEST_STAGE"


def pytest_configure(config):
    """Once per run: put the programs in place. Workers find the place in their environment."""
    if not hasattr(config, "workerinput") and not config.option.collectonly:
        os.environ[STAGE] = staging.make_stage()


def pytest_unconfigure(config):
    """Once per run: clear up."""
    if not hasattr(config, "workerinput") and STAGE in os.environ:
        staging.clear_stage(os.environ.pop(STAGE))


def takes(item):
    """How long a test is expected to run."""
    marker = item.get_closest_marker("takes")
    return marker.args[0] if marker else 8


def pytest_collection_modifyitems(items):
    """Long tests first, so that none of them is left alone at the end.

    A worker is given two tests at the beginning: the longest ones are paired with the shortest.
    """
    workers = int(os.environ.get("PYTEST_XDIST_WORKER_COUNT", "0"))
    if workers == 0:
        return
    ordered = sorted(items, key=takes, reverse=True)
    first = []
    while len(first) < 2 * workers and len(ordered) > 1:
        first += [ordered.pop(0), ordered.pop()]
    items[:] = first + ordered


def pytest_xdist_make_scheduler(config, log):
    """A scheduler that never gives a worker more than one test in advance."""
    from xdist.scheduler.load import LoadScheduling

    class OneInAdvance(LoadScheduling):
        """Tests wait much and compute little: what counts is that no worker sits on waiting ones."""

        def _send_tests(self, node, num):
            super()._send_tests(node, min(num, 2 - len(self.node2pending[node])))

    return OneInAdvance(config, log)


@pytest.hookimpl(tryfirst=True)
def pytest_runtest_protocol(item):
    """Run the whole test, fixtures and all, inside."""
    item.ihook.pytest_runtest_logstart(nodeid=item.nodeid, location=item.location)
    for report in run_item(item):
        item.ihook.pytest_runtest_logreport(report=report)
    item.ihook.pytest_runtest_logfinish(nodeid=item.nodeid, location=item.location)
    return True


def run_item(item):
    """The reports of the test."""
    marker = item.get_closest_marker("limit")
    limit = marker.args[0] if marker else max(60, 3 * takes(item))
    private = item.get_closest_marker("private")

    def body():
        reports = runtestprotocol(item, nextitem=None, log=False)
        return [item.config.hook.pytest_report_to_serializable(config=item.config, report=report)
                for report in reports]

    try:
        data = sandbox.run_inside(body, keep=[os.environ[STAGE]], limit=clock.stretched(limit),
                                  sizes=private.args[0] if private else None)
    except sandbox.Broken as error:
        return [pytest.TestReport(item.nodeid, item.location, {}, "failed", str(error), "call")]
    return [item.config.hook.pytest_report_from_serializable(config=item.config, data=one) for one in data]


@pytest.hookimpl(hookwrapper=True)
def pytest_runtest_makereport(item, call):
    """A failed test shows what the gateway left to read, while its processes still run."""
    outcome = yield
    report = outcome.get_result()
    gateway = getattr(item, "funcargs", {}).get("gateway")
    if call.when == "call" and report.failed and gateway is not None:
        try:
            report.sections += list(gateway.report())
            gateway.keep_for_inspection()
            report.sections.append(("kept for inspection", gateway.root))
        except Exception as error:  # pylint: disable=broad-except
            report.sections.append(("report of the gateway", f"failed: {error}"))


@pytest.fixture
def gateway(request):
    """An install root with the daemon, the bus and an empty catalogue."""
    stage = os.environ[STAGE]
    made = gateway_module.Gateway(stage, staging.root_of(stage, request.node.nodeid))
    made.collect_sanitizer_reports()
    yield made
    found = made.sanitizer_reports()
    if found:
        made.keep_for_inspection()
        pytest.fail("sanitizer reports:\n" + found)






@pytest.fixture
def installed(gateway):
    """The reference gateway as an installation puts it in place, and nothing of the tests' own."""
    gateway.install(staging.build_directory())
    return gateway
