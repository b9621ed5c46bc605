// The processes of the updater and the agent. Nothing here sends a signal.
#pragma once

#include <sys/types.h>

#include <optional>
#include <string>
#include <vector>

#include "update_type.h"

namespace host {

/// A live updater.
struct RunningUpdater {
  pid_t pid;
  UpdateType type;
  bool certain;  ///< it uses this install directory; false if that cannot be read
};

/// The live updaters: processes whose executable is `norvak_update` and that see, in their own
/// mount namespace, the same install directory as this process.
[[nodiscard]] std::vector<RunningUpdater> find_updaters(const std::string& install_dir);

/// Whether one of @a updaters has the type @a type and certainly uses this install directory.
[[nodiscard]] bool is_running(const std::vector<RunningUpdater>& updaters, UpdateType type);

/// The paths of the process's executable and working directory, and its arguments.
/// @return nothing if this user may not read them
[[nodiscard]] std::optional<std::vector<std::string>> process_paths(pid_t pid);

/// Whether the process exists and is not a zombie.
[[nodiscard]] bool is_alive(pid_t pid);

enum class AgentState { kRunning, kDown, kUnknown };

/// Whether the agent's pid file names a live process. kUnknown: this user may not read the file.
[[nodiscard]] AgentState agent_state(const std::string& install_dir);

}  // namespace host
