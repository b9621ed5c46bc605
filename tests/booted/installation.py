"""An agent that is installed in a booted system, and what a server has for it."""

import re
import subprocess

from harness import config_values, config_xml, package, rules, software, web_server

ROOT = "/usr/local/norvak_agent"
MODULES = ("norvak_ipfilter", "tessel_linux", "quorin_linux")
STATE = "/var/lib/norvak-update"
RECOVERY = "norvak-update-recover.service"

# Returns before the agent is executed, as a real one may. The pid file is complete or absent.
STARTUP = """\
#!/bin/sh
cd "$(dirname "$0")" || exit 1
setsid ./norvak_agent 100000 </dev/null >/dev/null 2>&1 &
echo $! >norvak.pid.start && mv norvak.pid.start norvak.pid
"""

_TAR = '#!/bin/sh\nexec tar "$@"\n'

# A good script: what it installs is complete and on disk when it succeeds.
_SCRIPT = """\
#!/bin/sh
put() {
  cp "$1" "$2.put" && chmod "$3" "$2.put" && sync "$2.put" && mv "$2.put" "$2" || exit 1
}
put norvak_agent ../../norvak_agent 755
if [ -e config.xml ]; then put config.xml ../../config.xml 644; fi
"""


class Installation:
    """The agent's install directory in a machine."""

    def __init__(self, machine, server_url):
        self.machine = machine
        self._url = server_url
        program = machine.file("/usr/bin/sleep").read_bytes()
        self.old_agent, self.new_agent = program + b"old", program + b"new"

    def file(self, name):
        return self.machine.file(f"{ROOT}/{name}")

    def write(self, name, content, mode=0o644):
        self.machine.write(f"{ROOT}/{name}", content, mode)

    def lay_out(self, url=None, update_type="0", startup=STARTUP):
        """Installs an agent for which everything on the server is new, and starts it."""
        self.clear()
        self.configure(url, update_type=update_type)
        self.write("runlog/update.log", "")
        self.write("norvak_agent", self.old_agent, 0o755)
        self.write("startup.sh", STARTUP, 0o755)
        self.write("tool/tar", _TAR, 0o755)
        for module in MODULES:
            self.write(f"{module}.ko", "old")
        self.write(rules.RULES, rules.OLD_RULES)
        self.write(rules.CURRENT, f"{rules.digest(rules.OLD_RULES)}\n")
        self.write(web_server.PROGRAM, web_server.OLD_PROGRAM, 0o750)
        self.write(web_server.IDENTIFICATION, web_server.OLD_LINE)
        self.start_agent()
        self.write("startup.sh", startup, 0o755)

    def configure(self, url=None, update_type="0", version=software.INSTALLED_VERSION):
        url = url or self._url
        self.write("config.xml", config_xml({
            "update_host": url, "kernel_update_host": url, "nginx_update_host": url,
            "update_type": update_type, "version": version}))

    def clear(self):
        """Ends the agent and removes everything that a test has left."""
        for pid in self.agents():
            self.machine.attempt("kill", "-KILL", str(pid))
        self.machine.attempt("pkill", "-KILL", "-f", f"{ROOT}/startup.sh")
        subprocess.run(["rm", "-rf", self.file("")], check=True)
        for name in ("run", "kept_settings"):
            self.machine.file(f"{STATE}/{name}").unlink(missing_ok=True)
        self.machine.file("/etc/norvak-update.conf").unlink(missing_ok=True)
        self.machine.attempt("systemctl", "reset-failed")

    def start_agent(self):
        """Starts the agent in a unit of its own, as its own service would."""
        self.machine.run("systemd-run", "--quiet", "--service-type=forking", "--collect",
                         f"{ROOT}/startup.sh")
        self.machine.wait_for(lambda: len(self.agents()) == 1)

    def agents(self):
        """The ids of the agent's processes."""
        output = self.machine.attempt("sh", "-c", (
            f'for p in /proc/[0-9]*; do case $(readlink $p/exe) in {ROOT}/norvak_agent*) '
            'echo ${p#/proc/};; esac; done')).stdout
        return [int(pid) for pid in output.split()]

    def control_group(self, pid):
        """The last part of the path of the control group that systemd has put a process in."""
        text = self.machine.run("cat", f"/proc/{pid}/cgroup")
        line = next((line for line in text.splitlines() if ":name=systemd:" in line), None)
        return (line or text.splitlines()[-1]).rsplit("/", 1)[1]

    def log(self):
        """The texts of the update log."""
        return re.findall(r"^\[[^]]*\]\t\t(.*)$", self.file("runlog/update.log").read_text(),
                          re.MULTILINE)

    def setting(self, name):
        return dict(config_values(self.file("config.xml").read_bytes()))[name]

    def set_up(self, **settings):
        """Writes /etc/norvak-update.conf."""
        self.machine.write("/etc/norvak-update.conf",
                           "".join(f"{name}={value}\n" for name, value in settings.items()))

    def left_to_do(self):
        """What a person would have to do about this host; empty if nothing."""
        found = []
        agents = self.agents()
        if len(agents) != 1:
            found.append(f"{len(agents)} agents run")
        pid_file = self.file("norvak.pid")
        if not pid_file.exists() or pid_file.read_text().strip() not in map(str, agents):
            found.append("norvak.pid does not name the agent")
        found += [f"{path.name} was left" for path in self.file("").iterdir()
                  if path.name == "update" or path.name.startswith("update_norvak_")]
        if self.machine.file(f"{STATE}/run").exists():
            found.append("the record of the run was left")
        return found

    def wait_until_recovered(self, seconds=60):
        """Waits until nothing is left to do; what is left otherwise."""
        try:
            self.machine.wait_until_idle(RECOVERY)
            self.machine.wait_for(lambda: not self.left_to_do(), seconds=seconds)
        except AssertionError:
            pass
        return self.left_to_do()


def publish(server, installation, with_config=True):
    """Publishes something new for every update. The kernel's directory is known only later."""
    files = {"update": _SCRIPT, "norvak_agent": installation.new_agent}
    if with_config:
        # The package's own settings, which an interrupted update leaves in place.
        files["config.xml"] = config_xml({"update_host": server.url, "update_type": "0",
                                          "version": "abcdef0.0.0",
                                          "kernel_update_host": server.url,
                                          "nginx_update_host": server.url})
    server.publish({software.VERSION_PATH[1:]: f"{software.NEW_VERSION}\n".encode(),
                    software.PACKAGE_PATH[1:]: package(files)})
    rules.publish_rules(server)
    web_server.publish_build(server)


def publish_modules(server, requests):
    """Publishes kernel modules where the @a requests of a run have looked for them."""
    first = next(request for request in requests if request.startswith("GET /kernels/"))
    directory = first[len("GET /"):].rsplit("/", 2)[0]
    for module in MODULES:
        content = f"new {module}".encode()
        digest = rules.digest(content)
        server.publish({f"{directory}/{module}/md5": f"{digest}\n".encode(),
                        f"{directory}/{module}/{module}.ko": content})
