"""Runs commands alternately and compares their times."""

import collections
import dataclasses
import os
import random
import statistics
import sys
import time
from typing import Callable, List

_WARM_UPS = 2
_RESAMPLES = 1000
# If the interval of a ratio is wider than this to either side, the machine was too busy.
_STEADY = 0.05


@dataclasses.dataclass(frozen=True)
class Sample:
    """The time that a process took, including the children that it waited for."""

    wall: float  # seconds
    cpu: float  # seconds, user and system


@dataclasses.dataclass(frozen=True)
class Subject:
    """A command, with its preparation before each run and a check after it."""

    command: List[str]
    prepare: Callable[[], None] = lambda: None
    check: Callable[[], None] = lambda: None


@dataclasses.dataclass(frozen=True)
class Comparison:
    """Medians of two subjects that ran alternately, and their ratio with its 95 % interval."""

    ours: float
    theirs: float
    low: float
    high: float

    @property
    def ratio(self):
        return self.ours / self.theirs

    @property
    def is_steady(self):
        return self.high - self.low <= 2 * _STEADY * self.ratio


def run(command):
    """Runs @a command; if it fails, ends the measurement."""
    null = (os.POSIX_SPAWN_OPEN, 1, "/dev/null", os.O_WRONLY, 0)
    start = time.perf_counter()
    pid = os.posix_spawnp(command[0], command, os.environ, file_actions=[null])
    _, status, usage = os.wait4(pid, 0)
    wall = time.perf_counter() - start
    if status != 0:
        sys.exit(f"wait status {status}: {command}")
    return Sample(wall, usage.ru_utime + usage.ru_stime)


def in_turn(rounds, subjects):
    """Runs all @a subjects (by name) once per round, in rotating order."""
    samples = collections.defaultdict(list)
    names = list(subjects)
    for index in range(-_WARM_UPS, rounds):
        for name in names:
            subject = subjects[name]
            subject.prepare()
            sample = run(subject.command)
            subject.check()
            if index >= 0:
                samples[name].append(sample)
        names.append(names.pop(0))
    return samples


def compare(ours, theirs):
    """Compares two lists of numbers that were measured in pairs."""
    pairs = list(zip(ours, theirs))
    chance = random.Random(1)  # a fixed seed: the same samples give the same interval
    ratios = []
    for _ in range(_RESAMPLES):
        drawn = chance.choices(pairs, k=len(pairs))
        ratios.append(_median(drawn, 0) / _median(drawn, 1))
    ratios.sort()
    return Comparison(_median(pairs, 0), _median(pairs, 1), ratios[_RESAMPLES // 40],
                      ratios[-_RESAMPLES // 40])


def _median(pairs, index):
    return statistics.median(pair[index] for pair in pairs)
