"""Tests of the harness itself."""

import pathlib
import signal
import socket
import time
import urllib.error
import urllib.request

import pytest

from harness import (KILLED, AgentHost, Run, ScriptedServer, Step, count_saves, http_reply,
                     log_lines, package, wait_until)


@pytest.fixture
def make_host_with(updater, tmp_path):
    """Creates a host whose updater is a shell script."""
    hosts = []

    def make(body):
        program = tmp_path / "program"
        program.write_text(f"#!/bin/sh\n{body}\n")
        program.chmod(0o755)
        hosts.append(AgentHost(program, lambda: None))
        hosts[-1].start_agent()
        return hosts[-1]

    yield make
    for host in hosts:
        host.close()


def test_a_run_reports_status_and_output(make_host_with):
    host = make_host_with("echo said; echo complained >&2; exit 3")
    assert host.update() == Run(3, b"said\n", b"complained\n")


def test_a_run_reports_the_signal_that_ended_it(make_host_with):
    assert make_host_with("kill -9 $$").update() == Run(KILLED)


@pytest.mark.parametrize("name", ["SIGINT", "SIGQUIT"])
def test_a_run_does_not_inherit_that_a_signal_is_ignored(make_host_with, name):
    number = signal.Signals[name]
    host = make_host_with(f"kill -{number.value} $$")
    before = signal.signal(number, signal.SIG_IGN)
    try:
        assert host.update() == Run(-number)
    finally:
        signal.signal(number, before)


def test_runs_in_turn_see_what_the_earlier_ones_left(make_host_with):
    host = make_host_with('cd "$(cat /var/log/version_control)" && echo >>runs\n'
                          "cat runs >&2; exit 3")
    assert host.update_in_turn(2) == ([3, 3], b"\n\n\n")
    assert host.changes() == ["+runs"]


def test_a_small_disk_has_the_free_space_and_leaves_its_files(make_host_with):
    host = make_host_with('cd "$(cat /var/log/version_control)" && cat /dev/zero >big')
    statuses, _ = host.update_in_turn(1, free_bytes=1 << 16)
    assert statuses == [1]
    assert host.changes() == ["+big"]
    assert host.read("big") == bytes(1 << 16)


def test_a_run_that_does_not_end_is_killed_and_fails_the_test(make_host_with):
    host = make_host_with("sleep 60")
    before = time.monotonic()
    with pytest.raises(AssertionError, match="did not end within"):
        host.update(seconds=0.2)
    assert time.monotonic() - before < 10


def test_a_run_sees_its_own_var_log_only(make_host_with):
    host = make_host_with("echo mine >/var/log/norvak-harness-test; ls /var/log")
    assert host.update() == Run(0, b"norvak-harness-test\nversion_control\n")
    assert not pathlib.Path("/var/log/norvak-harness-test").exists()


def test_a_killed_agent_is_distinguished_from_a_live_one(make_host_with):
    host = make_host_with('read -r pid <"$(cat /var/log/version_control)/norvak.pid"\n'
                          'kill "$1" "$pid"')
    agent = host.agent
    host.update("-0")
    host.note("before")
    assert agent.is_alive()
    host.update("-KILL")
    host.note("after")
    assert agent.was_killed()
    assert [(step.who, step.agent) for step in host.trace()] == [("before", "alive"),
                                                                 ("after", "dead")]


def test_an_agent_ended_by_another_signal_does_not_count_as_killed(make_host_with):
    host = make_host_with('read -r pid <"$(cat /var/log/version_control)/norvak.pid"; kill "$pid"')
    host.update()
    wait_until(lambda: not host.agent.is_alive(), "the agent's end")
    assert not host.agent.was_killed()


def test_a_private_pid_namespace_confines_kill(make_host_with):
    host = make_host_with('kill -KILL "$1"')
    assert host.update_with_private_pids("0") == (Run(KILLED), "alive")
    assert host.update_with_private_pids("-1")[1] == "killed"
    assert host.agent.is_alive()


def test_changes_list_new_removed_and_changed_files(make_host_with):
    host = make_host_with('cd "$(cat /var/log/version_control)" && rm norvak.pid && '
                          'mkdir -m 0644 new && echo x >new/file && echo x >startup.sh')
    assert host.update() == Run(0)
    assert host.changes() == ["+new", "+new/file", "-norvak.pid", "~startup.sh"]
    assert host.mode("new") == 0o644
    assert host.read("new/file") == b"x\n"


def test_the_trace_has_what_a_script_saw(make_host_with):
    host = make_host_with('cd "$(cat /var/log/version_control)" && touch update new && cd runlog &&'
                          " LD_LIBRARY_PATH=/elsewhere ../startup.sh")
    assert host.update() == Run(0)
    assert host.trace() == [Step("startup.sh", "./runlog", True, "alive", ["+new"], "/elsewhere")]


@pytest.mark.parametrize("torn", [
    pytest.param(b"[2024-01-02 03:04:05]\t\ttext", id="no newline"),
    pytest.param(b"[2024-01-02 03:04:05]\ttext\n", id="one tab"),
    pytest.param(b"[2024-01-02  3:04:05]\t\ttext\n", id="blank for a digit"),
    pytest.param(b"ext\n[2024-01-02 03:04:05]\t\ttext\n", id="rest of a line"),
])
def test_a_malformed_log_line_is_rejected(torn):
    with pytest.raises(AssertionError):
        log_lines(torn)


def test_saves_are_counted_whether_written_in_place_or_moved(tmp_path):
    with count_saves(tmp_path / "config.xml") as saves:
        (tmp_path / "config.xml").write_text("first")
        (tmp_path / "other").write_text("second")
        (tmp_path / "other").rename(tmp_path / "config.xml")
        (tmp_path / "config.xml").read_text()
    assert saves.count == 2


def fetch(url):
    """Status and body of the reply for @a url."""
    try:
        with urllib.request.urlopen(url, timeout=10) as answer:
            return answer.status, answer.read()
    except urllib.error.HTTPError as error:
        return error.code, error.read()


def test_nginx_publishes_files_and_lists_its_requests_in_order(server):
    server.publish({"norvak/version": b"abcdef1.0\n"})
    assert server.requests() == []
    assert fetch(f"{server.url}/norvak/version") == (200, b"abcdef1.0\n")
    assert fetch(f"{server.url}/broken/version") == (500, b"the server is broken\n")
    assert fetch(f"{server.url}/moved/norvak/version") == (200, b"abcdef1.0\n")
    assert server.requests() == ["GET /norvak/version", "GET /broken/version",
                                 "GET /moved/norvak/version", "GET /norvak/version"]
    server.reset()
    assert server.requests() == []
    assert fetch(f"{server.url}/norvak/version")[0] == 404


def test_the_scripted_server_follows_its_script(scripted_server):
    called = []
    pieces = [b"a", lambda: called.append(1), b"b"]
    scripted_server.reply("/it", http_reply(length=2, pieces=pieces))
    assert fetch(f"{scripted_server.url}/it") == (200, b"ab")
    assert fetch(f"{scripted_server.url}/other") == (404, b"not here\n")
    assert called == [1]
    assert scripted_server.requests() == ["GET /it", "GET /other"]


def test_the_scripted_server_gives_one_reply_after_the_other(scripted_server):
    scripted_server.reply_in_turn("/it", [http_reply(b"first"), http_reply(b"second")])
    assert [fetch(f"{scripted_server.url}/it") for _ in range(3)] == [
        (200, b"first"), (200, b"second"), (404, b"not here\n")]


def test_closing_the_scripted_server_ends_a_stalled_reply():
    server = ScriptedServer()
    server.reply("/it", http_reply(end="stall", length=1))
    with socket.create_connection(("127.0.0.1", server.port), timeout=10) as client:
        client.sendall(b"GET /it HTTP/1.1\r\n\r\n")
        server.wait_for_requests(1)
        server.close()
        with client.makefile("rb") as reply:
            assert reply.read() == b"HTTP/1.1 200 OK\r\nContent-Length: 1\r\n\r\n"


def test_a_package_is_what_tar_unpacks(make_host_with, tmp_path):
    (tmp_path / "p.tar").write_bytes(package({"update": "#!/bin/sh\n", "etc/new": b"\0\n"}))
    host = make_host_with(f'"$(cat /var/log/version_control)/tool/tar" xvf {tmp_path}/p.tar')
    assert host.update() == Run(0, b"update\netc/new\n")
    assert (host.start_dir / "etc/new").read_bytes() == b"\0\n"
