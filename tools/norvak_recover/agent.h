// Starting the agent.
#pragma once

#include <string>

namespace recover {

/// Whether the agent runs: one of its processes exists at two moments 0.2 seconds apart. A process
/// that is being killed can still exist at the first one.
[[nodiscard]] bool agent_is_up(const std::string& install_dir);

/// Starts the agent as the updater does, with LD_LIBRARY_PATH set to the install directory, in a
/// session and, under systemd, a scope of its own. Does not wait for startup.sh, which may never
/// return.
void start_agent(const std::string& install_dir);

}  // namespace recover
