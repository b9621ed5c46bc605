"""Several runs at once on one install directory."""

import collections
import contextlib
import re
import signal
import threading

import pytest

from harness import FAILED, OK, Reply, http_reply, kernel, package, rules, wait_until, web_server
from harness.kernel import FIRST, TESSEL, UNAME
from harness.software import PACKAGE_PATH_64 as PACKAGE_PATH  # kernel.UNAME names such a machine
from harness.software import GET_VERSION, NOT_NEEDED, UPDATED, VERSION_PATH, settings
from harness.transfers import PARTIAL_FILE, transfer_failed
from harness.waiting import SECONDS

SOFT_ARGUMENTS = ["0", "0"]
WEB_SERVER_ARGUMENTS = ["2", web_server.VERSION_DIR, "64-bit"]
ALL_ARGUMENTS = [SOFT_ARGUMENTS, ["1"], WEB_SERVER_ARGUMENTS, ["3"]]

FIRST_PATHS = [VERSION_PATH, kernel.list_path(FIRST), web_server.LIST_PATH, rules.LIST_PATH]

REQUESTS = [[GET_VERSION, f"GET {PACKAGE_PATH}"], kernel.get_all(*kernel.MODULES),
            [web_server.GET_LIST, web_server.GET_PROGRAM], [rules.GET_LIST, rules.GET_RULES]]

OLD_MODULE = b"an older build\n"


def publish_all(server):
    server.publish({VERSION_PATH[1:]: b"abcdef3.1.10\n", PACKAGE_PATH[1:]: package()})
    kernel.publish_modules(server)
    web_server.publish_build(server)
    rules.publish_rules(server)


def prepare(host, server):
    """Installs old versions of everything."""
    host.configure(**settings(server.url), kernel_update_host=server.url,
                   nginx_update_host=server.url)
    rules.install_rules(host)
    kernel.install(host, *kernel.MODULES, content=OLD_MODULE)
    web_server.install_build(host)


def start_all_at_once(host, server, replies):
    """Starts all four updates. Their first requests are answered when all four have arrived."""
    together = threading.Barrier(len(FIRST_PATHS))
    for path in FIRST_PATHS:
        server.reply(path, Reply([lambda: together.wait(SECONDS), *replies[path].steps]))
    return [host.start(*arguments, uname=UNAME) for arguments in ALL_ARGUMENTS]


def only(expected, lines):
    """The @a lines that occur in @a expected, in their order."""
    return [line for line in lines if line in expected]


# Different types.


def test_updates_of_all_types_succeed_at_the_same_time(host, scripted_server):
    publish_all(scripted_server)
    prepare(host, scripted_server)
    started = start_all_at_once(host, scripted_server, {
        VERSION_PATH: http_reply(b"abcdef3.1.10\n"),
        kernel.list_path(FIRST): http_reply(kernel.digest(kernel.new(FIRST)).encode()),
        web_server.LIST_PATH: http_reply(web_server.NEW_LINE),
        rules.LIST_PATH: http_reply(rules.digest().encode())})
    assert [run.finish() for run in started] == [OK] * 4

    texts = host.log_texts()
    logs = [["[SOFT] update norvak agent success"], kernel.were_updated(*kernel.MODULES),
            web_server.UPDATED[:-1], rules.UPDATED[:-1]]
    assert [only(log, texts) for log in logs] == logs
    assert len(texts) == sum(map(len, logs)) + 4  # and one separator per run
    requests = scripted_server.requests()
    assert [only(expected, requests) for expected in REQUESTS] == REQUESTS
    assert len(requests) == sum(map(len, REQUESTS))

    assert host.changes() == sorted(
        [f"+{kernel.RECORD}", "-norvak.pid", "~config.xml", f"~{rules.RULES}",
         f"~{web_server.PROGRAM}", f"~{web_server.IDENTIFICATION}",
         *(f"~{kernel.installed(name)}" for name in kernel.MODULES)])
    assert {name: host.read(kernel.installed(name)) for name in kernel.MODULES} == {
        name: kernel.new(name) for name in kernel.MODULES}
    assert host.read(rules.RULES) == rules.NEW_RULES
    assert host.read(web_server.PROGRAM) == web_server.NEW_PROGRAM
    assert dict(host.config_values())["version"] == "abcdef3.1.10"
    assert [step.who for step in host.trace()] == ["tool/tar", "startup.sh"]
    assert host.agent.was_killed()


def test_updates_of_all_types_fail_independently(host, scripted_server):
    publish_all(scripted_server)
    scripted_server.reply(PACKAGE_PATH, http_reply(package(), length=1 << 20))
    scripted_server.reply(kernel.module_path(TESSEL), http_reply(b"another build\n"))
    prepare(host, scripted_server)
    started = start_all_at_once(host, scripted_server, {
        VERSION_PATH: http_reply(b"abcdef3.1.10\n"),
        kernel.list_path(FIRST): http_reply(kernel.digest(kernel.new(FIRST)).encode()),
        web_server.LIST_PATH: http_reply(web_server.OLD_LINE),
        rules.LIST_PATH: http_reply(b"0" * 32)})
    assert [run.finish() for run in started] == [FAILED] * 4

    texts = host.log_texts()
    logs = [[transfer_failed(PARTIAL_FILE),
             "[SOFT] call run_update_norvak_agent->download_norvak_update_package failed",
             "[SOFT] update norvak agent failed"],
            [*kernel.were_updated(FIRST), *kernel.was_refused(TESSEL)[:-1]],
            web_server.NOT_NEW[:-1], rules.REFUSED[:-1]]
    assert [only(log, texts) for log in logs] == logs
    assert len(texts) == sum(map(len, logs)) + 4
    assert host.changes() == [f"+{kernel.RECORD}", f"~{kernel.installed(FIRST)}"]
    host.assert_agent_undisturbed()


@pytest.mark.parametrize("stalled", ALL_ARGUMENTS, ids=["agent", "kernel", "web server", "rules"])
def test_a_stalled_run_does_not_block_other_types(host, scripted_server, stalled):
    publish_all(scripted_server)
    prepare(host, scripted_server)
    path = FIRST_PATHS[ALL_ARGUMENTS.index(stalled)]
    scripted_server.reply(path, Reply([], "stall"))
    held_up = host.start(*stalled, uname=UNAME)
    scripted_server.wait_for_requests(1)
    for arguments in ALL_ARGUMENTS:
        if arguments is not stalled:
            assert host.update(*arguments, uname=UNAME) == OK
    assert held_up.is_running()
    held_up.kill()


# The same type. Such runs may damage each other's work: see docs/reliability.md.


@pytest.mark.xfail(strict=True, reason="runs of one type share their work directory")
def test_a_module_is_not_replaced_by_another_that_a_second_run_fetches(host, scripted_server):
    second_run_has_another = threading.Event()
    first_run_goes_on = threading.Event()
    first_run_has_ended = threading.Event()
    publish_all(scripted_server)
    prepare(host, scripted_server)

    def wait_until_fetched(name):
        wait_until(lambda: host.exists(kernel.DOWNLOAD) and
                   host.read(kernel.DOWNLOAD) == kernel.new(name), f"the download of {name}")

    def hold_up_first_run():
        second_run_has_another.wait(SECONDS)
        first_run_goes_on.set()

    def hold_up_second_run():
        if not first_run_goes_on.is_set():
            wait_until_fetched(TESSEL)
            second_run_has_another.set()
            first_run_has_ended.wait(SECONDS)

    # Without a length the body ends with the connection, so it is on disk before the transfer ends.
    for name, hold_up in [(FIRST, hold_up_first_run), (TESSEL, hold_up_second_run)]:
        steps = iter([hold_up])
        scripted_server.reply(kernel.module_path(name), Reply(
            [b"HTTP/1.0 200 OK\r\n\r\n", kernel.new(name),
             lambda steps=steps: next(steps, lambda: None)()]))

    first_run = host.start("1", uname=UNAME)
    wait_until_fetched(FIRST)
    second_run = host.start("1", uname=UNAME)
    assert first_run.finish() in (OK, FAILED)
    first_run_has_ended.set()
    assert second_run.finish() in (OK, FAILED)
    contents = {name: host.read(kernel.installed(name)) for name in kernel.MODULES
                if host.exists(kernel.installed(name))}
    assert [name for name, content in contents.items()
            if content not in (OLD_MODULE, kernel.new(name))] == []


# Two hundred runs: forty each of types 1 to 3, and of automatic and manual updates of the agent.

BY_HAND = ["0", "1"]
TWO_HUNDRED = 40 * [SOFT_ARGUMENTS, BY_HAND, ["1"], WEB_SERVER_ARGUMENTS, ["3"]]

# The end of an automatic run that reads a version of fewer than six characters: the empty one that
# a manual run records, or that of a version file which another run removed.
TOO_SHORT = 128 + signal.SIGABRT

VERSION_SETTING = re.compile(rb'(name="version" value=")(?:abcdef3\.1\.9|abcdef3\.1\.10|)"')


@pytest.fixture
def crowded_host(host, server):
    """A host with old versions of everything and a long config.xml. Its scripts write no trace."""
    publish_all(server)
    prepare(host, server)
    host.configure(*((f"setting {i}", "x" * 50) for i in range(300)), **settings(server.url),
                   kernel_update_host=server.url, nginx_update_host=server.url)
    host.write("startup.sh", "#!/bin/sh\n", mode=0o755)
    host.write("tool/tar", '#!/bin/sh\nexec tar "$@"\n', mode=0o755)
    host.remember()
    return host


@contextlib.contextmanager
def config_is_always_whole(host):
    """Keeps reading config.xml inside the with block: only the version may change."""
    def read():
        return VERSION_SETTING.sub(rb"\1", host.read("config.xml"))

    before, ended, wrong = read(), threading.Event(), []

    def watch():
        while not ended.wait(0.002):
            try:
                found = read()
            except OSError as error:
                found = error
            if found != before:
                wrong.append(found)

    watcher = threading.Thread(target=watch)
    watcher.start()
    try:
        yield
    finally:
        ended.set()
        watcher.join()
    assert wrong == []
    assert read() == before


def by_type(statuses):
    """The statuses of the two hundred runs: automatic, manual, kernel, web server, rules."""
    return [collections.Counter(statuses[i::5]) for i in range(5)]


def assert_all_new(host):
    assert {name: host.read(kernel.installed(name)) for name in kernel.MODULES} == {
        name: kernel.new(name) for name in kernel.MODULES}
    assert host.read(kernel.RECORD).decode() == kernel.VERSION
    assert host.read(rules.RULES) == rules.NEW_RULES
    assert host.read(web_server.PROGRAM) == web_server.NEW_PROGRAM
    assert host.read(web_server.IDENTIFICATION) == web_server.NEW_LINE


ALL_NEW = sorted([f"+{kernel.RECORD}", "-norvak.pid", "~config.xml", f"~{rules.RULES}",
                  f"~{web_server.PROGRAM}", f"~{web_server.IDENTIFICATION}",
                  *(f"~{kernel.installed(name)}" for name in kernel.MODULES)])


def test_two_hundred_runs_with_a_lock_per_type_all_succeed(crowded_host):
    """As recommended in the documentation. Only the order of the runs is random.

    In the end everything is installed completely, and the log has all lines of all runs. config.xml
    is complete at any time. Two results depend on the order: an automatic run after a manual one
    reads an empty version, and a rule update that checks for a module while the kernel update
    replaces it has nothing to do.
    """
    host = crowded_host
    with config_is_always_whole(host):
        statuses, errors = host.update_at_once(*TWO_HUNDRED, uname=UNAME, locked=True)
    automatic, *others, rule = by_type(statuses)
    assert others == [{0: 40}, {0: 40}, {0: 1, 255: 39}]
    assert rule.keys() <= {0, 255} and rule[0] > 0
    assert automatic.keys() <= {0, 255, TOO_SHORT} and automatic[0] <= 1
    assert errors.count(b"terminate called") == automatic[TOO_SHORT]
    assert b"out_of_range" in errors or not automatic[TOO_SHORT]

    expected = collections.Counter({"": 200 - automatic[TOO_SHORT]})
    for count, log in [(40 + automatic[0], UPDATED), (automatic[255], NOT_NEEDED),
                       (1, kernel.were_updated(*kernel.MODULES)),
                       (39, kernel.are_current(*kernel.MODULES)), (1, web_server.UPDATED),
                       (39, web_server.NOT_NEW), (rule[0], rules.UPDATED),
                       (rule[255], rules.NOTHING_TO_DO)]:
        expected.update({line: count for line in log if line})
    assert collections.Counter(host.log_texts()) == +expected
    assert_all_new(host)
    # An automatic run that was aborted by the version leaves its work directory to the next run.
    assert [change for change in host.changes() if "update_norvak_soft" not in change] == ALL_NEW
    assert host.agent.was_killed()


def test_two_hundred_runs_without_a_lock_cause_no_lasting_damage(crowded_host):
    """Runs of one type share a work directory, and most of them fail because of that.

    Still guaranteed: no run crashes, no line of the log is split, config.xml is complete at any
    time, and nothing changes except the files that these types install. Not guaranteed, because one
    run may replace the download of another between check and move: that a module, rule file or
    program exists in the end, or has the right contents. One more run repairs modules and rules.
    For the web server it does so only if the installed identification is not the published one.
    """
    host = crowded_host
    surroundings = host.surroundings()
    with config_is_always_whole(host):
        statuses, _ = host.update_at_once(*TWO_HUNDRED, uname=UNAME)
    automatic, *others = by_type(statuses)
    assert automatic.keys() <= {0, 255, TOO_SHORT}
    assert all(found.keys() <= {0, 255} for found in others)
    assert host.log_texts().count("") == 200 - automatic[TOO_SHORT]
    may_change = {change[1:] for change in ALL_NEW}
    assert {change[1:] for change in host.changes()
            if not change.startswith("+update_norvak_")} <= may_change
    assert host.surroundings() == surroundings

    host.write(web_server.IDENTIFICATION, web_server.OLD_LINE)
    for arguments in (BY_HAND, ["1"], WEB_SERVER_ARGUMENTS, ["3"]):
        assert host.update(*arguments, uname=UNAME) == OK
    assert_all_new(host)
    assert host.changes() == ALL_NEW
    assert host.agent.was_killed()
