"""The units in booted systems: every update, every outcome."""

import subprocess

import pytest
from harness import Reply, config_xml, package, rules, software, unused_address, web_server
from installation import (MODULES, RECOVERY, ROOT, STATE, Installation, publish,
                          publish_modules)


def start(host, kind):
    """Runs an update; whether its unit succeeded."""
    return host.machine.start(f"norvak-update@{kind}.service")


def journal(host, kind):
    return host.machine.journal(f"norvak-update@{kind}.service", RECOVERY)


def assert_in_good_order(host):
    assert host.wait_until_recovered() == [], host.machine.journal()[-5000:]


def prepare_soft(host, server):
    pass


def prepare_kernel(host, server):
    assert not start(host, "kernel")  # nothing is published where it looks
    publish_modules(server, server.requests())


def prepare_nginx(host, server):
    host.set_up(NGINX_VERSION=web_server.VERSION_DIR)


def is_updated(host, kind):
    if kind == "soft":
        return (host.file("norvak_agent").read_bytes() == host.new_agent and
                host.setting("version") == software.NEW_VERSION)
    if kind == "kernel":
        return all(host.file(f"{module}.ko").read_text() == f"new {module}" for module in MODULES)
    if kind == "rules":
        return host.file(rules.RULES).read_bytes() == rules.NEW_RULES
    program = host.file(web_server.PROGRAM)
    return program.read_bytes() == web_server.NEW_PROGRAM and program.stat().st_mode & 0o7777 == 0o750


@pytest.mark.parametrize("kind, prepare", [
    ("soft", prepare_soft), ("kernel", prepare_kernel), ("rules", lambda host, server: None),
    ("nginx", prepare_nginx)], ids=["soft", "kernel", "rules", "nginx"])
def test_each_update_succeeds_then_has_nothing_to_do_then_fails(host, server, kind, prepare):
    prepare(host, server)
    assert start(host, kind), journal(host, kind)
    assert_in_good_order(host)
    assert is_updated(host, kind)
    if kind == "rules":  # the agent notes what it runs
        host.write(rules.CURRENT, f"{rules.digest(rules.NEW_RULES)}\n")
    [agent] = host.agents()

    assert start(host, kind), journal(host, kind)
    assert host.agents() == [agent]

    holder, address = unused_address()
    with holder:
        host.configure(f"http://{address}", version=host.setting("version"))
        assert not start(host, kind)
    assert_in_good_order(host)
    assert host.agents() == [agent]


def test_the_agent_gets_a_scope_of_its_own(host):
    assert start(host, "soft")
    [agent] = host.agents()
    assert host.control_group(agent).startswith("norvak-agent-")
    assert host.machine.property("norvak-update@soft.service", "Result") == "success"


@pytest.mark.parametrize("answer, agents", [("yes", 1), ("no", 0)])
def test_after_new_rules_the_agent_is_started_unless_that_is_turned_off(host, answer, agents):
    host.set_up(START_AGENT_AFTER_RULES=answer)
    [before] = host.agents()
    assert start(host, "rules"), journal(host, "rules")
    host.machine.wait_until_idle(RECOVERY)
    assert len(host.agents()) == agents
    assert before not in host.agents()
    if agents:
        [agent] = host.agents()
        assert host.control_group(agent).startswith("norvak-agent-")
        status = host.machine.run("cat", f"/proc/{agent}/status")
        ours = host.machine.run("cat", "/proc/1/status")
        for line in ("CapBnd:", "Seccomp:", "NoNewPrivs:"):  # nothing of the unit's sandbox
            assert [text for text in status.splitlines() if text.startswith(line)] == [
                text for text in ours.splitlines() if text.startswith(line)]


def test_a_manual_host_is_no_failure(host):
    host.configure(update_type="1")
    assert start(host, "soft"), journal(host, "soft")
    assert host.log() == ["[SOFT] update type is manual, but this is autoupdate subroutine"]


def test_a_host_without_an_agent_is_left_alone(host):
    host.clear()
    for kind in ("soft", "kernel", "rules"):
        assert start(host, kind), journal(host, kind)
    assert not host.file("").exists()
    assert not host.machine.file(f"{STATE}/run").exists()


@pytest.mark.parametrize("path", ["", "relative", "/"])
def test_an_unusable_install_path_is_left_alone(host, path):
    host.machine.write("/var/log/version_control", f"{path}\n")
    try:
        assert start(host, "soft"), journal(host, "soft")
        assert start(host, "kernel"), journal(host, "kernel")
    finally:
        host.machine.file("/var/log/version_control").unlink()
    assert host.log() == []
    assert not host.machine.file("/runlog").exists()


def test_a_run_that_does_not_get_the_lock_is_no_failure(host, change_runner):
    change_runner({"lock_seconds=1200": "lock_seconds=1"})
    host.machine.run("systemd-run", "--quiet", "--unit=holder", "flock", f"{STATE}/lock",
                     "sleep", "60")
    try:
        host.machine.wait_for(lambda: host.machine.attempt(
            "flock", "-n", f"{STATE}/lock", "true").returncode != 0)
        assert start(host, "soft")
        assert "has been running" in journal(host, "soft")
        assert host.log() == []
    finally:
        host.machine.run("systemctl", "stop", "holder")


def test_the_agent_does_not_inherit_the_lock(host):
    assert start(host, "soft")
    host.machine.run("flock", "-n", f"{STATE}/lock", "true")


@pytest.mark.parametrize("kind, path", [("soft", software.VERSION_PATH), ("rules", rules.LIST_PATH)])
def test_a_stalled_server_ends_the_run_at_its_limit(host, scripted_server, kind, path):
    scripted_server.reply(path, Reply([], "stall"))
    host.configure(scripted_server.url)
    host.set_up(TIME_LIMIT=2)
    [agent] = host.agents()
    assert not start(host, kind)
    assert_in_good_order(host)
    assert host.agents() == [agent]


def test_a_startup_script_that_never_returns_does_not_cost_the_agent(host):
    host.set_up(TIME_LIMIT=4)
    host.write("startup.sh", host.file("startup.sh").read_text() + "sleep 1000\n", 0o755)
    assert not start(host, "soft")
    assert_in_good_order(host)
    [agent] = host.agents()
    assert host.control_group(agent).startswith("norvak-agent-")
    assert host.machine.start(RECOVERY)  # and once more: there is no second agent
    assert host.agents() == [agent]


def test_an_agent_that_is_its_own_startup_script_is_recovered(host):
    host.set_up(TIME_LIMIT=4)
    host.write("startup.sh", '#!/bin/sh\ncd "$(dirname "$0")"\necho $$ >norvak.pid\n'
               "exec ./norvak_agent 100000\n", 0o755)
    assert not start(host, "soft")
    assert_in_good_order(host)


# A new agent that ends at once. The file starts has a line for each start.
DYING = """\
#!/bin/sh
cd "$(dirname "$0")" || exit 1
echo started >>starts
setsid ./norvak_agent 0 </dev/null >/dev/null 2>&1 &
echo $! >norvak.pid
"""


def test_an_agent_that_dies_at_its_start_fails_the_unit_once(root_name, make_machine, server):
    """After a start by the updater the recovery tries once more; then nobody tries again."""
    starts = {"soft": 2, "rules": 1}
    hosts = {}
    for kind in starts:  # at the same time, because each of them waits for half a minute or more
        machine = make_machine(root_name)
        machine.boot()
        host = hosts[kind] = Installation(machine, server.url)
        publish(server, host)
        host.lay_out(startup=DYING)
        machine.run("systemctl", "start", "--no-block", f"norvak-update@{kind}.service")
    for kind, host in hosts.items():
        host.machine.wait_until_idle(f"norvak-update@{kind}.service")
        assert host.machine.property(f"norvak-update@{kind}.service", "ActiveState") == "failed"
        host.machine.wait_until_idle(RECOVERY)
        assert "startup.sh did not start it" in journal(host, kind)
        assert not host.machine.file(f"{STATE}/kept_settings").exists()
        status = host.machine.attempt("norvak_host", "status", kind)
        assert (status.returncode, "the agent is not running" in status.stdout) == (2, True)
        # That the agent does not run is no reason for later runs to fail, or to start it.
        host.write(rules.CURRENT, f"{rules.digest(rules.NEW_RULES)}\n")
        assert start(host, kind), journal(host, kind)
        assert host.file("starts").read_text() == "started\n" * starts[kind]


# An agent with several processes, each of which constantly starts short-lived programs.
BUSY = """\
#!/bin/sh
cd "$(dirname "$0")" || exit 1
setsid ./busy_agent </dev/null >/dev/null 2>&1 &
echo $! >norvak.pid
"""


def test_the_programs_that_an_agent_starts_do_not_keep_it_in_the_unit(host):
    host.write("busy_agent", "#!/bin/sh\n"
               "for i in 1 2 3; do while :; do sleep 0.003; done & done\nwait\n", 0o755)
    host.write("startup.sh", BUSY, 0o755)
    assert start(host, "soft"), journal(host, "soft")
    pid = host.file("norvak.pid").read_text().strip()
    assert host.control_group(pid).startswith("norvak-agent-")
    host.machine.run("kill", "-KILL", "--", f"-{pid}")


def test_an_agent_that_an_administrator_stopped_stays_stopped(host):
    host.machine.run("kill", "-KILL", *map(str, host.agents()))
    host.file("norvak.pid").unlink()
    host.write("tool/tar", "#!/bin/sh\nkill -KILL 0\n", 0o755)
    assert not start(host, "soft")
    host.machine.wait_until_idle(RECOVERY)
    assert host.left_to_do() == ["0 agents run", "norvak.pid does not name the agent"]


def test_a_unit_that_is_stopped_during_a_run_is_recovered(host):
    host.write("tool/tar", "#!/bin/sh\nsleep 1000\n", 0o755)
    start_and_wait_for(host, f"{ROOT}/tool/tar")
    host.machine.run("systemctl", "stop", "norvak-update@soft.service")
    assert_in_good_order(host)


def start_and_wait_for(host, process):
    """Starts an update of the agent, and waits until it has ended the agent and runs @a process."""
    host.machine.run("systemctl", "start", "--no-block", "norvak-update@soft.service")
    host.machine.wait_for(lambda: host.machine.attempt("pgrep", "-f", process).returncode == 0 and
                          host.agents() == [])


@pytest.mark.parametrize("victim", ["norvak_update", "run"])
def test_a_killed_process_of_the_run_is_recovered(host, victim):
    host.write("tool/tar", "#!/bin/sh\nsleep 1000\n", 0o755)
    start_and_wait_for(host, f"{ROOT}/tool/tar")
    host.machine.run("pkill", "-KILL", "-x", victim)
    host.machine.wait_until_idle("norvak-update@soft.service")
    assert_in_good_order(host)


def memory_kills():
    """What the kernel has reported about processes that it killed because memory ran out."""
    log = subprocess.run(["dmesg"], capture_output=True, text=True, check=True).stdout
    return {line for line in log.splitlines() if "out of memory: Killed process" in line}


@pytest.mark.parametrize("victim", ["tail", "norvak_update", "run"])
def test_a_process_of_the_run_that_is_killed_for_want_of_memory_is_recovered(host, victim):
    # Each "tail" keeps in memory all that it reads, as there is no line end. Neither gets so large
    # that the kernel chooses it instead of a process with the score 1000.
    host.write("tool/tar", f"#!/bin/sh\nread -r _ <{ROOT}/go\n"
               "tail /dev/zero &\nexec tail /dev/zero\n", 0o755)
    host.machine.run("mkfifo", f"{ROOT}/go")
    start_and_wait_for(host, f"^/bin/sh {ROOT}/tool/tar")
    host.machine.limit_memory("norvak-update@soft.service", 40)
    if victim != "tail":  # which the kernel would choose
        host.machine.run("sh", "-c", f"echo 1000 >/proc/$(pgrep -x {victim})/oom_score_adj")
    before = memory_kills()
    host.machine.run("sh", "-c", f"echo >{ROOT}/go")
    host.machine.wait_until_idle("norvak-update@soft.service")
    host.machine.run("systemctl", "revert", "norvak-update@soft.service")  # the limit may be in it
    assert host.machine.property("norvak-update@soft.service", "ActiveState") == "failed"
    assert any(f"({victim})" in line for line in memory_kills() - before)
    assert_in_good_order(host)


def test_a_setting_that_was_not_carried_over_is_reported(host, server):
    publish(server, host)
    host.configure(update_type="2")  # any number but 1 allows automatic updates
    # Once the package's config.xml is in place the updater is killed.
    server.publish({software.PACKAGE_PATH[1:]: package_that_kills_its_updater(server)})
    assert not start(host, "soft")
    assert_in_good_order(host)
    kept = host.machine.file(f"{STATE}/kept_settings").read_text()
    assert f'"offered_version":"{software.NEW_VERSION}"' in kept
    assert '"update_type":"2"' in kept
    report = host.machine.journal(RECOVERY)
    assert 'update_type is "0" and should be "2"' in report
    status = host.machine.attempt("norvak_host", "status", "soft").stdout
    assert "update_type" in status and "setting-not-carried-over" in status
    host.configure(update_type="2", version=software.NEW_VERSION)
    assert "not-carried-over" not in host.machine.attempt("norvak_host", "status", "soft").stdout
    assert start(host, "soft")
    assert not host.machine.file(f"{STATE}/kept_settings").exists()


def test_settings_that_nobody_recorded_are_not_reported(host):
    """A run that was started by hand and interrupted."""
    host.write("update", "")
    host.write("update_norvak_soft/new_version", software.NEW_VERSION)
    assert host.machine.start(RECOVERY)
    assert_in_good_order(host)
    assert not host.machine.file(f"{STATE}/kept_settings").exists()


def package_that_kills_its_updater(server):
    config = config_xml({"update_host": server.url, "update_type": "0", "version": "abcdef0.0.0"})
    return package({"update": "#!/bin/sh\ncp config.xml ../../config.xml\nkill -KILL 0\n",
                    "config.xml": config})


def test_a_dangerous_pid_file_is_removed_before_the_run(host):
    host.machine.run("systemd-run", "--quiet", "--unit=bystander", "sleep", "1000")
    bystander = host.machine.property("bystander.service", "MainPID")
    try:
        host.write("norvak.pid", f"{bystander}\n")
        assert start(host, "soft"), journal(host, "soft")
        assert host.machine.property("bystander.service", "MainPID") == bystander
        host.write("norvak.pid", "")
        assert start(host, "rules"), journal(host, "rules")
    finally:
        host.machine.attempt("systemctl", "stop", "bystander.service")


@pytest.mark.parametrize("unit", ["soft", "kernel", "rules", "nginx"])
def test_systemd_accepts_the_units(machine, unit):
    paths = machine.run("sh", "-c", f"ls /usr/lib/systemd/system/norvak-update@{unit}.timer "
                        "/usr/lib/systemd/system/norvak-update@*.service "
                        "/usr/lib/systemd/system/norvak-update-*.service 2>/dev/null; true").split()
    run = machine.attempt("systemd-analyze", "--man=no", "verify", *paths)
    assert (run.returncode, run.stdout + run.stderr) == (0, "")


@pytest.mark.parametrize("kind", ["kernel", "rules", "nginx"])
def test_the_hardened_units_are_hardly_exposed(machine, kind):
    machine.run("systemd-analyze", "security", "--no-pager", "--threshold=30",
                f"norvak-update@{kind}.service")


PROBES = [
    ("write to /usr/bin", "touch /usr/bin/probe", False),
    ("write to /etc", "touch /etc/probe", False),
    ("write to /boot", "touch /boot/probe", False),
    ("read the passwords", "grep root: /etc/shadow", False),
    ("make a device", "mknod /run/probe b 8 0", False),
    ("mount", "mount -t tmpfs probe /mnt", False),
    ("make a namespace", "unshare --mount true", False),
    ("change kernel settings", "echo 1 >/proc/sys/kernel/sysrq", False),
    ("change control groups", "mkdir /sys/fs/cgroup/probe || mkdir /sys/fs/cgroup/systemd/probe", False),
    ("set the clock", "date -s @1", False),
    ("write to the install directory", f"touch {ROOT}/probe", True),
    ("write to a directory without search permission",
     f"mkdir -m 0644 {ROOT}/probe && touch {ROOT}/probe/file", True),
    ("write to another place for agents", "mkdir -p /opt/agent && touch /opt/agent/probe", True),
    ("write to /home", "touch /home/probe", True),
    ("write the state", f"touch {STATE}/probe", True),
    ("change an owner", f"touch {ROOT}/probe && chown 1:1 {ROOT}/probe", False),
    ("signal another user's process", "kill -0 $(pgrep -u messagebus | head -1)", True),
    ("talk to systemd", "systemctl is-active dbus.service", True),
]


@pytest.mark.parametrize("command, allowed", [probe[1:] for probe in PROBES],
                         ids=[probe[0] for probe in PROBES])
def test_the_sandbox_allows_what_an_update_needs_and_no_more(machine, command, allowed):
    # The instance has the settings of the template, and a program of its own.
    machine.write("/etc/systemd/system/norvak-update@probe.service.d/probe.conf",
                       "[Unit]\nOnFailure=\n[Service]\nExecStart=\nExecStart=/bin/sh /run/probe.sh\n")
    machine.file(ROOT).mkdir(exist_ok=True)
    machine.run("sh", "-c", f"cat >/run/probe.sh <<'END'\n{command}\nEND")
    machine.run("systemctl", "daemon-reload")
    assert machine.start("norvak-update@probe.service") == allowed, machine.journal("norvak-update@probe.service")
    machine.run("sh", "-c", f"rm -rf {ROOT}/probe /opt/agent /home/probe {STATE}/probe /run/probe")


def test_nothing_runs_before_an_administrator_enables_it(machine):
    listed = machine.run("systemctl", "list-units", "--all", "--no-legend", "norvak-update*.timer")
    assert listed == ""
    assert machine.property("norvak-update-boot.service", "ConditionResult") == "no"


def test_an_enabled_timer_waits_for_its_time(machine):
    for kind in ("soft", "kernel", "rules"):
        timer = f"norvak-update@{kind}.timer"
        machine.run("systemctl", "enable", "--now", timer)
        assert machine.property(timer, "ActiveState") == "active"
        assert machine.property(timer, "RandomizedDelayUSec") == "1h"
        assert machine.property(timer, "FixedRandomDelay") == "yes"
        assert machine.property(timer, "Persistent") == "yes"
        assert machine.property(timer, "NextElapseUSecRealtime")
        machine.run("systemctl", "disable", "--now", timer)
