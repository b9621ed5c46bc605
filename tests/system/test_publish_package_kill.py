"""Packages of norvak_publish are installed whole or not at all, whenever the updater is killed."""

from harness import OK
from harness.published_package import Snapshot, build, new_tree, publish, tree


def test_each_step_may_be_the_last(publisher, server, ready, steps, shell, tmp_path):
    """Kills package and updater, then installs a package that fails, then one that works."""
    old = tree(ready)
    new = new_tree(old)
    good = build(publisher)
    failing = build(publisher, files={"scripts/pre": "exit 1\n"})
    snapshot = Snapshot(ready, tmp_path / "snapshot")
    assert ready.update("0", "0", mounts=[shell], environment=steps.environment) == OK
    kept = {"old": 0, "new": 0}
    for at in steps.chosen(shell):
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
