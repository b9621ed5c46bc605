"""The install directory is a disk that fills up during the update; then there is space again."""

import collections

import pytest

from faults import rules, updates
from faults.lab import Host
from faults.tables import DiskTable, remedy

_SAMPLE = (0, 1, 4, 8, 12, 16, 24, 38, 39, 60, 75)
_MOST_PAGES = 300


def fill(lab, update, free_pages):
    """The outcome of an update with @a free_pages left, and of the next one, for a DiskTable."""
    reference = lab.reference(update)
    with Host(lab, update) as host:
        disturbed = host.run_on_small_disk(host.used_pages() + free_pages)
        following = host.run()
    broken = list(rules.violations_of_a_full_disk(reference, disturbed, following))
    assert not broken, (free_pages, broken)
    stays = reference.missed(following.state)
    assert all(map(remedy, stays)), (free_pages, stays)
    return disturbed.run.status, reference.missed(disturbed.state), stays


def suffices(outcome):
    return outcome == (0, (), ())


def pages_needed(lab, update):
    """The smallest number of free pages with which the update succeeds."""
    enough, too_few = _MOST_PAGES, -1
    assert suffices(fill(lab, update, enough))
    while enough - too_few > 1:
        middle = (enough + too_few) // 2
        if suffices(fill(lab, update, middle)):
            enough = middle
        else:
            too_few = middle
    return enough


@pytest.mark.parametrize("update", updates.UPDATES, ids=lambda update: update.key)
def test_a_full_disk_is_reported_or_listed(lab, page, tries_all, summary, update):
    sizes = range(pages_needed(lab, update) + 1) if tries_all else _SAMPLE
    found = lab.map(lambda size: fill(lab, update, size), sizes)

    table = f"disk {update.key}"
    made = DiskTable()
    outcomes = collections.Counter()
    for outcome in found:
        made.add(*outcome)
        outcomes[f"exit {outcome[0]}, {'not healed' if outcome[2] else 'healed'}"] += 1
        if not tries_all:
            assert DiskTable.cells(*outcome) in DiskTable.listed(page.table(table)), outcome
    if tries_all:
        page.check(table, made.lines())
    summary.append(f"{table}: {len(found)} sizes, {dict(outcomes)}")
