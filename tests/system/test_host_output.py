"""The output formats of norvak_host, and that it changes nothing."""

import json
import os
import pathlib
import re
import shutil
import subprocess
import time

import pytest

import test_host_status as paths
from harness import kernel, software, wait_until
from harness.status import CRITICAL, OK, UNKNOWN, WARNING, read_json

PRINTABLE = re.compile(r"[ -~\n]*")


def text(run):
    """What norvak_host printed, which must be harmless to a terminal."""
    assert run.stderr == b"", run
    output = run.stdout.decode("ascii")
    assert PRINTABLE.fullmatch(output), output
    return output


def run_path(host, server, name, path):
    paths.run_path(host, server, paths.path_named(name, path))


# For people.


def test_the_table_names_outcome_time_and_reason(host, scripted_server):
    run_path(host, scripted_server, "nginx", "new build")
    run_path(host, scripted_server, "rules", "digest breaks off")
    output = text(host.inspect("status"))
    assert re.search(r"^TYPE +OUTCOME +LAST LINE +REASON$", output, re.MULTILINE)
    stamp = r"\d{4}-\d\d-\d\d \d\d:\d\d:\d\d"
    assert re.search(rf"^nginx +updated +{stamp} +a new web server program was installed$", output,
                     re.MULTILINE)
    assert re.search(rf"^rules +failed +{stamp} +the digest of the rules could not be downloaded: "
                     "a transfer failed$", output, re.MULTILINE)
    assert "\nagent: running\n" in output
    assert re.search(rf"^  \[{stamp}\]  \[RULES\] don't need to update$", output, re.MULTILINE)
    assert "[NGINX]" not in output  # good results need no evidence


def test_colours_are_for_terminals_only(host, scripted_server):
    run_path(host, scripted_server, "nginx", "new build")
    plain = text(host.inspect("status"))
    coloured = host.inspect("status", "--color=always").stdout.decode()
    assert "\x1b[32m" in coloured
    assert re.sub(r"\x1b\[\d+m", "", coloured) == plain
    assert text(host.inspect("--color=never", "status")) == plain
    on_terminal = ["script", "--quiet", "--return", "--command"]
    if shutil.which("script"):
        for variables, expected in (({}, True), ({"NO_COLOR": "1"}, False)):
            shown = host.inspect(
                "status", through=["sh", "-c", f'{" ".join(on_terminal)} "$0 $*" /dev/null'],
                environment={"TERM": "xterm", **variables}).stdout
            assert (b"\x1b[32m" in shown) == expected


@pytest.mark.parametrize("arguments", [["status"], ["status", "--plugin"], ["status", "--json"],
                                       ["preview", "--timeout=2"], ["preview", "--json"],
                                       ["identify"], ["identify", "--json"]])
def test_no_control_bytes_reach_a_terminal(host, arguments):
    evil = "\x1b]0;title\x07\x9b31m\t|"
    host.configure(("update_host", "http://127.0.0.1:1/\N{LATIN SMALL LETTER E WITH ACUTE}|"),
                   ("version", "abcdef\x7f1"))
    stamp = b"[2026-01-31 23:59:59]\t\t"
    lines = [b"[SOFT] download file failed [url: " + evil.encode("latin-1") + b"]",
             b"[SOFT] call check_norvak_new_version_exist->download_norvak_version_file faild",
             b"[SOFT] norvak is not need to update, or check new version fail",
             b"Unknow update type."]
    host.write("runlog/update.log", b"".join(stamp + line + b"\n" for line in lines))
    text(host.inspect(*arguments, uname={"NORVAK_TEST_RELEASE": evil,
                                         "NORVAK_TEST_MACHINE": "x86\x1b[m"}))


def test_the_version_is_printed(host):
    assert re.fullmatch(r"norvak_host \d+\.\d+\.\d+\n", text(host.inspect("--version")))


@pytest.mark.parametrize("arguments", [["--help"], ["status", "--help"], ["preview", "-h"]])
def test_the_help_has_examples(host, arguments):
    assert "norvak_host status" in text(host.inspect(*arguments))


def test_an_output_that_cannot_be_written_is_an_error(host):
    for arguments, status in ((["status"], UNKNOWN), (["status", "--json"], UNKNOWN),
                              (["preview"], 1), (["identify"], 1)):
        run = host.inspect(*arguments, through=["sh", "-c", '"$0" "$@" >/dev/full'])
        assert run.status == status
        assert run.stderr == b"norvak_host: cannot write to standard output\n"


# Monitoring Plugins.


def test_the_plugin_format_is_one_line_with_performance_data(host, scripted_server):
    run_path(host, scripted_server, "nginx", "new build")
    run = host.inspect("status", "--plugin", "--max-age=2d")
    assert run.status == OK
    assert re.fullmatch(r"NORVAK UPDATE OK - nginx updated \| nginx_age=\d+s;172800;;0\n", text(run))
    run_path(host, scripted_server, "soft", "set to manual")
    run = host.inspect("status", "--plugin")
    assert run.status == WARNING
    assert re.fullmatch(
        r"NORVAK UPDATE WARNING - soft refused \(automatic updates are disabled on this host\), "
        r"nginx updated \| soft_age=\d+s;;;0 nginx_age=\d+s;;;0\n", text(run))


def test_the_plugin_format_without_a_run(host):
    run = host.inspect("status", "--plugin")
    assert (run.status, text(run)) == (UNKNOWN, "NORVAK UPDATE UNKNOWN - no run found\n")
    run = host.inspect("status", "--plugin", "soft")
    assert (run.status, text(run)) == (UNKNOWN, "NORVAK UPDATE UNKNOWN - soft unknown "
                                                "(no run in the log)\n")


def test_of_several_levels_the_worst_counts(host, scripted_server):
    run_path(host, scripted_server, "nginx", "new build")
    assert host.inspect("status", "nginx", "kernel").status == UNKNOWN
    run_path(host, scripted_server, "soft", "set to manual")
    assert host.inspect("status", "nginx", "kernel", "soft").status == WARNING
    run_path(host, scripted_server, "rules", "rules are a page")
    assert host.inspect("status", "nginx", "kernel", "soft", "rules").status == CRITICAL


# Prometheus.


def metrics(host, *arguments, name="norvak.prom"):
    run = host.inspect("status", *arguments, f"--prometheus={host.start_dir}/{name}")
    return run, (host.start_dir / name)


def test_metrics_are_what_promtool_accepts(host, scripted_server):
    run_path(host, scripted_server, "nginx", "new build")
    run_path(host, scripted_server, "kernel", "list of tessel_linux is a page")
    before = int(time.time())
    run, file = metrics(host)
    assert (run.status, run.stdout, run.stderr) == (0, b"", b"")
    samples = dict(line.rsplit(" ", 1) for line in file.read_text().splitlines()
                   if not line.startswith("#"))
    assert {name for name, value in samples.items() if value == "1"} == {
        'norvak_update_outcome{type="kernel",outcome="failed"}',
        'norvak_update_outcome{type="nginx",outcome="updated"}', "norvak_agent_up"}
    assert len(samples) == 2 * 7 + 2 + 1
    time_of_nginx = int(samples['norvak_update_last_run_timestamp_seconds{type="nginx"}'])
    assert before - 60 <= time_of_nginx <= before
    promtool = shutil.which("promtool")
    if not promtool:
        pytest.skip("promtool is missing: install prometheus")
    checked = subprocess.run([promtool, "check", "metrics"], input=file.read_bytes(),
                             capture_output=True, check=False)
    assert (checked.returncode, checked.stdout + checked.stderr) == (0, b"")


def test_metrics_replace_the_file_in_one_step(host):
    run, file = metrics(host, "soft")
    assert run.status == 0
    assert file.stat().st_mode & 0o7777 == 0o644
    first = file.stat().st_ino
    with open(file) as reader:
        assert metrics(host, "soft")[0].status == 0
        assert reader.read() == file.read_text()
    assert file.stat().st_ino != first
    assert os.listdir(host.start_dir) == ["norvak.prom"]


def test_metrics_that_cannot_be_written_are_an_error(host):
    run, _ = metrics(host, name="missing/norvak.prom")
    assert run.status == UNKNOWN
    assert b"No such file or directory" in run.stderr
    host.start_dir.joinpath("norvak.prom").mkdir()
    run, _ = metrics(host)
    assert run.status == UNKNOWN
    assert os.listdir(host.start_dir) == ["norvak.prom"]


# It changes nothing.

COMMANDS = [["identify"], ["identify", "--json"], ["preview"], ["preview", "--json"],
            ["preview", "nginx", "1.20.1", "64-bit"], ["status"], ["status", "--json", "--all"],
            ["status", "--plugin"]]


def fingerprint(root):
    """Everything about the files below @a root that a program can change, access times apart."""
    def describe(path):
        status = os.lstat(path)
        return (status.st_ino, status.st_mode, status.st_uid, status.st_size, status.st_mtime_ns,
                status.st_ctime_ns)
    return {str(path): describe(path) for path in [root, *root.rglob("*")]}


# Calls that change files, locks or processes, and what is harmless among them.
CHANGING = ("kill,tkill,tgkill,flock,fcntl,unlink,unlinkat,rename,renameat,renameat2,link,linkat,"
            "symlink,symlinkat,mkdir,mkdirat,rmdir,chmod,fchmod,fchmodat,chown,fchown,fchownat,"
            "truncate,ftruncate,setxattr,utimensat")
HARMLESS = re.compile(r"kill\(\d+, 0\)|fcntl\(\d+, F_(GET|SET|DUP)FD|fcntl\(\d+, F_[GS]ETFL|"
                      r"fcntl\(\d+, F_DUPFD_CLOEXEC")


@pytest.mark.parametrize("arguments", COMMANDS, ids=" ".join)
def test_it_changes_nothing(host, scripted_server, tmp_path, arguments):
    run_path(host, scripted_server, "kernel", "all new")
    host.configure(update_host=scripted_server.url, kernel_update_host=scripted_server.url,
                   nginx_update_host=scripted_server.url, version=software.INSTALLED_VERSION)
    before = fingerprint(host.root.parent)
    trace = tmp_path / "calls"
    run = host.inspect(*arguments, uname=kernel.UNAME,
                       through=["strace", "-f", "-qq", "-e", f"trace={CHANGING}", "-o", str(trace)])
    assert run.status in (OK, 1)
    assert fingerprint(host.root.parent) == before
    assert host.agent.is_alive()
    calls = [line.split(None, 1)[1] for line in trace.read_text().splitlines()]
    assert [call for call in calls if not HARMLESS.match(call) and not call.startswith("+++")] == []


# As an ordinary user.


def test_an_ordinary_user_learns_what_cannot_be_read(host, scripted_server):
    if os.getuid() != 0:
        pytest.skip("needs root to become an ordinary user")
    run_path(host, scripted_server, "nginx", "new build")
    user = ["setpriv", "--reuid=65534", "--regid=65534", "--clear-groups"]
    document = read_json(host.inspect("status", "--json", through=user))
    assert [entry["outcome"] for entry in document["types"]] == ["updated"]
    assert document["agent"] == "running"

    (host.root / "runlog/update.log").chmod(0o600)
    run = host.inspect("status", "--json", "nginx", through=user)
    document = read_json(run)
    assert (run.status, document["types"][0]["outcome"]) == (UNKNOWN, "unknown")
    assert document["types"][0]["reason"] == "the log cannot be read"
    assert "log-unreadable" in [found["code"] for found in document["findings"]]

    run = paths.started_run(host, scripted_server, paths.path_named("kernel", "all new"),
                            kernel.list_path(kernel.FIRST))
    document = read_json(host.inspect("status", "--json", "kernel", through=user))
    assert document["types"][0]["outcome"] == "unknown"
    assert f"/proc/{run.pid}" in [found["file"] for found in document["findings"]
                                  if found["code"] == "process-unreadable"]
    run.kill()
    assert paths.outcome(host, "kernel", through=user)[1].outcome in ("unfinished", "unknown")

    (host.root / "config.xml").chmod(0o600)
    document = read_json(host.inspect("preview", "--json", through=user))
    codes = {found["code"] for found in document["findings"]}
    assert {"not-root", "config-unreadable"} <= codes


def test_the_agent_is_down_without_a_live_process(host):
    for content in (b"", b"0\n", b"-1\n", b"999999999\n", None):
        if content is None:
            host.remove("norvak.pid")
        else:
            host.write("norvak.pid", content)
        assert read_json(host.inspect("status", "--json"))["agent"] == "down"
    zombie = subprocess.Popen(["true"])
    status = pathlib.Path(f"/proc/{zombie.pid}/status")
    wait_until(lambda: "\nState:\tZ" in status.read_text(), "a zombie")
    host.write("norvak.pid", f"{zombie.pid}\n")
    assert read_json(host.inspect("status", "--json"))["agent"] == "down"
    zombie.wait()
    host.write("norvak.pid", f"{host.agent.pid}\n")
    assert read_json(host.inspect("status", "--json"))["agent"] == "running"


def test_json_is_for_programs(host):
    assert json.loads(text(host.inspect("status", "--json")))["schema"] == 1
