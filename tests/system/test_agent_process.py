"""Stopping the agent by its pid file, starting it again, and cleaning up after an update."""

import os
import signal

import pytest

from harness import DATA_DIR, KILLED, OK, TAR, VERSION_FILE, WORK_DIR, Run
from harness.software import NEW_VERSION, UPDATED, publish_update, settings


@pytest.fixture
def updatable(host, server):
    """A host for which the server has an update."""
    publish_update(server, files={"update": host.script("update")})
    host.configure(**settings(server.url))
    return host


def assert_updated(host):
    assert host.log_texts() == UPDATED
    assert [step.who for step in host.trace()] == ["tool/tar", "update", "startup.sh"]
    assert dict(host.config_values())["version"] == NEW_VERSION
    assert not host.exists(WORK_DIR)


# The pid file.


def test_the_agent_is_killed_by_the_number_in_its_pid_file(updatable):
    updatable.write("norvak.pid", f" {updatable.agent.pid} agent\n1\n")
    assert updatable.update("0", "0") == OK
    assert_updated(updatable)
    assert updatable.agent.was_killed()
    assert not updatable.exists("norvak.pid")


def test_without_a_pid_file_the_update_continues(updatable):
    updatable.remove("norvak.pid")
    assert updatable.update("0", "0") == OK
    assert_updated(updatable)
    assert updatable.agent.is_alive()


def test_the_pid_file_of_an_ended_process_is_kept_and_the_update_continues(updatable):
    gone = os.posix_spawn("/bin/true", ["true"], {})
    os.waitpid(gone, 0)
    updatable.write("norvak.pid", f"{gone}\n")
    assert updatable.update("0", "0") == OK
    assert_updated(updatable)
    assert updatable.read("norvak.pid") == f"{gone}\n".encode()
    assert updatable.agent.is_alive()


def test_an_empty_pid_file_kills_the_updater_with_its_process_group(updatable):
    updatable.write("norvak.pid", "")
    updatable.remember()
    run, bystander = updatable.update_with_private_pids("0", "0")
    assert run == Run(KILLED)
    assert bystander == "alive"
    assert updatable.log_texts() == []
    assert updatable.trace() == []
    assert updatable.changes() == sorted(
        ["+update", f"+{WORK_DIR}", f"+{DATA_DIR}", f"+{VERSION_FILE}", f"+{TAR}"])
    assert updatable.agent.is_alive()


def test_a_pid_of_minus_one_kills_all_but_the_updater(updatable):
    updatable.write("norvak.pid", "-1\n")
    run, bystander = updatable.update_with_private_pids("0", "0")
    assert run == OK
    assert bystander == "killed"
    assert_updated(updatable)
    assert not updatable.exists("norvak.pid")
    assert updatable.agent.is_alive()  # outside the PID namespace


# The startup script.


def test_the_startup_script_starts_a_new_agent_that_outlives_the_run(updatable):
    updatable.write_script("startup.sh", f"""
        setsid sleep 60 >/dev/null 2>&1 &
        echo $! >'{updatable.path}/norvak.pid'""")
    old = updatable.agent
    assert updatable.update("0", "0") == OK
    new_pid = int(updatable.read("norvak.pid"))
    try:
        assert_updated(updatable)
        assert old.was_killed()
        assert new_pid != old.pid
        os.kill(new_pid, 0)
    finally:
        os.kill(new_pid, signal.SIGKILL)


def test_the_run_waits_for_the_startup_script(updatable):
    updatable.write_script("startup.sh", f"sleep 0.3\necho done >'{updatable.path}/started'")
    assert updatable.update("0", "0") == OK
    assert updatable.read("started") == b"done\n"


def test_the_result_of_the_startup_script_does_not_matter(updatable):
    updatable.write_script("startup.sh", "kill -KILL $$")
    run = updatable.update("0", "0")
    assert (run.status, run.stdout) == (0, b"")
    assert run.stderr in (b"", b"Killed\n")  # depends on the shell
    assert_updated(updatable)


def test_a_missing_startup_script_does_not_matter(updatable):
    updatable.remove("startup.sh")
    run = updatable.update("0", "0")
    assert (run.status, run.stdout) == (0, b"")
    assert b"/startup.sh: " in run.stderr  # the error message of the shell
    assert updatable.log_texts() == UPDATED


# Cleaning up.


def test_everything_that_a_package_leaves_is_removed(updatable, server):
    publish_update(server, files={"update": """#!/bin/sh
        mkdir -p deep/er/and/deeper .hidden
        echo x >deep/er/file; echo x >.hidden/.file; echo x >'a name with blanks'
        ln -s /etc/hostname link; ln -s nowhere dangling; ln ../new_version hard
        chmod 000 deep/er""", "unpacked/file": "x"})
    assert updatable.update("0", "0") == OK
    assert updatable.changes() == ["-norvak.pid", "~config.xml"]


def test_a_link_to_a_directory_is_removed_and_not_followed(updatable, server):
    publish_update(server, files={"update": "#!/bin/sh\nln -s ../../kept link\n"})
    updatable.write("kept/file", "kept\n")
    updatable.remember()
    assert updatable.update("0", "0") == OK
    assert updatable.changes() == ["-norvak.pid", "~config.xml"]
    assert updatable.read("kept/file") == b"kept\n"


def test_a_work_directory_that_is_a_link_is_emptied_but_not_removed(updatable):
    updatable.write("elsewhere/file", "")
    (updatable.root / WORK_DIR).symlink_to("elsewhere")
    assert updatable.update("0", "0") == OK
    assert updatable.log_texts() == UPDATED
    assert (updatable.root / WORK_DIR).is_symlink()
    assert list((updatable.root / "elsewhere").iterdir()) == []


def test_a_socket_stops_the_clean_up_but_not_the_run(updatable, server):
    # DT_SOCK contains the bit of DT_DIR, so the clean-up takes a socket for a directory.
    publish_update(server, files={"update": "#!/usr/bin/env python3\nimport socket\n"
                                  "socket.socket(socket.AF_UNIX).bind('socket')\n"})
    assert updatable.update("0", "0") == OK
    assert updatable.log_texts() == UPDATED
    assert updatable.exists(f"{DATA_DIR}/socket")


def test_leftovers_of_a_failed_run_do_not_affect_the_next(updatable):
    updatable.write(f"{DATA_DIR}/deep/file", "")
    updatable.write(TAR, "")
    assert updatable.update("0", "0") == OK
    assert_updated(updatable)
