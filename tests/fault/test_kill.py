"""The updater is killed just before each call that changes something; then it runs once more."""

import collections

import pytest

from faults import rules, updates
from faults.lab import MOUNTED_CONFIG, PLAIN, Fault, Host, Variant
from faults.tables import KillTable, remedy

_SAMPLE_STEP = 4


def by_key(key):
    return next(update for update in updates.UPDATES if update.key == key)


def sampled(points, expected):
    """The first and last of the @a points in each row of the table, and a few others."""
    return [i for i, cells in enumerate(expected)
            if i % _SAMPLE_STEP == 0 or cells not in expected[i - 1:i] or
            cells not in expected[i + 1:i + 2]]


def check(lab, page, tries_all, summary, table, update, variant=PLAIN, is_point=None):
    """Kills the update at each point, and compares the results with the page's table."""
    reference = lab.reference(update, variant)
    points = [call for call in reference.outcome.made if call.changes]
    if is_point:
        points = list(filter(is_point, points))
    chosen = range(len(points))
    if not tries_all:
        expected = KillTable.cells_by_call(page.table(table), [call.name for call in points])
        chosen = sampled(points, expected)
    found = lab.disturb_all(update, [Fault(points[i]) for i in chosen], variant)

    made = KillTable()
    outcomes = collections.Counter()
    expected_cells = {points[i]: expected[i] for i in chosen} if not tries_all else {}
    for one in found:
        left, stays = reference.left(one.disturbed.state), reference.missed(one.following.state)
        assert all(remedy(difference) for difference in stays), (one.fault, stays)
        outcomes["healed" if not stays else "with a known remedy"] += 1
        if tries_all:
            made.add(one.fault.call.name, left, stays)
        else:
            assert KillTable.cells(left, stays) == expected_cells[one.fault.call], one.fault
    if tries_all:
        page.check(table, made.lines())
    summary.append(f"{table}: {len(found)} of {len(points)} points, {dict(outcomes)}")


@pytest.mark.parametrize("update", updates.UPDATES, ids=lambda update: update.key)
def test_the_next_run_heals_what_a_kill_leaves(lab, page, tries_all, summary, update):
    check(lab, page, tries_all, summary, f"kill {update.key}", update)


def test_a_save_without_unnamed_files(lab, page, tries_all, summary, no_unnamed_files):
    variant = Variant(environment=(("LD_PRELOAD", no_unnamed_files),))
    check(lab, page, tries_all, summary, "kill without unnamed files", by_key("soft-manual"),
          variant, lambda call: call.is_of_a_save)


@pytest.mark.parametrize("update", updates.BARE_UPDATES, ids=lambda update: update.key)
def test_a_save_of_a_mounted_file(lab, page, tries_all, summary, update):
    check(lab, page, tries_all, summary, f"kill mounted {update.key}", update, MOUNTED_CONFIG,
          lambda call: call.is_of_a_save)


def test_all_processes_are_killed_with_the_updater(lab, page, summary):
    made = KillTable("Killed in the middle of")
    for update in filter(lambda update: update.commands, updates.UPDATES):
        reference = lab.reference(update)
        for interruption, command in zip(updates.INTERRUPTIONS, update.commands):
            with Host(lab, update) as host:
                host.interrupt_at(interruption)
                disturbed, following = host.run(), host.run()
            broken = rules.violations_of_a_kill(reference, disturbed, following)
            assert not broken, (update.key, interruption, broken)
            stays = reference.missed(following.state)
            assert all(remedy(difference) for difference in stays), (interruption, stays)
            made.add(f"{command}, {update.mode}", reference.left(disturbed.state), stays)
    page.check("kill of all processes", made.lines())
    summary.append("kill of all processes: 9 of 9 points")
