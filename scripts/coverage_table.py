#!/usr/bin/env python3
"""Prints what a report of gcovr says about each file of src/, as Markdown.

Usage: coverage_table.py REPORT.json [--write-table]

--write-table puts it into docs/coverage.md, between its two marks.
"""

import json
import pathlib
import sys

PROJECT = pathlib.Path(__file__).resolve().parent.parent
PAGE = PROJECT / "docs/coverage.md"
BEGIN, END = "<!-- table: coverage -->\n", "<!-- end of table -->\n"


class File:
    """The counts of one file, and the places that never ran."""

    def __init__(self, report):
        self.name = report["file"]
        source = (PROJECT / self.name).read_text().splitlines()
        # Releases before 6 list the lines without code as well.
        lines = [line for line in report["lines"] if not line.get("gcovr/noncode")]
        branches = [(line, branch) for line in lines for branch in line["branches"]]
        self.lines = len(lines), sum(line["count"] > 0 for line in lines)
        self.branches = len(branches), sum(branch["count"] > 0 for _, branch in branches)
        self.missed = [f"`{self.name}:{line['line_number']}`: "
                       f"`{source[line['line_number'] - 1].strip()}`"
                       for line in lines if line["count"] == 0]
        self.not_taken = sorted({line["line_number"] for line, branch in branches
                                 if branch["count"] == 0})


def row(name, lines, branches):
    def share(total, run):
        return f"{run} of {total}" + (f" ({100 * run / total:.1f}%)" if run < total else "")

    return f"| {name} | {share(*lines)} | {share(*branches)} |"


def table(files):
    def total(counts):
        return tuple(map(sum, zip(*counts)))

    yield "| File | Lines | Branches |"
    yield "| --- | --- | --- |"
    for file in files:
        yield row(f"`{file.name}`", file.lines, file.branches)
    yield row("all", total(file.lines for file in files), total(file.branches for file in files))
    yield ""
    missed = [place for file in files for place in file.missed]
    yield "Lines that never ran:" if missed else "Every line ran."
    if missed:
        yield ""
    yield from (f"- {place}" for place in missed)


def main(report, write=None):
    files = [File(file) for file in json.loads(pathlib.Path(report).read_text())["files"]]
    text = "\n".join(table(sorted(files, key=lambda file: file.name))) + "\n"
    print(text, "\nLines with branches that were never taken:\n", sep="")
    for file in files:
        if file.not_taken:
            print(f"- {file.name}:", ", ".join(map(str, file.not_taken)))
    if write:
        head, rest = PAGE.read_text().split(BEGIN)
        PAGE.write_text(head + BEGIN + text + END + rest.split(END)[1])


main(*sys.argv[1:])
