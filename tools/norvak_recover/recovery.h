// What has to be done around a run of the updater so that nothing that ends it leaves a host that
// waits for a person. All steps expect that the caller holds the host lock. They print what they
// change to standard error.
#pragma once

#include <string>

#include "update_type.h"

namespace recover {

enum class Result {
  kDone = 0,
  kFailed = 1,          ///< the reason has been printed
  kRecoveryNeeded = 2,  ///< recover() has to be called first
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
/// agent if it ran before and does not run now: at boot, or if the run was interrupted before this
/// boot, not before its own service had 60 seconds for that.
[[nodiscard]] Result recover(bool at_boot);

/// The path of the update log; empty if there is none, or if logrotate would take its path for a
/// pattern or for something else than a path.
[[nodiscard]] std::string rotatable_log();

}  // namespace recover
