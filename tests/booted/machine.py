"""Debian systems that are booted with their real systemd, in containers."""

import os
import pathlib
import shlex
import signal
import subprocess
import tempfile
import time

ROOTS = pathlib.Path(os.environ.get("NORVAK_ROOTS", "/var/cache/norvak-update/roots"))
_BOOT_SECONDS = 90
_COMMAND_SECONDS = 120
# Where systemd keeps its control groups: version 2, the hybrid layout, version 1.
_HIERARCHIES = [pathlib.Path(path) for path in (
    "/sys/fs/cgroup", "/sys/fs/cgroup/unified", "/sys/fs/cgroup/systemd")]
_MEMORY_GROUPS = pathlib.Path("/sys/fs/cgroup/memory")  # exists with version 1 only
_ENVIRONMENT = {"PATH": "/usr/sbin:/usr/bin:/sbin:/bin", "HOME": "/root", "LC_ALL": "C.UTF-8"}

# Nothing that is tested here needs them, and each of them slows down the boot.
_MASKED = ("systemd-networkd.service", "systemd-resolved.service", "systemd-timesyncd.service",
           "systemd-logind.service", "console-getty.service", "getty.target", "e2scrub_reap.service",
           "apt-daily.timer", "apt-daily-upgrade.timer", "dpkg-db-backup.timer", "fstrim.timer",
           "e2scrub_all.timer", "cron.service", "systemd-udev-trigger.service", "systemd-udevd.service")


def unavailable():
    """Why no system can be booted here; empty when it can."""
    if os.getuid() != 0:
        return "it needs root"
    if subprocess.run(["sh", "-c", "command -v systemd-nspawn"], capture_output=True,
                      check=False).returncode:
        return "systemd-nspawn is not installed ('apt-get install systemd-container')"
    return ""


class Machine:
    """A copy of a root, whose changes are lost. It can be booted more than once.

    It shares the network of this host: a server on loopback can be reached.
    """

    def __init__(self, root_name, tree):
        """@param tree  a directory with the installed files of the package"""
        assert (ROOTS / root_name / "complete").exists(), f"{ROOTS / root_name} is missing"
        self._scratch = pathlib.Path(tempfile.mkdtemp(prefix="norvak-machine-"))
        self.path = self._scratch / "root"
        subprocess.run(["mount", "-t", "tmpfs", "-o", "mode=755", "scratch", self._scratch], check=True)
        for name in ("changes", "work", "root"):
            (self._scratch / name).mkdir()
        options = (f"lowerdir={ROOTS / root_name},upperdir={self._scratch}/changes,"
                   f"workdir={self._scratch}/work")
        subprocess.run(["mount", "-t", "overlay", "root", "-o", options, self.path], check=True)
        self._container = None
        self._leader = None
        self._groups = []
        self._install(tree)

    def file(self, path):
        """The file @a path of the system, seen from outside."""
        return self.path / str(path).lstrip("/")

    def write(self, path, content, mode=0o644):
        file = self.file(path)
        file.parent.mkdir(parents=True, exist_ok=True)
        file.write_bytes(content if isinstance(content, bytes) else content.encode())
        file.chmod(mode)

    def boot(self):
        """Starts the system and waits until it is up."""
        assert self._container is None
        name = "norvak" + self._scratch.name.rsplit("-", 1)[1].replace("_", "")
        self._output = open(self._scratch / "console", "wb")
        self._container = subprocess.Popen(
            [*self._in_control_groups(), "systemd-nspawn", "-q", "-D", str(self.path), "-M", name, "--register=no",
             "--keep-unit", "--boot", "--console=pipe", "--resolv-conf=off", "--timezone=off"],
            stdin=subprocess.DEVNULL, stdout=self._output, stderr=self._output,
            env={**os.environ, "SYSTEMD_NSPAWN_LOCK": "0"}, start_new_session=True)
        deadline = time.monotonic() + _BOOT_SECONDS
        while not self._is_up():
            assert self._container.poll() is None and time.monotonic() < deadline, self.console()
            time.sleep(0.05)

    def _in_control_groups(self):
        """A command that runs another in control groups of its own. In shared ones, two systems
        remove those of each other's units."""
        self._groups = [path / self._scratch.name for path in _HIERARCHIES
                        if (path / "cgroup.procs").exists()]
        for group in self._groups:
            group.mkdir(exist_ok=True)
        joins = "".join(f"echo $$ >{shlex.quote(str(group / 'cgroup.procs'))} && "
                        for group in self._groups)
        return ["sh", "-c", f'{joins}exec "$@"', "sh"]

    def limit_memory(self, unit, mebibytes):
        """Limits what the processes of a running unit may use together."""
        if not _MEMORY_GROUPS.exists():
            self.run("systemctl", "set-property", "--runtime", unit, f"MemoryMax={mebibytes}M",
                     "MemorySwapMax=0")
            return
        # systemd in a container cannot use the controllers of version 1.
        limited = _MEMORY_GROUPS / self._scratch.name
        if not limited.exists():
            limited.mkdir()
            self._groups.append(limited)
        (limited / "memory.limit_in_bytes").write_text(str(mebibytes << 20))
        [processes] = {path.read_text() for group in self._groups
                       for path in group.rglob(f"{unit}/cgroup.procs")}
        for pid in processes.split():
            (limited / "cgroup.procs").write_text(pid)

    def _remove_control_groups(self):
        for group in self._groups:
            for directory, _, _ in os.walk(group, topdown=False):
                try:
                    os.rmdir(directory)
                except OSError:
                    pass  # a process is still ending; an empty group harms nobody

    def console(self):
        return (self._scratch / "console").read_text(errors="replace")

    def stop_suddenly(self):
        """What a power cut does to the processes: all are gone at once."""
        if self._leader:
            os.kill(self._leader, signal.SIGKILL)
        self._container.wait(_COMMAND_SECONDS)
        self._output.close()
        self._container = self._leader = None

    def close(self):
        if self._container:
            self.stop_suddenly()
        self._remove_control_groups()
        subprocess.run(["umount", "--recursive", "--lazy", self._scratch], check=True)
        self._scratch.rmdir()

    def attempt(self, *command, seconds=_COMMAND_SECONDS):
        """Runs a command in the booted system."""
        return subprocess.run(
            ["nsenter", "-t", str(self._leader), "-m", "-u", "-i", "-p", "-C", "--", *command],
            stdin=subprocess.DEVNULL, capture_output=True, text=True, env=_ENVIRONMENT,
            timeout=seconds, check=False)

    def run(self, *command, **options):
        """The output of a command that has to succeed."""
        run = self.attempt(*command, **options)
        assert run.returncode == 0, f"{shlex.join(command)}: {run.stdout}{run.stderr}"
        return run.stdout

    def property(self, unit, name):
        return self.run("systemctl", "show", "-p", name, unit).strip().split("=", 1)[1]

    def journal(self, *units):
        options = [word for unit in units for word in ("-u", unit)]
        return self.run("journalctl", "--no-pager", "-o", "short-monotonic", *options)

    def start(self, unit, **options):
        """Starts a unit and waits for it; whether it succeeded."""
        return self.attempt("systemctl", "start", unit, **options).returncode == 0

    def wait_for(self, condition, seconds=_COMMAND_SECONDS, what=""):
        deadline = time.monotonic() + seconds
        while not condition():
            assert time.monotonic() < deadline, f"{what}\n{self.journal()[-6000:]}"
            time.sleep(0.1)

    def wait_until_idle(self, unit, **options):
        """Waits for the end of a unit that something else has started."""
        self.wait_for(lambda: self.property(unit, "ActiveState") in ("inactive", "failed") and
                      self.property(unit, "Job") in ("0", ""), what=unit, **options)

    def _is_up(self):
        if not self._leader:
            self._leader = self._find_leader()
        if not self._leader:
            return False
        run = self.attempt("systemctl", "is-system-running")
        return run.stdout.strip() in ("running", "degraded")

    def _find_leader(self):
        """The first process of the container, seen from outside; none while it starts."""
        try:
            pid = self._container.pid
            for _ in range(3):
                child = pathlib.Path(f"/proc/{pid}/task/{pid}/children").read_text().split()
                if not child:
                    return None
                pid = int(child[0])
                status = pathlib.Path(f"/proc/{pid}/status").read_text()
                numbers = next(line for line in status.splitlines() if line.startswith("NSpid:"))
                if numbers.split()[-1] == "1" and pathlib.Path(f"/proc/{pid}/comm").read_text().startswith("systemd"):
                    return pid
        except (OSError, StopIteration):
            pass
        return None

    def _install(self, tree):
        # Directories of the package may be links here, such as /lib.
        pack = subprocess.Popen(["tar", "-C", tree, "-cf", "-", "."], stdout=subprocess.PIPE)
        subprocess.run(["tar", "-C", self.path, "--keep-directory-symlink", "--no-overwrite-dir",
                        "-xf", "-"], stdin=pack.stdout, check=True)
        assert pack.wait() == 0
        for unit in _MASKED:
            link = self.file(f"/etc/systemd/system/{unit}")
            link.unlink(missing_ok=True)
            link.symlink_to("/dev/null")
        self.write("/etc/machine-id", "0123456789abcdef0123456789abcdef\n")
