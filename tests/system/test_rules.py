"""Protection rules (type 3): when they are fetched and installed, and the agent killed."""

import pytest

from harness import FAILED, KILLED, OK, Run, Step, http_reply, namespace, unused_address
from harness.kernel import QUORIN, TESSEL, installed
from harness.rules import (CURRENT, DOWNLOAD, GET_LIST, GET_RULES, LIST, LIST_PATH, NEW_RULES,
                           NOTHING_TO_DO, OLD_RULES, REFUSED, RULES, RULES_PATH, UPDATED, WORK_DIR,
                           digest, install_rules, publish_rules)
from harness.transfers import COULD_NOT_CONNECT, URL_MALFORMED, WRITE_ERROR, transfer_failed

VERIFIED = UPDATED[:1]
# The pid file goes with the agent.
INSTALLED = ["-norvak.pid", f"~{RULES}"]


@pytest.fixture
def serve(host, scripted_server):
    """Lets the scripted server offer new rules; replies that are given replace the good ones."""
    def serve_rules(replies=None):
        publish_rules(scripted_server)
        for path, reply in (replies or {}).items():
            scripted_server.reply(path, reply)
        host.configure(kernel_update_host=scripted_server.url)
        install_rules(host)
        return scripted_server

    return serve_rules


@pytest.fixture
def configured(host, server):
    """The host, with nginx for its server and older rules installed."""
    host.configure(kernel_update_host=server.url)
    install_rules(host)
    return host


def assert_nothing_done(host, server, requests=(GET_LIST,)):
    """The rules are taken for current."""
    assert host.update("3") == FAILED
    assert host.log_texts() == NOTHING_TO_DO
    assert server.requests() == list(requests)
    assert host.changes() == []
    host.assert_agent_undisturbed()


def assert_refused(host, server):
    """The rules are fetched, but not installed."""
    assert host.update("3") == FAILED
    assert host.log_texts() == REFUSED
    assert server.requests() == [GET_LIST, GET_RULES]
    assert host.changes() == []
    host.assert_agent_undisturbed()


def assert_installed(host, server):
    assert host.update("3") == OK
    assert host.log_texts() == UPDATED
    assert server.requests() == [GET_LIST, GET_RULES]
    assert host.read(RULES) == NEW_RULES
    assert_agent_was_stopped(host)


def assert_agent_was_stopped(host):
    assert host.agent.was_killed()
    assert not host.exists("norvak.pid")
    assert host.trace() == []  # nobody started it again


# Runs with a server that behaves.


def test_new_rules_are_installed_and_the_agent_is_killed(configured, server):
    publish_rules(server)
    assert_installed(configured, server)
    # What the host runs is for the agent to record.
    assert configured.changes() == INSTALLED


def test_current_rules_are_left_alone_and_count_as_failure(configured, server):
    publish_rules(server, OLD_RULES)
    assert_nothing_done(configured, server)


def test_rules_that_are_missing_are_installed(configured, server):
    publish_rules(server)
    configured.remove(RULES)
    configured.remember()
    assert_installed(configured, server)
    assert configured.changes() == [f"+{RULES}", "-norvak.pid"]


def test_until_the_agent_records_the_new_rules_they_are_installed_again(configured, server):
    publish_rules(server)
    assert configured.update("3") == OK
    agent = configured.start_agent()
    assert configured.update("3") == OK
    assert agent.was_killed()
    configured.start_agent()
    configured.write(CURRENT, f"{digest()}\n")
    assert configured.update("3") == FAILED
    assert configured.log_texts() == UPDATED + UPDATED + NOTHING_TO_DO
    assert server.requests() == [GET_LIST, GET_RULES, GET_LIST, GET_RULES, GET_LIST]
    configured.assert_agent_undisturbed()


def test_the_agent_lives_until_the_rules_are_whole(host, serve):
    serve({RULES_PATH: http_reply(length=len(NEW_RULES), pieces=[
        lambda: host.note("reply"), NEW_RULES[:-1], 0.1,
        lambda: host.note("last byte"), NEW_RULES[-1:]])})
    assert host.update("3") == OK
    work = [f"+{WORK_DIR}", f"+{LIST}"]
    assert host.trace() == [
        Step("reply", "start", False, "alive", work),
        Step("last byte", "start", False, "alive", sorted([*work, f"+{DOWNLOAD}"])),
    ]
    assert host.agent.was_killed()
    assert host.changes() == INSTALLED


@pytest.mark.parametrize("mask, mode", [(0o022, 0o644), (0o077, 0o600), (0, 0o666)])
def test_the_installed_rules_have_the_permissions_of_a_new_file(configured, server, mask, mode):
    publish_rules(server)
    (configured.root / RULES).chmod(0o755)
    assert configured.update("3", mounts=[namespace.umask(mask)]) == OK
    assert configured.mode(RULES) == mode


def test_large_rules_are_installed_whole(configured, server):
    large = bytes(range(256)) * (4 << 12)  # 4 MiB
    publish_rules(server, large)
    assert configured.update("3") == OK
    assert configured.read(RULES) == large


@pytest.mark.parametrize("suffix", [
    pytest.param("/", id="slash"), pytest.param("/norvak/agents", id="path")])
def test_the_address_starts_with_the_setting_as_it_stands(host, scripted_server, suffix):
    scripted_server.reply(suffix + LIST_PATH, http_reply(f"{digest()}\n".encode()))
    scripted_server.reply(suffix + RULES_PATH, http_reply(NEW_RULES))
    host.configure(kernel_update_host=scripted_server.url + suffix)
    install_rules(host)
    assert host.update("3") == OK
    assert scripted_server.requests() == [f"GET {suffix}{LIST_PATH}", f"GET {suffix}{RULES_PATH}"]
    assert host.read(RULES) == NEW_RULES


# The engine modules: rules are for them.


@pytest.mark.parametrize("missing", [[TESSEL], [QUORIN], [TESSEL, QUORIN]], ids=" and ".join)
def test_without_both_engine_modules_nothing_is_requested(configured, server, missing):
    publish_rules(server)
    for name in missing:
        configured.remove(installed(name))
    configured.remember()
    assert_nothing_done(configured, server, requests=())


# What the host says that it runs.


def test_without_a_record_any_announced_rules_are_new(configured, server):
    publish_rules(server)
    configured.remove(CURRENT)
    configured.remember()
    assert_installed(configured, server)
    assert configured.changes() == INSTALLED


@pytest.mark.parametrize("recorded", [
    pytest.param("{}", id="no line feed"),
    pytest.param("{}\nanother line\n", id="a second line"),
    pytest.param("{}\n\n", id="an empty second line"),
])
def test_the_first_line_of_the_record_is_compared(configured, server, recorded):
    publish_rules(server)
    configured.write(CURRENT, recorded.format(digest()))
    configured.remember()
    assert_nothing_done(configured, server)


@pytest.mark.parametrize("recorded", [
    pytest.param("{}\r\n", id="CR LF"),
    pytest.param(" {}\n", id="blank in front"),
    pytest.param("{} \n", id="blank behind"),
    pytest.param("\n{}\n", id="empty first line"),
    pytest.param("", id="empty"),
    pytest.param("{}0\n", id="one digit too many"),
])
def test_a_record_that_differs_in_white_space_has_the_rules_installed_on_every_run(
        configured, server, recorded):
    publish_rules(server)
    configured.write(CURRENT, recorded.format(digest()))
    for _ in range(2):
        agent = configured.start_agent()
        assert configured.update("3") == OK
        assert agent.was_killed()
    assert configured.log_texts() == 2 * UPDATED
    assert server.requests() == 2 * [GET_LIST, GET_RULES]
    assert configured.read(RULES) == NEW_RULES
    assert configured.read(CURRENT).decode() == recorded.format(digest())


def test_1023_characters_of_the_record_are_compared(configured, server):
    publish_rules(server, published=b"x" * 1023)
    configured.write(CURRENT, "x" * 1500)
    configured.remember()
    assert_nothing_done(configured, server)


def test_a_record_that_cannot_be_opened_ends_the_check(configured, server):
    publish_rules(server)
    configured.remove(CURRENT)
    configured.write_unopenable(CURRENT)
    configured.remember()
    assert_nothing_done(configured, server, requests=())


# What the server announces.


@pytest.mark.parametrize("announced", [
    pytest.param("{}\n/tarn_rule/norvak_default_rule.xml\n", id="a file name below"),
    pytest.param("{}\n\n", id="an empty second line"),
    pytest.param("{}\n ", id="blank behind the line feed"),
    pytest.param("\n{}\n", id="an empty first line"),
    pytest.param("{}\n{}\n", id="the same line again"),
    pytest.param("<html>\n<p>sorry</p>\n</html>\n", id="error page"),
    pytest.param("x" * 1024, id="a line of two pieces"),
    pytest.param("x" * 1023 + "\n", id="a line feed that does not fit"),
])
@pytest.mark.parametrize("has_record", [True, False], ids=["record", "no record"])
def test_several_lines_announce_nothing(configured, server, announced, has_record):
    publish_rules(server, published=announced.replace("{}", digest()).encode())
    if not has_record:
        configured.remove(CURRENT)
        configured.remember()
    assert_nothing_done(configured, server)


def test_a_line_feed_alone_announces_nothing_to_a_host_without_a_record(configured, server):
    publish_rules(server, published=b"\n")
    configured.remove(CURRENT)
    configured.remember()
    assert_nothing_done(configured, server)


def test_a_list_without_any_line_announces_nothing(configured, server):
    # A body of no bytes leaves the file alone, and a file mounted there cannot be deleted.
    publish_rules(server, published=b"")
    configured.remove(CURRENT)
    configured.write(LIST, "")
    empty = [namespace.bind(configured.root / LIST, configured.root / LIST)]
    assert configured.update("3", mounts=empty) == FAILED
    assert configured.log_texts() == NOTHING_TO_DO
    assert server.requests() == [GET_LIST]
    configured.assert_agent_undisturbed()


def test_a_digest_without_a_line_feed_is_as_good(configured, server):
    publish_rules(server, published=digest().encode())
    assert_installed(configured, server)


@pytest.mark.parametrize("announced", [
    pytest.param(lambda digest: digest.upper() + "\n", id="upper case"),
    pytest.param(lambda digest: digest + "\r\n", id="CR LF"),
    pytest.param(lambda digest: digest + " \n", id="blank behind"),
    pytest.param(lambda digest: "\t" + digest, id="tab in front"),
    pytest.param(lambda digest: digest + "0" * 95, id="digits behind it"),
    pytest.param(lambda digest: digest + "0" * 500 + "\n", id="many digits behind it"),
    pytest.param(lambda digest: digest[:-1] + "\n", id="one digit missing"),
    pytest.param(lambda digest: "\n", id="line feed alone"),
    pytest.param(lambda digest: "not here\n", id="error page of one line"),
])
def test_rules_that_do_not_have_the_announced_digest_are_refused(configured, server, announced):
    publish_rules(server, published=announced(digest()).encode())
    assert_refused(configured, server)


def test_other_rules_than_those_announced_are_refused(configured, server):
    publish_rules(server, content=NEW_RULES[:-1], published=f"{digest()}\n".encode())
    assert_refused(configured, server)


def test_rules_that_are_an_error_page_are_refused(configured, server):
    publish_rules(server, content=b"<html>\n<p>sorry</p>\n</html>\n",
                  published=f"{digest()}\n".encode())
    assert_refused(configured, server)


def test_rules_without_a_byte_are_refused(configured, server):
    publish_rules(server, content=b"")
    assert_refused(configured, server)


def test_a_digest_in_upper_case_that_stands_in_the_record_too_announces_nothing(configured, server):
    publish_rules(server, published=f"{digest().upper()}\n".encode())
    configured.write(CURRENT, f"{digest().upper()}\n")
    configured.remember()
    assert_nothing_done(configured, server)


def test_the_digest_text_of_a_missing_file_verifies_missing_rules(configured, server):
    # Neither the list nor the download is an accident then: somebody publishes "-1" and no rules.
    publish_rules(server, content=b"", published=b"-1\n")
    assert configured.update("3") == OK
    assert configured.log_texts() == UPDATED
    assert configured.changes() == ["-norvak.pid", f"-{RULES}"]
    assert configured.agent.was_killed()


# The server's address.


@pytest.mark.parametrize("settings", [
    pytest.param({}, id="no setting"),
    pytest.param({"kernel_update_host": ""}, id="empty"),
    pytest.param({"update_host": "URL", "nginx_update_host": "URL", "rule_update_host": "URL"},
                 id="other settings only"),
])
def test_without_a_server_the_bare_path_is_no_address(host, server, settings):
    publish_rules(server)
    host.configure(**{name: value.replace("URL", server.url) for name, value in settings.items()})
    install_rules(host)
    assert host.update("3") == FAILED
    assert host.log_texts() == [transfer_failed(URL_MALFORMED), *NOTHING_TO_DO]
    assert server.requests() == []
    assert host.changes() == []
    host.assert_agent_undisturbed()


@pytest.mark.parametrize("document", [None, b"", b"<norvak>"], ids=["missing", "empty", "cut"])
def test_without_a_configuration_the_bare_path_is_no_address(host, document):
    if document is not None:
        host.write("config.xml", document)
    install_rules(host)
    assert host.update("3") == FAILED
    assert host.log_texts() == [transfer_failed(URL_MALFORMED), *NOTHING_TO_DO]
    assert host.changes() == []
    host.assert_agent_undisturbed()


def test_the_server_is_looked_up_again_for_the_rules(host, serve):
    holder, address = unused_address()

    def move_away():
        host.write("config.xml", (host.root / "config.xml").read_text().replace(
            server.url, f"http://{address}"))

    body = f"{digest()}\n".encode()
    server = serve({LIST_PATH: http_reply(length=len(body), pieces=[move_away, body])})
    with holder:
        assert host.update("3") == FAILED
    assert host.log_texts() == [transfer_failed(COULD_NOT_CONNECT),
                                "[RULES] update tarn rules failed", ""]
    assert server.requests() == [GET_LIST]
    host.assert_agent_undisturbed()


# The agent that is to be killed.


@pytest.mark.parametrize("pid_file", [None, "{dead}\n"], ids=["no pid file", "a dead agent's"])
def test_an_agent_that_does_not_run_is_no_failure(configured, server, pid_file):
    publish_rules(server)
    dead = configured.agent
    dead.close()
    configured.remove("norvak.pid")
    if pid_file:
        configured.write("norvak.pid", pid_file.format(dead=dead.pid))
    configured.remember()
    assert configured.update("3") == OK
    assert configured.log_texts() == UPDATED
    assert configured.changes() == [f"~{RULES}"]  # a pid file stays when nobody could be killed
    assert configured.trace() == []


@pytest.mark.parametrize("content", ["0\n", "", "agent\n"], ids=["zero", "empty", "no number"])
def test_a_pid_file_that_reads_as_zero_kills_the_updater_behind_the_installation(
        configured, server, content):
    publish_rules(server)
    configured.write("norvak.pid", content)
    configured.remember()
    assert configured.update_with_private_pids("3") == (Run(KILLED), "alive")
    assert configured.log_texts() == VERIFIED
    assert configured.read(RULES) == NEW_RULES
    # Neither the clean-up nor the removal of the pid file is reached.
    assert configured.changes() == [f"+{WORK_DIR}", f"+{LIST}", f"~{RULES}"]


def test_a_pid_file_that_holds_minus_one_kills_everybody_else(configured, server):
    publish_rules(server)
    configured.write("norvak.pid", "-1\n")
    configured.remember()
    assert configured.update_with_private_pids("3") == (OK, "killed")
    assert configured.log_texts() == UPDATED
    assert configured.changes() == INSTALLED


# What stands in the way.


def test_rules_that_cannot_be_moved_into_place_stop_the_agent_all_the_same(configured, server):
    publish_rules(server)
    configured.remove("template")
    configured.remember()
    assert configured.update("3") == OK
    assert configured.log_texts() == UPDATED
    assert server.requests() == [GET_LIST, GET_RULES]
    assert configured.changes() == ["-norvak.pid"]
    assert_agent_was_stopped(configured)


def test_a_directory_in_the_place_of_the_rules_stays_and_the_agent_is_stopped(configured, server):
    publish_rules(server)
    configured.remove(RULES)
    configured.write(f"{RULES}/file", "")
    configured.remember()
    assert configured.update("3") == OK
    assert configured.log_texts() == UPDATED
    assert configured.changes() == ["-norvak.pid"]
    assert_agent_was_stopped(configured)


def test_without_runlog_nothing_is_logged_and_the_rules_are_updated(configured, server):
    publish_rules(server)
    configured.remove("runlog")
    configured.remember()
    assert configured.update("3") == OK
    assert configured.changes() == INSTALLED
    assert_agent_was_stopped(configured)


def test_what_an_earlier_run_left_is_removed(configured, server):
    publish_rules(server)
    configured.write(LIST, "what an earlier run left\n" * 100)
    configured.write(DOWNLOAD, OLD_RULES * 100_000)
    configured.write(f"{WORK_DIR}/deep/er/file", "")
    assert_installed(configured, server)
    assert not configured.exists(WORK_DIR)


def test_the_work_directory_has_no_search_bit(host, serve):
    seen = []
    serve({LIST_PATH: http_reply(length=1, pieces=[lambda: seen.append(host.mode(WORK_DIR))])})
    assert host.update("3") == FAILED
    assert seen == [0o644]


def test_a_work_directory_that_is_gone_at_the_end_is_no_failure(host, serve):
    def remove():
        host.remove(WORK_DIR)

    # The body of no bytes needs no directory.
    server = serve({LIST_PATH: http_reply(pieces=[remove])})
    assert_nothing_done(host, server)


def test_a_file_in_the_place_of_the_work_directory_ends_the_check_and_goes(configured, server):
    publish_rules(server)
    configured.write(WORK_DIR, "")
    assert configured.update("3") == FAILED
    assert configured.log_texts() == [transfer_failed(WRITE_ERROR), *NOTHING_TO_DO]
    assert server.requests() == [GET_LIST]
    # The clean-up takes away whatever stands under that name.
    assert configured.changes() == []
    configured.assert_agent_undisturbed()


def test_a_full_disk_fails_the_update(configured, server):
    publish_rules(server)
    (configured.root / WORK_DIR).mkdir()
    configured.remember()
    full = [namespace.small_disk(configured.root / WORK_DIR, 32 << 10)]
    assert configured.update("3", mounts=full) == FAILED
    assert configured.log_texts() == [transfer_failed(WRITE_ERROR),
                                      "[RULES] update tarn rules failed", ""]
    assert server.requests() == [GET_LIST, GET_RULES]
    assert configured.read(RULES) == OLD_RULES
    configured.assert_agent_undisturbed()


def test_more_arguments_are_not_looked_at(configured, server):
    publish_rules(server)
    assert configured.update("3", "0", "x", "y") == OK
    assert configured.log_texts() == UPDATED
