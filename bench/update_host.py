"""An agent's install directory, and an update server that has something new for it."""

import os
import pathlib
import shutil
import signal
import subprocess
import sys
import time

sys.path.append(str(pathlib.Path(__file__).parents[1] / "tests/system"))

from harness.kernel import MODULES, digest  # noqa: E402
from harness.nginx import Nginx  # noqa: E402
from harness.package import DEFAULT_UPDATE_SCRIPT, config_xml, package  # noqa: E402

# Agents are started many at a time, so that most runs do not follow a start and its pause.
_AGENTS = 50
_AGENTS_START_SECONDS = 0.2

# Files are sent with sendfile, as distributions configure nginx, so that runs do not wait for the
# server; below /plain/ nginx uses its own default. Modules are published once, for whatever kernel
# this machine runs.
_NGINX_CONFIG = """\
access_log off;
sendfile on;
rewrite ^/kernels/.*/([^/]+/[^/]+)$ /kernels/$1;
location /plain/ { sendfile off; alias published/; }
"""

_OLD_VERSION = "norvak3.1.9"
_NEW_VERSION = "norvak3.1.10"


class Server:
    """nginx on loopback, on one processor."""

    def __init__(self, scratch, cpu):
        self.cpu = cpu
        prefix = scratch / "server"
        (prefix / "more").mkdir(parents=True)
        (prefix / "more/bench.conf").write_text(_NGINX_CONFIG)
        all_cpus = os.sched_getaffinity(0)
        os.sched_setaffinity(0, {cpu})  # nginx inherits it
        self._nginx = Nginx(prefix)
        os.sched_setaffinity(0, all_cpus)
        self.url = self._nginx.url
        self.tree = self._nginx.published

    def publish(self, path, content):
        """Publishes a file. @return its address"""
        self._nginx.publish({path: content})
        return f"{self.url}/{path}"

    def publish_updates(self, payload):
        """Publishes an update of each type. In each, one file is as large as @a payload."""
        self.publish("norvak/norvak_agent_new_version.txt", f"{_NEW_VERSION}\n".encode())
        agent = package({"update": DEFAULT_UPDATE_SCRIPT, "norvak_agent": payload})
        for family in ("x64", "x86"):
            self.publish(f"norvak/{family}/nvupdate.tar", agent)
        self.publish_modules(payload)
        self.publish("nginx_new/x64/1.24/md5", f"{digest(payload)}\n".encode())
        self.publish("nginx_new/x64/1.24/nginx", b"\x7fELF" + payload)
        self.publish("tarn_rule/md5", f"{digest(payload)}\n".encode())
        self.publish("tarn_rule/norvak_default_rule.xml", payload)

    def publish_modules(self, payload):
        """Publishes the kernel modules, of which the first is @a payload."""
        for name in MODULES:
            content = payload if name == MODULES[0] else name.encode()
            self.publish(f"kernels/{name}/md5", f"{digest(content)}\n".encode())
            self.publish(f"kernels/{name}/{name}.ko", content)

    def close(self):
        self._nginx.close()


class Host:
    """An install directory in which every update has something to do."""

    def __init__(self, path, server):
        self.path = path
        self._server = server
        self._agents = []  # the last one is that of the host, if the host runs one
        self._runs_agent = False
        for directory in ("runlog", "template", "tool", "nginx/bin"):
            (path / directory).mkdir(parents=True)
        (path / "tool/tar").symlink_to(shutil.which("tar"))
        self._write("startup.sh", b"#!/bin/sh\n")
        (path / "startup.sh").chmod(0o755)

    def outdate(self):
        """Restores the old files. Afterwards no agent runs."""
        url = self._server.url
        self._write("config.xml", config_xml({
            "update_host": url, "kernel_update_host": url, "nginx_update_host": url,
            "update_type": "0", "version": _OLD_VERSION}))
        for name in MODULES:
            self._write(f"{name}.ko", b"an older build")
        self._write("nginx/bin/nginx", b"an older build")
        self._write("nginx/md5", b"an older build\n")
        self._write("template/norvak_default_rule.xml", b"<rules/>")
        self._write("template/system_rule.dat", b"the digest of older rules\n")
        (self.path / "runlog/update.log").unlink(missing_ok=True)
        (self.path / "norvak.pid").unlink(missing_ok=True)
        self._runs_agent = False

    def run_agent(self):
        """Runs a process as the agent, on the server's processor."""
        if self._agents and self._agents[-1].returncode is not None:
            self._agents.pop()
        if not self._agents:
            self._agents = [subprocess.Popen(["sleep", "3600"]) for _ in range(_AGENTS)]
            for agent in self._agents:
                os.sched_setaffinity(agent.pid, {self._server.cpu})
            time.sleep(_AGENTS_START_SECONDS)
        self._write("norvak.pid", f"{self._agents[-1].pid}\n".encode())
        self._runs_agent = True

    def close(self):
        for agent in self._agents:
            agent.kill()
            agent.wait()

    def check(self, update):
        """Ends the measurement unless the run of type @a update was successful."""
        {"0": self._check_version, "1": self._check_modules, "2": self._check_web_server,
         "3": self._check_rules}[update]()

    def _check_version(self):
        self._check_agent()
        assert f'"{_NEW_VERSION}"' in (self.path / "config.xml").read_text()

    def _check_modules(self):
        for name in MODULES:
            self._check_copy(f"kernels/{name}/{name}.ko", f"{name}.ko")

    def _check_web_server(self):
        self._check_copy("nginx_new/x64/1.24/nginx", "nginx/bin/nginx")
        self._check_copy("nginx_new/x64/1.24/md5", "nginx/md5")

    def _check_rules(self):
        self._check_agent()
        self._check_copy("tarn_rule/norvak_default_rule.xml", "template/norvak_default_rule.xml")

    def _check_agent(self):
        assert not self._runs_agent or self._agents[-1].wait(1) == -signal.SIGKILL

    def _check_copy(self, published, installed):
        published, installed = self._server.tree / published, self.path / installed
        assert os.path.getsize(published) == os.path.getsize(installed), installed

    def _write(self, name, content):
        pathlib.Path(self.path / name).write_bytes(content)
