"""The command line: which update runs, and in which mode.

How texts become numbers is shown by the unit tests of CStr::to_int.
"""

import pytest

from harness import FAILED, OK, AgentHost
from harness.software import GET_PACKAGE, GET_VERSION, UPDATED, publish_update, settings

UNKNOWN_TYPE = ["Unknow update type.", ""]


def automatic_run(host: AgentHost):
    """The log of an automatic run on @a host when config.xml cannot be read."""
    return [f"[SOFT] call get_update_method function failed, config path: {host.path}/config.xml",
            "[SOFT] read config.xml fail", ""]


# Without config.xml there is no server address.
MANUAL_RUN = ["[SOFT] call run_update_norvak_agent->download_norvak_update_package failed",
              "[SOFT] update norvak agent failed", ""]


def assert_untouched(host):
    assert host.changes() == []
    host.assert_agent_undisturbed()


def test_without_arguments_the_run_fails_and_does_not_log(host):
    assert host.update() == FAILED
    assert not host.exists("runlog/update.log")
    assert_untouched(host)


@pytest.mark.parametrize("argument", [
    pytest.param("4", id="the first number without a type"),
    pytest.param("-1", id="negative"),
    pytest.param(" 7 0", id="a second number after the first"),
    pytest.param("4294967303", id="narrowed to 7"),
])
def test_an_unknown_type_is_logged_and_fails(host, argument):
    assert host.update(argument, "0") == FAILED
    assert host.log_texts() == UNKNOWN_TYPE
    assert_untouched(host)


@pytest.mark.parametrize("argument", [
    pytest.param("", id="empty"),
    pytest.param("--help", id="an option"),
    pytest.param("4294967296", id="narrowed to 0"),
])
def test_whatever_counts_as_zero_updates_the_agent_software(host, argument):
    assert host.update(argument, "0") == FAILED
    assert host.log_texts() == automatic_run(host)
    assert_untouched(host)


@pytest.mark.parametrize("arguments", [
    pytest.param(["0"], id="missing"),
    pytest.param(["0", "manual"], id="not a number"),
    pytest.param(["0", "0", "1"], id="zero and a further argument"),
])
def test_a_run_mode_of_zero_or_none_is_automatic(host, arguments):
    assert host.update(*arguments) == FAILED
    assert host.log_texts() == automatic_run(host)
    assert_untouched(host)


@pytest.mark.parametrize("mode", [
    pytest.param("2", id="two"),
    pytest.param(" -1x", id="minus one between a blank and a letter"),
])
def test_any_other_run_mode_is_manual(host, mode):
    assert host.update("0", mode) == FAILED
    assert host.log_texts() == MANUAL_RUN
    assert_untouched(host)


@pytest.mark.parametrize("update_type", ["1", " 1x"])
def test_an_automatic_run_is_refused_if_the_configuration_says_manual(host, server, update_type):
    publish_update(server)
    host.configure(**settings(server.url, update_type))
    assert host.update("0", "0") == FAILED
    assert host.log_texts() == [
        "[SOFT] update type is manual, but this is autoupdate subroutine", ""]
    assert server.requests() == []
    assert_untouched(host)


@pytest.mark.parametrize("update_type", ["2", "manual"])
def test_any_other_update_type_allows_an_automatic_run(host, server, update_type):
    publish_update(server)
    host.configure(**settings(server.url, update_type))
    assert host.update("0", "0") == OK
    assert host.log_texts() == UPDATED
    assert server.requests() == [GET_VERSION, GET_PACKAGE]


def test_a_configuration_without_update_type_allows_an_automatic_run(host, server):
    publish_update(server)
    host.configure(update_host=server.url, version="abcdef3.1.9")
    assert host.update("0", "0") == OK
    assert host.log_texts() == UPDATED


def test_a_manual_run_ignores_the_update_type(host, server):
    publish_update(server)
    host.configure(**settings(server.url, update_type="1"))
    assert host.update("0", "1") == OK
    assert host.log_texts() == UPDATED
    assert server.requests() == [GET_PACKAGE]


def test_an_automatic_run_fails_with_a_malformed_configuration(host):
    host.write("config.xml", b"<norvak><Process>")
    host.remember()
    assert host.update("0", "0") == FAILED
    assert host.log_texts() == automatic_run(host)
    assert_untouched(host)


def test_a_run_works_with_all_standard_streams_closed(host, server):
    publish_update(server)
    host.configure(**settings(server.url))
    assert host.update("0", "0", with_streams=False) == OK
    assert host.log_texts() == UPDATED
    assert host.config_values() == list(settings(server.url, version="abcdef3.1.10").items())


def test_nothing_is_left_where_the_updater_was_started(host, server):
    publish_update(server)
    host.configure(**settings(server.url))
    assert host.update("0", "0") == OK
    assert list(host.start_dir.iterdir()) == []
