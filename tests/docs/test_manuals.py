"""The manual pages are well-formed and agree with the sources: messages, settings, paths."""

import os
import re
import subprocess

import pytest
from test_documents import PROJECT, log_messages, text_constants

MANUALS = sorted((PROJECT / "packaging/man").glob("*.[1-8]"))
UPDATER = PROJECT / "packaging/man/norvak_update.8"
SETTINGS = PROJECT / "packaging/man/norvak_update_config.5"


def items(manual, macro):
    """The heads of a page's list items of one macro, in their order."""
    heads = re.findall(rf"^\.It {macro} (.*)$", manual.read_text(), re.MULTILINE)
    return [head.replace(r"\-", "-").replace(r"\(aq", "'") for head in heads]


@pytest.mark.parametrize("command", [
    pytest.param(["mandoc", "-Tlint"], id="mandoc"),
    # Only the warnings matter, not the formatted page.
    pytest.param(["sh", "-c", 'man --warnings -E UTF-8 -Tutf8 -Z -l "$0" >/dev/null'], id="man"),
])
@pytest.mark.parametrize("manual", MANUALS, ids=lambda manual: manual.name)
def test_the_formatters_have_no_complaints(manual, command):
    # References between the pages are found in the current directory.
    run = subprocess.run([*command, manual.name], cwd=manual.parent, text=True, check=False,
                         stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
                         env={**os.environ, "LC_ALL": "C.UTF-8"})
    assert run.stdout == ""


def test_the_manual_explains_every_message_and_no_other():
    explained = [text.strip('"') for text in items(UPDATER, "Li")]
    assert sorted(explained) == sorted(log_messages().values())


def test_the_manual_of_the_settings_describes_every_setting_and_no_other():
    constants = text_constants("xml/config.h")
    assert f".Li {constants.pop('kSettings')}\n" in SETTINGS.read_text()
    assert [constants.pop("kName"), constants.pop("kValue")] == ["name", "value"]
    assert sorted(items(SETTINGS, "Va")) == sorted(constants.values())
    example = re.findall(r'<var name="(\w+)" value="[^"]+"/>', SETTINGS.read_text())
    assert sorted(example) == sorted(constants.values())


def test_the_manual_names_every_path_and_no_other():
    files = text_constants("agent_files.h")
    suffix = files.pop("kModuleSuffix")
    files.pop("kPackageScript")  # not a file of the host; its name is that of the marker
    expected = {text + suffix if name.endswith("Module") else text.lstrip("/")
                for name, text in files.items()}
    # What a run downloads lies in its work directory.
    expected -= {path for path in expected if path.startswith("update_norvak") and "/" in path}
    expected |= set(text_constants("utility/unix_helper.h").values())
    identity = text_constants("host_identity.h")
    expected |= {identity["kUbuntu"], identity["kSuse"]}
    named = {path for head in items(UPDATER, "Pa") for path in head.split(" , ")}
    assert {path.lstrip("/") for path in named} == {path.lstrip("/") for path in expected}
