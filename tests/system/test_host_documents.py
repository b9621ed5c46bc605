"""Manual page, completion, alerts and the monitoring page, compared with norvak_host."""

import pathlib
import re
import shutil
import subprocess

import pytest

from harness.status import SCHEMA

PROJECT = pathlib.Path(__file__).resolve().parents[2]
MANUAL = PROJECT / "packaging/man/norvak_host.8"
BASH = PROJECT / "packaging/completions/bash/norvak_host"
ZSH = PROJECT / "packaging/completions/zsh/_norvak_host"
ALERTS = PROJECT / "deploy/prometheus"
PAGE = (PROJECT / "docs/monitoring.md").read_text()
SOURCES = "".join(file.read_text() for file in (PROJECT / "tools/norvak_host").glob("*.cpp"))

COMMANDS = ["identify", "preview", "status"]


def need(program):
    return shutil.which(program) or pytest.skip(f"{program} is missing")


def check(*command, cwd=None):
    result = subprocess.run(command, capture_output=True, text=True, check=False, timeout=60, cwd=cwd)
    assert result.returncode == 0, result.stdout + result.stderr
    return result.stdout + result.stderr


def options(host, *command):
    text = host.inspect(*command, "--help").stdout.decode()
    return set(re.findall(r"--[a-z-]+", text.split("Examples:")[0]))


def all_options(host):
    return options(host).union(*(options(host, command) for command in COMMANDS))


def test_the_manual_page_is_well_formed():
    assert check(need("mandoc"), "-Tlint", "-Wwarning", str(MANUAL)) == ""


def test_the_manual_page_describes_every_option_and_outcome(host):
    text = MANUAL.read_text()
    described = set(re.findall(r"^\.It Fl (?:h , Fl )?-([a-z-]+)", text, re.MULTILINE))
    assert {f"--{name}" for name in described} == all_options(host)
    outcomes = re.search(r'"enum": \["updated"[^]]*\]', SCHEMA.read_text())[0]
    for outcome in re.findall(r'"([a-z-]+)"', outcomes)[1:]:
        assert f".It Cm {outcome}\n" in text
        assert f"| `{outcome}` |" in PAGE


def complete(*words):
    script = (f'. {BASH}; COMP_WORDS=("$@"); COMP_CWORD=$(($# - 1)); _norvak_host; '
              'printf "%s\\n" "${COMPREPLY[@]}"')
    return set(check("bash", "-c", script, "bash", "norvak_host", *words).split())


def test_bash_completes_every_option(host):
    assert complete("") == {*COMMANDS, *options(host)}
    for command in COMMANDS:
        types = {"soft", "kernel", "rules", "nginx"} if command != "identify" else set()
        assert complete(command, "") == options(host, command) | types | {"--color"}
    assert complete("st") == {"status"}
    assert complete("status", "--js") == {"--json"}
    assert complete("--color", "") == {"auto", "always", "never"}
    assert complete("status", "--since", "") == set()


def test_zsh_completes_every_option(host):
    check(need("zsh"), "-n", str(ZSH))
    offered = set(re.findall(r"(?<![\w-])--[a-z-]+(?=\[)", ZSH.read_text())) | {"--help"}
    assert offered == all_options(host)


def test_the_alerts_are_valid_and_do_what_their_tests_say():
    promtool = need("promtool")
    check(promtool, "check", "rules", "norvak_update.rules.yml", cwd=ALERTS)
    assert "SUCCESS" in check(promtool, "test", "rules", "norvak_update_test.yml", cwd=ALERTS)
    rules = (ALERTS / "norvak_update.rules.yml").read_text()
    tests = (ALERTS / "norvak_update_test.yml").read_text()
    for alert in re.findall(r"alert: (\w+)", rules):
        assert f"alertname: {alert}" in tests
    for metric in re.findall(r"# TYPE (\w+) ", SOURCES):
        assert metric in rules
        assert f"`{metric}" in PAGE


def test_the_monitoring_page_lists_the_codes_of_all_findings():
    found = {(code, name) for name, code in re.findall(
        r'findings_\.(error|warning|note)\(\s*"([a-z-]+)"', SOURCES)}
    found |= {(code, severity.lower()) for code, severity in re.findall(
        r'(?:report|check_writable)\(\s*"([a-z-]+)",[^;]*?Severity::k(\w+)', SOURCES)}
    for pair in re.findall(r'\? "([a-z]+-[a-z-]+)"\s*: "([a-z]+-[a-z-]+)"', SOURCES):
        severity = "note" if "unknown-type" in pair else "error"
        found |= {(code, severity) for code in pair}
    for missing, not_writable in re.findall(r'"([a-z-]+-missing)",\s*"([a-z-]+-not-writable)"', SOURCES):
        found |= {(missing, "error"), (not_writable, "error")}
    listed = {(code, row.split(" ")[1]) for row in re.findall(r"^\| (?:error|warning|note) \|.*$", PAGE,
                                                            re.MULTILINE)
              for code in re.findall(r"`([a-z-]+)`", row)}
    assert listed == found
