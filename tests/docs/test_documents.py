"""The documents agree with the sources: log texts, settings, links, paths."""

import csv
import pathlib
import re

PROJECT = pathlib.Path(__file__).resolve().parents[2]
SOURCES = sorted((PROJECT / "src").rglob("*.cpp")) + sorted((PROJECT / "src").rglob("*.h"))
DOCUMENTS = sorted(PROJECT.glob("*.md")) + sorted((PROJECT / "docs").glob("*.md"))


def log_messages():
    """The texts of the log messages, by the names of their constants."""
    declaration = re.compile(r'constexpr char (k\w+)\[\] =\s*((?:"(?:[^"\\]|\\.)*"\s*)+);')
    header = (PROJECT / "src/log_messages.h").read_text()
    return {name: "".join(re.findall(r'"((?:[^"\\]|\\.)*)"', pieces))
            for name, pieces in declaration.findall(header)}


def documented_texts():
    """The first column of the tables of log lines."""
    document = (PROJECT / "docs/log-messages.md").read_text()
    return re.findall(r"^\| `([^`]+)` \|", document, re.MULTILINE)


def test_the_program_logs_these_messages_and_no_others():
    logged = set()
    calls = 0
    for source in SOURCES:
        text = source.read_text()
        calls += text.count("CUpdateLog::write_log(")
        names = re.findall(r"CUpdateLog::write_log\(\s*log_messages::(k\w+)[,)]", text)
        calls -= len(names)
        logged.update(names)
    definitions = 1
    assert calls == definitions
    assert logged == set(log_messages())


def test_the_documented_log_lines_are_those_of_the_program():
    assert set(documented_texts()) == set(log_messages().values())


def test_no_two_messages_are_the_same():
    texts = list(log_messages().values())
    assert len(set(texts)) == len(texts)


def text_constants(source):
    """The texts of the constants in a source file, by name."""
    text = (PROJECT / "src" / source).read_text()
    return dict(re.findall(r'constexpr char (k\w+)\[\] = "([^"]*)";', text))


def test_the_configuration_page_describes_every_setting_and_no_other():
    constants = text_constants("xml/config.h")
    form = {constants.pop(name) for name in ("kSettings", "kName", "kValue")}
    page = (PROJECT / "docs/configuration.md").read_text()
    table = page.split("| Setting |")[1].split("\n\n")[0]
    assert sorted(re.findall(r"^\| `(\w+)` \|", table, re.MULTILINE)) == sorted(constants.values())
    example = page.split("```xml")[1].split("```")[0]
    assert re.findall(r'<var name="(\w+)" value="[^"]+"/>', example) == re.findall(
        r"^\| `(\w+)` \|", table, re.MULTILINE)
    assert [text for text in form if f"`{text}`" not in page] == []


def test_the_configuration_page_names_the_paths_on_a_host():
    page = (PROJECT / "docs/configuration.md").read_text()
    host = text_constants("utility/unix_helper.h")
    for path in (host["kInstallPathFile"], host["kDefaultInstallPath"]):
        assert f"`{path}`" in page
    identity = text_constants("host_identity.h")
    files = text_constants("agent_files.h")
    expected = {identity["kUbuntu"], identity["kSuse"]}
    expected |= {files[name] + files["kModuleSuffix"] for name in files if name.endswith("Module")}
    expected |= {files[name].lstrip("/") for name in (
        "kConfig", "kCurrentRulesDigest", "kPid", "kStartupScript", "kTar", "kInstalledNginxMd5")}
    table = page.split("| Path |")[1].split("\n\n")[0]
    named = {path for row in table.splitlines() for path in re.findall(r"`([^`]+)`", row.split("|")[1])}
    assert sorted(expected - named) == []


def test_the_configuration_page_states_the_longest_install_path():
    source = (PROJECT / "src/agent_files.h").read_text()
    most = int(re.search(r"kMaxRecordPathBytes = (\d+);", source)[1])
    record = text_constants("agent_files.h")["kKernelVersionRecord"]
    longest = most - len("/" + record)
    page = (PROJECT / "docs/configuration.md").read_text()
    assert f"**Use at most {longest} characters.**" in page
    assert f"From {longest + 1} characters" in page


def test_the_contributors_install_what_the_scripts_install():
    lists = dict(re.findall(r"^  (\w+)_packages=\(([^)]*)\)",
                            (PROJECT / "scripts/lib.sh").read_text(), re.MULTILINE))
    wanted = (lists["build"] + " " + lists["test"]).split()
    page = (PROJECT / "CONTRIBUTING.md").read_text()
    command = page.split("apt-get install --no-install-recommends")[1].split("cmake --preset")[0]
    assert sorted(command.replace("\\", "").split()) == sorted(wanted)


def test_links_lead_somewhere():
    broken = []
    for document in DOCUMENTS:
        text = document.read_text()
        for target in re.findall(r"\]\(([^)]+)\)", text):
            if "://" in target:
                continue
            path, _, anchor = target.partition("#")
            linked = document.parent / path if path else document
            if not linked.exists():
                broken.append(f"{document.name}: {target}")
                continue
            headings = re.findall(r"^#+ (.*)$", linked.read_text(), re.MULTILINE)
            slugs = {re.sub(r"[^\w -]", "", heading).lower().replace(" ", "-")
                     for heading in headings}
            if anchor and anchor not in slugs:
                broken.append(f"{document.name}: {target}")
    assert broken == []


def test_the_architecture_names_every_module():
    document = (PROJECT / "docs/architecture.md").read_text()
    modules = {source.relative_to(PROJECT / "src").with_suffix("").as_posix()
               for source in SOURCES} - {"utility/string_list"}
    assert [module for module in sorted(modules) if f"`{module}`" not in document] == []


def test_the_monitoring_user_may_run_the_command_of_its_check_and_no_other():
    page = (PROJECT / "docs/monitoring.md").read_text()
    check = re.search(r"^    command\[\w+\]=/usr/bin/sudo (.*)$", page, re.MULTILINE)[1]
    assert re.findall(r"NOPASSWD: (.*)$", page, re.MULTILINE) == [check]
    assert "*" not in check


def test_every_command_of_the_installation_page_is_run_by_a_test():
    page = (PROJECT / "docs/installing.md").read_text()
    sections = re.findall(r"^## (.*)\n((?:(?!## ).*\n)*)", page, re.MULTILINE)
    with_commands = {heading for heading, text in sections if "```" in text}
    tests = "".join((PROJECT / "tests" / kind / "test_installing.py").read_text()
                    for kind in ("packages", "booted"))
    assert with_commands == set(re.findall(r'commands\("([^"]+)"\)', tests))
    # These tests find no other form of a block.
    assert page.count("```") == 2 * len(re.findall(r"^```sh\n", page, re.MULTILINE))
    assert re.findall(r"\n\n(?:    |\t).*", page) == []


def test_scripts_units_and_manuals_name_the_files_of_the_state_directory():
    def text(path):
        return (PROJECT / path).read_text()

    state = re.search(r'kStateDir\[\] = "([^"]+)"', text("tools/common/state_file.h"))[1]
    lock = re.search(r'state_path\("(\w+)"\)', text("tools/norvak_recover/host_lock.cpp"))[1]
    record, kept = (re.search(r'kFile\[\] = "(\w+)"', text(source))[1] for source in (
        "tools/norvak_recover/run_record.cpp", "tools/common/kept_settings.cpp"))
    runner = text("packaging/libexec/run")
    assert f"\nstate={state}\n" in runner and f'9>>"$state/{lock}"' in runner
    assert f"\nlock={state}/{lock}\n" in text("packaging/maintainer/prerm")
    assert f"rm -rf {state}\n" in text("packaging/maintainer/postrm")
    assert f"DESTINATION {state} " in text("packaging/HostPackage.cmake")
    boot = text("packaging/systemd/norvak-update-boot.service")
    assert f"\nConditionPathExists={state}/{record}\n" in boot
    manual = re.findall(rf"^\.It Pa {state}/(.*)$", text("packaging/man/norvak_recover.8"), re.MULTILINE)
    assert sorted(manual) == sorted([lock, record, kept])
    assert f"`{state}/{kept}`" in text("docs/installing.md")


def test_the_installation_page_lists_the_supported_distributions():
    lines = (PROJECT / "packaging/hosts.tsv").read_text().splitlines()
    rows = csv.DictReader([line for line in lines if not line.startswith("#")], delimiter="\t")
    columns = ("distribution", "release", "architectures", "glibc", "libcurl", "systemd")
    expected = [f"| {' | '.join(row[column] for column in columns)} |" for row in rows]
    page = (PROJECT / "docs/installing.md").read_text()
    table = page.split("| Distribution |")[1].split("\n\n")[0]
    assert table.splitlines()[2:] == expected
