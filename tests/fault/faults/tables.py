"""The tables of docs/reliability.md: generated from the results, or compared with them."""

import collections
import re

# What to do if the change in the program is intended.
REGENERATE = "scripts/test-faults.sh --write-tables generates the tables"

_NOTHING = "nothing"
_HEALED = "healed"

# What can remain even after the next run, and what an administrator does about it.
_REMEDIES = (
    (r"the agent is stopped$", "Run `startup.sh`."),
    (r"the agent is stopped, `norvak.pid` names a dead process$",
     "Remove `norvak.pid`. If the agent is meant to run, run `startup.sh`. As long as the file "
     "exists, an update kills whatever process has that id by then."),
    (r"2 agents run", "Stop the one whose id is not in `norvak.pid`."),
    (r"update marker$", "Remove the file `update`."),
    (r"`config.xml.XXXXXX`$", "Remove it while no update runs. The letters are random."),
    (r"`config.xml`: old$", "Run the update again."),
    (r"`config.xml`: the package's$",
     "Set `version` to that of the package, and `update_type` to what it was before."),
    (r"`config.xml`: the package's with the new version$",
     "Set `update_type` to what it was before."),
    (r"`config.xml`: new, followed by line feeds$",
     "Nothing: empty lines after a document mean nothing."),
    (r"`nginx/bin/nginx`: (missing|old)$", "Remove `nginx/md5` and run the update again."),
    (r"`nginx/bin/nginx`: mode \d+$", "Nothing: it has its previous mode."),
)


def remedy(difference):
    """What to do about a difference that remains; empty if no remedy is known."""
    for pattern, text in _REMEDIES:
        if re.match(pattern, difference):
            return text
    return ""


def _list(differences):
    return "; ".join(differences)


def _row(*cells):
    return f"| {' | '.join(cells)} |"


class KillTable:
    """What a kill just before each call leaves, in the order of the run."""

    def __init__(self, head="Killed just before"):
        self._head = head, "Left by the kill", "After the next run"
        self._rows = []  # [first name, last name, left, stays]

    def add(self, name, left, stays):
        cells = self.cells(left, stays)
        if self._rows and tuple(self._rows[-1][2:]) == cells:
            self._rows[-1][1] = name
        else:
            self._rows.append([name, name, *cells])

    def lines(self):
        yield _row(*self._head)
        yield _row(*["---"] * len(self._head))
        for first, last, left, stays in self._rows:
            points = f"`{first}`" if first == last else f"`{first}` to `{last}`"
            yield _row(points, left, stays)

    @classmethod
    def cells_by_call(cls, lines, names):
        """The cells of the table @a lines for each of the calls @a names, in order."""
        rows = [_cells(line) for line in lines[2:]]
        expected, begin = [], 0
        for points, *cells in rows:
            ends = re.findall(r"`([^`]*)`", points)
            assert names[begin:begin + 1] == ends[:1] and ends[-1] in names, (
                f"the run has {names[begin:begin + 1]} where the table has {points}: {REGENERATE}")
            end = len(names) - names[::-1].index(ends[-1])
            expected += [tuple(cells)] * (end - begin)
            begin = end
        assert begin == len(names), f"the table ends before {names[begin:]}: {REGENERATE}"
        return expected

    @staticmethod
    def cells(left, stays):
        return _list(left) or _NOTHING, _list(stays) or _HEALED


class ErrorTable:
    """The calls whose error has consequences that are not reported or not repaired, by outcome."""

    _HEAD = ("Exit status", "Wrong after the run", "After the next run",
             "An error of these calls")

    def __init__(self):
        self._rows = {}  # cells to {name: errors}
        self._tried = collections.defaultdict(set)  # name to errors

    def add(self, name, error, status, wrong, stays):
        self._tried[name].add(error)
        cells = self.cells(status, wrong, stays)
        if cells:
            self._rows.setdefault(cells, {}).setdefault(name, set()).add(error)

    @staticmethod
    def cells(status, wrong, stays):
        """The cells of a row; none if a failure was reported and healed, or had no effect."""
        if not stays and (status == 255 or not wrong):
            return None
        return (str(status) if status >= 0 else "aborted", _list(wrong) or _NOTHING,
                _list(stays) or _HEALED)

    def lines(self):
        yield _row(*self._HEAD)
        yield _row(*["---"] * len(self._HEAD))
        for cells, calls in self._rows.items():
            yield _row(*cells, ", ".join(self._call(name, errors)
                                         for name, errors in calls.items()))

    def _call(self, name, errors):
        if errors == self._tried[name]:
            return f"`{name}`"
        return f"`{name}` ({', '.join(sorted(errors))})"

    @staticmethod
    def listed(lines):
        """The calls and errors in the table @a lines: by cells, name to errors or None for all."""
        found = {}
        for line in lines[2:]:
            *cells, calls = _cells(line)
            found[tuple(cells)] = {
                name: set(errors.split(", ")) if errors else None
                for name, errors in re.findall(r"`([^`]*)`(?: \(([A-Z, ]*)\))?", calls)}
        return found


def _cells(line):
    return [cell.strip() for cell in line.strip("|").split(" | ")]


class DiskTable:
    """The outcomes of a full disk, from no free space to just enough."""

    _HEAD = ("Exit status", "Wrong after the run", "After the next run, with space enough")

    def __init__(self):
        self._rows = []

    def add(self, status, wrong, stays):
        if self.cells(status, wrong, stays) not in self._rows:
            self._rows.append(self.cells(status, wrong, stays))

    @staticmethod
    def cells(status, wrong, stays):
        return str(status), _list(wrong) or _NOTHING, _list(stays) or _HEALED

    def lines(self):
        yield _row(*self._HEAD)
        yield _row(*["---"] * len(self._HEAD))
        for cells in self._rows:
            yield _row(*cells)

    @staticmethod
    def listed(lines):
        return [tuple(_cells(line)) for line in lines[2:]]


def remedy_lines(lines):
    """The table of remedies for everything that remains according to the page's @a lines."""
    yield _row("Remains after the next run", "What to do")
    yield _row("---", "---")
    seen = set()
    for line in lines:
        if not line.startswith("| ") or line.count(" | ") < 2:
            continue
        for difference in _cells(line)[2].split("; "):
            if remedy(difference) and difference not in seen:
                seen.add(difference)
                yield _row(difference, remedy(difference))


class Document:
    """A page with tables between "<!-- table: NAME -->" and "<!-- end of table -->"."""

    def __init__(self, path, writes):
        self._path = path
        self._writes = writes

    def table(self, name):
        """The lines of a table."""
        match = self._pattern(name).search(self._path.read_text())
        assert match, f"{self._path.name} has no table {name}"
        return match[2].splitlines()

    def lines(self):
        return self._path.read_text().splitlines()

    def check(self, name, lines):
        """Compares the table with the page's, or replaces it if the page is being written."""
        lines = list(lines)
        if self._writes:
            text = "".join(f"{line}\n" for line in lines)
            page = self._pattern(name).sub(lambda match: match[1] + text + match[3],
                                           self._path.read_text())
            self._path.write_text(page)
        assert self.table(name) == lines, (
            f"the table {name} of {self._path.name} is out of date: {REGENERATE}")

    @staticmethod
    def _pattern(name):
        return re.compile(rf"(<!-- table: {re.escape(name)} -->\n)(.*?)(<!-- end of table -->)",
                          re.DOTALL)
