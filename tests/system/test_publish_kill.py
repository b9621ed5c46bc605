"""norvak_publish is killed at each of its system calls that change something."""

import collections
import os
import re
import shutil
import subprocess
import tempfile

import pytest

from harness import Publisher, kernel
from harness.publisher import contents

# Killed on entering a call: this one has no effect, all earlier ones have.
CALLS = ("open", "openat", "write", "link", "symlink", "rename", "unlink", "unlinkat", "rmdir",
         "mkdir", "chmod", "fchmod", "utimensat", "fsync", "syncfs", "flock")


def soft(publisher):
    publisher.soft("abcdef1.0.1", "--keep", "1")
    publisher.soft("abcdef1.0.2", "--keep", "1")
    return ["soft", *publisher.soft_arguments("abcdef1.0.3"), "--keep", "1"]


def replaced_kernel(publisher):
    publisher.done("kernel", "--distribution", "centos", *publisher.modules(RELEASE))
    return ["kernel", "--distribution", "centos", *publisher.modules(RELEASE, "rebuilt")]


def rollback(publisher):
    publisher.rules("<one/>\n")
    publisher.rules("<two/>\n")
    return ["rollback", "1"]


def rollback_of_software(publisher):
    publisher.soft("abcdef1.0.1")
    publisher.soft("abcdef1.0.2")
    return ["rollback", "1", "--grace", "0s"]


def first_release(publisher):
    return ["soft", *publisher.soft_arguments("abcdef1.0.1")]


RELEASE = kernel.UNAME["NORVAK_TEST_RELEASE"]
COMMANDS = [soft, replaced_kernel, rollback, rollback_of_software, first_release]


@pytest.fixture
def publisher(publisher):
    """On a file system in memory, where nothing waits for a disk."""
    with tempfile.TemporaryDirectory(dir="/dev/shm") as scratch:
        yield Publisher(publisher.program, scratch)


class Trees:
    """Copies of a tree, so that each run begins with the same."""

    def __init__(self, publisher):
        self._publisher = publisher
        self._pristine = publisher.scratch / "pristine"
        shutil.copytree(publisher.tree, self._pristine, symlinks=True)

    def restore(self):
        shutil.rmtree(self._publisher.tree)
        subprocess.run(["cp", "-a", self._pristine, self._publisher.tree], check=True)


def served(publisher):
    return publisher.current() if (publisher.tree / "current").exists() else None


def count_calls(publisher, strace, command, trace):
    """How often each call is made by the first thread, which alone changes files."""
    result = publisher.run(*command, through=strace(f"trace={','.join(CALLS)}", trace))
    assert result.returncode == 0, result
    lines = [line.split(maxsplit=1) for line in trace.read_text().splitlines()]
    # Lines that do not begin with a name are about signals or the end of an interrupted call.
    names = (re.match(r"\w+", call) for thread, call in lines if thread == lines[0][0])
    return collections.Counter(name.group() for name in names if name)


@pytest.mark.parametrize("prepare", COMMANDS, ids=lambda prepare: prepare.__name__)
def test_hosts_get_a_complete_release(publisher, strace, tmp_path, prepare):
    command = prepare(publisher)
    trees = Trees(publisher)
    old = served(publisher)
    counts = count_calls(publisher, strace, command, tmp_path / "trace")
    new, names = served(publisher), publisher.names()
    # What is served while a rollback waits: the old release with the packages of the new one.
    complete = [old, new]
    if prepare is rollback_of_software:
        complete.append({**new, **{path: old[path] for path in old if path.endswith(".tar")}})
    seen = set()
    for call, count in counts.items():
        for number in range(1, count + 1):
            trees.restore()
            killed = publisher.run(
                *command, through=strace(f"inject={call}:signal=KILL:when={number}"))
            where = f"{call} {number}"
            assert killed.returncode in (-9, 137, 0), (where, killed)
            assert served(publisher) in complete, where
            seen.add(complete.index(served(publisher)))
            # The same command then succeeds and cleans up.
            again = publisher.run(*command)
            assert again.returncode == 0, (where, again)
            assert served(publisher) == new, where
            top, releases = publisher.names()
            assert top == names[0] or top == ["current", "releases"], where
            for name in releases:
                release = publisher.tree / "releases" / name
                assert name.isdecimal() or (name.endswith(".sha256") and
                                            release.with_suffix("").is_dir()), where
            assert publisher.run("releases").returncode == 0, where
    assert seen == set(range(len(complete))), "some state of the tree was never met"


def test_a_plain_tree_is_repaired_by_the_next_run(publisher, strace, tmp_path):
    """For a moment old and new files are mixed, but each of them is complete."""
    publisher.rules("<one/>\n")
    os.rename(publisher.tree / "releases/1/tarn_rule", publisher.tree / "tarn_rule")
    (publisher.tree / "current").unlink()
    shutil.rmtree(publisher.tree / "releases")
    trees = Trees(publisher)
    old = contents(publisher.tree)
    file = publisher.scratch / "rules.xml"
    file.write_text("<two/>\n")
    command = ["rules", file, "--in-place"]
    counts = count_calls(publisher, strace, command, tmp_path / "trace")
    new = contents(publisher.tree)
    for call, count in counts.items():
        for number in range(1, count + 1):
            trees.restore()
            publisher.run(*command, through=strace(f"inject={call}:signal=KILL:when={number}"))
            found = contents(publisher.tree / "tarn_rule")
            for path, content in found.items():
                assert content in (old[f"tarn_rule/{path}"], new[f"tarn_rule/{path}"])
            assert publisher.run(*command).returncode == 0
            assert contents(publisher.tree) == new
            assert os.listdir(publisher.tree) == ["tarn_rule"]
