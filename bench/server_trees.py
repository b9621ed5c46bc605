"""Server trees and fleets for norvak_publish."""

import hashlib
import io
import os
import pathlib
import random
import subprocess
import tarfile

MODULES = ("norvak_ipfilter", "tessel_linux", "quorin_linux")

_FIRST_BUILD = 10000
_PLACE = "3.10.0-00000"
_SOURCE = """\
__attribute__((section(".modinfo"), used)) static const char info[] =
    "license=GPL\\0vermagic={place}.el7.x86_64 SMP mod_unload ";
__attribute__((used)) static const char text[{size}] = "x";
"""


def make_kernels(tree, kernels, module_bytes):
    """Makes a clean tree of @a kernels, with three modules each.

    The modules of one kernel are one file with three names, so that memory suffices.
    """
    module = _compile(tree.parent, module_bytes)
    place = module.index(_PLACE.encode()) + len("3.10.0-")
    for build in map(str, range(_FIRST_BUILD, _FIRST_BUILD + kernels)):
        content = module[:place] + build.encode() + module[place + len(build):]
        digest = hashlib.md5(content).hexdigest() + "\n"
        first = None
        for name in MODULES:
            directory = tree / f"kernels/centos/x64/3.10.0-{build}" / name
            directory.mkdir(parents=True)
            (directory / "md5").write_text(digest)
            if first is None:
                first = directory / f"{name}.ko"
                first.write_bytes(content)
            else:
                os.link(first, directory / f"{name}.ko")


def make_large(tree, size):
    """Makes a clean tree with one file of @a size bytes of each kind that hosts do not parse."""
    make_kernels(tree, 1, 1000)
    module = next(tree.rglob("*.ko"))
    _grow(module, size)
    digest = hashlib.md5(module.read_bytes()).hexdigest()
    for path in tree.rglob("md5"):
        path.write_text(digest + "\n")
    program = tree / "nginx_new/x64/1.0/nginx"
    program.parent.mkdir(parents=True)
    program.write_bytes(_compile(tree.parent, 1000))
    _grow(program, size)
    (program.parent / "md5").write_text("a\n")
    for arch in ("x64", "x86"):
        package = tree / f"norvak/{arch}/nvupdate.tar"
        package.parent.mkdir(parents=True)
        with tarfile.open(package, "w", format=tarfile.USTAR_FORMAT) as tar:
            for name, data in (("update", b"#!/bin/sh\n"), ("data", bytes(size))):
                member = tarfile.TarInfo(name)
                member.size = len(data)
                tar.addfile(member, io.BytesIO(data))
    (tree / "norvak/norvak_agent_new_version.txt").write_text("abcdef1.0\n")


def list_files(tree, path):
    """Writes the names of the files of @a tree to @a path, for `xargs -0 -a`."""
    path.write_bytes(b"".join(os.fsencode(file) + b"\0" for file in sorted(tree.rglob("*"))
                              if file.is_file()))


def make_fleet(path, hosts, kernels):
    """Writes a fleet of @a hosts lines; some kernels are not those of make_kernels()."""
    chance = random.Random(1)
    with open(path, "w", encoding="ascii") as file:
        file.write("distribution,machine,release,count\n")
        for _ in range(hosts):
            build = _FIRST_BUILD + chance.randrange(kernels + kernels // 5)
            file.write(f"centos,x86_64,3.10.0-{build}.{chance.randrange(3)}.el7.x86_64,1\n")


def _compile(directory, size):
    source, output = directory / "module.c", directory / "module.o"
    source.write_text(_SOURCE.format(place=_PLACE, size=size))
    subprocess.run(["cc", "-c", "-o", output, source], check=True)
    return output.read_bytes()


def _grow(path, size):
    """Lengthens a file by a hole, which takes no memory."""
    os.truncate(path, max(size, pathlib.Path(path).stat().st_size))
