"""Malformed and hostile replies, for every update.

Most tests run many updates in turn on one host, because none of them may change anything.
"""

import pytest

from harness import FAILED, OK, Reply, http_reply, kernel, rules, software, web_server
from harness.kernel import FIRST
from harness.transfers import (PARTIAL_FILE, WRITE_ERROR, cut_replies, endless, refused_replies,
                               transfer_failed)
from harness.updates import (AGENT_REQUESTS, IDENTIFICATION, KERNEL, KERNEL_LIST, KERNEL_MODULE,
                             PACKAGE, PACKAGE_ALONE, PROGRAM, REQUESTS, RULE_FILE, RULE_LIST,
                             VERSION, WEB_SERVER)

ALL_REQUESTS = [*AGENT_REQUESTS, *REQUESTS]
FIRST_REQUESTS = [request for request in ALL_REQUESTS if request.values[0].index == 0]

PAGE = b"<html>\n<p>sorry</p>\n</html>\n"

STATUSES = [200, 201, 206, 226, 299, 300, 399, 400, 401, 405, 407, 408, 416, 421, 426, 429, 451,
            499, 501, 502, 504, 511, 599, 600, 999]

FREE_BYTES = 1 << 18


@pytest.fixture
def serve(host, scripted_server):
    """Sets up a host with old versions of everything; the server offers the new ones."""
    def serve_update(request):
        update = request.update
        update.publish(scripted_server)
        if request is IDENTIFICATION:
            # Any text is accepted as one. A program without the ELF mark makes the run fail.
            web_server.publish_build(scripted_server, program=PAGE)
        host.configure(**{update.setting: scripted_server.url}, **update.settings)
        update.prepare(host)
        return scripted_server

    return serve_update


def by_run(texts):
    """The lines of the log, as one list per run."""
    runs = [[]]
    for text in texts:
        runs[-1].append(text)
        if text == "":
            runs.append([])
    assert runs.pop() == []
    return runs


def log_of(host, server, request, code):
    """The log of a run in which libcurl returns @a code for @a request."""
    return [transfer_failed(code) if line is None else line.format(url=server.url, root=host.path)
            for line in request.broken]


def page_log(request):
    return web_server.REFUSED if request is IDENTIFICATION else request.page


def run_in_turn(host, server, request, replies):
    """Runs the update once for each of the named @a replies; returns the logs by these names."""
    update, count = request.update, len(replies)
    server.reply_in_turn(request.path, replies.values())
    statuses, errors = host.update_in_turn(count, *update.arguments, uname=update.uname)
    logs = by_run(host.log_texts())
    assert statuses == count * [FAILED.status]
    assert len(logs) == count
    assert errors == b"" or software.NOT_UNPACKED in logs  # messages of tar
    return dict(zip(replies, logs))


def assert_logged(found, possible):
    """Each log in @a found is one of those in @a possible, by the name of the reply."""
    assert {name: log for name, log in found.items() if log not in possible[name]} == {}


def assert_nothing_installed(host, server, request, logs):
    """The runs with these @a logs changed nothing; those that got a package restarted the agent.

    Any text is accepted as an identification, so the run then requests the program, too.
    """
    update = request.update
    assert server.requests() == sum((update.requests if log == web_server.REFUSED
                                     else request.requests for log in logs), [])
    unpacked = logs.count(software.NOT_UNPACKED)
    assert [step.who for step in host.trace()] == unpacked * ["tool/tar", "startup.sh"]
    record = [f"+{kernel.RECORD}"] if update is KERNEL else []
    assert host.changes() == record + (["-norvak.pid"] if unpacked else [])
    assert host.agent.was_killed() if unpacked else host.agent.is_alive()


def assert_next_run_succeeds(host, server, update):
    update.publish(server)
    assert host.update(*update.arguments, uname=update.uname) == OK
    assert by_run(host.log_texts())[-1] == update.log
    assert set(update.changes) <= set(host.changes())


def assert_all_fail(host, server, request, replies, logs):
    """A run with each of @a replies fails with one of its @a logs; then a normal run succeeds.

    Both are dictionaries with the names of the replies as keys.
    """
    surroundings = host.surroundings()
    found = run_in_turn(host, server, request, replies)
    assert_logged(found, logs)
    assert_nothing_installed(host, server, request, list(found.values()))
    assert host.surroundings() == surroundings
    assert_next_run_succeeds(host, server, request.update)


@pytest.mark.parametrize("request_", ALL_REQUESTS)
def test_a_malformed_reply_ends_the_run(host, serve, request_):
    server = serve(request_)
    cases = refused_replies(request_.body)
    assert_all_fail(host, server, request_, {name: reply for name, (reply, *_) in cases.items()},
                    {name: [log_of(host, server, request_, code) for code in codes]
                     for name, (_, *codes) in cases.items()})


@pytest.mark.parametrize("request_", FIRST_REQUESTS)
def test_a_reply_truncated_at_any_offset_is_rejected(host, serve, request_):
    server = serve(request_)
    cases = cut_replies()
    empty = web_server.REFUSED if request_ is IDENTIFICATION else request_.empty
    assert_all_fail(host, server, request_, {name: reply for name, (reply, _) in cases.items()},
                    {name: [empty if code is None else log_of(host, server, request_, code)]
                     for name, (_, code) in cases.items()})


def pages(server, good):
    """Replies whose body is a page of several lines, by name. Nothing else of them may count.

    @param good  path of a valid file, which the server also has as /good
    """
    address = f"127.0.0.1:{server.port}"
    redirects = [(302, target) for target in (
        "/good", f"{server.url}/good", f"ftp://{address}/good", f"gopher://{address}/1good",
        f"dict://{address}/d:good", f"tftp://{address}/good", f"file://{good}")]
    redirects += [(status, f"file://{good}") for status in (301, 303, 305, 307, 308)]
    return {
        **{f"{status}": http_reply(PAGE, f"{status} Status") for status in STATUSES},
        **{f"{status} to {target}": http_reply(PAGE, f"{status} Moved", [f"Location: {target}"])
           for status, target in redirects},
        "a page with a refresh header": http_reply(
            PAGE, headers=[f"Refresh: 0; url=file://{good}"]),
        "a challenge": http_reply(
            PAGE, "401 Unauthorized", ["WWW-Authenticate: Basic realm=updates"]),
        "a retry header": http_reply(PAGE, "503 Busy", ["Retry-After: 0"]),
        "a protocol switch": Reply(
            [b"HTTP/1.1 101 Switching Protocols\r\n\r\n", *http_reply(PAGE).steps]),
    }


@pytest.mark.parametrize("request_", FIRST_REQUESTS)
def test_status_and_headers_of_a_page_are_ignored(host, serve, request_):
    server = serve(request_)
    good = host.start_dir / "good"
    good.write_bytes(request_.body)
    server.reply("/good", http_reply(request_.body))
    replies = pages(server, good)
    assert_all_fail(host, server, request_, replies, dict.fromkeys(replies, [page_log(request_)]))


@pytest.mark.parametrize("request_", ALL_REQUESTS)
def test_an_endless_body_is_limited_by_the_disk(host, serve, request_):
    server = serve(request_)
    server.reply_in_turn(request_.path, [
        endless(b"HTTP/1.1 200 OK\r\n\r\n", b"x" * 65536),
        endless(b"HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n",
                b"10000\r\n%s\r\n" % (b"x" * 65536)),
        http_reply(b"x" * 65536, length=1 << 62)])
    # The rest of the page that this line begins is left for the log, even on a full disk.
    host.write("runlog/update.log", "\n")
    surroundings = host.surroundings()
    update = request_.update
    assert host.update_in_turn(3, *update.arguments, uname=update.uname, free_bytes=FREE_BYTES) == (
        3 * [FAILED.status], b"")
    log = log_of(host, server, request_, WRITE_ERROR)
    assert by_run(host.log_texts()[1:]) == [log, log, log_of(host, server, request_, PARTIAL_FILE)]
    assert host.changes() == ([f"+{kernel.RECORD}"] if update is KERNEL else [])
    assert host.surroundings() == surroundings
    host.assert_agent_undisturbed()


# A length that is too short truncates the body without an error.


@pytest.mark.parametrize("request_, log, requests", [
    pytest.param(VERSION, software.NOT_NEEDED, 1, id="version"),
    pytest.param(PACKAGE, software.NOT_UNPACKED, 2, id="package"),
    pytest.param(PACKAGE_ALONE, software.NOT_UNPACKED, 1, id="package, by hand"),
    pytest.param(KERNEL_LIST, kernel.was_refused(FIRST), 2, id="MD5 list of a module"),
    pytest.param(KERNEL_MODULE, kernel.was_refused(FIRST), 2, id="module"),
    pytest.param(RULE_LIST, rules.REFUSED, 2, id="MD5 of the rules"),
    pytest.param(RULE_FILE, rules.REFUSED, 2, id="rules"),
])
def test_a_body_truncated_by_its_length_is_refused(host, serve, request_, log, requests):
    server = serve(request_)
    server.reply(request_.path, http_reply(request_.body, length=6))
    update = request_.update
    assert host.update(*update.arguments, uname=update.uname).status == FAILED.status
    assert host.log_texts() == log
    assert server.requests() == update.requests[:requests]
    assert host.changes() == (["-norvak.pid"] if log == software.NOT_UNPACKED else
                              [f"+{kernel.RECORD}"] if update is KERNEL else [])


@pytest.mark.parametrize("request_, file", [
    pytest.param(IDENTIFICATION, web_server.IDENTIFICATION, id="identification"),
    pytest.param(PROGRAM, web_server.PROGRAM, id="program"),
])
def test_a_web_server_truncated_by_its_length_is_installed(host, serve, request_, file):
    server = serve(request_)
    web_server.publish_build(server)
    server.reply(request_.path, http_reply(request_.body, length=6))
    assert host.update(*WEB_SERVER.arguments) == OK
    assert host.log_texts() == WEB_SERVER.log
    assert host.changes() == WEB_SERVER.changes
    assert host.read(file) == request_.body[:6]
