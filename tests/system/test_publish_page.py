"""The guide for release engineers works as it stands, with the nginx configuration it names."""

import pathlib
import re
import shutil
import subprocess

import pytest

from harness import OK, Nginx, kernel, namespace, rules
from harness.publisher import RULES, compile_module

PROJECT = pathlib.Path(__file__).resolve().parents[2]
PAGE = PROJECT / "docs/publishing.md"
CONFIGURATION = PROJECT / "deploy/nginx/norvak.conf"

# The commands of the page use these directories of the machine: each gets a private disk.
PRIVATE_DIRECTORIES = ["/srv", "/run", "/etc/nginx/conf.d", "/var/log/nginx", "/var/lib/nginx"]
DISK_BYTES = 64 * 1024 * 1024


def command_blocks():
    return re.findall(r"^```sh\n(.*?)^```$", PAGE.read_text(), re.MULTILINE | re.DOTALL)


def test_every_command_of_the_page_works(publisher, tmp_path):
    directory = tmp_path / "work"
    shutil.copytree(PROJECT / "deploy", directory / "deploy")
    for release in ("3.10.0-957.el7.x86_64", "3.10.0-957.1.3.el7.x86_64"):
        (directory / "modules" / release).mkdir(parents=True)
        for name in kernel.MODULES:
            compile_module(directory / "modules" / release / f"{name}.ko", release, release)
    blocks = command_blocks()
    assert len(blocks) > 10
    script = tmp_path / "script"
    script.write_text("set -e\n" + "".join(f"echo '## {i}'\n{block}"
                                           for i, block in enumerate(blocks)))
    mounts = [namespace.small_disk(path, DISK_BYTES) for path in PRIVATE_DIRECTORIES
              if pathlib.Path(path).is_dir()]
    run = subprocess.run(
        namespace.command_line(mounts, directory, ["unshare", "--net", "sh", str(script)]),
        env={"PATH": f"{pathlib.Path(publisher.program).parent}:/usr/sbin:/usr/bin:/sbin:/bin"},
        stdin=subprocess.DEVNULL, capture_output=True, text=True, check=False, timeout=200)
    assert run.returncode == 0, run.stdout + run.stderr
    output = dict(re.findall(r"^## (\d+)\n(.*?)(?=^## |\Z)", run.stdout, re.MULTILINE | re.DOTALL))
    said = "".join(output.values())
    assert "refused: 1\n" in said
    assert "agent software: hosts do not follow" in said
    assert "imported as release 1" in said
    assert "published in place:" in said
    assert "was built for 3.10.0-957.el7.x86_64" in run.stderr


@pytest.fixture
def documented_server(publisher, tmp_path):
    """An nginx with the documented configuration, on another port."""
    text = CONFIGURATION.read_text()
    body = re.search(r"^server \{\n(.*)^\}\n", text, re.MULTILINE | re.DOTALL).group(1)
    body, count = re.subn(r"^  (listen|server_name|root) .*;\n", "", body, flags=re.MULTILINE)
    assert count == 3
    prefix = tmp_path / "nginx"
    (prefix / "more").mkdir(parents=True)
    (prefix / "more/documented.conf").write_text(body)
    server = Nginx(prefix)
    server.published.rmdir()
    server.published.symlink_to(publisher.tree / "current")
    yield server
    server.close()


def test_hosts_get_the_latest_release_with_the_documented_configuration(publisher, host,
                                                                        documented_server):
    rules.install_rules(host)
    host.configure(kernel_update_host=documented_server.url)
    for content in ("<one/>\n", "<two/>\n"):
        publisher.rules(content)
        assert host.update("3") == OK
        assert host.read(rules.RULES) == content.encode()
    assert publisher.current()[RULES] == b"<two/>\n"
    assert "root /srv/norvak/current;" in CONFIGURATION.read_text()
    assert "open_file_cache off;" in CONFIGURATION.read_text()
