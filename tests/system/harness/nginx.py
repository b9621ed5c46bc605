"""A real nginx on loopback that publishes files."""

import contextlib
import http.client
import os
import pathlib
import shutil
import socket
import subprocess
import tempfile

from . import namespace
from .waiting import SECONDS, wait_until

_SEARCH_PATH = os.pathsep.join([os.environ.get("PATH", os.defpath), "/usr/sbin", "/usr/local/sbin"])

_CONFIG = pathlib.Path(__file__).with_name("nginx.conf")
# For hosts whose server setting ends in /broken or /moved.
_LOCATIONS = """\
location /broken/ {{ return 500 "the server is broken\\n"; }}
location ~ ^/moved(/.*)$ {{ return 302 {url}$1; }}
location = /ready {{ access_log off; return 204; }}
location /flush/ {{ return 204; }}
"""


@contextlib.contextmanager
def running_nginx():
    """An Nginx in a directory of its own."""
    with tempfile.TemporaryDirectory(prefix="norvak-nginx-") as prefix:
        server = Nginx(prefix)
        try:
            yield server
        finally:
            server.close()


class Nginx:
    """A running nginx, which logs its requests in the order of its answers.

    @param user  whose rights it has when it reads the published files, where root starts it
    """

    def __init__(self, prefix, user="root"):
        self._prefix = pathlib.Path(prefix)
        self.published = self._prefix / "published"
        self.published.mkdir()
        self._log_offset = 0
        self._flushes = 0
        self._start(user)

    def publish(self, files):
        """Publishes @a files: path on the server (without the leading slash) to content."""
        for path, content in files.items():
            target = self.published / path
            target.parent.mkdir(parents=True, exist_ok=True)
            target.write_bytes(content)

    def requests(self):
        """The requests since the last reset(), as "GET /path"."""
        # A request is logged after it has been answered, and requests are answered one by one: when
        # this one has been logged, so have all earlier ones.
        self._flushes += 1
        self._get(f"/flush/{self._flushes}")
        log = self._prefix / "access.log"
        last = f"GET /flush/{self._flushes}\n"
        wait_until(lambda: last in log.read_text(), f"nginx logs {last}")
        lines = log.read_text()[self._log_offset:].splitlines()
        return [line for line in lines if not line.startswith("GET /flush/")]

    def reset(self):
        """Forgets what was published and requested."""
        shutil.rmtree(self.published)
        self.published.mkdir()
        self.requests()
        self._log_offset = (self._prefix / "access.log").stat().st_size

    def close(self):
        """Stops nginx and waits for its end."""
        self._process.terminate()
        try:
            self._process.wait(SECONDS)
        except subprocess.TimeoutExpired:
            self._process.kill()
            self._process.wait()

    def _start(self, user):
        program = shutil.which("nginx", path=_SEARCH_PATH)
        assert program, "nginx was not found: 'apt-get install nginx-light'"
        with socket.socket() as reservation:
            # nginx sets this option too, so both can have the port and nobody else takes it.
            reservation.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEPORT, 1)
            reservation.bind(("127.0.0.1", 0))
            self.port = reservation.getsockname()[1]
            self.url = f"http://127.0.0.1:{self.port}"
            config = self._prefix / "nginx.conf"
            text = _CONFIG.read_text().replace("@PORT@", str(self.port))
            if user != "root":  # only the workers of a master have other rights
                text = text.replace("user root;", f"user {user};")
                text = text.replace("master_process off;", "")
            config.write_text(text)
            more = self._prefix / "more"
            more.mkdir(exist_ok=True)
            (more / "locations.conf").write_text(_LOCATIONS.format(url=self.url))
            with open(self._prefix / "output", "wb") as output:
                self._process = subprocess.Popen(
                    namespace.ending_with_us([program, "-p", str(self._prefix), "-c", str(config)]),
                    env={"PATH": _SEARCH_PATH}, stdin=subprocess.DEVNULL, stdout=output,
                    stderr=output, start_new_session=True)
            try:
                self._wait_until_ready()
            except (OSError, AssertionError) as error:
                self.close()
                raise AssertionError((self._prefix / "output").read_text()) from error

    def _wait_until_ready(self):
        def answers():
            try:
                return self._get("/ready") == 204
            except ConnectionRefusedError:
                assert self._process.poll() is None, "nginx has ended"
                return False

        wait_until(answers, "an answer of nginx")

    def _get(self, path):
        connection = http.client.HTTPConnection("127.0.0.1", self.port, timeout=SECONDS)
        try:
            connection.request("GET", path)
            return connection.getresponse().status
        finally:
            connection.close()
