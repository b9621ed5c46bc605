"""The updates and each of their requests, with the log of a run in which one fails."""

import dataclasses
from typing import Callable, Dict, List, Optional

import pytest

from . import kernel, rules, software, web_server
from .kernel import FIRST
from .package import package


@dataclasses.dataclass
class Update:
    """An update that installs everything, with the log and the changes of its success."""

    arguments: List[str]
    setting: str  # with the address of the server
    prepare: Callable  # called with the host: installs old versions
    publish: Callable  # called with the server
    requests: List[str]
    log: List[str]
    changes: List[str]
    kills_agent: bool = False
    settings: Dict[str, str] = dataclasses.field(default_factory=dict)  # additional settings
    uname: Optional[Dict[str, str]] = None


@dataclasses.dataclass
class Request:
    """One request of an update, and the log of a run in which it fails.

    Placeholders in these logs: None for the line of the download itself, {url} for the server's
    address, {root} for the install directory.
    """

    update: Update
    index: int
    body: bytes
    broken: List[Optional[str]]  # for a transfer that fails
    page: Optional[List[str]]  # for an error page of several lines; None if it is accepted
    empty: Optional[List[str]]  # for an empty body; None if it is accepted
    first_lines: List[str] = dataclasses.field(default_factory=list)  # logged before the request

    @property
    def path(self):
        return self.update.requests[self.index].split(" ")[1]

    @property
    def requests(self):
        """The requests of a run that ends after this one."""
        return self.update.requests[:self.index + 1]


KERNEL = Update(
    ["1"], "kernel_update_host",
    lambda host: kernel.install(host, *kernel.MODULES, content=b"an older build\n"),
    kernel.publish_modules, kernel.get_all(*kernel.MODULES),
    [*kernel.were_updated(*kernel.MODULES), ""],
    [f"+{kernel.RECORD}", *(f"~{kernel.installed(name)}" for name in sorted(kernel.MODULES))],
    uname=kernel.UNAME)

RULES = Update(
    ["3"], "kernel_update_host", rules.install_rules, rules.publish_rules,
    [rules.GET_LIST, rules.GET_RULES], rules.UPDATED,
    ["-norvak.pid", f"~{rules.RULES}"], kills_agent=True)

WEB_SERVER = Update(
    ["2", web_server.VERSION_DIR, "64-bit"], "nginx_update_host", web_server.install_build,
    web_server.publish_build, [web_server.GET_LIST, web_server.GET_PROGRAM], web_server.UPDATED,
    [f"~{web_server.PROGRAM}", f"~{web_server.IDENTIFICATION}"])

AGENT = Update(
    ["0", "0"], "update_host", lambda host: None, software.publish_update,
    [software.GET_VERSION, software.GET_PACKAGE], software.UPDATED, ["-norvak.pid", "~config.xml"],
    kills_agent=True, settings={"update_type": "0", "version": software.INSTALLED_VERSION})

AGENT_BY_HAND = dataclasses.replace(
    AGENT, arguments=["0", "1"], requests=[software.GET_PACKAGE])

KERNEL_LIST = Request(
    KERNEL, 0, f"{kernel.digest(kernel.new(FIRST))}\n".encode(),
    broken=[None, "[KERNEL] download norvak_ipfilter MD5 failed",
            "[KERNEL] check kernel norvak_ipfilter MD5 failed", ""],
    page=["[KERNEL] download MD5 file is abnormal",
          "[KERNEL] check kernel norvak_ipfilter MD5 failed", ""],
    empty=["[KERNEL] open MD5 template file failed",
           "[KERNEL] check kernel norvak_ipfilter MD5 failed", ""])

KERNEL_MODULE = Request(
    KERNEL, 1, kernel.new(FIRST),
    broken=[None, "[KERNEL] download norvak_ipfilter kernel failed",
            "[KERNEL] download kernel norvak_ipfilter failed", ""],
    page=kernel.was_refused(FIRST), empty=kernel.was_refused(FIRST))

RULE_LIST = Request(
    RULES, 0, f"{rules.digest()}\n".encode(),
    broken=[None, *rules.NOTHING_TO_DO], page=rules.NOTHING_TO_DO, empty=rules.NOTHING_TO_DO)

RULE_FILE = Request(
    RULES, 1, rules.NEW_RULES,
    broken=[None, "[RULES] update tarn rules failed", ""],
    page=rules.REFUSED, empty=rules.REFUSED)

IDENTIFICATION = Request(
    WEB_SERVER, 0, web_server.NEW_LINE,
    broken=[None, "[NGINX] download nginx failed", ""], page=None, empty=None)

PROGRAM = Request(
    WEB_SERVER, 1, web_server.NEW_PROGRAM,
    broken=["[NGINX]new version is exist, download now", None, "[NGINX] download nginx failed", ""],
    page=web_server.REFUSED, empty=web_server.REFUSED,
    first_lines=["[NGINX]new version is exist, download now"])

VERSION = Request(
    AGENT, 0, software.VERSION_LINE,
    broken=[None, "[SOFT] download file failed [url: {url}/norvak/norvak_agent_new_version.txt] "
            "[file: {root}/update_norvak_soft/new_version]", *software.NO_VERSION],
    page=software.NO_VERSION, empty=software.NO_VERSION)

PACKAGE = Request(AGENT, 1, package(), broken=[None, *software.NO_PACKAGE],
                  page=software.NOT_UNPACKED, empty=software.NOT_UNPACKED)

PACKAGE_ALONE = dataclasses.replace(PACKAGE, update=AGENT_BY_HAND, index=0)

UPDATES = [
    pytest.param(KERNEL, id="kernel"),
    pytest.param(RULES, id="rules"),
    pytest.param(WEB_SERVER, id="web server"),
]

# Of the agent software update; those of the other updates are below.
AGENT_REQUESTS = [
    pytest.param(VERSION, id="version"),
    pytest.param(PACKAGE, id="package"),
    pytest.param(PACKAGE_ALONE, id="package, by hand"),
]

REQUESTS = [
    pytest.param(KERNEL_LIST, id="MD5 list of a module"),
    pytest.param(KERNEL_MODULE, id="module"),
    pytest.param(RULE_LIST, id="MD5 of the rules"),
    pytest.param(RULE_FILE, id="rules"),
    pytest.param(IDENTIFICATION, id="identification"),
    pytest.param(PROGRAM, id="program"),
]
