"""`norvak_host preview`: what it says a run would do, and what a run then does."""

import dataclasses
import os
import pathlib
import signal
import struct
import subprocess
import time
from typing import Callable, List

import pytest

import test_host_status as paths
from harness import (ABORTED, FAILED, KILLED, OK, Reply, http_reply, kernel, namespace, rules,
                     software, unused_address, wait_until, web_server)
from harness.kernel import FIRST, MODULES, QUORIN, TESSEL
from harness.status import USAGE, outcome, read_json

CLEAN, NOT_CLEAN, UPDATE_AVAILABLE = 0, 1, 100

needs_64_bit_long = pytest.mark.skipif(
    struct.calcsize("P") < 8, reason="a 32-bit long saturates before the number is narrowed")

NGINX_ARGUMENTS = ["nginx", web_server.VERSION_DIR, "64-bit"]


def preview(host, *arguments, **options):
    """Runs `norvak_host preview --json`: its exit status and its object."""
    options.setdefault("uname", kernel.UNAME)
    run = host.inspect("preview", "--json", *arguments, **options)
    return run.status, read_json(run)


def codes(document, *severities):
    return {finding["code"] for finding in document["findings"]
            if not severities or finding["severity"] in severities}


def finding(document, code):
    return next(found for found in document["findings"] if found["code"] == code)


# Where the preview differs from the run: only a run finds it out, or its log does not show it.
UNFORESEEN = {
    ("soft", "package breaks off"): "updated",
    ("soft", "package without a script"): "updated",
    ("soft", "script fails"): "updated",
    ("soft", "script removes config.xml"): "updated",
    ("kernel", "no config.xml"): "nothing-to-do",
    ("kernel", "no kernel_update_host"): "nothing-to-do",
    **{("kernel", f"{name} breaks off"): "updated" for name in MODULES},
    ("nginx", "program breaks off"): "updated",
    ("rules", "no engine modules"): "nothing-to-do",
    ("rules", "one engine module"): "nothing-to-do",
    ("rules", "unreadable digest of the installed rules"): "nothing-to-do",
    ("rules", "rules break off"): "updated",
}
NO_PREVIEW = ("manual run", "missing arguments", "config.xml goes")
FORESEEABLE = [param for param in paths.PATHS
               if not param.values[1].name.startswith(NO_PREVIEW)]


@pytest.mark.parametrize("name, path", FORESEEABLE)
def test_the_preview_foresees_the_outcome(host, scripted_server, name, path):
    paths.set_up(host, scripted_server, path)
    host.remember()
    expected = UNFORESEEN.get((name, path.name), path.outcome)
    status, document = preview(host, *(NGINX_ARGUMENTS if name == "nginx" else [name]))
    assert [(entry["type"], entry["outcome"]) for entry in document["types"]] == [(name, expected)]
    assert status == (NOT_CLEAN if codes(document, "error") else CLEAN), document
    assert host.changes() == []
    assert not host.log()
    assert host.agent.is_alive()
    # A run that is foreseen to fail has a reason among the findings.
    if expected in ("failed", "unfinished"):
        assert codes(document, "error")


def test_a_run_sends_the_requests_that_the_preview_sends_and_then_those_for_files(
        host, scripted_server):
    everything_new(host, scripted_server)
    _, document = preview(host)
    asked = [f"GET {answer['url'][len(scripted_server.url):]}" for answer in document["answers"]]
    seen = scripted_server.requests()
    assert [request for request in seen if request.startswith("GET ")] == asked
    heads = [request[5:] for request in seen if request.startswith("HEAD ")]
    for arguments in (["0"], ["1"], ["3"]):
        host.update(*arguments, uname=kernel.UNAME)
    gets = scripted_server.requests()[len(seen):]
    assert sorted(gets) == sorted(asked + [f"GET {path}" for path in heads])


def everything_new(host, server, **settings):
    """A sound host for which the server has something new of every type."""
    paths.publish_everything(server)
    for name in (TESSEL, QUORIN):
        host.write(f"{name}.ko", b"old")
    host.write("nginx/bin/nginx", b"old")
    host.configure(**{"update_host": server.url, "version": software.INSTALLED_VERSION,
                      "kernel_update_host": server.url, "nginx_update_host": server.url, **settings})


def test_a_sound_host_has_no_errors(host, scripted_server):
    everything_new(host, scripted_server)
    status, document = preview(host)
    assert status == CLEAN
    assert codes(document) == {"agent-stays-stopped"}
    parts = {part["name"]: part for entry in document["types"] for part in entry["parts"]}
    assert list(parts) == ["agent", *MODULES, "rules"]
    assert parts["agent"] == {"name": "agent", "installed": software.INSTALLED_VERSION,
                              "offered": software.NEW_VERSION, "outcome": "updated"}
    assert parts[TESSEL]["installed"] == kernel.digest(b"old")
    assert parts[TESSEL]["offered"] == kernel.digest(kernel.new(TESSEL))
    assert parts[FIRST]["installed"] == ""


def test_check_tells_by_its_exit_status_whether_there_is_an_update(host, scripted_server):
    everything_new(host, scripted_server)
    check = ["preview", "--check"]
    assert host.inspect(*check, uname=kernel.UNAME).status == UPDATE_AVAILABLE
    everything_new(host, scripted_server, version=software.NEW_VERSION)
    assert host.inspect(*check, "soft", uname=kernel.UNAME).status == CLEAN
    host.remove("config.xml")
    assert host.inspect(*check, uname=kernel.UNAME).status == NOT_CLEAN


@pytest.mark.parametrize("arguments", [
    ["agent"], ["soft", "kernel"], ["nginx"], ["nginx", "1"], ["nginx", "1", "2", "3"],
    ["--timeout=0"], ["--timeout=soon"]])
def test_an_unusable_command_line_is_refused(host, arguments):
    run = host.inspect("preview", *arguments)
    assert (run.status, run.stdout) == (USAGE, b"")
    assert run.stderr


# Errors: each is caused, then reported by the preview, then does harm in a run.


@dataclasses.dataclass
class Trap:
    """A condition, and how a run shows that it does harm."""

    code: str
    preview: List[str]
    arguments: List[str]
    set: Callable  # called with host and server, on a host with everything new
    suffer: Callable  # called with the host, the server and the run
    options: dict = dataclasses.field(default_factory=dict)


def _failed(name):
    def suffer(host, _server, run):
        assert run.status == 255
        assert outcome(host, name)[1].outcome == "failed"
    return suffer


def _configure(**settings):
    return lambda host, server: everything_new(host, server, **settings)


def _reply(path, body, status="200 OK"):
    return lambda host, server: server.reply(path, http_reply(body, status))


def _remove(name):
    return lambda host, server: host.remove(name)


def _aborted(host, _server, run):
    assert run.status == ABORTED
    assert outcome(host, "soft")[1].outcome == "unfinished"


def _current(text):
    """The run ends as if there were nothing new."""
    def suffer(host, _server, run):
        assert run == FAILED
        assert host.log_texts()[-2] == text
    return suffer


def _nothing_done(host, server, run):
    assert run == OK
    assert server.requests() == []


def _agent_stays_down(host, _server, run):
    assert run.status == 0
    assert host.agent.was_killed()
    assert [step.who for step in host.trace()] == ["tool/tar"]


def _lost(name):
    """The run reports success, but the file is not there."""
    def suffer(host, _server, run):
        assert run == OK
        assert not host.exists(name)
    return suffer


def _old(name):
    """The run reports success, but the old file is still there."""
    def suffer(host, _server, run):
        assert run == OK
        assert host.read(name) == b"old"
    return suffer


def _nothing_downloaded(host, server, run):
    assert run == FAILED
    assert not host.exists(f"{FIRST}.ko")


def _foreign_package(host, server, run):
    assert run == OK
    assert server.requests()[-1] == f"GET {software.PACKAGE_PATH_32}"


def _foreign_modules(host, server, run):
    assert run == OK
    assert all("/x64/" in request for request in server.requests())


def _ro(name):
    return {"mounts": lambda host: [namespace.bind_read_only(f"{host.path}/{name}".rstrip("/"))]}


AARCH64 = {**kernel.UNAME, "NORVAK_TEST_MACHINE": "aarch64"}
I586 = {**kernel.UNAME, "NORVAK_TEST_MACHINE": "i586"}

TRAPS = [
    Trap("config-unreadable", ["soft"], ["0"], lambda host, _: host.write("config.xml", "<norvak>"),
         _failed("soft")),
    Trap("setting-missing", ["soft"], ["0"], _configure(update_host=""), _failed("soft")),
    Trap("setting-missing", ["kernel"], ["1"], _configure(kernel_update_host=""), _nothing_done),
    Trap("setting-missing", ["rules"], ["3"], _configure(kernel_update_host=""), _failed("rules")),
    Trap("setting-missing", NGINX_ARGUMENTS, paths.NGINX_RUN, _configure(nginx_update_host=""),
         _failed("nginx")),
    Trap("address-unusable", ["kernel"], ["1"], _configure(kernel_update_host="what://server"),
         _failed("kernel")),
    Trap("address-unusable", ["rules"], ["3"], _configure(kernel_update_host="http://a b"),
         _failed("rules")),
    Trap("version-file-unusable", ["soft"], ["0"], _reply(software.VERSION_PATH, b"1\n2\n"),
         _failed("soft")),
    Trap("reply-too-large", ["soft"], ["0"], _reply(software.VERSION_PATH, b"x" * (1 << 21)),
         _failed("soft")),
    Trap("offered-version-too-short", ["soft"], ["0"], _reply(software.VERSION_PATH, b"3.1\n"),
         _aborted),
    Trap("installed-version-too-short", ["soft"], ["0"], _configure(version=""), _aborted),
    Trap("http-error", ["soft"], ["0"], _reply(software.VERSION_PATH, b"Not found\n", "404 No"),
         _current(paths.SOFT_NOT_NEEDED)),
    Trap("http-error", ["soft"], ["0"], _reply(software.PACKAGE_PATH_64, b"Not found\n", "404 No"),
         _failed("soft")),
    Trap("http-error", ["kernel"], ["1"], _reply(kernel.module_path(TESSEL), b"", "404 No"),
         _failed("kernel")),
    Trap("http-error", ["rules"], ["3"], _reply(rules.RULES_PATH, b"moved\n", "302 Found"),
         _failed("rules")),
    Trap("http-error", NGINX_ARGUMENTS, paths.NGINX_RUN,
         _reply(web_server.PROGRAM_PATH, b"Not found\n", "404 No"), _failed("nginx")),
    Trap("tar-missing", ["soft"], ["0"], _remove("tool/tar"), _failed("soft")),
    Trap("startup-missing", ["soft"], ["0"], _remove("startup.sh"), _agent_stays_down),
    Trap("template-missing", ["rules"], ["3"], _remove("template"), _lost(rules.RULES)),
    Trap("template-not-writable", ["rules"], ["3"], lambda host, _: host.write(rules.RULES, b"old"),
         _old(rules.RULES), _ro("template")),
    Trap("nginx-bin-missing", NGINX_ARGUMENTS, paths.NGINX_RUN, _remove("nginx/bin"),
         _lost(web_server.PROGRAM)),
    Trap("nginx-bin-not-writable", NGINX_ARGUMENTS, paths.NGINX_RUN, lambda host, _: None,
         _old(web_server.PROGRAM), _ro("nginx/bin")),
    Trap("install-dir-not-writable", ["kernel"], ["1"], lambda host, _: None,
         _nothing_downloaded, _ro("")),
    Trap("digest-list-unusable", ["kernel"], ["1"], _reply(kernel.list_path(QUORIN), b"a\n\n"),
         _failed("kernel")),
    Trap("digest-list-unusable", ["rules"], ["3"],
         _reply(rules.LIST_PATH, f"{rules.digest()}\n\n".encode()), _current(paths.RULES_CURRENT)),
    Trap("digest-unusable", ["kernel"], ["1"],
         _reply(kernel.list_path(TESSEL), kernel.digest(kernel.new(TESSEL)).upper().encode()),
         _failed("kernel")),
    Trap("digest-unusable", ["rules"], ["3"],
         _reply(rules.LIST_PATH, f"{rules.digest()} \n".encode()), _failed("rules")),
    Trap("rules-digest-unreadable", ["rules"], ["3"],
         lambda host, _: host.write_unopenable(rules.CURRENT), _current(paths.RULES_CURRENT)),
    Trap("machine-without-builds", ["soft"], ["0"], lambda host, server: server.reply(
        software.PACKAGE_PATH_32, http_reply(paths.package())), _foreign_package, {"uname": AARCH64}),
    Trap("machine-without-builds", ["kernel"], ["1"], lambda host, _: None, _foreign_modules,
         {"uname": I586}),
]


@pytest.mark.parametrize("trap", [pytest.param(trap, id=f"{trap.preview[0]}: {trap.code} {number}")
                                  for number, trap in enumerate(TRAPS)])
def test_an_error_does_harm(host, scripted_server, trap):
    everything_new(host, scripted_server)
    trap.set(host, scripted_server)
    host.remember()
    options = {"uname": trap.options.get("uname", kernel.UNAME),
               "mounts": trap.options.get("mounts", lambda host: [])(host)}
    status, document = preview(host, *trap.preview, **options)
    assert status == NOT_CLEAN
    assert trap.code in codes(document, "error")
    found = finding(document, trap.code)
    assert found["text"] and found["fix"]
    assert host.changes() == []

    before = len(scripted_server.requests())
    run = host.update(*trap.arguments, **options)
    scripted_server.forget_requests(before)
    trap.suffer(host, scripted_server, run)


def test_a_server_that_nobody_runs_is_an_error(host, scripted_server):
    holder, address = unused_address()
    with holder:
        everything_new(host, scripted_server, update_host=f"http://{address}")
        _, document = preview(host, "soft")
        assert "download-failed" in codes(document, "error")
        assert host.update("0") == FAILED


def test_a_server_that_stalls_would_hold_up_the_run(host, scripted_server):
    everything_new(host, scripted_server)
    scripted_server.reply(kernel.list_path(FIRST), Reply([], "stall"))
    begin = time.monotonic()
    status, document = preview(host, "kernel", "--timeout=1")
    assert time.monotonic() - begin < 10
    assert (status, document["types"][0]["outcome"]) == (NOT_CLEAN, "unknown")
    assert "server-stalls" in codes(document, "error")
    run = host.start("1", uname=kernel.UNAME)
    assert not run.ends_within(0.4)


def test_an_install_directory_that_does_not_exist_is_an_error(host):
    host.set_install_path(f"{host.path}-gone\n")
    status, document = preview(host)
    assert status == NOT_CLEAN
    assert "install-dir-missing" in codes(document, "error")
    assert host.update("0") == FAILED
    assert host.changes() == []


def test_an_install_path_that_the_shell_interprets_is_an_error(host, scripted_server):
    everything_new(host, scripted_server)
    odd = host.root.with_name("agent & more")
    host.root.rename(odd)
    host.set_install_path(f"{odd}\n")
    try:
        _, document = preview(host, "soft")
        assert "install-dir-not-quoted" in codes(document, "error")
        assert document["types"][0]["outcome"] == "failed"
        run = host.update("0", uname=kernel.UNAME)
        assert run.status == 255
        assert outcome(host, "soft")[1].outcome == "failed"
    finally:
        odd.rename(host.root)


def test_an_install_path_that_is_too_long_is_an_error(host, scripted_server):
    everything_new(host, scripted_server)
    long = host.root.with_name("a" * (128 - len(str(host.root.parent))))
    host.root.rename(long)
    host.set_install_path(f"{long}\n")
    try:
        _, document = preview(host, "kernel")
        assert "install-dir-too-long" in codes(document, "error")
        victim = f"{long}//runlog/kernel_version"[:127]
        assert victim in finding(document, "install-dir-too-long")["text"]
        assert host.update("1", uname=kernel.UNAME) == OK
        assert open(victim).read() == kernel.VERSION
        os.unlink(victim)
    finally:
        long.rename(host.root)


def test_too_little_space_is_an_error(host, scripted_server):
    everything_new(host, scripted_server)
    size = host.used_bytes() + (2 << 20)
    mounts = [f"cp -a {host.path}/. {host.start_dir}", namespace.small_disk(host.path, size),
              f"cp -a {host.start_dir}/. {host.path}"]
    rules.publish_rules(scripted_server, b"x" * (3 << 20))
    _, document = preview(host, "rules", mounts=mounts)
    assert document["types"][0]["outcome"] == "failed"
    assert "no-space" in codes(document, "error")
    run = host.start("3", mounts=mounts, uname=kernel.UNAME)
    assert run.finish() == FAILED


# The pid file.


@pytest.mark.parametrize("content", [b"", b"agent\n", b"0\n", b"\n1"], ids=repr)
def test_a_pid_file_without_a_number_kills_the_run_itself(host, scripted_server, content):
    everything_new(host, scripted_server)
    host.write("norvak.pid", content)
    for name in ("soft", "rules"):
        status, document = preview(host, name)
        assert (status, document["types"][0]["outcome"]) == (NOT_CLEAN, "unfinished")
        assert "pid-file-zero" in codes(document, "error")
    assert host.update_with_private_pids("3")[0].status == KILLED
    assert outcome(host, "rules")[1].outcome == "unfinished"


@pytest.mark.parametrize("content", [
    b"-1\n", pytest.param(b"4294967295\n", marks=needs_64_bit_long)], ids=repr)
def test_a_negative_pid_kills_every_process(host, scripted_server, content):
    everything_new(host, scripted_server)
    host.write("norvak.pid", content)
    _, document = preview(host, "rules")
    assert "pid-file-negative" in codes(document, "error")
    assert host.update_with_private_pids("3")[1] == "killed"


@pytest.mark.parametrize("excess, code", [
    (0, "pid-file-foreign"),
    pytest.param(1 << 32, "pid-file-too-large", marks=needs_64_bit_long)])
def test_a_pid_of_another_process_kills_that(host, scripted_server, excess, code):
    everything_new(host, scripted_server)
    victim = host.start_agent(directory="/")
    host.write("norvak.pid", f"{victim.pid + excess}\n")
    _, document = preview(host, "rules")
    assert code in codes(document, "error")
    assert host.update("3", uname=kernel.UNAME) == OK
    assert victim.was_killed()


def test_an_agent_is_known_by_its_executable_directory_or_arguments(host, scripted_server):
    everything_new(host, scripted_server)
    for command, directory in ((["sleep", "60"], host.path),
                               ([f"{host.path}/agent", "60"], "/"),
                               (["sh", "-c", "sleep 60; :", f"{host.path}/conf"], "/")):
        if command[0].startswith("/"):
            subprocess.run(["cp", "/usr/bin/sleep", command[0]], check=True)
        with subprocess.Popen(command, cwd=directory, start_new_session=True) as agent:
            host.write("norvak.pid", f"{agent.pid}\n")
            arguments = pathlib.Path(f"/proc/{agent.pid}/cmdline")
            wait_until(lambda: arguments.read_text().split("\0")[:-1] == command, command)
            assert "pid-file-foreign" not in codes(preview(host, "rules")[1]), command
            os.killpg(agent.pid, signal.SIGKILL)


# Warnings and notes.


def _say(host, code, *arguments, **options):
    status, document = preview(host, *arguments, **options)
    assert code in codes(document, "warning", "note"), document["findings"]
    return status, finding(document, code)


def test_leftovers_are_warnings(host, scripted_server):
    everything_new(host, scripted_server)
    host.write("update", b"")
    host.write("update_norvak_soft/new_version", software.VERSION_LINE)
    host.write("update_norvak_kernel/md5", b"")
    host.write("config.xml.ab3xy7", b"")
    for other in ("config.xml.orig", "config.xml.ab3xy", "config.xml.Ab3xy7", "oconfig.xml.ab3xy7"):
        host.write(other, b"")
    status, document = preview(host)
    assert status == CLEAN
    named = {found["file"][len(host.path):]: found["code"] for found in document["findings"]
             if found["severity"] == "warning"}
    assert named == {"/update": "leftover-marker", "/update_norvak_soft": "leftover-work-dir",
                     "/update_norvak_kernel": "leftover-work-dir",
                     "/config.xml.ab3xy7": "leftover-config"}
    assert document["types"][0]["leftovers"] == [f"{host.path}/update_norvak_soft",
                                                 f"{host.path}/update"]


def test_another_updater_is_a_warning(host, scripted_server):
    everything_new(host, scripted_server)
    run = paths.started_run(host, scripted_server, paths.path_named("kernel", "all new"),
                            kernel.list_path(FIRST))
    _, document = preview(host, "kernel", "--timeout=1")
    assert finding(document, "updater-running")["file"] == f"/proc/{run.pid}"
    assert "leftover-work-dir" not in codes(document)
    assert "updater-running" not in codes(preview(host, "rules")[1])


def test_a_missing_log_directory_is_a_warning(host, scripted_server):
    everything_new(host, scripted_server)
    host.remove("runlog")
    status, found = _say(host, "runlog-missing", "rules")
    assert (status, found["file"]) == (CLEAN, f"{host.path}/runlog")


def test_a_log_directory_that_is_not_writable_is_a_warning(host, scripted_server):
    everything_new(host, scripted_server)
    _say(host, "runlog-not-writable", "rules",
         mounts=[namespace.bind_read_only(f"{host.path}/runlog")])


def test_a_missing_engine_module_is_a_warning(host, scripted_server):
    everything_new(host, scripted_server)
    host.remove(f"{QUORIN}.ko")
    status, found = _say(host, "engine-module-missing", "rules")
    assert (status, found["file"]) == (CLEAN, f"{host.path}/{QUORIN}.ko")


def test_blanks_around_a_digest_are_a_warning(host, scripted_server):
    everything_new(host, scripted_server)
    scripted_server.publish({kernel.list_path(FIRST)[1:]:
                             f"{kernel.digest(kernel.new(FIRST))}\r\n".encode()})
    status, _ = _say(host, "digest-with-blanks", "kernel")
    assert status == CLEAN


def test_a_pid_file_of_a_dead_process_is_a_warning(host, scripted_server):
    everything_new(host, scripted_server)
    host.agent.close()
    status, _ = _say(host, "pid-file-stale", "rules")
    assert status == CLEAN


def test_an_address_in_an_unusual_form_is_a_note(host, scripted_server):
    everything_new(host, scripted_server, kernel_update_host=f"{scripted_server.url}/")
    _say(host, "address-ends-with-slash", "rules")
    everything_new(host, scripted_server, kernel_update_host=scripted_server.url[len("http://"):])
    status, _ = _say(host, "address-without-scheme", "rules")
    assert status == CLEAN


def test_an_unknown_size_is_a_note(host, scripted_server):
    everything_new(host, scripted_server)
    scripted_server.reply(rules.RULES_PATH, Reply([b"HTTP/1.0 200 OK\r\n\r\n", rules.NEW_RULES]))
    status, _ = _say(host, "size-unknown", "rules")
    assert status == CLEAN
    scripted_server.reply(rules.RULES_PATH, http_reply(status="405 Method Not Allowed"))
    assert _say(host, "size-unknown", "rules")[0] == CLEAN


def test_what_a_run_leaves_to_others_is_a_note(host, scripted_server):
    everything_new(host, scripted_server)
    assert _say(host, "agent-stays-stopped", "rules")[0] == CLEAN
    assert _say(host, "nginx-not-executable", *NGINX_ARGUMENTS)[0] == CLEAN


# identify.


def test_identify_names_settings_and_requests(host, scripted_server):
    everything_new(host, scripted_server)
    host.write("suse", b"")
    uname = {"NORVAK_TEST_MACHINE": "i686", "NORVAK_TEST_RELEASE": "3.0.13-0.27-default"}
    run = host.inspect("identify", "--json", uname=uname)
    document = read_json(run)
    assert run.status == CLEAN
    facts = {"install_dir": host.path, "install_dir_source": "file", "family": "suse",
             "family_marker": f"{host.path}/suse", "machine": "i686", "package_arch": "x86",
             "module_arch": "x86", "kernel_release": "3.0.13-0.27-default",
             "kernel_version": "3.0.13-0.27", "flavour": "default", "config_readable": True}
    assert {name: document[name] for name in facts} == facts
    assert document["settings"] == {
        "update_host": scripted_server.url, "update_type": None,
        "version": software.INSTALLED_VERSION, "kernel_update_host": scripted_server.url,
        "nginx_update_host": scripted_server.url}
    modules = [f"/kernels/suse-default/x86/3.0.13-0.27/{name}/{file}"
               for name in MODULES for file in ("md5", f"{name}.ko")]
    assert [(request["type"], request["url"][len(scripted_server.url):])
            for request in document["requests"]] == [
        ("soft", software.VERSION_PATH), ("soft", software.PACKAGE_PATH_32),
        *(("kernel", path) for path in modules),
        ("nginx", "/nginx_new/{arch}/{version}/md5"), ("nginx", "/nginx_new/{arch}/{version}/nginx"),
        ("rules", rules.LIST_PATH), ("rules", rules.RULES_PATH)]


def test_identify_names_the_requests_that_runs_send(host, scripted_server):
    everything_new(host, scripted_server)
    document = read_json(host.inspect("identify", "--json", uname=kernel.UNAME))
    for argument, name in (("0", "soft"), ("1", "kernel"), ("3", "rules")):
        before = len(scripted_server.requests())
        host.update(argument, uname=kernel.UNAME)
        expected = [f"GET {request['url'][len(scripted_server.url):]}"
                    for request in document["requests"] if request["type"] == name]
        assert scripted_server.requests()[before:] == expected


def test_identify_on_a_host_without_anything(make_host):
    host = make_host(in_default_place=True)
    document = read_json(host.inspect("identify", "--json"))
    assert (document["install_dir"], document["install_dir_source"]) == (
        "/usr/local/norvak_agent", "default")
    assert document["config_readable"] is False
    assert set(document["settings"].values()) == {None}
    assert [request["url"] for request in document["requests"]] == [
        rules.LIST_PATH, rules.RULES_PATH]
    text = host.inspect("identify").stdout.decode()
    assert "/usr/local/norvak_agent (default)" in text
    assert "config.xml cannot be read" in text
