"""The documents agree with the sources: log texts, settings, links, paths."""

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
    assert sorted(documented_texts()) == sorted(log_messages().values())


def test_no_two_messages_are_the_same():
    texts = list(log_messages().values())
    assert len(set(texts)) == len(texts)


def test_the_readme_names_every_setting():
    config = (PROJECT / "src/xml/config.h").read_text()
    settings = re.findall(r'constexpr char k\w+\[\] = "([a-z_]*(?:host|type|version))";', config)
    assert len(settings) == 5
    readme = (PROJECT / "README.md").read_text()
    assert [name for name in settings if f"| `{name}` |" not in readme] == []


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
