// Steps before and after a run of the updater, so that a host recovers without help however the run
// ends. Except for rotatable_log, the caller must hold the host lock. What a step changes is
// printed to standard error.
#pragma once

#include <string>

#include "update_type.h"

namespace recover {

enum class Result {
  kDone = 0,
  kFailed = 1,          ///< the reason has been printed
  kRecoveryNeeded = 2,  ///< call recover() first
  kNoAgent = 3,         ///< there is no agent on this host, so there is nothing to do
};

/// Records that a run begins: whether the agent runs, and what the run could lose. Removes a
/// norvak.pid through which the run would kill something other than the agent.
///
/// @param restore_agent  false: the agent stays stopped if the run stops it
/// @return kNoAgent without config.xml; kRecoveryNeeded if an interrupted run has left something
[[nodiscard]] Result begin_run(host::UpdateType type, bool restore_agent);

/// Completes a run that came to its end, and removes its record once everything is on disk.
///
/// Type 0: moves the agent that was started into a scope of its own. Type 2: restores the
/// permission bits of the web server program. Type 3: waits up to 30 seconds for the agent to
/// return.
/// @return kRecoveryNeeded if the agent ran before and does not run now: the record remains
[[nodiscard]] Result end_run(host::UpdateType type);

/// Repairs what an interrupted run has left; without evidence of one it changes nothing. Waits for
/// the end of updaters and of what they started, at most 10 minutes.
///
/// Removes work directories, the marker, and a norvak.pid that does not name the agent. Starts the
/// agent if it ran before and does not run now. If the host was rebooted since, the agent's own
/// service first gets 60 seconds to start it.
///
/// @param at_boot  the host is booting; otherwise the run's record shows whether it was rebooted
[[nodiscard]] Result recover(bool at_boot);

/// The path of the update log; empty if there is no log, or if logrotate would not take its path
/// literally.
[[nodiscard]] std::string rotatable_log();

}  // namespace recover
