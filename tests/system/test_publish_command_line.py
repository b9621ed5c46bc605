"""Help, manual page and completions of norvak_publish name the same commands and options."""

import os
import pathlib
import re
import shutil
import subprocess

import pytest

PROJECT = pathlib.Path(__file__).resolve().parents[2]
MANUAL = PROJECT / "packaging/man/norvak_publish.1"
BASH = PROJECT / "packaging/completions/bash/norvak_publish"
ZSH = PROJECT / "packaging/completions/zsh/_norvak_publish"


def run(publisher, *arguments):
    result = publisher.run_plain(*arguments)
    assert result.returncode == 0, result
    return result.stdout


def options_in(text):
    return set(re.findall(r"--[a-z][a-z0-9-]*", re.sub(r"`[^`]*`", "", text)))


@pytest.fixture
def commands(publisher):
    """The options of each command, and of all of them under an empty name."""
    text = run(publisher, "--help")
    names = re.findall(r"^  (\w+) ", text.split("Subcommands:")[1], re.MULTILINE)
    assert len(names) > 6
    found = {name: options_in(run(publisher, name, "--help")) for name in names}
    return {"": options_in(text.split("Subcommands:")[0]), **found}


def test_the_manual_describes_every_option_and_no_other(commands):
    described = {f"--{name}" for name in re.findall(r"Fl -([a-z0-9-]+)", MANUAL.read_text())}
    assert described | {"--help"} == set().union(*commands.values())
    headings = re.findall(r"^\.It Cm (\w+)$", MANUAL.read_text(), re.MULTILINE)
    assert set(commands) - {""} <= set(headings)


def complete_in_bash(*words):
    script = (f". {BASH}; COMP_WORDS=(\"$@\"); COMP_CWORD=$(($# - 1)); _norvak_publish; "
              "printf '%s\\n' \"${COMPREPLY[@]}\"")
    result = subprocess.run(["bash", "-c", script, "bash", *words], capture_output=True, text=True,
                            check=True)
    assert result.stderr == ""
    return set(result.stdout.split())


def test_bash_completes_commands_and_options(commands):
    assert complete_in_bash("norvak_publish", "") == set(commands) - {""}
    common = commands[""] - {"--version"}
    assert complete_in_bash("norvak_publish", "--") == commands[""]
    for name, options in commands.items():
        if name:
            assert complete_in_bash("norvak_publish", name, "tree", "--") == common | options, name


def test_bash_completes_values_and_files(tmp_path):
    (tmp_path / "one.tar").touch()
    assert complete_in_bash("norvak_publish", "kernel", "t", "--distribution", "s") == {"suse"}
    assert complete_in_bash("norvak_publish", "soft", f"{tmp_path}/o") == {f"{tmp_path}/one.tar"}
    assert complete_in_bash("norvak_publish", "soft", "--version", "") == set()


# A terminal in which zsh runs, because it completes nothing without one.
_COMPLETE_IN_ZSH = r"""
zmodload zsh/zpty
zpty shell zsh -f -i
typed() { zpty -w -n shell "$1" }
zpty -w shell "PS1=; fpath=($1 \$fpath); autoload -U compinit; compinit -u -D"
zpty -w shell "zstyle ':completion:*' list-prompt ''; LISTMAX=0; stty columns 60 rows 500"
zpty -w shell "bindkey '^I' list-choices; echo read''y"
zpty -r -m shell found "*ready*"
typed "$2"$'\t'
zpty -r -m shell begin "* -- *"  # input that comes earlier cancels the list
typed $'\C-u'"echo do''ne"$'\n'
zpty -r -m shell end "*done*"
print -r -- "$begin$end"
"""


def complete_in_zsh(line):
    result = subprocess.run(["zsh", "-f", "-c", _COMPLETE_IN_ZSH, "zsh", str(ZSH.parent), line],
                            capture_output=True, text=True, check=False, timeout=30,
                            env={**os.environ, "TERM": "dumb"})
    return result.stdout


@pytest.mark.skipif(not shutil.which("zsh"), reason="zsh is not installed")
def test_zsh_completes_commands_and_options(commands):
    offered = complete_in_zsh("norvak_publish ")
    assert set(commands) - {""} <= set(re.findall(r"^(\w+) +-- ", offered, re.MULTILINE)), offered
    for name, options in commands.items():
        wanted = options | commands[""] - ({"--version"} if name else set())
        offered = complete_in_zsh(f"norvak_publish {name} --" if name else "norvak_publish --")
        found = set(re.findall(r"^(--[a-z0-9-]+) +-- ", offered, re.MULTILINE))
        assert wanted == found, (name, offered)
