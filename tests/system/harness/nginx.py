"""A real nginx on loopback that publishes files."""

import http.client
import os
import pathlib
import shutil
import socket
import subprocess
import time

from . import namespace

_SEARCH_PATH = os.pathsep.join([os.environ.get("PATH", os.defpath), "/usr/sbin", "/usr/local/sbin"])

_START_SECONDS = 10

# It stays in the foreground, so its id is the one to stop. A host setting that ends in one of the
# prefixes /broken and /moved gets that prefix's behaviour.
_CONFIG = """\
daemon off;
worker_processes 1;
{user}
pid {prefix}/nginx.pid;
error_log {prefix}/error.log;
events {{ worker_connections 512; }}
http {{
  log_format request '$request_method $request_uri';
  access_log {prefix}/access.log request;
  client_body_temp_path {prefix}/body;
  proxy_temp_path {prefix}/proxy;
  fastcgi_temp_path {prefix}/fastcgi;
  uwsgi_temp_path {prefix}/uwsgi;
  scgi_temp_path {prefix}/scgi;
  server {{
    listen 127.0.0.1:{port};
    root {prefix}/published;
    location /broken/ {{ return 500 "the server is broken\\n"; }}
    location ~ ^/moved(/.*)$ {{ return 302 {url}$1; }}
    location = /ready {{ access_log off; return 204; }}
    location /flush/ {{ return 204; }}
  }}
}}
"""


class Nginx:
    """A running nginx. Its requests are told in the order in which they were answered."""

    def __init__(self, prefix):
        self._prefix = pathlib.Path(prefix)
        self._published = self._prefix / "published"
        self._published.mkdir()
        self._log_offset = 0
        self._flushes = 0
        self._start()

    def publish(self, files):
        """Publishes @a files: path on the server (without the leading slash) to content."""
        for path, content in files.items():
            target = self._published / path
            target.parent.mkdir(parents=True, exist_ok=True)
            target.write_bytes(content)

    def requests(self):
        """The requests since the last reset(), as "GET /path"."""
        # A request is logged after its answer has gone out. The one worker answers requests one
        # after the other, so when the line of this one is there, all earlier ones are.
        self._flushes += 1
        self._get(f"/flush/{self._flushes}")
        log = self._prefix / "access.log"
        deadline = time.monotonic() + _START_SECONDS
        while f"GET /flush/{self._flushes}\n" not in (text := log.read_text()):
            assert time.monotonic() < deadline, "nginx does not write its access log"
            time.sleep(0.005)
        lines = text[self._log_offset:].splitlines()
        return [line for line in lines if not line.startswith("GET /flush/")]

    def reset(self):
        """Forgets what was published and requested."""
        shutil.rmtree(self._published)
        self._published.mkdir()
        self.requests()
        self._log_offset = (self._prefix / "access.log").stat().st_size

    def close(self):
        """Stops nginx and waits for its end."""
        self._process.terminate()
        try:
            self._process.wait(_START_SECONDS)
        except subprocess.TimeoutExpired:
            self._process.kill()
            self._process.wait()

    def _start(self):
        program = shutil.which("nginx", path=_SEARCH_PATH)
        assert program, "nginx was not found: 'apt-get install nginx-light'"
        with socket.socket() as listener:
            listener.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
            listener.bind(("127.0.0.1", 0))
            listener.listen(64)
            self.port = listener.getsockname()[1]
            self.url = f"http://127.0.0.1:{self.port}"
            config = self._prefix / "nginx.conf"
            # The worker of root's nginx would become somebody who may not read the files.
            user = "user root;" if os.getuid() == 0 else ""
            config.write_text(_CONFIG.format(prefix=self._prefix, port=self.port, url=self.url,
                                             user=user))
            # nginx takes over the listening socket, so nobody can take the port in between.
            with open(self._prefix / "output", "wb") as output:
                self._process = subprocess.Popen(
                    namespace.ending_with_us([program, "-p", str(self._prefix), "-c", str(config)]),
                    env={"PATH": _SEARCH_PATH, "NGINX": f"{listener.fileno()};"},
                    pass_fds=[listener.fileno()], stdin=subprocess.DEVNULL, stdout=output,
                    stderr=output, start_new_session=True)
        try:
            assert self._get("/ready") == 204
        except (OSError, AssertionError) as error:
            self.close()
            raise AssertionError((self._prefix / "output").read_text()) from error

    def _get(self, path):
        connection = http.client.HTTPConnection("127.0.0.1", self.port, timeout=_START_SECONDS)
        try:
            connection.request("GET", path)
            return connection.getresponse().status
        finally:
            connection.close()
