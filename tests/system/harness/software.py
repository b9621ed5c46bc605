"""Names and set-up shared by the tests of the agent software update."""

import os

from .package import package

VERSION_PATH = "/norvak/norvak_agent_new_version.txt"
PACKAGE_PATH_64 = "/norvak/x64/nvupdate.tar"
PACKAGE_PATH_32 = "/norvak/x86/nvupdate.tar"
# The package for the machine that runs the tests.
PACKAGE_PATH = PACKAGE_PATH_64 if os.uname().machine == "x86_64" else PACKAGE_PATH_32

GET_VERSION = f"GET {VERSION_PATH}"
GET_PACKAGE = f"GET {PACKAGE_PATH}"

INSTALLED_VERSION = "abcdef3.1.9"
NEW_VERSION = "abcdef3.1.10"
VERSION_LINE = f"{NEW_VERSION}\n".encode()

UPDATED = ["[SOFT] update norvak agent success", ""]
NOT_NEEDED = ["[SOFT] norvak is not need to update, or check new version fail", ""]
NO_VERSION = [
    "[SOFT] call check_norvak_new_version_exist->download_norvak_version_file faild", *NOT_NEEDED]
NO_PACKAGE = [
    "[SOFT] call run_update_norvak_agent->download_norvak_update_package failed",
    "[SOFT] update norvak agent failed",
    "",
]
NOT_UNPACKED = [
    "call decompress_package failed",
    "[SOFT] call run_update_norvak_agent->update_now failed",
    "[SOFT] update norvak agent failed",
    "",
]


def publish_update(nginx, version=NEW_VERSION, files=None, path=PACKAGE_PATH):
    """Publishes a version and a package, by default one whose script succeeds."""
    nginx.publish({VERSION_PATH[1:]: f"{version}\n".encode(), path[1:]: package(files)})


def settings(server_url, update_type="0", version=INSTALLED_VERSION):
    """The settings of an agent that gets its updates from @a server_url."""
    return {"update_host": server_url, "update_type": update_type, "version": version}
