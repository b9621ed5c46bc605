"""norvak_publish check: a clean tree serves every type of update; a reported error harms a host."""

import dataclasses
import json
import lzma
import pathlib
import re
import shutil
import tempfile
from typing import Callable, List, Optional

import jsonschema
import pytest

from harness import (ABORTED, FAILED, OK, Nginx, config_xml, http_reply, kernel, package, rules,
                     server_tree, software, web_server)
from harness.server_tree import (FIRST, PACKAGES, QUORIN, RULES, RULES_LIST, SCRIPT, TESSEL,
                                 VERSION, VERSION_FILE, ServerTree, digest)

_PROJECT = pathlib.Path(__file__).resolve().parents[2]
_SCHEMA = json.loads((_PROJECT / "docs/norvak_publish-check.schema.json").read_text())
_CODES = dict(re.findall(r'FindingKind \w+\{"([a-z-]+)",\s*tools::Severity::k(\w+)\}',
                         (_PROJECT / "tools/norvak_publish/check_findings.h").read_text()))

HTML = b"<html>\r\n<head><title>404 Not Found</title></head>\r\n</html>\r\n"
PACKAGE = software.PACKAGE_PATH[1:]  # the one for the machine that runs the tests
BUILD = "1.22.1"
OLD_RELEASE = software.INSTALLED_VERSION


@pytest.fixture(scope="session")
def kernels():
    found = server_tree.real_kernels()
    if not found:
        pytest.skip("no kernel modules: run scripts/fetch-kernel-modules.sh")
    return found


@pytest.fixture(scope="session")
def program():
    """The real nginx."""
    return pathlib.Path(shutil.which("nginx", path="/usr/sbin:/usr/bin")).read_bytes()


@pytest.fixture
def tree(kernels, program):
    return ServerTree(kernels, program)


class Check:
    """Runs `norvak_publish check`."""

    def __init__(self, publisher):
        self._publisher = publisher
        self.root = publisher.scratch / "root"

    def findings(self, tree, *options, target=None):
        """Checks @a tree, or the server @a target; the findings."""
        if tree:
            tree.write(self.root)
        return self.again(*options, target=target)

    def again(self, *options, target=None):
        """Checks what is on disk."""
        run = self._publisher.run_plain("check", target or self.root, "--json", *options)
        assert run.stderr == ""
        report = json.loads(run.stdout)
        jsonschema.validate(report, _SCHEMA)
        found = report["findings"]
        for severity in ("error", "warning", "note"):
            assert report[severity + "s"] == sum(f["severity"] == severity for f in found)
        for finding in found:
            assert finding["severity"] == _CODES[finding["code"]].lower()
        failing = report["errors"] + (report["warnings"] if "--strict" in options else 0)
        assert run.returncode == (1 if failing else 0)
        return found

    def run(self, *options):
        return self._publisher.run_plain("check", self.root, *options)


@pytest.fixture
def check(publisher):
    return Check(publisher)


def codes(findings):
    return sorted({(finding["code"], finding["file"]) for finding in findings})


# A clean tree.


def test_a_clean_tree_has_no_findings(check, tree):
    assert check.findings(tree, "--strict") == []


def test_a_clean_tree_on_a_web_server_has_no_findings(check, tree, server):
    tree.write(server.published)
    found = check.findings(None, target=server.url)
    assert codes(found) == [("builds-not-checked", "nginx_new")]


def test_a_server_is_asked_for_what_the_hosts_of_the_fleet_request(check, tree, kernels, server,
                                                                    tmp_path):
    fleet = write_fleet(tmp_path, kernels)
    tree.write(server.published)
    assert codes(check.findings(None, "--fleet", fleet, target=server.url)) == [
        ("builds-not-checked", "nginx_new")]
    kernel_requests = [request for request in server.requests() if "/kernels/" in request]
    assert sorted(kernel_requests) == sorted(
        f"GET /{path}" for real in kernels for name in kernel.MODULES
        for path in (real.list_of(name), real.module(name)))


@pytest.mark.parametrize("index", range(4))
def test_a_clean_tree_updates_the_kernel_modules_of_a_host(host, server, tree, kernels, index):
    real = kernels[index]
    tree.write(server.published)
    run_kernel(host, server, real, OK, [*kernel.were_updated(*kernel.MODULES), ""])
    for name in kernel.MODULES:
        assert host.read(kernel.installed(name)) == real.modules[name]
    run_kernel(host, server, real, OK, [*kernel.are_current(*kernel.MODULES), ""])


def test_a_clean_tree_updates_the_agent(host, server, tree):
    tree.write(server.published)
    run_soft(host, server, OK, software.UPDATED)
    assert dict(host.config_values())["version"] == VERSION
    run_soft(host, server, FAILED, software.NOT_NEEDED, installed=VERSION)


def test_a_clean_tree_updates_the_rules(host, server, tree):
    tree.write(server.published)
    run_rules(host, server, OK, rules.UPDATED)
    assert host.read(rules.RULES) == server_tree.RULES_TEXT


def test_a_clean_tree_updates_the_web_server(host, server, tree, program):
    tree.write(server.published)
    run_nginx(host, server, tree, OK, web_server.UPDATED)
    assert host.read(web_server.PROGRAM) == program
    run_nginx(host, server, tree, FAILED, web_server.NOT_NEW)


# Runs of the updater. Each asserts how the run ends and what it logs.


def _logged(host, run, status, log):
    assert run.status == status.status
    lines = host.log_texts()
    host.remove("runlog/update.log")
    if log is not None:
        assert lines == log
    return lines


def run_kernel(host, server, real, status, log):
    host.write("ubuntu", "")
    host.configure(kernel_update_host=server.url)
    return _logged(host, host.update("1", uname=real.uname), status, log)


def run_soft(host, server, status, log, installed=OLD_RELEASE):
    host.configure(**software.settings(server.url, version=installed))
    return _logged(host, host.update("0", "0"), status, log)


def run_rules(host, server, status, log):
    host.configure(kernel_update_host=server.url)
    rules.install_rules(host)
    return _logged(host, host.update("3"), status, log)


def run_nginx(host, server, tree, status, log, version_dir=BUILD):
    host.configure(nginx_update_host=server.url)
    (host.root / "nginx/bin").mkdir(parents=True, exist_ok=True)
    word_size = {"x64": "64-bit", "x86": "32-bit"}[tree.arch]
    return _logged(host, host.update("2", version_dir, word_size), status, log)


# A failed update leaves the modules that were current before it. The module that failed is not
# installed; if it is an engine module, neither is the other one.


def module_refused(name):
    def harm(host, server, tree, real):
        before = kernel.MODULES[:kernel.MODULES.index(name)]
        run_kernel(host, server, real, FAILED,
                   [*kernel.were_updated(*before), *kernel.was_refused(name)])
        assert not host.exists(kernel.installed(name))
        assert not host.exists(kernel.installed(TESSEL))
    return harm


def list_abnormal(name):
    def harm(host, server, tree, real):
        before = kernel.MODULES[:kernel.MODULES.index(name)]
        run_kernel(host, server, real, FAILED, [
            *kernel.were_updated(*before), "[KERNEL] download MD5 file is abnormal",
            f"[KERNEL] check kernel {name} MD5 failed", ""])
        assert not host.exists(kernel.installed(name))
    return harm


def list_unreadable(name):
    def harm(host, server, tree, real):
        before = kernel.MODULES[:kernel.MODULES.index(name)]
        run_kernel(host, server, real, FAILED, [
            *kernel.were_updated(*before), "[KERNEL] open MD5 template file failed",
            f"[KERNEL] check kernel {name} MD5 failed", ""])
    return harm


def downloaded_for_ever(name):
    def harm(host, server, tree, real):
        for _ in range(2):
            lines = run_kernel(host, server, real, OK, None)
            assert f"[KERNEL] download kernel {name} success" in lines
    return harm


def installs_module(name):
    """The updater installs what the kernel does not load."""
    def harm(host, server, tree, real):
        run_kernel(host, server, real, OK, [*kernel.were_updated(*kernel.MODULES), ""])
        assert host.read(kernel.installed(name)) == tree.files[real.module(name)]
        assert host.read(kernel.installed(name)) != real.modules[name]
    return harm


def soft_harm(status, log, installed=OLD_RELEASE, then=None):
    def harm(host, server, tree, real):
        run_soft(host, server, status, log, installed)
        if then:
            then(host, server)
    return harm


def version_is(version):
    def then(host, server):
        assert dict(host.config_values())["version"] == version
    return then


def aborts(host, server):
    run = host.update("0", "0")
    assert run.status == ABORTED


def agent_was_stopped(host, server):
    assert host.agent.was_killed()


SCRIPT_FAILED = ["call exec_script failed",
                 "[SOFT] call run_update_norvak_agent->update_now failed",
                 "[SOFT] update norvak agent failed", ""]


def rules_harm(status, log):
    def harm(host, server, tree, real):
        run_rules(host, server, status, log)
    return harm


def rules_installed(host, server, tree, real):
    run_rules(host, server, OK, rules.UPDATED)
    assert host.read(rules.RULES) == tree.files[RULES]
    assert host.agent.was_killed()


def build_harm(status, log):
    def harm(host, server, tree, real):
        run_nginx(host, server, tree, status, log)
    return harm


def installs_build(host, server, tree, real):
    run_nginx(host, server, tree, OK, web_server.UPDATED)
    assert host.read(web_server.PROGRAM) == tree.files[tree.build(BUILD, "nginx")]


def installs_build_for_ever(host, server, tree, real):
    for _ in range(2):
        run_nginx(host, server, tree, OK, web_server.UPDATED)


# Broken trees.


@dataclasses.dataclass
class Case:
    """A way to break a clean tree.

    @param code         the code of the only findings, which are about the file @a file
    @param harm         shows what it does to a host, called with host, server, tree and kernel; None
                        if it is no error, or if the tests' tar accepts the package
    @param options      the options of the check
    """

    name: str
    code: str
    file: Callable
    break_it: Callable
    harm: Optional[Callable] = None
    options: List[str] = dataclasses.field(default_factory=list)


def _file(path):
    return lambda tree, real: path


def _module(name):
    return lambda tree, real: real.module(name)


def _list(name):
    return lambda tree, real: real.list_of(name)


def _build(file, version_dir=BUILD):
    return lambda tree, real: tree.build(version_dir, file)


def remove(file):
    def break_it(tree, real):
        del tree.files[file(tree, real)]
    return break_it


def replace(file, content):
    """@param content  bytes, or called with the content that it replaces"""
    def break_it(tree, real):
        path = file(tree, real)
        new = content(tree.files[path]) if callable(content) else content
        tree.files[path] = new
    return break_it


def replace_module(name, content):
    def break_it(tree, real):
        tree.set_module(real, name, content(real.modules[name]))
    return break_it


def with_rules(content):
    def break_it(tree, real):
        tree.files[RULES] = content
        tree.set_list(RULES_LIST, content)
    return break_it


def with_package(content):
    """@param content  bytes, or the files of a package"""
    def break_it(tree, real):
        tree.files[PACKAGE] = content if isinstance(content, bytes) else package(content)
    return break_it


def with_version(text):
    """Both packages install the version, too."""
    def break_it(tree, real):
        tree.files[VERSION_FILE] = f"{text}\n".encode()
        for path in PACKAGES.values():
            tree.files[path] = package({"update": SCRIPT.replace(VERSION, text)})
    return break_it


def of_another_processor(tree, real):
    """The module of a kernel for the other processor family."""
    other = next(k for k in server_tree.real_kernels() if k.arch != real.arch)
    tree.set_module(real, TESSEL, other.modules[TESSEL])


def of_another_kernel(tree, real):
    other = next(k for k in server_tree.real_kernels()
                 if k.arch == real.arch and k.version.split("-")[0] != real.version.split("-")[0])
    tree.set_module(real, TESSEL, other.modules[TESSEL])


def build_of_the_other_class(tree, real):
    other = next(k for k in server_tree.real_kernels() if k.arch != tree.arch)
    tree.add_build(BUILD, other.modules[TESSEL])


def upper(content):
    return content.upper()


def with_carriage_return(content):
    return content.replace(b"\n", b"\r\n")


def with_name(content):
    return content[:32] + b"  file.ko\n"


def with_second_line(content):
    return content + b"\n"


def _list_cases():
    """The forms of a digest list that hosts do not accept."""
    for name, change, harm, rules_harm_ in (
            ("carriage return", with_carriage_return, downloaded_for_ever, rules.REFUSED),
            ("capitals", upper, module_refused, rules.REFUSED),
            ("file name", with_name, module_refused, rules.REFUSED),
            ("blank", lambda list_: list_[:32] + b" \n", downloaded_for_ever, rules.REFUSED),
            ("second line", with_second_line, list_abnormal, rules.NOTHING_TO_DO),
            ("no digest", lambda list_: b"not here\n", module_refused, rules.REFUSED),
            ("error page", lambda list_: HTML, list_abnormal, rules.NOTHING_TO_DO),
            ("empty", lambda list_: b"", list_unreadable, rules.NOTHING_TO_DO)):
        yield Case(f"module list: {name}", "list-format", _list(TESSEL),
                   replace(_list(TESSEL), change), harm(TESSEL))
        yield Case(f"rules list: {name}", "list-format", _file(RULES_LIST),
                   replace(_file(RULES_LIST), change), rules_harm(FAILED, rules_harm_))


CONFIG_SCRIPT = SCRIPT.replace("exit 0", "cp config.xml ../../config.xml")
SETTINGS = {"update_host": "", "update_type": "0", "version": "", "kernel_update_host": "",
            "nginx_update_host": ""}


def config_without(name):
    return config_xml({key: value for key, value in SETTINGS.items() if key != name})


SECOND_MEMBER = {"update": SCRIPT.replace("exit 0", "[ -e second ] || touch ../../half"),
                 "second": "x" * 2000}


def was_installed_by_half(host, server):
    assert host.exists("half")


CASES = [
    *_list_cases(),
    Case("module list of another file", "list-digest", _list(TESSEL),
         replace(_list(TESSEL), digest(b"another").encode() + b"\n"), module_refused(TESSEL)),
    Case("rules list of another file", "list-digest", _file(RULES_LIST),
         replace(_file(RULES_LIST), digest(b"another").encode() + b"\n"),
         rules_harm(FAILED, rules.REFUSED)),

    Case("no module list", "missing", _list(TESSEL), remove(_list(TESSEL)), list_abnormal(TESSEL)),
    Case("no module", "missing", _module(QUORIN), remove(_module(QUORIN)),
         lambda host, server, tree, real: run_kernel(
             host, server, real, FAILED,
             [*kernel.were_updated(FIRST, TESSEL), *kernel.was_refused(QUORIN)])),
    Case("no version file", "missing", _file(VERSION_FILE), remove(_file(VERSION_FILE)),
         soft_harm(FAILED, software.NO_VERSION)),
    Case("no package", "missing", _file(PACKAGE), remove(_file(PACKAGE)),
         soft_harm(FAILED, software.NOT_UNPACKED, then=agent_was_stopped)),
    Case("no rules list", "missing", _file(RULES_LIST), remove(_file(RULES_LIST)),
         rules_harm(FAILED, rules.NOTHING_TO_DO)),
    Case("no rules", "missing", _file(RULES), remove(_file(RULES)),
         rules_harm(FAILED, rules.REFUSED)),
    Case("no identification", "missing", _build("md5"), remove(_build("md5")),
         lambda host, server, tree, real: (
             run_nginx(host, server, tree, OK, web_server.UPDATED),
             host.read(web_server.IDENTIFICATION).index(b"404 Not Found"))),
    Case("no program", "missing", _build("nginx"), remove(_build("nginx")),
         build_harm(FAILED, web_server.REFUSED)),

    Case("no version line", "version-lines", _file(VERSION_FILE),
         replace(_file(VERSION_FILE), b"\n"), soft_harm(FAILED, software.NO_VERSION)),
    Case("two version lines", "version-lines", _file(VERSION_FILE),
         replace(_file(VERSION_FILE), f"{VERSION}\n{VERSION}\n".encode()),
         soft_harm(FAILED, software.NO_VERSION)),
    Case("five characters", "version-length", _file(VERSION_FILE),
         replace(_file(VERSION_FILE), b"abcde\n"),
         lambda host, server, tree, real: (
             host.configure(**software.settings(server.url)), aborts(host, server))),
    Case("version in the second line", "version-length", _file(VERSION_FILE),
         replace(_file(VERSION_FILE), f"\n{VERSION}\n".encode()),
         lambda host, server, tree, real: (
             host.configure(**software.settings(server.url)), aborts(host, server))),
    Case("six characters", "version-length", _file(VERSION_FILE), with_version("abcdef"),
         soft_harm(FAILED, software.NOT_NEEDED)),
    Case("64 bytes", "version-length", _file(VERSION_FILE),
         replace(_file(VERSION_FILE), b"abcdef3." + b"1" * 5 + b".0" * 24 + b".10\n"),
         soft_harm(OK, software.UPDATED,
                   then=version_is("abcdef3." + "1" * 5 + ".0" * 24 + ".1"))),
    Case("carriage return in the version", "version-text", _file(VERSION_FILE),
         with_version(VERSION + "\r"),
         soft_harm(OK, software.UPDATED, then=version_is(VERSION + "\r"))),
    Case("letters in the version", "version-text", _file(VERSION_FILE),
         with_version("abcdef3.1.rc2"),
         soft_harm(FAILED, software.NOT_NEEDED, installed="abcdef3.1.rc1")),
    Case("control character in the prefix", "version-text", _file(VERSION_FILE),
         with_version("abc\tef3.1.10"),
         soft_harm(OK, software.UPDATED, then=version_is("abc\tef3.1.10"))),
    Case("great number", "version-number", _file(VERSION_FILE),
         with_version("abcdef3.1.2147483648"), soft_harm(FAILED, software.NOT_NEEDED)),
    Case("dots that separate nothing", "version-dots", _file(VERSION_FILE),
         with_version("abcdef3..10")),
    Case("lower version", "version-order", _file(VERSION_FILE), with_version("abcdef3.1.8"),
         soft_harm(FAILED, software.NOT_NEEDED), ["--previous", OLD_RELEASE]),
    Case("equal version", "version-order", _file(VERSION_FILE), with_version("zzzzzz3.1.9"),
         soft_harm(FAILED, software.NOT_NEEDED), ["--previous", OLD_RELEASE]),
    Case("longer version", "version-order", _file(VERSION_FILE), with_version("abcdef3.1.9.1"),
         soft_harm(FAILED, software.NOT_NEEDED), ["--previous", OLD_RELEASE]),
    Case("more numbers", "version-field-count", _file(VERSION_FILE), with_version("abcdef3.2.0.1"),
         options=["--previous", OLD_RELEASE]),

    Case("error page as package", "package-damaged", _file(PACKAGE), with_package(HTML),
         soft_harm(FAILED, software.NOT_UNPACKED, then=agent_was_stopped)),
    Case("package cut in a member", "package-damaged", _file(PACKAGE),
         with_package(package(SECOND_MEMBER)[:2500]),
         soft_harm(FAILED, software.NOT_UNPACKED, then=agent_was_stopped)),
    Case("package cut after a member", "package-damaged", _file(PACKAGE),
         with_package(package(SECOND_MEMBER)[:1024]),
         soft_harm(OK, software.UPDATED, then=was_installed_by_half)),
    Case("compressed package", "package-damaged", _file(PACKAGE),
         with_package(lzma.compress(package()))),
    Case("package without script", "package-script", _file(PACKAGE),
         with_package({"install": SCRIPT}),
         soft_harm(FAILED, SCRIPT_FAILED, then=agent_was_stopped)),
    Case("script with carriage returns", "package-script", _file(PACKAGE),
         with_package({"update": SCRIPT.replace("#!/bin/sh", "#!/bin/sh\r")}),
         soft_harm(FAILED, SCRIPT_FAILED, then=agent_was_stopped)),
    Case("path out of the package", "package-path", _file(PACKAGE),
         with_package({"update": SCRIPT, "a/../../b": ""}),
         soft_harm(FAILED, software.NOT_UNPACKED, then=agent_was_stopped)),
    Case("absolute path", "package-path", _file(PACKAGE),
         with_package({"update": SCRIPT, "/b": ""})),
    Case("packaged configuration without version", "package-config", _file(PACKAGE),
         with_package({"update": CONFIG_SCRIPT, "config.xml": config_without("version").replace(
             b'"update_host" value=""', b'"update_host" value="http://127.0.0.1:1"')}),
         soft_harm(OK, software.UPDATED, then=lambda host, server: (
             host.configure(update_host=server.url, update_type="0"), aborts(host, server)))),
    Case("packaged configuration without server", "package-config", _file(PACKAGE),
         with_package({"update": CONFIG_SCRIPT, "config.xml": config_without("update_host")}),
         soft_harm(OK, software.UPDATED, then=lambda host, server: _logged(
             host, host.update("0", "0"), FAILED, software.NO_VERSION))),
    Case("packaged configuration cut", "package-config", _file(PACKAGE),
         with_package({"update": CONFIG_SCRIPT, "config.xml": "<norvak><Process>"}),
         soft_harm(FAILED, ["[SOFT] call run_update_norvak_agent->update_config failed",
                            "[SOFT] update norvak agent failed", ""])),
    Case("package of another version", "package-version", _file(PACKAGE),
         with_package({"update": SCRIPT.replace(
             f"{VERSION}\n", "abcdef3.1.8\ntouch ../../of-3.1.8\n")}),
         soft_harm(OK, software.UPDATED, then=lambda host, server: (
             version_is(VERSION)(host, server), host.read("of-3.1.8")))),
    Case("package of unknown version", "package-version-unknown", _file(PACKAGE),
         with_package({"update": "#!/bin/sh\n"})),

    Case("error page as module", "module-elf", _module(TESSEL),
         replace_module(TESSEL, lambda module: HTML), installs_module(TESSEL)),
    Case("compressed module", "module-elf", _module(TESSEL),
         replace_module(TESSEL, lzma.compress), installs_module(TESSEL)),
    Case("module that was cut", "module-elf", _module(TESSEL),
         replace_module(TESSEL, lambda module: module[:len(module) // 2]),
         installs_module(TESSEL)),
    Case("module without vermagic", "module-elf", _module(TESSEL),
         replace_module(TESSEL, lambda module: module.replace(b"vermagic=", b"vermagix=")),
         installs_module(TESSEL)),
    Case("module of another processor", "module-elf", _module(TESSEL), of_another_processor,
         installs_module(TESSEL)),
    Case("module of another kernel", "module-kernel", _module(TESSEL), of_another_kernel,
         installs_module(TESSEL)),

    Case("error page as program", "build-elf", _build("nginx"), replace(_build("nginx"), HTML),
         build_harm(FAILED, web_server.REFUSED)),
    Case("program that was cut", "build-elf", _build("nginx"),
         replace(_build("nginx"), lambda program: program[:5000]), installs_build),
    Case("program of another processor", "build-elf", _build("nginx"), build_of_the_other_class,
         installs_build),
    Case("empty identification", "identification-empty", _build("md5"),
         replace(_build("md5"), b""), installs_build_for_ever),
    Case("long identification", "identification-long", _build("md5"),
         replace(_build("md5"), b"x" * 128 + b"\n")),
    Case("identification of another build", "identification-duplicate", _build("md5", "1.24.0"),
         lambda tree, real: tree.add_build("1.24.0", tree.files[tree.build(BUILD, "nginx")] + b"\0",
                                           tree.files[tree.build(BUILD, "md5")].decode()),
         lambda host, server, tree, real: (
             run_nginx(host, server, tree, OK, web_server.UPDATED),
             run_nginx(host, server, tree, FAILED, web_server.NOT_NEW, "1.24.0"))),

    Case("rules that are no XML", "rules-xml", _file(RULES), with_rules(b"<rules><rule></rules>\n"),
         rules_installed),

    Case("hidden file", "leftover", _file("tarn_rule/.md5.swp"),
         lambda tree, real: tree.files.update({"tarn_rule/.md5.swp": b""})),
    Case("temporary file", "leftover", lambda tree, real: real.directory + "/tmp.norvak_publish",
         lambda tree, real: tree.files.update({real.directory + "/tmp.norvak_publish": b""})),
    Case("file that nobody requests", "unrequested", _file("norvak/x64/nvupdate.tgz"),
         lambda tree, real: tree.files.update({"norvak/x64/nvupdate.tgz": b""})),
]


def _real(kernels):
    """A kernel whose modules the broken trees break."""
    return next(real for real in kernels if real.arch == "x64")


@pytest.mark.parametrize("case", CASES, ids=lambda case: case.name)
def test_a_broken_tree_is_reported_and_does_harm(check, make_host, server, tree, kernels, case):
    real = _real(kernels)
    case.break_it(tree, real)
    found = check.findings(tree, *case.options)
    assert codes(found) == [(case.code, case.file(tree, real))], found
    assert all(finding["text"] and finding["fix"] for finding in found)
    if _CODES[case.code] != "Error" or case.harm is None:
        return
    tree.write(server.published)
    host = make_host()
    host.start_agent()
    case.harm(host, server, tree, real)


# Cases that need more than changed files.


def write_fleet(directory, kernels, *more):
    path = directory / "fleet.csv"
    lines = [f"ubuntu,{real.machine},{real.release},3\n" for real in kernels]
    path.write_text("".join(["distribution,machine,release,count\n", *lines, *more]))
    return path


def test_a_kernel_of_the_fleet_that_is_missing_is_reported_and_does_harm(
        check, host, server, tree, kernels, tmp_path):
    fleet = write_fleet(tmp_path, kernels, "ubuntu,x86_64,5.4.0-1-generic,7\n")
    assert check.findings(tree) == []
    found = check.findings(tree, "--fleet", fleet)
    assert codes(found) == [("kernel-missing", "kernels/ubuntu-generic/x64/5.4.0-1")]
    assert "Hosts: 7." in found[0]["text"]
    tree.write(server.published)
    absent = server_tree.Kernel("5.4.0-1-generic", {})
    host.write("ubuntu", "")
    host.configure(kernel_update_host=server.url)
    uname = {**absent.uname, "NORVAK_TEST_MACHINE": "x86_64"}
    assert host.update("1", uname=uname) == FAILED
    assert "[KERNEL] download MD5 file is abnormal" in host.log_texts()


def test_a_server_without_a_kernel_of_the_fleet_is_reported(check, server, tree, kernels, tmp_path):
    tree.write(server.published)
    fleet = write_fleet(tmp_path, kernels, "ubuntu,x86_64,5.4.0-1-generic,7\n")
    found = check.findings(None, "--fleet", fleet, target=server.url)
    assert codes(found) == [("builds-not-checked", "nginx_new"),
                            ("kernel-missing", "kernels/ubuntu-generic/x64/5.4.0-1")]


@pytest.mark.parametrize("base, code", [(None, "module-build"), ("9.9.9", "module-kernel")])
def test_another_build_of_the_kernel_is_not_another_kernel(check, tree, kernels, base, code):
    built_for = re.match("[0-9]+[.][0-9]+[.][0-9]+", _real(kernels).release)[0]
    moved = server_tree.Kernel(f"{base or built_for}-9999-amd64", _real(kernels).modules)
    tree.add_kernel(moved)
    assert codes(check.findings(tree)) == [(code, moved.module(name))
                                           for name in sorted(kernel.MODULES)]


def test_another_flavour_of_the_kernel_is_not_another_kernel(check, tree, kernels):
    real = _real(kernels)
    directory = real.directory.replace("ubuntu-generic", "ubuntu-server")
    for path, content in list(tree.files.items()):
        if path.startswith(real.directory):
            tree.files[directory + path[len(real.directory):]] = content
    assert codes(check.findings(tree)) == [("module-build", f"{directory}/{name}/{name}.ko")
                                           for name in sorted(kernel.MODULES)]


@pytest.mark.parametrize("directory", [
    "kernels/ubuntu", "kernels/suse-xen", "kernels/centos-PAE", "kernels/debian",
    "kernels/ubuntu-generic/amd64", "kernels/ubuntu-generic/x64/6.1.0-47-amd64",
    "kernels/suse/x64/3.0.101-63-xen"])
def test_a_directory_that_no_kernel_leads_to_is_reported(check, tree, directory):
    tree.files[f"{directory}/file"] = b""
    assert codes(check.findings(tree)) == [("kernel-directory", directory)]


@pytest.mark.parametrize("directory", [
    "kernels/suse-default/x64/3.0.13-0.27", "kernels/suse/x64/3.0.101-63-XEN",
    "kernels/centos-xen/x64/2.6.18-164", "kernels/centos/x86/3.10.0",
    "kernels/ubuntu-server/x64/2.6.32-21"])
def test_a_directory_that_a_kernel_leads_to_must_be_complete(check, tree, directory):
    tree.files[f"{directory}/{FIRST}/md5"] = b"x"
    missing = [f"{directory}/{name}/{file}" for name in sorted(kernel.MODULES)
               for file in ("md5", f"{name}.ko")][1:]
    assert codes(check.findings(tree)) == [("missing", path) for path in missing]


def test_names_that_differ_in_case_are_reported(check, tree, kernels):
    other = _real(kernels).directory.replace("ubuntu-generic", "Ubuntu-generic")
    tree.files[f"{other}/file"] = b""
    assert codes(check.findings(tree)) == [
        ("kernel-directory", "kernels/Ubuntu-generic"),
        ("names-differ-in-case", "kernels/ubuntu-generic")]


@pytest.fixture
def server_of_nobody():
    """An nginx with the rights of a user who owns nothing."""
    prefix = pathlib.Path(tempfile.mkdtemp(prefix="norvak-nobody-"))
    prefix.chmod(0o755)
    running = Nginx(prefix, user="nobody nogroup")
    yield running
    running.close()
    shutil.rmtree(prefix)


@pytest.mark.parametrize("closed", ["list", "directory"])
def test_what_the_web_server_cannot_read_is_reported_and_does_harm(
        check, host, server_of_nobody, tree, kernels, closed):
    real = _real(kernels)
    tree.write(server_of_nobody.published)
    path = server_of_nobody.published / real.list_of(TESSEL)
    path = path if closed == "list" else path.parent
    path.chmod(0)
    try:
        found = codes(check.again(target=server_of_nobody.published))
        list_abnormal(TESSEL)(host, server_of_nobody, tree, real)
    finally:
        path.chmod(0o755)
    assert ("unreadable", str(path.relative_to(server_of_nobody.published))) in found
    assert {code for code, _ in found} == {"unreadable"}


def test_a_link_to_nothing_is_missing(check, tree, kernels):
    tree.write(check.root)
    path = check.root / _real(kernels).module(TESSEL)
    path.unlink()
    path.symlink_to("nothing")
    assert codes(check.again()) == [("missing", _real(kernels).module(TESSEL))]


def test_a_package_that_changed_under_the_same_version_is_reported(publisher):
    """Only publishing knows what was published before."""
    publisher.soft(VERSION)
    other = publisher.package(VERSION, {"agent-file": "of another build\n"}, name="other.tar")
    run = publisher.run("soft", "--version", VERSION, "--x64", other, "--x86", other)
    assert run.returncode == 1 and "[version-order]" in run.stderr


# A server, as a host sees it.


def _serve(scripted_server, tree):
    scripted_server.publish({path: content for path, content in tree.files.items()
                             if not path.startswith(("kernels/", "nginx_new/"))})


def test_a_server_that_publishes_nothing_is_in_order(check, server):
    assert codes(check.findings(None, target=server.url)) == [
        ("builds-not-checked", "nginx_new"), ("not-published", VERSION_FILE),
        ("not-published", RULES)]


def test_redirects_are_reported_and_do_harm(check, host, scripted_server, tree):
    _serve(scripted_server, tree)
    scripted_server.reply(f"/{VERSION_FILE}", http_reply(
        HTML, "302 Found", [f"Location: {scripted_server.url}/elsewhere"]))
    scripted_server.publish({"elsewhere": tree.files[VERSION_FILE]})
    found = check.findings(None, target=scripted_server.url)
    assert codes(found) == [("builds-not-checked", "nginx_new"), ("http-status", VERSION_FILE)]
    assert "302" in found[1]["text"]
    run_soft(host, scripted_server, FAILED, software.NO_VERSION)


def test_an_error_page_of_one_line_is_reported_and_does_harm(check, host, scripted_server):
    scripted_server.reply(f"/{VERSION_FILE}", http_reply(b"gone\n", "404 Not Found"))
    for path in (*PACKAGES.values(), RULES, RULES_LIST):
        scripted_server.reply(f"/{path}", http_reply(HTML, "404 Not Found"))
    found = check.findings(None, target=scripted_server.url)
    assert ("error-page", VERSION_FILE) in codes(found)
    assert {code for code, _ in codes(found)} == {"builds-not-checked", "error-page",
                                                  "not-published"}
    host.configure(**software.settings(scripted_server.url))
    aborts(host, scripted_server)


def test_a_transfer_that_fails_is_reported_and_does_harm(check, host, scripted_server, tree):
    _serve(scripted_server, tree)
    content = tree.files[RULES]
    scripted_server.reply(f"/{RULES}", http_reply(content[:10], length=len(content)))
    found = check.findings(None, target=scripted_server.url)
    assert codes(found) == [("builds-not-checked", "nginx_new"), ("transfer", RULES)]
    run_rules(host, scripted_server, FAILED, [
        "CUrlOp::url_down_file: curl_easy_perform failed[18]",
        "[RULES] update tarn rules failed", ""])


def test_what_a_proxy_does_to_a_list_is_reported(check, scripted_server, tree):
    _serve(scripted_server, tree)
    scripted_server.publish({RULES_LIST: with_carriage_return(tree.files[RULES_LIST])})
    assert codes(check.findings(None, target=scripted_server.url)) == [
        ("builds-not-checked", "nginx_new"), ("list-format", RULES_LIST)]


def test_a_server_that_does_not_answer_cannot_be_checked(publisher):
    run = publisher.run_plain("check", "http://127.0.0.1:1")
    assert (run.returncode, run.stdout) == (2, "")
    assert run.stderr.startswith("norvak_publish: cannot read http://127.0.0.1:1: ")


# The command line.


def test_findings_are_printed_for_people(check, tree, kernels):
    list_path = _real(kernels).list_of(TESSEL)
    tree.files[list_path] = upper(tree.files[list_path])
    tree.files["tarn_rule/md5~"] = b""
    tree.write(check.root)
    run = check.run()
    assert run.returncode == 1 and run.stderr == ""
    lines = run.stdout.splitlines()
    assert lines[0].startswith(f"error: {list_path}: ") and lines[0].endswith("[list-format]")
    assert lines[1].startswith("  fix: ")
    assert lines[2].startswith("warning: tarn_rule/md5~: ")
    assert lines[4] == "1 error, 1 warning, 0 notes"


def test_warnings_change_the_exit_status_only_if_asked_to(check, tree):
    tree.files["tarn_rule/md5~"] = b""
    tree.write(check.root)
    assert check.run().returncode == 0
    assert check.run("--strict").returncode == 1


def test_in_a_tree_with_releases_the_served_one_is_checked(publisher):
    publisher.rules()
    (publisher.tree / "current/tarn_rule/md5").unlink()
    run = publisher.run("check")
    assert run.returncode == 1
    assert "tarn_rule/md5: " in run.stdout


@pytest.mark.parametrize("arguments, status", [
    ([], 64), (["nowhere"], 2), ([".", "--fleet", "nowhere"], 64), ([".", "--unknown"], 64)])
def test_a_check_that_is_impossible_says_why(publisher, arguments, status):
    run = publisher.run_plain("check", *arguments, cwd=publisher.tree)
    assert (run.returncode, run.stdout) == (status, "") and run.stderr


def test_each_code_has_a_broken_tree():
    """The codes of the table above, and those that have tests of their own."""
    source = pathlib.Path(__file__).read_text()
    assert [code for code in _CODES if f'"{code}"' not in source] == []
    assert len(_CODES) > 30


def test_each_code_is_documented():
    page = (_PROJECT / "docs/server-layout.md").read_text()
    documented = dict(re.findall(r"^\| `([a-z-]+)` \| (error|warning|note) \|", page, re.MULTILINE))
    assert documented == {code: severity.lower() for code, severity in _CODES.items()}
