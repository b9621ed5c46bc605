"""norvak_publish: releases, how they become current, and what hosts get of them."""

import fcntl
import http.client
import os
import shutil
import subprocess
import threading
import time
import urllib.parse

import pytest

from harness import OK, kernel, rules, software, web_server
from harness.publisher import PACKAGE, RULES, VERSION_FILE, compile_module, contents


def get(server, path):
    """The answer of the server to a GET: status, headers, body."""
    connection = http.client.HTTPConnection(urllib.parse.urlsplit(server.url).netloc, timeout=10)
    try:
        connection.request("GET", path)
        answer = connection.getresponse()
        return answer.status, dict(answer.getheaders()), answer.read()
    finally:
        connection.close()


# What hosts get.


def test_a_host_installs_the_published_software(served, server, host):
    served.soft(software.NEW_VERSION)
    host.configure(**software.settings(server.url))
    assert host.update("0", "0") == OK
    assert host.log_texts() == software.UPDATED
    assert host.read("agent-file") == f"of {software.NEW_VERSION}\n".encode()
    assert dict(host.config_values())["version"] == software.NEW_VERSION


def test_a_host_installs_the_published_modules(served, server, host):
    modules = served.modules(kernel.UNAME["NORVAK_TEST_RELEASE"])
    served.done("kernel", "--distribution", "centos", *modules)
    host.configure(kernel_update_host=server.url)
    assert host.update("1", uname=kernel.UNAME) == OK
    assert host.log_texts() == [*kernel.were_updated(*kernel.MODULES), ""]
    for module in modules:
        assert host.read(module.name) == module.read_bytes()


def test_a_host_installs_the_published_rules(served, server, host):
    rules.install_rules(host)
    served.rules("<rules><rule/></rules>\n")
    host.configure(kernel_update_host=server.url)
    assert host.update("3") == OK
    assert host.read(rules.RULES) == b"<rules><rule/></rules>\n"


@pytest.mark.parametrize("line", [None, "build 7"])
def test_a_host_installs_the_published_web_server(served, server, host, line):
    program = shutil.which("nginx", path="/usr/sbin:/usr/bin")
    served.done("nginx", "--version", "1.20.1", "--word-size", "64", program,
                *(["--identification", line] if line else []))
    host.write(web_server.PROGRAM, "old")
    host.configure(nginx_update_host=server.url)
    assert host.update("2", "1.20.1", "64-bit") == OK
    with open(program, "rb") as file:
        assert host.read(web_server.PROGRAM) == file.read()
    identification = host.read(web_server.IDENTIFICATION).decode()
    assert identification == f"{line}\n" if line else len(identification) == 33


def test_the_kernel_decides_on_the_directory(publisher):
    publisher.done("kernel", "--distribution", "ubuntu",
                   *publisher.modules("3.2.0-23-generic-pae"))
    publisher.done("kernel", "--distribution", "suse", *publisher.modules("3.0.101-63-default"))
    publisher.done("kernel", "--distribution", "centos", "--kernel", "2.6.18-164.el5xen",
                   *publisher.modules("2.6.18-164.el5"))
    directories = {os.path.dirname(os.path.dirname(path)) for path in publisher.current()}
    assert directories == {"kernels/ubuntu-generic/x64/3.2.0-23",
                           "kernels/suse-default/x64/3.0.101-63",
                           "kernels/centos-xen/x64/2.6.18-164"}


def test_the_processor_decides_on_the_directory(publisher, tmp_path):
    modules = [compile_module(tmp_path / f"{name}.ko", "2.6.32-431.el6.i686", word_size=32)
               for name in kernel.MODULES]
    publisher.done("kernel", "--distribution", "centos", *modules)
    assert "kernels/centos/x86/2.6.32-431/tessel_linux/tessel_linux.ko" in publisher.current()


# Refusals.


def test_a_module_of_another_kernel_is_replaced_only_on_request(publisher):
    publisher.done("kernel", "--distribution", "centos",
                   *publisher.modules("3.10.0-957.el7.x86_64"))
    before = publisher.current()
    others = publisher.modules("3.10.0-957.1.3.el7.x86_64")
    result = publisher.run("kernel", "--distribution", "centos", *others)
    assert result.returncode == 2
    assert "was built for 3.10.0-957.el7.x86_64" in result.stderr
    assert publisher.current() == before
    publisher.done("kernel", "--distribution", "centos", "--replace", *others)
    assert publisher.current() != before
    rebuilt = publisher.modules("3.10.0-957.1.3.el7.x86_64", text="rebuilt")
    publisher.done("kernel", "--distribution", "centos", *rebuilt)


def test_two_kernels_of_one_directory_are_refused(publisher):
    result = publisher.run("kernel", "--distribution", "centos",
                           *publisher.modules("3.10.0-957.el7.x86_64"),
                           *publisher.modules("3.10.0-957.1.3.el7.x86_64"))
    assert result.returncode == 2
    assert "both belong in kernels/centos/x64/3.10.0-957/norvak_ipfilter" in result.stderr


@pytest.mark.parametrize("name, why", [
    ("other.ko", "not named like a kernel module"),
    ("tessel_linux.o", "not named like a kernel module"),
])
def test_a_module_of_another_name_is_refused(publisher, tmp_path, name, why):
    module = publisher.modules("3.10.0-957.el7.x86_64")[0].rename(tmp_path / name)
    result = publisher.run("kernel", "--distribution", "centos", module)
    assert result.returncode == 2 and why in result.stderr


def test_a_file_that_is_not_a_module_is_refused(publisher, tmp_path):
    module = tmp_path / "tessel_linux.ko"
    module.write_text("no module")
    result = publisher.run("kernel", "--distribution", "centos", module)
    assert result.returncode == 2 and str(module) in result.stderr
    assert not (publisher.tree / "current").exists()


def test_errors_of_the_result_keep_it_from_hosts(served, server):
    served.rules()
    before = served.names()
    file = served.scratch / "broken.xml"
    file.write_text("<rules>")
    result = served.run("rules", file)
    assert result.returncode == 1
    assert served.names() == before
    assert get(server, f"/{RULES}")[2] == b"<rules/>\n"


def test_a_lower_version_is_refused(publisher):
    publisher.soft("abcdef1.0.2")
    result = publisher.run("soft", *publisher.soft_arguments("abcdef1.0.1"))
    assert result.returncode == 1
    assert publisher.current()[VERSION_FILE] == b"abcdef1.0.2\n"


@pytest.mark.parametrize("arguments", [
    ["nginx", "--version", "../x", "--word-size", "64", "/bin/sh"],
    ["nginx", "--version", "..", "--word-size", "64", "/bin/sh"],
    ["nginx", "--version", "a b", "--word-size", "64", "/bin/sh"],
    ["nginx", "--version", "1", "--word-size", "16", "/bin/sh"],
    ["nginx", "--version", "1", "--word-size", "64", "/bin/sh", "--identification", "x" * 128],
    ["nginx", "--version", "1", "--word-size", "64", "/bin/sh", "--identification", "a\nb"],
    ["kernel", "--distribution", "gentoo", "/bin/sh"],
    ["soft", "--version", "abcdef1\n2", "--x64", "/bin/sh", "--x86", "/bin/sh"],
    ["rules", "/dev/null", "--in-place", "--import"],
    ["rules"],
    ["rules", "/dev/null", "--keep", "-1"],
    ["unknown"],
])
def test_a_wrong_command_line_is_a_usage_error(publisher, arguments):
    result = publisher.run(*arguments)
    assert result.returncode == 64, result
    assert result.stderr
    assert os.listdir(publisher.tree) == []


@pytest.mark.parametrize("tree", ["missing", "file"])
def test_a_tree_is_a_directory(publisher, tmp_path, tree):
    (tmp_path / "file").touch()
    result = publisher.run_plain("rules", tmp_path / tree, "/dev/null")
    assert result.returncode == 2
    assert f"not a directory: {tmp_path / tree}" in result.stderr


# Releases.


def test_what_is_published_already_makes_no_release(publisher):
    publisher.soft("abcdef1.0.1")
    before = publisher.names()
    assert "nothing to do" in publisher.soft("abcdef1.0.1")
    assert publisher.names() == before


def test_unchanged_files_are_shared(publisher):
    publisher.soft("abcdef1.0.1")
    publisher.rules()
    one, two = (publisher.tree / "releases" / number / PACKAGE for number in "12")
    assert one.stat().st_ino == two.stat().st_ino


@pytest.mark.parametrize("error", ["EXDEV", "EPERM", "EMLINK"])
def test_files_that_cannot_be_shared_are_copied(publisher, strace, error):
    publisher.soft("abcdef1.0.1")
    publisher.rules(through=strace(f"inject=link:error={error}"))
    one, two = (publisher.tree / "releases" / number / PACKAGE for number in "12")
    assert one.read_bytes() == two.read_bytes()
    assert one.stat().st_ino != two.stat().st_ino
    assert one.stat().st_mtime == two.stat().st_mtime


def test_a_dry_run_changes_nothing(publisher):
    publisher.soft("abcdef1.0.1")
    before = publisher.names(), contents(publisher.tree)
    assert f"  {VERSION_FILE}\n" in publisher.soft("abcdef1.0.2", "--dry-run")
    assert (publisher.names(), contents(publisher.tree)) == before


def test_only_the_given_number_of_old_releases_is_kept(publisher):
    for i in range(1, 5):
        publisher.soft(f"abcdef1.0.{i}", "--keep", "2")
    assert publisher.names()[1] == ["2", "2.sha256", "3", "3.sha256", "4", "4.sha256"]


def test_a_release_that_a_link_names_is_kept(publisher):
    publisher.soft("abcdef1.0.1")
    (publisher.tree / "mirror").symlink_to("releases/1")
    for i in range(2, 5):
        publisher.soft(f"abcdef1.0.{i}", "--keep", "0")
    assert publisher.names()[1] == ["1", "1.sha256", "3", "3.sha256", "4", "4.sha256"]


def test_releases_are_listed(publisher):
    publisher.soft("abcdef1.0.1")
    publisher.soft("abcdef1.0.2")
    lines = [line.split() for line in publisher.done("releases").splitlines()]
    assert [(line[0], line[3:]) for line in lines[1:]] == [
        ("1", ["abcdef1.0.1", "3", "previous"]), ("2", ["abcdef1.0.2", "3", "current"])]


def test_a_file_that_was_edited_in_place_is_noticed(publisher):
    publisher.soft("abcdef1.0.1")
    publisher.rules()
    file = publisher.tree / "current" / RULES
    file.chmod(0o644)
    file.write_text("<edited/>\n")
    listed = publisher.run("releases")
    assert listed.returncode == 1
    assert listed.stdout.splitlines()[2].endswith(" current edited")
    assert f"{file.resolve()}" in listed.stderr and "[edited-in-place]" in listed.stderr
    published = publisher.run("soft", *publisher.soft_arguments("abcdef1.0.2"))
    assert published.returncode == 0 or "tarn_rule" in published.stderr
    assert "[edited-in-place]" in published.stderr


def test_a_second_publisher_is_refused_or_waits(publisher):
    publisher.soft("abcdef1.0.1")
    directory = os.open(publisher.tree, os.O_RDONLY)
    fcntl.flock(directory, fcntl.LOCK_EX)
    arguments = publisher.soft_arguments("abcdef1.0.2")
    refused = publisher.run("soft", *arguments)
    assert refused.returncode == 2 and "another norvak_publish" in refused.stderr
    refused = publisher.run("soft", *arguments, "--wait", "1")
    assert refused.returncode == 2
    threading.Timer(0.5, os.close, [directory]).start()
    publisher.done("soft", *arguments, "--wait", "30")


def test_of_many_publishers_at_once_each_makes_its_release(publisher):
    started = []
    for i in range(5):
        file = publisher.scratch / f"{i}.xml"
        file.write_text(f"<rules n='{i}'/>\n")
        started.append(subprocess.Popen(
            [publisher.program, "rules", publisher.tree, file, "--wait", "60", "--quiet"]))
    assert [process.wait(60) for process in started] == [0] * 5
    releases = [contents(publisher.tree / "releases" / str(i))[RULES] for i in range(1, 6)]
    assert sorted(releases) == [f"<rules n='{i}'/>\n".encode() for i in range(5)]
    assert publisher.run("releases").returncode == 0


def test_quiet_prints_nothing(publisher):
    assert publisher.rules() != ""
    file = publisher.scratch / "other.xml"
    file.write_text("<other/>\n")
    result = publisher.run("rules", file, "--quiet")
    assert (result.returncode, result.stdout, result.stderr) == (0, "", "")


# What the web server answers.


def test_every_request_is_answered_from_one_release(served, server):
    """While releases change, no file is missing and no package is older than its version."""
    served.soft("abcdef1.0.0")
    bodies, stop = [], threading.Event()

    def ask():
        while not stop.is_set():
            bodies.append((get(server, f"/{VERSION_FILE}"), get(server, f"/{PACKAGE}")))

    asking = threading.Thread(target=ask)
    asking.start()
    packages = {}
    try:
        for i in range(1, 15):
            served.soft(f"abcdef1.0.{i}", "--keep", "20")
    finally:
        stop.set()
        asking.join()
    for i in range(15):
        packages[f"abcdef1.0.{i}\n".encode()] = i
    published = [served.tree / "releases" / str(i + 1) / PACKAGE for i in range(15)]
    by_content = {path.read_bytes(): i for i, path in enumerate(published)}
    assert len(bodies) > 15
    for (status, _, version), (package_status, _, package) in bodies:
        assert (status, package_status) == (200, 200)
        # The package was asked for after the version, so it is of that release or a later one.
        assert by_content[package] >= packages[version]


def test_a_changed_file_has_another_etag(served, server):
    """The digest lists of rules have the same size, and are published within a second."""
    tags = []
    for i in range(4):
        served.rules(f"<rules n='{i}'/>\n")
        tags.append(get(server, "/tarn_rule/md5")[1]["ETag"])
    served.done("rollback", "1")
    tags_again = [get(server, "/tarn_rule/md5")[1]["ETag"]]
    served.rules("<rules n='9'/>\n")
    tags.append(get(server, "/tarn_rule/md5")[1]["ETag"])
    assert len(set(tags)) == 5
    assert tags_again == tags[:1]


# Trees without releases.


def plain_tree(publisher):
    """Makes the tree a plain one, with software that was published before."""
    publisher.soft("abcdef1.0.1")
    served = publisher.tree / "releases" / "1"
    for entry in served.iterdir():
        entry.rename(publisher.tree / entry.name)
    (publisher.tree / "current").unlink()
    shutil.rmtree(publisher.tree / "releases")
    return contents(publisher.tree)


def test_a_plain_tree_is_changed_only_on_request(publisher):
    before = plain_tree(publisher)
    result = publisher.run("soft", *publisher.soft_arguments("abcdef1.0.2"))
    assert result.returncode == 2
    assert "--import" in result.stderr and "--in-place" in result.stderr
    assert contents(publisher.tree) == before


def test_in_place_changes_a_plain_tree(publisher):
    plain_tree(publisher)
    publisher.soft("abcdef1.0.2", "--in-place")
    assert sorted(os.listdir(publisher.tree)) == ["norvak"]
    assert contents(publisher.tree)[VERSION_FILE] == b"abcdef1.0.2\n"


def test_in_place_makes_a_plain_tree_of_an_empty_one(publisher):
    publisher.rules()
    shutil.rmtree(publisher.tree)
    publisher.tree.mkdir()
    publisher.done("rules", publisher.scratch / "rules.xml", "--in-place")
    assert sorted(contents(publisher.tree)) == ["tarn_rule/md5", RULES]


def test_in_place_switches_payloads_first_and_the_version_last(publisher, strace, tmp_path):
    plain_tree(publisher)
    publisher.soft("abcdef1.0.2", "--in-place", through=strace("trace=rename", tmp_path / "trace"))
    renamed = [line.split('"')[3] for line in (tmp_path / "trace").read_text().splitlines()
               if "rename(" in line]
    served = [path for path in renamed if "/.norvak_publish/" not in path]
    assert served == [f"{publisher.tree}/norvak/x64/nvupdate.tar",
                      f"{publisher.tree}/norvak/x86/nvupdate.tar",
                      f"{publisher.tree}/{VERSION_FILE}"]


def test_errors_keep_a_plain_tree_as_it_is(publisher):
    before = plain_tree(publisher)
    result = publisher.run("soft", *publisher.soft_arguments("abcdef1.0.0"), "--in-place")
    assert result.returncode == 1
    assert contents(publisher.tree) == before


def test_import_makes_the_first_release(publisher):
    before = plain_tree(publisher)
    times = {path: (publisher.tree / path).stat().st_mtime for path in before}
    publisher.soft("abcdef1.0.2", "--import")
    assert contents(publisher.tree / "releases" / "1") == before
    assert {path: (publisher.tree / "releases/1" / path).stat().st_mtime
            for path in before} == times
    assert publisher.current()[VERSION_FILE] == b"abcdef1.0.2\n"
    # What the web server still serves until its document root is changed.
    assert (publisher.tree / VERSION_FILE).read_bytes() == before[VERSION_FILE]
    publisher.done("rollback", "--grace", "0s")
    assert publisher.current() == before


@pytest.mark.parametrize("option", ["--in-place", "--import"])
def test_a_tree_with_releases_is_not_changed_in_place(publisher, option):
    publisher.rules()
    result = publisher.run("rules", publisher.scratch / "rules.xml", option)
    assert result.returncode == 2 and "has releases already" in result.stderr


def test_a_link_in_a_plain_tree_is_refused(publisher):
    plain_tree(publisher)
    (publisher.tree / "norvak/link").symlink_to("x64")
    result = publisher.run("soft", *publisher.soft_arguments("abcdef1.0.2"), "--import")
    assert result.returncode == 2 and f"{publisher.tree}/norvak/link" in result.stderr


# Rollback.


def test_a_rollback_serves_the_release_before(publisher):
    publisher.rules("<one/>\n")
    publisher.rules("<two/>\n")
    publisher.rules("<three/>\n")
    output = publisher.done("rollback")
    assert "  rules: hosts follow with their next run\n" in output
    assert "  agent software: unchanged\n" in output
    assert publisher.current()[RULES] == b"<two/>\n"
    publisher.done("rollback")
    assert publisher.current()[RULES] == b"<three/>\n"
    publisher.done("rollback", "1")
    assert publisher.current()[RULES] == b"<one/>\n"


def test_hosts_follow_a_rollback_of_rules(served, server, host):
    rules.install_rules(host)
    served.rules("<one/>\n")
    served.rules("<two/>\n")
    host.configure(kernel_update_host=server.url)
    for content in (b"<two/>\n", b"<one/>\n"):
        assert host.update("3") == OK
        assert host.read(rules.RULES) == content
        host.write(rules.CURRENT, rules.digest(content))
        served.done("rollback")


def test_hosts_do_not_follow_a_rollback_of_software(served, server, host):
    served.soft("abcdef3.1.9")
    served.soft(software.NEW_VERSION)
    host.configure(**software.settings(server.url, version="abcdef3.1.8"))
    assert host.update("0", "0") == OK
    output = served.done("rollback", "--grace", "0s")
    assert "  agent software: hosts do not follow" in output
    assert host.update("0", "0").status == 255
    assert dict(host.config_values())["version"] == software.NEW_VERSION


def test_a_decreasing_version_is_switched_before_the_packages(publisher):
    publisher.soft("abcdef1.0.1")
    publisher.soft("abcdef1.0.2")
    old, new = (contents(publisher.tree / "releases" / number) for number in "12")
    running = subprocess.Popen([publisher.program, "rollback", publisher.tree, "--grace", "3s"],
                               stdout=subprocess.PIPE, text=True)
    assert "these follow in" in running.stdout.readline()
    during = publisher.current()
    assert running.wait(30) == 0
    running.stdout.close()
    assert during == {**old, PACKAGE: new[PACKAGE],
                      PACKAGE.replace("x64", "x86"): new[PACKAGE.replace("x64", "x86")]}
    assert publisher.current() == old
    assert publisher.names() == (["current", "previous", "releases"],
                                 ["1", "1.sha256", "2", "2.sha256"])
    publisher.done("rollback")  # forward again, at once
    assert publisher.current() == new


def test_an_interrupted_grace_time_is_continued(publisher):
    publisher.soft("abcdef1.0.1")
    publisher.soft("abcdef1.0.2")
    old = contents(publisher.tree / "releases/1")
    running = subprocess.Popen([publisher.program, "rollback", publisher.tree, "--grace", "1h"],
                               stdout=subprocess.PIPE, text=True)
    running.stdout.readline()
    running.kill()
    running.wait()
    running.stdout.close()
    refused = publisher.run("soft", *publisher.soft_arguments("abcdef1.0.3"))
    assert refused.returncode == 2 and "rollback" in refused.stderr
    an_hour_ago = time.time() - 3600
    os.utime(publisher.tree / "rolling-back", (an_hour_ago, an_hour_ago), follow_symlinks=False)
    publisher.done("rollback", "--grace", "1h")
    assert publisher.current() == old
    assert publisher.names() == (["current", "previous", "releases"],
                                 ["1", "1.sha256", "2", "2.sha256"])


def test_an_interrupted_rollback_can_be_undone(publisher):
    publisher.soft("abcdef1.0.1")
    publisher.soft("abcdef1.0.2")
    new = publisher.current()
    running = subprocess.Popen([publisher.program, "rollback", publisher.tree, "--grace", "1h"],
                               stdout=subprocess.PIPE, text=True)
    running.stdout.readline()
    running.kill()
    running.wait()
    running.stdout.close()
    publisher.done("rollback", "2")
    assert publisher.current() == new
    assert publisher.names()[0] == ["current", "previous", "releases"]


@pytest.mark.parametrize("release, why", [
    ([], "no earlier release"), (["7"], "there is no release 7")])
def test_a_rollback_to_nowhere_is_refused(publisher, release, why):
    publisher.rules()
    result = publisher.run("rollback", *release)
    assert result.returncode == 2 and why in result.stderr


def test_a_rollback_needs_releases(publisher):
    plain_tree(publisher)
    result = publisher.run("rollback")
    assert result.returncode == 2 and "has no releases" in result.stderr


def test_a_rollback_to_a_broken_release_is_refused(publisher):
    publisher.rules("<one/>\n")
    publisher.rules("<two/>\n")
    file = publisher.tree / "releases/1" / RULES
    file.chmod(0o644)
    file.write_text("<broken")
    result = publisher.run("rollback")
    assert result.returncode == 1 and "[edited-in-place]" in result.stderr
    assert publisher.current()[RULES] == b"<two/>\n"


def test_a_dry_rollback_changes_nothing(publisher):
    publisher.rules("<one/>\n")
    publisher.rules("<two/>\n")
    assert "would go back to release 1" in publisher.done("rollback", "--dry-run")
    assert publisher.current()[RULES] == b"<two/>\n"
