"""Names and set-ups that the tests of the agent software update share."""

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


def publish_update(nginx, version=NEW_VERSION, files=None):
    """Publishes a version and a package, by default one whose script succeeds."""
    nginx.publish({VERSION_PATH[1:]: f"{version}\n".encode(), PACKAGE_PATH[1:]: package(files)})


def settings(server_url, update_type="0", version=INSTALLED_VERSION):
    """The settings of an agent that gets its updates from @a server_url."""
    return {"update_host": server_url, "update_type": update_type, "version": version}
