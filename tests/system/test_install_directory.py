"""The install directory: the first line of /var/log/version_control."""

import pytest

from harness import FAILED, OK, log_lines
from harness.software import UPDATED, publish_update, settings

UNKNOWN_TYPE = ["Unknow update type.", ""]


def log_texts_below(directory):
    return [text for _, text in log_lines((directory / "runlog/update.log").read_bytes())]


@pytest.mark.parametrize("suffix, content", [
    pytest.param("", "{}\n", id="one line"),
    pytest.param("", "{}\n/nonexistent\n", id="only the first line counts"),
    pytest.param(" ", "{} \n", id="blank at the end is kept"),
])
def test_the_first_line_is_used_unchanged(host, suffix, content):
    place = host.root / f"place{suffix}"
    (place / "runlog").mkdir(parents=True)
    host.set_install_path(content.format(host.root / "place"))
    assert host.update("7") == FAILED
    assert log_texts_below(place) == UNKNOWN_TYPE


def test_without_the_file_the_agent_is_in_the_default_place(make_host, server):
    host = make_host(in_default_place=True)
    host.start_agent()
    publish_update(server, files={"update": host.script("update")})
    host.configure(**settings(server.url))
    assert host.update("0", "0") == OK
    assert host.log_texts() == UPDATED
    assert [(step.who, step.cwd, step.ld_library_path) for step in host.trace()] == [
        ("tool/tar", "start", "."), ("update", "./update_norvak_soft/data", "."),
        ("startup.sh", "./update_norvak_soft/data", ".")]
    assert host.agent.was_killed()


def test_an_empty_first_line_does_not_lead_to_the_default_place(make_host):
    # The log would be /runlog/update.log. A run of an unknown type uses no other file.
    host = make_host(in_default_place=True)
    host.set_install_path("\n/usr/local/norvak_agent\n")
    assert host.update("7") == FAILED
    assert host.log() == b""


def test_a_directory_that_does_not_exist_ends_in_a_silent_failure(host):
    host.set_install_path("/nonexistent/agent\n")
    assert host.update("0", "0") == FAILED
    assert host.changes() == []
