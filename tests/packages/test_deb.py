"""Install, upgrade, downgrade, remove and purge of the .deb in fresh Debian systems."""

import fcntl
import pathlib
import subprocess

import pytest
from conftest import RELEASES
from harness import OK, http_reply, rules, updates, wait_until
from test_updates import assert_updates

LOCK = "/var/lib/norvak-update/lock"
STATE = "/var/lib/norvak-update"
STAMP = "/var/lib/systemd/timers/stamp-norvak-update@rules.timer"
UPDATER = "/usr/sbin/norvak_update"


def install(root, deb):
    return root.run("dpkg", "--install", root.copy_in(deb))


def version(root):
    return root.run("dpkg-query", "--show", "--showformat", "${Version}", "norvak-update")


def entries(root):
    """The files and directories of the root, but for those of dpkg and of the tests."""
    apart = ("/proc/", "/tmp/", "/var/lib/dpkg/", "/var/log/", "/var/cache/")
    found = root.run("find", "/", "-xdev").splitlines()
    return {path for path in found if not path.startswith(apart)}


def waits_for_the_lock():
    """Whether a process waits for the lock of a host."""
    for file in pathlib.Path("/proc").glob("[0-9]*/cmdline"):
        try:
            command = file.read_bytes().split(b"\0")
        except (FileNotFoundError, ProcessLookupError):
            continue
        if command[0] == b"flock" and LOCK.encode() in command:
            return True
    return False


def assert_waits_for_the_lock(root, *removal_command):
    """Removes the package while a run holds the lock: nothing is removed before it is released."""
    with open(root.file(LOCK), "w") as lock:
        fcntl.flock(lock, fcntl.LOCK_EX)
        removal = subprocess.Popen(root.command(*removal_command), stdin=subprocess.DEVNULL)
        try:
            wait_until(lambda: waits_for_the_lock() or removal.poll() is not None, "the lock")
            assert root.file(UPDATER).exists()
            fcntl.flock(lock, fcntl.LOCK_UN)
            assert removal.wait(20) == 0
        finally:
            removal.kill()
            removal.wait()
    assert not root.file(UPDATER).exists()


def configuration_files(root):
    text = root.run("dpkg-query", "--show", "--showformat", "${Conffiles}\n", "norvak-update")
    return [line.split()[0] for line in text.splitlines() if line.strip()]


@pytest.mark.parametrize("name", RELEASES)
def test_the_updater_works_after_each_step(name, packages, next_packages, make_root, make_host, server):
    root = make_root(name)
    first, later = packages.host_deb(), next_packages.host_deb()
    install(root, first)
    edited = configuration_files(root)
    for file in edited:
        with open(root.file(file), "a") as stream:
            stream.write("# edited\n")
    installed = version(root)

    host = make_host(root)
    for deb in (first, later, first):
        install(root, deb)
        host.start_agent()
        server.reset()
        assert_updates(host, server, updates.RULES)
        host.remove("runlog/update.log")
    assert version(root) == installed
    assert [file for file in edited if "# edited" not in root.file(file).read_text()] == []


def test_versions_change_with_upgrade_and_downgrade(packages, next_packages, make_root):
    root = make_root("debian-12")
    seen = []
    for deb in (packages.host_deb(), next_packages.host_deb(), packages.host_deb()):
        install(root, deb)
        seen.append(version(root))
    assert seen[0] == seen[2] != seen[1]
    assert root.attempt("dpkg", "--compare-versions", seen[0], "lt", seen[1]).returncode == 0


@pytest.mark.parametrize("name", RELEASES)
def test_installing_and_upgrading_leave_the_agent_alone(name, packages, next_packages, make_root,
                                                        make_host):
    root = make_root(name)
    host = make_host(root)
    install(root, packages.host_deb())
    install(root, next_packages.host_deb())
    root.run("dpkg", "--remove", "norvak-update")
    host.assert_agent_undisturbed()
    assert host.changes() == []


@pytest.mark.parametrize("name", RELEASES)
def test_a_removal_keeps_settings_and_state_and_a_purge_removes_them(name, packages, make_root,
                                                                     make_host):
    root = make_root(name)
    before = entries(root)
    install(root, packages.host_deb())
    kept = [*configuration_files(root), f"{STATE}/record", STAMP]
    root.file(f"{STATE}/record").write_text("state\n")
    root.file(STAMP).parent.mkdir(parents=True, exist_ok=True)
    root.file(STAMP).touch()
    host = make_host(root)
    host.write("runlog/update.log", "log\n")

    root.run("dpkg", "--remove", "norvak-update")
    assert not root.file(UPDATER).exists()
    assert [file for file in kept if not root.file(file).exists()] == []

    root.run("dpkg", "--purge", "norvak-update")
    assert [file for file in kept if root.file(file).exists()] == []
    assert host.log() == b"log\n"
    assert sorted(entries(root) - before - {str(pathlib.Path(STAMP).parent)}) == []


def test_a_removal_waits_for_the_lock(packages, make_root):
    root = make_root("debian-12")
    install(root, packages.host_deb())
    assert_waits_for_the_lock(root, "dpkg", "--remove", "norvak-update")


@pytest.mark.parametrize("name", RELEASES)
def test_an_upgrade_during_a_run_does_not_break_the_run(name, packages, next_packages, make_root,
                                                        make_host, scripted_server):
    root = make_root(name)
    install(root, packages.host_deb())
    host = make_host(root)
    host.configure(kernel_update_host=scripted_server.url)
    rules.install_rules(host)
    middle = len(rules.NEW_RULES) // 2
    scripted_server.reply(rules.LIST_PATH, http_reply(rules.digest().encode() + b"\n"))
    scripted_server.reply(rules.RULES_PATH, http_reply(
        rules.NEW_RULES, pieces=[rules.NEW_RULES[:middle],
                                 lambda: install(root, next_packages.host_deb()),
                                 rules.NEW_RULES[middle:]]))
    assert host.update("3") == OK
    assert host.log_texts() == rules.UPDATED
    assert host.read(rules.RULES) == rules.NEW_RULES
    assert version(root) != packages.host_deb().name.split("_")[1]
