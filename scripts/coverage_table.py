#!/usr/bin/env python3
"""Prints a report of gcovr: a table of the files in src/, and what never ran.

Usage: coverage_table.py REPORT.json
"""

import json
import pathlib
import sys

PROJECT = pathlib.Path(__file__).resolve().parent.parent


class File:
    """The counts of one file, and what never ran in it."""

    def __init__(self, report):
        self.name = report["file"]
        source = (PROJECT / self.name).read_text().splitlines()
        # gcovr before 6 also lists lines without code.
        lines = [line for line in report["lines"] if not line.get("gcovr/noncode")]
        branches = [(line, branch) for line in lines for branch in line["branches"]]
        self.lines = len(lines), sum(line["count"] > 0 for line in lines)
        self.branches = len(branches), sum(branch["count"] > 0 for _, branch in branches)
        self.missed = [f"{self.name}:{line['line_number']}: "
                       f"{source[line['line_number'] - 1].strip()}"
                       for line in lines if line["count"] == 0]
        self.not_taken = sorted({line["line_number"] for line, branch in branches
                                 if branch["count"] == 0})


def row(name, lines, branches):
    def share(total, run):
        return f"{run} of {total}" + (f" ({100 * run / total:.1f}%)" if run < total else "")

    return f"{name:<32}{share(*lines):>24}{share(*branches):>24}"


def table(files):
    def total(counts):
        return tuple(map(sum, zip(*counts)))

    yield f"{'file':<32}{'lines':>24}{'branches':>24}"
    for file in files:
        yield row(file.name, file.lines, file.branches)
    yield row("all", total(file.lines for file in files), total(file.branches for file in files))
    yield ""
    missed = [place for file in files for place in file.missed]
    yield "Lines that never ran:" if missed else "Every line ran."
    yield from (f"  {place}" for place in missed)
    yield ""
    yield "Lines with branches that were never taken:"
    yield from (f"  {file.name}: {', '.join(map(str, file.not_taken))}"
                for file in files if file.not_taken)


def main(report):
    files = [File(file) for file in json.loads(pathlib.Path(report).read_text())["files"]]
    print("\n".join(table(sorted(files, key=lambda file: file.name))))


main(*sys.argv[1:])
