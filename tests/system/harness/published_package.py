"""Packages of norvak_publish on a host, and what goes wrong while they are installed."""

import io
import os
import shutil
import stat
import subprocess
import tarfile

from . import software
from .software import NEW_VERSION

SHELLS = {"dash": "/bin/dash", "bash": "/bin/bash", "busybox": "/bin/busybox"}

# The programs that the script calls one after the other. Each call is a step.
PROGRAMS = ["chmod", "chown", "cp", "df", "ln", "md5sum", "mkdir", "mv", "rm", "rmdir", "stat",
            "sync"]

# What does not belong to the package: what the updater and its tests write.
NOT_OF_THE_PACKAGE = {"config.xml", "runlog", "runlog/update.log", "norvak.pid", "filler",
                      "update_norvak_soft"}

MANIFEST = """\
dir\t755\troot\troot\tbin
dir\t755\troot\troot\tlib
dir\t750\troot\troot\tlib/sub
file\t4755\troot\troot\tbin/agent
file\t644\troot\troot\tlib/sub/new file
link\t-\troot\troot\tlib/current
file\t644\troot\troot\twas-a-link
remove\t-\t-\t-\tobsolete
remove\t-\t-\t-\tnever there
pre\t-\t-\t-\tscripts/pre
post\t-\t-\t-\tscripts/post
"""
FILES = {"bin/agent": "the new agent\n" * 1000, "lib/sub/new file": "new\n",
         "was-a-link": "a file now\n", "scripts/pre": "exit 0\n", "scripts/post": "exit 0\n"}


def build(publisher, version=NEW_VERSION, files=None, manifest=MANIFEST):
    """A package with all that a manifest can ask for."""
    payload = publisher.scratch / "payload"
    shutil.rmtree(payload, ignore_errors=True)
    for path, content in {**FILES, **(files or {})}.items():
        (payload / path).parent.mkdir(parents=True, exist_ok=True)
        (payload / path).write_text(content)
    (payload / "lib/current").symlink_to("sub")
    lines = publisher.scratch / "manifest"
    lines.write_text(manifest)
    output = publisher.scratch / "package.tar"
    result = publisher.run_plain("package", output, "--version", version, "--payload", payload,
                                 "--manifest", lines)
    assert result.returncode == 0, result
    return output.read_bytes()


def publish(server, package, version=NEW_VERSION):
    server.publish({software.VERSION_PATH[1:]: f"{version}\n".encode(),
                    software.PACKAGE_PATH[1:]: package})


def install_old_version(host, server):
    host.write("bin/agent", "the old agent\n", mode=0o750)
    (host.root / "bin").chmod(0o700)
    host.write("obsolete", "obsolete\n")
    (host.root / "was-a-link").symlink_to("bin")
    host.configure(**software.settings(server.url))


def tree(host):
    """Everything below the install directory that a package can change."""
    found = {}
    for directory, names, files in os.walk(host.root):
        for name in names + files:
            path = os.path.join(directory, name)
            relative = os.path.relpath(path, host.root)
            if relative in NOT_OF_THE_PACKAGE or relative.startswith("update_norvak_soft/"):
                continue
            status = os.lstat(path)
            if stat.S_ISLNK(status.st_mode):
                content = os.readlink(path)
            elif stat.S_ISREG(status.st_mode):
                with open(path, "rb") as file:
                    content = file.read()
            else:
                content = None
            found[relative] = (stat.filemode(status.st_mode), status.st_uid, status.st_gid,
                               status.st_nlink if content is not None else 0, content)
    return found


class Steps:
    """Stand-ins for the programs that the script calls. One of the calls can go wrong."""

    def __init__(self, directory):
        self._directory = directory
        self._count = directory / "count"
        self._wrong = directory / "wrong"
        directory.mkdir()
        (directory / "bin").mkdir()
        for program in PROGRAMS:
            # Without a power cut sync changes nothing, and it would wait for busy disks.
            real = shutil.which("true" if program == "sync" else program, path="/usr/bin:/bin")
            stand_in = directory / "bin" / program
            stand_in.write_text(f"#!/bin/sh\nreal={real}\n. {directory}/stand-in\n")
            stand_in.chmod(0o755)
        (directory / "stand-in").write_text(
            f'read -r n <{self._count}\nn=$((n + 1))\necho $n >{self._count}\n'
            f'read -r at what <{self._wrong}\n'
            'if [ "$n" = "$at" ]; then eval "$what"; fi\nexec $real "$@"\n')
        self.environment = {"PATH": f"{directory}/bin:/usr/sbin:/usr/bin:/sbin:/bin"}
        self.reset()

    def reset(self, at=0, what=":"):
        """From now on the call number @a at does @a what (shell commands) before anything else."""
        self._count.write_text("0\n")
        self._wrong.write_text(f"{at} {what}\n")

    @property
    def count(self):
        """How many calls there were since reset()."""
        return int(self._count.read_text())

    def chosen(self, shell):
        """Numbers of the steps to try: all with the usual /bin/sh, some with the others."""
        return range(1, self.count + 1, 1 if "dash" in shell else 4)


class Snapshot:
    """The install tree as it is now, to return to."""

    def __init__(self, host, directory):
        self._host = host
        self._copy = directory
        subprocess.run(["cp", "-a", host.root, self._copy], check=True)

    def restore(self):
        for entry in os.scandir(self._host.root):
            if entry.is_dir(follow_symlinks=False):
                shutil.rmtree(entry.path)
            else:
                os.unlink(entry.path)
        subprocess.run(["cp", "-a", f"{self._copy}/.", self._host.root], check=True)


def new_tree(old):
    """What the package makes of the tree @a old."""
    uid, gid = os.getuid(), os.getgid()
    new = {path: entry for path, entry in old.items() if path != "obsolete"}
    new.update({
        "bin": ("drwxr-xr-x", uid, gid, 0, None),
        "lib": ("drwxr-xr-x", uid, gid, 0, None),
        "lib/sub": ("drwxr-x---", uid, gid, 0, None),
        "bin/agent": ("-rwsr-xr-x", uid, gid, 1, FILES["bin/agent"].encode()),
        "lib/sub/new file": ("-rw-r--r--", uid, gid, 1, b"new\n"),
        "lib/current": ("lrwxrwxrwx", uid, gid, 1, "sub"),
        "was-a-link": ("-rw-r--r--", uid, gid, 1, b"a file now\n"),
    })
    return new


def altered(package, member, change):
    """The tar archive @a package with the content of one member changed."""
    result = io.BytesIO()
    with tarfile.open(fileobj=io.BytesIO(package)) as old, \
            tarfile.open(fileobj=result, mode="w", format=tarfile.USTAR_FORMAT) as new:
        for info in old:
            content = old.extractfile(info).read() if info.isreg() else b""
            if info.name == member:
                content = change(content)
                info.size = len(content)
            new.addfile(info, io.BytesIO(content))
    return result.getvalue()
