"""The updates that are disturbed: the files on the host, and those on the server."""

import dataclasses
import hashlib
import os
import typing

from harness import config_xml, package
from harness.software import INSTALLED_VERSION, NEW_VERSION, PACKAGE_PATH, VERSION_PATH

MODULES = ("norvak_ipfilter", "tessel_linux", "quorin_linux")

# If a file of this name exists next to the install directory, the script removes it, then stops in
# the middle of its work and kills the whole run.
INTERRUPTIONS = ("interrupt-tar", "interrupt-script", "interrupt-startup")


def _filling(name, size):
    """Bytes that differ from those of every other file, and from block to block."""
    blocks = (hashlib.sha256(f"{name} {i}".encode()).digest() for i in range(size // 32 + 1))
    return b"".join(blocks)[:size]


# _LARGE: more than a copy writes with one system call, so that a copy can be truncated. _MEDIUM:
# more than a transfer writes at once, so that a download can be truncated.
_LARGE = 150_000
_MEDIUM = 20_000
_SMALL = 900

NEW_FILES = {
    "norvak_ipfilter.ko": _filling("new norvak_ipfilter", _SMALL),
    "tessel_linux.ko": _filling("new tessel_linux", _LARGE),
    "quorin_linux.ko": _filling("new quorin_linux", _MEDIUM),
    "template/norvak_default_rule.xml": _filling("new rules", _LARGE),
    "nginx/bin/nginx": b"\x7fELF" + _filling("new nginx", _LARGE),
    "nginx/md5": b"1.24.0-2\n",
    "norvak_agent": _filling("new agent", _MEDIUM),
}
_OLD_FILES = {
    "norvak_ipfilter.ko": _filling("old norvak_ipfilter", _SMALL),
    "tessel_linux.ko": _filling("old tessel_linux", _LARGE - 3000),
    "quorin_linux.ko": _filling("old quorin_linux", _SMALL),
    "template/norvak_default_rule.xml": _filling("old rules", _SMALL),
    "template/system_rule.dat": hashlib.md5(_filling("old rules", _SMALL)).hexdigest().encode(),
    "nginx/bin/nginx": b"\x7fELF" + _filling("old nginx", _MEDIUM),
    "nginx/md5": b"1.24.0-1\n",
    "norvak_agent": _filling("old agent", _SMALL),
    "runlog/kernel_version": b"2.6.18-164",
}
_PROGRAMS = ("nginx/bin/nginx", "norvak_agent")

# The id is recorded first, so that the test can stop every agent. The pid file is complete or
# missing.
_STARTUP = """\
#!/bin/sh
cd "$(dirname "$0")" || exit 1
if rm ../interrupt-startup 2>/dev/null; then kill -KILL 0; fi
setsid sleep 300 <&- >&- 2>&- &
echo $! >>../agents
{ echo $! >norvak.pid.start && mv norvak.pid.start norvak.pid; } || rm -f norvak.pid.start
"""

# $2 is the package, $4 the directory to unpack it in.
_TAR = """\
#!/bin/sh
if rm "$(dirname "$0")/../../interrupt-tar" 2>/dev/null; then
  tar xf "$2" -C "$4" update
  kill -KILL 0
fi
exec tar "$@"
"""

_SCRIPT = """\
#!/bin/sh
put() {
  if ! { cp "$1" "$2.put" && chmod "$3" "$2.put" && mv "$2.put" "$2"; }; then
    rm -f "$2.put"
    exit 1
  fi
}
put norvak_agent ../../norvak_agent 755
if rm ../../../interrupt-script 2>/dev/null; then kill -KILL 0; fi
if [ -e config.xml ]; then put config.xml ../../config.xml 644; fi
"""

# What starts a command, in the order of an agent software update.
_SOFT_COMMANDS = ("tool/tar", "the package's script", "startup.sh")


@dataclasses.dataclass(frozen=True)
class Update:
    """An update of a host with old versions of everything, from a server with new ones."""

    key: str
    title: str
    arguments: typing.Tuple[str, ...]
    work_dir: str
    commands: typing.Tuple[str, ...] = ()
    update_type: str = "0"  # on the host
    mode: str = ""  # of the agent software
    server_dir: str = ""
    package_update_type: str = ""  # in the package's config.xml; empty if the package has none

    def lay_out(self, host, url):
        """Installs the old version of everything on @a host."""
        for name, content in _OLD_FILES.items():
            host.write(name, content, 0o755 if name in _PROGRAMS else 0o644)
        host.write("config.xml", self.old_config(url))
        host.write("startup.sh", _STARTUP, 0o755)
        host.write("tool/tar", _TAR, 0o755)

    def old_config(self, url):
        return config_xml({
            "update_host": url + self.server_dir, "update_type": self.update_type,
            "version": INSTALLED_VERSION, "kernel_update_host": url, "nginx_update_host": url})

    def other_configs(self, url):
        """The contents of config.xml between the old and the new one, with their names."""
        if not self.package_update_type:
            return []
        new_version = "" if self.arguments[1] == "1" else NEW_VERSION
        return [("config.xml", "the package's", self._package_config(url, "abcdef0.0.0")),
                ("config.xml", "the package's with the new version",
                 self._package_config(url, new_version))]

    def publish(self, server):
        """Puts a new version and its package on the server, for an update of the agent software."""
        if not self.server_dir:
            return
        files = {"update": _SCRIPT, "norvak_agent": NEW_FILES["norvak_agent"]}
        if self.package_update_type:
            files["config.xml"] = self._package_config(server.url, "abcdef0.0.0")
        directory = self.server_dir[1:]
        server.publish({directory + VERSION_PATH: f"{NEW_VERSION}\n".encode(),
                        directory + PACKAGE_PATH: package(files)})

    def _package_config(self, url, version):
        return config_xml({
            "update_host": url + self.server_dir, "version": version,
            "update_type": self.package_update_type, "kernel_update_host": url,
            "nginx_update_host": url})


UPDATES = (
    Update("soft-automatic", "Type 0, automatic: the agent software", ("0", "0"),
           "update_norvak_soft", _SOFT_COMMANDS, mode="automatic", server_dir="/a",
           package_update_type="1"),
    Update("soft-automatic-bare", "Type 0, automatic, with a package that leaves config.xml alone",
           ("0", "0"), "update_norvak_soft", _SOFT_COMMANDS,
           mode="automatic, config.xml left alone", server_dir="/b"),
    Update("soft-manual", "Type 0, manual: the agent software", ("0", "1"), "update_norvak_soft",
           _SOFT_COMMANDS, mode="manual", server_dir="/c", update_type="1",
           package_update_type="0"),
    Update("kernel", "Type 1: the kernel modules", ("1",), "update_norvak_kernel"),
    Update("nginx", "Type 2: the web server program", ("2", "1.24", "64-bit"),
           "update_norvak_nginx"),
    Update("rule", "Type 3: the protection rules", ("3",), "update_norvak_rule"),
)

# If config.xml is a mount point, only the updater changes it. The first makes it longer, the second
# shorter.
BARE_UPDATES = (
    UPDATES[1],
    Update("soft-manual-bare", "Type 0, manual, with a package that leaves config.xml alone",
           ("0", "1"), "update_norvak_soft", _SOFT_COMMANDS, server_dir="/d"),
)


def _digest_line(content):
    return f"{hashlib.md5(content).hexdigest()}\n".encode()


def publish(server, kernel_dir):
    """Publishes everything that the updates look for.

    @param kernel_dir  where on the server this machine looks for its modules
    """
    for update in {*UPDATES, *BARE_UPDATES}:
        update.publish(server)
    for name in MODULES:
        content = NEW_FILES[f"{name}.ko"]
        server.publish({f"{kernel_dir}/{name}/md5": _digest_line(content),
                        f"{kernel_dir}/{name}/{name}.ko": content})
    rules = NEW_FILES["template/norvak_default_rule.xml"]
    server.publish({
        "tarn_rule/md5": _digest_line(rules),
        "tarn_rule/norvak_default_rule.xml": rules,
        "nginx_new/x64/1.24/md5": NEW_FILES["nginx/md5"],
        "nginx_new/x64/1.24/nginx": NEW_FILES["nginx/bin/nginx"]})


def kernel_dir(requests):
    """Where this machine's modules are, from the @a requests of a run that looked for them."""
    first = next(request for request in requests if request.startswith("GET /kernels/"))
    return os.path.dirname(os.path.dirname(first[len("GET /"):]))
