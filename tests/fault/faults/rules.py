"""What must never happen, and the errors that are injected."""

import signal

from . import calls

# Files that may be left behind.
_STRAYS = {"update", "config.xml.XXXXXX"}

# The states of a complete file.
_WHOLE = {"", "old", "new", "missing"}

# Protected by a digest: the next run replaces any other content.
_VERIFIED = ("norvak_ipfilter.ko", "tessel_linux.ko", "quorin_linux.ko",
             "template/norvak_default_rule.xml")
_COPIED = (*_VERIFIED, "nginx/bin/nginx", "nginx/md5")

_ABORTED = -signal.SIGABRT

# A run with a fault that makes so many more calls than one without is in a busy loop.
_MORE_CALLS = 60

# The install directory if /var/log/version_control cannot be read.
DEFAULT_ROOT = "/usr/local/norvak_agent"

# The errors of each operation.
_FILE_ERRORS = ("EACCES", "EIO", "ENOMEM")
_ERRORS = {
    "open": (*_FILE_ERRORS, "ENOSPC", "EMFILE", "EINTR"),
    "read": ("EIO", "EINTR", "ENOMEM"),
    "write": ("ENOSPC", "EIO", "EINTR", "ENOMEM"),
    "close": ("EIO", "ENOSPC", "EINTR"),
    "fsync": ("EIO", "ENOSPC", "EINTR"),
    "truncate": ("EIO", "EINTR"), "fallocate": ("EIO", "ENOSPC", "EINTR"),
    "flock": ("EINTR", "ENOMEM"),
    "mkdir": (*_FILE_ERRORS, "ENOSPC"), "rmdir": _FILE_ERRORS, "unlink": _FILE_ERRORS,
    "rename": (*_FILE_ERRORS, "ENOSPC"), "link": (*_FILE_ERRORS, "ENOSPC"),
    "chmod": ("EPERM", "EIO"), "chown": ("EPERM", "EIO"),
    "listxattr": ("EIO", "ENOMEM"), "getxattr": ("EIO", "ENOMEM"),
    "setxattr": ("EPERM", "EIO", "ENOSPC"),
    "stat": _FILE_ERRORS, "readlink": _FILE_ERRORS, "chdir": _FILE_ERRORS,
    "getdents": ("EIO", "ENOMEM"),
    "kill": ("EPERM",), "start": ("ENOMEM", "EAGAIN"), "wait": ("EINTR",),
    "socket": ("EMFILE", "ENOMEM", "EACCES"), "prepare": ("EMFILE", "ENOMEM"),
    "connect": ("EACCES", "ENOMEM", "EINTR"), "send": ("EIO", "ENOMEM", "EINTR"),
    "receive": ("EIO", "ENOMEM", "EINTR"), "poll": ("ENOMEM", "EINTR"),
    "memory": ("ENOMEM",),
}
# An interruption does not last, and files can be opened for reading on a full disk.
_NOT_LASTING = {"EINTR"}


def errors(call):
    """The errors that @a call can return."""
    found = _ERRORS[call.operation]
    if call.is_reading:
        return tuple(error for error in found if error != "ENOSPC")
    return found


def lasting_errors(call):
    """The errors that every later call of the same kind can return, too."""
    return tuple(error for error in errors(call)
                 if error not in _NOT_LASTING and (error, call.operation) != ("ENOSPC", "open"))


class Reference:
    """The state before and after an undisturbed run."""

    def __init__(self, old, outcome, words):
        self.old = old
        self.outcome = outcome
        self.words = words

    def left(self, state):
        """How @a state differs from the one before the run."""
        return self.words.differences(state, self.old)

    def missed(self, state):
        """How @a state differs from the one after an undisturbed run."""
        return self.words.differences(state, self.outcome.state)

    def content(self, path, state):
        """Which of its known contents the file has; empty for the new content."""
        what = self.words.of_path(path, state, self.outcome.state)
        return "" if what.startswith("mode ") else what


def violations(reference, fault, disturbed, following, root):
    """The rules that the run with the @a fault, or the one that followed, has broken."""
    if not fault.error:
        return [*violations_of_a_kill(reference, disturbed, following),
                *_of_places(fault, disturbed, root)]
    return [*_of_config(reference, disturbed, following),
            *_of_strays(reference, disturbed, following),
            *_of_copies(reference, disturbed),
            *_of_verified(reference, following),
            *_of_ending(reference, fault, disturbed, following),
            *_of_places(fault, disturbed, root)]


def violations_of_a_kill(reference, disturbed, following):
    """The same for a run that was killed."""
    if disturbed.run.status != -signal.SIGKILL:
        return [f"it was not killed: {disturbed.run}"]
    return [*_of_config(reference, disturbed, following),
            *_of_strays(reference, disturbed, following),
            *_of_verified(reference, following)]


def violations_of_a_full_disk(reference, disturbed, following):
    """The same for a run that had too little space."""
    for outcome in (disturbed, following):
        if outcome.run.status not in (0, 255):
            yield f"it ended with {outcome.run}"
    yield from _of_config(reference, disturbed, following)
    yield from _of_strays(reference, disturbed, following)
    yield from _of_copies(reference, disturbed)
    yield from _of_verified(reference, following)


def _of_config(reference, *outcomes):
    for outcome in outcomes:
        content = reference.content("config.xml", outcome.state)
        if content in ("missing", "empty", "cut", "damaged"):
            yield f"config.xml is {content}"


def _of_strays(reference, disturbed, following):
    known = reference.old.tree.keys() | reference.outcome.state.tree.keys() | _STRAYS
    for path in following.state.tree.keys() - known:
        yield f"{path} is left behind by the next run"
    for path in disturbed.state.tree.keys() - known:
        if not path.startswith("update_norvak_"):
            yield f"{path} is left behind"


def _of_copies(reference, disturbed):
    # A kill can truncate a copy; a copy that runs to its end must not.
    for path in _COPIED:
        if reference.content(path, disturbed.state) not in _WHOLE:
            yield f"{path} is {reference.content(path, disturbed.state)}"


def _of_verified(reference, following):
    for path in _VERIFIED:
        if reference.content(path, following.state) not in ("", "old"):
            yield f"{path} is {reference.content(path, following.state)} after the next run"


def _of_ending(reference, fault, disturbed, following):
    if following.run.status not in (0, 255):
        yield f"the next run ended with {following.run}"
    if disturbed.run.status not in (0, 255) and not _may_abort(fault, disturbed):
        yield f"it ended with {disturbed.run}"
    if disturbed.run.stdout:
        yield f"it printed {disturbed.run.stdout!r}"
    if len(disturbed.made) > len(reference.outcome.made) + _MORE_CALLS:
        yield f"it made {len(disturbed.made)} calls"
    if disturbed.run.status == 255 and not any(disturbed.log) and not _hides_the_log(fault):
        yield "it failed without a log line"
    if _spoils_a_download(fault) and disturbed.run.status != 255:
        yield "a download that could not be written counts as complete"


def _may_abort(fault, disturbed):
    """A version that cannot be read counts as empty, and one that is too short aborts the run."""
    return (disturbed.run.status == _ABORTED and b"std::out_of_range" in disturbed.run.stderr and
            (fault.lasting or fault.call.path.endswith(("/config.xml", "/new_version"))))


def _hides_the_log(fault):
    return fault.lasting or fault.call.path.endswith(("/runlog/update.log", "/version_control"))


def _spoils_a_download(fault):
    return fault.call.is_download and (fault.call.operation, fault.error) != ("write", "EINTR")


def _of_places(fault, disturbed, root):
    if not fault.lasting and not fault.call.path.endswith("/version_control"):
        return [f"it changes {text}" for text in calls.outside(disturbed.made, root)]
    return [f"it changes {text}" for text in calls.outside(disturbed.made, root)
            if DEFAULT_ROOT not in text]
