"""What a server can do to each request of the kernel, rule and web server updates.

The requests of the agent software update are those of test_download.py.
"""

import pytest

from harness import FAILED, KILLED, OK, Run, http_reply, kernel, unused_address, web_server
from harness.kernel import UNAME
from harness.transfers import (COULD_NOT_CONNECT, COULD_NOT_RESOLVE, EMPTY_BODIES, ERROR_STATUSES,
                               STALLED, WHOLE_BODIES, failing_transfers, transfer_failed)
from harness.updates import IDENTIFICATION, KERNEL, REQUESTS, UPDATES, WEB_SERVER

PAGE = b"<html>\n<p>sorry</p>\n</html>\n"

# The table of broken transfers for each request, with its own body.
BROKEN = [
    pytest.param(request.values[0], *broken.values, id=f"{request.id}-{broken.id}")
    for request in REQUESTS for broken in failing_transfers(request.values[0].body)]


@pytest.fixture
def serve(host, scripted_server):
    """Makes the host one on which everything of an update is outdated.

    The scripted server offers the new; the request that is given gets the reply that is given.
    """
    def serve_update(update, request=None, reply=None):
        update.publish(scripted_server)
        if request:
            scripted_server.reply(request.path, reply)
        host.configure(**{update.setting: scripted_server.url})
        update.prepare(host)
        return scripted_server

    return serve_update


def run(host, update, **options):
    return host.update(*update.arguments, uname=UNAME, **options)


def record_of(update):
    return [f"+{kernel.RECORD}"] if update is KERNEL else []


def assert_updated(host, update, earlier_log=()):
    assert run(host, update) == OK
    assert host.log_texts() == [*earlier_log, *update.log]
    assert host.changes() == update.changes
    assert host.trace() == []
    assert host.agent.was_killed() if update.kills_agent else host.agent.is_alive()


def assert_failed(host, server, request, log):
    """The run ended with @a request; nothing that was installed is touched."""
    assert run(host, request.update) == FAILED
    assert host.log_texts() == log
    assert server.requests() == request.requests
    assert host.changes() == record_of(request.update)
    host.assert_agent_undisturbed()


def broken_log(request, code):
    return [transfer_failed(code) if line is None else line for line in request.broken]


# Whole bodies.


@pytest.mark.parametrize("form", WHOLE_BODIES)
@pytest.mark.parametrize("request_", REQUESTS)
def test_a_body_is_saved_whole_in_whatever_form_it_comes(host, serve, request_, form):
    server = serve(request_.update, request_, form(request_.body))
    assert_updated(host, request_.update)
    assert server.requests() == request_.update.requests


@pytest.mark.parametrize("status", ERROR_STATUSES)
@pytest.mark.parametrize("request_", REQUESTS)
def test_a_good_body_counts_whatever_the_status(host, serve, request_, status):
    reply = http_reply(request_.body, status, ["Location: /elsewhere"])
    server = serve(request_.update, request_, reply)
    assert_updated(host, request_.update)
    assert server.requests() == request_.update.requests


# Bodies that are whole, but not what was asked for.


@pytest.mark.parametrize("status", ERROR_STATUSES)
@pytest.mark.parametrize("request_", [request for request in REQUESTS if request.values[0].page])
def test_an_error_page_is_caught(host, serve, request_, status):
    reply = http_reply(PAGE, status, ["Location: /elsewhere"])
    server = serve(request_.update, request_, reply)
    assert_failed(host, server, request_, request_.page)


@pytest.mark.parametrize("empty", EMPTY_BODIES)
@pytest.mark.parametrize("request_", [request for request in REQUESTS if request.values[0].empty])
def test_an_empty_body_is_caught(host, serve, request_, empty):
    server = serve(request_.update, request_, empty)
    assert_failed(host, server, request_, request_.empty)


@pytest.mark.parametrize("status", ERROR_STATUSES)
def test_an_error_page_passes_for_an_identification(host, serve, status):
    serve(WEB_SERVER, IDENTIFICATION, http_reply(PAGE, status, ["Location: /elsewhere"]))
    assert_updated(host, WEB_SERVER)
    assert host.read(web_server.IDENTIFICATION) == PAGE


@pytest.mark.parametrize("empty", EMPTY_BODIES)
def test_an_empty_body_passes_for_an_identification(host, serve, empty):
    serve(WEB_SERVER, IDENTIFICATION, empty)
    assert run(host, WEB_SERVER) == OK
    assert host.log_texts() == WEB_SERVER.log
    # The installed one made way for a file that is not there.
    assert host.changes() == [f"-{web_server.IDENTIFICATION}", f"~{web_server.PROGRAM}"]


# Transfers that fail.


@pytest.mark.parametrize("request_, reply, code", BROKEN)
def test_a_broken_transfer_ends_the_run(host, serve, request_, reply, code):
    server = serve(request_.update, request_, reply)
    assert_failed(host, server, request_, broken_log(request_, code))


def assert_first_request_fails(host, update, code, **options):
    first = next(request.values[0] for request in REQUESTS if request.values[0].update is update)
    assert run(host, update, **options) == FAILED
    assert host.log_texts() == broken_log(first, code)
    assert host.changes() == record_of(update)
    host.assert_agent_undisturbed()


@pytest.mark.parametrize("update", UPDATES)
def test_no_server_at_all_ends_the_run(host, update):
    holder, address = unused_address()
    with holder:
        host.configure(**{update.setting: f"http://{address}"})
        update.prepare(host)
        assert_first_request_fails(host, update, COULD_NOT_CONNECT)


@pytest.mark.parametrize("update", UPDATES)
def test_a_host_name_without_an_ipv4_address_ends_the_run(host, with_hosts_file, update):
    host.configure(**{update.setting: "http://updates.test:9"})
    update.prepare(host)
    mounts = with_hosts_file("2001:db8::1 updates.test\n")
    assert_first_request_fails(host, update, COULD_NOT_RESOLVE, mounts=mounts)


# A server that says nothing more holds up the run for as long as it likes.


@pytest.mark.parametrize("reply", STALLED)
@pytest.mark.parametrize("request_", REQUESTS)
def test_a_stalled_server_blocks_the_run_and_the_next_one_makes_it_good(
        host, serve, request_, reply):
    update = request_.update
    server = serve(update, request_, reply)
    stalled = host.start(*update.arguments, uname=UNAME)
    server.wait_for_requests(len(request_.requests))
    assert not stalled.ends_within(0.2)
    stalled.kill()
    assert stalled.finish() == Run(KILLED)
    assert server.requests() == request_.requests
    assert host.log_texts() == request_.first_lines
    assert all(change.startswith("+") for change in host.changes())
    host.assert_agent_undisturbed()

    update.publish(server)
    assert_updated(host, update, earlier_log=request_.first_lines)
