// Starting the agent.
#pragma once

#include <string>

namespace recover {

/// Whether the agent runs: one of its processes is there at two moments a fifth of a second apart.
/// A process that is being killed can still be there at the first one.
[[nodiscard]] bool agent_is_up(const std::string& install_dir);

/// Starts the agent as the updater does, with LD_LIBRARY_PATH set to the install directory, in a
/// session and, under systemd, a scope of its own. Does not wait for startup.sh, which may never
/// return.
void start_agent(const std::string& install_dir);

}  // namespace recover
