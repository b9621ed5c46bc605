"""A server on loopback that sends scripted replies, byte for byte."""

import dataclasses
import socket
import struct
import threading
import time
import typing

from .waiting import SECONDS

_CONNECTION_SECONDS = 60  # the longest life of a connection
_MAX_REQUEST_BYTES = 1 << 16

_NO_LINGER = struct.pack("ii", 1, 0)  # closing with it sends a reset


@dataclasses.dataclass
class Reply:
    """The reaction to a request.

    The steps are executed in order: bytes are sent, a number is a pause in seconds, anything else
    is called without arguments. The end is "close", "reset", or "stall": the connection stays open
    until the server is closed.
    """

    steps: typing.Iterable[typing.Union[bytes, float, typing.Callable[[], None]]]
    end: str = "close"


def http_reply(body=b"", status="200 OK", headers=(), length=None, pieces=None, end="close"):
    """A well-formed reply by default.

    @a length is the value of Content-Length, by default that of the body. @a pieces are steps that
    replace the body.
    """
    promised = len(body) if length is None else length
    head = [f"HTTP/1.1 {status}", f"Content-Length: {promised}", *headers, "", ""]
    return Reply(["\r\n".join(head).encode(), *([body] if pieces is None else pieces)], end)


def unused_address():
    """A socket that reserves a port without listening, and its address "127.0.0.1:port"."""
    holder = socket.socket()
    holder.bind(("127.0.0.1", 0))
    return holder, f"127.0.0.1:{holder.getsockname()[1]}"


class ScriptedServer:
    """Answers each path with its reply, any other with 404. Handles parallel connections."""

    def __init__(self):
        self._replies = {}
        self._heads = []
        self._changed = threading.Condition()
        self._closing = threading.Event()
        self._threads = []
        self._listener = socket.create_server(("127.0.0.1", 0), backlog=64)
        self.port = self._listener.getsockname()[1]
        self.url = f"http://127.0.0.1:{self.port}"
        self._accepting = threading.Thread(target=self._accept, daemon=True)
        self._accepting.start()

    def reply(self, path, reply):
        """Answers requests for @a path (with its leading slash) with @a reply."""
        self._replies[path] = reply

    def reply_in_turn(self, path, replies):
        """Answers the first request for @a path with the first of @a replies, and so on."""
        self._replies[path] = iter(replies)

    def publish(self, files):
        """Publishes @a files like Nginx.publish(): path without its leading slash to content."""
        for path, content in files.items():
            self.reply(f"/{path}", http_reply(content))

    def requests(self):
        """The requests so far, as "GET /path"."""
        return [head.split(b" HTTP/")[0].decode() for head in self.request_heads()]

    def request_heads(self):
        """The bytes of the requests so far, up to and including the empty line."""
        with self._changed:
            return list(self._heads)

    def forget_requests(self, count):
        """Forgets the first @a count requests."""
        with self._changed:
            del self._heads[:count]

    def wait_for_requests(self, count):
        """Waits for @a count requests."""
        with self._changed:
            arrived = self._changed.wait_for(lambda: len(self._heads) >= count, SECONDS)
        assert arrived, f"{count} requests expected, seen: {self.requests()}"

    def close(self):
        """Ends every connection and stops listening."""
        self._closing.set()
        # A blocked accept() is not woken by close(), but by shutdown().
        self._listener.shutdown(socket.SHUT_RDWR)
        self._accepting.join()
        self._listener.close()
        for thread in self._threads:
            thread.join()

    def _accept(self):
        while not self._closing.is_set():
            try:
                connection, _ = self._listener.accept()
            except OSError:
                return
            thread = threading.Thread(target=self._serve, args=(connection,), daemon=True)
            self._threads.append(thread)
            thread.start()

    def _serve(self, connection):
        with connection:
            connection.settimeout(_CONNECTION_SECONDS)
            # Otherwise small pieces would be merged.
            connection.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
            try:
                self._answer(connection, self._read_head(connection))
            except OSError:
                pass  # the peer closed the connection or timed out

    def _read_head(self, connection):
        head = b""
        while b"\r\n\r\n" not in head and len(head) < _MAX_REQUEST_BYTES:
            received = connection.recv(4096)
            if not received:
                raise ConnectionError("no whole request")
            head += received
        with self._changed:
            self._heads.append(head)
            self._changed.notify_all()
        return head

    def _answer(self, connection, head):
        path = head.split(b" ")[1].decode()
        reply = self._replies.get(path)
        if not isinstance(reply, (Reply, type(None))):
            with self._changed:
                reply = next(reply, None)
        reply = reply or http_reply(b"not here\n", "404 Not Found")
        for step in reply.steps:
            if isinstance(step, bytes):
                connection.sendall(step)
            elif isinstance(step, (int, float)):
                time.sleep(step)
            else:
                step()
        if reply.end == "stall":
            self._closing.wait(_CONNECTION_SECONDS)
        elif reply.end == "reset":
            connection.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, _NO_LINGER)
