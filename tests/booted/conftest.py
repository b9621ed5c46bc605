"""Options and fixtures of the tests in booted systems: scripts/test-booted.sh runs them as root."""

import pathlib
import sys

import pytest

PROJECT = pathlib.Path(__file__).resolve().parents[2]
sys.path[:0] = [str(PROJECT / "tests/system"), str(PROJECT / "tests/fault")]
pytest.register_assert_rewrite("harness", "faults", "machine", "installation")

import installation as agent  # noqa: E402
import machine as machines  # noqa: E402
from harness import ScriptedServer, running_nginx  # noqa: E402


def pytest_addoption(parser):
    parser.addoption("--tree", type=pathlib.Path, required=True,
                     help="directory with the files of the host package")
    parser.addoption("--full", action="store_true", help="every kill point, in all systems")


def pytest_generate_tests(metafunc):
    if "root_name" in metafunc.fixturenames:
        roots = ["booted-12", "booted-13"] if metafunc.config.getoption("--full") else ["booted-12"]
        metafunc.parametrize("root_name", roots, scope="session")


@pytest.fixture(scope="session")
def server():
    with running_nginx() as running:
        yield running


@pytest.fixture
def scripted_server():
    """A server that answers as a test says."""
    running = ScriptedServer()
    yield running
    running.close()


@pytest.fixture
def make_machine(request):
    """Makes machines that are not booted yet."""
    reason = machines.unavailable()
    if reason:
        pytest.skip(reason)
    made = []

    def make(root_name):
        made.append(machines.Machine(root_name, request.config.getoption("--tree")))
        return made[-1]

    yield make
    for one in made:
        one.close()


@pytest.fixture(scope="session")
def machine(request, root_name):
    """A booted system that many tests share."""
    reason = machines.unavailable()
    if reason:
        pytest.skip(reason)
    booted = machines.Machine(root_name, request.config.getoption("--tree"))
    booted.boot()
    yield booted
    booted.close()


@pytest.fixture
def host(machine, server):
    """A freshly installed agent in the shared system, for which everything is new."""
    server.reset()
    installed = agent.Installation(machine, server.url)
    agent.publish(server, installed)
    installed.lay_out()
    yield installed
    installed.clear()


@pytest.fixture
def change_runner(machine):
    """Replaces texts of the runner until the end of a test."""
    path = "/usr/lib/norvak-update/run"
    text = machine.file(path).read_text()

    def change(replacements):
        changed = text
        for old, new in replacements.items():
            assert old in changed
            changed = changed.replace(old, new)
        machine.write(path, changed, 0o755)

    yield change
    machine.write(path, text, 0o755)
