"""Packages of norvak_publish are installed whole or not at all, whatever fails or is killed."""

from harness import OK
from harness.published_package import Snapshot, build, new_tree, publish, tree


def chosen(steps, shell):
    """Numbers of the steps to try: all with the usual /bin/sh, some with the others."""
    return range(1, steps.count + 1, 1 if "dash" in shell else 4)


def test_each_step_may_fail(ready, steps, shell, tmp_path):
    old = tree(ready)
    new = new_tree(old)
    snapshot = Snapshot(ready, tmp_path / "snapshot")
    assert ready.update("0", "0", mounts=[shell], environment=steps.environment) == OK
    assert steps.count > 30
    failed = 0
    for at in chosen(steps, shell):
        snapshot.restore()
        steps.reset(at, "exit 1")
        run = ready.update("0", "0", mounts=[shell], environment=steps.environment)
        failed += run.status != 0
        if run.status != 0:
            assert tree(ready) == old, (at, run)
        else:
            steps.reset()
            assert ready.update("0", "1", mounts=[shell], environment=steps.environment) == OK
            assert tree(ready) == new, at
    assert failed > 5


def test_each_step_may_be_the_last(publisher, server, ready, steps, shell, tmp_path):
    """Killed together with the updater; then a package that fails runs, then one that works."""
    old = tree(ready)
    new = new_tree(old)
    good = build(publisher)
    failing = build(publisher, files={"scripts/pre": "exit 1\n"})
    snapshot = Snapshot(ready, tmp_path / "snapshot")
    assert ready.update("0", "0", mounts=[shell], environment=steps.environment) == OK
    kept = {"old": 0, "new": 0}
    for at in chosen(steps, shell):
        snapshot.restore()
        publish(server, good)
        steps.reset(at, "kill -9 0")
        run = ready.update("0", "0", mounts=[shell], environment=steps.environment)
        assert run.status == -9, (at, run)
        steps.reset()
        publish(server, failing)
        run = ready.update("0", "1", mounts=[shell], environment=steps.environment)
        assert run.status == 255, (at, run)
        found = tree(ready)
        assert found in (old, new), at
        kept["new" if found == new else "old"] += 1
        publish(server, good)
        assert ready.update("0", "1", mounts=[shell], environment=steps.environment) == OK
        assert tree(ready) == new, at
    assert kept["old"] > 10 and kept["new"] > 0, kept


def test_the_disk_may_be_full_at_each_step(ready, steps, shell, tmp_path):
    old = tree(ready)
    new = new_tree(old)
    snapshot = Snapshot(ready, tmp_path / "snapshot")
    assert ready.update("0", "0", mounts=[shell], environment=steps.environment) == OK
    ready.mounts.append(shell)
    failed = 0
    for at in chosen(steps, shell):
        snapshot.restore()
        steps.reset(at, f"dd if=/dev/zero of={ready.path}/filler bs=4096 2>/dev/null")
        (status,), errors = ready.update_in_turn(1, "0", "1", free_bytes=1024 * 1024,
                                                 environment=steps.environment)
        failed += status != 0
        assert tree(ready) == (new if status == 0 else old), (at, errors)
    assert failed > 1
