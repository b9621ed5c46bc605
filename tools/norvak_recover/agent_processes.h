// The processes below the agent's install directory. Nothing here sends a signal.
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

namespace recover {

/// The processes that use an install directory, at one moment.
struct InstallDirProcesses {
  /// The agent: live processes whose executable or script, deleted or not, lies in the install
  /// directory outside `nginx/`, `tool/` and the work directories of the updater. startup.sh and
  /// the programs of this package are not the agent.
  std::vector<pid_t> agents;
  /// Those that run startup.sh.
  std::vector<pid_t> startup_scripts;
  /// Those that have their executable, script, working directory or an open file in a work
  /// directory of the updater, and do not descend from the agent: what an interrupted run left
  /// running, such as the package's script.
  std::vector<pid_t> workers;
};

/// Examines all processes except this one and those that see another directory under this path, as
/// in a container. Only root can examine the processes of other users.
[[nodiscard]] InstallDirProcesses find_processes(const std::string& install_dir);

/// Whether a process can be the agent in the widest sense: its executable, its working directory or
/// one of its arguments lies below the install directory. True as well for a process that cannot be
/// examined.
[[nodiscard]] bool may_be_agent(pid_t pid, const std::string& install_dir);

}  // namespace recover
