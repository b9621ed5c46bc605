"""A server tree as hosts expect it, made without the programs under test."""

import dataclasses
import hashlib
import os
import pathlib
import re
import shutil

from . import kernel, rules, software
from .package import package

FIRST, TESSEL, QUORIN = kernel.MODULES
VERSION_FILE = software.VERSION_PATH[1:]
PACKAGES = {"x64": software.PACKAGE_PATH_64[1:], "x86": software.PACKAGE_PATH_32[1:]}
RULES_LIST = rules.LIST_PATH[1:]
RULES = rules.RULES_PATH[1:]

VERSION = software.NEW_VERSION
# Records the version in the same way as the packages of norvak_publish.
SCRIPT = f"#!/bin/sh\n# norvak-package-version: {VERSION}\nexit 0\n"
RULES_TEXT = b"<?xml version=\"1.0\"?>\n<rules>\n  <rule name=\"a\"/>\n</rules>\n"

_CACHE = pathlib.Path(os.environ.get("XDG_CACHE_HOME") or pathlib.Path.home() / ".cache")
_KERNEL_MODULES = _CACHE / "norvak-tests/kernel-modules"
# Each module of the agent, and the real module that stands in for it.
_STAND_INS = {FIRST: "dummy.ko", TESSEL: "loop.ko", QUORIN: "tun.ko"}


def digest(content):
    return hashlib.md5(content).hexdigest()


@dataclasses.dataclass
class Kernel:
    """A kernel of Debian with real modules; its hosts count as Ubuntu's."""

    release: str
    modules: dict

    @property
    def arch(self):
        return "x64" if self.release.endswith("amd64") else "x86"

    @property
    def machine(self):
        return {"x64": "x86_64", "x86": "i686"}[self.arch]

    @property
    def version(self):
        """The release up to its fourth character that is not a digit."""
        return re.match(r"(?:[0-9]*[^0-9]){0,3}[0-9]*", self.release)[0].upper()

    @property
    def directory(self):
        return f"kernels/ubuntu-generic/{self.arch}/{self.version}"

    @property
    def uname(self):
        return {"NORVAK_TEST_MACHINE": self.machine, "NORVAK_TEST_RELEASE": self.release}

    def list_of(self, name):
        return f"{self.directory}/{name}/md5"

    def module(self, name):
        return f"{self.directory}/{name}/{name}.ko"


def real_kernels():
    """The kernels of scripts/fetch-kernel-modules.sh, oldest first; None if it has not run."""
    if not (_KERNEL_MODULES / "complete").exists():
        return None
    return [Kernel(directory.name, {name: (directory / file).read_bytes()
                                    for name, file in _STAND_INS.items()})
            for directory in sorted(_KERNEL_MODULES.iterdir()) if directory.is_dir()]


def elf_word_size(program):
    return {1: 32, 2: 64}[program[4]]


class ServerTree:
    """The files of a tree by their paths. It begins as a clean one, with everything in it."""

    def __init__(self, kernels, program):
        self.files = {VERSION_FILE: f"{VERSION}\n".encode(), RULES: RULES_TEXT}
        for path in PACKAGES.values():
            self.files[path] = package({"update": SCRIPT})
        self.set_list(RULES_LIST, RULES_TEXT)
        for real in kernels:
            self.add_kernel(real)
        self.arch = {64: "x64", 32: "x86"}[elf_word_size(program)]
        self.add_build("1.22.1", program)

    def add_kernel(self, real):
        for name, content in real.modules.items():
            self.set_module(real, name, content)

    def set_module(self, real, name, content):
        """Publishes @a content as a module, with a list that fits."""
        self.files[real.module(name)] = content
        self.set_list(real.list_of(name), content)

    def set_list(self, path, content):
        self.files[path] = f"{digest(content)}\n".encode()

    def build(self, version_dir, file):
        """Path of a build's "md5" or "nginx"."""
        return f"nginx_new/{self.arch}/{version_dir}/{file}"

    def add_build(self, version_dir, program, line=None):
        self.files[self.build(version_dir, "nginx")] = program
        self.files[self.build(version_dir, "md5")] = (line or f"{digest(program)}\n").encode()

    def write(self, root):
        """Replaces the directory @a root with this tree."""
        shutil.rmtree(root, ignore_errors=True)
        for path, content in self.files.items():
            file = root / path
            file.parent.mkdir(parents=True, exist_ok=True)
            file.write_bytes(content)
        for path in [root, *root.rglob("*")]:
            path.chmod(0o755 if path.is_dir() else 0o644)
