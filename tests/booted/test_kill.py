"""A type 0 run under the unit is killed at each call, or with the whole system."""

import pytest
from installation import ROOT, STATE, Installation
from kill_lab import KillLab

_SAMPLE_STEP = 6

# Where a sudden stop is tried: the agent has been killed; the new settings are on disk; the marker
# is gone; the agent was started.
_STOPS = ("start tool/tar", "unlink update", "start startup.sh", "wait for startup.sh")

# What a run leaves on disk whatever happens: config.xml, and what a good package's script has
# flushed. Of all other files a power cut can take the contents.
_FLUSHED = ("config.xml", "norvak_agent")


@pytest.fixture
def lab(host, server):
    made = KillLab(host, server)
    yield made
    made.close()


def test_a_kill_leaves_nothing_to_do(lab, request):
    points = lab.points
    if not request.config.getoption("--full"):
        points = points[::_SAMPLE_STEP]
    left = {point.name: lab.kill_at(point) for point in points}
    print(f"{len(points)} of {len(lab.points)} kill points")
    assert {name: what for name, what in left.items() if what} == {}


def test_a_kill_after_the_carry_over_is_no_loss_of_settings(lab):
    for point in lab.points[-2:]:
        assert lab.kill_at(point) == []
        assert not lab.host.machine.file(f"{STATE}/kept_settings").exists(), point.name


def truncate_what_was_not_flushed(host, since):
    for path in host.file("").rglob("*"):
        flushed = path.parent == host.file("") and path.name in _FLUSHED
        is_new = path.is_file() and path.stat().st_mtime >= since
        if is_new and not flushed or path.name == "norvak.pid":
            path.write_bytes(b"")


def test_a_sudden_stop_leaves_nothing_to_do(root_name, make_machine, server, request):
    stops = _STOPS if request.config.getoption("--full") else _STOPS[::2]
    cases = [(stop, truncated) for stop in stops for truncated in (False, True)]
    hosts = []
    for stop, truncated in cases:
        machine = make_machine(root_name)
        machine.boot()
        host = Installation(machine, server.url)
        lab = KillLab(host, server)
        since = lab.hold_at(next(point for point in lab.points if point.name == stop))
        machine.stop_suddenly()
        if truncated:
            truncate_what_was_not_flushed(host, since)
        hosts.append(host)
    for host in hosts:
        host.machine.boot()
        assert host.machine.property("norvak-update-boot.service", "ConditionResult") == "yes"
    # The agent has no service of its own here, for which the recovery waits a minute.
    left = {case: host.wait_until_recovered(150) for case, host in zip(cases, hosts)}
    assert {case: what for case, what in left.items() if what} == {}


def test_the_agents_own_service_comes_first_at_boot(root_name, make_machine, server):
    machine = make_machine(root_name)
    machine.boot()
    host = Installation(machine, server.url)
    lab = KillLab(host, server)
    lab.hold_at(next(point for point in lab.points if point.name == "start tool/tar"))
    machine.stop_suddenly()
    machine.write("/etc/systemd/system/agent.service",
                  f"[Service]\nType=forking\nExecStartPre=/bin/sleep 3\nExecStart={ROOT}/startup.sh\n")
    wants = machine.file("/etc/systemd/system/multi-user.target.wants/agent.service")
    wants.symlink_to("../agent.service")
    machine.boot()
    assert host.wait_until_recovered(100) == []
    [agent] = host.agents()
    assert host.control_group(agent) == "agent.service"
    assert not machine.file(f"{STATE}/run").exists()
