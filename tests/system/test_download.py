"""Downloads, seen through the version file and the package of the agent software update."""

import re

import pytest

from harness import (DATA_DIR, FAILED, KILLED, OK, TAR, VERSION_FILE, WORK_DIR, Step, http_reply,
                     namespace, package, unused_address, wait_until)
from harness.software import (GET_PACKAGE, GET_VERSION, NEW_VERSION, NO_PACKAGE, NO_VERSION,
                              NOT_UNPACKED, PACKAGE_PATH, UPDATED, VERSION_LINE, VERSION_PATH,
                              publish_update, settings)
from harness.transfers import (COULD_NOT_CONNECT, COULD_NOT_RESOLVE, EMPTY_BODIES, ERROR_STATUSES,
                               PARTIAL_FILE, STALLED, WHOLE_BODIES, WRITE_ERROR, failing_transfers,
                               transfer_failed)


def version_download_failed(host, url, code):
    """The log of an automatic run whose first download fails with libcurl's @a code."""
    return [transfer_failed(code),
            f"[SOFT] download file failed [url: {url}/norvak/norvak_agent_new_version.txt] "
            f"[file: {host.path}/update_norvak_soft/new_version]", *NO_VERSION]


def assert_untouched(host):
    assert host.changes() == []
    host.assert_agent_undisturbed()


def assert_installed(host):
    assert dict(host.config_values())["version"] == NEW_VERSION
    assert host.changes() == ["-norvak.pid", "~config.xml"]
    assert [step.who for step in host.trace()] == ["tool/tar", "startup.sh"]
    assert host.agent.was_killed()


def assert_restarted_unchanged(host, run):
    """The downloaded file is not a package: only tar may have printed a message."""
    assert (run.status, run.stdout) == (255, b"")
    assert re.match(rb"[^\n]*/?tar: ", run.stderr)
    assert host.log_texts() == NOT_UNPACKED
    assert host.changes() == ["-norvak.pid"]
    assert [step.who for step in host.trace()] == ["tool/tar", "startup.sh"]
    assert host.agent.was_killed()


@pytest.fixture
def serve(host, scripted_server):
    """Lets the scripted server offer an update, with the given replies instead of good ones."""
    def serve_update(version=None, package_reply=None):
        scripted_server.reply(VERSION_PATH, version or http_reply(VERSION_LINE))
        scripted_server.reply(PACKAGE_PATH, package_reply or http_reply(package()))
        host.configure(**settings(scripted_server.url))
        return scripted_server

    return serve_update


# A well-behaved server.


def test_version_and_package_are_fetched_from_nginx(host, server):
    publish_update(server)
    host.configure(**settings(server.url))
    assert host.update("0", "0") == OK
    assert host.log_texts() == UPDATED
    assert server.requests() == [GET_VERSION, GET_PACKAGE]
    assert_installed(host)


def test_the_request_has_only_the_default_headers(host, serve):
    server = serve()
    assert host.update("0", "0") == OK
    assert server.request_heads() == [
        f"GET {path} HTTP/1.1\r\nHost: 127.0.0.1:{server.port}\r\nAccept: */*\r\n\r\n".encode()
        for path in (VERSION_PATH, PACKAGE_PATH)]


@pytest.mark.parametrize("prefix", [
    pytest.param("/agents/linux/", id="path with a slash at the end"),
    pytest.param("/agents?name=", id="query"),
])
def test_the_path_is_appended_to_the_host_as_it_is_stored(host, scripted_server, prefix):
    scripted_server.reply(f"{prefix}{VERSION_PATH}", http_reply(VERSION_LINE))
    scripted_server.reply(f"{prefix}{PACKAGE_PATH}", http_reply(package()))
    host.configure(**settings(scripted_server.url + prefix))
    assert host.update("0", "0") == OK
    assert host.log_texts() == UPDATED
    assert scripted_server.requests() == [f"GET {prefix}{VERSION_PATH}",
                                          f"GET {prefix}{PACKAGE_PATH}"]


def test_a_host_without_a_scheme_is_reached_over_http(host, server):
    publish_update(server)
    host.configure(**settings(f"127.0.0.1:{server.port}"))
    assert host.update("0", "0") == OK
    assert host.log_texts() == UPDATED
    assert server.requests() == [GET_VERSION, GET_PACKAGE]


def test_a_proxy_of_the_environment_is_used(host, scripted_server):
    url = "http://updates.test"
    scripted_server.reply(f"{url}{VERSION_PATH}", http_reply(VERSION_LINE))
    scripted_server.reply(f"{url}{PACKAGE_PATH}", http_reply(package()))
    host.configure(**settings(url))
    assert host.update("0", "0", environment={"http_proxy": scripted_server.url}) == OK
    assert host.log_texts() == UPDATED
    assert scripted_server.requests() == [f"GET {url}{VERSION_PATH}", f"GET {url}{PACKAGE_PATH}"]


def test_an_earlier_file_is_replaced_and_not_appended_to(host, server):
    publish_update(server)
    host.configure(**settings(server.url))
    host.write(VERSION_FILE, "abcdef9.9.9\n")
    host.write(TAR, b"what an earlier run left" * 1000)
    assert host.update("0", "0") == OK
    assert host.log_texts() == UPDATED
    assert dict(host.config_values())["version"] == NEW_VERSION


# Complete bodies in unusual forms.


@pytest.mark.parametrize("form", WHOLE_BODIES)
def test_a_complete_body_is_saved_whatever_its_form(host, serve, form):
    serve(form(VERSION_LINE), form(package()))
    assert host.update("0", "0") == OK
    assert host.log_texts() == UPDATED
    assert_installed(host)


def test_a_large_package_is_saved_completely(host, server):
    content = bytes(range(256)) * (4 << 12)  # 4 MiB
    publish_update(server, files={"update": "#!/bin/sh\ncp big ../../kept\n", "big": content})
    host.configure(**settings(server.url))
    assert host.update("0", "0") == OK
    assert host.read("kept") == content


# The status is ignored: the body of an error page becomes the file.


@pytest.mark.parametrize("status", ERROR_STATUSES)
def test_a_good_body_counts_whatever_the_status(host, serve, status):
    server = serve(http_reply(VERSION_LINE, status), http_reply(package(), status))
    assert host.update("0", "0") == OK
    assert host.log_texts() == UPDATED
    assert server.requests() == [GET_VERSION, GET_PACKAGE]
    assert_installed(host)


def test_the_404_page_of_nginx_is_not_a_version(host, server):
    host.configure(**settings(server.url))
    assert host.update("0", "0") == FAILED
    assert host.log_texts() == NO_VERSION
    assert server.requests() == [GET_VERSION]
    assert_untouched(host)


@pytest.mark.parametrize("prefix", ["/broken", "/moved"])
def test_the_error_pages_of_nginx_are_not_packages(host, server, prefix):
    publish_update(server)
    host.configure(**settings(f"{server.url}{prefix}"))
    assert_restarted_unchanged(host, host.update("0", "1"))
    assert server.requests() == [f"GET {prefix}{PACKAGE_PATH}"]


def test_a_redirect_of_nginx_is_not_followed(host, server):
    publish_update(server)
    host.configure(**settings(f"{server.url}/moved"))
    assert host.update("0", "0") == FAILED
    assert host.log_texts() == NO_VERSION
    assert server.requests() == [f"GET /moved{VERSION_PATH}"]
    assert_untouched(host)


def test_a_redirect_with_a_good_body_is_not_followed_either(host, serve):
    moved = http_reply(VERSION_LINE, "301 Moved Permanently", [f"Location: {PACKAGE_PATH}"])
    server = serve(moved, http_reply(package(), "307 Temporary Redirect", ["Location: /other"]))
    assert host.update("0", "0") == OK
    assert host.log_texts() == UPDATED
    assert server.requests() == [GET_VERSION, GET_PACKAGE]


# An empty body is a success that leaves no file.


@pytest.mark.parametrize("empty", EMPTY_BODIES)
def test_an_empty_body_is_not_a_version(host, serve, empty):
    server = serve(empty)
    host.write(VERSION_FILE, VERSION_LINE)  # an earlier file is not taken instead
    assert host.update("0", "0") == FAILED
    assert host.log_texts() == NO_VERSION
    assert server.requests() == [GET_VERSION]
    assert_untouched(host)


def test_an_empty_body_is_not_a_package(host, serve):
    serve(package_reply=http_reply(b""))
    host.write(TAR, package())
    assert_restarted_unchanged(host, host.update("0", "0"))


# Transfers that fail, with libcurl's result.


@pytest.mark.parametrize("reply, code", failing_transfers(VERSION_LINE))
def test_a_failed_transfer_gives_no_version(host, serve, reply, code):
    server = serve(reply)
    assert host.update("0", "0") == FAILED
    assert host.log_texts() == version_download_failed(host, server.url, code)
    assert server.requests() == [GET_VERSION]
    assert_untouched(host)


def test_a_failed_transfer_of_the_package_leaves_the_agent_alone(host, serve):
    body = package()
    server = serve(package_reply=http_reply(body, length=len(body) + 1))
    assert host.update("0", "0") == FAILED
    assert host.log_texts() == [transfer_failed(PARTIAL_FILE), *NO_PACKAGE]
    assert server.requests() == [GET_VERSION, GET_PACKAGE]
    assert_untouched(host)


def test_no_server_at_all_gives_no_version(host):
    holder, address = unused_address()
    with holder:
        host.configure(**settings(f"http://{address}"))
        assert host.update("0", "0") == FAILED
    assert host.log_texts() == version_download_failed(host, f"http://{address}", COULD_NOT_CONNECT)
    assert_untouched(host)


@pytest.mark.parametrize("url, code", [
    pytest.param("carrier-pigeon://127.0.0.1", 1, id="unknown scheme"),
    pytest.param("http://127.0.0.1:port", 3, id="malformed port"),
])
def test_an_invalid_address_fails_without_a_request(host, url, code):
    host.configure(**settings(url))
    assert host.update("0", "0") == FAILED
    assert host.log_texts() == version_download_failed(host, url, code)
    assert_untouched(host)


# Names are looked up in a hosts file only, so that no query leaves the machine.


def test_a_host_name_is_resolved(host, server, with_hosts_file):
    publish_update(server)
    host.configure(**settings(f"http://updates.test:{server.port}"))
    mounts = with_hosts_file("2001:db8::1 updates.test\n127.0.0.1 updates.test\n")
    assert host.update("0", "0", mounts=mounts) == OK
    assert host.log_texts() == UPDATED
    assert server.requests() == [GET_VERSION, GET_PACKAGE]


@pytest.mark.parametrize("hosts", [
    pytest.param("2001:db8::1 updates.test\n", id="IPv6 address only"),
    pytest.param("127.0.0.1 other.test\n", id="unknown name"),
])
def test_a_host_name_without_an_ipv4_address_is_not_resolved(host, with_hosts_file, hosts):
    url = "http://updates.test:9"
    host.configure(**settings(url))
    assert host.update("0", "0", mounts=with_hosts_file(hosts)) == FAILED
    assert host.log_texts() == version_download_failed(host, url, COULD_NOT_RESOLVE)
    assert_untouched(host)


# Files that cannot be written.


def test_a_full_disk_ends_the_transfer(host, serve):
    server = serve(package_reply=http_reply(package({"update": b"x" * 100_000})))
    (host.root / WORK_DIR).mkdir()
    host.remember()
    full = [namespace.small_disk(host.root / WORK_DIR, 32 << 10)]
    assert host.update("0", "0", mounts=full) == FAILED
    assert host.log_texts() == [transfer_failed(WRITE_ERROR), *NO_PACKAGE]
    assert server.requests() == [GET_VERSION, GET_PACKAGE]
    assert_untouched(host)


def test_a_work_directory_that_cannot_be_created_ends_the_transfer(host, serve):
    server = serve()
    host.write(WORK_DIR, "a file in its place")
    assert host.update("0", "0") == FAILED
    assert host.log_texts() == version_download_failed(host, server.url, WRITE_ERROR)
    # The clean-up removes whatever has that name.
    assert host.changes() == []


def test_a_directory_in_the_place_of_the_file_ends_the_transfer(host, serve):
    server = serve()
    host.write(f"{VERSION_FILE}/file", "")
    assert host.update("0", "0") == FAILED
    assert host.log_texts() == version_download_failed(host, server.url, WRITE_ERROR)
    assert_untouched(host)


# There is no timeout: a server that stops sending blocks the run.


def assert_blocks(run):
    assert not run.ends_within(0.4)
    run.kill()
    assert run.finish().status == KILLED


@pytest.mark.parametrize("reply", STALLED)
def test_a_stalled_version_file_blocks_the_run(host, serve, reply):
    server = serve(reply)
    run = host.start("0", "0")
    server.wait_for_requests(1)
    has_body = len(reply.steps) > 1
    if has_body:
        wait_until(lambda: host.exists(VERSION_FILE), "the first bytes")
    assert_blocks(run)
    assert host.log_texts() == []
    assert host.changes() == [f"+{WORK_DIR}", f"+{DATA_DIR}"] + has_body * [f"+{VERSION_FILE}"]
    assert host.agent.is_alive()


def test_a_stalled_package_blocks_the_run_before_the_agent_is_stopped(host, serve):
    server = serve(package_reply=http_reply(b"abc", length=100, end="stall"))
    run = host.start("0", "0")
    server.wait_for_requests(2)
    wait_until(lambda: host.exists(TAR), "the first bytes")
    assert_blocks(run)
    assert host.log_texts() == []
    assert host.trace() == []
    assert host.changes() == sorted(
        ["+update", f"+{WORK_DIR}", f"+{DATA_DIR}", f"+{VERSION_FILE}", f"+{TAR}"])
    assert host.agent.is_alive()


def test_the_agent_runs_until_the_package_is_complete(host, serve):
    body = package()
    serve(package_reply=http_reply(length=len(body), pieces=[
        lambda: host.note("reply"), body[:-1],
        lambda: wait_until(lambda: host.exists(TAR), "the download"),
        lambda: host.note("last byte"), body[-1:]]))
    assert host.update("0", "0") == OK
    work = [f"+{WORK_DIR}", f"+{DATA_DIR}", f"+{VERSION_FILE}"]
    assert host.trace()[:3] == [
        Step("reply", "start", True, "alive", work),
        Step("last byte", "start", True, "alive", sorted([*work, f"+{TAR}"])),
        Step("tool/tar", "start", True, "dead", sorted(["-norvak.pid", *work, f"+{TAR}"])),
    ]
    assert [step.who for step in host.trace()] == ["reply", "last byte", "tool/tar", "startup.sh"]
