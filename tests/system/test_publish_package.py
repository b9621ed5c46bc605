"""The packages of norvak_publish, installed by the updater: all or nothing, whatever happens."""

import os
import shutil

import pytest

from harness import OK
from harness.published_package import (MANIFEST, altered, build, install_old_version, new_tree,
                                       publish, tree)
from harness.software import INSTALLED_VERSION, NEW_VERSION, UPDATED


def test_everything_is_installed(ready, shell):
    new = new_tree(tree(ready))
    assert ready.update("0", "0", mounts=[shell]) == OK
    assert ready.log_texts() == UPDATED
    assert tree(ready) == new
    assert dict(ready.config_values())["version"] == NEW_VERSION


def test_a_manual_run_records_the_version_for_the_next_automatic_one(publisher, ready, server,
                                                                     shell):
    assert ready.update("0", "1", mounts=[shell]) == OK
    assert dict(ready.config_values())["version"] == NEW_VERSION
    newer = "abcdef3.1.11"
    publish(server, build(publisher, newer, {"bin/agent": "newer\n"}), newer)
    assert ready.update("0", "0", mounts=[shell]) == OK
    assert dict(ready.config_values())["version"] == newer
    assert ready.read("bin/agent") == b"newer\n"


def test_a_second_installation_changes_nothing(ready):
    assert ready.update("0", "1") == OK
    before = tree(ready)
    assert ready.update("0", "1") == OK
    assert tree(ready) == before


@pytest.mark.skipif(os.getuid() != 0, reason="only root can give files away")
def test_owners_are_those_of_the_manifest_or_as_before(publisher, server, host):
    install_old_version(host, server)
    shutil.chown(host.root / "bin/agent", "daemon", "bin")
    shutil.chown(host.root / "bin", "nobody")
    before = tree(host)
    manifest = MANIFEST.replace("4755\troot\troot", "4755\t2\t3").replace(
        "link\t-\troot", "link\t-\tdaemon")
    publish(server, build(publisher, files={"scripts/post": "exit 1\n"}, manifest=manifest))
    assert host.update("0", "0").status == 255
    assert tree(host) == before
    publish(server, build(publisher, manifest=manifest))
    assert host.update("0", "0") == OK
    after = tree(host)
    assert after["bin/agent"][:3] == ("-rwsr-xr-x", 2, 3)
    assert after["lib/current"][:3] == ("lrwxrwxrwx", 1, 0)
    assert after["bin"][:3] == ("drwxr-xr-x", 0, 0)


def test_what_the_script_sees(publisher, server, host, tmp_path):
    install_old_version(host, server)
    seen = tmp_path / "seen"
    note = f'echo "$1 ${{LD_LIBRARY_PATH-unset}} $(cat "$1/bin/agent" | head -n 1)" >>{seen}\n'
    publish(server, build(publisher, files={"scripts/pre": note, "scripts/post": note}))
    assert host.update("0", "0") == OK
    assert seen.read_text().splitlines() == [
        f"{host.path} unset the old agent", f"{host.path} unset the new agent"]


def test_a_replaced_configuration_keeps_version_and_update_type(publisher, server, host):
    install_old_version(host, server)
    config = host.read("config.xml").decode().replace(INSTALLED_VERSION, "packaged")
    package = build(publisher, files={}, manifest=MANIFEST)
    (publisher.scratch / "payload/config.xml").write_text(config)
    (publisher.scratch / "manifest").write_text(
        MANIFEST + "file\t600\troot\troot\tconfig.xml\n")
    arguments = ["package", publisher.scratch / "package.tar", "--version", NEW_VERSION,
                 "--payload", publisher.scratch / "payload", "--manifest",
                 publisher.scratch / "manifest"]
    refused = publisher.run_plain(*arguments)
    assert refused.returncode == 1 and "--replace-config" in refused.stderr
    assert (publisher.scratch / "package.tar").read_bytes() == package
    assert publisher.run_plain(*arguments, "--replace-config").returncode == 0
    publish(server, (publisher.scratch / "package.tar").read_bytes())
    assert host.update("0", "0") == OK
    assert dict(host.config_values())["version"] == NEW_VERSION
    assert host.mode("config.xml") == 0o600


# Refusals: nothing has changed after them.


@pytest.mark.parametrize("script", ["scripts/pre", "scripts/post"])
@pytest.mark.parametrize("text", ["exit 3\n", "kill -TERM $PPID\n", "kill -HUP $PPID; sleep 1\n"])
def test_a_failed_installation_leaves_the_old_files(publisher, server, host, shell, script, text):
    install_old_version(host, server)
    before = tree(host)
    publish(server, build(publisher, files={script: text}))
    assert host.update("0", "0", mounts=[shell]).status == 255
    assert tree(host) == before
    assert dict(host.config_values())["version"] == INSTALLED_VERSION


@pytest.mark.parametrize("member", ["payload/bin/agent", "manifest", "digests"])
def test_a_damaged_package_is_refused(publisher, server, host, member):
    install_old_version(host, server)
    before = tree(host)
    publish(server, altered(build(publisher), member, lambda content: content[:-2] + b"x\n"))
    run = host.update("0", "0")
    assert run.status == 255 and b"the package is damaged" in run.stderr
    assert tree(host) == before


def test_a_package_that_was_cut_is_refused(publisher, server, host):
    install_old_version(host, server)
    before = tree(host)
    package = build(publisher)
    for size in range(0, len(package) - 1024, 512):
        publish(server, package[:size])
        assert host.update("0", "0").status == 255, size
        assert tree(host) == before, size


def test_a_directory_in_the_place_of_a_file_is_refused(ready):
    (ready.root / "lib/sub/new file").mkdir(parents=True)
    before = tree(ready)
    run = ready.update("0", "0")
    assert run.status == 255 and b"lib/sub/new file is a directory" in run.stderr
    assert tree(ready) == before


def test_a_file_in_the_place_of_a_directory_is_refused(ready):
    ready.write("lib", "")
    before = tree(ready)
    run = ready.update("0", "0")
    assert run.status == 255 and b"lib is not a directory" in run.stderr
    assert tree(ready) == before


def test_too_little_space_is_noticed_before_anything_changes(publisher, server, host):
    install_old_version(host, server)
    before = tree(host)
    publish(server, build(publisher, files={"bin/agent": "x" * 400_000}))
    # Enough for the package and what is unpacked of it, but not for the staged files.
    (status,), errors = host.update_in_turn(1, "0", "1", free_bytes=1_000_000)
    assert status == 255 and b"KiB are needed" in errors
    assert tree(host) == before
