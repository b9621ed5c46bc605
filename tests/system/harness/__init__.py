"""What the system tests share: an agent's host, update servers, and readers of what a run leaves.

host.py       the install tree, the stand-in agent, the runs of the updater
namespace.py  private mounts and processes, so that a run touches nothing of the machine
trace.py      what the agent's scripts saw when they ran
log.py        reading the update log
package.py    agent packages and config.xml
nginx.py      a real nginx that publishes files
publisher.py  norvak_publish, server trees and what is published in them
scripted.py   a server that misbehaves on purpose
transfers.py  tables of how a transfer can go
updates.py    each update and its requests
saves.py      counts how often a file is replaced
skips.py      tells ctest of a module of which nothing could run

Names, set-ups and log lines of one update each: software.py, kernel.py, rules.py, web_server.py.
"""

from .host import (ABORTED, DATA_DIR, FAILED, KILLED, OK, START, TAR, VERSION_FILE, WORK_DIR,
                   AgentHost, Run)
from .log import log_lines
from .nginx import Nginx
from .package import DEFAULT_UPDATE_SCRIPT, config_xml, config_values, package
from .publisher import Publisher
from .saves import count_saves
from .scripted import Reply, ScriptedServer, http_reply, unused_address
from .trace import Step

__all__ = [
    "ABORTED", "DATA_DIR", "DEFAULT_UPDATE_SCRIPT", "FAILED", "KILLED", "OK", "START", "TAR",
    "VERSION_FILE", "WORK_DIR", "AgentHost", "Nginx", "Publisher", "Reply", "Run", "ScriptedServer",
    "Step", "config_values", "config_xml", "count_saves", "http_reply", "log_lines", "package",
    "unused_address",
]
