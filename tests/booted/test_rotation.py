"""The rotation of the update log, and the runner on a host without systemd."""

import gzip
import json
import re
import subprocess

import pytest
from harness import rules, web_server
from installation import ROOT, STATE

_RUNNER = "/usr/lib/norvak-update/run"
_LEAST_RUNS = 1000
_ROTATE = "norvak-update-rotate.service"
_LOG = f"{ROOT}/runlog/update.log"

# Waits after the renaming of the log, so that many runs write before logrotate continues.
_SLOW_LOGROTATE = f"""\
#!/bin/sh
exec strace -f -o /dev/null -P {_LOG} -e trace=rename -e inject=rename:delay_exit=100000 \
  /usr/bin/real_logrotate "$@"
"""


@pytest.fixture
def slow_logrotate(machine):
    program = machine.file("/usr/sbin/logrotate").read_bytes()
    machine.write("/usr/bin/real_logrotate", program, 0o755)
    machine.write("/usr/sbin/logrotate", _SLOW_LOGROTATE, 0o755)
    yield
    machine.write("/usr/sbin/logrotate", program, 0o755)


def logs(host):
    """The names of the update log and of its rotated predecessors."""
    return {path.name for path in host.file("runlog").iterdir()}


def test_a_rotation_during_a_thousand_runs_loses_no_line(host, change_runner, slow_logrotate):
    change_runner({"size 1M": "size 1", "rotate 10": "rotate 10000"})
    host.machine.run("chown", "1:1", _LOG)
    host.file("runlog/update.log").chmod(0o640)
    # Each of these runs writes one line, and an empty one. They go on until the log was rotated
    # several times.
    runs = int(host.machine.run("sh", "-c", f"""
        {{
          runs=0
          until [ $runs -ge {_LEAST_RUNS} ] && [ -e /tmp/rotated ]; do
            seq 100 | xargs -P 50 -I{{}} sh -c 'norvak_update 7 || true'
            runs=$((runs + 100))
          done
          echo $runs
        }} &
        until [ $(ls {ROOT}/runlog | wc -l) -gt 3 ]; do
          {_RUNNER} rotate >&2 || break
        done
        touch /tmp/rotated
        wait""", seconds=200))
    lines = host.machine.run("sh", "-c", f"cd {ROOT}/runlog && zcat -f update.log*")
    assert lines.count("Unknow update type.") == runs
    assert lines.count("\n") == 2 * runs
    assert len(logs(host)) > 3
    # Under another name, nobody looks for the lines.
    assert all(re.fullmatch(r"update\.log(\.\d+(\.gz)?)?", name) for name in logs(host))
    status = host.file("runlog/update.log").stat()
    assert (status.st_uid, status.st_gid, status.st_mode & 0o7777) == (1, 1, 0o640)


def test_ten_old_logs_are_kept_the_newest_as_it_was(host, change_runner):
    """A run that began before a rotation writes to the renamed log until its end."""
    change_runner({"size 1M": "size 1"})
    for number in range(12):
        host.write("runlog/update.log", f"{number}\n")
        assert host.machine.start(_ROTATE), host.machine.journal(_ROTATE)
    compressed = {f"update.log.{number}.gz" for number in range(2, 11)}
    assert logs(host) == {"update.log", "update.log.1"} | compressed
    assert host.file("runlog/update.log").read_bytes() == b""
    assert host.file("runlog/update.log.1").read_text() == "11\n"
    assert gzip.decompress(host.file("runlog/update.log.10.gz").read_bytes()) == b"2\n"
    # It contains commands that root runs, so nobody else may write to it.
    assert host.machine.file(f"{STATE}/logrotate.conf").stat().st_mode & 0o7777 == 0o600


@pytest.mark.parametrize("size, rotated", [((1 << 20) - 1, False), (1 << 20, True)])
def test_a_log_is_rotated_from_a_mebibyte_on(host, size, rotated):
    host.write("runlog/update.log", b"x" * size)
    assert host.machine.start(_ROTATE)
    assert logs(host) == ({"update.log", "update.log.1"} if rotated else {"update.log"})


def test_a_host_without_a_log_has_nothing_to_rotate(host):
    host.file("runlog/update.log").unlink()
    assert host.machine.start(_ROTATE)
    assert logs(host) == set()


def test_the_status_counts_runs_from_before_a_rotation(host, change_runner):
    change_runner({"size 1M": "size 1"})
    host.set_up(NGINX_VERSION=web_server.VERSION_DIR, START_AGENT_AFTER_RULES="no")
    for kind in ("soft", "rules", "nginx"):
        assert host.machine.start(_ROTATE)
        assert host.machine.start(f"norvak-update@{kind}.service"), host.machine.journal()
    assert logs(host) == {"update.log", "update.log.1", "update.log.2.gz"}
    report = json.loads(host.machine.attempt("norvak_host", "status", "--json").stdout)
    assert {entry["type"]: entry["outcome"] for entry in report["types"]} == {
        "soft": "updated", "rules": "updated", "nginx": "updated"}


def test_cron_does_nothing_where_systemd_runs(host):
    host.set_up(CRON="yes")
    for job in ("soft", "kernel", "rules", "recover", "rotate"):
        host.machine.run(_RUNNER, "--cron", job)
    assert host.log() == []


def without_systemd(host, command):
    """Runs a command in the system as if systemd did not run there."""
    return host.machine.attempt("unshare", "--mount", "sh", "-c",
                                f"mount -t tmpfs none /run/systemd && {command}")


def test_cron_updates_a_host_without_systemd(host, change_runner):
    change_runner({"delay_seconds=3600": "delay_seconds=1"})
    run = without_systemd(host, f"{_RUNNER} --cron soft")
    assert (run.returncode, run.stdout + run.stderr, host.log()) == (0, "", [])
    host.set_up(CRON="yes")
    run = without_systemd(host, f"{_RUNNER} --cron soft")
    assert (run.returncode, run.stdout + run.stderr) == (0, "")
    assert host.log() == ["[SOFT] update norvak agent success"]
    assert host.left_to_do() == []
    # Interrupted, and recovered by the runner itself.
    host.configure()
    host.write("tool/tar", "#!/bin/sh\nkill -KILL 0\n", 0o755)
    run = without_systemd(host, f"{_RUNNER} --cron soft")
    assert run.returncode != 0
    without_systemd(host, f"{_RUNNER} --cron recover --boot")
    assert host.left_to_do() == []


# They take the place of the real ones: /usr/sbin is the first directory of the runner's PATH.
_SYSTEMCTL = """\
#!/bin/sh
[ "$*" != --version ] || exec echo "systemd {version} ({version}-1)"
exec /usr/bin/systemctl "$@"
"""
_SLEEP = f"#!/bin/sh\necho $1 >>{STATE}/slept\n"


@pytest.mark.parametrize("version, delayed", [(228, True), (229, False)])
def test_the_runner_waits_itself_where_timers_have_no_random_delay(host, version, delayed):
    host.machine.write("/usr/sbin/systemctl", _SYSTEMCTL.format(version=version), 0o755)
    host.machine.write("/usr/sbin/sleep", _SLEEP, 0o755)
    try:
        for _ in range(3):
            assert host.machine.start("norvak-update@kernel.service") is False  # nothing published
        slept = host.machine.file(f"{STATE}/slept")
        times = [int(time) for time in slept.read_text().split()] if slept.exists() else []
        assert len(times) == (3 if delayed else 0)
        assert all(0 <= time < 3600 for time in times)
        assert not delayed or len(set(times)) > 1
    finally:
        for path in ("/usr/sbin/systemctl", "/usr/sbin/sleep", f"{STATE}/slept"):
            host.machine.file(path).unlink(missing_ok=True)


def test_the_cron_table_names_jobs_of_the_runner(machine):
    table = machine.file("/etc/cron.d/norvak-update").read_text()
    jobs = [line.split(f"|| {_RUNNER} --cron ")[1] for line in table.splitlines() if "||" in line]
    assert jobs == ["soft", "kernel", "rules", "rotate", "recover --boot"]


def test_the_runner_explains_its_usage(machine):
    for arguments in ([], ["wrong"], ["soft", "more"]):
        run = machine.attempt(_RUNNER, *arguments)
        assert run.returncode == 64 and "usage" in run.stderr
    assert subprocess.run(["sh", "-n", machine.file(_RUNNER)], check=False).returncode == 0
