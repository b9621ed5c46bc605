"""Replies that are unusual, empty or broken, and what libcurl makes of them.

Tables of test parameters, for every request that an updater sends.
"""

import pytest

from .scripted import Reply, http_reply

# Results of libcurl.
URL_MALFORMED = 3
COULD_NOT_RESOLVE = 6
COULD_NOT_CONNECT = 7
PARTIAL_FILE = 18
WRITE_ERROR = 23
GOT_NOTHING = 52
RECEIVE_ERROR = 56

_CHUNKED = b"HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n"


def transfer_failed(code):
    """The line of the download itself."""
    return f"CUrlOp::url_down_file: curl_easy_perform failed[{code}]"


def chunked(body, size):
    """The body in chunks of @a size bytes, each sent on its own."""
    pieces = [body[i:i + size] for i in range(0, len(body), size)]
    return Reply([_CHUNKED, *(b"%x\r\n%s\r\n" % (len(piece), piece) for piece in pieces),
                  b"0\r\n\r\n"])


# Functions from a body to a reply in which it arrives whole.
WHOLE_BODIES = [
    pytest.param(lambda body: http_reply(length=len(body), pieces=[
        body[i:i + 64] for i in range(0, len(body), 64)]), id="many tiny pieces"),
    pytest.param(lambda body: http_reply(length=len(body), pieces=[
        body[:5], 0.05, body[5:6], 0.05, body[6:]]), id="pauses between pieces"),
    pytest.param(lambda body: chunked(body, 7), id="chunks"),
    pytest.param(lambda body: Reply([b"HTTP/1.0 200 OK\r\n\r\n", body]), id="no length"),
    pytest.param(lambda body: http_reply(body, headers=["Content-Type: text/html; charset=GBK"]),
                 id="a type that does not fit"),
    pytest.param(lambda body: Reply([b"HTTP/1.1 100 Continue\r\n\r\n", *http_reply(body).steps]),
                 id="interim reply first"),
]

# None of them is looked at.
ERROR_STATUSES = ["404 Not Found", "500 Internal Server Error", "403 Forbidden", "503 Busy",
                  "302 Found"]

# A success that leaves no file.
EMPTY_BODIES = [
    pytest.param(http_reply(b""), id="200"),
    pytest.param(http_reply(b"", "404 Not Found"), id="404"),
    pytest.param(http_reply(b"", "302 Found", ["Location: /elsewhere"]), id="302"),
    pytest.param(Reply([b"HTTP/1.1 204 No Content\r\n\r\n"]), id="204"),
    pytest.param(Reply([_CHUNKED, b"0\r\n\r\n"]), id="no chunk"),
]

# Without an end: the run waits for as long as the server likes.
STALLED = [
    pytest.param(Reply([], "stall"), id="no reply"),
    pytest.param(http_reply(b"abc", length=100, end="stall"), id="within the body"),
]


def failing_transfers(body):
    """Replies in which @a body does not arrive whole, with libcurl's result."""
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
