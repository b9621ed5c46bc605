"""Names and set-up shared by the tests of the kernel module update."""

import hashlib

FIRST, TESSEL, QUORIN = MODULES = ("norvak_ipfilter", "tessel_linux", "quorin_linux")

WORK_DIR = "update_norvak_kernel"
LIST = WORK_DIR + "/md5"
DOWNLOAD = WORK_DIR + "/kernel"
RECORD = "runlog/kernel_version"

# Makes every run see the host for which the modules are published.
VERSION = "2.6.32-431"
UNAME = {"NORVAK_TEST_MACHINE": "x86_64", "NORVAK_TEST_RELEASE": f"{VERSION}.el6.x86_64"}
_DIRECTORY = f"/kernels/centos/x64/{VERSION}"


def new(name):
    """The module @a name as published by default: binary, and larger than one read."""
    return name.encode() + bytes(range(256)) * 300


def installed(name):
    """Path of the installed module @a name."""
    return f"{name}.ko"


def list_path(name):
    return f"{_DIRECTORY}/{name}/md5"


def module_path(name):
    return f"{_DIRECTORY}/{name}/{name}.ko"


def get_list(*names):
    """The requests for the MD5 lists of the modules @a names."""
    return [f"GET {list_path(name)}" for name in names]


def get_module(name):
    return [f"GET {module_path(name)}"]


def get_all(*names):
    """The requests of a run that updates the modules @a names."""
    return [request for name in names for request in get_list(name) + get_module(name)]


def digest(content):
    return hashlib.md5(content).hexdigest()


def publish_modules(server, modules=None, lists=None):
    """Publishes all modules with matching lists, except where others are given."""
    for name in MODULES:
        content = (modules or {}).get(name, new(name))
        published = (lists or {}).get(name, f"{digest(content)}\n".encode())
        server.publish({list_path(name)[1:]: published, module_path(name)[1:]: content})


def install(host, *names, content=None):
    """Installs the modules @a names, with @a content or as published by default."""
    for name in names:
        host.write(installed(name), content or new(name))
    host.remember()


# Expected log lines.


def are_current(*names):
    return [f"[KERNEL] don't need to download {name}" for name in names]


def were_updated(*names):
    return [line for name in names for line in (
        f"[KERNEL] check download {name} kernel MD5 success",
        f"[KERNEL] download kernel {name} success")]


def was_refused(name):
    return [f"[KERNEL] check download {name} kernel MD5 false",
            f"[KERNEL] download kernel {name} failed", ""]
