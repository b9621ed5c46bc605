"""Whether the server has a newer agent: the version file and the comparison.

The unit tests have the tables of versions and version files; here are a few of each, in whole runs.
"""

import pytest

from harness import ABORTED, DATA_DIR, FAILED, OK, VERSION_FILE, WORK_DIR, package
from harness.software import (GET_PACKAGE, GET_VERSION, NO_VERSION, NOT_NEEDED, PACKAGE_PATH,
                              UPDATED, VERSION_PATH, settings)


@pytest.fixture
def offer(host, server):
    """Publishes the given version file, with a package, to an agent of the given version."""
    def publish(version_file, installed="abcdef3.1.9"):
        server.publish({VERSION_PATH[1:]: version_file, PACKAGE_PATH[1:]: package()})
        host.configure(**settings(server.url, version=installed))

    return publish


def assert_untouched(host):
    assert host.changes() == []
    host.assert_agent_undisturbed()


def assert_updated_to(host, server, version):
    """The automatic run installed the package and recorded @a version in config.xml."""
    assert host.log_texts() == UPDATED
    assert server.requests() == [GET_VERSION, GET_PACKAGE]
    assert dict(host.config_values())["version"] == version
    assert host.agent.was_killed()


@pytest.mark.parametrize("installed, offered", [
    pytest.param("abcdef3.1.9", "abcdef3.1.10", id="numbers, not texts"),
    pytest.param("v.9.9.1", "\t <&\"'2", id="prefix of any characters"),
])
def test_a_newer_version_is_installed(host, server, offer, installed, offered):
    offer(f"{offered}\n".encode(), installed)
    assert host.update("0", "0") == OK
    assert_updated_to(host, server, offered)


@pytest.mark.parametrize("installed, offered", [
    pytest.param("abcdef3.1.10", "abcdef3.1.10", id="the same"),
    pytest.param("abcdef3.2.0", "abcdef3.1.99", id="older in the second field"),
])
def test_a_version_that_is_not_newer_is_not_installed(host, server, offer, installed, offered):
    offer(f"{offered}\n".encode(), installed)
    assert host.update("0", "0") == FAILED
    assert host.log_texts() == NOT_NEEDED
    assert server.requests() == [GET_VERSION]
    assert_untouched(host)


@pytest.mark.parametrize("version_file, version", [
    pytest.param(b"abcdef3.1.10\r\n\n", "abcdef3.1.10\r", id="empty line after a carriage return"),
    pytest.param(b"abcdef3.2." + 60 * b"0" + b"\n", "abcdef3.2." + 53 * "0", id="70 characters"),
])
def test_the_first_line_of_the_version_file_is_the_version(host, server, offer, version_file,
                                                           version):
    offer(version_file)
    assert host.update("0", "0") == OK
    assert_updated_to(host, server, version)


@pytest.mark.parametrize("version_file", [
    pytest.param(b"abcdef3.1.10\nabcdef3.1.11\n", id="two lines"),
    pytest.param(b"\n", id="empty line"),
])
def test_a_version_file_without_exactly_one_line_is_rejected(host, server, offer, version_file):
    offer(version_file)
    assert host.update("0", "0") == FAILED
    assert host.log_texts() == NO_VERSION
    assert server.requests() == [GET_VERSION]
    assert_untouched(host)


@pytest.mark.parametrize("version_file, installed", [
    pytest.param(b"abcde\n", "abcdef3.1.9", id="offered"),
    pytest.param(b"abcdef3.1.10\n", "", id="installed"),
])
def test_a_version_without_a_whole_prefix_aborts_the_run(host, server, offer, version_file,
                                                         installed):
    offer(version_file, installed)
    run = host.update("0", "0")
    assert (run.status, run.stdout) == (ABORTED, b"")
    # The updater never prints anything else.
    assert b"basic_string::substr" in run.stderr
    assert host.log_texts() == []
    assert server.requests() == [GET_VERSION]
    assert host.changes() == [f"+{WORK_DIR}", f"+{DATA_DIR}", f"+{VERSION_FILE}"]
    assert (host.mode(WORK_DIR), host.mode(DATA_DIR)) == (0o644, 0o644)
    host.assert_agent_undisturbed()


def test_the_run_after_an_aborted_one_works_and_cleans_up(host, server, offer):
    offer(b"abcde\n")
    assert host.update("0", "0").status == ABORTED
    server.publish({VERSION_PATH[1:]: b"abcdef3.1.10\n"})
    assert host.update("0", "0") == OK
    assert host.log_texts() == UPDATED
    assert host.changes() == ["-norvak.pid", "~config.xml"]


def test_without_a_host_there_is_no_version(host):
    host.configure(("Update_host", "http://127.0.0.1:9"), version="abcdef3.1.9")
    assert host.update("0", "0") == FAILED
    assert host.log_texts() == NO_VERSION
    assert_untouched(host)


def test_settings_elsewhere_in_the_document_do_not_count(host, server, offer):
    offer(b"abcdef3.1.10\n")
    deeper = '<var name="version" value="abcdef9.9"/>'
    host.write("config.xml", f"""<settings>
        <var name="version" value="abcdef9.9"/>
        <norvak>{deeper}<Process>{deeper}<Data><More>{deeper}</More>
        <set name="version" value="abcdef9.9"/>
        <var name="version" value="abcdef3.1.9"/>{deeper}
        <var name="update_host" value="{server.url}"/></Data></Process></norvak></settings>""")
    assert host.update("0", "0") == OK
    assert host.log_texts() == UPDATED
