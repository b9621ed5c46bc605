"""Hosts with the kernels of real distributions ask for the directories that are agreed on."""

import pathlib

import pytest

from harness import FAILED
from harness.kernel import FIRST

_TABLE = pathlib.Path(__file__).parent.parent / "data/real_kernels.tsv"


def kernels():
    rows = [line.split("\t") for line in _TABLE.read_text().splitlines()
            if line and not line.startswith("#")]
    return [pytest.param(*row, id=" ".join(row[:3])) for row in rows]


@pytest.mark.parametrize("distribution, machine, release, directory", kernels())
def test_a_host_asks_for_the_directory_of_its_kernel(
        host, server, distribution, machine, release, directory):
    host.configure(kernel_update_host=server.url)
    if distribution != "centos":
        host.write(distribution, "")
    uname = {"NORVAK_TEST_MACHINE": machine, "NORVAK_TEST_RELEASE": release}
    assert host.update("1", uname=uname) == FAILED
    # Nothing is published, and the error page ends the run.
    assert server.requests() == [f"GET /kernels/{directory}/{FIRST}/md5"]
    _, version = directory.rsplit("/", 1)
    assert host.read("runlog/kernel_version") == version.encode()
