"""Options and fixtures of the package tests. They run in a private mount namespace, as root:
scripts/test-packages.sh."""

import functools
import pathlib
import re
import subprocess
import sys
import tempfile

import pytest

PROJECT = pathlib.Path(__file__).resolve().parents[2]
sys.path.insert(0, str(PROJECT / "tests/system"))
pytest.register_assert_rewrite("harness")

from fresh_root import FreshRoot, HostInRoot  # noqa: E402
from harness import ScriptedServer, running_nginx  # noqa: E402

FULL = pytest.mark.full
RELEASES = [pytest.param("debian-11", marks=FULL), "debian-12", pytest.param("debian-13", marks=FULL)]
ARCHITECTURES = ["amd64", pytest.param("i386", marks=FULL)]


def pytest_addoption(parser):
    parser.addoption("--packages", required=True, type=pathlib.Path,
                     help="directory with the packages that scripts/package.sh --with-next made")


class Packages:
    """The packages of one version."""

    def __init__(self, directory):
        self._directory = directory

    def all(self, suffix):
        """The packages with @a suffix, ".deb" or ".rpm", debug symbols apart."""
        return sorted(file for file in self._directory.glob(f"*{suffix}")
                      if not re.search("-(dbgsym|debuginfo)", file.name))

    def debug(self):
        return sorted([*self._directory.glob("*-dbgsym*"), *self._directory.glob("*-debuginfo*")])

    def host_deb(self, architecture="amd64"):
        return self._one(f"norvak-update_*_{architecture}.deb")

    def publish_deb(self):
        return self._one("norvak-publish_*_amd64.deb")

    def host_rpm(self, architecture="x86_64"):
        [rpm] = [file for file in self._directory.glob(f"norvak-update-[0-9]*.{architecture}.rpm")
                 if "sles11" not in file.name]
        return rpm

    def sles_rpm(self, architecture="x86_64"):
        return self._one(f"norvak-update-[0-9]*.sles11.{architecture}.rpm")

    def _one(self, pattern):
        [file] = self._directory.glob(pattern)
        return file


@pytest.fixture(scope="session")
def packages(request):
    return Packages(request.config.getoption("--packages"))


@pytest.fixture(scope="session")
def next_packages(request):
    """The same packages, as a later version."""
    return Packages(request.config.getoption("--packages") / "next")


@pytest.fixture(scope="session")
def unpack(packages, tmp_path_factory):
    """Unpacks the host package of an architecture; its files."""
    @functools.lru_cache(maxsize=None)
    def unpack(architecture):
        tree = tmp_path_factory.mktemp(architecture)
        subprocess.run(["dpkg-deb", "--extract", packages.host_deb(architecture), tree], check=True)
        return tree

    return unpack


def compile_library(source, library, *options):
    """Makes a shared library of a C++ file; its path."""
    subprocess.run(["g++", "-std=c++17", "-O2", "-fPIC", "-shared", "-o", library, source, *options],
                   check=True)
    return library


@pytest.fixture(scope="session")
def uname_answers(tmp_path_factory):
    return compile_library(PROJECT / "tests/system/harness/uname_answers.cpp",
                    tmp_path_factory.mktemp("preload") / "uname_answers.so")


@pytest.fixture
def make_root():
    """Makes fresh roots by name."""
    made = []

    def make(name):
        scratch = pathlib.Path(tempfile.mkdtemp(prefix="norvak-root-"))
        made.append((scratch, FreshRoot(name, scratch)))
        return made[-1][1]

    yield make
    for scratch, root in made:
        root.close()
        scratch.rmdir()


@pytest.fixture
def make_host(uname_answers):
    """Makes hosts with a live agent in a root."""
    hosts = []

    def make(root):
        hosts.append(HostInRoot(root, uname_answers))
        hosts[-1].start_agent()
        return hosts[-1]

    yield make
    for host in hosts:
        host.close()


@pytest.fixture
def server():
    """A real nginx that publishes nothing yet."""
    with running_nginx() as running:
        yield running


@pytest.fixture
def scripted_server():
    running = ScriptedServer()
    yield running
    running.close()
