"""Kernel modules (type 1): check, download, installation, and the state after a failure."""

import pytest

from harness import FAILED, OK, http_reply, namespace
from harness.kernel import (DOWNLOAD, FIRST, LIST, MODULES, QUORIN, RECORD, TESSEL, UNAME, VERSION,
                            WORK_DIR, are_current, digest, get_all, get_list, install,
                            installed, list_path, module_path, new, publish_modules, was_refused,
                            were_updated)
from harness.transfers import PARTIAL_FILE, WRITE_ERROR, transfer_failed

OLD = b"an older build\n"

NOTHING_TO_DO = [*are_current(*MODULES), ""]
ALL_UPDATED = [*were_updated(*MODULES), ""]
RECORDED = f"+{RECORD}"


@pytest.fixture
def serve(host, scripted_server):
    """Lets the scripted server offer all modules, with the given replies instead of good ones."""
    def serve_modules(replies=None):
        publish_modules(scripted_server)
        for path, reply in (replies or {}).items():
            scripted_server.reply(path, reply)
        host.configure(kernel_update_host=scripted_server.url)
        return scripted_server

    return serve_modules


@pytest.fixture
def configured(host, server):
    """A host with an older build of every module, and nginx as its server."""
    host.configure(kernel_update_host=server.url)
    install(host, *MODULES, content=OLD)
    return host


def update(host, **options):
    return host.update("1", **{"uname": UNAME, **options})


def modules(host):
    """The contents of the installed modules, by name."""
    return {name: host.read(installed(name)) for name in MODULES if host.exists(installed(name))}


def assert_only_modules_changed(host):
    assert [change for change in host.changes() if not change.endswith(".ko")] == [RECORDED]
    host.assert_agent_undisturbed()


# Runs that succeed.


def test_current_modules_are_left_alone(configured, server):
    publish_modules(server)
    install(configured, *MODULES)
    assert update(configured) == OK
    assert configured.log_texts() == NOTHING_TO_DO
    assert server.requests() == get_list(*MODULES)
    assert configured.changes() == [RECORDED]
    configured.assert_agent_undisturbed()


def test_modules_that_are_not_installed_are_fetched(host, server):
    publish_modules(server)
    host.configure(kernel_update_host=server.url)
    assert update(host) == OK
    assert host.log_texts() == ALL_UPDATED
    assert server.requests() == get_all(*MODULES)
    assert modules(host) == {name: new(name) for name in MODULES}
    assert_only_modules_changed(host)


def test_outdated_modules_are_replaced(configured, server):
    publish_modules(server)
    assert update(configured) == OK
    assert configured.log_texts() == ALL_UPDATED
    assert server.requests() == get_all(*MODULES)
    assert modules(configured) == {name: new(name) for name in MODULES}
    assert_only_modules_changed(configured)


@pytest.mark.parametrize("outdated", MODULES)
def test_only_the_outdated_module_is_fetched(configured, server, outdated):
    publish_modules(server)
    install(configured, *MODULES)
    install(configured, outdated, content=OLD)
    assert update(configured) == OK
    logs = [were_updated(name) if name == outdated else are_current(name) for name in MODULES]
    assert configured.log_texts() == [*sum(logs, []), ""]
    requests = [get_all(name) if name == outdated else get_list(name) for name in MODULES]
    assert server.requests() == sum(requests, [])
    assert configured.changes() == [RECORDED, f"~{installed(outdated)}"]
    configured.assert_agent_undisturbed()


def test_a_second_run_finds_nothing_to_do(configured, server):
    publish_modules(server)
    assert update(configured) == OK
    assert update(configured) == OK
    assert configured.log_texts() == ALL_UPDATED + NOTHING_TO_DO
    assert server.requests() == get_all(*MODULES) + get_list(*MODULES)


def test_an_installed_module_has_the_permissions_of_a_new_file(configured, server):
    publish_modules(server)
    configured.write(installed(FIRST), OLD, mode=0o755)
    assert update(configured, mounts=[namespace.umask(0)]) == OK
    assert {configured.mode(installed(name)) for name in MODULES} == {0o666}


def test_a_large_module_is_installed_completely(configured, server):
    large = bytes(range(256)) * (4 << 12)  # 4 MiB
    publish_modules(server, {TESSEL: large})
    assert update(configured) == OK
    assert configured.log_texts() == ALL_UPDATED
    assert modules(configured)[TESSEL] == large


def test_an_empty_module_cannot_be_fetched(configured, server):
    publish_modules(server, {FIRST: b""})
    assert update(configured) == FAILED
    assert configured.log_texts() == was_refused(FIRST)
    assert modules(configured)[FIRST] == OLD


# A failed download: the modules after it are not checked, and of the second and third module either
# both stay or neither does.


def broken_transfer(name):
    content = new(name)
    return http_reply(content[:100], length=len(content)), [
        transfer_failed(PARTIAL_FILE), f"[KERNEL] download {name} kernel failed",
        f"[KERNEL] download kernel {name} failed", ""]


def wrong_content(name):
    return http_reply(b"another build\n"), was_refused(name)


# How a download fails, and which of the second and third module are installed before.
FAILED_DOWNLOADS = pytest.mark.parametrize("failure, pair", [
    pytest.param(broken_transfer, [TESSEL], id="broken transfer, second module installed"),
    pytest.param(wrong_content, [QUORIN], id="wrong content, third module installed"),
    pytest.param(wrong_content, [TESSEL, QUORIN], id="wrong content, both installed"),
])


@FAILED_DOWNLOADS
def test_a_failed_download_of_the_first_module_removes_nothing(host, serve, failure, pair):
    reply, log = failure(FIRST)
    server = serve({module_path(FIRST): reply})
    install(host, FIRST, *pair, content=OLD)
    assert update(host) == FAILED
    assert host.log_texts() == log
    assert server.requests() == get_all(FIRST)
    assert host.changes() == [RECORDED]
    host.assert_agent_undisturbed()


@FAILED_DOWNLOADS
def test_a_failed_download_of_the_second_module_removes_a_single_one(host, serve, failure, pair):
    reply, log = failure(TESSEL)
    server = serve({module_path(TESSEL): reply})
    install(host, FIRST, *pair, content=OLD)
    assert update(host) == FAILED
    assert host.log_texts() == were_updated(FIRST) + log
    assert server.requests() == get_all(FIRST, TESSEL)
    left = {name: OLD for name in pair} if pair == [TESSEL, QUORIN] else {}
    assert modules(host) == {FIRST: new(FIRST), **left}
    assert_only_modules_changed(host)


@FAILED_DOWNLOADS
def test_a_failed_download_of_the_third_module_removes_a_single_second(host, serve, failure, pair):
    reply, log = failure(QUORIN)
    server = serve({module_path(QUORIN): reply})
    install(host, FIRST, *pair, content=OLD)
    assert update(host) == FAILED
    assert host.log_texts() == were_updated(FIRST, TESSEL) + log
    assert server.requests() == get_all(*MODULES)
    # The second module, which this run installed, stays only if the third one is installed too.
    left = {TESSEL: new(TESSEL), QUORIN: OLD} if QUORIN in pair else {}
    assert modules(host) == {FIRST: new(FIRST), **left}
    assert_only_modules_changed(host)


def test_a_failed_download_removes_a_second_module_that_was_current(host, serve):
    serve({module_path(QUORIN): http_reply(b"another build\n")})
    install(host, FIRST, TESSEL)
    assert update(host) == FAILED
    assert host.log_texts() == are_current(FIRST, TESSEL) + was_refused(QUORIN)
    assert modules(host) == {FIRST: new(FIRST)}


def test_an_address_lost_between_check_and_download_fails_the_download(host, serve):
    def lose_address():
        host.write("config.xml", "<norvak/>")

    server = serve({list_path(TESSEL): http_reply(length=33, pieces=[
        lose_address, b"0" * 32 + b"\n"])})
    install(host, FIRST, TESSEL)
    assert update(host) == FAILED
    assert host.log_texts() == [*are_current(FIRST),
                                f"[KERNEL] download kernel {TESSEL} failed", ""]
    assert server.requests() == get_list(FIRST, TESSEL)
    assert modules(host) == {FIRST: new(FIRST)}


# A failed check: the modules after it are not checked, and nothing is removed.


def broken_list(name):
    return http_reply(b"0" * 16, length=32), [
        transfer_failed(PARTIAL_FILE), f"[KERNEL] download {name} MD5 failed"]


def missing_list(_):
    return http_reply(b""), ["[KERNEL] open MD5 template file failed"]


def list_of_two_lines(name):
    return http_reply(f"{digest(new(name))}\nmore\n".encode()), [
        "[KERNEL] download MD5 file is abnormal"]


FAILED_CHECKS = pytest.mark.parametrize("failure, pair", [
    pytest.param(broken_list, [TESSEL], id="broken transfer, second module installed"),
    pytest.param(missing_list, [QUORIN], id="no list, third module installed"),
    pytest.param(list_of_two_lines, [TESSEL, QUORIN], id="two lines, both installed"),
])


@FAILED_CHECKS
@pytest.mark.parametrize("name", [FIRST, TESSEL])
def test_a_failed_check_of_the_first_two_modules_removes_nothing(host, serve, name, failure, pair):
    reply, log = failure(name)
    server = serve({list_path(name): reply})
    install(host, FIRST)
    install(host, *pair, content=OLD)
    assert update(host) == FAILED
    before = MODULES[:MODULES.index(name)]
    assert host.log_texts() == [*are_current(*before), *log,
                                f"[KERNEL] check kernel {name} MD5 failed", ""]
    assert server.requests() == get_list(*before, name)
    assert host.changes() == [RECORDED]
    host.assert_agent_undisturbed()


@FAILED_CHECKS
def test_a_failed_check_of_the_third_module_keeps_a_new_second(host, serve, failure, pair):
    reply, log = failure(QUORIN)
    server = serve({list_path(QUORIN): reply})
    install(host, FIRST, *pair, content=OLD)
    assert update(host) == FAILED
    assert host.log_texts() == [*were_updated(FIRST, TESSEL), *log,
                                f"[KERNEL] check kernel {QUORIN} MD5 failed", ""]
    assert server.requests() == [*get_all(FIRST, TESSEL), *get_list(QUORIN)]
    assert modules(host) == {FIRST: new(FIRST), TESSEL: new(TESSEL),
                             **({QUORIN: OLD} if QUORIN in pair else {})}
    assert_only_modules_changed(host)


# MD5 lists.


def test_a_list_may_lack_the_line_feed(configured, server):
    publish_modules(server, lists={name: digest(new(name)).encode() for name in MODULES})
    install(configured, FIRST, QUORIN)
    assert update(configured) == OK
    assert configured.log_texts() == [*are_current(FIRST), *were_updated(TESSEL),
                                      *are_current(QUORIN), ""]


def test_with_white_space_around_the_digest_every_run_fetches_the_module(configured, server):
    publish_modules(server, lists={name: f" {digest(new(name))}\r\n".encode()
                                   for name in MODULES})
    assert update(configured) == OK
    assert update(configured) == OK
    assert configured.log_texts() == 2 * ALL_UPDATED
    assert server.requests() == 2 * get_all(*MODULES)
    assert modules(configured) == {name: new(name) for name in MODULES}


def test_a_line_that_is_not_the_digest_fails_the_verification(configured, server):
    publish_modules(server, lists={FIRST: f"{digest(new(FIRST))}  {FIRST}.ko\n".encode()})
    install(configured, FIRST)
    assert update(configured) == FAILED
    assert configured.log_texts() == was_refused(FIRST)
    assert server.requests() == get_all(FIRST)
    assert configured.changes() == [RECORDED]
    configured.assert_agent_undisturbed()


@pytest.mark.parametrize("is_installed", [True, False], ids=["installed", "not installed"])
def test_a_list_of_several_lines_is_abnormal(configured, server, is_installed):
    publish_modules(server, lists={FIRST: f"{digest(new(FIRST))}\n\n".encode()})
    if is_installed:
        install(configured, FIRST)
    else:
        configured.remove(installed(FIRST))
        configured.remember()
    assert update(configured) == FAILED
    assert configured.log_texts() == ["[KERNEL] download MD5 file is abnormal",
                                      f"[KERNEL] check kernel {FIRST} MD5 failed", ""]
    assert server.requests() == get_list(FIRST)
    assert configured.changes() == [RECORDED]
    configured.assert_agent_undisturbed()


def test_a_module_that_is_not_installed_is_fetched_whatever_line_the_list_holds(
        configured, server):
    publish_modules(server, lists={FIRST: b"not here\n"})
    configured.remove(installed(FIRST))
    assert update(configured) == FAILED
    assert configured.log_texts() == was_refused(FIRST)
    assert server.requests() == get_all(FIRST)
    assert not configured.exists(installed(FIRST))


def test_a_list_without_any_line_has_the_module_fetched(configured, server):
    # An empty body does not touch the file, and a file that is a mount point cannot be deleted.
    configured.write(LIST, "")
    publish_modules(server, lists={FIRST: b""})
    install(configured, *MODULES)
    empty = [namespace.bind(configured.root / LIST, configured.root / LIST)]
    assert update(configured, mounts=empty) == FAILED
    assert configured.log_texts() == was_refused(FIRST)
    assert server.requests() == get_all(FIRST)
    assert modules(configured) == {name: new(name) for name in MODULES}


def test_the_digest_text_of_a_missing_file_verifies_a_missing_module(configured, server):
    # This takes a server that publishes "-1" as the digest and an empty module.
    publish_modules(server, {FIRST: b""}, {FIRST: b"-1\n"})
    install(configured, TESSEL, QUORIN)
    assert update(configured) == OK
    assert configured.log_texts() == [*were_updated(FIRST), *are_current(TESSEL, QUORIN), ""]
    assert configured.changes() == [RECORDED, f"-{installed(FIRST)}"]


# The record of the kernel version.


def test_the_record_holds_the_version_without_a_line_feed(configured, server):
    publish_modules(server)
    assert update(configured) == OK
    assert configured.read(RECORD) == VERSION.encode()
    assert configured.mode(RECORD) == 0o644


def test_the_record_is_replaced(configured, server):
    publish_modules(server)
    configured.write(RECORD, "a much longer earlier version\n", mode=0o600)
    (configured.root / "second name").hardlink_to(configured.root / RECORD)
    assert update(configured) == OK
    assert configured.read(RECORD) == VERSION.encode()
    assert configured.mode(RECORD) == 0o644
    assert configured.read("second name") == b"a much longer earlier version\n"


def test_the_record_is_written_before_the_list_is_requested(host, serve):
    serve({list_path(FIRST): http_reply(length=1, pieces=[lambda: host.note("list")])})
    assert update(host) == FAILED
    (step,) = host.trace()
    assert step.changes == [RECORDED, f"+{WORK_DIR}"]
    assert host.read(RECORD) == VERSION.encode()
    assert host.changes() == [RECORDED]


def test_the_record_is_rewritten_for_every_module(host, serve):
    def lose():
        host.remove(RECORD)

    list_of_tessel = f"{digest(new(TESSEL))}\n".encode()
    serve({list_path(TESSEL): http_reply(length=33, pieces=[lose, list_of_tessel])})
    install(host, *MODULES)
    assert update(host) == OK
    assert host.log_texts() == NOTHING_TO_DO
    assert host.read(RECORD) == VERSION.encode()


def test_a_record_that_cannot_be_written_changes_nothing_else(configured, server):
    publish_modules(server)
    configured.write(f"{RECORD}/file", "")
    configured.remember()
    assert update(configured) == OK
    assert configured.log_texts() == ALL_UPDATED
    assert [change for change in configured.changes() if RECORD in change] == []


def test_the_path_of_the_record_is_cut_after_127_characters(configured, server):
    publish_modules(server)
    # With 105 characters, the path of the record has 128; slashes pad it to that length.
    length = 105
    parent, own_name = configured.path.rsplit("/", 1)
    padded = parent + "/" * (length - len(parent) - len(own_name)) + own_name
    assert len(padded) == length
    configured.set_install_path(padded)
    assert update(configured) == OK
    assert configured.log_texts() == ALL_UPDATED
    created = [change for change in configured.changes() if change.startswith("+")]
    assert created == ["+runlog/kernel_versio"]


def test_without_runlog_nothing_is_written_and_the_modules_are_updated(configured, server):
    publish_modules(server)
    configured.remove("runlog")
    configured.remember()
    assert update(configured) == OK
    assert server.requests() == get_all(*MODULES)
    assert configured.changes() == [f"~{installed(name)}" for name in sorted(MODULES)]
    configured.assert_agent_undisturbed()


# An unknown server or host.


def test_without_a_server_there_is_nothing_to_do(host, server):
    publish_modules(server)
    host.configure(update_host=server.url, nginx_update_host=server.url)
    install(host, TESSEL, content=OLD)
    assert update(host) == OK
    assert host.log_texts() == NOTHING_TO_DO
    assert server.requests() == []
    assert host.changes() == []
    host.assert_agent_undisturbed()


def test_without_a_configuration_there_is_nothing_to_do(host):
    assert update(host) == OK
    assert host.log_texts() == NOTHING_TO_DO
    assert host.changes() == []
    host.assert_agent_undisturbed()


def test_on_a_host_that_cannot_be_identified_there_is_nothing_to_do(configured, server):
    publish_modules(server)
    assert update(configured, uname={"NORVAK_TEST_UNAME_FAILS": "1"}) == OK
    assert configured.log_texts() == NOTHING_TO_DO
    assert server.requests() == []
    assert configured.changes() == []
    configured.assert_agent_undisturbed()


def test_the_first_of_two_settings_counts(host, server):
    publish_modules(server)
    host.configure(("kernel_update_host", server.url), ("kernel_update_host", "http://[bad"))
    assert update(host) == OK
    assert host.log_texts() == ALL_UPDATED


# The address: which directory of the server belongs to the host. The unit tests have the tables;
# here are a few rows, in whole runs. The server has no such directory, and its error page of
# several lines ends the run at the first list.


def assert_first_request(host, server, path, **uname):
    answers = {f"NORVAK_TEST_{name.upper()}": value for name, value in uname.items()}
    assert update(host, uname={**UNAME, **answers}) == FAILED
    assert server.requests() == [f"GET {path}/{FIRST}/md5"]
    assert host.log_texts() == ["[KERNEL] download MD5 file is abnormal",
                                f"[KERNEL] check kernel {FIRST} MD5 failed", ""]


@pytest.mark.parametrize("marker, machine, release, directory", [
    ("", "i686", "2.6.18-164.el5xen", "centos-xen/x86/2.6.18-164"),
    ("suse", "x86_64", "3.0.13-0.27-default", "suse-default/x64/3.0.13-0.27"),
    ("ubuntu", "x86_64", "2.6.32-21-server", "ubuntu-server/x64/2.6.32-21"),
])
def test_the_host_determines_the_directory(configured, server, marker, machine, release, directory):
    if marker:
        configured.write(marker, "")
    assert_first_request(configured, server, f"/kernels/{directory}", machine=machine,
                         release=release)


def test_the_address_starts_with_the_setting_as_it_is_stored(configured, server):
    configured.configure(kernel_update_host=f"{server.url}/norvak/agents/")
    assert_first_request(configured, server, f"/norvak/agents//kernels/centos/x64/{VERSION}")


# Obstacles in the install directory.


def test_leftovers_of_an_earlier_run_are_removed(configured, server):
    publish_modules(server)
    configured.write(LIST, "what an earlier run left\n" * 100)
    configured.write(DOWNLOAD, OLD * 100_000)
    configured.write(f"{WORK_DIR}/deep/er/file", "")
    (configured.root / WORK_DIR).chmod(0o755)
    assert update(configured) == OK
    assert configured.log_texts() == ALL_UPDATED
    assert modules(configured) == {name: new(name) for name in MODULES}
    assert not configured.exists(WORK_DIR)


def test_the_work_directory_has_no_search_bit(host, serve):
    seen = []
    serve({list_path(FIRST): http_reply(length=1, pieces=[
        lambda: seen.append(host.mode(WORK_DIR))])})
    assert update(host) == FAILED
    assert seen == [0o644]


def test_a_work_directory_that_is_gone_at_the_end_is_no_failure(host, serve):
    def remove():
        host.remove(WORK_DIR)

    # An empty body is written nowhere, so it needs no directory.
    server = serve({list_path(QUORIN): http_reply(pieces=[remove])})
    install(host, *MODULES)
    assert update(host) == FAILED
    assert host.log_texts() == [*are_current(FIRST, TESSEL),
                                "[KERNEL] open MD5 template file failed",
                                f"[KERNEL] check kernel {QUORIN} MD5 failed", ""]
    assert server.requests() == get_list(*MODULES)
    assert host.changes() == [RECORDED]
    host.assert_agent_undisturbed()


def test_a_file_with_the_name_of_the_work_directory_fails_the_check_and_is_removed(
        configured, server):
    publish_modules(server)
    configured.write(WORK_DIR, "")
    assert update(configured) == FAILED
    assert configured.log_texts() == [transfer_failed(WRITE_ERROR),
                                      f"[KERNEL] download {FIRST} MD5 failed",
                                      f"[KERNEL] check kernel {FIRST} MD5 failed", ""]
    assert server.requests() == get_list(FIRST)
    # The clean-up removes whatever has that name.
    assert configured.changes() == [RECORDED]
    configured.assert_agent_undisturbed()


def test_a_full_disk_fails_the_download(configured, server):
    publish_modules(server)
    (configured.root / WORK_DIR).mkdir()
    configured.remember()
    full = [namespace.small_disk(configured.root / WORK_DIR, 32 << 10)]
    assert update(configured, mounts=full) == FAILED
    assert configured.log_texts() == [transfer_failed(WRITE_ERROR),
                                      f"[KERNEL] download {FIRST} kernel failed",
                                      f"[KERNEL] download kernel {FIRST} failed", ""]
    assert server.requests() == get_all(FIRST)
    assert modules(configured) == {name: OLD for name in MODULES}
    configured.assert_agent_undisturbed()


def test_a_failed_move_goes_unnoticed(configured, server):
    publish_modules(server)
    configured.remove(installed(TESSEL))
    configured.write(f"{installed(TESSEL)}/file", "")
    configured.remember()
    assert update(configured) == OK
    assert configured.log_texts() == ALL_UPDATED
    assert server.requests() == get_all(*MODULES)
    assert configured.changes() == sorted(
        [RECORDED, f"~{installed(FIRST)}", f"~{installed(QUORIN)}"])
    configured.assert_agent_undisturbed()


def test_an_installed_module_that_cannot_be_read_is_replaced(configured, server):
    publish_modules(server)
    install(configured, FIRST, TESSEL)
    configured.remove(installed(QUORIN))
    configured.write_unopenable(installed(QUORIN))
    assert update(configured) == OK
    assert configured.log_texts() == [*are_current(FIRST, TESSEL), *were_updated(QUORIN), ""]
    assert modules(configured)[QUORIN] == new(QUORIN)


def test_further_arguments_are_ignored(configured, server):
    publish_modules(server)
    assert configured.update("1", "0", "x", "y", uname=UNAME) == OK
    assert configured.log_texts() == ALL_UPDATED
