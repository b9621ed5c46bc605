"""The commands of docs/installing.md that need no running systemd, in the order of the page."""

import pytest
from conftest import FULL, RELEASES
from harness import config_xml, kernel, rules
from harness.installing_page import commands
from test_rpm import provide_requirements

AGENT = "/usr/local/norvak_agent"


def run(root, block):
    return root.run("sh", "-e", "-c", f"cd /tmp\n{block}")


def install_agent(root, server):
    """An agent in the default place, for which @a server has new rules."""
    agent = root.file(AGENT)
    for directory in ("runlog", "template"):
        (agent / directory).mkdir(parents=True)
    (agent / "config.xml").write_bytes(config_xml({"kernel_update_host": server.url}))
    for name in (kernel.TESSEL, kernel.QUORIN):
        (agent / f"{name}.ko").touch()
    (agent / rules.CURRENT).write_text("an older digest\n")
    rules.publish_rules(server)
    return agent


@pytest.mark.parametrize("name", RELEASES)
def test_debian_and_the_first_run(name, packages, make_root, server):
    root = make_root(name)
    root.copy_in(packages.host_deb())
    install, downgrade, remove = commands("Debian and Ubuntu")
    run(root, install)
    agent = install_agent(root, server)
    [first_run] = commands("The first run")
    assert "[RULES] update tarn rules success" in run(root, first_run)
    assert (agent / rules.RULES).read_bytes() == rules.NEW_RULES
    run(root, downgrade)
    run(root, remove)
    assert root.attempt("dpkg", "--status", "norvak-update").returncode == 1
    assert (agent / rules.RULES).exists()


def test_rpm(packages, make_root):
    root = make_root("build-amd64")
    provide_requirements(root, root.copy_in(packages.host_rpm()))
    for block in commands("CentOS, RHEL, SLES and openSUSE"):
        run(root, block)
    assert root.attempt("rpm", "--query", "norvak-update").returncode == 1


@FULL
def test_an_update_server(packages, make_root):
    root = make_root("build-publish")  # it has the libraries that the package depends on
    root.copy_in(packages.publish_deb())
    [install] = commands("Update servers")
    run(root, install)
    assert "norvak_publish" in root.run("norvak_publish", "--help")
