"""Runs of the type 0 unit in which the updater is ended or stopped at a chosen system call."""

import time

from faults import calls
from installation import ROOT, publish

UNIT = "norvak-update@soft.service"
_REAL = "/opt/real"
_COMMANDS = ("tool/tar", "the package's script", "startup.sh")
_ATTEMPTS = 5

# The program keeps its name, by which the recovery knows it.
_WRAPPER = f"""\
#!/bin/sh
[ -e {_REAL}/options ] || exec {_REAL}/norvak_update "$@"
exec strace -y -s 0 -o {_REAL}/trace -e trace={calls.SET} $(cat {_REAL}/options) \\
  {_REAL}/norvak_update "$@"
"""


class KillLab:
    """A host whose updater can be ended at each of its calls."""

    def __init__(self, installation, server):
        self.host = installation
        self._machine = installation.machine
        self._options = self._machine.file(f"{_REAL}/options")
        self._trace = self._machine.file(f"{_REAL}/trace")
        program = self._machine.file("/usr/sbin/norvak_update")
        self._machine.write(f"{_REAL}/norvak_update", program.read_bytes(), 0o755)
        self._machine.write("/usr/sbin/norvak_update", _WRAPPER, 0o755)
        publish(server, installation)
        installation.lay_out()
        self.points = [call for call in self._traced("") if call.changes]

    def close(self):
        self._machine.write("/usr/sbin/norvak_update",
                            self._machine.file(f"{_REAL}/norvak_update").read_bytes(), 0o755)

    def kill_at(self, point):
        """Kills the updater just before @a point; what is left to do after the recovery."""
        when = point.when
        for _ in range(_ATTEMPTS):
            self.host.lay_out()
            made = self._traced(f"-e inject={point.syscall}:signal=KILL:when={when}")
            left = self.host.wait_until_recovered()
            if left or (made and made[-1].identity == point.identity):
                return left
            # The number of calls before it varies from run to run.
            self.host.lay_out()
            again = self._traced("")
            when = next((one.when for one in again if one.identity == point.identity), when)
        assert point.varies, f"{point.name} was not met"
        return []

    def hold_at(self, point):
        """Lets a run come to @a point and no further; the time when it began."""
        self.host.lay_out()
        time.sleep(0.1)  # more than the steps of file times
        since = time.time()
        self._trace.unlink(missing_ok=True)
        self._options.write_text(f"-e inject={point.syscall}:signal=STOP:when={point.when}")
        self._machine.run("systemctl", "start", "--no-block", UNIT)
        self._machine.wait_for(lambda: self._trace.exists() and
                               "stopped by SIGSTOP" in self._trace.read_text(errors="replace"))
        self._options.unlink()
        return since - 0.05

    def _traced(self, options):
        self._trace.unlink(missing_ok=True)
        self._options.write_text(options)
        self._machine.start(UNIT)
        self._options.unlink()
        lines = self._trace.read_text(errors="replace").splitlines()
        return calls.read(lines, ROOT, "update_norvak_soft", _COMMANDS)
