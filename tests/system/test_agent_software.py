"""Installing an agent package: the order of effects, and the ways in which it can fail."""

import pytest

from harness import (DATA_DIR, DEFAULT_UPDATE_SCRIPT, FAILED, OK, START, TAR, VERSION_FILE,
                     WORK_DIR, Run, Step, http_reply, namespace, package)
from harness.software import (GET_PACKAGE, GET_VERSION, NEW_VERSION, NO_PACKAGE, NOT_NEEDED,
                              NOT_UNPACKED, PACKAGE_PATH, PACKAGE_PATH_32, PACKAGE_PATH_64,
                              UPDATED, VERSION_PATH, publish_update, settings)

SCRIPT_FAILED = [
    "call exec_script failed",
    "[SOFT] call run_update_norvak_agent->update_now failed",
    "[SOFT] update norvak agent failed",
    "",
]
CONFIG_LOST = [
    "[SOFT] call run_update_norvak_agent->update_config failed",
    "[SOFT] update norvak agent failed",
    "",
]

UNPACKED = f"./{DATA_DIR}"
STOPPED = ["-norvak.pid"]


def who(host):
    return [step.who for step in host.trace()]


@pytest.fixture
def offer(host, server):
    """Publishes a package of the given files to an agent that updates itself."""
    def publish(**files):
        publish_update(server, files=files or None)
        host.configure(**settings(server.url))

    return publish


# Whole runs.


def test_an_automatic_run_takes_its_steps_in_order(host, server, offer):
    offer(update=host.script("update"), other="unpacked too")
    assert host.update("0", "0") == OK
    assert host.log_texts() == UPDATED
    assert server.requests() == [GET_VERSION, GET_PACKAGE]
    fetched = sorted([*STOPPED, f"+{WORK_DIR}", f"+{DATA_DIR}", f"+{VERSION_FILE}", f"+{TAR}"])
    unpacked = sorted([*fetched, f"+{DATA_DIR}/update", f"+{DATA_DIR}/other"])
    assert host.trace() == [
        Step("tool/tar", START, marker=True, agent="dead", changes=fetched),
        Step("update", UNPACKED, marker=True, agent="dead", changes=unpacked),
        Step("startup.sh", UNPACKED, marker=False, agent="dead", changes=unpacked),
    ]
    assert host.agent.was_killed()
    assert host.changes() == [*STOPPED, "~config.xml"]
    assert host.config_values() == list(settings(server.url, version=NEW_VERSION).items())


def test_a_manual_run_takes_the_same_steps_without_a_version(host, server, offer):
    offer(update=host.script("update"))
    assert host.update("0", "1") == OK
    assert host.log_texts() == UPDATED
    assert server.requests() == [GET_PACKAGE]
    fetched = sorted([*STOPPED, f"+{WORK_DIR}", f"+{DATA_DIR}", f"+{TAR}"])
    unpacked = sorted([*fetched, f"+{DATA_DIR}/update"])
    assert host.trace() == [
        Step("tool/tar", START, marker=True, agent="dead", changes=fetched),
        Step("update", UNPACKED, marker=True, agent="dead", changes=unpacked),
        Step("startup.sh", UNPACKED, marker=False, agent="dead", changes=unpacked),
    ]
    assert host.agent.was_killed()
    assert host.config_values() == list(settings(server.url, version="").items())


def test_the_second_automatic_run_finds_nothing_to_do(host, server, offer):
    offer()
    assert host.update("0", "0") == OK
    host.remember()
    assert host.update("0", "0") == FAILED
    assert host.log_texts() == UPDATED + NOT_NEEDED
    assert server.requests() == [GET_VERSION, GET_PACKAGE, GET_VERSION]
    assert host.changes() == []


def test_tar_and_script_get_the_command_lines_that_packages_rely_on(host, offer):
    said = 'echo "$0 $*" >>"$LD_LIBRARY_PATH/said"; echo "to the terminal"'
    host.write("tool/tar", f'#!/bin/sh\n{said}\nexec tar "$@"\n', mode=0o755)
    host.write_script("startup.sh", said)
    offer(update=f"#!/bin/sh\n{said}\n")
    # The output of tar and of the script is discarded, that of startup.sh is not.
    assert host.update("0", "0") == Run(0, b"to the terminal\n")
    assert host.read("said").decode() == (
        f"{host.path}/tool/tar xvf {host.path}/{TAR} -C {host.path}/{DATA_DIR}\n"
        "./update \n"
        f"{host.path}/startup.sh \n")


def test_standard_error_of_the_scripts_is_passed_on(host, offer):
    host.write_script("startup.sh", "echo starting >&2")
    offer(update="#!/bin/sh\necho installing >&2\n")
    assert host.update("0", "0") == Run(0, b"", b"installing\nstarting\n")


def test_work_directories_and_script_get_their_modes(host, offer):
    modes = 'stat -c %a "$LD_LIBRARY_PATH/update_norvak_soft" . update other >../../modes'
    offer(update=f"#!/bin/sh\n{modes}\n", other="")
    assert host.update("0", "0") == OK
    assert host.read("modes") == b"644\n644\n544\n644\n"


def test_an_existing_work_directory_keeps_its_mode(host, offer):
    offer(update="#!/bin/sh\nstat -c %a .. . >../../modes\n")
    (host.root / DATA_DIR).mkdir(parents=True)
    (host.root / WORK_DIR).chmod(0o750)
    (host.root / DATA_DIR).chmod(0o700)
    assert host.update("0", "0") == OK
    assert host.read("modes") == b"750\n700\n"
    assert not host.exists(WORK_DIR)


def test_the_library_path_of_the_scripts_is_the_install_directory_alone(host, offer):
    library_path = 'echo "$LD_LIBRARY_PATH" >>"${0%/*}/../seen"\n'
    host.write("tool/tar", f'#!/bin/sh\n{library_path}exec tar "$@"\n', mode=0o755)
    host.write("startup.sh", '#!/bin/sh\necho "$LD_LIBRARY_PATH" >>"${0%/*}/seen"\n', mode=0o755)
    offer(update='#!/bin/sh\necho "$LD_LIBRARY_PATH" >>../../seen\n')
    assert host.update("0", "0", environment={"LD_LIBRARY_PATH": "/earlier:/value"}) == OK
    assert host.read("seen").decode() == f"{host.path}\n" * 3


def test_a_caller_may_ignore_sigchld(host, server, offer):
    offer(update=host.script("update"))
    assert host.update("0", "0", through=["env", "--ignore-signal=CHLD"]) == OK
    assert host.log_texts() == UPDATED
    assert who(host) == ["tool/tar", "update", "startup.sh"]
    assert host.config_values() == list(settings(server.url, version=NEW_VERSION).items())


def test_a_marker_that_was_left_over_is_removed_at_the_end(host, offer):
    offer(update="#!/bin/sh\ncat ../../update >../../marker\n")
    host.write("update", "left over")
    assert host.update("0", "0") == OK
    assert host.read("marker") == b"left over"
    assert host.changes() == ["+marker", "-norvak.pid", "~config.xml"]


def test_a_package_may_replace_programs_that_the_update_itself_uses(host, offer):
    offer(**{"update": "#!/bin/sh\ncp startup.sh ../..\ncp tar ../../tool\n",
             "startup.sh": host.script("new startup.sh"), "tar": "new tar"})
    assert host.update("0", "0") == OK
    assert who(host) == ["tool/tar", "new startup.sh"]
    assert host.read("tool/tar") == b"new tar"


# The package for the host's processor.


@pytest.mark.parametrize("machine, path", [
    ("X86_64", PACKAGE_PATH_64), ("aarch64", PACKAGE_PATH_32)])
def test_the_machine_name_chooses_the_package(host, server, machine, path):
    server.publish({path[1:]: package()})
    host.configure(**settings(server.url))
    assert host.update("0", "1", uname={"NORVAK_TEST_MACHINE": machine}) == OK
    assert host.log_texts() == UPDATED
    assert server.requests() == [f"GET {path}"]


# No package.


def test_without_a_host_nothing_is_fetched_and_the_agent_keeps_running(host):
    host.configure(update_host="", update_type="0")
    assert host.update("0", "1") == FAILED
    assert host.log_texts() == NO_PACKAGE
    assert host.changes() == []
    host.assert_agent_undisturbed()


def test_the_marker_exists_during_the_download_and_is_removed_if_that_fails(
        host, scripted_server):
    scripted_server.reply(PACKAGE_PATH,
                          http_reply(length=1, pieces=[lambda: host.note("request")]))
    host.configure(**settings(scripted_server.url))
    assert host.update("0", "1") == FAILED
    assert host.log_texts() == ["CUrlOp::url_down_file: curl_easy_perform failed[18]", *NO_PACKAGE]
    assert host.trace() == [Step("request", START, marker=True, agent="alive",
                                 changes=[f"+{WORK_DIR}", f"+{DATA_DIR}"])]
    assert host.changes() == []
    assert host.agent.is_alive()


# A package that cannot be unpacked.


def assert_not_unpacked(host, run, complaint, steps=("tool/tar", "startup.sh")):
    """The agent was stopped and started again, and nothing was installed."""
    assert (run.status, run.stdout) == (255, b"")
    assert complaint in run.stderr
    assert host.log_texts() == NOT_UNPACKED
    assert who(host) == list(steps)
    assert host.trace()[-1] == Step("startup.sh", START, marker=False, agent="dead",
                                    changes=host.trace()[-1].changes)
    assert host.agent.was_killed()
    assert dict(host.config_values())["version"] == "abcdef3.1.9"


@pytest.mark.parametrize("damage", [
    pytest.param(lambda archive: archive[:700], id="truncated"),
    pytest.param(lambda archive: archive[:148] + b"7777777\0" + archive[156:], id="wrong checksum"),
])
def test_a_damaged_package_is_not_installed(host, server, damage):
    files = {"update": DEFAULT_UPDATE_SCRIPT, "big": "x" * 2000}
    server.publish({VERSION_PATH[1:]: f"{NEW_VERSION}\n".encode(),
                    PACKAGE_PATH[1:]: damage(package(files))})
    host.configure(**settings(server.url))
    assert_not_unpacked(host, host.update("0", "0"), b"tar: ")
    assert host.changes() == STOPPED


def test_without_the_tar_program_nothing_is_installed(host, offer):
    offer()
    host.remove("tool/tar")
    host.remember()
    assert_not_unpacked(host, host.update("0", "0"), b"/tool/tar: ", ["startup.sh"])
    assert host.changes() == STOPPED


def test_an_install_directory_with_a_blank_breaks_the_command_lines(host, offer):
    # The command lines quote nothing, so the shell looks for a program ".../with".
    offer(update=host.script("update"))
    link = host.root.with_name("with blank")
    link.symlink_to(host.root)
    host.set_install_path(f"{link}\n")
    run = host.update("0", "0")
    assert (run.status, run.stdout) == (255, b"")
    assert run.stderr.count(b"/with: ") == 2  # tar and startup.sh
    assert host.log_texts() == NOT_UNPACKED
    assert host.trace() == []
    assert host.agent.was_killed()
    assert host.changes() == STOPPED


def test_without_a_shell_nothing_is_installed(host, offer):
    offer()
    assert host.update("0", "0", mounts=[namespace.bind("/dev/null", "/bin/sh")]) == FAILED
    assert host.log_texts() == NOT_UNPACKED
    assert host.trace() == []  # the startup script needs a shell, too
    assert host.agent.was_killed()
    assert host.changes() == STOPPED


def test_the_script_does_not_run_after_a_tar_program_that_unpacked_all_and_failed(host, offer):
    offer(update=host.script("update"))
    host.write_script("tool/tar", 'tar "$@"; exit 1')
    assert_not_unpacked(host, host.update("0", "0"), b"")


# A script that fails.

NOT_FOUND = (b"sh: 1: ./update: not found\n",
             b"sh: ./update: No such file or directory\n",
             b"sh: line 1: ./update: No such file or directory\n")


def assert_script_failed(host, run, complaints=(b"",)):
    """The changes made by the script are kept, and the agent was started again.

    @param complaints  the possible messages of the shell about the script
    """
    assert (run.status, run.stdout) == (255, b"")
    assert run.stderr in complaints
    assert host.log_texts() == SCRIPT_FAILED
    assert who(host)[-1] == "startup.sh"
    assert (host.trace()[-1].cwd, host.trace()[-1].marker) == (UNPACKED, False)
    assert host.agent.was_killed()
    assert dict(host.config_values())["version"] == "abcdef3.1.9"


@pytest.mark.parametrize("ending", [
    pytest.param("exit 1", id="status 1"),
    pytest.param("kill -INT $$", id="SIGINT"),
    pytest.param("kill -QUIT $$", id="SIGQUIT"),
    pytest.param('case $(cat "/proc/$PPID/comm") in\n'
                 "  norvak*) kill -KILL $$ ;;\n"  # the shell replaced itself with the script
                 "  *) kill -KILL $PPID ;;\n"
                 "esac", id="SIGKILL to the shell"),
])
def test_a_script_that_does_not_end_with_success_fails_the_run(host, offer, ending):
    offer(update=host.script("update", f"echo done >../../half\n{ending}"))
    assert_script_failed(host, host.update("0", "0"),
                         (b"", b"Killed\n", b"Quit\n"))
    assert who(host) == ["tool/tar", "update", "startup.sh"]
    assert host.changes() == ["+half", *STOPPED]


def test_a_package_without_a_script_fails_the_run(host, offer):
    offer(other="no script")
    assert_script_failed(host, host.update("0", "0"), NOT_FOUND)
    assert host.changes() == STOPPED


# A configuration that disappears while the update runs.


def test_a_configuration_lost_before_unpacking_ends_the_update(host, scripted_server):
    scripted_server.reply(PACKAGE_PATH, http_reply(length=len(package()), pieces=[
        lambda: host.remove("config.xml"), package()]))
    host.configure(**settings(scripted_server.url))
    assert host.update("0", "1") == FAILED
    assert host.log_texts() == ["[SOFT] call run_update_norvak_agent->update_now failed",
                                "[SOFT] update norvak agent failed", ""]
    assert host.trace() == [Step("startup.sh", START, marker=False, agent="dead", changes=sorted(
        [*STOPPED, "-config.xml", f"+{WORK_DIR}", f"+{DATA_DIR}", f"+{TAR}"]))]
    assert host.agent.was_killed()
    assert host.changes() == ["-config.xml", *STOPPED]


@pytest.mark.parametrize("spoil", [
    pytest.param("rm ../../config.xml", id="removed"),
    pytest.param("rm ../../config.xml; mkdir ../../config.xml", id="a directory"),
])
def test_a_script_that_leaves_no_readable_configuration_fails_the_run(host, offer, spoil):
    offer(update=host.script("update", f"echo done >../../installed\n{spoil}"))
    assert host.update("0", "0") == FAILED
    assert host.log_texts() == CONFIG_LOST
    assert who(host) == ["tool/tar", "update", "startup.sh"]
    assert (host.trace()[-1].cwd, host.trace()[-1].marker) == (UNPACKED, False)
    assert host.agent.was_killed()
    assert host.read("installed") == b"done\n"
    assert not host.exists(WORK_DIR)


# Two runs at once.


def test_an_update_does_not_block_another_run(host, scripted_server):
    scripted_server.reply(PACKAGE_PATH, http_reply(end="stall", length=1))
    host.configure(**settings(scripted_server.url))
    first = host.start("0", "1")
    scripted_server.wait_for_requests(1)
    assert host.update("7") == FAILED
    assert host.log_texts() == ["Unknow update type.", ""]
    assert first.is_running()
