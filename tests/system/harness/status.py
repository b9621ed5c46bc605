"""Reading what `norvak_host status` prints."""

import dataclasses
import functools
import json
import pathlib
from typing import List, Optional

SCHEMA = pathlib.Path(__file__).resolve().parents[3] / "docs/norvak_host.schema.json"

OK, WARNING, CRITICAL, UNKNOWN, USAGE = 0, 1, 2, 3, 64

# The exit status of an outcome on a host with a live agent.
LEVELS = {"updated": OK, "nothing-to-do": OK, "running": OK, "refused": WARNING,
          "failed": CRITICAL, "unfinished": CRITICAL, "unknown": UNKNOWN}


@dataclasses.dataclass
class TypeStatus:
    """One entry of the output in JSON."""

    type: str
    outcome: str
    reason: str
    first_line: Optional[int]
    last_line: Optional[int]
    lines: List[str]
    leftovers: List[str]

    def texts(self):
        """The log lines without their time stamps."""
        return [line.split("\t\t", 1)[1] for line in self.lines]


@functools.lru_cache(maxsize=None)
def _validator():
    import jsonschema
    schema = json.loads(SCHEMA.read_text())
    jsonschema.Draft7Validator.check_schema(schema)
    return jsonschema.Draft7Validator(schema)


def read_json(run):
    """The object that a run of norvak_host printed, checked against the schema."""
    text = run.stdout.decode("ascii")
    assert text.endswith("\n") and text.count("\n") == 1, text
    assert run.stderr == b"", run
    document = json.loads(text)
    _validator().validate(document)
    return document


def status(host, *args, **options):
    """Runs `norvak_host status --json`: its exit status, and its entries by type."""
    run = host.inspect("status", "--json", *args, **options)
    return run.status, {entry["type"]: TypeStatus(**entry) for entry in read_json(run)["types"]}


def outcome(host, name, *args, **options):
    """The exit status and the entry of one type."""
    level, entries = status(host, name, *args, **options)
    return level, entries[name]
