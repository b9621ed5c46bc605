"""The packages themselves: formats, contents, and what Debian's and rpm's checkers say."""

import re
import subprocess

import pytest
from conftest import ARCHITECTURES, FULL, PROJECT

# Debian's packages of debug symbols have no documents of their own: they depend on the package that
# has them.
DEBUG_PACKAGE_LACKS = "no-changelog,no-copyright-file"

# The features that rpm 4.4 of SLES 11 knows, and rpm 4.8 of CentOS 6.
OLD_RPM_FEATURES = {"rpmlib(CompressedFileNames)", "rpmlib(PayloadFilesHavePrefix)"}
RPM_FEATURES = OLD_RPM_FEATURES | {"rpmlib(FileDigests)"}

# The one directory that differs between the package formats, and what belongs to one of them only.
UNITS = re.compile("^(/usr)?/lib/systemd/system/")
OF_ONE_FORMAT = re.compile("^/usr/share/lintian/")


def output(*command):
    run = subprocess.run(command, stdin=subprocess.DEVNULL, capture_output=True, text=True, check=False)
    assert run.returncode == 0, run.stdout + run.stderr
    return run.stdout


def query(rpm, text):
    return output("rpm", "--query", "--package", "--queryformat", text, rpm)


def deb_files(deb):
    lines = output("dpkg-deb", "--contents", deb).splitlines()
    return {line.split()[5].lstrip(".").rstrip("/"): line.split()[0:2] for line in lines}


def rpm_files(rpm):
    lines = query(rpm, "[%{FILENAMES} %{FILEMODES:perms} %{FILEUSERNAME}/%{FILEGROUPNAME}\n]").splitlines()
    return {line.split()[0]: line.split()[1:] for line in lines}


def plain_files(files):
    return {UNITS.sub("units/", path): attributes for path, attributes in files.items()
            if attributes[0].startswith("-") and not OF_ONE_FORMAT.match(path)}


@FULL
def test_every_package_is_there(packages):
    names = {file.name.replace("1.0.0", "V") for suffix in (".deb", ".rpm") for file in packages.all(suffix)}
    assert names == {
        "norvak-publish_V_amd64.deb",
        "norvak-update_V_amd64.deb", "norvak-update_V_i386.deb",
        "norvak-update-V-1.x86_64.rpm", "norvak-update-V-1.i686.rpm",
        "norvak-update-V-1.sles11.x86_64.rpm", "norvak-update-V-1.sles11.i686.rpm"}


def test_the_oldest_package_managers_can_read_the_packages(packages):
    for deb in packages.all(".deb"):
        assert output("ar", "t", deb).split() == ["debian-binary", "control.tar.gz", "data.tar.gz"]
    for rpm in packages.all(".rpm"):
        old = "sles11" in rpm.name
        algorithm = "(none)" if old else "8"  # the default is MD5, 8 is SHA-256
        assert query(rpm, "%{PAYLOADCOMPRESSOR} %{FILEDIGESTALGO}") == f"gzip {algorithm}"
        features = set(re.findall(r"rpmlib\(\w+\)", output("rpm", "--query", "--requires", "--package", rpm)))
        assert features <= (OLD_RPM_FEATURES if old else RPM_FEATURES)


@pytest.mark.parametrize("architectures", [("amd64", "x86_64"), pytest.param(("i386", "i686"), marks=FULL)])
def test_deb_and_rpm_hold_the_same_files(architectures, packages):
    deb = plain_files(deb_files(packages.host_deb(architectures[0])))
    assert deb == plain_files(rpm_files(packages.host_rpm(architectures[1])))
    assert deb == plain_files(rpm_files(packages.sles_rpm(architectures[1])))
    assert {attributes[1] for attributes in deb.values()} == {"root/root"}


def test_the_host_package_holds_its_programs_manuals_and_notices(packages):
    files = deb_files(packages.host_deb())
    programs = {path.rsplit("/", 1)[1] for path in files if re.match("/usr/s?bin/.", path)}
    assert "norvak_update" in programs
    for program in programs:
        assert f"/usr/share/man/man8/{program}.8.gz" in files
    assert "/usr/share/doc/norvak-update/copyright" in files
    assert files["/var/lib/norvak-update"][0] == "drwxr-xr-x"


def test_the_notices_cover_what_is_linked_in(unpack):
    notices = (unpack("amd64") / "usr/share/doc/norvak-update/copyright").read_text()
    for text in ("GNU C Library", "GCC RUNTIME LIBRARY EXCEPTION",
                 "Arseny Kapoulkine"):
        assert text in notices


@pytest.mark.parametrize("architecture", ARCHITECTURES)
def test_the_dependencies_accept_the_package_names_of_every_release(architecture, packages):
    depends = output("dpkg-deb", "--field", packages.host_deb(architecture), "Depends").strip()
    c_library, libcurl = depends.split(", ")
    assert re.fullmatch(r"libc6 \(>= 2\.\d+\)", c_library)
    assert libcurl == "libcurl4t64 | libcurl4 | libcurl3"
    # Without the system bus the agent gets no scope, and is started a second time after an update.
    assert output("dpkg-deb", "--field", packages.host_deb(architecture), "Recommends").strip() == "dbus"


def test_debuggers_find_the_symbols(unpack, packages, tmp_path):
    [symbols] = [file for file in packages.debug() if file.name.startswith("norvak-update-dbgsym")
                 and file.name.endswith("_amd64.deb")]
    assert output("dpkg-deb", "--field", symbols, "Recommends").strip() == ""
    output("dpkg-deb", "--extract", symbols, tmp_path)
    for program in (unpack("amd64") / "usr/sbin").iterdir():
        build_id = re.search("Build ID: (..)(.+)", output("readelf", "--notes", program))
        separate = tmp_path / f"usr/lib/debug/.build-id/{build_id[1]}/{build_id[2]}.debug"
        assert ".debug_info" in output("readelf", "--sections", separate)
        assert ".debug_info" not in output("readelf", "--sections", program)
        assert str(PROJECT) not in output("readelf", "--debug-dump=line", separate)


def test_lintian_has_nothing_to_say(packages):
    fail_on = "--fail-on=error,warning,info"
    assert output("lintian", fail_on, "--allow-root", *packages.all(".deb")) == ""
    debug = [file for file in packages.debug() if file.suffix == ".deb"]
    assert output("lintian", fail_on, "--allow-root", f"--suppress-tags={DEBUG_PACKAGE_LACKS}", *debug) == ""


def test_rpmlint_has_nothing_to_say(packages):
    debug = [file for file in packages.debug() if file.suffix == ".rpm"]
    report = output("rpmlint", "--config", PROJECT / "packaging/rpm/rpmlint.toml",
                    *packages.all(".rpm"), *debug)
    assert "0 errors, 0 warnings" in report, report
