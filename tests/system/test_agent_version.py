"""Whether the server has a newer agent: the version file and the comparison."""

import pytest

from harness import ABORTED, DATA_DIR, FAILED, OK, VERSION_FILE, WORK_DIR, package
from harness.software import GET_PACKAGE, GET_VERSION, PACKAGE_PATH, VERSION_PATH, settings

UPDATED = ["[SOFT] update norvak agent success", ""]
NOT_NEWER = ["[SOFT] norvak is not need to update, or check new version fail", ""]
NO_VERSION = [
    "[SOFT] call check_norvak_new_version_exist->download_norvak_version_file faild",
    *NOT_NEWER,
]


@pytest.fixture
def offer(host, server):
    """Publishes the given version file, with a package, to an agent of the given version."""
    def publish(version_file, installed="abcdef3.1.9"):
        server.publish({VERSION_PATH[1:]: version_file, PACKAGE_PATH[1:]: package()})
        host.configure(**settings(server.url, version=installed))

    return publish


def assert_untouched(host):
    assert host.changes() == []
    assert host.trace() == []
    assert host.agent.is_alive()


def assert_updated_to(host, server, version):
    """The automatic run before took the offer; @a version is what config.xml says now."""
    assert host.log_texts() == UPDATED
    assert server.requests() == [GET_VERSION, GET_PACKAGE]
    assert dict(host.config_values())["version"] == version
    assert host.agent.was_killed()


@pytest.mark.parametrize("installed, offered", [
    pytest.param("abcdef3.1.9", "abcdef3.1.10", id="numbers, not texts"),
    pytest.param("abcdef3.1.99", "abcdef3.2.0", id="second field"),
    pytest.param("abcdef3.9.9", "abcdef4.0.0", id="first field"),
    pytest.param("zzzzzz3.1", "aaaaaa3.2", id="prefix ignored"),
    pytest.param("v.9.9.1", "\t <&\"'2", id="prefix of any characters"),
    pytest.param("abcdef3.0", "abcdef3..1", id="empty field left out"),
    pytest.param("abcdef.3.0.", "abcdef3.1", id="separators at the ends left out"),
    pytest.param("abcdef3.x", "abcdef3.1", id="letters are 0"),
    pytest.param("abcdef3.1", "abcdef3.2beta", id="leading digits count"),
    pytest.param("abcdef3.-1", "abcdef3.0", id="negative field"),
    pytest.param("abcdef3. 1", "abcdef3.+2", id="blank and sign"),
    pytest.param("abcdef3.010", "abcdef3.11", id="leading zero is decimal"),
    pytest.param("abcdef4294967296", "abcdef1", id="narrowed to 32 bits"),
    pytest.param("abcdef99999999999999999999", "abcdef0", id="greatest long narrowed to -1"),
    pytest.param("abcdef3.1", "abcdef3.2.0", id="more fields on the server"),
    pytest.param("abcdef3.1.5", "abcdef3.2", id="fewer fields on the server"),
])
def test_a_newer_version_is_installed(host, server, offer, installed, offered):
    offer(f"{offered}\n".encode(), installed)
    assert host.update("0", "0") == OK
    assert_updated_to(host, server, offered)


@pytest.mark.parametrize("installed, offered", [
    pytest.param("abcdef3.1.10", "abcdef3.1.10", id="the same"),
    pytest.param("abcdef3.1.10", "zzzzzz3.1.10", id="another prefix only"),
    pytest.param("abcdef3.2.0", "abcdef3.1.99", id="older in the second field"),
    pytest.param("abcdef3.1.10", "abcdef3.1.9", id="older as a number, not as a text"),
    pytest.param("abcdef3.1", "abcdef3.1.1", id="one field more on the server"),
    pytest.param("abcdef3.1.1", "abcdef3.1", id="one field less on the server"),
    pytest.param("abcdef3.1", "abcdef3..1", id="empty field left out"),
    pytest.param("abcdef3", "abcdef003", id="leading zeros"),
    pytest.param("abcdef3.x", "abcdef3.y", id="letters are 0"),
    pytest.param("abcdef", "abcdef9.9", id="installed prefix alone"),
    pytest.param("abcdef3.1", "abcdef", id="offered prefix alone"),
    pytest.param("abcdef3.1", "abcdef...", id="no field at all"),
    pytest.param("abcdef3.1", "abcdef 3.1", id="blank before the number"),
    pytest.param("abcdef0", "abcdef4294967296", id="narrowed to 0"),
    pytest.param("abcdef3,1", "abcdef3,2", id="only dots separate"),
])
def test_a_version_that_is_not_newer_is_not_installed(host, server, offer, installed, offered):
    offer(f"{offered}\n".encode(), installed)
    assert host.update("0", "0") == FAILED
    assert host.log_texts() == NOT_NEWER
    assert server.requests() == [GET_VERSION]
    assert_untouched(host)


@pytest.mark.parametrize("version_file, version", [
    pytest.param(b"abcdef3.1.10\n", "abcdef3.1.10", id="one line"),
    pytest.param(b"abcdef3.1.10", "abcdef3.1.10", id="without newline"),
    pytest.param(b"abcdef3.1.10\n\n", "abcdef3.1.10", id="empty line behind it"),
    pytest.param(b"abcdef3.1.10\n\n\n\n", "abcdef3.1.10", id="empty lines behind it"),
    pytest.param(b"abcdef3.1.10\r\n", "abcdef3.1.10\r", id="carriage return is kept"),
    pytest.param(b"abcdef3.1.10 \n", "abcdef3.1.10 ", id="blank is kept"),
    pytest.param(b"abcdef3.2." + 53 * b"0" + b"\n", "abcdef3.2." + 53 * "0", id="63 characters"),
    pytest.param(b"abcdef3.2." + 54 * b"0" + b"\n", "abcdef3.2." + 53 * "0", id="64 characters"),
    pytest.param(b"abcdef3.2." + 60 * b"0" + b"\n", "abcdef3.2." + 53 * "0", id="70 characters"),
    pytest.param(b"abcdef3.2.".ljust(1023, b"0") + b"\n", "abcdef3.2." + 53 * "0",
                 id="1023 characters are one piece"),
])
def test_the_first_line_of_the_version_file_is_the_version(host, server, offer, version_file,
                                                           version):
    offer(version_file)
    assert host.update("0", "0") == OK
    assert_updated_to(host, server, version)


@pytest.mark.parametrize("version_file", [
    pytest.param(b"abcdef3.1.10\nabcdef3.1.11\n", id="two lines"),
    pytest.param(b"abcdef3.1.10\n\nabcdef3.1.11", id="two lines and an empty one between"),
    pytest.param(b"abcdef3.1.10\r\n\r\n", id="a carriage return is a line"),
    pytest.param(b"abcdef3.1.10\n \n", id="a blank is a line"),
    pytest.param(b"", id="empty"),
    pytest.param(b"\n", id="empty line"),
    pytest.param(b"\n\n\n", id="empty lines"),
    pytest.param(b"abcdef3.2.".ljust(1024, b"0") + b"\n", id="1024 characters are two pieces"),
    pytest.param(b"abcdef3.2.".ljust(1500, b"0") + b"\n", id="1500 characters are two pieces"),
])
def test_a_version_file_that_does_not_hold_one_line_is_rejected(host, server, offer, version_file):
    offer(version_file)
    assert host.update("0", "0") == FAILED
    assert host.log_texts() == NO_VERSION
    assert server.requests() == [GET_VERSION]
    assert_untouched(host)


def assert_aborted(host, server, run):
    """The run ended by the error that a version without a whole prefix raises."""
    assert (run.status, run.stdout) == (ABORTED, b"")
    # What the language's runtime says about it is all that a run ever prints.
    assert b"basic_string::substr" in run.stderr
    assert host.log_texts() == []
    assert server.requests() == [GET_VERSION]
    assert host.changes() == [f"+{WORK_DIR}", f"+{DATA_DIR}", f"+{VERSION_FILE}"]
    assert (host.mode(WORK_DIR), host.mode(DATA_DIR)) == (0o644, 0o644)
    assert host.trace() == []
    assert host.agent.is_alive()


@pytest.mark.parametrize("version_file", [
    pytest.param(b"abcde\n", id="five characters"),
    pytest.param(b"3.2.1\n", id="no prefix"),
    pytest.param(b"\nabcdef3.1.10\n", id="first line empty, version on the second"),
])
def test_an_offered_version_without_a_whole_prefix_ends_the_run_abnormally(host, server, offer,
                                                                           version_file):
    offer(version_file)
    assert_aborted(host, server, host.update("0", "0"))


@pytest.mark.parametrize("installed", ["", "abcde", "3.1.9"])
def test_an_installed_version_without_a_whole_prefix_ends_the_run_abnormally(host, server, offer,
                                                                             installed):
    offer(b"abcdef3.1.10\n", installed)
    assert_aborted(host, server, host.update("0", "0"))


def test_a_configuration_without_a_version_ends_the_run_abnormally(host, server, offer):
    offer(b"abcdef3.1.10\n")
    host.configure(update_host=server.url)
    assert_aborted(host, server, host.update("0", "0"))


def test_the_run_after_an_abnormal_end_works_and_cleans_up(host, server, offer):
    offer(b"abcde\n")
    assert host.update("0", "0").status == ABORTED
    server.publish({VERSION_PATH[1:]: b"abcdef3.1.10\n"})
    assert host.update("0", "0") == OK
    assert host.log_texts() == UPDATED
    assert host.changes() == ["-norvak.pid", "~config.xml"]


@pytest.mark.parametrize("pairs", [
    pytest.param([], id="missing"),
    pytest.param([("update_host", "")], id="empty"),
    pytest.param([("Update_host", "http://127.0.0.1:9")], id="in another letter case"),
    pytest.param([("update_host ", "http://127.0.0.1:9")], id="with a blank"),
])
def test_without_a_host_there_is_no_version(host, pairs):
    host.configure(*pairs, version="abcdef3.1.9")
    assert host.update("0", "0") == FAILED
    assert host.log_texts() == NO_VERSION
    assert_untouched(host)


def test_a_configuration_without_any_setting_is_read_but_names_no_host(host):
    host.configure()
    assert host.update("0", "0") == FAILED
    assert host.log_texts() == NO_VERSION
    assert_untouched(host)


def test_the_first_of_two_settings_of_one_name_counts(host, server, offer):
    offer(b"abcdef3.1.10\n")
    host.configure(("version", "abcdef3.1.9"), ("version", "abcdef3.1.10"),
                   ("update_host", server.url), ("update_host", ""),
                   ("update_type", "0"), ("update_type", "1"))
    assert host.update("0", "0") == OK
    assert host.log_texts() == UPDATED


def test_settings_elsewhere_in_the_document_do_not_count(host, server, offer):
    offer(b"abcdef3.1.10\n")
    deeper = '<var name="version" value="abcdef9.9"/>'
    host.write("config.xml", f"""<settings>
        <var name="version" value="abcdef9.9"/>
        <norvak>{deeper}<Process>{deeper}<Data><More>{deeper}</More>
        <set name="version" value="abcdef9.9"/>
        <var name="version" value="abcdef3.1.9"/>
        <var name="update_host" value="{server.url}"/></Data></Process></norvak></settings>""")
    assert host.update("0", "0") == OK
    assert host.log_texts() == UPDATED
