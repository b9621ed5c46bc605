"""Fresh Debian systems, and runs of the updater in them."""

import os
import pathlib
import subprocess

from harness import AgentHost

ROOTS = pathlib.Path(os.environ.get("NORVAK_ROOTS", "/var/cache/norvak-update/roots"))
_PATH = "/usr/sbin:/usr/bin:/sbin:/bin"
_SECONDS = 120
_UPDATER = "/usr/sbin/norvak_update"


class FreshRoot:
    """A copy of a root, whose changes are lost. Needs a private mount namespace.

    @param name     the root, one that scripts/roots.sh made
    @param scratch  an empty directory for what changes
    """

    def __init__(self, name, scratch):
        self.path = scratch / "root"
        subprocess.run(["mount", "-t", "tmpfs", "scratch", scratch], check=True)
        for directory in ("changes", "work", "root"):
            (scratch / directory).mkdir()
        options = f"lowerdir={ROOTS / name},upperdir={scratch}/changes,workdir={scratch}/work"
        subprocess.run(["mount", "-t", "overlay", "root", "-o", options, self.path], check=True)
        subprocess.run(["mount", "-t", "proc", "proc", self.path / "proc"], check=True)
        subprocess.run(["mount", "--rbind", "/dev", self.path / "dev"], check=True)
        self._scratch = scratch

    def close(self):
        subprocess.run(["umount", "--recursive", "--lazy", self._scratch], check=True)

    def command(self, *command):
        """The command line that runs @a command in the root."""
        return ["env", "-i", f"PATH={_PATH}", "HOME=/root", "LC_ALL=C", "DEBIAN_FRONTEND=noninteractive",
                "chroot", str(self.path), *command]

    def run(self, *command, **options):
        """Runs a command that has to succeed; its output."""
        run = self.attempt(*command, **options)
        assert run.returncode == 0, f"{command}: {run.stdout}{run.stderr}"
        return run.stdout

    def attempt(self, *command, **options):
        return subprocess.run(self.command(*command), stdin=subprocess.DEVNULL,
                              capture_output=True, text=True, timeout=_SECONDS, check=False,
                              **options)

    def file(self, path):
        """The file or directory @a path of the root, seen from outside."""
        return self.path / path.lstrip("/")

    def copy_in(self, file):
        """Copies a file to /tmp of the root; its path there."""
        target = self.file("/tmp") / file.name
        target.write_bytes(file.read_bytes())
        return f"/tmp/{file.name}"


class HostInRoot(AgentHost):
    """A host with an installed agent, whose updater is the one installed in a root.

    The agent can be seen from within the root too.
    """

    def __init__(self, root, uname_answers):
        super().__init__(_UPDATER, lambda: None)
        self._fresh_root = root
        preload = root.copy_in(uname_answers)
        self._through = ["chroot", str(root.path), "env", f"LD_PRELOAD={preload}"]
        base = self.var_log.parent
        inside = root.file(str(base))
        inside.mkdir(parents=True)
        for source, target in ((base, inside), (self.var_log, root.file("/var/log"))):
            subprocess.run(["mount", "--bind", source, target], check=True)
        self.mounts = []

    def start(self, *args, uname=None, **options):
        return super().start(*args, environment=uname, through=self._through, **options)
