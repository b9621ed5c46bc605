// The record of a run that has begun and not ended. It is on disk before the updater starts, so it
// remains as evidence however the run ends.
#pragma once

#include <sys/types.h>

#include <ctime>
#include <optional>
#include <string>

#include "update_type.h"

namespace recover {

/// The state of the host before the run.
struct RunRecord {
  host::UpdateType type = host::UpdateType::kSoft;
  bool agent_ran = false;      ///< the agent ran, and is to run afterwards
  std::time_t boot_time = 0;   ///< the result of boot_time() at the beginning
  std::string version;         ///< settings of config.xml
  std::string update_type;     ///< likewise
  std::optional<mode_t> mode;  ///< permission bits of the web server program, if it existed
};

/// @return nothing if no run is recorded
[[nodiscard]] std::optional<RunRecord> read_run_record();

/// @return false if the record cannot be written
[[nodiscard]] bool write_run_record(const RunRecord& record);

/// Removes the record, once the run has ended or its effects have been repaired.
void remove_run_record();

/// When this host was booted, in seconds since the epoch; moves when the clock is set. 0 if it
/// cannot be read.
[[nodiscard]] std::time_t boot_time();

/// Whether the host has been booted since @a record was written. True as well if the clock was set
/// by more than 10 seconds.
[[nodiscard]] bool was_rebooted_since(const RunRecord& record);

}  // namespace recover
