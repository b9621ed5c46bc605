"""Runs of the updater with a fault at a chosen system call, and the state that they leave."""

import concurrent.futures
import ctypes
import dataclasses
import os
import pathlib
import shutil
import signal
import subprocess
import time
import typing

from harness import AgentHost, Run, namespace

from . import calls, rules, state, updates

# No run takes long: nothing in it waits for a time to pass.
_RUN_SECONDS = 30

# The number of pieces of a transfer depends on the timing, and so does the number of calls before
# the intended one. If the fault hits another call, the run is repeated.
_ATTEMPTS = 8

PAGE_BYTES = 4096

_PR_SET_CHILD_SUBREAPER = 36


def unavailable():
    """Why no fault can be injected here; empty if it can."""
    if not shutil.which("strace"):
        return "strace is not installed ('apt-get install strace')"
    probe = subprocess.run(["strace", "-e", "inject=chdir:error=EIO:when=1", "-o", "/dev/null",
                            "true"], stdin=subprocess.DEVNULL, capture_output=True, text=True,
                           check=False)
    if probe.returncode:
        return f"strace cannot trace here ({probe.stderr.strip()})"
    return namespace.unavailable()


def adopt_orphans():
    """Makes the children of a killed updater children of this process, which can wait for them."""
    libc = ctypes.CDLL(None, use_errno=True)
    if libc.prctl(_PR_SET_CHILD_SUBREAPER, 1, 0, 0, 0) != 0:
        raise OSError(ctypes.get_errno(), "prctl")


@dataclasses.dataclass(frozen=True)
class Fault:
    """What happens instead of a call."""

    call: calls.Call
    error: str = ""  # such as "EIO"; empty: the process is killed just before the call
    lasting: bool = False  # every later call of this kind fails, too

    def __str__(self):
        what = self.error or "kill"
        return f"{what}{' from then on' if self.lasting else ''} at `{self.call.name}`"

    def injection(self, when):
        """The option of strace, for a run in which the call has the number @a when."""
        action = f"error={self.error}" if self.error else "signal=KILL"
        if self.error and self.call.syscall == "brk":
            action = "retval=0"  # it has no error codes: a lower break than requested means failure
        return f"inject={self.call.syscall}:{action}:when={when}{'+' if self.lasting else ''}"


@dataclasses.dataclass(frozen=True)
class Variant:
    """How the host differs from the others."""

    environment: typing.Tuple[typing.Tuple[str, str], ...] = ()
    config_is_mounted: bool = False  # config.xml is a mount point of its own


PLAIN = Variant()
MOUNTED_CONFIG = Variant(config_is_mounted=True)


@dataclasses.dataclass(frozen=True)
class Outcome:
    """How a run ended and what it left."""

    run: Run
    log: typing.Tuple[str, ...]  # texts of the lines that the run wrote
    state: state.State
    made: typing.Sequence[calls.Call] = ()  # the calls, if they were traced


@dataclasses.dataclass(frozen=True)
class Disturbance:
    """A run with a fault, the next run, and the rules that they broke."""

    fault: Fault
    disturbed: Outcome
    following: Outcome
    violations: typing.Tuple[str, ...]


class Host:
    """A host for one update, and the runs of that update on it."""

    def __init__(self, lab, update, variant=PLAIN):
        self._update = update
        self._variant = variant
        self._host = AgentHost(lab.updater, lambda: None)
        self._base = self._host.root.parent
        self._log_lines = 0
        self._log_is_whole = True
        update.lay_out(self._host, lab.url)
        subprocess.run([self.root / "startup.sh"], check=True, timeout=_RUN_SECONDS)

    @property
    def root(self):
        return self._host.root

    def state(self):
        return state.take(self.root, {pid: _is_alive(pid) for pid in self._agents()})

    def interrupt_at(self, interruption):
        """Makes one of the updates.INTERRUPTIONS happen in the next run."""
        (self._base / interruption).touch()

    def run(self, *injections, traced=False, mounts=(), through=()):
        """Runs the update, and waits for everything that it started."""
        trace = self._base / "strace"
        if traced or injections:
            options = [option for injection in injections for option in ("-e", injection)]
            through = (*through, "strace", "-y", "-s", "0", "-o", str(trace),
                       "-e", f"trace={calls.SET}", *options)
        started = self._host.start(*self._update.arguments, mounts=(*self._mounts(), *mounts),
                                   through=through, environment=dict(self._variant.environment))
        run = started.finish(_RUN_SECONDS)
        _wait_for_group(started.pid)
        made = ()
        if traced or injections:
            made = calls.read(trace.read_text(errors="replace").splitlines(), str(self.root),
                              self._update.work_dir, self._update.commands)
        return Outcome(run, self._new_log_texts(), self.state(), made)

    def used_pages(self):
        """How many pages of memory the install tree takes as a tmpfs."""
        files = (file for file in self.root.rglob("*") if file.is_file())
        return sum(-(-file.stat().st_size // PAGE_BYTES) for file in files)

    def run_on_small_disk(self, pages):
        """Runs the update while the install directory is a disk of @a pages of 4096 bytes."""
        seed, left = self._base / "seed", self._base / "left"
        self._log_is_whole = False  # its last line may be truncated, as any file on a full disk
        seed.mkdir()
        left.mkdir()
        root = str(self.root)
        outcome = self.run(
            mounts=(f"cp -a {root}/. {seed}", namespace.small_disk(root, pages * PAGE_BYTES),
                    f"cp -a {seed}/. {root}"),
            through=("sh", "-c", f'"$@"; status=$?; cp -a {root}/. {left}; exit $status', "sh"))
        subprocess.run(namespace.as_owner(
            ["sh", "-c", f"rm -r {root}/* && cp -a {left}/. {root}"]), check=True)
        return dataclasses.replace(outcome, state=self.state())

    def close(self):
        for pid in self._agents():
            if _is_alive(pid):
                os.kill(pid, signal.SIGKILL)
                os.waitpid(pid, 0)
        self._host.close()

    def _mounts(self):
        if self._variant.config_is_mounted:
            config = self.root / "config.xml"
            yield namespace.bind(config, config)
        # The updater uses this install directory if version_control cannot be read.
        if os.path.isdir(rules.DEFAULT_ROOT):
            nothing = self._base / "nothing"
            nothing.mkdir(exist_ok=True)
            yield namespace.bind(nothing, rules.DEFAULT_ROOT)

    def _new_log_texts(self):
        texts = self._host.log_texts() if self._log_is_whole else []
        self._log_lines, before = len(texts), self._log_lines
        return tuple(texts[before:])

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.close()

    def _agents(self):
        noted = self._base / "agents"
        return [int(line) for line in noted.read_text().split()] if noted.exists() else []


class Lab:
    """What all runs share."""

    def __init__(self, updater, server, jobs):
        self.updater = updater
        self.url = server.url
        self._jobs = jobs
        with Host(self, next(u for u in updates.UPDATES if u.key == "kernel")) as host:
            server.reset()
            host.run()
            updates.publish(server, updates.kernel_dir(server.requests()))
        self._references = {}

    def reference(self, update, variant=PLAIN):
        """The state before and after a run without a fault."""
        key = update, variant
        if key not in self._references:
            with Host(self, update, variant) as host:
                old, outcome = host.state(), host.run(traced=True)
            words = state.Words(old, outcome.state, update.other_configs(self.url))
            self._references[key] = rules.Reference(old, outcome, words)
        return self._references[key]

    def disturb(self, update, fault, variant=PLAIN):
        """A run with @a fault, and the same run again without it.

        None if the call is one whose number varies, and was never made.
        """
        reference = self.reference(update, variant)
        when = fault.call.when
        for _ in range(_ATTEMPTS):
            with Host(self, update, variant) as host:
                disturbed = host.run(fault.injection(when))
                if _has_met(fault, disturbed.made):
                    following = host.run()
                    return Disturbance(fault, disturbed, following, tuple(
                        rules.violations(reference, fault, disturbed, following, str(host.root))))
            when = self._when_in_another_run(fault.call, update, variant) or when
        assert fault.call.varies, f"{fault}: it hit another call {_ATTEMPTS} times"
        return None

    def _when_in_another_run(self, call, update, variant):
        with Host(self, update, variant) as host:
            made = host.run(traced=True).made
        return next((one.when for one in made if one.identity == call.identity), None)

    def disturb_all(self, update, faults, variant=PLAIN):
        """The disturbances by @a faults, in order. None of them may break a rule."""
        self.reference(update, variant)
        made = self.map(lambda fault: self.disturb(update, fault, variant), faults)
        found = [one for one in made if one]
        broken = [f"{one.fault}: {text}" for one in found for text in one.violations]
        assert not broken, "\n".join(broken)
        return found

    def map(self, function, items):
        """The results of @a function for all @a items, several at a time."""
        with concurrent.futures.ThreadPoolExecutor(self._jobs) as pool:
            return list(pool.map(function, items))


def _has_met(fault, made):
    """Whether the fault hit the intended call."""
    if not fault.error:
        return bool(made) and made[-1].identity == fault.call.identity
    hit = next((call for call in made if "(INJECTED)" in call.text), None)
    return hit is not None and hit.identity == fault.call.identity


def _is_alive(pid):
    """Whether the agent @a pid is alive: a child of this process, which reaps it if it is not.

    A stand-in agent always sleeps. If it does not, it is just starting, or has been killed and is
    about to end.
    """
    deadline = time.monotonic() + _RUN_SECONDS
    while time.monotonic() < deadline:
        try:
            if os.waitpid(pid, os.WNOHANG) != (0, 0):
                return False
        except ChildProcessError:
            return False
        text = pathlib.Path(f"/proc/{pid}/status").read_text()
        status = dict(line.split(":\t", 1) for line in text.splitlines())
        killed = int(status["SigPnd"], 16) & 1 << signal.SIGKILL - 1
        if status["State"].startswith("S") and not killed:
            return True
        time.sleep(0.001)
    raise AssertionError(f"the agent neither sleeps nor ends: {text}")


def _wait_for_group(group):
    """Waits for the processes that a killed updater has left running."""
    deadline = time.monotonic() + _RUN_SECONDS
    while True:
        try:
            if os.waitpid(-group, os.WNOHANG) == (0, 0):
                assert time.monotonic() < deadline, "a child of the updater does not end"
                time.sleep(0.002)
        except ChildProcessError:
            return
