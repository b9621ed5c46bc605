"""Kernel modules (type 1): what is fetched, verified and installed, and what a failure leaves."""

import pytest

from harness import FAILED, OK, http_reply, namespace
from harness.kernel import (DOWNLOAD, FIRST, LIST, MODULES, QUORIN, RECORD, TESSEL, UNAME, VERSION,
                            WORK_DIR, are_current, digest, get_all, get_list, install,
                            installed, list_path, module_path, new, publish_modules, was_refused,
                            were_updated)
from harness.transfers import PARTIAL_FILE, WRITE_ERROR, transfer_failed

OLD = b"an older build\n"

NOTHING_TO_DO = [*are_current(*MODULES), ""]
ALL_UPDATED = [*were_updated(*MODULES), ""]
RECORDED = f"+{RECORD}"

# What can stand there of the pair that must not be left one without the other.
PAIRS = [
    pytest.param([], id="none of the pair there"),
    pytest.param([TESSEL], id="the second module there"),
    pytest.param([QUORIN], id="the third module there"),
    pytest.param([TESSEL, QUORIN], id="both of the pair there"),
]


@pytest.fixture
def serve(host, scripted_server):
    """Lets the scripted server offer all modules; replies that are given replace the good ones."""
    def serve_modules(replies=None):
        publish_modules(scripted_server)
        for path, reply in (replies or {}).items():
            scripted_server.reply(path, reply)
        host.configure(kernel_update_host=scripted_server.url)
        return scripted_server

    return serve_modules


@pytest.fixture
def configured(host, server):
    """The host, with nginx for its server and an older build of every module installed."""
    host.configure(kernel_update_host=server.url)
    install(host, *MODULES, content=OLD)
    return host


def update(host, **options):
    return host.update("1", **{"uname": UNAME, **options})


def modules(host):
    """The installed modules with their contents."""
    return {name: host.read(installed(name)) for name in MODULES if host.exists(installed(name))}


def assert_only_modules_changed(host):
    assert [change for change in host.changes() if not change.endswith(".ko")] == [RECORDED]
    host.assert_agent_undisturbed()


# Runs that succeed.


def test_current_modules_are_left_alone(configured, server):
    publish_modules(server)
    install(configured, *MODULES)
    assert update(configured) == OK
    assert configured.log_texts() == NOTHING_TO_DO
    assert server.requests() == get_list(*MODULES)
    assert configured.changes() == [RECORDED]
    configured.assert_agent_undisturbed()


def test_modules_that_are_not_installed_are_fetched(host, server):
    publish_modules(server)
    host.configure(kernel_update_host=server.url)
    assert update(host) == OK
    assert host.log_texts() == ALL_UPDATED
    assert server.requests() == get_all(*MODULES)
    assert modules(host) == {name: new(name) for name in MODULES}
    assert_only_modules_changed(host)


def test_outdated_modules_are_replaced(configured, server):
    publish_modules(server)
    assert update(configured) == OK
    assert configured.log_texts() == ALL_UPDATED
    assert server.requests() == get_all(*MODULES)
    assert modules(configured) == {name: new(name) for name in MODULES}
    assert_only_modules_changed(configured)


@pytest.mark.parametrize("outdated", MODULES)
def test_only_the_outdated_module_is_fetched(configured, server, outdated):
    publish_modules(server)
    install(configured, *MODULES)
    install(configured, outdated, content=OLD)
    assert update(configured) == OK
    logs = [were_updated(name) if name == outdated else are_current(name) for name in MODULES]
    assert configured.log_texts() == [*sum(logs, []), ""]
    requests = [get_all(name) if name == outdated else get_list(name) for name in MODULES]
    assert server.requests() == sum(requests, [])
    assert configured.changes() == [RECORDED, f"~{installed(outdated)}"]
    configured.assert_agent_undisturbed()


def test_a_second_run_finds_nothing_to_do(configured, server):
    publish_modules(server)
    assert update(configured) == OK
    assert update(configured) == OK
    assert configured.log_texts() == ALL_UPDATED + NOTHING_TO_DO
    assert server.requests() == get_all(*MODULES) + get_list(*MODULES)


@pytest.mark.parametrize("mask, mode", [(0o022, 0o644), (0o077, 0o600), (0, 0o666)])
def test_an_installed_module_has_the_permissions_of_a_new_file(configured, server, mask, mode):
    publish_modules(server)
    configured.write(installed(FIRST), OLD, mode=0o755)
    assert update(configured, mounts=[namespace.umask(mask)]) == OK
    assert {configured.mode(installed(name)) for name in MODULES} == {mode}


def test_a_large_module_is_installed_whole(configured, server):
    large = bytes(range(256)) * (4 << 12)  # 4 MiB
    publish_modules(server, {TESSEL: large})
    assert update(configured) == OK
    assert configured.log_texts() == ALL_UPDATED
    assert modules(configured)[TESSEL] == large


def test_an_empty_module_cannot_be_fetched(configured, server):
    publish_modules(server, {FIRST: b""})
    assert update(configured) == FAILED
    assert configured.log_texts() == was_refused(FIRST)
    assert modules(configured)[FIRST] == OLD


# A failed download: the modules behind are not looked at, and the pair is not left one without the
# other.


def broken_transfer(name):
    content = new(name)
    return http_reply(content[:100], length=len(content)), [
        transfer_failed(PARTIAL_FILE), f"[KERNEL] download {name} kernel failed",
        f"[KERNEL] download kernel {name} failed", ""]


def wrong_content(name):
    return http_reply(b"another build\n"), was_refused(name)


FAILED_DOWNLOADS = pytest.mark.parametrize("failure", [broken_transfer, wrong_content])


@FAILED_DOWNLOADS
@pytest.mark.parametrize("pair", PAIRS)
def test_a_failed_download_of_the_first_module_removes_nothing(host, serve, pair, failure):
    reply, log = failure(FIRST)
    server = serve({module_path(FIRST): reply})
    install(host, FIRST, *pair, content=OLD)
    assert update(host) == FAILED
    assert host.log_texts() == log
    assert server.requests() == get_all(FIRST)
    assert host.changes() == [RECORDED]
    host.assert_agent_undisturbed()


@FAILED_DOWNLOADS
@pytest.mark.parametrize("pair", PAIRS)
def test_a_failed_download_of_the_second_module_removes_a_single_one(host, serve, pair, failure):
    reply, log = failure(TESSEL)
    server = serve({module_path(TESSEL): reply})
    install(host, FIRST, *pair, content=OLD)
    assert update(host) == FAILED
    assert host.log_texts() == were_updated(FIRST) + log
    assert server.requests() == get_all(FIRST, TESSEL)
    left = {name: OLD for name in pair} if pair == [TESSEL, QUORIN] else {}
    assert modules(host) == {FIRST: new(FIRST), **left}
    assert_only_modules_changed(host)


@FAILED_DOWNLOADS
@pytest.mark.parametrize("pair", PAIRS)
def test_a_failed_download_of_the_third_module_removes_a_single_second(host, serve, pair, failure):
    reply, log = failure(QUORIN)
    server = serve({module_path(QUORIN): reply})
    install(host, FIRST, *pair, content=OLD)
    assert update(host) == FAILED
    assert host.log_texts() == were_updated(FIRST, TESSEL) + log
    assert server.requests() == get_all(*MODULES)
    # The second one was installed a moment ago: it stays only where the third one is.
    left = {TESSEL: new(TESSEL), QUORIN: OLD} if QUORIN in pair else {}
    assert modules(host) == {FIRST: new(FIRST), **left}
    assert_only_modules_changed(host)


def test_a_failed_download_removes_a_second_module_that_was_current(host, serve):
    serve({module_path(QUORIN): http_reply(b"another build\n")})
    install(host, FIRST, TESSEL)
    assert update(host) == FAILED
    assert host.log_texts() == are_current(FIRST, TESSEL) + was_refused(QUORIN)
    assert modules(host) == {FIRST: new(FIRST)}


def test_a_server_that_is_forgotten_between_check_and_download_fails_the_download(host, serve):
    def forget():
        host.write("config.xml", "<norvak/>")

    server = serve({list_path(TESSEL): http_reply(length=33, pieces=[forget, b"0" * 32 + b"\n"])})
    install(host, FIRST, TESSEL)
    assert update(host) == FAILED
    assert host.log_texts() == [*are_current(FIRST),
                                f"[KERNEL] download kernel {TESSEL} failed", ""]
    assert server.requests() == get_list(FIRST, TESSEL)
    assert modules(host) == {FIRST: new(FIRST)}


# A failed check: the modules behind are not looked at, and nothing is removed.


def broken_list(name):
    return http_reply(b"0" * 16, length=32), [
        transfer_failed(PARTIAL_FILE), f"[KERNEL] download {name} MD5 failed"]


def missing_list(_):
    return http_reply(b""), ["[KERNEL] open MD5 template file failed"]


def list_of_two_lines(name):
    return http_reply(f"{digest(new(name))}\nmore\n".encode()), [
        "[KERNEL] download MD5 file is abnormal"]


FAILED_CHECKS = pytest.mark.parametrize("failure", [broken_list, missing_list, list_of_two_lines])


@FAILED_CHECKS
@pytest.mark.parametrize("pair", PAIRS)
@pytest.mark.parametrize("name", [FIRST, TESSEL])
def test_a_failed_check_of_the_first_two_modules_removes_nothing(host, serve, name, pair, failure):
    reply, log = failure(name)
    server = serve({list_path(name): reply})
    install(host, FIRST)
    install(host, *pair, content=OLD)
    assert update(host) == FAILED
    before = MODULES[:MODULES.index(name)]
    assert host.log_texts() == [*are_current(*before), *log,
                                f"[KERNEL] check kernel {name} MD5 failed", ""]
    assert server.requests() == get_list(*before, name)
    assert host.changes() == [RECORDED]
    host.assert_agent_undisturbed()


@FAILED_CHECKS
@pytest.mark.parametrize("pair", PAIRS)
def test_a_failed_check_of_the_third_module_keeps_a_new_second(host, serve, pair, failure):
    reply, log = failure(QUORIN)
    server = serve({list_path(QUORIN): reply})
    install(host, FIRST, *pair, content=OLD)
    assert update(host) == FAILED
    assert host.log_texts() == [*were_updated(FIRST, TESSEL), *log,
                                f"[KERNEL] check kernel {QUORIN} MD5 failed", ""]
    assert server.requests() == [*get_all(FIRST, TESSEL), *get_list(QUORIN)]
    assert modules(host) == {FIRST: new(FIRST), TESSEL: new(TESSEL),
                             **({QUORIN: OLD} if QUORIN in pair else {})}
    assert_only_modules_changed(host)


# MD5 lists.


@pytest.mark.parametrize("form", [
    pytest.param("{}\n", id="with a line feed"),
    pytest.param("{}", id="without a line feed"),
])
def test_a_list_is_the_digest_with_or_without_line_feed(configured, server, form):
    publish_modules(server, lists={name: form.format(digest(new(name))).encode()
                                   for name in MODULES})
    install(configured, FIRST, QUORIN)
    assert update(configured) == OK
    assert configured.log_texts() == [*are_current(FIRST), *were_updated(TESSEL),
                                      *are_current(QUORIN), ""]


@pytest.mark.parametrize("form", [
    pytest.param("{}\r\n", id="CR LF"),
    pytest.param(" {}\n", id="blank in front"),
    pytest.param("{} \t\n", id="blank and tab behind"),
])
def test_white_space_around_the_digest_makes_every_run_fetch_the_module(configured, server, form):
    publish_modules(server, lists={name: form.format(digest(new(name))).encode()
                                   for name in MODULES})
    assert update(configured) == OK
    assert update(configured) == OK
    assert configured.log_texts() == 2 * ALL_UPDATED
    assert server.requests() == 2 * get_all(*MODULES)
    assert modules(configured) == {name: new(name) for name in MODULES}


@pytest.mark.parametrize("form", [
    pytest.param(lambda digest: digest.upper() + "\n", id="upper case"),
    pytest.param(lambda digest: digest[:-1] + "\n", id="one digit missing"),
    pytest.param(lambda digest: digest + "0\n", id="one digit too many"),
    pytest.param(lambda digest: f"{digest}  {FIRST}.ko\n", id="file name behind it"),
    pytest.param(lambda digest: " " * 96 + digest + "\n", id="cut after 127 characters"),
    pytest.param(lambda digest: "x" * 1022 + "\n", id="the longest line"),
    pytest.param(lambda digest: "\n", id="line feed alone"),
])
def test_a_line_that_is_not_the_digest_fails_the_verification(configured, server, form):
    publish_modules(server, lists={FIRST: form(digest(new(FIRST))).encode()})
    install(configured, FIRST)
    assert update(configured) == FAILED
    assert configured.log_texts() == was_refused(FIRST)
    assert server.requests() == get_all(FIRST)
    assert configured.changes() == [RECORDED]
    configured.assert_agent_undisturbed()


def test_127_characters_of_the_line_take_part_in_the_verification(configured, server):
    publish_modules(server, lists={FIRST: f"{' ' * 95}{digest(new(FIRST))}x\n".encode()})
    assert update(configured) == OK
    assert configured.log_texts() == ALL_UPDATED


@pytest.mark.parametrize("form", [
    pytest.param(lambda digest: digest + "\n\n", id="empty second line"),
    pytest.param(lambda digest: digest + "\r\n\r\n", id="empty second line with CR"),
    pytest.param(lambda digest: digest + "\n ", id="blank behind the line feed"),
    pytest.param(lambda digest: "\n" + digest, id="empty first line"),
    pytest.param(lambda digest: "\n\n", id="two line feeds"),
    pytest.param(lambda digest: "<html>\n<p>sorry</p>\n</html>\n", id="error page"),
    pytest.param(lambda digest: "x" * 1024, id="a line of two pieces"),
    pytest.param(lambda digest: "x" * 1023 + "\n", id="a line feed that does not fit"),
])
@pytest.mark.parametrize("is_installed", [True, False], ids=["installed", "not installed"])
def test_a_list_of_several_lines_is_abnormal(configured, server, form, is_installed):
    publish_modules(server, lists={FIRST: form(digest(new(FIRST))).encode()})
    if is_installed:
        install(configured, FIRST)
    else:
        configured.remove(installed(FIRST))
        configured.remember()
    assert update(configured) == FAILED
    assert configured.log_texts() == ["[KERNEL] download MD5 file is abnormal",
                                      f"[KERNEL] check kernel {FIRST} MD5 failed", ""]
    assert server.requests() == get_list(FIRST)
    assert configured.changes() == [RECORDED]
    configured.assert_agent_undisturbed()


@pytest.mark.parametrize("published", [b"\n", b"x", b"not here\n"])
def test_a_module_that_is_not_installed_is_fetched_whatever_line_the_list_holds(
        configured, server, published):
    publish_modules(server, lists={FIRST: published})
    configured.remove(installed(FIRST))
    assert update(configured) == FAILED
    assert configured.log_texts() == was_refused(FIRST)
    assert server.requests() == get_all(FIRST)
    assert not configured.exists(installed(FIRST))


def test_a_list_without_any_line_has_the_module_fetched(configured, server):
    # A body of no bytes leaves the file alone, and a file mounted there cannot be deleted.
    configured.write(LIST, "")
    publish_modules(server, lists={FIRST: b""})
    install(configured, *MODULES)
    empty = [namespace.bind(configured.root / LIST, configured.root / LIST)]
    assert update(configured, mounts=empty) == FAILED
    assert configured.log_texts() == was_refused(FIRST)
    assert server.requests() == get_all(FIRST)
    assert modules(configured) == {name: new(name) for name in MODULES}


def test_the_digest_text_of_a_missing_file_verifies_a_missing_module(configured, server):
    # Neither the list nor the download is an accident then: somebody publishes "-1" and no module.
    publish_modules(server, {FIRST: b""}, {FIRST: b"-1\n"})
    install(configured, TESSEL, QUORIN)
    assert update(configured) == OK
    assert configured.log_texts() == [*were_updated(FIRST), *are_current(TESSEL, QUORIN), ""]
    assert configured.changes() == [RECORDED, f"-{installed(FIRST)}"]


# The record of the kernel version.


def test_the_record_holds_the_version_without_a_line_feed(configured, server):
    publish_modules(server)
    assert update(configured) == OK
    assert configured.read(RECORD) == VERSION.encode()
    assert configured.mode(RECORD) == 0o644


def test_the_record_is_replaced(configured, server):
    publish_modules(server)
    configured.write(RECORD, "a much longer earlier version\n", mode=0o600)
    (configured.root / "second name").hardlink_to(configured.root / RECORD)
    assert update(configured) == OK
    assert configured.read(RECORD) == VERSION.encode()
    assert configured.mode(RECORD) == 0o644
    assert configured.read("second name") == b"a much longer earlier version\n"


def test_the_record_is_written_before_the_list_is_requested(host, serve):
    serve({list_path(FIRST): http_reply(length=1, pieces=[lambda: host.note("list")])})
    assert update(host) == FAILED
    (step,) = host.trace()
    assert step.changes == [RECORDED, f"+{WORK_DIR}"]
    assert host.read(RECORD) == VERSION.encode()
    assert host.changes() == [RECORDED]


def test_the_record_is_written_anew_for_every_module(host, serve):
    def lose():
        host.remove(RECORD)

    list_of_tessel = f"{digest(new(TESSEL))}\n".encode()
    serve({list_path(TESSEL): http_reply(length=33, pieces=[lose, list_of_tessel])})
    install(host, *MODULES)
    assert update(host) == OK
    assert host.log_texts() == NOTHING_TO_DO
    assert host.read(RECORD) == VERSION.encode()


def test_a_record_that_cannot_be_written_changes_nothing_else(configured, server):
    publish_modules(server)
    configured.write(f"{RECORD}/file", "")
    configured.remember()
    assert update(configured) == OK
    assert configured.log_texts() == ALL_UPDATED
    assert [change for change in configured.changes() if RECORD in change] == []


@pytest.mark.parametrize("length, name", [
    pytest.param(104, "kernel_version", id="127 characters"),
    pytest.param(105, "kernel_versio", id="128 characters"),
    pytest.param(118, "", id="141 characters"),
])
def test_the_path_of_the_record_is_cut_after_127_characters(configured, server, length, name):
    publish_modules(server)
    # Slashes make the path of the install directory as long as it has to be.
    parent, own_name = configured.path.rsplit("/", 1)
    padded = parent + "/" * (length - len(parent) - len(own_name)) + own_name
    assert len(padded) == length
    configured.set_install_path(padded)
    assert update(configured) == OK
    assert configured.log_texts() == ALL_UPDATED
    # The separator between directory and suffix is doubled: it counts, but shows only here.
    created = [change for change in configured.changes() if change.startswith("+")]
    assert created == ([f"+runlog/{name}"] if name else [])


def test_without_runlog_nothing_is_written_and_the_modules_are_updated(configured, server):
    publish_modules(server)
    configured.remove("runlog")
    configured.remember()
    assert update(configured) == OK
    assert server.requests() == get_all(*MODULES)
    assert configured.changes() == [f"~{installed(name)}" for name in sorted(MODULES)]
    configured.assert_agent_undisturbed()


# A host or a server that is not known.


@pytest.mark.parametrize("settings", [
    pytest.param({}, id="no setting"),
    pytest.param({"kernel_update_host": ""}, id="empty"),
    pytest.param({"update_host": "URL", "nginx_update_host": "URL"}, id="other settings only"),
    pytest.param({"Kernel_update_host": "URL"}, id="other letter case"),
])
def test_without_a_server_nothing_is_to_be_done(host, server, settings):
    publish_modules(server)
    host.configure(**{name: value.replace("URL", server.url) for name, value in settings.items()})
    install(host, TESSEL, content=OLD)
    assert update(host) == OK
    assert host.log_texts() == NOTHING_TO_DO
    assert server.requests() == []
    assert host.changes() == []
    host.assert_agent_undisturbed()


@pytest.mark.parametrize("document", [None, b"", b"<norvak>"], ids=["missing", "empty", "cut"])
def test_without_a_configuration_nothing_is_to_be_done(host, document):
    if document is not None:
        host.write("config.xml", document)
        host.remember()
    assert update(host) == OK
    assert host.log_texts() == NOTHING_TO_DO
    assert host.changes() == []
    host.assert_agent_undisturbed()


@pytest.mark.parametrize("uname", [
    pytest.param({"NORVAK_TEST_UNAME_FAILS": "1"}, id="the call fails"),
    pytest.param({"NORVAK_TEST_RELEASE": ""}, id="empty release"),
    pytest.param({"NORVAK_TEST_RELEASE": "-default"}, id="nothing in front of the flavour"),
])
def test_on_a_host_that_cannot_be_identified_nothing_is_to_be_done(configured, server, uname):
    publish_modules(server)
    configured.write("suse", "")
    configured.remember()
    assert update(configured, uname=uname) == OK
    assert configured.log_texts() == NOTHING_TO_DO
    assert server.requests() == []
    assert configured.changes() == []
    configured.assert_agent_undisturbed()


def test_the_first_of_two_settings_counts(host, server):
    publish_modules(server)
    host.configure(("kernel_update_host", server.url), ("kernel_update_host", "http://[bad"))
    assert update(host) == OK
    assert host.log_texts() == ALL_UPDATED


# The address: which directory of the server belongs to the host. That of nginx has no such
# directory, and its error page of several lines ends the run at the first list.


def assert_first_request(host, server, path, **uname):
    answers = {f"NORVAK_TEST_{name.upper()}": value for name, value in uname.items()}
    assert update(host, uname={**UNAME, **answers}) == FAILED
    assert server.requests() == [f"GET {path}/{FIRST}/md5"]
    assert host.log_texts() == ["[KERNEL] download MD5 file is abnormal",
                                f"[KERNEL] check kernel {FIRST} MD5 failed", ""]


@pytest.mark.parametrize("markers, directory", [
    pytest.param([], "centos", id="none"),
    pytest.param(["ubuntu"], "ubuntu-generic", id="ubuntu"),
    pytest.param(["suse"], "suse", id="suse"),
    pytest.param(["ubuntu", "suse"], "ubuntu-generic", id="both"),
    pytest.param(["centos", "Ubuntu", "SUSE"], "centos", id="none that counts"),
])
def test_marker_files_tell_the_distribution(configured, server, markers, directory):
    for marker in markers:
        configured.write(marker, "suse" if marker == "ubuntu" else "")
    assert_first_request(configured, server, f"/kernels/{directory}/x64/3.0.1", release="3.0.1")


def test_a_directory_serves_as_marker(configured, server):
    (configured.root / "ubuntu").mkdir()
    assert_first_request(configured, server, "/kernels/ubuntu-generic/x64/3.0.1", release="3.0.1")


@pytest.mark.parametrize("machine, family", [
    ("i386", "x86"), ("i686", "x86"), ("x86_64", "x64"), ("i586", "x64"), ("aarch64", "x64"),
    ("I686", "x64"), ("i6866", "x64"), ("", "x64")])
def test_the_machine_name_tells_the_processor_family(configured, server, machine, family):
    assert_first_request(configured, server, f"/kernels/centos/{family}/{VERSION}", machine=machine)


@pytest.mark.parametrize("marker, release, directory", [
    ("", "2.6.18-164.el5xen", "centos-xen/x64/2.6.18-164"),
    ("", "2.6.18-164.11.1.el5PAE", "centos-pae/x64/2.6.18-164"),
    ("", "2.6.32-431.el6.x86_64", "centos/x64/2.6.32-431"),
    ("", "3.10.0", "centos/x64/3.10.0"),
    ("", "3.10.0-5", "centos/x64/3.10.0-5"),
    ("", "3.10.0rc-5", "centos/x64/3.10.0R"),
    ("", "3_10_0+5-el", "centos/x64/3_10_0+5"),
    ("suse", "3.0.13-0.27-default", "suse-default/x64/3.0.13-0.27"),
    ("suse", "2.6.32.12-0.7-pae", "suse-pae/x64/2.6.32.12-0.7"),
    ("suse", "2.6.34-12-desktop", "suse-desktop/x64/2.6.34-12"),
    ("suse", "3.0.101-63-xen", "suse/x64/3.0.101-63-XEN"),
    ("suse", "3.0.101-63-xenpae", "suse-pae/x64/3.0.101-63-XENPAE"),
    ("ubuntu", "3.2.0-23-generic-pae", "ubuntu-generic/x64/3.2.0-23"),
    ("ubuntu", "2.6.32-21-server", "ubuntu-server/x64/2.6.32-21"),
    ("ubuntu", "2.6.32-21-xen", "ubuntu-generic/x64/2.6.32-21"),
])
def test_the_release_tells_version_and_flavour(configured, server, marker, release, directory):
    if marker:
        configured.write(marker, "")
    assert_first_request(configured, server, f"/kernels/{directory}", release=release)


@pytest.mark.parametrize("suffix", [
    pytest.param("/", id="slash"), pytest.param("/norvak/agents", id="path"),
    pytest.param("/norvak/?at=", id="query")])
def test_the_address_starts_with_the_setting_as_it_stands(configured, server, suffix):
    configured.configure(kernel_update_host=server.url + suffix)
    server.publish({"norvak/index.html": b"two\nlines\n"})
    assert_first_request(configured, server, f"{suffix}/kernels/centos/x64/{VERSION}")


# What stands in the way.


def test_what_an_earlier_run_left_is_removed(configured, server):
    publish_modules(server)
    configured.write(LIST, "what an earlier run left\n" * 100)
    configured.write(DOWNLOAD, OLD * 100_000)
    configured.write(f"{WORK_DIR}/deep/er/file", "")
    (configured.root / WORK_DIR).chmod(0o755)
    assert update(configured) == OK
    assert configured.log_texts() == ALL_UPDATED
    assert modules(configured) == {name: new(name) for name in MODULES}
    assert not configured.exists(WORK_DIR)


def test_the_work_directory_has_no_search_bit(host, serve):
    seen = []
    serve({list_path(FIRST): http_reply(length=1, pieces=[
        lambda: seen.append(host.mode(WORK_DIR))])})
    assert update(host) == FAILED
    assert seen == [0o644]


def test_a_work_directory_that_is_gone_at_the_end_is_no_failure(host, serve):
    def remove():
        host.remove(WORK_DIR)

    # The body of no bytes needs no directory.
    server = serve({list_path(QUORIN): http_reply(pieces=[remove])})
    install(host, *MODULES)
    assert update(host) == FAILED
    assert host.log_texts() == [*are_current(FIRST, TESSEL),
                                "[KERNEL] open MD5 template file failed",
                                f"[KERNEL] check kernel {QUORIN} MD5 failed", ""]
    assert server.requests() == get_list(*MODULES)
    assert host.changes() == [RECORDED]
    host.assert_agent_undisturbed()


def test_a_file_in_the_place_of_the_work_directory_fails_the_check_and_goes(configured, server):
    publish_modules(server)
    configured.write(WORK_DIR, "")
    assert update(configured) == FAILED
    assert configured.log_texts() == [transfer_failed(WRITE_ERROR),
                                      f"[KERNEL] download {FIRST} MD5 failed",
                                      f"[KERNEL] check kernel {FIRST} MD5 failed", ""]
    assert server.requests() == get_list(FIRST)
    # The clean-up takes away whatever stands under that name.
    assert configured.changes() == [RECORDED]
    configured.assert_agent_undisturbed()


def test_a_full_disk_fails_the_download(configured, server):
    publish_modules(server)
    (configured.root / WORK_DIR).mkdir()
    configured.remember()
    full = [namespace.small_disk(configured.root / WORK_DIR, 32 << 10)]
    assert update(configured, mounts=full) == FAILED
    assert configured.log_texts() == [transfer_failed(WRITE_ERROR),
                                      f"[KERNEL] download {FIRST} kernel failed",
                                      f"[KERNEL] download kernel {FIRST} failed", ""]
    assert server.requests() == get_all(FIRST)
    assert modules(configured) == {name: OLD for name in MODULES}
    configured.assert_agent_undisturbed()


def test_a_move_that_fails_is_not_noticed(configured, server):
    publish_modules(server)
    configured.remove(installed(TESSEL))
    configured.write(f"{installed(TESSEL)}/file", "")
    configured.remember()
    assert update(configured) == OK
    assert configured.log_texts() == ALL_UPDATED
    assert server.requests() == get_all(*MODULES)
    assert configured.changes() == sorted(
        [RECORDED, f"~{installed(FIRST)}", f"~{installed(QUORIN)}"])
    configured.assert_agent_undisturbed()


def test_an_installed_module_that_cannot_be_read_is_replaced(configured, server):
    publish_modules(server)
    install(configured, FIRST, TESSEL)
    configured.remove(installed(QUORIN))
    configured.write_unopenable(installed(QUORIN))
    assert update(configured) == OK
    assert configured.log_texts() == [*are_current(FIRST, TESSEL), *were_updated(QUORIN), ""]
    assert modules(configured)[QUORIN] == new(QUORIN)


def test_more_arguments_are_not_looked_at(configured, server):
    publish_modules(server)
    assert configured.update("1", "0", "x", "y", uname=UNAME) == OK
    assert configured.log_texts() == ALL_UPDATED
