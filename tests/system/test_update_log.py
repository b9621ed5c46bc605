"""The update log of whole runs."""

import datetime

from harness import FAILED, OK, log_lines, namespace, unused_address
from harness.log import TIME_ZONE
from harness.software import publish_update, settings

UNKNOWN_TYPE = ["Unknow update type.", ""]


def test_a_line_is_time_stamp_tabs_and_text_and_the_run_ends_with_an_empty_line(host):
    assert host.update("7") == FAILED
    stamp = host.log()[:21]
    assert host.log() == stamp + b"\t\tUnknow update type.\n\n"
    datetime.datetime.strptime(stamp.decode(), "[%Y-%m-%d %H:%M:%S]")


def test_the_time_stamp_is_local_time(host):
    before = datetime.datetime.now(TIME_ZONE).replace(microsecond=0)
    assert host.update("7") == FAILED
    (time, _), _ = log_lines(host.log())
    assert before <= time <= datetime.datetime.now(TIME_ZONE)


def test_runs_append_and_are_separated_by_empty_lines(host):
    host.write("runlog/update.log", "what an earlier version wrote\n")
    host.update("7")
    host.update("8")
    earlier, *lines = host.log().splitlines(keepends=True)
    assert earlier == b"what an earlier version wrote\n"
    assert [text for _, text in log_lines(b"".join(lines))] == UNKNOWN_TYPE * 2


def test_a_new_log_file_has_default_permissions(host):
    host.update("7")
    assert host.mode("runlog/update.log") == 0o644


def test_a_message_is_truncated_to_2047_bytes(host):
    def message(url):
        return (f"[SOFT] download file failed [url: {url}/norvak/norvak_agent_new_version.txt] "
                f"[file: {host.path}/update_norvak_soft/new_version]")

    holder, address = unused_address()
    with holder:
        url = f"http://{address}/".ljust(2048 - len(message("")), "a")
        host.configure(**settings(url))
        assert host.update("0", "0") == FAILED
    assert len(message(url)) == 2048
    assert host.log_texts() == [
        "CUrlOp::url_down_file: curl_easy_perform failed[7]",
        message(url)[:2047],
        "[SOFT] call check_norvak_new_version_exist->download_norvak_version_file faild",
        "[SOFT] norvak is not need to update, or check new version fail",
        "",
    ]


def test_text_from_the_configuration_is_not_used_as_a_format(host):
    holder, address = unused_address()
    with holder:
        host.configure(**settings(f"http://{address}/%s%n%d%%"))
        assert host.update("0", "0") == FAILED
    assert host.log_texts()[1] == (
        f"[SOFT] download file failed [url: http://{address}/%s%n%d%%/norvak/"
        f"norvak_agent_new_version.txt] [file: {host.path}/update_norvak_soft/new_version]")


def test_without_runlog_all_lines_are_lost_and_nothing_else_changes(host, server):
    publish_update(server)
    host.configure(**settings(server.url))
    host.remove("runlog")
    host.remember()
    assert host.update("0", "0") == OK
    assert host.update("7") == FAILED
    assert host.changes() == ["-norvak.pid", "~config.xml"]


def test_with_a_read_only_runlog_all_lines_are_lost_and_nothing_else_changes(host, server):
    publish_update(server)
    host.configure(**settings(server.url))
    host.write("runlog/update.log", "earlier\n")
    read_only = [namespace.bind_read_only(host.root / "runlog")]
    assert host.update("0", "0", mounts=read_only) == OK
    assert host.log() == b"earlier\n"
    assert host.changes() == ["-norvak.pid", "~config.xml"]


def test_a_directory_with_the_name_of_the_log_changes_nothing_else(host):
    (host.root / "runlog/update.log").mkdir()
    assert host.update("7") == FAILED
    assert list((host.root / "runlog/update.log").iterdir()) == []


def test_a_log_that_is_a_link_is_followed(host):
    host.write("elsewhere.log", "")
    (host.root / "runlog/update.log").symlink_to("../elsewhere.log")
    assert host.update("7") == FAILED
    assert (host.root / "runlog/update.log").is_symlink()
    assert [text for _, text in log_lines(host.read("elsewhere.log"))] == UNKNOWN_TYPE


def test_a_run_waits_at_its_end_while_another_program_holds_the_log(host):
    host.write("runlog/update.log", "")
    with host.locked("runlog/update.log"):
        run = host.start("7")
        host.wait_for_log_lines(1)
        # Only the separator takes the lock.
        assert not run.ends_within(0.3)
        assert host.log_texts() == UNKNOWN_TYPE[:1]
    assert run.finish() == FAILED
    assert host.log_texts() == UNKNOWN_TYPE
