"""Bad replies to each request of the kernel, rule and web server updates.

The forms that replies can take are shown with the agent software update, in test_download.py; here
one of each kind goes through every other request.
"""

import pytest

from harness import FAILED, KILLED, OK, Run, http_reply, kernel, unused_address, web_server
from harness.kernel import UNAME
from harness.transfers import COULD_NOT_CONNECT, PARTIAL_FILE, transfer_failed
from harness.updates import IDENTIFICATION, KERNEL, REQUESTS, UPDATES, WEB_SERVER

PAGE = b"<html>\n<p>sorry</p>\n</html>\n"


@pytest.fixture
def serve(host, scripted_server):
    """Sets up a host on which everything of an update is outdated.

    The scripted server offers a new version of everything. The given request gets the given reply.
    """
    def serve_update(update, request=None, reply=None):
        update.publish(scripted_server)
        if request:
            scripted_server.reply(request.path, reply)
        host.configure(**{update.setting: scripted_server.url})
        update.prepare(host)
        return scripted_server

    return serve_update


def run(host, update):
    return host.update(*update.arguments, uname=UNAME)


def record_of(update):
    return [f"+{kernel.RECORD}"] if update is KERNEL else []


def assert_updated(host, update, earlier_log=()):
    assert run(host, update) == OK
    assert host.log_texts() == [*earlier_log, *update.log]
    assert host.changes() == update.changes
    assert host.trace() == []
    assert host.agent.was_killed() if update.kills_agent else host.agent.is_alive()


def assert_failed(host, server, request, log):
    """The run ended with @a request and left all installed files alone."""
    assert run(host, request.update) == FAILED
    assert host.log_texts() == log
    assert server.requests() == request.requests
    assert host.changes() == record_of(request.update)
    host.assert_agent_undisturbed()


def broken_log(request, code):
    return [transfer_failed(code) if line is None else line for line in request.broken]


@pytest.mark.parametrize("request_", REQUESTS)
def test_a_good_body_counts_whatever_the_status(host, serve, request_):
    reply = http_reply(request_.body, "500 Internal Server Error")
    server = serve(request_.update, request_, reply)
    assert_updated(host, request_.update)
    assert server.requests() == request_.update.requests


@pytest.mark.parametrize("request_", [request for request in REQUESTS if request.values[0].page])
def test_an_error_page_is_caught(host, serve, request_):
    server = serve(request_.update, request_, http_reply(PAGE, "404 Not Found"))
    assert_failed(host, server, request_, request_.page)


@pytest.mark.parametrize("request_", [request for request in REQUESTS if request.values[0].empty])
def test_an_empty_body_is_caught(host, serve, request_):
    server = serve(request_.update, request_, http_reply(b""))
    assert_failed(host, server, request_, request_.empty)


def test_an_error_page_passes_for_an_identification(host, serve):
    serve(WEB_SERVER, IDENTIFICATION, http_reply(PAGE, "404 Not Found"))
    assert_updated(host, WEB_SERVER)
    assert host.read(web_server.IDENTIFICATION) == PAGE


@pytest.mark.parametrize("request_", REQUESTS)
def test_a_broken_transfer_ends_the_run(host, serve, request_):
    half = request_.body[:len(request_.body) // 2]
    server = serve(request_.update, request_, http_reply(half, length=len(request_.body)))
    assert_failed(host, server, request_, broken_log(request_, PARTIAL_FILE))


@pytest.mark.parametrize("update", UPDATES)
def test_no_server_at_all_ends_the_run(host, update):
    first = next(request.values[0] for request in REQUESTS if request.values[0].update is update)
    holder, address = unused_address()
    with holder:
        host.configure(**{update.setting: f"http://{address}"})
        update.prepare(host)
        assert run(host, update) == FAILED
    assert host.log_texts() == broken_log(first, COULD_NOT_CONNECT)
    assert host.changes() == record_of(update)
    host.assert_agent_undisturbed()


# There is no timeout: a server that stops sending blocks the run.


@pytest.mark.parametrize("request_", REQUESTS)
def test_a_stalled_server_blocks_the_run_and_the_next_one_succeeds(host, serve, request_):
    update = request_.update
    server = serve(update, request_, http_reply(b"abc", length=100, end="stall"))
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
