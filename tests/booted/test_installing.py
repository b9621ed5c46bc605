"""The commands of docs/installing.md that need a running systemd."""

from harness import software
from harness.installing_page import commands

_TIMERS = [f"norvak-update@{kind}.timer" for kind in ("soft", "kernel", "rules")]


def test_the_schedule_and_a_run_at_once(host):
    enable, run_now = commands("Schedule")
    machine = host.machine
    try:
        listed = machine.run("sh", "-e", "-c", enable)
        for timer in _TIMERS:
            assert machine.run("systemctl", "is-enabled", timer) == "enabled\n"
            assert machine.run("systemctl", "is-active", timer) == "active\n"
            assert timer in listed
        output = machine.run("sh", "-e", "-c", run_now)
        assert "soft    updated" in output
        assert "Update of the Norvak agent" in output
        assert host.setting("version") == software.NEW_VERSION
    finally:
        machine.run("systemctl", "disable", "--now", *_TIMERS)
        machine.run("systemctl", "stop", "norvak-update-rotate.timer")
