"""Shared by the system tests: an agent's host, update servers, and access to the results of a run.

host.py       the install tree, the dummy agent, the runs of the updater
namespace.py  private mounts and process ids that protect the machine from a run
trace.py      events recorded by the agent's scripts
log.py        reading the update log
package.py    agent packages and config.xml
nginx.py      a real nginx that publishes files
publisher.py  norvak_publish, server trees and what is published in them
published_package.py  packages of norvak_publish on a host, with faults
scripted.py   a server that misbehaves on purpose
transfers.py  tables of good and bad replies
updates.py    each update and its requests
saves.py      counts how often a file is saved
skips.py      reports a module whose tests were all skipped to ctest
waiting.py    waits for a condition

Names, set-up and log lines of one update each: software.py, kernel.py, rules.py, web_server.py.
"""

from .host import (ABORTED, DATA_DIR, FAILED, KILLED, OK, START, TAR, VERSION_FILE, WORK_DIR,
                   AgentHost, Run)
from .log import log_lines
from .nginx import Nginx, running_nginx
from .package import DEFAULT_UPDATE_SCRIPT, config_xml, config_values, package
from .publisher import Publisher
from .saves import count_saves
from .scripted import Reply, ScriptedServer, http_reply, unused_address
from .trace import Step
from .waiting import wait_until

__all__ = [
    "ABORTED", "DATA_DIR", "DEFAULT_UPDATE_SCRIPT", "FAILED", "KILLED", "OK", "START", "TAR",
    "VERSION_FILE", "WORK_DIR", "AgentHost", "Nginx", "Publisher", "Reply", "Run", "ScriptedServer",
    "Step", "config_values", "config_xml", "count_saves", "http_reply", "log_lines", "package",
    "running_nginx", "unused_address", "wait_until",
]
