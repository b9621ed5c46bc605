"""Options and fixtures of the system tests. See README.md."""

import functools
import os
import pathlib
import shutil
import subprocess

import pytest

pytest.register_assert_rewrite("harness")

from harness import (AgentHost, Publisher, ScriptedServer, namespace,  # noqa: E402
                     published_package, running_nginx, skips)


def pytest_addoption(parser):
    parser.addoption("--updater", default=os.environ.get("NORVAK_UPDATER"),
                     help="absolute path of the executable under test (or NORVAK_UPDATER)")
    parser.addoption("--uname-answers", default=None,
                     help="absolute path of uname_answers.so "
                     "(default: tests/system/ beside the executable)")
    parser.addoption("--norvak-host", default=None,
                     help="absolute path of norvak_host (default: beside the executable)")
    parser.addoption("--norvak-publish", default=None,
                     help="absolute path of norvak_publish (default: beside the executable)")


def pytest_configure(config):
    updater = config.getoption("--updater")
    if not updater:
        raise pytest.UsageError("which executable? give --updater=PATH or NORVAK_UPDATER")
    if not os.path.isabs(updater) or not os.access(updater, os.X_OK):
        raise pytest.UsageError(f"no executable at the absolute path {updater}")


def _is_32_bit(program):
    with open(program, "rb") as file:
        return file.read(5)[4:] == b"\x01"  # EI_CLASS of the ELF header


def pytest_collection_modifyitems(config, items):
    """Where long has 32 bits, strtol() clamps larger numbers: they are not narrowed."""
    if _is_32_bit(config.getoption("--updater")):
        for item in items:
            if "narrowed" in item.name:
                item.add_marker(pytest.mark.skip(reason="long has 32 bits"))


@pytest.hookimpl(trylast=True)
def pytest_sessionfinish(session, exitstatus):
    skips.report_all_skipped(session, exitstatus)


@pytest.fixture(scope="session")
def updater(request):
    """Path of the executable. Tests that need it are skipped without private namespaces."""
    reason = namespace.unavailable()
    if reason:
        pytest.skip(reason)
    return pathlib.Path(request.config.getoption("--updater"))


@pytest.fixture(scope="session")
def uname_answers(request, updater):
    """Path of the library that answers uname() for a run."""
    given = request.config.getoption("--uname-answers")
    library = pathlib.Path(given) if given else updater.parent / "tests/system/uname_answers.so"
    if not library.exists():
        pytest.skip(f"{library} is missing: build the target uname_answers")
    return library


@pytest.fixture(scope="session")
def norvak_host(request, updater):
    """Path of norvak_host; None where it was not built."""
    given = request.config.getoption("--norvak-host")
    program = pathlib.Path(given) if given else updater.parent / "norvak_host"
    return program if program.exists() else None


@pytest.fixture
def make_host(updater, norvak_host, request):
    """Creates hosts. The options are those of AgentHost. Finally norvak_host checks their runs."""
    hosts = []

    def make(**options):
        library = functools.partial(request.getfixturevalue, "uname_answers")
        hosts.append(AgentHost(updater, library, norvak_host=norvak_host, **options))
        return hosts[-1]

    yield make
    try:
        for host in hosts:
            host.check_status()
    finally:
        for host in hosts:
            host.close()


@pytest.fixture
def host(make_host):
    """A host with a live agent and no config.xml yet."""
    fresh = make_host()
    fresh.start_agent()
    return fresh


@pytest.fixture(scope="session")
def _nginx():
    with running_nginx() as server:
        yield server


@pytest.fixture
def server(_nginx):
    """A real nginx that publishes nothing yet."""
    _nginx.reset()
    return _nginx


@pytest.fixture
def scripted_server():
    """A server that answers 404 until it gets replies to send."""
    running = ScriptedServer()
    yield running
    running.close()


@pytest.fixture
def with_hosts_file(tmp_path):
    """Mounts that replace the contents of /etc/hosts and disable every other name service."""
    def mounts(text):
        hosts, order = tmp_path / "hosts", tmp_path / "nsswitch.conf"
        hosts.write_text(text)
        order.write_text("hosts: files\n")
        for file in (tmp_path, hosts, order):
            file.chmod(0o755)
        return [namespace.bind(hosts, "/etc/hosts"), namespace.bind(order, "/etc/nsswitch.conf")]

    return mounts


@pytest.fixture
def publisher(request, updater, tmp_path):
    """norvak_publish and an empty server tree."""
    given = request.config.getoption("--norvak-publish")
    program = pathlib.Path(given) if given else updater.parent / "norvak_publish"
    if not program.exists():
        pytest.skip(f"{program} is missing: build the target norvak_publish")
    tmp_path.chmod(0o755)
    return Publisher(program, tmp_path)


@pytest.fixture
def served(publisher, server):
    """The publisher of a tree whose `current` a real nginx serves."""
    shutil.rmtree(server.published)
    server.published.symlink_to(publisher.tree / "current")
    yield publisher
    server.published.unlink()
    server.published.mkdir()


@pytest.fixture(scope="session")
def strace():
    """Makes the command that traces another one: strace(EXPRESSION, OUTPUT FILE)."""
    probe = ["strace", "-e", "inject=chdir:error=EIO", "-o", "/dev/null", "true"]
    if not shutil.which("strace") or subprocess.run(probe, check=False).returncode:
        pytest.skip("strace cannot trace here")
    return lambda expression, output="/dev/null": [
        "strace", "--follow-forks", "-qq", "-s", "4096", "-e", expression, "-o", str(output)]


@pytest.fixture
def steps(tmp_path):
    return published_package.Steps(tmp_path / "steps")


@pytest.fixture(params=published_package.SHELLS)
def shell(request):
    """The mount that makes a shell the one of the scripts."""
    if not os.path.exists(published_package.SHELLS[request.param]):
        pytest.skip(f"{request.param} is not installed")
    return namespace.bind(published_package.SHELLS[request.param], "/bin/sh")


@pytest.fixture
def ready(publisher, server, host):
    """A host with an old version of everything in the package, which is published."""
    published_package.install_old_version(host, server)
    published_package.publish(server, published_package.build(publisher))
    return host
