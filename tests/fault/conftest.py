"""Options and fixtures of the fault tests. See README.md."""

import os
import pathlib

import pytest

pytest.register_assert_rewrite("harness", "faults")

from faults import lab as fault_lab, tables  # noqa: E402
from harness import running_nginx, skips  # noqa: E402

_PAGE = pathlib.Path(__file__).parents[2] / "docs/reliability.md"

_summary = []


def pytest_addoption(parser):
    parser.addoption("--updater", default=os.environ.get("NORVAK_UPDATER"),
                     help="absolute path of the executable under test (or NORVAK_UPDATER)")
    parser.addoption("--faults", choices=("sample", "all"), default="sample",
                     help="how many of the faults are tried")
    parser.addoption("--jobs", type=int, default=1, help="how many runs there are at a time")
    parser.addoption("--write-tables", action="store_true",
                     help=f"write the tables of {_PAGE.name} instead of comparing them")


def pytest_configure(config):
    updater = config.getoption("--updater")
    if not updater or not os.path.isabs(updater) or not os.access(updater, os.X_OK):
        raise pytest.UsageError(f"no executable: --updater {updater} (an absolute path)")
    if config.getoption("--write-tables") and config.getoption("--faults") != "all":
        raise pytest.UsageError("the tables need --faults all")


@pytest.hookimpl(trylast=True)
def pytest_sessionfinish(session, exitstatus):
    skips.report_all_skipped(session, exitstatus)


def pytest_terminal_summary(terminalreporter):
    if _summary:
        terminalreporter.section("results of the fault tests")
        for line in _summary:
            terminalreporter.write_line(line)


@pytest.fixture(scope="session")
def lab(request):
    reason = fault_lab.unavailable()
    if reason:
        pytest.skip(reason)
    fault_lab.adopt_orphans()
    with running_nginx() as server:
        yield fault_lab.Lab(request.config.getoption("--updater"), server,
                            request.config.getoption("--jobs"))


@pytest.fixture(scope="session")
def no_unnamed_files(request):
    """Path of the library that takes unnamed files away."""
    updater = pathlib.Path(request.config.getoption("--updater"))
    library = updater.parent / "tests/fault/no_unnamed_files.so"
    if not library.exists():
        pytest.skip(f"{library} is missing: build the target no_unnamed_files")
    return str(library)


@pytest.fixture(scope="session")
def tries_all(request):
    """Whether all faults are tried, and not a sample."""
    return request.config.getoption("--faults") == "all"


@pytest.fixture(scope="session")
def page(request):
    return tables.Document(_PAGE, request.config.getoption("--write-tables"))


@pytest.fixture(scope="session")
def summary():
    """Lines that are printed at the end."""
    return _summary
