"""Protection rules (type 3): check, download, installation, and the end of the agent."""

import pytest

from harness import (FAILED, KILLED, OK, Run, Step, http_reply, namespace, unused_address,
                     wait_until)
from harness.kernel import QUORIN, TESSEL, installed
from harness.rules import (CURRENT, DOWNLOAD, GET_LIST, GET_RULES, LIST, LIST_PATH, NEW_RULES,
                           NOTHING_TO_DO, OLD_RULES, REFUSED, RULES, RULES_PATH, UPDATED, WORK_DIR,
                           digest, install_rules, publish_rules)
from harness.transfers import COULD_NOT_CONNECT, URL_MALFORMED, WRITE_ERROR, transfer_failed

VERIFIED = UPDATED[:1]
# The pid file is removed together with the agent.
INSTALLED = ["-norvak.pid", f"~{RULES}"]


@pytest.fixture
def serve(host, scripted_server):
    """Lets the scripted server offer new rules, with the given replies instead of good ones."""
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
    """A host with older rules, and nginx as its server."""
    host.configure(kernel_update_host=server.url)
    install_rules(host)
    return host


def assert_nothing_done(host, server, requests=(GET_LIST,)):
    """A run considers the rules current."""
    assert host.update("3") == FAILED
    assert host.log_texts() == NOTHING_TO_DO
    assert server.requests() == list(requests)
    assert host.changes() == []
    host.assert_agent_undisturbed()


def assert_refused(host, server):
    """A run fetches the rules, but does not install them."""
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
    assert host.trace() == []  # it was not started again


# Runs with a well-behaved server.


def test_new_rules_are_installed_and_the_agent_is_killed(configured, server):
    publish_rules(server)
    assert_installed(configured, server)
    # The record of the digest is left to the agent.
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


def test_the_agent_runs_until_the_rules_are_complete(host, serve):
    serve({RULES_PATH: http_reply(length=len(NEW_RULES), pieces=[
        lambda: host.note("reply"), NEW_RULES[:-1],
        lambda: wait_until(lambda: host.exists(DOWNLOAD), "the download"),
        lambda: host.note("last byte"), NEW_RULES[-1:]])})
    assert host.update("3") == OK
    work = [f"+{WORK_DIR}", f"+{LIST}"]
    assert host.trace() == [
        Step("reply", "start", False, "alive", work),
        Step("last byte", "start", False, "alive", sorted([*work, f"+{DOWNLOAD}"])),
    ]
    assert host.agent.was_killed()
    assert host.changes() == INSTALLED


def test_the_installed_rules_have_the_permissions_of_a_new_file(configured, server):
    publish_rules(server)
    (configured.root / RULES).chmod(0o755)
    assert configured.update("3", mounts=[namespace.umask(0)]) == OK
    assert configured.mode(RULES) == 0o666


def test_large_rules_are_installed_completely(configured, server):
    large = bytes(range(256)) * (4 << 12)  # 4 MiB
    publish_rules(server, large)
    assert configured.update("3") == OK
    assert configured.read(RULES) == large


def test_the_address_starts_with_the_setting_as_it_is_stored(host, scripted_server):
    suffix = "/norvak/agents/"
    scripted_server.reply(suffix + LIST_PATH, http_reply(f"{digest()}\n".encode()))
    scripted_server.reply(suffix + RULES_PATH, http_reply(NEW_RULES))
    host.configure(kernel_update_host=scripted_server.url + suffix)
    install_rules(host)
    assert host.update("3") == OK
    assert scripted_server.requests() == [f"GET {suffix}{LIST_PATH}", f"GET {suffix}{RULES_PATH}"]
    assert host.read(RULES) == NEW_RULES


# Rules are only installed where both engine modules are.


@pytest.mark.parametrize("missing", [TESSEL, QUORIN])
def test_without_both_engine_modules_nothing_is_requested(configured, server, missing):
    publish_rules(server)
    configured.remove(installed(missing))
    configured.remember()
    assert_nothing_done(configured, server, requests=())


# The record: the digest of the rules that the agent runs with.


def test_without_a_record_any_announced_rules_are_new(configured, server):
    publish_rules(server)
    configured.remove(CURRENT)
    configured.remember()
    assert_installed(configured, server)
    assert configured.changes() == INSTALLED


def test_the_first_line_of_the_record_is_compared(configured, server):
    publish_rules(server)
    configured.write(CURRENT, f"{digest()}\nanother line\n")
    configured.remember()
    assert_nothing_done(configured, server)


def test_with_other_white_space_in_the_record_every_run_installs_the_rules(configured, server):
    publish_rules(server)
    configured.write(CURRENT, f"{digest()}\r\n")
    for _ in range(2):
        agent = configured.start_agent()
        assert configured.update("3") == OK
        assert agent.was_killed()
    assert configured.log_texts() == 2 * UPDATED
    assert server.requests() == 2 * [GET_LIST, GET_RULES]
    assert configured.read(RULES) == NEW_RULES
    assert configured.read(CURRENT) == f"{digest()}\r\n".encode()


def test_a_record_that_cannot_be_opened_ends_the_check(configured, server):
    publish_rules(server)
    configured.remove(CURRENT)
    configured.write_unopenable(CURRENT)
    configured.remember()
    assert_nothing_done(configured, server, requests=())


# The announcement: the digest that the server publishes.


@pytest.mark.parametrize("has_record", [True, False], ids=["record", "no record"])
def test_several_lines_announce_nothing(configured, server, has_record):
    publish_rules(server, published=f"{digest()}\n\n".encode())
    if not has_record:
        configured.remove(CURRENT)
        configured.remember()
    assert_nothing_done(configured, server)


def test_a_list_without_any_line_announces_nothing(configured, server):
    # An empty body does not touch the file, and a file that is a mount point cannot be deleted.
    publish_rules(server, published=b"")
    configured.remove(CURRENT)
    configured.write(LIST, "")
    empty = [namespace.bind(configured.root / LIST, configured.root / LIST)]
    assert configured.update("3", mounts=empty) == FAILED
    assert configured.log_texts() == NOTHING_TO_DO
    assert server.requests() == [GET_LIST]
    configured.assert_agent_undisturbed()


def test_a_digest_may_lack_the_line_feed(configured, server):
    publish_rules(server, published=digest().encode())
    assert_installed(configured, server)


def test_a_digest_in_upper_case_announces_rules_but_does_not_verify_them(configured, server):
    publish_rules(server, published=f"{digest().upper()}\n".encode())
    assert_refused(configured, server)


def test_rules_that_are_an_error_page_are_refused(configured, server):
    publish_rules(server, content=b"<html>\n<p>sorry</p>\n</html>\n",
                  published=f"{digest()}\n".encode())
    assert_refused(configured, server)


def test_empty_rules_are_refused(configured, server):
    publish_rules(server, content=b"")
    assert_refused(configured, server)


def test_the_digest_text_of_a_missing_file_verifies_missing_rules(configured, server):
    # This takes a server that publishes "-1" as the digest and an empty rule file.
    publish_rules(server, content=b"", published=b"-1\n")
    assert configured.update("3") == OK
    assert configured.log_texts() == UPDATED
    assert configured.changes() == ["-norvak.pid", f"-{RULES}"]
    assert configured.agent.was_killed()


# The server's address.


def test_without_a_server_address_the_url_is_malformed(host, server):
    publish_rules(server)
    host.configure(update_host=server.url, nginx_update_host=server.url,
                   rule_update_host=server.url)
    install_rules(host)
    assert host.update("3") == FAILED
    assert host.log_texts() == [transfer_failed(URL_MALFORMED), *NOTHING_TO_DO]
    assert server.requests() == []
    assert host.changes() == []
    host.assert_agent_undisturbed()


def test_without_a_configuration_the_url_is_malformed(host):
    install_rules(host)
    assert host.update("3") == FAILED
    assert host.log_texts() == [transfer_failed(URL_MALFORMED), *NOTHING_TO_DO]
    assert host.changes() == []
    host.assert_agent_undisturbed()


def test_the_address_is_read_again_for_the_rules(host, serve):
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


# The agent to be killed.


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
    assert configured.changes() == [f"~{RULES}"]  # without a process to kill, the pid file is kept
    assert configured.trace() == []


def test_an_empty_pid_file_kills_the_updater_after_the_installation(configured, server):
    publish_rules(server)
    configured.write("norvak.pid", "")
    configured.remember()
    assert configured.update_with_private_pids("3") == (Run(KILLED), "alive")
    assert configured.log_texts() == VERIFIED
    assert configured.read(RULES) == NEW_RULES
    # The run reaches neither the removal of the pid file nor the clean-up.
    assert configured.changes() == [f"+{WORK_DIR}", f"+{LIST}", f"~{RULES}"]


# Obstacles in the install directory.


def test_rules_that_cannot_be_installed_still_stop_the_agent(configured, server):
    publish_rules(server)
    configured.remove("template")
    configured.remember()
    assert configured.update("3") == OK
    assert configured.log_texts() == UPDATED
    assert server.requests() == [GET_LIST, GET_RULES]
    assert configured.changes() == ["-norvak.pid"]
    assert_agent_was_stopped(configured)


def test_a_directory_with_the_name_of_the_rules_is_kept_and_the_agent_is_stopped(
        configured, server):
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


def test_leftovers_of_an_earlier_run_are_removed(configured, server):
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

    # An empty body is written nowhere, so it needs no directory.
    server = serve({LIST_PATH: http_reply(pieces=[remove])})
    assert_nothing_done(host, server)


def test_a_file_with_the_name_of_the_work_directory_ends_the_check_and_is_removed(
        configured, server):
    publish_rules(server)
    configured.write(WORK_DIR, "")
    assert configured.update("3") == FAILED
    assert configured.log_texts() == [transfer_failed(WRITE_ERROR), *NOTHING_TO_DO]
    assert server.requests() == [GET_LIST]
    # The clean-up removes whatever has that name.
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


def test_further_arguments_are_ignored(configured, server):
    publish_rules(server)
    assert configured.update("3", "0", "x", "y") == OK
    assert configured.log_texts() == UPDATED
