"""norvak_publish, server trees and what is published in them."""

import os
import pathlib
import shutil
import subprocess

_RUN_SECONDS = 120
_MODULES = ("norvak_ipfilter", "tessel_linux", "quorin_linux")

VERSION_FILE = "norvak/norvak_agent_new_version.txt"
PACKAGE = "norvak/x64/nvupdate.tar"
RULES = "tarn_rule/norvak_default_rule.xml"


class Publisher:
    """Runs norvak_publish on one server tree."""

    def __init__(self, program, scratch):
        self.program = str(program)
        self.scratch = pathlib.Path(scratch)
        self.tree = self.scratch / "tree"
        self.tree.mkdir()

    def run(self, command, *arguments, through=(), **options):
        """Runs a command on the tree; the result is that of subprocess.run()."""
        return self.run_plain(command, self.tree, *arguments, through=through, **options)

    def run_plain(self, *arguments, through=(), **options):
        """Runs norvak_publish with exactly these arguments, by the command @a through."""
        if through:  # a tracer, under which LeakSanitizer does not work
            options.setdefault("env", {**os.environ, "ASAN_OPTIONS": "detect_leaks=0"})
        return subprocess.run(
            [*through, self.program, *map(str, arguments)], stdin=subprocess.DEVNULL,
            capture_output=True, text=True, check=False, timeout=_RUN_SECONDS, **options)

    def done(self, command, *arguments, **options):
        """Like run(), which must succeed; what it printed."""
        result = self.run(command, *arguments, **options)
        assert result.returncode == 0, result
        return result.stdout

    # Artefacts.

    def package(self, version, files=None, manifest=None, name=None):
        """Builds a package of @a files, by default one file that names the version; its path."""
        payload = self.scratch / f"payload-{version}"
        shutil.rmtree(payload, ignore_errors=True)
        files = {"agent-file": f"of {version}\n"} if files is None else files
        payload.mkdir()
        for path, content in files.items():
            (payload / path).parent.mkdir(parents=True, exist_ok=True)
            (payload / path).write_text(content)
        lines = self.scratch / f"manifest-{version}"
        lines.write_text(manifest or "".join(
            f"file\t644\troot\troot\t{path}\n" for path in files))
        output = self.scratch / (name or f"package-{version}.tar")
        result = self.run_plain("package", output, "--version", version, "--payload", payload,
                                "--manifest", lines)
        assert result.returncode == 0, result
        return output

    def soft_arguments(self, version):
        """The arguments that publish packages of @a version."""
        package = self.package(version)
        return ["--version", version, "--x64", package, "--x86", package]

    def soft(self, version, *arguments, **options):
        return self.done("soft", *self.soft_arguments(version), *arguments, **options)

    def rules(self, text="<rules/>\n", **options):
        file = self.scratch / "rules.xml"
        file.write_text(text)
        return self.done("rules", file, **options)

    def modules(self, release, text=""):
        """Builds the three modules of the kernel @a release for x86-64; their paths."""
        directory = self.scratch / f"modules-{release}-{text}"
        directory.mkdir(exist_ok=True)
        return [compile_module(directory / f"{name}.ko", release, name + text)
                for name in _MODULES]

    # What is there.

    def current(self):
        """The files that are served: path to content."""
        return contents(self.tree / "current")

    def names(self):
        """The names at the top of the tree and those of the releases."""
        return sorted(os.listdir(self.tree)), sorted(os.listdir(self.tree / "releases"))


def contents(root):
    """The files below @a root: path to content."""
    root = pathlib.Path(root)
    return {str(path.relative_to(root)): path.read_bytes()
            for path in sorted(root.rglob("*")) if path.is_file()}


def compile_module(path, release, text="", word_size=64):
    """Makes an ELF file that says it was built for the kernel @a release; its path."""
    source = path.with_suffix(".c")
    source.write_text(
        f'__attribute__((section(".modinfo"), used)) static const char vermagic[] =\n'
        f'    "vermagic={release} SMP mod_unload ";\n'
        f'__attribute__((used)) static const char text[] = "{text}";\n')
    subprocess.run(["g++", "-x", "c++", f"-m{word_size}", "-c", "-o", path, source], check=True)
    source.unlink()
    return path
