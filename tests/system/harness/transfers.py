"""Unusual, empty and broken replies, and the results that libcurl reports for them.

Tables of test parameters, for every request that an updater sends.
"""

import itertools

import pytest

from .scripted import Reply, http_reply

# Results of libcurl.
UNSUPPORTED_PROTOCOL = 1
URL_MALFORMED = 3
COULD_NOT_RESOLVE = 6
COULD_NOT_CONNECT = 7
WEIRD_REPLY = 8
PARTIAL_FILE = 18
WRITE_ERROR = 23
LINE_TOO_LONG = 27  # CURLE_OUT_OF_MEMORY: more than libcurl accepts
GOT_NOTHING = 52
RECEIVE_ERROR = 56
BAD_ENCODING = 61
TOO_LARGE = 100  # newer releases: the headers are too long

_OK = b"HTTP/1.1 200 OK\r\n"
_CHUNKED = b"HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n"


def transfer_failed(code):
    """The log line of the download itself."""
    return f"CUrlOp::url_down_file: curl_easy_perform failed[{code}]"


def chunked(body, size):
    """The body in chunks of @a size bytes, each sent separately."""
    pieces = [body[i:i + size] for i in range(0, len(body), size)]
    return Reply([_CHUNKED, *(b"%x\r\n%s\r\n" % (len(piece), piece) for piece in pieces),
                  b"0\r\n\r\n"])


def byte_by_byte(data):
    return [data[i:i + 1] for i in range(len(data))]


def endless(start, piece):
    """A reply without an end, sent until the peer closes the connection."""
    return Reply(itertools.chain([start], itertools.repeat(piece)))


# Functions that return a reply with the complete body.
WHOLE_BODIES = [
    pytest.param(lambda body: http_reply(length=len(body), pieces=[
        body[i:i + 64] for i in range(0, len(body), 64)]), id="many tiny pieces"),
    pytest.param(lambda body: http_reply(length=len(body), pieces=[
        body[:5], 0.05, body[5:6], 0.05, body[6:]]), id="pauses between pieces"),
    pytest.param(lambda body: chunked(body, 7), id="chunks"),
    pytest.param(lambda body: Reply([b"HTTP/1.0 200 OK\r\n\r\n", body]), id="no length"),
    pytest.param(lambda body: http_reply(body, headers=["Content-Type: text/html; charset=GBK"]),
                 id="another content type"),
    pytest.param(lambda body: Reply([b"HTTP/1.1 100 Continue\r\n\r\n", *http_reply(body).steps]),
                 id="interim reply first"),
    pytest.param(lambda body: Reply([
        b"HTTP/1.1 103 Early Hints\r\nLink: </elsewhere>\r\n\r\n", b"HTTP/1.1 100 Continue\r\n\r\n",
        b"HTTP/1.1 102 Processing\r\n\r\n", *http_reply(body).steps]),
                 id="several interim replies"),
    pytest.param(lambda body: Reply([
        *byte_by_byte(http_reply().steps[0].replace(b": 0", b": %d" % len(body)) + body[:500]),
        body[500:]]), id="byte by byte"),
    pytest.param(lambda body: http_reply(body, headers=["Content-Encoding: gzip"]),
                 id="an unrequested compression"),
    pytest.param(lambda body: http_reply(body, length=1 << 80), id="a length above 64 bits"),
    pytest.param(lambda body: Reply([
        b"%sContent-Length: 5\r\nTransfer-Encoding: chunked\r\n\r\n%x\r\n%s\r\n0\r\n\r\n"
        % (_OK, len(body), body)]), id="a length and chunks"),
    pytest.param(lambda body: http_reply(body, headers=[f"Content-Length: {len(body)}"], length=5),
                 id="two lengths, the last one right"),
]

# Statuses that the updater ignores.
ERROR_STATUSES = ["404 Not Found", "302 Found"]

# Successful downloads that leave no file.
EMPTY_BODIES = [
    pytest.param(http_reply(b""), id="200"),
    pytest.param(http_reply(b"", "404 Not Found"), id="404"),
    pytest.param(http_reply(b"", "302 Found", ["Location: /elsewhere"]), id="302"),
    pytest.param(Reply([b"HTTP/1.1 204 No Content\r\n\r\n"]), id="204"),
    pytest.param(http_reply(b"a body all the same\n", "204 No Content"), id="204 with a body"),
    pytest.param(http_reply(b"a body all the same\n", "304 Not Modified"), id="304 with a body"),
    pytest.param(Reply([_CHUNKED, b"0\r\n\r\n"]), id="no chunk"),
]

# Without an end: the run waits as long as the connection is open.
STALLED = [
    pytest.param(Reply([], "stall"), id="no reply"),
    pytest.param(http_reply(b"abc", length=100, end="stall"), id="within the body"),
]


def failing_transfers(body):
    """Replies with an incomplete @a body, with libcurl's result."""
    half = len(body) // 2
    return [
        pytest.param(http_reply(body, length=len(body) + 1), PARTIAL_FILE, id="one byte missing"),
        pytest.param(http_reply(body[:half], length=len(body)), PARTIAL_FILE, id="half a body"),
        pytest.param(http_reply(length=len(body)), PARTIAL_FILE, id="nothing of the body"),
        pytest.param(Reply([_CHUNKED, b"5\r\nabcde\r\n"]), PARTIAL_FILE, id="last chunk missing"),
        pytest.param(Reply([_CHUNKED, b"what\r\n"]), RECEIVE_ERROR, id="chunk without a size"),
        pytest.param(http_reply(length=len(body), pieces=[body[:half], 0.05], end="reset"),
                     RECEIVE_ERROR, id="reset within the body"),
        pytest.param(Reply([0.05], "reset"), RECEIVE_ERROR, id="reset instead of a reply"),
        pytest.param(Reply([]), GOT_NOTHING, id="closed without a reply"),
    ]


def refused_replies(body):
    """Replies that are not HTTP or violate it, by name, with libcurl's possible results.

    The endless ones exceed the limits of libcurl.
    """
    chunk = b"%x\r\n%s\r\n" % (len(body), body)
    return {
        "bytes of all kinds": (Reply([bytes(range(256)) * 4]), UNSUPPORTED_PROTOCOL),
        "the body alone, as in HTTP/0.9": (Reply([body]), UNSUPPORTED_PROTOCOL),
        "another protocol": (Reply([b"220 updates.test FTP server\r\n"]), UNSUPPORTED_PROTOCOL),
        "another protocol's status": (Reply([b"ICY 200 OK\r\n\r\n", body]), UNSUPPORTED_PROTOCOL),
        "an unknown version of HTTP": (
            Reply([b"HTTP/7.3 200 OK\r\n\r\n", body]), UNSUPPORTED_PROTOCOL),
        "a status of two digits": (
            Reply([b"HTTP/1.1 20 OK\r\n\r\n", body]), UNSUPPORTED_PROTOCOL),
        "an empty line first": (
            Reply([b"\r\n", *http_reply(body).steps]), UNSUPPORTED_PROTOCOL),
        "a header without a colon": (Reply([_OK + b"header\r\n\r\n", body]), WEIRD_REPLY),
        "a negative length": (http_reply(body, length=-1), WEIRD_REPLY),
        "a length in words": (http_reply(body, length="all"), WEIRD_REPLY),
        "a length and a half": (http_reply(body, length=len(body) * 3 // 2), PARTIAL_FILE),
        "two lengths, the last one too long": (
            http_reply(body, headers=["Content-Length: 1000000"]), PARTIAL_FILE),
        "a chunk of negative size": (Reply([_CHUNKED, b"-" + chunk]), RECEIVE_ERROR),
        "a chunk beyond any size": (Reply([_CHUNKED, b"f" * 20 + chunk]), RECEIVE_ERROR),
        "a chunk that goes on": (Reply([_CHUNKED, b"5\r\n", body, b"more\r\n"]), RECEIVE_ERROR),
        "a chunk that ends early": (
            Reply([_CHUNKED, b"ffffff\r\n", body, b"\r\n0\r\n\r\n"]), PARTIAL_FILE),
        "a compression of the transfer": (
            Reply([_OK + b"Transfer-Encoding: gzip\r\n\r\n", body]), BAD_ENCODING),
        "an interim reply alone": (Reply([b"HTTP/1.1 100 Continue\r\n\r\n"]), GOT_NOTHING),
        "an endless status line": (endless(_OK[:-2], b"K" * 4096), LINE_TOO_LONG, TOO_LARGE),
        "an endless header": (
            endless(_OK + b"Header: ", b"x" * 4096), LINE_TOO_LONG, TOO_LARGE),
        "endless headers": (
            endless(_OK, b"Header: value\r\n" * 256), RECEIVE_ERROR, TOO_LARGE),
        "endless interim replies": (
            endless(b"", b"HTTP/1.1 100 Continue\r\n\r\n" * 256), RECEIVE_ERROR),
        "an endless header after the chunks": (
            endless(_CHUNKED + b"0\r\nHeader: ", b"x" * 4096), RECEIVE_ERROR, TOO_LARGE),
    }


def cut_replies():
    """Small replies truncated at every offset: bytes to (Reply, result), None for an empty body.

    A head that ends before its length is taken for one without a length, and a body without one
    ends with the connection.
    """
    measured = _OK + b"Content-Length: 14\r\n\r\nbody of a file"
    chunks = b"5\r\nsmall\r\n0\r\n"  # the final empty line is optional
    cuts = [measured[:size] for size in range(len(measured))]
    cuts += [_CHUNKED + chunks[:size] for size in range(len(chunks))]

    def result(data):
        known = data.find(b"\r\n", len(_OK)) > 0
        return PARTIAL_FILE if known else GOT_NOTHING if len(data) < len(_OK) else None

    return {data: (Reply([data]), result(data)) for data in cuts}
