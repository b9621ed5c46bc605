"""The documents agree with the sources: log texts, settings, links, paths."""

import pathlib
import re

PROJECT = pathlib.Path(__file__).resolve().parents[2]
SOURCES = sorted((PROJECT / "src").rglob("*.cpp")) + sorted((PROJECT / "src").rglob("*.h"))
DOCUMENTS = sorted(PROJECT.glob("*.md")) + sorted((PROJECT / "docs").glob("*.md"))


def constants():
    """The texts of all constants in the sources, by file and name."""
    declaration = re.compile(r'constexpr char (k\w+)\[[^]]*\] =\s*((?:"(?:[^"\\]|\\.)*"\s*)+);')
    found = {}
    for source in SOURCES:
        for name, pieces in declaration.findall(source.read_text()):
            text = "".join(re.findall(r'"((?:[^"\\]|\\.)*)"', pieces))
            found[source.name, name] = text
    return found


def logged_texts():
    """The texts that the sources hand to the log, each with the place where it stands."""
    texts = {}
    known = constants()
    for source in SOURCES:
        for format_argument in re.findall(r"CUpdateLog::write_log\(\s*(k\w+)", source.read_text()):
            texts.setdefault(known[source.name, format_argument], []).append(source.name)
    return texts


def documented_texts():
    """The first column of the tables of log lines."""
    document = (PROJECT / "docs/log-messages.md").read_text()
    return re.findall(r"^\| `([^`]+)` \|", document, re.MULTILINE)


def test_every_call_of_the_log_has_a_named_text():
    calls = sum(source.read_text().count("CUpdateLog::write_log(") for source in SOURCES)
    named = sum(len(re.findall(r"CUpdateLog::write_log\(\s*k\w+[,)]", source.read_text()))
                for source in SOURCES)
    definitions = 1
    assert calls == named + definitions and named > 0


def test_the_documented_log_lines_are_those_of_the_program():
    assert sorted(documented_texts()) == sorted(logged_texts())


def test_each_text_stands_in_the_sources_once():
    log_texts = set(logged_texts())
    values = [value for value in constants().values() if value in log_texts]
    assert sorted(values) == sorted(log_texts)


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
