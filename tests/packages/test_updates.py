"""The packaged updater in fresh Debian systems."""

import pytest
from conftest import RELEASES
from harness import OK, updates

UPDATES = [
    pytest.param(updates.AGENT, id="agent"),
    pytest.param(updates.KERNEL, id="kernel modules"),
    pytest.param(updates.WEB_SERVER, id="web server"),
    pytest.param(updates.RULES, id="rules"),
]


def assert_updates(host, server, update, **options):
    """One run that finds everything new does exactly that update, silently."""
    host.configure(**{update.setting: server.url, **update.settings})
    update.prepare(host)
    update.publish(server)
    assert host.update(*update.arguments, uname=update.uname, **options) == OK
    assert host.log_texts() == update.log
    assert server.requests() == update.requests
    assert host.changes() == sorted(update.changes)
    assert host.agent.was_killed() == update.kills_agent


@pytest.mark.parametrize("update", UPDATES)
@pytest.mark.parametrize("name", RELEASES)
def test_each_update_succeeds_in_a_fresh_system(name, update, packages, make_root, make_host, server):
    root = make_root(name)
    root.run("dpkg", "--install", root.copy_in(packages.host_deb()))
    assert_updates(make_host(root), server, update)
