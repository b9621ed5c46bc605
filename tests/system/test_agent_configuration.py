"""What a successful update writes into config.xml.

The unit tests have the table of what is carried over; here are a few of its rows, in whole runs.
"""

import os
import subprocess

import pytest

from harness import FAILED, OK, config_xml, count_saves, namespace
from harness.software import (GET_PACKAGE, GET_VERSION, INSTALLED_VERSION, NEW_VERSION, NOT_NEEDED,
                              UPDATED, publish_update, settings)

INSTALL_SCRIPT = "#!/bin/sh\ncp new.xml ../../config.xml\n"
INSTALL_SCRIPT_SAVES = 1


@pytest.fixture
def update_to(host, server):
    """An automatic or manual update whose script installs the given configuration.

    Returns how often the updater itself saved config.xml.
    """
    def run(document, mode="0"):
        publish_update(server, files={"update": INSTALL_SCRIPT, "new.xml": document})
        host.configure(**settings(server.url, "2"))
        with count_saves(host.root / "config.xml") as saves:
            assert host.update("0", mode) == OK
        assert host.log_texts() == UPDATED
        return saves.count - INSTALL_SCRIPT_SAVES

    return run


def test_version_and_update_type_are_carried_over(host, update_to):
    new = [("update_host", "http://new"), ("version", "of the package"), ("update_type", "1")]
    assert update_to(config_xml(new)) == 2
    assert host.config_values() == [("update_host", "http://new"), ("version", NEW_VERSION),
                                    ("update_type", "2")]


def test_without_both_settings_the_new_configuration_stays_as_it_is(host, update_to):
    document = config_xml([("Version", "1"), ("update_type ", "1")])
    assert update_to(document) == 0
    assert host.read("config.xml") == document


def test_nothing_after_the_second_change_is_set(host, update_to):
    new = [("version", "a"), ("update_type", "1"), ("version", "b"), ("update_type", "3")]
    assert update_to(config_xml(new)) == 2
    assert host.config_values() == [("version", NEW_VERSION), ("update_type", "2"),
                                    ("version", "b"), ("update_type", "3")]


def test_a_manual_run_empties_the_version(host, update_to):
    assert update_to(config_xml([("version", "a"), ("update_type", "1")]), mode="1") == 2
    assert host.config_values() == [("version", ""), ("update_type", "2")]


def test_a_version_file_that_comes_with_the_package_counts_in_a_manual_run(host, server):
    publish_update(server, files={"update": "#!/bin/sh\necho abcdef8.8 >../new_version\n"})
    host.configure(**settings(server.url))
    assert host.update("0", "1") == OK
    assert dict(host.config_values())["version"] == "abcdef8.8"


def test_the_version_of_an_automatic_run_is_the_one_that_was_compared(host, server):
    publish_update(server, files={"update": "#!/bin/sh\necho abcdef8.8 >../new_version\n"})
    host.configure(**settings(server.url))
    assert host.update("0", "0") == OK
    assert dict(host.config_values())["version"] == NEW_VERSION


def test_only_the_two_values_change_in_the_document(host, server):
    document = f"""\
\ufeff<?xml version='1.0'  encoding="utf-8" ?>\r
<!DOCTYPE norvak [<!ENTITY home "/opt">]>
<!-- kept --><?kept too?>
<norvak\tkept='"'><Process><Data>
  <var value = '{INSTALLED_VERSION}'   name="version"></var>
  <var name='update_type'/><!-- no value yet -->
  <var name="path" value="&home;/a&#10;b"/><![CDATA[ <var name="version"/> ]]>
  <var name="update_host" value="{server.url}" />
</Data></Process></norvak>"""
    publish_update(server)
    host.write("config.xml", document)
    assert host.update("0", "0") == OK
    before, between, after = document.replace(INSTALLED_VERSION, "|").replace(
        "name='update_type'", "|").split("|")
    text = host.read("config.xml").decode()
    assert text.startswith(before + NEW_VERSION + between)
    assert text.endswith(after)
    changed = text[len(before + NEW_VERSION + between):-len(after)]
    assert changed in ("name='update_type' value=\"\"", "name='update_type' value=''")


def test_config_xml_keeps_its_mode(host, server):
    publish_update(server)
    host.configure(**settings(server.url))
    (host.root / "config.xml").chmod(0o640)
    assert host.update("0", "0") == OK
    assert host.mode("config.xml") == 0o640


def test_config_xml_keeps_its_acl(host, server):
    publish_update(server)
    host.configure(**settings(server.url))
    (host.root / "config.xml").chmod(0o640)
    setting = subprocess.run(["setfacl", "-m", "u:1234:r,g::-", host.root / "config.xml"],
                             capture_output=True, text=True, check=False)
    if setting.returncode:
        pytest.skip(f"no ACLs here ({setting.stderr.strip()})")
    before = acl(host.root / "config.xml")
    assert host.update("0", "0") == OK
    assert acl(host.root / "config.xml") == before
    assert dict(host.config_values())["version"] == NEW_VERSION


def acl(file):
    return subprocess.run(["getfacl", "--absolute-names", "--numeric", file], capture_output=True,
                          check=True).stdout


@pytest.mark.parametrize("capability", ["chown", "fowner"])
def test_config_xml_of_another_owner_is_saved_without_a_capability(host, server, capability):
    if os.getuid() != 0:
        pytest.skip("only root gives files away")
    publish_update(server)
    host.configure(**settings(server.url))
    os.chown(host.root / "config.xml", 1234, 5678)
    limited = ("setpriv", f"--bounding-set=-{capability}", "--")
    assert host.update("0", "0", through=limited) == OK
    assert dict(host.config_values())["version"] == NEW_VERSION
    status = (host.root / "config.xml").stat()
    assert (status.st_uid, status.st_gid) == (1234, 5678)
    assert host.update("0", "0", through=limited) == FAILED
    assert host.log_texts() == [*UPDATED, *NOT_NEEDED]
    assert server.requests() == [GET_VERSION, GET_PACKAGE, GET_VERSION]


def test_files_with_names_like_config_xml_stay(host, server):
    publish_update(server)
    host.configure(**settings(server.url))
    host.write("config.xml.new", "a package's")
    host.write("config.xml.abcdef/file", "a package's")
    host.remember()
    assert host.update("0", "0") == OK
    assert host.changes() == ["-norvak.pid", "~config.xml"]
    assert dict(host.config_values())["version"] == NEW_VERSION


def test_control_characters_in_a_version_become_question_marks(host, server):
    publish_update(server, version=f"{NEW_VERSION}\x01\x1f\x7f\t\r")
    host.configure(**settings(server.url))
    assert host.update("0", "0") == OK
    assert dict(host.config_values())["version"] == f"{NEW_VERSION}??\x7f\t\r"


def test_config_xml_may_be_a_link(host, server):
    publish_update(server)
    host.configure(**settings(server.url))
    (host.root / "settings").mkdir()
    (host.root / "config.xml").rename(host.root / "settings/agent.xml")
    (host.root / "config.xml").symlink_to("settings/agent.xml")
    host.remember()
    assert host.update("0", "0") == OK
    assert (host.root / "config.xml").is_symlink()
    assert host.changes() == ["-norvak.pid", "~settings/agent.xml"]
    assert dict(host.config_values())["version"] == NEW_VERSION


def test_a_configuration_that_cannot_be_saved_goes_unnoticed(host, server):
    publish_update(server)
    host.configure(**settings(server.url))
    assert host.update("0", "0", mounts=[namespace.bind_read_only(host.root / "config.xml")]) == OK
    assert host.log_texts() == UPDATED
    # The old document is intact, and no other file was left.
    assert host.changes() == ["-norvak.pid"]
