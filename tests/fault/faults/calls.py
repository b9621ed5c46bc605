"""The system calls of the updater, traced by strace, with names that are the same everywhere."""

import collections
import dataclasses
import os
import re

# The system calls that are traced, by what they do. A question mark makes strace ignore calls that
# an architecture lacks.
_OPERATIONS = {
    "open": "open", "openat": "open", "creat": "open",
    "write": "write", "writev": "write", "pwrite64": "write",
    "read": "read", "readv": "read", "pread64": "read",
    "close": "close", "fsync": "fsync", "fdatasync": "fsync",
    "ftruncate": "truncate", "ftruncate64": "truncate", "truncate": "truncate",
    "fallocate": "fallocate", "flock": "flock",
    "mkdir": "mkdir", "mkdirat": "mkdir", "rmdir": "rmdir",
    "unlink": "unlink", "unlinkat": "unlink",
    "rename": "rename", "renameat": "rename", "renameat2": "rename",
    "link": "link", "linkat": "link", "symlink": "link", "symlinkat": "link",
    "mknod": "mknod", "mknodat": "mknod",
    "chmod": "chmod", "fchmod": "chmod", "fchmodat": "chmod", "fchmodat2": "chmod",
    "chown": "chown", "chown32": "chown", "fchown": "chown", "fchown32": "chown",
    "lchown": "chown", "lchown32": "chown", "fchownat": "chown",
    "utimensat": "touch", "utimensat_time64": "touch",
    "setxattr": "setxattr", "fsetxattr": "setxattr", "fremovexattr": "setxattr",
    "flistxattr": "listxattr", "fgetxattr": "getxattr",
    "access": "stat", "faccessat": "stat", "faccessat2": "stat",
    "stat": "stat", "stat64": "stat", "lstat": "stat", "lstat64": "stat",
    "fstat": "stat", "fstat64": "stat", "newfstatat": "stat", "fstatat64": "stat", "statx": "stat",
    "readlink": "readlink", "readlinkat": "readlink",
    "getdents": "getdents", "getdents64": "getdents", "chdir": "chdir",
    "kill": "kill", "tgkill": "kill",
    "fork": "start", "vfork": "start", "clone": "start", "clone3": "start",
    "wait4": "wait", "waitpid": "wait", "waitid": "wait",
    "socket": "socket", "socketpair": "prepare", "pipe2": "prepare", "eventfd2": "prepare",
    "connect": "connect", "sendto": "send", "sendmsg": "send", "send": "send",
    "recvfrom": "receive", "recvmsg": "receive", "recv": "receive",
    "poll": "poll", "ppoll": "poll", "ppoll_time64": "poll",
    "brk": "memory", "mmap": "memory", "mmap2": "memory", "mremap": "memory",
    "exit_group": "exit",
}
SET = ",".join(f"?{name}" for name in _OPERATIONS)

# The operations that change something outside the process. Waiting is included because a child is
# working meanwhile, and so is the end of the process.
_CHANGING = {"open", "write", "truncate", "fallocate", "flock", "mkdir", "rmdir", "unlink",
             "rename", "link", "mknod", "chmod", "chown", "touch", "setxattr", "kill", "start",
             "wait", "connect", "send", "fsync", "exit"}
_TRANSFER = {"socket", "prepare", "connect", "send", "receive", "poll"}
_NOT_ABOUT_FILES = _TRANSFER | {"kill", "start", "wait", "exit", "memory"}

_INSTALL_PATH_FILE = "/var/log/version_control"

_DOWNLOAD = re.compile(r"/update_norvak_\w+/\w[\w.]*$")
_WRITING_STEPS = {"open", "write", "close"}
_READING_STEPS = {"stat", "read", "listxattr", "getxattr"}
_WRITING = re.compile(r"\b(O_WRONLY|O_RDWR|O_CREAT|O_TRUNC|O_TMPFILE)\b")
_CALL = re.compile(r"(\w+)\((.*)")
_DESCRIPTOR = re.compile(r"\d+<([^>]*)>")
_PATH = re.compile(r'(?:(?:\d+|AT_FDCWD)<([^>]*)>(?:\(deleted\))?, )?"((?:[^"\\]|\\.)*)"')
_TEMPORARY_NAME = re.compile(r"^(config\.xml\.)[a-z2-7]{6}$")
_FAILED = re.compile(r"= -1 E")
_STANDARD_STREAM = re.compile(r"[012]<")
_INSIDE_KERNEL = re.compile(r"\w+:\[")  # socket:[12345], pipe:[67890]


@dataclasses.dataclass(frozen=True)
class Call:
    """One system call of a run.

    `name` is the same on every machine. Calls share a name if their number or order is not the
    program's choice: those that read a file, the steps of a transfer, the later pieces of a
    download, the removal of the work directory.
    """

    syscall: str
    when: int  # 1 for the first call of `syscall` in the run, as strace counts
    operation: str
    writes: bool  # an "open" that creates or allows writing
    path: str  # absolute; empty if the call is not about a file
    root: str  # the install directory
    name: str
    turn: int  # 1 for the first call of `syscall` with this name
    text: str  # the line of the trace

    @property
    def identity(self):
        """The same in every run, unlike `when`."""
        return self.syscall, self.name, self.turn

    @property
    def is_download(self):
        """Whether it writes downloaded data."""
        return _DOWNLOAD.search(self.path) and self.operation in _WRITING_STEPS and (
            not self.name.startswith(("read ", "clean-up ")))

    @property
    def is_reading(self):
        """Whether it opens, reads or closes a file that is not written."""
        return self.operation == "open" and not self.writes or (
            self.name.startswith(("read ", "clean-up ")))

    @property
    def is_of_a_save(self):
        """Whether it is a step of a save of config.xml."""
        directory, name = os.path.split(self.path)
        return self.path == self.root or (
            directory == self.root and name.startswith(("config.xml", "#")))

    @property
    def varies(self):
        """Whether it is one of several whose number is not the program's choice."""
        return self.operation in ("poll", "receive", "memory") or "later pieces" in self.name

    @property
    def changes(self):
        return self.operation in _CHANGING and (self.operation != "open" or self.writes)


class _Namer:
    """Names the calls of one run, in order."""

    def __init__(self, root, work_dir, commands):
        self._root = root
        self._work_dir = f"{root}/{work_dir}"
        self._commands = iter(commands)
        self._command = ""
        self._used = collections.Counter()
        self._reading = {}  # by path of an open file, the name of the calls that read it
        self._transfers = 0
        self._opening = False  # before the request of a transfer is sent
        self._pieces = collections.Counter()
        self._cleaning = False

    def name(self, operation, writes, path, text):
        if operation in _TRANSFER:
            return self._transfer(operation)
        if operation in ("start", "wait"):
            if operation == "start":
                self._command = next(self._commands)
            return f"{operation} {self._command}".replace("wait", "wait for")
        if operation in ("kill", "memory", "exit"):
            return "kill the agent" if operation == "kill" else operation
        if path == self._work_dir and operation in ("stat", "open", "getdents"):
            self._cleaning = True
        if self._cleaning and is_inside(path, self._work_dir):
            return f"clean-up of {self._shown(self._work_dir)}"
        if operation == "open" and not writes and "O_DIRECTORY" not in text:
            return self._start_of_reading(path, text)
        if operation in _READING_STEPS and path in self._reading:
            return self._reading[path]
        if operation == "close" and path in self._reading:
            return self._reading.pop(path)
        return self._numbered(operation, writes, path)

    def _transfer(self, operation):
        if operation in ("prepare", "socket") and not self._opening:
            self._opening = True
            self._transfers += 1
            self._pieces.clear()
        elif operation == "send":
            self._opening = False
        return f"{operation}, transfer {self._transfers}"

    def _start_of_reading(self, path, text):
        name = self._with_number(f"read {self._shown(path)}")
        if not _FAILED.search(text):
            self._reading[path] = name
        return name

    def _numbered(self, operation, writes, path):
        name = f"{operation} {self._shown(path)}"
        if is_inside(path, self._work_dir) and (writes or operation in ("write", "close")):
            self._pieces[name] += 1
            if self._pieces[name] > 1:
                return f"{name}, later pieces{_number(self._used[name])}"
        return self._with_number(name)

    def _with_number(self, name):
        self._used[name] += 1
        return name + _number(self._used[name])

    def _shown(self, path):
        if path == self._root:
            return "."
        if not path.startswith(f"{self._root}/"):
            return path
        path = path[len(self._root) + 1:]
        return "the unnamed file" if path.startswith("#") else without_random_letters(path)


def _number(number):
    return f" ({number})" if number > 1 else ""


def _subject(operation, arguments):
    """The path that a call is about: the new one if it names two, or that of its descriptor."""
    paths = _PATH.findall(arguments)
    if paths:
        directory, name = paths[-1 if operation in ("rename", "link") else 0]
        if not name.startswith("/"):
            name = f"{directory}/{name}"
        return os.path.normpath(name)
    descriptor = _DESCRIPTOR.match(arguments)
    return descriptor[1] if descriptor else ""


def read(lines, root, work_dir, commands):
    """The program's own calls in the trace @a lines, without those of libraries for their own use.

    @param root      the install directory, @a work_dir the updater's directory in it
    @param commands  what the run starts, in this order
    """
    namer = _Namer(root, work_dir, commands)
    counts = collections.Counter()
    turns = collections.Counter()
    calls = []
    for text in lines:
        match = _CALL.match(text)
        if not match or match[1] not in _OPERATIONS:
            continue
        syscall, arguments = match.groups()
        counts[syscall] += 1
        operation = _OPERATIONS[syscall]
        path = _subject(operation, arguments)
        writes = operation == "open" and (syscall == "creat" or bool(_WRITING.search(arguments)))
        if "O_TMPFILE" in arguments:
            path += "/#"
        if operation == "memory" and (not calls or "MAP_ANON" not in text and syscall != "brk"):
            continue  # of the loader, or of a library to read a file
        if operation in _NOT_ABOUT_FILES:
            path = ""
        elif _INSIDE_KERNEL.match(path) or _STANDARD_STREAM.match(arguments):
            continue
        elif not is_inside(path, root) and path != _INSTALL_PATH_FILE:
            if operation not in _CHANGING or operation == "open" and not writes:
                continue
        name = namer.name(operation, writes, path, arguments)
        turns[syscall, name] += 1
        calls.append(Call(syscall, counts[syscall], operation, writes, path, root, name,
                          turns[syscall, name], text))
    return calls


def without_random_letters(path):
    """@a path with the same letters in every temporary name of config.xml."""
    return _TEMPORARY_NAME.sub(r"\1XXXXXX", path)


def is_inside(path, root):
    return path == root or path.startswith(f"{root}/")


def outside(calls, root):
    """The calls that change, or try to change, a file that is not in @a root."""
    return [call.text for call in calls
            if call.changes and call.path and not is_inside(call.path, root)]
