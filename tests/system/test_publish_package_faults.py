"""Packages of norvak_publish are installed whole or not at all, whatever fails."""

from harness import OK
from harness.published_package import Snapshot, new_tree, tree


def test_each_step_may_fail(ready, steps, shell, tmp_path):
    old = tree(ready)
    new = new_tree(old)
    snapshot = Snapshot(ready, tmp_path / "snapshot")
    assert ready.update("0", "0", mounts=[shell], environment=steps.environment) == OK
    assert steps.count > 30
    failed = 0
    for at in steps.chosen(shell):
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


def test_the_disk_may_be_full_at_each_step(ready, steps, shell, tmp_path):
    old = tree(ready)
    new = new_tree(old)
    snapshot = Snapshot(ready, tmp_path / "snapshot")
    assert ready.update("0", "0", mounts=[shell], environment=steps.environment) == OK
    ready.mounts.append(shell)
    failed = 0
    for at in steps.chosen(shell):
        snapshot.restore()
        steps.reset(at, f"dd if=/dev/zero of={ready.path}/filler bs=4096 2>/dev/null")
        (status,), errors = ready.update_in_turn(1, "0", "1", free_bytes=1024 * 1024,
                                                 environment=steps.environment)
        failed += status != 0
        assert tree(ready) == (new if status == 0 else old), (at, errors)
    assert failed > 1
