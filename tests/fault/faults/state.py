"""The state of a host, and the differences between two states, in the same words everywhere."""

import dataclasses
import os
import stat
import typing

from . import calls

_LOG = "runlog/update.log"
_MARKER = "update"
_PID_FILE = "norvak.pid"

# Only the existence of the work directories counts: nobody needs their contents after the run.
_WORK_DIRS = ("update_norvak_soft", "update_norvak_kernel", "update_norvak_nginx",
              "update_norvak_rule")


@dataclasses.dataclass(frozen=True)
class Entry:
    """A file or directory of the install tree."""

    kind: str  # "file", "directory" or "other"
    mode: int
    owner: typing.Tuple[int, int]
    content: bytes = b""


@dataclasses.dataclass(frozen=True)
class State:
    """The install tree without the log, and the agent."""

    tree: typing.Dict[str, Entry]  # by path; a work directory only as itself
    agents: int  # how many are alive
    pid: str  # what norvak.pid names


def take(root, agents):
    """The state of the install tree @a root.

    @param agents  by process id of each agent that was started, whether it is alive
    """
    tree = {}
    _walk(os.fspath(root), "", tree)
    tree.pop(_LOG, None)
    entry = tree.pop(_PID_FILE, None)
    return State(tree, sum(agents.values()), _pid(entry, agents))


def _walk(root, below, tree):
    for item in os.scandir(os.path.join(root, below)):
        name = calls.without_random_letters(os.path.join(below, item.name))
        status = item.stat(follow_symlinks=False)
        owner = status.st_uid, status.st_gid
        mode = stat.S_IMODE(status.st_mode)
        if stat.S_ISDIR(status.st_mode):
            tree[name] = Entry("directory", mode, owner)
            if name not in _WORK_DIRS:
                _walk(root, name, tree)
        elif stat.S_ISREG(status.st_mode):
            with open(item.path, "rb") as file:
                tree[name] = Entry("file", mode, owner, file.read())
        else:
            tree[name] = Entry("other", mode, owner)


def _pid(entry, agents):
    if entry is None:
        return "is missing"
    text = entry.content.decode(errors="replace").strip()
    if not text.isdigit() or int(text) not in agents:
        return "names nobody"
    return "names one" if agents[int(text)] else "names a dead process"


LEFT_BEHIND = "left behind"


class Words:
    """Describes differences, with names for the contents that a file may have."""

    def __init__(self, old, new, others=()):
        """@param old, new  the states before and after an undisturbed run
           @param others    more known contents: (path, name, content)"""
        self._known = {}
        for state, name in ((new, "new"), (old, "old")):
            for path, entry in state.tree.items():
                self._known.setdefault(path, []).append((name, entry.content))
        for path, name, content in others:
            self._known.setdefault(path, []).append((name, content))

    def differences(self, now, reference):
        """How @a now differs from @a reference, one text for each difference."""
        found = [(path, self.of_path(path, now, reference))
                 for path in sorted(now.tree.keys() | reference.tree.keys())]
        texts = [_phrase(path, what) for path, what in found if what]
        if (now.agents, now.pid) != (reference.agents, reference.pid):
            texts.append(_agents(now))
        return tuple(texts)

    def of_path(self, path, now, reference):
        """The same for one path; empty if there is no difference."""
        now, reference = now.tree.get(path), reference.tree.get(path)
        if now == reference:
            return ""
        if now is None:
            return "missing"
        if path not in self._known:
            return LEFT_BEHIND
        if reference and now.content == reference.content:
            return f"mode {now.mode:04o}" if now.mode != reference.mode else "another owner"
        return self._content(path, now)

    def _content(self, path, entry):
        known = self._known[path]
        for name, content in known:
            if entry.content == content:
                return name
        if not entry.content:
            return "empty"
        for name, content in known:
            if entry.content.rstrip(b"\n") == content.rstrip(b"\n"):
                return f"{name}, followed by line feeds"
        is_part = any(content.startswith(entry.content) for _, content in known)
        return "cut" if is_part else "damaged"


def _phrase(path, what):
    if what != LEFT_BEHIND:
        return f"`{path}`: {what}"
    if path in _WORK_DIRS:
        return "work directory"
    return "update marker" if path == _MARKER else f"`{path}`"


def _agents(now):
    if now.agents == 0:
        return "the agent is stopped" + ("" if now.pid == "is missing" else f", {_pid_file(now)}")
    if now.agents == 1:
        return "the agent runs" + ("" if now.pid == "names one" else f", {_pid_file(now)}")
    return f"{now.agents} agents run, {_pid_file(now)}"


def _pid_file(now):
    return f"`{_PID_FILE}` {now.pid}"
