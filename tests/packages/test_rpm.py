"""The .rpm with a database of its own. The system is a Debian with rpm, so that a stub package
provides what rpm cannot know of it: the interpreter of the scripts, the C library and libcurl."""


import pytest
from harness import updates
from test_deb import STATE, UPDATER, assert_waits_for_the_lock
from test_updates import assert_updates

_STUB = """\
Name: norvak-test-stub
Version: 1
Release: 1
Summary: What a real rpm host provides
License: none
BuildArch: noarch
AutoReq: no
{provides}
%description
%files
"""


def requirements(root, rpm):
    """What a package requires of others, the features of rpm itself apart."""
    lines = root.run("rpm", "--query", "--requires", "--package", rpm).splitlines()
    return sorted({line for line in lines if not line.startswith(("rpmlib(", "config("))})


def provide_requirements(root, rpm):
    """Makes an rpm database in which everything that a package requires is provided."""
    provides = "\n".join(f"Provides: {line}" for line in requirements(root, rpm))
    root.file("/tmp/stub.spec").write_text(_STUB.format(provides=provides))
    root.run("rpmbuild", "-bb", "--define", "_rpmdir /tmp", "--define", "_build_name_fmt stub.rpm",
             "/tmp/stub.spec")
    root.run("rpm", "--initdb")
    root.run("rpm", "--install", "/tmp/stub.rpm")


@pytest.fixture
def root(make_root, packages):
    fresh = make_root("build-amd64")
    provide_requirements(fresh, fresh.copy_in(packages.host_rpm()))
    return fresh


def installed_version(root):
    return root.run("rpm", "--query", "--queryformat", "%{VERSION}", "norvak-update")


def test_the_updater_works_after_each_step(root, packages, next_packages, make_host, server):
    first, later = root.copy_in(packages.host_rpm()), root.copy_in(next_packages.host_rpm())
    root.run("rpm", "--install", first)
    edited = root.run("rpm", "--query", "--configfiles", "norvak-update").split()
    for file in edited:
        with open(root.file(file), "a") as stream:
            stream.write("# edited\n")
    host = make_host(root)
    seen = []
    for options in (["--replacepkgs", first], [later], ["--oldpackage", first]):
        root.run("rpm", "--upgrade", *options)
        seen.append(installed_version(root))
        host.start_agent()
        server.reset()
        assert_updates(host, server, updates.RULES)
        host.remove("runlog/update.log")
    assert seen[0] == seen[2] != seen[1]
    assert [file for file in edited if "# edited" not in root.file(file).read_text()] == []


def test_all_files_are_as_packaged(root, packages):
    for rpm in (packages.host_rpm(), packages.sles_rpm()):
        name = root.copy_in(rpm)
        assert "digests OK" in root.run("rpm", "--checksig", name)
        root.run("rpm", "--upgrade", "--force", name)
        assert root.run("rpm", "--verify", "norvak-update") == ""


def test_an_upgrade_leaves_the_agent_alone_and_so_does_a_removal(root, packages, next_packages,
                                                                 make_host):
    host = make_host(root)
    root.run("rpm", "--install", root.copy_in(packages.host_rpm()))
    root.run("rpm", "--upgrade", root.copy_in(next_packages.host_rpm()))
    root.run("rpm", "--erase", "norvak-update")
    assert not root.file(UPDATER).exists()
    host.assert_agent_undisturbed()
    assert host.changes() == []


def test_a_removal_keeps_the_state(root, packages):
    root.run("rpm", "--install", root.copy_in(packages.host_rpm()))
    root.file(f"{STATE}/record").write_text("state\n")
    root.run("rpm", "--erase", "norvak-update")
    assert root.file(f"{STATE}/record").exists()


def test_a_removal_waits_for_the_lock(root, packages):
    root.run("rpm", "--install", root.copy_in(packages.host_rpm()))
    assert_waits_for_the_lock(root, "rpm", "--erase", "norvak-update")
