"""Runs of the updater with a fault at a chosen system call, and what they leave."""

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

# A disturbed run ends soon: nothing in it waits for a time to pass.
_RUN_SECONDS = 30

# Transfers come in pieces whose number depends on the timing, and with it the number of calls in
# front of the one that is meant. A fault that met another call is tried again.
_ATTEMPTS = 8

PAGE_BYTES = 4096

_PR_SET_CHILD_SUBREAPER = 36


def unavailable():
    """Why no fault can be injected here; empty when it can."""
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
    """What happens to a call instead of what it asks for."""

    call: calls.Call
    error: str = ""  # such as "EIO"; empty: the process is killed in front of the call
    lasting: bool = False  # the error comes back at every later call of this kind

    def __str__(self):
        what = self.error or "kill"
        return f"{what}{' from then on' if self.lasting else ''} at `{self.call.name}`"

    def injection(self, when):
        """The option of strace, for a run in which the call is the one with the number @a when."""
        action = f"error={self.error}" if self.error else "signal=KILL"
        if self.error and self.call.syscall == "brk":
            action = "retval=0"  # it has no error codes: a break below the wanted one says no
        return f"inject={self.call.syscall}:{action}:when={when}{'+' if self.lasting else ''}"


@dataclasses.dataclass(frozen=True)
class Variant:
    """What is different about the host."""

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
    made: typing.Sequence[calls.Call] = ()  # the calls, when they were traced


@dataclasses.dataclass(frozen=True)
class Disturbance:
    """A run with a fault, the next run, and what must not have happened in them."""

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
        """Runs the update to its end, with that of everything it started."""
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
        self._log_is_whole = False  # its last line may be cut, as any file that meets a full disk
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
        # Where version_control cannot be read, the updater takes this for the install directory.
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
    """Everything that the disturbed runs share."""

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
        """What a run without a fault starts from and comes to."""
        key = update, variant
        if key not in self._references:
            with Host(self, update, variant) as host:
                old, outcome = host.state(), host.run(traced=True)
            words = state.Words(old, outcome.state, update.other_configs(self.url))
            self._references[key] = rules.Reference(old, outcome, words)
        return self._references[key]

    def disturb(self, update, fault, variant=PLAIN):
        """A run with @a fault, and the same run again without.

        Nothing when the call is one whose number varies, and never came.
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
        assert fault.call.varies, f"{fault}: another call was met {_ATTEMPTS} times"
        return None

    def _when_in_another_run(self, call, update, variant):
        with Host(self, update, variant) as host:
            made = host.run(traced=True).made
        return next((one.when for one in made if one.identity == call.identity), None)

    def disturb_all(self, update, faults, variant=PLAIN):
        """The disturbances by @a faults, in their order. None of them may break a rule."""
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
    """Whether the fault came to the call that was meant."""
    if not fault.error:
        return bool(made) and made[-1].identity == fault.call.identity
    hit = next((call for call in made if "(INJECTED)" in call.text), None)
    return hit is not None and hit.identity == fault.call.identity


def _is_alive(pid):
    """Whether the agent @a pid lives: a child of this process, which ends it here if it does not.

    A stand-in agent sleeps all its life. One that does not is just starting, or has been killed and
    is about to end.
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
    """Waits for the end of what a killed updater has left running."""
    deadline = time.monotonic() + _RUN_SECONDS
    while True:
        try:
            if os.waitpid(-group, os.WNOHANG) == (0, 0):
                assert time.monotonic() < deadline, "a child of the updater does not end"
                time.sleep(0.002)
        except ChildProcessError:
            return
