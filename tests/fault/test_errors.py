"""A call of the updater fails once, or from then on always; then the updater runs once more."""

import collections

import pytest

from faults import rules, updates
from faults.lab import MOUNTED_CONFIG, Fault, Variant
from faults.tables import REGENERATE, ErrorTable, remedy

_SAMPLE_STEP = 30
_LASTING_SAMPLE_STEP = 60


def outcome_class(status, wrong, stays):
    if status not in (0, 255):
        return "aborted"
    if stays:
        return "not healed"
    if status == 255:
        return "failed and healed"
    return "silent and healed" if wrong else "no effect"


def calls_to_fail(reference):
    """The calls of a run; of those whose number varies, only the first two of each name."""
    seen = collections.Counter()
    for call in reference.outcome.made:
        seen[call.name] += 1
        if call.operation != "exit" and (not call.varies or seen[call.name] <= 2):
            yield call


def sampled(faults, table):
    """Some of the @a faults, and one for each call that the table lists."""
    chosen = faults[::_SAMPLE_STEP]
    for calls in ErrorTable.listed(table).values():
        for name, errors in calls.items():
            fitting = [fault for fault in faults if fault.call.name == name and
                       (errors is None or fault.error in errors)]
            assert fitting, f"the run has no {name}: {REGENERATE}"
            chosen.append(fitting[len(fitting) // 2])
    return chosen


@pytest.mark.parametrize("update", updates.UPDATES, ids=lambda update: update.key)
def test_an_error_is_reported_or_listed(lab, page, tries_all, summary, update):
    reference = lab.reference(update)
    faults = [Fault(call, error) for call in calls_to_fail(reference)
              for error in rules.errors(call)]
    table = f"error {update.key}"
    found = lab.disturb_all(update, faults if tries_all else sampled(faults, page.table(table)))

    made = ErrorTable()
    outcomes = collections.Counter()
    for one in found:
        what = (one.disturbed.run.status, reference.missed(one.disturbed.state),
                reference.missed(one.following.state))
        assert all(map(remedy, what[2])), (one.fault, what)
        outcomes[outcome_class(*what)] += 1
        made.add(one.fault.call.name, one.fault.error, *what)
        if not tries_all:
            check_listed(page.table(table), one.fault, ErrorTable.cells(*what))
    if tries_all:
        page.check(table, made.lines())
    summary.append(f"{table}: {len(found)} of {len(faults)} errors, {dict(outcomes)}")


def check_listed(table, fault, cells):
    """Checks that the @a table lists the fault in the row with these @a cells."""
    if cells:
        calls = ErrorTable.listed(table).get(cells, {})
        errors = calls.get(fault.call.name, ())
        assert errors is None or fault.error in errors, (
            f"{fault}, not listed: {cells}: {REGENERATE}")


@pytest.mark.parametrize("update", updates.UPDATES, ids=lambda update: update.key)
def test_a_lasting_error_leaves_nothing_unknown(lab, tries_all, summary, update):
    reference = lab.reference(update)
    faults = [Fault(call, error, lasting=True) for call in calls_to_fail(reference)
              for error in rules.lasting_errors(call)]
    found = lab.disturb_all(update, faults if tries_all else faults[::_LASTING_SAMPLE_STEP])

    outcomes = collections.Counter()
    for one in found:
        stays = reference.missed(one.following.state)
        assert all(map(remedy, stays)), (one.fault, stays)
        outcomes[outcome_class(one.disturbed.run.status, reference.missed(one.disturbed.state),
                               stays)] += 1
    summary.append(f"lasting error {update.key}: {len(found)} of {len(faults)} errors, "
                   f"{dict(outcomes)}")


@pytest.mark.parametrize("mounted", (False, True), ids=("without unnamed files", "mounted"))
def test_an_error_in_a_save_leaves_the_file_whole(lab, tries_all, summary, request, mounted):
    update = updates.BARE_UPDATES[1]
    variant = MOUNTED_CONFIG
    if not mounted:
        library = request.getfixturevalue("no_unnamed_files")
        variant = Variant(environment=(("LD_PRELOAD", library),))
    reference = lab.reference(update, variant)
    faults = [Fault(call, error) for call in reference.outcome.made if call.is_of_a_save
              for error in rules.errors(call)]
    found = lab.disturb_all(update, faults if tries_all else faults[::_SAMPLE_STEP], variant)
    for one in found:
        assert all(map(remedy, reference.missed(one.following.state))), one.fault
    summary.append(f"error in a save, {request.node.callspec.id}: {len(found)} of {len(faults)} "
                   "errors")
