"""A host with an installed agent, and the runs of the updater on it."""

import contextlib
import dataclasses
import fcntl
import hashlib
import json
import os
import pathlib
import shlex
import shutil
import signal
import stat
import subprocess
import tempfile
import threading

import pytest

from . import log, namespace, package, trace
from .waiting import wait_until

_PATH = "/usr/sbin:/usr/bin:/sbin:/bin"
_RUN_SECONDS = 30
_MANY_RUNS_SECONDS = 120
_AGENT_SECONDS = 300  # limits the life of a dummy agent that a test leaves running

WORK_DIR = "update_norvak_soft"
DATA_DIR = WORK_DIR + "/data"
TAR = WORK_DIR + "/norvak_update_package.tar"
VERSION_FILE = WORK_DIR + "/new_version"

# How a trace shows the directory in which the updater was started.
START = "start"

_LOG = "runlog/update.log"
_TYPE_NAMES = {"0": "soft", "1": "kernel", "2": "nginx", "3": "rules"}
_PAGE_BYTES = 4096

# One line per entry: MD5 of a file or type of anything else, two blanks, path.
_LIST_TREE = (r"find . -mindepth 1 ! -type f -printf '%y  %p\n' && "
              "find . -type f -exec md5sum {} +")
_TYPES = {stat.S_IFDIR: "d", stat.S_IFLNK: "l", stat.S_IFSOCK: "s", stat.S_IFIFO: "p"}


@dataclasses.dataclass
class Run:
    """How a run ended: exit status (negative: the signal that ended it) and what it printed."""

    status: int
    stdout: bytes = b""
    stderr: bytes = b""


OK = Run(0)
FAILED = Run(255)
ABORTED = -signal.SIGABRT
KILLED = -signal.SIGKILL


class RunningUpdater:
    """A started updater, in its own session."""

    def __init__(self, command, environment, with_streams=True):
        self._output = tempfile.TemporaryFile()
        self._errors = tempfile.TemporaryFile()
        self._expired = False
        if not with_streams:
            command = ["sh", "-c", 'exec "$@" <&- >&- 2>&-', "sh", *command]
        # A test runner in the background may ignore these signals, which children inherit.
        command = ["env", "--default-signal=INT,QUIT", *command]
        # Files, not pipes: reading does not wait for a child that outlives the run.
        self._process = subprocess.Popen(command, env=environment, stdin=subprocess.DEVNULL,
                                         stdout=self._output, stderr=self._errors,
                                         start_new_session=True)
        self.pid = self._process.pid  # and of the process group

    def is_running(self):
        return self._process.poll() is None

    def ends_within(self, seconds):
        """Waits until the run ends, at most @a seconds; whether it ended."""
        try:
            self._process.wait(seconds)
        except subprocess.TimeoutExpired:
            return False
        return True

    def finish(self, seconds=_RUN_SECONDS):
        """Waits for the end of the run, at most @a seconds."""
        expiry = threading.Timer(seconds, self._expire)
        expiry.start()
        status = self._process.wait()
        expiry.cancel()
        result = Run(status, self._read(self._output), self._read(self._errors))
        assert not self._expired, f"the run did not end within {seconds} s: {result}"
        return result

    def kill(self):
        """Kills the run and its process group, if it has not ended."""
        if self.is_running():
            os.killpg(self._process.pid, signal.SIGKILL)
        self._process.wait()

    def close(self):
        self.kill()
        self._output.close()
        self._errors.close()

    def _expire(self):
        self._expired = True
        os.killpg(self._process.pid, signal.SIGKILL)

    @staticmethod
    def _read(stream):
        stream.seek(0)
        return stream.read()


class Agent:
    """A dummy agent: a process that does nothing."""

    def __init__(self, directory):
        self._process = subprocess.Popen(
            namespace.ending_with_us(["sleep", str(_AGENT_SECONDS)]), start_new_session=True,
            stdin=subprocess.DEVNULL, cwd=directory)
        self.pid = self._process.pid

    def is_alive(self):
        """Whether it runs and has no pending SIGKILL."""
        try:
            text = pathlib.Path(f"/proc/{self.pid}/status").read_text()
        except FileNotFoundError:
            return False
        status = dict(line.split(":\t", 1) for line in text.splitlines())
        return (status["State"][0] not in "ZX" and
                not int(status["ShdPnd"], 16) & 1 << signal.SIGKILL - 1)

    def was_killed(self):
        """Whether SIGKILL ended it."""
        return not self.is_alive() and self._process.wait(10) == KILLED

    def close(self):
        self._process.kill()
        self._process.wait()


class AgentHost:
    """A fresh install tree with a dummy agent, in its own directory.

    Each run sees its own /var/log with the file version_control. All paths of the methods are
    relative to the install directory.

    @param updater           absolute path of the executable
    @param uname_answers     returns the path of the library that overrides uname()
    @param in_default_place  install under /usr/local, without the file version_control
    @param norvak_host       path of the program that reports the outcome of runs; may be None
    """

    def __init__(self, updater, uname_answers, in_default_place=False, norvak_host=None):
        self._updater = str(updater)
        self._norvak_host = norvak_host
        self._last_runs = {}
        self._uname_answers = uname_answers
        self._base = pathlib.Path(tempfile.mkdtemp(prefix="norvak-test-"))
        self._base.chmod(0o755)
        self.start_dir = self._base / "start"
        self.var_log = self._base / "var_log"
        self._usr_local = self._base / "usr_local"
        for directory in (self.start_dir, self.var_log, self._usr_local):
            directory.mkdir()
        self._trace_file = self._base / "trace"
        self._agent_pid_file = self._base / "agent.pid"
        self._trace_script = self._base / "trace.sh"
        self._started = []
        self._agents = []
        self.mounts = [namespace.bind(self.var_log, "/var/log")]
        if in_default_place:
            # The default directory is built in, so the run gets a private /usr/local.
            self.root = self._usr_local / "norvak_agent"
            self.path = "/usr/local/norvak_agent"
            self.mounts.append(namespace.bind(self._usr_local, "/usr/local"))
        else:
            self.root = self._base / "agent"
            self.path = str(self.root)
            self.set_install_path(f"{self.path}\n")
        self._lay_out()

    # Set-up before a run.

    def set_install_path(self, content):
        """Writes @a content (text, or bytes) to version_control; None removes the file."""
        file = self.var_log / "version_control"
        if content is None:
            file.unlink(missing_ok=True)
        else:
            file.write_bytes(content if isinstance(content, bytes) else content.encode())

    def configure(self, *pairs, **settings):
        """Writes a config.xml with the pairs (name, value) in their order, then @a settings."""
        self.write("config.xml", package.config_xml([*pairs, *settings.items()]))
        self.remember()

    def write(self, name, content, mode=0o644):
        """Writes a file, creating its directories."""
        file = self.root / name
        file.parent.mkdir(parents=True, exist_ok=True)
        file.write_bytes(content.encode() if isinstance(content, str) else content)
        file.chmod(mode)

    def write_unopenable(self, name):
        """Creates a socket: it exists, but not even root can open it."""
        os.mknod(self.root / name, stat.S_IFSOCK | 0o644)

    def write_script(self, name, body="", mode=0o755):
        """Writes a shell script that first adds @a name to the trace."""
        self.write(name, self.script(name, body), mode)

    def script(self, name, body=""):
        """A shell script that adds @a name to the trace, then runs @a body."""
        return f"#!/bin/sh\nsh {self._trace_script} {shlex.quote(name)}\n{body}\n"

    def remove(self, name):
        """Removes a file or directory tree of the install tree."""
        target = self.root / name
        if target.is_dir():
            shutil.rmtree(target)
        else:
            target.unlink()

    def start_agent(self, directory=None):
        """Starts a dummy agent, by default in the install directory, and writes norvak.pid."""
        agent = Agent(directory or self.root)
        self._agents.append(agent)
        self._agent_pid_file.write_text(f"{agent.pid}\n")
        self.write("norvak.pid", f"{agent.pid}\n")
        self.remember()
        return agent

    @property
    def agent(self):
        """The dummy agent started last."""
        return self._agents[-1]

    def assert_agent_undisturbed(self):
        """The agent still runs, and none of its scripts ran."""
        assert self.agent.is_alive()
        assert self.trace() == []

    def remember(self):
        """Makes the current tree the baseline of changes()."""
        self._before = self._contents()

    # Runs.

    def update(self, *args, seconds=_RUN_SECONDS, **options):
        """Runs the updater to its end. The options are those of start()."""
        run = self.start(*args, **options).finish(seconds)
        if args:
            self._last_runs[args[0]] = run.status
        return run

    def start(self, *args, mounts=(), environment=None, uname=None, with_streams=True, through=()):
        """Starts the updater.

        @param mounts       additional commands, made by namespace.py
        @param environment  additional variables
        @param uname        what uname() returns, as variables of uname_answers.cpp
        @param with_streams False: standard input, output and error are closed
        @param through      a command that executes the updater, such as a tracer
        """
        self._last_runs.pop(args[0] if args else None, None)
        return self._start(namespace.command_line(
            [*self.mounts, *mounts], self.start_dir, [*through, self._updater, *args],
            self._uname_answers() if uname else None), self._variables(uname, environment),
            with_streams)

    def update_at_once(self, *commands, uname=None, locked=False):
        """Runs an updater for each list of arguments, all of them at the same time.

        Returns their exit statuses (128 and the number of the signal that ended one), and what they
        printed to standard error.

        @param locked  hold a lock during each run, one lock for each update type
        """
        lock = f"flock --close {self._base}/lock.$1 " if locked else ""
        preload = ["env", f"LD_PRELOAD={self._uname_answers()}"] if uname else []
        updater = shlex.join([*preload, self._updater])
        start = f'start() {{ {lock}{updater} "$@" & pids="$pids $!"; }}'
        script = [start, *(f"start {shlex.join(command)}" for command in commands),
                  "for pid in $pids; do wait $pid; echo $?; done"]
        run = self._start(
            namespace.command_line(self.mounts, self.start_dir, ["sh", "-c", "\n".join(script)]),
            self._variables(uname)).finish(_MANY_RUNS_SECONDS)
        assert run.status == 0, run
        return [int(status) for status in run.stdout.split()], run.stderr

    def update_in_turn(self, count, *args, uname=None, free_bytes=None, environment=None):
        """Runs @a count updates one after the other; returns their exit statuses and their stderr.

        @param free_bytes   put the install directory on its own disk with this much free space
        @param environment  variables beside the few that every run gets
        """
        mounts, afterwards = [], ":"
        if free_bytes:
            seed, left = self._base / "seed", self._base / "left"
            seed.mkdir()
            left.mkdir()
            mounts = [f"cp -a {self.path}/. {seed}",
                      namespace.small_disk(self.path, self.used_bytes() + free_bytes),
                      f"cp -a {seed}/. {self.path}"]
            afterwards = f"cp -a {self.path}/. {left}"
        script = f'for i in $(seq {count}); do "$@"; echo $?; done; {afterwards}'
        variables = [f"{name}={value}" for name, value in (environment or {}).items()]
        preload = [f"LD_PRELOAD={self._uname_answers()}"] if uname else []
        command = ["sh", "-c", script, "sh", "env", *variables, *preload, self._updater, *args]
        run = self._start(namespace.command_line([*self.mounts, *mounts], self.start_dir, command),
                          self._variables(uname)).finish(_MANY_RUNS_SECONDS)
        assert run.status == 0, run
        if free_bytes:
            shutil.rmtree(seed)
            shutil.rmtree(self.root)
            left.rename(self.root)
        return [int(status) for status in run.stdout.split()], run.stderr

    def update_with_private_pids(self, *args):
        """Runs the updater in its own PID namespace, so that kill(-1) cannot hit other processes.

        Returns the run, and whether a process in another group is then "killed" or "alive".
        """
        reason = namespace.private_pids_unavailable()
        if reason:
            pytest.skip(reason)
        outcome = self._base / "bystander"
        command = namespace.command_line_with_private_pids(
            self.mounts, self.start_dir, [self._updater, *args], str(outcome))
        run = self._start(command, self._environment()).finish()
        if run.status > 128 and run.status != 255:
            run.status = 128 - run.status
        return run, outcome.read_text().strip()

    # Reports of norvak_host.

    def inspect(self, *args, mounts=(), uname=None, environment=None, through=()):
        """Runs norvak_host, with the options of start()."""
        if not self._norvak_host:
            pytest.skip("norvak_host is missing: build it")
        return self._start(namespace.command_line(
            [*self.mounts, *mounts], self.start_dir, [*through, str(self._norvak_host), *args],
            self._uname_answers() if uname else None),
            self._variables(uname, environment)).finish()

    def check_status(self):
        """Asserts that norvak_host reports outcomes that fit the exit status of the last runs."""
        for argument, status in self._last_runs.items():
            name = _TYPE_NAMES.get(argument)
            if not name or not self._norvak_host or not self.root.exists():
                continue
            outcome = json.loads(self.inspect("status", name, "--json").stdout)["types"][0]["outcome"]
            if status == 0:
                good = {"updated", "unknown", *(["nothing-to-do"] if name == "kernel" else [])}
                assert outcome in good, f"{name}: the run succeeded, its outcome is {outcome}"
            if status == 255:
                assert outcome != "updated", f"{name}: the run failed, its outcome is {outcome}"

    # Results of a run.

    def log(self):
        """The bytes of the update log; empty if there is none."""
        return self.read(_LOG) if self.exists(_LOG) else b""

    def log_texts(self):
        """The texts of the log's lines; a separator is an empty text."""
        return [text for _, text in log.log_lines(self.log())]

    def wait_for_log_lines(self, count):
        """Waits until the log has @a count lines."""
        wait_until(lambda: self.log().count(b"\n") >= count, f"{count} log lines")

    @contextlib.contextmanager
    def locked(self, name):
        """Holds an exclusive lock on a file inside the with block."""
        with open(self.root / name, "rb") as file:
            fcntl.flock(file, fcntl.LOCK_EX)
            yield

    def trace(self):
        """The events that the scripts recorded, in order."""
        text = self._trace_file.read_text() if self._trace_file.exists() else ""
        return trace.read(text, self.path, str(self.start_dir), set(self._before))

    def note(self, who):
        """Adds the event @a who to the trace, as seen from the test."""
        subprocess.run(namespace.as_owner(["sh", str(self._trace_script), who]),
                       cwd=self.start_dir, env={"PATH": _PATH, "LD_LIBRARY_PATH": self.path},
                       check=True, timeout=_RUN_SECONDS)

    def changes(self):
        """Differences from the baseline, without the log: "+new", "-removed", "~changed"."""
        before, after = self._before, self._contents()
        return sorted([f"+{name}" for name in after.keys() - before.keys()] +
                      [f"-{name}" for name in before.keys() - after.keys()] +
                      [f"~{name}" for name in after.keys() & before.keys()
                       if after[name] != before[name]])

    def surroundings(self):
        """The files outside the install directory, with their contents (None for a directory)."""
        return {path: path.read_bytes() if path.is_file() else None
                for path in sorted(self._base.rglob("*"))
                if path != self._trace_file and self.root not in (path, *path.parents)}

    # An ordinary user cannot enter a directory of mode 0644, a run (root in its namespace) can.

    def exists(self, name):
        try:
            return (self.root / name).exists()
        except PermissionError:
            return self._as_owner("test", "-e", name).returncode == 0

    def read(self, name):
        try:
            return (self.root / name).read_bytes()
        except PermissionError:
            result = self._as_owner("cat", name)
            assert result.returncode == 0, result.stderr
            return result.stdout

    def mode(self, name):
        """The permission bits."""
        try:
            return stat.S_IMODE((self.root / name).stat().st_mode)
        except PermissionError:
            return int(self._as_owner("stat", "-c", "%a", name).stdout, 8)

    def used_bytes(self):
        """The size of the install tree on a tmpfs."""
        sizes = [file.stat().st_size for file in self.root.rglob("*") if file.is_file()]
        return sum(-(-size // _PAGE_BYTES) * _PAGE_BYTES for size in sizes)

    def config_values(self):
        """The current settings in config.xml, as pairs."""
        return package.config_values(self.read("config.xml"))

    def close(self):
        for started in self._started:
            started.close()
        for agent in self._agents:
            agent.close()
        self._as_owner("chmod", "-R", "u+rwx", str(self._base))
        shutil.rmtree(self._base)

    def _lay_out(self):
        # Empty until an agent starts: the scripts then report "none".
        self._agent_pid_file.touch()
        self.root.mkdir()
        (self.root / "runlog").mkdir()
        (self.root / "template").mkdir()
        self._trace_script.write_text(
            trace.script(self.path, self._agent_pid_file, self._trace_file))
        self.write_script("startup.sh")
        self.write_script("tool/tar", f'exec {shutil.which("tar", path=_PATH)} "$@"')
        self.remember()

    def _environment(self):
        variables = {"TZ": log.TZ, "LC_ALL": "C", "PATH": _PATH,
                     "LD_LIBRARY_PATH": "/nonexistent/earlier"}
        passed_on = [name for name in os.environ if name.endswith("SAN_OPTIONS")]
        return {**variables, **{name: os.environ[name] for name in passed_on}}

    def _variables(self, uname, environment=None):
        variables = {**self._environment(), **(environment or {}), **(uname or {})}
        if uname:
            # The sanitizer runtime insists on being loaded first. This library does not
            # interfere with it.
            variables["ASAN_OPTIONS"] = ":".join(
                filter(None, [variables.get("ASAN_OPTIONS"), "verify_asan_link_order=0"]))
        return variables

    def _start(self, command, environment, with_streams=True):
        started = RunningUpdater(command, environment, with_streams)
        self._started.append(started)
        return started

    def _contents(self):
        """All entries except the log: path to MD5 of a file or type of anything else."""
        try:
            found = dict(self._entries(self.root))
        except PermissionError:
            found = self._contents_as_owner()
        found.pop(_LOG, None)
        return found

    def _entries(self, directory):
        for entry in os.scandir(directory):
            name = os.path.relpath(entry.path, self.root)
            if entry.is_file(follow_symlinks=False):
                yield name, hashlib.md5(pathlib.Path(entry.path).read_bytes()).hexdigest()
                continue
            yield name, _TYPES[stat.S_IFMT(entry.stat(follow_symlinks=False).st_mode)]
            if entry.is_dir(follow_symlinks=False):
                yield from self._entries(entry.path)

    def _contents_as_owner(self):
        found = self._as_owner("sh", "-c", _LIST_TREE)
        assert found.returncode == 0, found.stderr
        lines = (line.split("  ./", 1) for line in found.stdout.decode().splitlines())
        return {name: content for content, name in lines}

    def _as_owner(self, *command):
        return subprocess.run(namespace.as_owner(list(command)), cwd=self.root,
                              stdin=subprocess.DEVNULL, capture_output=True, check=False,
                              timeout=_RUN_SECONDS)
