"""Private mounts and processes for a run, so that nothing of the machine is touched."""

import functools
import os
import shlex
import subprocess
import tempfile

# Tried in this order: what root may do, then what an ordinary user may.
_MOUNTS = (["unshare", "--mount"], ["unshare", "--user", "--map-root-user", "--mount"])

# With their own /proc: LeakSanitizer looks for its process there.
_PIDS = ["--pid", "--fork", "--kill-child", "--mount-proc"]


@functools.lru_cache(maxsize=None)
def _mount_namespace():
    complaints = []
    # A directory with mounts below it, as /tmp can be, may not be bound by an ordinary user.
    with tempfile.TemporaryDirectory() as directory:
        for command in _MOUNTS:
            complaint = _complaint([*command, "mount", "--bind", directory, "/var/log"])
            if not complaint:
                return command, ""
            complaints.append(complaint)
    return None, "; ".join(complaints)


def _complaint(command):
    probe = subprocess.run(command, stdin=subprocess.DEVNULL, capture_output=True, text=True,
                           timeout=30, check=False)
    return f"{shlex.join(command)}: {probe.stderr.strip()}" if probe.returncode else ""


def unavailable():
    """Why no private mount namespace can be had here; empty when it can."""
    command, complaints = _mount_namespace()
    return "" if command else f"private mount namespaces are not allowed here ({complaints})"


@functools.lru_cache(maxsize=None)
def private_pids_unavailable():
    """Why no process-id space of its own can be had here; empty when it can."""
    complaint = _complaint([*_mount_namespace()[0], *_PIDS, "true"])
    return complaint and f"private process ids are not allowed here ({complaint})"


def as_owner(command):
    """@a command with the rights that a run has: only these reach into a directory of mode 0644.

    Root has them anyway, an ordinary user has them inside a user namespace.
    """
    if os.getuid() == 0:
        return command
    return ["unshare", "--user", "--map-root-user", *command]


def ending_with_us(command):
    """@a command, ended by SIGTERM when the tests are killed before they can end it."""
    return ["setpriv", "--pdeathsig", "TERM", "--", *command]


def bind(source, target):
    """Puts the file or directory @a source over @a target, which exists."""
    return f"mount --bind {shlex.quote(str(source))} {shlex.quote(str(target))}"


def bind_read_only(target):
    """Makes the file or directory @a target read-only, for root too; renaming over it fails."""
    path = shlex.quote(str(target))
    return f"mount --bind {path} {path} && mount -o remount,bind,ro {path}"


def small_disk(target, size):
    """Puts an empty file system of @a size bytes over the directory @a target."""
    return f"mount -t tmpfs -o size={size},mode=0755 tmpfs {shlex.quote(str(target))}"


def umask(mask):
    """Gives the run a file mode mask other than the usual 022. Not a mount, but taken as one."""
    return f"umask {mask:03o}"


def command_line(mounts, directory, command, preload=None):
    """The command line that runs @a command in @a directory with @a mounts in place.

    The process keeps its id from the start to the end of @a command.
    """
    environment = ["env", f"LD_PRELOAD={preload}"] if preload else []
    return _with_setup(_mount_namespace()[0], mounts, directory,
                       "exec " + shlex.join([*environment, *command]))


def command_line_with_private_pids(mounts, directory, command, bystander_outcome):
    """Like command_line(), in a process-id space of its own that ends with @a command.

    The command leads a session of its own. A bystander in another process group writes its fate
    to the file @a bystander_outcome: "killed" or "alive". The shell's status is that of the
    command, 128 and the signal's number when a signal ended it.
    """
    namespace = [*_mount_namespace()[0], *_PIDS]
    # A process of kill(-1) is never the caller and never the first of its process-id space: the
    # shell survives to report.
    return _with_setup(namespace, mounts, directory, f"""
        setsid sleep 60 & bystander=$!
        setsid {shlex.join(command)} & wait $! 2>/dev/null
        status=$?
        kill -TERM $bystander 2>/dev/null
        wait $bystander 2>/dev/null
        if [ $? -eq 137 ]; then echo killed; else echo alive; fi >{shlex.quote(bystander_outcome)}
        exit $status""")


def _with_setup(namespace, mounts, directory, script):
    setup = ["set -e", "umask 022", "ulimit -c 0", *mounts, f"cd {shlex.quote(str(directory))}",
             "set +e", script]
    return [*namespace, "sh", "-c", "\n".join(setup)]
