"""The commands of docs/installing.md. tests/packages and tests/booted run them; tests/docs checks
that no command is left out."""

import pathlib
import re

_PAGE = pathlib.Path(__file__).resolve().parents[3] / "docs/installing.md"


def commands(section):
    """The command blocks of a section of the page; at least one."""
    text = re.search(rf"^## {section}$(.*?)(?=^## |\Z)", _PAGE.read_text(),
                     re.MULTILINE | re.DOTALL)[1]
    found = re.findall(r"^```sh\n(.*?)^```$", text, re.MULTILINE | re.DOTALL)
    assert found
    return found
