"""The events that the agent's scripts record when the updater runs them."""

import dataclasses
import typing

# Not reported as changes: the marker, which has its own field, and the log.
_NOT_A_CHANGE = {"update", "runlog/update.log"}

# One line per event. A process with a pending SIGKILL is "dead", and so is a zombie, which a killed
# agent stays until the test waits for it. find may report directories that another run removes.
_SCRIPT = """\
root={install}
agent=none
if [ -s {agent_pid} ]; then
  read -r pid <{agent_pid}
  agent=dead
  if [ -e "/proc/$pid/status" ]; then
    agent=alive
    while read -r key value rest; do
      case "$key $value" in
        "State: Z" | "State: X" | "ShdPnd: "*[13579bdf]??) agent=dead ;;
      esac
    done <"/proc/$pid/status"
  fi
fi
printf '%s\\t%s\\t%s\\t%s\\t%s\\n' "$1" "$(pwd -P)" "${{LD_LIBRARY_PATH-unset}}" "$agent" \\
  "$(find "$root" -mindepth 1 -printf '%P ' 2>/dev/null)" >>{trace}
"""


@dataclasses.dataclass
class Step:
    """One event of a run."""

    who: str
    cwd: str  # "." is the install directory, "start" the directory the updater was started in
    marker: bool  # whether the update marker existed
    agent: str  # "alive", "dead", or "none" if none was started
    changes: typing.List[str]  # "+path" and "-path" relative to the baseline
    ld_library_path: str = "."


def script(install, agent_pid, trace):
    """The shell script that appends the event named by its argument to the file @a trace."""
    return _SCRIPT.format(install=install, agent_pid=agent_pid, trace=trace)


def read(text, install, start, names_before):
    """The steps in the trace @a text."""
    return [_step(line, install, start, names_before) for line in text.splitlines()]


def _step(line, install, start, names_before):
    who, cwd, libraries, agent, names = line.split("\t")
    present = set(names.split())
    changes = sorted({f"+{name}" for name in present - names_before - _NOT_A_CHANGE} |
                     {f"-{name}" for name in names_before - present})
    return Step(who, _relative(cwd, install, start), "update" in present, agent, changes,
                _relative(libraries, install, start))


def _relative(path, install, start):
    if path == start:
        return "start"
    if path == install or path.startswith(install + "/"):
        return "." + path[len(install):]
    return path
