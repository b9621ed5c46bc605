"""The rotation of the update log, and the runner on a host without systemd."""

import re
import subprocess

from installation import ROOT

_RUNNER = "/usr/lib/norvak-update/run"
_RUNS = 1000


def test_a_rotation_during_a_thousand_runs_loses_no_line(host):
    runner = host.machine.file(_RUNNER)
    text = runner.read_text()
    host.machine.write(_RUNNER, text.replace("size 1M", "size 1").replace(
        "rotate 10", "rotate 10000"), 0o755)
    log = host.file("runlog/update.log")
    host.machine.run("chown", "1:1", f"{ROOT}/runlog/update.log")
    log.chmod(0o640)
    try:
        # Each of these runs writes one line, and an empty one.
        host.machine.run("sh", "-c", f"""
            seq {_RUNS} | xargs -P 50 -I{{}} sh -c 'norvak_update 7 || true' &
            while kill -0 $! 2>/dev/null; do {_RUNNER} rotate || exit 1; done""", seconds=200)
    finally:
        host.machine.write(_RUNNER, text, 0o755)
    lines = host.machine.run("sh", "-c", f"cd {ROOT}/runlog && zcat -f update.log*")
    assert lines.count("Unknow update type.") == _RUNS
    assert lines.count("\n") == 2 * _RUNS
    names = [path.name for path in host.file("runlog").iterdir()]
    assert len(names) > 3
    # Under another name, nobody looks for the lines.
    assert [name for name in names if not re.fullmatch(r"update\.log(\.\d+(\.gz)?)?", name)] == []
    status = log.stat()
    assert (status.st_uid, status.st_gid, status.st_mode & 0o7777) == (1, 1, 0o640)


def test_a_small_log_is_not_rotated(host):
    host.machine.run(_RUNNER, "rotate")
    assert [path.name for path in host.file("runlog").iterdir()] == ["update.log"]


def test_cron_does_nothing_where_systemd_runs(host):
    host.set_up(CRON="yes")
    for job in ("soft", "kernel", "rules", "recover", "rotate"):
        host.machine.run(_RUNNER, "--cron", job)
    assert host.log() == []


def without_systemd(host, command):
    """Runs a command in the system as if systemd did not run there."""
    return host.machine.attempt("unshare", "--mount", "sh", "-c",
                                f"mount -t tmpfs none /run/systemd && {command}")


def test_cron_updates_a_host_without_systemd(host):
    runner = host.machine.file(_RUNNER)
    text = runner.read_text()
    host.machine.write(_RUNNER, text.replace("delay_seconds=3600", "delay_seconds=1"), 0o755)
    try:
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
    finally:
        host.machine.write(_RUNNER, text, 0o755)


def test_the_cron_table_names_jobs_of_the_runner(machine):
    table = machine.file("/etc/cron.d/norvak-update").read_text()
    jobs = [line.split(f"|| {_RUNNER} --cron ")[1] for line in table.splitlines() if "||" in line]
    assert jobs == ["soft", "kernel", "rules", "rotate", "recover --boot"]


def test_the_runner_explains_its_usage(machine):
    for arguments in ([], ["wrong"], ["soft", "more"]):
        run = machine.attempt(_RUNNER, *arguments)
        assert run.returncode == 64 and "usage" in run.stderr
    assert subprocess.run(["sh", "-n", machine.file(_RUNNER)], check=False).returncode == 0
