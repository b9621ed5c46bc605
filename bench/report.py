"""The table and the picture of a measurement."""

import dataclasses
import os
import platform
import re
import subprocess
from typing import Optional

from measure import Comparison

_TABLE = re.compile(r"(<!-- table: performance -->\n).*(<!-- end of table -->\n)", re.DOTALL)
_HEAD = ("| What | Against | Measure | Ours | Theirs | Ratio (95 %) | At most |\n"
         "|---|---|---|---:|---:|---:|---:|\n")


@dataclasses.dataclass(frozen=True)
class Row:
    what: str
    against: str
    measure: str
    comparison: Comparison
    unit: str = "s"
    target: Optional[float] = None  # None for rows that are only for comparison
    is_ratio: bool = True  # False: the target is for the difference

    @property
    def reaches_target(self):
        return self.target is None or self._value <= self.target

    @property
    def _value(self):
        numbers = self.comparison
        return numbers.ratio if self.is_ratio else numbers.ours - numbers.theirs

    def cells(self):
        numbers = self.comparison
        if self.is_ratio:
            result = f"{numbers.ratio:.2f} ({numbers.low:.2f}–{numbers.high:.2f})"
        else:
            result = f"{self._value:+.2f} {self.unit}"
        target = "" if self.target is None else (
            f"{self.target:.2f}" if self.is_ratio else f"{self.target:+.2f} {self.unit}")
        if not self.reaches_target:
            target += " **missed**"
        return [self.what, self.against, self.measure, self._number(numbers.ours),
                self._number(numbers.theirs), result, target]

    def _number(self, value):
        if self.unit == "s":
            return f"{value * 1000:.2f} ms" if value < 0.1 else f"{value:.3f} s"
        return f"{value:.2f} {self.unit}"


def table(rows):
    return _HEAD + "".join(f"| {' | '.join(row.cells())} |\n" for row in rows)


def machine():
    """The machine and the programs that were measured, as a line of Markdown."""
    with open("/proc/cpuinfo", encoding="utf-8") as file:
        models = re.findall(r"^model name\s*: (.*)$", file.read(), re.MULTILINE)
    compiler = _first_line("c++", "--version")
    curl = _first_line("curl", "--version").split(" (")[0]
    openssl = " ".join(_first_line("openssl", "version").split()[:2])
    return (f"{len(models) or os.cpu_count()} × {models[0] if models else platform.machine()}, "
            f"Linux {platform.release().split('-')[0]}, {compiler}, {curl}, {openssl}, "
            f"{_first_line('cp', '--version')}\n")


def write_page(path, rows):
    """Replaces the table in the page."""
    text = path.read_text(encoding="utf-8")
    path.write_text(_TABLE.sub(
        lambda match: f"{match[1]}{machine()}\n{table(rows)}{match[2]}", text), encoding="utf-8")


def draw(path, rows):
    """Draws the ratios and their targets."""
    import matplotlib
    matplotlib.use("svg")
    from matplotlib import pyplot
    matplotlib.rcParams.update({"svg.fonttype": "none", "svg.hashsalt": "norvak"})

    shown = [row for row in rows if row.is_ratio and row.target is not None][::-1]
    places = range(len(shown))
    ratios = [row.comparison.ratio for row in shown]
    figure, axes = pyplot.subplots(figsize=(9, 0.32 * len(shown) + 1))
    axes.barh(places, ratios, color=["#3b7a57" if row.reaches_target else "#b5482f"
                                     for row in shown])
    axes.scatter([row.target for row in shown], places, marker="|", s=180, color="black",
                 label="at most", zorder=3)
    for place, ratio in zip(places, ratios):
        axes.annotate(f"{ratio:.2f}", (ratio, place), xytext=(-4, 0), va="center", ha="right",
                      textcoords="offset points", color="white", fontsize=8)
    axes.axvline(1, color="grey", linewidth=0.8)
    axes.set_yticks(places, [f"{row.what} / {row.against}, {row.measure}" for row in shown],
                    fontsize=8)
    axes.set_xscale("log")
    axes.set_xticks([0.1, 0.2, 0.5, 1, 2], ["0.1", "0.2", "0.5", "1", "2"])
    axes.minorticks_off()
    axes.margins(y=0.01)
    axes.set_xlim(0.07, 2)
    axes.set_xlabel("ratio of medians, ours / theirs")
    axes.legend(loc="lower right", bbox_to_anchor=(1, 1), frameon=False, fontsize=8)
    figure.savefig(path, bbox_inches="tight", metadata={"Date": None})


def _first_line(*command):
    return subprocess.run(command, capture_output=True, text=True,
                          check=True).stdout.splitlines()[0]
