// The processes of updater and agent. Nothing here sends a signal.
#pragma once

#include <sys/types.h>

#include <optional>
#include <string>
#include <vector>

#include "update_type.h"

namespace host {

/// A live updater that works on this host's install directory.
struct RunningUpdater {
  pid_t pid;
  UpdateType type;
  bool certain;  ///< false: whose directory it works on cannot be read without more rights
};

/// The live updaters: processes whose executable is `norvak_update` and that see the same install
/// directory as this process, in their own mount namespace.
[[nodiscard]] std::vector<RunningUpdater> find_updaters(const std::string& install_dir);

/// Whether the process exists and is no zombie.
[[nodiscard]] bool is_alive(pid_t pid);

enum class AgentState { kRunning, kDown, kUnknown };

/// Whether the agent's pid file names a live process. kUnknown: the file cannot be read without more
/// rights.
[[nodiscard]] AgentState agent_state(const std::string& install_dir);

}  // namespace host
