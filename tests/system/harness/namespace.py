"""Private mounts and process ids for a run, which protect the machine."""

import functools
import os
import shlex
import subprocess
import tempfile

# Tried in this order: for root, then for an ordinary user.
_MOUNTS = (["unshare", "--mount"], ["unshare", "--user", "--map-root-user", "--mount"])

# With their own /proc: LeakSanitizer looks for its process there.
_PIDS = ["--pid", "--fork", "--kill-child", "--mount-proc"]


@functools.lru_cache(maxsize=None)
def _mount_namespace():
    complaints = []
    # An ordinary user may not bind a directory with mounts below it, such as /tmp.
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
    """Why private mount namespaces are not available; empty if they are."""
    command, complaints = _mount_namespace()
    return "" if command else f"private mount namespaces are not allowed here ({complaints})"


@functools.lru_cache(maxsize=None)
def private_pids_unavailable():
    """Why private PID namespaces are not available; empty if they are."""
    complaint = _complaint([*_mount_namespace()[0], *_PIDS, "true"])
    return complaint and f"private process ids are not allowed here ({complaint})"


def as_owner(command):
    """@a command with the rights of a run, which can enter a directory of mode 0644.

    Root has them anyway, an ordinary user has them inside a user namespace.
    """
    if os.getuid() == 0:
        return command
    return ["unshare", "--user", "--map-root-user", *command]


def ending_with_us(command):
    """@a command, which gets SIGTERM when the test process dies."""
    return ["setpriv", "--pdeathsig", "TERM", "--", *command]


def bind(source, target):
    """Mounts the file or directory @a source over @a target, which must exist."""
    return f"mount --bind {shlex.quote(str(source))} {shlex.quote(str(target))}"


def bind_read_only(target):
    """Makes the file or directory @a target read-only, for root too; renaming over it fails."""
    path = shlex.quote(str(target))
    return f"mount --bind {path} {path} && mount -o remount,bind,ro {path}"


def small_disk(target, size):
    """Mounts an empty file system of @a size bytes over the directory @a target."""
    return f"mount -t tmpfs -o size={size},mode=0755 tmpfs {shlex.quote(str(target))}"


def umask(mask):
    """Sets the umask of the run, otherwise 022. Not a mount, but used like one."""
    return f"umask {mask:03o}"


def command_line(mounts, directory, command, preload=None):
    """The command line that runs @a command in @a directory with @a mounts in place.

    The process keeps its id from the start to the end of @a command.
    """
    environment = ["env", f"LD_PRELOAD={preload}"] if preload else []
    return _with_setup(_mount_namespace()[0], mounts, directory,
                       "exec " + shlex.join([*environment, *command]))


def command_line_with_private_pids(mounts, directory, command, bystander_outcome):
    """Like command_line(), in a PID namespace that ends with @a command.

    The command leads its own session. Whether a bystander in another process group is then
    "killed" or "alive" is written to the file @a bystander_outcome. The exit status is that of the
    command, or 128 plus the number of the signal that ended it.
    """
    namespace = [*_mount_namespace()[0], *_PIDS]
    # kill(-1) spares the caller and the first process of the PID namespace, so this shell survives.
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
