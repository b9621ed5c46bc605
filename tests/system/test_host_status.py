"""`norvak_host status` after real runs, on every path through the updater."""

import dataclasses
import os
import shutil
import subprocess
import threading
import time
from typing import Callable, Dict, List, Optional

import pytest

from harness import (ABORTED, FAILED, Reply, http_reply, kernel, rules, software, web_server)
from harness import status as host_status
from harness.kernel import FIRST, MODULES, QUORIN, TESSEL
from harness.package import package
from harness.software import PACKAGE_PATH_64 as PACKAGE_PATH  # kernel.UNAME names such a machine
from harness.status import CRITICAL, LEVELS, UNKNOWN, WARNING, outcome, read_json, status
from harness.transfers import transfer_failed
from harness.waiting import SECONDS

# A reply that ends early, and libcurl's result for it.
BROKEN = http_reply(b"cut", length=100)
PARTIAL = transfer_failed(18)
NO_URL = transfer_failed(3)

PAGE = b"<html>\nnot here\n</html>\n"


@dataclasses.dataclass
class Path:
    """A path through the updater, and what `status` makes of it."""

    name: str
    arguments: List[str]
    outcome: str
    lines: List[str]  # the log lines that it names
    settings: Optional[Dict[str, str]] = None  # {url}: the server's address; None: no config.xml
    files: Dict[str, Optional[bytes]] = dataclasses.field(default_factory=dict)  # None: removed
    replies: Dict[str, Reply] = dataclasses.field(default_factory=dict)
    prepare: Callable = lambda host, server: None
    exit_status: int = 255
    level: Optional[int] = None  # the exit status, if not that in LEVELS


SOFT = {"update_host": "{url}", "update_type": "0", "version": software.INSTALLED_VERSION}
SERVER = {"kernel_update_host": "{url}"}
NGINX = {"nginx_update_host": "{url}"}
NGINX_RUN = ["2", web_server.VERSION_DIR, "64-bit"]

SOFT_NOT_NEEDED = "[SOFT] norvak is not need to update, or check new version fail"
SOFT_FAILED = "[SOFT] update norvak agent failed"
NO_VERSION = "[SOFT] call check_norvak_new_version_exist->download_norvak_version_file faild"
NOT_INSTALLED = "[SOFT] call run_update_norvak_agent->update_now failed"
NO_PACKAGE = "[SOFT] call run_update_norvak_agent->download_norvak_update_package failed"
RULES_CURRENT = "[RULES] don't need to update"
NGINX_FAILED = "[NGINX] download nginx failed"
DOWNLOADING = "[NGINX]new version is exist, download now"


def _agent_comes_back(host, _server):
    """Lets startup.sh start an agent, as on a real host."""
    agent = host.start_agent()
    host.write_script("startup.sh", f"echo {agent.pid} >{host.path}/norvak.pid")
    host.write("norvak.pid", "")
    host.remove("norvak.pid")
    host.remember()


def _config_goes(host, server, path, body):
    server.reply(path, http_reply(length=len(body), pieces=[lambda: host.remove("config.xml"), body]))


SOFT_PATHS = [
    Path("no config.xml", ["0", "0"], "failed",
         ["[SOFT] call get_update_method function failed, config path: {root}/config.xml",
          "[SOFT] read config.xml fail"]),
    Path("malformed config.xml", ["0"], "failed",
         ["[SOFT] call get_update_method function failed, config path: {root}/config.xml",
          "[SOFT] read config.xml fail"], files={"config.xml": b"<norvak>"}),
    Path("set to manual", ["0", "0"], "refused",
         ["[SOFT] update type is manual, but this is autoupdate subroutine"],
         {**SOFT, "update_type": "1"}),
    Path("current version", ["0", "0"], "nothing-to-do", [SOFT_NOT_NEEDED],
         {**SOFT, "version": software.NEW_VERSION}),
    Path("no update_host", ["0", "0"], "failed", [NO_VERSION, SOFT_NOT_NEEDED],
         {"version": software.INSTALLED_VERSION}),
    Path("version file breaks off", ["0", "0"], "failed",
         [PARTIAL, "[SOFT] download file failed [url: {url}" + software.VERSION_PATH +
          "] [file: {root}/update_norvak_soft/new_version]", NO_VERSION, SOFT_NOT_NEEDED], SOFT,
         replies={software.VERSION_PATH: BROKEN}),
    Path("version file is a page", ["0", "0"], "failed", [NO_VERSION, SOFT_NOT_NEEDED], SOFT,
         replies={software.VERSION_PATH: http_reply(PAGE, "404 Not Found")}),
    Path("version file is empty", ["0", "0"], "failed", [NO_VERSION, SOFT_NOT_NEEDED], SOFT,
         replies={software.VERSION_PATH: http_reply()}),
    Path("offered version is too short", ["0", "0"], "unfinished", [], SOFT,
         replies={software.VERSION_PATH: http_reply(b"3.1\n")}, exit_status=ABORTED),
    Path("installed version is too short", ["0", "0"], "unfinished", [], {**SOFT, "version": "3.1"},
         exit_status=ABORTED),
    Path("new version", ["0", "0"], "updated", ["[SOFT] update norvak agent success"], SOFT,
         prepare=_agent_comes_back, exit_status=0),
    Path("new version, but no agent afterwards", ["0", "0"], "updated",
         ["[SOFT] update norvak agent success"], SOFT, exit_status=0, level=CRITICAL),
    Path("manual run", ["0", "1"], "updated", ["[SOFT] update norvak agent success"],
         {**SOFT, "update_type": "1"}, prepare=_agent_comes_back, exit_status=0),
    Path("text as the update type", ["--help"], "nothing-to-do", [SOFT_NOT_NEEDED],
         {**SOFT, "version": software.NEW_VERSION}),
    Path("package breaks off", ["0", "0"], "failed", [PARTIAL, NO_PACKAGE, SOFT_FAILED], SOFT,
         replies={PACKAGE_PATH: BROKEN}),
    Path("manual run without update_host", ["0", "1"], "failed", [NO_PACKAGE, SOFT_FAILED], {}),
    Path("package is a page", ["0", "0"], "failed",
         ["call decompress_package failed", NOT_INSTALLED, SOFT_FAILED], SOFT,
         replies={PACKAGE_PATH: http_reply(PAGE, "404 Not Found")}),
    Path("no tar", ["0", "0"], "failed",
         ["call decompress_package failed", NOT_INSTALLED, SOFT_FAILED], SOFT,
         files={"tool/tar": None}),
    Path("package without a script", ["0", "0"], "failed",
         ["call exec_script failed", NOT_INSTALLED, SOFT_FAILED], SOFT,
         replies={PACKAGE_PATH: http_reply(package({"readme": "text"}))}),
    Path("script fails", ["0", "0"], "failed",
         ["call exec_script failed", NOT_INSTALLED, SOFT_FAILED], SOFT,
         replies={PACKAGE_PATH: http_reply(package({"update": "exit 3\n"}))}),
    Path("config.xml goes during the download", ["0", "0"], "failed", [NOT_INSTALLED, SOFT_FAILED],
         SOFT, prepare=lambda host, server: _config_goes(
             host, server, PACKAGE_PATH, package())),
    Path("script removes config.xml", ["0", "0"], "failed",
         ["[SOFT] call run_update_norvak_agent->update_config failed", SOFT_FAILED], SOFT,
         prepare=lambda host, server: server.reply(PACKAGE_PATH, http_reply(
             package({"update": f"#!/bin/sh\nrm {host.path}/config.xml\n"})))),
]

KERNEL_PATHS = [
    Path("no config.xml", ["1"], "unknown", kernel.are_current(*MODULES), exit_status=0),
    Path("no kernel_update_host", ["1"], "unknown", kernel.are_current(*MODULES), {},
         exit_status=0),
    Path("all current", ["1"], "nothing-to-do", kernel.are_current(*MODULES), SERVER,
         {f"{name}.ko": kernel.new(name) for name in MODULES}, exit_status=0),
    Path("all new", ["1"], "updated", kernel.were_updated(*MODULES), SERVER, exit_status=0),
    Path("the first new", ["1"], "updated",
         [*kernel.were_updated(FIRST), *kernel.are_current(TESSEL, QUORIN)], SERVER,
         {f"{name}.ko": kernel.new(name) for name in (TESSEL, QUORIN)}, exit_status=0),
    Path("the last new", ["1"], "updated",
         [*kernel.are_current(FIRST, TESSEL), *kernel.were_updated(QUORIN)], SERVER,
         {f"{name}.ko": kernel.new(name) for name in (FIRST, TESSEL)}, exit_status=0),
]
for _number, _name in enumerate(MODULES):
    _before = kernel.were_updated(*MODULES[:_number])
    _check_failed = f"[KERNEL] check kernel {_name} MD5 failed"
    _failed = f"[KERNEL] download kernel {_name} failed"
    KERNEL_PATHS += [
        Path(f"list of {_name} breaks off", ["1"], "failed",
             [*_before, PARTIAL, f"[KERNEL] download {_name} MD5 failed", _check_failed], SERVER,
             replies={kernel.list_path(_name): BROKEN}),
        Path(f"list of {_name} is empty", ["1"], "failed",
             [*_before, "[KERNEL] open MD5 template file failed", _check_failed], SERVER,
             replies={kernel.list_path(_name): http_reply()}),
        Path(f"list of {_name} is a page", ["1"], "failed",
             [*_before, "[KERNEL] download MD5 file is abnormal", _check_failed], SERVER,
             replies={kernel.list_path(_name): http_reply(PAGE, "404 Not Found")}),
        Path(f"{_name} breaks off", ["1"], "failed",
             [*_before, PARTIAL, f"[KERNEL] download {_name} kernel failed", _failed], SERVER,
             replies={kernel.module_path(_name): BROKEN}),
        Path(f"{_name} is a page", ["1"], "failed",
             [*_before, f"[KERNEL] check download {_name} kernel MD5 false", _failed], SERVER,
             replies={kernel.module_path(_name): http_reply(PAGE, "404 Not Found")}),
        Path(f"config.xml goes before {_name} is downloaded", ["1"], "failed", [*_before, _failed],
             SERVER, prepare=lambda host, server, name=_name: _config_goes(
                 host, server, kernel.list_path(name),
                 f"{kernel.digest(kernel.new(name))}\n".encode())),
    ]

NGINX_PATHS = [
    Path("new build", NGINX_RUN, "updated", [DOWNLOADING, "[NGINX] download nginx success"], NGINX,
         exit_status=0),
    Path("current build", NGINX_RUN, "nothing-to-do", ["[NGINX]is not new version", NGINX_FAILED],
         NGINX, {"nginx/md5": web_server.NEW_LINE}),
    Path("no config.xml", NGINX_RUN, "failed", [NGINX_FAILED]),
    Path("no nginx_update_host", NGINX_RUN, "failed", [NGINX_FAILED], {}),
    Path("missing arguments", ["2"], "failed", [NGINX_FAILED], NGINX),
    Path("identification breaks off", NGINX_RUN, "failed", [PARTIAL, NGINX_FAILED], NGINX,
         replies={web_server.LIST_PATH: BROKEN}),
    Path("program breaks off", NGINX_RUN, "failed", [DOWNLOADING, PARTIAL, NGINX_FAILED], NGINX,
         replies={web_server.PROGRAM_PATH: BROKEN}),
    Path("program is a page", NGINX_RUN, "failed", [DOWNLOADING, NGINX_FAILED], NGINX,
         replies={web_server.PROGRAM_PATH: http_reply(PAGE, "404 Not Found")}),
]

ENGINE = {f"{TESSEL}.ko": b"", f"{QUORIN}.ko": b""}
RULES_PATHS = [
    Path("new rules", ["3"], "updated", rules.UPDATED[:-1], SERVER, ENGINE, exit_status=0,
         level=CRITICAL),  # the updater leaves the agent stopped
    Path("current rules", ["3"], "nothing-to-do", [RULES_CURRENT], SERVER,
         {**ENGINE, rules.CURRENT: f"{rules.digest()}\n".encode()}),
    Path("no engine modules", ["3"], "unknown", [RULES_CURRENT], SERVER),
    Path("one engine module", ["3"], "unknown", [RULES_CURRENT], SERVER, {f"{QUORIN}.ko": b""}),
    Path("unreadable digest of the installed rules", ["3"], "unknown", [RULES_CURRENT], SERVER,
         ENGINE, prepare=lambda host, _server: host.write_unopenable(rules.CURRENT)),
    Path("no config.xml", ["3"], "failed", [NO_URL, RULES_CURRENT], None, ENGINE),
    Path("no kernel_update_host", ["3"], "failed", [NO_URL, RULES_CURRENT], {}, ENGINE),
    Path("digest breaks off", ["3"], "failed", [PARTIAL, RULES_CURRENT], SERVER, ENGINE,
         {rules.LIST_PATH: BROKEN}),
    # The log does not show it: docs/monitoring.md says so.
    Path("digest is a page", ["3"], "nothing-to-do", [RULES_CURRENT], SERVER, ENGINE,
         {rules.LIST_PATH: http_reply(PAGE, "404 Not Found")}),
    Path("rules break off", ["3"], "failed", [PARTIAL, "[RULES] update tarn rules failed"], SERVER,
         ENGINE, {rules.RULES_PATH: BROKEN}),
    Path("rules are a page", ["3"], "failed", rules.REFUSED[:-1], SERVER, ENGINE,
         {rules.RULES_PATH: http_reply(PAGE, "404 Not Found")}),
]

NAMES = {"soft": SOFT_PATHS, "kernel": KERNEL_PATHS, "nginx": NGINX_PATHS, "rules": RULES_PATHS}
PATHS = [pytest.param(name, path, id=f"{name}: {path.name}")
         for name, paths in NAMES.items() for path in paths]


def publish_everything(server):
    software.publish_update(server, path=PACKAGE_PATH)
    kernel.publish_modules(server)
    rules.publish_rules(server)
    web_server.publish_build(server)


def set_up(host, server, path):
    """Prepares the host and the server for @a path."""
    publish_everything(server)
    if path.settings is not None:
        host.configure(**{name: value.format(url=server.url)
                          for name, value in path.settings.items()})
    for name in ("nginx/bin", "nginx"):
        (host.root / name).mkdir(parents=True, exist_ok=True)
    for name, content in path.files.items():
        if content is None:
            host.remove(name)
        else:
            host.write(name, content)
    for request, reply in path.replies.items():
        server.reply(request, reply)
    path.prepare(host, server)


@pytest.mark.parametrize("name, path", PATHS)
def test_the_outcome_follows_from_the_run(host, scripted_server, name, path):
    set_up(host, scripted_server, path)
    before = int(time.time())
    run = host.update(*path.arguments, uname=kernel.UNAME)
    assert run.status == path.exit_status
    after = int(time.time())

    level, entry = outcome(host, name)
    assert entry.outcome == path.outcome, entry
    assert level == (LEVELS[path.outcome] if path.level is None else path.level)
    assert entry.texts() == [line.format(url=scripted_server.url, root=host.path)
                             for line in path.lines]
    if path.lines:
        assert before <= entry.first_line <= entry.last_line <= after
    else:
        assert entry.first_line is entry.last_line is None
    assert bool(entry.leftovers) == (run.status == ABORTED)
    # Of all types, the one that ran is the only one found; and it ran since the start.
    assert list(status(host)[1]) == [name]
    assert outcome(host, name, f"--since={before}")[1] == entry
    assert outcome(host, name, f"--since={after + 60}")[1].outcome == "unknown"


def run_path(host, server, path):
    set_up(host, server, path)
    assert host.update(*path.arguments, uname=kernel.UNAME).status == path.exit_status


def path_named(name, text):
    return next(path for path in NAMES[name] if path.name == text)


# Runs that do not end.


def started_run(host, server, path, stalled_request):
    """A run that waits for the answer to a request."""
    set_up(host, server, path)
    arrived = threading.Event()
    server.reply(stalled_request, Reply([arrived.set], "stall"))
    run = host.start(*path.arguments, uname=kernel.UNAME)
    assert arrived.wait(SECONDS)
    return run


STALLED = [
    pytest.param("soft", path_named("soft", "new version"), software.VERSION_PATH, [], id="version"),
    pytest.param("soft", path_named("soft", "manual run"), PACKAGE_PATH, [], id="package"),
    pytest.param("kernel", path_named("kernel", "all new"), kernel.list_path(FIRST), [],
                 id="first list"),
    pytest.param("kernel", path_named("kernel", "all new"), kernel.module_path(TESSEL),
                 kernel.were_updated(FIRST), id="second module"),
    pytest.param("kernel", path_named("kernel", "all current"), kernel.list_path(QUORIN),
                 kernel.are_current(FIRST, TESSEL), id="last list"),
    pytest.param("nginx", path_named("nginx", "new build"), web_server.LIST_PATH, [],
                 id="identification"),
    pytest.param("nginx", path_named("nginx", "new build"), web_server.PROGRAM_PATH, [DOWNLOADING],
                 id="program"),
    pytest.param("rules", path_named("rules", "new rules"), rules.LIST_PATH, [], id="digest"),
    pytest.param("rules", path_named("rules", "new rules"), rules.RULES_PATH, [], id="rules"),
]


@pytest.mark.parametrize("name, path, request_path, lines", STALLED)
def test_a_run_is_running_until_it_is_killed_and_unfinished_then(
        host, scripted_server, name, path, request_path, lines):
    run = started_run(host, scripted_server, path, request_path)
    level, entry = outcome(host, name)
    assert (level, entry.outcome, entry.leftovers) == (0, "running", [])
    others = [other for other in NAMES if other != name]
    assert [outcome(host, other)[1].outcome for other in others] == ["unknown"] * 3

    run.kill()
    level, entry = outcome(host, name)
    assert (level, entry.outcome) == (CRITICAL, "unfinished")
    assert entry.texts() == lines
    assert entry.leftovers[0].startswith(f"{host.path}/update_norvak_")
    assert (f"{host.path}/update" in entry.leftovers) == (request_path == PACKAGE_PATH)


def test_a_run_on_another_install_directory_is_not_this_hosts(make_host, scripted_server):
    here, there = make_host(), make_host()
    started_run(there, scripted_server, path_named("kernel", "all new"), kernel.list_path(FIRST))
    assert outcome(there, "kernel")[1].outcome == "running"
    assert outcome(here, "kernel")[1].outcome == "unknown"


def test_a_silent_end_after_a_good_run_is_noticed(host, scripted_server):
    run_path(host, scripted_server, path_named("kernel", "all new"))
    age_log(host, 3)  # a run that ends has two seconds to remove its directory
    run = started_run(host, scripted_server, path_named("kernel", "all current"),
                      kernel.list_path(FIRST))
    run.kill()
    level, entry = outcome(host, "kernel")
    assert (level, entry.outcome) == (CRITICAL, "unfinished")
    assert "update_norvak_kernel is newer" in entry.reason


def test_an_abort_after_a_good_run_is_noticed(host, scripted_server):
    run_path(host, scripted_server, path_named("soft", "current version"))
    age_log(host, 3)
    run_path(host, scripted_server, path_named("soft", "installed version is too short"))
    assert outcome(host, "soft")[1].outcome == "unfinished"


def test_an_old_leftover_does_not_change_the_verdict(host, scripted_server):
    run_path(host, scripted_server, path_named("soft", "new version"))
    host.write("update", b"")
    os.utime(host.root / "update", (1, 1))
    level, entry = outcome(host, "soft")
    assert (level, entry.outcome) == (0, "updated")
    assert entry.leftovers == [f"{host.path}/update"]


def test_a_result_without_its_empty_line_keeps_its_verdict(host, scripted_server):
    run_path(host, scripted_server, path_named("nginx", "current build"))
    log = host.log()
    assert log.endswith(b"\n\n")
    host.write("runlog/update.log", log[:-1])
    assert outcome(host, "nginx")[1].outcome == "nothing-to-do"


# Several runs.


def test_the_last_run_of_each_type_counts(host, scripted_server):
    for name, text in (("soft", "version file is a page"), ("kernel", "all new"),
                       ("nginx", "new build"), ("rules", "no kernel_update_host"),
                       ("soft", "current version"), ("nginx", "missing arguments")):
        set_up(host, scripted_server, path_named(name, text))
        host.update(*path_named(name, text).arguments, uname=kernel.UNAME)
        scripted_server.publish({software.VERSION_PATH[1:]: software.VERSION_LINE})
    level, entries = status(host)
    assert level == CRITICAL
    # The last configuration has no kernel_update_host, but this run installed modules.
    assert {name: entry.outcome for name, entry in entries.items()} == {
        "soft": "nothing-to-do", "kernel": "updated", "nginx": "failed", "rules": "failed"}
    level, entries = status(host, "kernel", "soft")
    assert (level, list(entries)) == (0, ["soft", "kernel"])


def test_runs_at_the_same_time_are_told_apart(host, scripted_server):
    publish_everything(scripted_server)
    for name in MODULES:
        host.write(f"{name}.ko", kernel.new(name))
    host.configure(update_host=scripted_server.url, version=software.NEW_VERSION,
                   kernel_update_host=scripted_server.url, nginx_update_host=scripted_server.url)
    scripted_server.reply(rules.LIST_PATH, BROKEN)
    scripted_server.reply(web_server.LIST_PATH, BROKEN)
    for _ in range(5):
        host.update_at_once(["0"], ["1"], NGINX_RUN, ["3"], ["7"], uname=kernel.UNAME)
        _, entries = status(host)
        assert entries["soft"].outcome == "nothing-to-do"
        assert entries["kernel"].outcome == "nothing-to-do"
        assert entries["nginx"].outcome == "failed"
        # The failed transfer before it may also be that of the web server.
        assert entries["rules"].outcome in ("failed", "unknown")


def test_an_unknown_type_belongs_to_no_run(host):
    assert host.update("7") == FAILED
    document = read_json(host.inspect("status", "--json"))
    assert document["types"] == []
    assert [finding["code"] for finding in document["findings"]] == ["unknown-type"]
    assert host.inspect("status").status == UNKNOWN


# Options.


def test_an_old_good_run_is_a_warning(host, scripted_server):
    run_path(host, scripted_server, path_named("nginx", "new build"))
    age_log(host, 3 * 86400)
    assert outcome(host, "nginx", "--max-age=4d")[0] == 0
    level, entry = outcome(host, "nginx", "--max-age=71h")
    assert (level, entry.outcome) == (WARNING, "updated")


def test_an_old_failure_stays_a_failure(host, scripted_server):
    run_path(host, scripted_server, path_named("nginx", "no nginx_update_host"))
    assert outcome(host, "nginx", "--max-age=0s")[0] == CRITICAL


def age_log(host, seconds):
    """Moves all time stamps back."""
    script = (r"""import datetime, re, sys
past = lambda found: (datetime.datetime.fromisoformat(found[1]) -
                      datetime.timedelta(seconds=%d)).isoformat(" ")
data = open(sys.argv[1]).read()
open(sys.argv[1], "w").write(re.sub(r"(?<=\[)(\d{4}-\d\d-\d\d \d\d:\d\d:\d\d)", past, data))""" % seconds)
    subprocess.run(["python3", "-c", script, str(host.root / "runlog/update.log")], check=True)


@pytest.mark.parametrize("arguments", [
    [], ["status", "agent"], ["status", "--max-age=3"], ["status", "--max-age=d"],
    ["status", "--since=-1"], ["status", "--since=now"], ["status", "--json", "--plugin"],
    ["status", "--plugin", "--prometheus=x"], ["status", "--color=red"], ["nothing"]])
def test_an_unusable_command_line_is_refused(host, arguments):
    run = host.inspect(*arguments)
    assert (run.status, run.stdout) == (host_status.USAGE, b"")
    assert run.stderr


# Rotated logs.

ROTATIONS = {
    "numbered": ["update.log.1"],
    "compressed": ["update.log.1.gz"],
    "by date": ["update.log-20260131"],
    "by date, compressed": ["update.log-20260131.gz"],
    "beside its compressed copy": ["update.log.1", "update.log.1.gz"],
}


@pytest.mark.parametrize("names", ROTATIONS.values(), ids=ROTATIONS.keys())
def test_rotated_logs_are_read(host, scripted_server, names):
    run_path(host, scripted_server, path_named("kernel", "all new"))
    rotate(host, names)
    assert outcome(host, "kernel")[1].outcome == "updated"
    # A run that goes on after the rotation.
    run_path(host, scripted_server, path_named("nginx", "new build"))
    assert {name: entry.outcome for name, entry in status(host)[1].items()} == {
        "kernel": "updated", "nginx": "updated"}


def rotate(host, names):
    log = host.root / "runlog/update.log"
    for name in names:
        target = log.with_name(name)
        if name.endswith(".gz"):
            with open(target, "wb") as file:
                subprocess.run(["gzip", "-c", str(log)], stdout=file, check=True)
        else:
            shutil.copy(log, target)
    log.unlink()


def test_the_newest_of_many_rotated_logs_counts(host, scripted_server):
    run_path(host, scripted_server, path_named("nginx", "new build"))
    for number in (10, 9, 2):
        shutil.copy(host.root / "runlog/update.log", host.root / f"runlog/update.log.{number}")
    host.remove("runlog/update.log")
    run_path(host, scripted_server, path_named("nginx", "no nginx_update_host"))
    rotate(host, ["update.log.1"])
    assert outcome(host, "nginx")[1].outcome == "failed"


def test_a_run_that_a_rotation_cut_in_two_is_whole(host, scripted_server):
    run_path(host, scripted_server, path_named("kernel", "all new"))
    lines = host.log().splitlines(keepends=True)
    host.write("runlog/update.log.1", b"".join(lines[:3]))
    host.write("runlog/update.log", b"".join(lines[3:]))
    _, entry = outcome(host, "kernel")
    assert (entry.outcome, entry.texts()) == ("updated", kernel.were_updated(*MODULES))


def test_the_search_ends_after_4_mib_without_the_option_all(host, scripted_server):
    run_path(host, scripted_server, path_named("kernel", "all new"))
    host.write("runlog/update.log", host.log() + b"some other line\n" * (5 << 16))
    level, entry = outcome(host, "kernel")
    assert (level, entry.outcome) == (UNKNOWN, "unknown")
    assert "--all" in entry.reason
    assert outcome(host, "kernel", "--all")[1].outcome == "updated"


# Log contents that must not change the result.


@pytest.mark.parametrize("noise", [
    b"\xff\xfe\xc3(\n", b"x" * 100000 + b"\n", b"[2026-01-01 00:00:00]\t\tsomething else\n",
    b"\0" * 5000, b"[2026-99-99 00:00:00]\t\t\n", b"\n" * 50, b"[RULES] update tarn rules failed\n"],
    ids=["invalid UTF-8", "long line", "another message", "NULs", "no date", "empty lines",
         "no time stamp"])
def test_noise_in_the_log_is_ignored(host, scripted_server, noise):
    run_path(host, scripted_server, path_named("kernel", "all new"))
    lines = host.log().splitlines(keepends=True)
    host.write("runlog/update.log", noise.join([b"", *lines, b""]))
    _, entry = outcome(host, "kernel")
    assert (entry.outcome, [text for text in entry.texts()]) == (
        "updated", kernel.were_updated(*MODULES))


def test_clocks_that_go_back_do_not_matter(host, scripted_server):
    run_path(host, scripted_server, path_named("soft", "version file is a page"))
    first = host.log()
    age_log(host, -3600)
    later = host.log()
    host.write("runlog/update.log", later + first)
    assert outcome(host, "soft")[1].outcome == "failed"
