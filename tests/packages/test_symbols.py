"""What the packaged programs need of a host, compared with packaging/hosts.tsv."""

import csv
import re
import subprocess

import pytest
from conftest import ARCHITECTURES, FULL, PROJECT, RELEASES

# Every supported host has these: libraries of glibc, and libcurl.
LIBRARIES = {"libc.so.6", "libm.so.6", "libpthread.so.0", "ld-linux-x86-64.so.2", "ld-linux.so.2",
             "libcurl.so.4"}


def hosts():
    lines = [line for line in (PROJECT / "packaging/hosts.tsv").read_text().splitlines()
             if not line.startswith("#")]
    return list(csv.DictReader(lines, delimiter="\t"))


def numbers(version):
    return [int(number) for number in version.split(".")]


def programs(tree):
    """The ELF files of an unpacked package."""
    return [file for file in tree.rglob("*")
            if file.is_file() and file.read_bytes()[:4] == b"\x7fELF"]


def readelf(option, program):
    return subprocess.run(["readelf", "--wide", option, program], check=True, capture_output=True,
                          text=True, env={"LC_ALL": "C", "PATH": "/usr/bin"}).stdout


def needed_libraries(program):
    return set(re.findall(r"\(NEEDED\).*\[(.+)\]", readelf("--dynamic", program)))


def needed_versions(program):
    """The symbol versions that a program needs, as pairs of library and version."""
    versions, library = set(), None
    section = readelf("--version-info", program).split("Version needs section")[1]
    for line in section.splitlines():
        if match := re.search(r"File: (\S+)", line):
            library = match[1]
        elif match := re.search(r"Name: (\S+)", line):
            versions.add((library, match[1]))
    return versions


def missing_on(host, versions):
    """The symbol versions among @a versions that @a host lacks."""
    missing = []
    for library, version in sorted(versions):
        family, _, number = version.partition("_")
        if library == "libcurl.so.4":
            present = version == host["libcurl symbols"]
        else:
            present = (family == "GLIBC" and re.fullmatch(r"[\d.]+", number) and
                       numbers(number) <= numbers(host["glibc"]))
        if not present:
            missing.append(f"{library}: {version}")
    return missing


def hosts_with(column, package, **options):
    """The rows whose packages are of the architecture @a column, as parameters."""
    return [pytest.param(host, package, id=f"{host['distribution']} {host['release']} {package}",
                         **options)
            for host in hosts() if column in host["architectures"].split()]


@pytest.mark.parametrize("host, architecture", [*hosts_with("x86-64", "amd64"),
                                                *hosts_with("i386", "i386", marks=FULL)])
def test_the_host_can_load_every_program(host, architecture, unpack):
    found = programs(unpack(architecture))
    assert found
    for program in found:
        assert missing_on(host, needed_versions(program)) == [], program.name


@pytest.mark.parametrize("architecture", ARCHITECTURES)
def test_the_programs_need_no_library_that_a_host_may_lack(architecture, unpack):
    for program in programs(unpack(architecture)):
        assert needed_libraries(program) <= LIBRARIES, program.name


@pytest.mark.parametrize("name", RELEASES)
def test_the_list_agrees_with_the_real_debian(name, make_root):
    root = make_root(name)
    [host] = [host for host in hosts()
              if name == f"{host['distribution']}-{host['release']}".lower()]
    versions = dict(line.split("\t") for line in root.run(
        "dpkg-query", "--show", "--showformat", "${Package}\t${source:Upstream-Version}\n").splitlines())
    assert versions["libc6"] == host["glibc"]
    assert versions.get("libcurl4t64", versions.get("libcurl4")) == host["libcurl"]
