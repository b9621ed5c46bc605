"""The command line: which update runs, and in which mode."""

import pytest

from harness import FAILED, OK, AgentHost
from harness.software import GET_PACKAGE, GET_VERSION, publish_update, settings

UNKNOWN_TYPE = ["Unknow update type.", ""]


def automatic_run(host: AgentHost):
    """The log of an automatic run on @a host, which has no config.xml."""
    return [f"[SOFT] call get_update_method function failed, config path: {host.path}/config.xml",
            "[SOFT] read config.xml fail", ""]


# No config.xml, so no server to fetch from.
MANUAL_RUN = ["[SOFT] call run_update_norvak_agent->download_norvak_update_package failed",
              "[SOFT] update norvak agent failed", ""]


def assert_untouched(host):
    assert host.changes() == []
    assert host.trace() == []
    assert host.agent.is_alive()


def test_without_arguments_the_run_fails_and_leaves_the_log_alone(host):
    assert host.update() == FAILED
    assert not host.exists("runlog/update.log")
    assert_untouched(host)


@pytest.mark.parametrize("argument", [
    pytest.param("7", id="seven"),
    pytest.param("4", id="the first number without a type"),
    pytest.param("-1", id="negative"),
    pytest.param("-0000000001", id="leading zeros"),
    pytest.param("+7", id="plus sign"),
    pytest.param(" \t7", id="leading blanks"),
    pytest.param("7x", id="letters behind the number"),
    pytest.param("7 0", id="a second number behind the first"),
    pytest.param("4294967295", id="narrowed to -1"),
    pytest.param("4294967303", id="narrowed to 7"),
    pytest.param("99999999999999999999", id="the greatest long, narrowed to -1"),
])
def test_an_unknown_type_is_logged_and_fails(host, argument):
    assert host.update(argument, "0") == FAILED
    assert host.log_texts() == UNKNOWN_TYPE
    assert_untouched(host)


@pytest.mark.parametrize("argument", [
    pytest.param("0", id="zero"),
    pytest.param("-0", id="minus zero"),
    pytest.param("", id="empty"),
    pytest.param("agent", id="not a number"),
    pytest.param("x7", id="letters before the number"),
    pytest.param("0x7", id="hexadecimal"),
    pytest.param("- 7", id="blank behind the sign"),
    pytest.param("4294967296", id="narrowed to 0"),
    pytest.param("-99999999999999999999", id="the smallest long, narrowed to 0"),
])
def test_the_agent_software_is_updated_for_zero_and_for_what_is_no_number(host, argument):
    assert host.update(argument, "0") == FAILED
    assert host.log_texts() == automatic_run(host)
    assert_untouched(host)


@pytest.mark.parametrize("arguments", [
    pytest.param(["0"], id="missing"),
    pytest.param(["0", ""], id="empty"),
    pytest.param(["0", "manual"], id="not a number"),
    pytest.param(["0", " -0x1"], id="zero behind blank and sign"),
    pytest.param(["0", "4294967296"], id="narrowed to 0"),
    pytest.param(["0", "0", "1"], id="zero and a further argument"),
])
def test_a_run_mode_of_zero_or_none_is_automatic(host, arguments):
    assert host.update(*arguments) == FAILED
    assert host.log_texts() == automatic_run(host)
    assert_untouched(host)


@pytest.mark.parametrize("mode", [
    pytest.param("1", id="one"),
    pytest.param("2", id="two"),
    pytest.param("-1", id="negative"),
    pytest.param(" +1x", id="one between blank, sign and letter"),
    pytest.param("4294967297", id="narrowed to 1"),
    pytest.param("99999999999999999999", id="the greatest long, narrowed to -1"),
])
def test_any_other_run_mode_is_manual(host, mode):
    assert host.update("0", mode) == FAILED
    assert host.log_texts() == MANUAL_RUN
    assert_untouched(host)


@pytest.mark.parametrize("update_type", [
    "1", " 1x", "+1", "01", pytest.param("4294967297", id="narrowed to 1")])
def test_an_automatic_run_is_refused_where_the_configuration_says_manual(host, server, update_type):
    publish_update(server)
    host.configure(**settings(server.url, update_type))
    assert host.update("0", "0") == FAILED
    assert host.log_texts() == [
        "[SOFT] update type is manual, but this is autoupdate subroutine", ""]
    assert server.requests() == []
    assert_untouched(host)


@pytest.mark.parametrize("update_type", ["0", "", "2", "-1", "manual", "10", "0x1", "4294967296"])
def test_any_other_update_type_lets_an_automatic_run_go_on(host, server, update_type):
    publish_update(server)
    host.configure(**settings(server.url, update_type))
    assert host.update("0", "0") == OK
    assert host.log_texts() == ["[SOFT] update norvak agent success", ""]
    assert server.requests() == [GET_VERSION, GET_PACKAGE]


def test_a_configuration_without_update_type_lets_an_automatic_run_go_on(host, server):
    publish_update(server)
    host.configure(update_host=server.url, version="abcdef3.1.9")
    assert host.update("0", "0") == OK
    assert host.log_texts() == ["[SOFT] update norvak agent success", ""]


def test_a_manual_run_does_not_look_at_the_update_type(host, server):
    publish_update(server)
    host.configure(**settings(server.url, update_type="1"))
    assert host.update("0", "1") == OK
    assert host.log_texts() == ["[SOFT] update norvak agent success", ""]
    assert server.requests() == [GET_PACKAGE]


@pytest.mark.parametrize("broken", [
    pytest.param(b"", id="empty"),
    pytest.param(b"<norvak><Process>", id="cut short"),
    pytest.param(b"update_type = 0\n", id="no XML"),
])
def test_an_automatic_run_fails_with_a_malformed_configuration(host, broken):
    host.write("config.xml", broken)
    host.remember()
    assert host.update("0", "0") == FAILED
    assert host.log_texts() == automatic_run(host)
    assert_untouched(host)


def test_a_run_works_with_all_standard_streams_closed(host, server):
    publish_update(server)
    host.configure(**settings(server.url))
    assert host.update("0", "0", with_streams=False) == OK
    assert host.log_texts() == ["[SOFT] update norvak agent success", ""]
    assert host.config_values() == list(settings(server.url, version="abcdef3.1.10").items())


def test_nothing_is_left_where_the_updater_was_started(host, server):
    publish_update(server)
    host.configure(**settings(server.url))
    assert host.update("0", "0") == OK
    assert list(host.start_dir.iterdir()) == []
