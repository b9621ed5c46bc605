"""The web server program (type 2): check, download and installation of a build.

Replies that fail are in test_misbehaving_server.py.
"""

import pytest

from harness import FAILED, OK, http_reply, namespace
from harness.transfers import URL_MALFORMED, WRITE_ERROR, transfer_failed
from harness.web_server import (DOWNLOAD, GET_LIST, GET_PROGRAM, IDENTIFICATION, LIST, LIST_PATH,
                                NEW_LINE, NEW_PROGRAM, NOT_NEW, OLD_LINE, OLD_PROGRAM, PROGRAM,
                                PROGRAM_PATH, REFUSED, UPDATED, VERSION_DIR, WORK_DIR,
                                install_build, publish_build)

NOTHING_REQUESTED = ["[NGINX] download nginx failed", ""]


@pytest.fixture
def serve(host, scripted_server):
    """Lets the scripted server offer a new build, with the given replies instead of good ones."""
    def serve_build(replies=None):
        publish_build(scripted_server)
        for path, reply in (replies or {}).items():
            scripted_server.reply(path, reply)
        host.configure(nginx_update_host=scripted_server.url)
        install_build(host)
        return scripted_server

    return serve_build


@pytest.fixture
def configured(host, server):
    """A host with an older build, and nginx as its server."""
    host.configure(nginx_update_host=server.url)
    install_build(host)
    return host


def update(host, version_dir=VERSION_DIR, word_size="64-bit", **options):
    return host.update("2", version_dir, word_size, **options)


def assert_untouched(host):
    assert host.changes() == []
    host.assert_agent_undisturbed()


def assert_installed(host, server, program=NEW_PROGRAM, line=NEW_LINE):
    assert update(host) == OK
    assert host.log_texts() == UPDATED
    assert server.requests() == [GET_LIST, GET_PROGRAM]
    assert (host.read(PROGRAM), host.read(IDENTIFICATION)) == (program, line)
    host.assert_agent_undisturbed()


# Runs with a well-behaved server.


def test_a_new_build_replaces_program_and_identification(configured, server):
    publish_build(server)
    assert_installed(configured, server)
    assert configured.changes() == [f"~{PROGRAM}", f"~{IDENTIFICATION}"]


def test_the_installed_build_is_not_fetched_again_and_counts_as_failure(configured, server):
    publish_build(server, line=OLD_LINE)
    assert update(configured) == FAILED
    assert configured.log_texts() == NOT_NEW
    assert server.requests() == [GET_LIST]
    assert_untouched(configured)


def test_a_second_run_finds_nothing_new(configured, server):
    publish_build(server)
    assert update(configured) == OK
    assert update(configured) == FAILED
    assert configured.log_texts() == UPDATED + NOT_NEW
    assert server.requests() == [GET_LIST, GET_PROGRAM, GET_LIST]


def test_without_an_installed_identification_any_build_is_new(configured, server):
    publish_build(server)
    configured.remove(IDENTIFICATION)
    configured.remember()
    assert_installed(configured, server)
    assert configured.changes() == [f"+{IDENTIFICATION}", f"~{PROGRAM}"]


def test_a_host_without_a_build_gets_one(host, server):
    publish_build(server)
    host.configure(nginx_update_host=server.url)
    (host.root / "nginx/bin").mkdir(parents=True)
    host.remember()
    assert_installed(host, server)
    assert host.changes() == [f"+{PROGRAM}", f"+{IDENTIFICATION}"]


def test_installed_files_have_the_permissions_of_new_files(configured, server):
    publish_build(server)
    assert configured.mode(PROGRAM) == 0o755
    assert update(configured, mounts=[namespace.umask(0)]) == OK
    assert (configured.mode(PROGRAM), configured.mode(IDENTIFICATION)) == (0o666, 0o666)


def test_a_large_program_is_installed_completely(configured, server):
    large = b"\x7fELF" + bytes(range(256)) * (4 << 12)  # 4 MiB
    publish_build(server, program=large)
    assert_installed(configured, server, program=large)


# The command line.


@pytest.mark.parametrize("arguments", [
    pytest.param([], id="both"),
    pytest.param([VERSION_DIR], id="word size"),
])
def test_a_missing_argument_requests_nothing(configured, server, arguments):
    publish_build(server)
    assert configured.update("2", *arguments) == FAILED
    assert configured.log_texts() == NOTHING_REQUESTED
    assert server.requests() == []
    assert_untouched(configured)


@pytest.mark.parametrize("word_size, directory", [("64-BIT", "x64"), ("x86_64", "x86")])
def test_the_word_size_chooses_the_processor_directory(configured, server, word_size, directory):
    build = f"nginx_new/{directory}/{VERSION_DIR}"
    server.publish({f"{build}/md5": NEW_LINE, f"{build}/nginx": NEW_PROGRAM})
    assert update(configured, word_size=word_size) == OK
    assert configured.log_texts() == UPDATED
    assert server.requests() == [f"GET /{build}/md5", f"GET /{build}/nginx"]
    assert configured.read(PROGRAM) == NEW_PROGRAM


@pytest.mark.parametrize("version_dir, requested", [
    pytest.param("", "/md5", id="empty"),
    pytest.param("/1%2E20%zz?a+b&c=d", "/1%2E20%zz?a+b&c=d/md5", id="special characters"),
])
def test_the_version_goes_into_the_address_unescaped(host, serve, version_dir, requested):
    server = serve()
    assert update(host, version_dir=version_dir) == FAILED
    # An error page of one line is accepted as an identification, but not as a program.
    assert host.log_texts() == REFUSED
    assert server.requests() == [f"GET /nginx_new/x64/{requested}",
                                 f"GET /nginx_new/x64/{requested[:-3]}nginx"]
    assert_untouched(host)


def test_a_version_that_fits_no_address_requests_nothing(configured, server):
    assert update(configured, version_dir="1.20 beta") == FAILED
    assert configured.log_texts() == [transfer_failed(URL_MALFORMED), *NOTHING_REQUESTED]
    assert server.requests() == []
    assert_untouched(configured)


def test_further_arguments_are_ignored(configured, server):
    publish_build(server)
    assert configured.update("2", VERSION_DIR, "64-bit", "x", "y") == OK
    assert configured.log_texts() == UPDATED


# The server's address.


def test_without_a_server_nothing_is_requested(host, server):
    publish_build(server)
    host.configure(update_host=server.url, kernel_update_host=server.url)
    install_build(host)
    assert update(host) == FAILED
    assert host.log_texts() == NOTHING_REQUESTED
    assert server.requests() == []
    assert_untouched(host)


def test_without_a_configuration_nothing_is_requested(host):
    install_build(host)
    assert update(host) == FAILED
    assert host.log_texts() == NOTHING_REQUESTED
    assert_untouched(host)


def test_the_address_starts_with_the_setting_as_it_is_stored(host, scripted_server):
    suffix = "/norvak/agents/"
    scripted_server.reply(suffix + LIST_PATH, http_reply(NEW_LINE))
    scripted_server.reply(suffix + PROGRAM_PATH, http_reply(NEW_PROGRAM))
    host.configure(nginx_update_host=scripted_server.url + suffix)
    install_build(host)
    assert update(host) == OK
    assert scripted_server.requests() == [f"GET {suffix}{LIST_PATH}", f"GET {suffix}{PROGRAM_PATH}"]
    assert host.read(PROGRAM) == NEW_PROGRAM


# Identifications: first lines, compared with their line feeds. The unit tests have the tables of
# identifications and programs; here are a few rows, in whole runs.


def test_identifications_that_differ_only_in_the_line_feed_differ(configured, server):
    publish_build(server, line=b"a build\n")
    configured.write(IDENTIFICATION, b"a build")
    configured.remember()
    assert_installed(configured, server, line=b"a build\n")


def test_the_first_lines_of_the_identifications_are_compared(configured, server):
    publish_build(server, line=b"a build\nof June\n")
    configured.write(IDENTIFICATION, b"a build\nof May\n")
    configured.remember()
    assert update(configured) == FAILED
    assert configured.log_texts() == NOT_NEW
    assert server.requests() == [GET_LIST]
    assert_untouched(configured)


def test_the_identification_need_not_be_the_digest_of_the_program(configured, server):
    publish_build(server, line=b"ffffffffffffffffffffffffffffffff\n")
    assert_installed(configured, server, line=b"ffffffffffffffffffffffffffffffff\n")


def test_an_installed_identification_that_cannot_be_opened_counts_as_empty(configured, server):
    publish_build(server)
    configured.remove(IDENTIFICATION)
    configured.write_unopenable(IDENTIFICATION)
    assert_installed(configured, server)


def test_two_identifications_that_cannot_be_opened_are_equal(configured, server):
    publish_build(server, line=b"")  # leaves no file
    configured.remove(IDENTIFICATION)
    configured.write_unopenable(IDENTIFICATION)
    configured.remember()
    assert update(configured) == FAILED
    assert configured.log_texts() == NOT_NEW
    assert server.requests() == [GET_LIST]
    assert_untouched(configured)


def test_a_build_without_an_identification_removes_the_installed_one(configured, server):
    publish_build(server, line=b"")
    assert update(configured) == OK
    assert update(configured) == OK
    assert configured.log_texts() == 2 * UPDATED
    assert server.requests() == 2 * [GET_LIST, GET_PROGRAM]
    assert configured.changes() == [f"-{IDENTIFICATION}", f"~{PROGRAM}"]


# The program: any file whose second to fourth bytes are the ELF mark.


def test_a_file_with_the_mark_is_a_program(configured, server):
    publish_build(server, program=b" eLf")
    assert_installed(configured, server, program=b" eLf")


@pytest.mark.parametrize("program", [
    pytest.param(b"ELFELF", id="no first byte"),
    pytest.param(b"", id="empty"),
])
def test_a_file_without_the_mark_is_not_a_program(configured, server, program):
    publish_build(server, program=program)
    assert update(configured) == FAILED
    assert configured.log_texts() == REFUSED
    assert server.requests() == [GET_LIST, GET_PROGRAM]
    assert_untouched(configured)


# Failed moves go unnoticed.


def test_without_the_directory_of_the_program_only_the_identification_is_installed(
        configured, server):
    publish_build(server)
    configured.remove("nginx/bin")
    configured.remember()
    assert update(configured) == OK
    assert update(configured) == FAILED  # the identification says that nothing is new
    assert configured.log_texts() == UPDATED + NOT_NEW
    assert configured.changes() == [f"~{IDENTIFICATION}"]
    configured.assert_agent_undisturbed()


def test_if_the_identification_cannot_be_installed_every_run_installs_the_build(configured, server):
    publish_build(server)
    configured.remove(IDENTIFICATION)
    configured.write(f"{IDENTIFICATION}/file", "")
    configured.remember()
    assert update(configured) == OK
    assert update(configured) == OK
    assert configured.log_texts() == 2 * UPDATED
    assert server.requests() == 2 * [GET_LIST, GET_PROGRAM]
    assert configured.changes() == [f"~{PROGRAM}"]
    assert configured.read(PROGRAM) == NEW_PROGRAM
    configured.assert_agent_undisturbed()


def test_without_the_directory_of_the_web_server_nothing_is_installed(configured, server):
    publish_build(server)
    configured.remove("nginx")
    configured.remember()
    assert update(configured) == OK
    assert configured.log_texts() == UPDATED
    assert_untouched(configured)


# Obstacles in the install directory.


def test_leftovers_of_an_earlier_run_are_removed(configured, server):
    publish_build(server)
    configured.write(LIST, OLD_LINE * 100)
    configured.write(DOWNLOAD, OLD_PROGRAM * 100_000)
    configured.write(f"{WORK_DIR}/deep/er/file", "")
    assert_installed(configured, server)
    assert not configured.exists(WORK_DIR)


def test_the_work_directory_has_no_search_bit(host, serve):
    seen = []
    serve({LIST_PATH: http_reply(length=1, pieces=[lambda: seen.append(host.mode(WORK_DIR))])})
    assert update(host) == FAILED
    assert seen == [0o644]


def test_a_work_directory_that_is_gone_at_the_end_is_no_failure(host, serve):
    def remove():
        host.remove(WORK_DIR)

    # An empty body is written nowhere, so it needs no directory.
    server = serve({PROGRAM_PATH: http_reply(pieces=[remove])})
    assert update(host) == FAILED
    assert host.log_texts() == REFUSED
    assert server.requests() == [GET_LIST, GET_PROGRAM]
    assert_untouched(host)


def test_a_file_with_the_name_of_the_work_directory_fails_the_update_and_is_removed(
        configured, server):
    publish_build(server)
    configured.write(WORK_DIR, "")
    assert update(configured) == FAILED
    assert configured.log_texts() == [transfer_failed(WRITE_ERROR), *NOTHING_REQUESTED]
    assert server.requests() == [GET_LIST]
    # The clean-up removes whatever has that name.
    assert_untouched(configured)


def test_a_full_disk_fails_the_update(configured, server):
    publish_build(server)
    (configured.root / WORK_DIR).mkdir()
    configured.remember()
    full = [namespace.small_disk(configured.root / WORK_DIR, 32 << 10)]
    assert update(configured, mounts=full) == FAILED
    assert configured.log_texts() == ["[NGINX]new version is exist, download now",
                                      transfer_failed(WRITE_ERROR),
                                      "[NGINX] download nginx failed", ""]
    assert server.requests() == [GET_LIST, GET_PROGRAM]
    assert (configured.read(PROGRAM), configured.read(IDENTIFICATION)) == (OLD_PROGRAM, OLD_LINE)
    configured.assert_agent_undisturbed()


def test_without_runlog_nothing_is_logged_and_the_build_is_installed(configured, server):
    publish_build(server)
    configured.remove("runlog")
    configured.remember()
    assert update(configured) == OK
    assert configured.changes() == [f"~{PROGRAM}", f"~{IDENTIFICATION}"]
    configured.assert_agent_undisturbed()
